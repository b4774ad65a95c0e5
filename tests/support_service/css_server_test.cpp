#include "css_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

class CssServerTest : public ServiceTest {
 protected:
  static std::string Auth(const std::string& token) { return "AUTH-TOKEN: " + token; }

  fs::path MakeFile(const std::string& content) {
    fs::path path = temp_.path() / "debug.dat";
    WriteFile(path, content);
    return path;
  }

  HttpAnswer Upload(const std::string& token, const fs::path& file,
                    const std::vector<std::string>& apps = {"a"}) {
    return PostForm(UploadUrl(), {Auth(token)}, DeviceForm(file, "SN1", apps));
  }

  HttpAnswer Report(const std::string& token, const std::string& body) {
    return Request("POST", ReportUrl(), {"Content-Type: application/json", Auth(token)}, body);
  }

  /// A form with everything a device sends, up to what is cut off at its end.
  static std::string FormBody(const std::string& file_content, const std::string& end) {
    return "--XX\r\nContent-Disposition: form-data; name=\"serial_number\"\r\n\r\nSN1\r\n"
           "--XX\r\nContent-Disposition: form-data; name=\"debug_file\"; filename=\"debug.dat\"\r\n"
           "Content-Type: application/octet-stream\r\n\r\n" +
           file_content + end;
  }

  static std::string FormHead(const std::string& token, std::size_t length) {
    return "POST /orvane/ps_files HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAUTH-TOKEN: " + token +
           "\r\nContent-Type: multipart/form-data; boundary=XX\r\nContent-Length: " + std::to_string(length) +
           "\r\n\r\n";
  }

  static std::string BodyOf(const std::string& response) {
    return response.substr(std::min(response.size(), response.find("\r\n\r\n") + 4));
  }

  void ExpectRefusal(const HttpAnswer& answer, long status) {
    EXPECT_EQ(answer.curl_code, 0);
    EXPECT_EQ(answer.status, status) << answer.body;
    const Json::Value value = ParseJson(answer.body);
    ASSERT_TRUE(value.isObject()) << answer.body;
    EXPECT_EQ(value["success"], false);
    EXPECT_FALSE(value["error"].asString().empty());
    EXPECT_THAT(answer.headers, HasSubstr("Content-Type: application/json"));
  }

  void ExpectNoArchive(const std::string& ticket_id) {
    EXPECT_FALSE(fs::exists(Received(ticket_id) / "debug.dat"));
    EXPECT_TRUE(Eventually([&] { return IncomingFiles() == 0; }));
    EXPECT_NE(StateOf(ticket_id), TicketState::kUploaded);
  }

  Json::Value Record(const std::string& ticket_id) {
    return ParseJson(ReadFile(Received(ticket_id) / "ticket.json"));
  }
};

TEST_F(CssServerTest, UploadIsKeptByteForByte) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string content = AwkwardData(std::size_t{3} * 1024 * 1024 + 17);
  const HttpAnswer answer = Upload(ticket.token, MakeFile(content), {"web", "db", "web"});
  EXPECT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(ParseJson(answer.body), ParseJson(R"({"success":true})"));
  EXPECT_TRUE(ReadFile(Received(ticket.id) / "debug.dat") == content);
  const Json::Value record = Record(ticket.id);
  EXPECT_EQ(record["sha256"], Sha256(content));
  EXPECT_EQ(record["size"].asUInt64(), content.size());
  EXPECT_EQ(record["serial_number"], "SN1");
  EXPECT_EQ(record["device"], "SN1");
  EXPECT_EQ(record["uploaded_apps"], ParseJson(R"(["web","db","web"])"));
  EXPECT_EQ(StateOf(ticket.id), TicketState::kUploaded);
  EXPECT_EQ(IncomingFiles(), 0U);
  EXPECT_TRUE(events_.Has("upload started"));
  EXPECT_TRUE(events_.Has("upload finished: " + std::to_string(content.size()) + " bytes, sha256 " +
                          Sha256(content) + ", apps [\"web\", \"db\", \"web\"]"));
}

