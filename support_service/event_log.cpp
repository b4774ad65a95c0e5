#include "event_log.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "text_forms.h"

namespace TarvoOrvane::SupportService {

void EventLog::Write(const std::string& event) {
  WritePlain(TimeText(std::chrono::system_clock::now()) + " " + event);
}

void EventLog::WritePlain(const std::string& line) {
  const std::string text = line + "\n";
  const std::lock_guard<std::mutex> lock(mutex_);
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(fd_, text.data() + written, text.size() - written);
    if (count == -1 && errno == EINTR) continue;
    if (count <= 0) return;
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace TarvoOrvane::SupportService
