#include <fstream>

#include "daemon_fixture.h"

using testing::StartsWith;

namespace {

constexpr char kReadFailure[] = "Failed to read conf from: [/usr/tarvo/etc/tarvomibserver.conf]";

class GrpcServerUrlTest : public DaemonTest {
 protected:
  std::string Lookup(const std::string& config) {
    platform_.SetServiceConfig(config);
    return main_.GetGrpcServerUrl();
  }
};

TEST_F(GrpcServerUrlTest, AddressIsReturnedExactlyAsStored) {
  EXPECT_EQ(Lookup(R"({"debug_dat_file_transmitter":{"grpc_server":{"url":" http://h:1/p/ "}}})"),
            " http://h:1/p/ ");
  EXPECT_THAT(log_.events(), ElementsAre(Call("FromFile(/usr/tarvo/etc/tarvomibserver.conf)")));
}

TEST_F(GrpcServerUrlTest, UnknownMembersAreIgnoredAtEveryLevel) {
  EXPECT_EQ(Lookup(R"({"x":1,"debug_dat_file_transmitter":{"x":[],"css_server":3,
                       "grpc_server":{"x":{},"url":"h:1"}}})"),
            "h:1");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(GrpcServerUrlTest, FileIsReadAfreshAtEveryLookup) {
  EXPECT_EQ(Lookup(R"({"debug_dat_file_transmitter":{"grpc_server":{"url":"one"}}})"), "one");
  EXPECT_EQ(Lookup(R"({"debug_dat_file_transmitter":{"grpc_server":{"url":"two"}}})"), "two");
}

TEST_F(GrpcServerUrlTest, EmptyAddressIsNoFailureOfTheLookup) {
  EXPECT_EQ(Lookup(R"({"debug_dat_file_transmitter":{"grpc_server":{"url":""}}})"), "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(GrpcServerUrlTest, MissingFileIsLoggedWithItsPath) {
  EXPECT_EQ(main_.GetGrpcServerUrl(), "");
  EXPECT_THAT(log_.lines(), ElementsAre(Error(kReadFailure)));
}

TEST_F(GrpcServerUrlTest, FolderInPlaceOfTheFileIsLoggedWithItsPath) {
  std::filesystem::create_directory(platform_.service_config_path());
  EXPECT_EQ(main_.GetGrpcServerUrl(), "");
  EXPECT_THAT(log_.lines(), ElementsAre(Error(kReadFailure)));
}

TEST_F(GrpcServerUrlTest, FileThatIsNoJsonIsLoggedWithItsPath) {
  for (const std::string& text : {std::string(), std::string("{"), std::string(1200, '[')}) {
    log_.Clear();
    EXPECT_EQ(Lookup(text), "");
    EXPECT_THAT(log_.lines(), ElementsAre(Error(kReadFailure)));
  }
}

/// Documents that fail one structural test each; the whole document is logged.
class InvalidConfigTest : public GrpcServerUrlTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(
    , InvalidConfigTest,
    testing::Values(R"(["debug_dat_file_transmitter"])", R"("debug_dat_file_transmitter")", "12", "null",
                    "{}", R"({"other":{"grpc_server":{"url":"h:1"}}})",
                    R"({"debug_dat_file_transmitter":"grpc_server"})",
                    R"({"debug_dat_file_transmitter":["grpc_server"]})",
                    R"({"debug_dat_file_transmitter":null})", R"({"debug_dat_file_transmitter":{}})",
                    R"({"debug_dat_file_transmitter":{"css_server":{"url":"h:1"}}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":"url"}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":["url"]}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":null}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":{}}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":{"address":"h:1"}}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":{"url":12}}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":{"url":null}}})",
                    R"({"debug_dat_file_transmitter":{"grpc_server":{"url":["h:1"]}}})"));

TEST_P(InvalidConfigTest, IsLoggedWhole) {
  EXPECT_EQ(Lookup(GetParam()), "");
  EXPECT_THAT(log_.lines(), ElementsAre(Error(std::string("Failed to validate data: [") + GetParam() + "]")));
}

}  // namespace
