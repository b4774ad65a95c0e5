/// The real daemon under debug_dat_run, with the real support service. The tests are the service manager.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fault_fixture.h"

class ForegroundFixture : public FaultTest {
 protected:
  /// Ends the run before all else, and with it the daemon.
  void TearDown() override;

  /// Starts debug_dat_run. run_ is it, whose output goes to a file of its own.
  void StartRun(const std::vector<std::string>& arguments = {}, const Environment& extra = {});
  /// The service, its configuration and a run; waits until the device is connected.
  void StartAllInForeground(const std::vector<std::string>& arguments = {}, const Environment& extra = {});
  /// Looks for supervisor_ and worker_, by the pid file.
  /// @return Whether both are there and alive.
  [[nodiscard]] bool FindProcesses();

  /// How often the device has connected so far.
  [[nodiscard]] std::size_t Connections() const;
  [[nodiscard]] bool WaitForConnections(std::size_t count) const;
  /// What the run and all others have said, for messages.
  [[nodiscard]] std::string Everything() const;
  /// Waits until no process is left but those of the test, and `spared`; reaps what this process has adopted.
  [[nodiscard]] testing::AssertionResult WaitForNothingElse(std::set<pid_t> spared = {}) const;

  std::unique_ptr<Program> run_;
};
