#include "ticket_book.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <stdexcept>

#include "book_rig.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

Json::Value JsonOf(const std::string& text) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  return value;
}

std::string TokenIn(const Delivery& delivery) { return JsonOf(delivery.ticket_json)["token"].asString(); }

class TicketBookTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  TicketNumber Create(const std::string& device = "SN1", const std::vector<std::string>& apps = {"a"}) {
    return book().Create({device, apps}).number;
  }

  /// The one delivery that is due now.
  Delivery TakeDelivery() {
    const Work work = rig_.Turn();
    EXPECT_EQ(work.deliveries.size(), 1U);
    return work.deliveries.empty() ? Delivery{} : work.deliveries.front();
  }

  bool NothingDue() {
    const Work work = rig_.Turn();
    return work.deliveries.empty() && work.ends.empty();
  }

  /// Time passes up to just before and then up to that moment.
  void ExpectNothingBefore(milliseconds time) {
    rig_.Pass(time - milliseconds(1));
    EXPECT_TRUE(NothingDue()) << time.count();
    rig_.Pass(milliseconds(1));
  }

  /// A ticket that device SN1 has been given on this stream.
  struct Delivered {
    StreamId stream;
    TicketNumber number;
    std::string id;
    std::string token;
  };
  Delivered Deliver() {
    const StreamId stream = rig_.Connect("SN1");
    const TicketNumber number = Create();
    const Delivery delivery = TakeDelivery();
    return {stream, number, delivery.ticket_id, TokenIn(delivery)};
  }
  Delivered Accept() {
    const Delivered ticket = Deliver();
    book().Answer(ticket.stream, ticket.id, true, "");
    rig_.Turn();
    return ticket;
  }
  void Reject(const Delivered& ticket, const std::string& reason = "") {
    book().Answer(ticket.stream, ticket.id, false, reason);
  }

  UploadFate Upload(TicketNumber number, const std::string& hash, std::uint64_t version = 1) {
    Archive archive;
    archive.version = version;
    archive.size_bytes = 10;
    archive.sha256 = hash;
    archive.serial_number = "SN1";
    archive.apps = {"a"};
    archive.received = rig_.now().wall;
    const UploadFate fate = book().RecordUpload(number, archive);
    rig_.Turn();
    return fate;
  }
  bool Report(TicketNumber number, const std::string& status = "Success") {
    const bool taken = book().RecordReport(number, status);
    rig_.Turn();
    return taken;
  }

  std::vector<EventKind> RoadOf(TicketNumber number) {
    std::vector<EventKind> kinds;
    for (const Event& event : rig_.EventsOf(number)) kinds.push_back(event.kind);
    return kinds;
  }
  std::string LastTextOf(TicketNumber number) { return rig_.Get(number).last_text; }
  TicketState StateOf(TicketNumber number) { return rig_.StateOf(number); }
  TicketBook& book() { return rig_.book(); }

  BookRig rig_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Stores, TicketBookTest, ::testing::Values(StoreKind::kMemory, StoreKind::kSqlite),
                         [](const auto& store) { return NameOf(store.param); });

// ---- creation ----

TEST_P(TicketBookTest, TicketGoesToItsConnectedDeviceWithTokenAndApps) {
  const StreamId stream = rig_.Connect("SN1");
  const Ticket ticket = book().Create({"SN1", {"a", "b"}});
  const Delivery delivery = TakeDelivery();
  EXPECT_EQ(delivery.stream, stream);
  EXPECT_EQ(delivery.ticket_id, ticket.id);
  EXPECT_EQ(ticket.id.size(), 16U);
  const Json::Value json = JsonOf(delivery.ticket_json);
  EXPECT_THAT(json.getMemberNames(), ElementsAre("apps", "token"));
  EXPECT_EQ(json["token"].asString().size(), 64U);
  EXPECT_EQ(json["apps"], JsonOf(R"(["a","b"])"));
  EXPECT_TRUE(NothingDue());
  EXPECT_EQ(StateOf(ticket.number), TicketState::kDelivered);
}

TEST_P(TicketBookTest, EmptyListOfAppsIsAnEmptyJsonArray) {
  rig_.Connect("SN1");
  Create("SN1", {});
  EXPECT_EQ(JsonOf(TakeDelivery().ticket_json)["apps"], Json::Value(Json::arrayValue));
}

TEST_P(TicketBookTest, TicketThatFitsTheDevicesPipeIsTakenAndOneByteMoreIsNot) {
  rig_.Connect("SN1");
  const std::size_t frame = 2047;
  Create("SN1", {""
                 "x"});
  const std::size_t others = TakeDelivery().ticket_json.size() - 1;
  rig_.Restart();
  rig_.Connect("SN2");
  Create("SN2", {std::string(frame - others, 'x')});
  EXPECT_EQ(TakeDelivery().ticket_json.size(), frame);
  try {
    Create("SN2", {std::string(frame - others + 1, 'x')});
    ADD_FAILURE() << "a ticket that no device can take was created";
  } catch (const std::invalid_argument& error) {
    EXPECT_THAT(error.what(), HasSubstr("2048 bytes, the limit is 2047"));
  }
  EXPECT_TRUE(NothingDue());
}

