/// What is known of an HTTP request once its head was read, and of who sent it. One thread at a time uses it.
#pragma once

#include <microhttpd.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace TarvoOrvane::SupportService {

/// Who is at a connection's other end.
struct HttpPeer {
  std::string address = "unknown address";      ///< ADDRESS:PORT, or "control socket".
  std::optional<std::string> certificate_name;  ///< As HttpRequest::certificate_name().
  std::optional<uid_t> local_user;              ///< As HttpRequest::local_user().
};

/// Wraps the library's connection. Lives as long as the request, longer than its Exchange.
class HttpRequest {
 public:
  /// The server makes it.
  HttpRequest(MHD_Connection* connection, std::string method, std::string_view path, const HttpPeer& peer);
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  [[nodiscard]] const std::string& method() const { return method_; }
  /// As it came: percent-encoded, without the query, and cut behind kMaxPathBytes. PercentDecoded() reads it.
  [[nodiscard]] const std::string& path() const { return path_; }
  /// The first header of this name, in whatever case.
  [[nodiscard]] std::optional<std::string> Header(const char* name) const;
  /// The first parameter of this name, decoded: "+" is a space. Nothing when it is missing or its escapes are wrong;
  /// empty where there is a name alone.
  [[nodiscard]] std::optional<std::string> Query(const std::string& name) const;
  /// Whether every parameter can be decoded.
  [[nodiscard]] bool HasWholeQuery() const;
  /// The first cookie of this name, as it came.
  [[nodiscard]] std::optional<std::string> Cookie(const std::string& name) const;

  /// ADDRESS:PORT, or "control socket".
  [[nodiscard]] const std::string& peer() const { return peer_.address; }
  /// The common name of the client's certificate, byte for byte: 1 to 128 printable ASCII characters. Nothing unless
  /// the certificate is a client's, valid now and issued under TlsSettings::client_authority, with that one common
  /// name.
  [[nodiscard]] const std::optional<std::string>& certificate_name() const { return peer_.certificate_name; }
  /// The user whose process connected to a unix socket; nothing for TCP.
  [[nodiscard]] std::optional<uid_t> local_user() const { return peer_.local_user; }

  /// The announced length of the body in bytes, 0 where there is none, the largest number where it is no number.
  /// Nothing when the body comes in chunks.
  [[nodiscard]] std::optional<std::uint64_t> body_length() const;
  /// Whether the client waits for "100 Continue", or for a refusal, before it sends the body.
  [[nodiscard]] bool awaits_continue() const { return Header(MHD_HTTP_HEADER_EXPECT).has_value(); }
  /// For the library's form parser.
  [[nodiscard]] MHD_Connection* connection() const { return connection_; }

  static constexpr std::size_t kMaxPathBytes = 4096;

 private:
  MHD_Connection* const connection_;
  const std::string method_;
  const std::string path_;
  const HttpPeer& peer_;  ///< The connection's.
};

/// Reads a text whose bytes may be written as %HH.
/// @return Nothing where an escape is incomplete or no hex number, or stands for NUL.
std::optional<std::string> PercentDecoded(std::string_view text);

}  // namespace TarvoOrvane::SupportService
