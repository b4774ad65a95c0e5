/// The device fails the daemon: the archive, its folder, processes, descriptors, the clock, the serial number; and
/// signals that come at any time.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "transmission_fixture.h"

namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kVendorArchive[] = "/run/vendor/debug.dat";
constexpr char kForkFails[] = "/run/fault_shim/fork";
constexpr char kClock[] = "/run/fault_shim/clock";
constexpr char kDeadPeer[] = "/run/curl_limit_shim/dead_peer_ms";
const std::string kFinish = Daemon("W Finish handling the request(*)");
const Lines kNotGenerated = {Daemon("E Failed to generagte debug.dat"), kFinish};

Treatment Success() { return HttpAnswer("200 OK", R"({"success": true})"); }

/// A mount that lasts as long as the object.
class Mount {
 public:
  Mount(std::string path, const std::string& source, const char* type, unsigned long flags,
        const std::string& options)
      : path_(std::move(path)) {
    if (mount(source.c_str(), path_.c_str(), type, flags, options.c_str()) != 0) {
      throw std::system_error(errno, std::generic_category(), "can't mount on " + path_);
    }
  }
  ~Mount() { umount2(path_.c_str(), MNT_DETACH); }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

 private:
  std::string path_;
};

std::unique_ptr<Mount> MountTmpfs(const std::string& path, const std::string& options) {
  fs::create_directories(path);
  return std::make_unique<Mount>(path, "tmpfs", "tmpfs", 0, options);
}

/// An empty file in the place of another, if there is one.
std::unique_ptr<Mount> MountEmptyFile(const std::string& path) {
  const std::string empty = std::string(kTestFolder) + "/empty";
  WriteFile(empty, "");
  return fs::exists(path) ? std::make_unique<Mount>(path, empty, nullptr, MS_BIND, "") : nullptr;
}

/// In the place of the configuration file: holds the transmission child at its look for the CSS server's address, when
/// the archive is there and nothing of it was read yet.
class ConfigGate {
 public:
  ConfigGate() {
    fs::remove(kServiceConfig);
    mkfifo(kServiceConfig, 0600);
  }

