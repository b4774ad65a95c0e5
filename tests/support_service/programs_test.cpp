/// The two programs as a user runs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include "program.h"
#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using test_support::Program;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

class ProgramsTest : public ::testing::Test {
 protected:
  void StartService(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {SUPPORT_SERVICE_PROGRAM, "--data", data_.string(), "--allow-list"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    service_ = std::make_unique<Program>(arguments, temp_.File("service.out"));
    grpc_url_ = service_->WaitForLine("grpc listening on ");
    css_url_ = service_->WaitForLine("css listening on ");
    ASSERT_EQ(service_->WaitForLine("control socket "), (data_ / "control.sock").string());
    EnrolOver(data_ / "control.sock", {"SN1", "SN2"});
  }

  std::unique_ptr<Program> Supportctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {SUPPORTCTL_PROGRAM, "--data", data_.string()});
    return std::make_unique<Program>(arguments, temp_.File("supportctl.out"));
  }

  /// A device that is connected: the one that a ticket goes to whose device is not named.
  std::unique_ptr<ScriptedDevice> ConnectDevice(const std::string& serial_number = "SN1") {
    auto device = std::make_unique<ScriptedDevice>(grpc_url_);
    device->Hello(serial_number);
    EXPECT_NE(WaitForEvent("device connected: \"" + serial_number), "");
    return device;
  }

  /// Has the device accept a ticket and report this status. @return the ticket's id.
  std::string ServeOneTicket(ScriptedDevice& device, const std::string& status) {
    const auto delivery = device.Next();
    if (!delivery) return "";
    device.Answer(delivery->ticket_id(), tarvo::support::v1::CLIENT_STATUS_ACCEPTED);
    EXPECT_NE(WaitForEvent("ticket " + delivery->ticket_id() + " accepted"), "");
    const std::string auth = "AUTH-TOKEN: " + TokenOf(*delivery);
    WriteFile(temp_.path() / "debug.dat", "archive");
    EXPECT_EQ(
        PostForm(css_url_ + "/orvane/ps_files", {auth}, DeviceForm(temp_.path() / "debug.dat", "SN1", {"a"}))
            .status,
        200);
    EXPECT_EQ(Request("POST", css_url_ + "/orvane/ps_results", {auth},
                      R"({"serial_number":"SN1","status":")" + status + "\"}")
                  .status,
              200);
    return delivery->ticket_id();
  }

  std::string WaitForEvent(const std::string& part) {
    return Eventually([&] { return service_->Output().find(part) != std::string::npos; }) ? part : "";
  }

  TemporaryFolder temp_;
  std::filesystem::path data_ = temp_.path() / "data";
  std::unique_ptr<Program> service_;
  std::string grpc_url_;
  std::string css_url_;
};

TEST_F(ProgramsTest, TicketIsFollowedToItsSuccess) {
  StartService();
  const auto device = ConnectDevice();
  const auto send = Supportctl({"send", "--apps", "a,b", "--fetch", temp_.File("fetched")});
  const std::string id = ServeOneTicket(*device, "Success");
  EXPECT_EQ(send->Wait(), 0) << send->Output();
  EXPECT_THAT(send->Output(), HasSubstr(id + "\n"));
  EXPECT_EQ(ReadFile(data_ / "archives" / (id + "-1.dat")), "archive");
  EXPECT_EQ(ReadFile(temp_.path() / "fetched" / (id + "-1.dat")), "archive");
  const auto show = Supportctl({"show", id.substr(0, 8)});
  EXPECT_EQ(show->Wait(), 0);
  std::size_t position = 0;
  for (const char* event : {"created", "delivered", "accepted", "uploaded", "reported"}) {
    position = show->Output().find(event, position);
    EXPECT_NE(position, std::string::npos) << event << " in order in\n" << show->Output();
  }
}

TEST_F(ProgramsTest, AnyOtherReportIsAFailure) {
  StartService();
  const auto send = Supportctl({"send", "SN1", "--apps", "", "--wait"});
  ServeOneTicket(*ConnectDevice(), "Failed to upload debug file to server");
  EXPECT_EQ(send->Wait(), 1) << send->Output();
}

