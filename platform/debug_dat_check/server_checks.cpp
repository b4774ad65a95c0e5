#include "server_checks.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <grpcpp/channel.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "curl_helpers.h"
#include "daemon_json.h"
#include "file_util.h"
#include "notification_stream.h"
#include "platform/support_service_client.h"
#include "tarvo/support/v1/notification.grpc.pb.h"
#include "trusted_path.h"

namespace DebugDatCheck {
namespace {

namespace client = TarvoOrvane::Internal;
namespace form = TARVO::SupportForm;
using std::chrono::milliseconds;
using TarvoOrvane::Utils::CurlFailedException;
using TarvoOrvane::Utils::CurlHandle;

constexpr char kNotificationAddress[] = "notification address";
constexpr char kStream[] = "notification stream";
constexpr char kCssAddress[] = "CSS address";
constexpr char kCssServer[] = "CSS server";

/// The daemon's own paths, for archives and for reports. They are written into it.
constexpr std::array<const char*, 2> kCssPaths = {"/orvane/ps_files", "/orvane/ps_results"};

constexpr char kCheckServer[] =
    "Check that the server runs, the address and port in the configuration, and firewalls in between";
constexpr char kCheckAuthorities[] =
    "Put the authority that signed the server's certificate into /usr/tarvo/etc/tls/ca.pem, use the host "
    "name "
    "that the certificate is for, and check the device's clock";
constexpr char kCheckTls[] =
    "Check that the server speaks TLS at this port (if not: http://), and whether it wants client.pem and "
    "client.key of the device in /usr/tarvo/etc/tls";

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string SecondsText(milliseconds time) { return std::to_string(time.count() / 1000) + " s"; }

// ---- addresses ----

/// By the text alone. A name that leads to this machine by some other way is warned of, which does no harm.
bool IsLoopback(const std::string& host) {
  return host.empty() || host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

/// An address that can be used; in plaintext only this machine should be talked to.
Check UsableAddress(const std::string& name, const std::string& shown, const std::string& host, bool tls) {
  if (tls) return Ok(name, shown + ", TLS");
  if (host.empty()) return Ok(name, shown);
  if (IsLoopback(host)) return Ok(name, shown + ", not encrypted, to this machine");
  return Warning(name, shown + " is not encrypted", "Use https://: tickets and archives are confidential");
}

using CurlUrl = std::unique_ptr<CURLU, void (*)(CURLU*)>;

/// Empty where the URL has no such part.
std::string PartOf(const CurlUrl& url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, 0) != CURLUE_OK) return {};
  const std::unique_ptr<char, void (*)(void*)> owner(text, &curl_free);
  return text;
}

// ---- names ----

struct Lookup {
  int error = 0;         ///< As getaddrinfo() returns it.
  int system_error = 0;  ///< The errno for EAI_SYSTEM.
  std::vector<std::string> addresses;
};

std::string AddressText(const addrinfo& entry) {
  std::array<char, NI_MAXHOST> text{};
  const int error =
      getnameinfo(entry.ai_addr, entry.ai_addrlen, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
  return error == 0 ? text.data() : gai_strerror(error);
}

Lookup LookUp(const std::string& host, int flags) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* found = nullptr;
  Lookup result;
  result.error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  result.system_error = errno;
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(result.error == 0 ? found : nullptr,
                                                             &freeaddrinfo);
  for (const addrinfo* entry = owner.get(); entry != nullptr; entry = entry->ai_next) {
    result.addresses.push_back(AddressText(*entry));
  }
  return result;
}

/// @return Nothing when it takes longer than `limit`; the lookup, which can't be ended, then goes on by itself.
std::optional<Lookup> LookUpWithin(const std::string& host, milliseconds limit) {
  auto promise = std::make_shared<std::promise<Lookup>>();
  auto future = promise->get_future();
  // The thread has copies of all that it needs: it may outlive this function by minutes.
  std::thread([promise, host] { promise->set_value(LookUp(host, 0)); }).detach();
  if (future.wait_for(limit) != std::future_status::ready) return std::nullopt;
  return future.get();
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const auto& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}

// ---- the notification stream ----

/// One call of the service without a message, ended with the object.
class SilentCall {
 public:
  explicit SilentCall(const std::shared_ptr<grpc::Channel>& channel)
      : stub_(tarvo::support::v1::NotificationService::NewStub(channel)),
        call_(stub_->PrepareAsyncOpen(&context_, &completions_)) {}

  /// Waits for gRPC to be done with the call, which the cancelling makes prompt.
  ~SilentCall() {
    context_.TryCancel();
    completions_.Shutdown();
    bool ok = false;
    for (void* tag = nullptr; completions_.Next(&tag, &ok);) {
    }
  }
  SilentCall(const SilentCall&) = delete;
  SilentCall& operator=(const SilentCall&) = delete;

