#include "program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <thread>

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

int PlainStatus(int wait_status) {
  return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

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

}  // namespace

bool Eventually(const std::function<bool()>& condition, milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  while (!condition()) {
    if (steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(20));
  }
  return true;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text << std::flush;
  if (!file) {
    throw std::runtime_error("can't write " + path);
  }
}

Program::Program(const std::vector<std::string>& argv, const std::string& output_file,
                 const Environment& extra)
    : output_file_(output_file) {
  std::vector<std::string> arguments = argv;
  std::vector<std::string> environment = EnvironmentWith(extra);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  // As from a service manager: what the test has inherited must not shift the daemon's descriptor numbers.
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  const int error = posix_spawnp(&pid_, arguments[0].c_str(), &actions, nullptr, Pointers(arguments).data(),
                                 Pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "can't start " + argv[0]);
  }
}

Program::~Program() {
  if (status_ < 0) {
    kill(pid_, SIGKILL);
    static_cast<void>(Wait());
  }
}

int Program::Wait(milliseconds limit) {
  if (status_ < 0) {
    status_ = WaitForProcess(pid_, limit);
  }
  return status_;
}

int WaitForProcess(pid_t pid, milliseconds limit) {
  int status = 0;
  const bool ended = Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit);
  return ended ? PlainStatus(status) : -1;
}

void AdoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

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

std::set<int> OpenDescriptors(pid_t pid) {
  std::set<int> descriptors;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
    descriptors.insert(std::stoi(entry.path().filename()));
  }
  return descriptors;
}
