#include "archive_contents.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "made_archive.h"
#include "program.h"
#include "temporary_folder.h"

namespace TarvoOrvane::SupportService {
namespace {

using ArchiveReader::ReaderEnd;
using std::chrono::milliseconds;
using test_support::kPatience;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Cause = LookEnd::Cause;

/// What came of a look.
struct Looked {
  std::vector<std::string> lines;
  LookEnd end;
};

Looked TakeLines(Look& look) {
  Looked looked;
  while (const auto line = look.NextLine()) looked.lines.push_back(*line);
  looked.end = look.End();
  return looked;
}

class ArchiveContentsTest : public ::testing::Test {
 protected:
  /// Looks end with the test, and leave nothing.
  ~ArchiveContentsTest() override {
    contents_.reset();
    EXPECT_THAT(test_support::ChildrenOf(getpid()), IsEmpty());
  }

  /// A program in the reader's place.
  void UseScript(const std::string& commands) {
    settings_.program = temp_.Write("reader", "#!/bin/sh\n" + commands + "\n");
    chmod(settings_.program.c_str(), 0700);
  }

  ArchiveContents& contents() {
    if (!contents_) contents_ = std::make_unique<ArchiveContents>(settings_);
    return *contents_;
  }

  /// Has a thread look.
  /// @param job  Gets the look.
  template <typename Job>
  auto Begin(const Job& job, int client_fd = -1) {
    using Result = std::invoke_result_t<Job, Look&>;
    const auto promise = std::make_shared<std::promise<Result>>();
    const LookPlace place = contents().TakePlace();
    EXPECT_TRUE(place);
    const int fd = open(archive_.c_str(), O_RDONLY | O_CLOEXEC);
    contents().Post(place, {{"list", "0", "9"}, OwnDescriptor(fd), client_fd},
                    [promise, job](Look& look) { promise->set_value(job(look)); });
    return promise->get_future();
  }
  Looked List() { return Begin(TakeLines).get(); }

  bool AwaitReaders(std::size_t count) {
    return test_support::Eventually([&] { return test_support::ChildrenOf(getpid()).size() == count; });
  }

