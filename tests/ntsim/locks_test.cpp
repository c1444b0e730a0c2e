// ERESOURCE and spin locks: what they exclude, recursion, and the verifier's rules on their use.
#include <gtest/gtest.h>

#include <ntsim/ex.h>
#include <ntsim/ke.h>
#include <ntsim/sim/verifier.hpp>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

namespace rules = ntsim::verifier::rules;

// Polls (in real time) until condition holds, for at most ten seconds.
template <typename Condition>
bool Eventually(Condition condition)
{
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Kernel APCs disabled for the scope, as resources need.
struct CriticalRegion {
    CriticalRegion() { KeEnterCriticalRegion(); }
    ~CriticalRegion() { KeLeaveCriticalRegion(); }
};

class Resource : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ExInitializeResourceLite(&resource_), STATUS_SUCCESS); }
    void TearDown() override { EXPECT_EQ(ExDeleteResourceLite(&resource_), STATUS_SUCCESS); }

    ERESOURCE resource_;
};

TEST_F(Resource, ExclusiveOwnerMayAcquireAgainAndReleasesAsOften)
{
    CriticalRegion region;
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource_, TRUE));  // shared is granted to the owner
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource_));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 3u);

    std::thread other([this] {
        CriticalRegion region;
        EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
        EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource_, FALSE));
        EXPECT_FALSE(ExAcquireResourceSharedLite(&resource_, FALSE));
    });
    other.join();

    ExReleaseResourceLite(&resource_);
    ExReleaseResourceLite(&resource_);
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource_));
    ExReleaseResourceLite(&resource_);
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
    EXPECT_EQ(ntsim::verifier::HeldLockCount(), 0u);
}

TEST_F(Resource, EveryReleaseWakesTheWaitersItLetsIn)
{
    // The owner holds it; an exclusive and a shared waiter block behind it. The owner's release
    // lets the exclusive waiter in, whose own release lets the shared one in.
    CriticalRegion region;
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    std::atomic<int> order{0};
    std::atomic<int> exclusiveTurn{0}, sharedTurn{0};
    std::thread exclusive([&] {
        CriticalRegion region;
        ExAcquireResourceExclusiveLite(&resource_, TRUE);
        exclusiveTurn = ++order;
        ExReleaseResourceLite(&resource_);
    });
    ASSERT_TRUE(Eventually([&] { return ExGetExclusiveWaiterCount(&resource_) == 1; }));
    std::thread shared([&] {
        CriticalRegion region;
        ExAcquireResourceSharedLite(&resource_, TRUE);
        sharedTurn = ++order;
        ExReleaseResourceLite(&resource_);
    });
    ASSERT_TRUE(Eventually([&] { return ExGetSharedWaiterCount(&resource_) == 1; }));
    EXPECT_EQ(order, 0) << "neither waiter got in while the owner held it";
    ExReleaseResourceLite(&resource_);
    exclusive.join();
    shared.join();
    EXPECT_EQ(exclusiveTurn, 1);
    EXPECT_EQ(sharedTurn, 2);
    EXPECT_EQ(ExGetExclusiveWaiterCount(&resource_), 0u);
    EXPECT_EQ(ExGetSharedWaiterCount(&resource_), 0u);
}

TEST_F(Resource, SharedOwnersCoexistAndExcludeAnExclusiveOne)
{
    std::atomic<int> holding{0};
    std::atomic<bool> release{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            CriticalRegion region;
            ExAcquireResourceSharedLite(&resource_, TRUE);
            holding += 1;
            while (!release) {
                std::this_thread::yield();
            }
            ExReleaseResourceLite(&resource_);
        });
    }
    ASSERT_TRUE(Eventually([&] { return holding == 2; }));
    CriticalRegion region;
    EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource_, FALSE));
    release = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, FALSE));
    ExReleaseResourceLite(&resource_);
}

TEST_F(Resource, MustBeAcquiredWithKernelApcsDisabled)
{
    ntsim::verifier::BugCheckCapture capture;
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    EXPECT_TRUE(capture.Consume(rules::kResourceOutsideCriticalRegion));
    ExReleaseResourceLite(&resource_);

    // APC_LEVEL disables normal kernel APCs as a critical region does.
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    ExReleaseResourceLite(&resource_);
    KeLowerIrql(old);

    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&resource_, TRUE);
    ExReleaseResourceLite(&resource_);
    KeLeaveCriticalRegion();
    EXPECT_EQ(capture.Count(), 0u);

    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, FALSE));  // reported, then granted
    EXPECT_TRUE(capture.Consume(rules::kIrqlTooHigh));
    ExReleaseResourceLite(&resource_);
    KeLowerIrql(old);
}

TEST_F(Resource, ReleaseByAThreadThatDoesNotHoldItIsReportedAndChangesNothing)
{
    CriticalRegion region;
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    {
        ntsim::verifier::BugCheckCapture capture;
        std::thread intruder([this] { ExReleaseResourceLite(&resource_); });
        intruder.join();
        std::string detail = capture.ConsumeDetail(rules::kResourceReleasedByNonOwner);
        EXPECT_NE(detail.find("holds it exclusive"), std::string::npos) << detail;
    }
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource_));
    ExReleaseResourceLite(&resource_);
}

