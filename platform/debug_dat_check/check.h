/// What one check found.
#pragma once

#include <cstddef>
#include <string>

namespace DebugDatCheck {

/// Who the installed unit runs the daemon as.
inline constexpr char kUnitUser[] = "tarvo";

enum class State {
  kOk,
  kWarning,  ///< The daemon works, but not as well or as safely as it could.
  kProblem,  ///< The daemon can't do (part of) its job.
  kSkipped   ///< Not checked: something that it depends on has a problem.
};

/// One line of the report, with its advice.
struct Check {
  std::string name;  ///< What was looked at, as docs/debug_dat_check.md lists it.
  State state = State::kOk;
  std::string text;    ///< What was found. May quote bytes from files and servers as they are.
  std::string advice;  ///< What to do; empty where there is nothing to do.
};

/// What is in order, with what was found there: an operator may see that it is not what they meant.
[[nodiscard]] Check Ok(const std::string& name, const std::string& text);
/// What the daemon can work with, though it had better be otherwise.
/// @param advice  What to do; never empty.
[[nodiscard]] Check Warning(const std::string& name, const std::string& text, const std::string& advice);

/// A problem. Where it is a refused access, the advice is to run this as root. Where kUnitUser asks, or root looks with
/// the rights of the daemon's user (run_checks.h), it is to give that user the right.
/// @param text    What is wrong, beginning with what it is: a path, an address.
/// @param advice  What to do; never empty.
/// @param error   The errno value that the text tells of; 0 where it tells of none.
[[nodiscard]] Check Problem(const std::string& name, const std::string& text, const std::string& advice,
                            int error = 0);

/// What was not looked at.
/// @param cause  Why; it goes behind "not checked: ".
[[nodiscard]] Check Skipped(const std::string& name, const std::string& cause);

/// A count with its noun: "no paths", "1 path", "2 paths".
[[nodiscard]] std::string Counted(std::size_t count, const std::string& noun);

}  // namespace DebugDatCheck
