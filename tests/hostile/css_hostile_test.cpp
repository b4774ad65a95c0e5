/// A hostile CSS server: its answers to the upload are endless, or as costly as it can make them. The transmission
/// child of the real daemon is looked at twice: when the upload's request is there, and when the report's is. What it
/// took in between is the answer's cost.

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "transmission_fixture.h"

namespace {

constexpr long kMebibyte = 1024;  // in KiB
constexpr long kGoodAnswerKib = 100;
constexpr double kCpuSeconds = 1;           // some ten times what the worst of them takes
constexpr std::size_t kMostBytes = 262144;  // of answers, in all attempts together

/// A sanitizer keeps freed memory, and takes its time.
constexpr bool kIsPlainBuild = std::string_view(SANITIZER_RUNTIME).empty();

// ---- What the server does. ----

std::string Repeated(const std::string& text, std::size_t bytes) {
  std::string all;
  while (all.size() < bytes) {
    all += text;
  }
  return all;
}

/// `begin`, then `piece` again and again until the client has gone.
Treatment Endless(const std::string& begin, const std::string& piece) {
  Treatment treatment;
  treatment.pieces = {begin, Repeated(piece, 64 << 10)};
  treatment.ending = Treatment::Ending::kRepeat;
  return treatment;
}

Treatment Says(const std::string& bytes) {
  Treatment treatment;
  treatment.pieces = {bytes};
  return treatment;
}

Treatment Answers(const std::string& body) { return HttpAnswer("200 OK", body); }

/// As much as is taken of an array of these.
std::string ArrayOf(const std::string& element) {
  const std::string elements = Repeated(element + ",", kMostBytes - 2 * element.size() - 2);
  return "[" + elements + element + "]";
}

const std::string kStatusLine = "HTTP/1.1 200 OK\r\n";
const std::string kChunked = kStatusLine + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kTrailers = kChunked + "0\r\n";

// ---- The attacks. ----

struct Attack {
  std::string name;
  Treatment treatment;          ///< Of every attempt.
  int code;                     ///< That every attempt fails with; 0 where the first one does not fail.
  std::string text;             ///< Of the failure, or of the answer that is no success.
  long memory_kib = kMebibyte;  ///< What it may cost the child more than a good answer.
};

void PrintTo(const Attack& attack, std::ostream* out) { *out << attack.name; }

std::vector<Attack> Attacks() {
  const std::string too_much_head =
      "*: the answer's head lines, with interim answers and trailers, are more*";
  const std::string too_many_bytes = "*: the server has sent more than 4194304 bytes";
  const std::string other_coding = "*: the answer has another transfer coding than chunked";
  const std::string cut_off = "*is longer than 262144 bytes and was cut off";
  return {
      // The head.
      {"EndlessHeadLines", Endless(kStatusLine, "A: b\r\n"), 23, too_much_head},
      {"EndlessShortestHeadLines", Endless(kStatusLine, "a:\n"), 23, too_much_head},
      {"EndlessFoldedHeadLines", Endless(kStatusLine + "A: b\r\n", " c\r\n"), 23, too_much_head},
      {"OneEndlessHeadLine", Endless(kStatusLine + "A: ", "b"), 27, "*longer than libcurl takes"},
      {"OneEndlessStatusLine", Endless("HTTP/1.1 200 ", "O"), 27, "*longer than libcurl takes"},
      {"EndlessCookies", Endless(kStatusLine, "Set-Cookie: a=b\r\nAlt-Svc: h3=\":1\"\r\n"), 23,
       too_much_head},
      {"NeitherHeadNorEnd", Endless("", "x"), 1, "*HTTP/0.9*"},
      {"EndlessInterimAnswers", Endless("", "HTTP/1.1 100 Continue\r\n\r\n"), 23, too_much_head},
      {"EndlessInterimAnswersWithLines", Endless("", "HTTP/1.1 103 Early\r\nA: b\r\n\r\n"), 23,
       too_much_head},
      {"ANegativeLength", Says(kStatusLine + "Content-Length: -5\r\n\r\n"), 8, "*"},
      // Behind the body.
      {"EndlessTrailers", Endless(kTrailers, "A: b\r\n"), 23, too_much_head},
      {"EndlessShortestTrailers", Endless(kTrailers, "a:\n"), 23, too_much_head},
      {"EndlessFoldedTrailers", Endless(kTrailers + "A: b\r\n", " c\r\n"), 23, too_much_head},
      {"OneEndlessTrailer", Endless(kTrailers + "A: ", "b"), 56, "*longer than libcurl takes"},
      // The body's form.
      {"EndlessChunkExtension", Endless(kChunked + "1;", "x"), 42, too_many_bytes},
      {"EndlessChunkLength", Endless(kChunked, "0"), 56, "*"},
      {"EndlessShortestChunks", Endless(kChunked, "1\r\nx\r\n"), 23, cut_off},
      {"AnotherTransferCoding",
       Endless(
           kStatusLine + "Transfer-Encoding: gzip\r\n\r\n" + std::string("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10),
           std::string("\0\0\0\xff\xff", 5)),
       23, other_coding},
      {"EndlessBody", Endless(kStatusLine + "\r\n", "x"), 23, cut_off},
      {"AnotherProtocol", Endless("HTTP/1.1 101 Switching Protocols\r\nUpgrade: h2c\r\n\r\n", "x"), 23,
       cut_off},
      // The text.
      {"AnArrayOfNumbers", Answers(ArrayOf("0")), 0, "[0,0,0,*", 32 * kMebibyte},
      {"AnArrayOfObjects", Answers(ArrayOf("{}")), 0, "[{},{},*", 32 * kMebibyte},
      {"AnArrayOfArrays", Answers(ArrayOf("[0]")), 0, "[[0],[0],*", 32 * kMebibyte},
      {"AnEndlessArray", Endless(kStatusLine + "\r\n[0", ",0"), 23, cut_off, 32 * kMebibyte},
      {"CommentsBehindAnAnswer", Answers("{} " + Repeated("/**/", kMostBytes - 4)), 0, "{} /**/*"},
      {"CommentsWithLineEnds",
       Answers("[0" + std::string(kMostBytes / 2, ' ') + Repeated("/*\n*/", kMostBytes / 2 - 8) + "]"), 0,
       "*"},
  };
}

// ---- What it costs. ----

/// A process, as the kernel tells of it.
struct Cost {
  long memory_kib = 0;  ///< The most that it ever had resident.
  double cpu_seconds = 0;
  std::size_t descriptors = 0;
};

long StatusLine(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, name.size() + 1, name + ":") == 0) {
      return std::stol(line.substr(name.size() + 1));
    }
  }
  return -1;
}

