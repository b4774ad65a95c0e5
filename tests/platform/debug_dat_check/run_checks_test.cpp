#include "run_checks.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "check_matchers.h"
#include "child_process.h"
#include "scripted_server.h"
#include "steerable_server.h"
#include "temporary_folder.h"

namespace DebugDatCheck {
namespace {

using std::chrono::milliseconds;
using TarvoOrvane::Testing::ScriptedServer;
using test_support::TemporaryFolder;
using ::testing::Each;
using ::testing::Field;

class RunChecksTest : public ::testing::Test {
 protected:
  RunChecksTest() {
    places_.configuration = temp_.File("conf");
    places_.tls_folder = temp_.File("tls");
    places_.serial_number = {temp_.Write("serial", "SN-1\n"), "", ""};
    places_.collection.state = temp_.File("state");
    places_.collection.descriptions = temp_.File("d");
    places_.collection.redaction = temp_.File("patterns");
    places_.logger.flag_file = temp_.File("debug");
    places_.pid_file = temp_.File("pid");
    places_.unit = temp_.File("unit");
    std::filesystem::create_directory(temp_.File("d"));
    temp_.Write("d/mail.json", "{}");
  }

  void Configure(const std::string& notification, const std::string& css) {
    temp_.Write("conf", R"({"debug_dat_file_transmitter": {"grpc_server": {"url": ")" + notification +
                            R"("}, "css_server": {"url": ")" + css + R"("}}})");
  }

  void RunAll() {
    RunChecks(places_, {milliseconds(10'000), milliseconds(200)},
              [this](const Check& check) { checks_.push_back(check); });
  }

  /// The one check of that name.
  Check Named(const std::string& name) {
    const auto is_it = [&](const Check& check) { return check.name == name; };
    EXPECT_EQ(std::count_if(checks_.begin(), checks_.end(), is_it), 1) << name;
    const auto found = std::find_if(checks_.begin(), checks_.end(), is_it);
    return found == checks_.end() ? Check() : *found;
  }

  TemporaryFolder temp_;
  Places places_;
  std::vector<Check> checks_;
};

TEST_F(RunChecksTest, HealthySetupIsOkThroughout) {
  const ScriptedServer notification;
  SteerableServer css({HttpAnswer("405 Method Not Allowed", ""), HttpAnswer("405 Method Not Allowed", "")});
  Configure(notification.url(), css.Url());
  RunAll();
  std::vector<std::string> names;
  names.reserve(checks_.size());
  for (const Check& check : checks_) names.push_back(check.name);
  EXPECT_THAT(names, ::testing::ElementsAre("configuration", "notification address", "CSS address",
                                            "TLS files", "notification host", "notification stream",
                                            "CSS host", "CSS server", "serial number", "debug log",
                                            "free space", "pattern file", "application", "daemon"));
  checks_.pop_back();                // whether a daemon runs here
  checks_.erase(checks_.end() - 3);  // how full the test machine is
  EXPECT_THAT(checks_, Each(Field(&Check::state, State::kOk)));
}

TEST_F(RunChecksTest, WithoutConfigurationTheServersAreSkippedAndTheRestIsChecked) {
  RunAll();
  EXPECT_THAT(Named("configuration"), IsProblem(""));
  for (const char* name : {"notification address", "notification host", "notification stream", "CSS address",
                           "CSS host", "CSS server"}) {
    EXPECT_THAT(Named(name), WasSkipped("no"));
  }
  EXPECT_THAT(Named("serial number"), IsOk("SN-1"));
  EXPECT_THAT(Named("application"), IsOk("mail"));
}

TEST_F(RunChecksTest, UnusableAddressOfOneServerLeavesTheOtherChecked) {
  SteerableServer css({HttpAnswer("405 Method Not Allowed", ""), HttpAnswer("405 Method Not Allowed", "")});
  Configure("nonsense", css.Url());
  RunAll();
  EXPECT_THAT(Named("notification address"), IsProblem(""));
  EXPECT_THAT(Named("notification host"), WasSkipped("no usable address"));
  EXPECT_THAT(Named("notification stream"), WasSkipped("no usable address"));
  EXPECT_THAT(Named("CSS server"), IsOk("HTTP 405"));
}

TEST_F(RunChecksTest, UnusableTlsFilesLeaveOutConnectionsOverTlsOnly) {
  const ScriptedServer notification;
  Configure(notification.url(), "https://localhost:9");
  std::filesystem::create_directory(places_.tls_folder);
  temp_.Write("tls/ca.pem", "none");
  RunAll();
  EXPECT_THAT(Named("TLS files"), IsProblem("ca.pem"));
  EXPECT_THAT(Named("notification stream"), IsOk("opens"));
  EXPECT_THAT(Named("CSS server"), WasSkipped("the TLS files"));
}

TEST_F(RunChecksTest, ServerWhoseNameIsUnknownIsSkipped) {
  // curl takes the name; no name server is asked for one with an empty label.
  Configure("nonsense", "http://no..name");
  RunAll();
  EXPECT_THAT(Named("CSS host"), IsProblem("no..name"));
  EXPECT_THAT(Named("CSS server"), WasSkipped("address is not known"));
}

/// A device with the units: its daemon is the user tarvo, who is in a group beside their own.
class UnitUserTest : public RunChecksTest {
 protected:
  static constexpr unsigned kUser = 64646;
  static constexpr unsigned kOtherGroup = 64647;
  static constexpr unsigned kStranger = 64648;
  static constexpr int kNoNamespace = 77;

  UnitUserTest() {
    Configure("nonsense", "nonsense://");
    temp_.Write("unit", "");
    temp_.Write("passwd", "root:x:0:0::/:/bin/sh\ntarvo:x:64646:64646::/:/bin/false\n");
    temp_.Write("group", "root:x:0:\ntarvo:x:64646:\nother:x:64647:tarvo\n");
    chmod(temp_.path().c_str(), 0755);
  }

  /// Runs `body` as root in a process for which there is the user; skips the test where that can't be.
  void OnDevice(const std::function<void()>& body) const {
    const test_support::Ending ending = test_support::RunInChild([&] {
      if (geteuid() != 0 || !MakeUser()) return kNoNamespace;
      body();
      return 0;
    });
    if (ending.exit_status == kNoNamespace) {
      GTEST_SKIP() << "no other users, no private mounts, or a name service of its own here";
    }
    EXPECT_THAT(ending, test_support::ExitedWith(0));
  }

  static bool Become(unsigned user) {
    return seteuid(0) == 0 && setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 &&
           setresuid(user, user, user) == 0;
  }

 private:
  [[nodiscard]] bool MakeUser() const {
    const auto replace = [&](const char* file, const std::string& path) {
      return mount(temp_.File(file).c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
    };
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           replace("passwd", "/etc/passwd") && replace("group", "/etc/group") && IsThere();
  }

  /// A name service that runs on this machine (nscd) answers from the machine's own files.
  static bool IsThere() {
    const passwd* const user = getpwnam(kUnitUser);
    return user != nullptr && user->pw_uid == kUser;
  }
};

TEST_F(UnitUserTest, WhatTheDaemonUsesIsLookedAtWithTheRightsOfAllItsGroups) {
  OnDevice([this] {
    ASSERT_EQ(chown(places_.configuration.c_str(), 0, kOtherGroup), 0);
    ASSERT_EQ(chmod(places_.configuration.c_str(), 0640), 0);
    std::filesystem::create_directory(temp_.File("closed"));
    places_.logger.flag_file = temp_.Write("closed/debug", "");
    ASSERT_EQ(chmod(temp_.File("closed").c_str(), 0700), 0);
    RunAll();
    EXPECT_THAT(Named("configuration"), IsOk("names both servers"));
    EXPECT_THAT(Named("debug log"), IsOk("off: log lines go to syslog")) << "only root sees the file";
  });
}

TEST_F(UnitUserTest, TheUserCanSendNoSignalsToRootsCheck) {
  OnDevice([this] {
    std::string sent;
    RunChecks(places_, {}, [&](const Check& check) {
      if (check.name != "configuration") return;
      EXPECT_EQ(geteuid(), kUser);
      const test_support::CallerProcess sender([]() -> std::string {
        if (!Become(kUser)) return "still root";
        return kill(getppid(), 0) == 0 ? "sent" : strerrorname_np(errno);
      });
      sent = sender.Answer();
    });
    EXPECT_EQ(sent, "EPERM");
    EXPECT_EQ(geteuid(), 0U);
  });
}

TEST_F(UnitUserTest, RefusedAccessAdvisesToGiveThatUserTheRight) {
  OnDevice([this] {
    ASSERT_EQ(chmod(places_.configuration.c_str(), 0600), 0);
    RunAll();
    EXPECT_THAT(Named("configuration"), AllOf(IsProblem("Permission denied"), Advises("the user tarvo")));
  });
}

TEST_F(UnitUserTest, RefusedAccessAdvisesThatUserTheSame) {
  OnDevice([this] {
    ASSERT_EQ(chmod(places_.configuration.c_str(), 0600), 0);
    ASSERT_TRUE(Become(kUser));
    RunAll();
    EXPECT_THAT(Named("configuration"), AllOf(IsProblem("Permission denied"), Advises("the user tarvo")));
    EXPECT_THAT(Named("configuration"), Not(Advises("as root")));
  });
}

TEST_F(UnitUserTest, CollectorsSocketIsLookedAtWhoeverAsks) {
  places_.collection.socket = temp_.File("socket");
  OnDevice([this] {
    RunAll();
    EXPECT_THAT(Named("collector"), IsProblem("nothing listens"));
    checks_.clear();
    ASSERT_TRUE(Become(kStranger));
    RunAll();
    EXPECT_THAT(Named("collector"), IsProblem("nothing listens"));
  });
}

}  // namespace
}  // namespace DebugDatCheck