TEST_F(ProgramsTest, WaitEndsAtItsLimit) {
  StartService();
  const auto send = Supportctl({"send", "SN1", "--apps", "a", "--wait", "1"});
  EXPECT_EQ(send->Wait(), 5) << send->Output();
}

TEST_F(ProgramsTest, TicketWhoseDeviceIsNotNamedGoesToTheOneThatIsConnected) {
  StartService();
  const auto nobody = Supportctl({"send", "--apps", "a"});
  EXPECT_EQ(nobody->Wait(), 1) << nobody->Output();
  const auto first = ConnectDevice("SN1");
  const auto send = Supportctl({"send", "--apps", "a"});
  EXPECT_EQ(send->Wait(), 0) << send->Output();
  EXPECT_TRUE(first->Next());
  const auto second = ConnectDevice("SN2");
  const auto either = Supportctl({"send", "--apps", "a"});
  EXPECT_EQ(either->Wait(), 1) << either->Output();
}

TEST_F(ProgramsTest, QueuedTicketIsTakenBack) {
  StartService();
  const auto send = Supportctl({"send", "SN1", "--apps", "a"});
  ASSERT_EQ(send->Wait(), 0) << send->Output();
  const std::string id = send->Output().substr(0, 16);
  const auto cancel = Supportctl({"cancel", id.substr(0, 6)});
  EXPECT_EQ(cancel->Wait(), 0) << cancel->Output();
  const auto again = Supportctl({"cancel", id});
  EXPECT_EQ(again->Wait(), 1);
  EXPECT_THAT(again->Output(), HasSubstr("can't be cancelled"));
}

TEST_F(ProgramsTest, ConfigurationIsReadAgainAtSighup) {
  const std::string file = temp_.File("service.conf");
  WriteFile(file, "retry-seconds = 3\n");
  StartService({"--config", file});
  const auto read_again = [&](const std::string& text) {
    WriteFile(file, text);
    service_->Signal(SIGHUP);
  };
  const auto limit = [this](const std::string& name) -> Json::Value {
    const Json::Value settings = ParseJson(AskApi(data_ / "control.sock", "GET", "/settings").body);
    for (const Json::Value& each : settings["limits"]) {
      if (each["name"] == name) return each["most"];
    }
    return {};
  };
  EXPECT_EQ(limit("queued_tickets_per_device"), 100);
  read_again("retry-seconds = 4\nmax-queued-tickets = 1\nkeep-days = 0\nhttp-address = 127.0.0.1:5\n");
  for (const char* line : {"the configuration was read again\n", "http-address: changed, takes a restart\n",
                           "retry-seconds: changed, and counts from now on\n"}) {
    EXPECT_NE(WaitForEvent(line), "") << line;
  }
  EXPECT_EQ(limit("queued_tickets_per_device"), 1);
  EXPECT_EQ(limit("archive_days"), Json::Value()) << "no limit";
  EXPECT_NE(SendTicketOver(data_ / "control.sock", "SN1"), "");
  EXPECT_EQ(SendTicketOver(data_ / "control.sock", "SN1"), "") << "one waits already";

  read_again("max-queued-tickets = 7\nmax-upload = much\n");
  EXPECT_NE(WaitForEvent("the configuration can't be used, all stays as it was: --max-upload"), "");
  EXPECT_EQ(limit("queued_tickets_per_device"), 1);
  std::filesystem::remove(file);
  service_->Signal(SIGHUP);
  EXPECT_NE(WaitForEvent(file), "");
  EXPECT_EQ(AskApi(data_ / "control.sock", "GET", "/tickets").status, 200) << "it still serves";
}

