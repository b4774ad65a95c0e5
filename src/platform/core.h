/// The platform core library (libtarvocore), as the daemon calls it.
///
/// A device maker brings this library; the names and signatures below are its binary interface
/// and stay as they are.
#pragma once

#pragma GCC visibility push(default)
extern "C" {

/// Records the calling process's id in the file at `path`. Runs in the supervisor, once, right after
/// it has become a daemon.
/// @return A negative value on failure.
int TLIBCProcPidFileCreate(const char* path);

/// Forks the calling process. Used for the transmission child, by the supervisor.
/// @return The child's id in the parent, 0 in the child, a negative value on failure.
int TLIBCProcFork();

/// Forks the calling process under the library's `flags`. Used for the worker, by the supervisor.
/// @return As TLIBCProcFork().
int TLIBCProcForkEx(int flags);

/// Tells whether something exists at `path`. Runs in the transmission child.
/// @return 1 when it exists, another value when it does not.
int TLIBCFileExist(const char* path);

}  // extern "C"
#pragma GCC visibility pop
