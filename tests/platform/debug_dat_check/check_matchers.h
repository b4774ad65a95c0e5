#pragma once

#include <gmock/gmock.h>
#include <unistd.h>

#include <ostream>

#include "check.h"

namespace DebugDatCheck {

// What most tests of the checks say.
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

inline void PrintTo(const Check& check, std::ostream* out) {
  *out << "state " << static_cast<int>(check.state) << ", " << check.name << ": " << check.text << " -> "
       << check.advice;
}

/// A check in this state whose text has `part` in it; it gives advice exactly when that is needed.
MATCHER_P2(Tells, state, part, "") {
  const bool needs_advice = arg.state == State::kWarning || arg.state == State::kProblem;
  return arg.state == state && arg.text.find(part) != std::string::npos && arg.advice.empty() != needs_advice;
}

inline auto IsOk(const std::string& part) { return Tells(State::kOk, part); }
inline auto Warns(const std::string& part) { return Tells(State::kWarning, part); }
inline auto IsProblem(const std::string& part) { return Tells(State::kProblem, part); }
inline auto WasSkipped(const std::string& part) { return Tells(State::kSkipped, part); }

MATCHER_P(Advises, part, "") { return arg.advice.find(part) != std::string::npos; }

inline constexpr uid_t kNobody = 65534;

/// Takes root's rights away as long as it lives. Files of the test that are to be hidden have mode 0.
class AsOrdinaryUser {
 public:
  AsOrdinaryUser() {
    if (was_ == 0 && setresuid(kNobody, kNobody, 0) != 0) throw std::runtime_error("setresuid failed");
  }
  ~AsOrdinaryUser() {
    if (was_ == 0 && setresuid(0, 0, 0) != 0) std::abort();
  }
  AsOrdinaryUser(const AsOrdinaryUser&) = delete;
  AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

 private:
  const uid_t was_ = geteuid();
};

}  // namespace DebugDatCheck
