#include "connection_control.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "loopback_socket.h"
#include "parsed_address.h"
#include "scoped_fd.h"
#include "temporary_folder.h"

namespace TarvoOrvane::Internal {
namespace {

/// A connection over loopback, both ends.
struct TcpConnection {
  TcpConnection() : listener(ListenOnLoopback(port)) {
    client = ScopedFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = LoopbackAddressOf(port);
    EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    server = ScopedFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  [[nodiscard]] Address address() const { return Testing::LocalServer(port); }

  int port = 0;
  ScopedFd listener;
  ScopedFd client;
  ScopedFd server;
};

bool Passes(const ScopedFd& from, const ScopedFd& to) {
  char byte = 0;
  return send(from.get(), "x", 1, MSG_NOSIGNAL) == 1 && recv(to.get(), &byte, 1, 0) == 1;
}

TEST(ConnectionCutTest, TheConnectionToThatPortEndsForBothAndWhatWasNotReadIsLost) {
  TcpConnection connection;
  ASSERT_EQ(send(connection.server.get(), "unread", 6, 0), 6);
  char byte = 0;
  ASSERT_EQ(recv(connection.client.get(), &byte, 1, 0), 1);

  CutConnections(connection.address());
  EXPECT_EQ(recv(connection.client.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_NE(errno, EAGAIN);
  EXPECT_EQ(recv(connection.server.get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, ECONNRESET);
}

TEST(ConnectionCutTest, OtherConnectionsStay) {
  TcpConnection cut;
  TcpConnection other;
  CutConnections(cut.address());
  EXPECT_FALSE(Passes(cut.server, cut.client));
  EXPECT_TRUE(Passes(other.server, other.client));
}

TEST(BytesReceivedTest, TheyAreThoseOfTheConnectionToThatPort) {
  const TcpConnection connection;
  const TcpConnection other;
  ASSERT_TRUE(Passes(other.server, other.client));
  EXPECT_EQ(BytesReceived(connection.address()), 0u);
  ASSERT_TRUE(Passes(connection.server, connection.client));
  ASSERT_EQ(send(connection.server.get(), "unread", 6, 0), 6);
  char bytes[6];
  ASSERT_EQ(recv(connection.client.get(), bytes, sizeof bytes, MSG_PEEK | MSG_WAITALL), 6);
  EXPECT_EQ(BytesReceived(connection.address()), 7u);
}

TEST(ConnectionCutTest, TheConnectionToThatSocketsPathEndsToo) {
  const test_support::TemporaryFolder folder;
  const std::string path = folder.File("socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  const ScopedFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listener.get(), name, sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  const ScopedFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(connect(client.get(), name, sizeof address), 0);
  const ScopedFd server(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));

  CutConnections(Testing::ParsedAddress("unix:" + path + "-of-another"));
  EXPECT_TRUE(Passes(server, client));
  CutConnections(Testing::ParsedAddress("unix:" + path));
  EXPECT_FALSE(Passes(server, client));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
