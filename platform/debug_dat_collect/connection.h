#pragma once

#include "collection_limits.h"

namespace TARVO::SupportForm {

/// Takes a collection over, as hand_over.h tells, and does its work: the whole life of a collector that was started
/// for a connection. Who asks has to be root, the user who runs this, or the user "tarvo" in the group that this runs
/// in; the kernel tells who that is. A refusal is told to them and to the system's log.
///
/// The task is shared with the process's group, and so is all that makes it: see task_folder.h. From the answer on the
/// process is what StartDetached() would have made, but for its parent.
/// @param connection_fd  From now on its own.
/// @return The process's exit status.
int ServeConnection(const Paths& paths, const Limits& limits, int connection_fd);

}  // namespace TARVO::SupportForm
