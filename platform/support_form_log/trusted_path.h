/// Who else could have put or changed what lies under a path, judged along the whole way there.
///
/// What the collection acts on decides what runs as root and what leaves the device, so nobody but root and the user
/// who runs this may have a say in it. Every folder on the way, every link and the thing itself has to belong to one of
/// the two, and others may not write to it. One kind of folder is let pass though all may write to it: one with the
/// sticky bit (/tmp), if what comes next is a folder of root's or one's own, which others can neither remove nor
/// bring there. Files and links they can bring there, with hard links or by moving them out of a folder of theirs.
///
/// Each name is looked up in the folder before, which is held open: what was judged is what is opened. The
/// collector and debug_dat_check judge by this.
#pragma once

#include <cstddef>
#include <deque>
#include <string>

#include "unique_fd.h"

namespace TARVO::SupportForm {

/// Somebody else has a say in what lies under a path. Both are empty where nobody has.
struct Distrust {
  std::string text;    ///< What others can change, with its owner and mode.
  std::string advice;  ///< A command that mends it.

  explicit operator bool() const { return !text.empty(); }
  /// Both in one line.
  [[nodiscard]] std::string Line() const { return text + "; " + advice; }
};

/// What came of opening a path.
struct OpenedPath {
  UniqueFd fd;        ///< Invalid on failure.
  int error = 0;      ///< Why it failed, an errno value; 0 where `distrust` tells.
  Distrust distrust;  ///< Set on failure only.
};

/// Opens what lies under an absolute path, following links that nobody else could have placed.
/// @param flags  Of open(), beside O_CLOEXEC. With O_PATH anything is opened, a socket too.
[[nodiscard]] OpenedPath OpenTrusted(const std::string& path, int flags);

/// Opens a regular file so and reads it as ReadUpTo() does.
/// @return false on failure, with errno set, or `distrust` and errno 0.
[[nodiscard]] bool ReadTrustedFile(const std::string& path, std::size_t limit, std::string& out, bool& more,
                                   Distrust& distrust);

/// Whether a user, given by number, is root or the one who runs this (the effective user).
[[nodiscard]] bool IsRootOrSelf(unsigned user);

/// Whether a user is one of those who may have a say: root, or the user who runs this. In a user namespace without the
/// device's root, its files seem to belong to the user "nobody", who counts as root there.
[[nodiscard]] bool IsTrustedUser(unsigned user);

/// The parts of a path between its slashes, from the root on; slashes behind each other part nothing.
[[nodiscard]] std::deque<std::string> PartsOf(const std::string& path);

}  // namespace TARVO::SupportForm
