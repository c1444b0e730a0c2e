// The verifier: ntsim's Driver Verifier, always on.
//
// Platform routines check their callers against the kernel's rules and report a violation through
// BugCheck, which prints the rule, the detail and the stack of the call site and aborts the program.
// A test that wants to see a rule fire opens a BugCheckCapture: while one is open (in any thread),
// bugchecks are recorded in it instead, and the routine that reported carries on as sanely as it can.
//
// Locks: every lock that the platform provides (ERESOURCE, spin lock) and any lock that another ntsim
// component wants checked is reported through NoteLockAcquired/NoteLockReleased. The verifier keeps
// the locks that each thread holds and, over the life of the process, every order in which two locks
// were ever taken nested; a new nesting that closes a cycle is a lock-order inversion, reported with
// both locks and the stack at which the opposite order was first seen. A lock's history is forgotten
// when it is initialized again, deleted, or its pool block is freed.
#pragma once

#include <ntsim/ntdef.h>
#include <ntsim/ntstatus.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim::verifier {

// The rules, as they appear in bugcheck reports.
namespace rules {
inline constexpr std::string_view kPoolLeak = "POOL_LEAK";
inline constexpr std::string_view kPoolDoubleFree = "POOL_DOUBLE_FREE";
inline constexpr std::string_view kPoolFreeUnknown = "POOL_FREE_OF_UNKNOWN_POINTER";
inline constexpr std::string_view kPoolWrongTag = "POOL_FREE_WITH_WRONG_TAG";
inline constexpr std::string_view kPoolBadType = "POOL_BAD_TYPE";
inline constexpr std::string_view kPoolZeroSize = "POOL_ZERO_SIZE";
inline constexpr std::string_view kPagedPoolAtDispatch = "PAGED_POOL_ABOVE_APC_LEVEL";
inline constexpr std::string_view kPoolFreeWithLiveResource = "POOL_FREE_WITH_LIVE_RESOURCE";
inline constexpr std::string_view kPagedCode = "PAGED_CODE_ABOVE_APC_LEVEL";
inline constexpr std::string_view kIrqlTooHigh = "IRQL_TOO_HIGH";
inline constexpr std::string_view kIrqlNotGreaterOrEqual = "IRQL_NOT_GREATER_OR_EQUAL";
inline constexpr std::string_view kIrqlNotLessOrEqual = "IRQL_NOT_LESS_OR_EQUAL";
inline constexpr std::string_view kIrqlLeftRaised = "IRQL_LEFT_RAISED";
inline constexpr std::string_view kWaitAtDispatch = "WAIT_ABOVE_APC_LEVEL";
inline constexpr std::string_view kCriticalRegionUnderflow = "CRITICAL_REGION_UNDERFLOW";
inline constexpr std::string_view kCriticalRegionLeftOpen = "CRITICAL_REGION_LEFT_OPEN";
inline constexpr std::string_view kResourceNotInitialized = "RESOURCE_NOT_INITIALIZED";
inline constexpr std::string_view kResourceOutsideCriticalRegion = "RESOURCE_OUTSIDE_CRITICAL_REGION";
inline constexpr std::string_view kResourceReleasedByNonOwner = "RESOURCE_RELEASED_BY_NON_OWNER";
inline constexpr std::string_view kResourceDeletedWhileHeld = "RESOURCE_DELETED_WHILE_HELD";
inline constexpr std::string_view kResourceSharedToExclusive = "RESOURCE_SHARED_TO_EXCLUSIVE";
inline constexpr std::string_view kSpinLockAlreadyOwned = "SPIN_LOCK_ALREADY_OWNED";
inline constexpr std::string_view kSpinLockNotOwned = "SPIN_LOCK_NOT_OWNED";
inline constexpr std::string_view kSpinLockWrongIrql = "SPIN_LOCK_WRONG_IRQL";
inline constexpr std::string_view kLockOrderInversion = "LOCK_ORDER_INVERSION";
inline constexpr std::string_view kLockNotHeld = "LOCK_RELEASED_NOT_HELD";
inline constexpr std::string_view kLockHeldDuringWait = "LOCK_HELD_DURING_SERVICE_WAIT";
inline constexpr std::string_view kLockHeldOnReturn = "LOCK_HELD_ON_RETURN";
inline constexpr std::string_view kThreadExitedHoldingState = "THREAD_EXITED_WITH_KERNEL_STATE";
inline constexpr std::string_view kNotImplemented = "NOT_IMPLEMENTED";
// Memory descriptor lists: a pointer that is no live MDL of IoAllocateMdl, an MDL freed while its pages
// are locked, pages locked twice, and a mapping or unlock of pages that are not locked.
inline constexpr std::string_view kMdlBadObject = "MDL_BAD_OBJECT";
inline constexpr std::string_view kMdlFreedWithPagesLocked = "MDL_FREED_WITH_PAGES_LOCKED";
inline constexpr std::string_view kMdlPagesAlreadyLocked = "MDL_PAGES_ALREADY_LOCKED";
inline constexpr std::string_view kMdlPagesNotLocked = "MDL_PAGES_NOT_LOCKED";
}  // namespace rules

