#include "progress.h"

#include "file_util.h"
#include "task_folder.h"

namespace TARVO::SupportForm {

Progress::Progress(int folder_fd, unsigned interval_ms)
    : folder_fd_(folder_fd), mode_(IsShared(folder_fd) ? kSharedFileMode : 0600), interval_ms_(interval_ms) {
  Write();
}

void Progress::AddBytes(std::uint64_t count) {
  bytes_ += count;
  WriteWhenDue();
}

void Progress::AddFile() {
  ++files_;
  WriteWhenDue();
}

void Progress::WriteWhenDue() {
  if (MonotonicMs() - written_at_ms_ >= interval_ms_) Write();
}

void Progress::Write() {
  const std::string text =
      R"({"bytes":)" + std::to_string(bytes_) + R"(,"files":)" + std::to_string(files_) + "}\n";
  static_cast<void>(ReplaceFile(folder_fd_, kProgressFile, kNewProgressFile, text, mode_));
  written_at_ms_ = MonotonicMs();
}

}  // namespace TARVO::SupportForm
