#include "api_call.h"

#include <algorithm>
#include <charconv>

#include "api_json.h"
#include "registry.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

[[noreturn]] void RefuseNumber(const std::string& name, std::uint64_t least, std::uint64_t most) {
  throw ApiError("bad_request", "\"" + name + "\" must be a number from " + std::to_string(least) + " to " +
                                    std::to_string(most));
}

}  // namespace

std::uint64_t ApiCall::QueryNumber(const char* name, std::uint64_t other, std::uint64_t least,
                                   std::uint64_t most) const {
  const auto text = request.Query(name);
  if (!text) return other;
  std::uint64_t number = 0;
  const char* end = text->data() + text->size();
  const auto result = std::from_chars(text->data(), end, number);
  if (result.ec != std::errc() || result.ptr != end || number < least || number > most) {
    RefuseNumber(name, least, most);
  }
  return number;
}

std::string ApiCall::QueryText(const char* name) const { return request.Query(name).value_or(""); }

void ApiCall::AllowMembers(std::initializer_list<const char*> names) const {
  for (const std::string& member : body.getMemberNames()) {
    const bool is_known =
        std::any_of(names.begin(), names.end(), [&](const char* name) { return member == name; });
    if (!is_known) throw ApiError("bad_request", "there is no member " + Quoted(member) + " in this request");
  }
}

std::string ApiCall::Text(const char* name) const {
  auto text = MaybeText(name);
  if (!text) throw ApiError("bad_request", std::string("\"") + name + "\" is missing");
  return *std::move(text);
}

std::optional<std::string> ApiCall::MaybeText(const char* name) const {
  if (!body.isMember(name)) return std::nullopt;
  const Json::Value& value = body[name];
  if (!value.isString()) throw ApiError("bad_request", std::string("\"") + name + "\" must be a string");
  return value.asString();
}

std::vector<std::string> ApiCall::Texts(const char* name) const {
  const Json::Value& list = body[name];
  std::vector<std::string> texts;
  const auto is_text = [](const Json::Value& value) { return value.isString(); };
  if (!list.isArray() || !std::all_of(list.begin(), list.end(), is_text)) {
    throw ApiError("bad_request", std::string("\"") + name + "\" must be an array of strings");
  }
  texts.reserve(list.size());
  for (const Json::Value& value : list) texts.push_back(value.asString());
  return texts;
}

std::uint64_t ApiCall::Number(const char* name, std::uint64_t other, std::uint64_t least,
                              std::uint64_t most) const {
  if (!body.isMember(name)) return other;
  const Json::Value& value = body[name];
  if (!value.isUInt64() || value.asUInt64() < least || value.asUInt64() > most) {
    RefuseNumber(name, least, most);
  }
  return value.asUInt64();
}

Role ApiCall::RoleIn(const char* name) const {
  const auto role = RoleNamed(Text(name));
  if (!role) {
    throw ApiError("bad_request", std::string("\"") + name + R"(" must be "viewer", "support" or "admin")");
  }
  return *role;
}

Ticket ApiCall::TicketMeant() const {
  const std::string& beginning = places.front();
  auto found = desk.store.FindById(beginning, 2);
  if (found.empty()) {
    throw ApiError("not_found", "there is no ticket whose id begins with " + Quoted(beginning));
  }
  if (found.size() > 1) {
    throw ApiError("ambiguous", "there are several tickets whose id begins with " + Quoted(beginning) +
                                    ": write more of it");
  }
  return std::move(found.front());
}

Archive ApiCall::ArchiveMeant(const Ticket& ticket) const {
  const std::string& version = places.at(1);
  for (const Archive& archive : ticket.archives) {
    if (std::to_string(archive.version) != version) continue;
    if (!archive.deleted) return archive;
    throw ApiError("gone",
                   "the archive was deleted at " + TimeText(*archive.deleted) + ": " + archive.deletion);
  }
  throw ApiError("not_found", "ticket " + ticket.id + " has no archive of version " + Quoted(version));
}

EnrolledDevice ApiCall::DeviceMeant() const {
  const std::string& beginning = places.front();
  // The whole number of one may be the beginning of another's.
  if (auto device = desk.store.FindDevice(beginning)) return *std::move(device);
  auto found = desk.store.Devices(beginning, "", 2);
  if (found.empty() || beginning.empty()) {
    throw ApiError("not_found", "no device is enrolled whose serial number begins with " + Quoted(beginning));
  }
  if (found.size() > 1) {
    throw ApiError("ambiguous", "there are several devices whose serial number begins with " +
                                    Quoted(beginning) + ": write more of it");
  }
  return std::move(found.front());
}

bool IsStillKnown(const Store& store, const Caller& caller) {
  const WallTime now = Now().wall;
  if (caller.token) {
    const auto token = store.FindApiToken(caller.token->secret);
    return token && token->expires > now;
  }
  if (!caller.session) return true;
  const auto session = store.FindSession(caller.session->secret);
  return session && session->expires > now;
}

std::uint64_t PageLimit(const ApiCall& call) {
  constexpr std::uint64_t kDefault = 50;
  constexpr std::uint64_t kLargest = 1000;
  return call.QueryNumber("limit", kDefault, 1, kLargest);
}

HttpAnswer NotRemembered(const ApiCall& call, const std::string& fault) {
  call.desk.log.Write(call.request.method() + " " + Quoted(call.request.path()) + " failed: " + fault);
  return ErrorAnswer("unavailable", call.caller.role == Role::kAdmin
                                        ? fault
                                        : "the service can't do it now, its log says why: try again later");
}

std::string CsrfTokenOf(const std::string& session_secret) {
  const SecretHash hash = HashOf("csrf " + session_secret);
  return HexText(hash.data(), hash.size());
}

}  // namespace TarvoOrvane::SupportService
