// The road of one open: a user opens a managed file, writes and closes it, and the service answers
// the filter's requests on the way.
#pragma once

#include "expectations.hpp"

#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/process.hpp>

#include <memory>
#include <ostream>
#include <string>

namespace fmsim {

struct RoadSubject {
    std::string userName;
    std::shared_ptr<ntsim::Process> user;
    std::shared_ptr<ntsim::MemoryVolume> volume;
    std::u16string volumePath;  // \Users\alice\Velmora\plan.txt, on the volume mounted as C:
};

// Connects a scripted service to the Thread port of the loaded driver (no other Thread port may
// stand), and has the user open the file for writing with FILE_OVERWRITE_IF, write a line and close
// it. Prints, in the order it happens, what the caller did and got in the left column and what the
// service received and answered in the right one, then what the open left behind; checks each
// against what FolderMerge should do, and disconnects.
void ShowRoadOfOneOpen(std::ostream& out, Expectations& expect, const RoadSubject& subject);

}  // namespace fmsim
