// User records: finding, making, releasing and clearing them.
#include "user.h"

#include "driver/locks.h"
#include "trace.h"

static bool HasText(PCUNICODE_STRING pString)
{
    return pString != nullptr && pString->Buffer != nullptr;
}

// A new record of this SID with the list's reference, in no list; null when out of memory.
static UserRecord* CreateUserRecord(PCUNICODE_STRING pSid)
{
    if (HasText(pSid)) {
        TRACE_INFO("Adding user record for [%wZ]", pSid);
    }
    UserRecord* pRecord = (UserRecord*)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(UserRecord));
    if (pRecord == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(pRecord, sizeof(UserRecord));
    // A record without its key would stop every later walk of the list: it is never made.
    pRecord->pstrSid = CopyUnicodeString(pSid);
    if (pRecord->pstrSid == nullptr) {
        FreeBuffer(pRecord);
        return nullptr;
    }
    KeInitializeSpinLock(&pRecord->lock);
    pRecord->refCount = 1;
    InitializeExclusionCache(pRecord);
    pRecord->bRemoved = 0;
    return pRecord;
}

// Makes a record for this SID and links it in at the tail. The caller holds g_UserListLock.
static UserRecord* AddToUserList(PCUNICODE_STRING pSid)
{
    if (HasText(pSid)) {
        TRACE_INFO("Adding [%wZ] to user list", pSid);
    }
    UserRecord* pRecord = CreateUserRecord(pSid);
    if (pRecord != nullptr) {
        InsertTailList(&g_UserList, &pRecord->userListEntry);
    }
    return pRecord;
}

UserRecord* FindUserRecord(PCUNICODE_STRING pSid)
{
    UserRecord* pRecord = nullptr;
    if (pSid == nullptr) {
        return nullptr;
    }

    AcquireLockExclusive(g_UserListLock);
    for (PLIST_ENTRY pLink = g_UserList.Flink; pLink != &g_UserList; pLink = pLink->Flink) {
        UserRecord* pCandidate = CONTAINING_RECORD(pLink, UserRecord, userListEntry);
        if (pCandidate->pstrSid->Length == pSid->Length && RtlEqualUnicodeString(pCandidate->pstrSid, pSid, TRUE)) {
            pRecord = pCandidate;
            break;
        }
    }
    if (pRecord != nullptr) {
        if (HasText(pRecord->pstrSid) && HasText(pSid)) {
            TRACE_INFO("Matched [%wZ] for [%wZ]", pRecord->pstrSid, pSid);
        }
    } else {
        if (HasText(pSid)) {
            TRACE_INFO("[%wZ] not found. Creating new record", pSid);
        }
        pRecord = AddToUserList(pSid);
    }
    if (pRecord != nullptr) {
        AcquireUserRecordLock(pRecord);
        pRecord->refCount++;
        ReleaseUserRecordLock(pRecord);
    }
    ReleaseLock(g_UserListLock);
    return pRecord;
}

VOID ReleaseUserRecord(UserRecord* pRecord, UCHAR bForce)
{
    if (pRecord == nullptr) {
        return;
    }

    AcquireLockExclusive(g_UserListLock);
    AcquireUserRecordLock(pRecord);
    pRecord->refCount--;
    if (!bForce && pRecord->refCount != 0) {
        ReleaseUserRecordLock(pRecord);
        goto Exit;
    }
    if (!pRecord->bRemoved) {
        RemoveEntryList(&pRecord->userListEntry);
        pRecord->bRemoved = 1;
    }
    if (pRecord->refCount != 0) {
        // Orphaned: the last holder's release frees it.
        ReleaseUserRecordLock(pRecord);
        goto Exit;
    }
    DeleteExclusionCacheEntries(pRecord);
    ReleaseUserRecordLock(pRecord);
    FreeUnicodeString(&pRecord->pstrSid);
    FreeBuffer(pRecord);

Exit:
    ReleaseLock(g_UserListLock);
}

VOID ClearUserRecords()
{
    // A start that failed before the lock was made has no records.
    if (g_UserListLock == nullptr) {
        return;
    }
    AcquireLockExclusive(g_UserListLock);
    PLIST_ENTRY pLink = g_UserList.Flink;
    while (pLink != &g_UserList) {
        PLIST_ENTRY pNextLink = pLink->Flink;
        ReleaseUserRecord(CONTAINING_RECORD(pLink, UserRecord, userListEntry), 1);
        pLink = pNextLink;
    }
    ReleaseLock(g_UserListLock);
}

NTSTATUS DeleteUserListLock()
{
    return DeleteDriverLock(&g_UserListLock);
}
