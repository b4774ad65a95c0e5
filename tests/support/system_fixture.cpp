#include "system_fixture.h"

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr char kSandboxMark[] = "/dev/.sandbox";
constexpr char kSerialNumber[] = "SYSTEM-TEST-1";
constexpr char kServiceOutput[] = "/run/system_test/service.out";

void RemoveFormerTraces() {
  for (const char* path :
       {"/usr/tarvo", "/var/lib/tarvo", kDebugLog, kPidFile, kTestFolder, "/run/vendor", "/run/sleep_shim"}) {
    fs::remove_all(path);
  }
}

pid_t ReadPidFile() {
  const std::string text = ReadFile(kPidFile);
  return text.empty() || text.back() != '\n' ? 0 : std::stoi(text);
}

}  // namespace

SystemTest::SystemTest() = default;
SystemTest::~SystemTest() = default;

void SystemTest::SetUp() {
  // Everything below replaces files of the device's.
  ASSERT_EQ(access(kSandboxMark, F_OK), 0) << "run this through tools/sandbox";
  RemoveFormerTraces();
  for (const char* folder : {kTestFolder, "/run/vendor", "/run/sleep_shim"}) fs::create_directories(folder);
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  // A collection writes there that its session comes last. Beside busy processes it would then hardly run at all.
  ASSERT_EQ(mount(nullptr, "/proc", nullptr,
                  MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr),
            0)
      << strerror(errno);
  AdoptOrphans();
  WriteFile("/usr/tarvo/etc/serial_number", std::string(kSerialNumber) + '\n');
  syslog_ = std::make_unique<SyslogListener>();
}

void SystemTest::TearDown() {
  service_.reset();
  for (const pid_t pid : daemon_processes_) {
    for (const pid_t child : ChildrenOf(pid)) {
      kill(child, SIGKILL);
    }
    kill(pid, SIGKILL);
  }
  // A worker or child whose supervisor is gone is the test's own.
  for (const pid_t child : ChildrenOf(getpid())) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
}

std::string SystemTest::BinaryPath(const std::string& name) {
  return std::string(BINARY_FOLDER) + '/' + name;
}
std::string SystemTest::LibraryFolder(const std::string& name) {
  return std::string(LIBRARY_FOLDER) + '/' + name;
}

void SystemTest::StartService(const std::string& grpc_address) {
  service_.reset();
  std::vector<std::string> arguments = {BinaryPath(service_program_),
                                        "--data",
                                        kServiceFolder,
                                        "--grpc-address",
                                        grpc_address,
                                        "--http-address",
                                        "127.0.0.1:0",
                                        "--retry-seconds",
                                        "2"};
  if (!uses_certificates_) arguments.emplace_back("--allow-list");
  service_ = std::make_unique<Program>(arguments, kServiceOutput);
  ASSERT_TRUE(Eventually([&] { return service_->Output().find("control socket ") != std::string::npos; }))
      << service_->Output();
  grpc_url_ = service_->WaitForLine("grpc listening on ");
  css_url_ = service_->WaitForLine("css listening on ");
  EnrolDevice();
}

void SystemTest::EnrolDevice() const {
  const std::string folder = std::string(kTestFolder) + "/enrolment";
  Program enrol({BinaryPath("supportctl"), "--data", kServiceFolder, "device", "enrol", kSerialNumber,
                 "--renew", "--out", folder},
                std::string(kTestFolder) + "/enrol.out");
  ASSERT_EQ(enrol.Wait(), 0) << enrol.Output();
  if (!uses_certificates_) return;
  const std::filesystem::path tls = "/usr/tarvo/etc/tls";
  std::filesystem::create_directories(tls);
  for (const char* file : {"ca.pem", "client.pem", "client.key"}) {
    std::filesystem::copy_file(std::filesystem::path(folder) / file, tls / file,
                               std::filesystem::copy_options::overwrite_existing);
  }
}

void SystemTest::WriteConfig() const {
  WriteConfig(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + grpc_url_ +
              R"("}, "css_server": {"url": ")" + css_url_ + R"("}}})");
}

void SystemTest::WriteConfig(const std::string& text) { WriteFile(kServiceConfig, text); }

void SystemTest::DescribeApp(const std::string& name, const std::vector<std::string>& argv) {
  std::string list;
  for (const std::string& argument : argv) {
    list += (list.empty() ? "\"" : ", \"") + argument + "\"";
  }
  WriteFile("/usr/tarvo/etc/support_form_log.d/" + name + ".json",
            R"({"commands": [{"argv": [)" + list + R"(], "time_limit_seconds": 60}]})");
}

