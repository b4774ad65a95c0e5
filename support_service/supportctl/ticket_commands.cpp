#include <algorithm>

#include "archive_fetcher.h"
#include "session.h"
#include "text_forms.h"
#include "ticket_follower.h"

namespace TarvoOrvane::Supportctl {
namespace {

using Clock = TicketFollower::Clock;

std::string TicketPath(const std::string& id) { return "/tickets/" + Escaped(id); }

std::string IdOf(const Json::Value& ticket) { return TextOf(ticket, "id"); }

bool IsSuccess(const Json::Value& ticket) {
  return TextOf(ticket, "state") == "reported" && OptionalTextOf(ticket, "outcome") == "success";
}

/// "accepted", with the event's text where it has one.
std::string EventText(const Json::Value& event) {
  const std::string text = TextOf(event, "text");
  return Safe(TextOf(event, "kind")) + (text.empty() ? "" : ": " + Safe(text));
}

/// A TicketEvent as a line.
std::string EventLine(const Json::Value& ticket_event) {
  const Json::Value& event = ticket_event["event"];
  const Json::Value& ticket = ticket_event["ticket"];
  return TimeToTheSecond(TextOf(event, "time")) + "  " + Safe(IdOf(ticket)) + "  " +
         Safe(TextOf(ticket, "device")) + "  " + EventText(event);
}

/// @throws Failure when there is none, or more than one.
std::string OnlyConnectedDevice(const ApiClient& api) {
  const Json::Value answer = api.GetList("/devices?connected=true", "devices", 2);
  const Json::Value& devices = ListOf(answer, "devices");
  if (devices.size() == 1) return TextOf(devices[0], "serial_number");
  throw Failure(ExitStatus::kFailed,
                devices.empty()
                    ? "no device is connected: name the one that the ticket is for"
                    : "several devices are connected: name those that the ticket is for, of the ones that "
                      "supportctl devices --connected shows");
}

/// Fetches an archive, showing how far that is.
std::filesystem::path FetchWithProgress(Session& session, const ArchiveFacts& archive,
                                        const std::filesystem::path& folder) {
  ProgressLine progress(session.console);
  return FetchArchive(session.api, archive, folder, session.patience.archives, [&](std::uint64_t bytes) {
    const std::uint64_t share = archive.size_bytes == 0 ? 100 : bytes * 100 / archive.size_bytes;
    progress.Show(archive.FileName() + "  " + std::to_string(share) + " % of " +
                  SizeText(archive.size_bytes));
  });
}

/// The ticket's archives whose files are there.
std::vector<Json::Value> ArchivesThere(const Json::Value& ticket) {
  std::vector<Json::Value> archives;
  for (const Json::Value& archive : ListOf(ticket, "archives")) {
    if (!archive.isMember("deleted")) archives.push_back(archive);
  }
  return archives;
}

/// One run of the command send.
class Sending {
 public:
  explicit Sending(Session& session) : session_(session) {}

  ExitStatus Run() {
    try {
      SendAll();
      if (session_.options.wait && !tickets_.empty()) Wait();
      if (session_.options.fetch) FetchAll();
    } catch (const Failure&) {
      if (!tickets_.empty()) PrintDocument();  // what was sent has to be known
      throw;
    }
    PrintDocument();
    if (!session_.options.wait || status_ == ExitStatus::kTimeOver) return status_;
    const bool all_succeeded = std::all_of(tickets_.begin(), tickets_.end(), IsSuccess);
    return all_succeeded ? status_ : ExitStatus::kFailed;
  }

 private:
  void SendAll() {
    const Options& options = session_.options;
    std::vector<std::string> devices = options.devices;
    if (devices.empty()) devices.push_back(OnlyConnectedDevice(session_.api));
    for (const std::string& device : devices) {
      try {
        tickets_.push_back(SendTo(device));
      } catch (const Refusal& refusal) {
        // It may hold of this device alone.
        if (refusal.status() == ExitStatus::kNotAllowed || devices.size() == 1) throw;
        Complain(Safe(device) + ": " + refusal.what());
        continue;
      }
      if (!options.json) session_.console.out << Safe(IdOf(tickets_.back())) << std::endl;
    }
  }

  /// @param device  A serial number, or the beginning of one.
  [[nodiscard]] Json::Value SendTo(const std::string& device) const {
    constexpr long kNotFound = 404;
    try {
      return session_.api.Post("/tickets", RequestFor(device));
    } catch (const Refusal& refusal) {
      if (refusal.http_status() != kNotFound) throw;
    }
    const Json::Value meant = session_.api.Get("/devices/" + Escaped(device));
    return session_.api.Post("/tickets", RequestFor(TextOf(meant, "serial_number")));
  }

  [[nodiscard]] Json::Value RequestFor(const std::string& device) const {
    const Options& options = session_.options;
    Json::Value request;
    request["device"] = device;
    request["apps"] = Json::Value(Json::arrayValue);
    for (const std::string& app : options.apps) request["apps"].append(app);
    if (!options.note.empty()) request["note"] = options.note;
    if (options.lifetime_hours) request["lifetime_hours"] = Json::UInt64{*options.lifetime_hours};
    return request;
  }

