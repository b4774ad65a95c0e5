#include "session.h"

namespace TarvoOrvane::Supportctl {
namespace {

std::string UserPath(const Session& session) { return "/users/" + Escaped(session.options.name); }

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