pid_t SystemTest::StartDaemon(const Environment& extra) {
  const pid_t former = ReadPidFile();
  Program start({BinaryPath("debug_dat_transmitter")}, std::string(kTestFolder) + "/daemon.out", extra);
  EXPECT_EQ(start.Wait(), 0) << start.Output();
  EXPECT_TRUE(Eventually([&] { return ReadPidFile() > 0 && ReadPidFile() != former; })) << WholeLog();
  supervisor_ = ReadPidFile();
  // Not just a failed expectation: kill() takes 0 for the test's own process group, ctest included.
  if (supervisor_ <= 0) {
    throw std::runtime_error("the daemon did not start");
  }
  daemon_processes_.insert(supervisor_);
  return supervisor_;
}

pid_t SystemTest::WorkerOf(pid_t supervisor) {
  EXPECT_TRUE(Eventually([&] { return !ChildrenOf(supervisor).empty(); }));
  const std::vector<pid_t> children = ChildrenOf(supervisor);
  if (children.empty()) {
    throw std::runtime_error("the supervisor has no worker");
  }
  return *std::min_element(children.begin(), children.end());
}

void SystemTest::StartAll() {
  ASSERT_NO_FATAL_FAILURE(StartService());
  WriteConfig();
  StartDaemon();
  worker_ = WorkerOf(supervisor_);
  ASSERT_TRUE(Eventually([&] { return service_->Output().find("device connected") != std::string::npos; }))
      << WholeLog();
}

std::string SystemTest::SendTicket(const std::string& apps) {
  Program client({BinaryPath("supportctl"), "--data", kServiceFolder, "send", kSerialNumber, "--apps", apps},
                 std::string(kTestFolder) + "/send.out");
  EXPECT_EQ(client.Wait(), 0) << client.Output();
  const std::string output = client.Output();
  return output.substr(0, output.find('\n'));
}

bool SystemTest::WaitForTicket(const std::string& id, const std::string& text, milliseconds limit) const {
  return Eventually([&] { return TicketEvents(id).find(text) != std::string::npos; }, limit);
}

std::string SystemTest::TicketEvents(const std::string& id) const {
  std::istringstream output(service_->Output());
  std::string events;
  for (std::string line; std::getline(output, line);) {
    if (line.find("ticket " + id + ' ') != std::string::npos) {
      events += line + '\n';
    }
  }
  return events;
}

std::string SystemTest::ReceivedArchive(const std::string& id) {
  return std::string(kServiceFolder) + "/archives/" + id + "-1.dat";
}

bool SystemTest::WaitForLog(SyslogRole role, const std::string& text, std::size_t count,
                            milliseconds limit) const {
  return syslog_->WaitUntil(
      [&](const std::vector<SyslogLine>& lines) {
        return static_cast<std::size_t>(
                   std::count_if(lines.begin(), lines.end(), [&](const SyslogLine& line) {
                     return line.role == role && line.text.find(text) != std::string::npos;
                   })) >= count;
      },
      limit);
}

std::size_t SystemTest::CountLog(SyslogRole role, const std::string& text) const {
  const std::vector<std::string> lines = LogOf(role);
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(text) != std::string::npos;
  }));
}

std::vector<std::string> SystemTest::LogOf(SyslogRole role) const {
  std::vector<std::string> texts;
  for (const SyslogLine& line : syslog_->Lines()) {
    if (line.role == role) {
      texts.push_back(line.text);
    }
  }
  return texts;
}

std::string SystemTest::WholeLog() const {
  std::string text = "the log:\n";
  for (const SyslogLine& line : syslog_->Lines()) {
    text += std::string(SyslogRoleName(line.role)) + ' ' + std::to_string(line.pid) + ": " + line.text + '\n';
  }
  return text + (service_ ? "the service:\n" + service_->Output() : "");
}

testing::AssertionResult SystemTest::EndsBySigtermWithinASecond(pid_t pid) {
  // A worker is reaped by nobody while its supervisor lives, so its end shows as a zombie.
  if (kill(pid, SIGTERM) != 0) {
    return testing::AssertionFailure() << "no process " << pid;
  }
  if (!Eventually([&] { return LookAt(pid).state == 'Z'; }, milliseconds(1000))) {
    return testing::AssertionFailure() << "process " << pid << " still runs, state " << LookAt(pid).state;
  }
  const int status = LookAt(pid).exit_code;
  if (status != 0) {
    return testing::AssertionFailure() << "process " << pid << " ended with wait status " << status;
  }
  return testing::AssertionSuccess();
}

std::vector<std::string> SystemTest::ArchivesOnDevice() {
  std::vector<std::string> found;
  std::error_code none;
  for (const auto& entry : fs::recursive_directory_iterator(kTaskFolder, none)) {
    if (entry.path().filename() == "debug.dat") {
      found.push_back(entry.path());
    }
  }
  return found;
}
