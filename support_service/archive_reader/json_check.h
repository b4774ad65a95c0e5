/// Whether a text is JSON, without making anything of it: a tree of a stranger's JSON takes a hundred times its size.
#pragma once

#include <string_view>

namespace TarvoOrvane::ArchiveReader {

/// Whether it is one JSON object (RFC 8259) in UTF-8, nested no deeper than kMostLevels. Its memory does not grow with
/// the text.
[[nodiscard]] bool IsJsonObject(std::string_view text);

/// So deep readers of JSON go without complaint.
inline constexpr int kMostLevels = 100;

}  // namespace TarvoOrvane::ArchiveReader
