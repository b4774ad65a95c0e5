/// The CSS server fails, on the upload and on the report: what the daemon logs, tells the service and leaves behind.

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "transmission_fixture.h"

namespace {

using std::chrono::milliseconds;
using testing::IsEmpty;
using testing::SizeIs;

Lines Refused(const std::string& answer) {
  return {Transmitter("Failed to send form server resp: " + answer)};
}

// ---- What the server does. ----

Treatment Answers(const std::string& body, const std::string& status = "200 OK") {
  return HttpAnswer(status, body);
}

Treatment Silent() {
  Treatment treatment = Sends({}, Treatment::Ending::kKeepOpen);
  treatment.before_answer = LetAttemptTimeOut;
  return treatment;
}

Treatment ReadsNothing() {
  Treatment treatment = Silent();
  treatment.says_continue = false;
  treatment.body_bytes = 0;
  return treatment;
}

Treatment WithoutContinue() {
  Treatment treatment = Answers(R"({"success": true})");
  treatment.says_continue = false;
  return treatment;
}

Treatment Late(milliseconds pause) {
  Treatment treatment = Answers(R"({"success": true})");
  treatment.pause_before = pause;
  return treatment;
}

/// An answer byte by byte.
Treatment Drips(const std::string& bytes, milliseconds pause, Treatment::Ending ending) {
  Treatment treatment = Sends({}, ending);
  for (const char byte : bytes) {
    treatment.pieces.emplace_back(1, byte);
  }
  treatment.pause_between = pause;
  return treatment;
}

/// An answer byte by byte, which does not come to its end in time.
Treatment DripsTooSlowly(const std::string& bytes) {
  Treatment treatment = Drips(bytes, milliseconds(1), Treatment::Ending::kKeepOpen);
  treatment.after_answer = LetAttemptTimeOut;
  return treatment;
}

/// Some hundred kilobytes of them.
std::string HeaderLines() {
  std::string lines;
  for (int count = 0; count < 10'000; ++count) {
    lines += "X-Line: 0123456789\r\n";
  }
  return lines;
}

const std::string kHead = "HTTP/1.1 200 OK\r\nContent-Length: 17\r\n\r\n";
const std::string kSuccess = R"({"success": true})";
/// The longest text that is taken in all attempts together.
constexpr std::size_t kMostBytes = 262144;

/// Text of that length, which ends in `end`.
std::string LongText(const std::string& end) {
  const std::string begin = R"({"padding": ")";
  return begin + std::string(kMostBytes - begin.size() - end.size(), 'x') + end;
}

// ---- The rows. ----

struct CssFault {
  std::string name;
  std::vector<Treatment> treatments;  ///< Of one attempt after the other; the last one's goes on.
  Lines lines;                        ///< What the request logs.
  bool succeeds = false;
  std::size_t requests = 1;  ///< How many come.
};

void PrintTo(const CssFault& fault, std::ostream* out) { *out << fault.name; }

