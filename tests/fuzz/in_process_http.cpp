#include "in_process_http.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>

#include "disk_workers.h"
#include "fuzz_support.h"

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

/// So often the server is let go on for one request; a body of many pieces needs a few hundred times.
constexpr int kMaxTurns = 10'000;
/// Where it then still waits for more, its idle limit has to end the connection within so many further, longer turns.
constexpr int kIdleTurns = 200;
constexpr useconds_t kIdleTurnMicroseconds = 20'000;

/// One end of a connection to the server.
class Client {
 public:
  explicit Client(const std::function<void()>& settle) : settle_(settle) {
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
      if (count < 0) settle_();  // A request may wait for its answer, and hold up the next one.
      Turn();
    }
    Turn();
  }

  std::string Finish() {
    shutdown(fd_, SHUT_WR);
    while (!ended_) {
      Turn();
      settle_();
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

  const std::function<void()>& settle_;
  int fd_ = -1;
  int turns_ = 0;
  bool ended_ = false;
  std::string answer_;
};

}  // namespace

std::string SendToServer(const std::vector<std::string>& pieces, const std::function<void()>& settle) {
  Require(the_daemon != nullptr, "the server has started");
  std::string answer;
  {
    Client client(settle);
    for (const std::string& piece : pieces) client.Write(piece);
    answer = client.Finish();
  }
  MHD_run(the_daemon);  // It closes its end.
  return answer;
}

}  // namespace fuzz
