/// What the worker reads from the supervisor's pipe, and what it makes of a ticket. The input: a record with the
/// ticket's token and the names of its applications, a line each; then records, see Pipe::WriteRecord(), each written
/// at once before the worker meets that ticket again.
#include <sstream>

#include "daemon_fuzz.h"
#include "fuzz_support.h"
#include "json_util.h"

namespace {

using fuzz::Pipe;
using fuzz::Require;
using TarvoOrvane::FastSupport::CallStatus;
using TarvoOrvane::FastSupport::FastSupportClient;
using TarvoOrvane::FastSupport::ReceiveResult;
using TarvoOrvane::FastSupport::Ticket;

Ticket TicketOf(const std::string& record) {
  Ticket ticket;
  std::istringstream lines(record);
  std::getline(lines, ticket.token);
  for (std::string app; std::getline(lines, app);) ticket.apps.push_back(app);
  return ticket;
}

/// The ticket as it is to arrive: what is no UTF-8 becomes U+FFFD on the way.
std::string TextOf(const Ticket& ticket) {
  Json::Value value;
  value["token"] = ticket.token;
  value["apps"] = Json::Value(Json::arrayValue);
  for (const std::string& app : ticket.apps) value["apps"].append(app);
  return TarvoOrvane::Utils::ToString(value);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& platform = fuzz::Platform();
  test_support::ScriptedPlatform::UseLogger(size % 2 == 1);
  std::vector<std::string> records = fuzz::Records(fuzz::AsText(data, size));
  const Ticket ticket = TicketOf(records.front());
  records.front() = "!";  // The worker needs no Completion for its first ticket.

  std::vector<FastSupportClient::ClientStatus> sent;
  platform.receive = [&] { return ReceiveResult{ticket, {}}; };
  platform.send = [&](FastSupportClient::ClientStatus status) {
    sent.push_back(status);
    return CallStatus();
  };
  Pipe tickets;
  Pipe completions;
  DebugDatTransmitterDaemon worker;
  worker.toWorkerReadFd = completions.TakeReadEnd();
  worker.fromWorkerWriteFd = tickets.TakeWriteEnd();
  FastSupportClient client("notify.example.com:443");
  std::uint32_t retry_base = 1;
  bool waiting_for_main = false;
  std::string received;
  for (const std::string& record : records) {
    completions.WriteRecord(record);
    received += record;
    const bool needs_completion = waiting_for_main;
    sent.clear();
    worker.ServeNextTicket(client, retry_base, waiting_for_main);
    Require(sent.size() == 1, "a ticket has exactly one answer");
    const std::string frame = tickets.ReadAll();
    Require(!needs_completion || sent[0] == FastSupportClient::kRejected ||
                received.find("true") != std::string::npos,
            "a ticket is handed over only once the former one is completed");
    Require((sent[0] == FastSupportClient::kRejected) == frame.empty(), "an accepted ticket is handed over");
    if (!frame.empty()) {
      Require(TarvoOrvane::Utils::ToString(fuzz::MessageOf(frame)) == TextOf(ticket), "it arrives as it was");
    }
  }
  return 0;
}
