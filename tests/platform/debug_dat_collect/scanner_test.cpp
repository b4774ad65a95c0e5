#include "scanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <re2/re2.h>

#include <algorithm>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

using Hits = std::vector<std::pair<unsigned, std::size_t>>;

Hits HitsOf(const WordScanner& scanner, std::string_view text) {
  Hits hits;
  const WordMemory memory = scanner.NewMemory();
  scanner.Scan(text, *memory, [&](unsigned number, std::size_t end) {
    hits.emplace_back(number, end);
    return true;
  });
  return hits;
}

PatternScanner Patterns(const std::vector<std::string>& texts) {
  std::vector<std::unique_ptr<re2::RE2>> patterns;
  patterns.reserve(texts.size());
  for (const std::string& text : texts) {
    patterns.push_back(std::make_unique<re2::RE2>(text, re2::RE2::Latin1));
  }
  return PatternScanner(std::move(patterns));
}

Hits HitsOf(const PatternScanner& scanner, std::string_view text) {
  Hits hits;
  PatternScanner::Memory memory;
  scanner.Scan(text, memory, [&](unsigned number, std::size_t end) {
    hits.emplace_back(number, end);
    return true;
  });
  return hits;
}

TEST(ScannerTest, WordsAreFoundWhereverTheyStandInTheOrderOfTheirEnds) {
  const WordScanner scanner(
      std::vector<ScannedWord>{{"abcd", false}, {"bc", false}, {"d-e", false}, {"e", false}});
  EXPECT_THAT(HitsOf(scanner, "xabcd-e"), ElementsAre(Pair(1, 4), Pair(0, 5), Pair(2, 7), Pair(3, 7)));
  EXPECT_THAT(HitsOf(scanner, "bcbcc"), ElementsAre(Pair(1, 2), Pair(1, 4)));
  EXPECT_THAT(HitsOf(scanner, "abc"), ElementsAre(Pair(1, 3)));
  EXPECT_THAT(HitsOf(scanner, ""), IsEmpty());
}

TEST(ScannerTest, WordsThatBeginAlikeAreAllFound) {
  const WordScanner scanner(std::vector<ScannedWord>{{"aaa", false}, {"aa", false}, {"a", false}});
  const Hits hits = HitsOf(scanner, "aaa");
  EXPECT_THAT(hits,
              UnorderedElementsAre(Pair(2, 1), Pair(2, 2), Pair(1, 2), Pair(2, 3), Pair(1, 3), Pair(0, 3)));
  for (std::size_t at = 1; at < hits.size(); ++at) EXPECT_LE(hits[at - 1].second, hits[at].second);
}

TEST(ScannerTest, CaseCountsUnlessAWordSaysOtherwise) {
  const WordScanner scanner(std::vector<ScannedWord>{{"pin", true}, {"Key", false}});
  EXPECT_THAT(HitsOf(scanner, "PIN pIn KEY Key key"), ElementsAre(Pair(0, 3), Pair(0, 7), Pair(1, 15)));
}

TEST(ScannerTest, WordsAreOfBytesAndNoPatterns) {
  const WordScanner scanner(std::vector<ScannedWord>{{"a.b|c", false}, {"\xff\n", false}});
  EXPECT_THAT(HitsOf(scanner, std::string("axb a.b|c \0\xff\n", 13)), ElementsAre(Pair(0, 9), Pair(1, 13)));
}

TEST(ScannerTest, PatternsAreFoundInEachLine) {
  const PatternScanner scanner = Patterns({"^id=\\d", "\\d$", "never"});
  const std::string text = "id=1\nx id=2 \nid=3x";
  std::set<std::pair<unsigned, long>> found;  // by the number of the line
  for (const auto& [number, end] : HitsOf(scanner, text)) {
    found.emplace(number, std::count(text.begin(), text.begin() + static_cast<long>(end), '\n'));
  }
  EXPECT_THAT(found, UnorderedElementsAre(Pair(0, 0), Pair(1, 0), Pair(0, 2)));
}

TEST(ScannerTest, PatternsAreFoundNearEachMatchOfALongLine) {
  const PatternScanner scanner = Patterns({"mark=.*end"});
  std::string line;
  while (line.size() < 50'000) line += "the end of it ";
  for (const std::size_t place : {0U, 4080U, 4096U, 8190U, 30'000U}) {
    std::string text = line;
    text.insert(place, "mark=x end");
    const auto is_near = [&](const std::pair<unsigned, std::size_t>& hit) {
      return hit.second > place && hit.second <= place + 4096;
    };
    const Hits hits = HitsOf(scanner, text);
    EXPECT_TRUE(std::any_of(hits.begin(), hits.end(), is_near)) << place;
    for (std::size_t at = 1; at < hits.size(); ++at) EXPECT_LE(hits[at - 1].second, hits[at].second);
  }
}

TEST(ScannerTest, EachOfTwoPatternsIsFoundBesideTheOther) {
  std::string words;
  while (words.size() < 10'000) words += "the end of it ";
  for (std::size_t size = 100; size < words.size(); size += 700) {
    const std::string text = words.substr(0, size) + "customer: Miller\nnext\n";
    EXPECT_THAT(HitsOf(Patterns({"customer: (.*)", "mark=.*end"}), text), testing::Not(IsEmpty())) << size;
  }
}

/// Ends after two hits, and finds as many the second time.
template <typename Scanner>
void ExpectToEnd(const Scanner& scanner, typename Scanner::Memory& memory) {
  for (int round = 0; round < 2; ++round) {
    int hits = 0;
    scanner.Scan("a a a", memory, [&](unsigned, std::size_t) { return ++hits < 2; });
    EXPECT_EQ(hits, 2);
  }
  const auto fail = [](unsigned, std::size_t) -> bool { throw std::out_of_range("!"); };
  EXPECT_THROW(scanner.Scan("a", memory, fail), std::out_of_range);
}

TEST(ScannerTest, EndsWhenNoMoreIsWantedOrTheTakerThrows) {
  const WordScanner words({{"a", false}});
  ExpectToEnd(words, *words.NewMemory());
  PatternScanner::Memory memory;
  ExpectToEnd(Patterns({"a"}), memory);
}

}  // namespace
}  // namespace TARVO::SupportForm
