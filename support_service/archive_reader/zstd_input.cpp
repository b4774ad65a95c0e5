#include "zstd_input.h"

#include <unistd.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <cerrno>
#include <ctime>
#include <new>

namespace TarvoOrvane::ArchiveReader {
namespace {

constexpr std::size_t kPackedBytes = std::size_t{64} << 10;

double CpuSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

}  // namespace

ZstdInput::ZstdInput(int fd, const ReadLimits& limits)
    : fd_(fd),
      limits_(limits),
      context_(ZSTD_createDCtx(), &ZSTD_freeDCtx),
      packed_(kPackedBytes),
      unpacked_(ZSTD_DStreamOutSize()) {
  if (!context_) throw std::bad_alloc();
  ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, kWindowLog);
}

ZstdInput::~ZstdInput() = default;

std::string_view ZstdInput::Next() {
  ZSTD_outBuffer out{unpacked_.data(), unpacked_.size(), 0};
  while (out.pos == 0) {
    if (ended_ || failure_) return {};
    // Here, and not for each block that comes out: there may be frames without number that hold nothing.
    if (CpuSeconds() > limits_.cpu_seconds) return Fail(ReaderEnd::kTooMuchTime);
    if (taken_ == packed_size_ && !holds_back_ && !Refill()) return {};
    ZSTD_inBuffer in{packed_.data(), packed_size_, taken_};
    const std::size_t result = ZSTD_decompressStream(context_.get(), &out, &in);
    if (ZSTD_isError(result) != 0) return FailToUnpack(result);
    begun_ = true;
    taken_ = in.pos;
    in_frame_ = result != 0;
    holds_back_ = in_frame_ && out.pos == out.size;
  }
  unpacked_bytes_ += out.pos;
  if (unpacked_bytes_ > limits_.unpacked_bytes) return Fail(ReaderEnd::kTooMuchContent);
  return {unpacked_.data(), out.pos};
}

void ZstdInput::Drain() {
  while (!Next().empty()) {
  }
}

/// Reads more. Returns false where there is no more.
bool ZstdInput::Refill() {
  ssize_t count = 0;
  do {
    count = read(fd_, packed_.data(), packed_.size());
  } while (count == -1 && errno == EINTR);
  taken_ = 0;
  packed_size_ = count > 0 ? static_cast<std::size_t>(count) : 0;
  if (count > 0) return true;
  ended_ = true;
  if (count < 0) {
    failure_ = ReaderEnd::kInputFailed;
  } else if (in_frame_) {
    failure_ = ReaderEnd::kDamaged;
  } else if (!begun_) {
    failure_ = ReaderEnd::kNoArchive;
  }
  return false;
}

std::string_view ZstdInput::Fail(ReaderEnd failure) {
  failure_ = failure;
  return {};
}

std::string_view ZstdInput::FailToUnpack(std::size_t result) {
  switch (ZSTD_getErrorCode(result)) {
    case ZSTD_error_frameParameter_windowTooLarge:
    case ZSTD_error_memory_allocation:
      return Fail(ReaderEnd::kTooMuchMemory);
    case ZSTD_error_prefix_unknown:
      return Fail(begun_ ? ReaderEnd::kDamaged : ReaderEnd::kNoArchive);
    default:
      return Fail(ReaderEnd::kDamaged);
  }
}

}  // namespace TarvoOrvane::ArchiveReader
