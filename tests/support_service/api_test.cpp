/// What the API and the devices' ports do where both are needed: archives, blocking, and whose certificate counts.
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>

#include "api_front.h"
#include "listen_address.h"
#include "service_fixture.h"
#include "test_certificate.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
namespace proto = tarvo::support::v1;
using std::chrono::hours;
using ::testing::AllOf;
using Testing::CertificateWish;
using ::testing::Contains;
using ::testing::HasSubstr;
using Testing::IssueTestCertificate;
using Testing::MakeTestCertificate;
using ::testing::Not;
using Testing::TestCertificate;

constexpr hours kYear{365 * 24};

ReceivedAnswer AskWith(const std::string& control_socket, const std::string& method, const std::string& path,
                       const std::vector<std::string>& headers) {
  Transfer transfer("http://localhost/api/v1" + path, headers);
  transfer.Set(CURLOPT_UNIX_SOCKET_PATH, control_socket.c_str());
  transfer.Set(CURLOPT_CUSTOMREQUEST, method.c_str());
  return transfer.Run();
}

std::string CodeIn(const ReceivedAnswer& answer) {
  const Json::Value value = ParseJson(answer.body);
  return value.isObject() && value["error"].isObject() ? value["error"]["code"].asString() : answer.body;
}

class ApiTest : public ServiceTest {
 protected:
  ReceivedAnswer Ask(const std::string& method, const std::string& path,
                     const std::vector<std::string>& headers = {}) {
    return AskWith(service().control_socket(), method, path, headers);
  }
  static std::string ArchivePath(const std::string& ticket_id, int version = 1) {
    return "/tickets/" + ticket_id + "/archives/" + std::to_string(version);
  }
  ReceivedAnswer Upload(const std::string& token, const std::string& content,
                        const std::string& serial_number = "SN1") {
    WriteFile(temp_.path() / "debug.dat", content);
    return PostForm(UploadUrl(), {"AUTH-TOKEN: " + token},
                    DeviceForm(temp_.path() / "debug.dat", serial_number, {"a"}));
  }
  ReceivedAnswer Report(const std::string& token) {
    return Request("POST", ReportUrl(), {"AUTH-TOKEN: " + token},
                   R"({"status":"Success","serial_number":"SN1"})");
  }
  /// A ticket of which there is an archive.
  Delivered TicketWith(const std::string& content) {
    Delivered ticket = AcceptTicket();
    EXPECT_EQ(Upload(ticket.token, content).status, 200);
    return ticket;
  }
  std::vector<std::string> Audit() {
    std::vector<std::string> texts;
    for (const AuditRecord& record : service().store().Audit(0, 1000)) {
      texts.push_back(record.actor.who + ": " + record.action + " " + record.object + " " + record.detail);
    }
    return texts;
  }
  bool AwaitAudit(const std::string& part) {
    return Eventually([&] {
      const auto texts = Audit();
      return std::any_of(texts.begin(), texts.end(),
                         [&](const std::string& text) { return text.find(part) != std::string::npos; });
    });
  }
  /// Ends the service, and starts it anew with what it has remembered.
  void Restart() {
    own_device_.reset();
    service_.reset();
    service_ = std::make_unique<SupportService>(settings_, events_.sink());
  }

  /// An upload whose last byte is held back.
  class HeldUpload {
   public:
    HeldUpload(const std::string& css_url, const std::string& token, const std::string& content)
        : http_(css_url),
          body_(
              "--XX\r\nContent-Disposition: form-data; name=\"serial_number\"\r\n\r\nSN1\r\n"
              "--XX\r\nContent-Disposition: form-data; name=\"debug_file\"; filename=\"debug.dat\"\r\n\r\n" +
              content + "\r\n--XX--\r\n") {
      http_.Send("POST /orvane/ps_files HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAUTH-TOKEN: " + token +
                 "\r\nContent-Type: multipart/form-data; boundary=XX\r\nContent-Length: " +
                 std::to_string(body_.size()) + "\r\n\r\n" + body_.substr(0, body_.size() - 1));
      EXPECT_TRUE(http_.AwaitRead());
    }
    /// Sends that byte.
    /// @return The answer.
    std::string Finish() {
      http_.Send(body_.substr(body_.size() - 1));
      return http_.ReadToEnd();
    }

