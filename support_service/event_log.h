/// The service's event lines: one line per event on standard output, safe to read in a terminal, or one JSON object.
/// Whoever reports an event has made what came from outside printable (text_forms.h).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace TarvoOrvane::SupportService {

/// Takes one event, without a time stamp and without a newline. May be called from any thread and
/// calls nothing back.
using EventSink = std::function<void(const std::string& event)>;

/// Passes on events that anybody on the network can cause, as far as they are not too many: a stranger must not be able
/// to fill the log. Copies share what they count. Any thread may call it.
class LimitedEvents {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  explicit LimitedEvents(EventSink events, Clock clock = std::chrono::steady_clock::now);

  /// Passes it on, or leaves it out. The next one that is passed on follows the number of those.
  void Write(const std::string& event) const;

  /// So many at once are passed on, and one more after each pause.
  static constexpr int kBurst = 50;
  static constexpr std::chrono::milliseconds kPause{200};

 private:
  struct Budget;
  std::shared_ptr<Budget> budget_;
};

/// How many events of this process were left out, by either of these classes.
[[nodiscard]] std::uint64_t EventsLeftOut();

/// How an event stands in a line.
enum class LogFormat {
  kPlain,  ///< TIME EVENT
  kJson    ///< {"message": EVENT, "time": TIME}
};

/// Writes each event as one line with its time. A thread of its own writes, so that a reader who stalls holds up
/// nobody: lines that find no room are left out, and counted in a line of their own. An event whose reader has gone or
/// whose file is full is dropped: the service does its work without its log.
class EventLog {
 public:
  /// Starts the thread.
  /// @param fd  Descriptor to write to; stays the caller's.
  explicit EventLog(int fd, LogFormat format = LogFormat::kPlain);
  /// Writes what is left, for as long as its reader takes some of it each second.
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  /// Takes an event, with the present time in UTC. Any thread may call it; it does not wait.
  void Write(const std::string& event);

  /// Takes a line for programs: as it stands, without a time. In JSON it is an event as any other.
  void WritePlain(const std::string& line);

  /// So much waits to be written at most, in bytes.
  static constexpr std::size_t kMaxWaiting = std::size_t{1} << 20;

 private:
  [[nodiscard]] std::string LineOf(const std::string& event) const;
  void Append(const std::string& line);
  void Run();
  bool WriteAll(std::string_view text);
  bool AwaitRoom();

  const int fd_;
  const LogFormat format_;
  std::mutex mutex_;  ///< Guards what follows.
  std::condition_variable changed_;
  std::string waiting_;         ///< Lines that are not written yet.
  std::uint64_t left_out_ = 0;  ///< Lines since those.
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
