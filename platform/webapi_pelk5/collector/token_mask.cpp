#include "token_mask.h"

namespace TARVO::SupportForm {
namespace {

constexpr std::string_view kName = "token";
constexpr char kMask = '*';

}  // namespace

void TokenMask::Feed(std::string_view in, std::string& out) {
  while (!in.empty()) {
    if (state_ == State::kText) {
      // Most text is passed through in blocks: only a quote can begin a name.
      const std::size_t plain = std::min(in.find('"'), in.size());
      out.append(in.substr(0, plain));
      in.remove_prefix(plain);
      if (in.empty()) return;
    }
    Step(in.front(), out);
    in.remove_prefix(1);
  }
}

void TokenMask::Finish(std::string& out) {
  if (state_ == State::kString || state_ == State::kContainer) FlushRun(kMask, run_, out);
  *this = TokenMask();
}

void TokenMask::Step(char byte, std::string& out) {
  switch (state_) {
    case State::kText:
      out.push_back(byte);
      if (byte == '"') EnterKey();
      return;
    case State::kKey:
    case State::kKeyEnd:
    case State::kColon:
      StepKey(byte, out);
      return;
    case State::kValueStart:
      StepValueStart(byte, out);
      return;
    case State::kString:
      StepString(byte, out);
      return;
    case State::kScalar:
      if (std::string_view(" \t\r\n,]}\"\\").find(byte) == std::string_view::npos) {
        out.push_back(kMask);
        return;
      }
      state_ = State::kText;
      Step(byte, out);
      return;
    case State::kContainer:
      StepContainer(byte, out);
      return;
  }
}

/// Reads the name, its closing quote and the colon. Nothing is masked yet.
void TokenMask::StepKey(char byte, std::string& out) {
  out.push_back(byte);
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

void TokenMask::StepValueStart(char byte, std::string& out) {
  if (TakesBlank(byte)) {
    out.push_back(byte);
  } else if (byte == '"') {
    out.push_back(byte);
    level_ = run_;
    run_ = 0;
    state_ = State::kString;
    // Fewer backslashes than the name's quotes had: the string around the name ends before any value.
    if (level_ < key_level_) EnterKey();
  } else if (run_ > 0 || byte == ',' || byte == ']' || byte == '}') {
    out.push_back(byte);
    state_ = State::kText;
  } else {
    out.push_back(kMask);
    const bool container = byte == '[' || byte == '{';
    depth_ = 1;
    in_string_ = false;
    state_ = container ? State::kContainer : State::kScalar;
  }
}

void TokenMask::StepString(char byte, std::string& out) {
  if (byte == '\\') {
    ++run_;
  } else if (byte == '"' && run_ < key_level_) {
    FlushRun('\\', run_, out);
    out.push_back(byte);
    EnterKey();
  } else if (byte == '"' && EndsString()) {
    FlushRun(kMask, run_ - level_, out);
    FlushRun('\\', run_, out);
    out.push_back(byte);
    state_ = State::kText;
  } else {
    FlushRun(kMask, run_, out);
    out.push_back(byte == '\n' ? byte : kMask);
    if (byte == '\n') state_ = State::kText;
  }
}

void TokenMask::StepContainer(char byte, std::string& out) {
  if (byte == '\\') {
    ++run_;
    return;
  }
  if (byte == '"' && run_ < key_level_) {
    FlushRun('\\', run_, out);
    out.push_back(byte);
    EnterKey();
    return;
  }
  if (byte == '"' && !in_string_) {
    level_ = run_;
    in_string_ = true;
  } else if (byte == '"' && EndsString()) {
    in_string_ = false;
  } else if (!in_string_) {
    if (byte == '[' || byte == '{') ++depth_;
    if (byte == ']' || byte == '}') --depth_;
  }
  FlushRun(kMask, run_, out);
  out.push_back(byte == '\n' ? byte : kMask);
  // JSON strings hold no line ends: the text was cut off in this one.
  if (depth_ == 0 || (byte == '\n' && in_string_)) state_ = State::kText;
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

/// Appends `count` times `as` in place of that many of the backslashes held back.
void TokenMask::FlushRun(char as, std::size_t count, std::string& out) {
  out.append(count, as);
  run_ -= count;
}

void TokenMask::EnterKey() {
  state_ = State::kKey;
  matched_ = 0;
  run_ = 0;
}

/// Whether a quote with `run_` backslashes before it closes the string whose opening quote had `level_`. Each
/// level of quoting turns n backslashes into 2n, and 2n + 1 before a quote; what exceeds the opening quote's
/// are escaped backslashes of the content, and these come in multiples of 2 (level_ + 1).
bool TokenMask::EndsString() const { return run_ >= level_ && (run_ - level_) % (2 * (level_ + 1)) == 0; }

std::string Masked(std::string_view text) {
  TokenMask mask;
  std::string out;
  out.reserve(text.size());
  mask.Feed(text, out);
  mask.Finish(out);
  return out;
}

}  // namespace TARVO::SupportForm
