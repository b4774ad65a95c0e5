/// The body of an upload at the support service, as the device's form has it: multipart, with the boundary XX. The
/// byte 0x1E tells where the network cuts it.
#include "in_process_css.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::Require;
  static fuzz::InProcessCss css;
  if (!css.Takes("/orvane/ps_files", "multipart/form-data; boundary=XX", fuzz::AsText(data, size))) return 0;
  const auto upload = css.Ticket().upload;
  Require(upload && upload->size_bytes <= size, "an archive has no more bytes than came");
  Require(upload->serial_number.size() <= size && upload->apps.size() <= size, "nor has what belongs to it");
  return 0;
}