TEST_P(TicketBookTest, WhatNoDeviceCanBeIsRefusedWithTheReason) {
  const auto fault_of = [this](const std::string& device, const std::vector<std::string>& apps) {
    try {
      Create(device, apps);
    } catch (const std::invalid_argument& error) {
      return std::string(error.what());
    }
    return std::string("none");
  };
  EXPECT_THAT(fault_of("", {"a"}), HasSubstr("the serial number is empty"));
  EXPECT_THAT(fault_of(std::string(129, 'x'), {"a"}), HasSubstr("longer than 128 bytes"));
  EXPECT_THAT(fault_of("a\nb", {"a"}), HasSubstr("printable ASCII"));
  EXPECT_THAT(fault_of("SN1", {"a", ""}), HasSubstr("name is empty"));
  EXPECT_THAT(fault_of("SN77", {"a"}), HasSubstr("device \"SN77\" is not enrolled: enrol it first"));
  book().SetBlocked("SN2", true);
  EXPECT_THAT(fault_of("SN2", {"a"}), HasSubstr("device \"SN2\" is blocked: unblock it first"));
  book().registry().Enrol(std::string(128, 'x'), std::nullopt);
  EXPECT_EQ(fault_of(std::string(128, 'x'), {"a"}), "none");
}

TEST_P(TicketBookTest, TicketForADeviceGoesToNoOther) {
  rig_.Connect("SN1");
  Create("SN2");
  EXPECT_TRUE(NothingDue());
  const StreamId second = rig_.Connect("SN2");
  EXPECT_EQ(TakeDelivery().stream, second);
}

TEST_P(TicketBookTest, TicketsOfADeviceGoOneAtATimeAndInOrder) {
  const Delivered first = Deliver();
  const TicketNumber second = Create();
  const TicketNumber third = Create();
  EXPECT_TRUE(NothingDue()) << "the first one is not answered";
  book().Answer(first.stream, first.id, true, "");
  EXPECT_TRUE(NothingDue()) << "the first one is not reported";
  book().RecordReport(first.number, "Success");
  EXPECT_EQ(TakeDelivery().ticket_id, rig_.Get(second).id);
  EXPECT_EQ(StateOf(third), TicketState::kQueued);
}

TEST_P(TicketBookTest, TokensAreFreshForEachDeliveryAndAllOfThemLeadToTheTicket) {
  const Delivered ticket = Deliver();
  book().CloseStream(ticket.stream);
  rig_.Connect("SN1");
  const std::string second = TokenIn(TakeDelivery());
  EXPECT_NE(second, ticket.token);
  for (const std::string& token : {ticket.token, second}) {
    const auto found = rig_.store().FindByToken(HashOf(token));
    ASSERT_TRUE(found) << token;
    EXPECT_EQ(found->id, ticket.id);
  }
  EXPECT_FALSE(rig_.store().FindByToken(HashOf("another")));
}

// ---- streams ----

TEST_P(TicketBookTest, StreamWithoutHelloGetsNoTicketAndIsEndedInTime) {
  const StreamId stream = rig_.Open();
  Create();
  EXPECT_TRUE(NothingDue());
  EXPECT_THAT(rig_.Devices(), IsEmpty());
  ExpectNothingBefore(seconds(10));
  const Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, stream);
  EXPECT_EQ(work.ends[0].reason, EndReason::kNoHello);
}

TEST_P(TicketBookTest, HelloThatCanBeNoDevicesEndsTheStream) {
  for (const std::string& serial : {std::string(), std::string(129, 'x'), std::string("a\x01")}) {
    rig_.Connect(serial);
    const Work work = rig_.Turn();
    ASSERT_EQ(work.ends.size(), 1U);
    EXPECT_EQ(work.ends[0].reason, EndReason::kBadHello);
    EXPECT_THAT(work.ends[0].text, HasSubstr("serial number"));
  }
  EXPECT_THAT(rig_.Devices(), IsEmpty());
}

TEST_P(TicketBookTest, OtherProtocolEndsTheStream) {
  const StreamId stream = rig_.Open();
  book().Hello(stream, "SN1", 2, std::nullopt);
  const Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].reason, EndReason::kBadHello);
  EXPECT_THAT(work.ends[0].text, HasSubstr("protocol 2 is not known here"));
}

TEST_P(TicketBookTest, SecondHelloEndsTheStream) {
  const StreamId stream = rig_.Connect("SN1");
  book().Hello(stream, "SN1", 1, std::nullopt);
  const Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].reason, EndReason::kProtocolError);
}

TEST_P(TicketBookTest, AnswerBeforeTheHelloEndsTheStream) {
  book().Answer(rig_.Open(), "id", true, "");
  EXPECT_EQ(rig_.Turn().ends.size(), 1U);
}

TEST_P(TicketBookTest, NewerStreamOfADeviceReplacesTheOlderAndGetsWhatThatHadNotAnswered) {
  const Delivered ticket = Deliver();
  const StreamId newer = rig_.Connect("SN1");
  const Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, ticket.stream);
  EXPECT_EQ(work.ends[0].reason, EndReason::kReplaced);
  ASSERT_EQ(work.deliveries.size(), 1U);
  EXPECT_EQ(work.deliveries[0].stream, newer);
  EXPECT_EQ(work.deliveries[0].ticket_id, ticket.id);
  EXPECT_EQ(rig_.Devices().size(), 1U);
  // The older one's answer may still be on its way. It must not count for the newer delivery.
  book().Answer(ticket.stream, ticket.id, true, "");
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kDelivered);
}

