#include "http2_attacker.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <utility>

#include "http2_frames.h"

namespace hostile {
namespace {

constexpr int kLookMs = 20;  // how soon the server's end is seen

/// One connection, with TLS or without. Operations return 0 where they would have to wait.
class Link {
 public:
  virtual ~Link() = default;
  /// How many bytes went; -1 when the connection is over.
  virtual ssize_t Send(const char* data, std::size_t size) = 0;
  virtual ssize_t Receive(char* data, std::size_t size) = 0;
  virtual bool Open() { return true; }
  /// One message of that kind.
  virtual ssize_t Flood(TlsFlood /*flood*/) { return -1; }
};

class PlainLink : public Link {
 public:
  explicit PlainLink(int fd) : fd_(fd) {}
  ssize_t Send(const char* data, std::size_t size) override {
    return Judge(send(fd_, data, size, MSG_NOSIGNAL), 1);
  }
  ssize_t Receive(char* data, std::size_t size) override { return Judge(recv(fd_, data, size, 0), 0); }

 private:
  /// @param least  The least count that is a success: nothing received means the end.
  static ssize_t Judge(ssize_t count, ssize_t least) {
    if (count < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
    return count == 0 && least == 0 ? -1 : count;
  }
  int fd_;
};

class TlsLink : public Link {
 public:
  TlsLink(int fd, const TarvoOrvane::Testing::TestCertificate& certificate)
      : context_(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free), ssl_(nullptr, &SSL_free) {
    const auto parsed = TarvoOrvane::Testing::ParseCertificate(certificate.certificate);
    const auto key = TarvoOrvane::Testing::ParseKey(certificate.key);
    if (SSL_CTX_use_certificate(context_.get(), parsed.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context_.get(), key.get()) != 1) {
      throw std::runtime_error("the certificate can't be used");
    }
    SSL_CTX_set_mode(context_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_alpn_select_cb(context_.get(), &ChooseH2, nullptr);
    ssl_.reset(SSL_new(context_.get()));
    SSL_set_fd(ssl_.get(), fd);
  }

  bool Open() override { return Judge(SSL_accept(ssl_.get())) > 0; }
  ssize_t Send(const char* data, std::size_t size) override {
    return Judge(SSL_write(ssl_.get(), data, static_cast<int>(size)));
  }
  ssize_t Flood(TlsFlood flood) override {
    if (flood == TlsFlood::kKeyUpdates) {
      SSL_key_update(ssl_.get(), SSL_KEY_UPDATE_REQUESTED);
    } else {
      SSL_new_session_ticket(ssl_.get());
    }
    return Judge(SSL_do_handshake(ssl_.get()));
  }
  ssize_t Receive(char* data, std::size_t size) override {
    return Judge(SSL_read(ssl_.get(), data, static_cast<int>(size)));
  }

 private:
  static int ChooseH2(SSL*, const unsigned char** out, unsigned char* size, const unsigned char*, unsigned,
                      void*) {
    static const unsigned char kH2[] = {'h', '2'};
    *out = kH2;
    *size = sizeof kH2;
    return SSL_TLSEXT_ERR_OK;
  }
  ssize_t Judge(int result) const {
    if (result > 0) return result;
    const int error = SSL_get_error(ssl_.get(), result);
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? 0 : -1;
  }

  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context_;
  std::unique_ptr<SSL, void (*)(SSL*)> ssl_;
};

constexpr std::size_t kFrameHead = 9;

std::size_t NumberAt(const std::string& text, std::size_t at, int bytes) {
  std::size_t number = 0;
  for (int i = 0; i < bytes; ++i) {
    number = number << 8 | static_cast<std::uint8_t>(text[at + static_cast<std::size_t>(i)]);
  }
  return number;
}

/// What the client has sent, as far as an attacker cares.
class Client {
 public:
  void Take(const char* data, std::size_t size) {
    text_.append(data, size);
    if (!has_preface_ && text_.size() >= kPreface) {
      text_.erase(0, kPreface);
      has_preface_ = true;
    }
    while (has_preface_ && text_.size() >= kFrameHead && text_.size() >= kFrameHead + NumberAt(text_, 0, 3)) {
      TakeFrame();
      text_.erase(0, kFrameHead + NumberAt(text_, 0, 3));
    }
  }
  [[nodiscard]] bool has_asked() const { return has_asked_; }

