#include "zstd_stream.h"

#include <sched.h>
#define ZSTD_STATIC_LINKING_ONLY  // ZSTD_c_literalCompressionMode
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>
#include <system_error>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

/// More threads would only wait for the caller's own work, which is of the same order as theirs.
constexpr unsigned kMaxWorkers = 4;
/// Bytes that a thread compresses at a time. Memory is a few times that; what is smaller compresses worse.
constexpr std::size_t kJobBytes = std::size_t{1} << 21;
/// Bytes that are handed over at a time. Smaller ones cost wake-ups, larger ones leave the second-level cache.
constexpr std::size_t kInputBlockBytes = std::size_t{1} << 19;
constexpr std::size_t kOutputBytes = std::size_t{1} << 18;

std::size_t CheckZstd(std::size_t result) {
  if (ZSTD_isError(result) != 0) throw std::runtime_error(ZSTD_getErrorName(result));
  return result;
}

/// ZSTD_compressBound(), for sizes beyond std::size_t as well.
std::uint64_t CompressedBound(std::uint64_t bytes) { return bytes + bytes / 256 + 1024; }

/// On a single core threads would only cost memory.
unsigned WantedWorkers() {
  cpu_set_t cores;
  // It fails only where there are more cores than the set has room for.
  const bool known = sched_getaffinity(0, sizeof cores, &cores) == 0;
  const unsigned count = known ? static_cast<unsigned>(CPU_COUNT(&cores)) : kMaxWorkers;
  return count < 2 ? 0 : std::min(count, kMaxWorkers);
}

/// Returns how many there are: none where the library was built without threads.
unsigned SetWorkers(ZSTD_CCtx* context, unsigned wanted) {
  if (ZSTD_isError(ZSTD_CCtx_setParameter(context, ZSTD_c_nbWorkers, static_cast<int>(wanted))) != 0) {
    return 0;
  }
  if (wanted > 0) CheckZstd(ZSTD_CCtx_setParameter(context, ZSTD_c_jobSize, static_cast<int>(kJobBytes)));
  return wanted;
}

}  // namespace

ZstdStream::ZstdStream(int fd, int level)
    : fd_(fd), context_(ZSTD_createCCtx(), &ZSTD_freeCCtx), output_(kOutputBytes) {
  if (!context_) throw std::bad_alloc();
  CheckZstd(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, level));
  // Negative levels leave it out, and logs are larger by a third then. The header offers the parameter to static
  // linking alone, but it is the same in the shared libraries of all versions since 1.4.0.
  CheckZstd(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_literalCompressionMode, ZSTD_ps_enable));
  CheckZstd(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1));
  workers_ = SetWorkers(context_.get(), WantedWorkers());
}

ZstdStream::~ZstdStream() { StopThread(); }

void ZstdStream::Write(std::string_view bytes) {
  given_ += bytes.size();
  while (!bytes.empty()) {
    std::string& block = filling().bytes;
    if (block.capacity() < kInputBlockBytes) block.reserve(kInputBlockBytes);
    const std::string_view part = bytes.substr(0, kInputBlockBytes - block.size());
    block += part;
    bytes.remove_prefix(part.size());
    if (block.size() == kInputBlockBytes) HandOver();
  }
}

const std::string& ZstdStream::PartSums() {
  HandOver();
  WaitUntilTaken(0);
  return part_sums_;
}

void ZstdStream::HandOver() {
  if (workers_ == 0) return Take(filling());
  StartThread();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++handed_over_;
    changed_.notify_all();
  }
  WaitUntilTaken(blocks_.size() - 1);
}

void ZstdStream::StartThread() {
  if (thread_.joinable()) return;
  try {
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error& error) {
    throw std::runtime_error("no thread can be started: " + error.code().message());
  }
}

/// Waits until the thread has taken all blocks but that many.
void ZstdStream::WaitUntilTaken(std::size_t but) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return handed_over_ - taken_ <= but; });
  if (failure_) std::rethrow_exception(failure_);
}

void ZstdStream::StopThread() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

/// The thread's work, block by block. After a failure it only says that it took them.
void ZstdStream::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stop_ || taken_ < handed_over_; });
    if (taken_ == handed_over_) return;
    Block& block = blocks_[taken_ % blocks_.size()];
    const bool failed = failure_ != nullptr;
    lock.unlock();
    std::exception_ptr failure;
    try {
      if (!failed) Take(block);  // The caller leaves it alone until it is taken.
    } catch (...) {
      failure = std::current_exception();
    }
    lock.lock();
    if (failure) failure_ = failure;
    ++taken_;
    changed_.notify_all();
  }
}

/// Digests and compresses a block, and empties it.
void ZstdStream::Take(Block& block) {
  DigestParts(block);
  Compress(block.bytes);
  block.bytes.clear();
  block.marks.clear();
}

void ZstdStream::DigestParts(const Block& block) {
  const std::string_view bytes = block.bytes;
  std::size_t begin = 0;
  for (const std::size_t mark : block.marks) {
    if (in_part_) {
      part_sum_.Add(bytes.substr(begin, mark - begin));
      part_sums_ += part_sum_.Finish();
    }
    in_part_ = !in_part_;
    begin = mark;
  }
  if (in_part_) part_sum_.Add(bytes.substr(begin));
}

void ZstdStream::Compress(std::string_view bytes) {
  ZSTD_inBuffer input = {bytes.data(), bytes.size(), 0};
  while (input.pos < input.size) {
    ZSTD_outBuffer output = {output_.data(), output_.size(), filled_};
    CheckZstd(ZSTD_compressStream2(context_.get(), &output, &input, ZSTD_e_continue));
    filled_ = output.pos;
    if (filled_ == output_.size()) Flush();
  }
}

void ZstdStream::End() {
  HandOver();
  WaitUntilTaken(0);
  StopThread();
  std::size_t left = 1;
  while (left > 0) {
    ZSTD_inBuffer input = {nullptr, 0, 0};
    ZSTD_outBuffer output = {output_.data(), output_.size(), filled_};
    left = CheckZstd(ZSTD_compressStream2(context_.get(), &output, &input, ZSTD_e_end));
    filled_ = output.pos;
    Flush();
  }
}

std::uint64_t ZstdStream::SizeBound(std::uint64_t more) const {
  // What the library holds: at most two more jobs than threads in either form, and a window of input.
  const std::uint64_t held =
      (2 * std::uint64_t{workers_} + 6) * kJobBytes + output_.size() + blocks_.size() * kInputBlockBytes;
  return std::min(size_ + CompressedBound(held + more), CompressedBound(given_ + more));
}

void ZstdStream::Flush() {
  const std::string_view bytes(output_.data(), filled_);
  if (!WriteAll(fd_, bytes)) throw std::runtime_error(ErrorText(errno));
  sum_.Add(bytes);
  size_ += bytes.size();
  filled_ = 0;
}

}  // namespace TARVO::SupportForm
