#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace DebugDatRun {

using TARVO::SupportForm::UniqueFd;

namespace {

/// @param name  A path, or "@name" for one outside of the file system.
UniqueFd ConnectTo(const char* name) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::size_t length = strlen(name);
  if ((name[0] != '/' && name[0] != '@') || length >= sizeof(address.sun_path)) return {};
  memcpy(address.sun_path, name, length);
  if (name[0] == '@') address.sun_path[0] = '\0';
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) return {};
  return fd;
}

std::string Microseconds(long seconds) { return std::to_string(seconds) + "000000"; }

}  // namespace

ServiceManager::ServiceManager() {
  const char* const name = getenv("NOTIFY_SOCKET");
  if (name != nullptr) fd_ = ConnectTo(name);
  unsetenv("NOTIFY_SOCKET");
}

void ServiceManager::TellStatus(const std::string& status) {
  if (status == status_) return;
  status_ = status;
  Tell("STATUS=" + status);
}

void ServiceManager::TellReloading() const {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long microseconds = static_cast<long long>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1'000;
  Tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds));
}

void ServiceManager::TellStopping(const std::string& status, long seconds) const {
  Tell("STOPPING=1\nSTATUS=" + status + "\nEXTEND_TIMEOUT_USEC=" + Microseconds(seconds));
}

void ServiceManager::TellStarting(const std::string& status, long seconds) const {
  Tell("STATUS=" + status + "\nEXTEND_TIMEOUT_USEC=" + Microseconds(seconds));
}

void ServiceManager::Tell(const std::string& text) const {
  // Nobody's fault and nothing to be done where it fails.
  if (fd_.valid()) static_cast<void>(send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
}

}  // namespace DebugDatRun
