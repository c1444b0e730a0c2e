// What the filter remembers per user: one UserRecord per SID text, whose payload is the user's
// exclusion cache. Records are made on demand by the first exclusion test of a SID, live in
// g_UserList and all leave it when the configuration is cleared.
//
// A record lives by reference count, the list holding one reference. A record taken out of the list
// while a thread still works on it is orphaned: it keeps working for its holders, a new record of
// the same SID may be made beside it, and the last holder's release frees it.
//
// Locks, outermost first: g_ConfigLock, g_UserListLock (the list, every record's userListEntry and
// bRemoved, and every change of a reference count), a record's lock (its count and its cache).
// No two records' locks are held together.
#pragma once

#include <fltKernel.h>

#include "driver/globals.h"
#include "driver/ownedstring.h"
#include "exclusions.h"

typedef struct _UserRecord {
    KSPIN_LOCK lock;                  // guards refCount, the cache and its index
    ULONG refCount;                   // holders, the list being one
    KIRQL oldIrql;                    // written by whoever has just acquired lock, read when it lets go
    OwnedString* pstrSid;             // the key: a private copy of the SID text, never changed
    LIST_ENTRY exclusionCacheList;    // ExclusionCacheEntry, most recently used first
    ULONG exclusionCacheCount;        // entries in exclusionCacheList
    LIST_ENTRY userListEntry;         // in g_UserList
    UCHAR bRemoved;                   // 1 once the record has left g_UserList
    ExclusionIndex exclusionIndex;    // finds cache entries without walking the list
} UserRecord;

// Takes the record's spin lock, raising to DISPATCH_LEVEL; the old IRQL goes into oldIrql.
FORCEINLINE VOID AcquireUserRecordLock(UserRecord* pRecord)
{
    pRecord->oldIrql = KeAcquireSpinLockRaiseToDpc(&pRecord->lock);
}

// Releases the record's spin lock, back to the IRQL that its acquisition noted.
FORCEINLINE VOID ReleaseUserRecordLock(UserRecord* pRecord)
{
    KeReleaseSpinLock(&pRecord->lock, pRecord->oldIrql);
}

// The record of this SID (compared without regard to case), made when there is none, with one more
// reference for the caller, who gives it back with ReleaseUserRecord. Null for a null SID, or when a
// new record or its SID copy can't be allocated: nothing is then left in the list, and the caller
// goes on without a cache. IRQL: PASSIVE_LEVEL.
UserRecord* FindUserRecord(PCUNICODE_STRING pSid);

// Gives one reference back. With bForce 1 the record also leaves the list, whoever still holds it.
// The last reference frees the record and its cache. A null record is allowed.
// IRQL: PASSIVE_LEVEL; not under a record's lock.
VOID ReleaseUserRecord(UserRecord* pRecord, UCHAR bForce);

// Takes every record out of the list: idle ones are freed, ones in use are orphaned. All verdicts
// are forgotten. Nothing to do without g_UserListLock (a start that failed before making it).
// IRQL: PASSIVE_LEVEL; the caller may hold g_ConfigLock.
VOID ClearUserRecords();

// Unload, after ClearUserRecords: deletes g_UserListLock and frees it. A failing delete returns its
// status and frees nothing. STATUS_SUCCESS when there is no lock. IRQL: PASSIVE_LEVEL.
NTSTATUS DeleteUserListLock();
