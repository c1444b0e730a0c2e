// A logging minifilter for the simulator's scenes (not FolderMerge): it registers for every
// operation the I/O path produces and prints one line per pre- and post-callback, as the Filter
// Manager hands them to a filter: the operation, the target's device path, and then the
// requester (image, process id, previous mode) and parameters before, or the status and
// Information after.
#pragma once

#include <fltKernel.h>

#include <iosfwd>

namespace fmsim::logfilter {

// Loads the filter (service name "LogFilter", altitude 385100) on every mounted volume and
// every volume mounted later; it prints to out until Unload.
NTSTATUS Load(std::ostream& out);
NTSTATUS Unload();

}  // namespace fmsim::logfilter
