// What both requests share: calls in order, attempts, verdict, exceptions.

#include <filesystem>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "transmitter_fixture.h"

namespace TarvoOrvane::Transmitter {
namespace {

using testing::ElementsAreArray;
using testing::Matcher;
using testing::SizeIs;
using Utils::CurlFailedException;
using Utils::CurlFormFailedException;
using Utils::CurlHandle;
using Utils::CurlHeaderList;

class RequestFrameTest : public TransmitterTest {};

TEST_F(RequestFrameTest, RequestMakesItsCallsInOrder) {
  const bool sent = Request([](CurlHandle& handle, CurlHeaderList& headers) {
    EXPECT_NE(handle.get(), nullptr);
    EXPECT_EQ(headers.get(), nullptr);
    Utils::CurlSlistAppend(headers, "X-Own: 1");
    return true;
  });

  EXPECT_TRUE(sent);
  EXPECT_THAT(
      log_.events(),
      ElementsAre(Call("curl_easy_init()"), Call("CurlSlistAppend(X-Own: 1)"),
                  Call("CurlSlistAppend(AUTH-TOKEN: token-1)"), Call("curl_easy_setopt(HTTPHEADER, pointer)"),
                  Call(kConfigLookup), Call("curl_easy_setopt(URL, http://css.example/path)"),
                  Call("curl_easy_setopt(CONNECTTIMEOUT, 120)"), Call("curl_easy_setopt(TIMEOUT, 1800)"),
                  Call("CurlSetupWriteToString()"), Call("CurlPerform()"), Call("curl_slist_free_all()"),
                  Call("curl_easy_cleanup()")));
}

TEST_F(RequestFrameTest, OneHandleServesTheCallerAndTheTransfer) {
  CURL* const own = curl_easy_init();
  platform_.curl_easy_init = [own] { return own; };
  std::vector<CURL*> seen;
  platform_.curl_perform = [&seen](CurlHandle& handle, std::string& response) {
    seen.push_back(handle.get());
    response = R"({"success":true})";
  };

  EXPECT_TRUE(Request([&seen](CurlHandle& handle, CurlHeaderList&) {
    seen.push_back(handle.get());
    return true;
  }));
  EXPECT_THAT(seen, ElementsAre(own, own));
  EXPECT_EQ(CountOf("curl_easy_cleanup"), 1U);
}

TEST_F(RequestFrameTest, EachRequestHasItsOwnHandleAndHeaderList) {
  DebugFileTransmitter transmitter = MakeTransmitter();

  EXPECT_TRUE(transmitter.UpdateResult(kSuccess));
  EXPECT_TRUE(transmitter.UpdateResult(kSuccess));

  EXPECT_EQ(CountOf("curl_easy_init"), 2U);
  EXPECT_EQ(CountOf("curl_easy_cleanup"), 2U);
  EXPECT_EQ(CountOf("curl_slist_free_all"), 2U);
  EXPECT_EQ(CountOf("FromFile"), 2U);
}

TEST_F(RequestFrameTest, ConfigurationChangedBetweenRequestsTakesEffect) {
  DebugFileTransmitter transmitter = MakeTransmitter();

  EXPECT_TRUE(transmitter.UpdateResult(kSuccess));
  platform_.SetServiceConfig(ConfigWithUrl("http://other.example"));
  EXPECT_TRUE(transmitter.UpdateResult(kSuccess));

  EXPECT_THAT(log_.calls(), Contains("curl_easy_setopt(URL, http://css.example/orvane/ps_results)"));
  EXPECT_THAT(log_.calls(), Contains("curl_easy_setopt(URL, http://other.example/orvane/ps_results)"));
}

TEST_F(RequestFrameTest, AddressAndPathAreJoinedAsTheyStand) {
  platform_.SetServiceConfig(ConfigWithUrl("http://css.example/"));

  EXPECT_TRUE(Upload());
  EXPECT_THAT(log_.calls(), Contains("curl_easy_setopt(URL, http://css.example//orvane/ps_files)"));
}

TEST_F(RequestFrameTest, AnEmptyTokenIsSentAsAnEmptyCredential) {
  EXPECT_TRUE(MakeTransmitter("").UpdateResult(kSuccess));
  EXPECT_THAT(log_.calls(), Contains("CurlSlistAppend(AUTH-TOKEN: )"));
}

TEST_F(RequestFrameTest, CallableThatReturnsFalseEndsTheRequest) {
  EXPECT_FALSE(Request([](CurlHandle&, CurlHeaderList& headers) {
    Utils::CurlSlistAppend(headers, "X-Own: 1");
    return false;
  }));
  EXPECT_THAT(log_.events(), ElementsAre(Call("curl_easy_init()"), Call("CurlSlistAppend(X-Own: 1)"),
                                         Line("Failed to set opt"), Call("curl_slist_free_all()"),
                                         Call("curl_easy_cleanup()")));
}

TEST_F(RequestFrameTest, EmptyCallableIsReportedAsAFailedRequest) {
  EXPECT_FALSE(Request(CurlOptionSetter()));
  EXPECT_THAT(log_.events(), ElementsAre(Call("curl_easy_init()"), Call("curl_easy_cleanup()"),
                                         Line("Request failed, what=[" +
                                              std::string(std::bad_function_call().what()) + "]")));
}

TEST_F(RequestFrameTest, CurlFailureInTheCallableIsReportedWithItsCode) {
  EXPECT_FALSE(Request([](CurlHandle&, CurlHeaderList&) -> bool {
    throw CurlFailedException(CURLE_UNKNOWN_OPTION, "no such option");
  }));
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, CURLcode=[48], what=[no such option]")));
}

TEST_F(RequestFrameTest, OtherFailureInTheCallableIsReportedWithItsText) {
  EXPECT_FALSE(Request([](CurlHandle&, CurlHeaderList&) -> bool { throw PlainException(); }));
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, what=[plain trouble]")));
}

TEST_F(RequestFrameTest, FormFailureInTheCallableIsAnyOtherFailureToTheFrame) {
  EXPECT_FALSE(Request([](CurlHandle&, CurlHeaderList&) -> bool {
    throw CurlFormFailedException(CURL_FORMADD_NULL, "no part");
  }));
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, what=[no part]")));
}

TEST_F(RequestFrameTest, WithoutAHandleTheFirstOptionFails) {
  platform_.curl_easy_init = []() -> CURL* { return nullptr; };

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("curl_easy_init()"), Call("CurlSlistAppend(AUTH-TOKEN: token-1)"),
                          Call("curl_easy_setopt(HTTPHEADER, pointer)"), Call("curl_slist_free_all()"),
                          Line("Request failed, CURLcode=[43], what=[CurlSetOpt: CURLOPT_HTTPHEADER]")));
}

