// The kernel's core services for drivers: IRQL, spin locks, critical regions, dispatcher events and
// waits, and the system time, under the WDK's names and signatures.
//
// On ntsim the IRQL and the critical-region depth belong to the calling OS thread; raising the IRQL
// does not stop the scheduler, but the verifier holds every caller to the rules of the level it
// claims (no waits and no paged pool above APC_LEVEL, spin locks released at DISPATCH_LEVEL, ...).
// Time is virtual: KeQuerySystemTime, SharedUserData->SystemTime and every wait timeout read the
// clock that tests advance (ntsim/sim/clock.hpp).
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

extern "C" {

// ---- IRQL ----
NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(VOID);
// Raises the IRQL to NewIrql and returns the previous one. Lowering through it is a bugcheck.
NTKERNELAPI KIRQL NTAPI KfRaiseIrql(KIRQL NewIrql);
#define KeRaiseIrql(NewIrql, OldIrql) (*(OldIrql) = KfRaiseIrql(NewIrql))
NTKERNELAPI KIRQL NTAPI KeRaiseIrqlToDpcLevel(VOID);
// Lowers the IRQL to NewIrql. Raising through it is a bugcheck.
NTKERNELAPI VOID NTAPI KeLowerIrql(KIRQL NewIrql);

// Support routine of PAGED_CODE(): bugchecks when the caller runs above APC_LEVEL.
NTKERNELAPI VOID NTAPI NtsimCheckPagedCode(PCSTR Function);
#define PAGED_CODE() NtsimCheckPagedCode(__func__)
#define PAGED_CODE_LOCKED() ((void)0)

// ---- interlocked operations (compiler intrinsics on Windows; full barriers) ----
// Sets *Destination to Exchange when it equals Comparand; the value it had before, either way.
inline LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand)
{
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
// Sets *Target to Value; the value it had before.
inline LONG InterlockedExchange(LONG volatile* Target, LONG Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

// ---- spin locks ----
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
// Raises to DISPATCH_LEVEL, acquires, returns the previous IRQL. Caller at or below DISPATCH_LEVEL.
NTKERNELAPI KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))
// Releases and lowers the IRQL to NewIrql (the value the acquire returned). Caller at DISPATCH_LEVEL.
NTKERNELAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
// Acquire and release without an IRQL change. Caller at DISPATCH_LEVEL.
NTKERNELAPI VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI BOOLEAN NTAPI KeTestSpinLock(PKSPIN_LOCK SpinLock);

// ---- critical regions (normal kernel APCs disabled) ----
NTKERNELAPI VOID NTAPI KeEnterCriticalRegion(VOID);
NTKERNELAPI VOID NTAPI KeLeaveCriticalRegion(VOID);
NTKERNELAPI BOOLEAN NTAPI KeAreApcsDisabled(VOID);

// ---- dispatcher objects and waits ----
typedef enum _EVENT_TYPE { NotificationEvent = 0, SynchronizationEvent = 1 } EVENT_TYPE;

typedef enum _KWAIT_REASON {
    Executive = 0,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
    WrFreePage,
    WrPageIn,
    WrPoolAllocation,
    WrDelayExecution,
    WrSuspended,
    WrUserRequest,
    MaximumWaitReason = 37
} KWAIT_REASON;

// Dispatcher object types kept in DISPATCHER_HEADER::Type.
#define EventNotificationObject 0
#define EventSynchronizationObject 1

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Signalling;
    UCHAR Size;
    UCHAR Reserved1;
    volatile LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;
static_assert(sizeof(DISPATCHER_HEADER) == 24);

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

#define IO_NO_INCREMENT 0

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
// Signals the event and returns its previous state. A synchronization event releases one waiter.
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);

// Waits for a dispatcher object. Timeout: null waits for ever; negative is relative, positive is
// absolute system time, both in 100 ns units on the virtual clock; zero tests the state. Returns
// STATUS_SUCCESS (STATUS_WAIT_0) or STATUS_TIMEOUT. A wait that can block needs IRQL <= APC_LEVEL;
// a zero timeout is allowed at DISPATCH_LEVEL.
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                                 KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                 PLARGE_INTEGER Timeout);
// Sleeps for Interval on the virtual clock (negative relative, positive absolute). Returns
// STATUS_SUCCESS once the clock has passed it.
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                  PLARGE_INTEGER Interval);

// ---- system time ----
// 100 ns units since 1601-01-01 UTC, from the virtual clock.
NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
NTKERNELAPI VOID NTAPI KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime);

// A 64-bit time that a writer updates in the order High2Time, LowPart, High1Time, so that a reader
// that reads High1Time, LowPart, High2Time and finds both high parts equal has a consistent value.
typedef struct _KSYSTEM_TIME {
    ULONG LowPart;
    LONG High1Time;
    LONG High2Time;
} KSYSTEM_TIME, *PKSYSTEM_TIME;
static_assert(sizeof(KSYSTEM_TIME) == 12);

// The page the kernel shares with every process: only its first fields, at their published offsets.
typedef struct _KUSER_SHARED_DATA {
    ULONG TickCountLowDeprecated;            // 0x00
    ULONG TickCountMultiplier;               // 0x04
    volatile KSYSTEM_TIME InterruptTime;     // 0x08: time since the clock started
    volatile KSYSTEM_TIME SystemTime;        // 0x14: the virtual clock
    volatile KSYSTEM_TIME TimeZoneBias;      // 0x20: always 0 (UTC)
    USHORT ImageNumberLow;                   // 0x2C
    USHORT ImageNumberHigh;                  // 0x2E
} KUSER_SHARED_DATA, *PKUSER_SHARED_DATA;
static_assert(offsetof(KUSER_SHARED_DATA, InterruptTime) == 0x08);
static_assert(offsetof(KUSER_SHARED_DATA, SystemTime) == 0x14);
static_assert(offsetof(KUSER_SHARED_DATA, TimeZoneBias) == 0x20);

// ntsim keeps the shared page in this object; the clock keeps its SystemTime in step.
extern KUSER_SHARED_DATA NtsimUserSharedData;

}  // extern "C"

#define KI_USER_SHARED_DATA ((ULONG_PTR)&NtsimUserSharedData)
#define SharedUserData ((KUSER_SHARED_DATA*)KI_USER_SHARED_DATA)
