#include "logger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <numeric>
#include <regex>
#include <thread>

#include "child_process.h"
#include "platform/support_service_client.h"
#include "scoped_fd.h"
#include "syslog_recorder.h"
#include "temporary_folder.h"

namespace TarvoOrvane::Internal {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using Testing::TakeSyslogLines;
using Testing::TakeSyslogText;
using testing::UnorderedElementsAre;
using Utils::LoggerManager;

constexpr uid_t kNobody = 65534;

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() { TakeSyslogLines(); }
  ~LoggerTest() override { TurnOff(); }

  void TurnOn() {
    folder_.Write("flag", "");
    ReconfigureLogger(options_);
  }
  void TurnOff() {
    std::filesystem::remove(options_.flag_file);
    ReconfigureLogger(options_);
  }

  /// Locks the log file as somebody else would who has it open.
  [[nodiscard]] ScopedFd LockAsAnother() const {
    ScopedFd other(open(options_.log_file.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(flock(other.get(), LOCK_EX), 0);
    return other;
  }
  void ExpectForItsOwnerAlone() const {
    struct stat status {};
    ASSERT_EQ(stat(options_.log_file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
  }

  test_support::TemporaryFolder folder_;
  LoggerOptions options_{folder_.File("flag"), folder_.File("log")};
};

/// @return Whether `act`, run in a forked process, said that all was well.
bool InChild(const std::function<bool()>& act) {
  return test_support::RunInChild([&] { return act() ? 0 : 1; }).exit_status == 0;
}

TEST_F(LoggerTest, WithoutTheFlagFileThereIsNoLogger) {
  ReconfigureLogger(options_);
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  EXPECT_FALSE(std::filesystem::exists(options_.log_file));
  EXPECT_EQ(TakeSyslogText(), "");
}

TEST_F(LoggerTest, WithTheFlagFileLinesGoToTheLogFileAndSyslogIsToldOnce) {
  TurnOn();
  ASSERT_NE(LoggerManager::instance_, nullptr);
  ReconfigureLogger(options_);
  const auto told = TakeSyslogLines();
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].level, LOG_NOTICE);
  EXPECT_THAT(told[0].text, HasSubstr("Log lines go to " + options_.log_file));

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
  EXPECT_EQ(TakeSyslogLines().back().text, "from a thread that had the pointer still");
  TurnOn();
  EXPECT_EQ(LoggerManager::instance_, logger);
  logger->Log(LOG_ERR, "on again");
  EXPECT_THAT(folder_.Read("log"), EndsWith("on again\n"));
}

TEST_F(LoggerTest, TheLogFileIsForItsOwnerAloneAndIsAppendedTo) {
  folder_.Write("log", "earlier\n");
  chmod(options_.log_file.c_str(), 0644);
  TurnOn();
  LoggerManager::instance_->Log(LOG_ERR, "now");
  EXPECT_THAT(folder_.Read("log"), MatchesRegex("earlier\n.*now\n"));
  ExpectForItsOwnerAlone();
}

TEST_F(LoggerTest, AReconfigurationFollowsARotatedLogFile) {
  TurnOn();
  std::filesystem::rename(options_.log_file, folder_.File("log.1"));
  LoggerManager::instance_->Log(LOG_ERR, "old");
  ReconfigureLogger(options_);
  LoggerManager::instance_->Log(LOG_ERR, "new");
  EXPECT_THAT(folder_.Read("log.1"), EndsWith("old\n"));
  EXPECT_THAT(folder_.Read("log"), EndsWith("new\n"));
}

TEST_F(LoggerTest, ALogFileThatCannotBeOpenedLeavesLinesInSyslogAndSaysSo) {
  options_.log_file = folder_.File("missing/log");
  TurnOn();
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  const auto told = TakeSyslogLines();
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].level, LOG_ERR);
  EXPECT_THAT(told[0].text, HasSubstr("log lines stay in syslog: No such file or directory"));
}

TEST_F(LoggerTest, AFifoOrAnothersLinkIsNoLogFile) {
  ASSERT_EQ(mkfifo(options_.log_file.c_str(), 0600), 0);
  TurnOn();
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  std::filesystem::remove(options_.log_file);
  std::filesystem::create_symlink(folder_.File("elsewhere"), options_.log_file);
  const bool is_given = geteuid() != 0 || lchown(options_.log_file.c_str(), kNobody, kNobody) == 0;
  ASSERT_TRUE(is_given);
  ReconfigureLogger(options_);
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  EXPECT_FALSE(std::filesystem::exists(folder_.File("elsewhere")));
}

