#include "token_mask.h"

#include <algorithm>
#include <cstring>

#include "text_look.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::string_view kName = "token";
constexpr std::string_view kQuotedName = "\"token";
constexpr char kMask = '*';

/// Where the next quoted name begins, or may begin when the text ends within it; `text.size()` if nowhere.
/// memmem() is some ten times as fast here as std::string_view::find().
std::size_t FindQuotedName(std::string_view text) {
  const void* name = memmem(text.data(), text.size(), kQuotedName.data(), kQuotedName.size());
  if (name) return static_cast<std::size_t>(static_cast<const char*>(name) - text.data());
  const std::size_t rest = text.size() - std::min(text.size(), kQuotedName.size() - 1);
  return std::min(text.find('"', rest), text.size());
}

}  // namespace

std::size_t TokenMask::Mask(char* text, std::size_t size, bool at_end) {
  for (std::size_t at = 0; at < size; ++at) {
    if (state_ == State::kText) at += FindQuotedName({text + at, size - at});
    if (at < size) Step(text[at]);
  }
  if (at_end) {
    if (InQuotes()) MaskRun(text + size, run_);
    const std::uint64_t count = count_;
    *this = TokenMask();
    count_ = count;
  } else if (InQuotes()) {
    size -= run_;
    run_ = 0;
  }
  return size;
}

void TokenMask::Step(char& byte) {
  switch (state_) {
    case State::kText:
      if (byte == '"') EnterKey();
      return;
    case State::kKey:
    case State::kKeyEnd:
    case State::kColon:
      StepKey(byte);
      return;
    case State::kValueStart:
      StepValueStart(byte);
      return;
    case State::kString:
      StepString(byte);
      return;
    case State::kScalar:
      if (std::string_view(" \t\r\n,]}\"\\").find(byte) == std::string_view::npos) {
        MaskByte(byte);
        return;
      }
      state_ = State::kText;
      Step(byte);
      return;
    case State::kContainer:
      StepContainer(byte);
      return;
  }
}

/// Reads the name, its closing quote and the colon. Nothing is masked yet.
void TokenMask::StepKey(char byte) {
  if (state_ == State::kKey && byte == kName[matched_]) {
    if (++matched_ == kName.size()) state_ = State::kKeyEnd;
  } else if (state_ == State::kKeyEnd && byte == '\\') {
    ++run_;
  } else if (state_ == State::kKeyEnd && byte == '"') {
    key_level_ = run_;
    run_ = 0;
    state_ = State::kColon;
  } else if (byte == '"') {
    EnterKey();
  } else if (state_ == State::kColon && byte == ':' && run_ == 0) {
    state_ = State::kValueStart;
  } else if (state_ != State::kColon || !TakesBlank(byte)) {
    state_ = State::kText;
  }
}

void TokenMask::StepValueStart(char& byte) {
  if (TakesBlank(byte)) return;
  counted_ = false;
  if (byte == '"') {
    level_ = run_;
    run_ = 0;
    state_ = State::kString;
    // Fewer backslashes than the name's quotes had: the string around the name ends before any value.
    if (level_ < key_level_) EnterKey();
  } else if (run_ > 0 || byte == ',' || byte == ']' || byte == '}') {
    state_ = State::kText;
  } else {
    const bool container = byte == '[' || byte == '{';
    MaskByte(byte);
    depth_ = 1;
    in_string_ = false;
    state_ = container ? State::kContainer : State::kScalar;
  }
}

void TokenMask::StepString(char& byte) {
  if (byte == '\\') {
    TakeBackslash(&byte);
  } else if (byte == '"' && run_ < key_level_) {
    EnterKey();
  } else if (byte == '"' && ClosesString(run_, level_)) {
    MaskRun(&byte, run_ - level_);
    run_ = 0;
    state_ = State::kText;
  } else {
    MaskRun(&byte, run_);
    if (byte == '\n') {
      state_ = State::kText;
    } else {
      MaskByte(byte);
    }
  }
}

void TokenMask::StepContainer(char& byte) {
  if (byte == '\\') {
    TakeBackslash(&byte);
    return;
  }
  if (byte == '"' && run_ < key_level_) {
    EnterKey();
    return;
  }
  if (byte == '"' && !in_string_) {
    level_ = run_;
    in_string_ = true;
  } else if (byte == '"' && ClosesString(run_, level_)) {
    in_string_ = false;
  } else if (!in_string_) {
    if (byte == '[' || byte == '{') ++depth_;
    if (byte == ']' || byte == '}') --depth_;
  }
  MaskRun(&byte, run_);
  // JSON strings hold no line ends: the text was cut off in this one.
  if (depth_ == 0 || (byte == '\n' && in_string_)) state_ = State::kText;
  if (byte != '\n') MaskByte(byte);
}

/// Takes a blank between name, colon and value: one byte, or a backslash with its letter, one after the other.
bool TokenMask::TakesBlank(char byte) {
  if (byte == '\\') {
    ++run_;
    return true;
  }
  const std::string_view blanks = run_ > 0 ? "nrt" : " \t\r\n";
  if (blanks.find(byte) == std::string_view::npos) return false;
  run_ = 0;
  return true;
}

/// Takes a backslash of a quoted value. What it means is told by the byte behind the run.
void TokenMask::TakeBackslash(char* byte) {
  if (++run_ == kMaxBackslashes) MaskRun(byte + 1, run_);
}

/// Line ends stay.
void TokenMask::MaskByte(char& byte) {
  if (byte == '\r') return;
  byte = kMask;
  if (!counted_) ++count_;
  counted_ = true;
}

/// Masks the first `count` bytes of the run of backslashes that ends before `end`.
void TokenMask::MaskRun(char* end, std::size_t count) {
  std::for_each(end - run_, end - run_ + count, [this](char& byte) { MaskByte(byte); });
  run_ -= count;
}

void TokenMask::EnterKey() {
  state_ = State::kKey;
  matched_ = 0;
  run_ = 0;
}

std::string Masked(std::string_view text) {
  TokenMask mask;
  std::string out(text);
  static_cast<void>(mask.Mask(out.data(), out.size(), true));
  return out;
}

}  // namespace TARVO::SupportForm
