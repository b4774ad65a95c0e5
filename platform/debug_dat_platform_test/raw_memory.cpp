#include "raw_memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

namespace DebugDatPlatformTest {
namespace {

constexpr std::uint64_t kMaxTextSize = std::uint64_t{1} << 20;

/// The form of libstdc++'s std::string since its fifth version.
struct StringForm {
  const char* text;
  std::size_t size;
  std::size_t capacity;  ///< Unless the text is short: then it stands here and behind.
};

constexpr std::size_t kLongestShortText = 15;

}  // namespace

/// A pipe refuses what can't be read.
bool CanBeRead(const void* address) {
  std::array<int, 2> ends = {-1, -1};
  const bool can = pipe2(ends.data(), O_CLOEXEC) == 0 && write(ends[1], address, 1) == 1;
  for (const int end : ends) close(end);
  return can;
}

bool IsBool(const unsigned char* byte) { return *byte <= 1; }

bool HasFlagInFront(const unsigned char* optional, std::size_t value_offset) {
  // Left as they were, or cleared with the rest.
  const auto are_all_like_the_first = [&] {
    return std::all_of(optional + 1, optional + value_offset,
                       [&](unsigned char byte) { return byte == optional[1]; });
  };
  return IsBool(optional) && are_all_like_the_first() && (optional[1] == 0 || optional[1] == 0xa5);
}

bool IsString(const unsigned char* bytes) {
  StringForm form = {};
  std::memcpy(&form, bytes, sizeof(form));
  const bool is_short = static_cast<const void*>(form.text) == bytes + offsetof(StringForm, capacity);
  if (form.size > kMaxTextSize || (is_short ? form.size > kLongestShortText : form.capacity < form.size)) {
    return false;
  }
  return CanBeRead(form.text) && CanBeRead(form.text + form.size) && form.text[form.size] == '\0';
}

}  // namespace DebugDatPlatformTest
