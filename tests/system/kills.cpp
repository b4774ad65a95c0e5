/// kills COUNT [SEED]: plays the service manager of debug_dat_run, which it starts again whenever it ends with a failure,
/// and kills one process after the other at random moments: supervisor, worker, transmission child, collection,
/// debug_dat_run. After each kill the device has to connect again, or to have stayed so, and no zombie and no orphan may
/// be left. To be run in tools/sandbox.
///
/// Exit status 0 when that held, 1 at the first kill after which it did not, 2 for a wrong command line.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <thread>

#include "foreground_fixture.h"

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kPauseDivisor = 20;
constexpr std::size_t kKillsBetweenSearches = 10;

class BrokenPromise : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Kills : public ForegroundFixture {
 public:
  explicit Kills(unsigned seed) : random_(seed) {}
  ~Kills() override { ForegroundFixture::TearDown(); }

  /// @throws BrokenPromise, or testing::internal::GoogleTestFailureException when the fixture fails.
  void Run(std::size_t count);
  [[nodiscard]] std::string Summary() const;

 private:
  void TestBody() override {}

  std::size_t Draw(std::size_t below) { return static_cast<std::size_t>(random_() % below); }
  void Start();
  void KillOne();
  [[nodiscard]] std::size_t KillDuringStart();
  [[nodiscard]] std::pair<const char*, pid_t> ChooseVictim();
  void ManageUntilConnected(std::size_t connections);
  void LookForOrphans();

  std::mt19937 random_;
  std::size_t kills_ = 0;
  std::map<std::string, std::size_t> victims_;
  std::size_t tickets_ = 0;
  std::size_t starts_ = 0;
  std::vector<milliseconds> reconnections_;
};

void Kills::Run(std::size_t count) {
  SetUp();
  PauseShorter(kPauseDivisor);
  DescribeApp("slow", {"sleep", "0.3"});
  StartService();
  WriteConfig();
  Start();
  ManageUntilConnected(0);
  while (kills_ < count) {
    KillOne();
    if (kills_ % kKillsBetweenSearches == 0) LookForOrphans();
  }
  LookForOrphans();
  run_->Signal(SIGTERM);
  if (run_->Wait() != 0) throw BrokenPromise("the last run ended with " + std::to_string(run_->Wait()));
  if (!WaitForNothingElse()) throw BrokenPromise("something is left at the end");
}

void Kills::Start() {
  ++starts_;
  StartRun({}, {{"LD_PRELOAD", SANITIZER_RUNTIME + LibraryFolder("libsleep_shim.so")}});
}

/// With or without a ticket, at any moment of its service or of the daemon's start.
void Kills::KillOne() {
  if (Draw(2) == 0) {
    ++tickets_;
    static_cast<void>(SendTicket("slow"));
  }
  std::this_thread::sleep_for(milliseconds(Draw(600)));
  std::size_t connections = Connections();
  const auto [name, pid] = ChooseVictim();
  const auto killed = steady_clock::now();
  kill(pid, SIGKILL);
  ++kills_;
  ++victims_[name];
  if (pid != supervisor_ && pid != worker_ && pid != run_->pid()) return;
  if (Draw(4) == 0) connections = KillDuringStart();
  ManageUntilConnected(connections);
  reconnections_.push_back(duration_cast<milliseconds>(steady_clock::now() - killed));
}

/// While the run ends the daemon, or the next one starts it. Only what the daemon can't do without.
/// @return How often the device had connected before.
std::size_t Kills::KillDuringStart() {
  if (Draw(2) == 0) {
    static_cast<void>(run_->Wait());
    Start();
  }
  std::this_thread::sleep_for(milliseconds(Draw(60)));
  std::vector<pid_t> all = {run_->pid()};
  for (const pid_t pid : ChildrenOf(run_->pid())) {
    if (ReadFile("/proc/" + std::to_string(pid) + "/comm") == "debug_dat_trans\n") all.push_back(pid);
  }
  if (FindProcesses()) all.push_back(worker_);
  const std::size_t connections = Connections();
  kill(all[Draw(all.size())], SIGKILL);
  ++kills_;
  ++victims_["any, during a start"];
  return connections;
}

