#include <string>
#include <vector>

#include "transmitter_fixture.h"

namespace TarvoOrvane::Transmitter {
namespace {

using testing::SizeIs;
using Utils::CurlFormFailedException;
using Utils::CurlHandle;
using Utils::Optional;

class UploadFileTest : public TransmitterTest {};

TEST_F(UploadFileTest, UploadMakesItsCallsInOrder) {
  EXPECT_TRUE(Upload(Apps({"alpha", "beta", "gamma"})));
  EXPECT_THAT(
      log_.events(),
      ElementsAre(Call("curl_easy_init()"),
                  Call("CurlHttpPostAdd(debug_file, CURLFORM_FILE, /volume/debug.dat)"),
                  Call(TextPart("serial_number", "SN123")), Call(TextPart("debug_data_apps[0]", "alpha")),
                  Call(TextPart("debug_data_apps[1]", "beta")), Call(TextPart("debug_data_apps[2]", "gamma")),
                  Call("curl_easy_setopt(HTTPPOST, pointer)"), Call("CurlSlistAppend(AUTH-TOKEN: token-1)"),
                  Call("curl_easy_setopt(HTTPHEADER, pointer)"), Call(kConfigLookup),
                  Call("curl_easy_setopt(URL, http://css.example/orvane/ps_files)"),
                  Call("curl_easy_setopt(CONNECTTIMEOUT, 120)"), Call("curl_easy_setopt(TIMEOUT, 1800)"),
                  Call("CurlSetupWriteToString()"), Call("CurlPerform()"), Call("curl_slist_free_all()"),
                  Call("curl_easy_cleanup()"), Call("curl_formfree()")));
}

TEST_F(UploadFileTest, UploadWithAnEmptyPathFailsAtOnce) {
  EXPECT_FALSE(MakeTransmitter().UploadFile("", Apps({"a"})));
  EXPECT_THAT(log_.events(), ElementsAre(Line("File path is empty")));
}

TEST_F(UploadFileTest, UploadWithoutAppsHasTheTwoFirstPartsOnly) {
  EXPECT_TRUE(Upload(Apps({})));
  EXPECT_THAT(log_.CallsOf("CurlHttpPostAdd"),
              ElementsAre("CurlHttpPostAdd(debug_file, CURLFORM_FILE, /volume/debug.dat)",
                          TextPart("serial_number", "SN123")));
  EXPECT_THAT(log_.calls(), Contains("curl_easy_setopt(HTTPPOST, pointer)"));
}

TEST_F(UploadFileTest, UploadWithoutSerialNumberHasAnEmptyPart) {
  platform_.serial_number = [] { return Optional<std::string>(); };

  EXPECT_TRUE(Upload());
  EXPECT_THAT(log_.calls(), Contains(TextPart("serial_number", "")));
}

TEST_F(UploadFileTest, IndexesOfTenAndMoreHaveAllTheirDigits) {
  std::vector<std::string> names(101, "x");

  EXPECT_TRUE(Upload(Apps(names)));
  const std::vector<std::string> parts = log_.CallsOf("CurlHttpPostAdd");
  ASSERT_THAT(parts, SizeIs(103));
  EXPECT_EQ(parts[2 + 9], TextPart("debug_data_apps[9]", "x"));
  EXPECT_EQ(parts[2 + 10], TextPart("debug_data_apps[10]", "x"));
  EXPECT_EQ(parts[2 + 100], TextPart("debug_data_apps[100]", "x"));
}

TEST_F(UploadFileTest, AppsThatAreNoStringsAreSentAsTheirText) {
  EXPECT_TRUE(Upload(Parsed(R"([7, -1, 1.5, true, false, null, ""])")));
  EXPECT_THAT(log_.CallsOf("CurlHttpPostAdd"),
              ElementsAre(StartsWith("CurlHttpPostAdd(debug_file, "), TextPart("serial_number", "SN123"),
                          TextPart("debug_data_apps[0]", "7"), TextPart("debug_data_apps[1]", "-1"),
                          TextPart("debug_data_apps[2]", "1.5"), TextPart("debug_data_apps[3]", "true"),
                          TextPart("debug_data_apps[4]", "false"), TextPart("debug_data_apps[5]", ""),
                          TextPart("debug_data_apps[6]", "")));
}

TEST_F(UploadFileTest, UploadWithNullForAppsHasTheTwoFirstPartsOnly) {
  EXPECT_TRUE(Upload(Json::Value()));
  EXPECT_EQ(CountOf("CurlHttpPostAdd"), 2U);
}

TEST_F(UploadFileTest, UploadWithAnObjectForAppsFails) {
  EXPECT_FALSE(Upload(Parsed(R"({"a":"b"})")));
  EXPECT_THAT(log_.lines(), ElementsAre(Line(StartsWith("Request failed, what=[in Json::Value::operator[]")),
                                        Line("Failed to set opt"), Line(kUploadFailed)));
  EXPECT_EQ(CountOf("curl_easy_setopt"), 0U);
}

/// The parameter stands second in an "apps" array; jsoncpp can't turn it into a string.
class AppWithoutTextTest : public TransmitterTest, public testing::WithParamInterface<const char*> {};

TEST_P(AppWithoutTextTest, FailsTheUploadBeforeAnyConnection) {
  EXPECT_FALSE(Upload(Parsed(std::string(R"(["first", )") + GetParam() + "]")));
  EXPECT_THAT(
      log_.events(),
      ElementsAre(Call("curl_easy_init()"), Call(StartsWith("CurlHttpPostAdd(debug_file, ")),
                  Call(TextPart("serial_number", "SN123")), Call(TextPart("debug_data_apps[0]", "first")),
                  Line("Request failed, what=[Type is not convertible to string]"), Line("Failed to set opt"),
                  Call("curl_easy_cleanup()"), Line(kUploadFailed), Call("curl_formfree()")));
}

INSTANTIATE_TEST_SUITE_P(Elements, AppWithoutTextTest, testing::Values("{}", R"({"name":"x"})", "[]"));

/// The parameter is the name of the part that can't be added.
class FailedPartTest : public TransmitterTest, public testing::WithParamInterface<const char*> {};

TEST_P(FailedPartTest, FailsTheUploadBeforeAnyConnection) {
  platform_.curl_http_post_add = [](const std::string& name) {
    if (name == GetParam()) {
      throw CurlFormFailedException(CURL_FORMADD_INCOMPLETE, "cannot add " + name);
    }
  };

  EXPECT_FALSE(Upload(Apps({"a", "b"})));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(Line(std::string("Request failed, CURLFORMcode=[5], what=[cannot add ") + GetParam() + "]"),
                  Line("Failed to set opt"), Line(kUploadFailed)));
  EXPECT_THAT(log_.CallsOf("CurlHttpPostAdd").back(),
              StartsWith(std::string("CurlHttpPostAdd(") + GetParam()));
  EXPECT_EQ(CountOf("curl_easy_setopt"), 0U);
  EXPECT_EQ(CountOf("curl_easy_cleanup"), 1U);
  EXPECT_EQ(CountOf("curl_formfree"), CountOf("CurlHttpPostAdd") > 1 ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Parts, FailedPartTest,
                         testing::Values("debug_file", "serial_number", "debug_data_apps[0]",
                                         "debug_data_apps[1]"));

TEST_F(UploadFileTest, PartThatFailsForAnotherReasonFailsTheUpload) {
  platform_.curl_http_post_add = [](const std::string&) { throw PlainException(); };

  EXPECT_FALSE(Upload());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Request failed, what=[plain trouble]"),
                                        Line("Failed to set opt"), Line(kUploadFailed)));
}