  const test_support::TemporaryFolder temp_;
  const std::string archive_ =
      temp_.Write("debug.dat", test_support::MadeArchive(std::vector<test_support::TarEntry>{{"a"}, {"b"}}));
  LookSettings settings_;
  std::unique_ptr<ArchiveContents> contents_;
};

TEST_F(ArchiveContentsTest, ReaderLiesWhereTheServiceLooksForIt) {
  const Looked looked = List();
  EXPECT_TRUE(looked.end.IsComplete()) << looked.end.text;
  EXPECT_THAT(looked.lines, ElementsAre(HasSubstr(R"("name":"a")"), HasSubstr(R"("name":"b")")));
}

TEST_F(ArchiveContentsTest, HowTheReaderEndsIsTold) {
  struct Row {
    const char* commands;
    Cause cause;
    ReaderEnd reader;
    const char* text;
  };
  const Row rows[] = {
      {"exit 11", Cause::kReader, ReaderEnd::kDamaged, ""},
      {"exit 3", Cause::kReader, ReaderEnd::kNoSandbox, ""},
      {"exit 99", Cause::kCrashed, ReaderEnd::kComplete, "exit status 99"},
      {"kill -SEGV $$", Cause::kCrashed, ReaderEnd::kComplete, "signal 11"},
      {"exec cat /dev/zero", Cause::kCrashed, ReaderEnd::kComplete, "it wrote a line without end"},
      {"exec /missing", Cause::kCrashed, ReaderEnd::kComplete, "exit status 127"}};
  for (const Row& row : rows) {
    contents_.reset();
    UseScript("echo first; " + std::string(row.commands));
    const Looked looked = List();
    EXPECT_EQ(looked.end.cause, row.cause) << row.commands;
    EXPECT_EQ(looked.end.reader, row.reader) << row.commands;
    EXPECT_EQ(looked.end.text, row.text) << row.commands;
    EXPECT_THAT(looked.lines, ElementsAre("first")) << row.commands;
  }
}

TEST_F(ArchiveContentsTest, ReaderThatCanNotBeStartedIsTold) {
  settings_.program = temp_.File("missing");
  const Looked looked = List();
  EXPECT_EQ(looked.end.cause, Cause::kNotStarted);
  EXPECT_THAT(looked.end.text, HasSubstr("No such file"));
}

TEST_F(ArchiveContentsTest, ReaderBeginsWithNothingOfTheServices) {
  const int secret = open("/dev/null", O_RDONLY);  // one that would be inherited
  setenv("SECRET", "value", 1);
  static_cast<void>(signal(SIGPIPE, SIG_IGN));
  UseScript(
      "echo \"$@\"; tr '\\0' ' ' </proc/$$/environ; echo; ls -x /proc/$$/fd; grep ^SigIgn: "
      "/proc/self/status; "
      "grep ^SigBlk: /proc/self/status");
  const Looked looked = List();
  ASSERT_EQ(looked.lines.size(), 5U);
  EXPECT_EQ(looked.lines[0], "list 0 9");
  EXPECT_EQ(looked.lines[1], "");
  EXPECT_THAT(looked.lines[2], ::testing::MatchesRegex("0 +1 +(10 +)?2( +10)?"))
      << "10 is the shell's script";
  const auto signals_in = [&](std::size_t line) {
    return std::stoull(looked.lines[line].substr(looked.lines[line].find('\t')), nullptr, 16);
  };
  constexpr std::uint64_t kLibrarys = std::uint64_t{3} << 31U;  // the C library keeps two signals to itself
  EXPECT_EQ(signals_in(3) & ~kLibrarys, 0U);
  EXPECT_EQ(signals_in(4), 0U);
  close(secret);
  unsetenv("SECRET");
}

TEST_F(ArchiveContentsTest, ReaderThatHangsIsEndedAfterItsTime) {
  settings_.time = milliseconds(50);
  UseScript("echo first; exec sleep 1000");
  EXPECT_EQ(List().end.cause, Cause::kTooLong);
  EXPECT_TRUE(AwaitReaders(0));
}

TEST_F(ArchiveContentsTest, ReaderThatClosesItsOutputIsEnded) {
  UseScript("exec >&-; exec sleep 1000");
  const Looked looked = List();
  EXPECT_EQ(looked.end.text, "signal 9");
}

TEST_F(ArchiveContentsTest, ReaderEndsWhenTheClientGoes) {
  UseScript("exec sleep 1000");
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  auto looked = Begin(TakeLines, ends[0]);
  ASSERT_TRUE(AwaitReaders(1));
  EXPECT_EQ(looked.wait_for(milliseconds(0)), std::future_status::timeout);
  close(ends[1]);
  EXPECT_EQ(looked.get().end.cause, Cause::kAbandoned);
  EXPECT_TRUE(AwaitReaders(0));
  close(ends[0]);
}

TEST_F(ArchiveContentsTest, AFewLookAtOnceAndSomeWait) {
  settings_.at_once = 2;
  settings_.waiting = 1;
  UseScript("exec sleep 1000");
  std::vector<std::future<Looked>> looks;
  looks.reserve(3);
  for (int i = 0; i < 3; ++i) looks.push_back(Begin(TakeLines));
  EXPECT_TRUE(AwaitReaders(2));
  EXPECT_FALSE(contents().TakePlace());
  contents().Stop();
  for (auto& look : looks) EXPECT_EQ(look.get().end.cause, Cause::kAbandoned);
  EXPECT_TRUE(test_support::Eventually([&] { return contents().TakePlace() != nullptr; }));
  EXPECT_EQ(List().end.cause, Cause::kAbandoned) << "one that begins after the stop";
}

// ---- bodies ----

/// Takes a body as the server does.
class BodyReader {
 public:
  explicit BodyReader(std::shared_ptr<BodySource> source) : source_(std::move(source)) {}

