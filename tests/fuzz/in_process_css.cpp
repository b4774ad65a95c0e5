#include "in_process_css.h"

#include <json/reader.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <functional>
#include <memory>
#include <set>

#include "css_exchange.h"

// In place of the real ones: the library starts without threads, and keeps the server's handlers; nobody connects to
// the listener. What the disk workers are given is done at once, by who gives it; nothing waits for a disk.
namespace {
MHD_Daemon* the_daemon = nullptr;
constexpr unsigned kIdleLimitSeconds = 1;
}  // namespace

extern "C" {
MHD_Daemon* __real_MHD_start_daemon(unsigned flags, std::uint16_t port, MHD_AcceptPolicyCallback accept,
                                    void* accept_context, MHD_AccessHandlerCallback handler, void* context,
                                    ...);

MHD_Daemon* __wrap_MHD_start_daemon(unsigned /*flags*/, std::uint16_t /*port*/,
                                    MHD_AcceptPolicyCallback /*accept*/, void* /*accept_context*/,
                                    MHD_AccessHandlerCallback handler, void* context, ...) {
  std::size_t connection_bytes = 0;
  MHD_RequestCompletedCallback completed = nullptr;
  void* completed_context = nullptr;
  MHD_NotifyConnectionCallback notified = nullptr;
  void* notified_context = nullptr;
  using Unescape = std::size_t (*)(void*, MHD_Connection*, char*);
  Unescape unescape = nullptr;
  void* unescape_context = nullptr;
  va_list options;
  va_start(options, context);
  for (int option = va_arg(options, int); option != MHD_OPTION_END; option = va_arg(options, int)) {
    if (option == MHD_OPTION_CONNECTION_MEMORY_LIMIT) {
      connection_bytes = va_arg(options, std::size_t);
    } else if (option == MHD_OPTION_NOTIFY_COMPLETED) {
      completed = va_arg(options, MHD_RequestCompletedCallback);
      completed_context = va_arg(options, void*);
    } else if (option == MHD_OPTION_NOTIFY_CONNECTION) {
      notified = va_arg(options, MHD_NotifyConnectionCallback);
      notified_context = va_arg(options, void*);
    } else if (option == MHD_OPTION_UNESCAPE_CALLBACK) {
      unescape = va_arg(options, Unescape);
      unescape_context = va_arg(options, void*);
    } else if (option == MHD_OPTION_ARRAY) {
      const auto* tls = va_arg(options, const MHD_OptionItem*);
      fuzz::Require(tls->option == MHD_OPTION_END, "the server is started without TLS");
    } else {
      static_cast<void>(va_arg(options, unsigned));
    }
  }
  va_end(options);
  the_daemon = __real_MHD_start_daemon(
      MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, handler,
      context, MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_bytes, MHD_OPTION_CONNECTION_TIMEOUT,
      kIdleLimitSeconds, MHD_OPTION_NOTIFY_COMPLETED, completed, completed_context,
      MHD_OPTION_NOTIFY_CONNECTION, notified, notified_context, MHD_OPTION_UNESCAPE_CALLBACK, unescape,
      unescape_context, MHD_OPTION_END);
  return the_daemon;
}

void __wrap__ZN11TarvoOrvane14SupportService11DiskWorkers4PostESt8functionIFvvEE(
    TarvoOrvane::SupportService::DiskWorkers* /*workers*/, std::function<void()> job) {
  const std::function<void()> now = std::move(job);
  now();
}

// The program's own, which the library of the store calls too.
__attribute__((visibility("default"))) int fsync(int /*fd*/) { return 0; }
__attribute__((visibility("default"))) int fdatasync(int /*fd*/) { return 0; }

__attribute__((visibility("default"))) const char* __lsan_default_suppressions();

// Of a form with a second multipart/mixed part the library loses the copy of that part's boundary.
const char* __lsan_default_suppressions() { return "leak:MHD_post_process\n"; }
}

