/// A ticket's JSON text: the client library's parser, and what it accepts on its way through the worker to the
/// supervisor.
#include "daemon_fuzz.h"
#include "fuzz_support.h"
#include "json_util.h"
#include "ticket_parser.h"

namespace {

using fuzz::Require;
using TarvoOrvane::FastSupport::Ticket;
using TarvoOrvane::Utils::ToString;

Json::Value AsJson(const Ticket& ticket) {
  Json::Value value;
  value["token"] = ticket.token;
  value["apps"] = Json::Value(Json::arrayValue);
  for (const std::string& app : ticket.apps) value["apps"].append(app);
  return value;
}

/// Reads the text again, with the parser of the daemon.
void RequireTheSameElsewhere(const std::string& text, const Ticket& ticket) {
  const std::string mark = "\xef\xbb\xbf";  // The other parser does not know it.
  Json::Value value;
  Require(TarvoOrvane::Utils::FromString(text.rfind(mark, 0) == 0 ? text.substr(mark.size()) : text, value),
          "what is a ticket is JSON text");
  Json::Value kept;
  kept["token"] = value["token"];
  kept["apps"] = value["apps"];
  Require(ToString(kept) == ToString(AsJson(ticket)), "a ticket says what its text says");
}

void HandOver(const Ticket& ticket) {
  fuzz::Pipe tickets;
  DebugDatTransmitterDaemon worker;
  worker.fromWorkerWriteFd = tickets.TakeWriteEnd();
  const bool handed_over = worker.SendTicketToMain(ticket);
  const std::string text = ToString(AsJson(ticket));
  Require(handed_over == (text.size() < kPipeFrameSize), "a ticket that fits into a frame is handed over");
  if (handed_over) Require(ToString(fuzz::MessageOf(tickets.ReadAll())) == text, "it arrives as it was");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Platform();
  const std::string text(fuzz::AsText(data, size));
  Ticket ticket;
  ticket.token = "untouched";
  const std::string fault = TarvoOrvane::Internal::ParseTicket(text, ticket);
  if (!fault.empty()) {
    Require(ticket.token == "untouched" && ticket.apps.empty(), "a faulty text leaves the ticket alone");
    Require(fault.size() < 100 && fuzz::IsPrintableAscii(fault), "a fault is a line of our own words");
    return 0;
  }
  RequireTheSameElsewhere(text, ticket);
  HandOver(ticket);
  return 0;
}
