/// The names of an archive's entries.
#pragma once

#include <cstddef>
#include <string>

namespace TARVO::SupportForm {

/// A path as a name that every tool and JSON can show: the bytes that are not UTF-8, control characters, quotes and
/// backslashes become %XX. So does a "%" that two hex digits follow, so that no two paths become the same name.
[[nodiscard]] std::string PrintablePath(const std::string& path);

/// "apps/APP/files/var/log/x". A name on the way that has more than 255 bytes, as escaping may make it, is cut and a
/// digest put in the place of its end: it could not be unpacked otherwise.
/// @param printable  A PrintablePath().
[[nodiscard]] std::string FileEntryName(const std::string& app, const std::string& printable);
/// "apps/APP/commands/01-ls.txt". The program's folders are left out, and what a file name had better not have becomes
/// '_'.
/// @param number  Its place in the description, from 1: two commands may run the same program.
[[nodiscard]] std::string CommandEntryName(const std::string& app, std::size_t number,
                                           const std::string& program);
/// "apps/APP/journal/01-ssh.service.txt", likewise.
/// @param unit  Name or pattern of the units, of which the first 64 bytes are taken.
[[nodiscard]] std::string UnitEntryName(const std::string& app, std::size_t number, const std::string& unit);

}  // namespace TARVO::SupportForm
