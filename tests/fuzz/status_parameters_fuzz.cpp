/// The parameters of "status", and the progress file of a running task. The input: the parameters, and a record with
/// the file's text. There is a task of each kind: 00... with an archive, 11... failed, 22... killed, 33... running.
#include <fcntl.h>
#include <sys/file.h>

#include "api_answer.h"
#include "api_registry.h"
#include "fuzz_support.h"
#include "support_form_log.h"
#include "task_folder.h"

namespace {

using namespace TARVO::SupportForm;
using fuzz::Require;
namespace fs = std::filesystem;

std::string TaskId(char digit) { return std::string(32, digit); }

/// The state folder with its tasks.
struct Tasks {
  Tasks() {
    for (const char digit : {'0', '1', '2', '3'}) {
      fs::create_directory(folder.path() / TaskId(digit));
      static_cast<void>(folder.Write(TaskId(digit) + "/" + kLockFile, digit == '1' ? "1\nno room" : "1\n"));
    }
    static_cast<void>(folder.Write(TaskId('0') + "/" + kArchiveFile, "archive"));
    // Beside a task folder, where a status must not look.
    static_cast<void>(folder.Write(kArchiveFile, "not a task's"));
    lock = UniqueFd(open((folder.path() / TaskId('3') / kLockFile).c_str(), O_RDWR | O_CLOEXEC));
    Require(flock(lock.get(), LOCK_EX) == 0, "the running task's lock can be taken");
  }

  test_support::TemporaryFolder folder;
  UniqueFd lock;
};

void CheckStatus(const Json::Value& parameters, const Json::Value& status, const std::string& state) {
  if (status.isNull()) return;
  if (status["finished"].asBool()) {
    Require(status["path"].asString() == state + "/" + TaskId('0') + "/debug.dat", "a path is the archive's");
  } else {
    Require(parameters["task_id"].asString() == TaskId('3'), "a running task is one that runs");
    Require(status["bytes"].isUInt64() && status["files"].isUInt64(), "progress is told in numbers");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Tasks tasks;
  const std::string_view input = fuzz::AsText(data, size);
  const std::size_t end = std::min(input.find('\x1e'), input.size());
  static_cast<void>(
      tasks.folder.Write(TaskId('3') + "/" + kProgressFile, input.substr(std::min(end + 1, input.size()))));
  Paths paths;
  paths.state = tasks.folder.path();
  Limits limits;
  limits.status_wait_ms = 0;
  SupportFormLog log(paths, limits, {});
  TARVO::ApiRegistry methods;
  log.Register(methods);
  const Json::Value parameters = fuzz::Parameters(input.substr(0, end));
  const Json::Value answer = methods.Run("TARVO.Core.SupportForm.Log", 1, "status", parameters, "admin");
  CheckStatus(parameters, fuzz::DataOf(answer), paths.state);
  return 0;
}
