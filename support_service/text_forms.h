/// How values stand in event lines, records and messages. Functions of their arguments alone; any thread may call them.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace TarvoOrvane::SupportService {

/// @return The bytes as lower-case hex, two digits each.
std::string HexText(const unsigned char* bytes, std::size_t count);

/// @return The value as JSON on one line, without a newline at its end and with members sorted by key.
std::string CompactJson(const Json::Value& value);

/// @return The time in UTC as 2024-01-31T12:00:00.000Z, cut to milliseconds.
std::string TimeText(std::chrono::system_clock::time_point time);

/// Makes text from outside fit for one line of a log or a terminal: every byte but printable ASCII
/// becomes \xNN, a backslash is doubled and what exceeds max_bytes is cut ("...").
/// @param max_bytes  Of `text`; the result may have four times as many.
std::string Printable(std::string_view text, std::size_t max_bytes = 256);

/// @return How many characters a text in UTF-8 has.
std::size_t CharactersIn(std::string_view text);

/// Printable() in double quotes; quotes inside become \".
std::string Quoted(std::string_view text, std::size_t max_bytes = 256);

/// A list of names as ["a", "b"], at most max_names of them; behind those it says how many there are.
std::string QuotedList(const std::vector<std::string>& names, std::size_t max_names = 16);

}  // namespace TarvoOrvane::SupportService
