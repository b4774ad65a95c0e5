#include "library_log.h"

#include <google/protobuf/stubs/logging.h>
#include <grpc/support/log.h>
#include <syslog.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

#include "allowance.h"
#include "hex_text.h"
#include "platform/support_service_client.h"

namespace TarvoOrvane::Internal {
namespace {

constexpr std::size_t kMaxForeignText = 512;

std::atomic<unsigned> g_ping_complaints{0};

std::mutex g_lines_mutex;  // guards the two below; nothing is written while it is held
const Allowance kLines(30, std::chrono::seconds(2));
Allowance g_lines = kLines;
unsigned long g_left_out = 0;

/// @param left_out  Set to how many lines were left out since the last one that was written.
/// @return Whether a line may be written now.
bool MayWrite(unsigned long& left_out) {
  const std::lock_guard<std::mutex> lock(g_lines_mutex);
  if (!g_lines.Take()) {
    ++g_left_out;
    return false;
  }
  left_out = std::exchange(g_left_out, 0);
  return true;
}

void Write(int level, const std::string& text) {
  const std::string line = "libtarvoorvane: " + text;
  // gRPC's threads log too, while the worker may be reconfiguring the logger.
  if (auto* logger = __atomic_load_n(&Utils::LoggerManager::instance_, __ATOMIC_ACQUIRE)) {
    logger->Log(level, line);
  } else {
    syslog(level, "%s", line.c_str());
  }
}

void WriteLeftOut(unsigned long count) {
  if (count > 0) Write(LOG_WARNING, std::to_string(count) + " log lines were left out: they came too fast");
}

std::string PrintableByte(char byte) {
  if (byte >= ' ' && byte <= '~') return {byte};
  if (byte == '\n') return "\\n";
  if (byte == '\r') return "\\r";
  if (byte == '\t') return "\\t";
  const auto value = static_cast<unsigned char>(byte);
  return "\\x" + HexText(&value, 1);
}

void LogForGrpc(gpr_log_func_args* args) {
  if (args->severity != GPR_LOG_SEVERITY_ERROR) return;
  if (std::strstr(args->message, "too_many_pings") != nullptr) ++g_ping_complaints;
  LogLine(LOG_ERR, "gRPC: " + MakePrintable(args->message, kMaxForeignText));
}

void LogForProtobuf(google::protobuf::LogLevel level, const char*, int, const std::string& message) {
  if (level < google::protobuf::LOGLEVEL_ERROR) return;
  LogLine(LOG_ERR, "protobuf: " + MakePrintable(message, kMaxForeignText));
}

}  // namespace

void LogLine(int level, const std::string& text) {
  unsigned long left_out = 0;
  if (!MayWrite(left_out)) return;
  WriteLeftOut(left_out);
  Write(level, text);
}

void LogHowManyWereLeftOut() {
  unsigned long left_out = 0;
  {
    const std::lock_guard<std::mutex> lock(g_lines_mutex);
    left_out = std::exchange(g_left_out, 0);
  }
  WriteLeftOut(left_out);
}

void ForgetLoggedLines() {
  const std::lock_guard<std::mutex> lock(g_lines_mutex);
  g_lines = kLines;
}

std::string MakePrintable(std::string_view text, std::size_t max_length) {
  std::string printable;
  for (const char byte : text) {
    const std::string shown = PrintableByte(byte);
    if (printable.size() + shown.size() > max_length) return printable + "...";
    printable += shown;
  }
  return printable;
}

void TakeOverForeignLogs() {
  gpr_set_log_verbosity(GPR_LOG_SEVERITY_ERROR);
  gpr_set_log_function(&LogForGrpc);
  google::protobuf::SetLogHandler(&LogForProtobuf);
}

unsigned PingComplaints() { return g_ping_complaints; }

}  // namespace TarvoOrvane::Internal
