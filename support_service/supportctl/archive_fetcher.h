/// Downloads archives. What has come of one stays in a file, with which a later download goes on.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "api_client.h"

namespace TarvoOrvane::Supportctl {

/// How a download goes on when its connection broke.
struct FetchSettings {
  int attempts = 5;                             ///< That bring nothing, one after the other.
  std::chrono::milliseconds first_pause{1000};  ///< Doubled with each of those.
  std::chrono::seconds silence{60};             ///< A connection without a byte for so long is broken.
};

/// An archive as a ticket tells of it.
struct ArchiveFacts {
  std::string ticket;  ///< Its whole id.
  std::uint64_t version = 0;
  std::uint64_t size_bytes = 0;
  std::string sha256;  ///< Lower-case hex.

  /// "ID-VERSION.dat"
  [[nodiscard]] std::string FileName() const { return ticket + "-" + std::to_string(version) + ".dat"; }
};

/// @throws Failure when they can't be an archive's. So no name from the service leads out of a folder.
ArchiveFacts ReadArchiveFacts(const Json::Value& ticket, const Json::Value& archive);

/// Downloads the archive to FOLDER/ID-VERSION.dat. Until it is complete, and its size and hash are right, it is called
/// ID-VERSION.dat.part. Where that is there, only what it lacks is asked for. A complete one stays as it is.
/// @param progress  Gets the bytes that there are, now and then.
/// @return The file.
/// @throws Failure when it did not come, or is not what the service has.
std::filesystem::path FetchArchive(const ApiClient& api, const ArchiveFacts& archive,
                                   const std::filesystem::path& folder, const FetchSettings& settings,
                                   const std::function<void(std::uint64_t)>& progress);

}  // namespace TarvoOrvane::Supportctl
