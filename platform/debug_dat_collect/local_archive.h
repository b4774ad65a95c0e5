/// What debug_dat_collect does for people: for the makers of descriptions, and for owners who want to see what
/// leaves their device.
#pragma once

#include <iosfwd>

#include "collection_limits.h"
#include "options.h"

namespace TARVO::SupportForm {

/// Makes the archive that a ticket for these applications would get, and sums it up on `out`. It is made in a
/// folder of the caller's alone beside the file, which is gone afterwards, when a signal ends the program, too.
/// A line goes to the audit log; that it can't is a warning on `err`.
/// @throws std::exception  When the archive can't be made, or something of its name exists. Nothing of it is left then.
void WriteArchive(const Paths& paths, const Limits& limits, const CollectOptions& options, std::ostream& out,
                  std::ostream& err);

/// Lists on `out` what the archive would take now: a line for each entry, then what would be left out and why, with
/// control characters replaced, since names may come from other users. Makes no archive and no line in the audit log.
void ListContents(const Paths& paths, const Limits& limits, const CollectOptions& options, std::ostream& out);

}  // namespace TARVO::SupportForm
