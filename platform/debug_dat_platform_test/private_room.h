/// Where the checks run: in mount and process namespaces of their own, so that a collection changes nothing on this
/// machine and leaves no process behind. What is written below /etc, /run, /tmp and /var lies in memory and goes with
/// the checks; other folders are the machine's own.
#pragma once

#include <functional>
#include <string>

namespace DebugDatPlatformTest {

/// What comes of a run that was ended by a signal.
inline constexpr int kCutShort = 255;

/// Runs `work` in a child process that is alone in its namespaces; where these are not to be had, in a child without.
/// @param kept  A folder whose files are to be the machine's own in there too.
/// @param work  Is told why there are no namespaces: an empty text where there are.
/// @return What `work` returned, from 0 to 254; or kCutShort.
[[nodiscard]] int RunInPrivateRoom(const std::string& kept,
                                   const std::function<int(const std::string& fault)>& work);

}  // namespace DebugDatPlatformTest