  /// Waits for the child.
  [[nodiscard]] bool WaitForReader() {
    return Eventually([&] { return (fd_ = open(kServiceConfig, O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; });
  }

  /// Gives it the text, and everybody after it.
  void Open(const std::string& config) {
    const std::string next = std::string(kServiceConfig) + ".new";
    WriteFile(next, config);
    fs::rename(next, kServiceConfig);
    static_cast<void>(!write(fd_, config.data(), config.size()));
    close(fd_);
  }

 private:
  int fd_ = -1;
};

class DeviceFaultTest : public TransmissionTest {};

// ---- The archive's folder. ----

struct FolderRow {
  std::string name;
  std::string tmpfs;  ///< Its options.
  Lines lines;        ///< What the transmission child logs.
  std::string result;
};

void PrintTo(const FolderRow& row, std::ostream* out) { *out << row.name; }

class ArchiveFolderTest : public DeviceFaultTest, public testing::WithParamInterface<FolderRow> {};

TEST_P(ArchiveFolderTest, CostsWhatHasNoRoom) {
  {
    const auto full = MountTmpfs(kTaskFolder, GetParam().tmpfs);
    StartWithScaledCollection();
    TakeTicket();
    EXPECT_THAT(LinesUpToTheCompletion(), AreLines(GetParam().lines));
    EXPECT_EQ(Results(), Lines{GetParam().result});
    EXPECT_THAT(ArchivesOnDevice(), IsEmpty());
  }
  ExpectTheNextIsServedAndNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(
    Device, ArchiveFolderTest,
    testing::Values(
        FolderRow{"BelowTheRoomThatMustStay", "size=1m,mode=700", {kFinish}, "Success"},
        FolderRow{
            "WithoutRoomForTheManifest", "size=8k,mode=700",
            Lines{Daemon(
                "E Failed to check log collection status: task id: *, ret=[*No space left on device*]")} +
                kNotGenerated,
            "Failed to generate debug file"},
        FolderRow{"WithoutRoomForATask", "size=1m,mode=700,nr_inodes=2",
                  Lines{Daemon("E Failed to execute log collection webapi: app list: [\"demo\"], ret=[*]")} +
                      kNotGenerated,
                  "Failed to generate debug file"}),
    [](const testing::TestParamInfo<FolderRow>& row) { return row.param.name; });

// ---- The archive before and during the upload. ----

const std::string kBig(24 << 20, 'b');

struct ArchiveRow {
  std::string name;
  std::function<void()> before;  ///< Happens once the archive is there, before it is opened.
  std::function<void()> midway;  ///< Happens when some of it has reached the server.
  Course upload;
  std::string result;
  Lines end = {};  ///< The lines between the report's and the last one.
};

void PrintTo(const ArchiveRow& row, std::ostream* out) { *out << row.name; }

class ArchiveFaultTest : public DeviceFaultTest, public testing::WithParamInterface<ArchiveRow> {};

TEST_P(ArchiveFaultTest, EndsItsUploadAndTheNextOneIsServed) {
  const ArchiveRow& row = GetParam();
  Treatment first = Success();
  first.midway_bytes = 100'000;
  first.midway = row.midway;
  css_.Steer(kUploadPath, {first, Success()});
  StartWithInstantCollection();
  ConfigGate gate;
  TakeTicket();
  ASSERT_TRUE(gate.WaitForReader()) << WholeLog();
  row.before();
  gate.Open(ConfigWith(css_.Url()));

  Lines lines = ChildLines(row.upload, {});
  lines.insert(lines.end() - 1, row.end.begin(), row.end.end());
  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(lines));
  EXPECT_EQ(Results(), Lines{row.result});
  umount2(kVendorArchive, MNT_DETACH);
  fs::remove(kVendorArchive);
  ExpectTheNextIsServedAndNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(
    Device, ArchiveFaultTest,
    testing::Values(
        ArchiveRow{"Vanishes",
                   [] { fs::remove(kVendorArchive); },
                   {},
                   {Attempts(5, 26) + NotParsed(""), false},
                   "Failed to upload debug file to server"},
        ArchiveRow{"CannotBeOpened",
                   [] {
                     fs::remove(kVendorArchive);
                     fs::create_symlink("debug.dat", kVendorArchive);
                   },
                   {},
                   {Attempts(5, 26) + NotParsed(""), false},
                   "Failed to upload debug file to server"},
        ArchiveRow{"CannotBeRemoved",
                   [] { mount(kVendorArchive, kVendorArchive, nullptr, MS_BIND, nullptr); },
                   {},
                   {},
                   "Success",
                   {Daemon("E Failed to remove: /run/vendor/debug.dat, error: Device or resource busy")}},
        ArchiveRow{"Grows",
                   [] { WriteFile(kVendorArchive, kBig); },
                   [] { WriteFile(kVendorArchive, kBig + kBig); },
                   {},
                   "Success"},
        ArchiveRow{"Shrinks",
                   [] { WriteFile(kVendorArchive, kBig); },
                   [] {
                     fs::resize_file(kVendorArchive, 1000);
                     std::this_thread::sleep_for(
                         std::chrono::milliseconds(300));  // in which no other end of it has to come
                     LetAttemptTimeOut();
                   },
                   {Attempts(1, 28)},
                   "Success"},
        ArchiveRow{"VanishesMidway",
                   [] { WriteFile(kVendorArchive, kBig); },
                   [] { fs::remove(kVendorArchive); },
                   {},
                   "Success"}),
    [](const testing::TestParamInfo<ArchiveRow>& row) { return row.param.name; });

TEST_F(DeviceFaultTest, ServerThatReadsNothingOfABigArchiveIsGivenUpAsADeadPeerBeforeTheTimeIsOver) {
  Treatment unread;
  unread.ending = Treatment::Ending::kKeepOpen;
  unread.says_continue = false;
  unread.body_bytes = 0;
  css_.Steer(kUploadPath, {unread, Success()});
  WriteFile(kDeadPeer, "2000");
  StartWithInstantCollection();
  ConfigGate gate;
  TakeTicket();
  ASSERT_TRUE(gate.WaitForReader()) << WholeLog();
  WriteFile(kVendorArchive, kBig);
  gate.Open(ConfigWith(css_.Url()));

  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(ChildLines({Attempts(1, 56, "*Connection timed out")}, {})));
  EXPECT_EQ(Results(), Lines{"Success"});
  ExpectTheNextIsServedAndNothingLeft();
}

// ---- Processes and descriptors. ----

TEST_F(DeviceFaultTest, ForkThatFailsInTheSupervisorEndsTheTicketWithoutAResult) {
  StartWithInstantCollection();
  WriteFile(kForkFails, "");
  TakeTicket();
  EXPECT_TRUE(
      Logs(supervisor_,
           Daemon(Lines{"W Receive a request(*) from the orvane server, start to transmit debug.dat file",
                        "E Failed to fork()", "E Failed to send debug file"})));
  EXPECT_THAT(css_.Requests(), IsEmpty());
  fs::remove(kForkFails);
  ExpectTheNextIsServedAndNothingLeft();
}

TEST_F(DeviceFaultTest, ForkThatFailsInTheChildIsReportedAsNoArchive) {
  StartWithScaledCollection();
  WriteFile(kForkFails, "1");
  TakeTicket();
  EXPECT_THAT(
      LinesUpToTheCompletion(),
      AreLines(Lines{Daemon("E Failed to execute log collection webapi: app list: [\"demo\"], ret=[*the "
                            "collection process can't be started: Resource temporarily unavailable*]")} +
               kNotGenerated));
  EXPECT_EQ(Results(), Lines{"Failed to generate debug file"});
  fs::remove(kForkFails);
  ExpectTheNextIsServedAndNothingLeft();
}

struct PipeRow {
  std::string name;
  int descriptors;  ///< How many the daemon may have.
  Lines lines;      ///< What it logs.
};

void PrintTo(const PipeRow& row, std::ostream* out) { *out << row.name; }

class PipeFaultTest : public DeviceFaultTest, public testing::WithParamInterface<PipeRow> {};

// Standard input, output and error and the pid file take four, each pipe two, the connection to syslog one.
TEST_P(PipeFaultTest, AbortsTheSupervisorAndARestartServesTheNextTicket) {
  WriteConfig(ConfigWith(css_.Url()));
  Program start(
      {"prlimit", "--nofile=" + std::to_string(GetParam().descriptors), BinaryPath("debug_dat_transmitter")},
      std::string(kTestFolder) + "/daemon.out");
  EXPECT_EQ(start.Wait(), 0) << start.Output();
  ASSERT_TRUE(Eventually([&] { return !ReadFile(kPidFile).empty() && ReadFile(kPidFile).back() == '\n'; }));
  const pid_t supervisor = std::stoi(ReadFile(kPidFile));
  EXPECT_THAT(WaitForProcess(supervisor), KilledBy(SIGABRT));
  EXPECT_TRUE(Logs(supervisor, GetParam().lines));

  StartWithInstantCollection();
  ExpectNextTicketIsServed();
  ExpectNothingIsLeft();
}

const Lines kNoPipe = Daemon(Lines{"E Failed to do pipe(), err=Too many open files"});

INSTANTIATE_TEST_SUITE_P(Device, PipeFaultTest,
                         testing::Values(PipeRow{"ForTheFirst", 5, kNoPipe},
                                         PipeRow{"ForTheSecondWithoutRoomForSyslog", 6, {}},
                                         PipeRow{"ForTheSecond", 7, kNoPipe}),
                         [](const testing::TestParamInfo<PipeRow>& row) { return row.param.name; });

/// Lets `pid` and its children have `count` descriptors.
void LimitDescriptors(pid_t pid, rlim_t count) {
  const rlimit limit = {count, 1024};
  prlimit(pid, RLIMIT_NOFILE, &limit, nullptr);
}

TEST_F(DeviceFaultTest, SupervisorOutOfDescriptorsCostsItsTicketArchiveAndResult) {
  StartDaemonFor(grpc_url_);
  ExpectNextTicketIsServed();
  LimitDescriptors(supervisor_, 3);
  TakeTicket();
  EXPECT_THAT(
      LinesUpToTheCompletion(2),
      AreLines(Lines{
          Daemon(
              "E Failed to execute log collection webapi: app list: [\"demo\"], ret=[*Too many open files*]"),
          Daemon("E Failed to generagte debug.dat"), "W libtarvoorvane: *serial_number*",
          Transmitter("Failed to get serial number"),
          "E libcurl can't be loaded*libcurl.so.4: cannot open shared object file: Too many open files",
          Transmitter("Request failed, CURLcode=[2], what=[CurlSetOpt: CURLOPT_POSTFIELDS]"),
          Transmitter("Failed to set opt"), Transmitter("Failed to update result to server"),
          Daemon("E Failed to update result to CSS server"), Daemon("E Failed to update '1' to server"),
          kFinish}));
  LimitDescriptors(supervisor_, 1024);
  ExpectTheNextIsServedAndNothingLeft();
}

// gRPC ends the process when it can't have what it needs to wait with.
TEST_F(DeviceFaultTest, WorkerOutOfDescriptorsAbortsWhenItOpensItsStreamAgainAndARestartServesTheNextTicket) {
  const std::string address = std::string("unix:") + kTestFolder + "/grpc.sock";
  ASSERT_NO_FATAL_FAILURE(StartService(address));
  StartDaemonWith("vendor/webapi-Pelk5");
  ExpectNextTicketIsServed();
  LimitDescriptors(worker_, 3);
  ASSERT_NO_FATAL_FAILURE(StartService(address));
  ASSERT_TRUE(Eventually([&] { return HasEnded(worker_); })) << WholeLog();
  EXPECT_EQ(WTERMSIG(LookAt(worker_).exit_code), SIGABRT);
  EXPECT_TRUE(
      WaitForLog(SyslogRole::kSupervisor, "Unexpected error, expected count: 2048, real count: 0", 2));
  RestartDaemon();
  ExpectNextTicketIsServed();
  ExpectNothingIsLeft();
}

TEST_F(DeviceFaultTest, WithoutASerialNumberUploadsAndReportsWithAnEmptyOne) {
  StartWithInstantCollection();
  // Only now: a service takes no device that has none when it connects.
  fs::remove("/usr/tarvo/etc/serial_number");
  const auto machine_id = MountEmptyFile("/etc/machine-id");
  const auto dmi = MountEmptyFile("/sys/class/dmi/id/product_serial");
  TakeTicket();
  const Lines missing = {Transmitter("Failed to get serial number")};
  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(ChildLines({missing}, {missing})));
  ASSERT_EQ(css_.Requests().size(), 2U);
  EXPECT_THAT(css_.Requests()[0].body, HasSubstr("name=\"serial_number\"\r\n\r\n\r\n"));
  EXPECT_THAT(css_.Requests()[1].body, HasSubstr(R"("serial_number":"")"));
  ExpectTheNextIsServedAndNothingLeft();
}

// ---- The clock, which is wrong from the middle of a collection on. ----

struct ClockRow {
  std::string name;
  int seconds;
  bool out_of_time;
};

void PrintTo(const ClockRow& row, std::ostream* out) { *out << row.name; }

class ClockFaultTest : public DeviceFaultTest, public testing::WithParamInterface<ClockRow> {};

TEST_P(ClockFaultTest, EndsTheCollectionAfter1200SecondsOfTheClockAndNotBefore) {
  StartWithScaledCollection();
  TakeTicket("gated");
  ASSERT_TRUE(WaitForGate()) << WholeLog();
  WriteFile(kClock, std::to_string(GetParam().seconds));
  if (!GetParam().out_of_time) {
    std::this_thread::sleep_for(
        std::chrono::milliseconds(800));  // more than one look at the clock, at which nothing has to happen
    EXPECT_THAT(css_.Requests(), IsEmpty()) << WholeLog();
    OpenGate();
  }
  const Lines out_of_time = Daemon(Lines{"E Debug dat file path is empty", "E Failed to transmit debug.dat",
                                         "W Finish handling the request(*)"});
  EXPECT_THAT(LinesUpToTheCompletion(), AreLines(GetParam().out_of_time ? out_of_time : Lines{kFinish}));
  EXPECT_EQ(Results(), Lines{GetParam().out_of_time ? "Failed to upload debug file to server" : "Success"});
  const pid_t task = CollectionTask();
  OpenGate();
  EXPECT_TRUE(task == 0 || Eventually([&] { return HasEnded(task); }));
  ExpectTheNextIsServedAndNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Device, ClockFaultTest,
                         testing::Values(ClockRow{"ADayForwards", 86400, true},
                                         ClockRow{"ADayBack", -86400, false},
                                         ClockRow{"By1190Seconds", 1190, false},
                                         ClockRow{"By1200Seconds", 1200, true}),
                         [](const testing::TestParamInfo<ClockRow>& row) { return row.param.name; });

// ---- Signals at any time. ----

enum class State { kIdle, kCollecting, kUploading, kPausing, kReporting };
enum class Target { kSupervisor, kWorker, kChild };

struct SignalRow {
  Target target;
  State state;
};

std::string NameOf(const SignalRow& row) {
  const std::string targets[] = {"Supervisor", "Worker", "Child"};
  const std::string states[] = {"WhileIdle", "WhileCollecting", "WhileUploading", "WhilePausing",
                                "WhileReporting"};
  return "To" + targets[static_cast<int>(row.target)] + states[static_cast<int>(row.state)];
}

void PrintTo(const SignalRow& row, std::ostream* out) { *out << NameOf(row); }

std::vector<SignalRow> SignalRows() {
  std::vector<SignalRow> rows;
  for (const Target target : {Target::kSupervisor, Target::kWorker, Target::kChild}) {
    for (const State state :
         {State::kIdle, State::kCollecting, State::kUploading, State::kPausing, State::kReporting}) {
      if (target != Target::kChild || state != State::kIdle) {
        rows.push_back({target, state});
      }
    }
  }
  return rows;
}

class SignalTest : public DeviceFaultTest, public testing::WithParamInterface<SignalRow> {
 protected:
  /// Brings the daemon to the row's state and keeps it there.
  void Reach() {
    static_cast<void>(signal(SIGPIPE, SIG_DFL));  // for the daemon, as from a service manager
    switch (GetParam().state) {
      case State::kIdle:
        StartWithInstantCollection();
        ExpectNextTicketIsServed();
        return;
      case State::kCollecting:
        StartWithScaledCollection();
        TakeTicket("gated");
        ASSERT_TRUE(WaitForGate()) << WholeLog();
        break;
      case State::kUploading:
        ASSERT_NO_FATAL_FAILURE(HoldAt(kUploadPath));
        break;
      case State::kPausing:
        HoldPauses();
        css_.Steer(kUploadPath, {Treatment{}, Success()});
        StartWithInstantCollection();
        TakeTicket();
        ASSERT_TRUE(WaitForLog(SyslogRole::kChild, "curl_easy_perform() failed")) << WholeLog();
        break;
      case State::kReporting:
        ASSERT_NO_FATAL_FAILURE(HoldAt(kReportPath));
        break;
    }
    child_ = WaitForChild();
    ASSERT_NE(child_, 0);
  }

