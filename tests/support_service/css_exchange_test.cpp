#include "css_exchange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "service_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class CssServerTest : public ServiceTest {
 protected:
  static std::string Auth(const std::string& token) { return "AUTH-TOKEN: " + token; }

  fs::path MakeFile(const std::string& content) {
    fs::path path = temp_.path() / "debug.dat";
    WriteFile(path, content);
    return path;
  }

  ReceivedAnswer Upload(const std::string& token, const fs::path& file,
                        const std::vector<std::string>& apps = {"a"},
                        const std::string& serial_number = "SN1") {
    return PostForm(UploadUrl(), {Auth(token)}, DeviceForm(file, serial_number, apps));
  }

  ReceivedAnswer Report(const std::string& token, const std::string& body) {
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

  void ExpectRefusal(const ReceivedAnswer& answer, long status) {
    EXPECT_EQ(answer.curl_code, 0);
    EXPECT_EQ(answer.status, status) << answer.body;
    const Json::Value value = ParseJson(answer.body);
    ASSERT_TRUE(value.isObject()) << answer.body;
    EXPECT_EQ(value["success"], false);
    EXPECT_FALSE(value["error"].asString().empty());
    EXPECT_THAT(answer.headers, HasSubstr("Content-Type: application/json"));
  }

  void ExpectNoArchive(const std::string& ticket_id) {
    EXPECT_TRUE(Eventually([&] { return IncomingFiles() == 0 && ArchiveFiles() == 0; }));
    EXPECT_TRUE(Remembered(ticket_id).archives.empty());
    EXPECT_NE(StateOf(ticket_id), TicketState::kUploaded);
  }

  /// What is remembered of the ticket's newest archive.
  Archive NewestArchive(const std::string& ticket_id) {
    const Ticket ticket = Remembered(ticket_id);
    return ticket.archives.empty() ? Archive() : ticket.archives.back();
  }

  /// A ticket that the device "SN1" can't take, and has the token of.
  Delivered RefuseTicket(ScriptedDevice& device) {
    Delivered ticket = DeliverTicket(device);
    device.Answer(ticket.id, tarvo::support::v1::CLIENT_STATUS_REJECTED, "no such application");
    EXPECT_TRUE(WaitForState(ticket.id, TicketState::kRefused));
    return ticket;
  }

  /// Each request with the token is refused at its headers.
  void ExpectGone(const Delivered& ticket) {
    // More than 1 MiB: libcurl asks with "Expect: 100-continue" first.
    const ReceivedAnswer upload = Upload(ticket.token, MakeFile(std::string(std::size_t{2} << 20U, 'x')));
    ExpectRefusal(upload, 410);
    EXPECT_EQ(upload.sent, 0);
    ExpectRefusal(Report(ticket.token, kReport), 410);
    const std::string state = ToText(StateOf(ticket.id));
    EXPECT_TRUE(events_.Has("request refused: POST \"/orvane/ps_files\" from 127.0.0.1:"));
    EXPECT_TRUE(events_.Has(": ticket " + ticket.id + " is " + state));
    EXPECT_EQ(ArchiveFiles(), 0U);
    EXPECT_FALSE(Remembered(ticket.id).report);
  }

  static constexpr const char* kReport = R"({"status":"Success","serial_number":"SN1"})";
};

/// What an earlier service has left in the data folder: one ticket that was delivered.
class FormerTicket {
 public:
  /// @param age  So long ago it was created and delivered.
  FormerTicket(const fs::path& data_folder, std::chrono::hours age) : time_(Now().wall - age) {
    { const ArchiveStore folder(data_folder); }
    store_.emplace(data_folder / "tickets.db");
    ticket_.number = 1;
    ticket_.id = "0123456789abcdef";
    ticket_.device = "SN1";
    ticket_.created = time_;
    ticket_.deadline = time_ + std::chrono::hours(14 * 24);
    Happened(EventKind::kCreated);
    Happened(EventKind::kDelivered, HashOf("former token"));
  }

