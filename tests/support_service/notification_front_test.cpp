#include "notification_front.h"

#include <gmock/gmock.h>
#include <grpcpp/generic/generic_stub.h>
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
  const std::string id = CreateTicket({"a", "b"});
  const auto delivery = device.Next();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->ticket_id(), id);
  EXPECT_EQ(ParseJson(delivery->ticket_json())["apps"], ParseJson(R"(["a","b"])"));
  device.Answer(id, CLIENT_STATUS_ACCEPTED);
  EXPECT_TRUE(WaitForState(id, TicketState::kAccepted)) << ToText(StateOf(id));
  EXPECT_TRUE(events_.Has("device connected: \"SN1\", ipv4:127.0.0.1:"));
  EXPECT_TRUE(events_.Has("ticket " + id + " delivered: device \"SN1\", ipv4:127.0.0.1:"));
  EXPECT_TRUE(events_.Has("ticket " + id + " accepted"));
}

TEST_F(NotificationServiceTest, StreamIsOpenBeforeTheFirstTicket) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");  // expects the service's initial metadata
  EXPECT_TRUE(Eventually([&] { return Devices().size() == 1; }));
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
  const std::string id = CreateTicket();
  std::string token;
  {
    ScriptedDevice device(service().grpc_url());
    device.Hello("SN1");
    token = TokenOf(device.Next().value());
  }
  EXPECT_TRUE(events_.WaitFor("ticket " + id + " stream ended: the device ended its stream or was lost"));
  EXPECT_TRUE(events_.Has("device disconnected: \"SN1\""));
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto again = device.Next();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->ticket_id(), id);
  EXPECT_NE(TokenOf(*again), token);
  device.Answer(id, CLIENT_STATUS_ACCEPTED);
  EXPECT_TRUE(WaitForState(id, TicketState::kAccepted)) << ToText(StateOf(id));
}

TEST_F(NotificationServiceTest, StreamThatTheDeviceEndsIsEndedWithOk) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  device.HalfClose();
  const auto end = device.End();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->ok()) << end->error_message();
  EXPECT_TRUE(Eventually([&] { return Devices().empty(); }));
}

TEST_F(NotificationServiceTest, UnansweredTicketIsDeliveredAgainByTheNextService) {
  Start();
  std::string id;
  {
    ScriptedDevice device(service().grpc_url());
    device.Hello("SN1");
    id = DeliverTicket(device).id;
    service_.reset();
  }
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto again = device.Next();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->ticket_id(), id);
}

TEST_F(NotificationServiceTest, UnansweredTicketEndsTheStreamAndComesAgain) {
  settings_.tickets.answer_limit = milliseconds(100);
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const std::string id = DeliverTicket(device).id;
  ExpectEnd(device, grpc::StatusCode::DEADLINE_EXCEEDED, "no answer to ticket " + id + " within 100 ms");
  EXPECT_TRUE(events_.WaitFor("ticket " + id + " stream ended: no answer"));
  ScriptedDevice next(service().grpc_url());
  next.Hello("SN1");
  const auto again = next.Next();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->ticket_id(), id);
}

TEST_F(NotificationServiceTest, RejectedTicketComesAgainUntilAccepted) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const std::string id = CreateTicket();
  for (int i = 0; i < 3; ++i) {
    const auto delivery = device.Next();
    ASSERT_TRUE(delivery);
    EXPECT_EQ(delivery->ticket_id(), id);
    device.Answer(id, i < 2 ? CLIENT_STATUS_REJECTED : CLIENT_STATUS_ACCEPTED);
  }
  EXPECT_TRUE(WaitForState(id, TicketState::kAccepted)) << ToText(StateOf(id));
  EXPECT_TRUE(events_.Has("ticket " + id + " rejected: again in 50 ms"));
  EXPECT_TRUE(events_.Has("ticket " + id + " rejected: again in 100 ms"));
  EXPECT_FALSE(device.Next(milliseconds(200)));
}

TEST_F(NotificationServiceTest, TicketRejectedWithAReasonIsRefusedAndTheNextOneDelivered) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const std::string id = DeliverTicket(device).id;
  const std::string next = CreateTicket();
  device.Answer(id, CLIENT_STATUS_REJECTED, "no\nsense");
  const auto delivery = device.Next();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->ticket_id(), next);
  EXPECT_EQ(StateOf(id), TicketState::kRefused);
  EXPECT_TRUE(events_.Has("ticket " + id + " refused: the device says \"no\\x0asense\": send a ticket"));
}

TEST_F(NotificationServiceTest, EachDeviceGetsItsOwnTicket) {
  Start();
  ScriptedDevice first(service().grpc_url());
  ScriptedDevice second(service().grpc_url());
  first.Hello("SN1");
  second.Hello("SN2");
  const std::string for_second = CreateTicket({"b"}, "SN2");
  const std::string for_first = CreateTicket({"a"}, "SN1");
  EXPECT_EQ(first.Next().value().ticket_id(), for_first);
  EXPECT_EQ(second.Next().value().ticket_id(), for_second);
}

TEST_F(NotificationServiceTest, TicketsOfADeviceAreDeliveredOneAtATimeInTheirOrder) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  std::vector<std::string> ids;
  ids.reserve(5);
  for (int i = 0; i < 5; ++i) ids.push_back(CreateTicket());
  for (const std::string& id : ids) {
    const auto delivery = device.Next();
    ASSERT_TRUE(delivery);
    EXPECT_EQ(delivery->ticket_id(), id);
    EXPECT_FALSE(device.Next(milliseconds(50)));
    device.Answer(id, CLIENT_STATUS_ACCEPTED);
    ASSERT_TRUE(WaitForState(id, TicketState::kAccepted));
    EXPECT_FALSE(device.Next(milliseconds(50)));
    const ReceivedAnswer report =
        Request("POST", ReportUrl(), {"AUTH-TOKEN: " + TokenOf(*delivery)},
                R"({"status":"Failed to generate debug file","serial_number":"SN1"})");
    EXPECT_EQ(report.status, 200) << report.body;
  }
}

