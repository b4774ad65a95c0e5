/// The body of a result report at the support service. The byte 0x1E tells where the network cuts it.
#include "in_process_css.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz::Require;
  static fuzz::InProcessCss css;
  if (!css.Takes("/orvane/ps_results", "application/json", fuzz::AsText(data, size))) return 0;
  const auto report = css.Ticket().report;
  Require(report && report->size() <= size, "a report has no more text than came");
  return 0;
}
