/// One ticket on its road through a transmission child, with a fault in its way.
#pragma once

#include <string>
#include <vector>

#include "fault_fixture.h"

/// A line of the HTTP client.
std::string Transmitter(const std::string& text);
/// The line of a failed attempt, `times` times.
/// @param what  The text that follows "CurlPerform: ".
Lines Attempts(int times, int code, const std::string& what = "*");
/// The answer, or what all attempts together have received of one, is no JSON.
Lines NotParsed(const std::string& answer);
/// None of five attempts found anybody at the address.
Lines NobodyThere();

/// What a request logs, and whether it succeeds.
struct Course {
  Lines lines = {};
  bool succeeds = true;
};

/// All that a transmission child logs once it has its archive.
Lines ChildLines(const Course& upload, const Course& report);

/// An address at which nobody listens.
std::string UnusedUrl();

class TransmissionTest : public FaultTest {
 protected:
  /// Starts the support service.
  void SetUp() override;

  /// Starts the daemon. Its pauses take a twentieth of their time, and LetAttemptTimeOut() has its effect.
  void StartDaemonWith(const std::string& webapi_library_folder);
  /// With another maker's collection, which is over at once whatever else this machine has to do.
  void StartWithInstantCollection() { StartDaemonWith("vendor/webapi-Pelk5"); }
  /// With the host platform's collection, whose "status" waits a tenth of a second instead of five.
  void StartWithScaledCollection() { StartDaemonWith("scaled"); }

  /// The configuration with that address of the CSS server.
  [[nodiscard]] std::string ConfigWith(const std::string& css_url) const;

  /// Sends a ticket and waits until it was accepted.
  void TakeTicket(const std::string& app = "demo");
  /// Waits for that ticket's Completion.
  /// @return what its transmission child has logged.
  Lines LinesUpToTheCompletion(std::size_t ticket = 1);
  /// The "status" of each report among the requests.
  static Lines StatusesOf(const std::vector<ReceivedRequest>& reports);
  [[nodiscard]] bool WaitForRequests(const std::string& path, std::size_t count) const;

  /// With all limits and the configuration as they should be: the next ticket is served, and after it nothing is
  /// left but the daemon with the descriptors that it had before.
  void ExpectTheNextIsServedAndNothingLeft();

 private:
  Environment environment_;  ///< Of the daemon.
};
