#include "unpacker.h"

#include <lzma.h>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kInputBytes = std::size_t{64} << 10;
/// What liblzma needs beside its window, of any options.
constexpr std::uint64_t kXzOverheadBytes = std::uint64_t{2} << 20;
constexpr int kZstdWindowLog = 26;
static_assert(Unpacker::kWindowBytes == std::uint64_t{1} << kZstdWindowLog);

std::uint8_t* Bytes(char* data) { return static_cast<std::uint8_t*>(static_cast<void*>(data)); }
const std::uint8_t* Bytes(const char* data) {
  return static_cast<const std::uint8_t*>(static_cast<const void*>(data));
}

}  // namespace

Packing PackingOf(std::string_view head) {
  using namespace std::string_view_literals;
  if (head.substr(0, 3) == "\x1f\x8b\x08"sv) return Packing::kGzip;
  if (head.substr(0, 6) ==
      "\xfd"
      "7zXZ\0"sv) {
    return Packing::kXz;
  }
  // The second: a frame to be skipped, with which some tools begin.
  const bool skipped = head.size() >= 4 && (head[0] & 0xF0) == 0x50 && head.substr(1, 3) == "\x2a\x4d\x18"sv;
  return head.substr(0, 4) == "\x28\xb5\x2f\xfd"sv || skipped ? Packing::kZstd : Packing::kNone;
}

std::string NameOf(Packing packing) {
  switch (packing) {  // and no table: the compiler tells which one has no name yet
    case Packing::kNone:
      return {};
    case Packing::kGzip:
      return "gzip";
    case Packing::kXz:
      return "xz";
    case Packing::kZstd:
      return "zstd";
  }
  return {};
}

/// A library's decoder.
class Unpacker::Decoder {
 public:
  enum class Result { kGoesOn, kPartEnded, kDamaged, kTooMuchMemory };

  Decoder() = default;
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  virtual ~Decoder() = default;

  /// Begins the next part.
  virtual void Begin() = 0;
  /// Unpacks what it can, and takes that off both.
  virtual Result Unpack(std::string_view& input, char*& output, std::size_t& room) = 0;
};

class Unpacker::Gzip final : public Decoder {
 public:
  Gzip() {
    constexpr int kWithGzipHeader = 16;
    if (inflateInit2(&stream_, MAX_WBITS + kWithGzipHeader) != Z_OK) throw std::bad_alloc();
  }
  ~Gzip() override { inflateEnd(&stream_); }

  void Begin() override { inflateReset(&stream_); }

  Result Unpack(std::string_view& input, char*& output, std::size_t& room) override {
    stream_.next_in = const_cast<Bytef*>(Bytes(input.data()));  // it only reads there
    stream_.avail_in = static_cast<uInt>(input.size());
    stream_.next_out = Bytes(output);
    stream_.avail_out = static_cast<uInt>(room);
    const int result = inflate(&stream_, Z_NO_FLUSH);
    input.remove_prefix(input.size() - stream_.avail_in);
    output += room - stream_.avail_out;
    room = stream_.avail_out;
    if (result == Z_STREAM_END) return Result::kPartEnded;
    return result == Z_OK || result == Z_BUF_ERROR ? Result::kGoesOn : Result::kDamaged;
  }

 private:
  z_stream stream_ = {};
};

class Unpacker::Xz final : public Decoder {
 public:
  ~Xz() override { lzma_end(&stream_); }

  void Begin() override {
    if (lzma_stream_decoder(&stream_, kWindowBytes + kXzOverheadBytes, 0) != LZMA_OK) throw std::bad_alloc();
  }

  Result Unpack(std::string_view& input, char*& output, std::size_t& room) override {
    stream_.next_in = Bytes(input.data());
    stream_.avail_in = input.size();
    stream_.next_out = Bytes(output);
    stream_.avail_out = room;
    const lzma_ret result = lzma_code(&stream_, LZMA_RUN);
    input.remove_prefix(input.size() - stream_.avail_in);
    output += room - stream_.avail_out;
    room = stream_.avail_out;
    if (result == LZMA_STREAM_END) return Result::kPartEnded;
    if (result == LZMA_MEMLIMIT_ERROR || result == LZMA_MEM_ERROR) return Result::kTooMuchMemory;
    return result == LZMA_OK || result == LZMA_BUF_ERROR ? Result::kGoesOn : Result::kDamaged;
  }

 private:
  lzma_stream stream_ = {};
};

