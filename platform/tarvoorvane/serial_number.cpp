#include "serial_number.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "hex_text.h"
#include "library_log.h"
#include "scoped_fd.h"

namespace TarvoOrvane::Internal {
namespace {

constexpr std::size_t kMaxFileText = 4096;
constexpr std::size_t kMaxSerialNumber = 128;
constexpr std::size_t kMachineIdDigits = 32;

/// Names this application in the hash of the machine id. Never to change: devices would change their numbers.
constexpr std::array<unsigned char, 16> kApplicationId = {0x5d, 0x0e, 0x2b, 0x91, 0x6c, 0x47, 0x4f, 0x3a,
                                                          0x8b, 0xd8, 0x13, 0xe4, 0x7a, 0xc0, 0x96, 0x52};

/// What board makers leave in the field when they set no number, in lower case.
constexpr const char* kPlaceholders[] = {"to be filled by o.e.m.",
                                         "to be filled by o.e.m",
                                         "to be filled by oem",
                                         "system serial number",
                                         "chassis serial number",
                                         "serial number",
                                         "sernum",
                                         "default string",
                                         "default",
                                         "default_string",
                                         "not specified",
                                         "not applicable",
                                         "not available",
                                         "none",
                                         "null",
                                         "n/a",
                                         "na",
                                         "unknown",
                                         "unspecified",
                                         "undefined",
                                         "empty",
                                         "invalid",
                                         "oem",
                                         "o.e.m.",
                                         "product serial number",
                                         "01234567",
                                         "012345678",
                                         "0123456789",
                                         "123456789",
                                         "1234567890"};

/// The file's first line, trimmed; empty when the file can't be read, with the reason in errno.
std::string FirstLine(const std::string& path) {
  errno = 0;
  const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return {};
  std::string text(kMaxFileText, '\0');
  const ssize_t size = TEMP_FAILURE_RETRY(read(file.get(), text.data(), text.size()));
  if (size <= 0) return {};
  text.resize(static_cast<std::size_t>(size));
  text.resize(std::min(text.size(), text.find('\n')));
  constexpr char kBlanks[] = " \t\r";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool IsUsable(const std::string& serial) {
  return !serial.empty() && serial.size() <= kMaxSerialNumber &&
         std::all_of(serial.begin(), serial.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool IsPlaceholder(std::string serial) {
  std::transform(serial.begin(), serial.end(), serial.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return serial.find_first_not_of(serial.front()) == std::string::npos ||  // "0", "00000000", "xxxxxxx"
         std::find(std::begin(kPlaceholders), std::end(kPlaceholders), serial) != std::end(kPlaceholders);
}

/// The machine id's 16 bytes; empty when the text is no machine id.
std::string MachineIdBytes(const std::string& digits) {
  if (digits.size() != kMachineIdDigits ||
      digits.find_first_not_of("0123456789abcdef") != std::string::npos ||
      digits.find_first_not_of('0') == std::string::npos) {
    return {};
  }
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

/// A number that tells devices apart but not what their machine id is.
std::string HashOfMachineId(const std::string& digits) {
  const std::string key = MachineIdBytes(digits);
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  if (key.empty() || HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), kApplicationId.data(),
                          kApplicationId.size(), hash.data(), nullptr) == nullptr) {
    return {};
  }
  return HexText(hash.data(), kMachineIdDigits / 2);
}

}  // namespace

Utils::Optional<std::string> ReadSerialNumber(const SerialNumberPaths& paths) {
  const std::string configured = FirstLine(paths.configured);
  if (IsUsable(configured)) return configured;
  // An absent file is the ordinary case and no word.
  if (errno != 0 && errno != ENOENT) {
    LogLine(LOG_WARNING,
            paths.configured + " can't be read: " + strerror(errno) + "; other sources are asked");
  } else if (errno == 0) {
    LogLine(LOG_WARNING,
            "The first line of " + paths.configured +
                " is no serial number of 1 to 128 printable ASCII characters; other sources are asked");
  }
  const std::string dmi = FirstLine(paths.dmi);
  if (IsUsable(dmi) && !IsPlaceholder(dmi)) return dmi;
  const std::string hash = HashOfMachineId(FirstLine(paths.machine_id));
  if (!hash.empty()) return hash;
  return {};
}

}  // namespace TarvoOrvane::Internal

namespace TarvoOrvane::Utils {

Optional<std::string> GetSerialNumber() { return Internal::ReadSerialNumber({}); }

}  // namespace TarvoOrvane::Utils