TEST_F(ProgramsTest, LimitOnTheSizeOfFilesIsToldAndEndsNothing) {
  service_ = std::make_unique<Program>(
      std::vector<std::string>{"bash", "-c", "ulimit -f 300; exec \"$@\"", "bash", SUPPORT_SERVICE_PROGRAM,
                               "--data", data_.string(), "--allow-list", "--max-queued-tickets", "1000"},
      temp_.File("service.out"));
  ASSERT_NE(service_->WaitForLine("control socket "), "");
  EnrolOver(data_ / "control.sock", {"SN1"});
  Json::Value ticket;
  ticket["device"] = "SN1";
  ticket["apps"].append("a");
  ReceivedAnswer answer;
  for (int i = 0; i < 1000 && answer.status != 503; ++i) {
    answer = AskApi(data_ / "control.sock", "POST", "/tickets", ticket);
  }
  EXPECT_EQ(answer.status, 503);
  EXPECT_THAT(answer.body, HasSubstr("a limit on the size of files"));
  EXPECT_EQ(AskApi(data_ / "control.sock", "GET", "/tickets").status, 200) << "the service still answers";
}

TEST_F(ProgramsTest, TicketsAreRememberedByTheNextService) {
  StartService();
  const std::string id = SendTicketOver(data_ / "control.sock", "SN1");
  StartService();  // the former one gets SIGKILL
  EXPECT_EQ(ServeOneTicket(*ConnectDevice(), "Success"), id);
  EXPECT_EQ(ReadFile(data_ / "archives" / (id + "-1.dat")), "archive");
}

TEST_F(ProgramsTest, BackupOfOneServiceIsRestoredForAnother) {
  StartService();
  const std::string id = SendTicketOver(data_ / "control.sock", "SN1");
  ServeOneTicket(*ConnectDevice(), "Success");
  std::filesystem::create_directory(temp_.path() / "backups");
  const auto backup = Supportctl({"backup", temp_.File("backups")});
  ASSERT_EQ(backup->Wait(), 0) << backup->Output();
  const std::string file = std::filesystem::directory_iterator(temp_.path() / "backups")->path();
  EXPECT_THAT(file, ContainsRegex("/support-service-20[0-9]{6}T[0-9]{6}Z\\.tar$"));
  EXPECT_EQ(ModeOf(file), 0600U);
  service_.reset();
  Program busy({SUPPORT_SERVICE_PROGRAM, "--data", data_.string(), "--restore", file},
               temp_.File("busy.out"));
  EXPECT_EQ(busy.Wait(), 1);
  EXPECT_THAT(busy.Output(), HasSubstr("is not empty"));
  data_ = temp_.path() / "restored";
  Program restore({SUPPORT_SERVICE_PROGRAM, "--data", data_.string(), "--restore", file},
                  temp_.File("restore.out"));
  EXPECT_EQ(restore.Wait(), 0);
  EXPECT_THAT(restore.Output(), HasSubstr("1 ticket, 2 devices, 0 accounts, 1 archive\n"));
  StartService();
  EXPECT_EQ(ReadFile(data_ / "archives" / (id + "-1.dat")), "archive");
  EXPECT_EQ(Supportctl({"check"})->Wait(), 0);
}

TEST_F(ProgramsTest, MissingServiceIsExplained) {
  const auto send = Supportctl({"send", "SN1", "--apps", "a"});
  EXPECT_EQ(send->Wait(), 3) << send->Output();
}

TEST_F(ProgramsTest, KilledServiceIsExplained) {
  StartService();
  service_.reset();  // SIGKILL: its socket stays
  const auto send = Supportctl({"send", "SN1", "--apps", "a"});
  EXPECT_EQ(send->Wait(), 3) << send->Output();
  StartService();  // takes over the folder and the socket
}

