/// How much more an archive may take: its limits, and the space on the device, reckoned as if nothing could be
/// compressed. Knows numbers only; who has the archive looks at the device for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// How many bytes are added before the device is looked at again. By so much may the archive's needs grow between two
/// looks, so that it is also what is to be kept free for the manifest beside its length at the last look.
inline constexpr std::uint64_t kLookBytes = std::uint64_t{1} << 20;

/// What a look at the device shows. All in bytes.
struct DeviceSpace {
  std::uint64_t free = 0;          ///< Free for the archive, what is reserved for it included.
  std::uint64_t archive_size = 0;  ///< Of the archive's file by now. It may have grown since `free` was seen.
  std::uint64_t archive_end =
      0;  ///< The most to which that file comes if it gets the manifest and nothing else.
  std::uint64_t file_size_limit = 0;  ///< The most that the process may give a file.
};

/// Whether one more entry may be taken.
struct Allowance {
  std::optional<std::uint64_t>
      bytes;        ///< How much of its content, up to all; nothing where it is to be left out.
  std::string why;  ///< For people, where it is to be left out: "left out: …".
};

/// The budget of one archive. Used in the collector, in the thread that writes the archive.
class SpaceBudget {
 public:
  /// Looks at the device; nothing where that can't be told, which counts as room for anything.
  using Look = std::function<std::optional<DeviceSpace>()>;

  /// @param limits  archive_entries, archive_bytes and free_bytes count; borrowed.
  /// @param look    Called when it is needed, by Allow() and RoomFor() only.
  SpaceBudget(const Limits& limits, Look look);

  /// Tells how much of one more entry may be taken.
  /// @param size   Bytes of its content.
  /// @param least  Where fewer than these, and fewer than all, may be taken, it is to be left out.
  [[nodiscard]] Allowance Allow(std::uint64_t size, std::uint64_t least);

  /// Bytes of content for which there is space, whatever they compress to, beside what must remain free and what the
  /// manifest may need. As of now only where `wanted` bytes don't fit; otherwise as of the last look, at most
  /// kLookBytes ago.
  [[nodiscard]] std::uint64_t RoomFor(std::uint64_t wanted);

  /// Counts an entry that the archive now has, with so many bytes of content.
  void Add(std::uint64_t size);

 private:
  /// Sets room_ by what the device shows now, less a small share: what can't be compressed grows a little.
  void LookAgain();
  /// What the last look showed, for people.
  [[nodiscard]] std::string WhyNoRoom() const;

  const Limits& limits_;
  Look look_;
  std::uint64_t entries_ = 0;      ///< Those added.
  std::uint64_t bytes_ = 0;        ///< Of their contents.
  std::uint64_t room_ = 0;         ///< Bytes of content for which there is space, as far as is known.
  std::uint64_t since_look_ = 0;   ///< Bytes added since the last look, and
  DeviceSpace seen_;               ///< what that showed.
  bool file_limit_binds_ = false;  ///< There is room on the device, but not under the process's limit.
};

}  // namespace TARVO::SupportForm
