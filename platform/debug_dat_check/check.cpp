#include "check.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>

namespace DebugDatCheck {

Check Ok(const std::string& name, const std::string& text) { return {name, State::kOk, text, {}}; }

Check Warning(const std::string& name, const std::string& text, const std::string& advice) {
  return {name, State::kWarning, text, advice};
}

Check Problem(const std::string& name, const std::string& text, const std::string& advice, int error) {
  if (error != EACCES || geteuid() == 0) return {name, State::kProblem, text, advice};
  const passwd* const user = getpwuid(geteuid());
  const std::string who = user != nullptr ? user->pw_name : std::to_string(geteuid());
  // Where the real user is root, root looks with the rights of the daemon's user.
  if (getuid() != 0 && who != kUnitUser) {
    return {name, State::kProblem, text, "Run this as root; it may not read this as an ordinary user"};
  }
  return {name, State::kProblem, text,
          "The daemon runs as the user " + who + ", who lacks the right. Give it to that user: chown " + who +
              " for client.key, chgrp " + who + " and chmod g+r for all else, g+x for folders"};
}

Check Skipped(const std::string& name, const std::string& cause) {
  return {name, State::kSkipped, "not checked: " + cause, {}};
}

std::string Counted(std::size_t count, const std::string& noun) {
  return (count == 0 ? "no" : std::to_string(count)) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace DebugDatCheck