double CpuSeconds(pid_t pid) {
  // Behind the name in parentheses come the state and ten numbers, then the ticks in user and kernel mode.
  const std::string text = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream rest(text.substr(std::min(text.size(), text.rfind(')') + 2)));
  std::string skipped;
  for (int count = 0; count < 11; ++count) {
    rest >> skipped;
  }
  long user = 0;
  long system = 0;
  rest >> user >> system;
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

class CssHostileTest : public TransmissionTest, public testing::WithParamInterface<Attack> {
 protected:
  [[nodiscard]] Cost CostOfTheChild() const {
    const pid_t child = WaitForChild();
    return {StatusLine(child, "VmHWM"), CpuSeconds(child), OpenDescriptors(child).size()};
  }
};

TEST_P(CssHostileTest, CostsTheChildNoMoreThanItMay) {
  const Attack& attack = GetParam();
  Treatment upload = attack.treatment;
  Cost before;
  upload.before_answer = [&] { before = before.memory_kib == 0 ? CostOfTheChild() : before; };
  Treatment report = HttpAnswer("200 OK", R"({"success": true})");
  Cost after;
  report.before_answer = [&] { after = CostOfTheChild(); };
  css_.Steer(kUploadPath, {upload});
  css_.Steer(kReportPath, {report});
  StartWithInstantCollection();
  TakeTicket();

  const Lines lines = LinesUpToTheCompletion();
  if (attack.code != 0) {
    const Lines expected = Attempts(5, attack.code, attack.text);
    EXPECT_THAT(Lines(lines.begin(),
                      lines.begin() + std::min<std::ptrdiff_t>(5, static_cast<std::ptrdiff_t>(lines.size()))),
                AreLines(expected));
  } else {
    EXPECT_THAT(lines, AreLines(ChildLines(
                           {{Transmitter("Failed to send form server resp: " + attack.text)}, false}, {})));
  }
  EXPECT_EQ(Results(), Lines{"Failed to upload debug file to server"});
  std::cout << "memory " << after.memory_kib - before.memory_kib << " KiB, processor time "
            << after.cpu_seconds - before.cpu_seconds << " s" << std::endl;
  if (kIsPlainBuild) {
    EXPECT_LE(after.memory_kib - before.memory_kib, kGoodAnswerKib + attack.memory_kib);
    EXPECT_LE(after.cpu_seconds - before.cpu_seconds, kCpuSeconds);
  }
  EXPECT_LE(after.descriptors, before.descriptors);
  ExpectTheNextIsServedAndNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(CssServer, CssHostileTest, testing::ValuesIn(Attacks()),
                         [](const testing::TestParamInfo<Attack>& row) { return row.param.name; });

}  // namespace
