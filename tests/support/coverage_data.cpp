/// libcoverage_data.so: gcov's runtime for the coverage build, once for the whole process.
///
/// Usually every program and library carries a runtime of its own, hidden, which writes its counters when the
/// process ends by exit(). Here all of them share this one (the linker's --wrap leads their calls here), and
/// it also writes the counters where a process ends otherwise or becomes another one: at _exit(), abort() and
/// execve(). What a process that is killed had counted is lost, and so is what one had counted that may not write files
/// of any size: a file of counters that ends in the middle would spoil those of every process after it.
///
/// It is not wrapped as the tests' programs are: what they put in the place of fcntl(), say, does not reach it.
#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

struct gcov_info;

// The names are gcov's, the linker's and the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,misc-unused-parameters)
#define EXPORTED __attribute__((visibility("default")))

extern "C" {

void __gcov_init(gcov_info* info);
void __gcov_merge_add(long long* counters, unsigned count);
void __gcov_dump();
void __gcov_reset();

static void WriteCounters() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0) return;
  const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
  if (limit.rlim_cur == RLIM_INFINITY) {
    __gcov_dump();
  } else if (setrlimit(RLIMIT_FSIZE, &none) == 0) {  // root may
    __gcov_dump();
    setrlimit(RLIMIT_FSIZE, &limit);  // execve() passes it on
  }
}

EXPORTED void __wrap___gcov_init(gcov_info* info) { __gcov_init(info); }
EXPORTED void __wrap___gcov_merge_add(long long* counters, unsigned count) {
  __gcov_merge_add(counters, count);
}
/// Each object's end; the counters are written once, at the end of this library, which comes last.
EXPORTED void __wrap___gcov_exit() {}
EXPORTED pid_t __wrap___gcov_fork() { return fork(); }
EXPORTED int __wrap___gcov_execve(const char* path, char* const arguments[], char* const environment[]) {
  WriteCounters();
  const int result = execve(path, arguments, environment);
  __gcov_reset();  // it was refused, and the process goes on counting
  return result;
}

EXPORTED void _exit(int status) {
  WriteCounters();
  _Exit(status);
}

EXPORTED void abort() {
  WriteCounters();
  reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "abort"))();
  __builtin_unreachable();
}

__attribute__((destructor)) static void WriteCountersAtTheEnd() { WriteCounters(); }

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,misc-unused-parameters)
