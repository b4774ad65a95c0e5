#include "tls_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "temporary_folder.h"
#include "test_certificate.h"

namespace TarvoOrvane::Internal {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Testing::MakeTestCertificate;
using testing::Not;
using testing::StartsWith;
using Testing::TestCertificate;

class TlsFilesTest : public testing::Test {
 protected:
  void Write(const std::string& name, const std::string& text) const {
    folder_.Write(name, text);
    SetMode(name, name == "client.key" ? 0600 : 0644);
  }
  void WriteClientFiles() const {
    Write("client.pem", device_.certificate);
    Write("client.key", device_.key);
  }
  void SetMode(const std::string& name, mode_t mode) const {
    ASSERT_EQ(chmod(folder_.File(name).c_str(), mode), 0);
  }
  std::vector<std::string> Load() {
    std::vector<std::string> lines;
    for (const TlsFault& fault : LoadTlsFiles(folder_.File("."), files_)) lines.push_back(LineOf(fault));
    return lines;
  }
  /// Matches a problem of this file.
  static auto Problem(const std::string& name, const std::string& text) {
    return AllOf(HasSubstr("/" + name + ": "), HasSubstr(text), HasSubstr("; "));
  }

  const test_support::TemporaryFolder folder_;
  const TestCertificate device_ = MakeTestCertificate();
  const TestCertificate other_ = MakeTestCertificate();
  TlsFiles files_;
};

TEST_F(TlsFilesTest, AFolderThatIsEmptyOrMissingIsNoProblem) {
  EXPECT_THAT(Load(), IsEmpty());
  EXPECT_THAT(LoadTlsFiles(folder_.File("missing"), files_), IsEmpty());
  EXPECT_EQ(files_.authorities + files_.client_certificate + files_.client_key, "");
}

TEST_F(TlsFilesTest, TheTextsAreHandedOutAsTheyAre) {
  const std::string authorities = "two of them\n" + other_.certificate + "\n" + device_.certificate;
  Write("ca.pem", authorities);
  const std::string chain = device_.certificate + other_.certificate;
  Write("client.pem", chain);
  Write("client.key", device_.key);
  EXPECT_THAT(Load(), IsEmpty());
  EXPECT_EQ(files_.authorities, authorities);
  EXPECT_EQ(files_.client_certificate, chain);
  EXPECT_EQ(files_.client_key, device_.key);
}

TEST_F(TlsFilesTest, AFileOfOneMebibyteIsTaken) {
  Write("ca.pem", other_.certificate + std::string((1 << 20) - other_.certificate.size(), '\n'));
  EXPECT_THAT(Load(), IsEmpty());
  EXPECT_EQ(files_.authorities.size(), std::size_t{1} << 20U);
}

TEST_F(TlsFilesTest, TheFilesMayBeLinks) {
  Write("elsewhere", other_.certificate);
  std::filesystem::create_symlink("elsewhere", folder_.File("ca.pem"));
  EXPECT_THAT(Load(), IsEmpty());
  EXPECT_EQ(files_.authorities, other_.certificate);
}

TEST_F(TlsFilesTest, AFileThatIsThereButCannotBeUsedIsAProblemAndNothingIsHandedOut) {
  const std::string damaged = device_.certificate.substr(0, device_.certificate.size() / 2);
  const std::pair<std::string, std::string> cases[] = {
      {"", "is empty"},
      {"no PEM", "holds no PEM certificate"},
      {device_.key, "holds no PEM certificate"},
      {damaged, "damaged"},
      {other_.certificate + damaged, "damaged"},
      {std::string((1 << 20) + 1, '\n'), "File too large"},
  };
  WriteClientFiles();
  for (const auto& [text, fault] : cases) {
    Write("ca.pem", text);
    EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", fault)));
    EXPECT_EQ(files_.client_key, "");
  }
}

TEST_F(TlsFilesTest, AFolderAFifoOrALinkToNothingIsNoFile) {
  std::filesystem::create_directory(folder_.File("ca.pem"));
  EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", "is no regular file")));
  std::filesystem::remove(folder_.File("ca.pem"));
  ASSERT_EQ(mkfifo(folder_.File("ca.pem").c_str(), 0644), 0);
  EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", "is no regular file")));
  std::filesystem::remove(folder_.File("ca.pem"));
  std::filesystem::create_symlink("missing", folder_.File("ca.pem"));
  EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", "can't be opened (No such file or directory)")));
}

TEST_F(TlsFilesTest, AFileThatMayNotBeReadIsAProblem) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
  Write("ca.pem", other_.certificate);
  SetMode("ca.pem", 0);
  EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", "can't be opened (Permission denied)")));
}