  void Wait() {
    std::optional<Clock::time_point> deadline;
    if (session_.options.wait_limit) deadline = Clock::now() + *session_.options.wait_limit;
    TicketFollower follower(session_.api, session_.patience.events,
                            [this](const std::string& text) { Note(text); });
    for (const Json::Value& ticket : tickets_) follower.Follow(IdOf(ticket));
    const bool is_over = follower.Run(deadline, [this](const Json::Value& event) {
      Json::Value& ticket = TicketOf(event);
      ticket = event["ticket"];
      if (session_.console.err_is_terminal) Note(EventLine(event));
    });
    for (Json::Value& ticket : tickets_) {
      if (is_over && IsSet(ticket, "open")) ticket = session_.api.Get(TicketPath(IdOf(ticket)));
      TellOutcome(ticket, is_over);
    }
    if (!is_over) status_ = ExitStatus::kTimeOver;
  }

  Json::Value& TicketOf(const Json::Value& event) {
    const std::string id = IdOf(event["ticket"]);
    const auto ticket = std::find_if(tickets_.begin(), tickets_.end(),
                                     [&](const Json::Value& sent) { return IdOf(sent) == id; });
    if (ticket == tickets_.end()) {
      throw Failure(ExitStatus::kFailed,
                    "the service tells of ticket " + Safe(id) + ", which nobody asked for");
    }
    return *ticket;
  }

  void TellOutcome(const Json::Value& ticket, bool is_over) {
    const std::string name = "ticket " + Safe(IdOf(ticket)) + " of " + Safe(TextOf(ticket, "device"));
    if (!is_over && IsSet(ticket, "open")) {
      Note(name + ": no report within " + std::to_string(session_.options.wait_limit->count()) +
           " s; it is still " + Safe(TextOf(ticket, "state")));
    } else if (!IsSuccess(ticket)) {
      const std::string report = OptionalTextOf(ticket, "report");
      Complain(name + ": " + Safe(TextOf(ticket, "state")) + ": " +
               Safe(report.empty() ? TextOf(ticket, "last_text") : report) + "\n" + NextStep(ticket));
    }
  }

  void FetchAll() {
    for (const Json::Value& ticket : tickets_) {
      for (const Json::Value& archive : ArchivesThere(ticket)) {
        try {
          Note(FetchWithProgress(session_, ReadArchiveFacts(ticket, archive), session_.options.folder)
                   .string());
        } catch (const Failure& failure) {
          if (failure.status() != ExitStatus::kFailed) throw;
          Complain(failure.what());
        }
      }
    }
  }

  void PrintDocument() {
    if (!session_.options.json) return;
    Json::Value document;
    document["tickets"] = Json::Value(Json::arrayValue);
    for (const Json::Value& ticket : tickets_) document["tickets"].append(ticket);
    PrintJson(session_.console.out, document);
  }

  void Note(const std::string& text) { session_.console.err << text << std::endl; }
  void Complain(const std::string& text) {
    Note("supportctl: " + text);
    if (status_ == ExitStatus::kDone) status_ = ExitStatus::kFailed;
  }

