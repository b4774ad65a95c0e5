#include "redaction_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "redactor.h"
#include "temporary_folder.h"

namespace TARVO::SupportForm {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

class RedactionRulesTest : public testing::Test {
 protected:
  void Write(const std::string& text) const { std::ofstream(path_) << text; }

  [[nodiscard]] std::string Redacted(std::string text) const {
    const RedactionRules rules(path_);
    Redactor redactor(&rules);
    EXPECT_EQ(redactor.Process(text.data(), text.size(), true), text.size());
    return text;
  }

  /// The same of a text whose next bytes come in pieces of the sizes that `next` gives.
  [[nodiscard]] std::string RedactedInPieces(const std::string& text,
                                             const std::function<std::size_t()>& next) const {
    const RedactionRules rules(path_);
    Redactor redactor(&rules);
    std::string out;
    std::string block;
    for (std::size_t at = 0; at < text.size();) {
      const std::string piece = text.substr(at, next());
      at += piece.size();
      block += piece;
      const std::size_t decided = redactor.Process(block.data(), block.size(), at == text.size());
      out += block.substr(0, decided);
      block.erase(0, decided);
    }
    return out;
  }

  /// What is wrong with the file; empty if nothing.
  [[nodiscard]] std::string Complaint() const {
    try {
      const RedactionRules rules(path_);
    } catch (const RedactionError& error) {
      return error.what();
    }
    return "";
  }

