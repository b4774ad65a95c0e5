#pragma once

#include <string_view>

namespace TarvoOrvane::Internal {

/// Whether the environment variable `name` would steer gRPC, libcurl, OpenSSL or the resolver.
[[nodiscard]] bool SteersOurLibraries(std::string_view name);

/// Removes every such variable from the process's environment. It runs by itself when the library is loaded:
/// what leaves the device, where to and under which keys is the configuration's to say, and libcurl opens the
/// key log file in its first initialisation, before any function of ours is called.
void ScrubEnvironment();

}  // namespace TarvoOrvane::Internal