  void HoldAt(const std::string& path) {
    Treatment held = Success();
    held.before_answer = [this] { static_cast<void>(Eventually([this] { return released_.load(); })); };
    css_.Steer(path, {held});
    StartWithInstantCollection();
    TakeTicket();
    ASSERT_TRUE(WaitForRequests(path, 1)) << WholeLog();
  }

  void GoOn() {
    released_ = true;
    OpenGate();
    LetPausesEnd();
  }

  [[nodiscard]] pid_t Receiver() const {
    const pid_t receivers[] = {supervisor_, worker_, child_};
    return receivers[static_cast<int>(GetParam().target)];
  }

  /// It writes the Completion to a pipe that nobody reads; without one it reads an end of file, again and again.
  void ExpectTheSupervisorToMissItsWorker() {
    if (child_ != 0) {
      EXPECT_THAT(WaitForProcess(supervisor_), KilledBy(SIGPIPE));
    } else {
      EXPECT_TRUE(
          WaitForLog(SyslogRole::kSupervisor, "Unexpected error, expected count: 2048, real count: 0", 2))
          << WholeLog();
    }
  }

  /// The ticket's transmission child has done its work as if there had been no signal.
  void ExpectTheTicketIsServed() {
    if (child_ == 0) {
      return;
    }
    const Lines former = GetParam().state == State::kPausing ? Attempts(1, 52) : Lines{};
    EXPECT_TRUE(Logs(child_, former + Lines{kFinish}));
    EXPECT_EQ(Results(), Lines{"Success"});
    EXPECT_TRUE(Eventually([&] { return HasEnded(child_); }));
    EXPECT_TRUE(HasEnded(supervisor_) || WaitForLog(SyslogRole::kSupervisor, "Notify worker process"));
  }

