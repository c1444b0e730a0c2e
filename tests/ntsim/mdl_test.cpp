// Memory descriptor lists: locking a buffer's pages, the system's view of them, and the verifier's
// rules for MDLs.
#include <gtest/gtest.h>

#include <ntifs.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using ntsim::verifier::BugCheckCapture;
namespace rules = ntsim::verifier::rules;

const ULONG kMdlTag = ntsim::pool::TagFromText("Mdl ");

// The status a body raised, or STATUS_SUCCESS.
template <typename Body>
NTSTATUS Raised(Body body)
{
    __try {
        body();
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}

class MdlTest : public ::testing::Test {
protected:
    void SetUp() override { attach_ = std::make_unique<ntsim::AttachThread>(process_); }
    void TearDown() override { attach_.reset(); }

    // Allocates an MDL for [address, address + length) and locks it, or fails the test.
    PMDL Lock(void* address, ULONG length, KPROCESSOR_MODE mode = UserMode)
    {
        PMDL mdl = IoAllocateMdl(address, length, FALSE, FALSE, nullptr);
        EXPECT_NE(mdl, nullptr);
        EXPECT_EQ(Raised([&] { MmProbeAndLockPages(mdl, mode, IoWriteAccess); }), STATUS_SUCCESS);
        return mdl;
    }

    static void Release(PMDL mdl)
    {
        MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }

    std::shared_ptr<ntsim::Process> process_ = ntsim::CreateProcess();
    std::unique_ptr<ntsim::AttachThread> attach_;
};

TEST_F(MdlTest, LockedUserPagesAreSeenAtASystemAddressThatSharesTheirBytes)
{
    ntsim::pool::Checkpoint checkpoint;
    auto* user = static_cast<UCHAR*>(process_->AllocateUserMemory(10000));
    UCHAR* buffer = user + 3000;  // not on a page boundary, across two pages
    PMDL mdl = Lock(buffer, 3000);
    EXPECT_EQ(mdl->ByteCount, 3000u);
    EXPECT_EQ(MmGetMdlVirtualAddress(mdl), buffer);
    EXPECT_EQ(mdl->ByteOffset, BYTE_OFFSET(buffer));
    EXPECT_EQ(mdl->Size, static_cast<CSHORT>(sizeof(MDL) + 2 * sizeof(PFN_NUMBER)));
    EXPECT_EQ(mdl->Process, process_->AsEprocess());
    EXPECT_EQ(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_WRITE_OPERATION), MDL_PAGES_LOCKED | MDL_WRITE_OPERATION);

    auto* system = static_cast<UCHAR*>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority | MdlMappingNoExecute));
    ASSERT_NE(system, nullptr);
    EXPECT_NE(system, buffer);
    EXPECT_NE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA, 0);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), system) << "mapped once, reused";

    // One set of bytes at two addresses.
    std::memcpy(system, "through the system view", 23);
    EXPECT_EQ(std::memcmp(buffer, "through the system view", 23), 0);
    std::memcpy(buffer + 2990, "user side!", 10);
    EXPECT_EQ(std::memcmp(system + 2990, "user side!", 10), 0);

    // The system address is no user memory: a probe refuses it, as it refuses a kernel address.
    EXPECT_EQ(Raised([&] { ProbeForWrite(system, 3000, 1); }), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Raised([&] { ProbeForWrite(buffer, 3000, 1); }), STATUS_SUCCESS);

    Release(mdl);
    process_->FreeUserMemory(user);
    EXPECT_TRUE(checkpoint.Leaks().empty());
}

