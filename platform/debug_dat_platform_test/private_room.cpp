#include "private_room.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace DebugDatPlatformTest {
namespace {

namespace fs = std::filesystem;

/// Holds the memory in which the rest is written; any folder that every system has will do.
constexpr char kScratch[] = "/mnt";

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + " failed: " + std::strerror(errno));
}

void Mount(const char* source, const std::string& target, const char* type, unsigned long flags,
           const std::string& options) {
  if (mount(source, target.c_str(), type, flags, options.c_str()) != 0) Fail("mounting " + target);
}

void WriteText(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  if (!file) Fail(std::string("writing ") + path);
}

/// Makes the namespaces. An ordinary user needs one of users first, in which they are root.
void Unshare() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  const bool is_root = uid == 0;
  if (unshare(CLONE_NEWNS | CLONE_NEWPID | (is_root ? 0 : CLONE_NEWUSER)) != 0) Fail("making namespaces");
  if (is_root) return;
  WriteText("/proc/self/setgroups", "deny");
  WriteText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  WriteText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

constexpr const char* kWritten[] = {"/etc", "/tmp", "/var", "/var/lib", "/var/log", "/var/tmp"};

/// What an ordinary user may write in an overlay is directly in its folder: subfolders have overlays of their own. Each
/// lies over the machine's own folder and not over another overlay: the kernel stacks no more than two.
void Overlay(const std::string& folder, bool is_root) {
  const std::string upper = kScratch + ("/upper" + folder);
  const std::string work = kScratch + ("/work" + folder);
  fs::create_directories(upper);
  fs::create_directories(work);
  fs::permissions(upper, fs::status(folder).permissions());
  const std::string lower = kScratch + ("/machine" + folder);
  Mount("overlay", folder, "overlay", 0,
        "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work + (is_root ? "" : ",userxattr"));
}

/// Makes the folder and has the other one seen there too.
void Bind(const std::string& from, const std::string& to) {
  fs::create_directories(to);
  Mount(from.c_str(), to, nullptr, MS_BIND | MS_REC, "");
}

/// Mounts what lies in memory. The scratch is mounted, and has the folder to keep.
void MountWritten(const std::string& kept, bool is_root) {
  const std::string scratch = kScratch;
  for (const char* folder : {"/etc", "/tmp", "/var"}) Bind(folder, scratch + "/machine" + folder);
  for (const char* folder : kWritten) Overlay(folder, is_root);
  Mount("tmpfs", "/run", "tmpfs", 0, "mode=755");  // empty: nobody's sockets lead out of here
  Bind(scratch + "/kept", kept);
}

/// Gives the new namespace what it has of its own. Nothing of it is seen outside.
void Furnish(const std::string& kept, bool is_root) {
  Mount("none", "/", nullptr, MS_REC | MS_PRIVATE, "");
  const int kept_fd = open(kept.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);  // the scratch may cover the path
  if (kept_fd < 0) Fail("opening " + kept);
  Mount("tmpfs", kScratch, "tmpfs", 0, "mode=755");
  try {
    Bind("/proc/self/fd/" + std::to_string(kept_fd), std::string(kScratch) + "/kept");
    close(kept_fd);
    MountWritten(kept, is_root);
  } catch (...) {
    umount2(kScratch, MNT_DETACH);  // the libraries may lie below it
    throw;
  }
}

std::string FaultOfRoom(const std::string& kept) {
  try {
    const bool is_root = geteuid() == 0;
    Unshare();
    Furnish(kept, is_root);
    return {};
  } catch (const std::exception& error) {
    return error.what();
  }
}

/// Runs `work` in a child that does not outlive this process.
/// @return As RunInPrivateRoom().
int StatusOfChild(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(work());
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status)
                                                                               : kCutShort;
}

/// Sees to /proc first, as the first process of a namespace.
int Work(std::string fault, const std::function<int(const std::string&)>& work) {
  if (fault.empty() && mount("proc", "/proc", "proc", 0, nullptr) != 0) {
    fault = std::string("mounting /proc failed: ") + std::strerror(errno);
  }
  return work(fault);
}

}  // namespace

int RunInPrivateRoom(const std::string& kept, const std::function<int(const std::string&)>& work) {
  // The caller stays outside: who has made a namespace of processes starts none elsewhere.
  return StatusOfChild([&] {
    const std::string fault = FaultOfRoom(kept);
    return StatusOfChild([&] { return Work(fault, work); });
  });
}

}  // namespace DebugDatPlatformTest
