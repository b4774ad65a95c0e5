/// slow_texts [COUNT]: makes texts that could be slow to search for secrets: each fixed word of the built-in rules,
/// with each kind of neighbour, again and again. Those whose first 16 KiB cost much are searched for a MiB. Prints
/// the CPU seconds per GiB of the COUNT (10) slowest ones. Exit status 1 if one costs more than it should.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "redactor.h"

namespace {

using TARVO::SupportForm::RedactionRules;
using TARVO::SupportForm::Redactor;

constexpr std::size_t kTextBytes = std::size_t{1} << 20;
/// Of the last two rounds. A text's beginning may cost more; of so much it is a small part.
constexpr std::size_t kLongTextBytes = std::size_t{1} << 23;
constexpr std::size_t kFirstBytes = std::size_t{1} << 14;  ///< So much is enough to sort out what is fast.
constexpr double kMostSeconds = 20;                        ///< For a GiB of any text.
constexpr int kRounds = 8;
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

struct Text {
  std::string shape;
  std::string word;
  double seconds = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const std::size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10;
  const RedactionRules rules("/nonexistent/patterns");
  std::vector<Text> texts;
  for (const TARVO::SupportForm::FixedWord& word : TARVO::SupportForm::FixedWords()) {
    for (const std::string& shape : Shapes()) {
      texts.push_back({shape, word.text, SecondsPerGiB(rules, Repeated(shape, word.text, kFirstBytes))});
    }
  }
  const auto slower = [](const Text& a, const Text& b) { return a.seconds > b.seconds; };
  std::sort(texts.begin(), texts.end(), slower);
  const double median = texts[texts.size() / 2].seconds;
  const std::size_t all = texts.size();
  const auto fast =
      std::find_if(texts.begin(), texts.end(), [](const Text& text) { return text.seconds < kMostSeconds; });
  texts.erase(std::max(fast, texts.begin() + static_cast<std::ptrdiff_t>(std::min(count, all))), texts.end());
  const std::size_t measured = texts.size();
  const auto measure = [&](const Text& text, std::size_t bytes) {
    return SecondsPerGiB(rules, Repeated(text.shape, text.word, bytes));
  };
  for (Text& text : texts) text.seconds = measure(text, kTextBytes);
  // The least of a few rounds, as other work on the machine makes all of them slow for seconds at a time.
  for (int round = 0; round < kRounds; ++round) {
    const std::size_t bytes = round + 2 < kRounds ? kTextBytes : kLongTextBytes;
    for (Text& text : texts) {
      if (text.seconds > kMostSeconds) text.seconds = std::min(text.seconds, measure(text, bytes));
    }
  }
  std::sort(texts.begin(), texts.end(), slower);
  texts.resize(std::min(texts.size(), count));
  std::printf("CPU s per GiB       repeated text\n");
  for (const Text& text : texts) {
    std::string shown;
    for (const char byte : Repeated(text.shape, text.word, 1).substr(0, 60)) shown += byte < ' ' ? '.' : byte;
    const char* mark = text.seconds > kMostSeconds ? "ABOVE" : "";
    std::printf("%13.1f %-5s %s\n", text.seconds, mark, shown.c_str());
  }
  std::printf("%13.1f       (median at the first look)\n", median);
  std::printf("%zu of %zu texts looked at again, a MiB of each\n", measured, all);
  return !texts.empty() && texts.front().seconds > kMostSeconds ? 1 : 0;
}