class Unpacker::Zstd final : public Decoder {
 public:
  Zstd() : context_(ZSTD_createDCtx(), &ZSTD_freeDCtx) {
    if (!context_) throw std::bad_alloc();
    ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, kZstdWindowLog);
  }

  void Begin() override {
    ZSTD_DCtx_reset(context_.get(), ZSTD_reset_session_only);
    at_begin_ = true;
  }

  Result Unpack(std::string_view& input, char*& output, std::size_t& room) override {
    // The first byte alone: a frame that comes as a whole the library unpacks in another way, which checks neither the
    // window's size nor all that is checked else. Whether a file counts as damaged must not depend on where its frames
    // lie in a buffer.
    ZSTD_inBuffer in = {input.data(), std::min(input.size(), at_begin_ ? std::size_t{1} : input.size()), 0};
    at_begin_ = false;
    ZSTD_outBuffer out = {output, room, 0};
    const std::size_t result = ZSTD_decompressStream(context_.get(), &out, &in);
    input.remove_prefix(in.pos);
    output += out.pos;
    room -= out.pos;
    if (result == 0) return Result::kPartEnded;
    if (ZSTD_isError(result) == 0) return Result::kGoesOn;
    const ZSTD_ErrorCode error = ZSTD_getErrorCode(result);
    return error == ZSTD_error_frameParameter_windowTooLarge || error == ZSTD_error_memory_allocation
               ? Result::kTooMuchMemory
               : Result::kDamaged;
  }

 private:
  std::unique_ptr<ZSTD_DCtx, std::size_t (*)(ZSTD_DCtx*)> context_;
  bool at_begin_ = true;
};

Unpacker::Unpacker(Packing packing, Input input)
    : packing_(packing), input_(std::move(input)), buffer_(kInputBytes) {
  if (packing == Packing::kGzip) {
    decoder_ = std::make_unique<Gzip>();
  } else if (packing == Packing::kXz) {
    decoder_ = std::make_unique<Xz>();
  } else {
    decoder_ = std::make_unique<Zstd>();
  }
}

Unpacker::~Unpacker() = default;

ssize_t Unpacker::Read(char* buffer, std::size_t capacity) {
  std::size_t filled = 0;
  while (filled < capacity && !ended_) filled += Step(buffer + filled, capacity - filled);
  return filled == 0 && !failure_.empty() ? -1 : static_cast<ssize_t>(filled);
}

/// Unpacks some bytes, or gets nearer to them. Returns how many.
std::size_t Unpacker::Step(char* buffer, std::size_t capacity) {
  if (left_.empty() && !Refill()) return 0;
  if (!in_part_ && !BeginPart()) return 0;
  char* end = buffer;
  std::size_t room = capacity;
  const std::size_t before = left_.size();
  switch (decoder_->Unpack(left_, end, room)) {
    case Decoder::Result::kPartEnded:
      in_part_ = false;
      break;
    case Decoder::Result::kGoesOn:
      // The library may have held bytes back for want of room, so only now is it known that it lacks input.
      if (room < capacity || left_.size() < before) break;
      Fail(left_.empty() ? "it ends too early: damaged, or still being written" : "damaged");
      break;
    case Decoder::Result::kDamaged:
      Fail("damaged");
      break;
    case Decoder::Result::kTooMuchMemory:
      Fail("it needs a window of more than " + std::to_string(kWindowBytes) + " bytes");
      break;
  }
  return capacity - room;
}

/// Reads more behind what is left. Returns false on failure.
bool Unpacker::Refill() {
  if (input_ended_) return true;
  const std::size_t kept = left_.size();
  if (kept > 0) std::memmove(buffer_.data(), left_.data(), kept);
  const ssize_t count = input_(buffer_.data() + kept, buffer_.size() - kept);
  if (count < 0) {
    Fail("it could not be read to its end: " + ErrorText(errno));
    return false;
  }
  input_ended_ = count == 0;
  bytes_read_ += static_cast<std::uint64_t>(count);
  left_ = {buffer_.data(), kept + static_cast<std::size_t>(count)};
  return true;
}

/// Begins the next compressed part. Zeros may lie between two, and behind the last one. Returns false where there is
/// none.
bool Unpacker::BeginPart() {
  do {
    left_.remove_prefix(std::min(left_.find_first_not_of('\0'), left_.size()));
    if (left_.size() < kPackingMarkBytes && !Refill()) return false;
  } while (!input_ended_ && (left_.size() < kPackingMarkBytes || left_.front() == '\0'));
  if (PackingOf(left_) != packing_) {
    has_tail_ = !left_.empty();
    ended_ = true;
    if (!begun_) Fail("damaged");
    return false;
  }
  decoder_->Begin();
  begun_ = in_part_ = true;
  return true;
}

void Unpacker::Fail(const std::string& why) {
  failure_ = why;
  ended_ = true;
}

}  // namespace TARVO::SupportForm