  const test_support::TemporaryFolder folder_;
  const std::string path_ = folder_.File("patterns");
};

TEST_F(RedactionRulesTest, WithoutAFileTheBuiltInRulesHold) {
  EXPECT_EQ(Redacted("x password=abc serial 12345678"), "x password=*** serial 12345678");
}

TEST_F(RedactionRulesTest, MasksMatchesOfTheFilesPatternsToo) {
  Write("# numbers of our devices\n\n  SN-\\d{4}  \r\n(?i)customer: (\\w+)\n");
  EXPECT_EQ(Redacted("SN-1234 SN-12 password=abc\nCustomer: Miller, SN-9876\n"),
            "******* SN-12 password=***\nCustomer: ******, *******\n");
}

TEST_F(RedactionRulesTest, FileOrFolderAboveThatOthersCanChangeFailsClosed) {
  Write("SN-\\d{4}\n");
  fs::permissions(path_, static_cast<fs::perms>(0666));
  EXPECT_THAT(Complaint(),
              AllOf(HasSubstr("patterns is not used: "), HasSubstr("mode 0666"), HasSubstr("; chmod go-w ")));
  fs::remove(path_);
  EXPECT_EQ(Complaint(), "");
  fs::permissions(folder_.path(), static_cast<fs::perms>(0777));
  EXPECT_THAT(Complaint(), HasSubstr("mode 0777")) << "somebody may have removed it";
}

TEST_F(RedactionRulesTest, EachMatchOfAPatternCountsOnce) {
  Write("id=\\w{1,40}\n");
  const RedactionRules rules(path_);
  Redactor redactor(&rules);
  std::string text = "id=abcdef, id=ghijkl\nid=mno\n";
  EXPECT_EQ(redactor.Process(text.data(), text.size(), true), text.size());
  EXPECT_EQ(redactor.count(), 3U);
}

TEST_F(RedactionRulesTest, AFileOfCommentsAddsNothing) {
  Write("# nothing\n\n");
  EXPECT_EQ(Redacted("nothing"), "nothing");
}

TEST_F(RedactionRulesTest, PatternsSeeTheLineAsItIs) {
  Write("^begin\\b\nend\\r?$\n");
  EXPECT_EQ(Redacted("begin end begin end\r\nbegin\nxbegin beginx endx\nend"),
            "***** end begin ***\r\n*****\nxbegin beginx endx\n***");
}

TEST_F(RedactionRulesTest, PatternsAreOfBytes) {
  Write("n\xc3\xa4me=.\n");
  EXPECT_EQ(Redacted("\xff n\xc3\xa4me=\xfe!"), "\xff *******!");
}

TEST_F(RedactionRulesTest, PatternsDoNotTakeTheCutOfALongLineForItsEnd) {
  Write("^b+\nz+$\n\\bword\\b\n");
  const std::string text = std::string(100'000, 'b') + " " + std::string(100'000, 'z') + "! aword word";
  const std::string redacted = Redacted(text);
  // A match is found whole up to 4,096 bytes; a longer one is found up to there.
  EXPECT_EQ(redacted.find('z'), 100'001U);
  EXPECT_EQ(redacted.substr(100'001), std::string(100'000, 'z') + "! aword ****");
}

TEST_F(RedactionRulesTest, PatternsFindTheSameHoweverTheTextIsCut) {
  Write("serial \\d{8}\nid=(\\w{1,40})\n");
  std::mt19937 random(3);
  std::string text;
  while (text.size() < 200'000) {
    text +=
        random() % 3 == 0 ? "serial 12345678 id=abc" + std::to_string(random() % 1000) : "some other words";
    text += random() % 20 == 0 ? "\n" : " ";
    if (random() % 1000 == 0) text.append(random() % 15'000, 'x');
  }
  const RedactionRules rules(path_);
  const std::string whole = Redacted(text);
  ASSERT_EQ(whole.find("serial 1"), std::string::npos);
  ASSERT_EQ(whole.find("id=a"), std::string::npos);
  EXPECT_TRUE(RedactedInPieces(text, [&] { return random() % 9'000; }) == whole);
}

TEST_F(RedactionRulesTest, MatchesThatMayEndFarAwayAreMaskedHoweverTheTextIsCut) {
  Write("customer: (.*)\nmark=.*end\n");
  std::string words;
  while (words.size() < 200'000) words += "the end of it ";
  // Words before the secret, and behind it.
  for (const auto& [before, secret, behind] :
       std::initializer_list<std::array<std::string, 3>>{{"x ", "customer: SECRET ", words},
                                                         {"", "mark=SECRET end ", words},
                                                         {words, "mark=SECRET end ", words},
                                                         {words, "customer: SECRET", ""}}) {
    std::string line = before;
    line.append(secret).append(behind);
    for (const std::size_t size : {std::size_t{3000}, std::size_t{65536}, line.size()}) {
      const std::string masked =
          RedactedInPieces(std::string(line).append("\nnext line\n"), [&] { return size; });
      EXPECT_EQ(masked.find("SECRET"), std::string::npos) << line.substr(0, 30) << " in pieces of " << size;
      EXPECT_EQ(masked.substr(line.size()), "\nnext line\n");
    }
  }
}

TEST_F(RedactionRulesTest, AsManyAndAsLongPatternsAsTheFileMayHold) {
  std::string text;
  for (std::size_t i = 0; i < RedactionRules::kMaxPatterns; ++i) {
    const std::string line = "number" + std::to_string(i) + "=[0-9a-f]{8}-[0-9a-f]{4}";
    text += line +
            std::string((kPatternFileBytes - 1000) / RedactionRules::kMaxPatterns - line.size() - 1, 'x') +
            "\n";
  }
  ASSERT_LE(text.size(), kPatternFileBytes);
  Write(text);
  EXPECT_EQ(Complaint(), "");
}

TEST_F(RedactionRulesTest, ABrokenPatternIsToldByItsLine) {
  Write("good\n# a comment\nbro(ken\n");
  EXPECT_THAT(Complaint(),
              AllOf(HasSubstr(path_ + ":3: not a valid pattern: missing )"), HasSubstr("mend the file")));
}

TEST_F(RedactionRulesTest, APatternThatMatchesNothingAtAllIsRefused) {
  Write("good\nx*\n");
  EXPECT_THAT(Complaint(), HasSubstr(path_ + ":2: the pattern matches an empty text"));
}

TEST_F(RedactionRulesTest, MoreThanOneGroupIsRefused) {
  Write("(a)(b)\n");
  EXPECT_THAT(Complaint(), HasSubstr(path_ + ":1: more than one group"));
}

TEST_F(RedactionRulesTest, TooManyPatternsAreRefused) {
  std::string text;
  for (std::size_t i = 0; i <= RedactionRules::kMaxPatterns; ++i) text += "x\n";
  Write(text);
  EXPECT_THAT(Complaint(), HasSubstr(path_ + ":1001: more than 1000 patterns"));
}

TEST_F(RedactionRulesTest, AFileThatIsTooLongIsRefused) {
  Write(std::string(kPatternFileBytes + 1, '#'));
  EXPECT_THAT(Complaint(), HasSubstr("is longer than 262144 bytes"));
}

TEST_F(RedactionRulesTest, AFileThatCannotBeReadIsNoMissingFile) {
  fs::create_directory(path_);
  EXPECT_THAT(Complaint(), HasSubstr(path_ + " can't be read"));
  fs::remove(path_);
  fs::create_symlink("nowhere", path_);
  EXPECT_THAT(Complaint(), HasSubstr(path_ + " can't be read"));
}

}  // namespace
}  // namespace TARVO::SupportForm
