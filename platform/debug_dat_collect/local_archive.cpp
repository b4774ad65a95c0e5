#include "local_archive.h"

#include <fcntl.h>
#include <json/value.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <ostream>
#include <stdexcept>
#include <string>

#include "audit_log.h"
#include "collection.h"
#include "file_util.h"
#include "listing.h"
#include "redaction_rules.h"
#include "task_folder.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {
namespace {

/// A folder of the caller's alone to make the archive in. There is one at a time.
class WorkFolder {
 public:
  /// @param parent_fd  Borrowed.
  WorkFolder(int parent_fd, const std::filesystem::path& parent)
      : path_(parent / ".debug_dat_collect.XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error(parent.string() + ": " + ErrorText(errno));
    fd_ = UniqueFd(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    name_ = path_.substr(path_.rfind('/') + 1);
    current_parent_fd = parent_fd;
    current_fd = fd_.get();
    current_name = name_.c_str();
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) RemoveAtSignal(number);
  }
  ~WorkFolder() {
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) static_cast<void>(signal(number, SIG_DFL));
    Remove();
  }
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;

  [[nodiscard]] int fd() const { return fd_.get(); }

 private:
  /// The caller of `nohup` wants no end at SIGHUP.
  static void RemoveAtSignal(int number) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) return;
    action = {};
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    action.sa_handler = [](int signal_number) {
      Remove();
      static_cast<void>(
          raise(signal_number));  // The default disposition ends the program once the handler is left.
    };
    sigaction(number, &action, nullptr);
  }

  /// Async-signal-safe.
  static void Remove() {
    for (const char* name : kTaskFiles) unlinkat(current_fd, name, 0);
    unlinkat(current_parent_fd, current_name, AT_REMOVEDIR);
  }

  static inline int current_parent_fd = -1;
  static inline int current_fd = -1;
  static inline const char* current_name = "";

  std::string path_;
  std::string name_;
  UniqueFd fd_;
};

[[noreturn]] void FailToWrite(const std::string& file, int error) {
  throw std::runtime_error(file + " can't be written: " + ErrorText(error) +
                           (error == EEXIST ? "; remove it or choose another name" : ""));
}

/// Gives the archive its name, unless something has it by now.
void MoveArchive(int folder_fd, int parent_fd, const std::filesystem::path& file) {
  const std::string name = file.filename().string();
  if (renameat2(folder_fd, kArchiveFile, parent_fd, name.c_str(), RENAME_NOREPLACE) == 0) return;
  // Some file systems can't promise that; whether the name was free has been looked at.
  if (errno == EINVAL && renameat(folder_fd, kArchiveFile, parent_fd, name.c_str()) == 0) return;
  FailToWrite(file.string(), errno);
}

CollectionSummary MakeArchiveFile(const Paths& paths, const Limits& limits, const CollectionRequest& request,
                                  const std::filesystem::path& file) {
  struct stat status = {};
  if (lstat(file.c_str(), &status) == 0) FailToWrite(file.string(), EEXIST);
  const std::filesystem::path parent = file.has_parent_path() ? file.parent_path() : ".";
  const UniqueFd parent_fd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent_fd.valid()) FailToWrite(file.string(), errno);
  const WorkFolder folder(parent_fd.get(), parent);
  CollectionSummary summary = MakeArchive(paths, limits, folder.fd(), request);
  MoveArchive(folder.fd(), parent_fd.get(), file);
  return summary;
}

Json::Value AppList(const CollectOptions& options) {
  Json::Value list(Json::arrayValue);
  for (const std::string& app : options.apps) list.append(app);
  return list;
}

/// The text without what a terminal would take for orders: control characters, those of the second set, too.
std::string ForTerminal(std::string text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const unsigned next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    const bool second_set = byte == 0xC2 && next >= 0x80 && next < 0xA0;
    if (byte < 0x20 || byte == 0x7F || second_set) text.replace(i, second_set ? 2 : 1, "?");
  }
  return text;
}

void Print(const CollectionSummary& summary, const CollectOptions& options, std::ostream& out) {
  const ArchiveSummary& archive = summary.archive;
  out << options.out << "\n"
      << "  entries   " << archive.entries << ", the manifest included\n"
      << "  content   " << archive.bytes << " bytes\n"
      << "  archive   " << archive.size << " bytes\n"
      << "  SHA-256   " << archive.sha256 << "\n"
      << "  secrets   " << archive.redacted << " masked" << (options.redaction ? "" : "; redaction was off")
      << "\n"
      << "  left out  " << summary.errors << " lines under \"errors\" in its manifest.json\n";
}

}  // namespace

void WriteArchive(const Paths& paths, const Limits& limits, const CollectOptions& options, std::ostream& out,
                  std::ostream& err) {
  const CollectionRequest request = {"command line", AppList(options), options.redaction};
  const CollectionSummary summary = MakeArchiveFile(paths, limits, request, options.out);
  Print(summary, options, out);
  if (!options.redaction) {
    err << "warning: secrets are not masked in this archive; it is not fit to leave the device\n";
  }
  try {
    AppendAuditLine(paths.audit_log, limits.audit_bytes,
                    AuditLine({std::time(nullptr), "", request.app_list, request.redact, summary.archive}));
  } catch (const std::exception& error) {
    err << "warning: " << error.what() << "\n";
  }
}

void ListContents(const Paths& paths, const Limits& limits, const CollectOptions& options,
                  std::ostream& out) {
  // As before an archive: with rules that can't be compiled nothing is taken, so that there is nothing to list.
  static_cast<void>(RedactionRules(paths.redaction));
  const Listing listing = ListArchive(paths, limits, AppList(options));
  std::uint64_t bytes = 0;
  for (const ListedEntry& entry : listing.entries) {
    out << std::setw(12) << (entry.size ? std::to_string(*entry.size) : "?") << "  " << entry.name << "  ("
        << ForTerminal(entry.origin) << ")\n";
    bytes += entry.size.value_or(0);
  }
  for (const std::string& line : listing.left_out) {
    out << std::setw(12) << "left out"
        << "  " << ForTerminal(line) << "\n";
  }
  out << listing.entries.size() << " entries and the manifest; " << bytes << " bytes in those of known size; "
      << listing.left_out.size() << " left out\n";
}

}  // namespace TARVO::SupportForm
