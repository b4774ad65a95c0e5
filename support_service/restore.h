/// Makes a data folder of a backup. For the program's --restore, before any service uses the folder.
#pragma once

#include <filesystem>
#include <string>

namespace TarvoOrvane::SupportService {

/// Restores the backup. All of it is there when this returns, and on disk. Holds the folder's lock meanwhile. After a
/// failure the folder is as it was, unless the system refused one of the last steps, which give everything its place:
/// the error says then that the folder has to be emptied, and no service begins with it.
/// @param backup       What supportctl backup has written.
/// @param data_folder  Empty, or missing. What is restored belongs to the folder's owner.
/// @return What was restored, as lines for people.
/// @throws std::exception  what can't be used, and what to do: the folder is not empty, the backup is damaged or of a
///                         newer version.
std::string RestoreBackup(const std::filesystem::path& backup, const std::filesystem::path& data_folder);

}  // namespace TarvoOrvane::SupportService
