#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cstdlib>
#include <mutex>

#include "platform/support_service_client.h"
#include "temp_dir.h"
#include "test_certificate.h"

namespace TarvoOrvane::Utils {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Testing::TempDir;

/// A loopback HTTP server that keeps the last request and gives a fixed answer.
class HttpServer {
 public:
  explicit HttpServer(const Testing::TestCertificate* certificate = nullptr) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const unsigned flags =
        MHD_USE_INTERNAL_POLLING_THREAD | (certificate != nullptr ? unsigned{MHD_USE_TLS} : 0u);
    daemon_ = certificate == nullptr
                  ? MHD_start_daemon(flags, 0, nullptr, nullptr, &OnRequest, this, MHD_OPTION_SOCK_ADDR,
                                     &address, MHD_OPTION_END)
                  : MHD_start_daemon(flags, 0, nullptr, nullptr, &OnRequest, this, MHD_OPTION_SOCK_ADDR,
                                     &address, MHD_OPTION_HTTPS_MEM_CERT, certificate->certificate.c_str(),
                                     MHD_OPTION_HTTPS_MEM_KEY, certificate->key.c_str(), MHD_OPTION_END);
  }
  ~HttpServer() {
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  [[nodiscard]] std::string host_and_port() const {
    return "127.0.0.1:" + std::to_string(MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port);
  }
  [[nodiscard]] std::string url() const { return "http://" + host_and_port() + "/path"; }

  unsigned status = 200;
  std::string answer = "answer";
  std::string location;

  // Of the last request; to be looked at once the transfer is over.
  std::string method;
  std::string body;
  std::vector<std::string> headers;
  int requests = 0;

 private:
  static MHD_Result AddHeader(void* self, MHD_ValueKind, const char* name, const char* value) {
    static_cast<HttpServer*>(self)->headers.push_back(std::string(name) + ": " +
                                                      (value != nullptr ? value : ""));
    return MHD_YES;
  }

  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char*, const char* method,
                              const char*, const char* data, size_t* size, void** state) {
    auto& server = *static_cast<HttpServer*>(self);
    if (*state == nullptr) {
      *state = self;
      server.body.clear();
      server.headers.clear();
      return MHD_YES;
    }
    if (*size > 0) {
      server.body.append(data, *size);
      *size = 0;
      return MHD_YES;
    }
    server.method = method;
    ++server.requests;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &AddHeader, self);
    return server.Answer(connection);
  }

  MHD_Result Answer(MHD_Connection* connection) {
    MHD_Response* response =
        MHD_create_response_from_buffer(answer.size(), answer.data(), MHD_RESPMEM_MUST_COPY);
    if (!location.empty()) MHD_add_response_header(response, "Location", location.c_str());
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
  }

  MHD_Daemon* daemon_ = nullptr;
};

CurlHandle NewHandle(const std::string& url) {
  CurlHandle handle(curl_easy_init(), &curl_easy_cleanup);
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, 10L);
  return handle;
}

/// What the transfer fails with.
CURLcode FailureOf(CurlHandle& handle, std::string* message = nullptr) {
  try {
    CurlPerform(handle);
    return CURLE_OK;
  } catch (const CurlFailedException& failure) {
    if (message != nullptr) *message = failure.what();
    return failure.code;
  }
}

CURLcode FailureOfGet(const std::string& url, std::string* message = nullptr) {
  CurlHandle handle = NewHandle(url);
  std::string out;
  CurlSetupWriteToString(handle, out);
  return FailureOf(handle, message);
}

