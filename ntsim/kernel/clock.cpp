// The virtual clock and its waiters. See ntsim/sim/clock.hpp for the contract.
//
// Lock order: a waiter holds its own mutex when it takes the clock's mutex (to register and to
// leave). Advance holds the clock's mutex and only try-locks a waiter's mutex, stepping back and
// retrying when it is busy, so the two orders never wait for each other.
#include <ntsim/ke.h>
#include <ntsim/sim/clock.hpp>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr ULONG LowPartOf(LONGLONG time)
{
    return static_cast<ULONG>(static_cast<ULONGLONG>(time) & 0xFFFFFFFFu);
}

constexpr LONG HighPartOf(LONGLONG time)
{
    return static_cast<LONG>(time >> 32);
}

}  // namespace

// Statically initialized, so that it reads the start time before any constructor runs.
KUSER_SHARED_DATA NtsimUserSharedData = {
    0,                                                                    // TickCountLowDeprecated
    0x0FA00000,                                                           // TickCountMultiplier
    {0, 0, 0},                                                            // InterruptTime
    {LowPartOf(ntsim::clock::kStart), HighPartOf(ntsim::clock::kStart),
     HighPartOf(ntsim::clock::kStart)},                                   // SystemTime
    {0, 0, 0},                                                            // TimeZoneBias
    0x8664,                                                               // ImageNumberLow (x64)
    0x8664,                                                               // ImageNumberHigh
};

namespace ntsim::clock {

namespace {

struct Waiter {
    std::mutex* mutex;
    std::condition_variable_any* cv;
    LONGLONG deadline;
    bool left = false;  // under the clock's mutex
};

struct ClockState {
    std::mutex mutex;
    std::condition_variable changed;  // a waiter came or left
    std::atomic<LONGLONG> now{kStart};
    std::vector<std::shared_ptr<Waiter>> waiters;
};

ClockState& State()
{
    static ClockState& state = *new ClockState;
    return state;
}

void Store(volatile KSYSTEM_TIME& target, LONGLONG time)
{
    target.High2Time = HighPartOf(time);
    std::atomic_thread_fence(std::memory_order_release);
    target.LowPart = LowPartOf(time);
    std::atomic_thread_fence(std::memory_order_release);
    target.High1Time = HighPartOf(time);
}

// Under the clock's mutex.
void Publish(LONGLONG time)
{
    Store(NtsimUserSharedData.SystemTime, time);
    Store(NtsimUserSharedData.InterruptTime, time - kStart);
}

void Notify(ClockState& state, const std::shared_ptr<Waiter>& waiter)
{
    for (;;) {
        {
            std::lock_guard guard(state.mutex);
            if (waiter->left) {
                return;
            }
            // While registered, the waiter's mutex and condition variable are alive.
            if (waiter->mutex->try_lock()) {
                waiter->cv->notify_all();
                waiter->mutex->unlock();
                return;
            }
        }
        std::this_thread::yield();
    }
}

}  // namespace

LONGLONG Now()
{
    return State().now.load();
}

void AdvanceTo(LONGLONG time)
{
    ClockState& state = State();
    std::vector<std::shared_ptr<Waiter>> due;
    {
        std::lock_guard guard(state.mutex);
        if (time <= state.now.load()) {
            return;
        }
        state.now.store(time);
        Publish(time);
        for (const auto& waiter : state.waiters) {
            if (waiter->deadline <= time) {
                due.push_back(waiter);
            }
        }
    }
    for (const auto& waiter : due) {
        Notify(state, waiter);
    }
    std::unique_lock lock(state.mutex);
    state.changed.wait(lock, [&] {
        return std::all_of(due.begin(), due.end(), [](const auto& waiter) { return waiter->left; });
    });
}

void Advance(LONGLONG units)
{
    if (units < 0) {
        fprintf(stderr, "ntsim::clock::Advance(%lld): the clock does not go back\n", static_cast<long long>(units));
        abort();
    }
    LONGLONG now = Now();
    AdvanceTo(units > kNever - now ? kNever - 1 : now + units);
}

std::optional<LONGLONG> NextDeadline()
{
    ClockState& state = State();
    std::lock_guard guard(state.mutex);
    std::optional<LONGLONG> next;
    for (const auto& waiter : state.waiters) {
        if (waiter->deadline != kNever && (!next || waiter->deadline < *next)) {
            next = waiter->deadline;
        }
    }
    return next;
}

LONGLONG DeadlineFromTimeout(const LARGE_INTEGER* timeout)
{
    if (timeout == nullptr) {
        return kNever;
    }
    LONGLONG value = timeout->QuadPart;
    if (value > 0) {
        return value;
    }
    LONGLONG now = Now();
    if (value == 0) {
        return now;
    }
    if (value == std::numeric_limits<LONGLONG>::min() || -value > kNever - now) {
        return kNever;
    }
    return now - value;
}

bool WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable_any& cv, LONGLONG deadline,
               const std::function<bool()>& ready)
{
    if (ready()) {
        return true;
    }
    if (deadline <= Now()) {
        return false;
    }
    ClockState& state = State();
    auto waiter = std::make_shared<Waiter>(Waiter{lock.mutex(), &cv, deadline});
    {
        std::lock_guard guard(state.mutex);
        state.waiters.push_back(waiter);
    }
    state.changed.notify_all();
    bool result;
    for (;;) {
        if (ready()) {
            result = true;
            break;
        }
        if (deadline <= Now()) {
            result = false;
            break;
        }
        cv.wait(lock);
    }
    {
        std::lock_guard guard(state.mutex);
        waiter->left = true;
        state.waiters.erase(std::find(state.waiters.begin(), state.waiters.end(), waiter));
    }
    state.changed.notify_all();
    return result;
}

size_t WaiterCount()
{
    ClockState& state = State();
    std::lock_guard guard(state.mutex);
    return state.waiters.size();
}

bool WaitForWaiters(size_t count, std::chrono::milliseconds limit)
{
    ClockState& state = State();
    std::unique_lock lock(state.mutex);
    return state.changed.wait_for(lock, limit, [&] { return state.waiters.size() >= count; });
}

bool Reset()
{
    ClockState& state = State();
    std::lock_guard guard(state.mutex);
    if (!state.waiters.empty()) {
        return false;
    }
    state.now.store(kStart);
    Publish(kStart);
    return true;
}

}  // namespace ntsim::clock

extern "C" VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = ntsim::clock::Now();
}

extern "C" VOID NTAPI KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = ntsim::clock::Now();
}