TEST_F(RequestFrameTest, CredentialThatCannotBeAppendedFailsTheRequest) {
  platform_.curl_slist_append = [](const std::string&) { throw PlainException(); };

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("curl_easy_init()"), Call("CurlSlistAppend(AUTH-TOKEN: token-1)"),
                          Call("curl_easy_cleanup()"), Line("Request failed, what=[plain trouble]")));
}

TEST_F(RequestFrameTest, AllocationFailureIsReportedAsAFailedRequest) {
  platform_.curl_slist_append = [](const std::string&) { throw std::bad_alloc(); };

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, what=[std::bad_alloc]")));
}

class FailedOptionTest : public TransmitterTest,
                         public testing::WithParamInterface<std::pair<const char*, CURLcode>> {};

TEST_P(FailedOptionTest, EndsTheRequestWithItsCodeAndName) {
  const auto [name, code] = GetParam();
  FailOption(name, code);

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, CURLcode=[" + std::to_string(code) +
                                             "], what=[CurlSetOpt: CURLOPT_" + name + "]")));
  const std::vector<Event> events = log_.events();
  ASSERT_GE(events.size(), 4U);
  EXPECT_THAT(events[events.size() - 4].text, StartsWith(std::string("curl_easy_setopt(") + name));
  EXPECT_THAT(LastCalls(2), ElementsAre("curl_slist_free_all()", "curl_easy_cleanup()"));
}

INSTANTIATE_TEST_SUITE_P(Options, FailedOptionTest,
                         testing::Values(std::pair("HTTPHEADER", CURLE_UNKNOWN_OPTION),
                                         std::pair("URL", CURLE_OUT_OF_MEMORY),
                                         std::pair("CONNECTTIMEOUT", CURLE_BAD_FUNCTION_ARGUMENT),
                                         std::pair("TIMEOUT", CURLE_UNSUPPORTED_PROTOCOL)));

