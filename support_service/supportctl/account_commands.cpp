#include <string_view>

#include "session.h"

namespace TarvoOrvane::Supportctl {
namespace {

std::string UserPath(const Session& session) { return "/users/" + Escaped(session.options.name); }

/// @param nothing  Where the limit has no such member.
std::string AmountText(const Json::Value& limit, const char* member, const char* nothing) {
  if (!limit.isMember(member)) return nothing;
  constexpr std::string_view kBytes = "_bytes";
  const std::string name = TextOf(limit, "name");
  const bool is_size = name.size() > kBytes.size() && name.substr(name.size() - kBytes.size()) == kBytes;
  const std::uint64_t amount = NumberOf(limit, member);
  constexpr std::uint64_t kMiB = 1 << 20;  // below that each byte may matter
  return is_size && amount >= kMiB ? SizeText(amount) : std::to_string(amount);
}

}  // namespace

ExitStatus ListUsers(Session& session) {
  return PrintList(session, session.api.Get("/users"), "users", Table({"NAME", "ROLE", "CREATED"}),
                   "There are no accounts.", [](Table& table, const Json::Value& user) {
                     table.Add({Safe(TextOf(user, "name")), Safe(TextOf(user, "role")),
                                ShortTime(TextOf(user, "created"))});
                   });
}

ExitStatus AddUser(Session& session) {
  Json::Value request;
  request["name"] = session.options.name;
  request["role"] = session.options.role;
  request["password"] = ReadPassword(session.console, session.options.name);
  const Json::Value user = session.api.Post("/users", request);
  return PrintDone(session, user, Safe(TextOf(user, "name")) + " added");
}

ExitStatus ChangeUser(Session& session) {
  Json::Value request;
  if (!session.options.role.empty()) request["role"] = session.options.role;
  if (session.options.password) request["password"] = ReadPassword(session.console, session.options.name);
  const Json::Value user = session.api.Post(UserPath(session), request);
  return PrintDone(session, user, Safe(TextOf(user, "name")) + " changed");
}

ExitStatus RemoveUser(Session& session) {
  session.api.Delete(UserPath(session));
  return PrintDone(session, Json::Value(Json::objectValue), Safe(session.options.name) + " removed");
}

ExitStatus ListTokens(Session& session) {
  return PrintList(session, session.api.Get("/tokens"), "tokens",
                   Table({"ID", "NAME", "ROLE", "CREATED", "EXPIRES", "CREATED BY"}), "There are no tokens.",
                   [](Table& table, const Json::Value& token) {
                     table.Add({Safe(TextOf(token, "id")), Safe(TextOf(token, "name")),
                                Safe(TextOf(token, "role")), ShortTime(TextOf(token, "created")),
                                ShortTime(TextOf(token, "expires")), Safe(TextOf(token, "created_by"))});
                   });
}

ExitStatus AddToken(Session& session) {
  const Options& options = session.options;
  Json::Value request;
  request["name"] = options.name;
  request["role"] = options.role;
  if (options.days) request["days"] = Json::UInt64{*options.days};
  const Json::Value token = session.api.Post("/tokens", request);
  if (options.json) {
    PrintJson(session.console.out, token);
    return ExitStatus::kDone;
  }
  session.console.out << Safe(TextOf(token, "secret")) << std::endl;
  session.console.err << "This is the secret of token " << Safe(TextOf(token, "id")) << ", which expires at "
                      << ShortTime(TextOf(token, "expires"))
                      << ". It is never told again: keep it in a file of mode 0600.\n";
  return ExitStatus::kDone;
}

ExitStatus RemoveToken(Session& session) {
  session.api.Delete("/tokens/" + Escaped(session.options.name));
  return PrintDone(session, Json::Value(Json::objectValue), Safe(session.options.name) + " removed");
}

ExitStatus ListAudit(Session& session) {
  return PrintList(session, session.api.GetList("/audit", "records", session.options.limit), "records",
                   Table({"TIME", "WHO", "FROM", "ACTION", "OBJECT", "DETAIL"}), "Nobody did anything yet.",
                   [](Table& table, const Json::Value& record) {
                     table.Add({ShortTime(TextOf(record, "time")), Safe(TextOf(record, "who")),
                                Safe(TextOf(record, "from")), Safe(TextOf(record, "action")),
                                Safe(TextOf(record, "object")), Safe(TextOf(record, "detail"))});
                   });
}

ExitStatus ShowSettings(Session& session) {
  const Json::Value settings = session.api.Get("/settings");
  if (session.options.json) {
    PrintJson(session.console.out, settings);
    return ExitStatus::kDone;
  }
  std::string names;
  for (const std::string& name : TextsOf(settings, "names")) {
    names += (names.empty() ? "" : ", ") + Safe(name);
  }
  PrintFields(session.console.out, {{"Version", Safe(TextOf(settings, "version"))},
                                    {"Started", ShortTime(TextOf(settings, "started"))},
                                    {"Devices show", Safe(TextOf(settings, "trust"))},
                                    {"Names", names},
                                    {"Tickets", Safe(TextOf(settings, "grpc_url"))},
                                    {"Uploads", Safe(TextOf(settings, "http_url"))},
                                    {"API", Safe(OptionalTextOf(settings, "api_url"))},
                                    {"Free on disk", SizeText(NumberOf(settings, "disk_free_bytes"))}});
  session.console.out << "\n";
  Table table({"LIMIT", "USED", "OF", "TIMES MET"});
  for (const Json::Value& limit : ListOf(settings, "limits")) {
    const std::uint64_t met = NumberOf(limit, "met");
    table.Add({Safe(TextOf(limit, "name")),
               AmountText(limit, "used", "-"),
               AmountText(limit, "most", "no limit"),
               {std::to_string(met), met == 0 ? Cell::Colour::kNone : Cell::Colour::kBad}});
  }
  table.Print(session.console.out, session.console.has_colours);
  return ExitStatus::kDone;
}

ExitStatus ShowWhoAmI(Session& session) {
  const Json::Value service = session.api.Get("/service");
  if (session.options.json) {
    PrintJson(session.console.out, service);
    return ExitStatus::kDone;
  }
  PrintFields(session.console.out, {{"Name", Safe(TextOf(service["you"], "name"))},
                                    {"Role", Safe(TextOf(service["you"], "role"))},
                                    {"Service", "version " + Safe(TextOf(service, "version"))},
                                    {"Devices show", Safe(TextOf(service, "trust"))}});
  return ExitStatus::kDone;
}

}  // namespace TarvoOrvane::Supportctl
