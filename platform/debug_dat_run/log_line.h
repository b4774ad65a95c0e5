/// A log line as it comes through /dev/log, made readable, and without the credential of a ticket that it quotes: the
/// logs of containers are kept and passed on in other ways than the system's log.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace DebugDatRun {

struct LogLine {
  int level = 0;     ///< A syslog priority without its facility.
  std::string text;  ///< "warning debug_dat_transmitter[15]: …", shorter than kLongestLine.
};

/// @param datagram  "<12>Nov 21 10:00:00 tag: text" or "… tag[15]: text". What lacks a part is taken as well.
/// @param sender    The process that sent it; stands behind a tag that has no id.
/// @param is_cut    The datagram was longer. The text then ends with "...", as one does that is cut here.
[[nodiscard]] LogLine ReadableLogLine(std::string_view datagram, pid_t sender, bool is_cut);

}  // namespace DebugDatRun
