#include "http_request.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

/// The value of a hex digit; 16 for what is none.
unsigned int HexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<unsigned int>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<unsigned int>(digit - 'a') + 10;
  if (digit >= 'A' && digit <= 'F') return static_cast<unsigned int>(digit - 'A') + 10;
  return 16;
}

/// What Query() looks for, and finds.
struct Search {
  const std::string& name;
  std::optional<std::string> value;
};

MHD_Result TakeParameter(void* search_pointer, MHD_ValueKind /*kind*/, const char* key, std::size_t key_size,
                         const char* value, std::size_t value_size) {
  auto& search = *static_cast<Search*>(search_pointer);
  if (PercentDecoded({key, key_size}) != search.name) return MHD_YES;
  search.value = value == nullptr ? std::string() : PercentDecoded({value, value_size});
  return MHD_NO;
}

MHD_Result CheckParameter(void* is_whole, MHD_ValueKind /*kind*/, const char* key, std::size_t key_size,
                          const char* value, std::size_t value_size) {
  const bool has_value = value == nullptr || PercentDecoded({value, value_size});
  if (has_value && PercentDecoded({key, key_size})) return MHD_YES;
  *static_cast<bool*>(is_whole) = false;
  return MHD_NO;
}

}  // namespace

HttpRequest::HttpRequest(MHD_Connection* connection, std::string method, std::string_view path,
                         const HttpPeer& peer)
    : connection_(connection),
      method_(std::move(method)),
      path_(path.substr(0, kMaxPathBytes)),
      peer_(peer) {}

std::optional<std::string> HttpRequest::Header(const char* name) const {
  const char* value = MHD_lookup_connection_value(connection_, MHD_HEADER_KIND, name);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

std::optional<std::string> HttpRequest::Query(const std::string& name) const {
  // The library's own look-up takes names in whatever case for the same.
  Search search{name, std::nullopt};
  MHD_get_connection_values_n(connection_, MHD_GET_ARGUMENT_KIND, &TakeParameter, &search);
  return search.value;
}

bool HttpRequest::HasWholeQuery() const {
  bool is_whole = true;
  MHD_get_connection_values_n(connection_, MHD_GET_ARGUMENT_KIND, &CheckParameter, &is_whole);
  return is_whole;
}

std::optional<std::string> HttpRequest::Cookie(const std::string& name) const {
  // The library's own parser ends cookies at commas too, and lets quotes hide what follows.
  const std::string header = Header(MHD_HTTP_HEADER_COOKIE).value_or("");
  for (std::string_view rest = header; !rest.empty();) {
    std::string_view cookie = rest.substr(0, rest.find(';'));
    rest.remove_prefix(std::min(rest.size(), cookie.size() + 1));
    cookie.remove_prefix(std::min(cookie.size(), cookie.find_first_not_of(' ')));
    const std::size_t equals = cookie.find('=');
    if (equals != std::string_view::npos && cookie.substr(0, equals) == name) {
      return std::string(cookie.substr(equals + 1));
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> HttpRequest::body_length() const {
  // A body in chunks has no length, whatever the other header says.
  if (Header(MHD_HTTP_HEADER_TRANSFER_ENCODING)) return std::nullopt;
  const std::string text = Header(MHD_HTTP_HEADER_CONTENT_LENGTH).value_or("0");
  std::uint64_t length = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), length);
  return result.ec == std::errc() ? length : std::numeric_limits<std::uint64_t>::max();
}

std::optional<std::string> PercentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char byte = text[i];
    if (byte == '%') {
      if (text.size() - i < 3) return std::nullopt;
      const unsigned int high = HexDigit(text[i + 1]);
      const unsigned int low = HexDigit(text[i + 2]);
      if (high > 15 || low > 15) return std::nullopt;
      byte = static_cast<char>(high << 4 | low);
      i += 2;
    }
    if (byte == '\0') return std::nullopt;
    decoded += byte;
  }
  return decoded;
}

}  // namespace TarvoOrvane::SupportService
