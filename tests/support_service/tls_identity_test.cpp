#include "tls_identity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <future>
#include <ostream>

#include "http_fixture.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using ::testing::AllOf;
using Testing::CertificateWish;
using ::testing::HasSubstr;
using Testing::IssueTestCertificate;
using Testing::MakeTestCertificate;
using ::testing::Not;
using Testing::TestCertificate;

// ---- TLS: the server's certificate ----

/// This version of TLS alone.
constexpr long Version(long least, long most) { return least | most; }
constexpr long kTls10 = Version(CURL_SSLVERSION_TLSv1_0, CURL_SSLVERSION_MAX_TLSv1_0);
constexpr long kTls11 = Version(CURL_SSLVERSION_TLSv1_1, CURL_SSLVERSION_MAX_TLSv1_1);
constexpr long kTls12 = Version(CURL_SSLVERSION_TLSv1_2, CURL_SSLVERSION_MAX_TLSv1_2);
constexpr long kTls13 = Version(CURL_SSLVERSION_TLSv1_3, CURL_SSLVERSION_MAX_TLSv1_3);

class HttpTlsTest : public HttpServerTest {
 protected:
  void SetUp() override { UseTls(); }
  void StartText() {
    Start([](HttpRequest&, const std::string&, const AnswerSink& done) { done(TextAnswer("text")); });
  }
  /// Whether the server has this certificate now.
  bool Has(const TestCertificate& certificate) {
    const auto transfer = To("/");
    Trust(*transfer, certificate.certificate);
    return transfer->Run().body == "text";
  }
};

TEST_F(HttpTlsTest, OnlyVersions12And13AreSpoken) {
  StartText();
  const auto code_with = [this](long version) {
    const auto transfer = To("/");
    transfer->Set(CURLOPT_SSLVERSION, version);
    transfer->Set(CURLOPT_SSL_CIPHER_LIST, "ALL:@SECLEVEL=0");  // or the client would not offer the old ones
    return transfer->Run().curl_code;
  };
  EXPECT_EQ(code_with(kTls12), CURLE_OK);
  EXPECT_EQ(code_with(kTls13), CURLE_OK);
  EXPECT_EQ(code_with(kTls11), CURLE_SSL_CONNECT_ERROR);
  EXPECT_EQ(code_with(kTls10), CURLE_SSL_CONNECT_ERROR);
}

TEST_F(HttpTlsTest, PlaintextEndsTheConnection) {
  StartText();
  RawHttp client(server_->url());
  client.Send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_THAT(client.ReadToEnd(), Not(HasSubstr("text")));
}

TEST_F(HttpTlsTest, HandshakeThatDoesNotComeEndsWithTheHeadsLimit) {
  settings_.head_limit = seconds(1);
  StartText();
  RawHttp client(server_->url());
  EXPECT_EQ(client.ReadToEnd(), "");
}

TEST_F(HttpTlsTest, CertificateIsReplacedWithoutARestart) {
  StartText();
  const auto former = To("/");
  EXPECT_EQ(former->Run().body, "text");
  const TestCertificate next = MakeTestCertificate();
  Replace("certificate", next.certificate);
  Replace("key", next.key);
  EXPECT_TRUE(Eventually([&] { return Has(next); }));
  EXPECT_FALSE(Has(own_));
  EXPECT_TRUE(events_.Has("the certificate " + temp_.File("certificate") + " was replaced, and is in use"));
  EXPECT_EQ(former->Run().body, "text") << "its connection lives on";
}

TEST_F(HttpTlsTest, WhileTheFilesDoNotFitTheFormerCertificateStays) {
  StartText();
  const TestCertificate next = MakeTestCertificate();
  const std::string kept = "the former certificate stays in use: ";
  Replace("certificate", next.certificate);
  EXPECT_TRUE(Eventually([&] {
    EXPECT_TRUE(Has(own_));
    return events_.Has(kept + "the key " + temp_.File("key") +
                       " can't be used: it is not that of the certificate " + temp_.File("certificate"));
  }));
  fs::remove(temp_.File("key"));
  EXPECT_TRUE(Eventually([&] {
    EXPECT_TRUE(Has(own_));
    return events_.Has(kept + "the key " + temp_.File("key") + " can't be used: No such file or directory");
  }));
  EXPECT_EQ(events_.lines().size(), 2U) << "once for each change: " << events_.text();
  Replace("key", next.key);
  EXPECT_TRUE(Eventually([&] { return Has(next); }));
}

