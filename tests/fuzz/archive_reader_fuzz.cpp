/// Archives, as support_archive_reader takes them apart, in this process and so without its sandbox. What does not begin
/// as zstd does is taken for tar: it is compressed first.
#include <json/reader.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "fuzz_support.h"
#include "json_check.h"
#include "made_archive.h"
#include "shown_text.h"

namespace {

using namespace TarvoOrvane::ArchiveReader;
using fuzz::Require;

ReadLimits SmallLimits() {
  ReadLimits limits;
  limits.entries = 500;
  limits.name_bytes = 300;
  limits.unpacked_bytes = std::uint64_t{1} << 20;
  limits.manifest_bytes = 1000;
  limits.text_bytes = 2000;
  return limits;
}

class MemoryFile {
 public:
  explicit MemoryFile(std::string_view content = "") : fd_(memfd_create("file", MFD_CLOEXEC)) {
    Require(write(fd_, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
            "there is room for a file");
  }
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] std::string Read() const {
    std::string text(static_cast<std::size_t>(lseek(fd_, 0, SEEK_END)), '\0');
    Require(pread(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
            "the file can be read");
    return text;
  }

 private:
  const int fd_;
};

struct Result {
  ReaderEnd end;
  std::string output;

  [[nodiscard]] std::string line() const { return output.substr(0, output.find('\n') + 1); }
  [[nodiscard]] std::string content() const { return output.substr(line().size()); }
};

Result Do(const MemoryFile& archive, const std::vector<std::string>& arguments) {
  lseek(archive.fd(), 0, SEEK_SET);
  const MemoryFile output;
  const ReaderEnd end = DoCommand(arguments, archive.fd(), output.fd(), SmallLimits());
  Require(end != ReaderEnd::kMisused && end != ReaderEnd::kOutputFailed && end != ReaderEnd::kInputFailed &&
              end != ReaderEnd::kNoSandbox,
          "what is wrong is the archive");
  return {end, output.Read()};
}

/// @return The entry's object.
Json::Value EntryIn(const std::string& line) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value entry;
  Require(reader->parse(line.data(), line.data() + line.size(), &entry, nullptr), "a line is JSON");
  Require(entry["number"].isUInt64() && entry["name"].isString() && entry["kind"].isString() &&
              entry["size"].isUInt64() && entry["modified"].isInt64(),
          "a line has all that an entry has");
  return entry;
}

void RequireUtf8(std::string_view text, bool may_have_control_characters) {
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    Require(character.bytes > 0, "what is shown is UTF-8");
    Require(may_have_control_characters || (character.code >= 0x20 && character.code != 0x7f),
            "a name moves no cursor");
    text.remove_prefix(character.bytes);
  }
}

/// @return The entries.
std::vector<Json::Value> CheckList(const MemoryFile& archive) {
  const Result all = Do(archive, {"list", "0", "1000"});
  std::vector<Json::Value> entries;
  for (std::size_t begin = 0; begin < all.output.size();) {
    const std::size_t end = all.output.find('\n', begin);
    Require(end != std::string::npos, "a line has an end");
    const std::string line = all.output.substr(begin, end - begin);
    RequireUtf8(line, false);
    entries.push_back(EntryIn(line));
    Require(entries.back()["number"].asUInt64() == entries.size(), "entries are numbered");
    begin = end + 1;
  }
  Require(entries.size() <= SmallLimits().entries, "entries have a limit");
  for (const std::size_t after : {entries.size() / 2, entries.size()}) {
    const Result rest = Do(archive, {"list", std::to_string(after), "1000"});
    Require(rest.end == all.end, "a page ends as the whole list does");
    Require(
        all.output.size() >= rest.output.size() &&
            all.output.compare(all.output.size() - rest.output.size(), std::string::npos, rest.output) == 0,
        "a page is a part of the list");
  }
  return entries;
}

void CheckContent(const MemoryFile& archive, const Json::Value& entry) {
  const std::string number = entry["number"].asString();
  const Result all = Do(archive, {"read", number, "0", "9999999"});
  const std::string content = all.content();
  Require((entry["kind"] == "file") == !all.output.empty(), "a file has content, and nothing else");
  if (all.output.empty()) return;
  const std::uint64_t size = entry["size"].asUInt64();
  Require(content.size() <= size, "no more is there than is announced");
  Require(all.end != ReaderEnd::kComplete || content.size() == size, "no less is there than is announced");
  const std::size_t middle = content.size() / 2;
  const Result part = Do(archive, {"read", number, std::to_string(middle), "100"});
  Require(part.content() == content.substr(middle, 100), "a part is one of the whole");

  const Result text = Do(archive, {"text", number, std::to_string(middle), "1000"});
  if (text.output.empty()) return;
  const Json::Value bounds = EntryIn(text.line());
  const std::uint64_t end = bounds["end"].asUInt64();
  Require(bounds["begin"].asUInt64() == middle && end >= middle && end <= content.size(),
          "a text lies in its entry");
  Require(end > middle || middle == content.size(), "who reads on comes to the end");
  RequireUtf8(text.content(), true);
  Require(text.content() == Utf8Of(content.substr(middle, end - middle)), "a text is that of its bytes");
}

void CheckManifest(const MemoryFile& archive) {
  const Result manifest = Do(archive, {"manifest"});
  Require((manifest.end == ReaderEnd::kComplete) == !manifest.output.empty(),
          "a manifest is whole, or not there");
  Require(manifest.output.empty() || IsJsonObject(manifest.content()), "a manifest is an object");
}

void CheckArchive(std::string_view content) {
  const MemoryFile archive(content);
  const std::vector<Json::Value> entries = CheckList(archive);
  constexpr std::size_t kMostRead = 5;  // each is read anew from the archive's beginning
  for (std::size_t i = 0; i < entries.size() && i < kMostRead; ++i) CheckContent(archive, entries[i]);
  CheckManifest(archive);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool is_prepared = (PrepareLibraries(), true);
  static_cast<void>(is_prepared);
  const std::string_view input = fuzz::AsText(data, size);
  CheckArchive(input);
  if (input.substr(0, 4) != "\x28\xb5\x2f\xfd") CheckArchive(test_support::Zstd(input));
  const bool is_object = IsJsonObject(input);
  Require(IsJsonObject(" " + std::string(input) + "\n") == is_object, "blanks around JSON mean nothing");
  Require(!is_object || WholeCharacters(input) == input.size(), "JSON is UTF-8");
  return 0;
}