TEST_F(CssServerTest, AwkwardSizesAreKeptByteForByte) {
  Start();
  const auto ticket = AcceptTicket();
  for (const std::size_t size : {0U, 1U, 2U, 4095U, 65536U, 131072U, 262143U, 262144U, 300001U}) {
    const std::string content = AwkwardData(size);
    const HttpAnswer answer = Upload(ticket.token, MakeFile(content));
    EXPECT_EQ(answer.status, 200) << size << " " << answer.body;
    EXPECT_TRUE(ReadFile(Received(ticket.id) / "debug.dat") == content) << size;
    EXPECT_EQ(Record(ticket.id)["sha256"], Sha256(content)) << size;
  }
}

TEST_F(CssServerTest, AppsPartsAreRecordedInOrderWithTheirIndexes) {
  Start();
  const auto ticket = AcceptTicket();
  std::vector<std::string> apps;
  Json::Value expected(Json::arrayValue);
  for (int i = 0; i < 12; ++i) {
    apps.push_back("app" + std::to_string(i * 7 % 12));
    expected.append(apps.back());
  }
  EXPECT_EQ(Upload(ticket.token, MakeFile("x"), apps).status, 200);
  EXPECT_EQ(Record(ticket.id)["uploaded_apps"], expected);
  EXPECT_EQ(Upload(ticket.token, MakeFile("x"), {}).status, 200);
  EXPECT_EQ(Record(ticket.id)["uploaded_apps"], Json::Value(Json::arrayValue));
}

TEST_F(CssServerTest, AppsPartsOutOfOrderAreRefused) {
  Start();
  const auto ticket = AcceptTicket();
  auto form = DeviceForm(MakeFile("x"), "SN1", {"a", "b"});
  std::swap(form[2], form[3]);
  ExpectRefusal(PostForm(UploadUrl(), {Auth(ticket.token)}, form), 400);
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, EmptySerialNumberIsAccepted) {
  Start();
  const auto ticket = AcceptTicket();
  const HttpAnswer answer = PostForm(UploadUrl(), {Auth(ticket.token)}, DeviceForm(MakeFile("x"), "", {""}));
  EXPECT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(Record(ticket.id)["serial_number"], "");
  EXPECT_EQ(Record(ticket.id)["uploaded_apps"], ParseJson(R"([""])"));
}

TEST_F(CssServerTest, WrongTokenIsRefusedBeforeTheBodyIsSent) {
  Start();
  const auto ticket = AcceptTicket();
  const fs::path file = MakeFile(std::string(std::size_t{2} * 1024 * 1024, 'x'));
  for (const std::string& header : {std::string("X-None: 1"), Auth(std::string(64, '0')), Auth(""),
                                    Auth(ticket.token + "0"), Auth(ticket.token.substr(1))}) {
    // More than 1 MiB: libcurl asks with "Expect: 100-continue" first.
    const HttpAnswer answer = PostForm(UploadUrl(), {header}, DeviceForm(file, "SN1", {}));
    ExpectRefusal(answer, 401);
    EXPECT_EQ(answer.sent, 0) << header;
  }
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, WrongTokenWithABodySentAtOnceGetsItsAnswer) {
  Start();
  const fs::path file = MakeFile(std::string(std::size_t{1024} * 1024 - 2000, 'x'));
  for (int i = 0; i < 20; ++i) {
    ExpectRefusal(PostForm(UploadUrl(), {Auth("wrong")}, DeviceForm(file, "SN1", {})), 401);
  }
  ExpectRefusal(Report("wrong", "{}"), 401);
}

