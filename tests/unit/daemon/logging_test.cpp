#include "logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "scripted_platform.h"

using test_support::Event;
using test_support::ScriptedPlatform;
using test_support::ScriptedPlatformTest;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

namespace {

std::size_t allocations = 0;

}  // namespace

// Count what the statements under test, and everything else in this program, take from the heap.
void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, std::size_t) noexcept { free(memory); }

namespace {

/// Leaves nothing on the heap.
class SilentLogger final : public TarvoOrvane::Utils::LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}
  void Log(int, const std::string&) override {}
};

void LogByStatement(int level, const char* text) { DAEMON_LOG(level, "%s:%d text: %s", text); }
void LogByFunction(int level, const char* text) {
  LogAt(level, "%s:%d text: %s", __FILE_NAME__, __LINE__, text);
}
void LogErrnoByStatement() { DAEMON_LOG(LOG_ERR, "%s:%d err=%m\n"); }
void LogErrnoByFunction() { LogAt(LOG_ERR, "%s:%d err=%m\n", __FILE_NAME__, __LINE__); }
void LogUnprintableByStatement(int level) { DAEMON_LOG(level, "%s:%d bad: %ls", L"\x20ac"); }
void LogUnprintableByFunction(int level) {
  LogAt(level, "%s:%d bad: %ls", __FILE_NAME__, __LINE__, L"\x20ac");
}

struct Way {
  const char* name;
  void (*log)(int level, const char* text);
  void (*log_errno)();
  void (*log_unprintable)(int level);
};

/// The statement and its function form behave alike.
class LogTest : public ScriptedPlatformTest, public testing::WithParamInterface<Way> {
 protected:
  Event Last() {
    const std::vector<Event> lines = log_.lines();
    return lines.empty() ? Event() : lines.back();
  }

  /// The text after "logging_test.cpp:NN "; empty where the line does not start so.
  std::string LastText() {
    const std::string line = Last().text;
    const std::size_t blank = line.find(' ');
    const std::string prefix = "logging_test.cpp:";
    if (line.compare(0, prefix.size(), prefix) != 0 || blank == std::string::npos) return "";
    return std::stoi(line.substr(prefix.size(), blank - prefix.size())) > 0 ? line.substr(blank + 1) : "";
  }
};

INSTANTIATE_TEST_SUITE_P(
    , LogTest,
    testing::Values(Way{"Statement", LogByStatement, LogErrnoByStatement, LogUnprintableByStatement},
                    Way{"Function", LogByFunction, LogErrnoByFunction, LogUnprintableByFunction}),
    [](const auto& way) { return way.param.name; });

TEST_P(LogTest, WithoutLoggerLineGoesUncutToSyslogWithItsLiteralFormat) {
  const std::string text(1000, 'x');
  GetParam().log(LOG_WARNING, text.c_str());
  EXPECT_EQ(log_.lines().size(), 1U);
  EXPECT_FALSE(Last().via_logger);
  EXPECT_EQ(Last().level, LOG_WARNING);
  EXPECT_EQ(Last().format, "%s:%d text: %s");
  EXPECT_EQ(LastText(), "text: " + text);
}

TEST_P(LogTest, WithLoggerLineGoesToTheLoggerOnly) {
  ScriptedPlatform::UseLogger(true);
  GetParam().log(LOG_WARNING, "short");
  GetParam().log(LOG_ERR, "short");
  EXPECT_THAT(log_.lines(), ElementsAre(Field(&Event::level, LOG_WARNING), Field(&Event::level, LOG_ERR)));
  EXPECT_THAT(log_.lines(), Each(Field(&Event::via_logger, true)));
  EXPECT_EQ(LastText(), "text: short");
  EXPECT_THAT(log_.calls(), IsEmpty()) << "the logger's first two operations are not the daemon's to call";
}