TEST_F(Resource, DeleteWhileHeldFailsAndLeavesTheLockUsable)
{
    CriticalRegion region;
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    {
        ntsim::verifier::BugCheckCapture capture;
        EXPECT_FALSE(NT_SUCCESS(ExDeleteResourceLite(&resource_)));
        EXPECT_TRUE(capture.Consume(rules::kResourceDeletedWhileHeld));
    }
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource_));
    ExReleaseResourceLite(&resource_);
}

TEST_F(Resource, SharedHolderAskingForExclusiveIsReportedInsteadOfDeadlocking)
{
    ntsim::verifier::BugCheckCapture capture;
    CriticalRegion region;
    ExAcquireResourceSharedLite(&resource_, TRUE);
    EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    EXPECT_TRUE(capture.Consume(rules::kResourceSharedToExclusive));
    ExReleaseResourceLite(&resource_);
}

TEST(ResourceLifetime, UseBeforeInitializeOrAfterDeleteIsReported)
{
    ntsim::verifier::BugCheckCapture capture;
    ERESOURCE resource{};
    CriticalRegion region;
    EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    EXPECT_TRUE(capture.Consume(rules::kResourceNotInitialized));
    ASSERT_EQ(ExInitializeResourceLite(&resource), STATUS_SUCCESS);
    ASSERT_EQ(ExDeleteResourceLite(&resource), STATUS_SUCCESS);
    EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    EXPECT_NE(capture.ConsumeDetail(rules::kResourceNotInitialized).find("deleted"), std::string::npos);
}

TEST(SpinLock, RaisesToDispatchLevelAndRestoresTheCallersLevel)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL outer;
    KeRaiseIrql(APC_LEVEL, &outer);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(old, APC_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_FALSE(KeTestSpinLock(&lock));
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    EXPECT_TRUE(KeTestSpinLock(&lock));
    KeLowerIrql(outer);

    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeAcquireSpinLockAtDpcLevel(&lock);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeReleaseSpinLockFromDpcLevel(&lock);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(old);
}

TEST(SpinLock, ExcludesOtherThreads)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    long counter = 0;  // a plain variable: only the lock keeps the increments whole
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
                long seen = counter;
                std::atomic_signal_fence(std::memory_order_seq_cst);
                if (i % 64 == 0) {
                    std::this_thread::yield();  // widen the window a broken lock would lose updates in
                }
                counter = seen + 1;
                KeReleaseSpinLock(&lock, old);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 20000);
}

TEST(SpinLock, MisuseIsReported)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    ntsim::verifier::BugCheckCapture capture;

    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KIRQL again = KeAcquireSpinLockRaiseToDpc(&lock);  // would spin for ever
    EXPECT_TRUE(capture.Consume(rules::kSpinLockAlreadyOwned));
    EXPECT_EQ(again, DISPATCH_LEVEL);

    std::thread other([&] {
        KIRQL level;
        KeRaiseIrql(DISPATCH_LEVEL, &level);
        KeReleaseSpinLockFromDpcLevel(&lock);
        KeLowerIrql(level);
    });
    other.join();
    EXPECT_TRUE(capture.Consume(rules::kSpinLockNotOwned));
    EXPECT_FALSE(KeTestSpinLock(&lock));  // still ours
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(capture.Count(), 0u);

    // Releasing a free lock, and the routines that need DISPATCH_LEVEL called at PASSIVE_LEVEL.
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeReleaseSpinLock(&lock, old);
    EXPECT_TRUE(capture.Consume(rules::kSpinLockNotOwned));
    KeLowerIrql(old);
    KeAcquireSpinLockAtDpcLevel(&lock);
    EXPECT_TRUE(capture.Consume(rules::kSpinLockWrongIrql));
    KeReleaseSpinLockFromDpcLevel(&lock);
    EXPECT_TRUE(capture.Consume(rules::kSpinLockWrongIrql));
    EXPECT_TRUE(KeTestSpinLock(&lock));

    // Released at a level other than DISPATCH_LEVEL.
    KeAcquireSpinLock(&lock, &old);
    KeLowerIrql(APC_LEVEL);
    KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
    EXPECT_TRUE(capture.Consume(rules::kSpinLockWrongIrql));
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(capture.Count(), 0u);
}

}  // namespace

TEST(Interlocked, CompareExchangeSwapsOnlyOnAMatchAndClaimsAFlagForOneThreadAtATime)
{
    volatile LONG value = 0;
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 5), 0);
    EXPECT_EQ(value, 0) << "no match, no change";
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 0), 0);
    EXPECT_EQ(InterlockedExchange(&value, 7), 1);
    EXPECT_EQ(value, 7);

    volatile LONG flag = 0;
    long owners = 0;  // changed only by the flag's owner
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int round = 0; round < 2000;) {
                if (InterlockedCompareExchange(&flag, 1, 0) == 0) {
                    owners++, round++;
                    InterlockedExchange(&flag, 0);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(owners, 8000);
}
