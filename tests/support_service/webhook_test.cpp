/// The webhook, with a receiver of the tests' own.
#include "webhook.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <random>

#include "http_fixture.h"
#include "program.h"
#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using test_support::Program;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

constexpr char kSecret[] = "0123456789abcdef-secret";

/// A call as it came.
struct ReceivedCall {
  std::string path;
  std::string id;
  std::string timestamp;
  std::string signature;
  std::string body;
};

/// Begins, and then its connection breaks.
class BrokenBody final : public BodySource {
 public:
  std::optional<std::string> Next(const std::function<void()>& /*wake*/) override {
    if (std::exchange(has_begun_, true)) throw std::runtime_error("broken");
    return "begun";
  }

 private:
  bool has_begun_ = false;
};

/// Answers each call by the next of its statuses, the last one again and again.
class Receiver {
 public:
  explicit Receiver(std::vector<unsigned int> statuses = {200}) : statuses_(std::move(statuses)) {
    HttpSettings settings;
    settings.address = ParseListenAddress("127.0.0.1:0", false);
    server_ = std::make_unique<HttpServer>(
        settings,
        [this](HttpRequest& request) { return std::make_unique<HandledExchange>(request, handler_); },
        events_.sink());
  }
  /// What a receiver of this address would hear.
  [[nodiscard]] std::string Url() const { return server_->url() + "/hook?key=in-the-url"; }
  void AnswerBy(std::vector<unsigned int> statuses) {
    const std::lock_guard<std::mutex> lock(mutex_);
    statuses_ = std::move(statuses);
  }
  void AnswerWith(const std::string& body) {
    const std::lock_guard<std::mutex> lock(mutex_);
    body_ = body;
  }
  /// From now on no answer comes to its end.
  void BreakAnswers() {
    const std::lock_guard<std::mutex> lock(mutex_);
    breaks_ = true;
  }
  /// From now on calls are not answered until Release().
  void Hold() {
    const std::lock_guard<std::mutex> lock(mutex_);
    holds_ = true;
  }
  void Release() {
    std::vector<AnswerSink> held;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      holds_ = false;
      held.swap(held_);
    }
    for (const AnswerSink& done : held) done(TextAnswer("late"));
  }
  [[nodiscard]] std::vector<ReceivedCall> Calls() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  [[nodiscard]] bool WaitForCalls(std::size_t count) {
    return Eventually([&] { return Calls().size() >= count; });
  }

 private:
  void Take(HttpRequest& request, const std::string& body, const AnswerSink& done) {
    HttpAnswer answer;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back({request.path(), request.Header("Webhook-Id").value_or(""),
                        request.Header("Webhook-Timestamp").value_or(""),
                        request.Header("Webhook-Signature").value_or(""), body});
      if (holds_) {
        held_.push_back(done);
        return;
      }
      answer = TextAnswer(body_);
      answer.status = statuses_.front();
      if (breaks_) answer.source = std::make_shared<BrokenBody>();
      if (answer.status == 302) answer.headers.emplace_back("Location", server_->url() + "/elsewhere");
      if (statuses_.size() > 1) statuses_.erase(statuses_.begin());
    }
    done(answer);
  }

  std::mutex mutex_;
  std::vector<unsigned int> statuses_;
  std::string body_ = "ok";
  bool breaks_ = false;
  bool holds_ = false;
  std::vector<AnswerSink> held_;
  std::vector<ReceivedCall> calls_;
  EventRecorder events_;
  const HttpHandler handler_ = [this](HttpRequest& request, const std::string& body, const AnswerSink& done) {
    Take(request, body, done);
  };
  std::unique_ptr<HttpServer> server_;
};

