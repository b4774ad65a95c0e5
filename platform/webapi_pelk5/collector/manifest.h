#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace TARVO::SupportForm {

/// The archive's last entry: what was asked for, what was taken, what was left out and why.
class Manifest {
 public:
  /// @param asked       The application list, as given.
  /// @param max_errors  Error lines beyond that are only counted.
  Manifest(const std::string& task_id, const Json::Value& asked, unsigned max_errors);

  /// Records an application that is being collected.
  void AddApplication(const std::string& name, const std::string& description);
  /// Records an archive entry. `entry` has "name", "size", "sha256" and more.
  void AddEntry(const Json::Value& entry);
  /// Records something that was left out or went wrong.
  /// @param where  What it is about: "apps/NAME", "system/journal".
  void AddError(const std::string& where, const std::string& message);

  [[nodiscard]] std::uint64_t entries() const { return entries_; }
  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

  /// The manifest as it stands, as JSON. Texts in it may quote tokens: the archive writer masks them.
  [[nodiscard]] std::string Text();

 private:
  Json::Value root_;
  unsigned max_errors_;
  std::uint64_t entries_ = 0;          ///< Entries recorded.
  std::uint64_t bytes_ = 0;            ///< Their sizes' sum.
  std::uint64_t errors_left_out_ = 0;  ///< Errors beyond the limit.
};

}  // namespace TARVO::SupportForm