TEST_P(TicketBookTest, WhatAnEndedStreamStillSaysIsPassedOver) {
  const StreamId stream = rig_.Connect("SN1");
  book().CloseStream(stream);
  book().CloseStream(stream);
  book().Hello(stream, "SN1", 1, std::nullopt);
  book().Answer(stream, "id", true, "");
  book().ProtocolError(stream, "x");
  EXPECT_TRUE(NothingDue());
  EXPECT_THAT(rig_.Devices(), IsEmpty());
}

TEST_P(TicketBookTest, AnswerToATicketThatWasNotDeliveredThereIsLoggedAndIgnored) {
  const Delivered ticket = Deliver();
  const StreamId other = rig_.Connect("SN2");
  book().Answer(other, ticket.id, true, "");
  book().Answer(other, "no such \n id", true, "");
  EXPECT_TRUE(NothingDue());
  EXPECT_EQ(StateOf(ticket.number), TicketState::kDelivered);
  EXPECT_THAT(rig_.lines().back(), HasSubstr("answer ignored: ticket no such \\x0a id"));
}

TEST_P(TicketBookTest, DevicesAreThoseThatSaidHello) {
  rig_.Open();
  rig_.Connect("SN1");
  rig_.Connect("SN2");
  const auto devices = rig_.Devices();
  ASSERT_EQ(devices.size(), 2U);
  EXPECT_EQ(devices[0].serial_number, "SN1");
  EXPECT_EQ(devices[0].connected_since, rig_.now().wall);
  EXPECT_EQ(devices[1].peer, "peer of SN2");
}

TEST_P(TicketBookTest, ClosingAllStreamsQueuesWhatWasNotAnswered) {
  const Delivered ticket = Deliver();
  rig_.Open();
  book().CloseAllStreams();
  EXPECT_EQ(rig_.Turn().ends.size(), 2U);
  EXPECT_EQ(StateOf(ticket.number), TicketState::kQueued);
}

TEST_P(TicketBookTest, StreamsWithoutHelloKeepNoDeviceOut) {
  for (int i = 0; i < 1000; ++i) rig_.Open();
  EXPECT_TRUE(NothingDue());
  const StreamId device = rig_.Connect("SN2");
  const Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_NE(work.ends[0].stream, device);
  EXPECT_EQ(work.ends[0].reason, EndReason::kTooMany);
  rig_.Pass(seconds(10));
  EXPECT_EQ(rig_.Turn().ends.size(), 999U);
  EXPECT_EQ(rig_.Devices().size(), 1U);
}

TEST_P(TicketBookTest, MoreStreamsThanTheLimitAreEndedAndTheLimitMayChange) {
  rig_.settings().most_streams = 2;
  book().SetSettings(rig_.settings());
  rig_.Connect("SN1");
  rig_.Connect("SN2");
  EXPECT_TRUE(NothingDue());
  const StreamId third = rig_.Open();
  const Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, third);
  EXPECT_EQ(work.ends[0].reason, EndReason::kTooMany);
  EXPECT_EQ(rig_.metrics().met(Limit::kStreams), 1U);
  rig_.settings().most_streams = 3;
  book().SetSettings(rig_.settings());
  rig_.Connect("SN3");
  EXPECT_EQ(rig_.Devices().size(), 3U);
  EXPECT_EQ(book().Overview().streams, 3U);
  EXPECT_EQ(book().Overview().devices, 3U);
}

TEST_P(TicketBookTest, StreamsWithoutHelloThatAreTooManyAreCounted) {
  rig_.settings().most_silent_streams = 2;
  book().SetSettings(rig_.settings());
  for (int i = 0; i < 3; ++i) rig_.Open();
  EXPECT_EQ(rig_.Turn().ends.size(), 1U);
  EXPECT_EQ(rig_.metrics().met(Limit::kSilentStreams), 1U);
  EXPECT_EQ(book().Overview().silent_streams, 2U);
}

TEST_P(TicketBookTest, TicketsThatWaitForADeviceAreLimited) {
  rig_.settings().most_queued = 2;
  book().SetSettings(rig_.settings());
  const StreamId stream = rig_.Connect("SN1");
  const TicketNumber first = Create();
  const Delivery delivery = TakeDelivery();
  Create();
  Create();
  try {
    Create();
    ADD_FAILURE() << "a third one waits";
  } catch (const LimitReached& refusal) {
    EXPECT_STREQ(
        refusal.what(),
        "as many tickets wait for device \"SN1\" as may, 2: cancel one of them, or wait until the device "
        "has taken one");
  }
  EXPECT_EQ(rig_.metrics().met(Limit::kQueuedTicketsPerDevice), 1U);
  EXPECT_EQ(book().Overview().longest_queue, 2U);
  Create("SN2");
  book().Answer(stream, delivery.ticket_id, true, "");
  book().RecordReport(first, "Success");
  rig_.Turn();
  EXPECT_NO_THROW(Create()) << "the device has taken one of them";
}