   private:
    RawHttp http_;
    const std::string body_;
  };
};

// ---- archives ----

TEST_F(ApiTest, ArchiveIsDownloadedAsItCame) {
  Start();
  const std::string content = AwkwardData(300'000);
  const auto ticket = TicketWith(content);
  const ReceivedAnswer answer = Ask("GET", ArchivePath(ticket.id));
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(Sha256(answer.body), Sha256(content));
  EXPECT_THAT(answer.headers,
              AllOf(HasSubstr("Content-Type: application/octet-stream\r\n"),
                    HasSubstr("Accept-Ranges: bytes\r\n"), HasSubstr("ETag: \"" + Sha256(content) + "\"\r\n"),
                    HasSubstr("Content-Disposition: attachment; filename=\"" + ticket.id + "-1.dat\"\r\n")));
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id.substr(0, 4))).body, content) << "by the beginning of its id";
  EXPECT_THAT(Audit(), Contains(HasSubstr("download archive " + ticket.id + " " + ticket.id + "-1.dat")));
  for (const char* version :
       {"0", "2", "01", "+1", "1.0", "%31x", "-1", "99999999999999999999", "..", "1%00"}) {
    const long status = Ask("GET", "/tickets/" + ticket.id + "/archives/" + version).status;
    EXPECT_TRUE(status == 404 || status == 400) << version << ": " << status;
  }
}

struct RangeCase {
  const char* header;
  long status;
  std::size_t first;
  std::size_t size;
};

TEST_F(ApiTest, OneRangeOfAnArchiveCanBeAskedFor) {
  Start();
  const std::string content = AwkwardData(1000);
  const auto ticket = TicketWith(content);
  const RangeCase cases[] = {
      {"bytes=0-0", 206, 0, 1},        {"bytes=10-19", 206, 10, 10},     {"bytes=-5", 206, 995, 5},
      {"bytes=990-", 206, 990, 10},    {"bytes=0-999999", 206, 0, 1000}, {"bytes=999-999", 206, 999, 1},
      {"bytes=0-1,5-6", 200, 0, 1000}, {"lines=0-1", 200, 0, 1000},      {"bytes=x", 200, 0, 1000}};
  for (const RangeCase& row : cases) {
    const ReceivedAnswer answer = Ask("GET", ArchivePath(ticket.id), {std::string("Range: ") + row.header});
    EXPECT_EQ(answer.status, row.status) << row.header;
    EXPECT_EQ(answer.body, content.substr(row.first, row.size)) << row.header;
    const std::string range = "Content-Range: bytes " + std::to_string(row.first) + "-" +
                              std::to_string(row.first + row.size - 1) + "/1000\r\n";
    EXPECT_EQ(answer.headers.find(range) != std::string::npos, row.status == 206)
        << row.header << answer.headers;
  }
  for (const char* header : {"bytes=1000-", "bytes=5000-6000", "bytes=-0"}) {
    const ReceivedAnswer answer = Ask("GET", ArchivePath(ticket.id), {std::string("Range: ") + header});
    EXPECT_EQ(answer.status, 416) << header;
    EXPECT_EQ(CodeIn(answer), "range") << header;
    EXPECT_THAT(answer.headers, HasSubstr("Content-Range: bytes */1000\r\n")) << header;
  }
}

