/// What one input may cost a target: processor time and memory. Every target is called through it.
#pragma once

namespace fuzz {

/// Of this process, all its threads together.
[[nodiscard]] double CpuSeconds();

}  // namespace fuzz
