/// What holds at any moment of the soak, and what holds whenever the daemon is idle.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "syslog_listener.h"

/// Begins every token that the soak hands out, and nothing else anywhere.
inline constexpr char kSecretMark[] = "soak-secret-";

/// An invariant does not hold; what() says which.
class BrokenInvariant : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Resident memory in KiB of one process of the daemon that was warm last.
struct Memory {
  long at_start = 0;  ///< At the end of the warm-up; 0 when none was warm yet.
  long at_end = 0;
};

class SoakWatch {
 public:
  explicit SoakWatch(const SyslogListener& log) : log_(log) {}

  /// From now on this daemon is watched, whose processes were just started.
  void Follow(pid_t supervisor, pid_t worker);
  /// From now on there is none: its processes are being killed.
  void Exempt() { Follow(0, 0); }

  /// Reads what was logged since, and looks at all processes.
  /// @throws BrokenInvariant for a second transmission child, a process that stays a zombie, a token in a line that
  ///         quotes no ticket.
  void Look();

  /// Whether each ticket that the daemon has received has its answer, and each one handed over its Completion, which
  /// the worker has read or which waits in its pipe; and no process is left but the daemon's own two.
  [[nodiscard]] bool IsSettled() const;
  /// The numbers that IsSettled() compares, for messages.
  [[nodiscard]] std::string Numbers() const;

  /// To be called when IsSettled(). The first call since Follow() takes the number of descriptors, and the first with
  /// `is_warm` the memory, that all later ones compare with.
  /// @throws BrokenInvariant when the daemon holds more.
  void CheckResources(bool is_warm);

  /// Searches all files that the daemon and the host platform may write, and the soak's own.
  /// @throws BrokenInvariant for a token in a line that quotes no ticket.
  static void SearchFilesForTokens();

  /// The transmission child.
  /// @return 0 without one.
  [[nodiscard]] pid_t Child() const;
  /// How many tickets the worker has handed to the supervisor since Follow().
  [[nodiscard]] std::size_t HandedOver() const {
    return Count("Notify main process") - Count("to main process");
  }

  [[nodiscard]] const Memory& supervisor_memory() const { return memory_[0]; }
  [[nodiscard]] const Memory& worker_memory() const { return memory_[1]; }
  [[nodiscard]] long largest_growth_kib() const { return largest_growth_kib_; }

 private:
  using Clock = std::chrono::steady_clock;

  void ReadLog();
  void ReadDebugLog();
  void Take(const std::string& line);
  void LookForZombies();
  void CompareMemory(Memory& memory, pid_t pid, const char* name);
  [[nodiscard]] std::size_t Count(const std::string& text) const;
  [[nodiscard]] std::size_t BytesInTheWorkersPipe() const;

  const SyslogListener& log_;
  std::size_t lines_read_ = 0;
  std::size_t debug_log_read_ = 0;  ///< Bytes.
  pid_t supervisor_ = 0;
  pid_t worker_ = 0;
  std::map<std::string, std::size_t> counts_;  ///< Of the lines that hold such a text, since Follow().
  std::map<pid_t, Clock::time_point> zombies_;
  std::size_t supervisor_descriptors_ = 0;
  std::size_t worker_descriptors_ = 0;
  bool is_warm_ = false;
  Memory memory_[2];
  long largest_growth_kib_ = 0;
};
