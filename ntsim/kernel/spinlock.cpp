// Spin locks. The KSPIN_LOCK word holds the id of the owning thread (0 when free), so that a
// release by another thread and a second acquire by the owner are caught. A waiter spins and
// yields: a simulated DISPATCH_LEVEL does not keep the owner on its processor.
#include <ntsim/ke.h>
#include <ntsim/sim/verifier.hpp>

#include "lockorder.hpp"
#include "thread_state.hpp"

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

using namespace ntsim;

namespace {

constexpr std::string_view kSpinLockKind = "spin lock";

std::string Describe(const char* routine, PKSPIN_LOCK lock)
{
    char text[96];
    snprintf(text, sizeof text, "%s(%p)", routine, static_cast<void*>(lock));
    return text;
}

// Acquires for the calling thread, already at DISPATCH_LEVEL or above. False when the thread
// already owns the lock (reported).
bool Acquire(PKSPIN_LOCK lock, const char* routine, const void* caller)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    std::atomic_ref<ULONG_PTR> word(*lock);
    if (word.load() == thread.id) {
        verifier::BugCheck(verifier::rules::kSpinLockAlreadyOwned,
                           Describe(routine, lock) + " by thread " + std::to_string(thread.id) + ", which owns it");
        return false;
    }
    kernel::CheckLockOrder(lock, kSpinLockKind, caller);
    for (;;) {
        ULONG_PTR expected = 0;
        if (word.compare_exchange_weak(expected, thread.id, std::memory_order_acquire)) {
            break;
        }
        std::this_thread::yield();
    }
    kernel::PushHeldLock(lock, kSpinLockKind);
    return true;
}

// Releases for the calling thread. False when the thread does not own the lock (reported).
bool Release(PKSPIN_LOCK lock, const char* routine)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    std::atomic_ref<ULONG_PTR> word(*lock);
    ULONG_PTR owner = word.load();
    if (owner != thread.id) {
        verifier::BugCheck(verifier::rules::kSpinLockNotOwned,
                           Describe(routine, lock) + " by thread " + std::to_string(thread.id) + "; " +
                               (owner == 0 ? std::string("the lock is free")
                                           : "owned by thread " + std::to_string(owner)));
        return false;
    }
    kernel::PopHeldLock(lock);
    word.store(0, std::memory_order_release);
    return true;
}

}  // namespace

extern "C" VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    *SpinLock = 0;
    verifier::ForgetLocks(SpinLock, sizeof *SpinLock);
}

extern "C" KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    KIRQL old = thread.irql;
    if (old > DISPATCH_LEVEL) {
        verifier::BugCheck(verifier::rules::kSpinLockWrongIrql,
                           Describe("KeAcquireSpinLock", SpinLock) + " at IRQL " + std::to_string(old));
        return old;
    }
    thread.irql = DISPATCH_LEVEL;
    Acquire(SpinLock, "KeAcquireSpinLock", __builtin_return_address(0));
    return old;
}

extern "C" VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    if (thread.irql != DISPATCH_LEVEL) {
        verifier::BugCheck(verifier::rules::kSpinLockWrongIrql,
                           Describe("KeReleaseSpinLock", SpinLock) + " at IRQL " + std::to_string(thread.irql) +
                               "; it is released at DISPATCH_LEVEL");
    }
    if (!Release(SpinLock, "KeReleaseSpinLock")) {
        return;
    }
    if (NewIrql > thread.irql) {
        verifier::BugCheck(verifier::rules::kIrqlNotLessOrEqual,
                           Describe("KeReleaseSpinLock", SpinLock) + " to IRQL " + std::to_string(NewIrql) +
                               " from IRQL " + std::to_string(thread.irql));
        return;
    }
    thread.irql = NewIrql;
}

extern "C" VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    KIRQL irql = kernel::CurrentThread().irql;
    if (irql < DISPATCH_LEVEL) {
        verifier::BugCheck(verifier::rules::kSpinLockWrongIrql,
                           Describe("KeAcquireSpinLockAtDpcLevel", SpinLock) + " at IRQL " + std::to_string(irql));
    }
    Acquire(SpinLock, "KeAcquireSpinLockAtDpcLevel", __builtin_return_address(0));
}

extern "C" VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    KIRQL irql = kernel::CurrentThread().irql;
    if (irql < DISPATCH_LEVEL) {
        verifier::BugCheck(verifier::rules::kSpinLockWrongIrql,
                           Describe("KeReleaseSpinLockFromDpcLevel", SpinLock) + " at IRQL " + std::to_string(irql));
    }
    Release(SpinLock, "KeReleaseSpinLockFromDpcLevel");
}

extern "C" BOOLEAN NTAPI KeTestSpinLock(PKSPIN_LOCK SpinLock)
{
    return std::atomic_ref<ULONG_PTR>(*SpinLock).load() == 0 ? TRUE : FALSE;
}
