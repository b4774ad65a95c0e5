#include "retention.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::chrono::minutes kRetentionPause{1};
/// How often it is remembered that somebody looks, where nothing is deleted.
constexpr std::chrono::hours kNotePause{1};
/// So many archives are deleted in one batch of the dispatcher, which others wait for.
constexpr std::size_t kArchivesAtOnce = 100;
/// So many devices are looked at at once.
constexpr std::size_t kDevicesAtOnce = 1000;
constexpr char kWho[] = "the service";

std::string MoreThan(std::uint64_t most, const char* what) {
  return "there are more than " + std::to_string(most) + what;
}

/// Never less than 0: what was deleted a moment ago may be taken off twice, by the book and as one of the oldest, and
/// what came and went within one batch was never counted.
std::uint64_t Without(std::uint64_t all, std::uint64_t part) { return all - std::min(all, part); }

}  // namespace

RetentionSettings ResolvedRetention(RetentionSettings settings, const DiskRoom& room) {
  const std::uint64_t whole_bytes = room.Look().whole_bytes;
  if (!settings.bytes && whole_bytes != 0) settings.bytes = whole_bytes / 5 * 4;
  return settings;
}

Moment NowAlsoAsleep() {
  Moment now = Now();
  timespec time{};
  if (clock_gettime(CLOCK_BOOTTIME, &time) == 0) {
    now.steady = std::chrono::steady_clock::time_point(std::chrono::seconds(time.tv_sec) +
                                                       std::chrono::nanoseconds(time.tv_nsec));
  }
  return now;
}

std::vector<Surplus> ChooseSurplus(const RetentionSettings& settings, ArchiveTotals totals,
                                   const std::vector<KeptArchive>& oldest, WallTime now) {
  std::vector<Surplus> surplus;
  const std::chrono::hours longest(24 * settings.days);
  const std::uint64_t most_bytes = settings.bytes.value_or(0);
  for (const KeptArchive& archive : oldest) {
    if (settings.days != 0 && now - archive.received > longest) {
      surplus.push_back(
          {archive, Limit::kArchiveDays, "it is older than " + std::to_string(settings.days) + " days"});
    } else if (settings.archives != 0 && totals.count > settings.archives) {
      surplus.push_back({archive, Limit::kArchives, MoreThan(settings.archives, " archives")});
    } else if (most_bytes != 0 && totals.bytes > most_bytes) {
      surplus.push_back({archive, Limit::kArchiveBytes, MoreThan(most_bytes, " bytes in archives")});
    } else {
      return surplus;  // the younger ones have no reason to go either
    }
    totals.count = Without(totals.count, 1);
    totals.bytes = Without(totals.bytes, archive.size_bytes);
  }
  return surplus;
}

std::vector<Surplus> ChooseSurplusOfDevice(const RetentionSettings& settings, std::uint64_t count,
                                           const std::vector<KeptArchive>& oldest) {
  std::vector<Surplus> surplus;
  if (settings.archives_per_device == 0) return surplus;
  for (const KeptArchive& archive : oldest) {
    if (count - surplus.size() <= settings.archives_per_device) return surplus;
    surplus.push_back({archive, Limit::kArchivesPerDevice,
                       MoreThan(settings.archives_per_device, " archives of the device")});
  }
  return surplus;
}

bool ClockWatch::WasSet(const Moment& now) const {
  const auto apart = (now.wall - known_.wall) - (now.steady - known_.steady);
  return apart > kTolerance || apart < -kTolerance;
}

Retention::Retention(Dispatcher& dispatcher, const Store& store, const ArchiveStore& archives,
                     const DiskRoom& room, Metrics& metrics, EventSink events, MomentClock clock)
    : dispatcher_(dispatcher),
      store_(store),
      archives_(archives),
      room_(room),
      metrics_(metrics),
      events_(std::move(events)),
      clock_(std::move(clock)),
      watch_(clock_()) {}

bool Retention::DeleteSome(const RetentionSettings& settings) {
  RemoveFiles();
  const Moment now = clock_();
  if (IsHeld(now)) return false;
  if (!looked_ || now.steady - *looked_ >= kNotePause) NoteLook(now);
  const RetentionSettings resolved = ResolvedRetention(settings, room_);
  const auto scope = ScopeWithSurplus(resolved, now.wall);
  const bool has_deleted = scope && Delete(resolved, *scope, now.wall);
  RemoveFiles();
  return has_deleted;
}

/// Whether nothing may be deleted now, because the clock may have been wrong within the last day.
bool Retention::IsHeld(const Moment& now) {
  const bool is_set = watch_.WasSet(now);
  const auto looked = has_begun_ ? std::nullopt : store_.RetentionLookedAt();
  const bool is_doubtful =
      looked && (now.wall < *looked - ClockWatch::kTolerance || now.wall - *looked > kAlwaysKept);
  if (is_set || is_doubtful) {
    Hold(now);  // where this throws the next look has to find the same
    watch_.Accept(now);
    has_begun_ = true;
    events_(std::string(is_set
                            ? "the clock was set"
                            : "the service did not run for more than a day, or the clock was set meanwhile") +
            ": limits delete no archives for a day");
    return true;
  }
  auto held = store_.RetentionHeldUntil();
  if (held && *held > now.wall + kAlwaysKept) {
    // The clock was set back since then.
    Hold(now);
    held = now.wall + kAlwaysKept;
  }
  const bool is_held = held && now.wall < *held;
  if (!std::exchange(has_begun_, true) && is_held) {
    events_("limits delete no archives before " + TimeText(*held));
  }
  return is_held;
}

