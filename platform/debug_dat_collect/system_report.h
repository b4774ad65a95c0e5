/// Texts about the machine, made without any program: from system calls and the kernel's process file system.
/// Each is a table for people, with a head line where it has columns.
#pragma once

#include <cstddef>
#include <string>

namespace TARVO::SupportForm {

/// A text of bounded length.
struct BoundedText {
  std::string text;  ///< Whole lines, each with its end.
  std::string note;  ///< What is missing in it, for people; empty when nothing is.
};

/// The machine's name, as the kernel has it: without a domain on most machines.
[[nodiscard]] std::string HostName();

/// Kernel name, host name, release, version, machine; one line.
[[nodiscard]] std::string UnameText();
/// Seconds since the start, load, current time.
/// @param proc  The process file system, also below.
[[nodiscard]] std::string UptimeText(const std::string& proc);
/// Space and inodes of the mounted file systems. Network and user-space ones are listed but not asked: asking a
/// dead server would hang.
/// @param max_bytes  Where there is more to tell, the longest lines are cut; also below. Memory is at most three times
///                   as much.
[[nodiscard]] BoundedText DiskText(const std::string& proc, std::size_t max_bytes);
/// The processes: ids, user, state, memory, start, command line.
[[nodiscard]] BoundedText ProcessText(const std::string& proc, std::size_t max_bytes);
/// The network interfaces with their state and addresses.
[[nodiscard]] std::string NetworkText();

}  // namespace TARVO::SupportForm
