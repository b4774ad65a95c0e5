#include "retention.h"

#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::chrono::minutes kRetentionPause{1};
/// So many archives are deleted in one batch of the dispatcher, which others wait for.
constexpr std::size_t kArchivesAtOnce = 100;
/// So many devices are looked at at once.
constexpr std::size_t kDevicesAtOnce = 1000;
constexpr char kWho[] = "the service";

std::string MoreThan(std::uint64_t most, const char* what) {
  return "there are more than " + std::to_string(most) + what;
}

}  // namespace

RetentionSettings ResolvedRetention(RetentionSettings settings, const DiskRoom& room) {
  if (!settings.bytes) settings.bytes = room.Look().whole_bytes / 5 * 4;
  return settings;
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
    --totals.count;
    totals.bytes -= archive.size_bytes;
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

bool ClockWatch::WasSet(const Moment& now) {
  const auto apart = (now.wall - known_.wall) - (now.steady - known_.steady);
  if (apart <= kTolerance && apart >= -kTolerance) return false;
  known_ = now;
  return true;
}

Retention::Retention(Dispatcher& dispatcher, const Store& store, const ArchiveStore& archives,
                     Metrics& metrics, EventSink events, MomentClock clock)
    : dispatcher_(dispatcher),
      store_(store),
      archives_(archives),
      metrics_(metrics),
      events_(std::move(events)),
      clock_(std::move(clock)),
      watch_(clock_()) {}

bool Retention::DeleteSome(const RetentionSettings& settings) {
  const Moment now = clock_();
  if (IsHeld(now)) return false;
  const std::vector<Surplus> surplus = NextSurplus(settings, now.wall);
  if (!surplus.empty()) Delete(surplus);
  return !surplus.empty();
}

/// Whether nothing may be deleted now, because the clock was set within the last day.
bool Retention::IsHeld(const Moment& now) {
  const WallTime tomorrow = now.wall + kAlwaysKept;
  if (watch_.WasSet(now)) {
    Hold(tomorrow);
    events_(
        "the clock was set, or the machine has slept: no archives are deleted because of limits for a day");
    return true;
  }
  const auto held = store_.RetentionHeldUntil();
  // The clock was set back since then.
  if (held && *held > tomorrow) Hold(tomorrow);
  return held && now.wall < *held;
}

void Retention::Hold(WallTime until) {
  dispatcher_.Call([until](TicketBook& book) { book.registry().HoldRetention(until); });
}

std::vector<Surplus> Retention::NextSurplus(const RetentionSettings& settings, WallTime now) const {
  const WallTime young = now - kAlwaysKept;
  std::vector<Surplus> surplus = ChooseSurplus(
      settings, store_.KeptTotals(), store_.OldestArchives(std::nullopt, young, kArchivesAtOnce), now);
  if (!surplus.empty() || settings.archives_per_device == 0) return surplus;
  for (const DeviceArchives& device :
       store_.DevicesWithMoreArchives(settings.archives_per_device, kDevicesAtOnce)) {
    surplus = ChooseSurplusOfDevice(settings, device.count,
                                    store_.OldestArchives(device.serial_number, young, kArchivesAtOnce));
    if (!surplus.empty()) return surplus;
  }
  return {};
}

/// Has it remembered that they are deleted, and then deletes their files. Where that fails the next start does it.
void Retention::Delete(const std::vector<Surplus>& surplus) {
  const auto deleted = dispatcher_.Call([&surplus](TicketBook& book) {
    std::vector<Surplus> done;
    for (const Surplus& each : surplus) {
      try {
        book.DeleteArchive(each.archive.ticket, each.archive.version, std::string(kWho) + ": " + each.cause);
      } catch (const std::invalid_argument&) {
        continue;  // somebody has deleted it meanwhile
      }
      book.registry().Record({kWho, ""}, "delete archive", each.archive.ticket_id,
                             "version " + std::to_string(each.archive.version) + ": " + each.cause);
      done.push_back(each);
    }
    return done;
  });
  std::exception_ptr fault;
  for (const Surplus& each : deleted) {
    metrics_.NoteMet(each.limit);
    try {
      archives_.Remove(each.archive.ticket_id, each.archive.version);
    } catch (const std::system_error&) {
      fault = std::current_exception();
    }
  }
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
      for (auto settings = SettingsUnlessEnding(); settings && retention_->DeleteSome(*settings);) {
        settings = SettingsUnlessEnding();
      }
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