TEST_F(ApiTest, RangeIsForTheContentWhoseBeginningTheClientHas) {
  Start();
  const std::string content = AwkwardData(1000);
  const auto ticket = TicketWith(content);
  const std::string tag = "\"" + Sha256(content) + "\"";
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id), {"Range: bytes=500-", "If-Range: " + tag}).body,
            content.substr(500));
  for (const std::string& other : {"\"" + Sha256("other") + "\"", "W/" + tag, Sha256(content),
                                   std::string("Mon, 23 Nov 2026 00:00:00 GMT"), std::string("*")}) {
    const ReceivedAnswer answer =
        Ask("GET", ArchivePath(ticket.id), {"Range: bytes=500-", "If-Range: " + other});
    EXPECT_EQ(answer.status, 200) << other;
    EXPECT_EQ(answer.body, content) << other;
  }
}

TEST_F(ApiTest, EmptyArchiveIsDownloaded) {
  Start();
  const auto ticket = TicketWith("");
  const ReceivedAnswer answer = Ask("GET", ArchivePath(ticket.id));
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "");
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id), {"Range: bytes=0-"}).status, 416);
}

TEST_F(ApiTest, DeletedArchiveIsGoneForGood) {
  Start();
  const auto ticket = TicketWith("content");
  const auto is_gone = [&] {
    const ReceivedAnswer answer = Ask("GET", ArchivePath(ticket.id));
    return answer.status == 410 && CodeIn(answer) == "gone" && ArchiveFiles() == 0;
  };
  EXPECT_EQ(Ask("DELETE", ArchivePath(ticket.id)).status, 204);
  EXPECT_TRUE(is_gone());
  EXPECT_EQ(Ask("DELETE", ArchivePath(ticket.id)).status, 410);
  const Json::Value archive = ParseJson(Ask("GET", "/tickets/" + ticket.id).body)["archives"][0];
  EXPECT_EQ(archive["sha256"], Sha256("content"));
  EXPECT_EQ(archive["size_bytes"], 7);
  EXPECT_NE(archive["deleted"]["cause"].asString(), "");
  EXPECT_THAT(Audit(), Contains(HasSubstr("delete archive " + ticket.id + " version 1")));

  EXPECT_EQ(Upload(ticket.token, "content").status, 200) << "a device that sends it again is told to stop";
  EXPECT_TRUE(is_gone());
  Restart();
  EXPECT_TRUE(is_gone());
  EXPECT_EQ(Upload(ticket.token, "content").status, 200);
  EXPECT_TRUE(is_gone());
  EXPECT_EQ(Upload(ticket.token, "other content").status, 200);
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id, 2)).body, "other content");
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id)).status, 410);
}

TEST_F(ApiTest, FileThatADeletionLeftGoesWithTheNextStart) {
  Start();
  const auto ticket = TicketWith("content");
  EXPECT_EQ(Ask("DELETE", ArchivePath(ticket.id)).status, 204);
  WriteFile(ArchiveOf(ticket.id), "content");  // as if the service had ended before it was deleted
  Restart();
  EXPECT_EQ(ArchiveFiles(), 0U);
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id)).status, 410);
}

TEST_F(ApiTest, ArchiveWhoseFileIsMissingIsUnavailable) {
  Start();
  const auto ticket = TicketWith("content");
  fs::remove(ArchiveOf(ticket.id));
  const ReceivedAnswer answer = Ask("GET", ArchivePath(ticket.id));
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(CodeIn(answer), "unavailable");
}

TEST_F(ApiTest, UploadThatBeganBeforeADeletionGetsAVersionOfItsOwn) {
  Start();
  const auto ticket = AcceptTicket();
  HeldUpload held(service().css_url(), ticket.token, "first");
  EXPECT_EQ(Upload(ticket.token, "second").status, 200);
  EXPECT_EQ(Ask("DELETE", ArchivePath(ticket.id)).status, 204);
  EXPECT_THAT(held.Finish(), HasSubstr("HTTP/1.1 200"));
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id)).status, 410);
  EXPECT_EQ(Ask("GET", ArchivePath(ticket.id, 2)).body, "first");
}

// ---- devices that are not to get in ----

/// What the stream of a device ends with that says so; OK when it is let in.
grpc::StatusCode Knock(const std::string& grpc_url, const std::string& serial_number) {
  ScriptedDevice device(grpc_url);
  device.Hello(serial_number);
  device.HalfClose();  // one that was let in ends well by this
  const auto end = device.End();
  return end ? end->error_code() : grpc::StatusCode::UNKNOWN;
}

