/// debug_dat_run's run of a fake daemon, in a process of its own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon_run.h"
#include "program.h"

namespace DebugDatRun {

class DaemonRunTest : public testing::Test {
 protected:
  void SetUp() override;
  /// Ends all that the test has brought about.
  void TearDown() override;

  /// Begins a run. What it writes goes to Output().
  /// @param ways     What the fake daemon shall do; see fake_daemon.cpp.
  /// @param prepare  Is done in the process before.
  void Start(
      const std::string& ways, const std::function<void()>& prepare = [] {});
  /// The same, and waits until it watches the daemon.
  void StartAndWait(const std::string& ways);

  void Signal(int signal_number) const { run_->Signal(signal_number); }
  /// Waits for its end. Nothing of the daemon may be left then.
  /// @return How it ended.
  test_support::Ending End();

  [[nodiscard]] std::string Output() const { return folder_.Read("output"); }
  [[nodiscard]] bool WaitForOutput(const std::string& text) const;
  /// What the fake daemon has noted.
  [[nodiscard]] std::string Events() const { return folder_.Read("events"); }
  [[nodiscard]] bool WaitForEvent(const std::string& text) const;
  [[nodiscard]] pid_t Supervisor() const;
  [[nodiscard]] pid_t Worker() const;
  /// Puts a file where the fake daemon looks for it.
  void Put(const std::string& name) const { static_cast<void>(folder_.Write(name, "")); }

  test_support::TemporaryFolder folder_;
  Options options_;
  Paths paths_;
  Limits limits_;
  std::unique_ptr<test_support::ChildProcess> run_;
};

}  // namespace DebugDatRun
