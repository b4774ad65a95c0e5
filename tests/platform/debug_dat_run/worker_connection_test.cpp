#include "worker_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>

#include "child_process.h"
#include "loopback_socket.h"

namespace DebugDatRun {
namespace {

/// Closes what whoever started the tests has left open: it may be a connected socket. What has come through an exec
/// lacks FD_CLOEXEC; the helper's own pipes have it.
void CloseInherited() {
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : test_support::OpenDescriptors(getpid())) {
    if (fd <= STDERR_FILENO) {
      dup2(nowhere, fd);
    } else if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) {
      close(fd);
    }
  }
}

/// What is seen of a process that has no other sockets than those which `open_sockets` leaves open in it.
Connection SeenOf(const std::function<bool()>& open_sockets) {
  const test_support::CallerProcess worker([&]() -> std::string {
    CloseInherited();
    return open_sockets() ? "" : strerror(errno);
  });
  EXPECT_EQ(worker.Answer(), "");
  return LookForConnection(worker.pid());
}

bool OpenPair(int type) {
  std::array<int, 2> ends = {-1, -1};
  return socketpair(AF_UNIX, type, 0, ends.data()) == 0;
}

bool ListenOnUnixSocket() {
  const sockaddr_un unnamed = {AF_UNIX, {}};
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  return bind(fd, reinterpret_cast<const sockaddr*>(&unnamed), sizeof(sa_family_t)) == 0 &&
         listen(fd, 1) == 0;
}

bool ListenByTcp() {
  int port = 0;
  return ListenOnLoopback(port) >= 0;
}

/// Connects to itself.
bool ConnectByTcp() {
  int port = 0;
  ListenOnLoopback(port);
  const sockaddr_in address = LoopbackAddressOf(port);
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// Gives this process a network that has nothing but a loopback interface.
bool TakeOwnNetwork() {
  if (unshare(geteuid() == 0 ? CLONE_NEWNET : CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  ifreq interface = {};
  strncpy(interface.ifr_name, "lo", sizeof interface.ifr_name - 1);
  interface.ifr_flags = IFF_UP;
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const bool is_up = ioctl(fd, SIOCSIFFLAGS, &interface) == 0;
  close(fd);
  return is_up;
}

TEST(WorkerConnectionTest, SocketsThatAreNotConnectedOrOfTheLogAreNone) {
  EXPECT_EQ(SeenOf([] { return true; }), Connection::kNone);
  EXPECT_EQ(SeenOf([] { return OpenPair(SOCK_DGRAM); }), Connection::kNone) << "so the log is reached";
  EXPECT_EQ(SeenOf(&ListenOnUnixSocket), Connection::kNone);
  EXPECT_EQ(SeenOf(&ListenByTcp), Connection::kNone);
}

TEST(WorkerConnectionTest, TcpConnectionIsToldBeforeAUnixSocket) {
  EXPECT_EQ(SeenOf(&ConnectByTcp), Connection::kEstablished);
  EXPECT_EQ(SeenOf([] { return OpenPair(SOCK_STREAM) && ConnectByTcp(); }), Connection::kEstablished);
}

TEST(WorkerConnectionTest, ConnectedUnixStreamSocketIsToldAsSuch) {
  EXPECT_EQ(SeenOf([] { return OpenPair(SOCK_STREAM); }), Connection::kUnixSocket);
}

TEST(WorkerConnectionTest, WorkerIsSeenInItsOwnNetwork) {
  const test_support::CallerProcess worker([]() -> std::string {
    if (!TakeOwnNetwork()) return "no network of one's own here";
    return ConnectByTcp() ? "" : "not connected";
  });
  ASSERT_NE(worker.Answer(), "not connected");
  if (!worker.Answer().empty()) GTEST_SKIP() << worker.Answer();
  EXPECT_EQ(LookForConnection(worker.pid()), Connection::kEstablished);
}

}  // namespace
}  // namespace DebugDatRun
