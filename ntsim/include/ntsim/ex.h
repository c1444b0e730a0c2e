// The executive's support routines for drivers: pool memory and ERESOURCE locks, under the WDK's
// names and signatures.
//
// Pool: every block is accounted by tag and pool type and carries its allocation call site, so that
// a leak names where it came from (ntsim/sim/pool.hpp). The verifier checks every free (an unknown
// or already freed pointer, a tag that doesn't match) and the IRQL of paged pool use.
//
// ERESOURCE: a reader/writer lock, recursive for its exclusive owner, which must be taken with
// normal kernel APCs disabled (inside KeEnterCriticalRegion) and released by the thread that holds it.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include "ke.h"

extern "C" {

// ---- pool ----
// Returns a block of NumberOfBytes from PoolType under Tag, or null when the pool (or the fault
// injector) refuses. Paged pool needs IRQL <= APC_LEVEL, non-paged pool IRQL <= DISPATCH_LEVEL.
NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
// Frees a block. Tag 0 frees without checking the tag; any other value must be the block's tag.
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

}  // extern "C"

// The tag of allocations made without one: the bytes "None" in memory.
#define NTSIM_UNTAGGED_POOL_TAG ((ULONG)0x656E6F4E)

FORCEINLINE PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes)
{
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, NTSIM_UNTAGGED_POOL_TAG);
}

// As ExAllocatePoolWithTag, with the block zeroed.
FORCEINLINE PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    PVOID p = ExAllocatePoolWithTag(PoolType, NumberOfBytes, Tag);
    if (p != nullptr) {
        __builtin_memset(p, 0, NumberOfBytes);
    }
    return p;
}

FORCEINLINE VOID ExFreePool(PVOID P)
{
    ExFreePoolWithTag(P, 0);
}

// ---- ERESOURCE ----
// The lock's state lives behind Reserved, made by ExInitializeResourceLite and released by
// ExDeleteResourceLite; drivers touch none of these fields.
typedef struct _ERESOURCE {
    ULONG Signature;
    ULONG Reserved0;
    PVOID Reserved1;
    ULONGLONG Reserved2[11];
} ERESOURCE, *PERESOURCE;
static_assert(sizeof(ERESOURCE) == 104);

extern "C" {

NTKERNELAPI NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource);
// Fails (and bugchecks) while any thread holds the resource.
NTKERNELAPI NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource);
// Acquires for exclusive access; recursive for the owner. With Wait FALSE returns FALSE instead of
// blocking. Caller at IRQL <= APC_LEVEL with normal kernel APCs disabled.
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
// Acquires for shared access; granted at once to the exclusive owner.
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
// Releases one acquisition made by the calling thread.
NTKERNELAPI VOID NTAPI ExReleaseResourceLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
// The number of times the calling thread holds the resource (shared or exclusive).
NTKERNELAPI ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource);
NTKERNELAPI ULONG NTAPI ExGetSharedWaiterCount(PERESOURCE Resource);
NTKERNELAPI ULONG NTAPI ExGetExclusiveWaiterCount(PERESOURCE Resource);

// KeEnterCriticalRegion and an exclusive, waiting acquire; and the reverse.
NTKERNELAPI PVOID NTAPI ExEnterCriticalRegionAndAcquireResourceExclusive(PERESOURCE Resource);
NTKERNELAPI VOID NTAPI ExReleaseResourceAndLeaveCriticalRegion(PERESOURCE Resource);

}  // extern "C"
