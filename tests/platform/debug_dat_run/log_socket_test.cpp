#include "log_socket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "standard_error.h"
#include "temporary_folder.h"

namespace DebugDatRun {
namespace {

using testing::HasSubstr;

sockaddr_un SocketAddress(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

int BindSocket(const std::string& path, int type) {
  const sockaddr_un address = SocketAddress(path);
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_TRUE(type != SOCK_STREAM || listen(fd, 1) == 0);
  return fd;
}

class LogSocketTest : public testing::Test {
 protected:
  void SetUp() override {
    former_error_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(open(folder_.File("output").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600),
         STDERR_FILENO);
    sender_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  }
  void TearDown() override {
    dup2(former_error_, STDERR_FILENO);
    close(former_error_);
    close(sender_);
  }

  [[nodiscard]] bool Send(const std::string& text) const {
    const sockaddr_un address = SocketAddress(path_);
    return sendto(sender_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) == static_cast<ssize_t>(text.size());
  }
  [[nodiscard]] std::string Output() const { return folder_.Read("output"); }

  test_support::TemporaryFolder folder_;
  const std::string path_ = folder_.File("log");
  LogSocket log_;
  int sender_ = -1;
  int former_error_ = -1;
};

TEST_F(LogSocketTest, PassesLinesOnWithTheirSender) {
  ASSERT_TRUE(log_.Bind(path_));
  ASSERT_TRUE(Send("<12>Nov 21 10:00:00 a: one"));
  ASSERT_TRUE(Send("<11>a[3]: two\n"));
  log_.PassOn();
  EXPECT_EQ(Output(), "warning a[" + std::to_string(getpid()) + "]: one\nerror a[3]: two\n");
}

TEST_F(LogSocketTest, CutsWhatIsTooLong) {
  ASSERT_TRUE(log_.Bind(path_));
  ASSERT_TRUE(Send("<12>a: " + std::string(100'000, 'x')));
  ASSERT_TRUE(Send("<12>a: next"));
  log_.PassOn();
  EXPECT_THAT(Output(), HasSubstr("xxx...\n"));
  EXPECT_THAT(Output(), HasSubstr("]: next\n"));
  EXPECT_LT(Output().size(), kLongestLine + 100);
}

TEST_F(LogSocketTest, IsOpenToAllUsersAndGoesWithItsOwner) {
  {
    LogSocket log;
    ASSERT_TRUE(log.Bind(path_));
    struct stat status = {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(LogSocketTest, TakesThePlaceOfASocketThatNobodyListensAt) {
  close(BindSocket(path_, SOCK_DGRAM));
  EXPECT_TRUE(log_.Bind(path_)) << Output();
  EXPECT_TRUE(Send("<12>a: one"));
}

TEST_F(LogSocketTest, TakesThePlaceOfALinkThatLeadsNowhere) {
  std::filesystem::create_symlink(folder_.File("gone"), path_);
  EXPECT_TRUE(log_.Bind(path_)) << Output();
  EXPECT_TRUE(Send("<12>a: one"));
}

TEST_F(LogSocketTest, LeavesAListenersSocketAlone) {
  for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
    const int listener = BindSocket(path_, type);
    EXPECT_FALSE(LogSocket().Bind(path_));
    EXPECT_THAT(Output(), HasSubstr("another program takes the log lines at " + path_));
    EXPECT_TRUE(std::filesystem::exists(path_));
    close(listener);
    std::filesystem::remove(path_);
  }
}

TEST_F(LogSocketTest, LeavesAFileAlone) {
  static_cast<void>(folder_.Write("log", "text"));
  EXPECT_FALSE(log_.Bind(path_));
  EXPECT_EQ(folder_.Read("log"), "text");
  EXPECT_THAT(Output(), HasSubstr("neither a socket nor a link"));
}

TEST_F(LogSocketTest, SaysWhereItCannotBe) {
  EXPECT_FALSE(log_.Bind(folder_.File("no/folder")));
  EXPECT_THAT(Output(), HasSubstr("can't take log lines at "));
}

// ======== A reader that does not read ========

TEST_F(LogSocketTest, LosesAndCountsLinesThatNobodyReadsAndNeverWaits) {
  ASSERT_TRUE(log_.Bind(path_));
  int ends[2] = {};
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
  dup2(ends[1], STDERR_FILENO);
  const std::string text = "<12>a: " + std::string(3'000, 'x');
  for (int count = 0; count < 5; ++count) {
    ASSERT_TRUE(Send(text));
    log_.PassOn();  // it would never return if it waited for a reader
  }
  std::string read_text(4096, '\0');
  ASSERT_GT(read(ends[0], read_text.data(), read_text.size()), 3'000);
  ASSERT_TRUE(Send("<12>a: next"));
  log_.PassOn();
  read_text.assign(4096, '\0');
  ASSERT_GT(read(ends[0], read_text.data(), read_text.size()), 0);
  EXPECT_THAT(read_text, HasSubstr("4 lines were lost here"));

  close(ends[0]);  // and nobody will
  ASSERT_TRUE(Send(text));
  static_cast<void>(signal(SIGPIPE, SIG_IGN));
  log_.PassOn();
  static_cast<void>(signal(SIGPIPE, SIG_DFL));
  close(ends[1]);
}

}  // namespace
}  // namespace DebugDatRun
