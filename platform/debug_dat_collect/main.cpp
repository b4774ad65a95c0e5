/// The program that makes debug archives. `--task ID` is how libwebapi-Pelk5.so starts it for a ticket, with the
/// list of applications, a JSON array, at standard input. What else it does, --help tells.
#include <fcntl.h>
#include <json/reader.h>
#include <openssl/crypto.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include "collection_limits.h"
#include "file_util.h"
#include "local_archive.h"
#include "options.h"
#include "task.h"
#include "task_folder.h"
#include "task_process.h"

namespace {

using namespace TARVO::SupportForm;

constexpr std::size_t kMaxInputBytes = std::size_t{1} << 20;

Json::Value ReadAppList() {
  std::string text;
  bool more = false;
  if (!ReadUpTo(STDIN_FILENO, kMaxInputBytes, text, more) || more) {
    throw std::runtime_error("the list of applications can't be read from standard input");
  }
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;  // takes time that grows with the square of the text's length
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value list;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &list, &errors) || !list.isArray()) {
    throw std::runtime_error("standard input holds no JSON array of application names: " + errors);
  }
  return list;
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
  SetUpProcess();
  if (options.action == CollectOptions::Action::kDryRun) {
    ListContents({}, {}, options, std::cout);
  } else {
    WriteArchive({}, {}, options, std::cout, std::cerr);
  }
  return 0;
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
