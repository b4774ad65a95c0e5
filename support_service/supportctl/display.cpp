#include "display.h"

#include <json/writer.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <cwchar>
#include <ostream>

#include "api_client.h"
#include "text_forms.h"

namespace TarvoOrvane::Supportctl {
namespace {

constexpr char kBold[] = "\033[1m";
constexpr char kGreen[] = "\033[32m";
constexpr char kRed[] = "\033[31m";
constexpr char kPlain[] = "\033[0m";
constexpr std::size_t kGap = 2;  // columns between two of a table's

/// The character that the text begins with, in the locale's encoding.
struct Character {
  std::size_t bytes = 1;
  int columns = -1;  ///< Less than 1 for what can't be shown by itself.
};

Character FirstOf(std::string_view text) {
  std::mbstate_t state{};
  wchar_t wide = 0;
  const std::size_t bytes = std::mbrtowc(&wide, text.data(), text.size(), &state);
  constexpr std::size_t kLongest =
      16;  // of any encoding's characters; more are the function's signs of failure
  if (bytes == 0 || bytes > kLongest) return {};
  return {bytes, wcwidth(wide)};
}

struct LocalTime {
  std::tm parts{};
  std::string milliseconds;
};

/// @return Whether `text` is a time in UTC as the service writes it.
bool ReadTime(const std::string& text, LocalTime& time) {
  std::tm utc{};
  const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
  if (rest == nullptr) return false;
  const std::string fraction(*rest == '.' ? rest + 1 : rest);
  if (fraction.empty() || fraction.back() != 'Z') return false;
  const std::time_t seconds = timegm(&utc);
  time.milliseconds = fraction.substr(0, fraction.size() - 1);
  if (time.milliseconds.find_first_not_of("0123456789") != std::string::npos) return false;
  return localtime_r(&seconds, &time.parts) != nullptr;
}

std::string Formatted(const std::string& text, const char* format, bool is_exact) {
  LocalTime time;
  if (!ReadTime(text, time)) return Safe(text);
  const auto part = [&](const char* part_format) {
    std::array<char, 64> result{};
    return std::string(result.data(), std::strftime(result.data(), result.size(), part_format, &time.parts));
  };
  if (!is_exact) return part(format);
  return part(format) + (time.milliseconds.empty() ? "" : "." + time.milliseconds) + part(" %z");
}

const char* CodeOf(Cell::Colour colour) { return colour == Cell::Colour::kGood ? kGreen : kRed; }

std::string SendAgain(const Json::Value& ticket) {
  std::string apps;
  for (const std::string& app : TextsOf(ticket, "apps")) apps += (apps.empty() ? "" : ",") + Safe(app);
  return "supportctl send " + ShellWord(Safe(TextOf(ticket, "device"))) + " --apps " + ShellWord(apps);
}

bool HasArchive(const Json::Value& ticket) {
  const Json::Value& archives = ListOf(ticket, "archives");
  return std::any_of(archives.begin(), archives.end(),
                     [](const Json::Value& archive) { return !archive.isMember("deleted"); });
}

std::string StepAfterReport(const Json::Value& ticket) {
  const std::string outcome = OptionalTextOf(ticket, "outcome");
  const std::string again = "Then send another one: " + SendAgain(ticket);
  if (outcome == "nothing_collected") {
    return "The device could not collect its data: its log tells why (journalctl -u "
           "debug-dat-transmitter). " +
           again;
  }
  if (outcome == "nothing_uploaded") {
    return "The device could not upload its archive: debug_dat_check on it tells what is in the way. " +
           again;
  }
  if (outcome == "success") return "All is done.";
  return "What the device reported stands above; its log may tell more (journalctl -u "
         "debug-dat-transmitter). " +
         again;
}

std::string StepInState(const Json::Value& ticket) {
  const std::string state = TextOf(ticket, "state");
  const std::string id = Safe(TextOf(ticket, "id"));
  const std::string device = ShellWord(Safe(TextOf(ticket, "device")));
  const std::string follow = "Wait for it: supportctl follow " + id;
  if (state == "queued") {
    return "The device gets it once it is connected and free: supportctl device show " + device +
           " tells whether it is. Take it back with: supportctl cancel " + id;
  }
  if (state == "delivered") return "The device has it, and has not answered yet. " + follow;
  if (state == "accepted" || state == "uploaded") {
    const std::string what =
        state == "accepted" ? "The device works on it. " : "The device's report is still to come. ";
    return what +
           (IsSet(ticket, "overdue")
                ? "It takes unusually long: look at the device with debug_dat_check --status. "
                : "") +
           follow;
  }
  if (state == "reported") return StepAfterReport(ticket);
  if (state == "refused") {
    return "The reason stands with its last event. Mend it on the device, then send another one: " +
           SendAgain(ticket);
  }
  if (state == "no_result") {
    return "The device fell silent; an upload or a report that still comes counts. Look at the device with "
           "debug_dat_check --status, or send another one: " +
           SendAgain(ticket);
  }
  if (state == "cancelled") return "Nothing. Another one is sent with: " + SendAgain(ticket);
  if (state == "expired") {
    return "The device did not accept it in time: supportctl device show " + device +
           " tells when it was last seen. Send another one: " + SendAgain(ticket) + " --lifetime HOURS";
  }
  return "";  // of a later service
}

}  // namespace

std::string Safe(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const bool is_ascii = text[0] >= ' ' && text[0] <= '~';
    const Character first = is_ascii ? Character{1, 1} : FirstOf(text);
    result += first.columns > 0 ? std::string(text.substr(0, first.bytes))
                                : SupportService::Printable(text.substr(0, 1));
    text.remove_prefix(first.columns > 0 ? first.bytes : 1);
  }
  return result;
}

