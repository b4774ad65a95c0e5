/// An archive that a test adds its entries to.
#pragma once

#include <fcntl.h>

#include "archive_writer.h"
#include "progress.h"
#include "support_log_fixture.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// The archive is <folder>/archive. It is whole once writer_ is closed.
class ArchiveTest : public SupportLogTest {
 protected:
  ArchiveTest()
      : folder_fd_(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        archive_fd_(open((folder_ / "archive").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)),
        progress_(folder_fd_.get(), 0),
        writer_(archive_fd_.get(), 1, progress_) {}

  UniqueFd folder_fd_;
  UniqueFd archive_fd_;
  Progress progress_;
  ArchiveWriter writer_;
};

}  // namespace TARVO::SupportForm
