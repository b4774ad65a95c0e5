#include "device_checks.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "check_matchers.h"
#include "temporary_folder.h"
#include "test_certificate.h"

namespace DebugDatCheck {
namespace {

namespace fs = std::filesystem;
using TarvoOrvane::Internal::SerialNumberPaths;
using TarvoOrvane::Internal::TlsFiles;
using TarvoOrvane::Testing::MakeTestCertificate;
using test_support::TemporaryFolder;
using ::testing::ElementsAre;

class ConfigurationCheckTest : public ::testing::Test {
 protected:
  Check CheckText(const std::string& text) { return CheckConfiguration(temp_.Write("conf", text), urls_); }

  TemporaryFolder temp_;
  ServiceUrls urls_;
};

TEST_F(ConfigurationCheckTest, BothUrlsAreTaken) {
  EXPECT_THAT(CheckText(R"({"debug_dat_file_transmitter": {
      "grpc_server": {"url": "https://notify:1"}, "css_server": {"url": "https://files"}}})"),
              IsOk("names both servers"));
  EXPECT_EQ(urls_.notification, "https://notify:1");
  EXPECT_EQ(urls_.css, "https://files");
}

TEST_F(ConfigurationCheckTest, CommentsAreNoProblemBecauseTheDaemonTakesThem) {
  EXPECT_THAT(CheckText(R"({"debug_dat_file_transmitter": { // servers
      "grpc_server": {"url": "a:1"}, "css_server": {"url": "b"}}})"),
              IsOk(""));
}

TEST_F(ConfigurationCheckTest, MissingFileIsAProblemThatShowsWhatToWrite) {
  EXPECT_THAT(CheckConfiguration(temp_.File("none"), urls_),
              AllOf(IsProblem("No such file"), Advises("\"css_server\": {\"url\"")));
}

TEST_F(ConfigurationCheckTest, FolderInItsPlaceIsAProblem) {
  EXPECT_THAT(CheckConfiguration(temp_.File(""), urls_), IsProblem("can't be read"));
}

TEST_F(ConfigurationCheckTest, FileOfOverAMebibyteIsAProblem) {
  EXPECT_THAT(CheckText(std::string((1UL << 20) + 1, ' ')), IsProblem("longer than 1 MiB"));
}

TEST_F(ConfigurationCheckTest, HiddenFileIsAProblemForAnOrdinaryUser) {
  const std::string path = temp_.Write("conf", "{}");
  chmod(path.c_str(), 0);
  const AsOrdinaryUser ordinary_user;
  EXPECT_THAT(CheckConfiguration(path, urls_), AllOf(IsProblem("Permission denied"), Advises("as root")));
}

TEST_F(ConfigurationCheckTest, FaultyJsonIsToldWithItsLine) {
  EXPECT_THAT(CheckText("{\n\"a\": 1\n\"b\": 2}"), IsProblem("line 3: Missing ',' or '}'"));
}

TEST_F(ConfigurationCheckTest, NestingBeyondTheReadersLimitIsAProblem) {
  EXPECT_THAT(CheckText(std::string(5000, '[')), IsProblem("not valid JSON"));
}

TEST_F(ConfigurationCheckTest, UrlOfOneServerIsTakenThoughTheOtherLacks) {
  EXPECT_THAT(
      CheckText(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": "a:1"}, "css_server": {}}})"),
      IsProblem(": debug_dat_file_transmitter.css_server.url is missing"));
  EXPECT_EQ(urls_.notification, "a:1");
  EXPECT_EQ(urls_.css, "");
}

TEST_F(ConfigurationCheckTest, EachServersFaultIsTold) {
  EXPECT_THAT(
      CheckText(R"({"debug_dat_file_transmitter": {"grpc_server": {"url": 5}, "css_server": {"url": ""}}})"),
      AllOf(IsProblem("grpc_server.url is no string"), IsProblem("css_server.url is empty")));
}

TEST_F(ConfigurationCheckTest, FaultThatBothServersShareIsToldOnce) {
  EXPECT_EQ(CheckText("{}").text, temp_.File("conf") + ": debug_dat_file_transmitter is missing");
  EXPECT_EQ(CheckText("[]").text, temp_.File("conf") + ": the document is no object");
}

