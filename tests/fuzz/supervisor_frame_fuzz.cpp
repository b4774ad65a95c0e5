/// What the supervisor reads from the worker's pipe, up to the end of the transmission child that a ticket starts.
/// The input: records, see Pipe::WriteRecord(), each written at once and then met by one pass of the supervisor.
#include "daemon_fuzz.h"
#include "fuzz_support.h"
#include "json_util.h"

namespace {

using fuzz::Pipe;
using fuzz::Require;

constexpr pid_t kChild = 4711;

/// The transmission child's work, without the process.
void PlayChild(DebugDatTransmitterDaemon& child, const Json::Value& ticket) {
  const std::string token = ticket["token"].asString();
  fuzz::SetAnswers({R"({"success":true})", R"({"success":true})"});
  std::string path;
  Require(child.GenerateDebugDat(ticket["apps"], path), "a ticket that was taken can be collected for");
  static_cast<void>(child.TransmitDebugDat(token, ticket["apps"], path));
  static_cast<void>(child.UpdateResultToServer(token, TarvoOrvane::Transmitter::kSuccess));
}

/// One pass of the supervisor's loop. Every other fork fails.
/// @return Whether a ticket was read.
bool Pass(DebugDatTransmitterDaemon& supervisor) {
  Json::Value ticket(Json::arrayValue);
  if (!supervisor.ReceiveTicketFromWorker(ticket)) return false;
  if (supervisor.StartToTransmitDebugFile(ticket)) {
    Require(ticket["token"].isString() && ticket["apps"].isArray(), "only a whole ticket starts a child");
    PlayChild(supervisor, ticket);
  }
  return true;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& platform = fuzz::Platform();
  test_support::ScriptedPlatform::UseLogger(size % 2 == 1);
  bool fork_works = false;
  platform.fork = [&] { return (fork_works = !fork_works) ? kChild : -1; };
  platform.waitpid = [](pid_t pid, int*, int) { return pid; };

  Pipe tickets;
  Pipe completions;
  DebugDatTransmitterDaemon supervisor;
  supervisor.fromWorkerReadFd = tickets.TakeReadEnd();
  supervisor.toWorkerWriteFd = completions.TakeWriteEnd();
  bool frames_only = true;
  for (const std::string& record : fuzz::Records(fuzz::AsText(data, size))) {
    frames_only = frames_only && record.substr(0, 1) != "!";
    tickets.WriteRecord(record);
    const bool received = Pass(supervisor);
    Require(!received || !frames_only || record.size() < kPipeFrameSize || record[kPipeFrameSize - 1] == '\0',
            "a frame ends in a zero byte");
    supervisor.PollTransmissionChild();
    const std::string answer = completions.ReadAll();
    Require(received != answer.empty(), "a ticket has one Completion, and nothing else has one");
    if (received) Require(TarvoOrvane::Utils::ReportsSuccess(fuzz::MessageOf(answer)), "it says so");
  }
  return 0;
}