class WebhookTest : public ServiceTest {
 protected:
  WebhookTest() {
    settings_.webhook.secret = kSecret;
    settings_.webhook.first_pause = milliseconds(1);
    settings_.webhook.longest_pause = milliseconds(20);
  }
  void StartWith(Receiver& receiver) {
    settings_.webhook.url = receiver.Url();
    Start();
  }
  /// @return The id of a ticket that has come to its end.
  std::string EndTicket() {
    const std::string id = CreateTicket({"a"}, "SN3");
    service().dispatcher().Call([&](TicketBook& book) {
      return book.Cancel(service().store().FindById(id, 1).front().number, "somebody");
    });
    return id;
  }
  [[nodiscard]] bool WaitUntilTold(std::uint64_t count) {
    return Eventually([&] { return service().webhook_counts().delivered == count; });
  }
  static std::vector<std::string> TicketsIn(const std::vector<ReceivedCall>& calls) {
    std::vector<std::string> ids;
    ids.reserve(calls.size());
    for (const ReceivedCall& call : calls) ids.push_back(ParseJson(call.body)["ticket"]["id"].asString());
    return ids;
  }
};

TEST_F(WebhookTest, EndOfATicketIsToldWithAllThatIsKnownOfIt) {
  Receiver receiver;
  StartWith(receiver);
  const Delivered ticket = AcceptTicket();
  WriteFile(temp_.path() / "debug.dat", "archive");
  const std::vector<std::string> auth = {"AUTH-TOKEN: " + ticket.token};
  ASSERT_EQ(PostForm(UploadUrl(), auth, DeviceForm(temp_.path() / "debug.dat", "SN1", {"a"})).status, 200);
  ASSERT_EQ(Request("POST", ReportUrl(), auth, R"({"status":"Success","serial_number":"SN1"})").status, 200);
  ASSERT_TRUE(receiver.WaitForCalls(1));
  const ReceivedCall call = receiver.Calls().front();
  const Json::Value body = ParseJson(call.body);
  EXPECT_EQ(call.path, "/hook");
  EXPECT_EQ(body["type"].asString(), "ticket.ended");
  EXPECT_EQ(body["id"].asString(), call.id);
  EXPECT_EQ(call.id, ticket.id + "-" + std::to_string(body["event"]["number"].asUInt64()));
  EXPECT_EQ(body["time"], body["event"]["time"]);
  EXPECT_EQ(body["event"]["kind"].asString(), "reported");
  EXPECT_EQ(body["ticket"]["id"].asString(), ticket.id);
  EXPECT_EQ(body["ticket"]["device"].asString(), "SN1");
  EXPECT_EQ(body["ticket"]["state"].asString(), "reported");
  EXPECT_EQ(body["ticket"]["outcome"].asString(), "success");
  EXPECT_EQ(body["ticket"]["report"].asString(), "Success");
  EXPECT_EQ(body["ticket"]["archives"][0]["version"].asInt(), 1);
  EXPECT_EQ(call.signature, WebhookSignature(kSecret, call.timestamp, call.body));
}

TEST(WebhookSignatureTest, IsTheOneThatEverybodyComputes) {
  // By Python: hmac.new(b'0123456789abcdef', b'1700000000.{"id":1}', 'sha256').hexdigest()
  EXPECT_EQ(WebhookSignature("0123456789abcdef", "1700000000", R"({"id":1})"),
            "sha256=4bcaced68dfea90a68df035b89cb7fb26692d899d32a1ccb1b0616cf48e4d1ed");
}

TEST(WebhookPauseTest, DoublesUpToTheLongestAndIsShortenedByUpToAHalf) {
  WebhookSettings settings;
  settings.first_pause = milliseconds(1000);
  settings.longest_pause = milliseconds(6000);
  std::minstd_rand random(1);
  const std::vector<std::pair<std::uint64_t, int>> pauses = {{1, 1000}, {2, 2000}, {3, 4000},
                                                             {4, 6000}, {5, 6000}, {UINT64_MAX, 6000}};
  for (const auto& [failures, longest] : pauses) {
    std::vector<std::int64_t> drawn;
    drawn.reserve(1000);
    for (int i = 0; i < 1000; ++i) drawn.push_back(WebhookPause(settings, failures, random).count());
    const auto [least, most] = std::minmax_element(drawn.begin(), drawn.end());
    EXPECT_GE(*least, longest / 2) << failures;
    EXPECT_LT(*least, longest * 6 / 10) << failures;
    EXPECT_GT(*most, longest * 9 / 10) << failures;
    EXPECT_LE(*most, longest) << failures;
  }
}