namespace fuzz {
namespace {

using namespace TarvoOrvane::SupportService;
namespace fs = std::filesystem;

/// So often the server is let go on for one request; a body of many pieces needs a few hundred times.
constexpr int kMaxTurns = 10'000;
/// Where it then still waits for more, its idle limit has to end the connection within so many further, longer turns.
constexpr int kIdleTurns = 200;
constexpr useconds_t kIdleTurnMicroseconds = 20'000;

constexpr StreamId kStream = 1;

/// One end of a connection to the server.
class Client {
 public:
  explicit Client(InProcessCss& css) : css_(css) {
    int ends[2] = {-1, -1};
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
            "a pair can be made");
    fd_ = ends[0];
    const sockaddr_in peer{AF_INET, htons(40000), {htonl(INADDR_LOOPBACK)}, {}};
    Require(MHD_add_connection(the_daemon, ends[1], reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) ==
                MHD_YES,
            "the server takes a connection");
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void Write(std::string_view data) {
    while (!data.empty() && !ended_) {
      const ssize_t count = send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
      if (count > 0) data.remove_prefix(static_cast<std::size_t>(count));
      if (count < 0 && errno != EAGAIN) return;  // The server has ended the connection.
      if (count < 0) css_.Settle();  // A request may wait for its answer, and hold up the next one.
      Turn();
    }
    Turn();
  }

  std::string Finish() {
    shutdown(fd_, SHUT_WR);
    while (!ended_) {
      Turn();
      css_.Settle();
    }
    return answer_;
  }

 private:
  void Turn() {
    Require(++turns_ <= kMaxTurns + kIdleTurns, "the server comes to an end");
    if (turns_ > kMaxTurns) usleep(kIdleTurnMicroseconds);
    Require(MHD_run(the_daemon) == MHD_YES, "the server runs");
    std::array<char, 4096> buffer;
    ssize_t count = 0;
    while ((count = recv(fd_, buffer.data(), buffer.size(), 0)) > 0) {
      answer_.append(buffer.data(), static_cast<std::size_t>(count));
    }
    ended_ = count == 0 || errno != EAGAIN;
  }

  InProcessCss& css_;
  int fd_ = -1;
  int turns_ = 0;
  bool ended_ = false;
  std::string answer_;
};

std::string TokenIn(const std::string& ticket_json) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value ticket;
  reader->parse(ticket_json.data(), ticket_json.data() + ticket_json.size(), &ticket, nullptr);
  return ticket["token"].asString();
}

TicketBook::Settings BelievingSettings() {
  TicketBook::Settings settings;
  settings.trust = Trust::kAllowList;
  return settings;
}

}  // namespace

InProcessCss::InProcessCss()
    : archives_(folder_.path() / "data"),
      store_(folder_.path() / "data" / "tickets.db"),
      room_(folder_.path(), 0),
      dispatcher_(
          BelievingSettings(), store_, [this](const std::string& event) { CheckEvent(event); }, metrics_) {
  dispatcher_.SetWorkSink([this](const Work& work) {
    for (const Delivery& delivery : work.deliveries) token_ = TokenIn(delivery.ticket_json);
  });
  dispatcher_.Call([](TicketBook& book) {
    book.OpenStream(kStream, "device");
    book.registry().Enrol("SN1", std::nullopt);
    book.Hello(kStream, "SN1", 1, std::nullopt);
  });
  const EventSink events = [this](const std::string& event) { CheckEvent(event); };
  // So much time passes between two lines that none is left out.
  const LimitedEvents all_of_them(
      events, [now = std::chrono::steady_clock::now()]() mutable { return now += std::chrono::hours(1); });
  constexpr std::chrono::seconds kLimit{5};
  desk_.emplace(CssDesk{dispatcher_, store_, archives_, disk_, room_, Trust::kAllowList, largest_upload_,
                        all_of_them, events, metrics_});
  HttpSettings settings;
  settings.address = ParseListenAddress("127.0.0.1:0", false);
  settings.idle_limit = settings.head_limit = kLimit;
  server_.emplace(
      settings, [this](HttpRequest& request) { return BeginExchange(*desk_, request); }, events);
  Require(the_daemon != nullptr, "the server starts");
  NextTicket();
}

