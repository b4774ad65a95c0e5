/// How the checks are shown. These functions only make text; main.cpp prints it.
#pragma once

#include <string>
#include <vector>

#include "check.h"

namespace DebugDatCheck {

/// One check for a terminal or a log: state, name and text on one line; the advice, if any, below the text.
/// Whatever is not printable ASCII is escaped, and what is longer than a screen is cut.
/// @param with_colours  Colours the state, for a terminal.
[[nodiscard]] std::string CheckText(const Check& check, bool with_colours);

/// The closing line: how many problems, warnings and skipped checks there are.
[[nodiscard]] std::string SummaryText(const std::vector<Check>& checks);

/// All checks as a JSON object {"ok", "checks": [{"name", "state", "text", "advice"}, ...]}; "advice" only where
/// there is one. Pretty-printed, with a newline at its end.
[[nodiscard]] std::string ReportJson(const std::vector<Check>& checks);

/// Whether the daemon lacks something that it needs. Warnings don't count.
[[nodiscard]] bool HasProblem(const std::vector<Check>& checks);

// What the program exits with, by the kind of the problems.
inline constexpr int kNoProblem = 0;     ///< There may be warnings.
inline constexpr int kSeveralKinds = 1;  ///< Problems of more than one kind, or the check itself failed.
inline constexpr int kWrongUsage = 2;    ///< Of the program's options.
inline constexpr int kConfigurationProblem =
    3;                                    ///< Configuration, addresses, TLS files, serial number, debug log.
inline constexpr int kServerProblem = 4;  ///< A server can't be reached, or refuses.
inline constexpr int kCollectionProblem = 5;  ///< Space, pattern file, descriptions, the collector's socket.
inline constexpr int kDaemonProblem = 6;      ///< The daemon's processes.

/// One of these, but for kWrongUsage.
[[nodiscard]] int ExitStatus(const std::vector<Check>& checks);

}  // namespace DebugDatCheck
