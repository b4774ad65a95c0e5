#include "process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "text_fields.h"

namespace DebugDatRun {

using TARVO::SupportForm::UniqueFd;

namespace {

// The declarations of Debian 12's <sys/pidfd.h> are not for C++.
int OpenPidfd(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }
bool SendToPidfd(int fd, int signal_number) {
  return syscall(SYS_pidfd_send_signal, fd, signal_number, nullptr, 0) == 0;
}

constexpr std::size_t kNameLength = 15;

/// Takes apart "PID (NAME) STATE PARENT GROUP SESSION …". The name may hold any character, blanks and brackets too.
bool ParseStat(const char* text, ProcessFacts& facts) {
  const char* const name = strchr(text, '(');
  const char* const name_end = strrchr(text, ')');
  if (name == nullptr || name_end == nullptr || name_end < name) return false;
  const std::vector<std::string_view> words = WordsOf(name_end + 1);  // the third field comes first
  ProcessFacts read;
  if (words.size() < 20 || !ReadNumber(words[1], read.parent) || !ReadNumber(words[3], read.session) ||
      !ReadNumber(words[19], read.start)) {
    return false;
  }
  read.state = words[0].front();
  read.pid = static_cast<pid_t>(strtol(text, nullptr, 10));
  read.name.assign(name + 1, name_end);
  facts = std::move(read);
  return true;
}

}  // namespace

bool LookAt(pid_t pid, ProcessFacts& facts) {
  std::array<char, 64> path = {};
  static_cast<void>(snprintf(path.data(), path.size(), "/proc/%d/stat", pid));
  const UniqueFd file(open(path.data(), O_RDONLY | O_CLOEXEC));
  std::array<char, 1024> text = {};  // the last one stays zero
  return file.valid() && read(file.get(), text.data(), text.size() - 1) > 0 && ParseStat(text.data(), facts);
}

std::vector<ProcessFacts> AllProcesses() {
  std::vector<ProcessFacts> all;
  DIR* const folder = opendir("/proc");
  if (folder == nullptr) return all;
  while (const dirent* entry = readdir(folder)) {
    ProcessFacts facts;
    const auto pid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
    if (pid > 0 && LookAt(pid, facts)) all.push_back(std::move(facts));
  }
  closedir(folder);
  return all;
}

std::vector<ProcessFacts> DescendantsOf(pid_t ancestor, const std::vector<ProcessFacts>& all) {
  std::vector<ProcessFacts> found;
  std::vector<pid_t> ancestors = {ancestor};
  for (std::size_t next = 0; next < ancestors.size(); ++next) {
    for (const ProcessFacts& facts : all) {
      if (facts.parent != ancestors[next]) continue;
      found.push_back(facts);
      ancestors.push_back(facts.pid);
    }
  }
  return found;
}

std::string ProcessNameOf(const std::string& program) {
  return program.substr(program.rfind('/') + 1).substr(0, kNameLength);
}

std::string EndingText(int status) {
  if (WIFEXITED(status)) return "status " + std::to_string(WEXITSTATUS(status));
  const char* const name = sigabbrev_np(WTERMSIG(status));
  return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(WTERMSIG(status));
}

WatchedProcess WatchedProcess::Open(const ProcessFacts& facts) {
  WatchedProcess watched(facts.pid, OpenPidfd(facts.pid));
  // Between the look and the call the process may have gone and its id been given to another one. If the id still
  // belongs to the one that was looked at, then it did so all the time.
  ProcessFacts now;
  if (!watched.valid() || !LookAt(facts.pid, now) || now.start != facts.start) return {};
  return watched;
}

bool WatchedProcess::HasEnded() const {
  pollfd ended = {fd_.get(), POLLIN, 0};
  return poll(&ended, 1, 0) > 0;
}

bool WatchedProcess::Signal(int signal_number) const {
  return valid() && SendToPidfd(fd_.get(), signal_number);
}

}  // namespace DebugDatRun