std::vector<CssFault> Faults() {
  using Ending = Treatment::Ending;
  const std::string half = kHead + R"({"suc)";
  // 56 where libcurl meets the reset as it reads, 55 where it still sends.
  const Lines resets(5,
                     Transmitter("curl_easy_perform() failed: CURLcode=[5*], what=[CurlPerform: *reset*]"));
  return {
      // The connection.
      {"IsSilent", {Silent()}, Attempts(5, 28, "Timeout was reached*") + NotParsed(""), false, 5},
      {"ReadsNothing", {ReadsNothing()}, Attempts(5, 28, "Timeout was reached*") + NotParsed(""), false, 5},
      {"ResetsAtOnce", {ResetsAfter(0)}, resets + NotParsed(""), false, 5},
      {"ResetsWithinTheBody", {ResetsAfter(40)}, resets + NotParsed(""), false, 5},
      {"ResetsAfterTheBody",
       {Sends({}, Ending::kReset)},
       Attempts(5, 56, "*reset*") + NotParsed(""),
       false,
       5},
      {"ClosesWithoutAnAnswer",
       {Sends({})},
       Attempts(5, 52, "Server returned nothing*") + NotParsed(""),
       false,
       5},
      {"FailsFourTimes",
       {Sends({}), Sends({}), Sends({}), Sends({}), Answers(kSuccess)},
       Attempts(4, 52),
       true,
       5},
      // The time it takes.
      {"NeverSaysContinue", {WithoutContinue()}, {}, true},
      {"AnswersLate", {Late(milliseconds(300))}, {}, true},
      {"Drips", {Drips(kHead + kSuccess, milliseconds(2), Ending::kClose)}, {}, true},
      {"DripsTooSlowly",
       {DripsTooSlowly(kHead + "{")},
       Attempts(5, 28, "Timeout was reached*") + NotParsed("{{{{{"),
       false,
       5},
      // The answer's form.
      {"ClosesWithinTheHead", {Sends({"HTTP/1.1 200 OK\r\nContent-Le"})}, NotParsed(""), false},
      {"ClosesWithinTheBody",
       {Sends({half})},
       Attempts(5, 18) + NotParsed(R"({"suc{"suc{"suc{"suc{"suc)"),
       false,
       5},
      {"ResetsWithinTheAnswer",
       {Drips(half, milliseconds(0), Ending::kReset)},
       Attempts(5, 56) + NotParsed("*"),
       false,
       5},
      {"SpeaksAnotherProtocol",
       {Sends({"220 mail.example.com ESMTP\r\n"})},
       Attempts(5, 1) + NotParsed(""),
       false,
       5},
      {"EndsOnceItHasBegunWell",
       {Sends({half}), Answers(kSuccess)},
       Attempts(1, 18) + NotParsed(R"({"suc{"success": true})"),
       false,
       2},
      {"SendsEndlessHeaderLines",
       {Sends({"HTTP/1.1 200 OK\r\n", HeaderLines()}, Ending::kRepeat)},
       Attempts(5, 23,
                "*head lines, with interim answers and trailers, are more than 65536 bytes or 1000 lines") +
           NotParsed(""),
       false,
       5},
      {"SendsAnEndlessBody",
       {Sends({"HTTP/1.1 200 OK\r\n\r\n", std::string(1 << 20, 'x')}, Ending::kRepeat)},
       Attempts(5, 23, "*is longer than 262144 bytes and was cut off"),
       false,
       5},
      // The answer's text.
      {"AnswersAsMuchSuccessAsIsTaken", {Answers(LongText(R"(", "success": true})"))}, {}, true},
      {"AnswersAsMuchFailureAsIsTaken",
       {Answers(LongText(R"(", "success": false})"))},
       Refused(R"({"padding": ")" + std::string(243, 'x')),
       false},
      {"AnswersStatus500WithSuccess", {Answers(kSuccess, "500 Internal Server Error")}, {}, true},
      {"AnswersFalse", {Answers(R"({"success": false})")}, Refused(R"({"success": false})"), false},
      {"AnswersTheStringTrue", {Answers(R"({"success": "true"})")}, Refused(R"({"success": "true"})"), false},
      {"AnswersTheNumber1", {Answers(R"({"success": 1})")}, Refused(R"({"success": 1})"), false},
      {"AnswersNull", {Answers(R"({"success": null})")}, Refused(R"({"success": null})"), false},
      {"AnswersWithoutSuccess", {Answers("{}")}, Refused("{}"), false},
      {"AnswersAnArray", {Answers("[true]")}, Refused("[true]"), false},
      {"AnswersNoJson", {Answers("<html>gateway</html>")}, NotParsed("<html>gateway</html>"), false},
      {"AnswersNothingAtAll", {Answers("")}, NotParsed(""), false},
      {"AnswersNestedBeyondTheParsersLimit",
       {Answers(std::string(2000, '['))},
       NotParsed(std::string(2000, '[')),
       false},
  };
}

class CssServerFaultTest : public TransmissionTest {
 protected:
  void SetUp() override {
    TransmissionTest::SetUp();
    if (!HasFatalFailure()) {
      StartWithInstantCollection();
    }
  }
};

class CssFaultTest : public CssServerFaultTest, public testing::WithParamInterface<CssFault> {};

TEST_P(CssFaultTest, OnTheUpload) {
  const CssFault& fault = GetParam();
  css_.Steer(kUploadPath, fault.treatments);
  TakeTicket();

  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(ChildLines({fault.lines, fault.succeeds}, {})));
  EXPECT_TRUE(WaitForRequests(kUploadPath, fault.requests)) << css_.RequestsFor(kUploadPath).size();
  EXPECT_EQ(Results(), Lines{fault.succeeds ? "Success" : "Failed to upload debug file to server"});
  ExpectTheNextIsServedAndNothingLeft();
}

TEST_P(CssFaultTest, OnTheReport) {
  const CssFault& fault = GetParam();
  css_.Steer(kReportPath, fault.treatments);
  TakeTicket();

  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(ChildLines({}, {fault.lines, fault.succeeds})));
  EXPECT_TRUE(WaitForRequests(kReportPath, fault.requests)) << css_.RequestsFor(kReportPath).size();
  EXPECT_THAT(css_.RequestsFor(kUploadPath), SizeIs(1));
  ExpectTheNextIsServedAndNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(CssServer, CssFaultTest, testing::ValuesIn(Faults()),
                         [](const testing::TestParamInfo<CssFault>& row) { return row.param.name; });

TEST_F(CssServerFaultTest, ThatRefusesTheConnectionOnTheUploadIsTriedFiveTimesAndTheReportStillComes) {
  HoldPauses();
  WriteConfig(ConfigWith(UnusedUrl()));
  TakeTicket();
  ASSERT_TRUE(WaitForLog(SyslogRole::kChild, "curl_easy_perform() failed")) << WholeLog();
  WriteConfig(ConfigWith(css_.Url()));
  LetPausesEnd();

  const Course refused = {NobodyThere(), false};
  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(ChildLines(refused, {})));
  EXPECT_EQ(Results(), Lines{"Failed to upload debug file to server"});
  ExpectTheNextIsServedAndNothingLeft();
}

TEST_F(CssServerFaultTest, ThatRefusesTheConnectionOnTheReportIsTriedFiveTimes) {
  Treatment last = Answers(kSuccess);
  last.before_answer = [this] { css_.Refuse(); };
  css_.Steer(kUploadPath, {last});
  TakeTicket();

  const Course refused = {NobodyThere(), false};
  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(ChildLines({}, refused)));
  EXPECT_THAT(Results(), IsEmpty());
  css_.Listen();
  ExpectTheNextIsServedAndNothingLeft();
}

// ---- The configuration file changes after the worker has read it. ----

/// What the configuration file holds; CSS, OTHER and NOBODY stand for the addresses of the server, of another one and
/// of none.
constexpr char kSame[] = R"({"debug_dat_file_transmitter": {"css_server": {"url": "CSS"}}})";
constexpr char kOther[] = R"({"debug_dat_file_transmitter": {"css_server": {"url": "OTHER"}}})";
constexpr char kSlash[] = R"({"debug_dat_file_transmitter": {"css_server": {"url": "CSS/"}}})";
constexpr char kNobody[] = R"({"debug_dat_file_transmitter": {"css_server": {"url": "NOBODY"}}})";
constexpr char kFtp[] = R"({"debug_dat_file_transmitter": {"css_server": {"url": "ftp://127.0.0.1"}}})";
constexpr char kEmpty[] = R"({"debug_dat_file_transmitter": {"css_server": {"url": ""}}})";
constexpr char kNumber[] = R"({"debug_dat_file_transmitter": {"css_server": {"url": 80}}})";
constexpr char kWithout[] = R"({"debug_dat_file_transmitter": {}})";
constexpr char kCut[] = R"({"debug_dat_file_transmitter": {"css_)";
constexpr char kMissing[] = "";

