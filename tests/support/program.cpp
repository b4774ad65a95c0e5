#include "program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>
#include <sstream>

namespace test_support {

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

std::vector<std::string> EnvironmentWith(const Environment& extra) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (extra.count(text.substr(0, text.find('='))) == 0) {
      entries.push_back(text);
    }
  }
  for (const auto& [name, value] : extra) {
    entries.push_back(name);
    entries.back() += '=' + value;
  }
  return entries;
}

pid_t Start(const std::vector<std::string>& argv, const std::string& output_file, const Environment& extra) {
  const int output = open(output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const pid_t pid = StartProgram(argv, EnvironmentWith(extra), {-1, output, output});
  close(output);
  return pid;
}

}  // namespace

Program::Program(const std::vector<std::string>& argv, const std::string& output_file,
                 const Environment& extra)
    : output_file_(output_file), process_(Start(argv, output_file, extra)) {}

std::string Program::WaitForLine(const std::string& start) const {
  std::string rest;
  static_cast<void>(Eventually([&] {
    const std::string text = "\n" + Output();
    const std::size_t found = text.find("\n" + start);
    const std::size_t end = found == std::string::npos ? found : text.find('\n', found + 1);
    if (end == std::string::npos) return false;
    rest = text.substr(found + 1 + start.size(), end - found - 1 - start.size());
    return true;
  }));
  return rest;
}

int Program::Wait(milliseconds limit) {
  if (status_ < 0) {
    const Ending ending = process_.WaitForEnd(limit);
    if (ending.in_time) status_ = ending.signal != 0 ? 128 + ending.signal : ending.exit_status;
  }
  return status_;
}

void ReapOrphans(const std::set<pid_t>& spared) {
  for (const pid_t pid : ChildrenOf(getpid())) {
    if (spared.count(pid) == 0 && LookAt(pid).state == 'Z') {
      waitpid(pid, nullptr, WNOHANG);
    }
  }
}

ProcessState LookAt(pid_t pid) {
  // The second field, the name in brackets, may itself hold blanks and brackets.
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) {
    return {};
  }
  std::istringstream rest(stat.substr(name_end + 1));
  const std::vector<std::string> fields{std::istream_iterator<std::string>(rest), {}};
  constexpr std::size_t kExitCode = 49;  // the 52nd of the file, counted from the third
  ProcessState result;
  result.state = fields.at(0)[0];
  result.parent = std::stoi(fields.at(1));
  result.exit_code = std::stoi(fields.at(kExitCode));
  return result;
}

bool HasEnded(pid_t pid) {
  const char state = LookAt(pid).state;
  if (state != 'Z') {
    return state == 0;
  }
  // The first thread may be gone before the others, which hold the process's descriptors and locks until they are.
  std::error_code gone;
  const fs::directory_iterator threads("/proc/" + std::to_string(pid) + "/task", gone);
  return std::distance(fs::begin(threads), fs::end(threads)) <= 1;
}

std::vector<pid_t> AllProcesses() {
  std::vector<pid_t> pids;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (std::all_of(name.begin(), name.end(), [](unsigned char c) { return isdigit(c) != 0; })) {
      pids.push_back(std::stoi(name));
    }
  }
  return pids;
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> children;
  for (const pid_t pid : AllProcesses()) {
    if (LookAt(pid).parent == parent) {
      children.push_back(pid);
    }
  }
  return children;
}

}  // namespace test_support