TEST_P(TicketBookTest, OpenTicketsAreLimited) {
  rig_.settings().most_open = 2;
  book().SetSettings(rig_.settings());
  const TicketNumber first = Create("SN1");
  Create("SN2");
  EXPECT_THROW(Create("SN3"), LimitReached);
  EXPECT_EQ(rig_.metrics().met(Limit::kOpenTickets), 1U);
  book().Cancel(first, "somebody");
  EXPECT_NO_THROW(Create("SN3"));
  rig_.Turn();
  EXPECT_THROW(Create("SN4"), LimitReached);
}

TEST_P(TicketBookTest, TicketsAreCountedByTheirState) {
  const auto count = [this](TicketState state) {
    return book().Overview().tickets.at(static_cast<std::size_t>(state));
  };
  const Delivered ticket = Accept();
  Create();
  Create("SN2");
  EXPECT_EQ(count(TicketState::kQueued), 2U);
  EXPECT_EQ(count(TicketState::kAccepted), 1U);
  EXPECT_EQ(book().Overview().open_tickets, 3U);
  rig_.Turn();
  rig_.Restart();
  EXPECT_EQ(count(TicketState::kQueued), 2U) << "as the store has them";
  EXPECT_EQ(count(TicketState::kAccepted), 1U);
  EXPECT_TRUE(book().RecordReport(ticket.number, "Success"));
  EXPECT_EQ(count(TicketState::kAccepted), 0U);
  EXPECT_EQ(count(TicketState::kReported), 0U) << "that is an end";
  book().Reload();
  EXPECT_EQ(count(TicketState::kAccepted), 1U) << "what was not remembered has not happened";
}

TEST_P(TicketBookTest, TextsThatAreTooLongAreCounted) {
  EXPECT_THROW(book().Create({"SN1", {}, std::string(1001, 'x')}), std::invalid_argument);
  EXPECT_EQ(rig_.metrics().met(Limit::kNoteCharacters), 1U);
  EXPECT_THROW(Create("SN1", {std::string(3000, 'x')}), std::invalid_argument);
  EXPECT_EQ(rig_.metrics().met(Limit::kTicketBytes), 1U);
  const Delivered ticket = Deliver();
  book().Answer(ticket.stream, ticket.id, false, std::string(513, 'x'));
  rig_.Turn();
  EXPECT_EQ(rig_.metrics().met(Limit::kReasonBytes), 1U);
  EXPECT_THAT(rig_.Get(ticket.number).last_text, ::testing::HasSubstr(std::string(512, 'x') + "..."));
}

TEST_P(TicketBookTest, TrustDoesNotChangeWithTheSettings) {
  TicketBook::Settings settings = rig_.settings();
  settings.trust = Trust::kOwnAuthority;
  book().SetSettings(settings);
  rig_.Connect("SN1");
  EXPECT_EQ(rig_.Devices().size(), 1U) << "on its word";
}

TEST_P(TicketBookTest, TwinsAreToldFromADeviceThatReconnects) {
  const TicketNumber number = Create();
  StreamId stream = rig_.Connect("SN1");
  EXPECT_EQ(TakeDelivery().stream, stream);
  for (int i = 0; i < 3; ++i) {
    const StreamId next = rig_.Connect("SN1");
    const Work work = rig_.Turn();
    ASSERT_EQ(work.ends.size(), 1U);
    EXPECT_EQ(work.ends[0].stream, stream);
    EXPECT_EQ(work.deliveries.size(), 1U);
    stream = next;
  }
  EXPECT_EQ(rig_.Devices()[0].twin, "");
  // The fourth takeover within ten minutes: the older stream stays, and gets nothing.
  const StreamId twin = rig_.Connect("SN1");
  Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, twin);
  EXPECT_EQ(work.ends[0].reason, EndReason::kTwin);
  ASSERT_EQ(rig_.Devices().size(), 1U);
  EXPECT_EQ(rig_.Devices()[0].twin, "peer of SN1");
  book().Answer(stream, rig_.Get(number).id, false, "");
  rig_.Pass(minutes(9));
  EXPECT_TRUE(NothingDue());
  rig_.Connect("SN1");
  EXPECT_EQ(rig_.Turn().ends.size(), 1U);
  ExpectNothingBefore(minutes(10));
  EXPECT_EQ(TakeDelivery().stream, stream) << "the other one has stayed away";
  EXPECT_EQ(rig_.Devices()[0].twin, "");
}

TEST_P(TicketBookTest, DeviceThatReconnectsNowAndThenIsNoTwin) {
  rig_.Connect("SN1");
  for (int i = 0; i < 20; ++i) {
    rig_.Pass(minutes(4));
    rig_.Connect("SN1");
    const Work work = rig_.Turn();
    ASSERT_EQ(work.ends.size(), 1U);
    EXPECT_EQ(work.ends[0].reason, EndReason::kReplaced);
  }
}

TEST_P(TicketBookTest, TwinsThatBothGoAreForgottenInTime) {
  const StreamId stream = rig_.Connect("SN1");
  StreamId last = stream;
  for (int i = 0; i < 4; ++i) last = rig_.Connect("SN1");
  book().CloseStream(last - 1);
  rig_.Turn();
  EXPECT_THAT(rig_.Devices(), IsEmpty());
  rig_.Pass(Registry::kSeenPause);
  rig_.Turn();
  EXPECT_EQ(book().NextDeadline(), rig_.now().steady + minutes(10) - Registry::kSeenPause);
  rig_.Pass(minutes(10));
  EXPECT_TRUE(NothingDue());
  EXPECT_FALSE(book().NextDeadline());
}