const Lines kUnread = {Transmitter("Failed to read conf from: [/usr/tarvo/etc/tarvomibserver.conf]"),
                       Transmitter("Failed to get css server url")};
const Lines kInvalid = {Transmitter("Failed to validate data: [*]"),
                        Transmitter("Failed to get css server url")};
const Lines kNoUrl = {Transmitter("Failed to get css server url")};
const Lines kNoHttp = Attempts(5, 1, "Unsupported protocol*") + NotParsed("");

struct ConfigChange {
  std::string name;
  std::string for_the_upload;
  std::string for_the_report;  ///< In its place as soon as the server has the archive.
  Course upload;
  Course report;
  Lines results;                          ///< That came to the server,
  std::string result_path = kReportPath;  ///< there.
  Lines other_results = {};               ///< That came to the other server.
};

void PrintTo(const ConfigChange& change, std::ostream* out) { *out << change.name; }

std::vector<ConfigChange> ConfigChanges() {
  return {
      {"MissingForBoth", kMissing, kMissing, {kUnread, false}, {kUnread, false}, {}},
      {"CutForBoth", kCut, kCut, {kUnread, false}, {kUnread, false}, {}},
      {"WithoutTheServerForBoth", kWithout, kWithout, {kInvalid, false}, {kInvalid, false}, {}},
      {"WithAnEmptyAddressForBoth", kEmpty, kEmpty, {kNoUrl, false}, {kNoUrl, false}, {}},
      {"WithoutHttpForBoth", kFtp, kFtp, {kNoHttp, false}, {kNoHttp, false}, {}},
      {"WithNobodysAddressForBoth", kNobody, kNobody, {NobodyThere(), false}, {NobodyThere(), false}, {}},
      {"RemovedBeforeTheReport", kSame, kMissing, {}, {kUnread, false}, {}},
      {"CutBeforeTheReport", kSame, kCut, {}, {kUnread, false}, {}},
      {"WithoutTheServerBeforeTheReport", kSame, kWithout, {}, {kInvalid, false}, {}},
      {"WithANumberBeforeTheReport", kSame, kNumber, {}, {kInvalid, false}, {}},
      {"WithAnEmptyAddressBeforeTheReport", kSame, kEmpty, {}, {kNoUrl, false}, {}},
      {"WithNobodysAddressBeforeTheReport", kSame, kNobody, {}, {NobodyThere(), false}, {}},
      {"ReplacedByAnotherServersBeforeTheReport", kSame, kOther, {}, {}, {}, kReportPath, {"Success"}},
      {"WithASlashBeforeTheReport", kSame, kSlash, {}, {}, {"Success"}, std::string("/") + kReportPath},
  };
}

