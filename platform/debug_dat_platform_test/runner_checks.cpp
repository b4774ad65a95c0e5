#include <json/value.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include "checks.h"
#include "platform/web_api_runner.h"

namespace DebugDatPlatformTest {
namespace {

constexpr char kApi[] = "TARVO.Core.SupportForm.Log";
constexpr useconds_t kPauseMicroseconds = 100'000;

using Exec = bool (*)(Json::Value&, const char*, int, const char*, const Json::Value&, const char*);

Json::Value Ask(const Platform& platform, const char* method, const Json::Value& params) {
  Json::Value answer(Json::objectValue);
  platform.Get<Exec>(Symbol::kExec)(answer, kApi, 1, method, params, "admin");
  return answer;
}

std::string TextOf(const Json::Value& answer) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, answer);
}

/// The member "data" of an answer that tells of success.
Json::Value DataOf(const Json::Value& answer) {
  const std::string fault = ", the answer is " + TextOf(answer);
  Expect(answer.isObject() && answer["success"].isBool(), "there is no boolean \"success\"" + fault);
  Expect(answer["success"].asBool(), "it failed" + fault);
  Expect(answer["data"].isObject(), "there is no object \"data\"" + fault);
  return answer["data"];
}

void ExpectFailure(const Json::Value& answer) {
  const std::string fault = ", the answer is " + TextOf(answer);
  Expect(answer.isObject() && answer["success"].isBool(), "there is no boolean \"success\"" + fault);
  Expect(!answer["success"].asBool(), "it tells of success" + fault);
  Expect(answer["error"].isObject(), "there is no object \"error\"" + fault);
}

std::string Collect(const Platform& platform) {
  Json::Value params(Json::objectValue);
  params["app_list"] = Json::Value(Json::arrayValue);
  const Json::Value data = DataOf(Ask(platform, "collect", params));
  Expect(data["task_id"].isString(), "there is no string \"task_id\", the data are " + TextOf(data));
  return data["task_id"].asString();
}

/// Asks until the collection has finished, as the daemon does.
std::string PathOf(const Platform& platform, const std::string& task_id) {
  Json::Value params(Json::objectValue);
  params["task_id"] = task_id;
  for (;; usleep(kPauseMicroseconds)) {
    const Json::Value data = DataOf(Ask(platform, "status", params));
    Expect(data["finished"].isBool(), "there is no boolean \"finished\", the data are " + TextOf(data));
    if (!data["finished"].asBool()) continue;
    Expect(data["path"].isString(), "it has finished, but there is no string \"path\": " + TextOf(data));
    return data["path"].asString();
  }
}

void CheckCollect(const Platform& platform) { static_cast<void>(Collect(platform)); }

void CheckStatus(const Platform& platform) {
  std::string task_id;
  try {
    task_id = Collect(platform);
  } catch (const Fault&) {
    throw CannotTell("not checked: there is no collection to ask about");
  }
  const std::string path = PathOf(platform, task_id);
  struct stat archive = {};
  Expect(stat(path.c_str(), &archive) == 0 && S_ISREG(archive.st_mode), "there is no archive at " + path);
  Expect(access(path.c_str(), R_OK) == 0, "the archive at " + path + " can't be read");
  Expect(unlink(path.c_str()) == 0, "the archive at " + path + " can't be deleted");
}

void CheckUnknownTask(const Platform& platform) {
  Json::Value params(Json::objectValue);
  params["task_id"] = "a task that nobody has started";
  ExpectFailure(Ask(platform, "status", params));
}

void CheckUnknownMethod(const Platform& platform) {
  ExpectFailure(Ask(platform, "no such method", Json::Value(Json::objectValue)));
}

}  // namespace

std::vector<Check> RunnerChecks(const Platform& platform, const std::string& room_fault) {
  const auto on = [&platform](void (*check)(const Platform&)) {
    return [&platform, check] { check(platform); };
  };
  const auto in_room = [&](void (*check)(const Platform&)) {
    return [&platform, check, room_fault] {
      if (room_fault.empty()) return check(platform);
      throw CannotTell("not checked: without namespaces it would write on this machine (" + room_fault + ")");
    };
  };
  const std::string errors =
      R"(Exec() has to answer with {"success": false, "error": {...}} in 'out', and throw nothing)";
  const std::string collect =
      R"("collect" has to answer with {"success": true, "data": {"task_id": "..."}}, also for no applications)";
  const std::string status =
      R"("status" has to answer with {"finished": false}, or {"finished": true, "path": "..."} and an archive )"
      "there, as its \"data\"";
  return {
      {"api-unknown-method", "an error, in JSON", errors, {Symbol::kExec}, on(&CheckUnknownMethod)},
      {"api-unknown-task", "an error, in JSON", errors, {Symbol::kExec}, on(&CheckUnknownTask)},
      {"api-collect",
       "a collection is started",
       collect,
       {Symbol::kExec},
       in_room(&CheckCollect),
       Patience::kTenDeadlines},
      {"api-status",
       "an archive comes, which can be deleted",
       status,
       {Symbol::kExec},
       in_room(&CheckStatus),
       Patience::kTenDeadlines},
  };
}

}  // namespace DebugDatPlatformTest
