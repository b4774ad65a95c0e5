/// Texts about the machine, made without any program: from system calls and the kernel's process file system.
/// Each is a table for people, with a head line where it has columns.
#pragma once

#include <string>

namespace TARVO::SupportForm {

[[nodiscard]] std::string HostName();

/// Kernel name, host name, release, version, machine; one line.
[[nodiscard]] std::string UnameText();
/// Seconds since the start, load, current time.
/// @param proc  The process file system, also below.
[[nodiscard]] std::string UptimeText(const std::string& proc);
/// Space and inodes of the mounted file systems. Network and user-space ones are listed but not asked: asking a
/// dead server would hang.
[[nodiscard]] std::string DiskText(const std::string& proc);
/// The processes: ids, user, state, memory, start, command line.
[[nodiscard]] std::string ProcessText(const std::string& proc);
/// The network interfaces with their state and addresses.
[[nodiscard]] std::string NetworkText();

}  // namespace TARVO::SupportForm
