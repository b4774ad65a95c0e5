/// Downloading archives.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child_process.h"
#include "small_disk.h"
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kContent[] = "0123456789abcdefghij";

class SupportctlFetchTest : public SupportctlFixture {
 protected:
  SupportctlFetchTest() {
    Json::Value ticket = SuccessfulTicket();
    ticket["archives"].append(ArchiveJson(3, kContent));
    server_.On("GET", "/tickets/3f", {Answers(ticket)});
  }

  void Offer(std::vector<ApiHandler> answers) {
    server_.On("GET", "/tickets/3f9a000000000001/archives/3", std::move(answers));
  }
  /// What a client that asks for a range gets, or one that asks for all.
  static ApiHandler Serves(const std::string& content) {
    return [content](const ApiRequest& request, ApiConnection& connection) {
      const std::string range = request.Header("range");
      constexpr std::string_view kBegin = "bytes=";
      const std::size_t from = range.empty() ? 0 : std::stoul(range.substr(kBegin.size()));
      SendsBytes(content.substr(from), range.empty() ? 200 : 206)(request, connection);
    };
  }
  /// The same, but the connection breaks after so many bytes.
  static ApiHandler BreaksAfter(std::size_t bytes, std::size_t from = 0) {
    return Sends("HTTP/1.1 " + std::string(from == 0 ? "200" : "206") +
                 " X\r\nContent-Length: " + std::to_string(sizeof(kContent) - 1 - from) + "\r\n\r\n" +
                 std::string(kContent).substr(from, bytes));
  }
  Outcome Fetch() { return Run({"fetch", "3f", "--out", out_}); }
  [[nodiscard]] std::vector<std::string> Ranges() const {
    std::vector<std::string> ranges;
    for (const ApiRequest& request : server_.Requests()) {
      if (request.target.find("archives") != std::string::npos) ranges.push_back(request.Header("range"));
    }
    return ranges;
  }

  const std::string out_ = temp_.File("new/out");
  const std::string file_ = out_ + "/3f9a000000000001-3.dat";
  const std::string part_ = file_ + ".part";
};

TEST_F(SupportctlFetchTest, ArchiveIsCheckedNamedAndPrinted) {
  Offer({Serves(kContent)});
  const Outcome outcome = Fetch();
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, file_ + "\n");
  EXPECT_EQ(ReadFile(file_), kContent);
  EXPECT_FALSE(std::filesystem::exists(part_));
  struct stat found {};
  ASSERT_EQ(stat(file_.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777U, 0600U) << "archives are confidential";
}

TEST_F(SupportctlFetchTest, BrokenDownloadGoesOnWhereItBroke) {
  Offer({BreaksAfter(5), BreaksAfter(4, 5), Sends(""), Serves(kContent)});
  const Outcome outcome = Fetch();
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(ReadFile(file_), kContent);
  EXPECT_THAT(Ranges(), ElementsAre("", "bytes=5-", "bytes=9-", "bytes=9-"));
}

TEST_F(SupportctlFetchTest, PartOfAnEarlierRunIsTakenUp) {
  WriteFile(part_, "0123456");
  Offer({Serves(kContent)});
  EXPECT_EQ(Fetch().status, 0);
  EXPECT_EQ(ReadFile(file_), kContent);
  EXPECT_THAT(Ranges(), ElementsAre("bytes=7-"));
}

TEST_F(SupportctlFetchTest, CompletePartIsOnlyNamed) {
  WriteFile(part_, kContent);
  EXPECT_EQ(Fetch().status, 0);
  EXPECT_EQ(ReadFile(file_), kContent);
  EXPECT_THAT(Ranges(), ElementsAre());
}

TEST_F(SupportctlFetchTest, PartThatIsTooLongIsBegunAnew) {
  WriteFile(part_, std::string(100, 'x'));
  Offer({Serves(kContent)});
  EXPECT_EQ(Fetch().status, 0);
  EXPECT_THAT(Ranges(), ElementsAre(""));
}

TEST_F(SupportctlFetchTest, AnswerWithoutARangeBeginsAnew) {
  WriteFile(part_, "0123456");
  Offer({SendsBytes(kContent)});
  EXPECT_EQ(Fetch().status, 0);
  EXPECT_EQ(ReadFile(file_), kContent);
}

TEST_F(SupportctlFetchTest, WrongPartIsFoundByTheHashAndRemoved) {
  WriteFile(part_, "x123456");
  Offer({Serves(kContent)});
  const Outcome damaged = Fetch();
  EXPECT_EQ(damaged.status, 1);
  EXPECT_THAT(damaged.err, HasSubstr("came damaged"));
  EXPECT_EQ(damaged.out, "");
  EXPECT_FALSE(std::filesystem::exists(file_));
  EXPECT_EQ(Fetch().status, 0) << "the next one begins anew";
}

