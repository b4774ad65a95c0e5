#include "notification_front.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::milliseconds;
using tarvo::support::v1::CLIENT_STATUS_ACCEPTED;
using tarvo::support::v1::CLIENT_STATUS_REJECTED;
using tarvo::support::v1::CLIENT_STATUS_UNSPECIFIED;
using tarvo::support::v1::ClientMessage;
using ::testing::HasSubstr;

class NotificationServiceTest : public ServiceTest {
 protected:
  std::string WaitForState(const std::string& id, TicketState state) {
    return Eventually([&] { return StateOf(id) == state; }) ? "" : ToText(StateOf(id));
  }
  /// Waits for the stream's end, which has this status.
  static void ExpectEnd(ScriptedDevice& device, grpc::StatusCode code, const std::string& part_of_text) {
    const auto end = device.End();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->error_code(), code);
    EXPECT_THAT(end->error_message(), HasSubstr(part_of_text));
  }
};

TEST_F(NotificationServiceTest, TicketIsDeliveredAndItsAnswerRecorded) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const std::string id = book().CreateTicket({"a", "b"}, "");
  const auto delivery = device.Next();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->ticket_id(), id);
  EXPECT_EQ(ParseJson(delivery->ticket_json())["apps"], ParseJson(R"(["a","b"])"));
  device.Answer(id, CLIENT_STATUS_ACCEPTED);
  EXPECT_EQ(WaitForState(id, TicketState::kAccepted), "");
  EXPECT_TRUE(events_.Has("device connected: \"SN1\""));
  EXPECT_TRUE(events_.Has("ticket " + id + " answered: accepted"));
}

TEST_F(NotificationServiceTest, StreamIsOpenBeforeTheFirstTicket) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");  // expects the service's initial metadata
  EXPECT_TRUE(Eventually([&] { return book().Devices().size() == 1; }));
}

TEST_F(NotificationServiceTest, PortIsSharedWithNoOtherService) {
  Start();
  unsigned listening = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    int listens = 0;
    int shared = 0;
    socklen_t size = sizeof(int);
    if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) continue;
    ++listening;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &shared, &size), 0);
    EXPECT_EQ(shared, 0);
  }
  EXPECT_GE(listening, 2U);  // gRPC's and HTTP's
}

TEST_F(NotificationServiceTest, UnansweredTicketIsDeliveredAgainOnTheNextStreamUnderTheSameId) {
  Start();
  const std::string id = book().CreateTicket({"a"}, "SN1");
  std::string token;
  {
    ScriptedDevice device(service().grpc_url());
    device.Hello("SN1");
    token = TokenOf(device.Next().value());
  }
  EXPECT_TRUE(events_.WaitFor("device disconnected: \"SN1\""));
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto again = device.Next();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->ticket_id(), id);
  EXPECT_EQ(TokenOf(*again), token);
  device.Answer(id, CLIENT_STATUS_ACCEPTED);
  EXPECT_EQ(WaitForState(id, TicketState::kAccepted), "");
}

TEST_F(NotificationServiceTest, StreamThatTheDeviceEndsIsEndedWithOk) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  device.HalfClose();
  const auto end = device.End();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->ok()) << end->error_message();
  EXPECT_TRUE(Eventually([&] { return book().Devices().empty(); }));
}

TEST_F(NotificationServiceTest, RejectedTicketComesAgainUntilAccepted) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const std::string id = book().CreateTicket({"a"}, "");
  for (int i = 0; i < 3; ++i) {
    const auto delivery = device.Next();
    ASSERT_TRUE(delivery);
    EXPECT_EQ(delivery->ticket_id(), id);
    device.Answer(id, i < 2 ? CLIENT_STATUS_REJECTED : CLIENT_STATUS_ACCEPTED, "busy");
  }
  EXPECT_EQ(WaitForState(id, TicketState::kAccepted), "");
  EXPECT_FALSE(device.Next(milliseconds(200)));
}

TEST_F(NotificationServiceTest, EachDeviceGetsItsOwnTicket) {
  Start();
  ScriptedDevice first(service().grpc_url());
  ScriptedDevice second(service().grpc_url());
  first.Hello("SN1");
  second.Hello("SN2");
  const std::string for_second = book().CreateTicket({"b"}, "SN2");
  const std::string for_first = book().CreateTicket({"a"}, "SN1");
  EXPECT_EQ(first.Next().value().ticket_id(), for_first);
  EXPECT_EQ(second.Next().value().ticket_id(), for_second);
}

TEST_F(NotificationServiceTest, SeveralTicketsAreDeliveredAtOnce) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  std::vector<std::string> ids;
  ids.reserve(50);
  for (int i = 0; i < 50; ++i) ids.push_back(book().CreateTicket({"a"}, ""));
  for (const std::string& id : ids) {
    const auto delivery = device.Next();
    ASSERT_TRUE(delivery);
    EXPECT_EQ(delivery->ticket_id(), id);
  }
}

TEST_F(NotificationServiceTest, NewStreamOfADeviceEndsItsOldOne) {
  Start();
  ScriptedDevice old_stream(service().grpc_url());
  old_stream.Hello("SN1");
  ScriptedDevice new_stream(service().grpc_url());
  new_stream.Hello("SN1");
  ExpectEnd(old_stream, grpc::StatusCode::ABORTED, "newer stream");
  book().CreateTicket({"a"}, "SN1");
  EXPECT_TRUE(new_stream.Next());
}