TEST_F(CssServerTest, OfARefusedBodyTwoMebibytesAreReadAndWithMoreTheConnectionEnds) {
  Start();
  const std::string head =
      "POST /orvane/ps_files HTTP/1.1\r\nHost: test\r\nConnection: close\r\nTransfer-Encoding: "
      "chunked\r\n\r\n";
  const std::string most(std::size_t{2} << 20U, 'x');
  const auto answer_to = [&](const std::string& size, const std::string& body) {
    RawHttp http(service().css_url());
    http.Send(head + size + "\r\n" + body);
    EXPECT_TRUE(http.AwaitRead());
    http.Send("\r\n0\r\n\r\n");
    return http.ReadToEnd();
  };
  EXPECT_THAT(answer_to("200000", most), HasSubstr("HTTP/1.1 401"));
  EXPECT_EQ(answer_to("200001", most + "x"), "");
}

TEST_F(CssServerTest, TokenOfATicketThatWasNeverDeliveredIsUnknown) {
  Start();
  book().CreateTicket({"a"}, "");
  ExpectRefusal(Report("", R"({"status":"Success","serial_number":""})"), 401);
}

TEST_F(CssServerTest, EachTicketHasItsOwnArchive) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto first = AcceptTicket(device);
  const auto second = AcceptTicket(device);
  EXPECT_EQ(Upload(second.token, MakeFile("two")).status, 200);
  EXPECT_EQ(Upload(first.token, MakeFile("one")).status, 200);
  EXPECT_EQ(ReadFile(Received(first.id) / "debug.dat"), "one");
  EXPECT_EQ(ReadFile(Received(second.id) / "debug.dat"), "two");
}

TEST_F(CssServerTest, UnknownPathsAndMethodsGetJsonToo) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string url = service().css_url();
  for (const std::string path : {"/", "/orvane/ps_file", "/orvane/ps_files/", "//orvane/ps_files", "/x?y"}) {
    ExpectRefusal(Request("GET", url + path, {}, std::nullopt), 404);
    ExpectRefusal(Request("POST", url + path, {Auth(ticket.token)}, "body"), 404);
  }
  for (const std::string method : {"GET", "PUT", "DELETE", "OPTIONS", "PATCH"}) {
    const HttpAnswer answer = Request(method, UploadUrl(), {Auth(ticket.token)}, std::nullopt);
    ExpectRefusal(answer, 405);
    EXPECT_THAT(answer.headers, HasSubstr("Allow: POST"));
    ExpectRefusal(Request(method, ReportUrl(), {Auth(ticket.token)}, "body"), 405);
  }
  EXPECT_EQ(Request("HEAD", UploadUrl(), {}, std::nullopt).status, 405);
}

TEST_F(CssServerTest, BodyThatIsNoFormIsRefused) {
  Start();
  const auto ticket = AcceptTicket();
  for (const char* type : {"application/json", "multipart/form-data", "multipart/form-data; boundary=",
                           "application/x-www-form-urlencoded", "multipart/mixed; boundary=XX"}) {
    ExpectRefusal(
        Request("POST", UploadUrl(), {Auth(ticket.token), std::string("Content-Type: ") + type}, "body"),
        415);
  }
  ExpectRefusal(Request("POST", UploadUrl(),
                        {Auth(ticket.token), "Content-Type: multipart/form-data; boundary=XX"}, "body"),
                400);
  ExpectRefusal(Request("POST", UploadUrl(),
                        {Auth(ticket.token), "Content-Type: multipart/form-data; boundary=XX"}, ""),
                400);
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, FormWithoutItsRequiredPartsIsRefused) {
  Start();
  const auto ticket = AcceptTicket();
  const fs::path file = MakeFile("x");
  ExpectRefusal(PostForm(UploadUrl(), {Auth(ticket.token)}, {{"serial_number", "SN1"}}), 400);
  ExpectRefusal(PostForm(UploadUrl(), {Auth(ticket.token)}, {{"debug_file", file.string(), true}}), 400);
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, FormWithAPartTwiceIsRefused) {
  Start();
  const auto ticket = AcceptTicket();
  for (const std::size_t twice : {0U, 1U}) {
    auto form = DeviceForm(MakeFile("x"), "SN1", {});
    form.push_back(form[twice]);
    const HttpAnswer answer = PostForm(UploadUrl(), {Auth(ticket.token)}, form);
    ExpectRefusal(answer, 400);
    // Not what the parser makes of having been stopped.
    EXPECT_THAT(answer.body, HasSubstr("the form has a second \\\"" + form[twice].name));
  }
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, UnknownPartsAreIgnored) {
  Start();
  const auto ticket = AcceptTicket();
  auto form = DeviceForm(MakeFile("x"), "SN1", {});
  form.push_back({"later_addition", std::string(200000, 'y')});
  EXPECT_EQ(PostForm(UploadUrl(), {Auth(ticket.token)}, form).status, 200);
}

