/// What the service runs with and what it is doing, for whoever watches it: the page of metrics and the API's settings.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "address_limit.h"
#include "disk_room.h"
#include "metrics.h"
#include "service_settings.h"
#include "store.h"

namespace TarvoOrvane::SupportService {

/// Any thread may ask it; that may take the time of a few looks at the disk.
class Overview {
 public:
  /// Whom it asks. All of them live longer.
  struct Parts {
    const Store& store;
    const DiskRoom& room;
    const Metrics& metrics;
    std::vector<const AddressLimit*> addresses;
    /// PEM files by what they are for.
    std::vector<std::pair<const char*, std::filesystem::path>> certificates;
  };

  Overview(Parts parts, const ServiceSettings& settings);

  /// From now on.
  void SetSettings(const ServiceSettings& settings);
  /// Where the service is reached; the last one is empty where the API is served over the control socket alone.
  void SetUrls(const std::string& grpc, const std::string& http, const std::string& api);

  /// @param book      Nothing where the book can't be asked.
  /// @param is_ready  Whether the service can remember something.
  [[nodiscard]] std::string MetricsPage(const std::optional<BookView>& book, bool is_ready) const;
  /// What the service runs with. Holds no secrets.
  /// @throws StoreError when the store can't be read.
  [[nodiscard]] Json::Value Settings(const BookView& book) const;

 private:
  struct Urls {
    std::string grpc;
    std::string http;
    std::string api;
  };
  /// A limit as it is now.
  struct LimitView {
    Limit limit;
    std::optional<std::uint64_t> most;  ///< Nothing where there is no limit, or it is not known.
    std::optional<std::uint64_t> used;  ///< Nothing where that is not one number, or not known.
  };

  /// What is kept of archives.
  struct KeptView {
    ArchiveTotals all;
    std::uint64_t of_a_device = 0;       ///< Of the one that has most.
    std::optional<WallTime> held_until;  ///< Retention deletes nothing before that time.
  };

  [[nodiscard]] KeptView Kept() const;
  [[nodiscard]] std::vector<LimitView> Limits(const std::optional<BookView>& book,
                                              const std::optional<KeptView>& kept) const;
  [[nodiscard]] ServiceSettings settings() const;

  const Parts parts_;
  mutable std::mutex mutex_;  ///< Guards what follows.
  ServiceSettings settings_;
  Urls urls_;
};

}  // namespace TarvoOrvane::SupportService
