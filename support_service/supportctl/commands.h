/// What supportctl does for each of its commands.
#pragma once

#include "archive_fetcher.h"
#include "console.h"
#include "ticket_follower.h"

namespace TarvoOrvane::Supportctl {

/// How long supportctl waits for a service that does not answer any more.
struct Patience {
  Persistence events;
  FetchSettings archives;
};

/// Does what the command line asks for, and says on `console.err` what went wrong. Results go to `console.out`: in full
/// or, where the command failed, as far as they came.
/// @return The process's exit status.
int RunSupportctl(int argc, const char* const* argv, Console& console, const Patience& patience = {});

}  // namespace TarvoOrvane::Supportctl