TEST_F(TlsFilesTest, AFileOfAnotherUserIsAProblem) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  Write("ca.pem", other_.certificate);
  ASSERT_EQ(chown(folder_.File("ca.pem").c_str(), 65534, 65534), 0);
  EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", "belongs to a user who is neither root")));
}

TEST_F(TlsFilesTest, AFileThatOthersMayChangeAndAKeyThatTheyMayReadIsAProblem) {
  WriteClientFiles();
  Write("ca.pem", other_.certificate);
  for (const mode_t mode : {0664U, 0646U}) {
    SetMode("ca.pem", mode);
    SetMode("client.pem", mode);
    EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", "may be changed by other users"),
                                    Problem("client.pem", "may be changed by other users")));
  }
  SetMode("ca.pem", 0644);
  SetMode("client.pem", 0644);
  for (const mode_t mode : {0640U, 0604U, 0610U}) {
    SetMode("client.key", mode);
    EXPECT_THAT(Load(), ElementsAre(Problem("client.key", "set its mode to 0600")));
  }
  SetMode("client.key", 0400);
  EXPECT_THAT(Load(), IsEmpty());
}

TEST_F(TlsFilesTest, ClientCertificateAndKeyComeTogetherOrNotAtAll) {
  Write("client.pem", device_.certificate);
  EXPECT_THAT(Load(), ElementsAre(Problem("client.key", "is missing, though there is client.pem")));
  std::filesystem::remove(folder_.File("client.pem"));
  Write("client.key", device_.key);
  EXPECT_THAT(Load(), ElementsAre(Problem("client.pem", "is missing, though there is client.key")));
}

TEST_F(TlsFilesTest, TheKeyBelongsToTheFirstCertificate) {
  WriteClientFiles();
  Write("client.pem", other_.certificate + device_.certificate);
  EXPECT_THAT(Load(), ElementsAre(Problem("client.key", "is not the key of the first certificate")));
}

TEST_F(TlsFilesTest, AnEncryptedOrDamagedKeyIsAProblem) {
  WriteClientFiles();
  Write("client.key", Testing::EncryptKey(device_.key));
  EXPECT_THAT(Load(), ElementsAre(Problem("client.key", "is encrypted")));
  Write("client.key", device_.key.substr(0, device_.key.size() / 2));
  EXPECT_THAT(Load(), ElementsAre(Problem("client.key", "damaged")));
}

TEST_F(TlsFilesTest, AClientCertificateThatIsNotValidNowIsAProblem) {
  for (const auto& [validity, fault] :
       {std::pair<Testing::Validity, std::string>{{-7200, -3600}, "expired on 20"},
        {{3600, 7200}, "not valid before 20"}}) {
    const TestCertificate device = MakeTestCertificate(validity);
    Write("client.pem", device.certificate);
    Write("client.key", device.key);
    EXPECT_THAT(Load(), ElementsAre(Problem("client.pem", fault)));
  }
}

TEST_F(TlsFilesTest, OfTheAuthoritiesOneThatIsValidNowSuffices) {
  const std::string expired = MakeTestCertificate({-7200, -3600}).certificate;
  Write("ca.pem", expired);
  EXPECT_THAT(Load(), ElementsAre(Problem("ca.pem", "none of its certificates is valid now")));
  Write("ca.pem", expired + other_.certificate);
  EXPECT_THAT(Load(), IsEmpty());
}

TEST_F(TlsFilesTest, EveryProblemIsALineOfItsOwnThatTellsNoSecret) {
  Write("ca.pem", "no PEM");
  Write("client.pem", "no PEM");
  Write("client.key", "KeyMaterial");
  const auto problems = Load();
  EXPECT_THAT(problems, ElementsAre(Problem("ca.pem", "holds no PEM"), Problem("client.pem", "holds no PEM"),
                                    Problem("client.key", "holds no PEM")));
  for (const auto& problem : problems) {
    EXPECT_THAT(problem,
                AllOf(StartsWith(folder_.File("")), Not(HasSubstr("\n")), Not(HasSubstr("KeyMaterial"))));
  }
}

TEST_F(TlsFilesTest, OpenSslsOwnNotesOfTheFaultsAreTakenBack) {
  Write("ca.pem", "no PEM");
  ERR_clear_error();
  EXPECT_FALSE(Load().empty());
  EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace TarvoOrvane::Internal
