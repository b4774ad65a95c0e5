/// The two programs as a user runs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "program.h"
#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using test_support::Program;
using ::testing::HasSubstr;

class ProgramsTest : public ::testing::Test {
 protected:
  void StartService(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {SUPPORT_SERVICE_PROGRAM, "--data", data_.string()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    service_ = std::make_unique<Program>(arguments, temp_.File("service.out"));
    grpc_url_ = service_->WaitForLine("grpc listening on ");
    css_url_ = service_->WaitForLine("css listening on ");
    ASSERT_EQ(service_->WaitForLine("control socket "), (data_ / "control.sock").string());
  }

  std::unique_ptr<Program> Ticket(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TICKET_PROGRAM);
    arguments.insert(arguments.end(), {"--data", data_.string()});
    return std::make_unique<Program>(arguments, temp_.File("ticket.out"));
  }

  /// Plays a device that accepts a ticket and reports this status. @return the ticket's id.
  std::string ServeOneTicket(const std::string& status) {
    ScriptedDevice device(grpc_url_);
    device.Hello("SN1");
    const auto delivery = device.Next();
    if (!delivery) return "";
    device.Answer(delivery->ticket_id(), tarvo::support::v1::CLIENT_STATUS_ACCEPTED);
    EXPECT_NE(WaitForEvent("answered: accepted"), "");
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
  const auto ticket = Ticket({"--apps", "a,b", "--wait", "20"});
  const std::string id = ServeOneTicket("Success");
  EXPECT_EQ(ticket->Wait(), 0) << ticket->Output();
  EXPECT_EQ(ticket->Output().substr(0, 17), id + "\n");
  std::size_t position = 0;
  for (const char* state : {" waiting", " delivered", " accepted", " uploaded", " reported: Success"}) {
    position = ticket->Output().find(state, position);
    EXPECT_NE(position, std::string::npos) << state << " in order in\n" << ticket->Output();
  }
  EXPECT_EQ(ReadFile(data_ / "received" / id / "debug.dat"), "archive");
}

TEST_F(ProgramsTest, AnyOtherReportIsAFailure) {
  StartService();
  const auto ticket = Ticket({"--apps", "", "--device", "SN1", "--wait"});
  ServeOneTicket("Failed to upload debug file to server");
  EXPECT_EQ(ticket->Wait(), 1);
  EXPECT_THAT(ticket->Output(), HasSubstr("reported: Failed to upload debug file to server"));
}

TEST_F(ProgramsTest, WaitEndsAtItsLimit) {
  StartService();
  const auto ticket = Ticket({"--apps", "a", "--wait", "1"});
  EXPECT_EQ(ticket->Wait(), 1);
  EXPECT_THAT(ticket->Output(), HasSubstr("no report within 1 s; the ticket is still waiting"));
}

TEST_F(ProgramsTest, WithoutWaitTheServiceTakingTheTicketIsEnough) {
  StartService();
  const auto ticket = Ticket({"--apps", "a"});
  EXPECT_EQ(ticket->Wait(), 0);
  const std::string id = ticket->Output().substr(0, 16);
  const auto list = Ticket({"--list"});
  EXPECT_EQ(list->Wait(), 0);
  EXPECT_THAT(list->Output(), HasSubstr(id));
}

TEST_F(ProgramsTest, ConnectedDevicesAreListed) {
  StartService();
  ScriptedDevice device(grpc_url_);
  device.Hello("SN1");
  ASSERT_NE(WaitForEvent("device connected"), "");
  const auto list = Ticket({"--devices"});
  EXPECT_EQ(list->Wait(), 0);
  EXPECT_THAT(list->Output(), HasSubstr("\"SN1\" since "));
}

TEST_F(ProgramsTest, MissingServiceIsExplained) {
  const auto ticket = Ticket({"--apps", "a"});
  EXPECT_EQ(ticket->Wait(), 1);
  EXPECT_THAT(ticket->Output(), HasSubstr("no support service to speak with"));
}

TEST_F(ProgramsTest, KilledServiceIsExplained) {
  StartService();
  service_.reset();  // SIGKILL: its socket stays
  const auto ticket = Ticket({"--apps", "a"});
  EXPECT_EQ(ticket->Wait(), 1);
  EXPECT_THAT(ticket->Output(), HasSubstr("the support service does not answer"));
  StartService();  // takes over the folder and the socket
}

TEST_F(ProgramsTest, SignalsEndTheServiceWithOpenStreamsAndWatchersWithStatus0) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    StartService();
    ScriptedDevice device(grpc_url_);
    device.Hello("SN1");
    const auto ticket = Ticket({"--apps", "a", "--wait"});
    ASSERT_TRUE(device.Next());
    service_->Signal(signal);
    EXPECT_EQ(service_->Wait(), 0) << signal;
    EXPECT_EQ(device.End().value().error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(ticket->Wait(), 1);
    EXPECT_FALSE(std::filesystem::exists(data_ / "control.sock"));
  }
}

TEST_F(ProgramsTest, WhatCannotBeServedIsExplained) {
  StartService();
  Program same_folder({SUPPORT_SERVICE_PROGRAM, "--data", data_.string()}, temp_.File("second.out"));
  EXPECT_EQ(same_folder.Wait(), 1);
  EXPECT_THAT(same_folder.Output(), HasSubstr("another support service uses the data folder"));
  Program same_port(
      {SUPPORT_SERVICE_PROGRAM, "--data", temp_.File("d2"), "--grpc-address", GrpcTarget(grpc_url_)},
      temp_.File("third.out"));
  EXPECT_EQ(same_port.Wait(), 1);
  EXPECT_THAT(same_port.Output(), HasSubstr("in use"));
  Program bad_option({SUPPORT_SERVICE_PROGRAM, "--http-address", "nowhere"}, temp_.File("fourth.out"));
  EXPECT_EQ(bad_option.Wait(), 2);
}

TEST_F(ProgramsTest, EventLinesCarryATime) {
  StartService();
  const auto ticket = Ticket({"--apps", "a"});
  EXPECT_EQ(ticket->Wait(), 0);
  ASSERT_NE(WaitForEvent("created"), "");
  EXPECT_THAT(service_->Output(), ::testing::ContainsRegex(
                                      "\n20[0-9-]+T[0-9:.]+Z ticket [0-9a-f]{16} created: apps \\[\"a\"\\]"));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