 private:
  std::atomic<bool> released_{false};
};

TEST_P(SignalTest, StormOf1000SighupsChangesNothing) {
  ASSERT_NO_FATAL_FAILURE(Reach());
  for (int count = 0; count < 1000; ++count) {
    kill(Receiver(), SIGHUP);
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  GoOn();
  ExpectTheTicketIsServed();
  ExpectTheNextIsServedAndNothingLeft();
  EXPECT_THAT(
      LinesOf(supervisor_),
      Each(AnyOf(LooksLike(Daemon("W Receive a request(*")), LooksLike(Daemon("W Notify worker process")),
                 LooksLike(Daemon("E Failed to do select(), err=Interrupted system call*")))));
  EXPECT_THAT(LinesOf(worker_), Each(LooksLike("W *")));
}

TEST_P(SignalTest, SigtermEndsNobodyButAnIdlerAndARestartServesTheNextTicket) {
  ASSERT_NO_FATAL_FAILURE(Reach());
  kill(Receiver(), SIGTERM);
  switch (GetParam().target) {
    case Target::kSupervisor:
      EXPECT_THAT(WaitForProcess(supervisor_), ExitedWith(0));
      EXPECT_FALSE(HasEnded(worker_));
      break;
    case Target::kWorker:
      EXPECT_TRUE(Eventually([&] { return HasEnded(worker_); }));
      EXPECT_EQ(LookAt(worker_).exit_code, 0);
      EXPECT_FALSE(HasEnded(supervisor_));
      break;
    case Target::kChild:
      break;
  }
  GoOn();
  ExpectTheTicketIsServed();
  if (GetParam().target == Target::kWorker) {
    ExpectTheSupervisorToMissItsWorker();
  }
  if (GetParam().target != Target::kChild) {
    RestartDaemon();
  }
  ExpectNextTicketIsServed();
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(Device, SignalTest, testing::ValuesIn(SignalRows()),
                         [](const testing::TestParamInfo<SignalRow>& row) { return NameOf(row.param); });

}  // namespace
