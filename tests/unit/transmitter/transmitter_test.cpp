// Construction, the server's address, and the lines as such.

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "transmitter_fixture.h"

namespace TarvoOrvane::Transmitter {
namespace {

using testing::SizeIs;
using Utils::CurlFormFailedException;
using Utils::Optional;

TEST_F(TransmitterTest, ConstructionFetchesTheSerialNumberAndCopiesTheToken) {
  std::string token = "credential";
  platform_.serial_number = [] { return Optional<std::string>(std::string("2140ABC")); };

  const DebugFileTransmitter transmitter(token);
  token = "changed!!!";

  EXPECT_EQ(Peer::Token(transmitter), "credential");
  EXPECT_EQ(Peer::SerialNumber(transmitter), "2140ABC");
  EXPECT_THAT(log_.calls(), ElementsAre("GetSerialNumber()"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(TransmitterTest, ConstructionWithoutSerialNumberLogsItAndGoesOn) {
  platform_.serial_number = [] { return Optional<std::string>(); };

  const DebugFileTransmitter transmitter("credential");

  EXPECT_EQ(Peer::Token(transmitter), "credential");
  EXPECT_EQ(Peer::SerialNumber(transmitter), "");
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to get serial number")));
}

TEST_F(TransmitterTest, AnEmptySerialNumberIsASerialNumber) {
  platform_.serial_number = [] { return Optional<std::string>(std::string()); };

  const DebugFileTransmitter transmitter("credential");

  EXPECT_EQ(Peer::SerialNumber(transmitter), "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(TransmitterTest, AddressIsReturnedExactlyAsStored) {
  platform_.SetServiceConfig(ConfigWithUrl(R"(  HTTP://css.example:8443/a//\u00e4/  )"));

  EXPECT_EQ(CssServerUrl(), "  HTTP://css.example:8443/a//\xc3\xa4/  ");
  EXPECT_THAT(log_.events(), ElementsAre(Call(kConfigLookup)));
}

TEST_F(TransmitterTest, UnknownMembersOfTheConfigurationAreIgnored) {
  platform_.SetServiceConfig(R"({"a":1,"debug_dat_file_transmitter":{"grpc_server":7,"z":[],
      "css_server":{"url":"http://css.example","port":"x"}}})");

  EXPECT_EQ(CssServerUrl(), "http://css.example");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(TransmitterTest, EmptyAddressIsReturnedWithoutALine) {
  platform_.SetServiceConfig(ConfigWithUrl(""));

  EXPECT_EQ(CssServerUrl(), "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(TransmitterTest, EachLookupReadsTheFileAgain) {
  DebugFileTransmitter transmitter = MakeTransmitter();
  EXPECT_EQ(Peer::GetCssServerUrl(transmitter), "http://css.example");

  platform_.SetServiceConfig(ConfigWithUrl("http://other.example"));
  EXPECT_EQ(Peer::GetCssServerUrl(transmitter), "http://other.example");

  std::filesystem::remove(platform_.service_config_path());
  EXPECT_EQ(Peer::GetCssServerUrl(transmitter), "");
}

class UnreadableConfigTest : public TransmitterTest, public testing::WithParamInterface<const char*> {};

TEST_P(UnreadableConfigTest, IsLoggedWithTheFilesPath) {
  platform_.SetServiceConfig(GetParam());

  EXPECT_EQ(CssServerUrl(), "");
  EXPECT_THAT(log_.lines(),
              ElementsAre(Line("Failed to read conf from: [/usr/tarvo/etc/tarvomibserver.conf]")));
}

INSTANTIATE_TEST_SUITE_P(Documents, UnreadableConfigTest,
                         testing::Values("", "  \n", "not JSON", R"({"debug_dat_file_transmitter":)"));

TEST_F(TransmitterTest, MissingConfigurationIsLoggedWithItsPath) {
  std::filesystem::remove(platform_.service_config_path());

  EXPECT_EQ(CssServerUrl(), "");
  EXPECT_THAT(log_.lines(),
              ElementsAre(Line("Failed to read conf from: [/usr/tarvo/etc/tarvomibserver.conf]")));
}

TEST_F(TransmitterTest, AFolderInPlaceOfTheConfigurationIsUnreadable) {
  std::filesystem::remove(platform_.service_config_path());
  std::filesystem::create_directory(platform_.service_config_path());

  EXPECT_EQ(CssServerUrl(), "");
  EXPECT_THAT(log_.lines(),
              ElementsAre(Line("Failed to read conf from: [/usr/tarvo/etc/tarvomibserver.conf]")));
}

TEST_F(TransmitterTest, ConfigurationNestedBeyondTheParsersLimitIsUnreadable) {
  platform_.SetServiceConfig(std::string(1500, '[') + std::string(1500, ']'));

  EXPECT_EQ(CssServerUrl(), "");
  EXPECT_THAT(log_.lines(),
              ElementsAre(Line("Failed to read conf from: [/usr/tarvo/etc/tarvomibserver.conf]")));
}

class InvalidCssConfigTest : public TransmitterTest, public testing::WithParamInterface<const char*> {};

TEST_P(InvalidCssConfigTest, IsLoggedAsAWholeUnchangedByTheLookup) {
  platform_.SetServiceConfig(GetParam());

  EXPECT_EQ(CssServerUrl(), "");
  EXPECT_THAT(log_.lines(), ElementsAre(Line(std::string("Failed to validate data: [") + GetParam() + "]")));
}

INSTANTIATE_TEST_SUITE_P(
    Documents, InvalidCssConfigTest,
    testing::Values("[]", "7", R"({"%s%n":1})", "\"text\"", "null", "true", "{}",
                    R"({"css_server":{"url":"u"}})", R"({"debug_dat_file_transmitter":null})",
                    R"({"debug_dat_file_transmitter":"text"})",
                    R"({"debug_dat_file_transmitter":[{"css_server":{"url":"u"}}]})",
                    R"({"debug_dat_file_transmitter":{}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":{"url":"u"}}})",
                    R"({"debug_dat_file_transmitter":{"css_server":null}})",
                    R"({"debug_dat_file_transmitter":{"css_server":"http://css.example"}})",
                    R"({"debug_dat_file_transmitter":{"css_server":["http://css.example"]}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{}}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{"uri":"u"}}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{"url":7}}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{"url":null}}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{"url":true}}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{"url":["u"]}}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{"url":{}}}})"));

TEST_F(TransmitterTest, InvalidConfigurationIsLoggedWhole) {
  const std::string document = "{\"pad\":\"" + std::string(500, 'x') + "\"}";
  platform_.SetServiceConfig(document);
  DebugFileTransmitter transmitter = MakeTransmitter();

  EXPECT_EQ(Peer::GetCssServerUrl(transmitter), "");
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to validate data: [" + document + "]")));
}

class TransmitterLinesTest : public TransmitterTest {
 protected:
  /// Meets every failure once; leaves all their lines in the log.
  void MeetEveryFailure() {
    platform_.serial_number = [] { return Optional<std::string>(); };
    DebugFileTransmitter transmitter("token-1");
    EXPECT_FALSE(transmitter.UploadFile("", Apps({})));

    platform_.curl_http_post_add = [](const std::string&) {
      throw CurlFormFailedException(CURL_FORMADD_MEMORY, "form");
    };
    EXPECT_FALSE(transmitter.UploadFile(kArchive, Apps({})));
    platform_.curl_http_post_add = nullptr;
    EXPECT_FALSE(transmitter.UploadFile(kArchive, Parsed("[{}]")));

    for (const char* option : {"POSTFIELDS", "URL"}) {
      FailOption(option, CURLE_OUT_OF_MEMORY);
      EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
    }
    platform_.curl_easy_setopt = nullptr;
    for (const char* failing : {"Content-Type", "AUTH-TOKEN"}) {
      platform_.curl_slist_append = [failing](const std::string& line) {
        if (line.rfind(failing, 0) == 0) {
          throw PlainException();
        }
      };
      EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
    }
    platform_.curl_slist_append = nullptr;

    Attempts({Refused, [](std::string&) { throw PlainException(); },
              [](std::string& response) { response = "[]"; }, [](std::string& response) { response = "?"; }});
    EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
    EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
    platform_.SetServiceConfig("{}");
    EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
    platform_.SetServiceConfig("");
    EXPECT_FALSE(transmitter.UpdateResult(kSuccess));
  }
};

TEST_F(TransmitterLinesTest, GoToSyslogUnderTheirOwnFormatsAtErrorLevel) {
  MeetEveryFailure();

  std::set<std::string> formats;
  for (const Event& line : log_.lines()) {
    EXPECT_FALSE(line.via_logger);
    EXPECT_EQ(line.level, LOG_ERR);
    formats.insert(line.format);
  }
  EXPECT_THAT(formats, testing::UnorderedElementsAre(
                           "%s:%d Failed to get serial number", "%s:%d File path is empty",
                           "%s:%d Request failed, CURLFORMcode=[%d], what=[%s]",
                           "%s:%d Request failed, CURLcode=[%d], what=[%s]",
                           "%s:%d Request failed, what=[%s]", "%s:%d Failed to set opt",
                           "%s:%d Failed to upload debug.dat file", "%s:%d Failed to update result to server",
                           "%s:%d curl_easy_perform() failed: CURLcode=[%d], what=[%s]",
                           "%s:%d Failed to send form server resp: %s",
                           "%s:%d Failed to parse server resp: %s", "%s:%d Failed to validate data: [%s]",
                           "%s:%d Failed to read conf from: [%s]", "%s:%d Failed to get css server url"));
}

TEST_F(TransmitterLinesTest, GoToTheLoggerWithTheSameTexts) {
  MeetEveryFailure();
  const std::vector<Event> in_syslog = log_.lines();
  log_.Clear();
  platform_.SetServiceConfig(ConfigWithUrl("http://css.example"));
  platform_.UseLogger(true);

  MeetEveryFailure();

  const std::vector<Event> lines = log_.lines();
  ASSERT_EQ(lines.size(), in_syslog.size());
  for (std::size_t index = 0; index < lines.size(); ++index) {
    EXPECT_TRUE(lines[index].via_logger);
    EXPECT_EQ(lines[index].level, LOG_ERR);
    EXPECT_EQ(lines[index].text, in_syslog[index].text);
  }
}

TEST_F(TransmitterLinesTest, BearTheNumberOfTheStatementThatMetTheFailure) {
  MeetEveryFailure();

  std::map<std::string, std::set<std::string>> sites;
  for (const Event& line : log_.lines()) {
    sites[line.format].insert(line.text.substr(0, line.text.find(' ')));
  }
  EXPECT_THAT(sites["%s:%d Request failed, what=[%s]"], SizeIs(4)) << "attempt, frame, upload and report";
  EXPECT_THAT(sites["%s:%d Request failed, CURLcode=[%d], what=[%s]"], SizeIs(2)) << "frame and report";
}

TEST_F(TransmitterLinesTest, NameTheirFileAndALineForEachStatement) {
  MeetEveryFailure();

  std::set<std::string> sites;
  for (const Event& line : log_.lines()) {
    EXPECT_THAT(line.text, testing::ContainsRegex("^transmitter[.]cpp:[1-9][0-9]* "));
    sites.insert(line.text.substr(0, line.text.find(' ')));
  }
  EXPECT_GE(sites.size(), 14U) << "each format has at least one statement of its own";
}

}  // namespace
}  // namespace TarvoOrvane::Transmitter
