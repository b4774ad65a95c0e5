/// The entries of an archive, one after the other, and their content.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "reader_end.h"
#include "zstd_input.h"

struct archive;
struct archive_entry;

namespace TarvoOrvane::ArchiveReader {

/// Of what there is content, and of what there is none. A file with holes counts as another thing: nothing is read of
/// it, or a short archive could stand for any number of zeros.
enum class EntryKind { kFile, kFolder, kLink, kOther };

struct Entry {
  std::uint64_t number = 0;  ///< 1 for the archive's first one.
  std::string name;          ///< As it stands there: any bytes, and nobody's path.
  EntryKind kind = EntryKind::kOther;
  std::uint64_t size = 0;     ///< In bytes; as the header says.
  std::int64_t modified = 0;  ///< In seconds since 1970, UTC; as the header says.
  std::string target;         ///< Of a link; any bytes, too.
};

/// Reads tar, unpacked by ZstdInput. Only what debug.dat is made of is turned on in the library: tar as GNU and POSIX
/// have it, and no filter.
class ArchiveWalk {
 public:
  /// Reads nothing yet.
  /// @param fd  The compressed archive; borrowed.
  /// @throws std::bad_alloc.
  ArchiveWalk(int fd, const ReadLimits& limits);
  ~ArchiveWalk();
  ArchiveWalk(const ArchiveWalk&) = delete;
  ArchiveWalk& operator=(const ArchiveWalk&) = delete;

  /// Goes on to the next entry, over what is left of the content of this one.
  /// @return Null where there is none: then end() says why. Lasts until the next call.
  [[nodiscard]] const Entry* Next();
  /// The next bytes of a file's content, which last until the next call.
  /// @return Empty at its end, which is too early where end() says why or fewer bytes came than the header says.
  [[nodiscard]] std::string_view Content();
  /// Nothing before the end. kComplete: every byte of the archive was read, and is what was compressed.
  [[nodiscard]] std::optional<ReaderEnd> end() const { return end_; }

 private:
  void Stop(ReaderEnd end);
  void StopAtEndOfTar();
  void StopDamaged();
  bool Open();
  bool TakeEntry(archive_entry* header);

  const ReadLimits limits_;
  ZstdInput input_;
  std::unique_ptr<archive, int (*)(archive*)> archive_;
  Entry entry_;
  std::uint64_t content_bytes_ = 0;  ///< That Content() has given of the entry.
  bool is_open_ = false;
  std::optional<ReaderEnd> end_;
};

}  // namespace TarvoOrvane::ArchiveReader
