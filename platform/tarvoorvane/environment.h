/// Keeps the environment of whoever started the daemon from steering the libraries below this one.
#pragma once

#include <string_view>

namespace TarvoOrvane::Internal {

/// Whether the environment variable `name` would steer gRPC, libcurl, OpenSSL, the resolver or the C library's locale
/// and time zone. Upper and lower case count alike: some libraries ask for both.
[[nodiscard]] bool SteersOurLibraries(std::string_view name);

/// Removes every such variable from the process's environment. It runs by itself when the library is loaded:
/// what leaves the device, where to and under which keys is the configuration's to say, and libcurl opens the
/// key log file in its first initialisation, before any function of ours is called. Not for a process that has threads
/// already: others may be reading the environment.
void ScrubEnvironment();

}  // namespace TarvoOrvane::Internal
