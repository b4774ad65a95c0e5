#include "ticket_book.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class TicketBookTest : public ::testing::Test {
 protected:
  StreamId Connect(const std::string& serial_number) {
    const StreamId stream = book_.OpenStream("peer" + serial_number);
    book_.Hello(stream, serial_number, 1);
    return stream;
  }

  /// The one delivery that is due.
  Delivery TakeDelivery() {
    const Work work = book_.TakeWork();
    EXPECT_EQ(work.deliveries.size(), 1U);
    return work.deliveries.empty() ? Delivery{} : work.deliveries.front();
  }

  /// A ticket that device SN1 has and not answered.
  struct Delivered {
    StreamId stream;
    std::string id;
  };
  Delivered Deliver() {
    const StreamId stream = Connect("SN1");
    const std::string id = book_.CreateTicket({"a"}, "");
    TakeDelivery();
    return {stream, id};
  }

  bool NothingDue() {
    const Work work = book_.TakeWork();
    return work.deliveries.empty() && work.ends.empty();
  }

  TicketState StateOf(const std::string& id) { return book_.Find(id)->last_change.state; }

  std::vector<TicketState> RoadOf(const std::string& id) {
    std::uint64_t seen = 0;
    std::vector<TicketState> states;
    for (const TicketChange& change : book_.WaitForChanges(id, seen, milliseconds(0))) {
      states.push_back(change.state);
    }
    return states;
  }

  EventRecorder events_;
  std::chrono::steady_clock::time_point now_{seconds(1000)};
  TicketBook book_{{seconds(5), seconds(10)}, events_.sink(), [this] { return now_; }};
};

TEST_F(TicketBookTest, TicketGoesToTheConnectedDeviceWithItsTokenAndApps) {
  const StreamId stream = Connect("SN1");
  const std::string id = book_.CreateTicket({"a", "b"}, "");
  const Delivery delivery = TakeDelivery();
  EXPECT_EQ(delivery.stream, stream);
  EXPECT_EQ(delivery.ticket_id, id);
  const Json::Value ticket = ParseJson(delivery.ticket_json);
  EXPECT_THAT(ticket.getMemberNames(), ElementsAre("apps", "token"));
  EXPECT_EQ(ticket["token"].asString().size(), 64U);
  EXPECT_EQ(ticket["apps"], ParseJson(R"(["a","b"])"));
  EXPECT_TRUE(NothingDue());
}

TEST_F(TicketBookTest, EmptyListOfAppsIsAnEmptyJsonArray) {
  Connect("SN1");
  book_.CreateTicket({}, "");
  EXPECT_EQ(ParseJson(TakeDelivery().ticket_json)["apps"], Json::Value(Json::arrayValue));
}

TEST_F(TicketBookTest, TokensAndIdsDiffer) {
  Connect("SN1");
  book_.CreateTicket({}, "");
  book_.CreateTicket({}, "");
  const Work work = book_.TakeWork();
  ASSERT_EQ(work.deliveries.size(), 2U);
  EXPECT_NE(work.deliveries[0].ticket_id, work.deliveries[1].ticket_id);
  EXPECT_NE(ParseJson(work.deliveries[0].ticket_json)["token"],
            ParseJson(work.deliveries[1].ticket_json)["token"]);
}

TEST_F(TicketBookTest, TicketWaitsForADeviceToConnect) {
  const std::string id = book_.CreateTicket({"a"}, "");
  EXPECT_TRUE(NothingDue());
  EXPECT_EQ(StateOf(id), TicketState::kWaiting);
  const StreamId stream = Connect("SN1");
  EXPECT_EQ(TakeDelivery().stream, stream);
  EXPECT_EQ(StateOf(id), TicketState::kDelivered);
  EXPECT_EQ(book_.Find(id)->device, "SN1");
}

TEST_F(TicketBookTest, StreamWithoutHelloGetsNoTicket) {
  book_.OpenStream("peer");
  book_.CreateTicket({"a"}, "");
  EXPECT_TRUE(NothingDue());
  EXPECT_THAT(book_.Devices(), IsEmpty());
}

TEST_F(TicketBookTest, TicketForADeviceGoesToNoOther) {
  Connect("SN1");
  book_.CreateTicket({"a"}, "SN2");
  EXPECT_TRUE(NothingDue());
  const StreamId second = Connect("SN2");
  EXPECT_EQ(TakeDelivery().stream, second);
}