std::pair<const char*, pid_t> Kills::ChooseVictim() {
  const pid_t task = CollectionTask();
  pid_t child = 0;
  for (const pid_t pid : ChildrenOf(supervisor_)) child = pid == worker_ ? child : pid;
  const std::vector<std::pair<const char*, pid_t>> all = {{"supervisor", supervisor_},
                                                          {"worker", worker_},
                                                          {"debug_dat_run", run_->pid()},
                                                          {"child", child},
                                                          {"collection", task}};
  while (true) {
    const auto& victim = all[Draw(all.size())];
    if (victim.second > 1 && !HasEnded(victim.second)) return victim;
  }
}

/// Does what a manager does until the device has connected once more.
void Kills::ManageUntilConnected(std::size_t connections) {
  const auto is_connected = [&] {
    const int status = HasEnded(run_->pid()) ? run_->Wait() : -1;
    if (status == 0 || status == 64 || status == 78) {
      throw BrokenPromise("debug_dat_run ended with " + std::to_string(status));
    }
    if (status > 0) Start();
    ReapOrphans({service_->pid(), run_->pid()});  // as process 1 does
    return FindProcesses() && Connections() > connections;
  };
  if (!Eventually(is_connected)) throw BrokenPromise("the device does not connect\n" + Everything());
}

/// Waits until no process is left but the daemon's two and the run: tickets end.
void Kills::LookForOrphans() {
  const auto result = WaitForNothingElse({supervisor_, worker_});
  if (!result) throw BrokenPromise(std::string("processes are left: ") + result.message());
  for (const pid_t pid : {supervisor_, worker_, run_->pid()}) {
    if (HasEnded(pid)) throw BrokenPromise("process " + std::to_string(pid) + " is dead or a zombie");
  }
}

std::string Kills::Summary() const {
  std::vector<milliseconds> times = reconnections_;
  std::sort(times.begin(), times.end());
  std::string text = std::to_string(kills_) + " kills";
  const char* separator = " (";
  for (const auto& [name, count] : victims_) {
    text += separator + name + ' ' + std::to_string(count);
    separator = ", ";
  }
  text += "), " + std::to_string(tickets_) + " tickets, " + std::to_string(starts_) + " starts";
  if (times.empty()) return text;
  const auto slow =
      std::count_if(times.begin(), times.end(), [](milliseconds time) { return time.count() > 5'000; });
  return text + "; connected again after " + std::to_string(times[times.size() / 2].count()) +
         " ms (median), " + std::to_string(times.back().count()) + " ms (longest), " + std::to_string(slow) +
         " times after more than 5 s";
}

/// As the soak's run, but for what is counted and promised; a frame for both would be longer than these lines.
int RunKills(std::size_t count, unsigned seed) {
  std::cout << "kills: " << count << ", seed " << seed << std::endl;
  Kills kills(seed);
  std::string broken;
  try {
    kills.Run(count);
  } catch (const std::exception& error) {
    broken = error.what();
    std::cerr << "kills: BROKEN: " << broken << std::endl;
  }
  std::cout << "kills: seed " << seed << ", " << kills.Summary()
            << "; result: " << (broken.empty() ? "every promise held" : "BROKEN, see above") << std::endl;
  return broken.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  testing::GTEST_FLAG(throw_on_failure) = true;
  testing::InitGoogleTest(&argc, argv);
  const unsigned long count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 0;
  const unsigned long seed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : std::random_device()();
  if (argc > 3 || count == 0) {
    std::cerr << "usage: kills COUNT [SEED]" << std::endl;
    return 2;
  }
  return RunKills(count, static_cast<unsigned>(seed % 1'000'000'000));
}