  void Happened(EventKind kind, std::optional<SecretHash> token = std::nullopt) {
    const Event event{ticket_.last_event + 1, 1, kind, "Success", time_};
    Apply(event, ticket_);
    store_->Write({Entry{event, ticket_, token, std::nullopt}});
  }

 private:
  const WallTime time_;
  std::optional<SqliteStore> store_;
  Ticket ticket_;
};

TEST_F(CssServerTest, UploadIsKeptByteForByte) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string content = AwkwardData(std::size_t{3} * 1024 * 1024 + 17);
  const ReceivedAnswer answer = Upload(ticket.token, MakeFile(content), {"web", "db", "web"});
  EXPECT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(ParseJson(answer.body), ParseJson(R"({"success":true})"));
  EXPECT_TRUE(ReadFile(ArchiveOf(ticket.id)) == content);
  const Archive archive = NewestArchive(ticket.id);
  EXPECT_EQ(archive.version, 1U);
  EXPECT_EQ(archive.sha256, Sha256(content));
  EXPECT_EQ(archive.size_bytes, content.size());
  EXPECT_EQ(archive.serial_number, "SN1");
  EXPECT_THAT(archive.apps, ElementsAre("web", "db", "web"));
  EXPECT_EQ(StateOf(ticket.id), TicketState::kUploaded);
  EXPECT_EQ(IncomingFiles(), 0U);
  EXPECT_TRUE(events_.Has("ticket " + ticket.id + " upload started: from 127.0.0.1:"));
  EXPECT_TRUE(events_.Has("ticket " + ticket.id + " uploaded: " + std::to_string(content.size()) +
                          " bytes, sha256 " + Sha256(content) +
                          ", apps [\"web\", \"db\", \"web\"], serial \"SN1\""));
}

TEST_F(CssServerTest, AwkwardSizesAreKeptByteForByte) {
  Start();
  const auto ticket = AcceptTicket();
  for (const std::size_t size : {0U, 1U, 2U, 4095U, 65536U, 131072U, 262143U, 262144U, 300001U}) {
    const std::string content = AwkwardData(size);
    const ReceivedAnswer answer = Upload(ticket.token, MakeFile(content));
    EXPECT_EQ(answer.status, 200) << size << " " << answer.body;
    const Archive archive = NewestArchive(ticket.id);
    EXPECT_TRUE(ReadFile(ArchiveOf(ticket.id, archive.version)) == content) << size;
    EXPECT_EQ(archive.sha256, Sha256(content)) << size;
  }
}

TEST_F(CssServerTest, AppsPartsAreRecordedInOrderWithTheirIndexes) {
  Start();
  const auto ticket = AcceptTicket();
  std::vector<std::string> apps;
  apps.reserve(12);
  for (int i = 0; i < 12; ++i) apps.push_back("app" + std::to_string(i * 7 % 12));
  EXPECT_EQ(Upload(ticket.token, MakeFile("x"), apps).status, 200);
  EXPECT_EQ(NewestArchive(ticket.id).apps, apps);
  EXPECT_EQ(Upload(ticket.token, MakeFile("y"), {}).status, 200);
  EXPECT_EQ(NewestArchive(ticket.id).version, 2U);
  EXPECT_THAT(NewestArchive(ticket.id).apps, IsEmpty());
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
  const ReceivedAnswer answer =
      PostForm(UploadUrl(), {Auth(ticket.token)}, DeviceForm(MakeFile("x"), "", {""}));
  EXPECT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(NewestArchive(ticket.id).version, 1U);
  EXPECT_EQ(NewestArchive(ticket.id).serial_number, "");
  EXPECT_THAT(NewestArchive(ticket.id).apps, ElementsAre(""));
}