// ---- queued ----

TEST_P(TicketBookTest, TicketThatNoDeviceTakesExpiresAtItsDeadline) {
  const TicketNumber number = Create();
  ExpectNothingBefore(hours(14 * 24));
  EXPECT_EQ(StateOf(number), TicketState::kQueued);
  rig_.Turn();
  EXPECT_EQ(StateOf(number), TicketState::kExpired);
  rig_.Connect("SN1");
  EXPECT_TRUE(NothingDue());
}

TEST_P(TicketBookTest, QueuedTicketIsCancelled) {
  const TicketNumber number = Create();
  rig_.Turn();
  book().Cancel(number, "by admin");
  rig_.Turn();
  EXPECT_EQ(StateOf(number), TicketState::kCancelled);
  EXPECT_EQ(LastTextOf(number), "by admin");
  rig_.Connect("SN1");
  EXPECT_TRUE(NothingDue());
}

TEST_P(TicketBookTest, WhatADeviceHasOrHadIsNotCancelled) {
  const auto fault_of = [this](TicketNumber number) {
    try {
      book().Cancel(number, "by admin");
    } catch (const std::invalid_argument& error) {
      return std::string(error.what());
    }
    return std::string("none");
  };
  const Delivered ticket = Deliver();
  EXPECT_THAT(fault_of(ticket.number), HasSubstr("is delivered: its device has it already"));
  EXPECT_TRUE(Report(ticket.number));
  EXPECT_THAT(fault_of(ticket.number), HasSubstr("is reported: it is at its end"));
  EXPECT_THAT(fault_of(99), HasSubstr("no such ticket"));
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kReported);
}

// ---- delivered ----

TEST_P(TicketBookTest, UnansweredTicketIsDeliveredOnTheDevicesNextStreamUnderTheSameId) {
  const Delivered ticket = Deliver();
  book().CloseStream(ticket.stream);
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kQueued);
  rig_.Connect("SN1");
  EXPECT_EQ(TakeDelivery().ticket_id, ticket.id);
  EXPECT_THAT(RoadOf(ticket.number), ElementsAre(EventKind::kCreated, EventKind::kDelivered,
                                                 EventKind::kStreamEnded, EventKind::kDelivered));
}

TEST_P(TicketBookTest, StreamThatDoesNotAnswerIsEnded) {
  const Delivered ticket = Deliver();
  ExpectNothingBefore(seconds(60));
  const Work work = rig_.Turn();
  ASSERT_EQ(work.ends.size(), 1U);
  EXPECT_EQ(work.ends[0].stream, ticket.stream);
  EXPECT_EQ(work.ends[0].reason, EndReason::kNoAnswer);
  EXPECT_THAT(work.deliveries, IsEmpty());
  EXPECT_EQ(StateOf(ticket.number), TicketState::kQueued);
}

// ---- rejections ----

TEST_P(TicketBookTest, RejectedTicketIsDeliveredAgainAfterPausesThatGrow) {
  const Delivered ticket = Deliver();
  for (const int pause : {2, 4, 8, 16, 32, 64, 128, 256, 512, 600, 600}) {
    Reject(ticket);
    rig_.Turn();
    EXPECT_EQ(StateOf(ticket.number), TicketState::kQueued);
    ExpectNothingBefore(seconds(pause));
    EXPECT_EQ(TakeDelivery().ticket_id, ticket.id);
  }
}

TEST_P(TicketBookTest, NextTicketWaitsBehindARejectedOne) {
  const Delivered ticket = Deliver();
  Create();
  Reject(ticket);
  ExpectNothingBefore(seconds(2));
  EXPECT_EQ(TakeDelivery().ticket_id, ticket.id);
}

TEST_P(TicketBookTest, RejectionWithAReasonRefusesTheTicket) {
  const Delivered ticket = Deliver();
  Reject(ticket, "no \"token\"\n");
  EXPECT_TRUE(NothingDue());
  EXPECT_EQ(StateOf(ticket.number), TicketState::kRefused);
  EXPECT_THAT(LastTextOf(ticket.number), HasSubstr(R"(the device says "no \"token\"\x0a")"));
}

TEST_P(TicketBookTest, DayOfNothingButRejectionsRefusesTheTicket) {
  const Delivered ticket = Deliver();
  const auto begin = rig_.now().steady;
  Reject(ticket);
  rig_.Turn();
  while (rig_.now().steady - begin < hours(24)) {
    EXPECT_EQ(StateOf(ticket.number), TicketState::kQueued);
    rig_.Pass(minutes(10));
    EXPECT_EQ(TakeDelivery().ticket_id, ticket.id);
    Reject(ticket);
    rig_.Turn();
  }
  EXPECT_EQ(StateOf(ticket.number), TicketState::kRefused);
  EXPECT_THAT(LastTextOf(ticket.number), HasSubstr("restart the daemon"));
}

TEST_P(TicketBookTest, DeviceThatWasAwayBetweenTwoRejectionsHasNotRejectedAllTheTime) {
  const Delivered ticket = Deliver();
  Reject(ticket);
  book().CloseStream(ticket.stream);
  rig_.Turn();
  rig_.Pass(hours(25));
  const StreamId next = rig_.Connect("SN1");
  EXPECT_EQ(TakeDelivery().ticket_id, ticket.id);
  book().Answer(next, ticket.id, false, "");
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kQueued);
  EXPECT_EQ(rig_.Get(ticket.number).rejections, 1U);
}