TEST_F(ApiTest, DeviceThatIsNotEnrolledIsRefused) {
  Start();
  for (const char* serial : {"SN10", "SN", "sn1", "SN1 ", "..", "*"}) {
    EXPECT_EQ(Knock(service().grpc_url(), serial), grpc::StatusCode::PERMISSION_DENIED) << serial;
  }
  EXPECT_TRUE(AwaitAudit("stream refused SN10"));
  EXPECT_EQ(Ask("GET", "/devices/SN10").status, 404);
}

TEST_F(ApiTest, BlockedDeviceIsOutAtOnceAndInAgainAfterwards) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string waiting = CreateTicket();
  EXPECT_EQ(Ask("POST", "/devices/SN1/block").status, 200);
  const auto end = own_device_->End();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->error_code(), grpc::StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(end->error_message(), "the device is blocked");
  EXPECT_EQ(Knock(service().grpc_url(), "SN1"), grpc::StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(Upload(ticket.token, "content").status, 403);
  EXPECT_EQ(Report(ticket.token).status, 403);
  EXPECT_TRUE(AwaitAudit("request refused " + ticket.id));
  Json::Value device;
  device["serial_number"] = "SN1";
  EXPECT_EQ(AskApi(service().control_socket(), "POST", "/devices", device).status, 409);
  EXPECT_EQ(StateOf(waiting), TicketState::kQueued);
  Restart();
  EXPECT_EQ(Knock(service().grpc_url(), "SN1"), grpc::StatusCode::PERMISSION_DENIED);

  EXPECT_EQ(Ask("POST", "/devices/SN1/unblock").status, 200);
  EXPECT_EQ(Upload(ticket.token, "content").status, 200);
  EXPECT_EQ(Report(ticket.token).status, 200);
  ScriptedDevice back(service().grpc_url());
  back.Hello("SN1");
  const auto delivery = back.Next();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->ticket_id(), waiting);
}

TEST_F(ApiTest, UploadUnderWayIsNotKeptOnceItsDeviceIsBlocked) {
  Start();
  const auto ticket = AcceptTicket();
  HeldUpload held(service().css_url(), ticket.token, "content");
  EXPECT_EQ(Ask("POST", "/devices/SN1/block").status, 200);
  EXPECT_THAT(held.Finish(), AllOf(HasSubstr("HTTP/1.1 403"), HasSubstr("the device is blocked")));
  EXPECT_TRUE(Remembered(ticket.id).archives.empty());
  EXPECT_TRUE(Eventually([&] { return IncomingFiles() == 0 && ArchiveFiles() == 0; }));
}

TEST_F(ApiTest, ReportUnderWayIsNotTakenOnceItsDeviceIsBlocked) {
  Start();
  const auto ticket = AcceptTicket();
  const std::string body = R"({"status":"Success","serial_number":"SN1"})";
  RawHttp http(service().css_url());
  http.Send(
      "POST /orvane/ps_results HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAUTH-TOKEN: " + ticket.token +
      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body.substr(0, body.size() - 1));
  ASSERT_TRUE(http.AwaitRead());
  EXPECT_EQ(Ask("POST", "/devices/SN1/block").status, 200);
  http.Send(body.substr(body.size() - 1));
  EXPECT_THAT(http.ReadToEnd(), Not(HasSubstr("HTTP/1.1 200")));
  EXPECT_FALSE(Remembered(ticket.id).report);
}

TEST_F(ApiTest, AnotherDevicesNumberIsRefusedInAnUpload) {
  Start();
  const auto ticket = AcceptTicket();
  EXPECT_EQ(Upload(ticket.token, "content", "SN2").status, 403);
  EXPECT_EQ(ArchiveFiles(), 0U);
  EXPECT_EQ(Upload(ticket.token, "content", "SN1").status, 200);
}

