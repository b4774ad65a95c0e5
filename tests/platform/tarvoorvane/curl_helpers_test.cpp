#include "curl_helpers.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "child_process.h"
#include "old_tls_server.h"
#include "scripted_tcp_server.h"
#include "syslog_recorder.h"
#include "temporary_folder.h"
#include "test_certificate.h"

namespace TarvoOrvane::Utils {
namespace {

using Internal::LimitDeadPeer;
using Internal::PerformTransfer;
using test_support::Ending;
using test_support::ExitedWith;
using test_support::TemporaryFolder;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using Testing::MakeTestCertificate;
using testing::Not;
using Testing::ScriptedTcpServer;
using testing::StartsWith;
using Testing::TestCertificate;

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
                              const char*, const char* data, std::size_t* size, void** state) {
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
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, 60L);
  return handle;
}

/// What the transfer fails with.
/// @param tls_folder  The device's own where it is missing.
CURLcode FailureOf(CurlHandle& handle, std::string* message = nullptr, const std::string& tls_folder = "") {
  try {
    if (tls_folder.empty()) {
      CurlPerform(handle);
    } else if (const auto fault = PerformTransfer(handle, tls_folder)) {
      throw CurlFailedException(fault->code, fault->text);
    }
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
  server.answer = std::string(100'000, 'a') + '\0' + "end";
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
  const TemporaryFolder folder;
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

TEST(CurlAnswerTest, OneThatFillsTheLimitExactlyIsTaken) {
  HttpServer server;
  CurlHandle handle = NewHandle(server.url());
  std::string out(Internal::kMaxAnswerBytes - server.answer.size(), ' ');
  CurlSetupWriteToString(handle, out);
  EXPECT_EQ(FailureOf(handle), CURLE_OK);
  EXPECT_EQ(out.size(), Internal::kMaxAnswerBytes);
}

TEST(CurlAnswerTest, OneThatExceedsTheLimitTogetherWithTheFormerAttemptsIsCutOffAndFails) {
  HttpServer server;
  CurlHandle handle = NewHandle(server.url());
  std::string out(Internal::kMaxAnswerBytes - server.answer.size() + 1, ' ');
  CurlSetupWriteToString(handle, out);
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::string message;
    EXPECT_EQ(FailureOf(handle, &message), CURLE_WRITE_ERROR);
    EXPECT_THAT(message, HasSubstr("is longer than 262144 bytes and was cut off"));
    EXPECT_EQ(out.size(), Internal::kMaxAnswerBytes);
  }
  EXPECT_THAT(out, testing::EndsWith(" answe"));
}

// ---- What else a server may send. ----

void Send(int connection, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = send(connection, &bytes[sent], bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return;
    sent += static_cast<std::size_t>(count);
  }
}

/// How a request ends that is answered by these bytes, after which the connection is closed.
class AnsweredBy {
 public:
  explicit AnsweredBy(std::string bytes)
      : bytes_(std::move(bytes)), server_([this](int connection) {
          Testing::ReadHead(connection);
          Send(connection, bytes_);
          shutdown(connection, SHUT_WR);
        }) {
    CurlSetupWriteToString(handle_, out_);
  }

  /// One attempt.
  /// @return "good", or why it failed.
  std::string Attempt() {
    curl_easy_setopt(handle_.get(), CURLOPT_URL, server_.url().c_str());
    std::string message;
    return FailureOf(handle_, &message) == CURLE_OK ? "good" : message;
  }

 private:
  const std::string bytes_;
  const ScriptedTcpServer server_;
  CurlHandle handle_ = NewHandle("");
  std::string out_;
};

std::string Repeated(const std::string& text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

const std::string kStatusLine = "HTTP/1.1 200 OK\r\n";
const std::string kChunked = kStatusLine + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kLastChunk = "6\r\nanswer\r\n0\r\n";
const auto kTooMuchHead = HasSubstr(
    ": the answer's head lines, with interim answers and trailers, are more than 65536 bytes or 1000 lines");

TEST(CurlHeadTest, AsManyLinesAsTheLimitAreTakenAndOneMoreIsNot) {
  // The status line and the empty line count.
  const std::string lines = Repeated("A: b\r\n", Internal::kMaxHeaderLines - 2);
  EXPECT_EQ(AnsweredBy(kStatusLine + lines + "\r\n").Attempt(), "good");
  EXPECT_THAT(AnsweredBy(kStatusLine + "C: d\r\n" + lines + "\r\n").Attempt(), kTooMuchHead);
}

TEST(CurlHeadTest, AsManyBytesAsTheLimitAreTakenAndOneMoreIsNot) {
  const std::size_t others = kStatusLine.size() + std::string("A: \r\n\r\n").size();
  const std::string value(Internal::kMaxHeaderBytes - others, 'x');
  EXPECT_EQ(AnsweredBy(kStatusLine + "A: " + value + "\r\n\r\n").Attempt(), "good");
  EXPECT_THAT(AnsweredBy(kStatusLine + "A: " + value + "x\r\n\r\n").Attempt(), kTooMuchHead);
}

TEST(CurlHeadTest, TrailersAndInterimAnswersCountToo) {
  const std::string half = Repeated("A: b\r\n", Internal::kMaxHeaderLines / 2);
  const std::string interim = "HTTP/1.1 103 Early Hints\r\n" + half + "\r\n";
  const std::string trailers = kLastChunk + half + "\r\n";
  EXPECT_EQ(AnsweredBy(interim + kChunked + kLastChunk + "\r\n").Attempt(), "good");
  EXPECT_EQ(AnsweredBy(kChunked + trailers).Attempt(), "good");
  EXPECT_THAT(AnsweredBy(interim + kChunked + trailers).Attempt(), kTooMuchHead);
  EXPECT_THAT(AnsweredBy(interim + interim + kChunked + kLastChunk + "\r\n").Attempt(), kTooMuchHead);
}

TEST(CurlHeadTest, EachAttemptBeginsAfresh) {
  AnsweredBy server(kStatusLine + Repeated("A: b\r\n", Internal::kMaxHeaderLines - 2) + "\r\n");
  for (int attempt = 0; attempt < 5; ++attempt) EXPECT_EQ(server.Attempt(), "good");
}

TEST(CurlHeadTest, ATransferCodingThatNobodyAskedForIsRefused) {
  for (const char* const coding :
       {"gzip", "gzip, chunked", "chunked, gzip", "zstd", "identity, gzip", "", "chunked;q=1"}) {
    std::string answer = kStatusLine;
    answer.append("transfer-ENCODING: ").append(coding).append("\r\n\r\n").append(kLastChunk).append("\r\n");
    EXPECT_THAT(AnsweredBy(answer).Attempt(),
                HasSubstr(": the answer has another transfer coding than chunked"))
        << coding;
  }
  EXPECT_EQ(AnsweredBy(kStatusLine + "Transfer-Encoding:\t ChunkeD \r\n\r\n" + kLastChunk + "\r\n").Attempt(),
            "good");
}

TEST(CurlHeadTest, OneLineWithoutAnEndIsNotTakenForAMissingMemoryAlone) {
  for (const std::string& before : {kStatusLine, kChunked + "0\r\n"}) {
    std::string answer = before;
    answer.append("A: ").append(200'000, 'x');
    EXPECT_THAT(AnsweredBy(answer).Attempt(),
                HasSubstr(", or one line of the answer's head or trailers was longer than libcurl takes"));
  }
}

TEST(CurlHeadTest, WhatIsDroppedUnseenIsBoundedByTheBytesThatCome) {
  const std::string extension(Internal::kMaxReceivedBytes / 2, 'x');
  EXPECT_EQ(AnsweredBy(kChunked + "1;" + extension + "\r\n1\r\n0\r\n\r\n").Attempt(), "good");
  EXPECT_THAT(AnsweredBy(kChunked + "1;" + Repeated(extension, 16)).Attempt(),
              HasSubstr(": the server has sent more than 4194304 bytes"));
}

TEST(CurlHeadTest, EachAttemptHasAConnectionOfItsOwnSoThatItsBytesAreCounted) {
  HttpServer server;
  CurlHandle handle = NewHandle(server.url());
  std::string out;
  CurlSetupWriteToString(handle, out);
  for (int attempt = 0; attempt < 2; ++attempt) {
    CurlPerform(handle);
    long made = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_NUM_CONNECTS, &made);
    EXPECT_EQ(made, 1);
  }
}

/// While its filter is there, the kernel drops what comes in for this socket.
void DropAll(int socket) {
  sock_filter drop_all = BPF_STMT(BPF_RET | BPF_K, 0);
  const sock_fprog program{1, &drop_all};
  ASSERT_EQ(setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program), 0);
}

/// libcurl calls it for each address that it tries: IPv4 is heard once IPv6 is tried beside it.
curl_socket_t OpenSocketAndHearIpv4(void* ipv4_listener, curlsocktype, curl_sockaddr* address) {
  const int drop = 0;
  if (address->family == AF_INET6) {
    EXPECT_EQ(
        setsockopt(*static_cast<const int*>(ipv4_listener), SOL_SOCKET, SO_DETACH_FILTER, &drop, sizeof drop),
        0);
  }
  return socket(address->family, address->socktype, address->protocol);
}

using Slist = std::unique_ptr<curl_slist, void (*)(curl_slist*)>;

/// Has the handle find these addresses under NAME:PORT, without a look-up.
/// @return What libcurl reads them from; to be kept as long as the handle.
Slist Resolve(const CurlHandle& handle, const std::string& name_and_port, const std::string& addresses) {
  Slist names(curl_slist_append(nullptr, (name_and_port + ":" + addresses).c_str()), &curl_slist_free_all);
  curl_easy_setopt(handle.get(), CURLOPT_RESOLVE, names.get());
  return names;
}

TEST(CurlHeadTest, OfTwoAddressesTriedAtOnceTheOneThatAnswersIsBounded) {
  const ScriptedTcpServer server([](int connection) {
    Testing::ReadHead(connection);
    Send(connection, kChunked + "1;" + std::string(8 * Internal::kMaxReceivedBytes, 'x'));
    shutdown(connection, SHUT_WR);
  });
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  address.sin6_port = htons(static_cast<std::uint16_t>(server.port()));
  const Internal::ScopedFd silent(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (bind(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(silent.get(), 1) != 0) {
    GTEST_SKIP() << "no IPv6 loopback to be had";
  }
  DropAll(silent.get());
  DropAll(server.listener());
  const std::string port = ":" + std::to_string(server.port());
  CurlHandle handle = NewHandle("http://two.example" + port);
  std::string out;
  CurlSetupWriteToString(handle, out);
  const Slist names = Resolve(handle, "two.example" + port, "127.0.0.1,[::1]");
  int listener = server.listener();
  curl_easy_setopt(handle.get(), CURLOPT_OPENSOCKETFUNCTION, &OpenSocketAndHearIpv4);
  curl_easy_setopt(handle.get(), CURLOPT_OPENSOCKETDATA, &listener);

  std::string message;
  EXPECT_EQ(FailureOf(handle, &message), CURLE_ABORTED_BY_CALLBACK);
  EXPECT_THAT(message, HasSubstr(": the server has sent more than 4194304 bytes"));
}

/// A form with one part of this size.
CurlHttpPost FormOf(std::size_t size) {
  CurlHttpPost form;
  CurlHttpPostAdd(form, "debug_file", CURLFORM_COPYCONTENTS, std::string(size, 'x'));
  return form;
}

/// @param out  Gets the answer.
CURLcode FailureOfPost(const ScriptedTcpServer& server, const CurlHttpPost& form, std::string& out) {
  CurlHandle handle = NewHandle(server.url());
  CurlSetupWriteToString(handle, out);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPPOST, form.first.get());
  return FailureOf(handle);
}

TEST(CurlUploadTest, AServerThatNeverSays100ContinueIsNotWaitedFor) {
  // libcurl by itself waits a second. One of five tries below that shows that ours does not, however busy the
  // machine is.
  std::atomic<bool> came_sooner{false};
  const ScriptedTcpServer server([&came_sooner](int connection) {
    const std::string begin = Testing::ReadHead(connection);
    EXPECT_THAT(begin, HasSubstr("Expect: 100-continue\r\n"));
    pollfd readable{connection, POLLIN, 0};
    if (poll(&readable, 1, 900) == 1) came_sooner = true;
    Testing::ReadBody(connection, begin);
    Testing::WriteAnswer(connection);
  });
  const CurlHttpPost form = FormOf(2UL << 20);
  for (int i = 0; i < 5 && !came_sooner; ++i) {
    std::string out;
    ASSERT_EQ(FailureOfPost(server, form, out), CURLE_OK);
    ASSERT_EQ(out, "answer");
  }
  EXPECT_TRUE(came_sooner);
}

// libcurl repeats the request without "Expect", unless it has begun to send the body: then the refusal is the answer.
TEST(CurlUploadTest, AServerThatRefusesTheExpectationKeepsNoAttemptWaiting) {
  std::atomic<int> asked{0};
  std::atomic<int> sent{0};
  const ScriptedTcpServer server([&](int connection) {
    const std::string begin = Testing::ReadHead(connection);
    if (begin.find("Expect:") != std::string::npos) {
      ++asked;
      Send(connection, "HTTP/1.1 417 Expectation Failed\r\nContent-Length: 0\r\n\r\n");
      return;
    }
    ++sent;
    Testing::ReadBody(connection, begin);
    Testing::WriteAnswer(connection);
  });
  const CurlHttpPost form = FormOf(2UL << 20);
  std::string out;
  ASSERT_EQ(FailureOfPost(server, form, out), CURLE_OK);
  EXPECT_EQ(asked, 1);
  EXPECT_LE(sent, 1);
  EXPECT_EQ(out, sent == 1 ? "answer" : "");
}

/// More than the sockets' buffers hold: who reads nothing of it stops the client.
constexpr std::size_t kMoreThanBuffersHold = 32UL << 20;
constexpr char kRefusal[] = "HTTP/1.1 403 Forbidden\r\nContent-Length: 7\r\n\r\nrefused";

TEST(CurlUploadTest, ARefusalIsHeardWhileTheBodyIsSentThoughTheServerReadsNoneOfIt) {
  const ScriptedTcpServer server([](int connection) {
    Testing::ReadHead(connection);
    Send(connection, kRefusal);
  });
  const CurlHttpPost form = FormOf(kMoreThanBuffersHold);
  std::string out;
  EXPECT_EQ(FailureOfPost(server, form, out), CURLE_OK);
  EXPECT_EQ(out, "refused");
}

curl_socket_t OpenAndNoteSocket(void* noted, curlsocktype, curl_sockaddr* address) {
  const curl_socket_t opened = socket(address->family, address->socktype, address->protocol);
  *static_cast<curl_socket_t*>(noted) = opened;
  return opened;
}

/// libcurl calls it with the body, while the connection is there.
std::size_t CheckLimits(char*, std::size_t, std::size_t count, void* noted) {
  const auto option = [socket = *static_cast<curl_socket_t*>(noted)](int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(socket, level, name, &value, &size);
    return value;
  };
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 60);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 15);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 4);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 120'000);
  return count;
}