TEST_F(RequestFrameTest, ResponseThatCannotBeCapturedFailsTheRequest) {
  platform_.curl_setup_write_to_string = [] { throw CurlFailedException(CURLE_OUT_OF_MEMORY, "no capture"); };

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, CURLcode=[27], what=[no capture]")));
  EXPECT_EQ(CountOf("CurlPerform"), 0U);
  EXPECT_THAT(LastCalls(2), ElementsAre("curl_slist_free_all()", "curl_easy_cleanup()"));
}

TEST_F(RequestFrameTest, ResponseThatCannotBeCapturedForAnotherReasonFailsTheRequest) {
  platform_.curl_setup_write_to_string = [] { throw PlainException(); };

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, what=[plain trouble]")));
  EXPECT_EQ(CountOf("CurlPerform"), 0U);
}

TEST_F(RequestFrameTest, WithoutAnAddressNothingIsSent) {
  platform_.SetServiceConfig("{}");

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.events(),
              ElementsAre(Call("curl_easy_init()"), Call("CurlSlistAppend(AUTH-TOKEN: token-1)"),
                          Call("curl_easy_setopt(HTTPHEADER, pointer)"), Call(StartsWith("FromFile(")),
                          Line("Failed to validate data: [{}]"), Line("Failed to get css server url"),
                          Call("curl_slist_free_all()"), Call("curl_easy_cleanup()")));
}

TEST_F(RequestFrameTest, WithoutAConfigurationNothingIsSent) {
  std::filesystem::remove(platform_.service_config_path());

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line(StartsWith("Failed to read conf from: [")),
                                        Line("Failed to get css server url")));
  EXPECT_EQ(CountOf("CurlPerform"), 0U);
}

TEST_F(RequestFrameTest, AnEmptyAddressIsLikeAMissingOne) {
  platform_.SetServiceConfig(ConfigWithUrl(""));

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to get css server url")));
  EXPECT_EQ(CountOf("CurlPerform"), 0U);
}

TEST_F(RequestFrameTest, UnreachableServerGetsFiveAttemptsWithAPauseAfterEach) {
  platform_.curl_perform = [](CurlHandle&, std::string& response) { Refused(response); };

  EXPECT_FALSE(Request());
  std::vector<Matcher<const Event&>> wanted;
  for (int attempt = 0; attempt < 5; ++attempt) {
    wanted.push_back(Call("CurlPerform()"));
    wanted.push_back(Line("curl_easy_perform() failed: CURLcode=[7], what=[refused]"));
    wanted.push_back(Call("sleep(1)"));
  }
  wanted.push_back(Line("Failed to parse server resp: "));
  wanted.push_back(Call("curl_slist_free_all()"));
  wanted.push_back(Call("curl_easy_cleanup()"));
  std::vector<Event> events = log_.events();
  const auto first = std::find_if(events.begin(), events.end(),
                                  [](const Event& event) { return event.text == "CurlPerform()"; });
  EXPECT_THAT(std::vector<Event>(first, events.end()), ElementsAreArray(wanted));
}

TEST_F(RequestFrameTest, OtherExceptionsAreRetriedLikeCurlFailures) {
  Attempts({[](std::string&) { throw PlainException(); },
            [](std::string&) { throw CurlFailedException(CURLE_OPERATION_TIMEDOUT, "late"); },
            [](std::string&) { throw std::logic_error("odd"); },
            [](std::string&) { throw CurlFormFailedException(CURL_FORMADD_MEMORY, "form"); }});

  EXPECT_TRUE(Request());
  EXPECT_THAT(log_.lines(),
              ElementsAre(Line("Request failed, what=[plain trouble]"),
                          Line("curl_easy_perform() failed: CURLcode=[28], what=[late]"),
                          Line("Request failed, what=[odd]"), Line("Request failed, what=[form]")));
  EXPECT_EQ(CountOf("CurlPerform"), 5U);
  EXPECT_THAT(log_.CallsOf("sleep"), ElementsAre("sleep(1)", "sleep(1)", "sleep(1)", "sleep(1)"));
}