TEST_F(CssServerTest, TextPartsAreBounded) {
  Start();
  const auto ticket = AcceptTicket();
  ExpectRefusal(Upload(ticket.token, MakeFile("x"), {std::string(66000, 'a')}), 413);
  ExpectRefusal(Upload(ticket.token, MakeFile("x"), std::vector<std::string>(40, std::string(2000, 'a'))),
                413);
  ExpectNoArchive(ticket.id);
  EXPECT_EQ(Upload(ticket.token, MakeFile("x"), {std::string(60000, 'a')}).status, 200);
}

TEST_F(CssServerTest, FormWithoutItsClosingBoundaryIsRefused) {
  Start();
  const auto ticket = AcceptTicket();
  for (const std::string end : {"", "\r\n", "\r\n--", "\r\n--X", "\r\n--XX", "\r\n--XX-", "\r\n--XX\r\n",
                                "--XX--", "\r\n--XY--\r\n"}) {
    const std::string body = FormBody("content", end);
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, body.size()) + body);
    const std::string response = http.ReadToEnd();
    EXPECT_THAT(response, HasSubstr("HTTP/1.1 400")) << end;
    EXPECT_EQ(ParseJson(BodyOf(response))["success"], false) << end << response;
    ExpectNoArchive(ticket.id);
  }
  for (const std::string end : {"\r\n--XX--\r\n", "\r\n--XX--"}) {
    const std::string body = FormBody("content", end);
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, body.size()) + body);
    EXPECT_EQ(ParseJson(BodyOf(http.ReadToEnd()))["success"], true) << end;
    EXPECT_EQ(ReadFile(Received(ticket.id) / "debug.dat"), "content");
  }
}

TEST_F(CssServerTest, FormCutAnywhereIsRefused) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string whole = FormBody("con\r\n--Xtent", "\r\n--XX--");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, length) + whole.substr(0, length));
    ASSERT_THAT(http.ReadToEnd(), HasSubstr("\"success\":false")) << length;
  }
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, FormThatArrivesInTwoPiecesIsKeptWhereverItIsCut) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string content = "con\r\n--Xtent";
  const std::string whole = FormBody(content, "\r\n--XX--\r\n");
  const std::size_t from = whole.find(content);
  for (std::size_t cut = from; cut < whole.size(); ++cut) {
    fs::remove_all(Received(ticket.id));
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, whole.size()) + whole.substr(0, cut));
    ASSERT_TRUE(http.AwaitRead());
    http.Send(whole.substr(cut));
    ASSERT_THAT(http.ReadToEnd(), HasSubstr("\"success\":true")) << cut;
    ASSERT_EQ(ReadFile(Received(ticket.id) / "debug.dat"), content) << cut;
  }
}

TEST_F(CssServerTest, ConnectionClosedInTheMiddleLeavesNoArchive) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string body = FormBody(std::string(500000, 'x'), "\r\n--XX--\r\n");
  {
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, body.size()) + body.substr(0, 400000));
    ASSERT_TRUE(Eventually([&] { return IncomingFiles() == 1; }));
    http.Reset();
  }
  EXPECT_TRUE(events_.WaitFor("upload refused: the connection ended before the body was complete"));
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, FailedUploadLeavesTheFormerArchive) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, MakeFile("first")).status, 200);
  const std::string body = FormBody("second", "");
  RawHttp http(service().css_url());
  http.Send(FormHead(ticket.token, body.size()) + body);
  EXPECT_THAT(http.ReadToEnd(), HasSubstr("\"success\":false"));
  EXPECT_EQ(ReadFile(Received(ticket.id) / "debug.dat"), "first");
}

