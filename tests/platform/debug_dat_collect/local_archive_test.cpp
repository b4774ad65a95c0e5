#include "local_archive.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "redaction_rules.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class LocalArchiveTest : public SupportLogTest {
 protected:
  LocalArchiveTest() {
    paths_.audit_log = folder_ / "audit.log";
    paths_.redaction = folder_ / "patterns";
    fs::create_directories(out_.parent_path());
    options_.apps = {"mail"};
    options_.out = out_;
    WriteText(data_ / "mail.log", "user=bob password=hunter2-and-more\n");
    Describe("mail",
             R"({"paths": [")" + data_.string() + R"(/*.log"], "commands": [{"argv": ["echo", "hello"]}]})");
  }

  void Write() { WriteArchive(paths_, limits_, options_, printed_, warned_); }

  /// Names of what lies in the archive's folder.
  [[nodiscard]] std::vector<std::string> Beside() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(out_.parent_path())) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  fs::path out_ = folder_ / "out" / "debug.dat";
  CollectOptions options_;
  std::ostringstream printed_;
  std::ostringstream warned_;
};

TEST_F(LocalArchiveTest, ArchiveLiesAloneAndForItsOwnerOnly) {
  Write();
  EXPECT_THAT(Beside(), testing::ElementsAre("debug.dat"));
  struct stat status = {};
  ASSERT_EQ(stat(out_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  const ArchiveContent content = ReadArchive(out_);
  EXPECT_EQ(content.entries.back().first, "manifest.json");
  EXPECT_EQ(content.Of("apps/mail/commands/01-echo.txt"), "hello\n");
  EXPECT_THAT(warned_.str(), IsEmpty());
}

TEST_F(LocalArchiveTest, SecretsAreMaskedUnlessAskedForWithAWarning) {
  Write();
  EXPECT_THAT(ReadArchive(out_).Of("apps/mail/files" + (data_ / "mail.log").string()),
              Not(HasSubstr("hunter2")));
  fs::remove(out_);
  options_.redaction = false;
  Write();
  EXPECT_THAT(ReadArchive(out_).Of("apps/mail/files" + (data_ / "mail.log").string()), HasSubstr("hunter2"));
  EXPECT_THAT(warned_.str(), HasSubstr("not masked"));
}

TEST_F(LocalArchiveTest, SummaryAndAuditLineTellTheFilesSizeAndSum) {
  Write();
  const std::string sum = Sha256Of(ReadText(out_));
  const std::string size = std::to_string(fs::file_size(out_));
  EXPECT_THAT(printed_.str(), HasSubstr("SHA-256   " + sum + "\n"));
  EXPECT_THAT(printed_.str(), HasSubstr("archive   " + size + " bytes\n"));
  // The list of processes may hold secrets of whatever else runs here.
  const ArchiveContent content = ReadArchive(out_);
  EXPECT_EQ(content.Record("apps/mail/files" + (data_ / "mail.log").string())["redacted"].asUInt64(), 1U);
  const std::string masked = content.ManifestJson()["totals"]["redacted"].asString();
  EXPECT_THAT(printed_.str(), HasSubstr("secrets   " + masked + " masked\n"));
  const Json::Value line = ParseJson(ReadText(paths_.audit_log));
  EXPECT_EQ(line["sha256"], sum);
  EXPECT_EQ(line["apps"], ParseJson(R"(["mail"])"));
  EXPECT_EQ(line["for"], "command line");
}

TEST_F(LocalArchiveTest, AuditLogThatCanNotBeWrittenIsAWarning) {
  paths_.audit_log = folder_ / "none" / "audit.log";
  Write();
  EXPECT_THAT(warned_.str(), HasSubstr("audit.log can't be written: No such file or directory"));
  EXPECT_TRUE(fs::exists(out_));
}

TEST_F(LocalArchiveTest, ExistingFileIsNotReplaced) {
  WriteText(out_, "mine");
  EXPECT_THAT([&] { Write(); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("File exists; remove it")));
  EXPECT_EQ(ReadText(out_), "mine");
  EXPECT_THAT(Beside(), testing::ElementsAre("debug.dat"));
}

TEST_F(LocalArchiveTest, FileThatAppearsMeanwhileIsNotReplaced) {
  Describe("mail", R"({"commands": [{"argv": ["sh", "-c", "echo mine > )" + out_.string() + R"("]}]})");
  EXPECT_THAT([&] { Write(); }, testing::ThrowsMessage<std::runtime_error>(HasSubstr("File exists")));
  EXPECT_EQ(ReadText(out_), "mine\n");
  EXPECT_THAT(Beside(), testing::ElementsAre("debug.dat"));
}

TEST_F(LocalArchiveTest, MissingFolderIsAnErrorThatNamesTheFile) {
  options_.out = folder_ / "none" / "debug.dat";
  EXPECT_THAT([&] { Write(); }, testing::ThrowsMessage<std::runtime_error>(
                                    HasSubstr("none/debug.dat can't be written: No such file or directory")));
}

TEST_F(LocalArchiveTest, SignalThatEndsTheProgramLeavesNothing) {
  const fs::path started = data_ / "started";
  Describe("mail", R"({"commands": [{"argv": ["sh", "-c", "touch )" + started.string() +
                       R"(; sleep 20"], "time_limit_seconds": 60}]})");
  test_support::ChildProcess program([&] {
    static_cast<void>(signal(SIGINT, SIG_DFL));
    Write();
    return 0;
  });
  const bool running = Eventually([&] { return fs::exists(started); });
  const std::vector<std::string> meanwhile = Beside();
  program.Signal(SIGINT);
  EXPECT_THAT(program.WaitForEnd(), test_support::KilledBy(SIGINT));
  EXPECT_TRUE(running);
  EXPECT_THAT(meanwhile, testing::ElementsAre(HasSubstr(".debug_dat_collect.")));
  EXPECT_THAT(Beside(), IsEmpty());
}

TEST_F(LocalArchiveTest, DryRunListsNamesAndSizesAndMakesNothing) {
  ListContents(paths_, limits_, options_, printed_);
  EXPECT_THAT(printed_.str(), HasSubstr("35  apps/mail/files" + (data_ / "mail.log").string()));
  EXPECT_THAT(printed_.str(), HasSubstr("?  apps/mail/commands/01-echo.txt  (echo hello)"));
  EXPECT_THAT(Beside(), IsEmpty());
  EXPECT_FALSE(fs::exists(paths_.audit_log));
}

TEST_F(LocalArchiveTest, DryRunRefusesPatternsThatCanNotBeCompiled) {
  WriteText(paths_.redaction, "serial=(\n");
  EXPECT_THAT([&] { ListContents(paths_, limits_, options_, printed_); },
              testing::ThrowsMessage<RedactionError>(HasSubstr(":1: not a valid pattern")));
}

TEST_F(LocalArchiveTest, DryRunGivesTheTerminalNoOrders) {
  Describe("mail",
           R"({"paths": ["/no/\u001b]0;x\u0007"], "commands": [{"argv": ["echo", "\u001b[2J\u009b.\n"]}]})");
  ListContents(paths_, limits_, options_, printed_);
  EXPECT_THAT(printed_.str(), HasSubstr("(echo ?[2J?.?)\n"));
  for (const char* order : {"\x1b", "\x07", "\x9b"}) {
    EXPECT_THAT(printed_.str(), testing::Not(HasSubstr(order)));
  }
}

TEST_F(LocalArchiveTest, DryRunTellsWhatWouldBeLeftOut) {
  options_.apps = {"unknown"};
  ListContents(paths_, limits_, options_, printed_);
  EXPECT_THAT(printed_.str(), HasSubstr("left out  apps/unknown: "));
}

}  // namespace
}  // namespace TARVO::SupportForm