TEST_F(SupportctlFetchTest, MoreThanWasAnnouncedIsRefused) {
  Offer({SendsBytes(std::string(kContent) + "x")});
  const Outcome outcome = Fetch();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("longer than the service says"));
  EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(SupportctlFetchTest, ServiceThatStaysAwayLeavesThePart) {
  Offer({BreaksAfter(5), Sends("")});
  const Outcome outcome = Fetch();
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("goes on with what there is"));
  EXPECT_EQ(ReadFile(part_), "01234");
  EXPECT_EQ(Ranges().size(), 6U) << "the one that brought something, and five";
}

TEST_F(SupportctlFetchTest, FileThatIsThereIsKept) {
  WriteFile(file_, kContent);
  const Outcome same = Fetch();
  EXPECT_EQ(same.status, 0) << same.err;
  EXPECT_EQ(same.out, file_ + "\n");
  EXPECT_THAT(Ranges(), ElementsAre());
  WriteFile(file_, "of somebody else");
  const Outcome other = Fetch();
  EXPECT_EQ(other.status, 1);
  EXPECT_THAT(other.err, HasSubstr("move it away"));
  EXPECT_EQ(ReadFile(file_), "of somebody else");
}

TEST_F(SupportctlFetchTest, TwoDoNotWriteToOneFile) {
  WriteFile(part_, "012");
  const int held = open(part_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  const Outcome outcome = Fetch();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("another supportctl fetches"));
  EXPECT_EQ(ReadFile(part_), "012");
  close(held);
}

TEST_F(SupportctlFetchTest, LinkIsNotWrittenThrough) {
  WriteFile(out_ + "/target", "");
  std::filesystem::create_symlink(out_ + "/target", part_);
  EXPECT_EQ(Fetch().status, 1);
  EXPECT_EQ(ReadFile(out_ + "/target"), "");
}

TEST_F(SupportctlFetchTest, VersionsAreChosenAndTheDeletedLeftOut) {
  Json::Value ticket = SuccessfulTicket();
  ticket["archives"].append(ArchiveJson(1, "one"));
  ticket["archives"].append(ArchiveJson(2, "two"));
  ticket["archives"][0]["deleted"]["cause"] = "age";
  ticket["archives"].append(ArchiveJson(3, kContent));
  server_.On("GET", "/tickets/3f", {Answers(ticket)});
  server_.On("GET", "/tickets/3f9a000000000001/archives/2", {SendsBytes("two")});
  Offer({Serves(kContent)});
  const Outcome one = Run({"fetch", "3f", "--out", out_, "--version", "2", "--json"});
  EXPECT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.Json()["archives"].size(), 1U);
  EXPECT_EQ(one.Json()["archives"][0]["file"], out_ + "/3f9a000000000001-2.dat");
  EXPECT_EQ(Run({"fetch", "3f", "--out", out_}).out, out_ + "/3f9a000000000001-2.dat\n" + file_ + "\n");
  const Outcome gone = Run({"fetch", "3f", "--out", out_, "--version", "1"});
  EXPECT_EQ(gone.status, 1);
  EXPECT_THAT(gone.err, HasSubstr("no archive of this version"));
}

TEST_F(SupportctlFetchTest, IdThatIsNoneLeadsNowhere) {
  Json::Value ticket = SuccessfulTicket("../../x");
  ticket["archives"].append(ArchiveJson(3, kContent));
  server_.On("GET", "/tickets/3f", {Answers(ticket)});
  const Outcome outcome = Fetch();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("whose id is none"));
}

TEST_F(SupportctlFetchTest, FolderThatCannotBeIsExplained) {
  WriteFile(temp_.File("file"), "");
  for (const char* folder : {"file", "file/below"}) {
    const Outcome outcome = Run({"fetch", "3f", "--out", temp_.File(folder)});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr(temp_.File("file")));
  }
}

TEST_F(SupportctlFetchTest, DiskThatIsFullLeavesThePartForLater) {
  const std::string content(5000, 'x');
  Json::Value ticket = SuccessfulTicket();
  ticket["archives"].append(ArchiveJson(3, content));
  server_.On("GET", "/tickets/3f", {Answers(ticket)});
  Offer({Serves(content)});
  const test_support::CallerProcess process([&] {
    test_support::LimitFileSize();
    const Outcome outcome = Fetch();
    return std::to_string(outcome.status) + outcome.err;
  });
  EXPECT_EQ(process.Answer(), "1supportctl: can't write " + part_ + ": File too large\n");
  EXPECT_FALSE(std::filesystem::exists(file_));
  EXPECT_EQ(Fetch().status, 0) << "there is room now";
  EXPECT_EQ(ReadFile(file_), content);
}

TEST_F(SupportctlFetchTest, BusyServiceIsAskedAgain) {
  Offer({BreaksAfter(5), Refuses(503, "unavailable", "The service ends."), Serves(kContent)});
  EXPECT_EQ(Fetch().status, 0);
  EXPECT_THAT(Ranges(), ElementsAre("", "bytes=5-", "bytes=5-"));
}

TEST_F(SupportctlFetchTest, ProgressIsWipedAway) {
  Offer({Serves(kContent)});
  err_is_terminal_ = true;
  const Outcome outcome = Fetch();
  EXPECT_EQ(outcome.err, "\r\033[K3f9a000000000001-3.dat  100 % of 20 B\r\033[K");
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
