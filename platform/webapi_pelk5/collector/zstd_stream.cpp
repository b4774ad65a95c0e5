#include "zstd_stream.h"

#include <sched.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>

#include "file_util.h"

namespace TARVO::SupportForm {
namespace {

/// More threads would only wait for the caller's own work, which is of the same order as theirs.
constexpr unsigned kMaxWorkers = 4;
/// Bytes that a thread compresses at a time. Memory is a few times that; what is smaller compresses worse.
constexpr std::size_t kJobBytes = std::size_t{1} << 20;
/// Bytes that are handed over at a time. Small enough for the processor's second-level cache.
constexpr std::size_t kBlockBytes = std::size_t{1} << 18;
constexpr std::size_t kOutputBytes = std::size_t{1} << 18;

std::size_t CheckZstd(std::size_t result) {
  if (ZSTD_isError(result) != 0) throw std::runtime_error(ZSTD_getErrorName(result));
  return result;
}

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
  if (ZSTD_isError(ZSTD_CCtx_setParameter(context, ZSTD_c_nbWorkers, static_cast<int>(wanted))) != 0)
    return 0;
  if (wanted > 0) CheckZstd(ZSTD_CCtx_setParameter(context, ZSTD_c_jobSize, static_cast<int>(kJobBytes)));
  return wanted;
}

}  // namespace

ZstdStream::ZstdStream(int fd, int level)
    : fd_(fd), context_(ZSTD_createCCtx(), &ZSTD_freeCCtx), output_(kOutputBytes) {
  if (!context_) throw std::bad_alloc();
  CheckZstd(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, level));
  CheckZstd(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1));
  filling_.reserve(kBlockBytes);
  workers_ = SetWorkers(context_.get(), WantedWorkers());
}

ZstdStream::~ZstdStream() { StopThread(); }

void ZstdStream::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view part = bytes.substr(0, kBlockBytes - filling_.size());
    filling_ += part;
    bytes.remove_prefix(part.size());
    if (filling_.size() == kBlockBytes) HandOver();
  }
}

void ZstdStream::HandOver() {
  if (workers_ == 0) {
    Compress(filling_);
  } else {
    if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
    WaitUntilTaken();
    const std::lock_guard<std::mutex> lock(mutex_);
    handed_over_.swap(filling_);
    changed_.notify_all();
  }
  filling_.clear();
  filling_.reserve(kBlockBytes);
}

/// Waits until the thread has compressed what was handed over to it.
void ZstdStream::WaitUntilTaken() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return handed_over_.empty(); });
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

/// The thread's work: compresses block by block. After a failure it only takes them.
void ZstdStream::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stop_ || !handed_over_.empty(); });
    if (handed_over_.empty()) return;
    lock.unlock();
    std::exception_ptr failure;
    try {
      if (!failure_)
        Compress(handed_over_);  // The other thread leaves both alone until handed_over_ is empty.
    } catch (...) {
      failure = std::current_exception();
    }
    lock.lock();
    if (failure) failure_ = failure;
    handed_over_.clear();
    changed_.notify_all();
  }
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
  WaitUntilTaken();
  StopThread();
  Compress(filling_);
  std::size_t left = 1;
  while (left > 0) {
    ZSTD_inBuffer input = {nullptr, 0, 0};
    ZSTD_outBuffer output = {output_.data(), output_.size(), filled_};
    left = CheckZstd(ZSTD_compressStream2(context_.get(), &output, &input, ZSTD_e_end));
    filled_ = output.pos;
    Flush();
  }
}

std::uint64_t ZstdStream::GrowthBound(std::uint64_t more) const {
  // What the library holds: at most two more jobs than threads in either form, and a window of input.
  const std::uint64_t held = (2 * std::uint64_t{workers_} + 6) * kJobBytes + output_.size() + 2 * kBlockBytes;
  const std::uint64_t bytes = held + more;
  return bytes + bytes / 256 + 1024;  // ZSTD_compressBound(), for sizes beyond size_t as well
}

void ZstdStream::Flush() {
  const std::string_view bytes(output_.data(), filled_);
  if (!WriteAll(fd_, bytes)) throw std::runtime_error(ErrorText(errno));
  sum_.Add(bytes);
  size_ += bytes.size();
  filled_ = 0;
}

}  // namespace TARVO::SupportForm