TEST_F(UploadFileTest, FormThatCannotBeSetOnTheHandleFailsTheUpload) {
  FailOption("HTTPPOST", CURLE_UNKNOWN_OPTION);

  EXPECT_FALSE(Upload());
  EXPECT_THAT(
      log_.events(),
      ElementsAre(Call("curl_easy_init()"), Call(StartsWith("CurlHttpPostAdd(")),
                  Call(StartsWith("CurlHttpPostAdd(")), Call("curl_easy_setopt(HTTPPOST, pointer)"),
                  Line("Request failed, what=[CurlSetOpt: CURLOPT_HTTPPOST]"), Line("Failed to set opt"),
                  Call("curl_easy_cleanup()"), Line(kUploadFailed), Call("curl_formfree()")));
}

TEST_F(UploadFileTest, UploadThatTheServerRefusesLogsTheAnswerThenItsOwnLine) {
  AnswerWith(R"({"success":false})");

  EXPECT_FALSE(Upload());
  const std::vector<Event> events = log_.events();
  ASSERT_GE(events.size(), 5U);
  EXPECT_THAT(std::vector<Event>(events.end() - 5, events.end()),
              ElementsAre(Line(R"(Failed to send form server resp: {"success":false})"),
                          Call("curl_slist_free_all()"), Call("curl_easy_cleanup()"), Line(kUploadFailed),
                          Call("curl_formfree()")));
}

TEST_F(UploadFileTest, UploadToAnUnreachableServerLogsItsLineLast) {
  platform_.curl_perform = [](CurlHandle&, std::string& response) { Refused(response); };

  EXPECT_FALSE(Upload());
  const auto attempt = Line("curl_easy_perform() failed: CURLcode=[7], what=[refused]");
  EXPECT_THAT(log_.lines(), ElementsAre(attempt, attempt, attempt, attempt, attempt,
                                        Line("Failed to parse server resp: "), Line(kUploadFailed)));
}

TEST_F(UploadFileTest, UploadHoldsItsOwnCopiesOfPathAndApps) {
  std::string path = kArchive;
  Json::Value apps = Apps({"alpha", "beta"});
  CURL* const own = curl_easy_init();
  platform_.curl_easy_init = [&] {
    path = "/changed";
    apps = Apps({"changed"});
    return own;
  };

  EXPECT_TRUE(MakeTransmitter().UploadFile(path, apps));
  EXPECT_THAT(log_.CallsOf("CurlHttpPostAdd"),
              ElementsAre("CurlHttpPostAdd(debug_file, CURLFORM_FILE, /volume/debug.dat)",
                          TextPart("serial_number", "SN123"), TextPart("debug_data_apps[0]", "alpha"),
                          TextPart("debug_data_apps[1]", "beta")));
}

}  // namespace
}  // namespace TarvoOrvane::Transmitter
