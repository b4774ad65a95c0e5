#include "audit_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "app_description.h"
#include "file_util.h"
#include "json_text.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::int64_t kLockLookMs = 1;

[[noreturn]] void Fail(const std::string& path) {
  throw std::runtime_error("the audit log " + path + " can't be written: " + ErrorText(errno));
}

/// Refuses what somebody else may have put in the log's place: a file of their own, which they could lock for good,
/// or a second name of a file that is no log.
void RefuseForeign(const struct stat& file, const std::string& path) {
  if (S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink <= 1) return;
  throw std::runtime_error("the audit log " + path +
                           " can't be written: it is no file of the caller's own with one name; remove it");
}

/// Waits for the lock, but not for ever: who had the file open when its mode let them can keep it.
void Lock(int fd, const std::string& path, unsigned wait_ms) {
  const std::int64_t deadline = MonotonicMs() + wait_ms;
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) Fail(path);
    if (MonotonicMs() >= deadline) {
      throw std::runtime_error("the audit log " + path +
                               " can't be written: somebody keeps it locked; rename it");
    }
    SleepMs(kLockLookMs);
  }
}

/// Opens the log and locks it. What another process renamed meanwhile is not the log any more.
UniqueFd OpenLocked(const std::string& path, unsigned wait_ms) {
  for (;;) {
    UniqueFd fd(open(path.c_str(),
                     O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
    struct stat opened = {};
    if (!fd.valid() || fstat(fd.get(), &opened) != 0) Fail(path);
    RefuseForeign(opened, path);
    Lock(fd.get(), path, wait_ms);
    struct stat named = {};
    if (lstat(path.c_str(), &named) == 0 && named.st_dev == opened.st_dev && named.st_ino == opened.st_ino) {
      return fd;
    }
  }
}

std::uint64_t SizeOf(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

std::string AuditLine(const AuditRecord& record) {
  Json::Value line(Json::objectValue);
  line["time"] = IsoTime(record.time);
  line["for"] = record.task_id.empty() ? "command line" : "ticket";
  if (!record.task_id.empty()) line["task_id"] = record.task_id;
  line["apps"] = Json::arrayValue;
  Json::UInt64 others = 0;
  for (const Json::Value& asked : record.app_list) {
    if (asked.isString() && IsAppName(asked.asString())) {
      line["apps"].append(asked);
    } else {
      ++others;
    }
  }
  if (others > 0) line["no_app_names"] = others;
  line["size"] = Json::UInt64{record.archive.size};
  line["sha256"] = record.archive.sha256;
  line["redaction"] = record.redaction;
  line["redacted"] = Json::UInt64{record.archive.redacted};
  return CompactJson(line) + "\n";
}

void AppendAuditLine(const std::string& path, std::uint64_t max_bytes, const std::string& line,
                     unsigned wait_ms) {
  UniqueFd fd = OpenLocked(path, wait_ms);
  const std::uint64_t size = SizeOf(fd.get());
  if (size > 0 && size + line.size() > max_bytes) {
    if (std::rename(path.c_str(), (path + ".1").c_str()) != 0) Fail(path);
    fd = OpenLocked(path, wait_ms);
  }
  if (fchmod(fd.get(), 0600) != 0 || !WriteAll(fd.get(), line)) Fail(path);
}

}  // namespace TARVO::SupportForm
