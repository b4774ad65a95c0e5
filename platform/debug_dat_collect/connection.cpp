#include "connection.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "app_list.h"
#include "file_util.h"
#include "hand_over.h"
#include "json_text.h"
#include "task.h"
#include "task_folder.h"
#include "task_process.h"
#include "trusted_path.h"

namespace TARVO::SupportForm {
namespace {

/// The user as whom the daemon runs where it has no rights of root's.
constexpr const char* kDaemonUser = "tarvo";

/// Who has connected, as the kernel noted then.
ucred PeerOf(int connection_fd) {
  ucred peer = {};
  socklen_t size = sizeof(peer);
  if (getsockopt(connection_fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    throw std::runtime_error("standard input is no connection: " + ErrorText(errno));
  }
  return peer;
}

/// Root could do the work itself. The daemon's user could not read the archive if the task were not of its group.
bool MayAsk(const ucred& peer) {
  if (IsRootOrSelf(peer.uid)) return true;
  const passwd* const user = getpwnam(kDaemonUser);
  return user != nullptr && user->pw_uid == peer.uid && peer.gid == getegid();
}

Json::Value ReadRequest(int connection_fd, unsigned wait_ms) {
  Message request;
  if (!ReceiveMessage(connection_fd, kAppListBytes, MonotonicMs() + wait_ms, request)) {
    throw std::runtime_error("the request can't be read: " + ErrorText(errno));
  }
  Json::Value list = ParseAppList(request.text, "the request");
  if (!std::all_of(list.begin(), list.end(), [](const Json::Value& app) { return app.isString(); })) {
    throw std::runtime_error("the request is a list that holds something else than names");
  }
  return list;
}

NewTask MakeTask(const Paths& paths, const Limits& limits, int state_fd) {
  ShareStateFolder(state_fd);
  const UniqueFd starting = LockStateFolder(paths.state, limits.prepare_wait_ms);
  RemoveLeftovers(state_fd);
  if (CountTasks(state_fd) >= limits.handed_over_tasks) {
    throw std::runtime_error("there are " + std::to_string(limits.handed_over_tasks) +
                             " collections already: end whoever holds them, or remove their folders in " +
                             paths.state);
  }
  NewTask task = CreateTask(state_fd);
  try {
    ShareTask(state_fd, task);
  } catch (...) {
    RemoveTask(state_fd, task.id);
    throw;
  }
  return task;
}

void SendAnswer(int connection_fd, const char* name, const std::string& text, int attached_fd,
                unsigned wait_ms) {
  Json::Value answer(Json::objectValue);
  answer[name] = text;
  if (!SendMessage(connection_fd, CompactJson(answer), attached_fd, MonotonicMs() + wait_ms)) {
    throw std::runtime_error("whoever asked for it is gone: " + ErrorText(errno));
  }
}

/// Makes the task that is asked for and says so, or leaves nothing.
NewTask TakeOver(const Paths& paths, const Limits& limits, int connection_fd, Json::Value& app_list) {
  app_list = ReadRequest(connection_fd, limits.request_wait_ms);
  const UniqueFd state = OpenStateFolder(paths.state);
  NewTask task = MakeTask(paths, limits, state.get());
  try {
    SendAnswer(connection_fd, "task_id", task.id, task.owner.get(), limits.request_wait_ms);
  } catch (...) {
    RemoveTask(state.get(), task.id);
    throw;
  }
  task.owner.Close();  // it is the asker's alone
  return task;
}

void Refuse(int connection_fd, const ucred& peer, const Limits& limits, const std::exception& error) {
  const std::string why = FailureText(error);
  syslog(LOG_DAEMON | LOG_WARNING, "refused a collection that user %u asked for: %s", peer.uid, why.c_str());
  try {
    SendAnswer(connection_fd, "error", why, -1, limits.request_wait_ms);
  } catch (const std::exception&) {  // they are gone, and the log has it
  }
}

}  // namespace

int ServeConnection(const Paths& paths, const Limits& limits, int connection_fd) {
  clearenv();
  umask(022);                   // the folders above the state folder are for all to pass
  static_cast<void>(setsid());  // the task lowers the priority of its session
  UniqueFd connection(connection_fd);
  const ucred peer = PeerOf(connection.get());
  NewTask task;
  Json::Value app_list;
  try {
    if (!MayAsk(peer)) {
      throw std::runtime_error(std::string("only root and the user ") + kDaemonUser + ", in the group " +
                               std::to_string(getegid()) + ", may ask for collections");
    }
    task = TakeOver(paths, limits, connection.get(), app_list);
  } catch (const std::exception& error) {
    Refuse(connection.get(), peer, limits, error);
    return 1;
  }
  connection.Close();
  return BecomeTaskProcess(task.lock.Release()) ? RunTask(paths, limits, task.id, app_list) : 1;
}

}  // namespace TARVO::SupportForm