class ConfigFaultTest : public CssServerFaultTest, public testing::WithParamInterface<ConfigChange> {
 protected:
  void Configure(std::string text) const {
    if (text.empty()) {
      std::filesystem::remove(kServiceConfig);
      return;
    }
    for (const auto& [word, url] :
         Environment{{"CSS", css_.Url()}, {"OTHER", other_.Url()}, {"NOBODY", UnusedUrl()}}) {
      const std::size_t found = text.find(word);
      if (found != std::string::npos) {
        text.replace(found, word.size(), url);
      }
    }
    WriteConfig(text);
  }

  SteerableServer other_;
};

TEST_P(ConfigFaultTest, TakesEffectAtTheNextRequest) {
  const ConfigChange& change = GetParam();
  Treatment upload = Answers(kSuccess);
  upload.before_answer = [&] { Configure(change.for_the_report); };
  css_.Steer(kUploadPath, {upload});
  Configure(change.for_the_upload);
  TakeTicket();

  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(ChildLines(change.upload, change.report)));
  EXPECT_EQ(StatusesOf(css_.RequestsFor(change.result_path)), change.results);
  EXPECT_EQ(StatusesOf(other_.Requests()), change.other_results);
  ExpectTheNextIsServedAndNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(CssServer, ConfigFaultTest, testing::ValuesIn(ConfigChanges()),
                         [](const testing::TestParamInfo<ConfigChange>& row) { return row.param.name; });

}  // namespace
