#include "cost_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "eventually.h"
#include "stop_signal.h"

namespace TarvoOrvane::Internal {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kHeapIsTheCLibrarys = false;
#else
constexpr bool kHeapIsTheCLibrarys = true;
#endif

milliseconds Cpu() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return milliseconds(now.tv_sec * 1000 + now.tv_nsec / 1'000'000);
}

void Burn(milliseconds time) {
  for (const auto end = Cpu() + time; Cpu() < end;) {
  }
}

/// Limits that no test reaches unless it changes them.
CostLimits Wide() {
  CostLimits limits;
  limits.memory_bytes = 1UL << 40;
  limits.cpu = std::chrono::hours(1);
  limits.received_bytes = 1UL << 40;
  return limits;
}

class CostWatchTest : public testing::Test {
 protected:
  /// Begins to watch; what is too much goes to the result.
  std::future<std::string> Begin(CostWatch& watch) {
    auto result = std::make_shared<std::promise<std::string>>();
    watch.Begin(
        [this, result](const std::string& what) {
          ++calls_;
          result->set_value(what);
        },
        [this] { return received_.load(); });
    return result->get_future();
  }

  /// Uses processor time until there is a result.
  static std::string Await(std::future<std::string>& result) {
    const auto deadline = std::chrono::steady_clock::now() + test_support::kPatience;
    while (result.wait_for(milliseconds(0)) != std::future_status::ready) {
      if (std::chrono::steady_clock::now() > deadline) return "(nothing)";
      Burn(milliseconds(5));
    }
    return result.get();
  }

  const SignalBlock block_;
  std::atomic<int> calls_{0};
  std::atomic<std::uint64_t> received_{0};
};

TEST_F(CostWatchTest, AGrowingHeapIsToldOnceWithHowMuch) {
  if (!kHeapIsTheCLibrarys) GTEST_SKIP() << "a sanitizer has a heap of its own";
  CostLimits limits = Wide();
  limits.memory_bytes = 4UL << 20;
  CostWatch watch(limits);
  const std::vector<char> before(20UL << 20, 'b');
  auto result = Begin(watch);
  Burn(milliseconds(100));
  EXPECT_EQ(calls_, 0);

  // Half a MiB more than is told, for what other threads free meanwhile.
  const std::vector<char> more((6UL << 20) + (1UL << 19), 'm');
  EXPECT_EQ(Await(result), "6 MiB of memory");
  Burn(milliseconds(100));
  EXPECT_EQ(calls_, 1);
}

TEST_F(CostWatchTest, ABusyProcessIsToldOnceItsTimeIsUsedUp) {
  CostLimits limits = Wide();
  limits.cpu = milliseconds(200);
  limits.cpu_percent = 0;
  const auto before = Cpu();
  CostWatch watch(limits);
  auto result = Begin(watch);
  EXPECT_EQ(Await(result), "200 ms of processor time");
  EXPECT_GE(Cpu() - before, milliseconds(200));
}

TEST_F(CostWatchTest, WhatIsUsedStaysUsedForTheNextStream) {
  CostLimits limits = Wide();
  limits.cpu = milliseconds(300);
  limits.cpu_percent = 0;
  CostWatch watch(limits);
  auto first = Begin(watch);
  Await(first);
  const auto before = Cpu();
  auto second = Begin(watch);
  EXPECT_THAT(Await(second), HasSubstr("processor time"));
  EXPECT_LT(Cpu() - before, milliseconds(250));
}

TEST_F(CostWatchTest, AServerThatSendsTooMuchIsTold) {
  CostLimits limits = Wide();
  limits.received_bytes = 5UL << 20;
  limits.received_bytes_per_second = 0;
  CostWatch watch(limits);
  received_ = 5UL << 20;
  auto result = Begin(watch);
  Burn(milliseconds(100));
  EXPECT_EQ(calls_, 0);
  received_ = (5UL << 20) + 1;
  EXPECT_EQ(Await(result), "5 MiB from the server");
}

TEST_F(CostWatchTest, SoMuchInASecondIsFree) {
  CostLimits limits = Wide();
  limits.received_bytes = 0;
  limits.received_bytes_per_second = 1UL << 40;
  CostWatch watch(limits);
  auto result = Begin(watch);
  const timespec pause{1, 100'000'000};
  nanosleep(&pause, nullptr);  // the second that is free
  received_ = 1UL << 30;
  Burn(milliseconds(100));
  EXPECT_EQ(calls_, 0);
}

TEST_F(CostWatchTest, AShareOfTheTimeIsFree) {
  CostLimits limits = Wide();
  limits.cpu = milliseconds(100);
  limits.cpu_percent = 1'000;  // of one processor: more than this process can use
  CostWatch watch(limits);
  auto result = Begin(watch);
  Burn(milliseconds(400));
  EXPECT_EQ(calls_, 0);
}

TEST_F(CostWatchTest, NothingIsToldOnceItHasEnded) {
  CostLimits limits = Wide();
  limits.cpu = milliseconds(0);
  CostWatch watch(limits);
  Begin(watch);
  watch.End();
  const int calls = calls_;
  Burn(milliseconds(100));
  EXPECT_EQ(calls_, calls);
}

/// How often the watching thread waited so far, which /proc counts; -1 where there is no such thread.
long WaitsOfTheWatch() {
  const std::string count = "voluntary_ctxt_switches:";
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    if (name != "cost watch") continue;
    std::ifstream status(task.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind(count, 0) == 0) return std::strtol(line.c_str() + count.size(), nullptr, 10);
    }
  }
  return -1;
}

TEST_F(CostWatchTest, AQuietProcessIsNotWokenUp) {
  CostWatch watch(Wide());
  auto result = Begin(watch);
  long before = -1;
  ASSERT_TRUE(test_support::Eventually([&] { return (before = WaitsOfTheWatch()) >= 0; }));
  std::this_thread::sleep_for(milliseconds(300));  // in which nothing has to happen
  EXPECT_LE(WaitsOfTheWatch() - before, 1) << "the one that it may not have reached before";
}

}  // namespace
}  // namespace TarvoOrvane::Internal
