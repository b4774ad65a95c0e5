/// The files that an enrolled device needs.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace TarvoOrvane::Supportctl {

/// A file of an enrolment, and where on the device it goes.
struct EnrolmentFile {
  const char* name;    ///< In the folder.
  const char* member;  ///< Of the answer, that holds its text.
  mode_t mode;         ///< In the folder.
  const char* place;   ///< On the device.
  const char* owner;   ///< On the device, as install takes it.
};

/// All that there may be.
inline constexpr EnrolmentFile kEnrolmentFiles[] = {
    {"ca.pem", "ca_pem", 0644, "/usr/tarvo/etc/tls/ca.pem", "-o root -g root -m 0644"},
    {"client.pem", "client_pem", 0644, "/usr/tarvo/etc/tls/client.pem", "-o root -g root -m 0644"},
    {"client.key", "client_key", 0600, "/usr/tarvo/etc/tls/client.key", "-o tarvo -g tarvo -m 0400"},
    {"tarvomibserver.conf", "configuration", 0644, "/usr/tarvo/etc/tarvomibserver.conf",
     "-o root -g root -m 0644"},
};

/// Makes the folder where it is missing, and looks whether the files can be written there.
/// @throws Failure when one of them is there already and `renew` is not set.
void PrepareEnrolmentFolder(const std::filesystem::path& folder, bool renew);

/// Writes the files that the answer has: all of them, or none.
/// @param enrolment  The service's answer.
/// @return Those that were written.
/// @throws Failure when it could not; what was there before is there again.
std::vector<EnrolmentFile> WriteEnrolment(const std::filesystem::path& folder, const Json::Value& enrolment);

}  // namespace TarvoOrvane::Supportctl
