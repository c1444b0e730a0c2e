// Fault injection: which points fail for each kind of rule, the counts, and a sweep over every
// failure point of a small scenario.
#include <gtest/gtest.h>

#include <ntsim/ex.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace ntsim::faults;
const ULONG kTag = ntsim::pool::TagFromText("TsFi");
const ULONG kOtherTag = ntsim::pool::TagFromText("TsFo");

// Allocates count blocks, frees them, and says which failed.
std::vector<bool> AllocateAndFree(int count, ULONG tag = kTag)
{
    std::vector<bool> failed;
    for (int i = 0; i < count; ++i) {
        void* block = ExAllocatePoolWithTag(PagedPool, 8, tag);
        failed.push_back(block == nullptr);
        if (block != nullptr) {
            ExFreePoolWithTag(block, tag);
        }
    }
    return failed;
}

TEST(FailNthAllocation, FailsThatOneCountedFromNowOrEveryOneFromIt)
{
    AllocateAndFree(2);  // before arming: not counted towards n
    FailNthAllocation(3);
    EXPECT_EQ(AllocateAndFree(5), (std::vector<bool>{false, false, true, false, false}));
    ASSERT_EQ(Injected().size(), 1u);
    EXPECT_EQ(Injected()[0].point, 5u);
    EXPECT_EQ(Injected()[0].tag, kTag);
    EXPECT_EQ(Injected()[0].routine, "ExAllocatePoolWithTag");

    Reset();
    FailNthAllocation(2, Persistence::Persistent);
    EXPECT_EQ(AllocateAndFree(4), (std::vector<bool>{false, true, true, true}));
    EXPECT_EQ(FailuresInjected(), 3u);
    EXPECT_EQ(AllocationsPassed(), 4u);
}

TEST(FailAllocationsWithTag, FailsOnlyThatTag)
{
    auto before = ntsim::pool::UsageOfTag(kOtherTag).totalAllocations;
    FailAllocationsWithTag(kTag);
    EXPECT_EQ(AllocateAndFree(2, kTag), (std::vector<bool>{true, true}));
    EXPECT_EQ(AllocateAndFree(2, kOtherTag), (std::vector<bool>{false, false}));
    EXPECT_EQ(ntsim::pool::UsageOfTag(kOtherTag).totalAllocations, before + 2);

    Reset();
    FailAllocationsWithTag(kTag, Persistence::Once);
    EXPECT_EQ(AllocateAndFree(2, kTag), (std::vector<bool>{true, false}));
}

