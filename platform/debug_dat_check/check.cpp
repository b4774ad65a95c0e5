#include "check.h"

#include <unistd.h>

#include <cerrno>

#include "file_util.h"

namespace DebugDatCheck {
namespace {

/// By the text, because some of these texts are gRPC's or libcurl's, which tell no errno value beside them.
bool LacksRights(const std::string& text) {
  return geteuid() != 0 && text.find(TARVO::SupportForm::ErrorText(EACCES)) != std::string::npos;
}

}  // namespace

Check Ok(const std::string& name, const std::string& text) { return {name, State::kOk, text, {}}; }

Check Warning(const std::string& name, const std::string& text, const std::string& advice) {
  return {name, State::kWarning, text, advice};
}

Check Problem(const std::string& name, const std::string& text, const std::string& advice) {
  return {name, State::kProblem, text,
          LacksRights(text) ? "Run this as root, as the daemon runs; it may not read this as an ordinary user"
                            : advice};
}

Check Skipped(const std::string& name, const std::string& cause) {
  return {name, State::kSkipped, "not checked: " + cause, {}};
}

}  // namespace DebugDatCheck
