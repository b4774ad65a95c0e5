/// How support_archive_reader gives up its rights, before it reads what a stranger has written.
#pragma once

namespace TarvoOrvane::ArchiveReader {

/// Whether the sandbox is as tight as it can be. It is not where the compiler adds to the program what needs more:
/// sanitizers reserve memory without bounds and read /proc, and what counts coverage writes files at the program's end.
/// There the same steps are taken, but no system call is forbidden and memory and files have no limit.
#ifdef READER_WIDE_SANDBOX
inline constexpr bool kTightSandbox = false;
#else
inline constexpr bool kTightSandbox = true;
#endif

/// Gives up all that the calling process, which has one thread, does not need to read standard input, compute, and write
/// standard output. From then on any other system call ends it by SIGSYS, at once and whatever comes of it.
/// @return false where the kernel lets it not: then nothing of a stranger's may be read.
[[nodiscard]] bool EnterSandbox();

}  // namespace TarvoOrvane::ArchiveReader
