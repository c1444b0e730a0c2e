// The filter's locks: six ERESOURCEs, always taken exclusively inside a critical region.
//
// Order where they nest: g_ConfigLock, g_UserListLock, then g_DirtyBlockLock; g_ContextLock may
// come before g_DirtyBlockLock at unload; g_TraceLock is innermost, since every trace takes it.
#pragma once

#include <fltKernel.h>

extern PERESOURCE g_ConfigLock;
extern PERESOURCE g_ContextLock;
extern PERESOURCE g_DirtyBlockLock;
extern PERESOURCE g_MupLock;
extern PERESOURCE g_UserListLock;
extern PERESOURCE g_TraceLock;

// Deletes the lock *ppLock (ExDeleteResourceLite), frees it and sets *ppLock to null. A delete that
// fails returns its status and leaves the lock allocated; STATUS_SUCCESS when there is no lock (a
// start that failed before making it). IRQL: PASSIVE_LEVEL; at unload, with no callback left.
NTSTATUS DeleteDriverLock(PERESOURCE* ppLock);

// Enters a critical region and takes pLock exclusively, waiting. IRQL: <= APC_LEVEL.
FORCEINLINE VOID AcquireLockExclusive(PERESOURCE pLock)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(pLock, TRUE);
}

// Releases pLock and leaves the critical region that AcquireLockExclusive entered.
FORCEINLINE VOID ReleaseLock(PERESOURCE pLock)
{
    ExReleaseResourceLite(pLock);
    KeLeaveCriticalRegion();
}
