#include "css_server.h"

#include <json/value.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "css_exchange.h"
#include "head_watch.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {

/// At the server's end: for an answer to be taken by the system. Only a client that reads nothing needs so long.
constexpr std::chrono::seconds kSendLimit{10};

/// Counts the requests whose answers are awaited or not sent yet. The library drops both when it is stopped.
class UnderWay {
 public:
  /// @return false once the server ends.
  bool Begin() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ending_) return false;
    ++awaited_;
    ++unsent_;
    return true;
  }
  /// The answer to one that has begun is there.
  void NoteAnswer() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --awaited_;
    changed_.notify_all();
  }
  /// The library is done with one that has begun.
  void End() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --unsent_;
    changed_.notify_all();
  }
  /// Lets none begin, and waits for the end of those that have.
  void Close() {
    std::unique_lock<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.wait(lock, [this] { return awaited_ == 0; });
    changed_.wait_for(lock, kSendLimit, [this] { return unsent_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int awaited_ = 0;
  int unsent_ = 0;
  bool ending_ = false;
};

/// What the library's threads use.
struct CssParts {
  CssDesk desk;
  HeadWatch heads;
  UnderWay under_way;
};

namespace {

/// A thread waits for the disk while an archive's piece is written; the others go on meanwhile.
constexpr unsigned int kThreads = 4;
/// Each takes kConnectionBytes, whoever opens it.
constexpr unsigned int kMaxConnections = 1000;
/// Many devices may stand behind one address, but no address keeps out the others.
constexpr unsigned int kMaxConnectionsPerAddress = 200;
/// Headers and the piece of a body that is read at once.
constexpr std::size_t kConnectionBytes = std::size_t{256} * 1024;

std::string AnswerText(const Answer& answer) {
  Json::Value value(Json::objectValue);
  value["success"] = answer.error.empty();
  if (!answer.error.empty()) value["error"] = answer.error;
  return CompactJson(value);
}

MHD_Result Queue(MHD_Connection* connection, const Answer& answer) {
  std::string text = AnswerText(answer);
  MHD_Response* response = MHD_create_response_from_buffer(text.size(), text.data(), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;  // out of memory: the connection is closed
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
  if (answer.http_status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, MHD_HTTP_METHOD_POST);
  }
  const MHD_Result result = MHD_queue_response(connection, answer.http_status, response);
  MHD_destroy_response(response);
  return result;
}

std::string PeerOf(MHD_Connection* connection) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr) return "unknown address";
  const bool is_v6 = info->client_addr->sa_family == AF_INET6;
  return SocketAddressText(info->client_addr, is_v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
}

/// A request under way: the library's pointer to it.
struct Request {
  std::unique_ptr<Exchange> exchange;
  bool finished = false;         ///< Finish() was called; Abort() is not to be.
  bool counted = false;          ///< It is one of those that are under way.
  std::optional<Answer> answer;  ///< Set before the connection is resumed.
};

/// Has the exchange finish while the library's thread serves others. OnRequest() is called once more with its answer.
MHD_Result FinishLater(UnderWay& under_way, MHD_Connection* connection, Request& request) {
  // What is suspended when the server ends must have been counted before.
  if (!under_way.Begin()) {
    request.finished = true;
    return Queue(connection, {MHD_HTTP_SERVICE_UNAVAILABLE, "the service shuts down"});
  }
  request.finished = true;
  request.counted = true;
  MHD_suspend_connection(connection);
  request.exchange->Finish([&under_way, &request, connection](Answer answer) {
    request.answer = std::move(answer);
    MHD_resume_connection(connection);
    under_way.NoteAnswer();
  });
  return MHD_YES;
}

/// Called with the headers, then with each piece of the body, then once more at its end, and again when its answer is
/// there.
MHD_Result OnRequest(void* parts_pointer, MHD_Connection* connection, const char* url, const char* method,
                     const char* /*version*/, const char* data, std::size_t* size, void** state) noexcept {
  // Nothing may be thrown through the library, which is written in C. MHD_NO closes the connection.
  try {
    auto& parts = *static_cast<CssParts*>(parts_pointer);
    auto* request = static_cast<Request*>(*state);
    if (request == nullptr) {
      auto fresh = std::make_unique<Request>();
      fresh->exchange = BeginExchange(parts.desk, connection, url, method, PeerOf(connection));
      request = fresh.get();
      *state = fresh.release();
      // To answer now, before the body, is for refusals alone, and only where the client can be expected to see it.
      const auto* refused = dynamic_cast<RefusedExchange*>(request->exchange.get());
      // A refused one has no more time than its head had: its sender may be anybody.
      if (refused == nullptr) parts.heads.End(connection);
      if (refused == nullptr || RefusedExchange::IsWorthReading(connection)) return MHD_YES;
      request->finished = true;
      return Queue(connection, refused->answer());
    }
    if (*size > 0) {
      const bool go_on = request->exchange->TakeBody({data, *size});
      *size = 0;  // all of it was taken
      return go_on ? MHD_YES : MHD_NO;
    }
    if (request->answer) return Queue(connection, *request->answer);
    return FinishLater(parts.under_way, connection, *request);
  } catch (const std::exception&) {
    return MHD_NO;
  }
}

std::string CauseOf(MHD_RequestTerminationCode code) {
  switch (code) {
    case MHD_REQUEST_TERMINATED_TIMEOUT_REACHED:
      return "the body stopped arriving";
    case MHD_REQUEST_TERMINATED_DAEMON_SHUTDOWN:
      return "the service shuts down";
    default:
      return "the connection ended before the body was complete";
  }
}

int DescriptorOf(MHD_Connection* connection) {
  return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

/// Called at the end of each request, however it ended. Another one may follow on the connection.
void OnCompleted(void* parts_pointer, MHD_Connection* connection, void** state,
                 MHD_RequestTerminationCode code) noexcept {
  const std::unique_ptr<Request> request(static_cast<Request*>(*state));
  *state = nullptr;
  if (request && !request->finished) request->exchange->Abort(CauseOf(code));
  auto& parts = *static_cast<CssParts*>(parts_pointer);
  if (request && request->counted) parts.under_way.End();
  parts.heads.Begin(connection, DescriptorOf(connection));
}

/// Called when a connection was accepted, and before it is closed.
void OnConnection(void* parts_pointer, MHD_Connection* connection, void** /*state*/,
                  MHD_ConnectionNotificationCode code) noexcept {
  HeadWatch& heads = static_cast<CssParts*>(parts_pointer)->heads;
  if (code == MHD_CONNECTION_NOTIFY_CLOSED) return heads.End(connection);
  heads.Begin(connection, DescriptorOf(connection));
}

}  // namespace

CssServer::CssServer(CssDesk desk, const ListenAddress& address, const CssLimits& limits)
    : parts_(new CssParts{std::move(desk), HeadWatch(limits.head), {}}) {
  // Our own socket rather than the library's: it tells why an address can't be had, and which port the kernel chose.
  const int listener = OpenListener(address);
  sockaddr_storage bound{};
  socklen_t bound_size = sizeof(bound);
  getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &bound_size);
  url_ = "http://" + SocketAddressText(reinterpret_cast<const sockaddr*>(&bound), bound_size);
  daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, &OnRequest,
      parts_.get(), MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_THREAD_POOL_SIZE, kThreads,
      MHD_OPTION_CONNECTION_LIMIT, kMaxConnections, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionBytes,
      MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(limits.idle.count()),
      MHD_OPTION_NOTIFY_COMPLETED, &OnCompleted, parts_.get(), MHD_OPTION_NOTIFY_CONNECTION, &OnConnection,
      parts_.get(), MHD_OPTION_PER_IP_CONNECTION_LIMIT, kMaxConnectionsPerAddress, MHD_OPTION_END);
  if (daemon_ != nullptr) return;
  close(listener);
  throw std::runtime_error("cannot serve HTTP on " + address.text);
}

CssServer::~CssServer() {
  parts_->under_way.Close();
  MHD_stop_daemon(daemon_);
}

}  // namespace TarvoOrvane::SupportService