TEST_F(ProgramsTest, SignalsEndTheServiceWithOpenStreamsAndFollowersWithStatus0) {
  for (const int signal : {SIGTERM, SIGINT}) {
    StartService();
    ScriptedDevice device(grpc_url_);
    device.Hello("SN1");
    const auto send = Supportctl({"send", "SN1", "--apps", "a", "--wait", "3600"});
    ASSERT_TRUE(device.Next());
    service_->Signal(signal);
    EXPECT_EQ(service_->Wait(), 0) << signal;
    EXPECT_EQ(device.End().value().error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_FALSE(std::filesystem::exists(data_ / "control.sock"));
  }
}

TEST_F(ProgramsTest, StalledUploadHoldsTheEndForAsLongAsIsSaid) {
  StartService({"--stop-seconds", "1"});
  const auto device = ConnectDevice();
  ASSERT_NE(SendTicketOver(data_ / "control.sock", "SN1"), "");
  const auto delivery = device->Next();
  ASSERT_TRUE(delivery);
  device->Answer(delivery->ticket_id(), tarvo::support::v1::CLIENT_STATUS_ACCEPTED);
  ASSERT_NE(WaitForEvent("ticket " + delivery->ticket_id() + " accepted"), "");
  RawHttp http(css_url_);
  http.Send("POST /orvane/ps_files HTTP/1.1\r\nHost: x\r\nAUTH-TOKEN: " + TokenOf(*delivery) +
            "\r\nContent-Type: multipart/form-data; boundary=XX\r\nContent-Length: 100000\r\n\r\n--XX\r\n");
  ASSERT_TRUE(http.AwaitRead());
  service_->Signal(SIGTERM);
  EXPECT_EQ(service_->Wait(), 0);
  EXPECT_THAT(service_->Output(), HasSubstr("cut off, whose devices try again: 1"));
}

TEST_F(ProgramsTest, WhatCannotBeServedIsExplained) {
  StartService();
  Program same_folder({SUPPORT_SERVICE_PROGRAM, "--data", data_.string(), "--allow-list"},
                      temp_.File("second.out"));
  EXPECT_EQ(same_folder.Wait(), 1);
  EXPECT_THAT(same_folder.Output(), HasSubstr("another support service uses the data folder"));
  Program same_port({SUPPORT_SERVICE_PROGRAM, "--allow-list", "--data", temp_.File("d2"), "--grpc-address",
                     GrpcTarget(grpc_url_)},
                    temp_.File("third.out"));
  EXPECT_EQ(same_port.Wait(), 1);
  EXPECT_THAT(same_port.Output(), HasSubstr("in use"));
  Program bad_option({SUPPORT_SERVICE_PROGRAM, "--http-address", "nowhere"}, temp_.File("fourth.out"));
  EXPECT_EQ(bad_option.Wait(), 2);
}

TEST_F(ProgramsTest, EventLinesCarryATime) {
  StartService();
  ASSERT_NE(SendTicketOver(data_ / "control.sock", "SN1"), "");
  ASSERT_NE(WaitForEvent("created"), "");
  EXPECT_THAT(service_->Output(),
              ContainsRegex("\n20[0-9-]+T[0-9:.]+Z ticket [0-9a-f]{16} created: apps \\[\"a\"\\]"));
}

TEST_F(ProgramsTest, EveryLineIsAnObjectWhereThatIsWanted) {
  service_ =
      std::make_unique<Program>(std::vector<std::string>{SUPPORT_SERVICE_PROGRAM, "--data", data_.string(),
                                                         "--allow-list", "--log-format", "json"},
                                temp_.File("service.out"));
  ASSERT_NE(service_->WaitForLine(R"({"message":"control socket )"), "");
  EnrolOver(data_ / "control.sock", {"SN1"});
  ASSERT_NE(SendTicketOver(data_ / "control.sock", "SN1"), "");
  service_->Signal(SIGTERM);
  EXPECT_EQ(service_->Wait(), 0);
  std::istringstream lines(service_->Output());
  std::string messages;
  for (std::string line; std::getline(lines, line);) {
    const Json::Value object = ParseJson(line);
    ASSERT_TRUE(object.isObject() && object["time"].isString()) << line;
    messages += object["message"].asString() + "\n";
  }
  EXPECT_THAT(messages, ContainsRegex("grpc listening on http://127.0.0.1:[0-9]+\n"));
  EXPECT_THAT(messages, ContainsRegex("ticket [0-9a-f]{16} created: apps \\[\"a\"\\]"));
  EXPECT_THAT(messages, HasSubstr("service ends: signal 15"));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
