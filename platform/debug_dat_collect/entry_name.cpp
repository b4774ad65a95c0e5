#include "entry_name.h"

#include <algorithm>
#include <cctype>

#include "sha256.h"

namespace TARVO::SupportForm {
namespace {

/// The longest name that common file systems take.
constexpr std::size_t kNameBytes = 255;

unsigned ByteAt(const std::string& text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
}

/// Length of the UTF-8 character at `at`; 0 when there is none.
std::size_t Utf8Length(const std::string& text, std::size_t at) {
  const unsigned first = ByteAt(text, at);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((ByteAt(text, at + i) & 0xC0U) != 0x80U) return 0;
  }
  const unsigned second = ByteAt(text, at + 1);
  const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool outside = (first == 0xED && second > 0x9F) || (first == 0xF4 && second > 0x8F);
  return overlong || outside ? 0 : length;
}

bool IsHexDigit(unsigned byte) { return std::isxdigit(static_cast<int>(byte)) != 0; }

/// Whether the character at `at`, of `length` bytes, stays as it is.
bool IsPlain(const std::string& text, std::size_t at, std::size_t length) {
  const unsigned byte = ByteAt(text, at);
  if (length == 0 || byte < 0x20 || byte == 0x7F || byte == '"' || byte == '\\') return false;
  if (byte == 0xC2 && ByteAt(text, at + 1) < 0xA0) return false;  // The second set of control characters.
  return byte != '%' || !IsHexDigit(ByteAt(text, at + 1)) || !IsHexDigit(ByteAt(text, at + 2));
}

/// A name that file systems take. The digest keeps those apart that begin alike.
std::string Shortened(const std::string& name) {
  if (name.size() <= kNameBytes) return name;
  Sha256 sum;
  sum.Add(name);
  const std::string mark = "~" + sum.Finish().substr(0, 16);
  std::size_t kept = kNameBytes - mark.size();
  while ((ByteAt(name, kept) & 0xC0U) == 0x80U) --kept;  // not within a character
  return name.substr(0, kept) + mark;
}

std::string WithShortNames(const std::string& path) {
  std::string result;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    result += Shortened(path.substr(begin, end - begin));
    if (end < path.size()) result += '/';
    begin = end + 1;
  }
  return result;
}

/// "01-NAME.txt", with the characters of `name` that a file name had better not have replaced.
std::string NumberedName(std::size_t number, std::string name) {
  name.resize(std::min<std::size_t>(name.size(), 64));
  for (char& c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '_' || c == '-' || c == '@';
    if (!plain) c = '_';
  }
  const std::string digits = std::to_string(number);
  return (digits.size() < 2 ? "0" : "") + digits + "-" + name + ".txt";
}

}  // namespace

std::string PrintablePath(const std::string& path) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string result;
  result.reserve(path.size());
  for (std::size_t i = 0; i < path.size();) {
    const std::size_t length = Utf8Length(path, i);
    if (IsPlain(path, i, length)) {
      result.append(path, i, length);
      i += length;
      continue;
    }
    const unsigned byte = ByteAt(path, i);
    for (const char c : {'%', kDigits[byte >> 4U], kDigits[byte & 15U]}) result.push_back(c);
    ++i;
  }
  return result;
}

std::string FileEntryName(const std::string& app, const std::string& printable) {
  const std::string prefix = "apps/" + app + "/files";
  return prefix + (printable.size() > kNameBytes ? WithShortNames(printable) : printable);
}

std::string CommandEntryName(const std::string& app, std::size_t number, const std::string& program) {
  return "apps/" + app + "/commands/" + NumberedName(number, program.substr(program.rfind('/') + 1));
}

std::string UnitEntryName(const std::string& app, std::size_t number, const std::string& unit) {
  return "apps/" + app + "/journal/" + NumberedName(number, unit);
}

}  // namespace TARVO::SupportForm
