#include "body_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "http_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::seconds;

class HttpStreamTest : public HttpTransportTest {
 protected:
  void StartStream() {
    Start([this](HttpRequest&, const std::string&, const AnswerSink& done) { done(StreamAnswer(script_)); });
  }
  [[nodiscard]] bool IsAsked(int times) const {
    return Eventually([&] { return script_->asked >= times; });
  }
  [[nodiscard]] bool IsGone() const {
    return Eventually([&] { return script_->gone.load(); });
  }

  const std::shared_ptr<StreamScript> script_ = std::make_shared<StreamScript>();
};

INSTANTIATE_TEST_SUITE_P(HttpServerTest, HttpStreamTest, AllTransports());

TEST_P(HttpStreamTest, EachPieceArrivesBeforeTheNextOneIsMade) {
  StartStream();
  RunningTransfer client(To("/"));
  std::string all;
  for (int i = 0; i < 5; ++i) {
    const std::string piece = "data: " + std::to_string(i) + "\n\n";
    all += piece;
    script_->Push(piece);
    script_->Wake();
    ASSERT_TRUE(client.WaitFor(all));
  }
  script_->Finish();
  script_->Wake();
  EXPECT_EQ(client.Code(), CURLE_OK);
  EXPECT_TRUE(IsGone());
  script_->Wake();
}

TEST_P(HttpStreamTest, LargePieceArrivesWhole) {
  StartStream();
  const std::string large = AwkwardData(std::size_t{1} << 20);
  script_->Push(large);
  script_->Push("end");
  script_->Finish();
  const ReceivedAnswer answer = Get("/");
  EXPECT_EQ(answer.curl_code, CURLE_OK);
  EXPECT_TRUE(answer.body == large + "end");
}

