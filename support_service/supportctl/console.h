/// Where supportctl reads and prints.
#pragma once

#include <iosfwd>
#include <string>

namespace TarvoOrvane::Supportctl {

/// The streams, and what is at their other ends.
struct Console {
  std::istream& in;
  std::ostream& out;  ///< Results alone.
  std::ostream& err;  ///< For people: what goes on, and what went wrong.
  bool in_is_terminal = false;
  bool out_is_terminal = false;
  bool err_is_terminal = false;
  bool has_colours = false;  ///< Whether `out` shows them.
};

/// The process's own. Colours are for a terminal, unless NO_COLOR is set.
Console StandardConsole();

/// Reads a password: from the terminal, twice and without echo, or a line of the input.
/// @throws Failure when there is none, or the two differ. The service judges the rest.
std::string ReadPassword(Console& console, const std::string& name);

/// A line on the terminal that is written again and again. Elsewhere it prints nothing.
class ProgressLine {
 public:
  explicit ProgressLine(Console& console) : console_(console) {}
  /// Leaves no trace of it.
  ~ProgressLine() { Show(""); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void Show(const std::string& text);

 private:
  Console& console_;
  std::string shown_;
};

}  // namespace TarvoOrvane::Supportctl
