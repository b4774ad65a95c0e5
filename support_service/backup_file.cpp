#include "backup_file.h"

#include <archive.h>
#include <archive_entry.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <sstream>

#include "sha256.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

constexpr std::size_t kTarBlockBytes = std::size_t{256} * 1024;
/// Of the members that are read as a whole.
constexpr std::size_t kMostTextBytes = std::size_t{256} << 20;
constexpr std::size_t kHashDigits = 64;

using TarReader = std::unique_ptr<archive, int (*)(archive*)>;

/// A name as the service gives it to its files: it leads nowhere else.
bool IsFileName(std::string_view name) {
  constexpr std::string_view kPunctuation = "-._";
  const auto is_plain = [kPunctuation](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           kPunctuation.find(c) != std::string_view::npos;
  };
  return !name.empty() && name.size() <= NAME_MAX && name.front() != '.' &&
         std::all_of(name.begin(), name.end(), is_plain);
}

bool IsMemberName(std::string_view name) {
  for (const char* other : {kBackupForm, kBackupStore, kBackupFacts, kBackupSums}) {
    if (name == other) return true;
  }
  const std::size_t slash = name.find('/');
  if (slash == std::string_view::npos || !IsFileName(name.substr(slash + 1))) return false;
  return std::any_of(std::begin(kBackupFolders), std::end(kBackupFolders),
                     [&](const char* folder) { return name.substr(0, slash) == folder; });
}

/// Reads one file.
class BackupCheck {
 public:
  BackupCheck(const std::filesystem::path& file, const MemberSink& sink)
      : file_(file), sink_(sink), tar_(archive_read_new(), archive_read_free) {}

  BackupFacts Run() {
    Open();
    archive_entry* entry = nullptr;
    bool at_end = false;
    for (;;) {
      const int result = archive_read_next_header(tar_.get(), &entry);
      if (result == ARCHIVE_EOF) break;
      if (result != ARCHIVE_OK) RefuseDamaged();
      if (at_end) Refuse("has more behind its end. It was changed");
      const std::string name = NameOf(entry);
      TakeMember(name);
      if (name == kBackupForm) RequireOwnForm();
      at_end = name == kBackupSums;
    }
    if (member_.empty()) Refuse("is no backup of a support service");
    if (!at_end) Refuse("is cut off: its end is missing. Take another one");
    CompareSums();
    if (facts_.sums.count(kBackupStore) == 0) RefuseOther(kBackupStore);
    ReadFacts();
    return std::move(facts_);
  }

 private:
  [[noreturn]] void Refuse(const std::string& what) const { throw BackupError(file_.string() + " " + what); }
  [[noreturn]] void RefuseDamaged() const {
    const char* why = archive_error_string(tar_.get());
    if (member_.empty()) Refuse("is no backup of a support service");
    Refuse("is cut off or damaged, at or behind " + member_ + " (" + Printable(why == nullptr ? "" : why) +
           "). Take another one");
  }

  [[noreturn]] void RefuseOther(const std::string& lacking) const {
    Refuse("is no backup of a support service: it has no " + lacking);
  }