TEST_F(CssServerTest, SecondUploadReplacesTheFirst) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, MakeFile("first, and longer")).status, 200);
  EXPECT_EQ(Upload(ticket.token, MakeFile("second"), {"b"}).status, 200);
  EXPECT_EQ(ReadFile(Received(ticket.id) / "debug.dat"), "second");
  EXPECT_EQ(Record(ticket.id)["sha256"], Sha256("second"));
  EXPECT_EQ(Record(ticket.id)["uploaded_apps"], ParseJson(R"(["b"])"));
  EXPECT_TRUE(events_.Has("replaces the former one"));
}

TEST_F(CssServerTest, UploadsAtTheSameTimeDoNotMix) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  std::vector<Accepted> tickets;
  std::vector<fs::path> files;
  for (int i = 0; i < 6; ++i) {
    tickets.push_back(AcceptTicket(device));
    files.push_back(temp_.path() / ("file" + std::to_string(i)));
    WriteFile(files.back(), std::string(1500000, static_cast<char>('a' + i)));
  }
  std::vector<std::thread> uploads;
  uploads.reserve(tickets.size());
  for (std::size_t i = 0; i < tickets.size(); ++i) {
    uploads.emplace_back([&, i] { EXPECT_EQ(Upload(tickets[i].token, files[i]).status, 200); });
  }
  for (std::thread& upload : uploads) upload.join();
  for (std::size_t i = 0; i < tickets.size(); ++i) {
    EXPECT_TRUE(ReadFile(Received(tickets[i].id) / "debug.dat") == ReadFile(files[i])) << i;
  }
}

TEST_F(CssServerTest, BodyThatStopsArrivingIsEnded) {
  settings_.http_idle_limit = std::chrono::seconds(1);
  Start();
  const auto ticket = AcceptTicket();
  RawHttp http(service().css_url());
  http.Send(FormHead(ticket.token, 100000) + FormBody("the beginning", ""));
  EXPECT_TRUE(events_.WaitFor("upload refused: the body stopped arriving"));
  http.ReadToEnd();
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, ShutdownInTheMiddleOfAnUploadLeavesNothing) {
  Start();
  const auto ticket = AcceptTicket();
  RawHttp http(service().css_url());
  http.Send(FormHead(ticket.token, 100000) + FormBody("the beginning", ""));
  ASSERT_TRUE(Eventually([&] { return IncomingFiles() == 1; }));
  service_.reset();
  EXPECT_EQ(IncomingFiles(), 0U);
  EXPECT_FALSE(fs::exists(Received(ticket.id)));
  EXPECT_TRUE(events_.Has("upload refused: the service shuts down"));
}

TEST_F(CssServerTest, ArchiveThatCannotBeKeptIsRefusedAndTheNextOneTaken) {
  Start();
  const auto ticket = AcceptTicket();
  fs::remove(settings_.data_folder / "incoming");
  const HttpAnswer answer = Upload(ticket.token, MakeFile(std::string(std::size_t{3} * 1024 * 1024, 'x')));
  ExpectRefusal(answer, 500);
  EXPECT_THAT(answer.body, Not(HasSubstr(temp_.path().string())));
  EXPECT_TRUE(events_.Has("upload failed: cannot make a file"));
  fs::create_directory(settings_.data_folder / "incoming");
  EXPECT_EQ(Upload(ticket.token, MakeFile("x")).status, 200);
}

