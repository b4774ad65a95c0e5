/// libcoverage_data.so: gcov's runtime for the coverage build, once for the whole process.
///
/// Usually every program and library carries a runtime of its own, hidden, which writes its counters when the
/// process ends by exit(). Here all of them share this one (the linker's --wrap leads their calls here), and
/// it also writes the counters where a process ends otherwise or becomes another one: at _exit(), abort() and
/// execve(). What a process that is killed had counted is lost.
///
/// It is not wrapped as the tests' programs are: what they put in the place of fcntl(), say, does not reach it.
#include <dlfcn.h>
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

EXPORTED void __wrap___gcov_init(gcov_info* info) { __gcov_init(info); }
EXPORTED void __wrap___gcov_merge_add(long long* counters, unsigned count) {
  __gcov_merge_add(counters, count);
}
/// Each object's end; the counters are written once, at the end of this library, which comes last.
EXPORTED void __wrap___gcov_exit() {}
EXPORTED pid_t __wrap___gcov_fork() { return fork(); }
EXPORTED int __wrap___gcov_execve(const char* path, char* const arguments[], char* const environment[]) {
  __gcov_dump();
  const int result = execve(path, arguments, environment);
  __gcov_reset();  // it was refused, and the process goes on counting
  return result;
}

EXPORTED void _exit(int status) {
  __gcov_dump();
  _Exit(status);
}

EXPORTED void abort() {
  __gcov_dump();
  reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "abort"))();
  __builtin_unreachable();
}

__attribute__((destructor)) static void WriteCounters() { __gcov_dump(); }

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,misc-unused-parameters)
