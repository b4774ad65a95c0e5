/// What is in archives. An archive is a stranger's input, so the program support_archive_reader looks into it, in a
/// process of its own without rights (archive_reader/reader_end.h tells what it is asked and how it answers). This
/// starts that process, takes what it writes, and sees to it that it ends: with its work, with the client that asked,
/// after a time, and with the service.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "archive_reader/reader_end.h"
#include "disk_workers.h"
#include "http_exchange.h"

namespace TarvoOrvane::SupportService {

/// Where the reader lies, seen from the running program: the build folder and an installation have it at the same place.
[[nodiscard]] std::string ReaderProgram();

/// How a look ended.
struct LookEnd {
  enum class Cause {
    kReader,      ///< By itself: `reader` tells how.
    kCrashed,     ///< By what no reader does: `text` tells what.
    kNotStarted,  ///< Before it began: `text` tells why.
    kTooLong,     ///< After LookSettings::time.
    kAbandoned    ///< The client has gone, or the service ends.
  };
  Cause cause = Cause::kReader;
  ArchiveReader::ReaderEnd reader = ArchiveReader::ReaderEnd::kComplete;
  std::string text;

  [[nodiscard]] bool IsComplete() const {
    return cause == Cause::kReader && reader == ArchiveReader::ReaderEnd::kComplete;
  }
};

struct LookSettings {
  std::string program = ReaderProgram();
  int at_once = 2;  ///< Each takes a processor. As many as leave one for devices on a small machine.
  std::size_t waiting = 16;
  /// From its beginning: also for a client that takes so long to read. Others wait for their turn meanwhile.
  std::chrono::milliseconds time = std::chrono::minutes(10);
};

/// What is to be looked into, and for whom.
struct LookOrder {
  std::vector<std::string> command;    ///< The reader's arguments.
  std::shared_ptr<const int> archive;  ///< Its descriptor, open for reading from its beginning.
  int client_fd = -1;  ///< The connection's, open until the client has its answer. -1 for none.
};

/// Owns a descriptor, and closes it with its last copy.
[[nodiscard]] std::shared_ptr<const int> OwnDescriptor(int fd);

/// A place among those that look, or wait for their turn. It is left with its last copy.
class LookFlow;
using LookPlace = std::shared_ptr<LookFlow>;

/// One process of the reader, from its start to its end. Used by one thread.
class Look {
 public:
  /// Starts it. What goes wrong End() tells.
  Look(const LookSettings& settings, const LookOrder& order, LookPlace place);
  /// Ends it, if it has not ended.
  ~Look();
  Look(const Look&) = delete;
  Look& operator=(const Look&) = delete;

  /// Waits for the next line that it writes.
  /// @return The line without its end; nothing when there is none: then End() tells why.
  [[nodiscard]] std::optional<std::string> NextLine();

  /// A body with what it writes behind the lines that were taken. It fails where the look does not end well, and the
  /// look ends with it. To be given to the client before Pump() is called.
  [[nodiscard]] std::shared_ptr<BodySource> Body();
  /// Feeds the body, as fast as its client takes it, up to its end.
  void Pump();

  /// Ends it, and tells how it ended.
  const LookEnd& End();

 private:
  void Start(const LookSettings& settings, const LookOrder& order);
  bool Step(bool may_read);
  void ReadOutput();
  void Stop(LookEnd::Cause cause, std::string text = "");
  void AwaitExit() const;
  int Reap();
  void NoteStatus(int status);

  const LookPlace flow_;
  const std::chrono::steady_clock::time_point deadline_;
  int client_fd_;
  int output_ = -1;     ///< The pipe's end; -1 when there is none.
  pid_t process_ = -1;  ///< -1 when there is none.
  std::string read_;    ///< What it has written, and nobody has taken.
  LookEnd end_;
  bool has_ended_ = false;
};

/// Has its looks done, a few at a time, in threads of its own. Any thread may call it.
class ArchiveContents {
 public:
  explicit ArchiveContents(const LookSettings& settings = {});
  /// After the servers whose clients it answers.
  ~ArchiveContents();
  ArchiveContents(const ArchiveContents&) = delete;
  ArchiveContents& operator=(const ArchiveContents&) = delete;

  /// @return Null when all places are taken.
  /// @throws std::system_error when the system has no descriptor for it.
  [[nodiscard]] LookPlace TakePlace();

  /// Has a thread look, once it is this one's turn.
  /// @param job  Gets the look, which has begun; also where it could not, or Stop() was called. Throws nothing.
  void Post(const LookPlace& place, const LookOrder& order, const std::function<void(Look&)>& job);

  /// Ends all looks, those that begin later too. Whoever waits for one gets an answer soon.
  void Stop();

 private:
  const LookSettings settings_;
  const std::shared_ptr<std::atomic<std::size_t>> taken_;  ///< Places.
  std::mutex mutex_;                                       ///< Guards what follows.
  std::set<LookPlace> under_way_;
  bool stopped_ = false;
  DiskWorkers threads_;  ///< A process ends with the thread that started it. Last: they use the rest.
};

}  // namespace TarvoOrvane::SupportService
