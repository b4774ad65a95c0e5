#include "dispatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "eventually.h"
#include "memory_store.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::milliseconds;
using test_support::Eventually;
using test_support::kPatience;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A store whose disk can be made to stand still.
class SlowStore final : public MemoryStore {
 public:
  void Write(const std::vector<Change>& changes) override {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !stands_still_; });
    --waiting_;
    batches_.push_back(changes.size());
    MemoryStore::Write(changes);
  }
  void StandStill(bool stands_still) {
    const std::lock_guard<std::mutex> lock(mutex_);
    stands_still_ = stands_still;
    changed_.notify_all();
  }
  [[nodiscard]] bool AwaitWriter() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [this] { return waiting_ > 0; });
  }
  [[nodiscard]] std::vector<std::size_t> batches() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return batches_;
  }
  /// That is no batch.
  void Enrol(const std::string& serial_number) {
    EnrolledDevice device;
    device.serial_number = serial_number;
    MemoryStore::Write({device});
  }
  void Fail(bool fail) { FailWrites(fail); }
  /// As on a disk that is gone.
  void FailReads(bool fail) { reads_fail_ = fail; }

  [[nodiscard]] std::vector<Ticket> OpenTickets() const override {
    if (reads_fail_) throw StoreError("the disk is gone");
    return MemoryStore::OpenTickets();
  }

 private:
  std::atomic<bool> reads_fail_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stands_still_ = false;
  int waiting_ = 0;
  std::vector<std::size_t> batches_;
};

TicketBook::Settings BelievingSettings() {
  TicketBook::Settings settings;
  settings.trust = Trust::kAllowList;
  return settings;
}

class DispatcherTest : public ::testing::Test {
 protected:
  DispatcherTest() {
    for (const char* serial_number : {"SN1", "SN2", "SN3"}) store_.Enrol(serial_number);
    dispatcher_.SetWorkSink([this](const Work& work) {
      const std::lock_guard<std::mutex> lock(mutex_);
      for (const Delivery& delivery : work.deliveries) delivered_.push_back(delivery.ticket_id);
      for (const StreamEnd& end : work.ends) ended_.push_back(end.stream);
    });
  }
  ~DispatcherTest() override {
    store_.StandStill(false);
    dispatcher_.Close();
  }

  std::string Create(const std::string& device = "SN1") {
    return dispatcher_.Call([&](TicketBook& book) { return book.Create({device, {"a"}}).id; });
  }
  void Connect(StreamId stream, const std::string& device) {
    dispatcher_.Post([=](TicketBook& book) {
      book.OpenStream(stream, "peer");
      book.Hello(stream, device, 1, std::nullopt);
    });
  }
  /// Posts a new ticket. The future has the fault.
  std::future<std::string> PostTicket() {
    const auto told = std::make_shared<std::promise<std::string>>();
    dispatcher_.Post(
        [](TicketBook& book) {
          book.Create({"SN1", {"a"}});
        },
        [told](const std::string& fault) { told->set_value(fault); });
    return told->get_future();
  }
  std::vector<std::string> delivered() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return delivered_;
  }
  std::vector<StreamId> ended() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return ended_;
  }
  std::vector<std::string> lines() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  static bool IsTold(const std::future<std::string>& told) {
    return told.wait_for(milliseconds(0)) == std::future_status::ready;
  }

  std::mutex mutex_;
  std::vector<std::string> delivered_;
  std::vector<StreamId> ended_;
  std::vector<std::string> lines_;
  SlowStore store_;
  Metrics metrics_;
  Dispatcher dispatcher_{BelievingSettings(), store_,
                         [this](const std::string& line) {
                           const std::lock_guard<std::mutex> lock(mutex_);
                           lines_.push_back(line);
                         },
                         metrics_};
};

TEST_F(DispatcherTest, WhatWasCalledIsRememberedWhenTheCallReturns) {
  const std::string id = Create();
  ASSERT_EQ(store_.FindById(id, 1).size(), 1U);
  EXPECT_THAT(lines(), ElementsAre("ticket " + id + " created: apps [\"a\"], for device \"SN1\""));
}

TEST_F(DispatcherTest, WhatAFunctionThrowsReachesTheCaller) {
  EXPECT_THROW(Create(""), std::invalid_argument);
  EXPECT_THAT(store_.batches(), IsEmpty());
}

