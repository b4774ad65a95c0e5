#include "collector_service.h"

#include <json/reader.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "api_error.h"
#include "file_util.h"
#include "hand_over.h"
#include "json_text.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::size_t kAnswerBytes = std::size_t{64} << 10;
constexpr std::int64_t kConnectPauseMs = 20;
constexpr const char* kSeeJournal = "see journalctl -u 'debug-dat-collect@*'";

[[noreturn]] void Fail(const std::string& what) { throw ApiError(ApiErrorCode::kSystem, what); }

/// What is to be done where the service could not be asked.
std::string RemedyFor(int error) {
  switch (error) {
    case ECONNREFUSED:
      return "nobody listens there; run systemctl start debug-dat-collect.socket, or remove that file";
    case EACCES:
      return "run the daemon as root or as the user tarvo: nobody else may";
    case EAGAIN:
      return "too many wait there already; try again later";
    case ETIMEDOUT:
      return kSeeJournal;
    default:
      return "try again later";
  }
}

[[noreturn]] void FailToHandOver(const std::string& path, int error) {
  Fail("the collection can't be handed over at " + path + ": " + ErrorText(error) + "; " + RemedyFor(error));
}

/// Invalid where there is no such file.
UniqueFd Connect(const std::string& path, std::int64_t deadline_ms) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) FailToHandOver(path, ENAMETOOLONG);
  path.copy(&address.sun_path[0], path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) FailToHandOver(path, errno);
  while (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    if (errno == ENOENT) return {};
    // Others who are not served yet may fill the queue.
    if (errno != EAGAIN || MonotonicMs() >= deadline_ms) FailToHandOver(path, errno);
    SleepMs(kConnectPauseMs);
  }
  return fd;
}

Json::Value Parsed(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
  return value;
}

HandedOverTask Understood(Message answer) {
  const Json::Value said = Parsed(answer.text);
  if (said.isObject() && said["error"].isString()) Fail("the collector refuses: " + said["error"].asString());
  if (!said.isObject() || !said["task_id"].isString() || !IsTaskId(said["task_id"].asString())) {
    Fail(std::string("the collector ended without an answer; ") + kSeeJournal);
  }
  if (!answer.attached.valid()) {
    Fail("the collector's answer came without the task's lock: too many files are open in this process");
  }
  return {said["task_id"].asString(), std::move(answer.attached)};
}

}  // namespace

std::optional<HandedOverTask> HandOver(const std::string& socket_path, unsigned wait_ms,
                                       const Json::Value& app_list) {
  const std::int64_t deadline_ms = MonotonicMs() + wait_ms;
  const UniqueFd connection = Connect(socket_path, deadline_ms);
  if (!connection.valid()) return std::nullopt;
  // A collector that refuses may do so without having read all of the request. Its answer tells why.
  if (!SendMessage(connection.get(), CompactJson(app_list), -1, deadline_ms) && errno != EPIPE &&
      errno != ECONNRESET) {
    FailToHandOver(socket_path, errno);
  }
  Message answer;
  if (!ReceiveMessage(connection.get(), kAnswerBytes, deadline_ms, answer) && errno != ECONNRESET) {
    FailToHandOver(socket_path, errno);
  }
  return Understood(std::move(answer));
}

}  // namespace TARVO::SupportForm