TEST_F(ApiTest, HostileTextOfADeviceIsMadeHarmlessInAnswers) {
  Start();
  const auto ticket = AcceptTicket();
  const Json::Value sent("\r\nSet-Cookie: a=b\x1b[31m\\");
  Json::Value report;
  report["status"] = sent;
  report["serial_number"] = "SN1";
  EXPECT_EQ(Request("POST", ReportUrl(), {"AUTH-TOKEN: " + ticket.token}, CompactJson(report)).status, 200);
  const std::string shown = R"(\x0d\x0aSet-Cookie: a=b\x1b[31m\\)";
  const Json::Value told = ParseJson(Ask("GET", "/tickets/" + ticket.id).body);
  EXPECT_EQ(told["report"], shown);
  EXPECT_EQ(told["last_text"], shown);
  EXPECT_EQ(told["outcome"], "unknown");
  const Json::Value events = ParseJson(Ask("GET", "/tickets/" + ticket.id + "/events").body)["events"];
  EXPECT_EQ(events[events.size() - 1]["text"], shown);
  for (const std::string& line : events_.lines()) {
    EXPECT_EQ(line.find_first_of("\r\n\x1b"), std::string::npos) << line;
  }
}

// ---- whose certificate counts ----

/// What a device shows, made from the service's own authority.
struct DeviceCase {
  const char* title;
  std::function<std::optional<TestCertificate>(const TestCertificate& authority)> make;
  grpc::StatusCode end;  ///< Of its stream.
};

void PrintTo(const DeviceCase& row, std::ostream* out) { *out << row.title; }

CertificateWish Wish(const std::string& name, const std::string& purpose = "clientAuth",
                     const Testing::Validity& validity = {}) {
  CertificateWish wish;
  wish.common_names = {name};
  wish.purpose = purpose;
  wish.validity = validity;
  return wish;
}

class ApiCertificateTest : public ApiTest {
 protected:
  ApiCertificateTest() { settings_.tickets.trust = Trust::kOwnAuthority; }

  TestCertificate Authority() {
    const fs::path folder = settings_.data_folder / "authority";
    return {ReadFile(folder / "ca.pem"), ReadFile(folder / "ca.key")};
  }

  /// What the API gives out for a device.
  TestCertificate EnrolOverApi(const std::string& serial_number) {
    Json::Value device;
    device["serial_number"] = serial_number;
    const Json::Value bundle = ParseJson(AskApi(service().control_socket(), "POST", "/devices", device).body);
    return {bundle["client_pem"].asString(), bundle["client_key"].asString()};
  }

  /// Says hello, and that nothing more comes.
  /// @return What the stream ends with: OK for a device that was let in.
  grpc::Status Hello(const std::optional<TestCertificate>& shown, const std::string& serial_number) {
    grpc::SslCredentialsOptions options;
    options.pem_root_certs = Authority().certificate;
    if (shown) {
      options.pem_cert_chain = shown->certificate;
      options.pem_private_key = shown->key;
    }
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetSslTargetNameOverride("localhost");
    const std::string& url = service().grpc_url();
    const auto stub = proto::NotificationService::NewStub(
        grpc::CreateCustomChannel(url.substr(url.rfind('/') + 1), grpc::SslCredentials(options), arguments));
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kPatience);
    const auto stream = stub->Open(&context);
    proto::ClientMessage message;
    message.mutable_hello()->set_serial_number(serial_number);
    message.mutable_hello()->set_protocol(1);
    stream->Write(message);
    stream->WritesDone();
    proto::ServerMessage received;
    while (stream->Read(&received)) {
    }
    return stream->Finish();
  }

  ReceivedAnswer UploadShowing(const std::optional<TestCertificate>& shown, const std::string& token) {
    Transfer transfer(UploadUrl(), {"AUTH-TOKEN: " + token});
    std::string authority = Authority().certificate;
    curl_blob trusted{authority.data(), authority.size(), CURL_BLOB_COPY};
    transfer.Set(CURLOPT_CAINFO_BLOB, &trusted);
    if (shown) {
      TestCertificate copy = *shown;
      curl_blob chain{copy.certificate.data(), copy.certificate.size(), CURL_BLOB_COPY};
      curl_blob key{copy.key.data(), copy.key.size(), CURL_BLOB_COPY};
      transfer.Set(CURLOPT_SSLCERT_BLOB, &chain);
      transfer.Set(CURLOPT_SSLKEY_BLOB, &key);
      transfer.Set(CURLOPT_SSLCERTTYPE, "PEM");
    }
    const std::unique_ptr<curl_mime, void (*)(curl_mime*)> form(curl_mime_init(transfer.get()),
                                                                curl_mime_free);
    for (const auto& [name, value] :
         {std::pair{"debug_file", "content"}, std::pair{"serial_number", "SN1"}}) {
      curl_mimepart* part = curl_mime_addpart(form.get());
      curl_mime_name(part, name);
      curl_mime_data(part, value, CURL_ZERO_TERMINATED);
    }
    transfer.Set(CURLOPT_MIMEPOST, form.get());
    return transfer.Run();
  }
};

