#include "ticket_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>

#include "client_errors.h"
#include "fault_proxy.h"
#include "loopback_socket.h"
#include "receive_in_time.h"
#include "scripted_server.h"
#include "syslog_recorder.h"
#include "temporary_folder.h"
#include "unread_server.h"

namespace TarvoOrvane::Internal {
namespace {

using FastSupport::CallStatus;
using FastSupport::FastSupportClient;
using FastSupport::ReceiveResult;
using std::chrono::milliseconds;
using tarvo::support::v1::CLIENT_STATUS_ACCEPTED;
using tarvo::support::v1::CLIENT_STATUS_REJECTED;
using test_support::kPatience;
using testing::ElementsAre;
using Testing::Failed;
using testing::HasSubstr;
using testing::Not;
using Testing::PendingReceive;
using Testing::ReceiveInTime;
using Testing::ScriptedServer;
using Testing::ServerOptions;
using Testing::Session;
using Testing::StartReceive;
using Testing::Summary;
using Testing::TicketJson;

class TicketClientTest : public testing::Test {
 protected:
  TicketClientTest() { Testing::TakeSyslogLines(); }

  /// Opens the first stream of `client`; the Receive() that does it waits for a ticket.
  std::shared_ptr<Session> Connect(FastSupportClient& client) {
    receive_.emplace(client);
    return AwaitSession();
  }
  ReceiveResult Received() { return receive_->Await(); }

  std::shared_ptr<Session> AwaitSession() {
    auto session = server_.AwaitSession();
    EXPECT_NE(session, nullptr);
    return session;
  }

  ScriptedServer server_;
  std::optional<PendingReceive<FastSupportClient>> receive_;
};

TEST_F(TicketClientTest, TheFirstMessageTellsTheSerialNumberAndTheProtocol) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  const auto serial = Utils::GetSerialNumber();
  EXPECT_EQ(session->hello().serial_number(), serial ? *serial : "");
  EXPECT_EQ(session->hello().protocol(), 1u);
  session->End(grpc::Status::OK);
  Received();
}

TEST_F(TicketClientTest, ATicketIsReceivedAndAnsweredOnce) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->Deliver("id-1", TicketJson("t1"));
  const auto result = Received();
  ASSERT_TRUE(result.request);
  EXPECT_FALSE(result.status.hasFail);
  EXPECT_EQ(result.request->token, "t1");
  EXPECT_THAT(result.request->apps, ElementsAre("a", "b"));

  EXPECT_FALSE(client.Send(FastSupportClient::kAccepted).hasFail);
  const auto answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->ticket_id(), "id-1");
  EXPECT_EQ(answer->status(), CLIENT_STATUS_ACCEPTED);

  const auto second = client.Send(FastSupportClient::kAccepted);
  EXPECT_EQ(second.error, static_cast<int>(ClientError::kNothingToAnswer));
  EXPECT_FALSE(session->AwaitAnswer(milliseconds(100)));
}

TEST_F(TicketClientTest, ARefusedTicketIsAnsweredRejected) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->Deliver("id-1", TicketJson("t1"));
  Received();
  EXPECT_FALSE(client.Send(FastSupportClient::kRejected).hasFail);
  const auto answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status(), CLIENT_STATUS_REJECTED);
}

TEST_F(TicketClientTest, ManyTicketsOnOneStreamComeInOrder) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  // More than the client queues, and each near the largest message, so that reading pauses and goes on.
  constexpr int kTickets = 40;
  const std::string padding(50'000, 'p');
  for (int i = 0; i < kTickets; ++i) {
    session->Deliver(std::to_string(i), TicketJson(std::to_string(i) + padding));
  }
  for (int i = 0; i < kTickets; ++i) {
    const auto result = i == 0 ? Received() : ReceiveInTime(client);
    ASSERT_EQ(Summary(result), std::to_string(i) + padding);
    ASSERT_FALSE(client.Send(FastSupportClient::kAccepted).hasFail);
    const auto answer = session->AwaitAnswer();
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->ticket_id(), std::to_string(i));
  }
}