TEST_P(TicketBookTest, OneTicketHasSoManyArchivesAndNoMore) {
  const Delivered ticket = Accept();
  for (std::uint64_t version = 1; version <= 16; ++version) {
    EXPECT_EQ(Upload(ticket.number, "h" + std::to_string(version), version), UploadFate::kKept);
  }
  EXPECT_EQ(Upload(ticket.number, "h17", 17), UploadFate::kTooMany);
  EXPECT_EQ(rig_.metrics().met(Limit::kArchivesPerTicket), 1U);
  EXPECT_EQ(Upload(ticket.number, "h3", 18), UploadFate::kRepeated);
  EXPECT_TRUE(Report(ticket.number));
}

TEST_P(TicketBookTest, ClockThatWasSetBackIsTold) {
  Create();
  rig_.Turn();
  rig_.Restart();
  EXPECT_THAT(rig_.lines(), IsEmpty());
  rig_.SetWallClock(-hours(1));
  rig_.Restart();
  EXPECT_THAT(rig_.lines(), ElementsAre(HasSubstr("the clock stands before what has happened already")));
}

TEST_P(TicketBookTest, RejectionsRightBehindAReportDoNotCount) {
  const Delivered first = Accept();
  const TicketNumber second = Create();
  book().RecordReport(first.number, "Success");
  for (int i = 0; i < 10; ++i) {
    const Delivery delivery = TakeDelivery();
    book().Answer(delivery.stream, delivery.ticket_id, false, "");
    rig_.Turn();
    EXPECT_EQ(rig_.Get(second).rejections, 0U);
    ExpectNothingBefore(seconds(2));
  }
  rig_.Pass(seconds(10));  // 30 s behind the report
  const Delivery delivery = TakeDelivery();
  book().Answer(delivery.stream, delivery.ticket_id, false, "");
  rig_.Turn();
  EXPECT_EQ(rig_.Get(second).rejections, 1U);
}

TEST_P(TicketBookTest, RejectionThatIsOvertakenByAnUploadIsIgnored) {
  const Delivered ticket = Deliver();
  Upload(ticket.number, "h1");
  Reject(ticket);
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kUploaded);
}

// ---- accepted and uploaded ----

TEST_P(TicketBookTest, AcceptedTicketIsNotDeliveredAgain) {
  const Delivered ticket = Accept();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kAccepted);
  book().CloseStream(ticket.stream);
  rig_.Connect("SN1");
  rig_.Pass(minutes(29));
  EXPECT_TRUE(NothingDue());
}

TEST_P(TicketBookTest, OverdueTicketLetsTheNextOneBeTriedAndLosesItsResultWhenThatIsAccepted) {
  const Delivered ticket = Accept();
  const TicketNumber next = Create();
  ExpectNothingBefore(minutes(30));
  const Delivery probe = TakeDelivery();
  EXPECT_EQ(probe.ticket_id, rig_.Get(next).id);
  EXPECT_TRUE(rig_.Get(ticket.number).overdue);
  EXPECT_EQ(StateOf(ticket.number), TicketState::kAccepted);
  book().Answer(probe.stream, probe.ticket_id, true, "");
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kNoResult);
  EXPECT_THAT(LastTextOf(ticket.number), HasSubstr(probe.ticket_id));
  EXPECT_EQ(StateOf(next), TicketState::kAccepted);
}

TEST_P(TicketBookTest, OverdueTicketThatIsReportedAfterAllIsReported) {
  const Delivered ticket = Accept();
  const TicketNumber next = Create();
  rig_.Pass(minutes(30));
  const Delivery probe = TakeDelivery();
  book().Answer(probe.stream, probe.ticket_id, false, "");
  rig_.Turn();
  EXPECT_TRUE(Report(ticket.number));
  EXPECT_EQ(StateOf(ticket.number), TicketState::kReported);
  EXPECT_EQ(StateOf(next), TicketState::kQueued);
}

TEST_P(TicketBookTest, AcceptedTicketWithoutAResultEndsAfterSixHours) {
  const Delivered ticket = Accept();
  rig_.Pass(hours(6) - milliseconds(1));
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kAccepted);
  rig_.Pass(milliseconds(1));
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kNoResult);
}

TEST_P(TicketBookTest, UploadedTicketWithoutAReportEndsAfterSixHoursAndKeepsItsArchive) {
  const Delivered ticket = Accept();
  rig_.Pass(hours(5));
  EXPECT_EQ(Upload(ticket.number, "h1"), UploadFate::kKept);
  EXPECT_EQ(StateOf(ticket.number), TicketState::kUploaded);
  rig_.Pass(hours(6) - milliseconds(1));
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kUploaded);
  rig_.Pass(milliseconds(1));
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kNoResult);
  EXPECT_EQ(rig_.Get(ticket.number).archives.size(), 1U);
}