TEST_F(MdlTest, TheSystemViewServesOtherThreadsAndOutlivesTheFreedUserBlock)
{
    auto* user = static_cast<UCHAR*>(process_->AllocateUserMemory(64));
    PMDL mdl = Lock(user, 64);
    auto* system = static_cast<UCHAR*>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    ASSERT_NE(system, nullptr);

    // A thread of another process reaches the buffer through the system view, not by its user address.
    NTSTATUS probedThere = STATUS_SUCCESS;
    ntsim::SimulatedThread other(ntsim::CreateProcess(), [&] {
        probedThere = Raised([&] { ProbeForWrite(user, 64, 1); });
        std::memcpy(system, "from elsewhere", 14);
    });
    other.Join();
    EXPECT_EQ(probedThere, STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(std::memcmp(user, "from elsewhere", 14), 0);

    // The process frees the block while the pages are locked: they stay until the unlock.
    process_->FreeUserMemory(user);
    EXPECT_EQ(std::memcmp(system, "from elsewhere", 14), 0);
    std::memcpy(system, "still mapped", 12);
    Release(mdl);
}

TEST_F(MdlTest, OnlyTheCallersOwnUserMemoryLocksForAUserModeRequest)
{
    auto foreignProcess = ntsim::CreateProcess();
    auto* foreign = static_cast<UCHAR*>(foreignProcess->AllocateUserMemory(64));
    std::vector<UCHAR> kernel(64);
    auto* user = static_cast<UCHAR*>(process_->AllocateUserMemory(64));
    for (void* address : {static_cast<void*>(foreign), static_cast<void*>(kernel.data()),
                          static_cast<void*>(user + 32)}) {
        PMDL mdl = IoAllocateMdl(address, 64, FALSE, FALSE, nullptr);
        ASSERT_NE(mdl, nullptr);
        EXPECT_EQ(Raised([&] { MmProbeAndLockPages(mdl, UserMode, IoWriteAccess); }), STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(mdl->MdlFlags & MDL_PAGES_LOCKED, 0) << "a failed probe locks nothing";
        IoFreeMdl(mdl);
    }

    // A kernel-mode request may lock kernel memory, whose system view is its own address.
    PMDL mdl = Lock(kernel.data(), 64, KernelMode);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), kernel.data());
    EXPECT_EQ(mdl->Process, nullptr);
    Release(mdl);
    process_->FreeUserMemory(user);
    foreignProcess->FreeUserMemory(foreign);
}

TEST_F(MdlTest, AllocationAndMappingFailuresAreReportedAsNull)
{
    auto* user = static_cast<UCHAR*>(process_->AllocateUserMemory(64));
    EXPECT_EQ(IoAllocateMdl(user, 0, FALSE, FALSE, nullptr), nullptr) << "nothing to describe";
    EXPECT_EQ(IoAllocateMdl(user, 0xFFFFF000, FALSE, FALSE, nullptr), nullptr) << "more pages than one MDL holds";

    ntsim::faults::FailAllocationsWithTag(kMdlTag, ntsim::faults::Persistence::Once);
    EXPECT_EQ(IoAllocateMdl(user, 64, FALSE, FALSE, nullptr), nullptr);

    ntsim::faults::FailRoutine("MmProbeAndLockPages", STATUS_WORKING_SET_QUOTA);
    PMDL mdl = IoAllocateMdl(user, 64, FALSE, FALSE, nullptr);
    ASSERT_NE(mdl, nullptr);
    EXPECT_EQ(Raised([&] { MmProbeAndLockPages(mdl, UserMode, IoWriteAccess); }), STATUS_WORKING_SET_QUOTA);
    ASSERT_EQ(Raised([&] { MmProbeAndLockPages(mdl, UserMode, IoReadAccess); }), STATUS_SUCCESS);
    EXPECT_EQ(mdl->MdlFlags & MDL_WRITE_OPERATION, 0);

    ntsim::faults::FailRoutine("MmMapLockedPagesSpecifyCache", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), nullptr);
    EXPECT_EQ(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA, 0);
    EXPECT_NE(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), nullptr) << "the next attempt maps";
    Release(mdl);
    process_->FreeUserMemory(user);
}

TEST_F(MdlTest, TheVerifierCatchesMisusedMdls)
{
    auto* user = static_cast<UCHAR*>(process_->AllocateUserMemory(64));
    BugCheckCapture capture;

    PMDL mdl = Lock(user, 64);
    MmProbeAndLockPages(mdl, UserMode, IoWriteAccess);
    EXPECT_TRUE(capture.Consume(rules::kMdlPagesAlreadyLocked));
    IoFreeMdl(mdl);
    EXPECT_TRUE(capture.Consume(rules::kMdlFreedWithPagesLocked));

    PMDL unlocked = IoAllocateMdl(user, 64, FALSE, FALSE, nullptr);
    EXPECT_EQ(MmMapLockedPagesSpecifyCache(unlocked, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority),
              nullptr);
    EXPECT_TRUE(capture.Consume(rules::kMdlPagesNotLocked));
    MmUnlockPages(unlocked);
    EXPECT_TRUE(capture.Consume(rules::kMdlPagesNotLocked));
    IoFreeMdl(unlocked);
    IoFreeMdl(unlocked);
    EXPECT_TRUE(capture.Consume(rules::kMdlBadObject));
    EXPECT_EQ(capture.Count(), 0u);
    process_->FreeUserMemory(user);
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(MdlTest, AnOverrunThroughTheSystemViewIsReported)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto* user = static_cast<UCHAR*>(process_->AllocateUserMemory(100));
    PMDL mdl = Lock(user, 100);
    auto* system = static_cast<volatile UCHAR*>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    system[99] = 1;
    EXPECT_DEATH(system[100] = 1, "use-after-poison");
    Release(mdl);
    process_->FreeUserMemory(user);
}
#endif

}  // namespace
