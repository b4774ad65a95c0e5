#include "commands.h"

#include <iconv.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <new>
#include <optional>
#include <string_view>

#include "archive_walk.h"
#include "json_check.h"
#include "shown_text.h"

namespace TarvoOrvane::ArchiveReader {
namespace {

constexpr const char* kManifestName = "manifest.json";

/// Gathers small pieces, so that an entry costs no system call.
class Output {
 public:
  explicit Output(int fd) : fd_(fd) {}

  /// @return false when nobody takes it.
  bool Write(std::string_view bytes) {
    if (waiting_.size() + bytes.size() > kMostWaiting && !Flush()) return false;
    if (bytes.size() > kMostWaiting) return WriteNow(bytes);
    waiting_ += bytes;
    return true;
  }

  bool Flush() {
    const bool is_written = WriteNow(waiting_);
    waiting_.clear();
    return is_written;
  }

 private:
  bool WriteNow(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t count = write(fd_, bytes.data(), bytes.size());
      if (count == -1 && errno == EINTR) continue;
      if (count == -1) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  static constexpr std::size_t kMostWaiting = std::size_t{64} << 10;
  const int fd_;
  std::string waiting_;
};

/// The part of an entry that is wanted, or what there is of it.
struct Window {
  std::uint64_t number;
  std::uint64_t offset;
  std::uint64_t length;
};

/// Goes to a file's entry, and makes sure that it reaches to the window.
/// @param end  Set where it can't.
const Entry* GoTo(ArchiveWalk& walk, const Window& window, ReaderEnd& end) {
  const Entry* entry = nullptr;
  do {
    entry = walk.Next();
  } while (entry != nullptr && entry->number < window.number);
  if (entry == nullptr) {
    end = walk.end() == ReaderEnd::kComplete ? ReaderEnd::kNoEntry : *walk.end();
  } else if (entry->number != window.number) {
    end = ReaderEnd::kNoEntry;  // entries count from 1
  } else if (entry->kind != EntryKind::kFile) {
    end = ReaderEnd::kNoContent;
  } else if (entry->size < window.offset) {
    end = ReaderEnd::kBehindEnd;
  } else {
    return entry;
  }
  return nullptr;
}

/// Has the function take the window's bytes, a block after the other.
/// @param take  Returns false to stop.
/// @return How it came out; kComplete also where the function has stopped it.
template <typename Take>
ReaderEnd TakeWindow(ArchiveWalk& walk, const Entry& entry, const Window& window, const Take& take) {
  std::uint64_t dropped = 0;
  std::uint64_t left = std::min(window.length, entry.size - window.offset);
  while (left > 0) {
    std::string_view block = walk.Content();
    if (block.empty()) return walk.end().value_or(ReaderEnd::kDamaged);
    const auto lead =
        static_cast<std::size_t>(std::min<std::uint64_t>(window.offset - dropped, block.size()));
    dropped += lead;
    block = block.substr(lead, static_cast<std::size_t>(std::min<std::uint64_t>(left, block.size())));
    left -= block.size();
    if (!block.empty() && !take(block)) break;
  }
  return ReaderEnd::kComplete;
}

ReaderEnd List(ArchiveWalk& walk, std::uint64_t after, std::uint64_t limit, Output& output) {
  std::uint64_t listed = 0;
  while (listed < limit) {
    const Entry* entry = walk.Next();
    if (entry == nullptr) return *walk.end();
    if (entry->number <= after) continue;
    if (!output.Write(OpenLine(*entry) + "}\n")) return ReaderEnd::kOutputFailed;
    ++listed;
  }
  return ReaderEnd::kComplete;
}

ReaderEnd Read(ArchiveWalk& walk, const Window& window, Output& output) {
  ReaderEnd end = ReaderEnd::kComplete;
  const Entry* found = GoTo(walk, window, end);
  if (found == nullptr) return end;
  const Entry entry = *found;
  if (!output.Write(OpenLine(entry) + "}\n")) return ReaderEnd::kOutputFailed;
  bool is_taken = true;
  end = TakeWindow(walk, entry, window, [&](std::string_view block) {
    is_taken = output.Write(block);
    return is_taken;
  });
  return is_taken ? end : ReaderEnd::kOutputFailed;
}

ReaderEnd Text(ArchiveWalk& walk, Window window, const ReadLimits& limits, Output& output) {
  window.length = std::min(window.length, limits.text_bytes);
  ReaderEnd end = ReaderEnd::kComplete;
  const Entry* found = GoTo(walk, window, end);
  if (found == nullptr) return end;
  const Entry entry = *found;
  // Whether the archive goes on that far has to be known before the line that says where the text ends.
  std::string text;
  end = TakeWindow(walk, entry, window, [&](std::string_view block) {
    text += block;
    return true;
  });
  if (text.empty() && end != ReaderEnd::kComplete) return end;
  // The next part begins with a character that this one would cut.
  const std::size_t whole = WholeCharacters(text);
  if (whole > 0 && end == ReaderEnd::kComplete && window.offset + text.size() < entry.size) {
    text.resize(whole);
  }
  const std::string line = OpenLine(entry) + R"(,"begin":)" + std::to_string(window.offset) + R"(,"end":)" +
                           std::to_string(window.offset + text.size()) + "}\n";
  if (!output.Write(line)) return ReaderEnd::kOutputFailed;
  constexpr std::size_t kPiece = std::size_t{64} << 10;
  std::string_view left = text;
  while (!left.empty()) {
    const std::string_view piece = left.substr(0, kPiece);
    const std::size_t length =
        left.size() > kPiece ? std::max<std::size_t>(WholeCharacters(piece), 1) : piece.size();
    if (!output.Write(Utf8Of(left.substr(0, length)))) return ReaderEnd::kOutputFailed;
    left.remove_prefix(length);
  }
  return end;
}

/// What came last under the manifest's name.
struct Manifest {
  Entry entry;
  std::string text;
};

ReaderEnd ReadManifest(ArchiveWalk& walk, const ReadLimits& limits, Output& output) {
  std::optional<Manifest> manifest;
  while (const Entry* entry = walk.Next()) {
    if (entry->name != kManifestName || entry->kind != EntryKind::kFile) continue;
    manifest = Manifest{*entry, ""};
    if (entry->size > limits.manifest_bytes) continue;
    manifest->text.reserve(static_cast<std::size_t>(entry->size));
    for (std::string_view block = walk.Content(); !block.empty(); block = walk.Content()) {
      manifest->text += block;
    }
  }
  if (walk.end() != ReaderEnd::kComplete) return *walk.end();
  if (!manifest) return ReaderEnd::kNoManifest;
  if (manifest->entry.size > limits.manifest_bytes) return ReaderEnd::kManifestTooLarge;
  if (!IsJsonObject(manifest->text)) return ReaderEnd::kManifestIsNoObject;
  const bool is_taken = output.Write(OpenLine(manifest->entry) + "}\n") && output.Write(manifest->text);
  return is_taken ? ReaderEnd::kComplete : ReaderEnd::kOutputFailed;
}

std::optional<std::vector<std::uint64_t>> Numbers(const std::vector<std::string>& arguments) {
  std::vector<std::uint64_t> numbers;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const char* end = arguments[i].data() + arguments[i].size();
    const auto result = std::from_chars(arguments[i].data(), end, numbers.emplace_back(0));
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  }
  return numbers;
}

ReaderEnd DoInMemory(const std::vector<std::string>& arguments, int archive, Output& output,
                     const ReadLimits& limits) {
  const auto numbers = Numbers(arguments);
  if (arguments.empty() || !numbers) return ReaderEnd::kMisused;
  const std::string& command = arguments.front();
  ArchiveWalk walk(archive, limits);
  if (command == "list" && numbers->size() == 2) return List(walk, (*numbers)[0], (*numbers)[1], output);
  if (command == "manifest" && numbers->empty()) return ReadManifest(walk, limits, output);
  if (numbers->size() != 3) return ReaderEnd::kMisused;
  const Window window{(*numbers)[0], (*numbers)[1], (*numbers)[2]};
  if (command == "read") return Read(walk, window, output);
  if (command == "text") return Text(walk, window, limits, output);
  return ReaderEnd::kMisused;
}

}  // namespace

ReaderEnd DoCommand(const std::vector<std::string>& arguments, int archive, int output_fd,
                    const ReadLimits& limits) {
  Output output(output_fd);
  ReaderEnd end = ReaderEnd::kTooMuchMemory;
  try {
    end = DoInMemory(arguments, archive, output, limits);
  } catch (const std::bad_alloc&) {
    // What was read before is written all the same.
  }
  return output.Flush() ? end : ReaderEnd::kOutputFailed;
}

void PrepareLibraries() {
  // libarchive converts the names of some archives from UTF-8 to the locale's charset.
  static_cast<void>(setlocale(LC_CTYPE, "C.UTF-8"));
  iconv_t converter = iconv_open("UTF-8", "UTF-8");
  // NOLINTNEXTLINE(performance-no-int-to-ptr): so the function tells a failure
  const bool is_there = converter != reinterpret_cast<iconv_t>(-1);
  if (is_there) iconv_close(converter);
}

}  // namespace TarvoOrvane::ArchiveReader
