#include "listen_address.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <set>
#include <stdexcept>

#include "child_process.h"
#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

std::string TextOf(const ListenAddress& address) {
  return SocketAddressText(reinterpret_cast<const sockaddr*>(&address.socket_address),
                           address.socket_address_size);
}

TEST(ListenAddressTest, HostAndPortAreResolved) {
  EXPECT_EQ(TextOf(ParseListenAddress("127.0.0.1:0", false)), "127.0.0.1:0");
  EXPECT_EQ(TextOf(ParseListenAddress("127.0.0.1:65535", false)), "127.0.0.1:65535");
  EXPECT_EQ(TextOf(ParseListenAddress("[::1]:80", false)), "[::1]:80");
}

TEST(ListenAddressTest, UnixPathIsTakenOnlyWhereAllowed) {
  EXPECT_EQ(ParseListenAddress("unix:/tmp/a", true).unix_path, "/tmp/a");
  EXPECT_THROW(ParseListenAddress("unix:/tmp/a", false), std::invalid_argument);
  EXPECT_THROW(ParseListenAddress("unix:relative", true), std::invalid_argument);
  EXPECT_NO_THROW(ParseListenAddress("unix:/" + std::string(106, 'a'), true));
  EXPECT_THROW(ParseListenAddress("unix:/" + std::string(107, 'a'), true), std::invalid_argument);
}

class BadListenAddressTest : public ::testing::TestWithParam<const char*> {};

TEST_P(BadListenAddressTest, IsRefused) {
  EXPECT_THROW(ParseListenAddress(GetParam(), true), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(ListenAddressTest, BadListenAddressTest,
                         ::testing::Values("", "127.0.0.1", "127.0.0.1:", ":80", "127.0.0.1:65536",
                                           "127.0.0.1:-1", "127.0.0.1:8a", "127.0.0.1:000080", "::1:80",
                                           "http://127.0.0.1:80", "256.0.0.1.:80"));

TEST(ListenAddressTest, AddressInUseIsToldWithItsCause) {
  const int fd = OpenListener(ParseListenAddress("127.0.0.1:0", false));
  sockaddr_storage bound{};
  socklen_t size = sizeof(bound);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size), 0);
  const ListenAddress taken =
      ParseListenAddress(SocketAddressText(reinterpret_cast<const sockaddr*>(&bound), size), false);
  try {
    CheckFree(taken);
    ADD_FAILURE() << "the address was taken";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("in use"), std::string::npos) << error.what();
  }
  close(fd);
  EXPECT_NO_THROW(CheckFree(taken));
}

TEST(ListenAddressTest, UnixSocketIsFreeWhereNobodyServesItAndTheLookLeavesNothingOpen) {
  const test_support::TemporaryFolder folder;
  const ListenAddress address = ParseListenAddress("unix:" + folder.File("socket"), true);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  address.unix_path.copy(static_cast<char*>(name.sun_path), sizeof(name.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof(name)), 0);
  const std::set<int> open_before = test_support::OpenDescriptors(getpid());
  EXPECT_NO_THROW(CheckFree(address)) << "what a service that crashed has left";
  ASSERT_EQ(listen(fd, 1), 0);
  EXPECT_THROW(CheckFree(address), std::runtime_error);
  EXPECT_NO_THROW(CheckFree(ParseListenAddress("127.0.0.1:0", false)));
  EXPECT_EQ(test_support::OpenDescriptors(getpid()), open_before);
  close(fd);
}

TEST(ListenAddressTest, UnixTargetEscapesWhatHasAMeaningInAnAddress) {
  EXPECT_EQ(UnixTarget("/tmp/a-b_c.d~e/1"), "unix:/tmp/a-b_c.d~e/1");
  EXPECT_EQ(UnixTarget("/my data/50%?#"), "unix:/my%20data/50%25%3F%23");
  EXPECT_THROW(UnixTarget("/" + std::string(107, 'a')), std::invalid_argument);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
