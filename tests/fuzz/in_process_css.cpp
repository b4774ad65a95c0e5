#include "in_process_css.h"

#include <json/reader.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <memory>

// In place of the real ones: the server starts without a listener and without threads, and keeps its own handlers;
// nothing waits for a disk.
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
  va_list options;
  va_start(options, context);
  for (int option = va_arg(options, int); option != MHD_OPTION_END; option = va_arg(options, int)) {
    if (option == MHD_OPTION_LISTEN_SOCKET) {
      close(va_arg(options, int));
    } else if (option == MHD_OPTION_CONNECTION_MEMORY_LIMIT) {
      connection_bytes = va_arg(options, std::size_t);
    } else if (option == MHD_OPTION_NOTIFY_COMPLETED) {
      completed = va_arg(options, MHD_RequestCompletedCallback);
      completed_context = va_arg(options, void*);
    } else {
      static_cast<void>(va_arg(options, unsigned));
    }
  }
  va_end(options);
  the_daemon = __real_MHD_start_daemon(
      MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET, 0, nullptr, nullptr, handler, context,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_bytes, MHD_OPTION_CONNECTION_TIMEOUT, kIdleLimitSeconds,
      MHD_OPTION_NOTIFY_COMPLETED, completed, completed_context, MHD_OPTION_END);
  return the_daemon;
}

int __wrap_fsync(int /*fd*/) { return 0; }

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

/// One end of a connection to the server.
class Client {
 public:
  Client() {
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
      Turn();
    }
    Turn();
  }

  std::string Finish() {
    shutdown(fd_, SHUT_WR);
    while (!ended_) Turn();
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

}  // namespace

InProcessCss::InProcessCss() : book_({}, [](const std::string&) {}), store_(folder_.path() / "data") {
  ticket_id_ = book_.CreateTicket({"mail", "web"}, "");
  book_.Hello(book_.OpenStream("device"), "SN1", 1);
  const Work work = book_.TakeWork();
  Require(work.deliveries.size() == 1, "the ticket is delivered");
  token_ = TokenIn(work.deliveries.front().ticket_json);
  server_.emplace(
      book_, store_, [this](const std::string& event) { CheckEvent(event); },
      ParseListenAddress("127.0.0.1:0", false), std::chrono::seconds(5));
  Require(the_daemon != nullptr, "the server starts");
}

std::string InProcessCss::Send(const std::vector<std::string>& pieces) {
  std::string answer;
  {
    Client client;
    for (const std::string& piece : pieces) client.Write(piece);
    answer = client.Finish();
  }
  MHD_run(the_daemon);  // It closes its end.
  CheckFiles();
  return answer;
}

std::vector<std::string> InProcessCss::Post(const std::string& path, const std::string& content_type,
                                            std::string_view body) const {
  std::vector<std::string> pieces = Records(body);
  std::size_t length = 0;
  for (const std::string& piece : pieces) length += piece.size();
  pieces.insert(pieces.begin(), "POST " + path +
                                    " HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAUTH-TOKEN: " + token_ +
                                    "\r\nContent-Type: " + content_type +
                                    "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
  return pieces;
}

bool InProcessCss::Takes(const std::string& path, const std::string& content_type, std::string_view body) {
  const std::string answer = Send(Post(path, content_type, body));
  Require(answer.rfind("HTTP/1.1 ", 0) == 0, "a request that is complete has an answer");
  return answer.rfind("HTTP/1.1 200 ", 0) == 0;
}

TicketView InProcessCss::Ticket() const { return book_.Find(ticket_id_).value(); }

void InProcessCss::CheckFiles() const {
  const fs::path data = folder_.path() / "data";
  Require(fs::is_empty(data / "incoming"), "nothing half received is left");
  for (const auto& entry : fs::recursive_directory_iterator(folder_.path())) {
    const std::string name = entry.path().lexically_relative(data);
    const bool expected = name == "." || name == "lock" || name == "incoming" || name == "received" ||
                          name == "received/" + ticket_id_ ||
                          name == "received/" + ticket_id_ + "/debug.dat" ||
                          name == "received/" + ticket_id_ + "/ticket.json";
    Require(expected, "no other files are made");
  }
}

void InProcessCss::CheckEvent(const std::string& event) const {
  Require(IsPrintableAscii(event), "an event is one printable line");
  const bool quotes_a_path = event.rfind("request refused: ", 0) == 0;
  Require(quotes_a_path || event.find(token_) == std::string::npos, "an event does not tell the token");
}

}  // namespace fuzz