/// The log lines of a logger that may not use its file go to syslog, and the file stays as it is.
void ExpectRefused(const std::string& content, const std::string& file) {
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  EXPECT_THAT(TakeSyslogText(), HasSubstr("no file of the daemon's own with one name; remove it"));
  EXPECT_EQ(content, "theirs\n");
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(LoggerTest, AFileOfAnotherUserIsNoLogFile) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  folder_.Write("log", "theirs\n");
  ASSERT_EQ(chmod(options_.log_file.c_str(), 0644), 0);
  ASSERT_EQ(chown(options_.log_file.c_str(), kNobody, kNobody), 0);
  TurnOn();
  ExpectRefused(folder_.Read("log"), options_.log_file);
}

TEST_F(LoggerTest, RootsLinkLeadsToTheLogFileOfADaemonWithoutRootsRights) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can put the link there";
  namespace fs = std::filesystem;
  const fs::path own = folder_.path() / "own";
  fs::permissions(folder_.path(), static_cast<fs::perms>(0755));
  fs::create_directory(own);
  ASSERT_EQ(chown(own.c_str(), kNobody, kNobody), 0);
  fs::create_symlink("own/log", options_.log_file);
  options_.max_file_bytes = 1;
  folder_.Write("flag", "");
  const auto write = [this](const char* text) {
    ReconfigureLogger(options_);
    if (LoggerManager::instance_ == nullptr) return false;
    LoggerManager::instance_->Log(LOG_INFO, text);
    return true;
  };
  EXPECT_TRUE(write("root's"));  // by hand, before
  EXPECT_TRUE(InChild([&] { return setuid(kNobody) == 0 && write("the other's"); }));
  EXPECT_TRUE(write("root's again"));
  EXPECT_THAT(folder_.Read("own/log.1"), EndsWith("root's again\n"));
  struct stat status {};
  ASSERT_EQ(stat((own / "log.1").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, kNobody);
  EXPECT_TRUE(fs::is_symlink(options_.log_file));
}

TEST_F(LoggerTest, RootsLinkIsNotFollowedWhereOthersMayPutOneInItsPlace) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can put the link there";
  namespace fs = std::filesystem;
  fs::create_directory(folder_.path() / "own");
  fs::create_symlink("own/log", options_.log_file);
  for (const unsigned mode : {0775U, 0757U}) {
    fs::permissions(folder_.path(), static_cast<fs::perms>(mode));
    TurnOn();
    EXPECT_EQ(LoggerManager::instance_, nullptr) << mode;
  }
  fs::permissions(folder_.path(), static_cast<fs::perms>(0755));
  TurnOn();
  EXPECT_NE(LoggerManager::instance_, nullptr);
}

TEST_F(LoggerTest, ASecondNameOfAFileIsNoLogFile) {
  ASSERT_EQ(chmod(folder_.Write("other", "theirs\n").c_str(), 0644), 0);
  std::filesystem::create_hard_link(folder_.File("other"), options_.log_file);
  TurnOn();
  ExpectRefused(folder_.Read("other"), folder_.File("other"));
}

TEST_F(LoggerTest, WhileTheRemovedFileHasNoSuccessorLinesGoToSyslogAndNowhereElse) {
  TurnOn();
  const ScopedFd removed(open(options_.log_file.c_str(), O_RDONLY | O_CLOEXEC));
  std::filesystem::remove(options_.log_file);
  std::filesystem::create_directory(options_.log_file);
  TakeSyslogLines();
  for (int i = 0; i < 3; ++i) LoggerManager::instance_->Log(LOG_ERR, "text");
  EXPECT_EQ(TakeSyslogText(), "text\ntext\ntext\n");
  struct stat status {};
  ASSERT_EQ(fstat(removed.get(), &status), 0);
  EXPECT_LT(status.st_size, 200) << "lines that nobody can read take the disk";
  std::filesystem::remove(options_.log_file);
  LoggerManager::instance_->Log(LOG_ERR, "again");
  EXPECT_THAT(folder_.Read("log"), EndsWith(" again\n"));
}

TEST_F(LoggerTest, AFullFileThatCannotBeRenamedTakesNoMoreThanTwiceItsLimit) {
  options_.max_file_bytes = 1000;
  std::filesystem::create_directory(folder_.File("log.1"));
  TurnOn();
  TakeSyslogLines();
  for (int i = 0; i < 50; ++i) LoggerManager::instance_->Log(LOG_ERR, std::string(100, 'x'));
  EXPECT_LT(folder_.Read("log").size(), 2300u);
  EXPECT_GT(TakeSyslogLines().size(), 30u);
  std::filesystem::remove(folder_.File("log.1"));
  LoggerManager::instance_->Log(LOG_ERR, "again");
  EXPECT_THAT(folder_.Read("log"), EndsWith(" again\n"));
}