TEST_F(CssServerTest, WrongTokenIsRefusedBeforeTheBodyIsSent) {
  Start();
  const auto ticket = AcceptTicket();
  const fs::path file = MakeFile(std::string(std::size_t{2} * 1024 * 1024, 'x'));
  for (const std::string& header : {std::string("X-None: 1"), Auth(std::string(64, '0')), Auth(""),
                                    Auth(ticket.token + "0"), Auth(ticket.token.substr(1))}) {
    // More than 1 MiB: libcurl asks with "Expect: 100-continue" first.
    const ReceivedAnswer answer = PostForm(UploadUrl(), {header}, DeviceForm(file, "SN1", {}));
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
  CreateTicket();
  ExpectRefusal(Report("", kReport), 401);
}

TEST_F(CssServerTest, EachTicketHasItsOwnArchive) {
  Start();
  ScriptedDevice one(service().grpc_url());
  one.Hello("SN1");
  ScriptedDevice two(service().grpc_url());
  two.Hello("SN2");
  const auto first = AcceptTicket(one);
  const auto second = AcceptTicket(two);
  EXPECT_EQ(Upload(second.token, MakeFile("two"), {"a"}, "SN2").status, 200);
  EXPECT_EQ(Upload(first.token, MakeFile("one")).status, 200);
  EXPECT_EQ(ReadFile(ArchiveOf(first.id)), "one");
  EXPECT_EQ(ReadFile(ArchiveOf(second.id)), "two");
}

TEST_F(CssServerTest, EveryTokenOfATicketCounts) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto ticket = DeliverTicket(device);
  device.Answer(ticket.id, tarvo::support::v1::CLIENT_STATUS_REJECTED);
  const auto again = device.Next();
  ASSERT_TRUE(again);
  ASSERT_EQ(again->ticket_id(), ticket.id);
  EXPECT_NE(TokenOf(*again), ticket.token);
  EXPECT_EQ(Upload(ticket.token, MakeFile("one")).status, 200);
  EXPECT_EQ(Upload(TokenOf(*again), MakeFile("two")).status, 200);
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id, 1)), "one");
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id, 2)), "two");
}

TEST_F(CssServerTest, RequestsOfARefusedTicketAreRefused) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  ExpectGone(RefuseTicket(device));
}

TEST_F(CssServerTest, RequestsOfACancelledTicketAreRefused) {
  settings_.tickets.retry_pause = std::chrono::hours(1);
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto ticket = DeliverTicket(device);
  device.Answer(ticket.id, tarvo::support::v1::CLIENT_STATUS_REJECTED);
  ASSERT_TRUE(WaitForState(ticket.id, TicketState::kQueued));
  const TicketNumber number = Remembered(ticket.id).number;
  service().dispatcher().Call([&](TicketBook& book) { book.Cancel(number, "the test"); });
  ExpectGone(ticket);
}

TEST_F(CssServerTest, RequestsOfAnExpiredTicketAreRefused) {
  { const FormerTicket former(settings_.data_folder, std::chrono::hours(15 * 24)); }
  Start();
  ASSERT_TRUE(WaitForState("0123456789abcdef", TicketState::kExpired));
  ExpectGone({"0123456789abcdef", "former token"});
}

TEST_F(CssServerTest, ADayAfterTheReportATicketsRequestsAreRefusedAndNotBefore) {
  for (const int hours : {23, 25}) {
    settings_.data_folder = temp_.path() / std::to_string(hours);
    {
      FormerTicket former(settings_.data_folder, std::chrono::hours(hours));
      former.Happened(EventKind::kReported);
    }
    Start();
    ASSERT_EQ(StateOf("0123456789abcdef"), TicketState::kReported);
    const long status = hours < 24 ? 200 : 410;
    EXPECT_EQ(Upload("former token", MakeFile("x")).status, status) << hours;
    EXPECT_EQ(Report("former token", kReport).status, status) << hours;
    service_.reset();
  }
}