TEST(CurlPerformTest, TheAnswersBodyIsAppendedToTheString) {
  HttpServer server;
  CurlHandle handle = NewHandle(server.url());
  server.answer = std::string(300'000, 'a') + '\0' + "end";
  std::string out = "before ";
  CurlSetupWriteToString(handle, out);
  CurlPerform(handle);
  EXPECT_EQ(out, "before " + server.answer);
  CurlPerform(handle);
  EXPECT_EQ(out, "before " + server.answer + server.answer);
}

TEST(CurlPerformTest, AnHttpErrorStatusIsNoFailure) {
  HttpServer server;
  server.status = 500;
  CurlHandle handle = NewHandle(server.url());
  std::string out;
  CurlSetupWriteToString(handle, out);
  EXPECT_NO_THROW(CurlPerform(handle));
  EXPECT_EQ(out, "answer");
}

TEST(CurlPerformTest, AFailureCarriesItsCodeAndSaysMoreThanTheCode) {
  std::string closed_port;
  {
    const HttpServer server;
    closed_port = server.url();
  }
  std::string message;
  EXPECT_EQ(FailureOfGet(closed_port, &message), CURLE_COULDNT_CONNECT);
  EXPECT_THAT(message,
              StartsWith("CurlPerform: Couldn't connect to server: Failed to connect to 127.0.0.1 port"));
}

TEST(CurlPerformTest, WithoutAHandleItThrowsInsteadOfCrashing) {
  CurlHandle none(nullptr, &curl_easy_cleanup);
  std::string out;
  EXPECT_THROW(CurlPerform(none), CurlFailedException);
  EXPECT_THROW(CurlSetupWriteToString(none, out), CurlFailedException);
}

TEST(CurlPolicyTest, OnlyHttpAndHttpsAreAllowed) {
  const TempDir folder;
  EXPECT_EQ(FailureOfGet("file://" + folder.Write("secret", "text")), CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(FailureOfGet("ftp://127.0.0.1/"), CURLE_UNSUPPORTED_PROTOCOL);
}

TEST(CurlPolicyTest, ABareHostAndPortMeansHttps) {
  HttpServer server;
  EXPECT_EQ(FailureOfGet(server.host_and_port() + "/path"), CURLE_SSL_CONNECT_ERROR);
  EXPECT_EQ(server.requests, 0);
}

TEST(CurlPolicyTest, ARedirectIsNotFollowed) {
  HttpServer elsewhere;
  HttpServer server;
  server.status = 302;
  server.location = elsewhere.url();
  EXPECT_EQ(FailureOfGet(server.url()), CURLE_OK);
  EXPECT_EQ(server.requests, 1);
  EXPECT_EQ(elsewhere.requests, 0);
}

TEST(CurlPolicyTest, AProxyFromTheEnvironmentIsIgnored) {
  HttpServer server;
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  EXPECT_EQ(FailureOfGet(server.url()), CURLE_OK);
  unsetenv("http_proxy");
  EXPECT_EQ(server.requests, 1);
}

TEST(CurlPolicyTest, TheServersCertificateIsVerified) {
  const auto certificate = Testing::MakeTestCertificate();
  HttpServer server(&certificate);
  EXPECT_EQ(FailureOfGet("https://" + server.host_and_port()), CURLE_PEER_FAILED_VERIFICATION);

  const TempDir folder;
  CurlHandle handle = NewHandle(server.host_and_port());
  std::string out;
  CurlSetupWriteToString(handle, out);
  curl_easy_setopt(handle.get(), CURLOPT_CAINFO, folder.Write("ca.pem", certificate.certificate).c_str());
  EXPECT_EQ(FailureOf(handle), CURLE_OK) << "the same server, trusted";
  EXPECT_EQ(out, "answer");
}

TEST(CurlPolicyTest, TheServersNameIsVerified) {
  const auto certificate = Testing::MakeTestCertificate();
  HttpServer server(&certificate);
  const TempDir folder;
  const std::string port = server.host_and_port().substr(server.host_and_port().find(':'));
  CurlHandle handle = NewHandle("https://other.example" + port);
  std::string out;
  CurlSetupWriteToString(handle, out);
  const std::unique_ptr<curl_slist, void (*)(curl_slist*)> names(
      curl_slist_append(nullptr, ("other.example" + port + ":127.0.0.1").c_str()), &curl_slist_free_all);
  curl_easy_setopt(handle.get(), CURLOPT_RESOLVE, names.get());
  curl_easy_setopt(handle.get(), CURLOPT_CAINFO, folder.Write("ca.pem", certificate.certificate).c_str());
  EXPECT_EQ(FailureOf(handle), CURLE_PEER_FAILED_VERIFICATION);
}

TEST(CurlSlistAppendTest, LinesAreKeptInOrderAndCopied) {
  CurlHeaderList list(nullptr, &curl_slist_free_all);
  {
    std::string line = "First: 1";
    CurlSlistAppend(list, line);
    line = "changed";
  }
  curl_slist* const head = list.get();
  CurlSlistAppend(list, "Second: 2");
  ASSERT_EQ(list.get(), head);
  EXPECT_STREQ(list->data, "First: 1");
  ASSERT_NE(list->next, nullptr);
  EXPECT_STREQ(list->next->data, "Second: 2");
  EXPECT_EQ(list->next->next, nullptr);
}

TEST(CurlSlistAppendTest, ALineThatWouldEndEarlyOnTheWireIsRefusedAndTheListStays) {
  CurlHeaderList list(nullptr, &curl_slist_free_all);
  CurlSlistAppend(list, "First: 1");
  for (const std::string& line :
       {std::string("A: b\r"), std::string("A: b\nC: d"), std::string("A: \0b", 5)}) {
    try {
      CurlSlistAppend(list, line);
      ADD_FAILURE() << "taken: " << line;
    } catch (const std::invalid_argument& failure) {
      EXPECT_THAT(failure.what(), Not(HasSubstr("A:")));
    }
  }
  EXPECT_STREQ(list->data, "First: 1");
  EXPECT_EQ(list->next, nullptr);
}

TEST(CurlHttpPostAddTest, PartsArriveInOrderWithTheFilesContent) {
  HttpServer server;
  const TempDir folder;
  const std::string path = folder.Write("debug.dat", "file content");
  CurlHttpPost form;
  CurlHttpPostAdd(form, "debug_file", CURLFORM_FILE, path);
  curl_httppost* const head = form.first.get();
  CurlHttpPostAdd(form, "serial_number", CURLFORM_COPYCONTENTS, "");
  CurlHttpPostAdd(form, "debug_data_apps[0]", CURLFORM_COPYCONTENTS, "app");
  EXPECT_EQ(form.first.get(), head);
  EXPECT_STREQ(form.last->name, "debug_data_apps[0]");

  CurlHandle handle = NewHandle(server.url());
  std::string out;
  CurlSetupWriteToString(handle, out);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPPOST, form.first.get());
  CurlPerform(handle);
  EXPECT_EQ(server.method, "POST");
  std::vector<std::string> names;
  const std::string marker = "form-data; name=\"";
  for (size_t at = server.body.find(marker); at != std::string::npos; at = server.body.find(marker, at + 1)) {
    const size_t begin = at + marker.size();
    names.push_back(server.body.substr(begin, server.body.find('"', begin) - begin));
  }
  EXPECT_THAT(names, ElementsAre("debug_file", "serial_number", "debug_data_apps[0]"));
  EXPECT_THAT(server.body, HasSubstr("filename=\"debug.dat\""));
  EXPECT_THAT(server.body, HasSubstr("\r\n\r\nfile content\r\n"));
  EXPECT_THAT(server.body, HasSubstr("name=\"serial_number\"\r\n\r\n\r\n"));
}

TEST(CurlHttpPostAddTest, AnUnsupportedOptionOrANulIsRefusedAndTheEarlierPartsStay) {
  CurlHttpPost form;
  CurlHttpPostAdd(form, "first", CURLFORM_COPYCONTENTS, "1");
  const auto code_of = [&form](CURLformoption option, const std::string& value) {
    try {
      CurlHttpPostAdd(form, "second", option, value);
      return CURL_FORMADD_OK;
    } catch (const CurlFormFailedException& failure) {
      EXPECT_THAT(failure.what(), StartsWith("CurlHttpPostAdd: "));
      return failure.code;
    }
  };
  EXPECT_EQ(code_of(CURLFORM_PTRCONTENTS, "2"), CURL_FORMADD_UNKNOWN_OPTION);
  EXPECT_EQ(code_of(CURLFORM_COPYCONTENTS, std::string("2\0", 2)), CURL_FORMADD_NULL);
  EXPECT_STREQ(form.first->name, "first");
  EXPECT_EQ(form.first.get(), form.last);
  EXPECT_EQ(form.first->next, nullptr);
}

TEST(CurlHttpPostAddTest, AMissingFileIsFoundByTheTransfer) {
  HttpServer server;
  CurlHttpPost form;
  CurlHttpPostAdd(form, "debug_file", CURLFORM_FILE, "/nonexistent/debug.dat");
  CurlHandle handle = NewHandle(server.url());
  std::string out;
  CurlSetupWriteToString(handle, out);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPPOST, form.first.get());
  EXPECT_EQ(FailureOf(handle), CURLE_READ_ERROR);
}

}  // namespace
}  // namespace TarvoOrvane::Utils