TEST(FailRoutine, FailsTheNamedRoutineWithTheChosenStatus)
{
    FailRoutine("ZwOpenSymbolicLinkObject", STATUS_ACCESS_DENIED);
    EXPECT_FALSE(Check("ZwQuerySymbolicLinkObject").has_value());
    EXPECT_EQ(Check("ZwOpenSymbolicLinkObject"), STATUS_ACCESS_DENIED);
    EXPECT_FALSE(Check("ZwOpenSymbolicLinkObject").has_value());
    EXPECT_EQ(AllocateAndFree(1), std::vector<bool>{false});

    FailRoutine("FltGetVolumeName", STATUS_BUFFER_TOO_SMALL, Persistence::Persistent);
    EXPECT_EQ(Check("FltGetVolumeName"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Check("FltGetVolumeName"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(PointsPassed(), 6u);  // five checks and one allocation
    EXPECT_EQ(FailuresInjected(), 3u);

    // Platform routines are failure points too.
    FailRoutine("ExInitializeResourceLite", STATUS_INSUFFICIENT_RESOURCES);
    ERESOURCE resource;
    EXPECT_EQ(ExInitializeResourceLite(&resource), STATUS_INSUFFICIENT_RESOURCES);
}

TEST(FailNthPoint, CountsRoutinesAndAllocationsAlike)
{
    FailNthPoint(2, STATUS_NO_MEMORY);
    EXPECT_FALSE(Check("ZwClose").has_value());
    EXPECT_EQ(AllocateAndFree(1), std::vector<bool>{true});  // the second point is an allocation
    EXPECT_FALSE(Check("ZwClose").has_value());

    FailNthPoint(1, STATUS_NO_MEMORY, Persistence::Persistent);
    EXPECT_EQ(Check("ZwClose"), STATUS_NO_MEMORY);
    EXPECT_EQ(AllocateAndFree(1), std::vector<bool>{true});
    EXPECT_EQ(Check("ZwClose"), STATUS_NO_MEMORY);
}

TEST(FailNthPointOf, CountsAndFailsOnlyThePointsOfItsSet)
{
    const PointSet set{.tags = {kTag}, .routines = {"FltGetVolumeName"}};
    FailNthPointOf(set, 3, STATUS_NO_MEMORY);
    EXPECT_EQ(AllocateAndFree(1, kOtherTag), std::vector<bool>{false});
    EXPECT_FALSE(Check("ZwClose").has_value());
    EXPECT_EQ(AllocateAndFree(1, kTag), std::vector<bool>{false});  // 1
    EXPECT_FALSE(Check("FltGetVolumeName").has_value());            // 2
    EXPECT_EQ(AllocateAndFree(1, kOtherTag), std::vector<bool>{false});
    EXPECT_EQ(Check("FltGetVolumeName"), STATUS_NO_MEMORY);  // 3
    EXPECT_FALSE(Check("FltGetVolumeName").has_value());
    ASSERT_EQ(Injected().size(), 1u);
    EXPECT_EQ(Injected()[0].point, 6u);  // the sixth point of any kind

    // An allocation of the set fails as allocations do; persistent rules fail every later point
    // of the set and nothing else.
    Reset();
    FailNthPointOf(set, 2, STATUS_NO_MEMORY, Persistence::Persistent);
    EXPECT_EQ(AllocateAndFree(2, kTag), (std::vector<bool>{false, true}));
    EXPECT_EQ(Injected()[0].status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(Check("ZwClose").has_value());
    EXPECT_EQ(AllocateAndFree(1, kOtherTag), std::vector<bool>{false});
    EXPECT_EQ(Check("FltGetVolumeName"), STATUS_NO_MEMORY);
    EXPECT_EQ(AllocateAndFree(1, kTag), std::vector<bool>{true});
}

TEST(FailNthPointOf, CountsAPointThatAnotherRuleFails)
{
    const PointSet set{.routines = {"FltGetVolumeName"}};
    FailRoutine("FltGetVolumeName", STATUS_ACCESS_DENIED);
    FailNthPointOf(set, 2, STATUS_NO_MEMORY);
    EXPECT_EQ(Check("FltGetVolumeName"), STATUS_ACCESS_DENIED);  // 1, failed by the first rule
    EXPECT_EQ(Check("FltGetVolumeName"), STATUS_NO_MEMORY);      // 2

    // Its n-th point failed by another rule, a rule that fires once is spent.
    Reset();
    FailRoutine("FltGetVolumeName", STATUS_ACCESS_DENIED);
    FailNthPointOf(set, 1, STATUS_NO_MEMORY);
    EXPECT_EQ(Check("FltGetVolumeName"), STATUS_ACCESS_DENIED);
    EXPECT_FALSE(Check("FltGetVolumeName").has_value());
    EXPECT_EQ(FailuresInjected(), 1u);
}

TEST(StopAtNthPointOf, FailsEveryHaltedPointFromTheTriggersNthOn)
{
    const PointSet trigger{.routines = {"FltWriteFile"}};
    const PointSet halted{.tags = {kTag}, .routines = {"FltWriteFile", "FltCreateFileEx"}};
    StopAtNthPointOf(trigger, 2, halted, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_FALSE(Check("FltCreateFileEx").has_value()) << "before the stop";
    EXPECT_FALSE(Check("FltWriteFile").has_value());  // 1
    EXPECT_EQ(AllocateAndFree(1, kTag), std::vector<bool>{false});
    EXPECT_EQ(Check("FltWriteFile"), STATUS_DEVICE_NOT_CONNECTED);  // 2: the stop
    EXPECT_EQ(Check("FltCreateFileEx"), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(AllocateAndFree(1, kTag), std::vector<bool>{true});
    EXPECT_FALSE(Check("ZwClose").has_value()) << "what the stop doesn't halt goes on";
    EXPECT_EQ(AllocateAndFree(1, kOtherTag), std::vector<bool>{false});
    EXPECT_EQ(Check("FltWriteFile"), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(FailuresInjected(), 4u);

    // A trigger point the halted set doesn't hold stops the system without failing itself.
    Reset();
    StopAtNthPointOf({.routines = {"ZwDeleteFile"}}, 1, {.routines = {"FltWriteFile"}}, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_FALSE(Check("FltWriteFile").has_value());
    EXPECT_FALSE(Check("ZwDeleteFile").has_value());
    EXPECT_EQ(Check("FltWriteFile"), STATUS_DEVICE_NOT_CONNECTED);
    Reset();
    EXPECT_FALSE(Check("FltWriteFile").has_value());
}

TEST(FaultCounts, ResetDisarmsAndZeroes)
{
    FailRoutine("ZwClose", STATUS_INVALID_HANDLE, Persistence::Persistent);
    FailAllocationsWithTag(kTag);
    EXPECT_TRUE(Check("ZwClose").has_value());
    AllocateAndFree(1);
    Reset();
    EXPECT_EQ(PointsPassed(), 0u);
    EXPECT_EQ(AllocationsPassed(), 0u);
    EXPECT_EQ(FailuresInjected(), 0u);
    EXPECT_FALSE(Check("ZwClose").has_value());
    EXPECT_EQ(AllocateAndFree(1), std::vector<bool>{false});
}

TEST(FaultCounts, AreExactAcrossThreads)
{
    FailNthPoint(2501, STATUS_NO_MEMORY, Persistence::Persistent);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&failures] {
            for (int i = 0; i < 1000; ++i) {
                if (Check("ZwQueryInformationProcess")) {
                    failures += 1;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(PointsPassed(), 4000u);
    EXPECT_EQ(failures.load(), 1500);
}

// A routine that makes a three-part record and undoes what it made when a part fails.
NTSTATUS MakeRecord(void** parts)
{
    for (int i = 0; i < 3; ++i) {
        if (auto failure = Check("ZwOpenKey")) {
            for (int j = 0; j < i; ++j) {
                ExFreePoolWithTag(parts[j], kTag);
            }
            return *failure;
        }
        parts[i] = ExAllocatePoolWithTag(NonPagedPoolNx, 24, kTag);
        if (parts[i] == nullptr) {
            for (int j = 0; j < i; ++j) {
                ExFreePoolWithTag(parts[j], kTag);
            }
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    return STATUS_SUCCESS;
}

TEST(FaultSweep, FailsEachPointInTurnUntilARunInjectsNothing)
{
    void* parts[3];
    ASSERT_EQ(MakeRecord(parts), STATUS_SUCCESS);
    const uint64_t points = PointsPassed();
    EXPECT_EQ(points, 6u);
    for (void* part : parts) {
        ExFreePoolWithTag(part, kTag);
    }

    uint64_t runs = 0;
    for (uint64_t n = 1;; ++n) {
        Reset();
        ntsim::pool::Checkpoint checkpoint;
        FailNthPoint(n, STATUS_ACCESS_DENIED);
        NTSTATUS status = MakeRecord(parts);
        if (FailuresInjected() == 0) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            for (void* part : parts) {
                ExFreePoolWithTag(part, kTag);
            }
            break;
        }
        ++runs;
        // Odd points are the routine, even ones the allocation.
        EXPECT_EQ(status, n % 2 == 1 ? STATUS_ACCESS_DENIED : STATUS_INSUFFICIENT_RESOURCES) << "point " << n;
        EXPECT_TRUE(checkpoint.Leaks().empty()) << "point " << n;
    }
    EXPECT_EQ(runs, points);
}

}  // namespace
