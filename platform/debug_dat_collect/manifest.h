#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TARVO::SupportForm {

/// What the manifest tells of one entry of the archive. A new member of it is a line here and one in AddEntry().
struct ManifestEntry {
  std::string name;                     ///< As in the archive.
  std::string source;                   ///< Where it comes from; empty for a command's output.
  std::vector<std::string> argv;        ///< The command; empty for anything else.
  std::string result;                   ///< How the command ended.
  std::optional<int> exit_status;       ///< Of a command that ended by itself.
  std::optional<std::time_t> modified;  ///< The file's last change.
  std::uint64_t size = 0;               ///< As archived.
  std::uint64_t redacted = 0;           ///< Secrets masked in it.
  std::uint64_t masked_parts = 0;       ///< Of them, parts of 16 KiB and more that were masked as a whole.
  std::vector<std::string> notes;       ///< What is not as it was at the source, for people.
};

/// The archive's last entry: what was asked for, what was taken, what was left out and why. Filled by the collector
/// while it makes the archive, in one thread; docs/log-collection.md describes its members.
class Manifest {
 public:
  /// @param asked       The application list, as given.
  /// @param redaction   Whether secrets are masked.
  /// @param max_errors  Error lines beyond that are only counted.
  Manifest(const std::string& task_id, const Json::Value& asked, bool redaction, unsigned max_errors);

  /// Records an application that is being collected, so that one without any entry shows, too.
  /// @param description  AppDescription::description, as its maker wrote it.
  void AddApplication(const std::string& name, const std::string& description);
  /// Records an archive entry. To be called for each, in their order in the archive.
  void AddEntry(const ManifestEntry& entry);
  /// Records something that was left out or went wrong.
  /// @param where  What it is about: "apps/NAME", "system/journal".
  void AddError(const std::string& where, const std::string& message);

  /// How often AddError() was called, the lines beyond the limit counted too.
  [[nodiscard]] std::uint64_t errors() const { return errors_; }
  /// About how long Text() would be, in bytes; for the room that is kept for it.
  [[nodiscard]] std::uint64_t TextBytes() const;

  /// The manifest as it stands, as JSON. Texts in it may quote tokens: the archive writer masks them.
  /// @param sums  ArchiveWriter::Sums() of the entries recorded.
  /// @throws std::logic_error  When there are not as many digests as entries.
  [[nodiscard]] std::string Text(std::string_view sums);

 private:
  Json::Value root_;                     ///< All but the entries, which may be many,
  std::string entry_lines_;              ///< and so are kept as text, an object a line.
  std::vector<std::size_t> sum_places_;  ///< Where in them the digests belong.
  unsigned max_errors_;                  ///< Lines under "errors"; further ones are counted.
  std::uint64_t entries_ = 0;            ///< Entries recorded.
  std::uint64_t bytes_ = 0;              ///< Their sizes' sum.
  std::uint64_t redacted_ = 0;           ///< Secrets masked in them.
  std::uint64_t errors_ = 0;             ///< Errors, those beyond the limit counted too.
};

}  // namespace TARVO::SupportForm
