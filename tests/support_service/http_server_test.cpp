#include "http_server.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <future>
#include <stdexcept>

#include "child_process.h"
#include "http_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

INSTANTIATE_TEST_SUITE_P(HttpServerTest, HttpTransportTest, AllTransports());

// ---- requests ----

TEST_P(HttpTransportTest, RequestHasItsAnswer) {
  std::string seen;
  Start([&](HttpRequest& request, const std::string& body, const AnswerSink& done) {
    seen = request.method() + " " + request.path() + " " + body + " " +
           request.Header("x-TEST").value_or("none") + " " +
           std::to_string(request.body_length().value_or(0));
    HttpAnswer answer = TextAnswer("yes");
    answer.status = MHD_HTTP_CREATED;
    answer.headers.emplace_back("X-Answer", "1");
    done(answer);
  });
  const auto transfer = To("/some/path?a=b", {"X-Test: value"});
  transfer->Set(CURLOPT_POSTFIELDS, "the body");
  const ReceivedAnswer answer = transfer->Run();
  EXPECT_EQ(answer.curl_code, CURLE_OK);
  EXPECT_EQ(answer.status, 201);
  EXPECT_EQ(answer.body, "yes");
  EXPECT_THAT(answer.headers, AllOf(HasSubstr("Content-Type: text/plain"), HasSubstr("X-Answer: 1")));
  EXPECT_EQ(seen, "POST /some/path the body value 8");
}

TEST_P(HttpTransportTest, ConnectionServesTheNextRequest) {
  Start([](HttpRequest& request, const std::string&, const AnswerSink& done) {
    done(TextAnswer(request.path()));
  });
  const auto transfer = To("/a");
  EXPECT_EQ(transfer->Run().body, "/a");
  EXPECT_EQ(transfer->Run().body, "/a");
  long connects = -1;
  curl_easy_getinfo(transfer->get(), CURLINFO_NUM_CONNECTS, &connects);
  EXPECT_EQ(connects, 0);
}

TEST_P(HttpTransportTest, PeerIsKnown) {
  std::string peer;
  std::optional<uid_t> user;
  std::optional<std::string> name;
  Start([&](HttpRequest& request, const std::string&, const AnswerSink& done) {
    peer = request.peer();
    user = request.local_user();
    name = request.certificate_name();
    done({});
  });
  EXPECT_EQ(Get("/").status, 200);
  const bool is_unix = GetParam() == Transport::kUnix;
  EXPECT_THAT(peer, StartsWith(is_unix ? "control socket" : "127.0.0.1:"));
  EXPECT_EQ(user, is_unix ? std::optional<uid_t>(getuid()) : std::nullopt);
  EXPECT_FALSE(name);
  const std::array<std::string, 3> urls = {"http://127.0.0.1:", "https://127.0.0.1:", "unix:/"};
  EXPECT_THAT(server_->url(), StartsWith(urls.at(static_cast<std::size_t>(GetParam()))));
}

TEST_F(HttpServerTest, PathAndQueryComeAsTheyWereSent) {
  std::vector<std::optional<std::string>> seen;
  std::string path;
  Start([&](HttpRequest& request, const std::string&, const AnswerSink& done) {
    path = request.path();
    for (const char* name : {"a", "A", "b", "c d", "e", "zero", "bad", "short", "missing", ""}) {
      seen.push_back(request.Query(name));
    }
    done({});
  });
  EXPECT_EQ(
      Get("/a%2Fb/%41/../+?a=1%262%3D&A=x+%2B%25&b&c%20d=%C3%A4&e=&zero=%00&bad=%zz&short=%4&a=3").status,
      200);
  EXPECT_EQ(path, "/a%2Fb/%41/../+");
  EXPECT_THAT(seen, ::testing::ElementsAre("1&2=", "x +%", "", "\xc3\xa4", "", std::nullopt, std::nullopt,
                                           std::nullopt, std::nullopt, std::nullopt));
}