TEST_F(ConfigurationCheckTest, FileOrFolderAboveThatOthersCanChangeIsAProblemThoughItsContentIsGood) {
  const std::string good =
      R"({"debug_dat_file_transmitter": {"grpc_server": {"url": "a:1"}, "css_server": {"url": "b"}}})";
  const std::string path = temp_.Write("conf", good);
  for (const mode_t mode : {mode_t{0664}, mode_t{0646}}) {
    chmod(path.c_str(), mode);
    EXPECT_THAT(CheckConfiguration(path, urls_),
                AllOf(IsProblem("conf (owner "), IsProblem(mode == 0664 ? "mode 0664" : "mode 0646"),
                      Advises("chmod go-w " + path)));
    EXPECT_EQ(urls_.css, "b") << "the servers can be looked at all the same";
  }
  chmod(path.c_str(), 0644);
  chmod(temp_.File("").c_str(), 0777);
  EXPECT_THAT(CheckConfiguration(path, urls_), IsProblem("mode 0777) can be changed by others"));
  chmod(temp_.File("").c_str(), 0700);
  EXPECT_THAT(CheckConfiguration(path, urls_), IsOk("names both servers"));
  if (geteuid() != 0) return;  // only root can give a file away
  ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
  EXPECT_THAT(CheckConfiguration(path, urls_),
              AllOf(IsProblem("(owner user 65534, mode 0644)"), Advises("chown root " + path)));
}

class TlsFilesCheckTest : public ::testing::Test {
 protected:
  TemporaryFolder temp_;
  std::optional<TlsFiles> files_;
};

TEST_F(TlsFilesCheckTest, WithoutFilesTheSystemsAuthoritiesAreTrusted) {
  EXPECT_THAT(CheckTlsFiles(temp_.File("none"), files_), ElementsAre(IsOk("the system's authorities")));
  EXPECT_TRUE(files_);
}

TEST_F(TlsFilesCheckTest, GoodFilesAreNamedAndTaken) {
  const auto certificate = MakeTestCertificate();
  temp_.Write("ca.pem", certificate.certificate);
  temp_.Write("client.pem", certificate.certificate);
  chmod(temp_.Write("client.key", certificate.key).c_str(), 0600);

  EXPECT_THAT(CheckTlsFiles(temp_.File(""), files_),
              ElementsAre(AllOf(IsOk("ca.pem are trusted, and no others"), IsOk("client.pem"))));
  ASSERT_TRUE(files_);
  EXPECT_EQ(files_->authorities, certificate.certificate);
}

TEST_F(TlsFilesCheckTest, EachFaultIsAProblemOfItsOwnWithItsAdvice) {
  temp_.Write("ca.pem", "no certificate");
  temp_.Write("client.pem", MakeTestCertificate().certificate);

  EXPECT_THAT(
      CheckTlsFiles(temp_.File(""), files_),
      ElementsAre(AllOf(IsProblem("ca.pem: holds no PEM certificate"), Advises("Put the authorities'")),
                  AllOf(IsProblem("client.key: is missing"), Advises("or remove client.pem"))));
  EXPECT_FALSE(files_);
}

TEST_F(TlsFilesCheckTest, HiddenFileIsAProblemForAnOrdinaryUser) {
  chmod(temp_.File("").c_str(), 0755);
  chmod(temp_.Write("ca.pem", MakeTestCertificate().certificate).c_str(), 0);
  const AsOrdinaryUser ordinary_user;
  EXPECT_THAT(
      CheckTlsFiles(temp_.File(""), files_),
      ElementsAre(AllOf(IsProblem("ca.pem: can't be opened (Permission denied)"), Advises("as root"))));
}

TEST_F(TlsFilesCheckTest, FolderMayHaveAnyName) {
  std::filesystem::create_directory(temp_.File("a; b"));
  temp_.Write("a; b/ca.pem", "");
  EXPECT_THAT(CheckTlsFiles(temp_.File("a; b"), files_),
              ElementsAre(AllOf(IsProblem("/a; b/ca.pem: is empty"),
                                Advises("Put a PEM file there or remove it"), Not(Advises("ca.pem")))));
}