TEST(WebhookUrlTest, SchemeMayBeWrittenInCapitals) {
  EXPECT_EQ(WebhookUrlFault("HTTPS://example.org/"), "");
  EXPECT_EQ(WebhookUrlFault("HTTP://127.0.0.1/"), "");
  EXPECT_NE(WebhookUrlFault("HTTP://example.org/"), "");
}

TEST_F(WebhookTest, ReceiverOnThisMachineIsReachedPastAProxy) {
  for (const char* name : {"no_proxy", "NO_PROXY"}) unsetenv(name);
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  Receiver receiver;
  settings_.webhook.url = "HTTP" + receiver.Url().substr(4);
  Start();
  EndTicket();
  EXPECT_TRUE(WaitUntilTold(1));
  service_.reset();
  unsetenv("http_proxy");
}

TEST_F(WebhookTest, GuidesExampleTellsGenuineCallsFromOthers) {
  std::string guide = ReadFile(OPERATORS_GUIDE);
  const std::size_t begin = guide.find("import hmac");
  ASSERT_NE(begin, std::string::npos);
  const std::string example = guide.substr(begin, guide.find("```", begin) - begin);
  Receiver receiver;
  StartWith(receiver);
  EndTicket();
  ASSERT_TRUE(receiver.WaitForCalls(1));
  const ReceivedCall call = receiver.Calls().front();
  WriteFile(temp_.path() / "check.py", example + R"(
import sys
with open(sys.argv[4], 'rb') as file:
    is_one = is_genuine(sys.argv[1].encode(), sys.argv[2], sys.argv[3], file.read())
print('genuine' if is_one else 'something else')
)");
  const auto says_genuine = [&](const std::string& body, const std::string& timestamp) {
    WriteFile(temp_.path() / "body", body);
    Program python(
        {"python3", temp_.File("check.py"), kSecret, timestamp, call.signature, temp_.File("body")},
        temp_.File("python.out"));
    EXPECT_EQ(python.Wait(), 0) << python.Output();
    return python.Output() == "genuine\n";
  };
  EXPECT_TRUE(says_genuine(call.body, call.timestamp));
  EXPECT_FALSE(says_genuine(call.body + " ", call.timestamp));
  EXPECT_FALSE(says_genuine(call.body, call.timestamp + "0"));
}

TEST_F(WebhookTest, FailedCallsAreRepeatedBeforeTheNextOnes) {
  Receiver receiver({500, 404, 302, 200});
  StartWith(receiver);
  const std::string first = EndTicket();
  const std::string second = EndTicket();
  ASSERT_TRUE(WaitUntilTold(2));
  const auto calls = receiver.Calls();
  EXPECT_THAT(TicketsIn(calls), ElementsAre(first, first, first, first, second));
  EXPECT_EQ(calls[0].id, calls[3].id);
  EXPECT_NE(calls[3].id, calls[4].id);
  EXPECT_TRUE(std::all_of(calls.begin(), calls.end(), [](const auto& call) { return call.path == "/hook"; }))
      << "redirects are not followed";
  EXPECT_EQ(service().webhook_counts().failed, 3U);
  EXPECT_EQ(service().webhook_counts().waiting, 0U);
  EXPECT_TRUE(events_.Has("webhook: the end of ticket " + first + " was not told to http://127.0.0.1:"));
  EXPECT_TRUE(events_.Has("it was answered by HTTP 404; next try in 1 s"));
}

