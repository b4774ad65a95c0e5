/// The signals that the program takes from a descriptor, and those that the daemon starts with.
#pragma once

namespace DebugDatRun {

/// Gives all signals back their default dispositions, whatever whoever started the program has made of them (a shell's
/// nohup ignores SIGHUP, systemd SIGPIPE), but for SIGPIPE, which this program ignores. Blocks SIGTERM, SIGINT, SIGHUP
/// and SIGCHLD: they come through the returned descriptor, to process 1 of a container, too.
/// @return A signalfd, non-blocking; negative, with errno set, on failure.
[[nodiscard]] int TakeOverSignals();

/// Undoes that for a program that this process is about to become: default dispositions, nothing blocked.
void GiveSignalsBack();

}  // namespace DebugDatRun