TEST_F(HttpServerTest, PathIsBounded) {
  std::size_t size = 0;
  Start([&](HttpRequest& request, const std::string&, const AnswerSink& done) {
    size = request.path().size();
    done({});
  });
  EXPECT_EQ(Get("/" + std::string(HttpRequest::kMaxPathBytes - 1, 'x')).status, 200);
  EXPECT_EQ(size, HttpRequest::kMaxPathBytes);
  EXPECT_EQ(Get("/" + std::string(HttpRequest::kMaxPathBytes, 'x')).status, 200);
  EXPECT_EQ(size, HttpRequest::kMaxPathBytes);
}

TEST_F(HttpServerTest, CookiesAreFound) {
  std::vector<std::optional<std::string>> seen;
  Start([&](HttpRequest& request, const std::string&, const AnswerSink& done) {
    for (const char* name : {"a", "session", "SESSION", "quoted", "later", "none"}) {
      seen.push_back(request.Cookie(name));
    }
    done({});
  });
  EXPECT_EQ(Get("/", {R"(Cookie: a=b=c;  session=x,y; none; quoted="1; later=2; session=other)"}).status,
            200);
  EXPECT_THAT(seen, ::testing::ElementsAre("b=c", "x,y", std::nullopt, "\"1", "2", std::nullopt));
}

TEST(PercentDecodedTest, DecodesWhatIsRightAndNothingElse) {
  EXPECT_EQ(PercentDecoded(""), "");
  EXPECT_EQ(PercentDecoded("a%2fb%2F+%25"), "a/b/+%");
  EXPECT_EQ(PercentDecoded("%fF"), "\xff");
  for (const char* wrong : {"%", "a%2", "%g0", "%0g", "% 1", "%00", "%-1"}) {
    EXPECT_FALSE(PercentDecoded(wrong)) << wrong;
  }
  EXPECT_FALSE(PercentDecoded(std::string_view("a\0b", 3)));
}

TEST_F(HttpServerTest, RefusalBeforeTheBodyHasItsHeaders) {
  StartWith([](HttpRequest&) {
    HttpAnswer answer = TextAnswer("no");
    answer.status = MHD_HTTP_METHOD_NOT_ALLOWED;
    answer.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    return std::make_unique<RefusedExchange>(answer);
  });
  const auto transfer = To("/", {"Expect: 100-continue"});
  transfer->Set(CURLOPT_POSTFIELDS, "the body");
  transfer->Set(CURLOPT_EXPECT_100_TIMEOUT_MS, 3'600'000L);
  const ReceivedAnswer answer = transfer->Run();
  EXPECT_EQ(answer.status, 405);
  EXPECT_EQ(answer.sent, 0);
  EXPECT_THAT(answer.headers, HasSubstr("Allow: GET, HEAD"));
}

TEST_F(HttpServerTest, ExceptionOfTheFactoryEndsTheConnection) {
  StartWith([](HttpRequest&) -> std::unique_ptr<Exchange> { throw std::runtime_error("no"); });
  EXPECT_EQ(Get("/").curl_code, CURLE_GOT_NOTHING);
}

TEST_F(HttpServerTest, ExceptionOfAnExchangeIsAnswered) {
  Start([](HttpRequest&, const std::string&, const AnswerSink&) { throw std::runtime_error("no"); });
  EXPECT_EQ(Get("/").status, 500);
  Start([](HttpRequest&, const std::string&, const AnswerSink& done) {
    done(TextAnswer("first"));
    throw std::runtime_error("no");
  });
  EXPECT_EQ(Get("/").body, "first");
}

TEST_P(HttpTransportTest, EndWaitsForAnAnswerThatIsAwaited) {
  std::promise<AnswerSink> asked;
  Start([&](HttpRequest&, const std::string&, const AnswerSink& done) { asked.set_value(done); });
  RunningTransfer client(To("/"));
  const AnswerSink done = asked.get_future().get();
  auto end = std::async(std::launch::async, [this] { server_.reset(); });
  done(TextAnswer("late"));
  EXPECT_TRUE(client.WaitFor("late"));
  EXPECT_EQ(client.Code(), CURLE_OK);
  ASSERT_EQ(end.wait_for(kPatience), std::future_status::ready);
}

TEST_P(HttpTransportTest, WhatIsAskedAtTheEndIsRefusedAndWhatCameBeforeIsAnswered) {
  std::promise<AnswerSink> asked;
  Start([&](HttpRequest&, const std::string&, const AnswerSink& done) { asked.set_value(done); });
  RunningTransfer client(To("/"));
  const AnswerSink done = asked.get_future().get();
  server_->Refuse();
  const ReceivedAnswer refused = Get("/later");
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.body, "the service shuts down\n");
  EXPECT_EQ(server_->AwaitRequests(std::chrono::steady_clock::now(), {}), 1U);
  done(TextAnswer("late"));
  EXPECT_TRUE(client.WaitFor("late"));
  EXPECT_EQ(server_->AwaitRequests(std::chrono::steady_clock::now() + kPatience, {}), 0U);
}