class ApiDeviceCertificateTest : public ApiCertificateTest,
                                 public ::testing::WithParamInterface<DeviceCase> {};

TEST_P(ApiDeviceCertificateTest, StreamOfADeviceNeedsItsOwn) {
  Start();
  EXPECT_EQ(Hello(GetParam().make(Authority()), "SN1").error_code(), GetParam().end);
}

INSTANTIATE_TEST_SUITE_P(
    ApiTest, ApiDeviceCertificateTest,
    ::testing::Values(
        DeviceCase{"its own",
                   [](const auto& authority) { return IssueTestCertificate(authority, Wish("SN1")); },
                   grpc::StatusCode::OK},
        DeviceCase{"of another device",
                   [](const auto& authority) { return IssueTestCertificate(authority, Wish("SN2")); },
                   grpc::StatusCode::PERMISSION_DENIED},
        DeviceCase{"the beginning of its number",
                   [](const auto& authority) { return IssueTestCertificate(authority, Wish("SN")); },
                   grpc::StatusCode::PERMISSION_DENIED},
        DeviceCase{"a longer number",
                   [](const auto& authority) { return IssueTestCertificate(authority, Wish("SN10")); },
                   grpc::StatusCode::PERMISSION_DENIED},
        DeviceCase{"NUL behind its number",
                   [](const auto& authority) {
                     return IssueTestCertificate(authority, Wish(std::string("SN1\0x", 5)));
                   },
                   grpc::StatusCode::PERMISSION_DENIED},
        DeviceCase{"two names",
                   [](const auto& authority) {
                     CertificateWish wish = Wish("SN1");
                     wish.common_names.emplace_back("SN2");
                     return IssueTestCertificate(authority, wish);
                   },
                   grpc::StatusCode::PERMISSION_DENIED},
        DeviceCase{"no name",
                   [](const auto& authority) {
                     CertificateWish wish = Wish("SN1");
                     wish.common_names.clear();
                     return IssueTestCertificate(authority, wish);
                   },
                   grpc::StatusCode::PERMISSION_DENIED},
        DeviceCase{"none", [](const auto& /*authority*/) { return std::nullopt; },
                   grpc::StatusCode::UNAVAILABLE},
        DeviceCase{"of a stranger",
                   [](const auto& /*authority*/) {
                     return IssueTestCertificate(MakeTestCertificate(), Wish("SN1"));
                   },
                   grpc::StatusCode::UNAVAILABLE},
        DeviceCase{"self-signed", [](const auto& /*authority*/) { return MakeTestCertificate({}, "SN1"); },
                   grpc::StatusCode::UNAVAILABLE},
        DeviceCase{"expired",
                   [](const auto& authority) {
                     return IssueTestCertificate(authority, Wish("SN1", "clientAuth", {-7200, -3600}));
                   },
                   grpc::StatusCode::UNAVAILABLE},
        DeviceCase{"not yet valid",
                   [](const auto& authority) {
                     return IssueTestCertificate(authority, Wish("SN1", "clientAuth", {3600, 7200}));
                   },
                   grpc::StatusCode::UNAVAILABLE},
        DeviceCase{
            "a server's",
            [](const auto& authority) { return IssueTestCertificate(authority, Wish("SN1", "serverAuth")); },
            grpc::StatusCode::UNAVAILABLE},
        DeviceCase{"issued by a device",
                   [](const auto& authority) {
                     const TestCertificate device = IssueTestCertificate(authority, Wish("SN2"));
                     TestCertificate forged = IssueTestCertificate(device, Wish("SN1"));
                     forged.certificate += device.certificate;
                     return forged;
                   },
                   grpc::StatusCode::UNAVAILABLE}));

