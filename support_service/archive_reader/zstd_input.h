/// What an archive unpacks to, a block after the other. Its memory does not grow with the archive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "reader_end.h"

struct ZSTD_DCtx_s;

namespace TarvoOrvane::ArchiveReader {

class ZstdInput {
 public:
  /// @param fd  The compressed archive; borrowed, and read from where it stands.
  /// @throws std::bad_alloc when there is no memory for the unpacker.
  ZstdInput(int fd, const ReadLimits& limits);
  ~ZstdInput();
  ZstdInput(const ZstdInput&) = delete;
  ZstdInput& operator=(const ZstdInput&) = delete;

  /// The next bytes, which last until the next call. Empty at the end, for whichever reason.
  [[nodiscard]] std::string_view Next();
  /// Unpacks what is left, and drops it: only then is it known whether the archive is whole.
  void Drain();
  /// Why there is no more, once Next() has come to the end; nothing where that is the file's own.
  [[nodiscard]] std::optional<ReaderEnd> failure() const { return failure_; }

 private:
  bool Refill();
  std::string_view Fail(ReaderEnd failure);
  std::string_view FailToUnpack(std::size_t result);

  const int fd_;
  const ReadLimits limits_;
  std::unique_ptr<ZSTD_DCtx_s, std::size_t (*)(ZSTD_DCtx_s*)> context_;
  std::vector<char> packed_;     ///< As it was read.
  std::size_t packed_size_ = 0;  ///< How much of packed_ is in use.
  std::size_t taken_ = 0;        ///< How much of that was unpacked.
  std::vector<char> unpacked_;
  std::uint64_t unpacked_bytes_ = 0;  ///< In all.
  bool begun_ = false;                ///< A first frame was unpacked, or a part of it.
  bool in_frame_ = false;
  bool holds_back_ = false;  ///< The library has more without further input.
  bool ended_ = false;
  std::optional<ReaderEnd> failure_;
};

}  // namespace TarvoOrvane::ArchiveReader
