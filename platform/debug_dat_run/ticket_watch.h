/// Tells that a ticket may have begun: each of its collections makes a folder of its own.
#pragma once

#include <string>

#include "unique_fd.h"

namespace DebugDatRun {

class TicketWatch {
 public:
  /// @param folder  In which the collections' folders appear. It may be missing as yet; then the folder above it is
  ///                watched for it to come.
  explicit TicketWatch(std::string folder);

  /// Readable when something happened.
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// Takes what has happened.
  /// @return Whether a ticket may have begun.
  [[nodiscard]] bool Take();

 private:
  /// Watches the folder, or what is there of the way to it.
  void Arm();

  std::string folder_;
  int watch_ = -1;  ///< Of the folder that is watched now.
  TARVO::SupportForm::UniqueFd fd_;
};

}  // namespace DebugDatRun
