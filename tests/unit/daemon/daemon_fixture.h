/// What the tests of the daemon object share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <csignal>
#include <string>
#include <vector>

#include "child_process.h"
#include "debug_dat_transmitter.h"
#include "scripted_platform.h"

/// A line of debug_dat_transmitter.cpp at error level.
inline testing::Matcher<const test_support::Event&> Error(const testing::Matcher<std::string>& text) {
  return test_support::Error(text, "debug_dat_transmitter.cpp");
}

/// A line of debug_dat_transmitter.cpp at warning level.
inline testing::Matcher<const test_support::Event&> Warning(const testing::Matcher<std::string>& text) {
  return test_support::Warning(text, "debug_dat_transmitter.cpp");
}

// What nearly every test of the daemon object says.
using test_support::Call;
using test_support::ExitedWith;
using test_support::KilledBy;
using test_support::RecordCall;
using test_support::RunInChild;
using test_support::ScriptedPlatform;
using testing::ElementsAre;
using testing::IsEmpty;
namespace real = test_support::real;

/// Sends the calling process a signal; its handler has run when this returns.
inline void Signal(int number) { static_cast<void>(raise(number)); }

/// The value that `text` stands for; a failure where it is no JSON.
Json::Value Parse(const std::string& text);

/// A supervisor's and a worker's daemon object. No wait lasts: select() looks once and is recorded as
/// "select(descriptor, seconds, microseconds)". At its end a test fails where two formats
/// name the same file and line.
class DaemonTest : public test_support::ScriptedPlatformTest {
 protected:
  DaemonTest();
  ~DaemonTest() override;

  /// Joins main_ and worker_ by two pipes with non-blocking ends.
  void JoinByPipes();

  /// Puts `text`, zero-padded to `size` bytes, into a pipe.
  static void Put(int fd, const std::string& text, std::size_t size = 2048);

  /// Everything that waits in a pipe, which may be empty.
  static std::string TakeAll(int fd);

  /// The texts of the frames that wait in a pipe; a failure where a frame is not whole and zero-padded.
  static std::vector<std::string> TakeFrames(int fd);

  DebugDatTransmitterDaemon main_;
  DebugDatTransmitterDaemon worker_;
};

/// select() with a timeout of zero, recorded with the timeout it was given.
int SelectAtOnce(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
