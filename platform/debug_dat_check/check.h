/// What one check found.
#pragma once

#include <string>

namespace DebugDatCheck {

enum class State {
  kOk,
  kWarning,  ///< The daemon works, but not as well or as safely as it could.
  kProblem,  ///< The daemon can't do (part of) its job.
  kSkipped   ///< Not checked: something that it depends on has a problem.
};

struct Check {
  std::string name;
  State state = State::kOk;
  std::string text;    ///< What was found. May quote bytes from files and servers as they are.
  std::string advice;  ///< What to do; empty where there is nothing to do.
};

[[nodiscard]] Check Ok(const std::string& name, const std::string& text);
[[nodiscard]] Check Warning(const std::string& name, const std::string& text, const std::string& advice);

/// A problem. Where its text tells of a refused access and this process is not root, as the daemon is, the advice
/// is to run it as root.
[[nodiscard]] Check Problem(const std::string& name, const std::string& text, const std::string& advice);

/// @param cause  Why the check was not made; completes "skipped: ".
[[nodiscard]] Check Skipped(const std::string& name, const std::string& cause);

}  // namespace DebugDatCheck
