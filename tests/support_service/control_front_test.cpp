#include "control_front.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace proto = tarvo::support::v1;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ControlServiceTest : public ServiceTest {
 protected:
  void Connect() {
    Start();
    stub_ = proto::ControlService::NewStub(
        grpc::CreateChannel(UnixTarget(service().control_socket()), grpc::InsecureChannelCredentials()));
    context_.set_deadline(std::chrono::system_clock::now() + kPatience);
  }

  grpc::Status Send(const std::vector<std::string>& apps, const std::string& device) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kPatience);
    proto::SendTicketRequest request;
    for (const std::string& app : apps) request.add_apps(app);
    request.set_device(device);
    proto::SendTicketResponse response;
    grpc::Status status = stub_->SendTicket(&context, request, &response);
    id_ = response.ticket_id();
    return status;
  }

  std::unique_ptr<proto::ControlService::Stub> stub_;
  grpc::ClientContext context_;
  std::string id_;  ///< Of the ticket that was sent last.
};

TEST_F(ControlServiceTest, SocketAndItsFolderAreClosedToOthers) {
  Start();
  struct stat status {};
  ASSERT_EQ(stat(service().control_socket().c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  ASSERT_EQ(stat(settings_.data_folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
}

TEST_F(ControlServiceTest, SocketIsRemovedAtTheEndAndAStaleOneReplaced) {
  Start();
  const std::string path = service().control_socket();
  service_.reset();
  EXPECT_FALSE(std::filesystem::exists(path));
  WriteFile(path, "left by a killed service");
  Connect();
  EXPECT_TRUE(Send({"a"}, "").ok());
}

TEST_F(ControlServiceTest, FolderNamesMayHoldAnyCharacter) {
  settings_.data_folder = temp_.path() / "my data 50%?#ä";
  Connect();
  EXPECT_TRUE(Send({"a"}, "").ok());
}

TEST_F(ControlServiceTest, WatcherSeesEveryChangeUpToTheReport) {
  Connect();
  ASSERT_TRUE(Send({"a", "b"}, "SN1").ok());
  proto::WatchTicketRequest request;
  request.set_ticket_id(id_);
  const auto reader = stub_->WatchTicket(&context_, request);
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  ASSERT_TRUE(device.Next());
  device.Answer(id_, proto::CLIENT_STATUS_REJECTED, "busy");
  ASSERT_TRUE(device.Next());
  device.Answer(id_, proto::CLIENT_STATUS_ACCEPTED);
  ASSERT_TRUE(Eventually([&] { return StateOf(id_) == TicketState::kAccepted; }));
  book().RecordUpload(id_, {3, "abc", "SN1", {"a"}, {}});
  book().RecordReport(id_, {"Success", "SN1", std::chrono::system_clock::now()});
  std::vector<proto::TicketState> states;
  proto::TicketChange change;
  while (reader->Read(&change)) states.push_back(change.state());
  EXPECT_TRUE(reader->Finish().ok());
  EXPECT_THAT(states, ElementsAre(proto::TICKET_STATE_WAITING, proto::TICKET_STATE_DELIVERED,
                                  proto::TICKET_STATE_REJECTED, proto::TICKET_STATE_DELIVERED,
                                  proto::TICKET_STATE_ACCEPTED, proto::TICKET_STATE_UPLOADED,
                                  proto::TICKET_STATE_REPORTED));
  EXPECT_EQ(change.detail(), "Success");
  EXPECT_GT(change.unix_time_ms(), 1600000000000);
}

TEST_F(ControlServiceTest, ReportTextOfAnyBytesReachesTheWatcher) {
  Connect();
  ASSERT_TRUE(Send({"a"}, "").ok());
  book().RecordReport(id_, {"bad \xff\n", "", {}});
  proto::WatchTicketRequest request;
  request.set_ticket_id(id_);
  const auto reader = stub_->WatchTicket(&context_, request);
  proto::TicketChange change;
  while (reader->Read(&change)) {
  }
  EXPECT_TRUE(reader->Finish().ok());
  EXPECT_EQ(change.detail(), "bad \\xff\\x0a");
}

TEST_F(ControlServiceTest, UnknownTicketCannotBeWatched) {
  Connect();
  const auto reader = stub_->WatchTicket(&context_, {});
  proto::TicketChange change;
  EXPECT_FALSE(reader->Read(&change));
  EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::NOT_FOUND);
}

TEST_F(ControlServiceTest, ShutdownEndsAWatch) {
  Connect();
  ASSERT_TRUE(Send({"a"}, "").ok());
  proto::WatchTicketRequest request;
  request.set_ticket_id(id_);
  const auto reader = stub_->WatchTicket(&context_, request);
  proto::TicketChange change;
  ASSERT_TRUE(reader->Read(&change));
  service_.reset();
  EXPECT_FALSE(reader->Read(&change));
  EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(ControlServiceTest, NamesAreChecked) {
  Connect();
  EXPECT_TRUE(Send({}, "").ok());
  EXPECT_TRUE(Send({std::string(256, 'a')}, std::string(256, 'b')).ok());
  EXPECT_EQ(Send({"a", ""}, "").error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(Send({std::string(257, 'a')}, "").error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(Send({}, std::string(257, 'b')).error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  const grpc::Status status = Send(std::vector<std::string>(1000, std::string(200, 'a')), "");
  EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_THAT(status.error_message(), HasSubstr("too long"));
  EXPECT_EQ(book().Tickets().size(), 2U);
}

TEST_F(ControlServiceTest, TicketsAndDevicesAreListed) {
  Connect();
  ASSERT_TRUE(Send({"a", "b"}, "SN9").ok());
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1\n");
  ASSERT_TRUE(Eventually([&] { return book().Devices().size() == 1; }));
  proto::ListTicketsResponse tickets;
  ASSERT_TRUE(stub_->ListTickets(&context_, {}, &tickets).ok());
  ASSERT_EQ(tickets.tickets_size(), 1);
  EXPECT_EQ(tickets.tickets(0).ticket_id(), id_);
  EXPECT_THAT(tickets.tickets(0).apps(), ElementsAre("a", "b"));
  EXPECT_EQ(tickets.tickets(0).device(), "SN9");
  EXPECT_EQ(tickets.tickets(0).last_change().state(), proto::TICKET_STATE_WAITING);
  grpc::ClientContext context;
  proto::ListDevicesResponse devices;
  ASSERT_TRUE(stub_->ListDevices(&context, {}, &devices).ok());
  ASSERT_EQ(devices.devices_size(), 1);
  EXPECT_EQ(devices.devices(0).serial_number(), "SN1\\x0a");
  EXPECT_THAT(devices.devices(0).peer(), HasSubstr("127.0.0.1"));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
