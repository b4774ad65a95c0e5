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

/// What the exit status tells: whether the daemon lacks something that it needs. Warnings don't count.
[[nodiscard]] bool HasProblem(const std::vector<Check>& checks);

}  // namespace DebugDatCheck