TEST_F(TicketClientTest, AMalformedTicketIsRejectedInsideAndTheNextGoodOneIsReturned) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->Deliver("bad\n1", R"({"token": 7, "apps": [], "note": "secret"})");
  session->Deliver("bad-2", "secret");
  session->Deliver("good", TicketJson("t1"));
  EXPECT_EQ(Summary(Received()), "t1");
  auto answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->ticket_id(), "bad\n1");
  EXPECT_EQ(answer->status(), CLIENT_STATUS_REJECTED);
  EXPECT_EQ(answer->reason(), "\"token\" is not a string");
  answer = session->AwaitAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->ticket_id(), "bad-2");

  const std::string log = Testing::TakeSyslogText();
  EXPECT_THAT(log, HasSubstr("Rejected the malformed ticket \"bad\\n1\": \"token\" is not a string"));
  EXPECT_THAT(log, HasSubstr("\"bad-2\": the ticket is not valid JSON"));
  EXPECT_THAT(log, Not(HasSubstr("secret")));
}

TEST_F(TicketClientTest, TheServersReasonIsCutAt400BytesAndNotReadBeyond8KiBWithItsHead) {
  FastSupportClient client(server_.url());
  Connect(client)->End(grpc::Status(grpc::StatusCode::INTERNAL, std::string(7'500, 'x')));
  EXPECT_EQ(Received().status.errorMsg, std::string(400, 'x') + "...");
  Connect(client)->End(grpc::Status(grpc::StatusCode::INTERNAL, std::string(8'150, 'x')));
  const ReceiveResult refused = Received();
  EXPECT_EQ(refused.status.error, static_cast<int>(grpc::StatusCode::RESOURCE_EXHAUSTED))
      << refused.status.errorMsg;
}

TEST_F(TicketClientTest, AMessageOfAnUnknownKindIsPassedOver) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  session->SendUnknown();
  session->Deliver("id-1", TicketJson("t1"));
  EXPECT_EQ(Summary(Received()), "t1");
}

TEST_F(TicketClientTest, AStreamEndIsToldOnceWithItsCodeAndTextAndTheNextCallOpensANewOne) {
  FastSupportClient client(server_.url());
  Connect(client)->End(grpc::Status(grpc::StatusCode::RESOURCE_EXHAUSTED, "too\nbusy"));
  const auto failure = Received();
  EXPECT_EQ(Summary(failure), "failed 8");
  EXPECT_EQ(failure.status.errorMsg, "too\\nbusy");

  Connect(client)->Deliver("id-1", TicketJson("t1"));
  EXPECT_EQ(Summary(Received()), "t1");
}

TEST_F(TicketClientTest, AStatusThatIsNoneOfGrpcsIsUnknownAndNotTakenForTheClientsOwn) {
  FastSupportClient client(server_.url());
  int code = static_cast<int>(ClientError::kStopped);
  Connect(client)->End(grpc::Status(static_cast<grpc::StatusCode>(code), "by the server"));
  EXPECT_EQ(Summary(Received()), "failed " + std::to_string(grpc::StatusCode::UNKNOWN));
}

TEST_F(TicketClientTest, AStreamEndedWithoutAnErrorIsAFailureToo) {
  FastSupportClient client(server_.url());
  Connect(client)->End(grpc::Status::OK);
  const auto failure = Received();
  EXPECT_EQ(Summary(failure), Failed(ClientError::kStreamClosed));
  EXPECT_EQ(failure.status.errorMsg, "The server closed the stream");
}

TEST_F(TicketClientTest, AnAnswerAfterTheStreamDiedFailsAndTicketsQueuedFromItAreDropped) {
  FastSupportClient client(server_.url());
  CallStatus sent;
  // The end reaches the client a moment after it left the server; an answer that is quicker still gets out.
  for (int attempt = 0; attempt < 100 && !sent.hasFail; ++attempt) {
    const auto session = Connect(client);
    session->Deliver("id-1 of attempt " + std::to_string(attempt), TicketJson("t1"));
    ASSERT_EQ(Summary(Received()), "t1");
    session->Deliver("id-2", TicketJson("t2"));
    session->End(grpc::Status::OK);
    ASSERT_TRUE(session->AwaitEnd());
    sent = client.Send(FastSupportClient::kAccepted);
    while (!sent.hasFail && ReceiveInTime(client).request) continue;
  }
  EXPECT_EQ(sent.error, static_cast<int>(ClientError::kAnswerNotSent));
  EXPECT_EQ(sent.errorMsg, "The stream ended before the answer was written");
  EXPECT_EQ(Summary(ReceiveInTime(client)), Failed(ClientError::kStreamClosed));

  Connect(client)->Deliver("id-2", TicketJson("t2 again"));
  EXPECT_EQ(Summary(Received()), "t2 again");
}

TEST_F(TicketClientTest, AnAnswerWithoutATicketFails) {
  FastSupportClient client(server_.url());
  const auto sent = client.Send(FastSupportClient::kAccepted);
  EXPECT_EQ(sent.error, static_cast<int>(ClientError::kNothingToAnswer));
  EXPECT_NE(sent.errorMsg, "");
}

TEST_F(TicketClientTest, AnUndecodableMessageEndsTheStreamWithAFailureAndTheNextOneWorks) {
  TicketClientOptions options;
  options.limits.status = milliseconds(100);
  TicketClient client(server_.url(), options);
  auto receive = StartReceive(client);
  auto session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id-1", "\xff\xfe");  // no UTF-8, as protobuf demands of a string
  const auto failure = receive.Await();
  EXPECT_EQ(Summary(failure), Failed(ClientError::kUndecodable));
  EXPECT_EQ(failure.status.errorMsg, "The server sent a message that could not be decoded");
  EXPECT_TRUE(session->AwaitEnd());
  EXPECT_THAT(Testing::TakeSyslogText(),
              HasSubstr("protobuf: String field contains invalid UTF-8 data when parsing"));

  auto next = StartReceive(client);
  session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id-2", TicketJson("t2"));
  EXPECT_EQ(Summary(next.Await()), "t2");
}

TEST_F(TicketClientTest, AMessageAbove64KiBEndsTheStreamWithAFailure) {
  FastSupportClient client(server_.url());
  Connect(client)->Deliver("id-1", TicketJson(std::string(65UL * 1024, 't')));
  EXPECT_EQ(Summary(Received()), "failed 8");
}

TEST_F(TicketClientTest, AStreamThatCostsTooMuchEndsAtOnceWithAFailureAndTheNextOneWorks) {
  TicketClientOptions options;
  options.settled = milliseconds(1);      // not even one that had settled is opened again without a pause
  options.cost.memory_bytes = 1UL << 40;  // the server is in this process
  options.cost.cpu = milliseconds(300);
  options.cost.cpu_percent = 0;
  TicketClient client(server_.url(), options);
  auto receive = StartReceive(client);
  auto session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  std::atomic<bool> stop{false};
  std::thread server([&] {
    for (int i = 0; i < 1'000'000 && !stop; ++i) {
      session->Deliver("bad", "no json");
      if (i % 100 == 0) static_cast<void>(session->AwaitAnswer(milliseconds(10)));
    }
  });
  const auto failure = receive.Await();
  stop = true;
  server.join();
  EXPECT_EQ(Summary(failure), Failed(ClientError::kTooCostly));
  EXPECT_EQ(failure.status.errorMsg, "The stream was ended because it took 300 ms of processor time");
  EXPECT_TRUE(session->AwaitEnd());
}

TEST_F(TicketClientTest, ManyLargeTicketsAtOnceCostNotTooMuch) {
  TicketClient client(server_.url());
  auto receive = StartReceive(client);
  const auto session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  constexpr int kCount = 40;
  for (int i = 0; i < kCount; ++i) {
    session->Deliver("id-" + std::to_string(i),
                     TicketJson(std::to_string(i) + std::string(60UL * 1024, 't')));
  }
  for (int i = 0; i < kCount; ++i) {
    const ReceiveResult result = i == 0 ? receive.Await() : ReceiveInTime(client);
    ASSERT_TRUE(result.request) << i << ": " << result.status.errorMsg;
    EXPECT_FALSE(client.Send(FastSupportClient::kRejected).hasFail);
  }
}

TEST_F(TicketClientTest, TicketsBeyondTheFirstHundredComeFiveASecond) {
  FastSupportClient client(server_.url());
  const auto session = Connect(client);
  constexpr int kCount = 110;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kCount; ++i) session->Deliver("id-" + std::to_string(i), TicketJson(std::to_string(i)));
  EXPECT_EQ(Summary(Received()), "0");
  for (int i = 1; i < kCount; ++i) EXPECT_EQ(Summary(ReceiveInTime(client)), std::to_string(i));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(1'800));
}

TEST_F(TicketClientTest, DestructionEndsTheStream) {
  std::shared_ptr<Session> session;
  {
    FastSupportClient client(server_.url());
    session = Connect(client);
    session->Deliver("id-1", TicketJson("t1"));
    Received();
  }
  EXPECT_TRUE(session->AwaitEnd());
}

TEST_F(TicketClientTest, DestructionEndsTheThreadOfAStreamWhoseReadingPauses) {
  TicketClientOptions options;
  options.limits.close = std::chrono::hours(1);  // so that a thread that does not end shows
  auto client = std::make_unique<TicketClient>(server_.url(), options);
  auto receive = StartReceive(*client);
  const auto session = server_.AwaitSession();
  ASSERT_NE(session, nullptr);
  for (int i = 0; i < 40; ++i) session->Deliver(std::to_string(i), TicketJson(std::string(50'000, 't')));
  receive.Await();
  // For the queue to fill, which nothing tells. Too short a time makes the test milder and never fail.
  std::this_thread::sleep_for(milliseconds(300));
  auto destruction = std::async(std::launch::async, [&client] { client.reset(); });
  if (destruction.wait_for(test_support::kPatience) != std::future_status::ready) {
    ADD_FAILURE() << "the destructor does not return";
    std::abort();
  }
  EXPECT_TRUE(session->AwaitEnd());
}

TEST(TicketClientConnectionTest, ABadAddressFailsEachReceiveWithWhatIsWrong) {
  FastSupportClient client("http://127.0.0.1:99999");
  for (int i = 0; i < 2; ++i) {
    const auto failure = ReceiveInTime(client);
    EXPECT_EQ(Summary(failure), Failed(ClientError::kBadAddress));
    EXPECT_THAT(failure.status.errorMsg, HasSubstr("the port \"99999\" is no number from 1 to 65535"));
  }
}

TEST(TicketClientConnectionTest, AServerThatIsDownIsAFailureAndTheCallAfterItsReturnSucceeds) {
  const test_support::TemporaryFolder folder;
  const std::string address = "unix:" + folder.File("socket");
  FastSupportClient client(address);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");

  ServerOptions options;
  options.listen = address;
  for (const char* token : {"first life", "second life"}) {
    ScriptedServer server(options);
    auto receive = StartReceive(client);
    const auto session = server.AwaitSession();
    ASSERT_NE(session, nullptr);
    session->Deliver("id", TicketJson(token));
    EXPECT_EQ(Summary(receive.Await()), token);
    session->End(grpc::Status(grpc::StatusCode::UNAVAILABLE, "going away"));
    EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
  }
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
}

TEST(TicketClientConnectionTest, AnIpv6AddressWorks) {
  ServerOptions options;
  options.listen = "[::1]:0";
  ScriptedServer server(options);
  if (server.port() <= 0) GTEST_SKIP() << "no IPv6 loopback here";
  FastSupportClient client("http://[::1]:" + std::to_string(server.port()));
  Testing::ExpectTicket(server, client);
}

TEST(TicketClientConnectionTest, ANameIsLookedUp) {
  ScriptedServer server;
  FastSupportClient client("http://localhost:" + std::to_string(server.port()));
  Testing::ExpectTicket(server, client);
}

TEST(TicketClientConnectionTest, AServerThatAcceptsButIsSilentFailsWithinTheConnectLimit) {
  int port = 0;
  const ScopedFd listener(ListenOnLoopback(port));

  TicketClientOptions options;
  options.limits.connect = milliseconds(200);
  TicketClient client("http://127.0.0.1:" + std::to_string(port), options);
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 14");
}

TEST(TicketClientConnectionTest, AServerThatComplainsOfPingsIsPingedHalfAsOften) {
  ServerOptions server_options;
  server_options.strict_about_pings = true;
  ScriptedServer server(server_options);
  TicketClientOptions options;
  options.limits.keepalive = milliseconds(50);
  TicketClient client(server.url(), options);
  const auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), "failed 14");
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("Too many pings"));
  EXPECT_EQ(client.keepalive(), milliseconds(100));
}

TEST(TicketClientConnectionTest, SoIsOneThatComplainsByAGoAwayAlone) {
  const Testing::UnreadServer server(Testing::UnreadServer::Act::kComplainsOfPings);
  TicketClient client(server.Url());
  const auto keepalive = client.keepalive();
  const auto failure = ReceiveInTime(client);
  EXPECT_EQ(Summary(failure), "failed 14");
  EXPECT_THAT(failure.status.errorMsg, Not(HasSubstr("ings"))) << "the status tells it, too";
  EXPECT_EQ(client.keepalive(), 2 * keepalive);
}

/// Whether `link` passes so many more pings on. gRPC leaves a second between two of them.
bool AwaitPings(const FaultProxy& link, std::size_t count) {
  const std::size_t enough = link.passed_to_server() + count;
  return test_support::Eventually([&] { return link.passed_to_server() >= enough; });
}

TEST(TicketClientConnectionTest, ALinkThatDiesSilentlyIsFoundByPingsHoweverLongItWasIdle) {
  ScriptedServer server;
  FaultProxy link(server.port());
  TicketClientOptions options;
  options.limits.keepalive = milliseconds(100);
  options.limits.ping_answer = milliseconds(2000);  // until the link dies the answers come in time
  TicketClient client(link.Url(), options);
  auto receive = StartReceive(client);
  ASSERT_NE(server.AwaitSession(), nullptr);
  // For what belongs to the opening, whose end nothing tells. If it took longer, fewer pings would be waited for.
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_TRUE(AwaitPings(link, 3)) << "gRPC by itself sends two";
  link.Freeze();
  const auto failure = receive.Await();
  EXPECT_EQ(Summary(failure), "failed 14");
  EXPECT_THAT(failure.status.errorMsg, HasSubstr("keepalive"));
}

TEST(TicketClientConnectionTest, TheDefaultLimitsFindADeadLinkIn35SecondsAndASilentServerOrNameServerIn10) {
  const StreamLimits limits;
  EXPECT_LE(limits.keepalive + limits.ping_answer, std::chrono::seconds(35));
  EXPECT_LE(limits.connect, std::chrono::seconds(10));
  EXPECT_LE(limits.name_lookup, std::chrono::seconds(10));
}

TEST(TicketClientConnectionTest, AnAnswerThatCannotBeWrittenFailsAtItsLimitAndClosesTheStream) {
  const Testing::UnreadServer server(Testing::UnreadServer::Act::kDeliversAtOnce, "id-1", TicketJson("t1"));
  TicketClientOptions options;
  options.answer_limit = milliseconds(100);
  TicketClient client(server.Url(), options);
  ASSERT_EQ(Summary(ReceiveInTime(client)), "t1");
  const auto sent = client.Send(FastSupportClient::kAccepted);
  EXPECT_TRUE(sent.hasFail);
  EXPECT_EQ(sent.error, static_cast<int>(ClientError::kAnswerNotSent));
  EXPECT_EQ(sent.errorMsg, "The answer could not be written in time; the stream is closed");
  EXPECT_EQ(Summary(ReceiveInTime(client)), "failed 1");
}

TEST(TicketClientConnectionTest, AnAnswerIsGivenTenSecondsByDefault) {
  EXPECT_EQ(TicketClientOptions().answer_limit, std::chrono::seconds(10));
}

class RepeatedTicketTest : public TicketClientTest {
 protected:
  /// Delivers the ticket on `session`, whose Receive() is under way, and answers it.
  void ReceiveAndSend(Session& session, const std::string& id, FastSupportClient::ClientStatus status) {
    session.Deliver(id, TicketJson(id));
    ASSERT_EQ(Summary(Received()), id);
    ASSERT_FALSE(client_.Send(status).hasFail);
    ExpectAnswer(session, id,
                 status == FastSupportClient::kAccepted ? CLIENT_STATUS_ACCEPTED : CLIENT_STATUS_REJECTED);
  }
  /// The same by a further Receive().
  void ReceiveAndSendAgain(Session& session, const std::string& id, FastSupportClient::ClientStatus status) {
    receive_.emplace(client_);
    ReceiveAndSend(session, id, status);
  }
  void ExpectAnswer(Session& session, const std::string& id, tarvo::support::v1::ClientStatus status) {
    const auto answer = session.AwaitAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->ticket_id(), id);
    EXPECT_EQ(answer->status(), status);
  }

  FastSupportClient client_{server_.url()};
};

TEST_F(RepeatedTicketTest, AnAcceptedTicketIsAcceptedAgainAndNotReturnedTwice) {
  const auto session = Connect(client_);
  ReceiveAndSend(*session, "id-1", FastSupportClient::kAccepted);

  receive_.emplace(client_);
  session->Deliver("id-1", TicketJson("id-1"));
  ExpectAnswer(*session, "id-1", CLIENT_STATUS_ACCEPTED);
  session->Deliver("id-2", TicketJson("another"));
  EXPECT_EQ(Summary(Received()), "another");
  EXPECT_THAT(Testing::TakeSyslogText(), HasSubstr("Accepted again the ticket \"id-1\""));
}

TEST_F(RepeatedTicketTest, ItIsRememberedOnTheNextStreamAndWhateverItNowSays) {
  auto session = Connect(client_);
  ReceiveAndSend(*session, "id-1", FastSupportClient::kAccepted);
  session->End(grpc::Status::OK);
  ASSERT_TRUE(ReceiveInTime(client_).status.hasFail);

  session = Connect(client_);
  session->Deliver("id-1", "malformed");
  ExpectAnswer(*session, "id-1", CLIENT_STATUS_ACCEPTED);
  session->Deliver("id-2", TicketJson("another"));
  EXPECT_EQ(Summary(Received()), "another");
}

TEST_F(RepeatedTicketTest, ARejectedTicketIsReturnedAgainAndCanBeAcceptedThen) {
  const auto session = Connect(client_);
  ReceiveAndSend(*session, "id-1", FastSupportClient::kRejected);
  ReceiveAndSendAgain(*session, "id-1", FastSupportClient::kAccepted);
}

TEST_F(RepeatedTicketTest, AMalformedTicketThatComesAgainInGoodFormIsReturned) {
  const auto session = Connect(client_);
  session->Deliver("id-1", "malformed");
  ExpectAnswer(*session, "id-1", CLIENT_STATUS_REJECTED);
  ReceiveAndSend(*session, "id-1", FastSupportClient::kAccepted);
}

TEST_F(RepeatedTicketTest, ATicketThatNobodyAnsweredIsReturnedAgain) {
  const auto session = Connect(client_);
  session->Deliver("id-1", TicketJson("t1"));
  ASSERT_EQ(Summary(Received()), "t1");
  ReceiveAndSendAgain(*session, "id-1", FastSupportClient::kAccepted);
}

TEST_F(RepeatedTicketTest, TicketsWithoutAnIdAreAllReturned) {
  const auto session = Connect(client_);
  ReceiveAndSend(*session, "", FastSupportClient::kAccepted);
  ReceiveAndSendAgain(*session, "", FastSupportClient::kAccepted);
}

TEST(TicketClientConnectionTest, ATicketWhoseAcceptingAnswerDidNotGetOutIsNotReturnedTwice) {
  const test_support::TemporaryFolder folder;
  ServerOptions server_options;
  server_options.listen = "unix:" + folder.File("socket");
  auto server = std::make_unique<ScriptedServer>(server_options);
  FastSupportClient client(server_options.listen);
  auto receive = StartReceive(client);
  auto session = server->AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id-1", TicketJson("t1"));
  ASSERT_EQ(Summary(receive.Await()), "t1");
  session.reset();
  server.reset();
  CallStatus sent;
  // The stream's end may reach the client a moment after the server is gone.
  sent = client.Send(FastSupportClient::kAccepted);
  ASSERT_TRUE(ReceiveInTime(client).status.hasFail);

  server = std::make_unique<ScriptedServer>(server_options);
  receive = StartReceive(client);
  session = server->AwaitSession();
  ASSERT_NE(session, nullptr);
  session->Deliver("id-1", TicketJson("t1"));
  const auto answer = session->AwaitAnswer();
  ASSERT_TRUE(answer) << "the first Send(): " << sent.errorMsg;
  EXPECT_EQ(answer->status(), CLIENT_STATUS_ACCEPTED);
  session->Deliver("id-2", TicketJson("t2"));
  EXPECT_EQ(Summary(receive.Await()), "t2");
}

class ReopeningTest : public TicketClientTest {
 protected:
  std::unique_ptr<TicketClient> MakeClient(milliseconds settled, milliseconds longest_pause) const {
    TicketClientOptions options;
    options.settled = settled;
    options.longest_pause = longest_pause;
    return std::make_unique<TicketClient>(server_.url(), options);
  }
  /// The time that a stream stood decides whether it is reopened.
  static void OutliveSettling(milliseconds settled) { std::this_thread::sleep_for(settled); }
  /// Ends so many streams, one after the other, each once it has settled.
  void EndSettledStreams(int count, milliseconds settled, const grpc::Status& status) {
    for (int i = 0; i < count; ++i) {
      const auto session = AwaitSession();
      OutliveSettling(settled);
      session->End(status);
    }
  }
};

TEST_F(ReopeningTest, AStreamThatHadSettledIsReopenedInsideTheSameReceive) {
  const milliseconds settled(50);
  const auto client = MakeClient(settled, milliseconds(10));
  auto receive = StartReceive(*client);
  EndSettledStreams(3, settled, grpc::Status(grpc::StatusCode::UNAVAILABLE, "link\nlost"));
  AwaitSession()->Deliver("id-1", TicketJson("t1"));
  EXPECT_EQ(Summary(receive.Await()), "t1");
  EXPECT_THAT(Testing::TakeSyslogText(),
              HasSubstr("The stream ended after 0 s: link\\nlost; it is opened again in "));
}

TEST_F(ReopeningTest, AReopenedStreamThatEndsBeforeItHasSettledIsAFailure) {
  const milliseconds settled(3000);  // the second stream has to end before, however busy the machine is
  const auto client = MakeClient(settled, milliseconds(10));
  auto receive = StartReceive(*client);
  auto session = AwaitSession();
  OutliveSettling(settled);
  session->End(grpc::Status(grpc::StatusCode::UNAVAILABLE, "first"));
  session = AwaitSession();
  session->End(grpc::Status(grpc::StatusCode::UNAVAILABLE, "second"));
  const auto failure = receive.Await();
  EXPECT_EQ(Summary(failure), "failed 14");
  EXPECT_EQ(failure.status.errorMsg, "second");
}

TEST_F(ReopeningTest, AReopeningThatFindsNoServerIsAFailure) {
  const test_support::TemporaryFolder folder;
  ServerOptions server_options;
  server_options.listen = "unix:" + folder.File("socket");
  auto server = std::make_unique<ScriptedServer>(server_options);
  TicketClientOptions options;
  options.settled = milliseconds(1);
  options.longest_pause = milliseconds(1);
  TicketClient client(server_options.listen, options);
  auto receive = StartReceive(client);
  ASSERT_NE(server->AwaitSession(), nullptr);
  OutliveSettling(options.settled);
  server.reset();
  EXPECT_EQ(Summary(receive.Await()), "failed 14");
  EXPECT_THAT(Testing::TakeSyslogText(), HasSubstr("it is opened again in "));
}

TEST_F(ReopeningTest, AStreamThatEndedBetweenTwoCallsIsReopenedByTheNext) {
  const milliseconds settled(50);
  const auto client = MakeClient(settled, milliseconds(10));
  auto receive = StartReceive(*client);
  const auto session = AwaitSession();
  session->Deliver("id-1", TicketJson("t1"));
  ASSERT_EQ(Summary(receive.Await()), "t1");
  OutliveSettling(settled);
  session->End(grpc::Status(grpc::StatusCode::UNAVAILABLE, "lost"));
  ASSERT_TRUE(session->AwaitEnd());
  receive = StartReceive(*client);
  AwaitSession()->Deliver("id-2", TicketJson("t2"));
  EXPECT_EQ(Summary(receive.Await()), "t2");
}

/// The pauses that the log tells of, in milliseconds.
std::set<int> LoggedPauses() {
  std::set<int> pauses;
  const std::string before = "it is opened again in ";
  for (const auto& line : Testing::TakeSyslogLines()) {
    const std::size_t at = line.text.find(before);
    if (at != std::string::npos) pauses.insert(std::stoi(line.text.substr(at + before.size())));
  }
  return pauses;
}

TEST_F(ReopeningTest, ThePauseBeforeItIsRandomAndHasALongest) {
  const milliseconds settled(1);
  const auto client = MakeClient(settled, milliseconds(40));
  auto receive = StartReceive(*client);
  EndSettledStreams(15, settled, grpc::Status::OK);
  AwaitSession()->Deliver("id-1", TicketJson("t1"));
  ASSERT_EQ(Summary(receive.Await()), "t1");
  const auto pauses = LoggedPauses();
  EXPECT_GT(pauses.size(), 3U);
  EXPECT_LE(*pauses.rbegin(), 40);
}

TEST_F(ReopeningTest, ByDefaultAStreamSettlesInAMinuteAndIsReopenedWithinFiveSeconds) {
  const TicketClientOptions options;
  EXPECT_EQ(options.settled, std::chrono::seconds(60));
  EXPECT_EQ(options.longest_pause, std::chrono::seconds(5));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
