/// The program that makes debug archives. `--task ID` is how libwebapi-Pelk5.so starts it for a ticket, with the
/// list of applications, a JSON array, at standard input. `--connection` is how a service manager starts it for a
/// collection that is handed over, with the connection as standard input. What else it does, --help tells.
#include <fcntl.h>
#include <json/value.h>
#include <openssl/crypto.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "app_list.h"
#include "collection_limits.h"
#include "connection.h"
#include "description_links.h"
#include "file_util.h"
#include "local_archive.h"
#include "options.h"
#include "task.h"
#include "task_folder.h"
#include "task_process.h"

namespace {

using namespace TARVO::SupportForm;

Json::Value ReadAppList() {
  std::string text;
  bool more = false;
  if (!ReadUpTo(STDIN_FILENO, kAppListBytes, text, more) || more) {
    throw std::runtime_error("the list of applications can't be read from standard input");
  }
  return ParseAppList(text, "standard input");
}

int RunTaskOfLibrary(const std::string& task_id) {
  // Commands of a collection must not hold it.
  if (fcntl(kTaskLockFd, F_SETFD, FD_CLOEXEC) != 0) {
    throw std::runtime_error("the task's lock is missing; only the library starts a task");
  }
  Json::Value app_list;
  try {
    app_list = ReadAppList();
  } catch (const std::exception& error) {
    RecordFailure(error);
    throw;
  }
  return RunTask({}, {}, task_id, app_list);
}

/// Carries out what people ask for.
/// @return the exit status.
int RunForPeople(const CollectOptions& options) {
  Paths paths;
  paths.ready_descriptions = READY_DESCRIPTIONS;
  switch (options.action) {
    case CollectOptions::Action::kList:
      PrintDescriptions(paths, {}, std::cout);
      return 0;
    case CollectOptions::Action::kEnable:
    case CollectOptions::Action::kDisable: {
      const bool enable = options.action == CollectOptions::Action::kEnable;
      return ChangeDescriptions(paths, {}, options.apps, enable, std::cout, std::cerr) ? 0 : 1;
    }
    case CollectOptions::Action::kDryRun:
      ListContents(paths, {}, options, std::cout);
      return 0;
    default:
      WriteArchive(paths, {}, options, std::cout, std::cerr);
      return 0;
  }
}

/// What StartDetached() and RunTask() do for a task.
void SetUpProcess() {
  clearenv();
  umask(077);
  ShieldMemory();
  // A file-size limit is met like a full device: by an error.
  static_cast<void>(signal(SIGXFSZ, SIG_IGN));
  OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
}

int Main(int argc, char** argv) {
  const ParsedOptions parsed = ParseOptions(argc, argv);
  if (!parsed.run) {
    (parsed.exit_status == 0 ? std::cout : std::cerr) << parsed.text;
    return parsed.exit_status;
  }
  const CollectOptions& options = parsed.options;
  if (options.action == CollectOptions::Action::kTask) return RunTaskOfLibrary(options.task_id);
  if (options.action == CollectOptions::Action::kConnection) return ServeConnection({}, {}, STDIN_FILENO);
  SetUpProcess();
  return RunForPeople(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "debug_dat_collect: " << FailureText(error) << "\n";
    return 1;
  }
}