TEST_F(ApiCertificateTest, CertificateOfTheApiLetsItsDeviceInAndNoOther) {
  Start();
  const TestCertificate own = EnrolOverApi("SN1");
  EXPECT_TRUE(Hello(own, "SN1").ok());
  const grpc::Status refused = Hello(own, "SN2");
  EXPECT_EQ(refused.error_code(), grpc::StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(refused.error_message(), "the certificate is that of \"SN1\"");
  EXPECT_TRUE(AwaitAudit("the certificate is that of \"SN1\""));
  const std::string odd = R"(a "b",CN=SN1/c+d\)";
  EXPECT_TRUE(Hello(EnrolOverApi(odd), odd).ok());
  EXPECT_EQ(Ask("POST", "/devices/SN1/block").status, 200);
  EXPECT_EQ(Hello(own, "SN1").error_code(), grpc::StatusCode::PERMISSION_DENIED);
}

TEST_F(ApiCertificateTest, CertificateOfADeviceThatIsNotEnrolledLetsNobodyIn) {
  Start();
  const TestCertificate unknown = IssueTestCertificate(Authority(), Wish("SN77"));
  EXPECT_EQ(Hello(unknown, "SN77").error_code(), grpc::StatusCode::PERMISSION_DENIED);
}

/// A stream of "SN1" that stays.
class CertifiedDevice {
 public:
  CertifiedDevice(const std::string& grpc_url, const std::string& authority, const TestCertificate& own) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetSslTargetNameOverride("localhost");
    stub_ = proto::NotificationService::NewStub(
        grpc::CreateCustomChannel(grpc_url.substr(grpc_url.rfind('/') + 1),
                                  grpc::SslCredentials({authority, own.key, own.certificate}), arguments));
    context_.set_deadline(std::chrono::system_clock::now() + kPatience);
    stream_ = stub_->Open(&context_);
    proto::ClientMessage message;
    message.mutable_hello()->set_serial_number("SN1");
    message.mutable_hello()->set_protocol(1);
    EXPECT_TRUE(stream_->Write(message));
  }
  ~CertifiedDevice() {
    context_.TryCancel();
    static_cast<void>(stream_->Finish());
  }
  CertifiedDevice(const CertifiedDevice&) = delete;
  CertifiedDevice& operator=(const CertifiedDevice&) = delete;

  /// The token of the next ticket; empty when the stream ends before.
  std::string NextToken() {
    proto::ServerMessage message;
    return stream_->Read(&message) ? TokenOf(message.delivery()) : "";
  }

 private:
  std::unique_ptr<proto::NotificationService::Stub> stub_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::ClientReaderWriter<proto::ClientMessage, proto::ServerMessage>> stream_;
};

