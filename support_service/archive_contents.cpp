#include "archive_contents.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace TarvoOrvane::SupportService {

using ArchiveReader::ReaderEnd;

/// What a look and the body that it feeds share. Wakes the look's thread, and the body's server.
class LookFlow {
 public:
  /// @param taken  How many places are taken, this one among them.
  explicit LookFlow(std::shared_ptr<std::atomic<std::size_t>> taken)
      : taken_(std::move(taken)), event_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (event_fd_ != -1) return;
    --*taken_;
    throw std::system_error(errno, std::generic_category(), "cannot wait for an archive's reader");
  }
  ~LookFlow() {
    close(event_fd_);
    --*taken_;
  }
  LookFlow(const LookFlow&) = delete;
  LookFlow& operator=(const LookFlow&) = delete;

  // For the look.

  [[nodiscard]] int event_fd() const { return event_fd_; }
  /// Takes what has woken the look.
  void TakeEvent() const {
    eventfd_t count = 0;
    static_cast<void>(eventfd_read(event_fd_, &count));
  }
  [[nodiscard]] bool IsAbandoned() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return abandoned_;
  }
  [[nodiscard]] bool HasRoom() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return waiting_.size() < kMostWaiting;
  }
  void Give(std::string_view bytes) {
    Change([&] { waiting_ += bytes; });
  }
  void Finish(bool is_complete) {
    Change([&] {
      ended_ = true;
      failed_ = !is_complete;
    });
  }

  // For the body, and for whoever ends the look.

  std::optional<std::string> Next(const std::function<void()>& wake) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!waiting_.empty()) {
      Wake();
      return std::exchange(waiting_, {});
    }
    if (failed_) throw std::runtime_error("the archive can't be read any further");
    if (ended_) return std::nullopt;
    wake_ = wake;
    return "";
  }
  void Abandon() {
    std::function<void()> dropped;  // what it holds is let go without the lock
    const std::lock_guard<std::mutex> lock(mutex_);
    abandoned_ = true;
    dropped.swap(wake_);
    Wake();
  }

 private:
  void Wake() const { eventfd_write(event_fd_, 1); }

  template <typename Function>
  void Change(const Function& change) {
    std::function<void()> wake;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      change();
      wake.swap(wake_);
    }
    if (wake) wake();
  }

  /// So much waits for a client that reads slowly, and a pipe's worth more.
  static constexpr std::size_t kMostWaiting = std::size_t{256} << 10;

  const std::shared_ptr<std::atomic<std::size_t>> taken_;
  const int event_fd_;
  std::mutex mutex_;  ///< Guards what follows.
  std::string waiting_;
  std::function<void()> wake_;
  bool ended_ = false;
  bool failed_ = false;
  bool abandoned_ = false;
};

namespace {

/// What is read from the pipe at once.
constexpr std::size_t kPieceBytes = std::size_t{64} << 10;
/// So long a process that has closed its output may take to end.
constexpr int kExitMilliseconds = 10'000;
/// A line has two texts at most, of which each byte becomes five.
constexpr std::size_t kMostLineBytes = std::size_t{64} << 10;

class LookBody final : public BodySource {
 public:
  explicit LookBody(std::shared_ptr<LookFlow> flow) : flow_(std::move(flow)) {}
  ~LookBody() override { flow_->Abandon(); }
  LookBody(const LookBody&) = delete;
  LookBody& operator=(const LookBody&) = delete;

  std::optional<std::string> Next(const std::function<void()>& wake) override { return flow_->Next(wake); }

