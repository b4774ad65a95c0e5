/// What support_archive_reader is asked for (reader_end.h tells the forms).
#pragma once

#include <string>
#include <vector>

#include "reader_end.h"

namespace TarvoOrvane::ArchiveReader {

/// Does what the arguments say.
/// @param arguments  The command and what belongs to it.
/// @param archive    Descriptor of the archive; borrowed, and read from where it stands.
/// @param output     Descriptor for the answer; borrowed.
/// @return How it came out. An exception for want of memory comes out as kTooMuchMemory.
[[nodiscard]] ReaderEnd DoCommand(const std::vector<std::string>& arguments, int archive, int output,
                                  const ReadLimits& limits);

/// Has the libraries load and set up all that they get from files, which they do when they first need it. To be called
/// before the sandbox.
void PrepareLibraries();

}  // namespace TarvoOrvane::ArchiveReader
