/// Files and folders that are the service's alone, and how they come to disk. Functions of their arguments; any thread
/// may call them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace TarvoOrvane::SupportService {

/// Reports the failed call that errno tells of.
/// @param what  What could not be done, "cannot make PATH".
[[noreturn]] void ThrowErrno(const std::string& what);

/// The folder that the path's last name lies in; "." for a name alone.
std::filesystem::path FolderOf(const std::filesystem::path& path);

/// Makes a folder of mode 0700; one that is there stays as it is.
/// @throws std::system_error when it can't be made.
void MakePrivateFolder(const std::filesystem::path& folder);

/// Brings a folder's names to disk: a file that is synced may lose its name by a power cut.
/// @throws std::system_error when the system can't bring them there.
void SyncFolder(const std::filesystem::path& folder);

/// Writes all of the data.
/// @param path  Of the open file, for the error's text.
/// @throws std::system_error when it can't be written, for instance because the disk is full.
void WriteAll(int fd, std::string_view data, const std::filesystem::path& path);

/// Makes a file of mode 0600 with this text, in the place of the one that is there. Readers meet the old one or the new
/// one, whole. It is on disk when this returns. Nobody else may write the same file at the time.
/// @throws std::system_error when it can't be made. The old one is still there then, unless only the sync of the folder
///         failed.
void ReplacePrivateFile(const std::filesystem::path& path, std::string_view text);

}  // namespace TarvoOrvane::SupportService
