#pragma once

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

/// Compresses a stream of bytes into a file, as one zstd frame with a checksum, and digests the file on its way.
/// Used in one thread. Where the process may use several cores, compressing, digesting and writing go on in threads
/// of its own beside the caller's work; they start once there is a block's worth to compress.
///
/// Its failures, std::runtime_error, are for good: nothing more can be written then.
class ZstdStream {
 public:
  /// @param fd  Where the compressed bytes go; borrowed.
  ZstdStream(int fd, int level);
  ~ZstdStream();
  ZstdStream(const ZstdStream&) = delete;
  ZstdStream& operator=(const ZstdStream&) = delete;

  /// Takes the next bytes. They may reach the file later.
  void Write(std::string_view bytes);
  /// Ends the frame; all of it is in the file then.
  void End();

  /// Bytes of the file. To be called after End().
  [[nodiscard]] std::uint64_t size() const { return size_; }
  /// SHA-256 of the file, in lower-case hex digits. To be called once, after End().
  [[nodiscard]] std::string Sum() { return sum_.Finish(); }
  /// The most bytes by which the file may still grow through what was taken so far and `more` further bytes.
  [[nodiscard]] std::uint64_t GrowthBound(std::uint64_t more) const;

 private:
  void HandOver();
  void WaitUntilTaken();
  void StopThread();
  void Run();
  void Compress(std::string_view bytes);
  void Flush();

  int fd_;
  std::unique_ptr<ZSTD_CCtx_s, std::size_t (*)(ZSTD_CCtx_s*)> context_;
  unsigned workers_ = 0;  ///< Threads of the library's; 0: the caller does all the work.
  std::string filling_;   ///< What was taken and not yet handed over.

  std::mutex mutex_;                 ///< For the four below.
  std::condition_variable changed_;  ///< One of them did.
  std::string handed_over_;          ///< The block that the thread is at; empty: it waits for one.
  std::exception_ptr failure_;       ///< Why the thread compresses nothing more.
  bool stop_ = false;                ///< The thread is to end.

  // While there is a thread, these are its own.
  Sha256 sum_;
  std::vector<char> output_;  ///< Compressed bytes on their way to the file.
  std::size_t filled_ = 0;    ///< How much of output_ is in use.
  std::uint64_t size_ = 0;

  std::thread thread_;  ///< Feeds the library and writes what it gives.
};

}  // namespace TARVO::SupportForm