TEST_P(HttpTransportTest, ClientsThatTryAgainGetNoAnswerAtTheEnd) {
  settings_.refuses_at_end = false;
  Start([&](HttpRequest&, const std::string&, const AnswerSink& done) { done(TextAnswer("ok")); });
  EXPECT_EQ(Get("/").body, "ok");
  server_->Refuse();
  const ReceivedAnswer none = Get("/");
  EXPECT_EQ(none.status, 0);
  EXPECT_NE(none.curl_code, CURLE_OK);
}

TEST_P(HttpTransportTest, StreamsEndAsSoonAsRequestsAreRefused) {
  const auto script = std::make_shared<StreamScript>();
  script->Push("first");
  Start([&](HttpRequest&, const std::string&, const AnswerSink& done) { done(StreamAnswer(script)); });
  RunningTransfer client(To("/"));
  ASSERT_TRUE(client.WaitFor("first"));
  server_->Refuse();
  EXPECT_TRUE(client.HasEnded());
  EXPECT_NE(client.Code(), CURLE_OK);
  EXPECT_EQ(server_->AwaitRequests(std::chrono::steady_clock::now() + kPatience, {}), 0U);
}

TEST_F(HttpServerTest, RequestsWhoseFactoryFailedAreNotWaitedFor) {
  StartWith([](HttpRequest&) -> std::unique_ptr<Exchange> { throw std::runtime_error("no"); });
  EXPECT_EQ(Get("/").curl_code, CURLE_GOT_NOTHING);
  EXPECT_EQ(server_->AwaitRequests(std::chrono::steady_clock::now() + kPatience, {}), 0U);
}

TEST_F(HttpServerTest, WhatIsAskedSoonBehindTheLastOneIsWaitedForToo) {
  std::promise<AnswerSink> asked;
  std::promise<AnswerSink> asked_behind;
  Start([&](HttpRequest& request, const std::string&, const AnswerSink& done) {
    (request.path() == "/first" ? asked : asked_behind).set_value(done);
  });
  RunningTransfer first(To("/first"));
  const AnswerSink done = asked.get_future().get();
  auto end = std::async(std::launch::async, [this] {
    return server_->AwaitRequests(std::chrono::steady_clock::now() + kPatience, std::chrono::hours(1));
  });
  done(TextAnswer("first"));
  ASSERT_TRUE(first.HasEnded());
  RunningTransfer second(To("/second"));
  asked_behind.get_future().get()(TextAnswer("second"));
  EXPECT_TRUE(second.WaitFor("second"));
  server_->Refuse();
  EXPECT_EQ(end.get(), 0U) << "nothing more can come";
}

// ---- files ----

class HttpFileTest : public HttpTransportTest {
 protected:
  void SetUp() override {
    HttpTransportTest::SetUp();
    temp_.Write("file", content_);
  }
  [[nodiscard]] FileSlice Slice(std::uint64_t offset, std::uint64_t size) const {
    return {open(temp_.File("file").c_str(), O_RDONLY | O_CLOEXEC), offset, size};
  }
  static std::size_t OpenFiles() { return test_support::OpenDescriptors(getpid()).size(); }