TEST_F(TlsFilesCheckTest, FolderThatOthersCanChangeIsOneProblem) {
  chmod(temp_.File("").c_str(), 0777);
  EXPECT_THAT(CheckTlsFiles(temp_.File(""), files_),
              ElementsAre(AllOf(IsProblem("mode 0777"), Advises("chmod go-w"))));
  EXPECT_TRUE(files_);
}

class SerialNumberCheckTest : public ::testing::Test {
 protected:
  TemporaryFolder temp_;
  SerialNumberPaths paths_{temp_.File("configured"), temp_.File("dmi"), temp_.File("machine_id")};
};

TEST_F(SerialNumberCheckTest, ConfiguredNumberComesFirst) {
  temp_.Write("configured", "C-1\n");
  temp_.Write("dmi", "D-1\n");
  EXPECT_THAT(CheckSerialNumber(paths_), IsOk("C-1, from " + paths_.configured));
}

TEST_F(SerialNumberCheckTest, BoardsNumberIsNamedAsTheSource) {
  temp_.Write("dmi", "D-1\n");
  temp_.Write("machine_id", "0123456789abcdef0123456789abcdef\n");
  EXPECT_THAT(CheckSerialNumber(paths_), IsOk("D-1, from the board's maker, " + paths_.dmi));
}

TEST_F(SerialNumberCheckTest, MachineIdIsNamedAsTheSourceAndNotShown) {
  temp_.Write("machine_id", "0123456789abcdef0123456789abcdef\n");
  const Check check = CheckSerialNumber(paths_);
  EXPECT_THAT(check, IsOk(", a hash of " + paths_.machine_id));
  EXPECT_THAT(check.text, Not(HasSubstr("0123456789abcdef")));
}

TEST_F(SerialNumberCheckTest, UnusableConfiguredNumberIsWarnedOf) {
  temp_.Write("configured", "\n");
  temp_.Write("dmi", "D-1\n");
  EXPECT_THAT(CheckSerialNumber(paths_), Warns("because " + paths_.configured + " holds no serial number"));
}

TEST_F(SerialNumberCheckTest, NoNumberIsAProblem) {
  EXPECT_THAT(CheckSerialNumber(paths_), AllOf(IsProblem("none is found"), Advises(paths_.configured)));
}

TEST_F(SerialNumberCheckTest, SourceThatAnOrdinaryUserMayNotReadIsWarnedOf) {
  chmod(temp_.File("").c_str(), 0755);
  chmod(temp_.Write("dmi", "D-1\n").c_str(), 0);
  temp_.Write("machine_id", "0123456789abcdef0123456789abcdef\n");
  const AsOrdinaryUser ordinary_user;
  EXPECT_THAT(CheckSerialNumber(paths_), AllOf(Warns("this may not read " + paths_.dmi), Advises("as root")));
}

TEST_F(SerialNumberCheckTest, NumberThatOthersCanChangeIsAProblem) {
  chmod(temp_.Write("configured", "C-1\n").c_str(), 0666);
  EXPECT_THAT(CheckSerialNumber(paths_), IsProblem("configured (owner "));
}

class FreeSpaceCheckTest : public ::testing::Test {
 protected:
  FreeSpaceCheckTest() {
    paths_.state = temp_.File("var/lib/state");
    limits_.free_bytes = limits_.archive_bytes = limits_.least_bytes = 1;
  }

  TemporaryFolder temp_;
  TARVO::SupportForm::Paths paths_;
  TARVO::SupportForm::Limits limits_;
  const std::uint64_t all_bytes_ = fs::space(temp_.File("")).capacity;
};

TEST_F(FreeSpaceCheckTest, FolderThatIsNotThereYetIsJudgedByTheOneAboveAndNotMade) {
  EXPECT_THAT(CheckFreeSpace(paths_, limits_), IsOk("iB for archives in " + paths_.state));
  EXPECT_FALSE(fs::exists(temp_.File("var")));
}

TEST_F(FreeSpaceCheckTest, TooLittleForTheLargestArchiveIsWarnedOf) {
  limits_.archive_bytes = all_bytes_;
  EXPECT_THAT(CheckFreeSpace(paths_, limits_), AllOf(Warns("but the largest take"), Advises("Make room")));
}