TEST(CurlDeadPeerTest, EveryConnectionHasTheLimitOfTwoMinutes) {
  HttpServer server;
  server.answer = "answer";
  CurlHandle handle = NewHandle(server.url());
  std::string out;
  CurlSetupWriteToString(handle, out);
  curl_socket_t noted = CURL_SOCKET_BAD;
  curl_easy_setopt(handle.get(), CURLOPT_OPENSOCKETFUNCTION, &OpenAndNoteSocket);
  curl_easy_setopt(handle.get(), CURLOPT_OPENSOCKETDATA, &noted);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &CheckLimits);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &noted);
  CurlPerform(handle);
  curl_off_t size = 0;
  ASSERT_EQ(curl_easy_getinfo(handle.get(), CURLINFO_SIZE_DOWNLOAD_T, &size), CURLE_OK);
  EXPECT_EQ(size, 6) << "the limits were looked at";
}

constexpr std::chrono::seconds kShortLimit{2};

int LimitShortly(void*, curl_socket_t socket, curlsocktype) {
  return LimitDeadPeer(socket, kShortLimit) ? CURL_SOCKOPT_OK : CURL_SOCKOPT_ERROR;
}

/// Uploads with the limit shortened to kShortLimit.
CURLcode FailureOfUpload(const std::string& url, std::size_t size, std::string* message = nullptr) {
  const CurlHttpPost form = FormOf(size);
  CurlHandle handle = NewHandle(url);
  std::string out;
  CurlSetupWriteToString(handle, out);
  curl_easy_setopt(handle.get(), CURLOPT_SOCKOPTFUNCTION, &LimitShortly);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPPOST, form.first.get());
  return FailureOf(handle, message);
}