TEST_P(TicketBookTest, UploadOrReportThatOvertakesTheAnswerImpliesIt) {
  const Delivered ticket = Deliver();
  EXPECT_EQ(Upload(ticket.number, "h1"), UploadFate::kKept);
  EXPECT_EQ(StateOf(ticket.number), TicketState::kUploaded);
  book().Answer(ticket.stream, ticket.id, true, "");
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kUploaded);
  book().CloseStream(ticket.stream);
  EXPECT_TRUE(NothingDue());
  EXPECT_EQ(StateOf(ticket.number), TicketState::kUploaded) << "nothing is delivered again";
}

TEST_P(TicketBookTest, ResultOfATicketWhoseAnswerWasLostCounts) {
  const Delivered ticket = Deliver();
  book().CloseStream(ticket.stream);
  rig_.Turn();
  EXPECT_TRUE(Report(ticket.number));
  EXPECT_EQ(StateOf(ticket.number), TicketState::kReported);
  rig_.Connect("SN1");
  EXPECT_TRUE(NothingDue());
}

TEST_P(TicketBookTest, RepeatedUploadMakesNoVersionAndAnotherContentDoes) {
  const Delivered ticket = Accept();
  EXPECT_EQ(Upload(ticket.number, "h1", 1), UploadFate::kKept);
  EXPECT_EQ(Upload(ticket.number, "h1", 2), UploadFate::kRepeated);
  EXPECT_EQ(Upload(ticket.number, "h2", 3), UploadFate::kKept);
  EXPECT_TRUE(Report(ticket.number));
  EXPECT_EQ(Upload(ticket.number, "h2", 4), UploadFate::kRepeated);
  EXPECT_EQ(Upload(ticket.number, "h3", 5), UploadFate::kKept);
  const Ticket now = rig_.Get(ticket.number);
  EXPECT_EQ(now.state, TicketState::kReported);
  ASSERT_EQ(now.archives.size(), 3U);
  EXPECT_EQ(now.archives[1].version, 3U);
  EXPECT_EQ(now.archives[2].sha256, "h3");
}

TEST_P(TicketBookTest, TwoUploadsOfOneContentInOneBatchMakeOneVersion) {
  const Delivered ticket = Accept();
  Archive archive;
  archive.version = 1;
  archive.sha256 = "h1";
  EXPECT_EQ(book().RecordUpload(ticket.number, archive), UploadFate::kKept);
  archive.version = 2;
  EXPECT_EQ(book().RecordUpload(ticket.number, archive), UploadFate::kRepeated);
  rig_.Turn();
  EXPECT_EQ(rig_.Get(ticket.number).archives.size(), 1U);
}

TEST_P(TicketBookTest, RepeatedReportIsTakenAndChangesNothing) {
  const Delivered ticket = Accept();
  const std::string any_bytes("a\0\xff\n", 4);
  EXPECT_TRUE(Report(ticket.number, any_bytes));
  EXPECT_TRUE(Report(ticket.number, "Success"));
  EXPECT_EQ(rig_.Get(ticket.number).report, any_bytes);
  EXPECT_THAT(RoadOf(ticket.number), ElementsAre(EventKind::kCreated, EventKind::kDelivered,
                                                 EventKind::kAccepted, EventKind::kReported));
}

// ---- the ends ----

TEST_P(TicketBookTest, LateResultsCountForNoResult) {
  const Delivered ticket = Accept();
  rig_.Pass(hours(7));
  rig_.Turn();
  ASSERT_EQ(StateOf(ticket.number), TicketState::kNoResult);
  EXPECT_EQ(Upload(ticket.number, "h1"), UploadFate::kKept);
  EXPECT_EQ(StateOf(ticket.number), TicketState::kNoResult);
  EXPECT_EQ(rig_.Get(ticket.number).archives.size(), 1U);
  EXPECT_TRUE(Report(ticket.number));
  EXPECT_EQ(StateOf(ticket.number), TicketState::kReported);
}

TEST_P(TicketBookTest, ResultsOfOtherEndsAreNotTaken) {
  const TicketNumber cancelled = Create("SN2");
  const TicketNumber expired = Create("SN3");
  rig_.Turn();
  book().Cancel(cancelled, "");
  rig_.Pass(hours(14 * 24));
  rig_.Turn();
  const Delivered refused = Deliver();
  Reject(refused, "why");
  rig_.Turn();
  for (const TicketNumber number : {cancelled, expired, refused.number}) {
    const TicketState before = StateOf(number);
    EXPECT_FALSE(TakesRequests(rig_.Get(number), rig_.now().wall));
    EXPECT_EQ(Upload(number, "h1"), UploadFate::kUnwanted);
    EXPECT_FALSE(Report(number));
    EXPECT_EQ(StateOf(number), before);
  }
  EXPECT_EQ(Upload(99, "h1"), UploadFate::kUnwanted);
  EXPECT_FALSE(Report(99));
}

TEST_P(TicketBookTest, TokensAreGoodForADayBehindTheReport) {
  const Delivered ticket = Accept();
  EXPECT_TRUE(TakesRequests(rig_.Get(ticket.number), rig_.now().wall));
  Report(ticket.number);
  const Ticket reported = rig_.Get(ticket.number);
  EXPECT_TRUE(TakesRequests(reported, rig_.now().wall + hours(24) - milliseconds(1)));
  EXPECT_FALSE(TakesRequests(reported, rig_.now().wall + hours(24)));
}

