#include "console.h"

#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "display.h"
#include "failure.h"

namespace TarvoOrvane::Supportctl {
namespace {

volatile std::sig_atomic_t g_signal = 0;

void NoteSignal(int signal_number) { g_signal = signal_number; }

/// The terminal without echo, for as long as the object lives. A signal that would end the process meanwhile interrupts
/// what is read, and ends the process once the terminal is as it was.
class Hidden {
 public:
  Hidden() {
    struct sigaction note {};
    note.sa_handler = NoteSignal;  // and no SA_RESTART
    g_signal = 0;
    for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &note, &former_[i]);
    tcgetattr(STDIN_FILENO, &echoing_);
    termios silent = echoing_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_lflag |= ECHONL;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  ~Hidden() {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &echoing_);
    for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &former_[i], nullptr);
    if (g_signal != 0) static_cast<void>(raise(g_signal));
  }
  Hidden(const Hidden&) = delete;
  Hidden& operator=(const Hidden&) = delete;

  /// @return Without the line's end; what came before a signal or the end of input.
  std::string ReadLine() {
    std::string line;
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) == 1 && byte != '\n') line += byte;
    return line;
  }

 private:
  static constexpr std::array<int, 4> kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

  termios echoing_{};
  std::array<struct sigaction, kSignals.size()> former_{};
};

std::string AskTerminal(Console& console, const std::string& name) {
  Hidden hidden;
  console.err << "Password for " << Safe(name) << ": " << std::flush;
  std::string password = hidden.ReadLine();
  if (g_signal != 0 || password.empty()) return "";
  console.err << "The same again: " << std::flush;
  if (hidden.ReadLine() != password) {
    throw Failure(ExitStatus::kWrongCommandLine, "the two passwords differ: nothing was changed");
  }
  return password;
}

}  // namespace

Console StandardConsole() {
  Console console{std::cin, std::cout, std::cerr};
  console.in_is_terminal = isatty(STDIN_FILENO) == 1;
  console.out_is_terminal = isatty(STDOUT_FILENO) == 1;
  console.err_is_terminal = isatty(STDERR_FILENO) == 1;
  const char* no_colour = std::getenv("NO_COLOR");  // no other thread is there yet
  console.has_colours = console.out_is_terminal && (no_colour == nullptr || *no_colour == '\0');
  return console;
}

std::string ReadPassword(Console& console, const std::string& name) {
  std::string password;
  if (console.in_is_terminal) {
    password = AskTerminal(console, name);
  } else {
    std::getline(console.in, password);
  }
  if (password.empty()) {
    throw Failure(ExitStatus::kWrongCommandLine,
                  "there is no password: type one on the terminal, or give it as one line of standard input");
  }
  return password;
}

void ProgressLine::Show(const std::string& text) {
  if (!console_.err_is_terminal || text == shown_) return;
  console_.err << "\r\033[K" << text << std::flush;
  shown_ = text;
}

}  // namespace TarvoOrvane::Supportctl