TEST_F(TicketBookTest, WithoutAnAddresseeTheFirstConnectedDeviceGetsIt) {
  const StreamId first = Connect("SN1");
  Connect("SN2");
  book_.CreateTicket({"a"}, "");
  EXPECT_EQ(TakeDelivery().stream, first);
}

TEST_F(TicketBookTest, AcceptedTicketIsNotDeliveredAgain) {
  const auto [stream, id] = Deliver();
  book_.Answer(stream, id, true, "");
  EXPECT_EQ(StateOf(id), TicketState::kAccepted);
  book_.CloseStream(stream);
  Connect("SN1");
  now_ += seconds(60);
  EXPECT_TRUE(NothingDue());
}

TEST_F(TicketBookTest, UnansweredTicketIsDeliveredOnTheDevicesNextStreamUnderTheSameId) {
  const StreamId stream = Connect("SN1");
  const std::string id = book_.CreateTicket({"a"}, "");
  const std::string json = TakeDelivery().ticket_json;
  book_.CloseStream(stream);
  EXPECT_EQ(StateOf(id), TicketState::kWaiting);
  Connect("SN2");
  EXPECT_TRUE(NothingDue()) << "another device must not get it";
  const StreamId next = Connect("SN1");
  const Delivery again = TakeDelivery();
  EXPECT_EQ(again.stream, next);
  EXPECT_EQ(again.ticket_id, id);
  EXPECT_EQ(again.ticket_json, json);
  EXPECT_TRUE(events_.Has("ticket " + id + " redelivered"));
  EXPECT_THAT(RoadOf(id), ElementsAre(TicketState::kWaiting, TicketState::kDelivered, TicketState::kWaiting,
                                      TicketState::kDelivered));
}

TEST_F(TicketBookTest, RejectedTicketIsRetriedAfterThePauseAndNotBefore) {
  const auto [stream, id] = Deliver();
  book_.Answer(stream, id, false, "busy");
  EXPECT_EQ(StateOf(id), TicketState::kRejected);
  EXPECT_TRUE(events_.Has("answered: rejected, reason \"busy\", again in 5 s"));
  now_ += milliseconds(4999);
  EXPECT_TRUE(NothingDue());
  now_ += milliseconds(1);
  EXPECT_EQ(TakeDelivery().ticket_id, id);
  EXPECT_TRUE(events_.Has("ticket " + id + " retried"));
  book_.Answer(stream, id, true, "");
  EXPECT_EQ(StateOf(id), TicketState::kAccepted);
}

TEST_F(TicketBookTest, RejectedTicketOfALostDeviceWaitsForItsNextStream) {
  const auto [stream, id] = Deliver();
  book_.Answer(stream, id, false, "");
  book_.CloseStream(stream);
  now_ += seconds(60);
  EXPECT_TRUE(NothingDue());
  Connect("SN1");
  EXPECT_EQ(TakeDelivery().ticket_id, id);
}

TEST_F(TicketBookTest, NewStreamOfASerialNumberReplacesTheOldOne) {
  const StreamId old_stream = Connect("SN1");
  const std::string id = book_.CreateTicket({"a"}, "");
  TakeDelivery();
  const StreamId new_stream = Connect("SN1");
  const Work work = book_.TakeWork();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, old_stream);
  EXPECT_EQ(work.ends[0].reason, EndReason::kReplaced);
  ASSERT_EQ(work.deliveries.size(), 1U);
  EXPECT_EQ(work.deliveries[0].stream, new_stream);
  EXPECT_EQ(work.deliveries[0].ticket_id, id);
  EXPECT_EQ(book_.Devices().size(), 1U);
  book_.CloseStream(old_stream);
  EXPECT_EQ(StateOf(id), TicketState::kDelivered) << "the old stream's end must not touch the new one";
}

TEST_F(TicketBookTest, DevicesWithoutSerialNumberAreOnePerStream) {
  const StreamId first = Connect("");
  const StreamId second = Connect("");
  EXPECT_EQ(book_.Devices().size(), 2U);
  const std::string id = book_.CreateTicket({"a"}, "");
  EXPECT_EQ(TakeDelivery().stream, first);
  book_.CloseStream(first);
  const Delivery again = TakeDelivery();
  EXPECT_EQ(again.stream, second);
  EXPECT_EQ(again.ticket_id, id);
}

TEST_F(TicketBookTest, RejectedByADeviceWithoutSerialNumberIsRetriedOnTheSameStream) {
  const StreamId other = Connect("");
  book_.CloseStream(other);
  const StreamId stream = Connect("");
  const std::string id = book_.CreateTicket({"a"}, "");
  EXPECT_EQ(TakeDelivery().stream, stream);
  Connect("SN1");
  book_.Answer(stream, id, false, "");
  now_ += seconds(5);
  EXPECT_EQ(TakeDelivery().stream, stream);
}

