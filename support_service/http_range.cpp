#include "http_range.h"

#include <strings.h>

#include <algorithm>
#include <limits>

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::string_view kUnit = "bytes=";

/// A number of any length; one that is too large becomes the largest. Nothing for what is no number.
std::optional<std::uint64_t> ParsePosition(std::string_view text) {
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  std::uint64_t number = 0;
  for (const char digit : text) {
    const auto value = static_cast<std::uint64_t>(digit - '0');
    number = number > (kLargest - value) / 10 ? kLargest : number * 10 + value;
  }
  return number;
}

/// The last bytes of a file.
std::optional<ByteRange> Suffix(std::uint64_t length, std::uint64_t file_size) {
  if (length == 0) return std::nullopt;
  const std::uint64_t size = std::min(length, file_size);
  return ByteRange{file_size - size, size, size > 0};
}

}  // namespace

std::optional<ByteRange> ParseRange(std::string_view header, std::uint64_t file_size) {
  const ByteRange whole{0, file_size, false};
  if (header.size() < kUnit.size() || strncasecmp(header.data(), kUnit.data(), kUnit.size()) != 0) {
    return whole;
  }
  header.remove_prefix(kUnit.size());
  const std::size_t dash = header.find('-');
  if (dash == std::string_view::npos) return whole;
  const auto first = ParsePosition(header.substr(0, dash));
  const auto last = ParsePosition(header.substr(dash + 1));
  if (dash == 0) return last ? Suffix(*last, file_size) : whole;
  const bool is_open = dash + 1 == header.size();
  if (!first || (!last && !is_open) || (last && *last < *first)) return whole;
  if (*first >= file_size) return std::nullopt;
  const std::uint64_t end = is_open ? file_size - 1 : std::min(*last, file_size - 1);
  return ByteRange{*first, end - *first + 1, true};
}

std::string ContentRange(const ByteRange& range, std::uint64_t file_size) {
  return "bytes " + std::to_string(range.offset) + "-" + std::to_string(range.offset + range.size - 1) + "/" +
         std::to_string(file_size);
}

std::string UnsatisfiedRange(std::uint64_t file_size) { return "bytes */" + std::to_string(file_size); }

}  // namespace TarvoOrvane::SupportService
