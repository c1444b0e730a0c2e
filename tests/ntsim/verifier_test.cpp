// The verifier: capture scopes, lock-order inversions across threads and over time, waits for the
// service under a lock, callbacks that return with kernel state changed, and threads that end
// holding it.
#include <gtest/gtest.h>

#include <ntsim/ex.h>
#include <ntsim/ke.h>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <thread>

namespace {

namespace rules = ntsim::verifier::rules;
using ntsim::verifier::BugCheckCapture;

TEST(BugCheckCaptureScope, RecordsBugchecksOfEveryThreadInTheInnermostScope)
{
    BugCheckCapture outer;
    {
        BugCheckCapture inner;
        std::thread other([] { ntsim::verifier::BugCheck("TEST_RULE", "from another thread"); });
        other.join();
        EXPECT_EQ(outer.Count(), 0u);
        auto records = inner.Take();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].rule, "TEST_RULE");
        EXPECT_EQ(records[0].detail, "from another thread");
        EXPECT_EQ(inner.Count(), 0u);
    }
    ntsim::verifier::BugCheck("TEST_RULE", "after the inner scope closed");
    EXPECT_EQ(outer.ConsumeDetail("TEST_RULE"), "after the inner scope closed");
    EXPECT_FALSE(outer.Consume("TEST_RULE"));
}

TEST(BugCheckCaptureScope, RecordsLeftUnconsumedAreHandedOnWhenTheScopeCloses)
{
    {
        BugCheckCapture capture;
        ntsim::verifier::BugCheck("FIRST", "a");
        ntsim::verifier::BugCheck("SECOND", "b");
        EXPECT_TRUE(capture.Consume("SECOND"));
    }
    auto left = ntsim::verifier::TakeUnconsumed();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].rule, "FIRST");
    EXPECT_TRUE(ntsim::verifier::TakeUnconsumed().empty());
}

TEST(BugCheckAbort, WithoutACaptureScopeTheProgramStopsWithRuleDetailAndStack)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(ntsim::verifier::BugCheck("SOME_RULE", "what went wrong"),
                 "bugcheck SOME_RULE(.|\n)*what went wrong(.|\n)*call stack");
}

TEST(NotImplementedRoutines, FailLoudlyByName)
{
    BugCheckCapture capture;
    EXPECT_EQ(ntsim::verifier::NotImplemented("ZwSomethingRare"), STATUS_NOT_IMPLEMENTED);
    EXPECT_NE(capture.ConsumeDetail(rules::kNotImplemented).find("ZwSomethingRare"), std::string::npos);
}

// Two ERESOURCEs with names, in a fixture that makes and deletes them.
class LockOrder : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(ExInitializeResourceLite(&a_), STATUS_SUCCESS);
        ASSERT_EQ(ExInitializeResourceLite(&b_), STATUS_SUCCESS);
        ntsim::verifier::NameLock(&a_, "LockA");
        ntsim::verifier::NameLock(&b_, "LockB");
        KeInitializeSpinLock(&spin_);
    }
    void TearDown() override
    {
        ExDeleteResourceLite(&a_);
        ExDeleteResourceLite(&b_);
    }

    static void TakeInOrder(PERESOURCE first, PERESOURCE second)
    {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(first, TRUE);
        ExAcquireResourceExclusiveLite(second, TRUE);
        ExReleaseResourceLite(second);
        ExReleaseResourceLite(first);
        KeLeaveCriticalRegion();
    }

    ERESOURCE a_;
    ERESOURCE b_;
    KSPIN_LOCK spin_;
};