void ExpectUploadTimesOut(const ScriptedTcpServer& server) {
  std::string message;
  EXPECT_THAT(FailureOfUpload(server.url(), kMoreThanBuffersHold, &message),
              AnyOf(CURLE_SEND_ERROR, CURLE_RECV_ERROR));
  EXPECT_THAT(message, HasSubstr("Connection timed out"));
}

TEST(CurlDeadPeerTest, OneThatDiesDuringTheUploadIsGivenUpBeforeTheTransfersLimit) {
  const ScriptedTcpServer server([](int connection) {
    Testing::ReadHead(connection);
    DropAll(connection);  // as if its host were gone
  });
  ExpectUploadTimesOut(server);
}

TEST(CurlDeadPeerTest, OneThatDiesBeforeItAnswersIsGivenUpBeforeTheTransfersLimit) {
  const ScriptedTcpServer server([](int connection) {
    Testing::ReadBody(connection, Testing::ReadHead(connection));
    DropAll(connection);  // as if its host were gone
  });
  std::string message;
  EXPECT_EQ(FailureOfUpload(server.url(), 1000, &message), CURLE_RECV_ERROR);
  EXPECT_THAT(message, HasSubstr("Connection timed out"));
}

TEST(CurlDeadPeerTest, OneThatLivesButReadsNothingForTheWholeLimitIsGivenUp) {
  const ScriptedTcpServer server([](int connection) { Testing::ReadHead(connection); });
  ExpectUploadTimesOut(server);
}

