/// What the transmitter sends and accepts on the wire: real libcurl against a server on loopback.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "loopback_socket.h"
#include "scripted_platform.h"
#include "steerable_server.h"
#include "transmitter.h"

namespace TarvoOrvane::Transmitter {
namespace {

using test_support::Event;
using test_support::ScriptedPlatformTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Matcher;
using testing::SizeIs;
using testing::StartsWith;
using Utils::CurlFailedException;
using Utils::CurlHandle;
using Utils::Optional;

constexpr char kSuccessAnswer[] = R"({"success":true})";
constexpr char kUploadFailed[] = "Failed to upload debug.dat file";
constexpr char kReportFailed[] = "Failed to update result to server";

Matcher<const Event&> Line(const Matcher<std::string>& text) {
  return test_support::Error(text, "transmitter.cpp");
}

Matcher<const Event&> FailedAttempt(CURLcode code) {
  return Line(StartsWith("curl_easy_perform() failed: CURLcode=[" + std::to_string(code) + "], what=["));
}

std::size_t AppendChunk(const char* bytes, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(bytes, size * count);
  return size * count;
}

/// Really runs the transfer and appends the body to `response`. No proxy of the environment's takes part.
void Transfer(CurlHandle& handle, std::string& response) {
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &AppendChunk);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &response);
  curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
  const CURLcode code = curl_easy_perform(handle.get());
  if (code != CURLE_OK) {
    throw CurlFailedException(code, curl_easy_strerror(code));
  }
}

/// One part of a multipart body.
struct Part {
  std::string disposition;  ///< The value of its Content-Disposition line.
  std::string content;
};

void PrintTo(const Part& part, std::ostream* out) { *out << part.disposition << " = " << part.content; }

/// The parts of `request`'s body; one named "broken" where the framing is not as it should be.
std::vector<Part> PartsOf(const ReceivedRequest& request) {
  const std::string type = request.Header("Content-Type");
  const std::string delimiter = "--" + type.substr(type.rfind('=') + 1);
  std::vector<Part> parts;
  std::size_t begin = 0;
  while (request.body.compare(begin, delimiter.size() + 4, delimiter + "--\r\n") != 0) {
    const std::size_t head = begin + delimiter.size() + 2;
    const std::size_t head_end = request.body.find("\r\n\r\n", head);
    const std::size_t end = request.body.find("\r\n" + delimiter, head);
    if (head_end == std::string::npos || end == std::string::npos) {
      parts.push_back({"broken", request.body});
      return parts;
    }
    const std::string lines = request.body.substr(head, head_end - head);
    parts.push_back(
        {lines.substr(0, lines.find("\r\n")), request.body.substr(head_end + 4, end - head_end - 4)});
    begin = end + 2;
  }
  return parts;
}

MATCHER_P2(IsTextPart, name, content, "") {
  return arg.disposition == std::string("Content-Disposition: form-data; name=\"") + name + "\"" &&
         arg.content == content;
}

MATCHER_P2(IsFilePart, file_name, content, "") {
  return arg.disposition == std::string("Content-Disposition: form-data; name=\"debug_file\"; filename=\"") +
                                file_name + "\"" &&
         arg.content == content;
}

class TransmitterWireTest : public ScriptedPlatformTest {
 protected:
  TransmitterWireTest() { platform_.curl_perform = Transfer; }

  void UseServer(const std::string& url) {
    platform_.SetServiceConfig(R"({"debug_dat_file_transmitter":{"css_server":{"url":")" + url + R"("}}})");
  }

