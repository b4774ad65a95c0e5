/// How a test tells a platform library what it is to do wrong. Without a word each does all as declared.
#pragma once

#include <cstdlib>
#include <cstring>

/// Whether the environment's BROKEN names this fault.
inline bool Is(const char* fault) {
  const char* const broken = std::getenv("BROKEN");
  return broken != nullptr && std::strcmp(broken, fault) == 0;
}
