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
using ::testing::Pair;

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

  /// Follows the ticket that was sent last.
  std::unique_ptr<grpc::ClientReader<proto::TicketChange>> Watch() {
    proto::WatchTicketRequest request;
    request.set_ticket_id(id_);
    return stub_->WatchTicket(&context_, request);
  }

  static std::vector<proto::TicketChange> ReadAll(grpc::ClientReader<proto::TicketChange>& reader) {
    std::vector<proto::TicketChange> changes;
    for (proto::TicketChange change; reader.Read(&change);) changes.push_back(change);
    return changes;
  }

  /// What the file server would record of the ticket that was sent last.
  UploadFate Upload(std::uint64_t size_bytes, const std::string& sha256) {
    const TicketNumber number = Remembered(id_).number;
    const Archive archive{1, size_bytes, sha256, "SN1", {"a"}, Now().wall};
    return service().dispatcher().Call([&](TicketBook& book) { return book.RecordUpload(number, archive); });
  }
  bool Report(const std::string& status) {
    const TicketNumber number = Remembered(id_).number;
    return service().dispatcher().Call([&](TicketBook& book) { return book.RecordReport(number, status); });
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
  EXPECT_TRUE(Send({"a"}, "SN1").ok());
}

TEST_F(ControlServiceTest, FolderNamesMayHoldAnyCharacter) {
  settings_.data_folder = temp_.path() / "my data 50%?#ä";
  Connect();
  EXPECT_TRUE(Send({"a"}, "SN1").ok());
}

TEST_F(ControlServiceTest, WatcherSeesEveryEventUpToTheReport) {
  Connect();
  ASSERT_TRUE(Send({"a", "b"}, "SN1").ok());
  const auto reader = Watch();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  ASSERT_TRUE(device.Next());
  device.Answer(id_, proto::CLIENT_STATUS_REJECTED);
  ASSERT_TRUE(device.Next());
  device.Answer(id_, proto::CLIENT_STATUS_ACCEPTED);
  ASSERT_TRUE(WaitForState(id_, TicketState::kAccepted));
  ASSERT_EQ(Upload(3, "abc"), UploadFate::kKept);
  ASSERT_TRUE(Report("Success"));
  const std::vector<proto::TicketChange> changes = ReadAll(*reader);
  EXPECT_TRUE(reader->Finish().ok());
  std::vector<std::pair<proto::TicketState, std::string>> events;
  events.reserve(changes.size());
  for (const auto& change : changes) events.emplace_back(change.state(), change.event());
  EXPECT_THAT(events, ElementsAre(Pair(proto::TICKET_STATE_QUEUED, "created"),
                                  Pair(proto::TICKET_STATE_DELIVERED, "delivered"),
                                  Pair(proto::TICKET_STATE_QUEUED, "rejected"),
                                  Pair(proto::TICKET_STATE_DELIVERED, "delivered"),
                                  Pair(proto::TICKET_STATE_ACCEPTED, "accepted"),
                                  Pair(proto::TICKET_STATE_UPLOADED, "uploaded"),
                                  Pair(proto::TICKET_STATE_REPORTED, "reported")));
  EXPECT_EQ(changes.front().detail(), "apps [\"a\", \"b\"], for device \"SN1\"");
  EXPECT_EQ(changes[2].detail(), "again in 50 ms");
  EXPECT_EQ(changes.back().detail(), "Success");
  EXPECT_GT(changes.back().unix_time_ms(), 1600000000000);
}

TEST_F(ControlServiceTest, WatchEndsAtEachEndOfATicket) {
  Connect();
  ASSERT_TRUE(Send({"a"}, "SN1").ok());
  const TicketNumber number = Remembered(id_).number;
  service().dispatcher().Call([&](TicketBook& book) { book.Cancel(number, "the test"); });
  const auto reader = Watch();
  const std::vector<proto::TicketChange> changes = ReadAll(*reader);
  EXPECT_TRUE(reader->Finish().ok());
  ASSERT_EQ(changes.size(), 2U);
  EXPECT_EQ(changes.back().state(), proto::TICKET_STATE_CANCELLED);
  EXPECT_EQ(changes.back().event(), "cancelled");
  EXPECT_EQ(changes.back().detail(), "the test");
}

TEST_F(ControlServiceTest, WatcherSeesWhatHappenedBeforeTheServiceWasRestarted) {
  Connect();
  ASSERT_TRUE(Send({"a"}, "SN1").ok());
  ASSERT_TRUE(Report("Success"));
  stub_.reset();
  service_.reset();
  Connect();
  const auto reader = Watch();
  const std::vector<proto::TicketChange> changes = ReadAll(*reader);
  EXPECT_TRUE(reader->Finish().ok());
  ASSERT_EQ(changes.size(), 2U);
  EXPECT_EQ(changes[0].event(), "created");
  EXPECT_EQ(changes[1].event(), "reported");
}

TEST_F(ControlServiceTest, ReportTextOfAnyBytesReachesTheWatcher) {
  Connect();
  ASSERT_TRUE(Send({"a"}, "SN1").ok());
  ASSERT_TRUE(Report("bad \xff\n"));
  const auto reader = Watch();
  const std::vector<proto::TicketChange> changes = ReadAll(*reader);
  EXPECT_TRUE(reader->Finish().ok());
  ASSERT_FALSE(changes.empty());
  EXPECT_EQ(changes.back().detail(), "bad \\xff\\x0a");
}

