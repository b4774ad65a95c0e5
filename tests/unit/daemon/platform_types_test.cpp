// The binary interface that the daemon and the platform's libraries must agree on.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "debug_dat_transmitter.h"
#include "scripted_platform.h"

using TarvoOrvane::FastSupport::CallStatus;
using TarvoOrvane::FastSupport::FastSupportClient;
using TarvoOrvane::FastSupport::ReceiveResult;
using TarvoOrvane::FastSupport::Ticket;
using TarvoOrvane::Utils::CurlFailedException;
using TarvoOrvane::Utils::CurlFormFailedException;
using TarvoOrvane::Utils::CurlHandle;
using TarvoOrvane::Utils::CurlHeaderList;
using TarvoOrvane::Utils::CurlHttpPost;
using TarvoOrvane::Utils::LoggerManager;
using TarvoOrvane::Utils::Optional;
using test_support::ScriptedPlatform;
using test_support::ScriptedPlatformTest;
using testing::ElementsAre;
using testing::Field;

namespace {

TEST_F(ScriptedPlatformTest, LogIsTheLoggersThirdVirtualOperation) {
  using LogFunction = void (*)(LoggerManager*, int, const std::string&);
  ScriptedPlatform::UseLogger(true);
  LoggerManager* const logger = LoggerManager::instance_;
  void** table = nullptr;
  std::memcpy(&table, static_cast<void*>(logger), sizeof(table));
  LogFunction log = nullptr;
  std::memcpy(&log, &table[2], sizeof(log));
  log(logger, LOG_WARNING, "text");
  EXPECT_THAT(log_.lines(), ElementsAre(Field(&test_support::Event::text, "text")));
}

TEST(OptionalTest, FlagStandsBeforeTheValue) {
  const Optional<std::string> empty{};
  EXPECT_FALSE(static_cast<bool>(empty));
  const Optional<std::string> full(std::string("value"));
  EXPECT_TRUE(static_cast<bool>(full));
  const auto* const start = reinterpret_cast<const char*>(&full);
  EXPECT_EQ(*start, 1);
  EXPECT_EQ(reinterpret_cast<const char*>(&*full), start + alignof(std::string));
}

TEST(OptionalTest, CopiesMovesAndReleasesItsValue) {
  const auto value = std::make_shared<int>(7);
  {
    Optional<std::shared_ptr<int>> first(value);
    const Optional<std::shared_ptr<int>> copy(first);
    EXPECT_EQ(value.use_count(), 3);
    EXPECT_EQ(**copy, 7);
    Optional<std::shared_ptr<int>> moved(std::move(first));
    EXPECT_EQ(value.use_count(), 3);
    moved = Optional<std::shared_ptr<int>>();
    EXPECT_FALSE(static_cast<bool>(moved));
    EXPECT_EQ(value.use_count(), 2);
    moved = copy;
    EXPECT_EQ(moved->use_count(), 3);
    Optional<std::shared_ptr<int>> none;
    moved = none;
    EXPECT_EQ(value.use_count(), 2);
    const Optional<std::shared_ptr<int>> copy_of_none(none);
    EXPECT_FALSE(static_cast<bool>(copy_of_none));
    none = value;
    EXPECT_EQ(value.use_count(), 3);
    none = {};
  }
  EXPECT_EQ(value.use_count(), 1);
}

template <typename Record, typename First, typename Second>
bool Precedes(First Record::*first, Second Record::*second) {
  const Record record{};
  return static_cast<const void*>(&(record.*first)) < static_cast<const void*>(&(record.*second));
}

TEST(CurlTypesTest, AreWhatTheLibrarysFunctionsTake) {
  static_assert(std::is_same_v<CurlHandle, std::unique_ptr<void, void (*)(void*)>>);
  static_assert(std::is_same_v<CurlHeaderList, std::unique_ptr<curl_slist, void (*)(curl_slist*)>>);
  static_assert(std::is_convertible_v<CurlFailedException*, std::runtime_error*>);
  static_assert(std::is_convertible_v<CurlFormFailedException*, std::runtime_error*>);
  EXPECT_TRUE(Precedes(&CurlHttpPost::first, &CurlHttpPost::last));
  EXPECT_EQ(sizeof(CurlHttpPost),
            sizeof(std::unique_ptr<curl_httppost, void (*)(curl_httppost*)>) + sizeof(void*));
}

TEST(RecordTest, FieldsKeepTheirOrder) {
  EXPECT_TRUE(Precedes(&Ticket::token, &Ticket::apps));
  EXPECT_TRUE(Precedes(&CallStatus::hasFail, &CallStatus::error));
  EXPECT_TRUE(Precedes(&CallStatus::error, &CallStatus::errorMsg));
  EXPECT_TRUE(Precedes(&ReceiveResult::request, &ReceiveResult::status));
}

TEST(RecordTest, DaemonObjectKeepsItsFieldOrderAndStartsClosed) {
  using Daemon = DebugDatTransmitterDaemon;
  EXPECT_TRUE(Precedes(&Daemon::fromWorkerReadFd, &Daemon::toWorkerWriteFd));
  EXPECT_TRUE(Precedes(&Daemon::toWorkerWriteFd, &Daemon::toWorkerReadFd));
  EXPECT_TRUE(Precedes(&Daemon::toWorkerReadFd, &Daemon::fromWorkerWriteFd));
  EXPECT_TRUE(Precedes(&Daemon::fromWorkerWriteFd, &Daemon::transmitterRunning));
  EXPECT_TRUE(Precedes(&Daemon::transmitterRunning, &Daemon::transmitterPid));
  const Daemon daemon;
  EXPECT_EQ(daemon.fromWorkerReadFd, -1);
  EXPECT_EQ(daemon.toWorkerWriteFd, -1);
  EXPECT_EQ(daemon.toWorkerReadFd, -1);
  EXPECT_EQ(daemon.fromWorkerWriteFd, -1);
  EXPECT_FALSE(daemon.transmitterRunning);
}

TEST(RecordTest, AnswersAndErrorsHaveTheirNumbers) {
  EXPECT_EQ(FastSupportClient::kAccepted, 0);
  EXPECT_EQ(FastSupportClient::kRejected, 1);
  const CurlFailedException failed(CURLE_COULDNT_CONNECT, "why");
  EXPECT_EQ(failed.code, CURLE_COULDNT_CONNECT);
  EXPECT_STREQ(failed.what(), "why");
  const CurlFormFailedException form_failed(CURL_FORMADD_MEMORY, "why");
  EXPECT_EQ(form_failed.code, CURL_FORMADD_MEMORY);
  EXPECT_STREQ(form_failed.what(), "why");
}

}  // namespace
