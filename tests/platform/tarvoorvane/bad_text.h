/// The rows of the tests of what is refused.
#pragma once

#include <ostream>
#include <string>

#include "library_log.h"

namespace TarvoOrvane::Internal {

struct BadText {
  std::string text;
  std::string fault;  ///< What the parser has to say of it.
};

inline void PrintTo(const BadText& bad, std::ostream* out) { *out << MakePrintable(bad.text, 60); }

}  // namespace TarvoOrvane::Internal