  Session& session_;
  std::vector<Json::Value> tickets_;  ///< As they were last heard of.
  ExitStatus status_ = ExitStatus::kDone;
};

void PrintArchives(std::ostream& out, const Json::Value& ticket, bool has_colours) {
  Table table({"VERSION", "BYTES", "RECEIVED", "FROM", "SHA-256", "DELETED"});
  for (const Json::Value& archive : ListOf(ticket, "archives")) {
    const Json::Value& deleted = archive["deleted"];
    const std::string deletion =
        deleted.isNull() ? "" : ExactTime(TextOf(deleted, "time")) + ": " + Safe(TextOf(deleted, "cause"));
    table.Add({std::to_string(NumberOf(archive, "version")), std::to_string(NumberOf(archive, "size_bytes")),
               ExactTime(TextOf(archive, "received")), Safe(TextOf(archive, "serial_number")),
               Safe(TextOf(archive, "sha256")), deletion});
  }
  if (table.IsEmpty()) return;
  out << "\n";
  table.Print(out, has_colours);
}

void PrintEvents(std::ostream& out, const Json::Value& events, bool has_colours) {
  Table table({"TIME", "EVENT"});
  for (const Json::Value& event : events) table.Add({ExactTime(TextOf(event, "time")), EventText(event)});
  out << "\n";
  table.Print(out, has_colours);
}

void PrintTicket(Console& console, const Json::Value& ticket, const Json::Value& events) {
  std::ostream& out = console.out;
  PrintFields(out, {{"Ticket", Safe(IdOf(ticket))},
                    {"Device", Safe(TextOf(ticket, "device"))},
                    {"Applications", Joined(TextsOf(ticket, "apps"))},
                    {"Note", Safe(TextOf(ticket, "note"))},
                    {"Requested by", Safe(TextOf(ticket, "requested_by"))},
                    {"Created", ExactTime(TextOf(ticket, "created"))},
                    {"Deadline", ExactTime(TextOf(ticket, "deadline"))},
                    {"State", StateCell(ticket).text},
                    {"Since", ExactTime(TextOf(ticket, "since"))},
                    {"Report", Safe(OptionalTextOf(ticket, "report"))}});
  PrintArchives(out, ticket, console.has_colours);
  PrintEvents(out, events, console.has_colours);
  const std::string next = NextStep(ticket);
  if (!next.empty()) out << "\n" << next << "\n";
}

/// The archives that the command line means.
/// @throws Failure when there are none.
std::vector<Json::Value> WantedArchives(const Options& options, const Json::Value& ticket) {
  std::vector<Json::Value> archives = ArchivesThere(ticket);
  if (options.version) {
    archives.erase(std::remove_if(archives.begin(), archives.end(),
                                  [&](const Json::Value& archive) {
                                    return NumberOf(archive, "version") != *options.version;
                                  }),
                   archives.end());
  }
  if (archives.empty()) {
    throw Failure(ExitStatus::kFailed, "ticket " + Safe(IdOf(ticket)) + " has no " +
                                           (options.version ? "archive of this version" : "archive") +
                                           ": supportctl show " + Safe(IdOf(ticket)) + " tells of what came");
  }
  return archives;
}

}  // namespace

ExitStatus SendTickets(Session& session) { return Sending(session).Run(); }

ExitStatus ListTickets(Session& session) {
  std::string query;
  if (!session.options.device_filter.empty()) query += "&device=" + Escaped(session.options.device_filter);
  if (!session.options.state.empty()) query += "&state=" + Escaped(session.options.state);
  const Json::Value answer = session.api.GetList("/tickets" + (query.empty() ? "" : "?" + query.substr(1)),
                                                 "tickets", session.options.limit);
  return PrintList(session, answer, "tickets",
                   Table({"TICKET", "DEVICE", "CREATED", "STATE", "SINCE", "BY", "APPLICATIONS", "NOTE"}),
                   "There are no such tickets.", [](Table& table, const Json::Value& ticket) {
                     table.Add({Safe(IdOf(ticket)), Safe(TextOf(ticket, "device")),
                                ShortTime(TextOf(ticket, "created")), StateCell(ticket),
                                ShortTime(TextOf(ticket, "since")), Safe(TextOf(ticket, "requested_by")),
                                Joined(TextsOf(ticket, "apps")), Safe(TextOf(ticket, "note"))});
                   });
}

ExitStatus ShowTicket(Session& session) {
  const Json::Value ticket = session.api.Get(TicketPath(session.options.ticket));
  const Json::Value events =
      session.api.GetList(TicketPath(IdOf(ticket)) + "/events", "events", UINT64_MAX)["events"];
  if (session.options.json) {
    Json::Value document;
    document["ticket"] = ticket;
    document["events"] = events;
    PrintJson(session.console.out, document);
  } else {
    PrintTicket(session.console, ticket, events);
  }
  return ExitStatus::kDone;
}

ExitStatus FetchTicket(Session& session) {
  const Json::Value ticket = session.api.Get(TicketPath(session.options.ticket));
  const std::filesystem::path folder = session.options.folder.empty() ? "." : session.options.folder;
  Json::Value document;
  for (Json::Value archive : WantedArchives(session.options, ticket)) {
    const auto file =
        FetchWithProgress(session, ReadArchiveFacts(ticket, archive), folder).lexically_normal();
    if (!session.options.json) session.console.out << file.string() << std::endl;
    archive["file"] = file.string();
    document["archives"].append(archive);
  }
  if (session.options.json) PrintJson(session.console.out, document);
  return ExitStatus::kDone;
}

ExitStatus FollowTickets(Session& session) {
  Console& console = session.console;
  TicketFollower follower(session.api, session.patience.events,
                          [&](const std::string& text) { console.err << text << std::endl; });
  if (session.options.ticket.empty()) {
    follower.FollowAll();
  } else {
    follower.Follow(
        IdOf(session.api.Get(TicketPath(session.options.ticket))));  // the stream takes whole ids alone
  }
  // Each at once: who reads them through a pipe sees them when they come.
  static_cast<void>(follower.Run(std::nullopt, [&](const Json::Value& event) {
    console.out << (session.options.json ? SupportService::CompactJson(event) : EventLine(event))
                << std::endl;
    if (!console.out) throw Failure(ExitStatus::kFailed, "the events can't be written any more");
  }));
  return ExitStatus::kDone;
}

ExitStatus CancelTicket(Session& session) {
  const Json::Value ticket = session.api.Post(TicketPath(session.options.ticket) + "/cancel");
  return PrintDone(session, ticket, Safe(IdOf(ticket)) + " cancelled");
}

ExitStatus DeleteArchive(Session& session) {
  const std::string version = std::to_string(session.options.version.value());
  session.api.Delete(TicketPath(session.options.ticket) + "/archives/" + version);
  return PrintDone(session, Json::Value(Json::objectValue),
                   "archive " + version + " of " + session.options.ticket + " deleted");
}

}  // namespace TarvoOrvane::Supportctl
