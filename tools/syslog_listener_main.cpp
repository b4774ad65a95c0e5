/// syslog_listener: prints what is sent to /dev/log, one line each: the sender's role and process id, the
/// level and the text. The first line, "ready", says that the socket is bound. Ends with SIGTERM or SIGINT.

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "syslog_listener.h"

namespace {

/// The daemon quotes whole tickets; what is shown to people and kept in files does without the credential.
std::string WithoutTokens(const std::string& text) {
  static const std::regex kToken(R"re(("token"\s*:\s*")[^"]*)re");
  return std::regex_replace(text, kToken, "$1***");
}

std::string OnOneLine(std::string text) {
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  for (char& c : text) {
    c = c == '\n' ? ' ' : c;
  }
  return text;
}

void Print(const SyslogLine& line) {
  std::cout << SyslogRoleName(line.role) << ' ' << line.pid << ' ' << line.level << ' '
            << OnOneLine(WithoutTokens(line.text)) << std::endl;
}

}  // namespace

int main() {
  // Blocked in every thread and taken up below.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  try {
    const SyslogListener listener;
    std::cout << "ready" << std::endl;
    std::size_t printed = 0;
    const timespec no_wait = {0, 0};
    while (sigtimedwait(&stop, nullptr, &no_wait) < 0) {
      static_cast<void>(listener.WaitUntil([&](const auto& lines) { return lines.size() > printed; },
                                           std::chrono::milliseconds(100)));
      const std::vector<SyslogLine> lines = listener.Lines();
      for (; printed < lines.size(); ++printed) {
        Print(lines[printed]);
      }
    }
  } catch (const std::exception& error) {
    std::cerr << "syslog_listener: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