  /// Takes `size` bytes of DATA out of the connection's and the stream's window, if both have them.
  bool UseWindows(std::size_t size) {
    if (size > connection_window_ || size > stream_window_) return false;
    connection_window_ -= size;
    stream_window_ -= size;
    return true;
  }

 private:
  static constexpr std::size_t kPreface = 24;

  void TakeFrame() {
    const std::size_t type = NumberAt(text_, 3, 1);
    const std::size_t stream = NumberAt(text_, 5, 4);
    if (type == kHeaders) has_asked_ = true;
    if (type == kWindowUpdate) {
      (stream == 0 ? connection_window_ : stream_window_) += NumberAt(text_, kFrameHead, 4);
    }
  }

  std::string text_;  ///< What has not been looked at.
  bool has_preface_ = false;
  bool has_asked_ = false;
  std::size_t connection_window_ = 65535;
  std::size_t stream_window_ = 65535;
};

/// How many bytes of `frames` the client's windows let through.
/// @param cleared  Those that they have let through before.
std::size_t Clear(const std::string& frames, std::size_t cleared, Client& client) {
  while (cleared < frames.size()) {
    const std::size_t size = NumberAt(frames, cleared, 3);
    if (frames[cleared + 3] == static_cast<char>(kData) && !client.UseWindows(size)) break;
    cleared += kFrameHead + size;
  }
  return std::min(cleared, frames.size());
}

}  // namespace

Http2Attacker::Http2Attacker(Http2Attack attack,
                             std::optional<TarvoOrvane::Testing::TestCertificate> certificate)
    : attack_(std::move(attack)),
      certificate_(std::move(certificate)),
      server_([this](int fd) { Serve(fd); }) {}

std::string Http2Attacker::url() const {
  return (certificate_ ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(server_.port());
}

void Http2Attacker::Serve(int fd) {
  ++connections_;
  Attack(fd);
  ++ends_;
}

void Http2Attacker::Attack(int fd) {
  std::unique_ptr<Link> link = std::make_unique<PlainLink>(fd);
  if (certificate_) {
    link = std::make_unique<TlsLink>(fd, *certificate_);
    if (!link->Open()) return;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  const bool obeys = attack_.windows == Windows::kAreObeyed;
  Client client;
  std::string outgoing = Frame(kSettings, kNoFlags, kConnection, "");
  std::size_t sent = 0;
  std::size_t cleared = outgoing.size();
  std::uint64_t round = 0;
  bool attacking = false;
  bool exhausted = false;
  std::array<char, 65536> buffer{};
  while (!server_.is_stopping()) {
    const bool reads = !attacking || attack_.answers == Answers::kAreRead;
    const ssize_t count = reads ? link->Receive(buffer.data(), buffer.size()) : 0;
    if (count < 0) return;
    client.Take(buffer.data(), static_cast<std::size_t>(count));
    attacking = attacking || attack_.from == From::kTheStart || client.has_asked();
    if (sent == outgoing.size() && attacking && !exhausted) {
      outgoing = attack_.frames(round++);
      sent = cleared = 0;
      exhausted = outgoing.empty();
    }
    cleared = obeys ? Clear(outgoing, cleared, client) : outgoing.size();
    if (attacking && sent == outgoing.size() && attack_.tls_flood != TlsFlood::kNone) {
      const ssize_t flooded = link->Flood(attack_.tls_flood);
      if (flooded < 0) return;
      sent_ += static_cast<std::uint64_t>(flooded);
      if (flooded > 0) continue;
    }
    const ssize_t written = sent < cleared ? link->Send(outgoing.data() + sent, cleared - sent) : 0;
    if (written < 0) return;
    sent += static_cast<std::size_t>(written);
    if (attacking) sent_ += static_cast<std::uint64_t>(written);
    if (count > 0 || written > 0) continue;
    pollfd ready{fd, static_cast<short>((reads ? POLLIN : 0) | (sent < cleared ? POLLOUT : 0)), 0};
    if (poll(&ready, 1, kLookMs) > 0 && (ready.revents & (POLLHUP | POLLERR)) != 0) return;
  }
}

}  // namespace hostile
