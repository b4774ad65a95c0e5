#include "scanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

Hits HitsOf(const Scanner& scanner, std::string_view text) {
  Hits hits;
  const ScannerMemory memory = scanner.NewMemory();
  scanner.Scan(text, *memory, [&](unsigned number, std::size_t end) {
    hits.emplace_back(number, end);
    return true;
  });
  return hits;
}

TEST(ScannerTest, WordsAreFoundWhereverTheyStandInTheOrderOfTheirEnds) {
  const Scanner scanner = Scanner::ForWords({{"abcd", false}, {"bc", false}, {"d-e", false}, {"e", false}});
  EXPECT_THAT(HitsOf(scanner, "xabcd-e"), ElementsAre(Pair(1, 4), Pair(0, 5), Pair(2, 7), Pair(3, 7)));
  EXPECT_THAT(HitsOf(scanner, "bcbcc"), ElementsAre(Pair(1, 2), Pair(1, 4)));
  EXPECT_THAT(HitsOf(scanner, "abc"), ElementsAre(Pair(1, 3)));
  EXPECT_THAT(HitsOf(scanner, ""), IsEmpty());
}

TEST(ScannerTest, WordsThatBeginAlikeAreAllFound) {
  const Scanner scanner = Scanner::ForWords({{"aaa", false}, {"aa", false}, {"a", false}});
  const Hits hits = HitsOf(scanner, "aaa");
  EXPECT_THAT(hits,
              UnorderedElementsAre(Pair(2, 1), Pair(2, 2), Pair(1, 2), Pair(2, 3), Pair(1, 3), Pair(0, 3)));
  for (std::size_t at = 1; at < hits.size(); ++at) EXPECT_LE(hits[at - 1].second, hits[at].second);
}

TEST(ScannerTest, CaseCountsUnlessAWordSaysOtherwise) {
  const Scanner scanner = Scanner::ForWords({{"pin", true}, {"Key", false}});
  EXPECT_THAT(HitsOf(scanner, "PIN pIn KEY Key key"), ElementsAre(Pair(0, 3), Pair(0, 7), Pair(1, 15)));
}

TEST(ScannerTest, WordsAreOfBytesAndNoPatterns) {
  const Scanner scanner = Scanner::ForWords({{"a.b|c", false}, {"\xff\n", false}});
  EXPECT_THAT(HitsOf(scanner, std::string("axb a.b|c \0\xff\n", 13)), ElementsAre(Pair(0, 9), Pair(1, 13)));
}

TEST(ScannerTest, PatternsAreFoundInEachLine) {
  const Scanner scanner = Scanner::ForPatterns({"^id=\\d", "\\d$", "never"});
  EXPECT_THAT(HitsOf(scanner, "id=1\nx id=2 \nid=3x"),
              UnorderedElementsAre(Pair(0, 4), Pair(1, 4), Pair(0, 17)));
}

TEST(ScannerTest, EndsWhenNoMoreIsWantedAndCanScanAgain) {
  for (const bool words : {true, false}) {
    const Scanner scanner = words ? Scanner::ForWords({{"a", false}}) : Scanner::ForPatterns({"a"});
    const ScannerMemory memory = scanner.NewMemory();
    for (int round = 0; round < 2; ++round) {
      int hits = 0;
      scanner.Scan("a a a", *memory, [&](unsigned, std::size_t) { return ++hits < 2; });
      EXPECT_EQ(hits, 2);
    }
  }
}

TEST(ScannerTest, WhatTheTakerThrowsGoesThrough) {
  for (const bool words : {true, false}) {
    const Scanner scanner = words ? Scanner::ForWords({{"a", false}}) : Scanner::ForPatterns({"a"});
    const ScannerMemory memory = scanner.NewMemory();
    EXPECT_THROW(
        scanner.Scan("a", *memory, [](unsigned, std::size_t) -> bool { throw std::out_of_range("!"); }),
        std::out_of_range);
  }
}

TEST(ScannerTest, PatternThatIsNoneIsNamedByItsNumber) {
  try {
    static_cast<void>(Scanner::ForPatterns({"good", "also", "bro(ken"}));
    ADD_FAILURE() << "taken";
  } catch (const ScannerError& error) {
    EXPECT_EQ(error.pattern(), 2U);
    EXPECT_STRNE(error.what(), "");
  }
}

}  // namespace
}  // namespace TARVO::SupportForm
