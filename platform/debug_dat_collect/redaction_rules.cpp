#include "redaction_rules.h"

#include <re2/re2.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <new>
#include <sstream>
#include <string_view>
#include <utility>

#include "collection_limits.h"
#include "file_util.h"
#include "text_look.h"
#include "trusted_path.h"

namespace TARVO::SupportForm {
namespace {

/// Of a longer word only so many last bytes are scanned for, or kMaxEndBytes where these could end a word of prose, as
/// "config" does: each hit in an ordinary line costs. With kMaxEndBytes of each the scanner takes five times as long to
/// compile.
constexpr std::size_t kScannedEndBytes = 6;

constexpr const char* kWhatToDo = "; mend the file, or remove it";

/// Reads the pattern file; empty where there is none.
std::string ReadPatternFile(const std::string& path) {
  std::string text;
  bool more = false;
  Distrust distrust;
  if (!ReadTrustedFile(path, kPatternFileBytes, text, more, distrust)) {
    const int error = errno;
    // Also where there is no file: who may write to a folder above may have removed it.
    if (distrust) throw RedactionError(path + " is not used: " + distrust.Line());
    struct stat info = {};
    // A link that leads nowhere is no missing file.
    if (error == ENOENT && lstat(path.c_str(), &info) != 0 && errno == ENOENT) return "";
    throw RedactionError(path + " can't be read: " + ErrorText(error) + kWhatToDo);
  }
  if (more) {
    throw RedactionError(path + " is longer than " + std::to_string(kPatternFileBytes) + " bytes" +
                         kWhatToDo);
  }
  return text;
}

std::string Trimmed(const std::string& line) {
  const std::size_t begin = line.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return line.substr(begin, line.find_last_not_of(" \t\r") + 1 - begin);
}

/// What is scanned for of a word.
std::string EndOf(const std::string& word) {
  const auto last = [&](std::size_t count) {
    return word.substr(word.size() - std::min(word.size(), count));
  };
  const std::string end = last(kScannedEndBytes);
  const bool prose =
      std::all_of(end.begin(), end.end(), [](char c) { return c == ' ' || Is(c, kUpper | kLower); });
  return prose ? last(RedactionRules::kMaxEndBytes) : end;
}

/// A pattern and the line that it stands in, from 1.
struct PatternLine {
  std::string pattern;
  unsigned line = 0;
};

std::vector<PatternLine> PatternLines(const std::string& text) {
  std::vector<PatternLine> lines;
  std::istringstream stream(text);
  std::string line;
  for (unsigned number = 1; std::getline(stream, line); ++number) {
    const std::string pattern = Trimmed(line);
    if (!pattern.empty() && pattern.front() != '#') lines.push_back({pattern, number});
  }
  return lines;
}

[[noreturn]] void Refuse(const std::string& path, unsigned line, const std::string& why) {
  throw RedactionError(path + ":" + std::to_string(line) + ": " + why + kWhatToDo);
}

/// Bytes, not characters: logs need not be valid UTF-8.
std::unique_ptr<re2::RE2> CompileExact(const std::string& path, const PatternLine& line) {
  re2::RE2::Options options(re2::RE2::Latin1);
  options.set_log_errors(false);
  auto pattern = std::make_unique<re2::RE2>(line.pattern, options);
  if (!pattern->ok()) Refuse(path, line.line, "not a valid pattern: " + pattern->error());
  if (pattern->NumberOfCapturingGroups() > 1) {
    Refuse(path, line.line, "more than one group; write (?:...) for all but the one that is to be masked");
  }
  if (re2::RE2::PartialMatch("", *pattern)) Refuse(path, line.line, "the pattern matches an empty text");
  return pattern;
}

}  // namespace

RedactionRules::RedactionRules(const std::string& pattern_file) {
  CompileBuiltIn();
  CompileFile(pattern_file);
}

RedactionRules::~RedactionRules() = default;

void RedactionRules::CompileBuiltIn() {
  words_ = FixedWords();
  std::map<std::pair<std::string, bool>, std::vector<unsigned>> ends;
  for (unsigned number = 0; number < words_.size(); ++number) {
    std::string& text = words_[number].text;
    const bool any_case = words_[number].any_case;
    if (any_case) std::transform(text.begin(), text.end(), text.begin(), ToLower);
    ends[{EndOf(text), any_case}].push_back(number);
  }
  std::vector<ScannedWord> scanned;
  for (const auto& [end, words] : ends) {
    scanned.push_back({end.first, end.second});
    words_of_end_.push_back(words);
  }
  try {
    built_in_.emplace(scanned);
  } catch (const ScannerError& error) {
    throw RedactionError(std::string("the built-in rules can't be compiled: ") + error.what());
  }
}

std::optional<unsigned> RedactionRules::WordAtEnd(unsigned end, std::string_view text) const {
  for (const unsigned number : words_of_end_[end]) {
    const FixedWord& word = words_[number];
    if (text.size() < word.text.size()) continue;
    const std::string_view there = text.substr(text.size() - word.text.size());
    if (word.any_case ? IsSameWord(there, word.text) : there == word.text) return number;
  }
  return std::nullopt;
}

void RedactionRules::CompileFile(const std::string& path) {
  const std::vector<PatternLine> lines = PatternLines(ReadPatternFile(path));
  if (lines.empty()) return;
  if (lines.size() > kMaxPatterns) {
    Refuse(path, lines[kMaxPatterns].line, "more than " + std::to_string(kMaxPatterns) + " patterns");
  }
  std::vector<std::unique_ptr<re2::RE2>> patterns;
  patterns.reserve(lines.size());
  for (const PatternLine& line : lines) patterns.push_back(CompileExact(path, line));
  try {
    from_file_.emplace(std::move(patterns));
  } catch (const ScannerError& error) {
    throw RedactionError(path + " can't be searched for: " + error.what() + kWhatToDo);
  }
}

}  // namespace TARVO::SupportForm
