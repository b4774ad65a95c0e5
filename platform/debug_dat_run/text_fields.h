/// Texts of the kernel's that stand for themselves: words with blanks in between, and numbers.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string_view>
#include <system_error>
#include <vector>

namespace DebugDatRun {

/// What stands between the blanks of `text`, which has to outlive the result.
[[nodiscard]] inline std::vector<std::string_view> WordsOf(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n";
  std::vector<std::string_view> words;
  for (std::size_t begin = 0; (begin = text.find_first_not_of(kBlanks)) != std::string_view::npos;) {
    text.remove_prefix(begin);
    const std::size_t length = std::min(text.find_first_of(kBlanks), text.size());
    words.push_back(text.substr(0, length));
    text.remove_prefix(length);
  }
  return words;
}

/// @return Whether all of `text` is a number that fits; `number` may have changed in any case.
template <typename Number>
[[nodiscard]] bool ReadNumber(std::string_view text, Number& number, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

}  // namespace DebugDatRun