const std::string& InProcessCss::Token() {
  if (Ticket().state != TicketState::kAccepted) {
    EndTicket();
    NextTicket();
  }
  return token_;
}

/// The device gets its next ticket only behind the report. Archives of former tickets would only fill the disk.
void InProcessCss::EndTicket() {
  dispatcher_.Call([this](TicketBook& book) { book.RecordReport(ticket_, "Success"); });
  const auto ticket = Ticket();
  for (const Archive& archive : ticket.archives) archives_.Remove(ticket.id, archive.version);
}

void InProcessCss::NextTicket() {
  const std::string former = token_;
  const auto ticket = dispatcher_.Call([](TicketBook& book) {
    return book.Create({"SN1", {"mail", "web"}});
  });
  Require(token_ != former, "the ticket is delivered");
  dispatcher_.Call([&](TicketBook& book) { book.Answer(kStream, ticket.id, true, ""); });
  ticket_ = ticket.number;
  Require(Ticket().state == TicketState::kAccepted, "the ticket is accepted");
}

void InProcessCss::Settle() {
  dispatcher_.Call([](TicketBook&) {});
}

std::string InProcessCss::Send(const std::vector<std::string>& pieces) {
  std::string answer;
  {
    Client client(*this);
    for (const std::string& piece : pieces) client.Write(piece);
    answer = client.Finish();
  }
  MHD_run(the_daemon);  // It closes its end.
  CheckFiles();
  return answer;
}

std::vector<std::string> InProcessCss::Post(const std::string& path, const std::string& content_type,
                                            std::string_view body) {
  std::vector<std::string> pieces = Records(body);
  std::size_t length = 0;
  for (const std::string& piece : pieces) length += piece.size();
  pieces.insert(pieces.begin(), "POST " + path +
                                    " HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAUTH-TOKEN: " + Token() +
                                    "\r\nContent-Type: " + content_type +
                                    "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
  return pieces;
}

bool InProcessCss::Takes(const std::string& path, const std::string& content_type, std::string_view body) {
  const std::string answer = Send(Post(path, content_type, body));
  Require(answer.rfind("HTTP/1.1 ", 0) == 0, "a request that is complete has an answer");
  return answer.rfind("HTTP/1.1 200 ", 0) == 0;
}

Ticket InProcessCss::Ticket() const { return store_.Find(ticket_).value(); }

void InProcessCss::CheckFiles() const {
  const fs::path data = folder_.path() / "data";
  Require(fs::is_empty(data / "incoming"), "nothing half received is left");
  std::set<fs::path> expected = {data, data / "lock", data / "incoming", data / "archives"};
  for (const char* name : {"tickets.db", "tickets.db-wal", "tickets.db-shm"}) expected.insert(data / name);
  const auto ticket = Ticket();
  for (const Archive& archive : ticket.archives) {
    const fs::path path = archives_.PathOf(ticket.id, archive.version);
    Require(fs::file_size(path) == archive.size_bytes, "an archive is as large as is remembered");
    expected.insert(path);
  }
  for (const auto& entry : fs::recursive_directory_iterator(folder_.path())) {
    Require(expected.count(entry.path()) == 1, "no other files are made");
  }
}

void InProcessCss::CheckEvent(const std::string& event) const {
  Require(IsPrintableAscii(event), "an event is one printable line");
  const bool quotes_a_path = event.rfind("request refused: ", 0) == 0;
  Require(quotes_a_path || token_.empty() || event.find(token_) == std::string::npos,
          "an event does not tell the token");
}

}  // namespace fuzz
