#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "sha256.h"

struct ZSTD_CCtx_s;

namespace TARVO::SupportForm {

/// Compresses a stream of bytes into a file, as one zstd frame with a checksum, and digests the file and the parts
/// of the stream that the caller marks. Used in one thread. Where the process may use several cores, compressing,
/// digesting and writing go on in threads of its own beside the caller's work; they start once there is a block's
/// worth to compress.
///
/// Its failures, std::runtime_error, are for good: nothing more can be written then.
class ZstdStream {
 public:
  /// @param fd     Where the compressed bytes go; borrowed.
  /// @param level  As zstd counts them; below 0 is faster than its usual ones.
  ZstdStream(int fd, int level);
  ~ZstdStream();
  ZstdStream(const ZstdStream&) = delete;
  ZstdStream& operator=(const ZstdStream&) = delete;

  /// Takes the next bytes. They may reach the file later, and a failure to write them may show at a later call. Waits
  /// while the threads are behind by all blocks of the ring.
  void Write(std::string_view bytes);
  /// What is written from here up to EndPart() is a part, and gets a digest of its own. Parts don't overlap.
  void BeginPart() { MarkHere(); }
  /// Its digest is among PartSums() from now on.
  void EndPart() { MarkHere(); }
  /// SHA-256 of each part so far, in the order of the parts: kSumDigits lower-case hex digits for each. Waits until all
  /// that was written is digested.
  [[nodiscard]] const std::string& PartSums();
  /// Ends the frame and its threads; all of it is in the file then. To be called once, last but for size() and Sum().
  void End();

  /// Bytes of the file so far; all of them after End().
  [[nodiscard]] std::uint64_t size() const { return size_; }
  /// SHA-256 of the file, in lower-case hex digits. To be called once, after End().
  [[nodiscard]] std::string Sum() { return sum_.Finish(); }
  /// The most bytes that the file can come to with what was taken so far and `more` further bytes.
  [[nodiscard]] std::uint64_t SizeBound(std::uint64_t more) const;

 private:
  /// A stretch of the stream.
  struct Block {
    std::string bytes;               ///< As Write() got them, not compressed.
    std::vector<std::size_t> marks;  ///< Offsets in it at which a part begins or ends, by turns.
  };

  // By the caller's thread.
  void MarkHere() { filling().marks.push_back(filling().bytes.size()); }
  Block& filling() { return blocks_[handed_over_ % blocks_.size()]; }
  void HandOver();     ///< Gives the block that is being filled to the thread, or does its work here.
  void StartThread();  ///< Does nothing where it runs already.
  void WaitUntilTaken(std::size_t but);
  void StopThread();  ///< Waits until it has taken all that it was given.
  // By the stream's own thread, or the caller's where there is none.
  void Run();
  void Take(Block& block);
  void DigestParts(const Block& block);  ///< Goes on with the digest of the part that has begun, if one has.
  void Compress(std::string_view bytes);
  void Flush();  ///< Writes output_ to the file and digests it.

  int fd_;  ///< See the constructor.
  /// The library's, with as many threads of its own as workers_ says.
  std::unique_ptr<ZSTD_CCtx_s, std::size_t (*)(ZSTD_CCtx_s*)> context_;
  std::uint64_t given_ = 0;  ///< Bytes of the stream so far. The caller's alone.
  unsigned workers_ = 0;     ///< Threads of the library's; 0: the caller does all the work.

  /// A ring. The caller fills the block at handed_over_, the thread is at the one at taken_.
  std::array<Block, 8> blocks_;
  std::mutex mutex_;                 ///< For the four below.
  std::condition_variable changed_;  ///< One of them did.
  std::size_t handed_over_ = 0;      ///< Blocks given to the thread. Changed by the caller alone.
  std::size_t taken_ = 0;            ///< Blocks that it is done with.
  std::exception_ptr failure_;       ///< Why the thread takes nothing more.
  bool stop_ = false;                ///< The thread is to end.

  // While there is a thread, these are its own.
  Sha256 part_sum_;                      ///< Of the part that has begun.
  bool in_part_ = false;                 ///< The stream is between a part's beginning and its end.
  std::string part_sums_;                ///< Of the parts that have ended.
  Sha256 sum_;                           ///< Of the file.
  std::vector<char> output_;             ///< Compressed bytes on their way to the file.
  std::size_t filled_ = 0;               ///< How much of output_ is in use.
  std::atomic<std::uint64_t> size_ = 0;  ///< Bytes of the file; the caller reads it at any time.

  std::thread thread_;  ///< Digests, feeds the library and writes what it gives.
};

}  // namespace TARVO::SupportForm
