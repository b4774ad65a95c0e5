/// _exit() that looks for leaks first, for the sanitized build. Worker, transmission child and what the collector
/// forks end by it, where LeakSanitizer does not look of its own accord.
///
/// Not for programs that have threads and fork: in the child LeakSanitizer does not find what the threads hold.
#include <unistd.h>

#include <cstdlib>

// The names are the sanitizer's and the C library's.
extern "C" {

int __lsan_do_recoverable_leak_check();

__attribute__((visibility("default"))) void _exit(int status) {
  constexpr int kLeaked = 23;  // as LeakSanitizer itself ends a process
  _Exit(__lsan_do_recoverable_leak_check() != 0 ? kLeaked : status);
}

}  // extern "C"