TEST_F(CssServerTest, LateResultsOfATicketAreTakenAfterTheNextOne) {
  settings_.tickets.overdue_after = std::chrono::minutes(0);
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto former = AcceptTicket(device);
  AcceptTicket(device);
  ASSERT_EQ(StateOf(former.id), TicketState::kNoResult);
  EXPECT_EQ(Upload(former.token, MakeFile("late")).status, 200);
  EXPECT_EQ(ReadFile(ArchiveOf(former.id)), "late");
  EXPECT_EQ(Report(former.token, kReport).status, 200);
  EXPECT_EQ(StateOf(former.id), TicketState::kReported);
}

TEST_F(CssServerTest, UploadOfATicketThatComesToItsEndMeanwhileIsNotKept) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto ticket = DeliverTicket(device);
  const std::string body = FormBody("content", "\r\n--XX--\r\n");
  RawHttp http(service().css_url());
  http.Send(FormHead(ticket.token, body.size()) + body.substr(0, body.size() - 1));
  ASSERT_TRUE(events_.WaitFor("upload started"));
  device.Answer(ticket.id, tarvo::support::v1::CLIENT_STATUS_REJECTED, "no such application");
  ASSERT_TRUE(WaitForState(ticket.id, TicketState::kRefused));
  http.Send(body.substr(body.size() - 1));
  EXPECT_THAT(http.ReadToEnd(), HasSubstr("HTTP/1.1 410"));
  EXPECT_TRUE(events_.Has("ticket " + ticket.id + " upload failed: the ticket has come to its end"));
  ExpectNoArchive(ticket.id);
}

TEST_F(CssServerTest, ReportOfATicketThatComesToItsEndMeanwhileIsNotTaken) {
  Start();
  ScriptedDevice device(service().grpc_url());
  device.Hello("SN1");
  const auto ticket = DeliverTicket(device);
  const std::string body = kReport;
  RawHttp http(service().css_url());
  http.Send(
      "POST /orvane/ps_results HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAUTH-TOKEN: " + ticket.token +
      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body.substr(0, body.size() - 1));
  ASSERT_TRUE(http.AwaitRead());
  device.Answer(ticket.id, tarvo::support::v1::CLIENT_STATUS_REJECTED, "no such application");
  ASSERT_TRUE(WaitForState(ticket.id, TicketState::kRefused));
  http.Send(body.substr(body.size() - 1));
  EXPECT_THAT(http.ReadToEnd(), HasSubstr("HTTP/1.1 410"));
  EXPECT_TRUE(events_.Has("ticket " + ticket.id + " report "));
  EXPECT_FALSE(Remembered(ticket.id).report);
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
    const ReceivedAnswer answer = Request(method, UploadUrl(), {Auth(ticket.token)}, std::nullopt);
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
    const ReceivedAnswer answer = PostForm(UploadUrl(), {Auth(ticket.token)}, form);
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
  std::uint64_t version = 0;
  for (const std::string end : {"\r\n--XX--\r\n", "\r\n--XX--"}) {
    const std::string content = "content " + std::to_string(++version);
    const std::string body = FormBody(content, end);
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, body.size()) + body);
    EXPECT_EQ(ParseJson(BodyOf(http.ReadToEnd()))["success"], true) << end;
    EXPECT_EQ(ReadFile(ArchiveOf(ticket.id, version)), content);
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
  settings_.tickets.most_archives = 1000;
  Start();
  const auto ticket = AcceptTicket();
  const auto content_of = [](std::size_t cut) { return "con\r\n--Xtent" + std::to_string(1000 + cut); };
  const auto form_of = [&](std::size_t cut) { return FormBody(content_of(cut), "\r\n--XX--\r\n"); };
  std::uint64_t version = 0;
  for (std::size_t cut = form_of(0).find(content_of(0)); cut < form_of(0).size(); ++cut) {
    const std::string whole = form_of(cut);
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, whole.size()) + whole.substr(0, cut));
    ASSERT_TRUE(http.AwaitRead());
    http.Send(whole.substr(cut));
    ASSERT_THAT(http.ReadToEnd(), HasSubstr("\"success\":true")) << cut;
    ASSERT_EQ(ReadFile(ArchiveOf(ticket.id, ++version)), content_of(cut)) << cut;
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
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id)), "first");
  EXPECT_EQ(Remembered(ticket.id).archives.size(), 1U);
  EXPECT_TRUE(Eventually([&] { return IncomingFiles() == 0; }));
  EXPECT_EQ(ArchiveFiles(), 1U);
}