TEST(CurlDeadPeerTest, OneThatHasEverythingAndAnswersAfterTheLimitIsLeftInPeace) {
  const ScriptedTcpServer server([](int connection) {
    Testing::ReadBody(connection, Testing::ReadHead(connection));
    std::this_thread::sleep_for(kShortLimit * 1.5);  // beyond the limit, which is what is tested
    Testing::WriteAnswer(connection);
  });
  EXPECT_EQ(FailureOfUpload(server.url(), 1000), CURLE_OK);
}

class CurlTlsTest : public testing::Test {
 protected:
  CurlTlsTest() { Testing::TakeSyslogLines(); }

  void Trust(const TestCertificate& certificate) const { folder_.Write("ca.pem", certificate.certificate); }
  void WriteClientFiles() const {
    folder_.Write("client.pem", device_.certificate);
    chmod(folder_.Write("client.key", device_.key).c_str(), 0600);
  }
  CURLcode FailureOfGet(const std::string& url, std::string* message = nullptr) {
    CurlHandle handle = NewHandle(url);
    std::string out;
    CurlSetupWriteToString(handle, out);
    return FailureOf(handle, message, folder_.File(""));
  }

  const TemporaryFolder folder_;
  const TestCertificate certificate_ = MakeTestCertificate();
  // A name of its own: OpenSSL looks an issuer up by its name, and the first one found decides.
  const TestCertificate device_ = MakeTestCertificate({}, "device");
};

