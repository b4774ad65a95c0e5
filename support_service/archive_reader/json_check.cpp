#include "json_check.h"

#include "shown_text.h"

namespace TarvoOrvane::ArchiveReader {
namespace {

/// Takes what it knows off the beginning of a text. A function that returns false has met something else.
class JsonTaker {
 public:
  explicit JsonTaker(std::string_view text) : text_(text) {}

  bool TakeDocument() {
    TakeBlanks();
    return Peek() == '{' && TakeValue(kMostLevels) && (TakeBlanks(), text_.empty());
  }

 private:
  [[nodiscard]] char Peek() const { return text_.empty() ? '\0' : text_.front(); }

  bool Take(char character) {
    if (text_.empty() || text_.front() != character) return false;
    text_.remove_prefix(1);
    return true;
  }

  bool TakeWord(std::string_view word) {
    if (text_.substr(0, word.size()) != word) return false;
    text_.remove_prefix(word.size());
    return true;
  }

  void TakeBlanks() {
    const std::size_t blanks = text_.find_first_not_of(" \t\r\n");
    text_.remove_prefix(blanks == std::string_view::npos ? text_.size() : blanks);
  }

  bool TakeValue(int levels) {
    switch (Peek()) {
      case '{':
        return TakeList(levels, '}');
      case '[':
        return TakeList(levels, ']');
      case '"':
        return TakeString();
      case 't':
        return TakeWord("true");
      case 'f':
        return TakeWord("false");
      case 'n':
        return TakeWord("null");
      default:
        return TakeNumber();
    }
  }

  /// An object or an array.
  bool TakeList(int levels, char end) {
    if (levels == 0) return false;
    text_.remove_prefix(1);
    TakeBlanks();
    if (Take(end)) return true;
    do {
      TakeBlanks();
      if (end == '}' && !TakeName()) return false;
      if (!TakeValue(levels - 1)) return false;
      TakeBlanks();
    } while (Take(','));
    return Take(end);
  }

  bool TakeName() {
    if (Peek() != '"' || !TakeString()) return false;
    TakeBlanks();
    if (!Take(':')) return false;
    TakeBlanks();
    return true;
  }

  bool TakeString() {
    text_.remove_prefix(1);
    while (!Take('"')) {
      if (Take('\\')) {
        if (!TakeEscape()) return false;
        continue;
      }
      const Character character = FirstCharacter(text_);
      if (character.bytes == 0 || character.code < 0x20) return false;
      text_.remove_prefix(character.bytes);
    }
    return true;
  }

  bool TakeEscape() {
    constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
    constexpr std::size_t kDigits = 4;
    if (Take('u')) {
      const std::string_view digits = text_.substr(0, kDigits);
      if (digits.size() < kDigits || digits.find_first_not_of(kHexDigits) != std::string_view::npos) {
        return false;
      }
      text_.remove_prefix(kDigits);
      return true;
    }
    if (text_.empty() || std::string_view("\"\\/bfnrt").find(text_.front()) == std::string_view::npos) {
      return false;
    }
    text_.remove_prefix(1);
    return true;
  }

  bool TakeDigits() {
    const std::size_t before = text_.size();
    while (Peek() >= '0' && Peek() <= '9') text_.remove_prefix(1);
    return text_.size() < before;
  }

  bool TakeNumber() {
    Take('-');
    if (!Take('0') && !TakeDigits()) return false;
    if (Take('.') && !TakeDigits()) return false;
    if (!Take('e') && !Take('E')) return true;
    if (!Take('+')) Take('-');
    return TakeDigits();
  }

  std::string_view text_;  ///< What is left.
};

}  // namespace

bool IsJsonObject(std::string_view text) { return JsonTaker(text).TakeDocument(); }

}  // namespace TarvoOrvane::ArchiveReader