TEST_F(CssServerTest, UploadOfAnotherContentIsASecondVersion) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, MakeFile("first, and longer")).status, 200);
  EXPECT_EQ(Upload(ticket.token, MakeFile("second"), {"b"}).status, 200);
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id, 1)), "first, and longer");
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id, 2)), "second");
  const auto archives = Remembered(ticket.id).archives;
  ASSERT_EQ(archives.size(), 2U);
  EXPECT_EQ(archives[0].sha256, Sha256("first, and longer"));
  EXPECT_EQ(archives[1].sha256, Sha256("second"));
  EXPECT_EQ(archives[1].version, 2U);
  EXPECT_THAT(archives[1].apps, ElementsAre("b"));
}

TEST_F(CssServerTest, RepeatedUploadIsTakenAndKeptOnce) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, MakeFile("first")).status, 200);
  EXPECT_EQ(Upload(ticket.token, MakeFile("second")).status, 200);
  const ReceivedAnswer again = Upload(ticket.token, MakeFile("first"));
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(ParseJson(again.body), ParseJson(R"({"success":true})"));
  EXPECT_TRUE(events_.Has("ticket " + ticket.id + " upload repeated: sha256 " + Sha256("first")));
  EXPECT_EQ(Remembered(ticket.id).archives.size(), 2U);
  EXPECT_TRUE(Eventually([&] { return ArchiveFiles() == 2; }));
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id, 1)), "first");
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id, 2)), "second");
}

TEST_F(CssServerTest, UploadsAtTheSameTimeDoNotMix) {
  Start();
  std::vector<std::unique_ptr<ScriptedDevice>> devices;
  std::vector<Delivered> tickets;
  std::vector<fs::path> files;
  for (int i = 0; i < 6; ++i) {
    devices.push_back(std::make_unique<ScriptedDevice>(service().grpc_url()));
    devices.back()->Hello("SN" + std::to_string(i));
    tickets.push_back(AcceptTicket(*devices.back()));
    files.push_back(temp_.path() / ("file" + std::to_string(i)));
    WriteFile(files.back(), std::string(1500000, static_cast<char>('a' + i)));
  }
  std::vector<std::thread> uploads;
  uploads.reserve(tickets.size());
  for (std::size_t i = 0; i < tickets.size(); ++i) {
    uploads.emplace_back([&, i] {
      EXPECT_EQ(Upload(tickets[i].token, files[i], {"a"}, "SN" + std::to_string(i)).status, 200);
    });
  }
  for (std::thread& upload : uploads) upload.join();
  for (std::size_t i = 0; i < tickets.size(); ++i) {
    EXPECT_TRUE(ReadFile(ArchiveOf(tickets[i].id)) == ReadFile(files[i])) << i;
  }
}