TEST_F(CurlTlsTest, TheServersCertificateIsVerified) {
  HttpServer server(&certificate_);
  EXPECT_EQ(FailureOfGet("https://" + server.host_and_port()), CURLE_PEER_FAILED_VERIFICATION);
  Trust(device_);
  EXPECT_EQ(FailureOfGet("https://" + server.host_and_port()), CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(server.requests, 0);
  Trust(certificate_);
  EXPECT_EQ(FailureOfGet("https://" + server.host_and_port()), CURLE_OK) << "the same server, trusted";
  EXPECT_EQ(FailureOfGet(server.host_and_port()), CURLE_OK) << "https is the default";
}

TEST_F(CurlTlsTest, TheServersNameIsVerified) {
  HttpServer server(&certificate_);
  Trust(certificate_);
  const std::string port = server.host_and_port().substr(server.host_and_port().find(':'));
  CurlHandle handle = NewHandle("https://other.example" + port);
  std::string out;
  CurlSetupWriteToString(handle, out);
  const Slist names = Resolve(handle, "other.example" + port, "127.0.0.1");
  EXPECT_EQ(FailureOf(handle, nullptr, folder_.File("")), CURLE_PEER_FAILED_VERIFICATION);
}

/// Makes `folder` the system's folder of roots, for this process alone.
bool BecomeSystemRoots(const std::string& folder) {
  return unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(folder.c_str(), "/etc/ssl/certs", nullptr, MS_BIND, nullptr) == 0;
}

constexpr int kNoNamespace = 77;

TEST_F(CurlTlsTest, TheSystemsRootsAreTrustedUntilThereIsACaFile) {
  const TemporaryFolder roots;
  roots.Write(Testing::HashedName(certificate_.certificate), certificate_.certificate);
  const Ending ending = test_support::RunInChild([&] {
    if (!BecomeSystemRoots(roots.File(""))) return kNoNamespace;
    // Not before the fork: its thread might hold a lock of the allocator then, which nobody would release here.
    HttpServer server(&certificate_);
    if (FailureOfGet("https://" + server.host_and_port()) != CURLE_OK) return 1;
    Trust(device_);
    return FailureOfGet("https://" + server.host_and_port()) == CURLE_PEER_FAILED_VERIFICATION ? 0 : 2;
  });
  if (ending.exit_status == kNoNamespace) GTEST_SKIP() << "no mount namespace to be had";
  EXPECT_THAT(ending, ExitedWith(0)) << "1: the system's root was not trusted, 2: it was beside the CA file";
}

TEST_F(CurlTlsTest, MissingSystemRootsAreALogLineAndNoConnectionIsTried) {
  const TemporaryFolder roots;
  roots.Write("certificate.pem", certificate_.certificate);
  const Ending ending = test_support::RunInChild([&] {
    if (!BecomeSystemRoots(roots.File(""))) return kNoNamespace;
    HttpServer server(&certificate_);  // not before the fork, as above
    std::string message;
    if (FailureOfGet("https://" + server.host_and_port(), &message) != CURLE_SSL_CERTPROBLEM) return 1;
    if (message.find("install ca-certificates") == std::string::npos) return 2;
    if (Testing::TakeSyslogText().find("/etc/ssl/certs holds no certificate") == std::string::npos) return 3;
    Trust(certificate_);
    return FailureOfGet("https://" + server.host_and_port()) == CURLE_OK ? 0 : 4;
  });
  if (ending.exit_status == kNoNamespace) GTEST_SKIP() << "no mount namespace to be had";
  EXPECT_THAT(ending, ExitedWith(0))
      << "1: a connection was tried, 2, 3: nobody was told what to do, 4: ca.pem does not suffice";
}

TEST_F(CurlTlsTest, AServerThatSpeaksNothingNewerThanTls11IsRefused) {
  Testing::OldTlsServer server(certificate_);
  Trust(certificate_);
  EXPECT_EQ(FailureOfGet("https://127.0.0.1:" + std::to_string(server.port())), CURLE_SSL_CONNECT_ERROR);
  EXPECT_THAT(server.AwaitOfferedVersions(), testing::UnorderedElementsAre(TLS1_2_VERSION, TLS1_3_VERSION));
  EXPECT_FALSE(server.shook_hands());
}

TEST_F(CurlTlsTest, EveryProblemOfTheFilesIsALogLineAndNoConnectionIsTried) {
  const ScriptedTcpServer server([](int) {});
  folder_.Write("ca.pem", "no PEM");
  folder_.Write("client.pem", device_.certificate);
  std::string message;
  EXPECT_EQ(FailureOfGet(server.host_and_port(), &message), CURLE_SSL_CERTPROBLEM);
  EXPECT_THAT(message, StartsWith("No connection was tried: " + folder_.File("")));
  EXPECT_EQ(server.connections(), 0);
  const auto lines = Testing::TakeSyslogLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0].text, HasSubstr("ca.pem: holds no PEM certificate"));
  EXPECT_THAT(lines[1].text, HasSubstr("client.key: is missing"));
}

