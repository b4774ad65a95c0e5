#include "collector_launch.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "file_util.h"
#include "json_text.h"
#include "task_folder.h"
#include "task_process.h"

namespace TARVO::SupportForm {
namespace {

constexpr const char* kCollectorName = "debug_dat_collect";

/// The file that holds this code. Linked into a program, that is known by the name that it was started by, which
/// leads nowhere once the working folder has changed.
std::string OwnFile() {
  static const char own_address = 0;
  Dl_info own = {};
  if (dladdr(&own_address, &own) != 0 && own.dli_fname != nullptr && own.dli_fname[0] == '/') {
    return own.dli_fname;
  }
  std::array<char, PATH_MAX> program = {};
  const ssize_t length = readlink("/proc/self/exe", program.data(), program.size());
  return {program.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

std::string CollectorPath() {
  const std::string file = OwnFile();
  return file.substr(0, file.rfind('/') + 1) + kCollectorName;
}

/// Puts `text` where the program reads its standard input.
bool GiveInput(const std::string& text) {
  const UniqueFd input(memfd_create("app_list", MFD_CLOEXEC));
  return input.valid() && WriteAll(input.get(), text) && lseek(input.get(), 0, SEEK_SET) == 0 &&
         dup2(input.get(), STDIN_FILENO) >= 0;
}

/// Returns only when the program can't be started, with errno set.
void Execute(const std::string& program, const std::string& task_id, const std::string& input) {
  if (!GiveInput(input) || fcntl(kTaskLockFd, F_SETFD, 0) != 0) return;
  const char* const arguments[] = {kCollectorName, "--task", task_id.c_str(), nullptr};
  char* const environment[] = {nullptr};
  execve(program.c_str(), const_cast<char* const*>(arguments), environment);
}

}  // namespace

int BecomeProgram(const std::string& program, const std::string& task_id, const Json::Value& app_list) {
  WriteTaskRecord(kTaskLockFd, "the collector " + program + " ended before it began its work: see whether " +
                                   program + " --help runs");
  Execute(program, task_id, CompactJson(app_list));
  const std::string failure = "the collector " + program + " can't be started: " + ErrorText(errno);
  WriteTaskRecord(kTaskLockFd, failure);
  return 1;
}

int BecomeCollector(const Paths& /*paths*/, const std::string& task_id, const Json::Value& app_list) {
  return BecomeProgram(CollectorPath(), task_id, app_list);
}

}  // namespace TARVO::SupportForm
