/// What the tests of the transmitter share: a scripted platform that serves an address, and shorthands.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "json_util.h"
#include "scripted_platform.h"
#include "transmitter.h"
#include "transmitter_peer.h"

namespace TarvoOrvane::Transmitter {

// What nearly every test of the transmitter says.
using test_support::Call;
using test_support::Event;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Peer = DebugFileTransmitterPeer;

constexpr char kArchive[] = "/volume/debug.dat";
constexpr char kConfigLookup[] = "FromFile(/usr/tarvo/etc/tarvomibserver.conf)";
constexpr char kUploadFailed[] = "Failed to upload debug.dat file";
constexpr char kReportFailed[] = "Failed to update result to server";

/// An exception that derives from std::exception only.
class PlainException : public std::exception {
 public:
  const char* what() const noexcept override { return "plain trouble"; }
};

/// An error line of transmitter.cpp.
inline testing::Matcher<const test_support::Event&> Line(const testing::Matcher<std::string>& text) {
  return test_support::Error(text, "transmitter.cpp");
}

inline Json::Value Apps(const std::vector<std::string>& names) {
  Json::Value apps(Json::arrayValue);
  for (const std::string& name : names) {
    apps.append(name);
  }
  return apps;
}

inline Json::Value Parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Utils::FromString(text, value)) << text;
  return value;
}

inline std::string ConfigWithUrl(const std::string& url) {
  return R"({"debug_dat_file_transmitter":{"css_server":{"url":")" + url + R"("}}})";
}

/// A text part's addition to the form, as it is recorded.
inline std::string TextPart(const std::string& name, const std::string& value) {
  return "CurlHttpPostAdd(" + name + ", CURLFORM_COPYCONTENTS, " + value + ")";
}

/// A transfer that finds nobody.
inline void Refused(std::string&) { throw Utils::CurlFailedException(CURLE_COULDNT_CONNECT, "refused"); }

class TransmitterTest : public test_support::ScriptedPlatformTest {
 protected:
  TransmitterTest() { platform_.SetServiceConfig(ConfigWithUrl("http://css.example")); }

  /// A transmitter whose construction has left no record.
  DebugFileTransmitter MakeTransmitter(const std::string& token = "token-1") {
    DebugFileTransmitter transmitter(token);
    log_.Clear();
    return transmitter;
  }

  std::string CssServerUrl() {
    DebugFileTransmitter transmitter = MakeTransmitter();
    return Peer::GetCssServerUrl(transmitter);
  }
  bool Upload(const Json::Value& apps = Apps({})) { return MakeTransmitter().UploadFile(kArchive, apps); }
  bool Report(Result result = kSuccess) { return MakeTransmitter().UpdateResult(result); }

  /// Makes one request, with nothing of a caller's own unless `set_options` adds it.
  bool Request(const CurlOptionSetter& set_options = [](Utils::CurlHandle&, Utils::CurlHeaderList&) {
    return true;
  }) {
    DebugFileTransmitter transmitter = MakeTransmitter();
    return Peer::SendRequest(transmitter, set_options, "/path");
  }

  /// Lets each transfer bring `body`.
  void AnswerWith(const std::string& body) {
    platform_.curl_perform = [body](Utils::CurlHandle&, std::string& response) { response += body; };
  }

  /// Runs the attempts' scripts in turn; an attempt beyond them succeeds with {"success":true}.
  void Attempts(const std::vector<std::function<void(std::string&)>>& attempts) {
    const auto next = std::make_shared<std::size_t>(0);
    platform_.curl_perform = [attempts, next](Utils::CurlHandle&, std::string& response) {
      const std::size_t attempt = (*next)++;
      if (attempt < attempts.size()) {
        attempts[attempt](response);
      } else {
        response += R"({"success":true})";
      }
    };
  }

  /// Lets libcurl refuse the option `name`, and no other.
  void FailOption(const std::string& name, CURLcode code) {
    platform_.curl_easy_setopt = [name, code](const std::string& option) {
      return option == name ? code : CURLE_OK;
    };
  }

  std::size_t CountOf(const std::string& function) const { return log_.CallsOf(function).size(); }

  /// The last `count` calls.
  std::vector<std::string> LastCalls(std::size_t count) const {
    const std::vector<std::string> calls = log_.calls();
    return {calls.end() - static_cast<std::ptrdiff_t>(std::min(count, calls.size())), calls.end()};
  }
};

}  // namespace TarvoOrvane::Transmitter
