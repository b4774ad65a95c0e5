#include "redactor.h"

#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <string>

#include "byte_class.h"
#include "look_cost.h"
#include "text_look.h"

namespace TARVO::SupportForm {
namespace {

/// Bytes before and behind a hit that are looked at: for the finder, or for a pattern with a byte more that tells
/// whether a word or line begins there.
constexpr std::size_t kReach = kFinderReach + 1;
/// The longest text form of a private key: of 16,384 bits it has 13 KB, and each of its lines may have a prefix.
constexpr std::size_t kKeyBytes = std::size_t{32} << 10;
/// Within so many bytes of a key's first or last line its base64 text has begun: header lines come first.
constexpr std::size_t kKeyHeadBytes = 512;
/// Where the allowance is spent, so much text is masked as a whole, and the rest of its last line.
constexpr std::size_t kMaskedPartBytes = std::size_t{16} << 10;
/// Nanoseconds of processor time, about: of a word that is found, of a key's marker, and of a secret.
constexpr std::uint64_t kWordCost = 75;
constexpr std::uint64_t kMarkerCost = 150;
constexpr std::uint64_t kSecretCost = 100;
/// Words in a secret betray nothing more. Where at least kLeastSkipped bytes of it lie before its last kSecretTail, the
/// scan passes over them.
constexpr std::size_t kLeastSkipped = 1024;
constexpr std::size_t kSecretTail = 1024;
constexpr std::size_t kTokenBytes = 5;  ///< Of the word "token".

/// Masks all but line ends.
void MaskBytes(char* begin, const char* end) {
  for (; begin < end; ++begin) {
    if (!Is(*begin, kLineEnd)) *begin = '*';
  }
}

/// What the finder may look at around a hit: the same however the text is cut.
std::size_t WindowBegin(std::size_t hit) { return hit - std::min(hit, kFinderReach); }
std::string_view Window(std::string_view text, std::size_t hit) {
  const std::size_t begin = WindowBegin(hit);
  return text.substr(begin, hit - begin + kFinderReach);
}

/// What an offset of this block is in the next one.
std::size_t Carried(std::size_t offset, std::size_t decided) { return offset - std::min(offset, decided); }

/// Whether it is a NUL byte or a control character that text does not use.
constexpr bool IsUnusual(char c) {
  const auto byte = static_cast<unsigned char>(c);
  const bool control = byte < 0x20 || byte == 0x7f;
  const bool layout = byte >= '\b' && byte <= '\r';
  const bool escape = byte == 0x1b;
  return control && !layout && !escape;
}

/// Whether some byte IsUnusual(). The heads of all files are looked at so, and most hold none.
bool HasUnusual(std::string_view text) {
  // With a result for each place of a part the compiler looks at 16 bytes at once. With a single result it would need
  // ten instructions for each byte.
  std::array<unsigned char, 64> unusual = {};
  for (; text.size() >= unusual.size(); text.remove_prefix(unusual.size())) {
    const char* const part = text.data();
    for (std::size_t at = 0; at < unusual.size(); ++at) {
      unusual[at] = static_cast<unsigned char>(unusual[at] | static_cast<unsigned char>(IsUnusual(part[at])));
    }
  }
  return std::any_of(text.begin(), text.end(), IsUnusual) ||
         std::any_of(unusual.begin(), unusual.end(), [](unsigned char place) { return place != 0; });
}

}  // namespace

Redactor::Redactor(const RedactionRules* rules) : rules_(rules) {
  if (!rules_) return;
  words_memory_ = rules_->built_in().NewMemory();
  found_until_.resize(rules_->pattern_count());
}

Redactor::~Redactor() = default;

std::size_t Redactor::Process(char* data, std::size_t size, bool at_end) {
  std::size_t decided = rules_ ? FindSecrets({data, size}, at_end) : size;
  // All secrets are found in the text as it was; only then is it masked.
  // The scan has found each "token" that begins in what is decided, so a second search is needed only behind one.
  if (!rules_ || token_until_ > 0 || !token_mask_.IsOutside()) {
    decided = token_mask_.Mask(data, decided, at_end);
  }
  MaskDecided(data, decided);
  return decided;
}

/// Finds the secrets of the block up to the horizon.
/// @return How much of the block is decided.
std::size_t Redactor::FindSecrets(std::string_view text, bool at_end) {
  // Of the text's beginning so much is held back as the rest of a key may fill.
  const std::size_t least = 2 * kReach + (begun_ ? 0 : kKeyBytes);
  if (!at_end && text.size() <= least) return 0;
  text_ = text;
  at_end_ = at_end;
  horizon_ = at_end ? text.size() : text.size() - kReach;
  GoOnWithSecrets();
  // A word is found by its own bytes, a match of a pattern by the text around it too.
  Scan(rules_->built_in(), *words_memory_, &Redactor::TakeWord, RedactionRules::kMaxEndBytes, horizon_);
  if (rules_->from_file()) {
    Scan(*rules_->from_file(), patterns_memory_, &Redactor::TakePattern, kReach, text.size());
  }
  taken_ = horizon_;
  if (in_key_ && (at_end || key_limit_ <= horizon_)) EndKey(horizon_);
  return at_end ? text.size() : horizon_ - kReach;
}

/// Calls `take` with the number and the end of each hit that is due, in the order of their ends.
/// @param take    Returns the offset up to which no further hit is wanted.
/// @param before  So many bytes before the end of a hit decide on it.
/// @param end     The text behind it decides on no hit that is due.
template <typename Scanner>
void Redactor::Scan(const Scanner& scanner, typename Scanner::Memory& memory,
                    std::size_t (Redactor::*take)(unsigned, std::size_t), std::size_t before,
                    std::size_t end) {
  std::size_t taken = taken_;
  bool is_passed_over = true;  // the scan was ended, to go on behind `taken`
  while (is_passed_over && taken < horizon_) {
    is_passed_over = false;
    const std::size_t begin = taken - std::min(taken, before);
    const auto on_hit = [&](unsigned number, std::size_t offset) {
      const std::size_t hit = begin + offset;
      if (hit > horizon_) return false;
      if (hit <= taken) return true;
      const std::size_t until = (this->*take)(number, hit);
      is_passed_over = until > hit;
      if (is_passed_over) taken = until;
      return !is_passed_over;
    };
    try {
      scanner.Scan(text_.substr(begin, end - begin), memory, on_hit);
    } catch (const ScannerError& error) {
      throw RedactionError(std::string("the text can't be searched for secrets: ") + error.what());
    }
  }
}

std::size_t Redactor::TakeWord(unsigned end, std::size_t hit) {
  const std::optional<unsigned> word = rules_->WordAtEnd(end, text_.substr(0, hit));
  if (word && IsTokenWord(*word)) token_until_ = hit;
  if (word && IsKeyMarkerWord(*word)) {
    const std::optional<KeyMarker> marker = FindKeyMarker(Window(text_, hit), hit - WindowBegin(hit));
    if (marker) TakeKeyMarker({marker->begins_key, marker->begin + WindowBegin(hit), hit});
    allowance_.Spend(position_ + hit, kWordCost + kMarkerCost);
    return hit;
  }
  if (!taken_secrets_.empty()) {
    taken_secrets_.erase(std::remove_if(taken_secrets_.begin(), taken_secrets_.end(),
                                        [&](const Span& span) { return span.end < hit; }),
                         taken_secrets_.end());
  }
  if (word && TakenUntil(hit) == 0) {
    const std::size_t begin = WindowBegin(hit);
    found_.clear();
    const std::uint64_t before = look_cost;
    finder_.Find(*word, Window(text_, hit), hit - begin, position_ + begin, found_);
    allowance_.Spend(position_ + hit, look_cost - before + kSecretCost * found_.size());
    for (Secret& secret : found_) {
      secret.begin += begin;
      secret.end += begin;
      if (TakenUntil(secret.begin + 1) == 0) TakeSecret(secret);
    }
  }
  std::size_t until = TakenUntil(hit + 1);
  if (until < hit + kSecretTail) {
    allowance_.Spend(position_ + hit, kWordCost);
    if (!allowance_.IsSpent()) return hit;
    allowance_.Forgive();
    TakeSecret({hit, SecretForm::kLines, 0, '\0', kMaskedPartBytes});
    const std::size_t before = until;
    until = TakenUntil(hit + 1);
    if (until > std::max(before, hit)) ++masked_parts_;
  }
  // How much is passed over depends on where blocks end. The last kSecretTail bytes never are, so only words in
  // them are charged: the cost is the same however the text is cut.
  until = std::min(until - std::min(until, kSecretTail), horizon_);
  if (until < hit + kLeastSkipped) return hit;
  LookInSecret(hit, until);
  return until;
}

/// Finds what the scan, which passes over the secret, would find in it.
void Redactor::LookInSecret(std::size_t begin, std::size_t end) {
  const std::string_view text = text_.substr(0, end);
  if (text.find("token", begin - std::min(begin, kTokenBytes)) != npos) token_until_ = end;
  std::size_t dashes = text.substr(0, begin).find_last_not_of('-') + 1;
  while ((dashes = text.find("----", dashes)) != npos) {
    const std::size_t window = WindowBegin(dashes);
    const std::optional<KeyMarker> marker = FindKeyMarkerAt(text.substr(window), dashes - window);
    if (marker && marker->end + window > begin) {
      TakeKeyMarker({marker->begins_key, marker->begin + window, marker->end + window});
    }
    dashes = std::min(text.find_first_not_of('-', dashes), end);
  }
}

/// Where the secret ends that holds the byte before `offset`: 0 where none does, npos where that is not known yet.
std::size_t Redactor::TakenUntil(std::size_t offset) const {
  std::size_t until = 0;
  for (const Span& span : taken_secrets_) {
    if (span.begin < offset && offset <= span.end) until = std::max(until, span.end);
  }
  for (const OpenSecret& open : open_) {
    if (open.begin < offset) until = npos;
  }
  return until;
}

void Redactor::TakeSecret(const Secret& secret) {
  std::size_t end = secret.end;
  if (secret.form != SecretForm::kFixed) {
    SecretEnd search(secret);
    end = search.Find(text_, secret.begin, at_end_);
    if (end == npos) {
      open_.push_back({search, secret.begin, text_.size()});
      ++count_;
      return;
    }
  }
  if (end <= secret.begin) return;
  spans_.push_back({secret.begin, end});
  taken_secrets_.push_back({secret.begin, end});
  ++count_;
}

/// Looks in this block for the ends of secrets that began in a former one.
void Redactor::GoOnWithSecrets() {
  for (OpenSecret& open : open_) {
    const std::size_t end = open.search.Find(text_, open.until, at_end_);
    open.until = text_.size();
    if (end == npos) continue;
    spans_.push_back({open.begin, end});
    taken_secrets_.push_back({open.begin, end});
    open.until = npos;
  }
  open_.erase(
      std::remove_if(open_.begin(), open_.end(), [](const OpenSecret& open) { return open.until == npos; }),
      open_.end());
}

void Redactor::TakeKeyMarker(const KeyMarker& marker) {
  if (in_key_) {
    EndKey(marker.begin);
  } else if (!marker.begins_key && !key_seen_ && !begun_ && marker.begin <= kKeyBytes) {
    // The text begins in the middle of a key.
    const std::size_t head = std::min(marker.begin, kKeyHeadBytes);
    if (!HasKeyMaterial(text_.substr(marker.begin - head, head))) return;
    spans_.push_back({0, marker.begin});
    ++count_;
  }
  key_seen_ = true;
  if (marker.begins_key && HasKeyMaterial(text_.substr(marker.end, kKeyHeadBytes))) {
    in_key_ = true;
    key_begin_ = marker.end;
    key_limit_ = marker.end + kKeyBytes;
    ++count_;
  }
}

void Redactor::EndKey(std::size_t end) {
  spans_.push_back({key_begin_, std::min(end, key_limit_)});
  in_key_ = false;
}

/// Finds all matches of a pattern in the line around a hit; of a long line, in what may hold a match there.
std::size_t Redactor::TakePattern(unsigned number, std::size_t hit) {
  if (hit <= found_until_[number]) return hit;
  const std::size_t reach_begin = hit - std::min(hit, kFinderReach);
  const std::size_t line = text_.substr(reach_begin, hit - reach_begin).rfind('\n');
  const std::size_t line_end = text_.substr(hit, kFinderReach).find('\n');
  const std::size_t begin = line == npos ? reach_begin : reach_begin + line + 1;
  const std::size_t end = line_end == npos ? std::min(hit + kFinderReach, text_.size()) : hit + line_end;
  found_until_[number] = end;
  // A byte more where the line goes on, so that "^", "$" and "\b" don't take its cut for an end.
  const bool cut_begin = line == npos && begin > 0;
  const bool cut_end = line_end == npos && end < text_.size();
  const std::size_t context = begin - (cut_begin ? 1 : 0);
  const re2::StringPiece window(text_.data() + context, end + (cut_end ? 1 : 0) - context);
  const re2::RE2& pattern = rules_->from_file()->pattern(number);
  std::array<re2::StringPiece, 2> groups;
  std::size_t at = begin - context;
  while (at <= end - context && pattern.Match(window, at, end - context, re2::RE2::UNANCHORED, groups.data(),
                                              1 + pattern.NumberOfCapturingGroups())) {
    const re2::StringPiece& secret = groups[1].data() ? groups[1] : groups[0];
    const auto secret_begin = static_cast<std::size_t>(secret.data() - text_.data());
    if (!secret.empty()) {
      spans_.push_back({secret_begin, secret_begin + secret.size()});
      ++count_;
    }
    const auto match_end = static_cast<std::size_t>(groups[0].data() - window.data()) + groups[0].size();
    at = std::max(match_end, at + 1);
  }
  return hit;
}

/// Masks what is decided, and turns the offsets of what is not into those of the next block.
void Redactor::MaskDecided(char* data, std::size_t decided) {
  for (const Span& span : spans_) MaskBytes(data + span.begin, data + std::min(span.end, decided));
  for (const OpenSecret& open : open_) MaskBytes(data + open.begin, data + decided);
  if (in_key_) MaskBytes(data + key_begin_, data + decided);
  spans_.erase(
      std::remove_if(spans_.begin(), spans_.end(), [&](const Span& span) { return span.end <= decided; }),
      spans_.end());
  for (std::vector<Span>* spans : {&spans_, &taken_secrets_}) {
    for (Span& span : *spans) span = {Carried(span.begin, decided), Carried(span.end, decided)};
  }
  for (OpenSecret& open : open_) {
    open.begin = Carried(open.begin, decided);
    open.until = Carried(open.until, decided);
  }
  for (std::size_t* offset : {&taken_, &key_begin_, &key_limit_, &token_until_}) {
    *offset = Carried(*offset, decided);
  }
  position_ += decided;
  for (std::size_t& offset : found_until_) offset = Carried(offset, decided);
  begun_ = begun_ || decided > 0;
}

std::string Redacted(std::string text, const RedactionRules* rules) {
  static_cast<void>(Redactor(rules).Process(text.data(), text.size(), true));
  return text;
}

bool LooksLikeText(std::string_view head) {
  constexpr std::size_t kPadding = 16;
  if (head.substr(0, 2) == "\xff\xfe" || head.substr(0, 2) == "\xfe\xff") return false;
  if (!HasUnusual(head)) return true;
  std::size_t nuls = 0;
  std::size_t controls = 0;
  for (std::size_t at = 0; at < head.size(); ++at) {
    if (head[at] == '\0') {
      const std::size_t end = std::min(head.find_first_not_of('\0', at), head.size());
      if (end - at < kPadding) return false;
      nuls += end - at;
      at = end - 1;
    } else if (IsUnusual(head[at])) {
      ++controls;
    }
  }
  return (head.empty() || nuls < head.size()) && controls * 50 <= head.size();
}

}  // namespace TARVO::SupportForm