  enum class Outcome { kOpen, kEnded, kTimedOut };

  /// Opens the stream and waits whether it stays open.
  Outcome Open(const ServerLimits& limits) {
    bool ok = false;
    call_->StartCall(nullptr);
    if (!Await(limits.answer, ok)) return Outcome::kTimedOut;
    // The start succeeds as soon as there is a connection; a refusal comes with the first thing that is read.
    if (ok) {
      call_->Read(&message_, nullptr);
      if (!Await(limits.settle, ok) || ok) return Outcome::kOpen;
    }
    call_->Finish(&status_, nullptr);
    return Await(limits.settle, ok) ? Outcome::kEnded : Outcome::kTimedOut;
  }

  /// How the stream ended, after kEnded.
  [[nodiscard]] const grpc::Status& status() const { return status_; }

 private:
  /// Waits for the one operation that is under way.
  bool Await(milliseconds limit, bool& ok) {
    void* tag = nullptr;
    const auto deadline = std::chrono::system_clock::now() + limit;  // gRPC takes this clock
    return completions_.AsyncNext(&tag, &ok, deadline) == grpc::CompletionQueue::GOT_EVENT;
  }

  // In the order in which they depend on each other; operations under way refer to all of them.
  grpc::CompletionQueue completions_;
  grpc::ClientContext context_;
  tarvo::support::v1::ServerMessage message_;
  grpc::Status status_;
  std::unique_ptr<tarvo::support::v1::NotificationService::Stub> stub_;
  std::unique_ptr<
      grpc::ClientAsyncReaderWriter<tarvo::support::v1::ClientMessage, tarvo::support::v1::ServerMessage>>
      call_;
};

/// The ticket client's own limits, but for those that would make an operator wait.
client::StreamLimits StreamLimitsOf(const ServerLimits& limits) {
  client::StreamLimits result;
  result.name_lookup = limits.answer;
  result.connect = limits.answer;
  return result;
}

// A status has the same code for whatever kept a connection from coming about. gRPC tells the cause by its text alone,
// so these two look into it. What they don't know there they show as it is, under the most general advice.

/// The status's text; without gRPC's words around the cause where no connection came about.
std::string FaultOf(const grpc::Status& status) {
  const std::string& text = status.error_message();
  if (status.error_code() != grpc::StatusCode::UNAVAILABLE) {
    return "the server refused the stream: " + text + " (status " + std::to_string(status.error_code()) + ")";
  }
  constexpr char kBeforeCause[] = "last error: UNKNOWN: ";
  const std::size_t cause = text.find(kBeforeCause);
  return cause == std::string::npos ? text : text.substr(cause + sizeof kBeforeCause - 1);
}

/// Why this process may not connect to the address's unix socket, an errno value: gRPC tells it in its text alone. 0
/// where it may, or there is no such socket in the address.
int SocketError(const client::Address& address) {
  if (address.socket_path.empty()) return 0;
  return faccessat(AT_FDCWD, address.socket_path.c_str(), W_OK, AT_EACCESS) == 0 ? 0 : errno;
}

/// What to do about a connection that did not come about, or a stream that was refused.
std::string StreamAdvice(const grpc::Status& status) {
  const std::string& text = status.error_message();
  switch (status.error_code()) {
    case grpc::StatusCode::UNIMPLEMENTED:
      return "This server offers no notification service: put the notification server's address into the "
             "configuration, or let the gateway before it pass the service on";
    case grpc::StatusCode::UNAUTHENTICATED:
    case grpc::StatusCode::PERMISSION_DENIED:
      return "The server wants to know the device: ask its operator for client.pem and client.key, and put "
             "them "
             "into /usr/tarvo/etc/tls";
    case grpc::StatusCode::UNAVAILABLE:
      break;
    default:
      return "Ask the server's operator why it refuses the stream";
  }
  if (Contains(text, "certificate verify failed") || Contains(text, "Peer name")) return kCheckAuthorities;
  if (Contains(text, "Ssl handshake") || Contains(text, "SSL_ERROR") || Contains(text, "Handshake")) {
    return kCheckTls;
  }
  if (Contains(text, "http1")) {
    return "This is a web server and no gRPC server: put the notification server's address into the "
           "configuration";
  }
  if (Contains(text, "Socket closed") || Contains(text, "reset by peer") ||
      Contains(text, "settings frame")) {
    return "Check that this is a gRPC server, and whether it wants TLS (https://) instead of http://";
  }
  if (Contains(text, "DNS")) {
    return "The ticket client asks /etc/hosts and the name servers in /etc/resolv.conf; check those";
  }
  return kCheckServer;
}

// ---- the CSS server ----

std::string TransferAdvice(CURLcode code) {
  switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
      return kCheckAuthorities;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      return kCheckTls;
    case CURLE_GOT_NOTHING:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return "Check that this is a web server, and whether it wants https:// instead of http://";
    default:
      return kCheckServer;
  }
}

