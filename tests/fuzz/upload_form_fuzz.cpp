/// The body of an upload at the support service, as the device's form has it: multipart, with the boundary XX. The
/// byte 0x1E tells where the network cuts it.
#include "in_process_css.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::Require;
  static fuzz::InProcessCss css;
  if (!css.Takes("/orvane/ps_files", "multipart/form-data; boundary=XX", fuzz::AsText(data, size))) return 0;
  const auto archives = css.Ticket().archives;
  Require(archives.size() == 1 && archives[0].size_bytes <= size, "an archive has no more bytes than came");
  Require(archives[0].serial_number.size() <= size && archives[0].apps.size() <= size,
          "nor has what belongs to it");
  return 0;
}