TEST_F(CssServerTest, UploadsOfOneTicketAtTheSameTimeAreVersionsOfTheirOwn) {
  Start();
  const auto ticket = AcceptTicket();
  std::vector<std::unique_ptr<RawHttp>> clients;
  const auto body_of = [](std::size_t i) {
    return FormBody("content " + std::to_string(i), "\r\n--XX--\r\n");
  };
  for (std::size_t i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<RawHttp>(service().css_url()));
    const std::string body = body_of(i);
    clients.back()->Send(FormHead(ticket.token, body.size()) + body.substr(0, body.size() - 1));
    ASSERT_TRUE(clients.back()->AwaitRead());
  }
  for (const auto& client : clients) client->Send("\n");
  for (const auto& client : clients) EXPECT_THAT(client->ReadToEnd(), HasSubstr("HTTP/1.1 200"));
  const auto archives = Remembered(ticket.id).archives;
  ASSERT_EQ(archives.size(), 8U);
  std::vector<std::string> contents;
  std::uint64_t former = 0;
  for (const Archive& archive : archives) {
    EXPECT_GT(archive.version, std::exchange(former, archive.version));
    contents.push_back(ReadFile(ArchiveOf(ticket.id, archive.version)));
    EXPECT_EQ(archive.sha256, Sha256(contents.back()));
  }
  std::sort(contents.begin(), contents.end());
  for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(contents[i], "content " + std::to_string(i));
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
  EXPECT_EQ(ArchiveFiles(), 0U);
  EXPECT_TRUE(events_.Has("upload refused: the service shuts down"));
}

TEST_F(CssServerTest, UploadsUnderWayAtTheEndAreFinishedAndReported) {
  settings_.stop_limit = kPatience;
  Start();
  ScriptedDevice other(service().grpc_url());
  other.Hello("SN2");
  const auto ticket = AcceptTicket();
  const auto last = AcceptTicket(other);
  const std::string body = FormBody("content", "\r\n--XX--\r\n");
  std::string last_body = body;
  last_body.replace(last_body.find("SN1"), 3, "SN2");
  const std::string report_url = ReportUrl();
  const std::string socket = service().control_socket();
  RawHttp http(service().css_url());
  RawHttp last_http(service().css_url());
  http.Send(FormHead(ticket.token, body.size()) + body.substr(0, body.size() - 5));
  last_http.Send(FormHead(last.token, body.size()) + last_body.substr(0, body.size() - 5));
  ASSERT_TRUE(Eventually([&] { return IncomingFiles() == 2; }));
  std::thread end([this] { service_.reset(); });
  EXPECT_EQ(other.End().value().error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_TRUE(Eventually([&] { return AskApi(socket, "GET", "/service").status == 503; }));
  http.Send(body.substr(body.size() - 5));
  EXPECT_TRUE(Eventually([&] { return ArchiveFiles() == 1; }));
  EXPECT_EQ(Request("POST", report_url, {Auth(ticket.token)}, R"({"status":"Success","serial_number":"SN1"})")
                .status,
            200);
  last_http.Send(last_body.substr(body.size() - 5));
  EXPECT_THAT(last_http.ReadToEnd(), HasSubstr("HTTP/1.1 200"));
  end.join();
  EXPECT_FALSE(events_.Has("cut off"));
  settings_.stop_limit = std::chrono::milliseconds(0);
  Start();
  EXPECT_EQ(StateOf(ticket.id), TicketState::kReported);
  EXPECT_EQ(StateOf(last.id), TicketState::kUploaded);
  EXPECT_EQ(ReadFile(ArchiveOf(last.id)), "content");
}

TEST_F(CssServerTest, StalledUploadHoldsTheEndForItsLimitOnly) {
  settings_.stop_limit = std::chrono::milliseconds(50);
  Start();
  const auto ticket = AcceptTicket();
  RawHttp http(service().css_url());
  http.Send(FormHead(ticket.token, 100000) + FormBody("the beginning", ""));
  ASSERT_TRUE(Eventually([&] { return IncomingFiles() == 1; }));
  service_.reset();
  EXPECT_TRUE(events_.Has("cut off, whose devices try again: 1"));
  EXPECT_EQ(http.ReadToEnd(), "") << "an answer would keep the device from trying again";
  EXPECT_EQ(IncomingFiles(), 0U);
}

TEST_F(CssServerTest, ShutdownBehindACompleteUploadKeepsAndAnswersIt) {
  Start();
  const auto ticket = AcceptTicket();
  // The dispatcher is held up, so that the archive has its name and is not remembered when the service ends.
  std::promise<void> gate;
  service().dispatcher().Post([opened = gate.get_future().share()](TicketBook&) { opened.wait(); });
  const std::string body = FormBody("content", "\r\n--XX--\r\n");
  RawHttp http(service().css_url());
  http.Send(FormHead(ticket.token, body.size()) + body);
  EXPECT_TRUE(Eventually([&] { return fs::exists(ArchiveOf(ticket.id)); }));
  std::thread end([this] { service_.reset(); });
  gate.set_value();
  end.join();
  const std::string answer = http.ReadToEnd();
  EXPECT_THAT(answer, HasSubstr("HTTP/1.1 200"));
  Start();
  EXPECT_EQ(NewestArchive(ticket.id).sha256, Sha256("content"));
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id)), "content");
}