// Reports a violation of rule. Without a capture scope: prints the rule, the detail, the current
// test (SetRunContext) and the symbolized stack of the call, and aborts. With one: records and
// returns, and the caller carries on.
void BugCheck(std::string_view rule, std::string_view detail);

// Names what is running (a test's name), for bugcheck reports. Empty clears it.
void SetRunContext(std::string_view context);

struct BugCheckRecord {
    std::string rule;
    std::string detail;
};

// While alive, bugchecks of every thread are recorded here (the innermost open scope wins). Records
// a test doesn't consume before the scope closes go to TakeUnconsumed, which the test main turns into
// a failure of the test.
class BugCheckCapture {
public:
    BugCheckCapture();
    ~BugCheckCapture();
    BugCheckCapture(const BugCheckCapture&) = delete;
    BugCheckCapture& operator=(const BugCheckCapture&) = delete;

    // Removes and returns every record so far.
    std::vector<BugCheckRecord> Take();
    // Removes the first record of rule; false when there is none.
    bool Consume(std::string_view rule);
    // Removes the first record of rule and returns its detail; empty when there is none.
    std::string ConsumeDetail(std::string_view rule);
    size_t Count() const;
    std::vector<std::string> Rules() const;

private:
    friend void BugCheck(std::string_view, std::string_view);
    void Record(BugCheckRecord record);
    BugCheckCapture* outer_;
    std::vector<BugCheckRecord> records_;
};

// Records left unconsumed by capture scopes that have closed; clears the list.
std::vector<BugCheckRecord> TakeUnconsumed();

// ---- locks ----
// The calling thread has acquired lock, of kind ("ERESOURCE", "spin lock", ...: a string with static
// storage). Checks the order against every lock the thread already holds; recursion on one lock adds
// no order.
void NoteLockAcquired(const void* lock, std::string_view kind);
// The calling thread released its latest acquisition of lock; bugchecks when it holds none.
void NoteLockReleased(const void* lock);
// The order history of the locks in [address, address + size) ends: they are new locks from now on.
void ForgetLocks(const void* address, size_t size);
// A readable name for a lock in reports ("g_ConfigLock").
void NameLock(const void* lock, std::string_view name);

// Bugchecks (LOCK_HELD_DURING_SERVICE_WAIT) when the calling thread holds any lock: routine is about
// to wait for the user-mode service.
void AssertNoLocksHeld(std::string_view routine);
// Bugchecks (IRQL_TOO_HIGH) when the calling thread runs above max.
void AssertIrqlAtMost(KIRQL max, std::string_view routine);
// Reports a platform routine that ntsim does not provide, by name. Returns STATUS_NOT_IMPLEMENTED
// for the caller to return.
NTSTATUS NotImplemented(std::string_view routine);

// The calling thread's kernel state.
size_t HeldLockCount();
std::vector<std::string> HeldLockNames();
int CriticalRegionDepth();

// Checks that a callback returns with the IRQL, critical-region depth and held locks it was
// entered with (IRQL_LEFT_RAISED, CRITICAL_REGION_LEFT_OPEN, LOCK_HELD_ON_RETURN). The name must
// have static storage (a literal): the scope keeps only a view of it.
class CallbackScope {
public:
    explicit CallbackScope(std::string_view callback);
    ~CallbackScope();
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

private:
    std::string_view callback_;
    KIRQL irql_;
    int criticalRegion_;
    size_t heldLocks_;
};

// For the test main: puts the calling thread back at PASSIVE_LEVEL, outside any critical region,
// holding no lock (the locks themselves stay as they are). Returns a description of what it found,
// empty when the thread was already at rest.
std::string ResetCurrentThread();

}  // namespace ntsim::verifier
