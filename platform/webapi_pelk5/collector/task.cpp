#include "task.h"

#include <openssl/crypto.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>

#include "collection.h"
#include "file_util.h"
#include "task_folder.h"
#include "task_process.h"
#include "token_mask.h"

namespace TARVO::SupportForm {

int RunTask(const Paths& paths, const Limits& limits, const std::string& task_id,
            const Json::Value& app_list) {
  // The libraries used here would let an environment choose locales, converters and zones.
  clearenv();
  alarm(limits.task_seconds_hard);
  static_cast<void>(WriteAll(kTaskLockFd, std::to_string(getpid()) + "\n"));
  // SHA-256 needs no configuration, and the search for one would look at the environment.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
  const UniqueFd folder = OpenTaskFolder(paths.state, task_id);
  std::string failure = "out of memory";
  try {
    if (!folder.valid()) return 1;
    MakeArchive(paths, limits, folder.get(), task_id, app_list);
    return 0;
  } catch (const std::exception& error) {
    failure = Masked(error.what());
  } catch (...) {
    failure = "unknown error";
  }
  static_cast<void>(ReplaceFile(folder.get(), kFailureFile, failure));
  return 1;
}

}  // namespace TARVO::SupportForm