TEST_F(NotificationServiceTest, NewStreamOfADeviceEndsItsOldOne) {
  Start();
  ScriptedDevice old_stream(service().grpc_url());
  old_stream.Hello("SN1");
  ScriptedDevice new_stream(service().grpc_url());
  new_stream.Hello("SN1");
  ExpectEnd(old_stream, grpc::StatusCode::ABORTED, "newer stream");
  CreateTicket();
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

TEST_F(NotificationServiceTest, HelloWithoutAUsableSerialNumberEndsTheStream) {
  Start();
  const std::vector<std::pair<std::string, std::string>> faults = {
      {"", "the serial number is empty"},
      {std::string(129, 'S'), "the serial number is longer than 128 bytes"},
      {"SN1\n", "the serial number has other characters than printable ASCII"},
      {"S\xc3\xa4", "the serial number has other characters than printable ASCII"}};
  for (const auto& [serial_number, fault] : faults) {
    ScriptedDevice device(service().grpc_url());
    device.Hello(serial_number);
    ExpectEnd(device, grpc::StatusCode::FAILED_PRECONDITION, fault);
    EXPECT_TRUE(events_.Has("stream without hello ended: without serial number, ipv4:127.0.0.1:"));
  }
  EXPECT_TRUE(Devices().empty());
  Enrol(std::string(128, '~'));
  ScriptedDevice device(service().grpc_url());
  device.Hello(std::string(128, '~'));
  EXPECT_TRUE(Eventually([&] { return Devices().size() == 1; }));
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
  const std::string id = CreateTicket();
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
  CreateTicket();
  EXPECT_TRUE(device.Next());
}

TEST_F(NotificationServiceTest, OversizeMessageEndsOnlyItsStream) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  device.Answer("x", CLIENT_STATUS_REJECTED, std::string(70000, 'r'));
  ASSERT_TRUE(device.End());
  EXPECT_TRUE(Eventually([&] { return Devices().empty(); }));
  ScriptedDevice next(service().grpc_url());
  next.Hello("SN1");
  EXPECT_TRUE(Eventually([&] { return Devices().size() == 1; }));
}

TEST_F(NotificationServiceTest, DeviceThatReadsNothingHoldsUpNobody) {
  Start();
  Enrol("DEAF");
  // Answers without reading, and so gets more than the connection's small window takes.
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, 4096);
  arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  const auto stub = tarvo::support::v1::NotificationService::NewStub(grpc::CreateCustomChannel(
      GrpcTarget(service().grpc_url()), grpc::InsecureChannelCredentials(), arguments));
  grpc::ClientContext context;
  const auto stream = stub->Open(&context);
  ClientMessage message;
  message.mutable_hello()->set_serial_number("DEAF");
  message.mutable_hello()->set_protocol(1);
  ASSERT_TRUE(stream->Write(message));
  for (int i = 0; i < 30; ++i) {
    const std::string id = CreateTicket({std::string(1900, 'a')}, "DEAF");
    ASSERT_TRUE(WaitForState(id, TicketState::kDelivered));
    message.mutable_answer()->set_ticket_id(id);
    message.mutable_answer()->set_status(CLIENT_STATUS_REJECTED);
    message.mutable_answer()->set_reason("nobody reads it");
    ASSERT_TRUE(stream->Write(message));
    ASSERT_TRUE(WaitForState(id, TicketState::kRefused));
  }
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const std::string id = CreateTicket();
  EXPECT_EQ(device.Next().value().ticket_id(), id);
  service_.reset();  // ends although a write can't
  context.TryCancel();
}

TEST_F(NotificationServiceTest, ShutdownEndsOpenStreamsWithAClearStatus) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  ScriptedDevice silent(service().grpc_url());
  ASSERT_TRUE(Eventually([&] { return Devices().size() == 1; }));
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
  CreateTicket();
  EXPECT_TRUE(device.Next());

  ServiceSettings second = settings_;
  second.data_folder = temp_.path() / "second";
  EXPECT_THROW(SupportService(second, events_.sink()), std::runtime_error);
}

TEST_F(NotificationServiceTest, HealthIsToldToLoadBalancers) {
  Start();
  grpc::GenericStub stub(
      grpc::CreateChannel(GrpcTarget(service().grpc_url()), grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kPatience);
  grpc::CompletionQueue queue;
  const grpc::Slice whole_service(std::string("\x0a\x00", 2));  // its name is empty
  const grpc::ByteBuffer request(&whole_service, 1);
  const auto call = stub.PrepareUnaryCall(&context, "/grpc.health.v1.Health/Check", request, &queue);
  call->StartCall();
  grpc::ByteBuffer answer;
  grpc::Status status;
  call->Finish(&answer, &status, &status);
  void* tag = nullptr;
  bool ok = false;
  ASSERT_TRUE(queue.Next(&tag, &ok));
  EXPECT_TRUE(status.ok()) << status.error_message();
  grpc::Slice bytes;
  ASSERT_TRUE(answer.DumpToSingleSlice(&bytes).ok());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.begin()), bytes.size()), "\x08\x01") << "SERVING";
}

TEST_F(NotificationServiceTest, PortInUseIsRefused) {
  Start();
  ServiceSettings second = settings_;
  second.data_folder = temp_.path() / "second";
  second.grpc_address = GrpcTarget(service().grpc_url());
  EXPECT_THROW(SupportService(second, events_.sink()), std::runtime_error);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
