/// A hostile notification server against the ticket client, in a process that stands for the worker
/// (hostile_worker_main.cpp): each attack of http2_attacks.cpp, in plaintext and over TLS.
///
/// HOSTILE_SECONDS in the environment is how long each attack lasts, with the limits that a device has. Without it the
/// attacks are short, and so is the processor time that they may take.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "http2_attacker.h"
#include "program.h"
#include "temporary_folder.h"

namespace hostile {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using test_support::Eventually;

// What holds whatever the server sends.
constexpr long kMostMemoryKiB = 64L * 1024;
constexpr std::size_t kMostDescriptors = 40;
constexpr milliseconds kMostCpuToStop{1'000};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsOurs = false;  // a sanitizer keeps what is freed
#else
constexpr bool kMemoryIsOurs = true;
#endif

/// How long an attack lasts, and how much processor time a stream may take at once.
struct Plan {
  milliseconds duration{400};
  milliseconds cpu_at_once{50};

  static Plan Make() {
    const char* seconds = std::getenv("HOSTILE_SECONDS");
    if (seconds == nullptr) return {};
    return {std::chrono::seconds(std::strtol(seconds, nullptr, 10)), milliseconds(3'000)};
  }

  /// With room for the start, for looks that come late, and for a busy machine, where the same work takes longer.
  [[nodiscard]] milliseconds most_cpu() const {
    return 2 * (cpu_at_once + duration / 20) + milliseconds(400);
  }
};

struct Case {
  const Http2Attack* attack;
  bool tls;
};

void PrintTo(const Case& which, std::ostream* out) { *out << which.attack->name; }

std::vector<Case> AllCases() {
  std::vector<Case> cases;
  for (const Http2Attack& attack : Http2Attacks()) {
    const bool tls_only = attack.tls_flood != TlsFlood::kNone;
    if (!tls_only) cases.push_back({&attack, false});
    if (tls_only || std::getenv("HOSTILE_SECONDS") != nullptr || attack.also_over_tls) {
      cases.push_back({&attack, true});
    }
  }
  return cases;
}

/// The process that is attacked.
class Worker {
 public:
  Worker(const std::string& url, const std::string& folder, milliseconds cpu_at_once)
      : program_({HOSTILE_WORKER_PATH, url, folder, std::to_string(cpu_at_once.count())}, folder + "output") {
  }

  /// A number in /proc/PID/status.
  [[nodiscard]] long Status(const std::string& name) const {
    std::ifstream file("/proc/" + std::to_string(program_.pid()) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.rfind(name + ":", 0) == 0) return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
    }
    return -1;
  }

  [[nodiscard]] milliseconds Cpu() const {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(program_.pid(), &clock) != 0 || clock_gettime(clock, &time) != 0) {
      return milliseconds(-1);
    }
    return milliseconds(time.tv_sec * 1000 + time.tv_nsec / 1'000'000);
  }

  [[nodiscard]] std::size_t Descriptors() const {
    return test_support::OpenDescriptors(program_.pid()).size();
  }

  /// Sends SIGTERM and waits for the end.
  /// @param cpu  Set to the processor time that the process used from then on.
  /// @return Its exit status, as Program::Wait() has it.
  int Terminate(milliseconds& cpu) {
    const milliseconds before = Cpu();
    program_.Signal(SIGTERM);
    const int status = program_.Wait();
    rusage usage{};  // of all children that were waited for: this is the only one
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto all = std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    cpu = duration_cast<milliseconds>(all) - before;
    return status;
  }

  /// The lines it has written that begin like this.
  [[nodiscard]] long Count(const std::string& begin) const {
    std::istringstream file(program_.Output());
    long count = 0;
    for (std::string line; std::getline(file, line);) count += line.rfind(begin, 0) == 0 ? 1 : 0;
    return count;
  }
  [[nodiscard]] std::string Output() const { return program_.Output().substr(0, 4000); }

 private:
  test_support::Program program_;
};

class WorkerUnderAttack : public testing::TestWithParam<Case> {};

TEST_P(WorkerUnderAttack, StaysWithinItsBoundsAndEndsBySigterm) {
  static_cast<void>(signal(SIGPIPE, SIG_IGN));  // OpenSSL writes without MSG_NOSIGNAL
  const Plan plan = Plan::Make();
  const test_support::TemporaryFolder folder;
  std::optional<TarvoOrvane::Testing::TestCertificate> certificate;
  if (GetParam().tls) {
    certificate = TarvoOrvane::Testing::MakeTestCertificate();
    std::ofstream(folder.File("ca.pem")) << certificate->certificate;
  }
  Http2Attacker attacker(*GetParam().attack, certificate);
  Worker worker(attacker.url(), folder.File(""), plan.cpu_at_once);
  ASSERT_TRUE(Eventually([&] { return attacker.sent() > 0; })) << worker.Output();
  std::this_thread::sleep_for(plan.duration);

  const long memory = worker.Status("VmHWM");
  const std::size_t descriptors = worker.Descriptors();
  const milliseconds cpu = worker.Cpu();
  const long failures = worker.Count("failed ");
  const long lines = worker.Count("libtarvoorvane: ");
  milliseconds cpu_to_stop{0};
  const int ending = worker.Terminate(cpu_to_stop);

  if (std::getenv("HOSTILE_SECONDS") != nullptr) {
    std::cout << "memory " << memory / 1024 << " MiB, processor time " << cpu.count() << " ms, descriptors "
              << descriptors << ", streams ended " << failures << ", log lines " << lines << std::endl;
  }
  EXPECT_GT(memory, 0) << "it has ended";
  if (kMemoryIsOurs) {
    EXPECT_LE(memory, kMostMemoryKiB);
    EXPECT_LE(cpu.count(), plan.most_cpu().count());
    EXPECT_LT(cpu_to_stop.count(), kMostCpuToStop.count());
  }
  EXPECT_LE(descriptors, kMostDescriptors);
  const long may_be_logged = 30 + duration_cast<std::chrono::seconds>(plan.duration).count() / 2 + 1;
  EXPECT_LE(lines, may_be_logged + 2 * failures + 2) << "besides those that tell how many were left out";
  EXPECT_EQ(ending, 0) << "its exit status; -1 when it does not end";
  if (HasFailure()) std::cout << worker.Output() << std::endl;
}

std::string NameOf(const testing::TestParamInfo<Case>& which) {
  return which.param.attack->name + (which.param.tls ? "OverTls" : "");
}

INSTANTIATE_TEST_SUITE_P(Hostile, WorkerUnderAttack, testing::ValuesIn(AllCases()), &NameOf);

}  // namespace
}  // namespace hostile
