#include "reserved_room.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace TARVO::SupportForm {
namespace {

/// Reserved at a time, where there is so much.
constexpr std::uint64_t kStepBytes = std::uint64_t{8} << 20;

}  // namespace

std::uint64_t FileSizeLimit() {
  constexpr auto kNone = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  rlimit limit = {};
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kNone;
  return std::min<std::uint64_t>(limit.rlim_cur, kNone);
}

ReservedRoom::ReservedRoom(int fd) : fd_(fd), limit_(FileSizeLimit()) {}

bool ReservedRoom::Reserve(std::uint64_t bytes) {
  if (bytes > limit_) {
    errno = EFBIG;
    return false;
  }
  return !supported_ || bytes <= reserved_ || Extend(bytes + kStepBytes) || Extend(bytes);
}

bool ReservedRoom::Extend(std::uint64_t bytes) {
  int result = 0;
  do {
    result = fallocate(fd_, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(reserved_),
                       static_cast<off_t>(bytes - reserved_));
  } while (result != 0 && errno == EINTR);
  if (result == 0) {
    reserved_ = bytes;
  } else if (errno != ENOSPC && errno != EDQUOT && errno != EFBIG && errno != EIO) {
    supported_ = false;
  }
  return result == 0 || !supported_;
}

void ReservedRoom::Release(std::uint64_t bytes) {
  // To the size that it has: file systems free what lies behind the end then.
  if (reserved_ > 0) static_cast<void>(!ftruncate(fd_, static_cast<off_t>(bytes)));
}

}  // namespace TARVO::SupportForm