TEST_F(NotificationServiceTest, MissingHelloEndsTheStreamWithAClearStatus) {
  settings_.tickets.hello_limit = milliseconds(100);
  Start();
  ScriptedDevice device(service().grpc_url());
  ExpectEnd(device, grpc::StatusCode::DEADLINE_EXCEEDED, "no hello within 100 ms");
}

TEST_F(NotificationServiceTest, UnknownProtocolEndsTheStreamWithAClearStatus) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1", 2);
  ExpectEnd(device, grpc::StatusCode::FAILED_PRECONDITION, "protocol 2");
}

TEST_F(NotificationServiceTest, EmptyMessageEndsTheStream) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Send(ClientMessage());
  const auto end = device.End();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->error_code(), grpc::StatusCode::INVALID_ARGUMENT);
}

TEST_F(NotificationServiceTest, AnswerWithoutStatusEndsTheStreamAndTheTicketComesAgain) {
  Start();
  const std::string id = book().CreateTicket({"a"}, "");
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  ASSERT_TRUE(device.Next());
  device.Answer(id, CLIENT_STATUS_UNSPECIFIED);
  EXPECT_EQ(device.End().value().error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  ScriptedDevice next(service().grpc_url());
  next.Hello("SN1");
  EXPECT_EQ(next.Next().value().ticket_id(), id);
}

TEST_F(NotificationServiceTest, AnswerForAnUnknownTicketIsLoggedAndTheStreamLivesOn) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  device.Answer("nonsense\n", CLIENT_STATUS_ACCEPTED);
  EXPECT_TRUE(events_.WaitFor("answer ignored: ticket nonsense\\x0a"));
  book().CreateTicket({"a"}, "");
  EXPECT_TRUE(device.Next());
}

TEST_F(NotificationServiceTest, OversizeMessageEndsOnlyItsStream) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  device.Answer("x", CLIENT_STATUS_REJECTED, std::string(70000, 'r'));
  ASSERT_TRUE(device.End());
  EXPECT_TRUE(Eventually([&] { return book().Devices().empty(); }));
  ScriptedDevice next(service().grpc_url());
  next.Hello("SN1");
  EXPECT_TRUE(Eventually([&] { return book().Devices().size() == 1; }));
}

TEST_F(NotificationServiceTest, DeviceThatReadsNothingHoldsUpNobody) {
  Start();
  // Never reads, so that what is written to it fills the connection's window.
  const auto stub = tarvo::support::v1::NotificationService::NewStub(
      grpc::CreateChannel(GrpcTarget(service().grpc_url()), grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  const auto stream = stub->Open(&context);
  ClientMessage hello;
  hello.mutable_hello()->set_serial_number("DEAF");
  hello.mutable_hello()->set_protocol(1);
  ASSERT_TRUE(stream->Write(hello));
  ASSERT_TRUE(Eventually([&] { return book().Devices().size() == 1; }));
  for (int i = 0; i < 200; ++i) book().CreateTicket({std::string(50000, 'a')}, "DEAF");
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const std::string id = book().CreateTicket({"a"}, "SN1");
  EXPECT_EQ(device.Next().value().ticket_id(), id);
  service_.reset();  // ends although a write can't
  context.TryCancel();
}

TEST_F(NotificationServiceTest, ShutdownEndsOpenStreamsWithAClearStatus) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  ScriptedDevice silent(service().grpc_url());
  ASSERT_TRUE(Eventually([&] { return book().Devices().size() == 1; }));
  service_.reset();
  ExpectEnd(device, grpc::StatusCode::UNAVAILABLE, "shuts down");
  EXPECT_TRUE(silent.End());
}

TEST_F(NotificationServiceTest, UnixSocketWorks) {
  settings_.grpc_address = "unix:" + (temp_.path() / "grpc socket").string();
  Start();
  EXPECT_EQ(service().grpc_url(), settings_.grpc_address);
  ScriptedDevice device(UnixTarget((temp_.path() / "grpc socket").string()));
  device.Hello("SN1");
  book().CreateTicket({"a"}, "");
  EXPECT_TRUE(device.Next());

  ServiceSettings second = settings_;
  second.data_folder = temp_.path() / "second";
  EXPECT_THROW(SupportService(second, events_.sink()), std::runtime_error);
}

TEST_F(NotificationServiceTest, PortInUseIsRefused) {
  Start();
  ServiceSettings second = settings_;
  second.data_folder = temp_.path() / "second";
  second.grpc_address = GrpcTarget(service().grpc_url());
  EXPECT_THROW(SupportService(second, events_.sink()), std::runtime_error);
}

TEST_F(NotificationServiceTest, ControlIsNotServedOnTheDevicesPort) {
  Start();
  const auto stub = tarvo::support::v1::ControlService::NewStub(
      grpc::CreateChannel(GrpcTarget(service().grpc_url()), grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kPatience);
  tarvo::support::v1::SendTicketResponse response;
  const grpc::Status status = stub->SendTicket(&context, {}, &response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::UNIMPLEMENTED) << status.error_message();
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
