/// Which archives are not kept any longer.
///
/// The oldest ones go first, of tickets that are at their end. What came within the last day stays, whatever limit is
/// met: support may not have seen it yet. What else fills the disk deletes nothing: only the archives' own number, size
/// and age count. Of each deleted archive the store keeps its size, its hash and why it was deleted. Where the clock
/// may be wrong, nothing is deleted for a day.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "archive_store.h"
#include "disk_room.h"
#include "dispatcher.h"
#include "metrics.h"
#include "store.h"

namespace TarvoOrvane::SupportService {

/// How much is kept. 0 stands for no limit.
struct RetentionSettings {
  std::uint64_t archives = 100'000;
  std::optional<std::uint64_t>
      bytes;  ///< Nothing for four fifths of the file system, as long as its size is known.
  std::uint64_t days = 365;
  std::uint64_t archives_per_device = 1000;
};

/// The settings with the bytes filled in: the archives alone never take up the disk. They stay away while the system
/// can't tell how large it is.
[[nodiscard]] RetentionSettings ResolvedRetention(RetentionSettings settings, const DiskRoom& room);

/// An archive that is to go.
struct Surplus {
  KeptArchive archive;
  Limit limit = Limit::kArchives;  ///< Why.
  std::string cause;               ///< The same, for people.
};

/// What is younger than that is kept.
inline constexpr std::chrono::hours kAlwaysKept{24};

/// Which archives are to go because of the limits on all of them.
/// @param totals  Of all archives, also those that are too young.
/// @param oldest  Those that may go, oldest first.
[[nodiscard]] std::vector<Surplus> ChooseSurplus(const RetentionSettings& settings, ArchiveTotals totals,
                                                 const std::vector<KeptArchive>& oldest, WallTime now);

/// Which archives of one device are to go.
/// @param count   How many are kept of it, also those that are too young.
/// @param oldest  Those of them that may go, oldest first.
[[nodiscard]] std::vector<Surplus> ChooseSurplusOfDevice(const RetentionSettings& settings,
                                                         std::uint64_t count,
                                                         const std::vector<KeptArchive>& oldest);

/// The present by the wall clock, and by one that nobody sets and that goes on while the machine sleeps.
[[nodiscard]] Moment NowAlsoAsleep();

/// Notices when somebody sets the wall clock. After that it does not tell how old an archive is.
class ClockWatch {
 public:
  explicit ClockWatch(const Moment& now) : known_(now) {}

  /// Whether it was set since the last Accept().
  [[nodiscard]] bool WasSet(const Moment& now) const;
  /// What was to be done about that is done.
  void Accept(const Moment& now) { known_ = now; }

  /// Two clocks that nobody sets may differ by so much.
  static constexpr std::chrono::seconds kTolerance{60};

 private:
  Moment known_;  ///< Both clocks belong together so.
};

/// Deletes what is to go. Used by one thread.
class Retention {
 public:
  /// @param dispatcher  Has remembered what is deleted before a file goes.
  /// @param room        Knows how large the disk is.
  /// @param events      Told when nothing is deleted for a day.
  /// @param clock       Tells the present.
  Retention(Dispatcher& dispatcher, const Store& store, const ArchiveStore& archives, const DiskRoom& room,
            Metrics& metrics, EventSink events, MomentClock clock = NowAlsoAsleep);

  /// Deletes some of what is to go. It is called until there is nothing more, and then from time to time.
  /// @return false when there is nothing to delete now.
  /// @throws StoreError or std::system_error when it can't. What counts as deleted by then stays so. As long as a file
  ///         of that can't be removed nothing more is deleted.
  bool DeleteSome(const RetentionSettings& settings);

 private:
  /// The archives that a limit is about: those of a device, or all of them.
  using Scope = std::optional<std::string>;

  bool IsHeld(const Moment& now);
  void Hold(const Moment& now);
  void NoteLook(const Moment& now);
  void RemoveFiles();
  [[nodiscard]] std::vector<Surplus> Choose(const RetentionSettings& settings, const Scope& scope,
                                            ArchiveTotals gone, WallTime now) const;
  [[nodiscard]] std::optional<Scope> ScopeWithSurplus(const RetentionSettings& settings, WallTime now) const;
  bool Delete(const RetentionSettings& settings, const Scope& scope, WallTime now);

  Dispatcher& dispatcher_;
  const Store& store_;
  const ArchiveStore& archives_;
  const DiskRoom& room_;
  Metrics& metrics_;
  const EventSink events_;
  const MomentClock clock_;
  ClockWatch watch_;
  bool has_begun_ =
      false;  ///< It is known whether the clock can be believed that the process has begun with.
  std::optional<std::chrono::steady_clock::time_point>
      looked_;                          ///< When it was last remembered that it looked.
  std::vector<ArchiveName> leftovers_;  ///< They count as deleted, and their files may still be there.
};

/// Has it delete, once a minute and when the settings change, in a thread of its own.
class RetentionThread {
 public:
  RetentionThread(const RetentionSettings& settings, std::unique_ptr<Retention> retention, EventSink events);
  ~RetentionThread();
  RetentionThread(const RetentionThread&) = delete;
  RetentionThread& operator=(const RetentionThread&) = delete;

  /// From now on.
  void SetSettings(const RetentionSettings& settings);

 private:
  void Run();
  std::optional<RetentionSettings> SettingsUnlessEnding();

  const std::unique_ptr<Retention> retention_;
  const EventSink events_;
  std::mutex mutex_;  ///< Guards what follows.
  std::condition_variable changed_;
  RetentionSettings settings_;
  bool is_new_ = false;  ///< The settings were changed since the last look.
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace TarvoOrvane::SupportService
