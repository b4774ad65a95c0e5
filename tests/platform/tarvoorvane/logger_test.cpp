#include "logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/support_service_client.h"
#include "syslog_recorder.h"
#include "temp_dir.h"

namespace TarvoOrvane::Internal {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using Testing::TakeSyslogLines;
using Testing::TakeSyslogText;
using Utils::LoggerManager;

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() { TakeSyslogLines(); }
  ~LoggerTest() override { TurnOff(); }

  void TurnOn() {
    folder_.Write("flag", "");
    ReconfigureLogger(paths_);
  }
  void TurnOff() {
    std::filesystem::remove(paths_.flag_file);
    ReconfigureLogger(paths_);
  }

  Testing::TempDir folder_;
  LoggerPaths paths_{folder_.File("flag"), folder_.File("log")};
};

TEST_F(LoggerTest, WithoutTheFlagFileThereIsNoLogger) {
  ReconfigureLogger(paths_);
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  EXPECT_FALSE(std::filesystem::exists(paths_.log_file));
  EXPECT_EQ(TakeSyslogText(), "");
}

TEST_F(LoggerTest, WithTheFlagFileLinesGoToTheLogFileAndSyslogIsToldOnce) {
  TurnOn();
  ASSERT_NE(LoggerManager::instance_, nullptr);
  ReconfigureLogger(paths_);
  const auto told = TakeSyslogLines();
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].level, LOG_NOTICE);
  EXPECT_THAT(told[0].text, HasSubstr("Log lines go to " + paths_.log_file));

  LoggerManager::instance_->Log(LOG_ERR, "transmitter.cpp:7 Failed");
  LoggerManager::instance_->Log(LOG_WARNING, "main.cpp:8 Second");
  EXPECT_THAT(folder_.Read("log"),
              MatchesRegex(".* error: transmitter.cpp:7 Failed\n.* warning: main.cpp:8 Second\n"));
  EXPECT_EQ(TakeSyslogText(), "");
}

TEST_F(LoggerTest, TheLoggerGoesAndComesWithTheFlagFileAndIsAlwaysTheSameObject) {
  TurnOn();
  LoggerManager* const logger = LoggerManager::instance_;
  TurnOff();
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  logger->Log(LOG_ERR, "from a thread that had the pointer still");
  EXPECT_EQ(folder_.Read("log"), "");
  TurnOn();
  EXPECT_EQ(LoggerManager::instance_, logger);
  logger->Log(LOG_ERR, "on again");
  EXPECT_THAT(folder_.Read("log"), EndsWith("on again\n"));
}

TEST_F(LoggerTest, TheLogFileIsForItsOwnerAloneAndIsAppendedTo) {
  folder_.Write("log", "earlier\n");
  chmod(paths_.log_file.c_str(), 0644);
  TurnOn();
  LoggerManager::instance_->Log(LOG_ERR, "now");
  EXPECT_THAT(folder_.Read("log"), MatchesRegex("earlier\n.*now\n"));
  struct stat status {};
  ASSERT_EQ(stat(paths_.log_file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(LoggerTest, AReconfigurationFollowsARotatedLogFile) {
  TurnOn();
  std::filesystem::rename(paths_.log_file, folder_.File("log.1"));
  LoggerManager::instance_->Log(LOG_ERR, "old");
  ReconfigureLogger(paths_);
  LoggerManager::instance_->Log(LOG_ERR, "new");
  EXPECT_THAT(folder_.Read("log.1"), EndsWith("old\n"));
  EXPECT_THAT(folder_.Read("log"), EndsWith("new\n"));
}

TEST_F(LoggerTest, ALogFileThatCannotBeOpenedLeavesLinesInSyslogAndSaysSo) {
  paths_.log_file = folder_.File("missing/log");
  TurnOn();
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  const auto told = TakeSyslogLines();
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].level, LOG_ERR);
  EXPECT_THAT(told[0].text, HasSubstr("log lines stay in syslog: No such file or directory"));
}

TEST_F(LoggerTest, AFifoOrALinkIsNoLogFile) {
  ASSERT_EQ(mkfifo(paths_.log_file.c_str(), 0600), 0);
  TurnOn();
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  std::filesystem::remove(paths_.log_file);
  std::filesystem::create_symlink(folder_.File("elsewhere"), paths_.log_file);
  ReconfigureLogger(paths_);
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  EXPECT_FALSE(std::filesystem::exists(folder_.File("elsewhere")));
}

TEST_F(LoggerTest, ALineCarriesTimeWithOffsetProcessAndLevel) {
  const std::string process =
      std::string(program_invocation_short_name) + "\\[" + std::to_string(getpid()) + "\\]";
  EXPECT_THAT(
      FormatLoggerLine(LOG_WARNING, "text"),
      MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}[+-][0-9]{2}:[0-9]{2} " +
                   process + " warning: text\n"));
  EXPECT_THAT(FormatLoggerLine(LOG_DEBUG, "text"), HasSubstr(" debug: text"));
  EXPECT_THAT(FormatLoggerLine(LOG_EMERG, "text"), HasSubstr(" emerg: text"));
}

TEST_F(LoggerTest, ATextIsOneLineWhateverItHolds) {
  EXPECT_THAT(FormatLoggerLine(LOG_ERR, "ends\n"), EndsWith(" error: ends\n"));
  EXPECT_THAT(FormatLoggerLine(LOG_ERR, "two\nlines\x1b\n"), EndsWith(" error: two\\nlines\\x1b\n"));
  EXPECT_THAT(FormatLoggerLine(LOG_ERR, ""), EndsWith(" error: \n"));
}

TEST_F(LoggerTest, LogLeavesErrnoAlone) {
  TurnOn();
  errno = EXDEV;
  LoggerManager::instance_->Log(LOG_ERR, "text");
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(LoggerTest, LinesOfProcessesThatWriteAtOnceStayWhole) {
  TurnOn();
  constexpr int kLines = 300;
  pid_t children[2];
  for (pid_t& child : children) {
    child = fork();
    if (child != 0) continue;
    for (int i = 0; i < kLines; ++i) LoggerManager::instance_->Log(LOG_ERR, std::string(200, 'x'));
    _exit(0);
  }
  for (const pid_t child : children) waitpid(child, nullptr, 0);
  std::istringstream log(folder_.Read("log"));
  int count = 0;
  for (std::string line; std::getline(log, line); ++count) {
    ASSERT_THAT(line, EndsWith("] error: " + std::string(200, 'x')));
  }
  EXPECT_EQ(count, 2 * kLines);
}

}  // namespace
}  // namespace TarvoOrvane::Internal