std::size_t WidthOf(const std::string& text) {
  std::size_t width = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const Character first = FirstOf(rest);
    width += static_cast<std::size_t>(std::max(first.columns, 1));
    rest.remove_prefix(first.bytes);
  }
  return width;
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + Safe(text);
  return result.empty() ? "-" : result;
}

std::string ShortTime(const std::string& time) { return Formatted(time, "%Y-%m-%d %H:%M", false); }
std::string TimeToTheSecond(const std::string& time) { return Formatted(time, "%Y-%m-%d %H:%M:%S", false); }
std::string ExactTime(const std::string& time) { return Formatted(time, "%Y-%m-%d %H:%M:%S", true); }

std::string SizeText(std::uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {" B", " KiB", " MiB", " GiB", " TiB"};
  std::size_t unit = 0;
  for (; bytes >= 1024 && unit + 1 < kUnits.size(); ++unit) bytes /= 1024;
  return std::to_string(bytes) + kUnits[unit];
}

std::string ShellWord(const std::string& text) {
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._,:/@%+").find(c) != std::string_view::npos;
  };
  if (!text.empty() && std::all_of(text.begin(), text.end(), is_plain)) return text;
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? "'\\''" : std::string(1, c);
  return result + "'";
}

void Table::Print(std::ostream& out, bool has_colours) const {
  std::vector<std::size_t> widths;
  for (std::size_t column = 0; column < heads_.size(); ++column) {
    std::size_t width = WidthOf(heads_[column]);
    for (const auto& row : rows_) width = std::max(width, WidthOf(row[column].text));
    widths.push_back(width);
  }
  const auto padding = [&](const std::string& text, std::size_t column) {
    return column + 1 == widths.size() ? "" : std::string(widths[column] + kGap - WidthOf(text), ' ');
  };
  if (has_colours) out << kBold;
  for (std::size_t column = 0; column < heads_.size(); ++column) {
    out << heads_[column] << padding(heads_[column], column);
  }
  out << (has_colours ? kPlain : "") << "\n";
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      const Cell& cell = row[column];
      const bool is_coloured = has_colours && cell.colour != Cell::Colour::kNone;
      line +=
          (is_coloured ? CodeOf(cell.colour) + cell.text + kPlain : cell.text) + padding(cell.text, column);
    }
    out << line.substr(0, line.find_last_not_of(' ') + 1) << "\n";
  }
}

void PrintFields(std::ostream& out, const std::vector<std::pair<std::string, std::string>>& fields) {
  std::size_t width = 0;
  for (const auto& [name, text] : fields) {
    if (!text.empty()) width = std::max(width, WidthOf(name));
  }
  for (const auto& [name, text] : fields) {
    if (!text.empty()) out << name << std::string(width + kGap - WidthOf(name), ' ') << text << "\n";
  }
}

Cell StateCell(const Json::Value& ticket) {
  const std::string state = TextOf(ticket, "state");
  const std::string outcome = OptionalTextOf(ticket, "outcome");
  std::string text = Safe(state);
  if (!outcome.empty()) text += ": " + Safe(outcome);
  if (IsSet(ticket, "overdue") && IsSet(ticket, "open")) text += ", overdue";
  if (outcome == "success") return {text, Cell::Colour::kGood};
  const bool is_bad = state == "refused" || state == "no_result" || state == "expired" || !outcome.empty();
  return {text, is_bad ? Cell::Colour::kBad : Cell::Colour::kNone};
}

std::string NextStep(const Json::Value& ticket) {
  std::string step = StepInState(ticket);
  if (!HasArchive(ticket)) return step;
  return step + (step.empty() ? "" : " ") + "Get what came: supportctl fetch " + Safe(TextOf(ticket, "id"));
}

void PrintJson(std::ostream& out, const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  writer["enableYAMLCompatibility"] = true;  // no blank before a colon
  out << Json::writeString(writer, value) << "\n";
}

}  // namespace TarvoOrvane::Supportctl
