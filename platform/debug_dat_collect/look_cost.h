#pragma once

#include <cstdint>

namespace TARVO::SupportForm {

/// What this thread's looks at texts have cost since it began: nanoseconds of processor time, about. Counted by what
/// looks and not measured, so that the same look costs the same on every machine, however busy. Read before and after a
/// search, which then pays the difference from its SearchAllowance.
inline thread_local std::uint64_t look_cost = 0;

}  // namespace TARVO::SupportForm