TEST_F(CssServerTest, ReportEndsTheTicketAndIsWrittenBesideTheArchive) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, MakeFile("x")).status, 200);
  const HttpAnswer answer = Report(ticket.token, R"({"serial_number":"SN1","status":"Success"})");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(ParseJson(answer.body), ParseJson(R"({"success":true})"));
  EXPECT_EQ(Record(ticket.id)["status"], "Success");
  EXPECT_EQ(Record(ticket.id)["sha256"], Sha256("x"));
  EXPECT_EQ(StateOf(ticket.id), TicketState::kReported);
  EXPECT_TRUE(events_.Has("report received: \"Success\""));
}

TEST_F(CssServerTest, ReportBeforeAnyUploadIsTaken) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Report(ticket.token, R"({"status":"Failed to generate debug file","serial_number":""})").status,
            200);
  EXPECT_EQ(Record(ticket.id)["status"], "Failed to generate debug file");
  EXPECT_FALSE(fs::exists(Received(ticket.id) / "debug.dat"));
  EXPECT_EQ(StateOf(ticket.id), TicketState::kReported);
}

TEST_F(CssServerTest, BadReportsAreRefused) {
  Start();
  const auto ticket = AcceptTicket();
  for (const std::string& body :
       {std::string(), std::string("{"), std::string("nonsense"), std::string("[]"),
        std::string("\"Success\""), std::string(R"({"status":"Success"})"),
        std::string(R"({"serial_number":"SN1"})"), std::string(R"({"status":1,"serial_number":"SN1"})"),
        std::string(R"({"status":"Success","serial_number":null})"),
        std::string(R"({"status":"Success","serial_number":"SN1"} x)"),
        std::string(R"({"status":"Success","serial_number":"SN1",})"), std::string(5000, '[')}) {
    ExpectRefusal(Report(ticket.token, body), 400);
  }
  EXPECT_EQ(StateOf(ticket.id), TicketState::kAccepted);
  EXPECT_FALSE(fs::exists(Received(ticket.id)));
}

TEST_F(CssServerTest, ReportsAreBounded) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string frame = R"({"status":"","serial_number":""})";
  const auto body_of = [&](std::size_t size) {
    return R"({"status":")" + std::string(size - frame.size(), 's') + R"(","serial_number":""})";
  };
  for (const std::size_t size : {65537U, 1000000U, 3000000U}) {
    ExpectRefusal(Report(ticket.token, body_of(size)), 413);
    if (size > 2000000) continue;
    ExpectRefusal(
        Request("POST", ReportUrl(),
                {Auth(ticket.token), "Transfer-Encoding: chunked", "Content-Type: application/json"},
                body_of(size)),
        413);
  }
  EXPECT_EQ(Report(ticket.token, body_of(65536)).status, 200);
}

TEST_F(CssServerTest, HostileTextIsMadeHarmlessInEventLines) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Report(ticket.token, R"({"status":"Suc\ncess\u001b[2J","serial_number":"\u0000"})").status, 200);
  EXPECT_TRUE(events_.Has(R"(report received: "Suc\x0acess\x1b[2J", serial "\x00")"));
}

TEST_F(CssServerTest, TokenAppearsInNoFileAndNoEventLine) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, MakeFile("x")).status, 200);
  EXPECT_EQ(Report(ticket.token, R"({"status":"Success","serial_number":"SN1"})").status, 200);
  EXPECT_THAT(events_.text(), Not(HasSubstr(ticket.token)));
  std::size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(settings_.data_folder)) {
    if (!entry.is_regular_file()) continue;
    ++files;
    EXPECT_THAT(ReadFile(entry.path()), Not(HasSubstr(ticket.token))) << entry.path();
  }
  EXPECT_GE(files, 3U);
}

TEST_F(CssServerTest, PortInUseIsRefused) {
  Start();
  ServiceSettings second = settings_;
  second.data_folder = temp_.path() / "second";
  second.http_address = service().css_url().substr(7);
  EXPECT_THROW(SupportService(second, events_.sink()), std::runtime_error);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