TEST_F(LockOrder, OppositeNestingOnAnotherThreadLaterIsAnInversionNamingBothLocks)
{
    std::thread first([this] { TakeInOrder(&a_, &b_); });
    first.join();
    BugCheckCapture capture;
    std::thread second([this] { TakeInOrder(&b_, &a_); });  // never deadlocks here, but could
    second.join();
    std::string detail = capture.ConsumeDetail(rules::kLockOrderInversion);
    EXPECT_NE(detail.find("ERESOURCE LockA"), std::string::npos) << detail;
    EXPECT_NE(detail.find("ERESOURCE LockB"), std::string::npos) << detail;
    EXPECT_EQ(capture.Count(), 0u);
}

TEST_F(LockOrder, TheSameNestingEverywhereAndRecursionAreQuiet)
{
    BugCheckCapture capture;
    std::thread one([this] { TakeInOrder(&a_, &b_); });
    std::thread two([this] { TakeInOrder(&a_, &b_); });
    one.join();
    two.join();
    // Holding A then B, taking A again is recursion, not the order B -> A.
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&a_, TRUE);
    ExAcquireResourceExclusiveLite(&b_, TRUE);
    ExAcquireResourceExclusiveLite(&a_, TRUE);
    ExReleaseResourceLite(&a_);
    ExReleaseResourceLite(&b_);
    ExReleaseResourceLite(&a_);
    KeLeaveCriticalRegion();
    // A try-acquire cannot deadlock and records no order.
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&b_, TRUE);
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&a_, FALSE));
    ExReleaseResourceLite(&a_);
    ExReleaseResourceLite(&b_);
    KeLeaveCriticalRegion();
    EXPECT_EQ(capture.Count(), 0u);
}

TEST_F(LockOrder, ACycleThroughThreeLocksAndASpinLockIsFound)
{
    ntsim::verifier::NameLock(&spin_, "SpinC");
    TakeInOrder(&a_, &b_);
    // B, then the spin lock.
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&b_, TRUE);
    KIRQL old;
    KeAcquireSpinLock(&spin_, &old);
    KeReleaseSpinLock(&spin_, old);
    ExReleaseResourceLite(&b_);
    KeLeaveCriticalRegion();

    BugCheckCapture capture;
    // The spin lock, then A: closes A -> B -> SpinC -> A. Taking A at DISPATCH_LEVEL is itself
    // wrong, so take the spin lock's place with its verifier note from a PASSIVE_LEVEL thread.
    ntsim::verifier::NoteLockAcquired(&spin_, "spin lock");
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&a_, TRUE);
    std::string detail = capture.ConsumeDetail(rules::kLockOrderInversion);
    EXPECT_NE(detail.find("LockA"), std::string::npos) << detail;
    EXPECT_NE(detail.find("SpinC"), std::string::npos) << detail;
    EXPECT_NE(detail.find("LockB"), std::string::npos) << detail;  // the path of the cycle
    ExReleaseResourceLite(&a_);
    KeLeaveCriticalRegion();
    ntsim::verifier::NoteLockReleased(&spin_);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST_F(LockOrder, AReinitializedOrFreedLockStartsWithoutHistory)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&a_, TRUE);
    KIRQL old;
    KeAcquireSpinLock(&spin_, &old);
    KeReleaseSpinLock(&spin_, old);
    ExReleaseResourceLite(&a_);
    KeLeaveCriticalRegion();

    // The same address made again is a new lock: the order spin -> A is not an inversion.
    KeInitializeSpinLock(&spin_);
    BugCheckCapture capture;
    ntsim::verifier::NoteLockAcquired(&spin_, "spin lock");
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&a_, TRUE);
    ExReleaseResourceLite(&a_);
    KeLeaveCriticalRegion();
    ntsim::verifier::NoteLockReleased(&spin_);
    EXPECT_EQ(capture.Count(), 0u);

    // A lock in a pool block: freeing the block ends its history.
    const ULONG tag = ntsim::pool::TagFromText("TsLo");
    auto* pooled = static_cast<PKSPIN_LOCK>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(KSPIN_LOCK), tag));
    *pooled = 0;  // a zeroed record holds a free spin lock, as drivers rely on
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&b_, TRUE);
    KeAcquireSpinLock(pooled, &old);
    KeReleaseSpinLock(pooled, old);
    ExReleaseResourceLite(&b_);
    KeLeaveCriticalRegion();
    ExFreePoolWithTag(pooled, tag);
    ntsim::verifier::NoteLockAcquired(pooled, "spin lock");  // whatever now lives at that address
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&b_, TRUE);
    ExReleaseResourceLite(&b_);
    KeLeaveCriticalRegion();
    ntsim::verifier::NoteLockReleased(pooled);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST(LockNotes, ReleasingALockTheThreadDoesNotHoldIsReported)
{
    int lock = 0;
    BugCheckCapture capture;
    ntsim::verifier::NoteLockReleased(&lock);
    EXPECT_TRUE(capture.Consume(rules::kLockNotHeld));
    ntsim::verifier::NoteLockAcquired(&lock, "test lock");
    EXPECT_EQ(ntsim::verifier::HeldLockCount(), 1u);
    ntsim::verifier::NoteLockReleased(&lock);
    EXPECT_EQ(ntsim::verifier::HeldLockCount(), 0u);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST(ServiceWait, UnderAnyLockIsReportedWithTheLocksName)
{
    ERESOURCE resource;
    ASSERT_EQ(ExInitializeResourceLite(&resource), STATUS_SUCCESS);
    ntsim::verifier::NameLock(&resource, "g_ContextLock");
    BugCheckCapture capture;
    ntsim::verifier::AssertNoLocksHeld("FltSendMessage");
    EXPECT_EQ(capture.Count(), 0u);

    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&resource, TRUE);
    ntsim::verifier::AssertNoLocksHeld("FltSendMessage");
    std::string detail = capture.ConsumeDetail(rules::kLockHeldDuringWait);
    EXPECT_NE(detail.find("FltSendMessage"), std::string::npos) << detail;
    EXPECT_NE(detail.find("g_ContextLock"), std::string::npos) << detail;
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&resource);
}