  void Open() {
    struct stat status {};
    if (stat(file_.c_str(), &status) == -1) {
      Refuse("can't be read: " + std::generic_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) Refuse("is no file");
    if (!tar_) throw std::bad_alloc();
    archive_read_support_format_tar(tar_.get());
    if (archive_read_open_filename(tar_.get(), file_.c_str(), kTarBlockBytes) != ARCHIVE_OK) RefuseDamaged();
  }

  /// Makes sure that the member may be there.
  std::string NameOf(archive_entry* entry) {
    const char* text = archive_entry_pathname(entry);
    std::string name = text == nullptr ? "" : text;
    if (member_.empty() && name != kBackupForm) {
      Refuse("is no backup of a support service: it begins with " + Quoted(name));
    }
    const bool is_file =
        archive_entry_filetype(entry) == AE_IFREG && archive_entry_hardlink(entry) == nullptr;
    if (!is_file || !IsMemberName(name)) Refuse("holds " + Quoted(name) + ", which no backup has");
    if (facts_.sums.count(name) != 0) Refuse("holds " + name + " twice");
    return name;
  }

  void TakeMember(const std::string& name) {
    member_ = name;
    const bool is_text = name == kBackupForm || name == kBackupFacts || name == kBackupSums;
    if (name.rfind("archives/", 0) == 0) ++facts_.archives;
    if (sink_.begin) sink_.begin(name);
    Sha256Digest hash;
    std::vector<char> block(kTarBlockBytes);
    for (;;) {
      const la_ssize_t count = archive_read_data(tar_.get(), block.data(), block.size());
      if (count < 0) RefuseDamaged();
      if (count == 0) break;
      const std::string_view piece(block.data(), static_cast<std::size_t>(count));
      hash.Add(piece);
      facts_.size_bytes += piece.size();
      if (is_text && texts_[name].size() + piece.size() > kMostTextBytes) Refuse("has too large a " + name);
      if (is_text) texts_[name].append(piece);
      if (sink_.add) sink_.add(piece);
    }
    if (name != kBackupSums) facts_.sums[name] = hash.Hex();
  }

  /// Before anything else is looked at: it may have another meaning in another form.
  void RequireOwnForm() {
    constexpr std::size_t kMostDigits = 9;
    std::string form = texts_[kBackupForm];
    if (!form.empty() && form.back() == '\n') form.pop_back();
    if (form == std::to_string(kOwnBackupForm)) return;
    const bool is_number = !form.empty() && form.size() <= kMostDigits &&
                           form.find_first_not_of("0123456789") == std::string::npos;
    if (!is_number) Refuse("is damaged: its form can't be read. Take another one");
    Refuse("was made by another version of the service (form " + form + ", this one knows form " +
           std::to_string(kOwnBackupForm) + "). Install that version");
  }

  void CompareSums() {
    std::istringstream lines(texts_[kBackupSums]);
    std::map<std::string, std::string> sums;
    for (std::string line; std::getline(lines, line);) {
      constexpr std::string_view kGap = "  ";
      if (line.size() <= kHashDigits + kGap.size() || line.compare(kHashDigits, kGap.size(), kGap) != 0) {
        Refuse("is damaged: its list of sums can't be read. Take another one");
      }
      sums[line.substr(kHashDigits + kGap.size())] = line.substr(0, kHashDigits);
    }
    for (const auto& [name, sum] : facts_.sums) {
      if (sums[name] != sum) Refuse("is damaged: " + name + " is not what was backed up. Take another one");
    }
    if (sums.size() != facts_.sums.size()) Refuse("is damaged: it lacks a file. Take another one");
  }

  void ReadFacts() {
    const std::string& text = texts_[kBackupFacts];
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    try {
      if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) || !value.isObject()) {
        RefuseOther(kBackupFacts);
      }
      facts_.service_version = Printable(value["service_version"].asString());
      facts_.created = Printable(value["created"].asString());
      facts_.with_archives = value["with_archives"].asBool();
      for (const Json::Value& name : value["missing"]) facts_.missing.push_back(Printable(name.asString()));
    } catch (const Json::Exception&) {
      Refuse(std::string("is no backup of a support service: ") + kBackupFacts + " says something else");
    }
  }

  const std::filesystem::path& file_;
  const MemberSink& sink_;
  const TarReader tar_;
  std::string member_;                        ///< The one that was begun last.
  std::map<std::string, std::string> texts_;  ///< Of the members that are read as a whole.
  BackupFacts facts_;
};

}  // namespace

BackupFacts ReadBackup(const std::filesystem::path& file, const MemberSink& sink) {
  return BackupCheck(file, sink).Run();
}

}  // namespace TarvoOrvane::SupportService