/// @throws CurlFailedException when libcurl refuses.
template <typename Value>
void SetOption(const CurlHandle& handle, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(handle.get(), option, value);
  if (code != CURLE_OK) throw CurlFailedException(code, curl_easy_strerror(code));
}

/// Whether a Content-Type, in which case does not matter, is that of a page for people.
bool IsWebPage(std::string type) {
  std::transform(type.begin(), type.end(), type.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return type.rfind("text/html", 0) == 0 || type.rfind("application/xhtml+xml", 0) == 0;
}

/// What a body is that the daemon would not take as an answer; empty where it is one.
/// @param type  The Content-Type; nullptr where there is none.
std::string OtherThanAnAnswer(const char* type, const std::string& body) {
  if (type != nullptr && IsWebPage(type)) return "a web page";
  Json::Value answer;
  const bool is_object = ParseAsTheDaemon(body, answer).empty() && answer.isObject();
  return is_object ? "" : "something else than a JSON object";
}

/// Judges an answer to a request for one of the daemon's paths. A refusal is in order, also one with a page for people.
/// A gateway before the CSS server may refuse a GET, or a request without a token, with a page of its own.
/// @param body  The answer's.
/// @return kOk with the status alone as its text.
Check AnswerCheck(const CurlHandle& handle, const CssAddress& address, const std::string& path,
                  const std::string& body) {
  long status = 0;
  const char* redirect = nullptr;
  const char* type = nullptr;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(handle.get(), CURLINFO_REDIRECT_URL, &redirect);
  curl_easy_getinfo(handle.get(), CURLINFO_CONTENT_TYPE, &type);
  const std::string text =
      "answers a request for " + path + " without ticket by HTTP " + std::to_string(status);
  if (status / 100 == 3) {
    return Problem(kCssServer,
                   text + (redirect == nullptr ? "" : ", a redirection to " + std::string(redirect)),
                   "The daemon follows no redirection: put the final address into the configuration");
  }
  if (status == 404 || status == 410) {
    return Problem(
        kCssServer, text + ": it does not serve that path",
        "Put the address into css_server.url behind which the server serves it, without a slash at its "
        "end");
  }
  const std::string other = status / 100 == 2 ? OtherThanAnAnswer(type, body) : "";
  if (!other.empty()) {
    return Problem(kCssServer, text + " with " + other + ": this is no CSS server",
                   "Put the CSS server's address into css_server.url");
  }
  if (status >= 500) {
    return Warning(kCssServer, text, "It may be out of order: ask the server's operator");
  }
  if (status == 400 && address.tls) {
    return Warning(kCssServer, text,
                   "It may want client.pem and client.key of the device: ask the server's operator");
  }
  return Ok(kCssServer, "HTTP " + std::to_string(status));
}

/// Asks for one of the daemon's paths.
Check CheckCssPath(const CssAddress& address, const std::string& path, const std::string& tls_folder,
                   const ServerLimits& limits) {
  CurlHandle handle(curl_easy_init(), &curl_easy_cleanup);
  std::string answer;  // CurlSetupWriteToString() bounds it
  try {
    // The URL and the time limit are the caller's in the daemon, too; all else is set by the library.
    SetOption(handle, CURLOPT_URL, (address.url + path).c_str());
    SetOption(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.answer.count()));
    TarvoOrvane::Utils::CurlSetupWriteToString(handle, answer);
    if (const auto fault = client::PerformTransfer(handle, tls_folder)) {
      return Problem(kCssServer, fault->text, TransferAdvice(fault->code));
    }
    return AnswerCheck(handle, address, path, answer);
  } catch (const CurlFailedException& failure) {  // an option could not be set
    return Problem(kCssServer, failure.what(), TransferAdvice(failure.code));
  }
}

}  // namespace

Check CheckNotificationAddress(const std::string& url, std::optional<client::Address>& out) {
  client::Address address;
  std::string fault;
  if (!client::ParseAddress(url, address, fault)) {
    return Problem(kNotificationAddress, fault, "Correct grpc_server.url, then restart the daemon");
  }
  out = address;
  if (!address.socket_path.empty()) {
    // gRPC does not ask who listens: it is who may put a socket there.
    const std::string folder = address.socket_path.substr(0, address.socket_path.rfind('/') + 1);
    const auto distrust = form::OpenTrusted(folder, O_PATH | O_DIRECTORY).distrust;
    if (distrust) return Warning(kNotificationAddress, url + ": " + distrust.text, distrust.advice);
  }
  return UsableAddress(kNotificationAddress, url, address.host, address.tls);
}