TEST_F(DispatcherTest, NothingIsDeliveredOrToldBeforeItIsRemembered) {
  Connect(1, "SN1");
  store_.StandStill(true);
  const auto told = PostTicket();
  ASSERT_TRUE(store_.AwaitWriter());
  EXPECT_FALSE(IsTold(told));
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_THAT(lines(), Not(Contains(HasSubstr("created"))));
  store_.StandStill(false);
  ASSERT_EQ(told.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(Eventually([&] { return delivered().size() == 1; }));
}

TEST_F(DispatcherTest, WhatComesWhileTheDiskIsBusyGoesIntoOneBatchAndKeepsNobodyWaiting) {
  store_.StandStill(true);
  std::vector<std::future<std::string>> told;
  told.push_back(PostTicket());
  ASSERT_TRUE(store_.AwaitWriter());
  for (int i = 0; i < 99; ++i) told.push_back(PostTicket());
  store_.StandStill(false);
  for (auto& each : told) EXPECT_EQ(each.get(), "");
  EXPECT_THAT(store_.batches(), ElementsAre(1U, 99U));
}

TEST_F(DispatcherTest, WhatCouldNotBeRememberedIsToldAndHasNotHappened) {
  Connect(1, "SN1");
  store_.Fail(true);
  try {
    Create();
    ADD_FAILURE() << "a ticket was created that nobody remembers";
  } catch (const StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("was told to fail"));
  }
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_THAT(lines(), Contains(HasSubstr("nothing was remembered of what happened last")));
  store_.Fail(false);
  const std::string id = Create();
  EXPECT_TRUE(Eventually([&] { return delivered() == std::vector<std::string>{id}; }));
  EXPECT_EQ(store_.OpenTickets().size(), 1U);
}

TEST_F(DispatcherTest, StreamsThatEndAreEndedAlsoWhenTheStoreFails) {
  Connect(1, "SN1");
  Create();
  ASSERT_TRUE(Eventually([&] { return delivered().size() == 1; }));
  store_.Fail(true);
  Connect(2, "SN1");
  EXPECT_TRUE(Eventually([&] { return ended() == std::vector<StreamId>{1}; }));
  store_.Fail(false);
  EXPECT_TRUE(Eventually([&] { return delivered().size() == 2; })) << "it is delivered on the newer stream";
}

TEST_F(DispatcherTest, NobodyWaitsForADiskThatIsGoneAndItsReturnIsNoticed) {
  Connect(1, "SN1");
  const std::string former = Create();
  ASSERT_TRUE(Eventually([&] { return delivered().size() == 1; }));
  store_.Fail(true);
  store_.FailReads(true);
  EXPECT_NE(PostTicket().get(), "");
  dispatcher_.Post([](TicketBook& book) { book.CloseStream(1); });
  EXPECT_EQ(PostTicket().get(), "the disk is gone");
  store_.Fail(false);
  store_.FailReads(false);
  EXPECT_TRUE(Eventually([&] { return PostTicket().get().empty(); }));
  EXPECT_EQ(store_.FindById(former, 1).at(0).state, TicketState::kQueued)
      << "the end of its stream was noticed";
}

TEST_F(DispatcherTest, NewEventsAreToldWhenTheyAreInTheStore) {
  std::mutex mutex;
  std::vector<EventNumber> told;
  dispatcher_.SetNewsSink([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    told.push_back(store_.LastEvent());
  });
  Create();
  Create();
  dispatcher_.Post([](TicketBook& book) { book.registry().Record({"a", "b"}, "c", "d"); });
  dispatcher_.SetNewsSink({});
  Create();
  const std::lock_guard<std::mutex> lock(mutex);
  EXPECT_THAT(told, ElementsAre(1, 2));
}

TEST_F(DispatcherTest, ClosingRemembersWhatWasPostedAndEndsStreams) {
  Connect(7, "SN2");
  store_.StandStill(true);
  const auto first = PostTicket();
  ASSERT_TRUE(store_.AwaitWriter());
  auto second = PostTicket();
  auto closing = std::async(std::launch::async, [&] { dispatcher_.Close(); });
  EXPECT_TRUE(Eventually([&] { return dispatcher_.closed(); }));
  store_.StandStill(false);
  closing.get();
  EXPECT_EQ(second.get(), "");
  EXPECT_EQ(store_.OpenTickets().size(), 2U);
  EXPECT_THAT(ended(), ElementsAre(7U));
  EXPECT_EQ(PostTicket().get(), "the service shuts down");
  EXPECT_THROW(Create(), StoreError);
  dispatcher_.Close();
}

TEST_F(DispatcherTest, WhatIsDueIsDoneWithoutAnInput) {
  TicketBook::Settings settings = BelievingSettings();
  settings.hello_limit = milliseconds(1);
  MemoryStore store;
  std::promise<StreamId> ended;
  Metrics metrics;
  Dispatcher dispatcher(
      settings, store, [](const std::string&) {}, metrics);
  dispatcher.SetWorkSink([&](const Work& work) { ended.set_value(work.ends.at(0).stream); });
  dispatcher.Post([](TicketBook& book) { book.OpenStream(3, "peer"); });
  EXPECT_EQ(ended.get_future().get(), 3U);
  dispatcher.Close();
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
