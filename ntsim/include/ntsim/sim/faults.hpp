// Fault injection: make the platform refuse chosen calls, so that every failure path of the code
// above it can be run.
//
// A failure point is one call of a platform routine that may fail: every pool allocation
// (ExAllocatePoolWithTag, and the routines built on it) and every routine that begins with
//
//     if (auto failure = ntsim::faults::Check("ZwOpenSymbolicLinkObject")) return *failure;
//
// Each call passes one failure point, whether it fails or not. A sweep runs a scenario once to count
// its points (PointsPassed), then again failing the 1st, 2nd, ... point (FailNthPoint) until a run
// injects nothing, checking the result and the pool after each run.
//
// Counts are taken from the moment a rule is armed: FailNthAllocation(3) fails the third allocation
// made after the call. Every routine here is thread-safe; the order of points across threads is the
// order in which they reach the injector.
#pragma once

#include <ntsim/ntdef.h>
#include <ntsim/ntstatus.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim::faults {

enum class Persistence {
    Once,        // the chosen point fails, later ones pass
    Persistent,  // the chosen point and every later matching one fail, until Reset
};

// A failure point of a named routine: the status to fail it with, or nothing to let it run.
std::optional<NTSTATUS> Check(std::string_view routine);

// The failure point of a pool allocation (called by ExAllocatePoolWithTag): true to refuse it.
bool CheckAllocation(POOL_TYPE poolType, SIZE_T numberOfBytes, ULONG tag);

// Fail the n-th pool allocation from now (n >= 1), or that one and every later one.
void FailNthAllocation(uint64_t n, Persistence persistence = Persistence::Once);
// Fail every allocation under tag (or only the next one).
void FailAllocationsWithTag(ULONG tag, Persistence persistence = Persistence::Persistent);
// Fail the next call of routine with status, or every call until Reset.
void FailRoutine(std::string_view routine, NTSTATUS status, Persistence persistence = Persistence::Once);
// Fail the n-th failure point of any kind from now (n >= 1): an allocation returns null, a routine
// returns status.
void FailNthPoint(uint64_t n, NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES,
                  Persistence persistence = Persistence::Once);

// A set of failure points chosen by where they come from: pool allocations under any of tags, and
// calls of any of routines. A sweep of one component's work names the component's pool tag, the
// platform routines it calls and the tags under which those routines allocate what they hand it, so
// that the platform's own work around it (the I/O manager's allocations for the same request) is
// never failed.
struct PointSet {
    std::vector<ULONG> tags;
    std::vector<std::string> routines;

    bool HoldsAllocation(ULONG tag) const;
    bool HoldsRoutine(std::string_view routine) const;
};

// Fail the n-th failure point of set from now (n >= 1), or that one and every later one of the set:
// an allocation returns null, a routine returns status. Points outside the set pass and aren't
// counted. The rule counts every point of its set, also one that an earlier rule fails.
void FailNthPointOf(PointSet set, uint64_t n, NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES,
                    Persistence persistence = Persistence::Once);

// A stop of the whole system at the n-th point of trigger (n >= 1): from that point on, every point
// of halted fails with status, the n-th point itself too when halted holds it, until Reset. With the
// routines that change a volume in halted, the volume keeps the content it had at the stop, as a
// crash would leave it, while the code that was running goes on to its end. Points of trigger are
// counted whichever rule fails them.
void StopAtNthPointOf(PointSet trigger, uint64_t n, PointSet halted, NTSTATUS status);

// Counts since the last Reset.
uint64_t PointsPassed();       // failure points of every kind
uint64_t AllocationsPassed();  // pool allocation points
uint64_t FailuresInjected();

// What was failed since the last Reset, in order.
struct InjectedFailure {
    uint64_t point = 0;     // 1-based number of the failure point since Reset
    std::string routine;    // "ExAllocatePoolWithTag" for an allocation
    ULONG tag = 0;          // the allocation's tag, 0 for a routine
    NTSTATUS status = 0;    // the status given to a routine; STATUS_INSUFFICIENT_RESOURCES for an allocation
};
std::vector<InjectedFailure> Injected();

// Disarms every rule and zeroes the counts. The test main calls it after every test.
void Reset();

}  // namespace ntsim::faults
