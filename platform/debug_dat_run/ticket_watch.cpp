#include "ticket_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <utility>

namespace DebugDatRun {

TicketWatch::TicketWatch(std::string folder)
    : folder_(std::move(folder)), fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  Arm();
}

void TicketWatch::Arm() {
  constexpr std::uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  std::string folder = folder_;
  int watch = -1;  // the same as before for a folder that is watched already
  while (!folder.empty() && (watch = inotify_add_watch(fd_.get(), folder.c_str(), kEvents)) < 0) {
    folder.resize(folder.rfind('/'));
  }
  if (watch_ >= 0 && watch != watch_) inotify_rm_watch(fd_.get(), watch_);
  watch_ = watch;
}

bool TicketWatch::Take() {
  alignas(inotify_event) std::array<char, 4096> events = {};
  bool something_happened = false;
  while (read(fd_.get(), events.data(), events.size()) > 0) something_happened = true;
  if (something_happened) Arm();
  return something_happened;
}

}  // namespace DebugDatRun