TEST_F(WebhookTest, OnlyEndsAreTold) {
  Receiver receiver;
  StartWith(receiver);
  CreateTicket({"a"}, "SN2");
  const Delivered accepted = AcceptTicket();
  const std::string ended = EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  EXPECT_THAT(TicketsIn(receiver.Calls()), ElementsAre(ended));
}

TEST_F(WebhookTest, FirstStartTellsOnlyWhatEndsFromThenOn) {
  Start();
  EndTicket();
  service_.reset();
  Receiver receiver;
  settings_.webhook.url = receiver.Url();
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  const std::string ended = EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  EXPECT_THAT(TicketsIn(receiver.Calls()), ElementsAre(ended));
}

TEST_F(WebhookTest, OutageOfTheReceiverAndRestartsLoseNothing) {
  Receiver receiver({503});
  StartWith(receiver);
  const std::string first = EndTicket();
  ASSERT_TRUE(receiver.WaitForCalls(2));
  const std::string second = EndTicket();
  service_.reset();
  receiver.AnswerBy({200});
  const std::size_t before = receiver.Calls().size();
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  ASSERT_TRUE(WaitUntilTold(2));
  const auto calls = receiver.Calls();
  EXPECT_THAT(TicketsIn({calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end()}),
              ElementsAre(first, second));
  // And none of it again.
  service_.reset();
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  const std::string third = EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  EXPECT_THAT(receiver.Calls(), SizeIs(calls.size() + 1));
}

TEST_F(WebhookTest, ReceiverThatIsNotThereIsWaitedFor) {
  auto gone = std::make_unique<Receiver>();
  settings_.webhook.url = gone->Url();
  gone.reset();
  Start();
  const std::string id = EndTicket();
  ASSERT_TRUE(events_.WaitFor("the end of ticket " + id + " was not told"));
  EXPECT_EQ(service().webhook_counts().waiting, 1U);
  EXPECT_EQ(service().webhook_counts().delivered, 0U);
}

TEST_F(WebhookTest, StartWithoutAWebhookForgetsWhatWasToBeTold) {
  Receiver receiver({500});
  StartWith(receiver);
  EndTicket();
  ASSERT_TRUE(receiver.WaitForCalls(1));
  service_.reset();
  const std::string url = std::exchange(settings_.webhook.url, "");
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  ASSERT_TRUE(Eventually([&] { return !service().store().ToldByWebhook(); }));
  service_.reset();
  settings_.webhook.url = url;
  receiver.AnswerBy({200});
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  const std::string ended = EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  EXPECT_EQ(TicketsIn(receiver.Calls()).back(), ended);
}

TEST_F(WebhookTest, EndThatFailsForTooLongIsGivenUpAndTheNextIsTold) {
  settings_.webhook.give_up_after = milliseconds(0);
  Receiver receiver({500, 200});
  StartWith(receiver);
  const std::string first = EndTicket();
  const std::string second = EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  EXPECT_THAT(TicketsIn(receiver.Calls()), ElementsAre(first, second));
  EXPECT_EQ(service().webhook_counts().given_up, 1U);
  EXPECT_TRUE(events_.Has("it was answered by HTTP 500; it is given up"));
  std::vector<std::string> records;
  for (const AuditRecord& record : service().store().Audit(0, 10)) {
    records.push_back(record.action + " " + record.object + " " + record.actor.who);
  }
  EXPECT_THAT(records, Contains("webhook given up " + first + " webhook"));
}

TEST_F(WebhookTest, LongAnswerIsNotWaitedFor) {
  Receiver receiver;
  receiver.AnswerWith(std::string(std::size_t{8} << 20, 'x'));
  StartWith(receiver);
  EndTicket();
  EXPECT_TRUE(WaitUntilTold(1));
  EXPECT_EQ(service().webhook_counts().failed, 0U);
}

