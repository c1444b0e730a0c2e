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
