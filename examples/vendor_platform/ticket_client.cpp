/// libtarvoorvane: the ticket client. In the place of your support service it has a FIFO, whose absolute path is the
/// configured address: a line "TOKEN APP..." there is a ticket. The answers are appended to a file of that name with
/// ".answers" behind it.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/support_service_client.h"

namespace TarvoOrvane::FastSupport {
namespace {

CallStatus Failure(int error) { return {true, error, std::strerror(error)}; }

Ticket Parsed(const std::string& line) {
  Ticket ticket;
  std::istringstream words(line);
  words >> ticket.token;
  for (std::string app; words >> app;) ticket.apps.push_back(app);
  return ticket;
}

}  // namespace

class FastSupportClient::Impl {
 public:
  explicit Impl(const std::string& path) : path_(path) {}
  ~Impl() {
    if (fd_ >= 0) close(fd_);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  /// Reads the next line.
  /// @return 0, or why there is none, as errno has it.
  int Next(std::string& line) {
    if (fd_ < 0 && !Open()) return errno;
    std::size_t end = 0;
    while ((end = read_.find('\n')) == std::string::npos) {
      pollfd wait = {fd_, POLLIN, 0};
      // A signal ends the wait, and this attempt: the daemon looks at its stop flag before it makes the next one.
      if (poll(&wait, 1, -1) < 0) return errno;
      char chunk[512];
      const ssize_t size = read(fd_, chunk, sizeof(chunk));
      if (size > 0) read_.append(chunk, static_cast<std::size_t>(size));
    }
    line = read_.substr(0, end);
    read_.erase(0, end + 1);
    return 0;
  }

  [[nodiscard]] bool Answer(const char* answer) const {
    std::ofstream file(path_ + ".answers", std::ios::app);
    file << answer << std::endl;
    return file.good();
  }

 private:
  /// For reading and writing, so that there is always a writer, and never an end of the file.
  bool Open() {
    errno = EINVAL;
    if (path_.empty() || path_[0] != '/') return false;
    if (mkfifo(path_.c_str(), 0600) != 0 && errno != EEXIST) return false;
    fd_ = open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    return fd_ >= 0;
  }

  std::string path_;
  std::string read_;  ///< What was read and is no ticket yet.
  int fd_ = -1;       ///< -1 until the first attempt that could open the FIFO.
};

FastSupportClient::FastSupportClient(const std::string& address) : impl_(std::make_unique<Impl>(address)) {}

FastSupportClient::~FastSupportClient() = default;

ReceiveResult FastSupportClient::Receive() {
  ReceiveResult result;
  std::string line;
  const int error = impl_->Next(line);
  if (error == 0) {
    result.request = Parsed(line);
  } else {
    result.status = Failure(error);
  }
  return result;
}

CallStatus FastSupportClient::Send(ClientStatus status) {
  return impl_->Answer(status == kAccepted ? "accepted" : "rejected") ? CallStatus{} : Failure(EIO);
}

}  // namespace TarvoOrvane::FastSupport