TEST_F(WebhookTest, SuccessCountsWhateverBecomesOfTheAnswersRest) {
  Receiver receiver;
  receiver.BreakAnswers();
  StartWith(receiver);
  EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  EXPECT_EQ(service().webhook_counts().failed, 0U);
  EXPECT_THAT(receiver.Calls(), SizeIs(1));
}

TEST_F(WebhookTest, FailureCountsWhateverBecomesOfTheAnswersRest) {
  Receiver receiver({500});
  receiver.BreakAnswers();
  StartWith(receiver);
  EndTicket();
  ASSERT_TRUE(Eventually([&] { return service().webhook_counts().failed > 0; }));
  EXPECT_EQ(service().webhook_counts().delivered, 0U);
}

TEST_F(WebhookTest, StopOfTheServiceDoesNotWaitForTheReceiver) {
  Receiver receiver;
  receiver.Hold();
  StartWith(receiver);
  const std::string id = EndTicket();
  ASSERT_TRUE(receiver.WaitForCalls(1));
  service_.reset();  // would last for 30 s, and fail
  EXPECT_FALSE(events_.Has("was not told")) << "it was cut off by the service itself";
  receiver.Release();
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  ASSERT_TRUE(WaitUntilTold(1));
  EXPECT_THAT(TicketsIn(receiver.Calls()), ElementsAre(id, id));
}

TEST_F(WebhookTest, SecretsAreNotInTheLogNorOnTheDisk) {
  Receiver receiver({500, 200});
  StartWith(receiver);
  EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  service_.reset();
  EXPECT_THAT(events_.text(), AllOf(Not(HasSubstr(kSecret)), Not(HasSubstr("in-the-url"))));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(settings_.data_folder)) {
    if (!entry.is_regular_file()) continue;
    EXPECT_THAT(ReadFile(entry.path()), Not(HasSubstr(kSecret))) << entry.path();
  }
}

TEST_F(WebhookTest, CountsStandInTheServicesHealth) {
  Receiver receiver({500, 200});
  StartWith(receiver);
  EndTicket();
  ASSERT_TRUE(WaitUntilTold(1));
  ASSERT_TRUE(Eventually([&] { return service().webhook_counts().waiting == 0; }));
  const Json::Value health = ParseJson(AskApi(service().control_socket(), "GET", "/health").body);
  EXPECT_EQ(health["webhook"]["delivered"].asInt(), 1);
  EXPECT_EQ(health["webhook"]["failed"].asInt(), 1);
  EXPECT_EQ(health["webhook"]["waiting"].asInt(), 0);
  EXPECT_EQ(health["webhook"]["given_up"].asInt(), 0);
}

class WebhookTlsTest : public WebhookTest {};

TEST_F(WebhookTlsTest, CertificateOfTheReceiverIsLookedAt) {
  const Testing::TestCertificate own = Testing::MakeTestCertificate();
  WriteFile(temp_.path() / "receiver.pem", own.certificate);
  WriteFile(temp_.path() / "receiver.key", own.key);
  HttpSettings settings;
  settings.address = ParseListenAddress("127.0.0.1:0", false);
  settings.tls = TlsSettings{temp_.path() / "receiver.pem", temp_.path() / "receiver.key", std::nullopt};
  const HttpHandler handler = [](HttpRequest&, const std::string&, const AnswerSink& done) {
    done(TextAnswer("ok"));
  };
  const HttpServer server(
      settings, [&](HttpRequest& request) { return std::make_unique<HandledExchange>(request, handler); },
      events_.sink());
  settings_.webhook.url = server.url() + "/";
  Start();
  EndTicket();
  ASSERT_TRUE(events_.WaitFor("certificate"));
  EXPECT_EQ(service().webhook_counts().delivered, 0U);
  service_.reset();
  settings_.webhook.authority = temp_.path() / "receiver.pem";
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  EXPECT_TRUE(WaitUntilTold(1));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
