/// Memory that a test shares with the processes it forks.
#pragma once

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace test_support {

/// A T in memory shared across fork(), value-initialised. T needs no destructor (std::atomic<int>, say).
template <typename T>
class Shared {
 public:
  Shared() {
    void* memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    value_ = new (memory) T{};
  }
  ~Shared() { munmap(value_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  T& operator*() const { return *value_; }
  T* operator->() const { return value_; }

 private:
  T* value_;
};

}  // namespace test_support
