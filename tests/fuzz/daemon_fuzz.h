/// What the targets of the daemon's code share: the scripted platform, in one process that lives on.
#pragma once

#include <string>
#include <vector>

#include "debug_dat_transmitter.h"
#include "scripted_platform.h"

namespace fuzz {

/// The one platform of this process. It waits for nothing, its service configuration names both servers, header
/// lines are checked as the library does, every line is looked at as a log would, and "collect" and "status" succeed.
test_support::ScriptedPlatform& Platform();

/// A pipe whose ends never block; those that are left are closed with it.
class Pipe {
 public:
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  /// Hand an end over to the daemon, which closes it.
  [[nodiscard]] int TakeReadEnd();
  [[nodiscard]] int TakeWriteEnd();

  /// Writes what a peer may write at once: the record filled up with zero bytes to a frame, or, where it begins with
  /// '!', the rest of it as it is.
  void WriteRecord(const std::string& record) const;
  /// Takes all bytes out.
  [[nodiscard]] std::string ReadAll() const;

 private:
  int ends_[2] = {-1, -1};
};

/// The one message that the bytes of a pipe hold; ends the process unless they are one frame of JSON text.
[[nodiscard]] Json::Value MessageOf(const std::string& frame);

/// What the server answers to the attempts that follow. Behind a leading '!' the text arrives and then the transfer
/// fails; behind a leading '?' it arrives and then the library throws something else. Attempts that find no text left
/// succeed without one.
void SetAnswers(std::vector<std::string> answers);

/// All that has arrived since.
[[nodiscard]] const std::string& Arrived();

}  // namespace fuzz
