// A process that stands for the worker: receives tickets as the daemon does and answers them at once.
//
// hostile_worker URL TLS_FOLDER CPU_MS     prints a line for each failed Receive(), and the library's own lines; CPU_MS
//                                          is the processor time that a stream may take at once
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include "ticket_client.h"

namespace {

using TarvoOrvane::FastSupport::FastSupportClient;
using TarvoOrvane::Internal::TicketClient;
using TarvoOrvane::Internal::TicketClientOptions;

std::atomic<bool> g_stop{false};

/// Writes the library's lines to standard error.
class PrintingLogger final : public TarvoOrvane::Utils::LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}
  void Log(int /*level*/, const std::string& text) override { std::cerr << text + "\n" << std::flush; }
};

void OnSignal(int) { g_stop = true; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  static_cast<void>(signal(SIGTERM, &OnSignal));
  constexpr timespec kPause{0, 100'000'000};  // the daemon's shortest is two seconds
  PrintingLogger logger;
  TarvoOrvane::Utils::LoggerManager::instance_ = &logger;
  TicketClientOptions options;
  options.tls_folder = argv[2];
  options.cost.cpu = std::chrono::milliseconds(std::strtol(argv[3], nullptr, 10));
  // A stream that does not end is waited for, and not left behind: the test, which waits less long, then fails.
  options.limits.close = std::chrono::hours(1);
  TicketClient client(argv[1], options);
  while (!g_stop) {
    const auto result = client.Receive();
    if (result.request) {
      static_cast<void>(client.Send(FastSupportClient::kAccepted));
      continue;
    }
    std::cout << "failed " << result.status.error << " " << result.status.errorMsg << std::endl;
    if (!g_stop) static_cast<void>(nanosleep(&kPause, nullptr));
  }
  _exit(0);
}
