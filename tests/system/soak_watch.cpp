#include "soak_watch.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <sstream>
#include <vector>

#include "program.h"
#include "system_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kFrameBytes = 2048;
constexpr std::chrono::seconds kReapedWithin{5};  // the supervisor looks every half second
constexpr long kAllowedGrowthKib = 1024;

// What the daemon logs, each text in lines of one kind only.
const std::string kReceived = "Received grpc request, prepare";
const std::string kFailedToReceive = "Failed to recive data";
const std::string kAnswered = "Sent grpc response";
const std::string kHandsOver = "Notify main process";
const std::string kNotHandedOver = "to main process";  // "Failed to send message ..."
const std::string kChildEnded = "Notify worker process";
const std::string kNoChild = "Failed to send debug file";
const std::string kCompletionRead = "Finish waiting main process";

bool Holds(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

bool QuotesATicket(const std::string& line) {
  static const std::array<const char*, 4> kQuoting = {
      "Receive a request(", "Finish handling the request(",
      "The ticket is too large, ticket content: ", "Something wrong for the ticket information: "};
  return std::any_of(kQuoting.begin(), kQuoting.end(), [&](const char* text) { return Holds(line, text); });
}

void RequireNoToken(const std::string& where, const std::string& line) {
  if (Holds(line, kSecretMark) && !QuotesATicket(line)) {
    throw BrokenInvariant("a token stands in " + where + ": " + line.substr(0, 512));
  }
}

void RequireNoTokenInFile(const fs::path& path) {
  std::istringstream content(ReadFile(path));
  for (std::string line; std::getline(content, line);) {
    RequireNoToken(path, line);
  }
}

long ResidentKib(pid_t pid) {
  std::istringstream status(ReadFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string word; status >> word;) {
    if (word == "VmRSS:") {
      long kib = 0;
      status >> kib;
      return kib;
    }
  }
  throw BrokenInvariant("process " + std::to_string(pid) + " has ended");
}

}  // namespace

void SoakWatch::Follow(pid_t supervisor, pid_t worker) {
  supervisor_ = supervisor;
  worker_ = worker;
  counts_.clear();
  zombies_.clear();
  supervisor_descriptors_ = 0;
  is_warm_ = false;
}

void SoakWatch::Look() {
  ReadLog();
  ReadDebugLog();
  if (supervisor_ == 0) {
    return;
  }
  LookForZombies();
  std::vector<pid_t> children = ChildrenOf(supervisor_);
  children.erase(std::remove(children.begin(), children.end(), worker_), children.end());
  if (children.size() > 1) {
    throw BrokenInvariant("there are " + std::to_string(children.size()) + " transmission children at once");
  }
}

void SoakWatch::ReadLog() {
  static_cast<void>(log_.WaitUntil(
      [this](const std::vector<SyslogLine>& lines) {
        for (; lines_read_ < lines.size(); ++lines_read_) {
          const SyslogLine& line = lines[lines_read_];
          RequireNoToken("syslog", line.text);
          if (line.pid == supervisor_ || line.pid == worker_) {
            Take(line.text);
          }
        }
        return true;
      },
      std::chrono::milliseconds(0)));
}

void SoakWatch::ReadDebugLog() {
  const std::string text = ReadFile(kDebugLog);
  const std::size_t whole_lines = text.rfind('\n') + 1;
  std::istringstream lines(text.substr(0, whole_lines).substr(std::min(debug_log_read_, whole_lines)));
  for (std::string line; std::getline(lines, line);) {
    RequireNoToken(kDebugLog, line);
    Take(line);
  }
  debug_log_read_ = whole_lines;
}

void SoakWatch::Take(const std::string& line) {
  for (const std::string& text : {kReceived, kFailedToReceive, kAnswered, kHandsOver, kNotHandedOver,
                                  kChildEnded, kNoChild, kCompletionRead}) {
    counts_[text] += Holds(line, text) ? 1 : 0;
  }
}

void SoakWatch::LookForZombies() {
  ReapOrphans({});
  const auto now = Clock::now();
  std::map<pid_t, Clock::time_point> zombies;
  for (const pid_t pid : AllProcesses()) {
    if (LookAt(pid).state != 'Z') {
      continue;
    }
    const auto known = zombies_.find(pid);
    const auto since = zombies[pid] = known == zombies_.end() ? now : known->second;
    if (now - since > kReapedWithin) {
      throw BrokenInvariant("process " + std::to_string(pid) + " stays a zombie");
    }
  }
  zombies_ = std::move(zombies);
}

