// The virtual clock: its start, the system time readers, and waits that time out only when a test
// advances the clock.
#include <gtest/gtest.h>

#include <ntsim/ke.h>
#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/verifier.hpp>

#include <atomic>
#include <thread>

namespace {

using namespace ntsim::clock;
namespace rules = ntsim::verifier::rules;

// Reads SharedUserData->SystemTime as a user-mode reader does: high, low, high again.
LONGLONG ReadSharedSystemTime()
{
    for (;;) {
        LONG high1 = SharedUserData->SystemTime.High1Time;
        ULONG low = SharedUserData->SystemTime.LowPart;
        LONG high2 = SharedUserData->SystemTime.High2Time;
        if (high1 == high2) {
            return (static_cast<LONGLONG>(high1) << 32) | low;
        }
    }
}

LONGLONG QuerySystemTime()
{
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    return time.QuadPart;
}

TEST(VirtualClock, StartsAt2024AndMovesOnlyWhenAdvanced)
{
    EXPECT_EQ(Now(), kStart);
    EXPECT_EQ(QuerySystemTime(), kStart);
    EXPECT_EQ(ReadSharedSystemTime(), kStart);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(QuerySystemTime(), kStart);

    // Past 2^32 units in one step, so that both halves of the shared time change.
    Advance(kHour + 7);
    EXPECT_EQ(QuerySystemTime(), kStart + kHour + 7);
    EXPECT_EQ(ReadSharedSystemTime(), kStart + kHour + 7);
    LARGE_INTEGER precise;
    KeQuerySystemTimePrecise(&precise);
    EXPECT_EQ(precise.QuadPart, kStart + kHour + 7);

    AdvanceTo(kStart);  // never backwards
    EXPECT_EQ(Now(), kStart + kHour + 7);
}

TEST(VirtualClock, TimeoutsAreRelativeWhenNegativeAndAbsoluteWhenPositive)
{
    Advance(5 * kSecond);
    LARGE_INTEGER relative{.QuadPart = -2 * kSecond};
    LARGE_INTEGER absolute{.QuadPart = kStart + kMinute};
    LARGE_INTEGER zero{.QuadPart = 0};
    EXPECT_EQ(DeadlineFromTimeout(&relative), kStart + 7 * kSecond);
    EXPECT_EQ(DeadlineFromTimeout(&absolute), kStart + kMinute);
    EXPECT_EQ(DeadlineFromTimeout(&zero), Now());
    EXPECT_EQ(DeadlineFromTimeout(nullptr), kNever);
}

TEST(EventWait, ThirtyMinuteTimeoutWakesWhenTheClockPassesItAndNotBefore)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::atomic<NTSTATUS> result{STATUS_PENDING};
    std::thread waiter([&] {
        LARGE_INTEGER timeout{.QuadPart = -30 * kMinute};
        result = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
    });
    ASSERT_TRUE(WaitForWaiters(1));
    EXPECT_EQ(NextDeadline(), kStart + 30 * kMinute);

    Advance(30 * kMinute - 1);
    EXPECT_EQ(WaiterCount(), 1u);  // Advance returns after due waiters left: this one is not due
    EXPECT_EQ(result.load(), STATUS_PENDING);

    Advance(1);
    EXPECT_EQ(WaiterCount(), 0u);
    waiter.join();
    EXPECT_EQ(result.load(), STATUS_TIMEOUT);
}

TEST(EventWait, ASignalBeforeTheDeadlineEndsTheWaitWithSuccess)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    NTSTATUS result = STATUS_PENDING;
    std::thread waiter([&] {
        LARGE_INTEGER timeout{.QuadPart = kStart + kHour};
        result = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
    });
    ASSERT_TRUE(WaitForWaiters(1));
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
    waiter.join();
    EXPECT_EQ(result, STATUS_SUCCESS);
    EXPECT_EQ(Now(), kStart);
    EXPECT_EQ(KeReadStateEvent(&event), 1);  // a notification event stays signalled
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
}

TEST(EventWait, ASynchronizationEventReleasesOneWaiterPerSignal)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    std::atomic<int> released{0};
    auto wait = [&] {
        if (KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr) == STATUS_SUCCESS) {
            released += 1;
        }
    };
    std::thread first(wait);
    std::thread second(wait);
    ASSERT_TRUE(WaitForWaiters(2));
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    // One waiter takes the signal and resets the event; the other keeps waiting.
    ASSERT_TRUE(std::invoke([&] {
        for (int i = 0; i < 10000 && WaiterCount() != 1; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return WaiterCount() == 1;
    }));
    EXPECT_EQ(released.load(), 1);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    first.join();
    second.join();
    EXPECT_EQ(released.load(), 2);
}

TEST(EventWait, AZeroTimeoutOnlyTestsTheStateAndIsAllowedAtDispatchLevel)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    LARGE_INTEGER zero{.QuadPart = 0};
    ntsim::verifier::BugCheckCapture capture;
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(capture.Count(), 0u);

    // A wait that could block is wrong here: reported, and it only tests the state.
    LARGE_INTEGER second{.QuadPart = -kSecond};
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &second), STATUS_TIMEOUT);
    EXPECT_TRUE(capture.Consume(rules::kWaitAtDispatch));
    KeLowerIrql(old);
}

TEST(DelayExecution, SleepsUntilTheClockPassesTheInterval)
{
    std::atomic<bool> done{false};
    std::thread sleeper([&] {
        LARGE_INTEGER interval{.QuadPart = -10 * kSecond};
        EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
        done = true;
    });
    ASSERT_TRUE(WaitForWaiters(1));
    Advance(9 * kSecond);
    EXPECT_EQ(WaiterCount(), 1u);
    EXPECT_FALSE(done);
    Advance(kSecond);
    sleeper.join();
    EXPECT_TRUE(done);
}

TEST(GenericWait, WakesOnItsOwnConditionOrItsDeadlineAndResetWaitsForNoOne)
{
    std::mutex mutex;
    std::condition_variable_any cv;
    bool replied = false;
    bool answer = false;
    std::thread waiter([&] {
        std::unique_lock lock(mutex);
        answer = WaitUntil(lock, cv, Now() + kMinute, [&] { return replied; });
    });
    ASSERT_TRUE(WaitForWaiters(1));
    EXPECT_FALSE(Reset());  // not while a thread waits
    {
        std::lock_guard guard(mutex);
        replied = true;
    }
    cv.notify_all();
    waiter.join();
    EXPECT_TRUE(answer);
    EXPECT_EQ(Now(), kStart);

    // Two deadlines: the driver of a simulation finds the earlier one and advances to it.
    replied = false;
    std::atomic<int> timedOut{0};
    auto waitFor = [&](LONGLONG units) {
        std::unique_lock lock(mutex);
        if (!WaitUntil(lock, cv, Now() + units, [&] { return replied; })) {
            timedOut += 1;
        }
    };
    std::thread shortWait(waitFor, kSecond);
    std::thread longWait(waitFor, kHour);
    ASSERT_TRUE(WaitForWaiters(2));
    ASSERT_EQ(NextDeadline(), kStart + kSecond);
    AdvanceTo(*NextDeadline());
    shortWait.join();
    EXPECT_EQ(timedOut.load(), 1);
    EXPECT_EQ(WaiterCount(), 1u);
    ASSERT_EQ(NextDeadline(), kStart + kHour);
    AdvanceTo(*NextDeadline());
    longWait.join();
    EXPECT_EQ(timedOut.load(), 2);
    EXPECT_TRUE(Reset());
    EXPECT_EQ(Now(), kStart);
}

}  // namespace
