#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace TARVO::SupportForm {

/// How a file is compressed. Told by its first bytes, whatever its name is.
enum class Packing {
  kNone,  ///< Not, or in a way that is not known here; such a file is taken as it is.
  kGzip,
  kXz,
  kZstd
};

/// Bytes of a file's beginning that PackingOf() looks at.
inline constexpr std::size_t kPackingMarkBytes = 6;

/// What a file is that begins so. A longer text may be given.
[[nodiscard]] Packing PackingOf(std::string_view head);

/// The word for people, "gzip"; empty for kNone.
[[nodiscard]] std::string NameOf(Packing packing);

/// Unpacks compressed bytes, those of several compressed parts behind each other, too, as they are read. Nothing is
/// unpacked twice: what comes out compressed stays so. The bytes may be anybody's: memory is bounded, and so is the
/// time for each byte that is read or comes out; how many these are is for the caller to bound.
///
/// zlib, liblzma and libzstd are used without libarchive between, whose filters let xz data have all the memory that
/// it asks for.
class Unpacker {
 public:
  /// Memory for one file's window: enough for all levels of xz, and for those of zstd but the highest, 22.
  static constexpr std::uint64_t kWindowBytes = std::uint64_t{64} << 20;

  /// Reads the next bytes into a buffer of the given capacity. 0 at the end, negative on failure, with errno set; it
  /// is not asked again after either.
  using Input = std::function<ssize_t(char*, std::size_t)>;

  /// @param packing  Not kNone.
  /// @param input    Gives the compressed bytes from their beginning; called by Read() only.
  Unpacker(Packing packing, Input input);
  ~Unpacker();
  Unpacker(const Unpacker&) = delete;
  Unpacker& operator=(const Unpacker&) = delete;

  /// Fills the buffer with what comes next. Less than its capacity only before the end or a failure.
  /// @return 0 at the end, negative on failure.
  [[nodiscard]] ssize_t Read(char* buffer, std::size_t capacity);

  /// Why it went no further, for people; empty while it does, and at the end.
  [[nodiscard]] const std::string& failure() const { return failure_; }
  /// Whether there is something behind the last compressed part, zeros not counted, that is not compressed so. It is
  /// not read.
  [[nodiscard]] bool has_tail() const { return has_tail_; }
  /// Compressed bytes read so far.
  [[nodiscard]] std::uint64_t bytes_read() const { return bytes_read_; }

 private:
  class Decoder;  // one of the three below, each over its library
  class Gzip;
  class Xz;
  class Zstd;

  // Those that return false have called Fail(), or there is nothing more.
  bool Refill();
  bool BeginPart();
  std::size_t Step(char* buffer, std::size_t capacity);
  /// Notes why, and that nothing more comes out.
  void Fail(const std::string& why);

  Packing packing_;                   ///< How every part of the file is compressed.
  Input input_;                       ///< The caller's.
  std::unique_ptr<Decoder> decoder_;  ///< Never null; used for one part after the other.
  std::vector<char> buffer_;          ///< Compressed bytes.
  std::string_view left_;             ///< What of buffer_ is still to be unpacked.
  bool input_ended_ = false;          ///< input_ has said so, and is not asked again.
  bool begun_ = false;                ///< There was a part.
  bool in_part_ = false;              ///< A part has begun and not ended.
  bool ended_ = false;                ///< Nothing more comes out, for whatever reason.
  bool has_tail_ = false;
  std::string failure_;
  std::uint64_t bytes_read_ = 0;
};

}  // namespace TARVO::SupportForm
