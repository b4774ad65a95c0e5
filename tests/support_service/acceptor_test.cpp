#include "acceptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>

#include "http_fixture.h"

extern "C" {
int __real_accept4(int listener, sockaddr* address, socklen_t* size, int flags);
int __wrap_accept4(int listener, sockaddr* address, socklen_t* size, int flags);
}

namespace {

/// What accept4() of the service does.
struct Accepting {
  std::atomic<bool> fails{false};  ///< As where no descriptor is left.
  std::atomic<int> failures{0};
  std::atomic<int> accepted{0};
} accepting;

}  // namespace

int __wrap_accept4(int listener, sockaddr* address, socklen_t* size, int flags) {
  if (accepting.fails) {
    ++accepting.failures;
    errno = EMFILE;
    return -1;
  }
  const int fd = __real_accept4(listener, address, size, flags);
  if (fd != -1) ++accepting.accepted;
  return fd;
}

namespace TarvoOrvane::SupportService {
namespace {

using ::testing::HasSubstr;

class AcceptorTest : public HttpServerTest {};

TEST_F(AcceptorTest, MoreConnectionsThanItTakesWait) {
  settings_.connections = 2;
  Start([](HttpRequest&, const std::string&, const AnswerSink& done) { done(TextAnswer("text")); });
  const auto first = To("/");
  EXPECT_EQ(first->Run().body, "text");
  auto second = To("/");
  EXPECT_EQ(second->Run().body, "text");
  const int accepted = accepting.accepted;
  RawHttp third(server_->url());
  third.Send("GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  for (int i = 0; i < 100; ++i) EXPECT_EQ(first->Run().body, "text");
  EXPECT_EQ(accepting.accepted, accepted);
  second.reset();
  EXPECT_THAT(third.ReadToEnd(), HasSubstr("text"));
}

TEST_F(AcceptorTest, ConnectionsOfOneAddressAreLimitedAndTheirPlaceIsFreeAgain) {
  settings_.connections = 5;
  Metrics metrics;
  AddressLimit limit(1, metrics, events_.sink());
  settings_.addresses = &limit;
  Start([](HttpRequest&, const std::string&, const AnswerSink& done) { done(TextAnswer("text")); });
  auto first = To("/");
  EXPECT_EQ(first->Run().body, "text");
  for (int i = 0; i < 20; ++i) {
    RawHttp refused(server_->url());
    EXPECT_EQ(refused.ReadToEnd(), "");
  }
  EXPECT_EQ(limit.largest(), 1U);
  EXPECT_EQ(metrics.met(Limit::kConnectionsPerAddress), 20U);
  EXPECT_TRUE(events_.Has("connection closed: 127.0.0.1 has as many as one address may have"));
  first.reset();
  EXPECT_TRUE(Eventually([this] { return Get("/").body == "text"; }));
  server_.reset();
  EXPECT_EQ(limit.largest(), 0U);
}

TEST_F(AcceptorTest, WithoutDescriptorsItPausesBetweenAttemptsAndGoesOnLater) {
  settings_.threads = 2;
  const auto script = std::make_shared<StreamScript>();
  Start([&](HttpRequest& request, const std::string&, const AnswerSink& done) {
    done(request.path() == "/stream" ? StreamAnswer(script) : TextAnswer("text"));
  });
  // One that lives on in each thread.
  std::vector<std::unique_ptr<RawHttp>> streams;
  for (int i = 0; i < 4; ++i) {
    streams.push_back(std::make_unique<RawHttp>(server_->url()));
    streams.back()->Send("GET /stream HTTP/1.1\r\nHost: x\r\n\r\n");
  }
  ASSERT_TRUE(Eventually([&] { return script->asked == 4; }));
  accepting.failures = 0;
  accepting.fails = true;
  const auto begin = std::chrono::steady_clock::now();
  RunningTransfer client(To("/"));
  const bool tries_again = Eventually([] { return accepting.failures >= 4; });
  const auto taken = std::chrono::steady_clock::now() - begin;
  accepting.fails = false;
  EXPECT_TRUE(tries_again);
  EXPECT_GE(taken, 3 * std::chrono::milliseconds(Acceptor::kPauseMs));
  EXPECT_TRUE(client.WaitFor("text"));
  EXPECT_EQ(client.Code(), CURLE_OK);
  EXPECT_THAT(events_.lines(), ::testing::ElementsAre("connections to " + server_->url() +
                                                      " wait: Too many open files; where it lasts, allow the "
                                                      "service more open files"));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
