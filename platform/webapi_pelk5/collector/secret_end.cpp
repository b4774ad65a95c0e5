#include "secret_end.h"

#include "byte_class.h"
#include "token_mask.h"

namespace TARVO::SupportForm {

std::size_t SecretEnd::Find(std::string_view text, std::size_t at) {
  const bool escapes = secret_.form == SecretForm::kWord || secret_.form == SecretForm::kQuoted ||
                       secret_.form == SecretForm::kList;
  for (; at < text.size(); ++at) {
    if (escapes && text[at] == '\\') {
      run_ = run_ + 1 < TokenMask::kMaxBackslashes ? run_ + 1 : 0;
      continue;
    }
    if (const std::optional<std::size_t> outside = Ends(text[at])) return at - *outside;
    run_ = 0;
  }
  return std::string_view::npos;
}

/// Whether the secret ends before the byte; and how many of the backslashes between do not belong to it.
std::optional<std::size_t> SecretEnd::Ends(char byte) {
  const auto ends_at = [&](bool end) { return end ? std::optional<std::size_t>(0) : std::nullopt; };
  const bool marked = secret_.mark != '\0' && byte == secret_.mark;
  switch (secret_.form) {
    case SecretForm::kWord:
      return EndsWord(byte);
    case SecretForm::kQuoted:
      return EndsQuoted(byte);
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

std::optional<std::size_t> SecretEnd::EndsQuoted(char byte) const {
  if (Is(byte, kLineEnd)) return 0;
  if (byte != secret_.mark) return std::nullopt;
  if (run_ < secret_.level) return run_;  // The string around it ends.
  if (IsClosingQuote(byte)) return secret_.level;
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

/// Each level of quoting turns n backslashes into 2n, and 2n + 1 before a quote; what exceeds the opening quote's
/// are escaped backslashes of the content.
bool SecretEnd::IsClosingQuote(char byte) const {
  return byte == secret_.mark && run_ >= secret_.level &&
         (run_ - secret_.level) % (2 * (secret_.level + 1)) == 0;
}

}  // namespace TARVO::SupportForm