TEST_F(CurlTlsTest, APlaintextRequestDoesNotNeedTheFiles) {
  HttpServer server;
  folder_.Write("ca.pem", "no PEM");
  EXPECT_EQ(FailureOfGet(server.url()), CURLE_OK);
}

/// Takes any client's certificate.
int TakeAnyCertificate(int, X509_STORE_CTX*) { return 1; }

/// Takes HTTP/2 where it is offered, and keeps what is.
int PreferHttp2(SSL*, const unsigned char** out, unsigned char* size, const unsigned char* offered,
                unsigned offered_size, void* kept) {
  static_cast<std::string*>(kept)->assign(reinterpret_cast<const char*>(offered), offered_size);
  static constexpr unsigned char kPreferred[] = "\x02h2\x08http/1.1";
  return SSL_select_next_proto(const_cast<unsigned char**>(out), size, kPreferred, sizeof kPreferred - 1,
                               offered, offered_size) == OPENSSL_NPN_NEGOTIATED
             ? SSL_TLSEXT_ERR_OK
             : SSL_TLSEXT_ERR_NOACK;
}

constexpr char kLastAnswer[] = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 6\r\n\r\nanswer";

/// What a client of ServeTls() has shown.
struct TlsClient {
  std::string certificate;  ///< Empty when it has none.
  std::string protocols;    ///< As they stand in its greeting, a length before each.
};