Check CheckCssAddress(const std::string& url, std::optional<CssAddress>& out) {
  const std::string advice = "Correct css_server.url: https://HOST[:PORT][/PATH], or http:// for plaintext";
  const CurlUrl parsed(curl_url(), &curl_url_cleanup);
  const CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_DEFAULT_SCHEME);
  if (code != CURLUE_OK) return Problem(kCssAddress, curl_url_strerror(code), advice);
  const std::string scheme = PartOf(parsed, CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https") {
    return Problem(kCssAddress, "the scheme " + scheme + " is not supported", advice);
  }
  CssAddress address{url, PartOf(parsed, CURLUPART_HOST), scheme == "https"};
  // Put together from its parts: a password that may stand in the address is nobody's business.
  const std::string port = PartOf(parsed, CURLUPART_PORT);  // empty unless the address has one
  const std::string path = PartOf(parsed, CURLUPART_PATH);
  const std::string shown =
      scheme + "://" + address.host + (port.empty() ? "" : ":" + port) + (path == "/" ? "" : path);
  if (url.find_first_of("?#") != std::string::npos) {
    return Problem(kCssAddress,
                   shown + " has a query or a fragment, behind which the daemon would append its paths",
                   advice);
  }
  // libcurl keeps the brackets; the resolver takes none.
  if (address.host.front() == '[') address.host = address.host.substr(1, address.host.size() - 2);
  out = address;
  if (url.back() == '/') {
    return Warning(kCssAddress, shown + " ends in a slash, and the daemon's paths begin with one",
                   "Remove the slash from css_server.url");
  }
  return UsableAddress(kCssAddress, shown, address.host, address.tls);
}

Check CheckHost(const std::string& name, const std::string& host, const ServerLimits& limits) {
  if (host.empty()) return Ok(name, "a unix socket, there is no name to look up");
  // With this flag nobody is asked.
  if (LookUp(host, AI_NUMERICHOST).error == 0) {
    return Ok(name, host + " is an address, there is no name to look up");
  }
  const std::string advice =
      "Correct the name in the configuration, or check the name servers in /etc/resolv.conf and the network";
  const std::optional<Lookup> lookup = LookUpWithin(host, limits.answer);
  if (!lookup) {
    return Problem(name, host + ": no name server answered within " + SecondsText(limits.answer), advice);
  }
  if (lookup->error == 0) return Ok(name, host + " is " + Joined(lookup->addresses));
  if (lookup->error == EAI_SYSTEM) {
    return Problem(name, host + ": " + form::ErrorText(lookup->system_error), advice, lookup->system_error);
  }
  return Problem(name, host + ": " + gai_strerror(lookup->error), advice);
}

Check CheckStream(const client::Address& address, const client::TlsFiles& tls,
                  const std::string& system_roots, const ServerLimits& limits) {
  client::TlsFiles used = tls;
  if (address.tls && used.authorities.empty() &&
      !client::ReadSystemRoots(system_roots, used.authorities).empty()) {
    return Problem(kStream, system_roots + " can't be read or holds no certificate",
                   "Install ca-certificates, or put the service's authority into /usr/tarvo/etc/tls/ca.pem");
  }
  SilentCall call(client::MakeChannel(address, used, StreamLimitsOf(limits)));
  switch (call.Open(limits)) {
    case SilentCall::Outcome::kOpen:
      return Ok(kStream, "opens (closed again without a word; the device did not register)");
    case SilentCall::Outcome::kTimedOut:
      return Problem(kStream, "no answer within " + SecondsText(limits.answer), kCheckServer);
    case SilentCall::Outcome::kEnded:
      break;
  }
  const grpc::Status& status = call.status();
  if (status.ok()) {
    return Problem(kStream, "the server closed the stream at once",
                   "Ask the server's operator; the daemon would try again and again");
  }
  return Problem(kStream, FaultOf(status), StreamAdvice(status), SocketError(address));
}

Check CheckCssServer(const CssAddress& address, const std::string& tls_folder, const ServerLimits& limits) {
  std::optional<Check> warning;
  std::string answers;
  for (const char* path : kCssPaths) {
    const Check check = CheckCssPath(address, path, tls_folder, limits);
    if (check.state == State::kProblem) return check;
    if (check.state == State::kWarning && !warning) warning = check;
    if (check.text != answers) answers += (answers.empty() ? "" : " and ") + check.text;
  }
  return warning ? *warning : Ok(kCssServer, "answers requests without ticket by " + answers);
}

}  // namespace DebugDatCheck