TEST_F(TicketBookTest, StreamWithoutHelloIsEndedAtTheLimitAndNotBefore) {
  const StreamId stream = book_.OpenStream("peer");
  now_ += milliseconds(9999);
  EXPECT_TRUE(NothingDue());
  now_ += milliseconds(1);
  const Work work = book_.TakeWork();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, stream);
  EXPECT_EQ(work.ends[0].reason, EndReason::kNoHello);
  EXPECT_TRUE(NothingDue());
}

TEST_F(TicketBookTest, HelloOfAnotherProtocolEndsTheStream) {
  for (const std::uint32_t protocol : {0U, 2U}) {
    const StreamId stream = book_.OpenStream("peer");
    book_.Hello(stream, "SN1", protocol);
    const Work work = book_.TakeWork();
    ASSERT_EQ(work.ends.size(), 1U);
    EXPECT_EQ(work.ends[0].reason, EndReason::kWrongProtocol);
    EXPECT_THAT(work.ends[0].text, HasSubstr("protocol " + std::to_string(protocol)));
  }
  EXPECT_THAT(book_.Devices(), IsEmpty());
}

TEST_F(TicketBookTest, SecondHelloEndsTheStream) {
  const StreamId stream = Connect("SN1");
  book_.Hello(stream, "SN1", 1);
  const Work work = book_.TakeWork();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, stream);
  EXPECT_EQ(work.ends[0].reason, EndReason::kProtocolError);
}

TEST_F(TicketBookTest, AnswerBeforeTheHelloEndsTheStream) {
  const StreamId stream = book_.OpenStream("peer");
  book_.Answer(stream, "0", true, "");
  const Work work = book_.TakeWork();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].reason, EndReason::kProtocolError);
}

TEST_F(TicketBookTest, AnswersThatBelongToNoDeliveryAreIgnoredAndLogged) {
  const StreamId stream = Connect("SN1");
  const StreamId other = Connect("SN2");
  const std::string id = book_.CreateTicket({"a"}, "SN1");
  TakeDelivery();
  book_.Answer(stream, "no\nsuch", true, "");
  book_.Answer(other, id, true, "");
  EXPECT_EQ(StateOf(id), TicketState::kDelivered);
  book_.Answer(stream, id, true, "");
  book_.Answer(stream, id, false, "changed my mind");
  EXPECT_EQ(StateOf(id), TicketState::kAccepted);
  EXPECT_TRUE(events_.Has("answer ignored: ticket no\\x0asuch"));
  EXPECT_TRUE(events_.Has("answer ignored: ticket " + id + " is not waiting for one from \"SN2\""));
}

TEST_F(TicketBookTest, TokenIsKnownOnlyOnceItWasHandedOut) {
  const std::string id = book_.CreateTicket({"a"}, "");
  EXPECT_FALSE(book_.FindByToken(""));
  Connect("SN1");
  const std::string token = ParseJson(TakeDelivery().ticket_json)["token"].asString();
  EXPECT_EQ(book_.FindByToken(token)->id, id);
  EXPECT_FALSE(book_.FindByToken(token.substr(1)));
  EXPECT_FALSE(book_.FindByToken(token + "0"));
  std::string altered = token;
  altered.back() = altered.back() == '0' ? '1' : '0';
  EXPECT_FALSE(book_.FindByToken(altered));
  EXPECT_FALSE(book_.FindByToken(""));
}

TEST_F(TicketBookTest, UploadAndReportMoveTheTicketToItsEnd) {
  const auto [stream, id] = Deliver();
  book_.Answer(stream, id, true, "");
  book_.RecordUpload(id, {3, "abc", "SN1", {"a"}, {}});
  book_.RecordReport(id, {"Success", "SN1", {}});
  EXPECT_THAT(RoadOf(id), ElementsAre(TicketState::kWaiting, TicketState::kDelivered, TicketState::kAccepted,
                                      TicketState::kUploaded, TicketState::kReported));
  EXPECT_EQ(book_.Find(id)->last_change.detail, "Success");
  EXPECT_EQ(book_.Find(id)->upload->sha256, "abc");
}

TEST_F(TicketBookTest, UploadThatOvertakesTheAnswerCountsAndIsNotUndoneByIt) {
  const auto [stream, id] = Deliver();
  book_.RecordUpload(id, {});
  book_.Answer(stream, id, true, "");
  EXPECT_EQ(StateOf(id), TicketState::kUploaded);
  EXPECT_TRUE(events_.Has("answered: accepted"));
}