TEST_F(FreeSpaceCheckTest, NoMoreThanWhatHasToStayFreeIsAProblem) {
  limits_.free_bytes = all_bytes_;
  EXPECT_THAT(CheckFreeSpace(paths_, limits_), AllOf(IsProblem("a collection leaves"), Advises("Make room")));
}

TEST_F(FreeSpaceCheckTest, FolderAboveThatOthersCanChangeIsAProblem) {
  fs::create_directories(temp_.File("var/lib"));
  chmod(temp_.File("var").c_str(), 0775);
  EXPECT_THAT(CheckFreeSpace(paths_, limits_), AllOf(IsProblem("/var (owner "), Advises("chmod go-w")));
}

class PatternsCheckTest : public ::testing::Test {
 protected:
  PatternsCheckTest() { paths_.redaction = temp_.File("patterns"); }

  TemporaryFolder temp_;
  TARVO::SupportForm::Paths paths_;
};

TEST_F(PatternsCheckTest, FileThatIsThereOrNotIsOk) {
  EXPECT_THAT(CheckPatterns(paths_), IsOk("none"));
  temp_.Write("patterns", "SN-1\n");
  EXPECT_THAT(CheckPatterns(paths_), IsOk("1 pattern"));
}

TEST_F(PatternsCheckTest, PatternThatCanNotBeCompiledIsAProblemWithItsLine) {
  temp_.Write("patterns", "SN-1\nserial=(\n");
  EXPECT_THAT(CheckPatterns(paths_),
              AllOf(IsProblem("patterns:2: not a valid pattern"), Advises("nothing is collected")));
}

TEST_F(PatternsCheckTest, FileThatACollectionWouldNotUseIsAProblem) {
  chmod(temp_.Write("patterns", "SN-1\n").c_str(), 0666);
  EXPECT_THAT(CheckPatterns(paths_),
              AllOf(IsProblem("mode 0666"), Advises("chmod go-w " + paths_.redaction)));
  fs::remove(paths_.redaction);
  fs::create_symlink("nowhere", paths_.redaction);
  EXPECT_THAT(CheckPatterns(paths_), IsProblem("can't be read: No such file"));
  fs::remove(paths_.redaction);
  temp_.Write("patterns", std::string((256UL << 10) + 1, '#'));
  EXPECT_THAT(CheckPatterns(paths_), IsProblem("is longer than 262144 bytes"));
  fs::remove(paths_.redaction);
  chmod(temp_.File("").c_str(), 0777);
  EXPECT_THAT(CheckPatterns(paths_), IsProblem("mode 0777")) << "somebody may have removed it";
}

TEST(DebugFlagCheckTest, TellsWhereLinesGoAndWhoElseMayDecideThat) {
  const TemporaryFolder temp;
  TarvoOrvane::Internal::LoggerOptions logger;
  logger.flag_file = temp.File("debug");
  EXPECT_THAT(CheckDebugFlag(logger), IsOk("off: log lines go to syslog"));
  temp.Write("debug", "");
  EXPECT_THAT(CheckDebugFlag(logger), IsOk("log lines go to /var/log/debug_dat_transmitter.log"));
  chmod(temp.File("").c_str(), 0777);
  EXPECT_THAT(CheckDebugFlag(logger), IsProblem("mode 0777"));
}

class ApplicationsCheckTest : public ::testing::Test {
 protected:
  ApplicationsCheckTest() { paths_.descriptions = temp_.File("d"); }

  void Describe(const std::string& file, const std::string& text) {
    fs::create_directory(paths_.descriptions);
    temp_.Write("d/" + file, text);
  }
  std::vector<Check> CheckAll() { return CheckApplications(paths_, {}); }

  TemporaryFolder temp_;
  TARVO::SupportForm::Paths paths_;
};

TEST_F(ApplicationsCheckTest, EachDescriptionIsSummedUpInTheOrderOfTheNames) {
  Describe("web.json", R"({"paths": ["/a"], "commands": [{"argv": ["ls"]}, {"argv": ["/bin/sh"]}]})");
  Describe("mail.json", R"({"paths": ["/a", "/b"]})");
  EXPECT_THAT(CheckAll(), ElementsAre(IsOk("mail: 2 paths, no commands"), IsOk("web: 1 path, 2 commands")));
}

