/// A backup: one tar file with all that the service remembers.
///
///     backup-form            the number of this form, a line; always the first
///     tickets.db             the store, as it was at one moment
///     authority/, server/    the own authority with its key, and what it has issued for the service
///     archives/*.dat         the archives that the store knows of; may be left out
///     backup.json            when and by what it was made, and which archives are missing
///     SHA256SUMS             the SHA-256 of each of the above, as sha256sum writes it; always the last
///
/// Here is what supportctl and the service have in common: the names, and the check of a whole file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace TarvoOrvane::SupportService {

/// Why a file can't be used as a backup, fit for a terminal.
class BackupError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr char kBackupForm[] = "backup-form";
inline constexpr char kBackupStore[] = "tickets.db";
inline constexpr char kBackupFacts[] = "backup.json";
inline constexpr char kBackupSums[] = "SHA256SUMS";
/// What stands in kBackupForm. A form that is not understood by older services gets a larger number.
inline constexpr unsigned int kOwnBackupForm = 1;
/// The folders of which it has files.
inline constexpr const char* kBackupFolders[] = {"authority", "server", "archives"};

/// What a backup says about itself.
struct BackupFacts {
  std::string service_version;              ///< Of the service that made it.
  std::string created;                      ///< RFC 3339.
  bool with_archives = true;                ///< Whether archives were to be in it.
  std::vector<std::string> missing;         ///< Archives that the store knows of, and that could not be read.
  std::map<std::string, std::string> sums;  ///< SHA-256 by name of each member but the last.
  std::uint64_t archives = 0;               ///< So many are in it.
  std::uint64_t size_bytes = 0;             ///< Of all members.
};

/// Takes the members, one after the other.
struct MemberSink {
  std::function<void(const std::string& name)> begin;  ///< Empty where nobody wants them.
  std::function<void(std::string_view piece)> add;  ///< Likewise. Gets all of the member that was begun last.
};

/// Reads a backup from its beginning to its end, and makes sure that it is whole.
/// @param sink  Gets the members, whose names are those above: none leads out of a folder. Nothing that it gets can be
///              relied on before the function returns.
/// @throws BackupError  when the file is something else, was cut off, was changed, or is of a newer service. What
///                      `sink` throws comes out as it is.
BackupFacts ReadBackup(const std::filesystem::path& file, const MemberSink& sink);

}  // namespace TarvoOrvane::SupportService