TEST_F(LoggerTest, ALockThatANeighbourKeepsDoesNotLetTheFileGrow) {
  options_.max_file_bytes = 1000;
  TurnOn();
  const ScopedFd neighbour = LockAsAnother();  // they opened it when its mode let them
  for (int i = 0; i < 50; ++i) LoggerManager::instance_->Log(LOG_ERR, std::string(100, 'x'));
  EXPECT_LT(folder_.Read("log").size(), 2300u);
  EXPECT_LT(folder_.Read("log.1").size(), 2300u);
}

TEST_F(LoggerTest, ALimitOnTheSizeOfFilesEndsNoProcess) {
  EXPECT_TRUE(InChild([this] {
    const rlimit limit = {300, 300};
    if (signal(SIGXFSZ, SIG_DFL) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    TurnOn();
    TakeSyslogLines();
    LoggerManager::instance_->Log(LOG_ERR, std::string(1000, 'x'));  // up to the limit
    LoggerManager::instance_->Log(LOG_ERR, "beyond it");
    return TakeSyslogText() == std::string(1000, 'x') + "\nbeyond it\n";
  }));
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

/// Whether this process has the file open.
bool HasOpen(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == path) return true;
  }
  return false;
}

TEST_F(LoggerTest, AFileThatCannotBeReopenedIsLetGo) {
  TurnOn();
  const std::string renamed = folder_.File("renamed");
  std::filesystem::rename(options_.log_file, renamed);
  ASSERT_TRUE(HasOpen(renamed));
  std::filesystem::create_directory(options_.log_file);
  ReconfigureLogger(options_);
  EXPECT_EQ(LoggerManager::instance_, nullptr);
  EXPECT_FALSE(HasOpen(renamed));
}

TEST_F(LoggerTest, ALineThatIsTooLongIsCutAndMarked) {
  const std::string line = FormatLoggerLine(LOG_ERR, std::string(kMaxLineText + 1, 'x'));
  EXPECT_THAT(line, EndsWith("xxx...\n"));
  EXPECT_THAT(FormatLoggerLine(LOG_ERR, std::string(kMaxLineText, 'x')), EndsWith("xxxx\n"));
}

TEST_F(LoggerTest, LinesThatTheRemovedFileTookAreWrittenAgain) {
  TurnOn();
  std::filesystem::remove(options_.log_file);
  LoggerManager::instance_->Log(LOG_ERR, "text");
  EXPECT_THAT(folder_.Read("log"), EndsWith(" error: text\n"));
}

TEST_F(LoggerTest, AFullFileBecomesTheFormerOneInPlaceOfTheOneBefore) {
  options_.max_file_bytes = 1000;
  folder_.Write("log.1", "the one before");
  folder_.Write("log", std::string(900, 'x') + "\n");
  TurnOn();
  LoggerManager::instance_->Log(LOG_ERR, std::string(100, 'y'));
  EXPECT_THAT(folder_.Read("log.1"), MatchesRegex("x+\n.* error: y+\n"));
  EXPECT_EQ(folder_.Read("log"), "");
  LoggerManager::instance_->Log(LOG_ERR, "text");
  EXPECT_THAT(folder_.Read("log"), EndsWith(" error: text\n"));
  ExpectForItsOwnerAlone();
}

TEST_F(LoggerTest, AFileThatIsNotFullYetIsKept) {
  options_.max_file_bytes = 1000;
  TurnOn();
  const auto overhead = FormatLoggerLine(LOG_ERR, "").size();
  LoggerManager::instance_->Log(LOG_ERR, std::string(999 - overhead, 'x'));
  EXPECT_EQ(folder_.Read("log").size(), 999u);
  EXPECT_FALSE(std::filesystem::exists(folder_.File("log.1")));
}

TEST_F(LoggerTest, AProcessFollowsTheRenamingOfAnother) {
  options_.max_file_bytes = 1000;
  TurnOn();
  LoggerManager::instance_->Log(LOG_ERR, "first");
  ASSERT_TRUE(InChild([] {
    LoggerManager::instance_->Log(LOG_ERR, std::string(1000, 'x'));
    LoggerManager::instance_->Log(LOG_ERR, "of the child");
    return true;
  }));
  LoggerManager::instance_->Log(LOG_ERR, "into the former file");
  LoggerManager::instance_->Log(LOG_ERR, "last");
  EXPECT_THAT(folder_.Read("log.1"), MatchesRegex(".* first\n.* x+\n.* into the former file\n"));
  EXPECT_THAT(folder_.Read("log"), MatchesRegex(".* of the child\n.* last\n"));
}