  const std::string content_ = AwkwardData(std::size_t{3} << 20);
};

INSTANTIATE_TEST_SUITE_P(HttpServerTest, HttpFileTest, AllTransports());

TEST_P(HttpFileTest, PartOfAFileIsTheBody) {
  std::pair<std::uint64_t, std::uint64_t> part;
  Start([&](HttpRequest&, const std::string&, const AnswerSink& done) {
    HttpAnswer answer;
    answer.file = Slice(part.first, part.second);
    done(answer);
  });
  const std::size_t open_before = OpenFiles();
  for (const std::pair<std::uint64_t, std::uint64_t>& each :
       std::vector<std::pair<std::uint64_t, std::uint64_t>>{
           {0, content_.size()}, {0, 1}, {content_.size() - 1, 1}, {12345, 1'000'001}, {7, 0}}) {
    part = each;
    const ReceivedAnswer answer = Get("/");
    EXPECT_EQ(answer.status, 200);
    EXPECT_TRUE(answer.body == content_.substr(part.first, part.second)) << part.first;
  }
  EXPECT_TRUE(Eventually([&] { return OpenFiles() == open_before; }));
}

TEST_P(HttpFileTest, FileThatIsShorterIsNotSentAndIsClosed) {
  Start([&](HttpRequest&, const std::string&, const AnswerSink& done) {
    HttpAnswer answer;
    answer.file = Slice(content_.size() - 10, 20);
    done(answer);
  });
  const std::size_t open_before = OpenFiles();
  EXPECT_EQ(Get("/").curl_code, CURLE_GOT_NOTHING);
  EXPECT_TRUE(Eventually([&] { return OpenFiles() == open_before; }));
}

TEST_P(HttpFileTest, FileIsClosedWhereNobodyGetsIt) {
  Start([&](HttpRequest& request, const std::string&, const AnswerSink& done) {
    HttpAnswer answer;
    answer.file = Slice(0, content_.size());
    if (request.path() == "/twice") done(TextAnswer("first"));
    done(answer);
  });
  const std::size_t open_before = OpenFiles();
  {
    const auto head = To("/");
    head->Set(CURLOPT_NOBODY, 1L);
    EXPECT_THAT(head->Run().headers, HasSubstr("Content-Length: " + std::to_string(content_.size())));
    const auto half = To("/");
    half->Set(
        CURLOPT_WRITEFUNCTION, +[](char*, std::size_t, std::size_t, void*) -> std::size_t { return 0; });
    EXPECT_EQ(half->Run().curl_code, CURLE_WRITE_ERROR);
  }
  EXPECT_EQ(Get("/twice").body, "first");
  EXPECT_TRUE(Eventually([&] { return OpenFiles() == open_before; }));
}

TEST_F(HttpServerTest, UnixSocketIsForItsOwnUserAndGoneAtTheEnd) {
  Use(Transport::kUnix);
  const std::string path = settings_.address.unix_path;
  Start([](HttpRequest&, const std::string&, const AnswerSink& done) { done({}); });
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  server_.reset();
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(HttpServerTest, UnixSocketThatIsServedStaysAndALeftoverIsReplaced) {
  Use(Transport::kUnix);
  const int leftover = OpenListener(settings_.address);
  EXPECT_THAT(StartFails(), HasSubstr("another program serves it"));
  close(leftover);
  ASSERT_TRUE(fs::exists(settings_.address.unix_path));
  EXPECT_EQ(StartFails(), "");
  EXPECT_EQ(Get("/").status, 200);
}

TEST_F(HttpServerTest, FileInTheUnixSocketsPlaceIsKept) {
  Use(Transport::kUnix);
  WriteFile(settings_.address.unix_path, "precious");
  EXPECT_THAT(StartFails(), HasSubstr("no socket"));
  EXPECT_EQ(ReadFile(settings_.address.unix_path), "precious");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