 private:
  const std::shared_ptr<LookFlow> flow_;
};

/// How a program is to begin: with three descriptors, with no signal blocked or ignored, and without environment.
class SpawnPlan {
 public:
  SpawnPlan(int input, int output) {
    posix_spawn_file_actions_init(&files_);
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_adddup2(&files_, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files_, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&files_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnPlan() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&files_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  /// @return An error number; 0 for none.
  int Spawn(const std::string& program, std::vector<std::string> arguments, pid_t& process) const {
    arguments.insert(arguments.begin(), program);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    char* const environment[] = {nullptr};
    return posix_spawn(&process, program.c_str(), &files_, &attributes_, pointers.data(), environment);
  }

 private:
  posix_spawn_file_actions_t files_{};
  posix_spawnattr_t attributes_{};
};

std::string ErrnoText(int error) { return std::generic_category().message(error); }

}  // namespace

std::string ReaderProgram() {
  std::array<char, PATH_MAX> program{};
  const ssize_t length = readlink("/proc/self/exe", program.data(), program.size());
  const std::string own(program.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return own.substr(0, own.rfind('/') + 1) + ARCHIVE_READER_FROM_PROGRAMS;
}

std::shared_ptr<const int> OwnDescriptor(int fd) {
  const auto close_it = [](const int* owned) {
    close(*owned);
    delete owned;
  };
  return {new int(fd), close_it};
}

Look::Look(const LookSettings& settings, const LookOrder& order, LookPlace place)
    : flow_(std::move(place)),
      deadline_(std::chrono::steady_clock::now() + settings.time),
      client_fd_(order.client_fd) {
  if (flow_->IsAbandoned()) {
    Stop(LookEnd::Cause::kAbandoned);
  } else {
    Start(settings, order);
  }
}

Look::~Look() { End(); }

void Look::Start(const LookSettings& settings, const LookOrder& order) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) == -1) return Stop(LookEnd::Cause::kNotStarted, "no pipe: " + ErrnoText(errno));
  output_ = ends[0];
  pid_t process = -1;
  const int error = SpawnPlan(*order.archive, ends[1]).Spawn(settings.program, order.command, process);
  close(ends[1]);
  if (error != 0) return Stop(LookEnd::Cause::kNotStarted, settings.program + ": " + ErrnoText(error));
  process_ = process;
}

std::optional<std::string> Look::NextLine() {
  for (;;) {
    const std::size_t length = read_.find('\n');
    if (length != std::string::npos) {
      std::string line = read_.substr(0, length);
      read_.erase(0, length + 1);
      return line;
    }
    if (read_.size() > kMostLineBytes) Stop(LookEnd::Cause::kCrashed, "it wrote a line without end");
    if (!Step(true)) return std::nullopt;
  }
}

std::shared_ptr<BodySource> Look::Body() { return std::make_shared<LookBody>(flow_); }

void Look::Pump() {
  client_fd_ = -1;  // the server watches it now
  do {
    if (!read_.empty()) flow_->Give(std::exchange(read_, {}));
  } while (Step(flow_->HasRoom()));
  flow_->Finish(End().IsComplete());
}

/// Waits until something happens, and takes it. Whoever calls it does so until there is what it waits for.
/// @param may_read  Whether there is room for what the process writes.
/// @return false when the look has ended.
bool Look::Step(bool may_read) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
  if (flow_->IsAbandoned()) Stop(LookEnd::Cause::kAbandoned);
  if (left.count() <= 0) Stop(LookEnd::Cause::kTooLong);
  if (has_ended_) return false;
  pollfd watched[] = {
      {may_read ? output_ : -1, POLLIN, 0}, {flow_->event_fd(), POLLIN, 0}, {client_fd_, POLLRDHUP, 0}};
  static_cast<void>(
      poll(&watched[0], std::size(watched), static_cast<int>(std::min<std::int64_t>(left.count(), INT_MAX))));
  const auto& [output, event, client] = watched;
  if (event.revents != 0) flow_->TakeEvent();
  // A client that says that it sends no more has gone, as far as can be told.
  if (client.revents != 0) Stop(LookEnd::Cause::kAbandoned);
  if (!has_ended_ && output.revents != 0) ReadOutput();
  return !has_ended_;
}

