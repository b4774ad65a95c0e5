#include <string>
#include <utility>

#include "transmitter_fixture.h"

namespace TarvoOrvane::Transmitter {
namespace {

using testing::EndsWith;
using Utils::CurlFailedException;
using Utils::Optional;

class UpdateResultTest : public TransmitterTest {};

TEST_F(UpdateResultTest, ReportMakesItsCallsInOrder) {
  EXPECT_TRUE(Report());
  EXPECT_THAT(
      log_.events(),
      ElementsAre(Call("curl_easy_init()"),
                  Call(R"(curl_easy_setopt(POSTFIELDS, {"serial_number":"SN123","status":"Success"}))"),
                  Call("CurlSlistAppend(Content-Type: application/json)"),
                  Call("CurlSlistAppend(AUTH-TOKEN: token-1)"), Call("curl_easy_setopt(HTTPHEADER, pointer)"),
                  Call(kConfigLookup), Call("curl_easy_setopt(URL, http://css.example/orvane/ps_results)"),
                  Call("curl_easy_setopt(CONNECTTIMEOUT, 120)"), Call("curl_easy_setopt(TIMEOUT, 1800)"),
                  Call("CurlSetupWriteToString()"), Call("CurlPerform()"), Call("curl_slist_free_all()"),
                  Call("curl_easy_cleanup()")));
}

/// A result code and its text.
class ReportedResultTest : public TransmitterTest,
                           public testing::WithParamInterface<std::pair<int, const char*>> {};

TEST_P(ReportedResultTest, IsSentAsItsTextWithoutTheNumber) {
  const auto [code, text] = GetParam();

  EXPECT_TRUE(Report(static_cast<Result>(code)));
  EXPECT_THAT(log_.calls(),
              Contains(std::string(R"(curl_easy_setopt(POSTFIELDS, {"serial_number":"SN123",)") +
                       R"("status":")" + text + "\"})"));
  EXPECT_THAT(log_.lines(), IsEmpty());
  DebugFileTransmitter transmitter = MakeTransmitter();
  EXPECT_EQ(Peer::ResultToString(transmitter, static_cast<Result>(code)), text);
}

INSTANTIATE_TEST_SUITE_P(Codes, ReportedResultTest,
                         testing::Values(std::pair(0, "Success"),
                                         std::pair(1, "Failed to generate debug file"),
                                         std::pair(2, "Failed to upload debug file to server"),
                                         std::pair(3, "Unknown"), std::pair(-1, "Unknown")));

TEST_F(UpdateResultTest, ResultCodesAreZeroOneAndTwo) {
  EXPECT_EQ(static_cast<int>(kSuccess), 0);
  EXPECT_EQ(static_cast<int>(kFailedToGenerateDebugFile), 1);
  EXPECT_EQ(static_cast<int>(kFailedToUploadDebugFile), 2);
}

TEST_F(UpdateResultTest, ReportWithoutSerialNumberHasItEmpty) {
  platform_.serial_number = [] { return Optional<std::string>(); };

  EXPECT_TRUE(Report());
  EXPECT_THAT(log_.calls(),
              Contains(R"(curl_easy_setopt(POSTFIELDS, {"serial_number":"","status":"Success"}))"));
}

TEST_F(UpdateResultTest, SerialNumberIsQuotedInTheReport) {
  const std::string serial_number = "a\"b\\c\n";
  platform_.serial_number = [&] { return Optional<std::string>(serial_number); };

  EXPECT_TRUE(Report());
  EXPECT_THAT(log_.calls(), Contains(R"(curl_easy_setopt(POSTFIELDS, {"serial_number":"a\"b\\c\n",)"
                                     R"("status":"Success"}))"));
}

TEST_F(UpdateResultTest, ReportHoldsItsOwnCopyOfTheResult) {
  Result result = kFailedToGenerateDebugFile;
  CURL* const own = curl_easy_init();
  platform_.curl_easy_init = [&] {
    result = kSuccess;
    return own;
  };

  EXPECT_TRUE(MakeTransmitter().UpdateResult(result));
  EXPECT_THAT(log_.CallsOf("curl_easy_setopt"),
              Contains(EndsWith(R"("status":"Failed to generate debug file"}))")));
}

TEST_F(UpdateResultTest, PostDataThatCannotBeSetFailsTheReport) {
  FailOption("POSTFIELDS", CURLE_OUT_OF_MEMORY);

  EXPECT_FALSE(Report());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("curl_easy_init()"), Call(StartsWith("curl_easy_setopt(POSTFIELDS, ")),
                          Line("Request failed, CURLcode=[27], what=[CurlSetOpt: CURLOPT_POSTFIELDS]"),
                          Line("Failed to set opt"), Call("curl_easy_cleanup()"), Line(kReportFailed)));
}

TEST_F(UpdateResultTest, ContentTypeThatCannotBeAppendedFailsTheReport) {
  platform_.curl_slist_append = [](const std::string&) { throw PlainException(); };

  EXPECT_FALSE(Report());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("curl_easy_init()"), Call(StartsWith("curl_easy_setopt(POSTFIELDS, ")),
                          Call("CurlSlistAppend(Content-Type: application/json)"),
                          Line("Request failed, what=[plain trouble]"), Line("Failed to set opt"),
                          Call("curl_easy_cleanup()"), Line(kReportFailed)));
}

TEST_F(UpdateResultTest, CredentialThatCannotBeAppendedFailsTheReportAndFreesItsHeaderLine) {
  platform_.curl_slist_append = [](const std::string& line) {
    if (line.rfind("AUTH-TOKEN", 0) == 0) {
      throw CurlFailedException(CURLE_OUT_OF_MEMORY, "no credential");
    }
  };

  EXPECT_FALSE(Report());
  EXPECT_THAT(log_.lines(),
              ElementsAre(Line("Request failed, CURLcode=[27], what=[no credential]"), Line(kReportFailed)));
  EXPECT_THAT(LastCalls(2), ElementsAre("curl_slist_free_all()", "curl_easy_cleanup()"));
}

TEST_F(UpdateResultTest, ReportThatTheServerRefusesLogsTheAnswerThenItsOwnLine) {
  AnswerWith("[]");

  EXPECT_FALSE(Report(kFailedToUploadDebugFile));
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to send form server resp: []"), Line(kReportFailed)));
  EXPECT_EQ(CountOf("CurlPerform"), 1U);
}

TEST_F(UpdateResultTest, ReportWithoutAnAddressLogsTheWholeChain) {
  platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":{"css_server":{"url":7}}})");

  EXPECT_FALSE(Report());
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(
          Line(R"(Failed to validate data: [{"debug_dat_file_transmitter":{"css_server":{"url":7}}}])"),
          Line("Failed to get css server url"), Line(kReportFailed)));
}

}  // namespace
}  // namespace TarvoOrvane::Transmitter
