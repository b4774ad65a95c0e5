// A process that stands for the worker: it links the real library and executes one command per line of
// standard input, so that a test can time signals to the step. It prints one line per outcome.
#include <curl/curl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "platform/support_service_client.h"

namespace {

using TarvoOrvane::FastSupport::CallStatus;
using TarvoOrvane::FastSupport::FastSupportClient;

std::unique_ptr<FastSupportClient> g_client;
std::atomic<bool> g_stop{false};

void Print(const std::string& line) { std::cout << line << std::endl; }

// Everything the handler says goes out in one write; the test reads lines.
void OnSignal(int number) {
  if (number == SIGTERM) g_stop.exchange(true);
  const char* line = number == SIGTERM ? "handler SIGTERM\n" : "handler SIGHUP\n";
  static_cast<void>(!write(STDOUT_FILENO, line, strlen(line)));
}

void PrintStatus(const std::string& what, const CallStatus& status) {
  Print(what + " failed " + std::to_string(status.error) + " " + status.errorMsg);
}

bool Receive() {
  const auto result = g_client->Receive();
  if (result.request) {
    Print("ticket " + result.request->token);
  } else {
    PrintStatus("receive", result.status);
  }
  return static_cast<bool>(result.request);
}

void Send(int status) {
  const auto result = g_client->Send(static_cast<FastSupportClient::ClientStatus>(status));
  if (result.hasFail) {
    PrintStatus("send", result);
  } else {
    Print("sent");
  }
}

long CountEntries(const char* folder) {
  long count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

// The daemon's way: look at the flag, receive, pause after a failure.
void Loop() {
  while (!g_stop) {
    if (Receive()) {
      Send(FastSupportClient::kAccepted);
      continue;
    }
    Print("sleeping");
    sleep(600);
  }
  Print("stopped");
  _exit(0);
}

void Mask(int how) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(how, &set, nullptr);
}

void PrintEnvironment() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  for (char** entry = environ; *entry != nullptr; ++entry) Print(*entry);
  Print("end of environment");
}

bool Execute(const std::string& command, std::istringstream& arguments) {
  int number = 0;
  if (command == "handlers") {
    static_cast<void>(signal(SIGTERM, &OnSignal));
    static_cast<void>(signal(SIGHUP, &OnSignal));
  } else if (command == "ignore") {
    static_cast<void>(signal(SIGTERM, SIG_IGN));
  } else if (command == "client") {
    std::string address;
    arguments >> address;
    g_client = std::make_unique<FastSupportClient>(address);
    Print("client ready");
  } else if (command == "receive") {
    Receive();
  } else if (command == "send") {
    arguments >> number;
    Send(number);
  } else if (command == "raise-and-receive") {
    static_cast<void>(raise(SIGTERM));
    Receive();
  } else if (command == "raise") {
    static_cast<void>(raise(SIGTERM));
  } else if (command == "block") {
    Mask(SIG_BLOCK);
  } else if (command == "unblock") {
    Mask(SIG_UNBLOCK);
  } else if (command == "sleep") {
    arguments >> number;
    sleep(static_cast<unsigned>(number));
    Print("slept");
  } else if (command == "destroy") {
    g_client.reset();
    Print("destroyed");
  } else if (command == "former-handler") {
    Print(signal(SIGTERM, SIG_DFL) == &OnSignal ? "own handler" : "another handler");
  } else if (command == "count") {
    Print("threads " + std::to_string(CountEntries("/proc/self/task")) + " descriptors " +
          std::to_string(CountEntries("/proc/self/fd")));
  } else if (command == "environment") {
    PrintEnvironment();
  } else if (command == "loop") {
    Loop();
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main() {
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream arguments(line);
    std::string command;
    arguments >> command;
    if (!Execute(command, arguments)) return 2;
  }
  _exit(0);
}