TEST_F(HttpTlsTest, HandshakesGoOnWhileTheCertificateIsReplaced) {
  StartText();
  const std::array<TestCertificate, 2> pairs = {own_, MakeTestCertificate()};
  std::atomic<bool> stop{false};
  std::vector<std::future<int>> failures;
  failures.reserve(2);
  for (int i = 0; i < 2; ++i) {
    failures.push_back(std::async(std::launch::async, [&] {
      int failed = 0;
      while (!stop) {
        const auto transfer = To("/");
        Trust(*transfer, pairs[0].certificate + pairs[1].certificate);
        if (transfer->Run().body != "text") ++failed;
      }
      return failed;
    }));
  }
  for (std::size_t i = 1; i <= 4; ++i) {
    Replace("certificate", pairs.at(i % 2).certificate);
    Replace("key", pairs.at(i % 2).key);
    EXPECT_TRUE(Eventually([&] { return Has(pairs.at(i % 2)); }));
  }
  stop = true;
  for (auto& each : failures) EXPECT_EQ(each.get(), 0);
}

/// Files that can't be used.
struct BadFiles {
  const char* name;
  std::function<void(const TlsSettings& files)> spoil;
  const char* cause;
};

void PrintTo(const BadFiles& row, std::ostream* out) { *out << row.name; }

class HttpBadFilesTest : public HttpTlsTest, public ::testing::WithParamInterface<BadFiles> {};

TEST_P(HttpBadFilesTest, StartFailsWithTheCause) {
  WriteFile(temp_.File("authority"), own_.certificate);
  settings_.tls->client_authority = temp_.File("authority");
  GetParam().spoil(*settings_.tls);
  EXPECT_THAT(StartFails(), AllOf(HasSubstr(GetParam().cause), HasSubstr("; name ")));
}

INSTANTIATE_TEST_SUITE_P(
    HttpServerTest, HttpBadFilesTest,
    ::testing::Values(
        BadFiles{"no certificate", [](const TlsSettings& files) { fs::remove(files.certificate); },
                 "/certificate can't be used: No such file"},
        BadFiles{"no key", [](const TlsSettings& files) { fs::remove(files.key); },
                 "/key can't be used: No such file"},
        BadFiles{"no authority", [](const TlsSettings& files) { fs::remove(*files.client_authority); },
                 "/authority can't be used: No such file"},
        BadFiles{"empty certificate", [](const TlsSettings& files) { WriteFile(files.certificate, ""); },
                 "/certificate can't be used: "},
        BadFiles{"certificate that is none",
                 [](const TlsSettings& files) { WriteFile(files.certificate, "text"); },
                 "/certificate can't be used: "},
        BadFiles{"empty key", [](const TlsSettings& files) { WriteFile(files.key, ""); },
                 "/key can't be used: "},
        BadFiles{"key that is none", [](const TlsSettings& files) { WriteFile(files.key, "text"); },
                 "/key can't be used: "},
        BadFiles{
            "key with a passphrase",
            [](const TlsSettings& files) { WriteFile(files.key, Testing::EncryptKey(ReadFile(files.key))); },
            "/key can't be used: "},
        BadFiles{"key of another",
                 [](const TlsSettings& files) { WriteFile(files.key, MakeTestCertificate().key); },
                 "/key can't be used: it is not that of the certificate"},
        BadFiles{"empty authority", [](const TlsSettings& files) { WriteFile(*files.client_authority, ""); },
                 "/authority can't be used: "},
        BadFiles{"authority that is none",
                 [](const TlsSettings& files) { WriteFile(*files.client_authority, "text"); },
                 "/authority can't be used: "}));

// ---- TLS: clients' certificates ----

/// A client, and what the server makes of its certificate.
struct ClientCase {
  const char* title;
  std::function<TestCertificate(const TestCertificate& authority)> make;
  std::optional<std::string> name;
};

void PrintTo(const ClientCase& row, std::ostream* out) { *out << row.title; }

/// One that is right but for its common names.
std::function<TestCertificate(const TestCertificate&)> Named(std::vector<std::string> names) {
  return [names = std::move(names)](const TestCertificate& authority) {
    CertificateWish wish;
    wish.common_names = names;
    return IssueTestCertificate(authority, wish);
  };
}

/// One that is right but for its purpose and its time.
std::function<TestCertificate(const TestCertificate&)> Made(const std::string& purpose,
                                                            const Testing::Validity& validity) {
  return [=](const TestCertificate& authority) {
    CertificateWish wish;
    wish.purpose = purpose;
    wish.validity = validity;
    return IssueTestCertificate(authority, wish);
  };
}

class HttpClientCertificateTest : public HttpTlsTest {
 protected:
  void StartNaming(bool asks) {
    if (asks) {
      WriteFile(temp_.File("authority"), authority_.certificate);
      settings_.tls->client_authority = temp_.File("authority");
    }
    Start([](HttpRequest& request, const std::string&, const AnswerSink& done) {
      const auto& name = request.certificate_name();
      done(TextAnswer(name ? "name: " + *name : "nobody"));
    });
  }