void Look::ReadOutput() {
  const std::size_t before = read_.size();
  read_.resize(before + kPieceBytes);
  const ssize_t count = read(output_, read_.data() + before, kPieceBytes);
  read_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  if (count > 0) return;
  has_ended_ = true;
  AwaitExit();
  NoteStatus(Reap());
}

void Look::Stop(LookEnd::Cause cause, std::string text) {
  if (has_ended_) return;
  has_ended_ = true;
  end_ = {cause, ReaderEnd::kComplete, std::move(text)};
  read_.clear();
  Reap();
}

/// The process has closed its output, and is about to end by itself.
void Look::AwaitExit() const {
  const int process =
      static_cast<int>(syscall(SYS_pidfd_open, process_, 0));  // glibc declares it for C alone
  if (process == -1) return;
  pollfd ended{process, POLLIN, 0};
  static_cast<void>(poll(&ended, 1, kExitMilliseconds));
  close(process);
}

/// Leaves nothing of the process. One that ends by itself keeps its status.
/// @return That, as waitpid() tells it.
int Look::Reap() {
  int status = 0;
  if (output_ != -1) close(std::exchange(output_, -1));
  if (process_ == -1) return status;
  kill(process_, SIGKILL);
  while (waitpid(process_, &status, 0) == -1 && errno == EINTR) {
  }
  process_ = -1;
  return status;
}

void Look::NoteStatus(int status) {
  if (WIFSIGNALED(status)) {
    end_ = {LookEnd::Cause::kCrashed, ReaderEnd::kComplete, "signal " + std::to_string(WTERMSIG(status))};
    return;
  }
  const int code = WEXITSTATUS(status);
  switch (static_cast<ReaderEnd>(code)) {
    case ReaderEnd::kComplete:
    case ReaderEnd::kMisused:
    case ReaderEnd::kNoSandbox:
    case ReaderEnd::kOutputFailed:
    case ReaderEnd::kInputFailed:
    case ReaderEnd::kNoArchive:
    case ReaderEnd::kDamaged:
    case ReaderEnd::kTooManyEntries:
    case ReaderEnd::kNameTooLong:
    case ReaderEnd::kTooMuchContent:
    case ReaderEnd::kTooMuchTime:
    case ReaderEnd::kTooMuchMemory:
    case ReaderEnd::kNoEntry:
    case ReaderEnd::kNoContent:
    case ReaderEnd::kBehindEnd:
    case ReaderEnd::kNoManifest:
    case ReaderEnd::kManifestTooLarge:
    case ReaderEnd::kManifestIsNoObject:
      end_ = {LookEnd::Cause::kReader, static_cast<ReaderEnd>(code), ""};
      return;
  }
  end_ = {LookEnd::Cause::kCrashed, ReaderEnd::kComplete, "exit status " + std::to_string(code)};
}

const LookEnd& Look::End() {
  Stop(LookEnd::Cause::kAbandoned);
  return end_;
}

ArchiveContents::ArchiveContents(const LookSettings& settings)
    : settings_(settings),
      taken_(std::make_shared<std::atomic<std::size_t>>(0)),
      threads_(settings.at_once) {}

ArchiveContents::~ArchiveContents() { Stop(); }

LookPlace ArchiveContents::TakePlace() {
  const std::size_t places = static_cast<std::size_t>(settings_.at_once) + settings_.waiting;
  if (taken_->fetch_add(1) >= places) {
    --*taken_;
    return nullptr;
  }
  return std::make_shared<LookFlow>(taken_);
}

void ArchiveContents::Post(const LookPlace& place, const LookOrder& order,
                           const std::function<void(Look&)>& job) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    under_way_.insert(place);
    if (stopped_) place->Abandon();
  }
  threads_.Post([this, place, order, job] {
    {
      Look look(settings_, order, place);
      job(look);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    under_way_.erase(place);
  });
}

void ArchiveContents::Stop() {
  const std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
  for (const LookPlace& place : under_way_) place->Abandon();
}

}  // namespace TarvoOrvane::SupportService
