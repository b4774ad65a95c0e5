#include "environment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "probe.h"
#include "temporary_folder.h"

namespace TarvoOrvane::Internal {
namespace {

using testing::ElementsAre;

TEST(EnvironmentTest, NamesThatSteerTheLibrariesAreKnown) {
  for (const char* name : {"GRPC_VERBOSITY",  "GRPC_DEFAULT_SSL_ROOTS_FILE_PATH",
                           "grpc_proxy",      "no_grpc_proxy",
                           "http_proxy",      "HTTPS_PROXY",
                           "all_proxy",       "no_proxy",
                           "SSLKEYLOGFILE",   "SSL_CERT_FILE",
                           "SSL_CERT_DIR",    "OPENSSL_CONF",
                           "OPENSSL_MODULES", "CURL_HOME",
                           "RES_OPTIONS",     "LOCALDOMAIN",
                           "HOSTALIASES",     "TZ",
                           "LOCPATH",         "GCONV_PATH"}) {
    EXPECT_TRUE(SteersOurLibraries(name)) << name;
  }
  for (const char* name : {"PATH", "HOME", "LANG", "TZX", "PROXY", "LD_LIBRARY_PATH", ""}) {
    EXPECT_FALSE(SteersOurLibraries(name)) << name;
  }
}

// Here the real shared library is loaded, and libcurl initialised, in a process of its own.
TEST(EnvironmentTest, LoadingTheLibraryRemovesThemBeforeAnythingReadsThem) {
  const test_support::TemporaryFolder folder;
  const std::string key_log = folder.File("keys");
  Testing::Probe probe({"FIRST=1", "SSLKEYLOGFILE=" + key_log, "http_proxy=http://127.0.0.1:1",
                        "HTTP_PROXY=http://127.0.0.1:1", "GRPC_TRACE=all", "OPENSSL_CONF=/nonexistent",
                        "LAST=2"});
  probe.Command("environment");
  std::vector<std::string> entries;
  for (std::string line = probe.Line(); line != "end of environment" && line != "(nothing)";
       line = probe.Line()) {
    entries.push_back(line);
  }
  EXPECT_THAT(entries, ElementsAre("FIRST=1", "LAST=2"));
  EXPECT_FALSE(std::filesystem::exists(key_log));
}

}  // namespace
}  // namespace TarvoOrvane::Internal
