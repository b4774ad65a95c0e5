/// What the tests of supportctl share: a service of their own, and the program's work in this process.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <chrono>
#include <string>
#include <vector>

#include "api_server.h"
#include "commands.h"
#include "console.h"
#include "eventually.h"
#include "temporary_folder.h"

namespace TarvoOrvane::Supportctl {

using test_support::Eventually;
using test_support::ReadFile;
using test_support::TemporaryFolder;
using test_support::WriteFile;

inline constexpr char kTicketId[] = "3f9a000000000001";
inline constexpr char kTime[] = "2026-11-23T13:05:07.123Z";

/// What a run came to.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;

  /// Of the whole standard output.
  [[nodiscard]] Json::Value Json() const;
};

/// A pause that is none, and patience that outlasts every test.
Patience ShortPauses();

/// A ticket as the service tells it. The rest of its members can be set by the test.
Json::Value TicketJson(const std::string& state = "queued", const std::string& id = kTicketId,
                       const std::string& device = "SN1");
/// One that has ended with the device's success.
Json::Value SuccessfulTicket(const std::string& id = kTicketId, const std::string& device = "SN1");
Json::Value DeviceJson(const std::string& serial_number, bool is_connected = true);
Json::Value EventJson(std::uint64_t number, const std::string& kind, const std::string& text = "");
/// An archive as a ticket tells of it, whose file has this content.
Json::Value ArchiveJson(std::uint64_t version, const std::string& content);
/// An answer of these bytes, with their length.
ApiHandler SendsBytes(const std::string& bytes, int status = 200);
/// A server-sent event with what happened to the ticket.
std::string SentEvent(std::uint64_t number, const std::string& kind, const Json::Value& ticket,
                      const std::string& text = "");
/// {MEMBER: [ELEMENTS]}
Json::Value ListJson(const char* member, const std::vector<Json::Value>& elements);

class SupportctlFixture : public ::testing::Test {
 protected:
  SupportctlFixture();

  /// Runs supportctl against the server, with the times of UTC + 1 h.
  Outcome Run(const std::vector<std::string>& arguments);
  /// The same, without saying where the service is.
  Outcome RunAsGiven(std::vector<std::string> arguments);

  TemporaryFolder temp_;
  std::string data_ = temp_.File("data");
  std::string input_;  ///< Standard input.
  bool err_is_terminal_ = false;
  bool has_colours_ = false;
  Patience patience_ = ShortPauses();
  ApiServer server_{std::filesystem::path(data_) / "control.sock"};
};

}  // namespace TarvoOrvane::Supportctl