TEST_F(HttpServerTest, StreamForAnOldClientComesWithoutChunks) {
  const auto script = std::make_shared<StreamScript>();
  Start([&](HttpRequest&, const std::string&, const AnswerSink& done) { done(StreamAnswer(script)); });
  RawHttp client(server_->url());
  client.Send("GET / HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(Eventually([&] { return script->asked > 0; }));
  script->Push("first ");
  script->Push("second");
  script->Finish();
  script->Wake();
  EXPECT_THAT(client.ReadToEnd(), ::testing::EndsWith("\r\n\r\nfirst second"));
}

TEST_P(HttpStreamTest, WakeFromTheSourceItselfHasItAskedAgain) {
  class ImpatientSource final : public BodySource {
   public:
    std::optional<std::string> Next(const std::function<void()>& wake) override {
      if (++asked_ > 10) return std::nullopt;
      wake();
      return asked_ % 2 == 0 ? "x" : "";
    }

   private:
    int asked_ = 0;
  };
  Start([](HttpRequest&, const std::string&, const AnswerSink& done) {
    HttpAnswer answer;
    answer.source = std::make_shared<ImpatientSource>();
    done(answer);
  });
  EXPECT_EQ(Get("/").body, "xxxxx");
}

TEST_P(HttpStreamTest, WakesFromManyThreadsLoseNothing) {
  StartStream();
  RunningTransfer client(To("/"));
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this] {
      for (int j = 0; j < 250; ++j) {
        script_->Push("x");
        script_->Wake();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(client.WaitFor(std::string(1000, 'x')));
  script_->Finish();
  script_->Wake();
  EXPECT_EQ(client.Code(), CURLE_OK);
}

TEST_P(HttpStreamTest, ExceptionOfTheSourceEndsTheConnection) {
  class FailingSource final : public BodySource {
   public:
    std::optional<std::string> Next(const std::function<void()>& /*wake*/) override {
      throw std::runtime_error("no");
    }
  };
  Start([](HttpRequest&, const std::string&, const AnswerSink& done) {
    HttpAnswer answer;
    answer.source = std::make_shared<FailingSource>();
    done(answer);
  });
  EXPECT_NE(Get("/").curl_code, CURLE_OK);
}

TEST_P(HttpStreamTest, HeadHasNoBody) {
  StartStream();
  const auto transfer = To("/");
  transfer->Set(CURLOPT_NOBODY, 1L);
  const ReceivedAnswer answer = transfer->Run();
  EXPECT_EQ(answer.curl_code, CURLE_OK);
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(IsGone());
  EXPECT_EQ(script_->asked, 0);
}

TEST_P(HttpStreamTest, ClientThatGoesWhileThereIsNothingIsNoticed) {
  StartStream();
  script_->Push("first");
  const auto client = To("/");
  client->Set(
      CURLOPT_WRITEFUNCTION, +[](char*, std::size_t, std::size_t, void*) -> std::size_t { return 0; });
  EXPECT_EQ(client->Run().curl_code, CURLE_WRITE_ERROR);
  ASSERT_TRUE(IsAsked(1));
  EXPECT_TRUE(IsGone());
  script_->Wake();
}

TEST_P(HttpStreamTest, EndOfTheServerEndsStreamsThatWait) {
  StartStream();
  script_->Push("first");
  RunningTransfer client(To("/"));
  ASSERT_TRUE(client.WaitFor("first"));
  ASSERT_TRUE(IsAsked(2));
  auto end = std::async(std::launch::async, [this] { server_.reset(); });
  ASSERT_EQ(end.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(client.HasEnded());
  EXPECT_TRUE(script_->gone);
  script_->Wake();
}

TEST_P(HttpStreamTest, EndOfTheServerUnderWakesIsSafe) {
  StartStream();
  RunningTransfer client(To("/"));
  ASSERT_TRUE(IsAsked(1));
  std::atomic<bool> stop{false};
  std::thread waker([&] {
    while (!stop) script_->Wake();
  });
  server_.reset();
  stop = true;
  waker.join();
  EXPECT_TRUE(client.HasEnded());
  EXPECT_TRUE(script_->gone);
}

/// Streams without end, to clients that read nothing.
class HttpUnreadStreamTest : public HttpServerTest {
 protected:
  /// Makes more than any client takes unread.
  class EndlessSource final : public BodySource {
   public:
    explicit EndlessSource(std::atomic<int>& living) : living_(living) { ++living_; }
    ~EndlessSource() override { --living_; }
    EndlessSource(const EndlessSource&) = delete;
    EndlessSource& operator=(const EndlessSource&) = delete;
    std::optional<std::string> Next(const std::function<void()>& /*wake*/) override {
      return std::string(std::size_t{64} * 1024, 'x');
    }

   private:
    std::atomic<int>& living_;
  };

  void StartStreams() {
    settings_.threads = 2;
    Start([this](HttpRequest& request, const std::string&, const AnswerSink& done) {
      if (request.path() != "/stream") return done(TextAnswer("text"));
      HttpAnswer answer;
      answer.source = std::make_shared<EndlessSource>(living_);
      done(answer);
    });
    for (int i = 0; i < 8; ++i) {
      clients_.push_back(std::make_unique<RawHttp>(server_->url()));
      clients_.back()->Send("GET /stream HTTP/1.1\r\nHost: x\r\n\r\n");
    }
  }

  std::atomic<int> living_{0};
  std::vector<std::unique_ptr<RawHttp>> clients_;
};

TEST_F(HttpUnreadStreamTest, HoldsUpNobodyAndNotTheEndOfTheServer) {
  StartStreams();
  ASSERT_TRUE(Eventually([this] { return living_ == 8; }));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Get("/").body, "text");
  server_.reset();
  EXPECT_EQ(living_, 0);
}

TEST_F(HttpUnreadStreamTest, EndsWithItsConnectionsIdleLimit) {
  settings_.idle_limit = seconds(1);
  StartStreams();
  // It is not asked again.
  for (const auto& client : clients_) EXPECT_TRUE(client->AwaitRead());
  EXPECT_TRUE(Eventually([this] { return living_ == 0; }));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