pid_t SoakWatch::Child() const {
  for (const pid_t pid : ChildrenOf(supervisor_)) {
    if (pid != worker_ && LookAt(pid).state != 'Z') {
      return pid;
    }
  }
  return 0;
}

std::size_t SoakWatch::Count(const std::string& text) const {
  const auto found = counts_.find(text);
  return found == counts_.end() ? 0 : found->second;
}

bool SoakWatch::IsSettled() const {
  const std::size_t completions = Count(kChildEnded) + Count(kNoChild);
  if (Count(kAnswered) != Count(kReceived) - Count(kFailedToReceive) || completions != HandedOver() ||
      BytesInTheWorkersPipe() != (completions - Count(kCompletionRead)) * kFrameBytes) {
    return false;
  }
  const std::set<pid_t> expected = {1, getpid(), supervisor_, worker_};
  const std::vector<pid_t> processes = AllProcesses();
  return std::all_of(processes.begin(), processes.end(), [&](pid_t pid) { return expected.count(pid) != 0; });
}

std::string SoakWatch::Numbers() const {
  std::string text = "the daemon's lines:";
  for (const auto& [line, count] : counts_) {
    text += " \"" + line + "\" " + std::to_string(count) + ';';
  }
  text += " bytes in the worker's pipe: " + std::to_string(BytesInTheWorkersPipe()) + "; processes:";
  for (const pid_t pid : AllProcesses()) {
    const std::string name = ReadFile("/proc/" + std::to_string(pid) + "/comm");
    text += ' ' + std::to_string(pid) + ' ' + name.substr(0, name.find('\n'));
  }
  return text;
}

/// The worker holds one pipe's end to read from and another's to write to, which is empty when the supervisor has
/// taken what there was.
std::size_t SoakWatch::BytesInTheWorkersPipe() const {
  std::size_t bytes = 0;
  for (const int number : OpenDescriptors(worker_)) {
    const std::string path = "/proc/" + std::to_string(worker_) + "/fd/" + std::to_string(number);
    std::error_code gone;
    if (fs::read_symlink(path, gone).string().rfind("pipe:", 0) != 0) {
      continue;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    int waiting = 0;
    bytes += ioctl(fd, FIONREAD, &waiting) == 0 ? static_cast<std::size_t>(waiting) : 0;
    close(fd);
  }
  return bytes;
}

void SoakWatch::CheckResources(bool is_warm) {
  if (supervisor_descriptors_ == 0) {
    supervisor_descriptors_ = OpenDescriptors(supervisor_).size();
    worker_descriptors_ = OpenDescriptors(worker_).size();
  }
  // A connection's end is cleared away by a thread of gRPC's, a little later.
  if (!Eventually([&] {
        return OpenDescriptors(supervisor_).size() <= supervisor_descriptors_ &&
               OpenDescriptors(worker_).size() <= worker_descriptors_;
      })) {
    throw BrokenInvariant("descriptors grow: supervisor " + std::to_string(supervisor_descriptors_) + " to " +
                          std::to_string(OpenDescriptors(supervisor_).size()) + ", worker " +
                          std::to_string(worker_descriptors_) + " to " +
                          std::to_string(OpenDescriptors(worker_).size()));
  }
  if (is_warm) {
    CompareMemory(memory_[0], supervisor_, "supervisor");
    CompareMemory(memory_[1], worker_, "worker");
    is_warm_ = true;
  }
}

void SoakWatch::CompareMemory(Memory& memory, pid_t pid, const char* name) {
  memory.at_end = ResidentKib(pid);
  if (!is_warm_) {
    memory.at_start = memory.at_end;
  }
  const long growth = memory.at_end - memory.at_start;
  largest_growth_kib_ = std::max(largest_growth_kib_, growth);
  // A sanitizer keeps what was freed.
  if (std::string(SANITIZER_RUNTIME).empty() && growth > kAllowedGrowthKib) {
    throw BrokenInvariant(std::string("the ") + name +
                          "'s resident memory grows: " + std::to_string(memory.at_start) +
                          " KiB after the warm-up, now " + std::to_string(memory.at_end));
  }
}

void SoakWatch::SearchFilesForTokens() {
  for (const char* folder : {"/usr/tarvo", "/var/lib/tarvo", "/var/log", "/run"}) {
    std::error_code none;
    const auto options = fs::directory_options::skip_permission_denied;
    for (fs::recursive_directory_iterator entry(folder, options, none), end; entry != end;
         entry.increment(none)) {
      if (entry->is_regular_file(none) && entry->file_size(none) < (std::size_t{64} << 20)) {
        RequireNoTokenInFile(entry->path());
      }
    }
  }
}