  const TestCertificate authority_ = MakeTestCertificate({}, "Devices' authority");
};

class HttpClientNameTest : public HttpClientCertificateTest,
                           public ::testing::WithParamInterface<std::tuple<ClientCase, long>> {};

TEST_P(HttpClientNameTest, IsThatOfAValidCertificateOnly) {
  const auto& [row, version] = GetParam();
  StartNaming(true);
  const auto client = To("/");
  Present(*client, row.make(authority_));
  client->Set(CURLOPT_SSLVERSION, version);
  const std::string expected = row.name ? "name: " + *row.name : "nobody";
  EXPECT_EQ(client->Run().body, expected);
  EXPECT_EQ(client->Run().body, expected) << "the connection's second request";
}

constexpr const char* kPunctuation = R"( #a,b+c="d"\e<f>;g/h@i'j%k&l )";

INSTANTIATE_TEST_SUITE_P(
    HttpServerTest, HttpClientNameTest,
    ::testing::Combine(
        ::testing::Values(
            ClientCase{"valid", Named({"SN1"}), "SN1"}, ClientCase{"punctuation", Named({kPunctuation}), kPunctuation},
            ClientCase{"128 bytes", Named({std::string(128, 'x')}), std::string(128, 'x')},
            ClientCase{"without a purpose", Made("", {}), "SN1"},
            ClientCase{"for both purposes", Made("serverAuth,clientAuth", {}), "SN1"},
            ClientCase{"129 bytes", Named({std::string(129, 'x')}), std::nullopt},
            ClientCase{"two names", Named({"SN1", "SN2"}), std::nullopt},
            ClientCase{"the same name twice", Named({"SN1", "SN1"}), std::nullopt},
            ClientCase{"no name", Named({}), std::nullopt},
            ClientCase{"NUL", Named({std::string("SN1\0.evil", 9)}), std::nullopt},
            ClientCase{"line end", Named({"SN1\n"}), std::nullopt},
            ClientCase{"beyond ASCII", Named({"SN\xc3\xa4"}), std::nullopt},
            ClientCase{"expired", Made("clientAuth", {-7200, -3600}), std::nullopt},
            ClientCase{"not yet valid", Made("clientAuth", {3600, 7200}), std::nullopt},
            ClientCase{"for a server", Made("serverAuth", {}), std::nullopt},
            ClientCase{"another authority",
                       [](const TestCertificate&) {
                         return IssueTestCertificate(MakeTestCertificate({}, "Devices' authority"));
                       },
                       std::nullopt},
            ClientCase{"self-signed",
                       [](const TestCertificate&) { return MakeTestCertificate({}, "SN1"); }, std::nullopt},
            ClientCase{"issued by a client",
                       [](const TestCertificate& authority) {
                         const TestCertificate client = IssueTestCertificate(authority);
                         TestCertificate forged = IssueTestCertificate(client);
                         forged.certificate += client.certificate;
                         return forged;
                       },
                       std::nullopt}),
        ::testing::Values(kTls12,
                          kTls13)));

TEST_F(HttpClientCertificateTest, ClientWithoutOneIsServedWithoutAName) {
  StartNaming(true);
  EXPECT_EQ(Get("/").body, "nobody");
}

TEST_F(HttpClientCertificateTest, WithoutAnAuthorityNobodyIsAsked) {
  StartNaming(false);
  const auto client = To("/");
  Present(*client, IssueTestCertificate(authority_));
  EXPECT_EQ(client->Run().body, "nobody");
}

TEST_F(HttpClientCertificateTest, RefusedStrangerGetsNoMoreTimeThanAHead) {
  settings_.head_limit = seconds(1);
  WriteFile(temp_.File("authority"), authority_.certificate);
  settings_.tls->client_authority = temp_.File("authority");
  StartWith([](HttpRequest& request) -> std::unique_ptr<Exchange> {
    EXPECT_FALSE(request.certificate_name());
    return std::make_unique<RefusedExchange>(TextAnswer("who?"));
  });
  const auto client = To("/");
  client->Set(CURLOPT_CONNECT_ONLY, 1L);
  EXPECT_EQ(client->Run().curl_code, CURLE_OK);
  const std::string request = "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\nand then nothing";
  std::size_t count = 0;
  EXPECT_EQ(curl_easy_send(client->get(), request.data(), request.size(), &count), CURLE_OK);
  EXPECT_TRUE(Eventually([&] {
    std::array<char, 100> answer{};
    const CURLcode code = curl_easy_recv(client->get(), answer.data(), answer.size(), &count);
    EXPECT_TRUE(code != CURLE_OK || count == 0) << "the answer comes behind the body";
    return code != CURLE_AGAIN;
  }));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