  /// An archive with `content` in the test's own folder.
  std::string WriteArchive(const std::string& content) {
    std::string path = platform_.folder() / "debug.dat";
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  bool Report(Result result = kSuccess) { return DebugFileTransmitter("token-1").UpdateResult(result); }
};

/// Bytes of every value, none of them text.
std::string BinaryContent(std::size_t size) {
  std::string content(size, '\0');
  for (std::size_t index = 0; index < size; ++index) {
    content[index] = static_cast<char>((index * 7 + index / 256) % 256);
  }
  return content;
}

TEST_F(TransmitterWireTest, UploadSendsThePartsInOrder) {
  SteerableServer server({HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());
  const std::string content = BinaryContent(100000);
  Json::Value apps(Json::arrayValue);
  apps.append("alpha");
  apps.append("b\xc3\xa4ta \"2\"");
  apps.append("");

  EXPECT_TRUE(DebugFileTransmitter("token-1").UploadFile(WriteArchive(content), apps));

  const std::vector<ReceivedRequest> requests = server.Requests();
  ASSERT_THAT(requests, SizeIs(1));
  EXPECT_EQ(requests[0].request_line, "POST /orvane/ps_files HTTP/1.1");
  EXPECT_THAT(requests[0].Header("Content-Type"), StartsWith("multipart/form-data; boundary="));
  EXPECT_THAT(PartsOf(requests[0]),
              ElementsAre(IsFilePart("debug.dat", content), IsTextPart("serial_number", "SN123"),
                          IsTextPart("debug_data_apps[0]", "alpha"),
                          IsTextPart("debug_data_apps[1]", "b\xc3\xa4ta \"2\""),
                          IsTextPart("debug_data_apps[2]", "")));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// libcurl sends no header line without a value.
TEST_F(TransmitterWireTest, WithoutATokenThereIsARequestWithoutACredential) {
  SteerableServer server({HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());

  EXPECT_TRUE(DebugFileTransmitter("").UpdateResult(kSuccess));

  ASSERT_THAT(server.Requests(), SizeIs(1));
  EXPECT_EQ(server.Requests()[0].request_line, "POST /orvane/ps_results HTTP/1.1");
  EXPECT_THAT(server.Requests()[0].header, testing::Each(testing::Key(testing::Not("AUTH-TOKEN"))));
  EXPECT_EQ(server.Requests()[0].body, R"({"serial_number":"SN123","status":"Success"})");
}

TEST_F(TransmitterWireTest, UploadCarriesTheCredentialAsItsOnlyOwnHeaderLine) {
  SteerableServer server({HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());

  EXPECT_TRUE(DebugFileTransmitter("to ken/+=").UploadFile(WriteArchive("x"), Json::Value(Json::arrayValue)));

  const std::vector<ReceivedRequest> requests = server.Requests();
  ASSERT_THAT(requests, SizeIs(1));
  std::vector<std::string> names;
  for (const auto& [name, value] : requests[0].header) {
    names.push_back(name);
  }
  EXPECT_THAT(names, ElementsAre("Host", "Accept", "AUTH-TOKEN", "Content-Length", "Content-Type"));
  EXPECT_EQ(requests[0].Header("AUTH-TOKEN"), "to ken/+=");
}

TEST_F(TransmitterWireTest, UploadWithoutSerialNumberHasAnEmptyPart) {
  SteerableServer server({HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());
  platform_.serial_number = [] { return Optional<std::string>(); };

  EXPECT_TRUE(DebugFileTransmitter("token-1").UploadFile(WriteArchive("x"), Json::Value(Json::arrayValue)));

  ASSERT_THAT(server.Requests(), SizeIs(1));
  EXPECT_THAT(PartsOf(server.Requests()[0]),
              ElementsAre(IsFilePart("debug.dat", "x"), IsTextPart("serial_number", "")));
}

TEST_F(TransmitterWireTest, UploadOfAnArchiveOfSeveralMebibytesArrivesWhole) {
  SteerableServer server({HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());
  const std::string content = BinaryContent(std::size_t{3} << 20);

  EXPECT_TRUE(
      DebugFileTransmitter("token-1").UploadFile(WriteArchive(content), Json::Value(Json::arrayValue)));

  ASSERT_THAT(server.Requests(), SizeIs(1));
  const std::vector<Part> parts = PartsOf(server.Requests()[0]);
  ASSERT_THAT(parts, SizeIs(2));
  EXPECT_TRUE(parts[0].content == content);  // no megabytes in the log of a failed test
}

TEST_F(TransmitterWireTest, EveryAttemptOfAnUploadSendsTheWholeForm) {
  SteerableServer server(
      {{{"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n  "}}, HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());
  const std::string content = BinaryContent(50000);

  EXPECT_TRUE(
      DebugFileTransmitter("token-1").UploadFile(WriteArchive(content), Json::Value(Json::arrayValue)));

  EXPECT_THAT(log_.lines(), ElementsAre(FailedAttempt(CURLE_PARTIAL_FILE)));
  ASSERT_THAT(server.Requests(), SizeIs(2));
  for (const ReceivedRequest& request : server.Requests()) {
    EXPECT_THAT(PartsOf(request),
                ElementsAre(IsFilePart("debug.dat", content), IsTextPart("serial_number", "SN123")));
    EXPECT_EQ(request.Header("AUTH-TOKEN"), "token-1");
  }
}

TEST_F(TransmitterWireTest, UploadOfAMissingArchiveFailsInEveryAttempt) {
  // libcurl connects before it opens the file.
  SteerableServer server({{{}}, {{}}, {{}}, {{}}, {{}}});
  UseServer(server.Url());
  const std::string path = platform_.folder() / "missing.dat";

  EXPECT_FALSE(DebugFileTransmitter("token-1").UploadFile(path, Json::Value(Json::arrayValue)));

  const auto attempt = FailedAttempt(CURLE_READ_ERROR);
  EXPECT_THAT(log_.lines(), ElementsAre(attempt, attempt, attempt, attempt, attempt,
                                        Line("Failed to parse server resp: "), Line(kUploadFailed)));
  EXPECT_THAT(server.Requests(), IsEmpty());
}

TEST_F(TransmitterWireTest, ReportSendsItsBodyAndHeaderLinesInOrder) {
  SteerableServer server({HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());

  EXPECT_TRUE(Report(kFailedToUploadDebugFile));

  const std::vector<ReceivedRequest> requests = server.Requests();
  ASSERT_THAT(requests, SizeIs(1));
  EXPECT_EQ(requests[0].request_line, "POST /orvane/ps_results HTTP/1.1");
  EXPECT_EQ(requests[0].body,
            R"({"serial_number":"SN123","status":"Failed to upload debug file to server"})");
  std::vector<std::string> names;
  for (const auto& [name, value] : requests[0].header) {
    names.push_back(name);
  }
  EXPECT_THAT(names, ElementsAre("Host", "Accept", "Content-Type", "AUTH-TOKEN", "Content-Length"));
  EXPECT_EQ(requests[0].Header("Content-Type"), "application/json");
  EXPECT_EQ(requests[0].Header("AUTH-TOKEN"), "token-1");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(TransmitterWireTest, EveryAttemptOfAReportSendsTheSameBody) {
  SteerableServer server({{{}}, {{}}, HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());

  EXPECT_TRUE(Report());

  EXPECT_THAT(log_.lines(), ElementsAre(FailedAttempt(CURLE_GOT_NOTHING), FailedAttempt(CURLE_GOT_NOTHING)));
  ASSERT_THAT(server.Requests(), SizeIs(3));
  for (const ReceivedRequest& request : server.Requests()) {
    EXPECT_EQ(request.body, R"({"serial_number":"SN123","status":"Success"})");
    EXPECT_EQ(request.header, server.Requests()[0].header);
  }
}

TEST_F(TransmitterWireTest, AddressWithATrailingSlashGivesADoubleSlash) {
  SteerableServer server({HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url() + "/base/");

  EXPECT_TRUE(Report());

  ASSERT_THAT(server.Requests(), SizeIs(1));
  EXPECT_EQ(server.Requests()[0].request_line, "POST /base//orvane/ps_results HTTP/1.1");
}

TEST_F(TransmitterWireTest, ErrorStatusWithASuccessfulBodyCountsAsSuccess) {
  SteerableServer server({HttpAnswer("500 Internal Server Error", R"({"success": true})")});
  UseServer(server.Url());

  EXPECT_TRUE(Report());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(TransmitterWireTest, GoodStatusWithARefusingBodyCountsAsFailure) {
  SteerableServer server({HttpAnswer("200 OK", R"({"success": false})")});
  UseServer(server.Url());

  EXPECT_FALSE(Report());
  EXPECT_THAT(log_.lines(), ElementsAre(Line(R"(Failed to send form server resp: {"success": false})"),
                                        Line(kReportFailed)));
}

TEST_F(TransmitterWireTest, AnswerWithoutABodyIsUnparsable) {
  SteerableServer server({{{"HTTP/1.1 204 No Content\r\n\r\n"}}});
  UseServer(server.Url());

  EXPECT_FALSE(Report());
  EXPECT_THAT(log_.lines(), ElementsAre(Line("Failed to parse server resp: "), Line(kReportFailed)));
}

TEST_F(TransmitterWireTest, ChunkedAnswerThatComesSlowlyIsPutTogether) {
  Treatment answer = Sends({"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "5\r\n{\"suc\r\n",
                            "6\r\ncess\":\r\n", "5\r\ntrue}\r\n", "0\r\n\r\n"});
  answer.pause_between = std::chrono::milliseconds(20);
  SteerableServer server({answer});
  UseServer(server.Url());

  EXPECT_TRUE(Report());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(TransmitterWireTest, RefusedConnectionGivesFiveLinesAndAParseFailure) {
  const UnusedAddress nobody;
  UseServer(nobody.Url());

  EXPECT_FALSE(Report());

  const auto attempt = FailedAttempt(CURLE_COULDNT_CONNECT);
  EXPECT_THAT(log_.lines(), ElementsAre(attempt, attempt, attempt, attempt, attempt,
                                        Line("Failed to parse server resp: "), Line(kReportFailed)));
  EXPECT_THAT(log_.CallsOf("sleep"), ElementsAre("sleep(1)", "sleep(1)", "sleep(1)", "sleep(1)", "sleep(1)"));
}

TEST_F(TransmitterWireTest, AnAnswerBrokenInTheMiddleStaysInFrontOfTheNext) {
  SteerableServer server({{{"HTTP/1.1 200 OK\r\nContent-Length: 16\r\n\r\n{\"success\""}},
                          HttpAnswer("200 OK", kSuccessAnswer)});
  UseServer(server.Url());

  EXPECT_FALSE(Report());

  EXPECT_THAT(log_.lines(), ElementsAre(FailedAttempt(CURLE_PARTIAL_FILE),
                                        Line(R"(Failed to parse server resp: {"success"{"success":true})"),
                                        Line(kReportFailed)));
  EXPECT_THAT(server.Requests(), SizeIs(2));
}

}  // namespace
}  // namespace TarvoOrvane::Transmitter
