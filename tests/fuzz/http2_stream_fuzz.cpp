/// The bytes that a notification server sends, as the real ticket client receives them. The input's first byte says how
/// the others are taken: as they are, from the connection's begin (0) or once the client has asked (1), or as frames
/// that are whole (any other): type, flags, stream, two bytes of length, and so many bytes of payload, each time.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "fuzz_support.h"
#include "scoped_fd.h"
#include "ticket_client.h"

namespace {

using fuzz::Require;
using TarvoOrvane::FastSupport::FastSupportClient;
using TarvoOrvane::Internal::ScopedFd;
using TarvoOrvane::Internal::TicketClient;
using TarvoOrvane::Internal::TicketClientOptions;

constexpr int kPatienceMs = 20'000;
constexpr int kQuietMs = 3;
const std::string kSettings("\0\0\0\4\0\0\0\0\0", 9);

class SilentLogger final : public TarvoOrvane::Utils::LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}
  void Log(int /*level*/, const std::string& text) override {
    Require(fuzz::IsPrintableAscii(text), "a log line is printable");
    Require(text.size() < 2048, "a log line has an end");
  }
};

std::string Frames(std::string_view text) {
  constexpr std::size_t kHead = 5;
  std::string frames;
  while (text.size() >= kHead) {
    const std::size_t wanted =
        std::size_t{static_cast<std::uint8_t>(text[3])} << 8 | static_cast<std::uint8_t>(text[4]);
    const std::string_view payload = text.substr(kHead, wanted);
    frames += {'\0',
               static_cast<char>(payload.size() >> 8),
               static_cast<char>(payload.size()),
               text[0],
               text[1],
               0,
               0,
               0,
               text[2]};
    frames += payload;
    text.remove_prefix(kHead + payload.size());
  }
  return frames;
}

/// Sends one client what it is told to, and nothing behind that.
class Server {
 public:
  explicit Server(const std::string& path) : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    Require(bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                listen(listener_.get(), 1) == 0,
            "the server listens");
  }

  void Serve(bool waits, const std::string& bytes) const {
    const ScopedFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (waits) {
      Send(connection.get(), kSettings);
      // The request comes in the client's second write at the latest, behind the preface.
      Receive(connection.get(), 24 + 9 + 100);
    }
    Send(connection.get(), bytes);
    // A client that knows of the end takes no ticket any more.
    while (HasMore(connection.get(), kQuietMs) && Receive(connection.get(), 1)) {
    }
    shutdown(connection.get(), SHUT_WR);
    Receive(connection.get(), SIZE_MAX);
  }

 private:
  static void Send(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  static bool HasMore(int fd, int limit_ms) {
    pollfd readable{fd, POLLIN, 0};
    return poll(&readable, 1, limit_ms) == 1;
  }
  /// Reads at least so many bytes, or to the connection's end.
  /// @return Whether that has not come.
  static bool Receive(int fd, std::size_t wanted) {
    std::array<char, 4096> buffer;
    for (std::size_t got = 0; got < wanted;) {
      Require(HasMore(fd, kPatienceMs), "the client goes on");
      const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
      if (count <= 0) return false;
      got += static_cast<std::size_t>(count);
    }
    return true;
  }
  ScopedFd listener_;
};

/// Inputs follow each other as fast as the processor allows, which no device's limit would let pass.
TicketClientOptions Unhurried() {
  TicketClientOptions options;
  options.cost.cpu = std::chrono::hours(24);
  options.limits.status = std::chrono::milliseconds(20);
  options.tickets = {1'000'000, std::chrono::microseconds(1)};
  return options;
}

struct Device {
  explicit Device(const std::string& socket) : server(socket), client("unix:" + socket, Unhurried()) {
    TarvoOrvane::Utils::LoggerManager::instance_ = &logger;
  }
  SilentLogger logger;
  Server server;
  TicketClient client;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const test_support::TemporaryFolder folder;
  static auto& device = *new Device(folder.File("s"));  // gRPC's threads use it until the process is gone
  const std::string_view input = fuzz::AsText(data, size);
  const char mode = input.empty() ? '\0' : input.front();
  const std::string bytes(input.empty() ? input : input.substr(1));
  std::thread server(
      [&] { device.server.Serve(mode != '\0', mode > '\1' || mode < '\0' ? Frames(bytes) : bytes); });
  for (;;) {
    const auto result = device.client.Receive();
    if (!result.request) {
      Require(result.status.hasFail && result.status.error != 0, "what is no ticket is a failure");
      Require(fuzz::IsPrintableAscii(result.status.errorMsg) && result.status.errorMsg.size() < 1024,
              "a failure is one printable line");
      break;
    }
    static_cast<void>(device.client.Send(FastSupportClient::kAccepted));
  }
  server.join();
  return 0;
}
