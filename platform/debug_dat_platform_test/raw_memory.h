/// Looks at what a library has written into memory of ours, without trusting its form.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

namespace DebugDatPlatformTest {

/// Room for one object that a library makes, between bytes that nobody may write to. The object is never destroyed.
template <typename T>
class Guarded {
 public:
  Guarded() { bytes_.fill(kUntouched); }

  [[nodiscard]] void* Place() { return &bytes_[kGuard]; }
  [[nodiscard]] T& Object() { return *static_cast<T*>(Place()); }
  [[nodiscard]] const unsigned char* Bytes() const { return &bytes_[kGuard]; }

  /// Whether only the object's own bytes were written to.
  [[nodiscard]] bool IsIntact() const {
    const auto is_untouched = [](unsigned char byte) { return byte == kUntouched; };
    return std::all_of(bytes_.begin(), bytes_.begin() + kGuard, is_untouched) &&
           std::all_of(bytes_.begin() + kGuard + sizeof(T), bytes_.end(), is_untouched);
  }

 private:
  static constexpr std::ptrdiff_t kGuard = 128;
  static constexpr unsigned char kUntouched = 0xa5;

  alignas(64) std::array<unsigned char, sizeof(T) + 2 * kGuard> bytes_;
};

/// Whether there is memory at the address, at least a byte.
[[nodiscard]] bool CanBeRead(const void* address);

/// Whether the byte is that of a bool.
[[nodiscard]] bool IsBool(const unsigned char* byte);

/// Whether an optional value's flag stands at `optional`: a bool, and nothing in the bytes up to its value.
[[nodiscard]] bool HasFlagInFront(const unsigned char* optional, std::size_t value_offset);

/// Whether a std::string lies there whose text can be read.
[[nodiscard]] bool IsString(const unsigned char* bytes);

}  // namespace DebugDatPlatformTest
