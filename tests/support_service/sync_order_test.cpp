/// What survives a power cut: nothing is said to a device or an operator before it is on disk. A shim notes the order
/// of the service's calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "listen_address.h"
#include "program.h"
#include "service_fixture.h"
#include "tarvo/support/v1/control.grpc.pb.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace proto = tarvo::support::v1;
using test_support::Program;
using ::testing::HasSubstr;

class SyncOrderTest : public ::testing::Test {
 protected:
  SyncOrderTest()
      : program_({SUPPORT_SERVICE_PROGRAM, "--data", data_.string()}, (temp_.path() / "output").string(),
                 {{"LD_PRELOAD", SANITIZER_RUNTIME SYNC_ORDER_SHIM}, {"SYNC_ORDER_LOG", log_.string()}}),
        css_url_(program_.WaitForLine("css listening on ")),
        control_(proto::ControlService::NewStub(grpc::CreateChannel(
            UnixTarget(program_.WaitForLine("control socket ")), grpc::InsecureChannelCredentials()))),
        device_(program_.WaitForLine("grpc listening on ")) {
    device_.Hello("SN1");
  }

  std::string SendTicket() {
    grpc::ClientContext context;
    proto::SendTicketRequest request;
    request.set_device("SN1");
    proto::SendTicketResponse response;
    EXPECT_TRUE(control_->SendTicket(&context, request, &response).ok());
    return response.ticket_id();
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
  std::unique_ptr<proto::ControlService::Stub> control_;
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
