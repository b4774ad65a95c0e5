/// What the tests of the log collection share: scoped folders in place of the device's, example applications,
/// a reader of archives.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "collection_limits.h"
#include "eventually.h"
#include "small_disk.h"
#include "temporary_folder.h"
#include "unpacker.h"

namespace TARVO::SupportForm {

namespace fs = std::filesystem;

using test_support::CallerProcess;
using test_support::Eventually;
using test_support::FillDevice;
using test_support::LimitFileSize;
using test_support::ModeOf;
using test_support::MountOwnTmpfs;

[[nodiscard]] std::string ReadText(const fs::path& path);
void WriteText(const fs::path& path, const std::string& text);

/// The text, compressed.
[[nodiscard]] std::string Packed(Packing packing, const std::string& text);

/// Text in which no part comes again: it compresses by a quarter.
[[nodiscard]] std::string RandomLetters(std::size_t count);

/// What can't be compressed. The same in each run: some random bytes look like a secret, and are masked.
[[nodiscard]] std::string RandomBytes(std::size_t count);

/// What no archive may hold.
inline constexpr const char* kPlantedSecret = "Pl4ntedS3cretx9QzAB";
/// A log with that secret in the forms that the redaction promises to find, a line or a key each.
[[nodiscard]] std::string LogWithPlantedSecrets();
inline constexpr unsigned kPlantedForms = 30;

/// SHA-256 in hex digits, computed by a program of the system.
[[nodiscard]] std::string Sha256Of(const std::string& text);

[[nodiscard]] Json::Value ParseJson(const std::string& text);

/// The entries of an archive, in their order.
struct ArchiveContent {
  std::vector<std::pair<std::string, std::string>> entries;  ///< Name and content.

  [[nodiscard]] bool Has(const std::string& name) const;
  /// The content of an entry; fails the test when there is none.
  [[nodiscard]] std::string Of(const std::string& name) const;
  [[nodiscard]] std::vector<std::string> Names() const;
  [[nodiscard]] Json::Value ManifestJson() const;
  /// All error lines of the manifest, "where: message".
  [[nodiscard]] std::vector<std::string> Errors() const;
  /// The manifest's record of an entry; null when there is none.
  [[nodiscard]] Json::Value Record(const std::string& name) const;
};

[[nodiscard]] ArchiveContent ReadArchive(const fs::path& path);

/// Scoped folders: <folder>/state, <folder>/descriptions, <folder>/bin, <folder>/data.
class SupportLogTest : public testing::Test {
 protected:
  SupportLogTest();
  ~SupportLogTest() override;

  /// Writes a description file.
  void Describe(const std::string& app, const std::string& json) const;
  /// Writes an executable script that is found before the system's programs.
  void Program(const std::string& name, const std::string& script) const;
  /// A description's command that lasts as long as the file `gate` exists; the folder's end removes it, too.
  [[nodiscard]] std::string GateCommand(const fs::path& gate) const;

  const test_support::TemporaryFolder temporary_;
  const fs::path folder_ = temporary_.path();
  fs::path data_ = folder_ / "data";
  Paths paths_;
  Limits limits_;
};

}  // namespace TARVO::SupportForm
