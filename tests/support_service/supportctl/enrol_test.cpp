/// Enrolling a device, and the files that this makes.
#include <sys/stat.h>

#include "child_process.h"
#include "enrolment_files.h"
#include "small_disk.h"
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

class SupportctlEnrolTest : public SupportctlFixture {
 protected:
  SupportctlEnrolTest() {
    enrolment_["device"] = DeviceJson("SN1", false);
    enrolment_["configuration"] = "[addresses]\n";
    enrolment_["ca_pem"] = "authority";
    enrolment_["client_pem"] = "certificate";
    enrolment_["client_key"] = "the key";
  }

  Outcome Enrol(const std::vector<std::string>& more = {}) {
    server_.On("POST", "/devices", {Answers(enrolment_, 201)});
    std::vector<std::string> arguments = {"device", "enrol", "SN1", "--out", out_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
  }
  [[nodiscard]] std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(out_)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }
  static unsigned ModeOf(const std::string& path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0 ? found.st_mode & 07777U : 0;
  }

  Json::Value enrolment_;
  const std::string out_ = temp_.File("keys");
};

TEST_F(SupportctlEnrolTest, FilesAreWrittenForTheirPlacesOnTheDevice) {
  const Outcome outcome = Enrol();
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(Names(), UnorderedElementsAre("ca.pem", "client.pem", "client.key", "tarvomibserver.conf"));
  EXPECT_EQ(ReadFile(out_ + "/client.key"), "the key");
  EXPECT_EQ(ReadFile(out_ + "/client.pem"), "certificate");
  EXPECT_EQ(ReadFile(out_ + "/ca.pem"), "authority");
  EXPECT_EQ(ReadFile(out_ + "/tarvomibserver.conf"), "[addresses]\n");
  EXPECT_EQ(ModeOf(out_), 0700U);
  EXPECT_EQ(ModeOf(out_ + "/client.key"), 0600U);
  EXPECT_THAT(outcome.out, HasSubstr("Copy the folder " + out_ + " to the device"));
  EXPECT_THAT(outcome.out,
              HasSubstr("install -o tarvo -g tarvo -m 0400 client.key /usr/tarvo/etc/tls/client.key\n"));
  EXPECT_THAT(outcome.out, HasSubstr(" tarvomibserver.conf /usr/tarvo/etc/tarvomibserver.conf\n"));
  EXPECT_THAT(outcome.out, Not(HasSubstr("the key")));
  EXPECT_EQ(server_.Requests().at(0).Json()["serial_number"], "SN1");
}

TEST_F(SupportctlEnrolTest, JsonHasTheFilesAndNotTheKey) {
  const Outcome outcome = Enrol({"--json"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.Json()["device"]["serial_number"], "SN1");
  EXPECT_EQ(outcome.Json()["files"].size(), 4U);
  EXPECT_THAT(outcome.out, Not(HasSubstr("the key")));
}

TEST_F(SupportctlEnrolTest, AnswerWithoutACertificateIsTold) {
  enrolment_.removeMember("client_pem");
  enrolment_.removeMember("client_key");
  const Outcome other_authority = Enrol();
  EXPECT_EQ(other_authority.status, 0) << other_authority.err;
  EXPECT_THAT(Names(), UnorderedElementsAre("ca.pem", "tarvomibserver.conf"));
  EXPECT_THAT(other_authority.out, HasSubstr("no certificate"));
  EXPECT_THAT(other_authority.out, HasSubstr("of the authority that the service trusts"));
  enrolment_.removeMember("ca_pem");
  std::filesystem::remove_all(out_);
  const Outcome allow_list = Enrol();
  EXPECT_THAT(Names(), UnorderedElementsAre("tarvomibserver.conf"));
  EXPECT_THAT(allow_list.out, Not(HasSubstr("authority")));
}

TEST_F(SupportctlEnrolTest, FileThatIsThereIsNotOverwrittenAndNoCertificateIsMade) {
  WriteFile(out_ + "/client.key", "old key");
  const Outcome outcome = Enrol();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("client.key is there already"));
  EXPECT_THAT(outcome.err, HasSubstr("--renew"));
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_EQ(ReadFile(out_ + "/client.key"), "old key");
}

TEST_F(SupportctlEnrolTest, FolderInAFilesPlaceIsNotOverwrittenEither) {
  WriteFile(out_ + "/ca.pem/inside", "");
  const Outcome outcome = Enrol({"--renew"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("ca.pem is a folder"));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(SupportctlEnrolTest, RenewalOverwritesAndLeavesNothingElse) {
  EXPECT_EQ(Enrol().status, 0);
  enrolment_["client_key"] = "new key";
  EXPECT_EQ(Enrol({"--renew"}).status, 0);
  EXPECT_EQ(ReadFile(out_ + "/client.key"), "new key");
  EXPECT_EQ(ModeOf(out_ + "/client.key"), 0600U);
  EXPECT_EQ(Names().size(), 4U);
}

TEST_F(SupportctlEnrolTest, RefusalWritesNothing) {
  server_.On("POST", "/devices", {Refuses(403, "forbidden", "Needs admin.")});
  EXPECT_EQ(Run({"device", "enrol", "SN1", "--out", out_}).status, 4);
  EXPECT_TRUE(Names().empty());
}

TEST_F(SupportctlEnrolTest, WhatCannotBeCompletedIsTakenBack) {
  EXPECT_EQ(Enrol().status, 0);
  enrolment_["client_key"] = "new key";
  enrolment_["configuration"] = 7;  // found out when the others are written already
  const Outcome outcome = Enrol({"--renew"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(ReadFile(out_ + "/client.key"), "the key");
  EXPECT_EQ(ReadFile(out_ + "/tarvomibserver.conf"), "[addresses]\n");
  EXPECT_EQ(Names().size(), 4U) << "no temporary file is left";
}

TEST_F(SupportctlEnrolTest, DiskThatIsFullLeavesWhatWasThere) {
  EXPECT_EQ(Enrol().status, 0);
  enrolment_["ca_pem"] = "new authority";
  enrolment_["client_key"] = std::string(500, 'k');  // for which there is no room
  server_.On("POST", "/devices", {Answers(enrolment_, 201)});
  const test_support::CallerProcess process([&] {
    test_support::LimitFileSize();
    const Outcome outcome = Run({"device", "enrol", "SN1", "--out", out_, "--renew"});
    return std::to_string(outcome.status) + outcome.err;
  });
  EXPECT_EQ(process.Answer(), "1supportctl: can't write " + out_ + "/client.key: File too large\n");
  EXPECT_EQ(ReadFile(out_ + "/ca.pem"), "authority");
  EXPECT_EQ(ReadFile(out_ + "/client.key"), "the key");
  EXPECT_EQ(Names().size(), 4U) << "no temporary file is left";
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
