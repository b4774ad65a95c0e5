/// How supportctl shows what the service told it: texts, times and sizes, tables, and words for states.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TarvoOrvane::Supportctl {

/// The text fit for a terminal. Printable ASCII stays as it is, for the service has escaped what devices say already.
/// So do other characters that the locale can print. Every other byte becomes \xNN.
std::string Safe(std::string_view text);

/// How many columns of a terminal a text from Safe() takes.
std::size_t WidthOf(const std::string& text);

/// Safe() texts with commas between them; "-" for none.
std::string Joined(const std::vector<std::string>& texts);

/// An RFC 3339 time in the local zone: "2026-11-23 14:05". What is none stays as it is, fit for a terminal.
std::string ShortTime(const std::string& time);
/// The same to the second: "2026-11-23 14:05:07".
std::string TimeToTheSecond(const std::string& time);
/// The same with all that is known: "2026-11-23 14:05:07.123 +0100".
std::string ExactTime(const std::string& time);

/// "214 KiB", cut to whole ones.
std::string SizeText(std::uint64_t bytes);

/// The text as one word of a shell's command line.
std::string ShellWord(const std::string& text);

/// A cell of a table. It has a colour only on a terminal.
struct Cell {
  enum class Colour { kNone, kGood, kBad };

  Cell(std::string cell_text, Colour cell_colour = Colour::kNone)
      : text(std::move(cell_text)), colour(cell_colour) {}

  std::string text;  ///< From Safe(), or our own.
  Colour colour;
};

/// Lines with columns below one another. Nothing is cut off.
class Table {
 public:
  explicit Table(std::vector<std::string> heads) : heads_(std::move(heads)) {}

  /// @param row  As many cells as there are heads.
  void Add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  [[nodiscard]] bool IsEmpty() const { return rows_.empty(); }
  void Print(std::ostream& out, bool has_colours) const;

 private:
  std::vector<std::string> heads_;
  std::vector<std::vector<Cell>> rows_;
};

/// Prints names and texts as two columns. Those without a text are left out.
void PrintFields(std::ostream& out, const std::vector<std::pair<std::string, std::string>>& fields);

/// A ticket's state, with what the device reported, in colour.
Cell StateCell(const Json::Value& ticket);

/// What people can do now about a ticket: sentences for its state.
std::string NextStep(const Json::Value& ticket);

/// Prints a value as a JSON document, in ASCII.
void PrintJson(std::ostream& out, const Json::Value& value);

}  // namespace TarvoOrvane::Supportctl
