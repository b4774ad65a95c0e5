#include "sandbox.h"

#include <linux/close_range.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include "reader_end.h"

namespace TarvoOrvane::ArchiveReader {
namespace {

bool SetLimit(__rlimit_resource_t resource, rlim_t limit) {
  const rlimit both{limit, limit};
  return setrlimit(resource, &both) == 0;
}

bool SetLimits() {
  const bool are_set = SetLimit(RLIMIT_CPU, kLastCpuSeconds) && SetLimit(RLIMIT_CORE, 0) &&
                       SetLimit(RLIMIT_NPROC, 0) && SetLimit(RLIMIT_MEMLOCK, 0);
  if (!kTightSandbox) return are_set;
  return are_set && SetLimit(RLIMIT_AS, kMemoryBytes) && SetLimit(RLIMIT_FSIZE, 0) &&
         SetLimit(RLIMIT_NOFILE, 0);
}

/// What is allowed with any arguments: to end, and to have memory. Some are there on some processors alone.
constexpr int kAllowed[] = {
    SCMP_SYS(exit_group),    SCMP_SYS(exit),           SCMP_SYS(rt_sigreturn), SCMP_SYS(brk),
    SCMP_SYS(munmap),        SCMP_SYS(mremap),         SCMP_SYS(madvise),      SCMP_SYS(futex),
    SCMP_SYS(clock_gettime), SCMP_SYS(clock_gettime64)};

constexpr scmp_arg_cmp IsFd(scmp_datum_t fd) { return {0, SCMP_CMP_EQ, fd, 0}; }
/// Of the argument's bits in the mask these are set, and no others.
constexpr scmp_arg_cmp HasBits(unsigned argument, scmp_datum_t mask, scmp_datum_t bits) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, bits};
}

/// Allows reading standard input and writing the other two, and memory that is nobody's file and no program.
bool AllowWithArguments(scmp_filter_ctx filter) {
  const auto allow = [filter](int call, std::initializer_list<scmp_arg_cmp> arguments) {
    return seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, call, static_cast<unsigned>(arguments.size()),
                                  arguments.begin()) == 0;
  };
  bool is_allowed = allow(SCMP_SYS(read), {IsFd(STDIN_FILENO)}) &&
                    allow(SCMP_SYS(write), {IsFd(STDOUT_FILENO)}) &&
                    allow(SCMP_SYS(write), {IsFd(STDERR_FILENO)});
  for (const int call : {SCMP_SYS(mmap), SCMP_SYS(mmap2)}) {
    is_allowed =
        is_allowed && allow(call, {HasBits(2, PROT_EXEC, 0), HasBits(3, MAP_ANONYMOUS, MAP_ANONYMOUS)});
  }
  return is_allowed;
}

bool AllowCalls(scmp_filter_ctx filter) {
  for (const int call : kAllowed) {
    if (seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) != 0) return false;
  }
  return AllowWithArguments(filter);
}

bool ForbidCalls() {
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_KILL_PROCESS);
  if (filter == nullptr) return false;
  // Calls as another processor has them end the process, too: a filter would know them by other numbers.
  const bool is_set = seccomp_attr_set(filter, SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS) == 0 &&
                      AllowCalls(filter) && (!kTightSandbox || seccomp_load(filter) == 0);
  seccomp_release(filter);
  return is_set;
}

}  // namespace

bool EnterSandbox() {
  // It ends with the service. A service that ended before this reads no pipe any more, so writing ends it.
  return clearenv() == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && prctl(PR_SET_DUMPABLE, 0) == 0 &&
         close_range(STDERR_FILENO + 1, ~0U, 0) == 0 && SetLimits() &&
         prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ForbidCalls();
}

}  // namespace TarvoOrvane::ArchiveReader
