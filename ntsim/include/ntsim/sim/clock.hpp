// The virtual clock: the system time of ntsim and the time base of every timeout.
//
// Time only moves when a test (or the simulator's driver) calls Advance. It starts at kStart,
// 2024-01-01 00:00:00 UTC, in 100 ns units since 1601-01-01 UTC (the unit of KeQuerySystemTime and
// of SharedUserData->SystemTime, which stays in step with it).
//
// A component that waits with a timeout waits through WaitUntil: the waiter sleeps on its own
// condition variable and wakes when it is notified and ready, or when the clock reaches its
// deadline. Advance wakes every waiter whose deadline it passes and returns only after each of them
// has left its wait, so that after Advance the waiters that timed out are gone and the others are
// still waiting, with no race left to the test.
#pragma once

#include <ntsim/ntdef.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>

namespace ntsim::clock {

inline constexpr LONGLONG kMillisecond = 10'000;
inline constexpr LONGLONG kSecond = 1000 * kMillisecond;
inline constexpr LONGLONG kMinute = 60 * kSecond;
inline constexpr LONGLONG kHour = 60 * kMinute;
inline constexpr LONGLONG kDay = 24 * kHour;
// 2024-01-01 00:00:00 UTC: 154,497 days after 1601-01-01.
inline constexpr LONGLONG kStart = 154'497LL * kDay;
static_assert(kStart == 133'485'408'000'000'000LL);
// A deadline that never comes.
inline constexpr LONGLONG kNever = MAXLONGLONG;

// The current system time.
LONGLONG Now();
// Moves the clock forward by units (>= 0), wakes every waiter whose deadline is passed and returns
// once they have left their waits. Must not be called while holding the mutex of any waiter.
void Advance(LONGLONG units);
// Moves the clock to time, if it is later than now; as Advance.
void AdvanceTo(LONGLONG time);
// The earliest deadline of a waiting thread, if any: a driver of the simulation advances to it.
std::optional<LONGLONG> NextDeadline();

// The deadline of a wait with an NT timeout: null waits for ever (kNever); negative is relative to
// now; positive is absolute; zero is now (the wait only tests its condition).
LONGLONG DeadlineFromTimeout(const LARGE_INTEGER* timeout);

// Waits on cv, with lock (on the waiter's mutex) held on entry and on return, until ready() is true
// (returns true) or the clock reaches deadline (returns ready()'s last verdict, false). ready() runs
// with lock held; a wait that consumes what it waited for (an auto-reset event) consumes it inside
// ready(). The notifier of the waiter's condition changes it under the mutex, or notifies cv after
// changing it. kNever waits without a deadline.
bool WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable_any& cv, LONGLONG deadline,
               const std::function<bool()>& ready);

// Threads now inside WaitUntil (with or without a deadline).
size_t WaiterCount();
// For tests: blocks (in real time, at most limit) until at least count threads are inside WaitUntil.
// Returns whether they are.
bool WaitForWaiters(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));

// Puts the clock back at kStart. Only when no thread is waiting; returns false (and changes
// nothing) otherwise. The test main calls it before every test.
bool Reset();

}  // namespace ntsim::clock
