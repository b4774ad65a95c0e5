#include "collect_service.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>

namespace TARVO::SupportForm {
namespace {

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) abort();
  path.copy(&address.sun_path[0], path.size());
  return address;
}

UniqueFd Bound(const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      chmod(path.c_str(), 0777) != 0) {
    abort();
  }
  return fd;
}

UniqueFd Listening(const std::string& path) {
  UniqueFd fd = Bound(path);
  if (listen(fd.get(), 64) != 0) abort();
  return fd;
}

int ServeAll(int listening_fd, const std::function<int(int)>& serve) {
  static_cast<void>(signal(SIGCHLD, SIG_IGN));  // the kernel reaps them
  for (;;) {
    const int connection_fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection_fd < 0) return 1;
    if (fork() == 0) _exit(serve(connection_fd));
    close(connection_fd);
  }
}

}  // namespace

CollectService::CollectService(const std::string& path, const std::function<int(int)>& serve)
    : listening_(Listening(path)), process_([this, serve] { return ServeAll(listening_.get(), serve); }) {}

void LeaveStaleSocket(const std::string& path) { static_cast<void>(Bound(path)); }

UniqueFd ConnectTo(const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return {};
  return fd;
}

}  // namespace TARVO::SupportForm
