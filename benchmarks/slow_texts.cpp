/// slow_texts [COUNT]: makes texts that could be slow to search for secrets: each fixed word of the built-in rules,
/// with each kind of neighbour, again and again. Those whose first 16 KiB cost much are searched for a MiB, those
/// that still do for four. Prints the CPU seconds per GiB of the COUNT (10) slowest ones, at the full speed that the
/// machine showed. Exit status 1 if one costs more than it should.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "redactor.h"

namespace {

using TARVO::SupportForm::RedactionRules;
using TARVO::SupportForm::Redactor;

constexpr std::size_t kFirstBytes = std::size_t{1} << 14;  ///< So much is enough to sort out what is fast.
constexpr std::size_t kTextBytes = std::size_t{1} << 20;
/// A text's beginning may cost more; of so much it is a small part.
constexpr std::size_t kLongTextBytes = std::size_t{1} << 22;
constexpr std::size_t kLogBytes = std::size_t{1} << 18;
constexpr double kMostSeconds = 20;  ///< For a GiB of any text.
constexpr int kWarmUps = 500;        ///< Looks at the log, until it was searched at the machine's full speed.
constexpr std::size_t kPairs = 15;
constexpr double kGiB = 1024.0 * 1024 * 1024;

/// What is repeated; "@" stands for a word.
const std::vector<std::string>& Shapes() {
  static const std::string blanks(250, ' ');
  static const std::string letters(190, 'x');
  static const std::vector<std::string> shapes = {"@",
                                                  "@ ",
                                                  "@=",
                                                  "@: ",
                                                  "@=x ",
                                                  "@ x ",
                                                  "\"@\":",
                                                  "\"@\":\"",
                                                  "\"@\",",
                                                  ":\"@\",",
                                                  "=\"@\" ",
                                                  "'@'",
                                                  "@\n",
                                                  "@: x\n",
                                                  "\n@ x y\n",
                                                  "\n@:\n",
                                                  "@" + blanks,
                                                  "@" + blanks + "=",
                                                  "@" + letters,
                                                  letters + "@",
                                                  "-@ ",
                                                  "--@ a ",
                                                  "--@=",
                                                  "<@>",
                                                  "<x:@ ",
                                                  "<@ a=\"",
                                                  "/@",
                                                  "@://",
                                                  "://@",
                                                  "@://a:",
                                                  "a@:",
                                                  "@'",
                                                  "='@",
                                                  "@=\"",
                                                  "@=\\\"",
                                                  "\\\"@\\\":\\\"",
                                                  "@=[",
                                                  "@: |\n",
                                                  "\n @:\n   x\n",
                                                  "@ is ",
                                                  "@ for a ",
                                                  "@ to 'x",
                                                  "@(\"",
                                                  "('@', '",
                                                  "{\"name\":\"@\",",
                                                  "@=${",
                                                  "@=$(",
                                                  "@=<",
                                                  "@={{",
                                                  "@=xx",
                                                  "@%3D",
                                                  "&quot;@&quot;:",
                                                  "\\u0022@",
                                                  "%22@%22",
                                                  "\x1b[31m@\x1b[0m=",
                                                  "@=<<E\n",
                                                  "@=\"\"\"",
                                                  "@ 7 ",
                                                  "login x @ ",
                                                  "# @: ",
                                                  "@ a:b ",
                                                  "@;",
                                                  "|@ ",
                                                  "@,",
                                                  "@@@=",
                                                  "x@",
                                                  "_@",
                                                  "@_",
                                                  "@.",
                                                  ".@",
                                                  "A@",
                                                  "1@",
                                                  "@1",
                                                  "@abc123DEF456ghi789"};
  return shapes;
}

std::string Repeated(const std::string& shape, const std::string& word, std::size_t size) {
  std::string unit = shape;
  for (std::size_t at = unit.find('@'); at != std::string::npos; at = unit.find('@', at + word.size())) {
    unit.replace(at, 1, word);
  }
  std::string text;
  while (text.size() < size) text += unit;
  return text;
}

double CpuSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Of one run, in blocks as the collector reads them.
double SecondsPerGiB(const RedactionRules& rules, const std::string& text) {
  constexpr std::size_t kBlock = std::size_t{256} << 10;
  Redactor redactor(&rules);
  std::string block;
  std::size_t read = 0;
  const double begin = CpuSeconds();
  while (read < text.size()) {
    const std::size_t size = std::min(kBlock - std::min(kBlock, block.size()) + 1, text.size() - read);
    block.append(text, read, size);
    read += size;
    block.erase(0, redactor.Process(block.data(), block.size(), read == text.size()));
  }
  return (CpuSeconds() - begin) * kGiB / static_cast<double>(text.size());
}

/// Searches texts beside an ordinary log: what else the machine does makes it slow for seconds at a time, and both alike.
class PairedClock {
 public:
  explicit PairedClock(const RedactionRules& rules)
      : rules_(rules),
        log_(Repeated("@\n", "sshd[71]: Failed password for bob from 10.0.0.7 port 4222", kLogBytes)) {
    for (int look = 0; look < kWarmUps; ++look) SearchLog();
  }

