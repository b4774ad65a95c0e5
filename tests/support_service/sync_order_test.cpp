/// What survives a power cut: nothing is said to a device or an operator before it is on disk. A shim notes the order
/// of the service's calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "program.h"
#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace proto = tarvo::support::v1;
using test_support::Program;
using ::testing::HasSubstr;

class SyncOrderTest : public ::testing::Test {
 protected:
  SyncOrderTest()
      : program_({SUPPORT_SERVICE_PROGRAM, "--data", data_.string(), "--allow-list"},
                 (temp_.path() / "output").string(),
                 {{"LD_PRELOAD", SANITIZER_RUNTIME SYNC_ORDER_SHIM}, {"SYNC_ORDER_LOG", log_.string()}}),
        css_url_(program_.WaitForLine("css listening on ")),
        control_socket_(program_.WaitForLine("control socket ")),
        device_(program_.WaitForLine("grpc listening on ")) {
    EnrolOver(control_socket_, {"SN1"});
    device_.Hello("SN1");
  }

  std::string SendTicket() {
    const std::string id = SendTicketOver(control_socket_, "SN1");
    EXPECT_NE(id, "");
    return id;
  }

  [[nodiscard]] std::vector<std::string> Calls() const {
    std::vector<std::string> calls;
    std::istringstream text(ReadFile(log_));
    for (std::string line; std::getline(text, line);) calls.push_back(line);
    return calls;
  }

  /// The calls from here on; those before are of no interest any more.
  void Forget() { passed_ = Calls().size(); }

  /// Expects a call with both texts behind the former one that was looked for.
  void ExpectNext(const std::string& what, const std::string& detail) {
    const auto calls = Calls();
    for (std::size_t place = passed_; place < calls.size(); ++place) {
      if (calls[place].rfind(what, 0) != 0 || calls[place].find(detail) == std::string::npos) continue;
      passed_ = place + 1;
      return;
    }
    std::string text;
    for (const std::string& call : calls) text += call.substr(0, 150) + "\n";
    ADD_FAILURE() << what << " " << detail << " is missing behind call " << passed_ << " of\n" << text;
  }

  TemporaryFolder temp_;
  const std::filesystem::path data_ = temp_.path() / "data";
  const std::filesystem::path log_ = temp_.path() / "calls";
  Program program_;
  const std::string css_url_;
  const std::string control_socket_;
  ScriptedDevice device_;
  std::size_t passed_ = 0;
};

TEST_F(SyncOrderTest, EverythingIsOnDiskBeforeAnybodyHearsOfIt) {
  // A ticket: remembered, then sent to the device.
  Forget();
  const std::string id = SendTicket();
  const auto delivery = device_.Next();
  ASSERT_TRUE(delivery);
  const std::string token = TokenOf(*delivery);
  ExpectNext("sync ", "/tickets.db-wal");
  ExpectNext("send ", token);
  device_.Answer(id, proto::CLIENT_STATUS_ACCEPTED);

  // An upload: content, name, folder, database, answer.
  ASSERT_TRUE(Eventually([&] { return program_.Output().find(id + " accepted") != std::string::npos; }));
  Forget();
  WriteFile(temp_.path() / "debug.dat", "archive");
  const ReceivedAnswer upload = PostForm(css_url_ + "/orvane/ps_files", {"AUTH-TOKEN: " + token},
                                         DeviceForm(temp_.path() / "debug.dat", "SN1", {}));
  ASSERT_EQ(upload.status, 200) << upload.body;
  ExpectNext("sync ", "/incoming/");
  ExpectNext("name ", "/archives/" + id + "-1.dat");
  ExpectNext("sync ", "/archives");
  ExpectNext("sync ", "/tickets.db-wal");
  ExpectNext("send HTTP/1.1 200", "");

  // A report: database, answer.
  Forget();
  const ReceivedAnswer report = Request("POST", css_url_ + "/orvane/ps_results", {"AUTH-TOKEN: " + token},
                                        R"({"status": "Success", "serial_number": "SN1"})");
  ASSERT_EQ(report.status, 200) << report.body;
  ExpectNext("sync ", "/tickets.db-wal");
  ExpectNext("send HTTP/1.1 200", "");
}

TEST_F(SyncOrderTest, NewTicketIsOnDiskBeforeItsOperatorHearsOfIt) {
  device_.Cancel();
  ASSERT_TRUE(Eventually([&] { return program_.Output().find("device disconnected") != std::string::npos; }));
  Forget();
  const std::string id = SendTicket();
  ExpectNext("sync ", "/tickets.db-wal");
  ExpectNext("send ", id);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
