// One run of a fault sweep of the loaded filter: a scenario run with the n-th failure point of the
// filter's work failed, once or from there on, and what every such run must leave behind.
#pragma once

#include <gtest/gtest.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <functional>
#include <string>
#include <vector>

#include "servicerequests.h"
#include "user.h"

namespace foldermerge::testing {

inline std::string PointName(const ntsim::faults::InjectedFailure& failure)
{
    return failure.tag != 0 ? "pool '" + ntsim::pool::TagText(failure.tag) + "'" : failure.routine;
}

// Runs scenario failing the n-th point of work. Each run starts and ends without user records, so
// that an exclusion test takes the cache's miss (the record made, the service asked, the verdict
// cached) and the pool can be compared. check gets the failures injected and a text that names the
// run, before the records go. Afterwards no block of any tag is left beyond what was there, the
// filter's tag has the blocks and bytes it had, and the verifier reported nothing. Returns the
// failures injected: none means the scenario has no n-th point, and ends the sweep.
inline std::vector<ntsim::faults::InjectedFailure> RunWithNthPointFailed(
    const ntsim::faults::PointSet& work, uint64_t n, ntsim::faults::Persistence persistence, const std::string& name,
    const std::function<void()>& scenario,
    const std::function<void(const std::vector<ntsim::faults::InjectedFailure>&, const std::string&)>& check)
{
    ClearUserRecords();
    const ntsim::pool::Usage filterPool = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG);
    ntsim::pool::Checkpoint checkpoint;
    std::vector<ntsim::verifier::BugCheckRecord> bugchecks;
    std::vector<ntsim::faults::InjectedFailure> injected;
    {
        ntsim::verifier::BugCheckCapture capture;
        ntsim::faults::Reset();
        ntsim::faults::FailNthPointOf(work, n, STATUS_INSUFFICIENT_RESOURCES, persistence);
        scenario();
        injected = ntsim::faults::Injected();
        ntsim::faults::Reset();
        bugchecks = capture.Take();
    }
    const std::string where = name + ", point " + std::to_string(n) +
                              (injected.empty() ? " (none left)" : " (" + PointName(injected[0]) + ")") +
                              (persistence == ntsim::faults::Persistence::Once ? " failed once" : " failed from there on");
    check(injected, where);
    ClearUserRecords();
    std::vector<ntsim::pool::Allocation> leaks = checkpoint.Leaks();
    EXPECT_TRUE(leaks.empty()) << where << ": left in pool\n" << ntsim::pool::FormatReport(leaks);
    const ntsim::pool::Usage after = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG);
    EXPECT_EQ(after.liveCount, filterPool.liveCount) << where;
    EXPECT_EQ(after.liveBytes, filterPool.liveBytes) << where;
    for (const auto& record : bugchecks) {
        ADD_FAILURE() << where << ": bugcheck " << record.rule << "\n" << record.detail;
    }
    return injected;
}

}  // namespace foldermerge::testing
