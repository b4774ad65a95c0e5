#include "body_stream.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>
#include <vector>

namespace TarvoOrvane::SupportService {
namespace {

/// Where the library copies pieces through; larger ones take several turns.
constexpr std::size_t kBlockBytes = std::size_t{32} * 1024;

int Checked(int fd) {
  if (fd == -1) throw std::system_error(errno, std::generic_category(), "cannot wait for readers of streams");
  return fd;
}

}  // namespace

/// One body. Lives as long as the library or somebody who may wake it.
class BodyStream : public std::enable_shared_from_this<BodyStream> {
 public:
  BodyStream(BodyStreams& streams, std::shared_ptr<BodySource> source, MHD_Connection* connection, int fd)
      : streams_(streams),
        key_(streams.NewKey()),
        fd_(fd),
        source_(std::move(source)),
        connection_(connection) {}

  /// Fills the library's buffer, or suspends the connection. Runs in the library's thread, as Close().
  ssize_t Read(char* buffer, std::size_t size);
  /// There may be a piece.
  void Wake() { Resume(false); }
  /// Ends the body, wherever it is.
  void Stop() { Resume(true); }
  /// The library needs it no more.
  void Close();

 private:
  /// Gets the next piece from the source.
  /// @return What the library is to be told; positive when there is one.
  ssize_t Fetch();
  void Resume(bool is_end);

  BodyStreams& streams_;
  const std::uint64_t key_;
  const int fd_;
  std::shared_ptr<BodySource> source_;  ///< Null from Close() on. It may hold a function that holds this.
  std::string piece_;
  std::size_t taken_bytes_ = 0;  ///< Of the piece.
  std::mutex mutex_;             ///< Guards what follows, and the library's suspending and resuming.
  MHD_Connection* connection_;   ///< Null from Close() on.
  bool woken_ = false;           ///< While the source was asked.
  bool suspended_ = false;
  bool ended_ = false;
};

ssize_t BodyStream::Read(char* buffer, std::size_t size) {
  if (taken_bytes_ == piece_.size()) {
    const ssize_t fetched = Fetch();
    if (fetched <= 0) return fetched;
  }
  const std::size_t count = std::min(size, piece_.size() - taken_bytes_);
  std::memcpy(buffer, piece_.data() + taken_bytes_, count);
  taken_bytes_ += count;
  return static_cast<ssize_t>(count);
}

ssize_t BodyStream::Fetch() {
  for (;;) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (ended_) return MHD_CONTENT_READER_END_WITH_ERROR;
      woken_ = false;
    }
    auto piece = source_->Next([self = shared_from_this()] { self->Wake(); });
    if (!piece) return MHD_CONTENT_READER_END_OF_STREAM;
    if (!piece->empty()) {
      piece_ = *std::move(piece);
      taken_bytes_ = 0;
      return 1;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (woken_) continue;
    if (ended_ || !streams_.Add(shared_from_this(), key_, fd_)) return MHD_CONTENT_READER_END_WITH_ERROR;
    suspended_ = true;
    MHD_suspend_connection(connection_);
    return 0;
  }
}

void BodyStream::Resume(bool is_end) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (connection_ == nullptr) return;
  woken_ = true;
  ended_ = ended_ || is_end;
  if (!std::exchange(suspended_, false)) return;
  streams_.Remove(key_, fd_);
  MHD_resume_connection(connection_);
}

void BodyStream::Close() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    connection_ = nullptr;
  }
  source_.reset();
}

namespace {

/// What the library holds of a stream.
using Handle = std::shared_ptr<BodyStream>;

ssize_t ReadStream(void* handle, std::uint64_t /*position*/, char* buffer, std::size_t size) noexcept {
  // Nothing may be thrown through the library, which is written in C.
  try {
    return (*static_cast<Handle*>(handle))->Read(buffer, size);
  } catch (const std::exception&) {
    return MHD_CONTENT_READER_END_WITH_ERROR;
  }
}

void CloseStream(void* handle_pointer) noexcept {
  const std::unique_ptr<Handle> handle(static_cast<Handle*>(handle_pointer));
  (*handle)->Close();
}

}  // namespace

BodyStreams::BodyStreams()
    : epoll_fd_(Checked(epoll_create1(EPOLL_CLOEXEC))), wake_fd_(Checked(eventfd(0, EFD_CLOEXEC))) {
  epoll_event event{};
  event.events = EPOLLIN;
  epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &event);
  thread_ = std::thread([this] { Run(); });
}

BodyStreams::~BodyStreams() {
  End();
  eventfd_write(wake_fd_, 1);
  thread_.join();
  close(wake_fd_);
  close(epoll_fd_);
}

MHD_Response* BodyStreams::MakeResponse(std::shared_ptr<BodySource> source, MHD_Connection* connection,
                                        int fd) {
  auto handle =
      std::make_unique<Handle>(std::make_shared<BodyStream>(*this, std::move(source), connection, fd));
  MHD_Response* response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kBlockBytes, &ReadStream,
                                                             handle.get(), &CloseStream);
  if (response != nullptr) static_cast<void>(handle.release());
  return response;
}

void BodyStreams::End() {
  std::map<std::uint64_t, std::weak_ptr<BodyStream>> last;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    last = waiting_;
  }
  for (const auto& [key, waiting] : last) {
    if (const auto stream = waiting.lock()) stream->Stop();
  }
}

std::uint64_t BodyStreams::NewKey() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ++last_key_;
}

bool BodyStreams::Add(const std::shared_ptr<BodyStream>& stream, std::uint64_t key, int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (ending_) return false;
  // A client that says that it sends no more has gone, as far as can be told.
  epoll_event event{};
  event.events = EPOLLRDHUP | EPOLLONESHOT;
  event.data.u64 = key;
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) == -1) return false;
  waiting_[key] = stream;
  return true;
}

void BodyStreams::Remove(std::uint64_t key, int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  waiting_.erase(key);
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
}

void BodyStreams::Run() {
  for (;;) {
    epoll_event event{};
    if (epoll_wait(epoll_fd_, &event, 1, -1) != 1) continue;
    const std::uint64_t key = event.data.u64;  // a copy: the kernel's structure is packed
    if (key == 0) return;
    std::shared_ptr<BodyStream> stream;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      const auto found = waiting_.find(key);
      if (found != waiting_.end()) stream = found->second.lock();
    }
    if (stream) stream->Stop();
  }
}

}  // namespace TarvoOrvane::SupportService
