/// The program that makes debug archives. `--task ID` is how libwebapi-Pelk5.so starts it for a ticket, with the
/// list of applications, a JSON array, at standard input.
#include <fcntl.h>
#include <json/reader.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "collection_limits.h"
#include "file_util.h"
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
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value list;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &list, &errors) || !list.isArray()) {
    throw std::runtime_error("standard input holds no JSON array of application names: " + errors);
  }
  return list;
}

int Main(int argc, char** argv) {
  if (argc != 3 || std::string(argv[1]) != "--task" || !IsTaskId(argv[2])) {
    static_cast<void>(std::fprintf(stderr, "usage: debug_dat_collect --task ID\n"));
    return 2;
  }
  // Commands of a collection must not hold it.
  if (fcntl(kTaskLockFd, F_SETFD, FD_CLOEXEC) != 0) {
    throw std::runtime_error("the task's lock is missing; only the library starts a task");
  }
  return RunTask({}, {}, argv[2], ReadAppList());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "debug_dat_collect: %s\n", error.what()));
    return 1;
  }
}
