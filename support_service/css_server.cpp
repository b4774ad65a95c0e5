#include "css_server.h"

#include <json/value.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <unistd.h>

#include <exception>
#include <stdexcept>
#include <utility>

#include "css_exchange.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

/// A thread waits for the disk while an archive's piece is written; the others go on meanwhile.
constexpr unsigned int kThreads = 4;
/// Each takes kConnectionBytes, whoever opens it.
constexpr unsigned int kMaxConnections = 256;
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
  bool finished = false;  ///< Finish() was called; Abort() is not to be.
};

/// Called with the headers, then with each piece of the body, then once more at its end.
MHD_Result OnRequest(void* desk, MHD_Connection* connection, const char* url, const char* method,
                     const char* /*version*/, const char* data, std::size_t* size, void** state) noexcept {
  // Nothing may be thrown through the library, which is written in C. MHD_NO closes the connection.
  try {
    auto* request = static_cast<Request*>(*state);
    if (request == nullptr) {
      auto fresh = std::make_unique<Request>();
      fresh->exchange =
          BeginExchange(*static_cast<CssDesk*>(desk), connection, url, method, PeerOf(connection));
      request = fresh.get();
      *state = fresh.release();
      // To answer now, before the body, is for refusals alone, and only where the client can be expected to see it.
      const bool refused = dynamic_cast<RefusedExchange*>(request->exchange.get()) != nullptr;
      if (!refused || RefusedExchange::IsWorthReading(connection)) return MHD_YES;
    } else if (*size > 0) {
      const bool go_on = request->exchange->TakeBody({data, *size});
      *size = 0;  // all of it was taken
      return go_on ? MHD_YES : MHD_NO;
    }
    request->finished = true;
    return Queue(connection, request->exchange->Finish());
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

/// Called at the end of each request, however it ended.
void OnCompleted(void* /*desk*/, MHD_Connection* /*connection*/, void** state,
                 MHD_RequestTerminationCode code) noexcept {
  const std::unique_ptr<Request> request(static_cast<Request*>(*state));
  *state = nullptr;
  if (request && !request->finished) request->exchange->Abort(CauseOf(code));
}

}  // namespace

CssServer::CssServer(TicketBook& book, const ArchiveStore& store, EventSink events,
                     const ListenAddress& address, std::chrono::seconds idle_limit)
    : desk_{book, store, std::move(events), {}} {
  // Our own socket rather than the library's: it tells why an address can't be had, and which port the kernel chose.
  const int listener = OpenListener(address);
  sockaddr_storage bound{};
  socklen_t bound_size = sizeof(bound);
  getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &bound_size);
  url_ = "http://" + SocketAddressText(reinterpret_cast<const sockaddr*>(&bound), bound_size);
  daemon_ = MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC, 0, nullptr, nullptr, &OnRequest,
                             &desk_, MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_THREAD_POOL_SIZE,
                             kThreads, MHD_OPTION_CONNECTION_LIMIT, kMaxConnections,
                             MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionBytes,
                             MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(idle_limit.count()),
                             MHD_OPTION_NOTIFY_COMPLETED, &OnCompleted, nullptr, MHD_OPTION_END);
  if (daemon_ != nullptr) return;
  close(listener);
  throw std::runtime_error("cannot serve HTTP on " + address.text);
}

CssServer::~CssServer() { MHD_stop_daemon(daemon_); }

}  // namespace TarvoOrvane::SupportService