  /// Waits for the next piece.
  /// @return Nothing at the end.
  std::optional<std::string> Next() {
    for (;;) {
      const auto woken = std::make_shared<std::promise<void>>();
      auto piece = source_->Next([woken] { woken->set_value(); });
      if (!piece || !piece->empty()) return piece;
      if (woken->get_future().wait_for(kPatience) != std::future_status::ready) {
        throw std::runtime_error("no wake");
      }
    }
  }
  std::string All() {
    std::string all;
    while (const auto piece = Next()) all += *piece;
    return all;
  }

 private:
  std::shared_ptr<BodySource> source_;
};

class LookBodyTest : public ArchiveContentsTest {
 protected:
  /// Begins a look, and gives its body away.
  std::shared_ptr<BodySource> BeginBody() {
    const auto promise = std::make_shared<std::promise<std::shared_ptr<BodySource>>>();
    ended_ = Begin([promise](Look& look) {
      static_cast<void>(look.NextLine());
      promise->set_value(look.Body());
      look.Pump();
      return look.End();
    });
    return promise->get_future().get();
  }

  std::future<LookEnd> ended_;
};

TEST_F(LookBodyTest, HasAllBehindTheLine) {
  UseScript("echo first; echo second; seq 1 200000");
  const std::string all = BodyReader(BeginBody()).All();
  EXPECT_EQ(all.substr(0, 11), "second\n1\n2\n");
  EXPECT_EQ(all.size(), 1'288'902U);
  EXPECT_TRUE(ended_.get().IsComplete());
}

TEST_F(LookBodyTest, FailsWhereTheLookDoes) {
  UseScript("echo first; echo second; exit 11");
  BodyReader reader(BeginBody());
  EXPECT_EQ(reader.Next(), "second\n");
  EXPECT_THROW(static_cast<void>(reader.Next()), std::runtime_error);
  EXPECT_EQ(ended_.get().reader, ReaderEnd::kDamaged);
}

TEST_F(LookBodyTest, EndsTheLookWhenItGoes) {
  UseScript("echo first; exec sleep 1000");
  auto body = BeginBody();
  ASSERT_TRUE(AwaitReaders(1));
  EXPECT_EQ(body->Next([] {}), "");
  body.reset();
  EXPECT_EQ(ended_.get().cause, Cause::kAbandoned);
  EXPECT_TRUE(AwaitReaders(0));
}

TEST_F(LookBodyTest, ReaderWaitsForASlowClientAndGoesOnForIt) {
  UseScript("echo first; exec head -c 50000000 /dev/zero");
  auto body = BeginBody();
  // It ends not before its output is taken.
  EXPECT_EQ(ended_.wait_for(milliseconds(300)), std::future_status::timeout);
  BodyReader reader(body);
  std::size_t size = 0;
  std::size_t largest = 0;
  while (const auto piece = reader.Next()) {
    size += piece->size();
    largest = std::max(largest, piece->size());
  }
  EXPECT_EQ(size, 50'000'000U);
  EXPECT_LT(largest, std::size_t{1} << 20);
}

TEST_F(LookBodyTest, SlowClientsTimeIsLimited) {
  settings_.time = milliseconds(200);
  UseScript("echo first; exec cat /dev/zero");
  BodyReader reader(BeginBody());
  EXPECT_EQ(ended_.get().cause, Cause::kTooLong);
  EXPECT_THROW(static_cast<void>(reader.All()), std::runtime_error);
}

TEST_F(LookBodyTest, StopEndsIt) {
  UseScript("echo first; exec sleep 1000");
  BodyReader reader(BeginBody());
  contents().Stop();
  EXPECT_EQ(ended_.get().cause, Cause::kAbandoned);
  EXPECT_THROW(static_cast<void>(reader.All()), std::runtime_error);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
