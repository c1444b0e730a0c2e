// The driver's requests crossing the Thread port to a scripted service, and the service's replies.
#pragma once

#include "expectations.hpp"

#include <ntsim/sim/process.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace fmsim {

// The file the requests are about: a file on disk in a merge folder, and the user and process whose
// open would make them.
struct RequestSubject {
    std::shared_ptr<ntsim::Process> requester;  // requests are made in a thread of this process
    std::u16string sid;
    std::u16string folderDevicePath;  // \Device\HarddiskVolume2\Merge\Alice
    std::u16string fileDevicePath;    // \Device\HarddiskVolume2\Merge\Alice\plan.txt
    uint64_t fileSize = 0;            // its size on disk
};

// Connects a scripted service to the Thread port of the loaded driver (no other Thread port may
// stand), sends three requests through the driver's request frame in a thread of the requester:
// an exclusion query the service refuses, a download the service answers with flags, and a lock
// notice it never answers, which times out after 30 minutes of virtual time. Prints each request
// as the service decoded it, the reply and the frame's result, checks them, calls afterEach after
// each request, and disconnects.
void ShowServiceRequests(std::ostream& out, Expectations& expect, const RequestSubject& subject,
                         const std::function<void()>& afterEach);

}  // namespace fmsim
