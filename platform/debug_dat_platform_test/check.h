/// One check of a maker's platform: a line of the report. Each runs in a child process of its own with a limit of time,
/// so that a crash or a hang of the maker's library fails that line and no other.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform.h"

namespace DebugDatPlatformTest {

/// Thrown by a check where a library does not do as declared. what() tells what it did.
class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Thrown by a check that can't tell. what() tells why.
class CannotTell : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// @throws Fault with `fault` where `holds` is false.
void Expect(bool holds, const std::string& fault);

/// What may become of a check that takes too long.
enum class Patience {
  kOneDeadline,   ///< It fails.
  kTenDeadlines,  ///< It has ten times as long, then it fails: a collection takes its time.
  kMayWait,       ///< It can't tell: the interface lets the call wait.
};

struct Check {
  std::string name;
  std::string promise;        ///< What the line says where it holds.
  std::string remedy;         ///< What the maker is to mend where it does not.
  std::vector<Symbol> needs;  ///< What it calls. Where a library lacks one of these, the check is skipped.
  std::function<void()> run;  ///< Returns where all is well; otherwise throws Fault or CannotTell.
  Patience patience = Patience::kOneDeadline;
};

enum class State { kOk, kFailed, kSkipped };

struct Verdict {
  State state = State::kOk;
  std::string text;  ///< What was wrong, or why it is not known; empty where all is well.
};

/// Runs the check in a child, with the streams and the folder that the daemon's processes have. The child is gone
/// afterwards, and so is what it started in its process group.
/// @param deadline_seconds  How long a check may take.
[[nodiscard]] Verdict RunInChild(const Check& check, unsigned deadline_seconds);

/// The report's line, with its end: state, name and text. Whatever is not printable ASCII in it is escaped.
[[nodiscard]] std::string LineOf(const Check& check, const Verdict& verdict);

}  // namespace DebugDatPlatformTest
