#include "run_checks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "check_matchers.h"
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

}  // namespace
}  // namespace DebugDatCheck
