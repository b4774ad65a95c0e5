/// Requests for a part of a file (RFC 9110, section 14).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace TarvoOrvane::SupportService {

/// So much of a file.
struct ByteRange {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  bool is_part =
      false;  ///< It was asked for: the answer is 206 with ContentRange(). Otherwise it is all of the file.
};

/// Reads a Range header. Several ranges, another unit and what is malformed count for nothing: all of the file is
/// meant.
/// @param file_size  In bytes.
/// @return Nothing when no byte of the file is asked for: the answer is 416 with UnsatisfiedRange().
std::optional<ByteRange> ParseRange(std::string_view header, std::uint64_t file_size);

/// The value of Content-Range for a part, as "bytes 0-9/100".
std::string ContentRange(const ByteRange& range, std::uint64_t file_size);

/// The value of Content-Range in an answer 416, as "bytes */100".
std::string UnsatisfiedRange(std::uint64_t file_size);

}  // namespace TarvoOrvane::SupportService