TEST_F(ApplicationsCheckTest, ProgramThatIsNotThereIsAProblem) {
  Describe("web.json",
           R"({"commands": [{"argv": ["no-such-program"]}, {"argv": ["ls"]}, {"argv": ["/etc"]},
      {"argv": ["no-such-program", "again"]}]})");
  EXPECT_THAT(CheckAll(), ElementsAre(AllOf(IsProblem("there is no program no-such-program; "
                                                      "there is no program /etc"),
                                            Advises("Install"))));
}

TEST_F(ApplicationsCheckTest, ProgramThatAReadyDescriptionNamesInVainIsWarnedOf) {
  fs::create_directory(paths_.descriptions);
  const std::string file = temp_.Write("ready.json", R"({"commands": [{"argv": ["no-such-program"]}]})");
  fs::create_symlink(file, temp_.File("d/web.json"));
  EXPECT_THAT(CheckAll(), ElementsAre(IsProblem("there is no program no-such-program")))
      << "it is the owner's own";
  paths_.ready_descriptions = fs::path(file).parent_path();
  EXPECT_THAT(CheckAll(), ElementsAre(Warns("there is no program no-such-program")));
}

TEST_F(ApplicationsCheckTest, FaultyDescriptionIsAProblemThatNamesTheFaultAndTheOthersAreStillRead) {
  Describe("mail.json", R"({"path": []})");
  Describe("web.json", "{}");
  EXPECT_THAT(CheckAll(), ElementsAre(AllOf(IsProblem("unknown member \"path\""), IsProblem("d/mail.json")),
                                      IsOk("web")));
}

TEST_F(ApplicationsCheckTest, DescriptionThatOthersCanChangeIsAProblem) {
  Describe("mail.json", "{}");
  chmod(temp_.File("d/mail.json").c_str(), 0666);
  Describe("web.json", "{}");
  EXPECT_THAT(CheckAll(),
              ElementsAre(AllOf(IsProblem("mode 0666"), IsProblem("d/mail.json (owner ")), IsOk("web")));
  chmod(paths_.descriptions.c_str(), 0777);
  EXPECT_THAT(CheckAll(),
              ElementsAre(AllOf(IsProblem("mode 0777"), Advises("chmod go-w " + paths_.descriptions))));
}

TEST_F(ApplicationsCheckTest, NameThatNoTicketCanAskForIsAProblem) {
  Describe("mail server.json", "{}");
  EXPECT_THAT(CheckAll(), ElementsAre(AllOf(IsProblem("mail server.json: no ticket"), Advises("Rename it"))));
}

TEST_F(ApplicationsCheckTest, FileThatIsNotReadIsWarnedOf) {
  Describe("mail.json.old", "{}");
  Describe("x", "{}");
  EXPECT_THAT(CheckAll(), ElementsAre(Warns("mail.json.old: is not read"), Warns("x: is not read")));
}

TEST_F(ApplicationsCheckTest, NoDescriptionIsWarnedOf) {
  EXPECT_THAT(CheckAll(),
              ElementsAre(AllOf(Warns("none is described"), Advises(paths_.descriptions + "/NAME.json"))));
  fs::create_directory(paths_.descriptions);
  EXPECT_THAT(CheckAll(), ElementsAre(Warns("none is described")));
}

TEST_F(ApplicationsCheckTest, HiddenDescriptionIsAProblemForAnOrdinaryUser) {
  Describe("mail.json", "{}");
  chmod(temp_.File("").c_str(), 0755);
  chmod((paths_.descriptions + "/mail.json").c_str(), 0);
  const AsOrdinaryUser ordinary_user;
  EXPECT_THAT(CheckAll(), ElementsAre(AllOf(IsProblem("mail.json can't be read: Permission denied"),
                                            Advises("as root"))));
}

TEST_F(ApplicationsCheckTest, HiddenFolderIsAProblemForAnOrdinaryUser) {
  Describe("mail.json", "{}");
  chmod(paths_.descriptions.c_str(), 0);
  const AsOrdinaryUser ordinary_user;
  EXPECT_THAT(CheckAll(), ElementsAre(AllOf(IsProblem("Permission denied"), Advises("as root"))));
}

}  // namespace
}  // namespace DebugDatCheck
