/// For the shims: what a test says to them in a file.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace test_support {

/// The number in a file; 0 without one. Allocates nothing.
inline long NumberIn(const char* path) {
  std::array<char, 32> text = {};
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return 0;
  }
  static_cast<void>(!read(fd, text.data(), text.size() - 1));
  close(fd);
  return std::strtol(text.data(), nullptr, 10);
}

}  // namespace test_support