TEST_F(RequestFrameTest, SuccessAfterOneFailureYieldsTheSecondVerdict) {
  Attempts({Refused});

  EXPECT_TRUE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("curl_easy_perform() failed: CURLcode=[7], what=[refused]")));
  EXPECT_EQ(CountOf("CurlPerform"), 2U);
  EXPECT_THAT(log_.CallsOf("sleep"), ElementsAre("sleep(1)"));
}

TEST_F(RequestFrameTest, ATransferThatReturnsIsNotRepeatedWhateverItBrought) {
  AnswerWith("");

  EXPECT_FALSE(Request());
  EXPECT_EQ(CountOf("CurlPerform"), 1U);
  EXPECT_EQ(CountOf("sleep"), 0U);
}

TEST_F(RequestFrameTest, TextOfABrokenAttemptStaysInFrontOfTheNextBody) {
  Attempts({[](std::string& response) {
    response += R"({"success":tr)";
    throw CurlFailedException(CURLE_PARTIAL_FILE, "broken");
  }});

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(),
              ElementsAre(Line("curl_easy_perform() failed: CURLcode=[18], what=[broken]"),
                          Line(R"(Failed to parse server resp: {"success":tr{"success":true})")));
}

TEST_F(RequestFrameTest, BlanksOfABrokenAttemptDoNotSpoilTheNextBody) {
  Attempts({[](std::string& response) {
    response += " \r\n";
    throw CurlFailedException(CURLE_PARTIAL_FILE, "broken");
  }});

  EXPECT_TRUE(Request());
}

TEST_F(RequestFrameTest, AfterFiveFailuresTheTextThatArrivedIsJudged) {
  const auto broken_late = [](std::string& response) {
    if (response.empty()) {
      response = R"({"success":true})";
    }
    throw CurlFailedException(CURLE_RECV_ERROR, "reset");
  };
  Attempts({broken_late, broken_late, broken_late, broken_late, broken_late});

  EXPECT_TRUE(Request());
  EXPECT_EQ(CountOf("CurlPerform"), 5U);
  EXPECT_EQ(CountOf("sleep"), 5U);
}

TEST_F(RequestFrameTest, AnswerWithSuccessTrueSucceedsWithoutALine) {
  AnswerWith(R"( {"success" : true, "other": [1, {"a": null}]} )");

  EXPECT_TRUE(Request());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(RequestFrameTest, EachRequestIsJudgedByItsOwnAnswer) {
  DebugFileTransmitter transmitter = MakeTransmitter();

  AnswerWith("{}");
  EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
  AnswerWith(R"({"success":true})");
  EXPECT_TRUE(transmitter.UpdateResult(kSuccess));
  AnswerWith("{}");
  EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
}

/// The parameter is what the server answers.
class AnswerTest : public TransmitterTest, public testing::WithParamInterface<const char*> {
 protected:
  /// The request fails, and its one line quotes the answer behind `start`.
  void ExpectFailureLoggedAs(const std::string& start) {
    AnswerWith(GetParam());

    EXPECT_FALSE(Request());
    EXPECT_THAT(log_.lines(), ElementsAre(Line(start + GetParam())));
    EXPECT_THAT(LastCalls(2), ElementsAre("curl_slist_free_all()", "curl_easy_cleanup()"));
  }
};

class RefusingAnswerTest : public AnswerTest {};

TEST_P(RefusingAnswerTest, IsLoggedAsRefused) { ExpectFailureLoggedAs("Failed to send form server resp: "); }

INSTANTIATE_TEST_SUITE_P(Answers, RefusingAnswerTest,
                         testing::Values(R"({"success":"true"})", R"({"success":1})", R"({"success":false})",
                                         R"({"success":null})", R"({"success":"%s%n"})",
                                         R"({"success":[true]})", R"({"success":{"success":true}})",
                                         R"({"Success":true})", R"({"result":{"success":true}})", "{}", "[]",
                                         R"([{"success":true}])", "true", "1", R"("success")", "null"));

class UnparsableAnswerTest : public AnswerTest {};

TEST_P(UnparsableAnswerTest, IsLoggedAsAWhole) { ExpectFailureLoggedAs("Failed to parse server resp: "); }

INSTANTIATE_TEST_SUITE_P(Answers, UnparsableAnswerTest,
                         testing::Values("", " ", "OK", "<html><body>success</body></html>", R"({"success":)",
                                         R"({"success":true)", "{success:true}", "%s%n%d"));

TEST_F(RequestFrameTest, AnswerNestedBeyondTheParsersLimitIsUnparsable) {
  const std::string body =
      R"({"success":true,"deep":)" + std::string(1500, '[') + std::string(1500, ']') + "}";
  AnswerWith(body);

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to parse server resp: " + body)));
}

TEST_F(RequestFrameTest, UnparsableAnswerIsLoggedWhole) {
  const std::string body(3000, 'z');
  AnswerWith(body);

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to parse server resp: " + body)));
}

/// The parameter is the answer's size.
class LongRefusalTest : public TransmitterTest, public testing::WithParamInterface<std::size_t> {
 protected:
  LongRefusalTest() {
    // Every byte differs from its neighbours, so that a cut at the wrong end shows too.
    body_ = R"({"success":false,"pad":")";
    while (body_.size() < GetParam() - 2) {
      body_ += static_cast<char>('a' + body_.size() % 26);
    }
    body_ += "\"}";
    AnswerWith(body_);
  }

  std::string body_;
};

