/// What a device's service manager does for the socket through which collections are handed over.
#pragma once

#include <functional>
#include <string>

#include "child_process.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// Listens, and starts a process for each connection, until the object goes. A collector that has begun its task lives
/// on.
class CollectService {
 public:
  /// @param path   Where it listens. Anybody may connect: who may ask is for `serve` to judge.
  /// @param serve  Runs in a process of its own for each connection, whose descriptor is its own. Returns the exit
  ///               status.
  CollectService(const std::string& path, const std::function<int(int connection_fd)>& serve);

 private:
  UniqueFd listening_;
  test_support::ChildProcess process_;
};

/// A socket with that path on which nobody listens any more.
void LeaveStaleSocket(const std::string& path);

/// A connection to that path.
/// @return Invalid, with errno set, where that fails.
[[nodiscard]] UniqueFd ConnectTo(const std::string& path);

}  // namespace TARVO::SupportForm
