/// The names of an archive's entries, made from any path, program or unit.
#include <json/reader.h>
#include <json/writer.h>

#include <cctype>
#include <memory>
#include <sstream>

#include "entry_name.h"
#include "fuzz_support.h"

namespace {

using namespace TARVO::SupportForm;
using fuzz::Require;

constexpr std::size_t kLongestName = 255;  ///< In bytes; of one part of a path.

unsigned HexValue(char digit) {
  return static_cast<unsigned>(std::stoul(std::string(1, digit), nullptr, 16));
}

bool IsHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

/// The path that a printable one stands for.
std::string Decoded(const std::string& printable) {
  std::string path;
  for (std::size_t at = 0; at < printable.size(); ++at) {
    if (printable[at] == '%' && at + 2 < printable.size() && IsHexDigit(printable[at + 1]) &&
        IsHexDigit(printable[at + 2])) {
      path += static_cast<char>(HexValue(printable[at + 1]) * 16 + HexValue(printable[at + 2]));
      at += 2;
    } else {
      path += printable[at];
    }
  }
  return path;
}

/// As a JSON text says it, which is UTF-8 whatever went in.
std::string ThroughJson(const std::string& text) {
  Json::StreamWriterBuilder builder;
  builder["emitUTF8"] = false;
  const std::string json = Json::writeString(builder, Json::Value(text));
  Json::CharReaderBuilder reader_builder;
  const std::unique_ptr<Json::CharReader> reader(reader_builder.newCharReader());
  Json::Value value;
  Require(reader->parse(json.data(), json.data() + json.size(), &value, nullptr), "JSON text parses");
  return value.asString();
}

/// Of the path's parts those that file systems take stay as they are, and longer ones become shorter.
void CheckFileName(const std::string& name, const std::string& printable) {
  const std::string folder = "apps/mail/files";
  Require(name.rfind(folder, 0) == 0, "the entry lies in its folder");
  std::istringstream parts(name.substr(folder.size()));
  std::istringstream path_parts(printable);
  std::string part;
  for (std::string path_part; std::getline(path_parts, path_part, '/');) {
    std::getline(parts, part, '/');
    Require(path_part.size() > kLongestName ? part.size() <= kLongestName : part == path_part,
            "an entry has its path's name");
  }
  Require(!std::getline(parts, part, '/'), "an entry's name has no more parts than its path");
}

void CheckNumberedName(const std::string& name, const std::string& folder) {
  Require(name.rfind(folder, 0) == 0, "the entry lies in its folder");
  const std::string file = name.substr(folder.size());
  Require(file.size() <= 80 && file.substr(0, 3) == "07-", "the file's name is short, and numbered");
  Require(file.find('/') == std::string::npos && fuzz::IsPrintableAscii(file), "it is one plain name");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path(fuzz::AsText(data, size));
  const std::string printable = PrintablePath(path);
  Require(Decoded(printable) == path, "no two paths become the same name");
  Require(printable.find_first_of("\"\\\x7f") == std::string::npos, "a name needs no quoting");
  for (const char c : printable) {
    Require(static_cast<unsigned char>(c) >= 0x20, "a name has no control characters");
  }
  Require(ThroughJson(printable) == printable, "a name is UTF-8");
  const std::string name = FileEntryName("mail", printable);
  CheckFileName(name, printable);
  Require(ThroughJson(name) == name, "an entry's name is UTF-8");
  CheckNumberedName(CommandEntryName("mail", 7, path), "apps/mail/commands/");
  CheckNumberedName(UnitEntryName("mail", 7, path), "apps/mail/journal/");
  return 0;
}