/// A handler that gives a TLS request's head that answer.
std::function<void(int)> ServeTls(const TestCertificate& own, TlsClient& client,
                                  const std::string& answer = kLastAnswer) {
  return [own, &client, answer](int connection) {
    const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context(SSL_CTX_new(TLS_server_method()),
                                                               &SSL_CTX_free);
    const auto certificate = Testing::ParseCertificate(own.certificate);
    const auto key = Testing::ParseKey(own.key);
    SSL_CTX_use_certificate(context.get(), certificate.get());
    SSL_CTX_use_PrivateKey(context.get(), key.get());
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, &TakeAnyCertificate);
    SSL_CTX_set_alpn_select_cb(context.get(), &PreferHttp2, &client.protocols);
    const std::unique_ptr<SSL, void (*)(SSL*)> ssl(SSL_new(context.get()), &SSL_free);
    SSL_set_fd(ssl.get(), connection);
    if (SSL_accept(ssl.get()) != 1) return;
    const std::unique_ptr<X509, void (*)(X509*)> shown(SSL_get1_peer_certificate(ssl.get()), &X509_free);
    client.certificate = shown ? Testing::CertificateText(shown.get()) : "";
    char request[4096];
    SSL_read(ssl.get(), request, sizeof request);
    SSL_write(ssl.get(), answer.data(), static_cast<int>(answer.size()));
  };
}

TEST_F(CurlTlsTest, OnlyHttp11IsOfferedAndARefusalIsHeardWhileTheBodyIsSent) {
  TlsClient client;
  const ScriptedTcpServer server(ServeTls(certificate_, client, kRefusal));
  Trust(certificate_);
  const CurlHttpPost form = FormOf(kMoreThanBuffersHold);
  CurlHandle handle = NewHandle("https://" + server.host_and_port());
  std::string out;
  CurlSetupWriteToString(handle, out);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPPOST, form.first.get());
  EXPECT_EQ(FailureOf(handle, nullptr, folder_.File("")), CURLE_OK);
  EXPECT_EQ(out, "refused");
  EXPECT_EQ(client.protocols, "\x08http/1.1");
}

TEST_F(CurlTlsTest, TheFilesAreReadAfreshAtEachAttempt) {
  TlsClient client;
  const ScriptedTcpServer server(ServeTls(certificate_, client));
  CurlHandle handle = NewHandle(server.host_and_port());
  std::string out;
  CurlSetupWriteToString(handle, out);
  const auto attempt = [&] { return FailureOf(handle, nullptr, folder_.File("")); };

  folder_.Write("ca.pem", "no PEM");
  EXPECT_EQ(attempt(), CURLE_SSL_CERTPROBLEM);
  Trust(certificate_);
  EXPECT_EQ(attempt(), CURLE_OK);
  EXPECT_EQ(client.certificate, "");
  WriteClientFiles();
  EXPECT_EQ(attempt(), CURLE_OK);
  EXPECT_EQ(client.certificate, device_.certificate);
  std::filesystem::remove(folder_.File("client.pem"));
  std::filesystem::remove(folder_.File("client.key"));
  EXPECT_EQ(attempt(), CURLE_OK);
  EXPECT_EQ(client.certificate, "");
  Trust(device_);
  EXPECT_EQ(attempt(), CURLE_PEER_FAILED_VERIFICATION);
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
  const TemporaryFolder folder;
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
  for (std::size_t at = server.body.find(marker); at != std::string::npos;
       at = server.body.find(marker, at + 1)) {
    const std::size_t begin = at + marker.size();
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
