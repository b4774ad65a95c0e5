#include "secret_end.h"

#include <algorithm>

#include "text_look.h"
#include "token_mask.h"

namespace TARVO::SupportForm {
namespace {

bool Escapes(SecretForm form) {
  return form == SecretForm::kWord || form == SecretForm::kQuoted || form == SecretForm::kList;
}

bool GoesOverLines(SecretForm form) {
  return form == SecretForm::kDelimitedLines || form == SecretForm::kHereDocument ||
         form == SecretForm::kBlock || form == SecretForm::kLines;
}

}  // namespace

unsigned ClassesOf(SecretForm form) {
  switch (form) {
    case SecretForm::kUpperDigits:
      return kUpperDigit;
    case SecretForm::kIdentifier:
      return kIdentifierByte;
    case SecretForm::kDotted:
      return kNameByte;
    case SecretForm::kEncoded:
      return kEncodedByte;
    case SecretForm::kHash:
      return kHashByte;
    case SecretForm::kHashFields:
      return kHashByte | kColon;
    default:
      return 0;
  }
}

std::size_t SecretEnd::Find(std::string_view text, std::size_t at, bool at_end) {
  const bool escapes = Escapes(secret_.form);
  const bool over_lines = GoesOverLines(secret_.form);
  for (; at < text.size(); ++at) {
    at = SkipInside(text, at);
    if (at == text.size()) break;
    if (over_lines && ++lines_bytes_ > most_) return at;
    if (escapes && text[at] == '\\') {
      run_ = run_ + 1 < TokenMask::kMaxBackslashes ? run_ + 1 : 0;
      // A tail has one backslash at most.
      if (tail_ != Tail::kNone && (tail_ != Tail::kClosed || run_ > 1)) return at - tail_size_ - (run_ - 1);
      continue;
    }
    if (const std::optional<std::size_t> outside = Ends(text[at])) return at - *outside;
    run_ = 0;
  }
  if (!at_end) return std::string_view::npos;
  if (secret_.form == SecretForm::kDoubled) return text.size() - matched_ % 4;
  return text.size() - (tail_ == Tail::kNone ? 0 : tail_size_ + run_);
}

/// Offset of the next byte that may matter for the end.
std::size_t SecretEnd::SkipInside(std::string_view text, std::size_t at) {
  if (const unsigned classes = ClassesOf(secret_.form)) return SkipForward(text, at, classes);
  const SecretForm form = secret_.form;
  const bool over_lines = GoesOverLines(form);
  const bool indented = (form == SecretForm::kHereDocument || form == SecretForm::kBlock) && in_indent_;
  if (indented || run_ > 0 || matched_ > 0 || tail_ != Tail::kNone) return at;
  // Of here-documents and blocks the delimiter and the mark matter at the beginning of a line only.
  const bool line_end_only = over_lines && form != SecretForm::kDelimitedLines;
  const bool one_word = form == SecretForm::kWord || form == SecretForm::kScalar;
  unsigned ends = kLineEnd;
  if (!line_end_only) ends |= kQuote | kListEnd | kSpelled;
  if (one_word) ends |= kBlank;
  const char mark = line_end_only ? '\n' : form == SecretForm::kElement ? '<' : secret_.mark;
  const char first = line_end_only || secret_.delimiter.empty() ? mark : secret_.delimiter[0];
  const std::size_t most = over_lines ? most_ - lines_bytes_ : text.size();
  const std::size_t limit = at + std::min(most, text.size() - at);
  std::size_t next = at;
  while (next < limit && !Is(text[next], ends) && text[next] != mark && text[next] != first) ++next;
  if (over_lines) lines_bytes_ += next - at;
  return next;
}

/// Whether the secret ends before the byte; and how many of the bytes before do not belong to it.
std::optional<std::size_t> SecretEnd::Ends(char byte) {
  const auto ends_at = [&](bool end) { return end ? std::optional<std::size_t>(0) : std::nullopt; };
  const bool marked = secret_.mark != '\0' && byte == secret_.mark;
  switch (secret_.form) {
    case SecretForm::kWord:
      if (EndsDelimiter(byte)) return secret_.delimiter.size() - 1;
      return EndsWord(byte);
    case SecretForm::kQuoted:
      return EndsQuoted(byte);
    case SecretForm::kDoubled:
      return EndsDoubled(byte);
    case SecretForm::kList:
      return EndsList(byte);
    case SecretForm::kLine:
      return ends_at(marked || Is(byte, kLineEnd));
    case SecretForm::kPhrase:
      return ends_at(marked || Is(byte, kLineEnd) || byte == '"' || byte == '\\');
    case SecretForm::kScalar:
      return ends_at(Is(byte, kBlank | kLineEnd | kListEnd | kQuote) || byte == '\\');
    case SecretForm::kElement:
      return ends_at(Is(byte, kLineEnd) || byte == '<');
    case SecretForm::kDelimited:
    case SecretForm::kDelimitedLines:
      if (EndsDelimiter(byte)) return secret_.delimiter.size() - 1;
      return ends_at(secret_.form == SecretForm::kDelimited && Is(byte, kLineEnd));
    case SecretForm::kHereDocument:
      return EndsHereDocument(byte);
    case SecretForm::kBlock:
      return EndsBlock(byte);
    case SecretForm::kLines:
      return ends_at(lines_bytes_ > secret_.level && Is(byte, kLineEnd));
    default:
      return ends_at(!Is(byte, ClassesOf(secret_.form)));
  }
}

std::optional<std::size_t> SecretEnd::EndsWord(char byte) const {
  if (Is(byte, kBlank | kLineEnd) || (secret_.mark != '\0' && byte == secret_.mark)) return 0;
  const bool escaped_line_end = run_ > 0 && (byte == 'n' || byte == 'r' || byte == 't');
  if (byte == '"' || escaped_line_end) return run_;
  return std::nullopt;
}

std::optional<std::size_t> SecretEnd::EndsQuoted(char byte) {
  if (tail_ != Tail::kNone) return EndsTail(byte);
  if (Is(byte, kLineEnd)) return 0;
  if (byte != secret_.mark) return std::nullopt;
  if (run_ < secret_.level) return run_;  // The string around it ends.
  if (!IsClosingQuote(byte)) return std::nullopt;
  if (secret_.level > 0) return secret_.level;
  tail_ = Tail::kClosed;
  tail_size_ = 1;
  return std::nullopt;
}

/// Reads on behind a closing quote: 'it''s', 'it'\''s' and 'it'"'"'s' are one value.
std::optional<std::size_t> SecretEnd::EndsTail(char byte) {
  const bool same = byte == secret_.mark;
  const bool other = Is(byte, kQuote) && !same;
  const std::size_t size = tail_size_ + run_;
  const auto next = [&] {
    if (tail_ == Tail::kClosed && run_ == 0 && same) return Tail::kNone;
    if (tail_ == Tail::kClosed && run_ == 1 && same) return Tail::kEscapedQuote;
    if (tail_ == Tail::kEscapedQuote && same) return Tail::kNone;
    if (tail_ == Tail::kClosed && run_ == 0 && other) return Tail::kOtherQuote;
    if (tail_ == Tail::kOtherQuote && same) return Tail::kOtherQuoted;
    if (tail_ == Tail::kOtherQuoted && other) return Tail::kOtherClosed;
    if (tail_ == Tail::kOtherClosed && same) return Tail::kNone;
    return Tail::kClosed;  // It ended.
  }();
  if (next == Tail::kClosed) return size;
  tail_ = next;
  tail_size_ = size + 1;
  return std::nullopt;
}

std::optional<std::size_t> SecretEnd::EndsDoubled(char byte) {
  if (byte == secret_.mark) {
    ++matched_;
    return std::nullopt;
  }
  const std::size_t quotes = matched_ % 4;
  matched_ = 0;
  if (quotes > 0 || Is(byte, kLineEnd)) return quotes;
  return std::nullopt;
}

std::optional<std::size_t> SecretEnd::EndsList(char byte) {
  if (byte == secret_.mark && run_ < secret_.level) return run_;
  if (byte == secret_.mark && !in_string_) {
    in_string_ = true;
    secret_.level = run_;
  } else if (in_string_) {
    if (Is(byte, kLineEnd)) return 0;
    if (IsClosingQuote(byte)) in_string_ = false;
  } else if (byte == ']' || byte == '}') {
    return run_;
  }
  return std::nullopt;
}

std::optional<std::size_t> SecretEnd::EndsHereDocument(char byte) {
  if (Is(byte, kLineEnd)) {
    in_indent_ = true;
    matched_ = 0;
  } else if (in_indent_ && (matched_ > 0 || !Is(byte, kBlank))) {
    matched_ = byte == secret_.delimiter[matched_] ? matched_ + 1 : 0;
    in_indent_ = matched_ > 0;
    if (matched_ == secret_.delimiter.size()) return matched_ - 1;
  }
  return std::nullopt;
}

std::optional<std::size_t> SecretEnd::EndsBlock(char byte) {
  if (Is(byte, kLineEnd)) {
    in_indent_ = true;
    indent_ = 0;
  } else if (in_indent_ && Is(byte, kBlank)) {
    ++indent_;
  } else if (in_indent_) {
    const bool item = indent_ == secret_.level && secret_.mark != '\0' && byte == secret_.mark;
    if (indent_ <= secret_.level && !item) return indent_;
    in_indent_ = false;
  }
  return std::nullopt;
}

/// Whether the delimiter ends with the byte.
bool SecretEnd::EndsDelimiter(char byte) {
  const std::string& delimiter = secret_.delimiter;
  if (delimiter.empty()) return false;
  matched_ = byte == delimiter[matched_] ? matched_ + 1 : (byte == delimiter[0] ? 1 : 0);
  return matched_ == delimiter.size();
}

bool SecretEnd::IsClosingQuote(char byte) const {
  return byte == secret_.mark && ClosesString(run_, secret_.level);
}

}  // namespace TARVO::SupportForm
