#include "http_server.h"

#include <gnutls/abstract.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "acceptor.h"
#include "body_stream.h"
#include "head_watch.h"
#include "tls_identity.h"

namespace TarvoOrvane::SupportService {

HttpAnswer PlainAnswer(unsigned int status, const std::string& error) {
  HttpAnswer answer;
  answer.status = status;
  answer.headers = {{MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain"}};
  answer.body = error + "\n";
  return answer;
}

/// At the server's end: for an answer to be taken by the system. Only a client that reads nothing needs so long.
constexpr std::chrono::seconds kSendLimit{10};
/// The same where requests were waited for already.
constexpr std::chrono::seconds kSendLimitBehindWait{5};

/// Counts the requests: all of them, those whose answers are awaited, and those whose answers are not sent yet. The
/// library drops all of them when it is stopped.
class UnderWay {
 public:
  using TimePoint = HttpServer::TimePoint;

  /// A request's head was read.
  /// @return false once none is taken any more.
  bool Begin() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (refusing_) return false;
    ++open_;
    changed_.notify_all();
    return true;
  }
  /// The body of one that has begun is complete.
  /// @return false once the server ends.
  bool Await() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ending_) return false;
    ++awaited_;
    ++unsent_;
    return true;
  }
  /// The answer to it is there.
  void NoteAnswer() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --awaited_;
    changed_.notify_all();
  }
  /// The library is done with its answer.
  void NoteSent() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --unsent_;
    changed_.notify_all();
  }
  /// The library is done with one that has begun.
  void End() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --open_;
    changed_.notify_all();
  }
  /// Lets none begin.
  void Refuse() {
    const std::lock_guard<std::mutex> lock(mutex_);
    refusing_ = true;
    changed_.notify_all();
  }
  /// As HttpServer::AwaitRequests().
  std::size_t AwaitEnd(TimePoint deadline, std::chrono::milliseconds linger) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto none_is_open = [this] { return open_ == 0; };
    while (!none_is_open()) {
      if (!changed_.wait_until(lock, deadline, none_is_open)) break;
      const TimePoint quiet = std::min(deadline, std::chrono::steady_clock::now() + linger);
      if (!changed_.wait_until(lock, quiet, [this] { return open_ > 0 || refusing_; })) break;
    }
    return open_;
  }
  /// Lets none begin nor have its body complete, and waits for the answers to those that have.
  /// @param last_moment  For an answer to be taken by the system.
  void Close(TimePoint last_moment) {
    std::unique_lock<std::mutex> lock(mutex_);
    refusing_ = ending_ = true;
    changed_.wait(lock, [this] { return awaited_ == 0; });
    changed_.wait_until(lock, last_moment, [this] { return unsent_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t open_ = 0;
  std::size_t awaited_ = 0;
  std::size_t unsent_ = 0;
  bool refusing_ = false;
  bool ending_ = false;
};

/// What the library's threads use.
struct HttpParts {
  HttpParts(const HttpSettings& settings, HttpServer::Factory the_factory, const EventSink& events)
      : factory(std::move(the_factory)),
        own_answer(settings.own_answer),
        addresses(settings.addresses),
        refuses_at_end(settings.refuses_at_end),
        heads(settings.head_limit) {
    const LimitedEvents limited(events);
    if (settings.tls) {
      identity = std::make_unique<TlsIdentity>(settings.tls->certificate, settings.tls->key, limited);
      if (settings.tls->client_authority) client_authority = ReadAuthority(*settings.tls->client_authority);
    }
    // Our own socket rather than the library's: it tells why an address can't be had, and which port the kernel chose.
    const int listener = OpenListener(settings.address);
    address_size = sizeof(address);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &address_size);
    acceptor = std::make_unique<Acceptor>(listener, settings.connections, limited);
  }
  ~HttpParts() {
    if (daemon != nullptr) MHD_stop_daemon(daemon);
  }
  HttpParts(const HttpParts&) = delete;
  HttpParts& operator=(const HttpParts&) = delete;

  const HttpServer::Factory factory;
  HttpAnswer (*const own_answer)(unsigned int status, const std::string& error);
  AddressLimit* const addresses;  ///< Null for no limit.
  const bool refuses_at_end;
  std::unique_ptr<TlsIdentity> identity;  ///< Null for plaintext.
  std::string client_authority;           ///< In PEM form; empty where clients are asked for no certificates.
  sockaddr_storage address{};             ///< The listener's, with the port that the kernel chose.
  socklen_t address_size = 0;
  HeadWatch heads;
  UnderWay under_way;
  BodyStreams streams;
  std::unique_ptr<Acceptor> acceptor;
  MHD_Daemon* daemon = nullptr;  ///< Its threads use the rest until it is stopped.
};

namespace {

/// Headers and the piece of a body that is read at once. Each connection takes it, whoever opens it.
constexpr std::size_t kConnectionBytes = std::size_t{256} * 1024;
/// What is older is not safe.
constexpr const char* kTlsVersions = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

/// What is known of a connection, from its start to its end.
struct Connection {
  HttpParts& parts;
  HttpPeer peer;
  std::string address_key;              ///< By which it is counted; empty where it is not.
  bool is_verified = false;             ///< The client's certificate was looked at.
  std::shared_ptr<const KeyPair> pair;  ///< Of the server, for the handshake.
};

/// A request under way: the library's pointer to it.
struct Request {
  Request(MHD_Connection* connection, const char* method, const char* path, const HttpPeer& peer)
      : head(connection, method, path, peer) {}

  HttpRequest head;
  std::unique_ptr<Exchange> exchange;
  bool finished = false;             ///< Finish() was called; Abort() is not to be.
  bool is_open = false;              ///< It is one of those that have begun.
  bool is_unsent = false;            ///< It is one of those whose answers are not sent.
  std::optional<HttpAnswer> answer;  ///< Set before the connection is resumed.
};

int DescriptorOf(MHD_Connection* connection) {
  return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

Connection& StateOf(MHD_Connection* connection) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return *static_cast<Connection*>(info->socket_context);
}

HttpPeer PeerOf(MHD_Connection* connection) {
  HttpPeer peer;
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr) return peer;
  if (info->client_addr->sa_family != AF_UNIX) {
    const bool is_v6 = info->client_addr->sa_family == AF_INET6;
    peer.address = SocketAddressText(info->client_addr, is_v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
    return peer;
  }
  peer.address = "control socket";
  ucred user{};
  socklen_t size = sizeof(user);
  if (getsockopt(DescriptorOf(connection), SOL_SOCKET, SO_PEERCRED, &user, &size) == 0) {
    peer.local_user = user.uid;
  }
  return peer;
}

/// By what the connection is counted.
std::string KeyOf(const HttpParts& parts, MHD_Connection* connection) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  const bool has_address = parts.addresses != nullptr && info != nullptr && info->client_addr != nullptr;
  return has_address ? AddressLimit::KeyOf(info->client_addr) : "";
}

/// Looks at the client's certificate, once for all requests of a connection.
void Verify(Connection& state, MHD_Connection* connection) {
  if (state.is_verified || state.parts.client_authority.empty()) return;
  state.is_verified = true;
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
  if (info == nullptr) return;
  state.peer.certificate_name = VerifiedName(static_cast<gnutls_session_t>(info->tls_session));
}

/// @return Null where the file lacks a part of it.
MHD_Response* FileResponse(FileSlice& file) {
  const int fd = file.TakeDescriptor();
  struct stat status {};
  // The library would wait for the rest of a file that is shorter than announced.
  const bool has_all = fstat(fd, &status) == 0 &&
                       file.offset() <= static_cast<std::uint64_t>(status.st_size) &&
                       file.size() <= static_cast<std::uint64_t>(status.st_size) - file.offset();
  MHD_Response* response =
      has_all ? MHD_create_response_from_fd_at_offset64(file.size(), fd, file.offset()) : nullptr;
  if (response == nullptr && fd != -1) close(fd);
  return response;
}

MHD_Response* ResponseFor(HttpParts& parts, MHD_Connection* connection, HttpAnswer& answer) {
  if (answer.source) {
    return parts.streams.MakeResponse(std::move(answer.source), connection, DescriptorOf(connection));
  }
  if (answer.file && answer.file->size() > 0) return FileResponse(*answer.file);
  std::string& body = answer.body;
  if (answer.file) body.clear();
  return MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
}

/// @param answer  Its file and its source are used up.
MHD_Result Queue(HttpParts& parts, MHD_Connection* connection, HttpAnswer& answer) {
  MHD_Response* response = ResponseFor(parts, connection, answer);
  if (response == nullptr) return MHD_NO;  // out of memory, or nothing to send: the connection is closed
  for (const auto& [name, value] : answer.headers) {
    MHD_add_response_header(response, name.c_str(), value.c_str());
  }
  const MHD_Result result = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return result;
}

HttpAnswer EndAnswer(const HttpParts& parts) {
  return parts.own_answer(MHD_HTTP_SERVICE_UNAVAILABLE, "the service shuts down");
}

/// Nobody waits for the request any more.
void NoteEnd(HttpParts& parts, Request& request) {
  if (std::exchange(request.is_unsent, false)) parts.under_way.NoteSent();
  if (std::exchange(request.is_open, false)) parts.under_way.End();
}

/// Has the exchange finish while the library's thread serves others. OnRequest() is called once more with its answer.
MHD_Result FinishLater(HttpParts& parts, MHD_Connection* connection, Request& request) {
  request.finished = true;
  // What is suspended when the server ends must have been counted before.
  if (!parts.under_way.Await()) {
    if (!parts.refuses_at_end) return MHD_NO;
    HttpAnswer answer = EndAnswer(parts);
    return Queue(parts, connection, answer);
  }
  request.is_unsent = true;
  parts.heads.End(connection);
  MHD_suspend_connection(connection);
  const auto is_answered = std::make_shared<std::atomic<bool>>(false);
  const AnswerSink done = [&under_way = parts.under_way, &request, connection,
                           is_answered](HttpAnswer answer) {
    if (is_answered->exchange(true)) return;
    request.answer = std::move(answer);
    MHD_resume_connection(connection);
    under_way.NoteAnswer();
  };
  try {
    request.exchange->Finish(done);
  } catch (const std::exception&) {
    done(parts.own_answer(MHD_HTTP_INTERNAL_SERVER_ERROR, "the request failed"));
  }
  return MHD_YES;
}

MHD_Result QueueFinished(HttpParts& parts, MHD_Connection* connection, Request& request) {
  // The server's end does not wait for a stream's. It ends it.
  if (request.answer->source) NoteEnd(parts, request);
  return Queue(parts, connection, *request.answer);
}

/// The head has come.
MHD_Result BeginRequest(HttpParts& parts, MHD_Connection* connection, Request& request) {
  request.is_open = parts.under_way.Begin();
  if (!request.is_open && !parts.refuses_at_end) return MHD_NO;
  request.exchange =
      request.is_open ? parts.factory(request.head) : std::make_unique<RefusedExchange>(EndAnswer(parts));
  const Exchange& exchange = *request.exchange;
  if (!exchange.IsShort()) parts.heads.End(connection);
  // To answer now, before the body, is for refusals alone, and only where the client can be expected to see it.
  const auto* refused = dynamic_cast<const RefusedExchange*>(&exchange);
  if (refused == nullptr || RefusedExchange::IsWorthReading(request.head)) return MHD_YES;
  request.finished = true;
  HttpAnswer answer = refused->answer();
  return Queue(parts, connection, answer);
}

/// Called with the headers, then with each piece of the body, then once more at its end, and again when its answer is
/// there.
MHD_Result OnRequest(void* parts_pointer, MHD_Connection* connection, const char* url, const char* method,
                     const char* /*version*/, const char* data, std::size_t* size, void** state) noexcept {
  // Nothing may be thrown through the library, which is written in C. MHD_NO closes the connection.
  try {
    auto& parts = *static_cast<HttpParts*>(parts_pointer);
    auto* request = static_cast<Request*>(*state);
    if (request == nullptr) {
      Connection& from = StateOf(connection);
      Verify(from, connection);
      auto fresh = std::make_unique<Request>(connection, method, url, from.peer);
      request = fresh.get();
      *state = fresh.release();  // first: its end is noted whatever follows
      return BeginRequest(parts, connection, *request);
    }
    if (*size > 0) {
      const bool go_on = request->exchange->TakeBody({data, *size});
      *size = 0;  // all of it was taken
      return go_on ? MHD_YES : MHD_NO;
    }
    if (request->answer) return QueueFinished(parts, connection, *request);
    return FinishLater(parts, connection, *request);
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

/// Called at the end of each request, however it ended. Another one may follow on the connection.
void OnCompleted(void* parts_pointer, MHD_Connection* connection, void** state,
                 MHD_RequestTerminationCode code) noexcept {
  const std::unique_ptr<Request> request(static_cast<Request*>(*state));
  *state = nullptr;
  if (request && request->exchange && !request->finished) request->exchange->Abort(CauseOf(code));
  auto& parts = *static_cast<HttpParts*>(parts_pointer);
  if (request) NoteEnd(parts, *request);
  parts.heads.Begin(connection, DescriptorOf(connection));
}

/// Called when a connection was accepted, and before it is closed.
void OnConnection(void* parts_pointer, MHD_Connection* connection, void** state,
                  MHD_ConnectionNotificationCode code) noexcept {
  auto& parts = *static_cast<HttpParts*>(parts_pointer);
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    *state = std::make_unique<Connection>(
                 Connection{parts, PeerOf(connection), KeyOf(parts, connection), false, nullptr})
                 .release();
    return parts.heads.Begin(connection, DescriptorOf(connection));
  }
  parts.heads.End(connection);
  const std::unique_ptr<Connection> ended(static_cast<Connection*>(*state));
  if (parts.addresses != nullptr) parts.addresses->End(ended->address_key);
  parts.acceptor->NoteEnd();
}

/// Tells the TLS library which certificate is the server's.
int OnHandshake(gnutls_session_t session, const gnutls_datum_t* /*authorities*/, int /*authority_count*/,
                const gnutls_pk_algorithm_t* /*algorithms*/, int /*algorithm_count*/, gnutls_pcert_st** chain,
                unsigned int* chain_size, gnutls_privkey_t* key) noexcept {
  try {
    // The HTTP library's own pointer. There is no other way from a handshake to its server.
    Connection& state = StateOf(static_cast<MHD_Connection*>(gnutls_session_get_ptr(session)));
    if (!state.pair) state.pair = state.parts.identity->Current();
    *chain = state.pair->chain();
    *chain_size = state.pair->chain_size();
    *key = state.pair->key();
    return 0;
  } catch (const std::exception&) {
    return -1;
  }
}

/// Leaves escapes as they are: decoded by the library, an escaped "/" or "&" could not be told from a plain one.
std::size_t KeepEscapes(void* /*context*/, MHD_Connection* /*connection*/, char* text) {
  return std::strlen(text);
}

MHD_OptionItem Option(MHD_OPTION option, const void* value) { return {option, 0, const_cast<void*>(value)}; }

/// @return Options of the library, up to MHD_OPTION_END.
std::vector<MHD_OptionItem> TlsOptions(const HttpParts& parts) {
  std::vector<MHD_OptionItem> options;
  if (parts.identity) {
    options.push_back(Option(MHD_OPTION_HTTPS_PRIORITIES, kTlsVersions));
    options.push_back(Option(MHD_OPTION_HTTPS_CERT_CALLBACK, reinterpret_cast<const void*>(&OnHandshake)));
  }
  // The library asks clients for certificates when it has this.
  if (!parts.client_authority.empty()) {
    options.push_back(Option(MHD_OPTION_HTTPS_MEM_TRUST, parts.client_authority.c_str()));
  }
  options.push_back(Option(MHD_OPTION_END, nullptr));
  return options;
}

std::string UrlOf(const HttpSettings& settings, const HttpParts& parts) {
  if (!settings.address.unix_path.empty()) return settings.address.text;
  return (parts.identity ? "https://" : "http://") +
         SocketAddressText(reinterpret_cast<const sockaddr*>(&parts.address), parts.address_size);
}

MHD_Daemon* StartLibrary(const HttpSettings& settings, HttpParts& parts) {
  std::vector<MHD_OptionItem> tls_options = TlsOptions(parts);
  const unsigned int flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_ALLOW_SUSPEND_RESUME |
                             MHD_USE_NO_LISTEN_SOCKET | (parts.identity ? MHD_USE_TLS : MHD_NO_FLAG);
  // The library divides its limit by its threads. Where one of them reaches its share by connections that it is given,
  // it stops for ever, with a lock held. So each could take all that the acceptor lets in.
  const unsigned int most = settings.threads * (settings.connections + 1);
  return MHD_start_daemon(flags, 0, nullptr, nullptr, &OnRequest, &parts, MHD_OPTION_THREAD_POOL_SIZE,
                          settings.threads, MHD_OPTION_CONNECTION_LIMIT, most,
                          MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionBytes, MHD_OPTION_CONNECTION_TIMEOUT,
                          static_cast<unsigned int>(settings.idle_limit.count()), MHD_OPTION_NOTIFY_COMPLETED,
                          &OnCompleted, &parts, MHD_OPTION_NOTIFY_CONNECTION, &OnConnection, &parts,
                          MHD_OPTION_UNESCAPE_CALLBACK, &KeepEscapes, nullptr, MHD_OPTION_ARRAY,
                          tls_options.data(), MHD_OPTION_END);
}

/// Hands an accepted connection to the library, unless its address has too many.
/// @return false when it was closed.
bool AddConnection(const HttpParts& parts, int fd, const sockaddr* address, socklen_t size) {
  const std::string key = parts.addresses == nullptr ? "" : AddressLimit::KeyOf(address);
  if (parts.addresses != nullptr && !parts.addresses->Begin(key)) {
    close(fd);
    return false;
  }
  if (MHD_add_connection(parts.daemon, fd, address, size) == MHD_YES) return true;
  if (parts.addresses != nullptr) parts.addresses->End(key);
  return false;
}

}  // namespace

HttpServer::HttpServer(const HttpSettings& settings, Factory factory, const EventSink& events)
    : parts_(std::make_unique<HttpParts>(settings, std::move(factory), events)),
      url_(UrlOf(settings, *parts_)),
      unix_path_(settings.address.unix_path) {
  parts_->daemon = StartLibrary(settings, *parts_);
  if (parts_->daemon == nullptr) throw std::runtime_error("cannot serve HTTP on " + settings.address.text);
  parts_->acceptor->Start(
      [&parts = *parts_](int fd, const sockaddr* address, socklen_t size) {
        return AddConnection(parts, fd, address, size);
      },
      url_);
}

void HttpServer::Refuse() {
  parts_->under_way.Refuse();
  parts_->streams.End();
}

std::size_t HttpServer::AwaitRequests(TimePoint deadline, std::chrono::milliseconds linger) {
  last_moment_ = deadline + kSendLimitBehindWait;
  return parts_->under_way.AwaitEnd(deadline, linger);
}

HttpServer::~HttpServer() {
  if (!unix_path_.empty()) unlink(unix_path_.c_str());
  parts_->acceptor->Stop();
  parts_->under_way.Close(last_moment_.value_or(std::chrono::steady_clock::now() + kSendLimit));
  parts_->streams.End();
}

}  // namespace TarvoOrvane::SupportService
