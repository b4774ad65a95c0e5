#include "commands.h"

#include <exception>
#include <ostream>

#include "failure.h"
#include "session.h"

namespace TarvoOrvane::Supportctl {
namespace {

Service ServiceOf(const Options& options) {
  Service service{options.data_folder, options.url, "", options.ca_file};
  if (!options.url.empty()) service.token = ReadToken(options.token_file);
  return service;
}

ExitStatus Dispatch(Session& session) {
  switch (session.options.command) {
    case Command::kDevices:
      return ListDevices(session);
    case Command::kEnrolDevice:
      return EnrolDevice(session);
    case Command::kShowDevice:
      return ShowDevice(session);
    case Command::kBlockDevice:
    case Command::kUnblockDevice:
      return BlockDevice(session);
    case Command::kSend:
      return SendTickets(session);
    case Command::kTickets:
      return ListTickets(session);
    case Command::kShowTicket:
      return ShowTicket(session);
    case Command::kFetch:
      return FetchTicket(session);
    case Command::kFollow:
      return FollowTickets(session);
    case Command::kCancel:
      return CancelTicket(session);
    case Command::kDeleteArchive:
      return DeleteArchive(session);
    case Command::kUsers:
      return ListUsers(session);
    case Command::kAddUser:
      return AddUser(session);
    case Command::kChangeUser:
      return ChangeUser(session);
    case Command::kRemoveUser:
      return RemoveUser(session);
    case Command::kTokens:
      return ListTokens(session);
    case Command::kAddToken:
      return AddToken(session);
    case Command::kRemoveToken:
      return RemoveToken(session);
    case Command::kAudit:
      return ListAudit(session);
    case Command::kSettings:
      return ShowSettings(session);
    case Command::kBackup:
      return MakeBackup(session);
    case Command::kCheck:
      return CheckService(session);
    case Command::kWhoAmI:
      return ShowWhoAmI(session);
  }
  return ExitStatus::kWrongCommandLine;
}

}  // namespace

ExitStatus PrintDone(Session& session, const Json::Value& answer, const std::string& line) {
  if (session.options.json) {
    PrintJson(session.console.out, answer);
  } else {
    session.console.out << line << "\n";
  }
  return ExitStatus::kDone;
}

int RunSupportctl(int argc, const char* const* argv, Console& console, const Patience& patience) {
  ExitStatus status = ExitStatus::kFailed;
  try {
    const ParsedLine line = ParseCommandLine(argc, argv);
    if (!line.run) {
      (line.exit_status == 0 ? console.out : console.err) << line.text;
      return line.exit_status;
    }
    const ApiClient api(ServiceOf(line.options));
    Session session{line.options, api, console, patience};
    status = Dispatch(session);
    if (!console.out.flush()) throw Failure(ExitStatus::kFailed, "the output can't be written");
  } catch (const Failure& failure) {
    console.err << "supportctl: " << failure.what() << "\n";
    status = failure.status();
  } catch (const std::exception& error) {
    console.err << "supportctl: " << error.what() << "\n";
  }
  return static_cast<int>(status);
}

}  // namespace TarvoOrvane::Supportctl