TEST_F(TicketBookTest, ReportedTicketWithoutAnswerIsNotDeliveredAgain) {
  const auto [stream, id] = Deliver();
  book_.RecordReport(id, {"Failed to generate debug file", "", {}});
  book_.CloseStream(stream);
  Connect("SN1");
  EXPECT_TRUE(NothingDue());
  EXPECT_EQ(StateOf(id), TicketState::kReported);
}

TEST_F(TicketBookTest, ReportEndsTheRetriesOfARejectedTicket) {
  const auto [stream, id] = Deliver();
  book_.Answer(stream, id, false, "busy with this very ticket");
  book_.RecordReport(id, {"Success", "", {}});
  now_ += seconds(60);
  EXPECT_TRUE(NothingDue());
}

TEST_F(TicketBookTest, UploadAfterTheReportLeavesItReported) {
  const std::string id = Deliver().id;
  book_.RecordReport(id, {"Success", "", {}});
  book_.RecordUpload(id, {7, "abc", "", {}, {}});
  EXPECT_EQ(StateOf(id), TicketState::kReported);
  EXPECT_EQ(book_.Find(id)->upload->size_bytes, 7U);
}

TEST_F(TicketBookTest, OnlyTheNewestChangesOfAnEndlesslyRejectedTicketAreKept) {
  const StreamId stream = Connect("SN1");
  const std::string id = book_.CreateTicket({"a"}, "");
  std::uint64_t seen = 0;
  for (int i = 0; i < 300; ++i) {
    TakeDelivery();
    book_.Answer(stream, id, false, "");
    now_ += seconds(5);
  }
  EXPECT_EQ(book_.WaitForChanges(id, seen, milliseconds(0)).size(), 256U);
  EXPECT_EQ(seen, 601U);
  EXPECT_THAT(book_.WaitForChanges(id, seen, milliseconds(0)), IsEmpty());
}

TEST_F(TicketBookTest, TicketTooLargeToDeliverIsRefused) {
  EXPECT_NO_THROW(book_.CreateTicket({std::string(60U * 1024 - 88, 'a')}, ""));
  EXPECT_THROW(book_.CreateTicket({std::string(60U * 1024 - 87, 'a')}, ""), std::invalid_argument);
  EXPECT_EQ(book_.Tickets().size(), 1U);
}

TEST_F(TicketBookTest, CloseEndsEveryStreamAndTakesNoNewOne) {
  Connect("SN1");
  book_.OpenStream("peer");
  book_.Close();
  const Work work = book_.WaitForWork();
  EXPECT_EQ(work.ends.size(), 2U);
  EXPECT_EQ(work.ends[0].reason, EndReason::kShutdown);
  EXPECT_TRUE(work.closed);
  EXPECT_EQ(book_.OpenStream("peer"), 0U);
}

TEST_F(TicketBookTest, NoEventLineHoldsTheToken) {
  const StreamId stream = Connect("SN1");
  const std::string id = book_.CreateTicket({"a"}, "");
  const std::string token = ParseJson(TakeDelivery().ticket_json)["token"].asString();
  book_.Answer(stream, id, false, "busy");
  now_ += seconds(5);
  TakeDelivery();
  book_.Answer(stream, id, true, "");
  book_.RecordUpload(id, {});
  book_.RecordReport(id, {"Success", "", {}});
  EXPECT_THAT(events_.text(), Not(HasSubstr(token)));
  EXPECT_THAT(events_.text(), HasSubstr("retried"));
}

TEST(TicketBookWaitTest, WaitForWorkWakesForATicketARetryAndClose) {
  EventRecorder events;
  TicketBook book({milliseconds(20), seconds(10)}, events.sink());
  std::vector<std::string> delivered;
  std::thread front([&] {
    const auto stream = book.OpenStream("peer");
    book.Hello(stream, "SN1", 1);
    for (;;) {
      const Work work = book.WaitForWork();
      for (const Delivery& delivery : work.deliveries) {
        delivered.push_back(delivery.ticket_id);
        book.Answer(stream, delivery.ticket_id, delivered.size() == 2, "");
      }
      if (work.closed) return;
    }
  });
  const std::string id = book.CreateTicket({"a"}, "");
  EXPECT_TRUE(Eventually([&] { return book.Find(id)->last_change.state == TicketState::kAccepted; }));
  book.Close();
  front.join();
  EXPECT_THAT(delivered, ElementsAre(id, id));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