TEST_F(CssServerTest, UploadsAsTheServiceEndsAreKeptWholeOrNotAtAll) {
  for (std::size_t i = 0; i < 10; ++i) {
    Start();
    const auto ticket = AcceptTicket();
    const std::string content = AwkwardData(100'000 + i);
    const std::string body = FormBody(content, "\r\n--XX--\r\n");
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, body.size()) + body);
    if (i % 2 == 1) {
      EXPECT_TRUE(http.AwaitRead());
    }
    service_.reset();
    const bool answered = http.ReadToEnd().rfind("HTTP/1.1 200", 0) == 0;
    EXPECT_EQ(IncomingFiles(), 0U);
    const std::size_t files = ArchiveFiles();
    Start();
    const auto archives = Remembered(ticket.id).archives;
    EXPECT_TRUE(archives.size() == 1 || !answered);
    EXPECT_EQ(archives.size(), files) << "a file that nobody knows of, or none of one that is known";
    if (!archives.empty()) {
      EXPECT_TRUE(ReadFile(ArchiveOf(ticket.id)) == content);
    }
    service_.reset();
    fs::remove_all(settings_.data_folder);
  }
}

TEST_F(CssServerTest, ArchiveThatCannotBeKeptIsRefusedAndTheNextOneTaken) {
  Start();
  const auto ticket = AcceptTicket();
  fs::remove(settings_.data_folder / "incoming");
  const ReceivedAnswer answer =
      Upload(ticket.token, MakeFile(std::string(std::size_t{3} * 1024 * 1024, 'x')));
  ExpectRefusal(answer, 500);
  EXPECT_THAT(answer.body, Not(HasSubstr(temp_.path().string())));
  EXPECT_TRUE(events_.Has("upload failed: cannot make a file"));
  fs::create_directory(settings_.data_folder / "incoming");
  fs::remove(settings_.data_folder / "archives");
  ExpectRefusal(Upload(ticket.token, MakeFile("x")), 500);
  EXPECT_TRUE(events_.Has("upload failed: cannot name"));
  EXPECT_EQ(StateOf(ticket.id), TicketState::kAccepted);
  fs::create_directory(settings_.data_folder / "archives");
  EXPECT_EQ(Upload(ticket.token, MakeFile("x")).status, 200);
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id)), "x");
}

TEST_F(CssServerTest, ReportEndsTheTicket) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, MakeFile("x")).status, 200);
  const ReceivedAnswer answer = Report(ticket.token, R"({"serial_number":"SN1","status":"Success"})");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(ParseJson(answer.body), ParseJson(R"({"success":true})"));
  EXPECT_EQ(Remembered(ticket.id).report, "Success");
  EXPECT_EQ(NewestArchive(ticket.id).sha256, Sha256("x"));
  EXPECT_EQ(StateOf(ticket.id), TicketState::kReported);
  EXPECT_TRUE(events_.Has("ticket " + ticket.id + " reported: \"Success\""));
}

