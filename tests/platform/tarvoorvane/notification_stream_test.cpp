#include "notification_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/time.h>

#include <cerrno>
#include <thread>

#include "loopback_socket.h"
#include "name_server.h"
#include "parsed_address.h"
#include "scoped_fd.h"
#include "scripted_server.h"

namespace TarvoOrvane::Internal {
namespace {

using std::chrono::steady_clock;
using Taken = NotificationStream::Taken;

/// Waits until the stream has ended, at most for the tests' deadline.
bool AwaitEnd(NotificationStream& stream) {
  tarvo::support::v1::Delivery delivery;
  const auto deadline = steady_clock::now() + test_support::kPatience;
  while (stream.Take(delivery) != Taken::kEnded) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
    pollfd changed{stream.event_fd(), POLLIN, 0};
    if (left.count() <= 0 || poll(&changed, 1, static_cast<int>(left.count())) <= 0) return false;
    stream.DrainEvents();
  }
  return true;
}

/// The address of a host by name, to be asked of `name_server` rather than of the system's.
Address NamedHost(const Testing::NameServer& name_server, int port) {
  Address address = Testing::ParsedAddress("http://notify.test:" + std::to_string(port));
  address.target =
      "dns://127.0.0.1:" + std::to_string(name_server.port()) + "/notify.test:" + std::to_string(port);
  return address;
}

TEST(NotificationStreamTest, ASilentNameServerEndsItAtTheLimitOfTheLookUp) {
  Testing::NameServer name_server("");
  StreamLimits limits;
  limits.name_lookup = std::chrono::milliseconds(1000);
  NotificationStream stream(NamedHost(name_server, 1), {}, "", limits);
  ASSERT_TRUE(AwaitEnd(stream));
  EXPECT_EQ(stream.end_status().error, grpc::StatusCode::UNAVAILABLE);
  EXPECT_THAT(stream.end_status().errorMsg, testing::HasSubstr("DNS resolution failed for notify.test:1"));
  EXPECT_GT(name_server.questions(), 0);
}

TEST(NotificationStreamTest, AHostThatMovedIsFoundByTheNextStream) {
  Testing::ServerOptions options;
  options.listen = "127.0.0.2:0";
  Testing::ScriptedServer former(options);
  options.listen = "127.0.0.3:" + std::to_string(former.port());
  Testing::ScriptedServer present(options);
  ASSERT_GT(present.port(), 0);
  Testing::NameServer name_server("127.0.0.2");
  {
    NotificationStream stream(NamedHost(name_server, former.port()), {}, "", {});
    ASSERT_NE(former.AwaitSession(), nullptr);
    name_server.SetAddress("127.0.0.3");
  }
  NotificationStream stream(NamedHost(name_server, former.port()), {}, "", {});
  EXPECT_NE(present.AwaitSession(), nullptr);
}

/// Accepts a connection whose reads end after the tests' deadline, and waits until the client has sent something.
ScopedFd AcceptSpeaking(const ScopedFd& listener) {
  ScopedFd connection;
  pollfd readable{listener.get(), POLLIN, 0};
  const std::chrono::milliseconds deadline = test_support::kPatience;
  if (poll(&readable, 1, static_cast<int>(deadline.count())) == 1) {
    connection = ScopedFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  const timeval limit{test_support::kPatience.count(), 0};
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  char byte = 0;
  EXPECT_EQ(recv(connection.get(), &byte, 1, MSG_PEEK), 1);
  return connection;
}

// A server that hangs and wakes up again, or means to fill the device.
TEST(NotificationStreamTest, DestroyedWhileItConnectsItLeavesNoConnectionToAServerThatAnswersLater) {
  int port = 0;
  const ScopedFd listener(ListenOnLoopback(port));
  ScopedFd connection;
  {
    const NotificationStream stream(Testing::LocalServer(port), {}, "", {});
    connection = AcceptSpeaking(listener);
  }
  Testing::ScriptedServer server;  // the next stream's thread reads what comes on any of gRPC's connections
  NotificationStream next(Testing::LocalServer(server.port()), {}, "", {});
  ASSERT_NE(server.AwaitSession(), nullptr);

  const char settings[] = {0, 0, 0, 4, 0, 0, 0, 0, 0};
  static_cast<void>(send(connection.get(), settings, sizeof settings, MSG_NOSIGNAL));
  char bytes[256];
  ssize_t received = 0;
  do {
    received = recv(connection.get(), bytes, sizeof bytes, 0);
  } while (received > 0);
  EXPECT_FALSE(received == -1 && errno == EAGAIN) << "the connection stays";
}

TEST(NotificationStreamTest, ItsLifetimeIsZeroWithoutAConnectionAndTheTimeItStoodWithOne) {
  NotificationStream unconnected(Testing::ParsedAddress("unix:/nowhere/socket"), {}, "", {});
  ASSERT_TRUE(AwaitEnd(unconnected));
  EXPECT_EQ(unconnected.lifetime(), steady_clock::duration(0));

  Testing::ScriptedServer server;
  const auto start = steady_clock::now();
  NotificationStream connected(Testing::LocalServer(server.port()), {}, "", {});
  const auto session = server.AwaitSession();
  ASSERT_NE(session, nullptr);
  constexpr std::chrono::milliseconds kOpen(20);
  std::this_thread::sleep_for(kOpen);  // the lifetime that is measured
  session->End(grpc::Status::OK);
  ASSERT_TRUE(AwaitEnd(connected));
  EXPECT_GE(connected.lifetime(), kOpen);
  EXPECT_LE(connected.lifetime(), steady_clock::now() - start);
}

}  // namespace
}  // namespace TarvoOrvane::Internal
