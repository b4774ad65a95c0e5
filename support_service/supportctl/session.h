/// What the commands have in common.
#pragma once

#include <json/value.h>

#include <ostream>
#include <string>

#include "api_client.h"
#include "command_line.h"
#include "commands.h"
#include "console.h"
#include "display.h"

namespace TarvoOrvane::Supportctl {

/// One run of one command.
struct Session {
  const Options& options;
  const ApiClient& api;
  Console& console;
  const Patience& patience;
};

/// Each does one command, and prints what came of it.
/// @return kDone, or how it went otherwise, which was said.
/// @throws Failure when it can't be done.
ExitStatus ListDevices(Session& session);
ExitStatus EnrolDevice(Session& session);
ExitStatus ShowDevice(Session& session);
/// Also unblocks.
ExitStatus BlockDevice(Session& session);

ExitStatus SendTickets(Session& session);
ExitStatus ListTickets(Session& session);
ExitStatus ShowTicket(Session& session);
ExitStatus FetchTicket(Session& session);
ExitStatus FollowTickets(Session& session);
ExitStatus CancelTicket(Session& session);
ExitStatus DeleteArchive(Session& session);

ExitStatus ListUsers(Session& session);
ExitStatus AddUser(Session& session);
ExitStatus ChangeUser(Session& session);
ExitStatus RemoveUser(Session& session);
ExitStatus ListTokens(Session& session);
ExitStatus AddToken(Session& session);
ExitStatus RemoveToken(Session& session);
ExitStatus ListAudit(Session& session);
ExitStatus ShowSettings(Session& session);
ExitStatus MakeBackup(Session& session);
/// @return kFailed where there is a problem.
ExitStatus CheckService(Session& session);
ExitStatus ShowWhoAmI(Session& session);

/// Prints a list: as JSON where that is asked for, else as the table that `add` fills with the list's elements.
/// @param nothing  Said in place of an empty table.
template <typename AddRow>
ExitStatus PrintList(Session& session, const Json::Value& answer, const char* member, Table table,
                     const char* nothing, const AddRow& add) {
  if (session.options.json) {
    PrintJson(session.console.out, answer);
    return ExitStatus::kDone;
  }
  for (const Json::Value& element : ListOf(answer, member)) add(table, element);
  if (table.IsEmpty()) {
    session.console.err << nothing << "\n";
  } else {
    table.Print(session.console.out, session.console.has_colours);
  }
  if (answer.isMember("next")) session.console.err << "There are more: name a greater number with --limit.\n";
  return ExitStatus::kDone;
}

/// Prints the answer as JSON where that is asked for, or else a line that says what was done.
ExitStatus PrintDone(Session& session, const Json::Value& answer, const std::string& line);

}  // namespace TarvoOrvane::Supportctl
