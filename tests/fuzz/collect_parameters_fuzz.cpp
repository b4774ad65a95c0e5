/// The parameters of "collect": the method, and the archive that the collector makes for the list of applications.
/// There are the applications "mail", of one file, and "broken", and a description that lies elsewhere; the system has
/// no programs and no /proc.
#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "api_answer.h"
#include "api_registry.h"
#include "audit_log.h"
#include "collection.h"
#include "fuzz_support.h"
#include "listing.h"
#include "support_form_log.h"
#include "task_folder.h"

// In place of StartDetached(): the task works in this process.
extern "C" void __wrap__ZN5TARVO11SupportForm13StartDetachedEiRKSt8functionIFivEE(
    int /*lock_fd*/, const std::function<int()>& work) {
  work();
}

namespace {

using namespace TARVO::SupportForm;
using fuzz::Require;
namespace fs = std::filesystem;

constexpr char kApi[] = "TARVO.Core.SupportForm.Log";

/// What the collector does, but for the process that it has to itself.
int Work(const Paths& paths, const std::string& task_id, const Json::Value& app_list) {
  const UniqueFd folder = OpenTaskFolder(paths.state, task_id);
  const CollectionSummary summary = MakeArchive(paths, Limits(), folder.get(), {task_id, app_list, false});
  const std::string line = AuditLine({0, task_id, app_list, false, summary.archive});
  Require(line.find('\n') == line.size() - 1, "an audit line is one line");
  return 0;
}

/// A device of which everything lies in one folder.
struct Device {
  Device() {
    const fs::path& home = folder.path();
    fs::create_directories(home / "descriptions");
    const std::string log = folder.Write("mail.log", "a line\n");
    for (const char* name : {"descriptions/mail.json", "elsewhere.json"}) {
      static_cast<void>(folder.Write(name, R"({"paths": [")" + log + R"("]})"));
    }
    static_cast<void>(folder.Write("descriptions/broken.json", "{"));
    paths.descriptions = home / "descriptions";
    paths.state = home / "state";
    for (std::string* path : {&paths.socket, &paths.redaction, &paths.audit_log, &paths.proc,
                              &paths.os_release, &paths.programs}) {
      *path = home / "absent";
    }
  }

  test_support::TemporaryFolder folder;
  Paths paths;
};

/// As the daemon does.
Json::Value Run(const TARVO::ApiRegistry& methods, const char* method, const Json::Value& parameters) {
  return fuzz::DataOf(methods.Run(kApi, 1, method, parameters, "admin"));
}

void CheckName(const std::string& name) {
  Require(name.rfind("system/", 0) == 0 || name.rfind("apps/mail/files/", 0) == 0,
          "no list of applications leads to other files");
}

void CheckListing(const Paths& paths, const Json::Value& app_list) {
  for (const ListedEntry& entry : ListArchive(paths, Limits(), app_list).entries) CheckName(entry.name);
}

void CheckArchive(const char* path) {
  const std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), &archive_read_free);
  archive_read_support_filter_zstd(reader.get());
  archive_read_support_format_tar(reader.get());
  Require(archive_read_open_filename(reader.get(), path, 65536) == ARCHIVE_OK, "the archive opens");
  std::string last;
  int result = ARCHIVE_OK;
  for (archive_entry* entry = nullptr;
       (result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK;) {
    if (!last.empty()) CheckName(last);
    last = archive_entry_pathname(entry);
  }
  Require(result == ARCHIVE_EOF && last == "manifest.json", "the archive is complete");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Device device;
  static SupportFormLog log(device.paths, Limits(), &Work);
  static const auto* const methods = [] {
    auto* registry = new TARVO::ApiRegistry;
    log.Register(*registry);
    return registry;
  }();
  const Json::Value parameters = fuzz::Parameters(fuzz::AsText(data, size));
  const Json::Value task = Run(*methods, "collect", parameters);
  const bool asks_for_apps = parameters.isObject() && parameters["app_list"].isArray();
  Require(task.isObject() == asks_for_apps,
          "a task is started for a list of applications, and for nothing else");
  if (!asks_for_apps) return 0;
  const Json::Value status = Run(*methods, "status", task);
  Require(status["finished"].asBool(), "a task makes an archive whatever the list holds");
  CheckArchive(status["path"].asCString());
  Require(unlink(status["path"].asCString()) == 0, "the archive can be taken away");
  CheckListing(device.paths, parameters["app_list"]);
  return 0;
}
