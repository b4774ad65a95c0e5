// A process that calls Receive() once on a client whose streams settle at once and are reopened after a pause
// that takes for ever, so that a test can send signals during it. It prints the library's log and the outcome.
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <iostream>

#include "ticket_client.h"

namespace {

using TarvoOrvane::Internal::TicketClient;
using TarvoOrvane::Internal::TicketClientOptions;
using TarvoOrvane::Utils::LoggerManager;

class PrintingLogger final : public LoggerManager {
 public:
  void Reserved1() override {}
  void Reserved2() override {}
  void Log(int /*level*/, const std::string& text) override { std::cout << "log " << text << std::endl; }
};

void OnSignal(int number) {
  const char* line = number == SIGTERM ? "handler SIGTERM\n" : "handler SIGHUP\n";
  static_cast<void>(!write(STDOUT_FILENO, line, strlen(line)));
}

}  // namespace

int main() {
  PrintingLogger logger;
  LoggerManager::instance_ = &logger;
  static_cast<void>(signal(SIGTERM, &OnSignal));
  static_cast<void>(signal(SIGHUP, &OnSignal));
  std::string address;
  std::getline(std::cin, address);
  TicketClientOptions options;
  options.settled = std::chrono::milliseconds(1);
  options.longest_pause = std::chrono::hours(10'000);
  TicketClient client(address, options);
  const auto result = client.Receive();
  std::cout << "receive " << result.status.error << " " << result.status.errorMsg << std::endl;
  _exit(0);
}
