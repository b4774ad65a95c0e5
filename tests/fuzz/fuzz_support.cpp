#include "fuzz_support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

void Require(bool holds, const char* promise) {
  if (holds) return;
  static_cast<void>(fprintf(stderr, "Broken: %s\n", promise));
  abort();
}

std::string_view AsText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

std::vector<std::string> Records(std::string_view input) {
  std::vector<std::string> records;
  while (true) {
    const std::size_t end = input.find('\x1e');
    records.emplace_back(input.substr(0, end));
    if (end == std::string_view::npos) return records;
    input.remove_prefix(end + 1);
  }
}

bool IsPrintableAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace fuzz