// ---- restarts ----

TEST_P(TicketBookTest, RestartQueuesWhatWasNotAnswered) {
  const Delivered ticket = Deliver();
  rig_.Restart();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kQueued);
  EXPECT_THAT(LastTextOf(ticket.number), HasSubstr("restarted"));
  rig_.Connect("SN1");
  EXPECT_EQ(TakeDelivery().ticket_id, ticket.id);
}

TEST_P(TicketBookTest, LimitsGoOnOverARestart) {
  const Delivered accepted = Accept();
  const TicketNumber queued = Create("SN2");
  rig_.Turn();
  rig_.Pass(hours(5));
  rig_.Restart();
  rig_.Pass(hours(1));
  rig_.Turn();
  EXPECT_EQ(StateOf(accepted.number), TicketState::kNoResult);
  rig_.Pass(hours(14 * 24 - 6) - milliseconds(1));
  rig_.Turn();
  EXPECT_EQ(StateOf(queued), TicketState::kQueued);
  rig_.Pass(milliseconds(1));
  rig_.Turn();
  EXPECT_EQ(StateOf(queued), TicketState::kExpired);
}

TEST_P(TicketBookTest, ClockThatIsSetMovesNoLimitWhileTheServiceRuns) {
  const Delivered accepted = Accept();
  const TicketNumber queued = Create("SN2");
  rig_.Turn();
  rig_.SetWallClock(hours(24 * 365));
  rig_.Turn();
  EXPECT_EQ(StateOf(accepted.number), TicketState::kAccepted);
  EXPECT_EQ(StateOf(queued), TicketState::kQueued);
  rig_.SetWallClock(-hours(2 * 24 * 365));
  rig_.Pass(hours(6));
  rig_.Turn();
  EXPECT_EQ(StateOf(accepted.number), TicketState::kNoResult);
}

TEST_P(TicketBookTest, ClockThatWasSetBackBetweenTwoRunsMakesNoLimitLongerThanItWas) {
  const Delivered accepted = Accept();
  const TicketNumber queued = Create("SN2");
  rig_.Turn();
  rig_.SetWallClock(-hours(24 * 365));
  rig_.Restart();
  rig_.Pass(hours(6));
  rig_.Turn();
  EXPECT_EQ(StateOf(accepted.number), TicketState::kNoResult);
  rig_.Pass(hours(14 * 24 - 6));
  rig_.Turn();
  EXPECT_EQ(StateOf(queued), TicketState::kExpired);
}

TEST_P(TicketBookTest, NumbersGoOnOverARestart) {
  const TicketNumber first = Create();
  rig_.Turn();
  rig_.Restart();
  EXPECT_EQ(Create(), first + 1);
  rig_.Turn();
  EXPECT_EQ(rig_.EventsOf(first + 1).front().number, rig_.EventsOf(first).back().number + 1);
}

TEST_P(TicketBookTest, WhatCouldNotBeRememberedHasNotHappened) {
  const Delivered accepted = Accept();
  const TicketNumber queued = Create("SN2");
  rig_.Turn();
  book().RecordReport(accepted.number, "Success");
  const StreamId second = rig_.Connect("SN2");
  book().Advance();
  static_cast<void>(book().TakeChanges());  // the store fails
  book().Reload();
  EXPECT_EQ(StateOf(accepted.number), TicketState::kAccepted);
  // The stream is still there, and the ticket goes to it.
  const Delivery delivery = TakeDelivery();
  EXPECT_EQ(delivery.stream, second);
  EXPECT_EQ(delivery.ticket_id, rig_.Get(queued).id);
  EXPECT_TRUE(Report(accepted.number));
}

TEST_P(TicketBookTest, DeliveryWhoseAnswerIsAwaitedStaysSoWhenTheStoreFails) {
  const Delivered ticket = Deliver();
  book().Reload();
  EXPECT_TRUE(NothingDue());
  EXPECT_EQ(StateOf(ticket.number), TicketState::kDelivered);
  book().Answer(ticket.stream, ticket.id, true, "");
  rig_.Turn();
  EXPECT_EQ(StateOf(ticket.number), TicketState::kAccepted);
}

// ---- deadlines ----

TEST_P(TicketBookTest, NextDeadlineIsTheNearest) {
  EXPECT_FALSE(book().NextDeadline());
  const auto begin = rig_.now().steady;
  Create();
  rig_.Turn();
  EXPECT_EQ(book().NextDeadline(), begin + hours(14 * 24));
  const StreamId stream = rig_.Open();
  EXPECT_EQ(book().NextDeadline(), begin + seconds(10));
  book().Hello(stream, "SN1", 1, std::nullopt);
  const Delivery delivery = TakeDelivery();
  EXPECT_EQ(book().NextDeadline(), begin + seconds(60));
  book().Answer(stream, delivery.ticket_id, true, "");
  rig_.Turn();
  EXPECT_EQ(book().NextDeadline(), begin + minutes(30));
  book().RecordReport(1, "Success");
  rig_.Turn();
  EXPECT_FALSE(book().NextDeadline());
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
