/// The server of the upload rows: takes HTTP requests one after the other, discards their bodies as fast as it
/// can and answers {"success":true}, each on a connection of its own. While one is open it never sleeps: on one
/// machine it would be the client that spends time, a varying one, on waking it up, as it does not over a network.
///
/// It prints the port it listens on, chosen by the kernel, and then one line per request: the size of its body.
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t kBufferBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxHeaderBytes = std::size_t{64} << 10;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr std::string_view kAnswer =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 16\r\nConnection: close\r\n\r\n"
    "{\"success\":true}";

using TlsContext = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;
using TlsSession = std::unique_ptr<SSL, void (*)(SSL*)>;

/// One accepted connection, plain or TLS, that does not block. Owns the descriptor.
class Connection {
 public:
  Connection(int fd, SSL_CTX* tls_context) : fd_(fd), tls_(nullptr, &SSL_free) {
    if (tls_context == nullptr) return;
    tls_.reset(SSL_new(tls_context));
    if (SSL_set_fd(tls_.get(), fd_) != 1 || PollTls([&] { return SSL_accept(tls_.get()); }) != 1) {
      close(fd_);
      throw std::runtime_error("the TLS handshake failed");
    }
  }
  ~Connection() {
    if (tls_) SSL_shutdown(tls_.get());
    close(fd_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// @return Bytes read; 0 or less at the end of the stream.
  ssize_t Read(char* data, std::size_t size) {
    if (tls_) return PollTls([&] { return SSL_read(tls_.get(), data, static_cast<int>(size)); });
    return Poll(data, size, 0);
  }

  /// As Read(), but the bytes go nowhere: TCP drops them without a copy; those of TLS have to be decrypted.
  ssize_t Discard(char* scratch, std::size_t size) {
    if (tls_) return Read(scratch, std::min(size, kBufferBytes));
    return Poll(nullptr, std::min(size, std::size_t{1} << 30), MSG_TRUNC);
  }

  void Write(std::string_view text) {
    const auto size = static_cast<ssize_t>(text.size());
    const ssize_t written = tls_ ? SSL_write(tls_.get(), text.data(), static_cast<int>(size))
                                 : send(fd_, text.data(), text.size(), 0);
    if (written != size) throw std::runtime_error("the answer can't be sent");
  }

 private:
  ssize_t Poll(char* data, std::size_t size, int flags) const {
    ssize_t count = 0;
    do {
      count = recv(fd_, data, size, flags);
    } while (count == -1 && errno == EAGAIN);
    return count;
  }

  template <typename Operation>
  int PollTls(const Operation& operation) {
    int result = 0;
    do {
      result = operation();
    } while (result <= 0 && SSL_get_error(tls_.get(), result) == SSL_ERROR_WANT_READ);
    return result;
  }

  int fd_;
  TlsSession tls_;
};

/// The value of the header line `name`; empty when there is none.
std::string HeaderValue(const std::string& header, std::string_view name) {
  std::size_t line = 0;
  while ((line = header.find("\r\n", line)) != std::string::npos) {
    line += 2;
    if (strncasecmp(header.c_str() + line, name.data(), name.size()) != 0 ||
        header[line + name.size()] != ':') {
      continue;
    }
    const std::size_t value = header.find_first_not_of(' ', line + name.size() + 1);
    return header.substr(value, header.find("\r\n", value) - value);
  }
  return "";
}

/// Takes one request and answers it.
/// @return The size of its body. @throws std::runtime_error when it ends before that; it has no answer then.
std::uint64_t ServeRequest(Connection& connection, bool sends_continue, std::vector<char>& buffer) {
  std::string header;
  std::size_t header_end = std::string::npos;
  while ((header_end = header.find("\r\n\r\n")) == std::string::npos) {
    const ssize_t count = connection.Read(buffer.data(), buffer.size());
    if (count <= 0 || header.size() > kMaxHeaderBytes) throw std::runtime_error("no complete request header");
    header.append(buffer.data(), static_cast<std::size_t>(count));
  }
  std::uint64_t received = header.size() - (header_end + 4);
  header.resize(header_end + 2);
  const std::uint64_t size = std::strtoull(HeaderValue(header, "Content-Length").c_str(), nullptr, 10);
  if (sends_continue && !HeaderValue(header, "Expect").empty()) connection.Write(kContinue);
  while (received < size) {
    const ssize_t count = connection.Discard(buffer.data(), size - received);
    if (count <= 0) throw std::runtime_error("the request's body ends too early");
    received += static_cast<std::uint64_t>(count);
  }
  connection.Write(kAnswer);
  return received;
}

/// Listens on a port of the loopback interface that the kernel chooses.
int Listen(std::uint16_t& port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (fd == -1 || bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 16) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("can't listen on the loopback interface");
  }
  port = ntohs(address.sin_port);
  return fd;
}

TlsContext LoadTls(const char* certificate, const char* key) {
  TlsContext context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  if (!context || SSL_CTX_use_certificate_file(context.get(), certificate, SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), key, SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error(std::string("can't use ") + certificate + " with " + key);
  }
  return context;
}

[[noreturn]] void Serve(SSL_CTX* tls_context, bool sends_continue) {
  std::uint16_t port = 0;
  const int listener = Listen(port);
  std::printf("%u\n", port);
  std::vector<char> buffer(kBufferBytes);
  while (true) {
    static_cast<void>(std::fflush(stdout));
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1) continue;
    try {
      Connection connection(fd, tls_context);
      const std::uint64_t received = ServeRequest(connection, sends_continue, buffer);
      std::printf("%llu\n", static_cast<unsigned long long>(received));
    } catch (const std::exception& error) {
      static_cast<void>(std::fprintf(stderr, "discard_server: %s\n", error.what()));
    }
  }
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string mode = argc > 1 ? argv[1] : "";
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  if (mode == "plain" && argc == 2) Serve(nullptr, true);
  if (mode == "no-100" && argc == 2) Serve(nullptr, false);
  if (mode == "tls" && argc == 4) Serve(LoadTls(argv[2], argv[3]).get(), true);
  static_cast<void>(std::fprintf(stderr, "usage: discard_server plain | no-100 | tls CERTIFICATE KEY\n"));
  return 2;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "discard_server: %s\n", error.what()));
  return 1;
}