TEST_F(CssServerTest, RepeatedUploadTakesThePlaceOfAFileThatIsMissing) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string whole = FormBody("content", "\r\n--XX--\r\n");
  for (int times = 0; times < 2; ++times) {
    RawHttp http(service().css_url());
    http.Send(FormHead(ticket.token, whole.size()) + whole);
    ASSERT_THAT(http.ReadToEnd(), HasSubstr("\"success\":true"));
    ASSERT_EQ(ReadFile(ArchiveOf(ticket.id)), "content") << times;
    std::filesystem::remove(ArchiveOf(ticket.id));
  }
}

TEST_F(CssServerTest, RepeatedReportIsTakenAndChangesNothing) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Report(ticket.token, kReport).status, 200);
  const EventNumber last = Remembered(ticket.id).last_event;
  for (const char* status : {"Success", "Failed to generate debug file"}) {
    const std::string body = std::string(R"({"serial_number":"SN1","status":")") + status + "\"}";
    const ReceivedAnswer again = Report(ticket.token, body);
    EXPECT_EQ(again.status, 200);
    EXPECT_EQ(ParseJson(again.body), ParseJson(R"({"success":true})"));
  }
  EXPECT_EQ(Remembered(ticket.id).report, "Success");
  EXPECT_EQ(Remembered(ticket.id).last_event, last);
}

TEST_F(CssServerTest, UploadAfterTheReportIsKept) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Report(ticket.token, kReport).status, 200);
  EXPECT_EQ(Upload(ticket.token, MakeFile("x")).status, 200);
  EXPECT_EQ(StateOf(ticket.id), TicketState::kReported);
  EXPECT_EQ(ReadFile(ArchiveOf(ticket.id)), "x");
}

TEST_F(CssServerTest, ReportBeforeAnyUploadIsTaken) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Report(ticket.token, R"({"status":"Failed to generate debug file","serial_number":""})").status,
            200);
  EXPECT_EQ(Remembered(ticket.id).report, "Failed to generate debug file");
  EXPECT_EQ(ArchiveFiles(), 0U);
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
  EXPECT_TRUE(events_.Has("ticket " + ticket.id + " report refused: the report is no JSON text"));
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
  EXPECT_EQ(Report(ticket.token, R"({"status":"Suc\ncess\u001b[2J","serial_number":""})").status, 200);
  EXPECT_TRUE(events_.Has(R"( reported: "Suc\x0acess\x1b[2J")"));
}

TEST_F(CssServerTest, SerialNumberOfAnotherDeviceIsRefusedAndNothingIsKept) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string file = MakeFile("x");
  ExpectRefusal(PostForm(UploadUrl(), {Auth(ticket.token)}, DeviceForm(file, "SN2", {"a"})), 403);
  ExpectRefusal(Report(ticket.token, R"({"status":"Success","serial_number":"SN2"})"), 403);
  ExpectRefusal(Report(ticket.token, R"({"status":"Success","serial_number":"SN1\u0000"})"), 403);
  EXPECT_EQ(StateOf(ticket.id), TicketState::kAccepted);
  EXPECT_EQ(IncomingFiles() + ArchiveFiles(), 0U);
  EXPECT_TRUE(events_.Has("report refused: the serial number is another device's"));
}

TEST_F(CssServerTest, DeviceThatIsBlockedIsRefusedUntilItIsNotAnyMore) {
  Start();
  const auto ticket = AcceptTicket();
  const auto set_blocked = [&](bool blocked) {
    service().dispatcher().Call([&](TicketBook& book) { book.SetBlocked("SN1", blocked); });
  };
  set_blocked(true);
  EXPECT_EQ(own_device_->End().value().error_code(), grpc::StatusCode::PERMISSION_DENIED);
  ExpectRefusal(Upload(ticket.token, MakeFile("x")), 403);
  ExpectRefusal(Report(ticket.token, R"({"status":"Success","serial_number":"SN1"})"), 403);
  set_blocked(false);
  EXPECT_EQ(Upload(ticket.token, MakeFile("x")).status, 200);
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
  EXPECT_GE(files, 3U);  // the lock, the store and the archive
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