TEST_P(LongRefusalTest, IsLoggedInSyslogUpTo256Characters) {
  ASSERT_THAT(body_, SizeIs(GetParam()));

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to send form server resp: " + body_.substr(0, 256))));
}

INSTANTIATE_TEST_SUITE_P(Sizes, LongRefusalTest, testing::Values(255, 256, 257, 2000));

/// Lets the logger throw at the first `count` lines.
void LoggerThrows(test_support::ScriptedPlatform& platform, int count) {
  platform.log = [count](int, const std::string&) mutable {
    if (count-- > 0) {
      throw std::runtime_error("logger trouble");
    }
  };
}

TEST_F(RequestFrameTest, AnExceptionOfTheLoggerInTheRequestFailsItLikeAnyOther) {
  for (const bool logger : {false, true}) {
    platform_.UseLogger(logger);
    AnswerWith("{}");
    LoggerThrows(platform_, 1);
    EXPECT_FALSE(Request());
    EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to send form server resp: {}"),
                                          Line("Request failed, what=[logger trouble]")));
    EXPECT_THAT(LastCalls(2), ElementsAre("curl_slist_free_all()", "curl_easy_cleanup()"));
  }
}

TEST_F(RequestFrameTest, AnExceptionOfTheLoggerEndsTheAttempts) {
  platform_.curl_perform = [](CurlHandle&, std::string& response) { Refused(response); };
  LoggerThrows(platform_, 1);

  EXPECT_FALSE(Request());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("curl_easy_perform() failed: CURLcode=[7], what=[refused]"),
                                        Line("Request failed, what=[logger trouble]")));
  EXPECT_EQ(CountOf("CurlPerform"), 1U);
  EXPECT_EQ(CountOf("sleep"), 0U);
}

TEST_F(RequestFrameTest, AnExceptionOfTheLoggerThatReportsAnExceptionPassesOut) {
  platform_.curl_slist_append = [](const std::string&) { throw PlainException(); };
  LoggerThrows(platform_, 1);

  EXPECT_THROW(Request(), std::runtime_error);
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, what=[plain trouble]")));
  EXPECT_THAT(LastCalls(1), ElementsAre("curl_easy_cleanup()"));
}

TEST_F(RequestFrameTest, AnExceptionOfAnotherKindPassesOutAndEverythingIsReleased) {
  platform_.curl_perform = [](CurlHandle&, std::string&) { throw 42; };

  EXPECT_THROW(Upload(Apps({"a"})), int);
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(CountOf("sleep"), 0U);
  EXPECT_THAT(LastCalls(4), ElementsAre("CurlPerform()", "curl_slist_free_all()", "curl_easy_cleanup()",
                                        "curl_formfree()"));
}

TEST_F(RequestFrameTest, AnExceptionOfAnotherKindPassesOutOfTheCallables) {
  platform_.curl_http_post_add = [](const std::string&) { throw 42; };
  platform_.curl_slist_append = [](const std::string&) { throw 42; };

  EXPECT_THROW(Upload(), int);
  EXPECT_THAT(LastCalls(1), ElementsAre("curl_easy_cleanup()"));
  EXPECT_THROW(Report(), int);
  EXPECT_THAT(LastCalls(1), ElementsAre("curl_easy_cleanup()"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

}  // namespace
}  // namespace TarvoOrvane::Transmitter
