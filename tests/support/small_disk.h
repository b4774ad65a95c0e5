/// Disks that are full, and limits on files, for one process.
#pragma once

#include <sys/resource.h>

#include <filesystem>
#include <string>

namespace test_support {

/// Lets this process write no file of more than so many bytes from now on; of 200 nothing of use can be made.
void LimitFileSize(rlim_t bytes = 200);

/// Gives this process a file system of its own at `path`, of which nobody else knows. It has one thread.
/// @param options  "size=1m,mode=0700"
/// @return false where the machine doesn't allow that.
[[nodiscard]] bool MountOwnTmpfs(const std::string& path, const std::string& options);

/// Lets nobody write to the file system at `path` any more, which is the process's own.
/// @return false where that can't be done.
[[nodiscard]] bool MakeReadOnly(const std::string& path);

/// Fills the file system of a folder to its last byte, by a file "filler" in it.
void FillDevice(const std::filesystem::path& folder);

}  // namespace test_support
