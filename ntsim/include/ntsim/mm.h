// Memory manager routines that drivers use: the system's exported routines that
// MmGetSystemRoutineAddress searches (ntsim/sim/system.hpp registers and hides entries), and memory
// descriptor lists.
//
// An MDL describes a buffer by its virtual address and length. MmProbeAndLockPages checks that the
// buffer is accessible in the given mode and locks its pages; the system's view of locked pages
// (MmGetSystemAddressForMdlSafe) is valid in any thread and process, at any IRQL, until the pages
// are unlocked. For a range of a simulated process's user memory that view is a second mapping of
// the same pages at another address, outside every process's user memory: ProbeForRead and
// ProbeForWrite refuse it, as Windows refuses a system address. Memory that is no process's user
// memory is already system memory, and its view is the buffer's own address.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12
#define BYTE_OFFSET(Va) ((ULONG)((ULONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~(ULONG_PTR)(PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
    ((ULONG)((BYTE_OFFSET(Va) + ((SIZE_T)(Size)) + (PAGE_SIZE - 1)) >> PAGE_SHIFT))

typedef ULONG_PTR PFN_NUMBER, *PPFN_NUMBER;

// ---- memory descriptor lists ----

// The header of an MDL; an array of Size - sizeof(MDL) bytes of page frame numbers follows it.
typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    struct _EPROCESS* Process;  // the process whose user pages are locked, or null
    PVOID MappedSystemVa;       // with MDL_MAPPED_TO_SYSTEM_VA or MDL_SOURCE_IS_NONPAGED_POOL
    PVOID StartVa;              // the page that holds the buffer's first byte
    ULONG ByteCount;
    ULONG ByteOffset;           // of the first byte within StartVa's page
} MDL, *PMDL;
static_assert(sizeof(MDL) == 48, "MDL");
static_assert(FIELD_OFFSET(MDL, Size) == 8, "MDL");
static_assert(FIELD_OFFSET(MDL, Process) == 16, "MDL");
static_assert(FIELD_OFFSET(MDL, MappedSystemVa) == 24, "MDL");
static_assert(FIELD_OFFSET(MDL, StartVa) == 32, "MDL");
static_assert(FIELD_OFFSET(MDL, ByteCount) == 40, "MDL");
static_assert(FIELD_OFFSET(MDL, ByteOffset) == 44, "MDL");

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MDL_WRITE_OPERATION 0x0080

typedef enum _LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess } LOCK_OPERATION;

typedef enum _MEMORY_CACHING_TYPE {
    MmNonCached = 0,
    MmCached = 1,
    MmWriteCombined = 2,
} MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY {
    LowPagePriority = 0,
    NormalPagePriority = 16,
    HighPagePriority = 32,
} MM_PAGE_PRIORITY;

// Flags that may be or'ed into the priority of a mapping request.
#define MdlMappingNoWrite 0x80000000
#define MdlMappingNoExecute 0x40000000

#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)

// The system's view of an MDL's buffer: the mapping made before, or a new one (null when the system
// cannot map it). The MDL's pages must be locked.
#define MmGetSystemAddressForMdlSafe(Mdl, Priority)                                          \
    (((Mdl)->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))             \
         ? ((Mdl)->MappedSystemVa)                                                           \
         : MmMapLockedPagesSpecifyCache((Mdl), KernelMode, MmCached, NULL, FALSE, (Priority)))

extern "C" {

// Checks that the MDL's buffer is accessible for Operation in AccessMode and locks its pages:
// for UserMode the buffer must be the calling process's user memory, else STATUS_ACCESS_VIOLATION is
// raised (catch it with __try/__except). Locking an MDL twice is a bug check. At or below
// APC_LEVEL (DISPATCH_LEVEL for memory that is not user memory).
NTKERNELAPI VOID MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                     LOCK_OPERATION Operation);
// Unlocks the pages (and first removes a system mapping that is left).
NTKERNELAPI VOID MmUnlockPages(PMDL MemoryDescriptorList);
// Maps locked pages into system space (AccessMode KernelMode; a BaseAddress is not supported).
// Null when the system cannot map them, unless BugCheckOnFailure. At or below DISPATCH_LEVEL.
NTKERNELAPI PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                               MEMORY_CACHING_TYPE CacheType, PVOID BaseAddress,
                                               ULONG BugCheckOnFailure, ULONG Priority);
NTKERNELAPI VOID MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);

// The address of an exported system routine by its name (case-sensitive, as on Windows), or null
// if the system does not export it. PASSIVE_LEVEL.
NTKERNELAPI PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

}  // extern "C"
