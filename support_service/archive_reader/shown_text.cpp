#include "shown_text.h"

#include <algorithm>

namespace TarvoOrvane::ArchiveReader {
namespace {

unsigned Byte(char character) { return static_cast<unsigned char>(character); }

/// Of a character, by its first byte: 0 where none begins so.
std::size_t LengthOf(unsigned first) {
  if (first < 0x80) return 1;
  if (first >= 0xc2 && first <= 0xdf) return 2;
  if (first >= 0xe0 && first <= 0xef) return 3;
  return first >= 0xf0 && first <= 0xf4 ? 4 : 0;
}

bool IsContinuation(char character) { return (Byte(character) & 0xc0U) == 0x80U; }

/// Whether it is more than a sign on a line.
bool IsControl(std::uint32_t code) {
  const bool is_c0_or_c1 = code < 0x20 || (code >= 0x7f && code <= 0x9f);
  const bool is_separator = code == 0x2028 || code == 0x2029;
  const bool is_direction = code == 0x061c || code == 0x200e || code == 0x200f ||
                            (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
  return is_c0_or_c1 || is_separator || is_direction;
}

std::string Escaped(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    text += {'\\', 'x', kDigits[Byte(byte) >> 4U], kDigits[Byte(byte) & 0x0fU]};
  }
  return text;
}

/// For texts without control characters.
std::string JsonString(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') quoted += '\\';
    quoted += character;
  }
  return quoted + '"';
}

const char* NameOf(EntryKind kind) {
  switch (kind) {
    case EntryKind::kFile:
      return "file";
    case EntryKind::kFolder:
      return "folder";
    case EntryKind::kLink:
      return "link";
    case EntryKind::kOther:
      return "other";
  }
  return "other";
}

}  // namespace

Character FirstCharacter(std::string_view text) {
  if (text.empty()) return {};
  const unsigned first = Byte(text.front());
  const std::size_t length = LengthOf(first);
  if (length == 0 || text.size() < length) return {};
  if (length == 1) return {first, 1};
  std::uint32_t code = first & (0x7fU >> length);
  for (const char character : text.substr(1, length - 1)) {
    if (!IsContinuation(character)) return {};
    code = (code << 6U) | (Byte(character) & 0x3fU);
  }
  const bool is_longer_than_needed = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
  if (is_longer_than_needed || is_surrogate || code > 0x10ffff) return {};
  return {code, length};
}

std::string ShownName(std::string_view name) {
  std::string shown;
  while (!name.empty()) {
    const Character character = FirstCharacter(name);
    const std::size_t length = std::max<std::size_t>(character.bytes, 1);
    const std::string_view bytes = name.substr(0, length);
    if (character.bytes == 0 || IsControl(character.code)) {
      shown += Escaped(bytes);
    } else {
      shown += bytes == "\\" ? "\\\\" : bytes;
    }
    name.remove_prefix(length);
  }
  return shown;
}

std::string Utf8Of(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const std::size_t length = FirstCharacter(bytes).bytes;
    text += length == 0 ? "\xef\xbf\xbd" : bytes.substr(0, length);
    bytes.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return text;
}

std::size_t WholeCharacters(std::string_view text) {
  constexpr std::size_t kLongest = 4;
  for (std::size_t back = 1; back < kLongest && back <= text.size(); ++back) {
    const char character = text[text.size() - back];
    if (IsContinuation(character)) continue;
    return LengthOf(Byte(character)) > back ? text.size() - back : text.size();
  }
  return text.size();
}

std::string OpenLine(const Entry& entry) {
  std::string line = R"({"number":)" + std::to_string(entry.number) + R"(,"name":)" +
                     JsonString(ShownName(entry.name)) + R"(,"kind":")" + NameOf(entry.kind) +
                     R"(","size":)" + std::to_string(entry.size) + R"(,"modified":)" +
                     std::to_string(entry.modified);
  if (entry.kind == EntryKind::kLink) line += R"(,"target":)" + JsonString(ShownName(entry.target));
  return line;
}

}  // namespace TarvoOrvane::ArchiveReader