TEST_P(LogTest, LoggerGetsAtMost255Characters) {
  ScriptedPlatform::UseLogger(true);
  GetParam().log(LOG_ERR, "");
  const std::size_t prefix = Last().text.size();
  for (const std::size_t whole : {254U, 255U, 256U, 1000U}) {
    const std::string text(whole - prefix, 'y');
    GetParam().log(LOG_ERR, text.c_str());
    EXPECT_EQ(Last().text.size(), whole < 255 ? whole : 255);
    EXPECT_EQ(LastText(), ("text: " + text).substr(0, LastText().size()));
  }
}

class LogStatementTest : public ScriptedPlatformTest {};

// Without the fixture nobody records a line, which would take memory.
class LogMemoryTest : public testing::TestWithParam<Way> {
 protected:
  static std::size_t AllocationsOf(void (*log)(int, const char*)) {
    const std::string text(300, 'x');
    const std::size_t before = allocations;
    log(LOG_ERR, text.c_str());
    return allocations - before;
  }
};

INSTANTIATE_TEST_SUITE_P(, LogMemoryTest,
                         testing::Values(Way{"Statement", LogByStatement, nullptr, nullptr},
                                         Way{"Function", LogByFunction, nullptr, nullptr}),
                         [](const auto& way) { return way.param.name; });

TEST_P(LogMemoryTest, SyslogCostsNoHeapAndALoggerOneString) {
  EXPECT_EQ(AllocationsOf(GetParam().log), 0U);
  SilentLogger logger;
  TarvoOrvane::Utils::LoggerManager::instance_ = &logger;
  EXPECT_EQ(AllocationsOf(GetParam().log), 1U);
  TarvoOrvane::Utils::LoggerManager::instance_ = nullptr;
}

TEST_P(LogTest, ErrnoAndNewlineStandOnBothPaths) {
  for (const bool use_logger : {false, true}) {
    ScriptedPlatform::UseLogger(use_logger);
    errno = ENOSPC;
    GetParam().log_errno();
    EXPECT_EQ(LastText(), "err=No space left on device\n");
    EXPECT_EQ(Last().via_logger, use_logger);
  }
}

TEST_P(LogTest, FormatThatCannotBeFilledInReachesTheLoggerRaw) {
  ScriptedPlatform::UseLogger(true);
  GetParam().log_unprintable(LOG_WARNING);
  EXPECT_EQ(Last().text, "(snprintf failed)%s:%d bad: %ls");
  EXPECT_EQ(Last().level, LOG_WARNING);
}

TEST_P(LogTest, LoggerThatComesAndGoesIsHonouredFromTheNextLine) {
  for (const bool use_logger : {true, false, true}) {
    ScriptedPlatform::UseLogger(use_logger);
    GetParam().log(LOG_ERR, "line");
    EXPECT_EQ(Last().via_logger, use_logger);
  }
  EXPECT_EQ(log_.lines().size(), 3U);
}

TEST_P(LogTest, ExceptionOfTheLoggerReachesTheCaller) {
  ScriptedPlatform::UseLogger(true);
  platform_.log = [](int, const std::string&) { throw std::runtime_error("logger"); };
  EXPECT_THROW(GetParam().log(LOG_ERR, "line"), std::runtime_error);
}

TEST_F(LogStatementTest, StatementNamesItsOwnFileAndLineOnBothPaths) {
  for (const bool use_logger : {false, true}) {
    ScriptedPlatform::UseLogger(use_logger);
    const int number = __LINE__ + 1;
    DAEMON_LOG(LOG_ERR, "%s:%d here");
    EXPECT_EQ(log_.lines().back().text, "logging_test.cpp:" + std::to_string(number) + " here");
  }
}

TEST(FormatLogText, EmptyTextStaysEmpty) { EXPECT_EQ(FormatLogText("%s", ""), ""); }

TEST_F(LogStatementTest, ZeroFromSnprintfIsNoFailure) {
  platform_.snprintf = [](const std::string&, int) { return 0; };
  EXPECT_EQ(FormatLogText("%s", "text"), "text");
  platform_.snprintf = [](const std::string&, int) { return -1; };
  EXPECT_EQ(FormatLogText("%s", "text"), "(snprintf failed)%s");
}

}  // namespace