TEST_F(LoggerTest, AProcessThatHoldsTheLockDelaysTheRenamingAndNoLine) {
  options_.max_file_bytes = 1000;
  TurnOn();
  const ScopedFd other = LockAsAnother();
  LoggerManager::instance_->Log(LOG_ERR, std::string(1000, 'x'));
  LoggerManager::instance_->Log(LOG_ERR, "text");
  EXPECT_THAT(folder_.Read("log"), EndsWith(" text\n"));
  ASSERT_EQ(flock(other.get(), LOCK_UN), 0);
  LoggerManager::instance_->Log(LOG_ERR, "full");
  EXPECT_THAT(folder_.Read("log.1"), EndsWith(" full\n"));
}

/// Processes, each with threads, that write lines "NAME NUMBER xxx…" at once.
class LoggerStressTest : public LoggerTest {
 protected:
  static constexpr int kProcesses = 3;
  static constexpr int kThreads = 3;
  static constexpr int kLines = 300;

  static void WriteLines(const std::string& name) {
    for (int i = 0; i < kLines; ++i) {
      LoggerManager::instance_->Log(LOG_ERR, name + " " + std::to_string(i) + " " +
                                                 std::string(static_cast<std::size_t>(i % 100), 'x'));
    }
  }

  /// @return Whether no line went to syslog.
  static bool RunProcess(int process) {
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back(&WriteLines, std::to_string(process) + "." + std::to_string(i));
    }
    for (auto& thread : threads) thread.join();
    return TakeSyslogLines().empty();
  }

  static void RunAll() {
    TakeSyslogLines();  // the children inherit what the recorder holds
    std::list<test_support::ChildProcess> children;
    for (int process = 0; process < kProcesses; ++process) {
      children.emplace_back([process] { return RunProcess(process) ? 0 : 1; });
    }
    for (auto& child : children) EXPECT_THAT(child.WaitForEnd(), test_support::ExitedWith(0));
  }

  /// Each writer's numbers, oldest first; every line must be whole.
  std::map<std::string, std::vector<int>> ReadLines() const {
    std::map<std::string, std::vector<int>> numbers;
    std::istringstream log(folder_.Read("log.1") + folder_.Read("log"));
    const std::regex whole(R"(\S+ \S+\[\d+\] error: (\d\.\d) (\d+) (x*))");
    for (std::string line; std::getline(log, line);) {
      std::smatch parts;
      const bool matches = std::regex_match(line, parts, whole);
      EXPECT_TRUE(matches) << line;
      if (!matches) continue;
      const int number = std::stoi(parts[2]);
      EXPECT_EQ(parts[3].length(), number % 100) << line;
      numbers[parts[1]].push_back(number);
    }
    return numbers;
  }

  [[nodiscard]] std::vector<std::string> FileNames() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.File(""))) {
      names.push_back(entry.path().filename());
    }
    return names;
  }
};

TEST_F(LoggerStressTest, NoLineIsLostOrTornWhileOneFileGetsFull) {
  options_.max_file_bytes = 200'000;  // of about 270,000 bytes in all
  TurnOn();
  RunAll();
  std::vector<int> all(kLines);
  std::iota(all.begin(), all.end(), 0);
  const auto numbers = ReadLines();
  EXPECT_EQ(numbers.size(), kProcesses * kThreads);
  for (const auto& [name, its_numbers] : numbers) EXPECT_EQ(its_numbers, all) << name;
  EXPECT_THAT(FileNames(), UnorderedElementsAre("flag", "log", "log.1"));
}

TEST_F(LoggerStressTest, WhenManyFilesGetFullOnlyTheOldestLinesGo) {
  options_.max_file_bytes = 20'000;
  TurnOn();
  RunAll();
  for (const auto& [name, its_numbers] : ReadLines()) {
    std::vector<int> newest(its_numbers.size());
    std::iota(newest.begin(), newest.end(), kLines - static_cast<int>(its_numbers.size()));
    EXPECT_EQ(its_numbers, newest) << name;
  }
  EXPECT_THAT(FileNames(), UnorderedElementsAre("flag", "log", "log.1"));
  EXPECT_LT(folder_.Read("log.1").size(), 20'000u + kProcesses * kThreads * 200u);
}

}  // namespace
}  // namespace TarvoOrvane::Internal