/// Has it remembered that nothing is deleted for a day.
void Retention::Hold(const Moment& now) {
  dispatcher_.Call([&now](TicketBook& book) {
    book.registry().HoldRetention(now.wall + kAlwaysKept);
    book.registry().NoteRetentionLook(now.wall);
  });
  looked_ = now.steady;
}

/// Has it remembered what the clock says, for the next process.
void Retention::NoteLook(const Moment& now) {
  dispatcher_.Call([&now](TicketBook& book) { book.registry().NoteRetentionLook(now.wall); });
  looked_ = now.steady;
}

/// Which archives are to go as the store knows them, within the limit of the scope.
/// @param gone  What is deleted of those, and the store does not know yet.
std::vector<Surplus> Retention::Choose(const RetentionSettings& settings, const Scope& scope,
                                       ArchiveTotals gone, WallTime now) const {
  const auto oldest = store_.OldestArchives(scope, now - kAlwaysKept, kArchivesAtOnce);
  if (scope) return ChooseSurplusOfDevice(settings, Without(store_.KeptOfDevice(*scope), gone.count), oldest);
  const ArchiveTotals all = store_.KeptTotals();
  return ChooseSurplus(settings, {Without(all.count, gone.count), Without(all.bytes, gone.bytes)}, oldest,
                       now);
}

/// Where there is something to delete; nothing when there is not.
std::optional<Retention::Scope> Retention::ScopeWithSurplus(const RetentionSettings& settings,
                                                            WallTime now) const {
  const auto has_surplus = [&](const Scope& scope) { return !Choose(settings, scope, {}, now).empty(); };
  if (has_surplus(std::nullopt)) return Scope();
  if (settings.archives_per_device == 0) return std::nullopt;
  std::optional<DeviceArchives> last;
  for (;;) {
    const auto devices = store_.DevicesWithMoreArchives(settings.archives_per_device, last, kDevicesAtOnce);
    if (devices.empty()) return std::nullopt;
    for (const DeviceArchives& device : devices) {
      if (has_surplus(device.serial_number)) return Scope(device.serial_number);
    }
    last = devices.back();
  }
}

/// Chooses anew, where nobody else writes, and has it remembered that those are deleted. Their files are left over.
/// @return Whether there were any.
bool Retention::Delete(const RetentionSettings& settings, const Scope& scope, WallTime now) {
  const auto deleted = dispatcher_.Call([&](TicketBook& book) {
    std::vector<Surplus> done;
    for (const Surplus& each : Choose(settings, scope, book.DeletedSince(scope), now)) {
      if (book.IsInPlay(each.archive.ticket)) continue;  // it has come back with this batch
      try {
        book.DeleteArchive(each.archive.ticket, each.archive.version, std::string(kWho) + ": " + each.cause);
      } catch (const std::invalid_argument&) {
        continue;  // somebody has deleted it with this batch
      } catch (const StoreError&) {
        if (done.empty()) throw;
        break;  // what is done is done, and the rest is chosen again
      }
      book.registry().Record({kWho, ""}, "delete archive", each.archive.ticket_id,
                             "version " + std::to_string(each.archive.version) + ": " + each.cause);
      done.push_back(each);
    }
    if (!done.empty()) book.registry().NoteRetentionLook(now);
    return done;
  });
  for (const Surplus& each : deleted) {
    metrics_.NoteMet(each.limit);
    leftovers_.push_back({each.archive.ticket_id, each.archive.version, true});
  }
  return !deleted.empty();
}

/// Removes the files of what counts as deleted. The next start does that, too.
/// @throws std::system_error when one can't be removed. The others are removed.
void Retention::RemoveFiles() {
  std::exception_ptr fault;
  std::vector<ArchiveName> stay;
  for (const ArchiveName& archive : leftovers_) {
    try {
      archives_.Remove(archive.ticket_id, archive.version);
    } catch (const std::system_error&) {
      fault = std::current_exception();
      stay.push_back(archive);
    }
  }
  leftovers_ = std::move(stay);
  if (fault) std::rethrow_exception(fault);
}

RetentionThread::RetentionThread(const RetentionSettings& settings, std::unique_ptr<Retention> retention,
                                 EventSink events)
    : retention_(std::move(retention)),
      events_(std::move(events)),
      settings_(settings),
      thread_([this] { Run(); }) {}

RetentionThread::~RetentionThread() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void RetentionThread::SetSettings(const RetentionSettings& settings) {
  const std::lock_guard<std::mutex> lock(mutex_);
  settings_ = settings;
  is_new_ = true;
  changed_.notify_all();
}

std::optional<RetentionSettings> RetentionThread::SettingsUnlessEnding() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (ending_) return std::nullopt;
  return settings_;
}

void RetentionThread::Run() {
  std::string last_fault;
  for (;;) {
    std::string fault;
    try {
      auto settings = SettingsUnlessEnding();
      while (settings && retention_->DeleteSome(*settings)) settings = SettingsUnlessEnding();
    } catch (const std::exception& failure) {
      fault = failure.what();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (ending_) return;
    // One line for each fault, however long it lasts.
    if (!fault.empty() && fault != last_fault) events_("old archives can't be deleted: " + fault);
    last_fault = fault;
    changed_.wait_for(lock, kRetentionPause, [this] { return ending_ || is_new_; });
    is_new_ = false;
  }
}

}  // namespace TarvoOrvane::SupportService