  /// @return CPU seconds per GiB as it is measured.
  [[nodiscard]] double Measure(const std::string& text) const { return SecondsPerGiB(rules_, text); }

  /// @return How much slower the text is than the log that is searched before and after it.
  double MeasureRatio(const std::string& text) {
    const double before = SearchLog();
    const double seconds = Measure(text);
    return 2 * seconds / (before + SearchLog());
  }

  /// CPU seconds per GiB of the log at the machine's full speed.
  [[nodiscard]] double least() const { return least_; }

 private:
  double SearchLog() {
    const double seconds = Measure(log_);
    least_ = std::min(least_, seconds);
    return seconds;
  }

  const RedactionRules& rules_;
  const std::string log_;
  double least_ = std::numeric_limits<double>::max();
};

struct Text {
  std::string shape;
  std::string word;
  double seconds = 0;  ///< CPU seconds per GiB, at full speed once it is measured beside the log.

  [[nodiscard]] std::string Make(std::size_t bytes) const { return Repeated(shape, word, bytes); }
};

/// Sorts the texts, and leaves those that cost too much, but at least `count`.
void KeepSlow(std::vector<Text>& texts, std::size_t count) {
  std::sort(texts.begin(), texts.end(), [](const Text& a, const Text& b) { return a.seconds > b.seconds; });
  const auto fast =
      std::find_if(texts.begin(), texts.end(), [](const Text& text) { return text.seconds < kMostSeconds; });
  const auto kept = static_cast<std::size_t>(fast - texts.begin());
  texts.resize(std::min(texts.size(), std::max(kept, count)));
}

/// The median of several pairs, fewer where the first ones agree that it is fast.
double MedianOfPairs(PairedClock& clock, const std::string& text) {
  std::vector<double> ratios;
  while (ratios.size() < kPairs) {
    ratios.push_back(clock.MeasureRatio(text));
    std::sort(ratios.begin(), ratios.end());
    if (ratios.size() >= 3 && ratios.back() * clock.least() < kMostSeconds) break;
  }
  return ratios[ratios.size() / 2] * clock.least();
}

void Print(const std::vector<Text>& texts) {
  std::printf("CPU s per GiB       repeated text\n");
  for (const Text& text : texts) {
    std::string shown;
    for (const char byte : text.Make(1).substr(0, 60)) shown += byte < ' ' ? '.' : byte;
    const char* mark = text.seconds > kMostSeconds ? "ABOVE" : "";
    std::printf("%13.1f %-5s %s\n", text.seconds, mark, shown.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10;
  const RedactionRules rules("/nonexistent/patterns");
  PairedClock clock(rules);
  std::vector<Text> texts;
  for (const TARVO::SupportForm::FixedWord& word : TARVO::SupportForm::FixedWords()) {
    for (const std::string& shape : Shapes()) {
      texts.push_back({shape, word.text, 0});
      texts.back().seconds = clock.Measure(texts.back().Make(kFirstBytes));
    }
  }
  const std::size_t all = texts.size();
  KeepSlow(texts, count);
  const std::size_t measured = texts.size();
  for (Text& text : texts) text.seconds = clock.MeasureRatio(text.Make(kTextBytes)) * clock.least();
  KeepSlow(texts, count);
  const std::size_t measured_long = texts.size();
  for (Text& text : texts) text.seconds = MedianOfPairs(clock, text.Make(kLongTextBytes));
  KeepSlow(texts, count);
  const bool any_is_slow = !texts.empty() && texts.front().seconds > kMostSeconds;
  texts.resize(std::min(texts.size(), count));
  Print(texts);
  std::printf("%zu of %zu texts searched for a MiB, %zu for four; a log costs %.1f CPU s per GiB\n", measured,
              all, measured_long, clock.least());
  return any_is_slow ? 1 : 0;
}