TEST_F(ControlServiceTest, UnknownTicketCannotBeWatched) {
  Connect();
  ASSERT_TRUE(Send({"a"}, "SN1").ok());
  // Not by a part of its id either: two tickets may begin so.
  for (const std::string& id : {std::string(), std::string("nonsense"), id_.substr(0, 15), id_ + "0"}) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kPatience);
    proto::WatchTicketRequest request;
    request.set_ticket_id(id);
    const auto reader = stub_->WatchTicket(&context, request);
    proto::TicketChange change;
    EXPECT_FALSE(reader->Read(&change));
    EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::NOT_FOUND) << id;
  }
}

TEST_F(ControlServiceTest, ShutdownEndsAWatch) {
  Connect();
  ASSERT_TRUE(Send({"a"}, "SN1").ok());
  const auto reader = Watch();
  proto::TicketChange change;
  ASSERT_TRUE(reader->Read(&change));
  service_.reset();
  EXPECT_FALSE(reader->Read(&change));
  EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(ControlServiceTest, CallsOfAServiceThatEndsSaySo) {
  Connect();
  service().dispatcher().Close();
  const grpc::Status sent = Send({"a"}, "SN1");
  proto::ListDevicesResponse devices;
  const grpc::Status listed = stub_->ListDevices(&context_, {}, &devices);
  for (const grpc::Status& status : {sent, listed}) {
    EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(status.error_message(), "the service shuts down");
  }
}

TEST_F(ControlServiceTest, NamesAreChecked) {
  Connect();
  EXPECT_TRUE(Send({}, "SN1").ok());
  EXPECT_TRUE(Send({std::string(1900, 'a')}, std::string(128, 'b')).ok());
  const auto expect_refusal = [&](const std::vector<std::string>& apps, const std::string& device,
                                  const std::string& why) {
    const grpc::Status status = Send(apps, device);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_THAT(status.error_message(), HasSubstr(why));
  };
  expect_refusal({"a"}, "", "the serial number is empty: name the device that the ticket is for");
  expect_refusal({"a"}, std::string(129, 'b'), "the serial number is longer than 128 bytes");
  expect_refusal({"a"}, "SN1\n", "the serial number has other characters than printable ASCII");
  expect_refusal({"a", ""}, "SN1", "an application's name is empty");
  expect_refusal({std::string(2000, 'a')}, "SN1", "too long for a device");
  proto::ListTicketsResponse tickets;
  ASSERT_TRUE(stub_->ListTickets(&context_, {}, &tickets).ok());
  EXPECT_EQ(tickets.tickets_size(), 2);
}

TEST_F(ControlServiceTest, QueuedTicketIsCancelledByTheBeginningOfItsId) {
  Connect();
  const std::string id = CreateTicket();
  proto::CancelTicketRequest request;
  proto::CancelTicketResponse response;
  const auto cancel = [&](const std::string& text) {
    grpc::ClientContext context;
    request.set_ticket_id(text);
    return stub_->CancelTicket(&context, request, &response);
  };
  EXPECT_EQ(cancel("no such one").error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  ASSERT_TRUE(cancel(id.substr(0, 8)).ok());
  EXPECT_EQ(response.ticket_id(), id);
  EXPECT_EQ(StateOf(id), TicketState::kCancelled);
  const grpc::Status again = cancel(id);
  EXPECT_EQ(again.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_THAT(again.error_message(), HasSubstr("is cancelled: it is at its end"));
  static_cast<void>(CreateTicket());
  EXPECT_THAT(cancel("").error_message(), HasSubstr("several tickets"));
}

TEST_F(ControlServiceTest, TicketsAreListedWithTheOldestFirst) {
  Connect();
  ASSERT_TRUE(Send({"a", "b"}, "SN9").ok());
  const std::string first = id_;
  ASSERT_TRUE(Send({}, "SN1").ok());
  ASSERT_TRUE(Report("bad \xff"));
  proto::ListTicketsResponse tickets;
  ASSERT_TRUE(stub_->ListTickets(&context_, {}, &tickets).ok());
  ASSERT_EQ(tickets.tickets_size(), 2);
  EXPECT_EQ(tickets.tickets(0).ticket_id(), first);
  EXPECT_THAT(tickets.tickets(0).apps(), ElementsAre("a", "b"));
  EXPECT_EQ(tickets.tickets(0).device(), "SN9");
  EXPECT_EQ(tickets.tickets(0).last_change().state(), proto::TICKET_STATE_QUEUED);
  EXPECT_EQ(tickets.tickets(1).ticket_id(), id_);
  EXPECT_EQ(tickets.tickets(1).last_change().state(), proto::TICKET_STATE_REPORTED);
  EXPECT_EQ(tickets.tickets(1).last_change().detail(), "bad \\xff");
}

TEST_F(ControlServiceTest, DevicesAreListedInTheOrderInWhichTheyConnected) {
  Connect();
  std::vector<std::unique_ptr<ScriptedDevice>> devices;
  for (const char* serial_number : {"SN2", "SN1"}) {
    devices.push_back(std::make_unique<ScriptedDevice>(service().grpc_url()));
    devices.back()->Hello(serial_number);
    ASSERT_TRUE(Eventually([&] { return Devices().size() == devices.size(); }));
  }
  proto::ListDevicesResponse listed;
  ASSERT_TRUE(stub_->ListDevices(&context_, {}, &listed).ok());
  ASSERT_EQ(listed.devices_size(), 2);
  EXPECT_EQ(listed.devices(0).serial_number(), "SN2");
  EXPECT_EQ(listed.devices(1).serial_number(), "SN1");
  EXPECT_THAT(listed.devices(0).peer(), HasSubstr("127.0.0.1"));
  EXPECT_GT(listed.devices(0).connected_unix_time_ms(), 1600000000000);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
