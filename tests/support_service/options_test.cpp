#include "options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Parsed<ServiceSettings> Service(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "support_service");
  return ParseServiceOptions(static_cast<int>(arguments.size()), arguments.data());
}

Parsed<TicketOptions> TicketLine(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "ticket");
  return ParseTicketOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(ServiceOptionsTest, DefaultsAreLoopbackAndFreePorts) {
  const auto parsed = Service({});
  ASSERT_TRUE(parsed.run);
  EXPECT_EQ(parsed.options.grpc_address, "127.0.0.1:0");
  EXPECT_EQ(parsed.options.http_address, "127.0.0.1:0");
  EXPECT_EQ(parsed.options.data_folder, "support_service_data");
  EXPECT_EQ(parsed.options.tickets.retry_pause, seconds(2));
  EXPECT_EQ(parsed.options.tickets.hello_limit, seconds(10));
  EXPECT_EQ(parsed.options.http_idle_limit, seconds(60));
}

TEST(ServiceOptionsTest, AllCanBeSet) {
  const auto parsed = Service({"--grpc-address", "unix:/tmp/x", "--http-address", "[::1]:8080", "--data",
                               "/tmp/d", "--retry-seconds", "7"});
  ASSERT_TRUE(parsed.run) << parsed.text;
  EXPECT_EQ(parsed.options.grpc_address, "unix:/tmp/x");
  EXPECT_EQ(parsed.options.http_address, "[::1]:8080");
  EXPECT_EQ(parsed.options.data_folder, "/tmp/d");
  EXPECT_EQ(parsed.options.tickets.retry_pause, seconds(7));
}

TEST(ServiceOptionsTest, WrongOnesAreExplainedWithStatus2) {
  for (const auto& arguments : std::vector<std::vector<const char*>>{{"--grpc-address", "nonsense"},
                                                                     {"--http-address", "unix:/tmp/x"},
                                                                     {"--retry-seconds", "0"},
                                                                     {"--retry-seconds", "86401"},
                                                                     {"--data", ""},
                                                                     {"--unknown"},
                                                                     {"extra"}}) {
    const auto parsed = Service(arguments);
    EXPECT_FALSE(parsed.run) << arguments[0];
    EXPECT_EQ(parsed.exit_status, 2);
    EXPECT_FALSE(parsed.text.empty());
  }
}

TEST(ServiceOptionsTest, HelpHasExamplesAndStatus0) {
  const auto parsed = Service({"--help"});
  EXPECT_FALSE(parsed.run);
  EXPECT_EQ(parsed.exit_status, 0);
  EXPECT_THAT(parsed.text, HasSubstr("Examples:"));
}

TEST(TicketOptionsTest, AppsAreSplitAtCommas) {
  EXPECT_THAT(TicketLine({"--apps", "a,b c,d"}).options.apps, ElementsAre("a", "b c", "d"));
}

TEST(TicketOptionsTest, EmptyListOfAppsIsAllowed) {
  const auto parsed = TicketLine({"--apps", ""});
  EXPECT_TRUE(parsed.run) << parsed.text;
  EXPECT_THAT(parsed.options.apps, IsEmpty());
}

TEST(TicketOptionsTest, EmptyNamesAndMissingAppsAreRefused) {
  for (const auto& arguments :
       std::vector<std::vector<const char*>>{{"--apps", "a,,b"}, {"--apps", ","}, {"--apps", "a,"}, {}}) {
    const auto parsed = TicketLine(arguments);
    EXPECT_FALSE(parsed.run);
    EXPECT_EQ(parsed.exit_status, 2);
    EXPECT_THAT(parsed.text, HasSubstr("--apps"));
  }
}

TEST(TicketOptionsTest, WaitTakesAnOptionalLimit) {
  EXPECT_FALSE(TicketLine({"--apps", "a"}).options.wait);
  const auto endless = TicketLine({"--apps", "a", "--wait", "--device", "SN1"});
  EXPECT_TRUE(endless.options.wait);
  EXPECT_FALSE(endless.options.wait_limit);
  EXPECT_EQ(endless.options.device, "SN1");
  EXPECT_EQ(TicketLine({"--apps", "a", "--wait", "7"}).options.wait_limit, seconds(7));
  EXPECT_EQ(TicketLine({"--apps", "a", "--wait", "0"}).exit_status, 2);
  EXPECT_EQ(TicketLine({"--apps", "a", "--wait", "soon"}).exit_status, 2);
}

TEST(TicketOptionsTest, ListingsStandAlone) {
  EXPECT_EQ(TicketLine({"--list"}).options.action, TicketOptions::Action::kListTickets);
  EXPECT_EQ(TicketLine({"--devices"}).options.action, TicketOptions::Action::kListDevices);
  EXPECT_EQ(TicketLine({"--list", "--devices"}).exit_status, 2);
  EXPECT_EQ(TicketLine({"--list", "--apps", "a"}).exit_status, 2);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