TEST(CallbackReturn, WithChangedKernelStateIsReportedPerKind)
{
    BugCheckCapture capture;
    { ntsim::verifier::CallbackScope balanced("Balanced"); }
    EXPECT_EQ(capture.Count(), 0u);

    KIRQL old = PASSIVE_LEVEL;
    {
        ntsim::verifier::CallbackScope scope("LeavesRaised");
        KeRaiseIrql(DISPATCH_LEVEL, &old);
    }
    EXPECT_NE(capture.ConsumeDetail(rules::kIrqlLeftRaised).find("LeavesRaised"), std::string::npos);
    KeLowerIrql(old);

    {
        ntsim::verifier::CallbackScope scope("LeavesRegion");
        KeEnterCriticalRegion();
    }
    EXPECT_TRUE(capture.Consume(rules::kCriticalRegionLeftOpen));
    KeLeaveCriticalRegion();

    int lock = 0;
    {
        ntsim::verifier::CallbackScope scope("LeavesLock");
        ntsim::verifier::NoteLockAcquired(&lock, "test lock");
    }
    EXPECT_TRUE(capture.Consume(rules::kLockHeldOnReturn));
    ntsim::verifier::NoteLockReleased(&lock);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST(ThreadExit, WithRaisedIrqlOrAHeldLockIsReported)
{
    BugCheckCapture capture;
    std::thread clean([] {
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        KeLowerIrql(old);
    });
    clean.join();
    EXPECT_EQ(capture.Count(), 0u);

    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    std::thread leaves([&lock] {
        KIRQL old;
        KeAcquireSpinLock(&lock, &old);
    });
    leaves.join();
    std::string detail = capture.ConsumeDetail(rules::kThreadExitedHoldingState);
    EXPECT_NE(detail.find("IRQL 2"), std::string::npos) << detail;
    EXPECT_NE(detail.find("spin lock"), std::string::npos) << detail;
}

}  // namespace