TEST_F(ApiCertificateTest, TokenIsOfNoUseWithoutItsDevicesCertificate) {
  Start();
  const TestCertificate own = EnrolOverApi("SN1");
  CertifiedDevice device(service().grpc_url(), Authority().certificate, own);
  const std::string id = CreateTicket();
  const std::string token = device.NextToken();
  ASSERT_NE(token, "");
  const std::pair<const char*, std::optional<TestCertificate>> strangers[] = {
      {"none", std::nullopt},
      {"another device's", EnrolOverApi("SN2")},
      {"a stranger's", IssueTestCertificate(MakeTestCertificate(), Wish("SN1"))},
      {"expired", IssueTestCertificate(Authority(), Wish("SN1", "clientAuth", {-7200, -3600}))},
      {"a server's", IssueTestCertificate(Authority(), Wish("SN1", "serverAuth"))}};
  for (const auto& [title, shown] : strangers) {
    EXPECT_EQ(UploadShowing(shown, token).status, 403) << title;
    EXPECT_EQ(ArchiveFiles(), 0U) << title;
  }
  EXPECT_TRUE(AwaitAudit("request refused " + id));
  EXPECT_EQ(UploadShowing(own, RandomHex(32)).status, 401) << "another token";
  EXPECT_EQ(UploadShowing(own, token).status, 200);
  EXPECT_FALSE(events_.Has(token));
}

// ---- what goes wrong in the service ----

/// The API alone, with an authority whose end has passed.
class ApiFaultTest : public ::testing::Test {
 protected:
  [[nodiscard]] static HttpSettings SettingsFor(const std::string& path) {
    HttpSettings settings;
    settings.address = ParseListenAddress("unix:" + path, true);
    return settings;
  }

  const TemporaryFolder temp_;
  const std::string path_ = (temp_.path() / "socket").string();
  EventRecorder events_;
  Metrics metrics_;
  const ArchiveStore archives_{temp_.path() / "data"};
  SqliteStore store_{temp_.path() / "data" / "tickets.db"};
  Dispatcher dispatcher_{{}, store_, events_.sink(), metrics_};
  DiskWorkers disk_;
  DiskRoom room_{temp_.path(), 0};
  const Overview overview_{{store_, room_, metrics_, {}, {}}, {}};
  const Authority expired_{temp_.path() / "authority", Now().wall - 40 * kYear};
  const Enroller enroller_{Trust::kOwnAuthority, &expired_, expired_.certificate(), "https://a:1",
                           "https://a:2"};
  const ServerIdentity identity_{{}, Trust::kAllowList, false, temp_.path() / "data", events_.sink()};
  BackupMaker backups_{store_, archives_, temp_.path() / "data", room_, events_.sink()};
  const WebhookCounts webhook_;
  const Upkeep upkeep_{backups_, identity_, room_, webhook_};
  ApiFront front_{dispatcher_, store_,   archives_, disk_,         enroller_,
                  overview_,   metrics_, upkeep_,   events_.sink()};
  const HttpServer server_{SettingsFor(path_), [this](HttpRequest& request) { return front_.Begin(request); },
                           events_.sink()};
};

TEST_F(ApiFaultTest, WhatNobodyExpectedIsAnsweredAsTheDocumentHasIt) {
  Json::Value device;
  device["serial_number"] = "SN1";
  const ReceivedAnswer answer = AskApi(path_, "POST", "/devices", device);
  EXPECT_EQ(answer.status, 500);
  EXPECT_EQ(CodeIn(answer), "internal");
  EXPECT_TRUE(events_.WaitFor("POST \"/api/v1/devices\" failed: "));
  EXPECT_EQ(AskApi(path_, "GET", "/devices").status, 200);
}

TEST_F(ApiFaultTest, MetricsComeAlsoWhereNothingIsDecidedAnyMore) {
  EXPECT_THAT(AskOver(path_, "/metrics").body, HasSubstr("\nsupport_service_ready 1\n"));
  dispatcher_.Close();
  const ReceivedAnswer page = AskOver(path_, "/metrics");
  EXPECT_EQ(page.status, 200);
  EXPECT_THAT(page.body, HasSubstr("\nsupport_service_ready 0\n"));
  EXPECT_THAT(page.body, HasSubstr("\nsupport_service_archives 0\n"));
  EXPECT_THAT(page.body, ::testing::Not(HasSubstr("support_service_streams")));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
