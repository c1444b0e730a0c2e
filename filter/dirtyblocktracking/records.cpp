// The list of tracked files and the references on its records.
#include "dirtyblocktracking.h"

#include "driver/globals.h"
#include "driver/locks.h"
#include "driver/mergefolders.h"
#include "trace.h"

TrackedDirtyBlockFile* g_DirtyBlockFileList;

// Paths are the list's keys: lengths first, then the characters without regard to case.
static BOOLEAN IsRecordOfPath(const TrackedDirtyBlockFile* pRecord, PCUNICODE_STRING pPath)
{
    return pRecord->filePath != nullptr && pRecord->filePath->Length == pPath->Length &&
           RtlEqualUnicodeString(pRecord->filePath, pPath, TRUE);
}

NTSTATUS GetTrackedDirtyBlockRecord(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                                    TrackedDirtyBlockFile** ppRecord)
{
    TrackedDirtyBlockFile* pRecord = nullptr;
    NTSTATUS status = STATUS_SUCCESS;

    if (ppRecord == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (pPath == nullptr || pPath->Buffer == nullptr) {
        *ppRecord = nullptr;
        return STATUS_INVALID_PARAMETER;
    }

    // The load runs under the list's lock, so a load and a last write-back of one file never overlap.
    AcquireLockExclusive(g_DirtyBlockLock);
    for (TrackedDirtyBlockFile* pEntry = g_DirtyBlockFileList; pEntry != nullptr; pEntry = pEntry->next) {
        if (IsRecordOfPath(pEntry, pPath)) {
            pRecord = pEntry;
            break;
        }
    }
    if (pRecord != nullptr) {
        TRACE_INFO("Found [%wZ]", pPath);
        pRecord->refCount++;
    } else {
        TRACE_INFO("Failed to find [%wZ]. Creating new record.", pPath);
        status = CreateTrackedDirtyBlockFile(pFilter, pInstance, pPath, &pRecord);
        if (NT_SUCCESS(status)) {
            (VOID) AddToTrackedDirtyBlockFileList(pRecord);
        }
    }
    ReleaseLock(g_DirtyBlockLock);

    *ppRecord = NT_SUCCESS(status) ? pRecord : nullptr;
    return status;
}

// Writes the map of a record whose last reference went to its stream, through the filter's
// instance on the file's volume. Once the filter is unregistered (at unload) there is no handle to
// write with: the map is lost, and the next load finds no stream and starts wholly dirty.
static VOID WriteBackLastMap(TrackedDirtyBlockFile* pRecord)
{
    PFLT_INSTANCE pInstance = nullptr;

    if (g_ServiceData.FilterHandle == nullptr) {
        TRACE_ERROR("No filter to write the dirty block map of [%wZ] with", pRecord->filePath);
        return;
    }
    if (NT_SUCCESS(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, pRecord->filePath, &pInstance))) {
        (VOID) WriteDirtyBlockMap(g_ServiceData.FilterHandle, pInstance, pRecord->filePath, pRecord);
        FltObjectDereference(pInstance);
    }
}

NTSTATUS DerefTrackedDirtyBlockRecord(TrackedDirtyBlockFile* pRecord)
{
    TrackedDirtyBlockFile* pSnapshot = nullptr;
    KIRQL oldIrql;

    if (pRecord == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }

    AcquireLockExclusive(g_DirtyBlockLock);
    if (pRecord->refCount == 0) {
        TRACE_ERROR("Bad DirtyBlockRecord!");
        goto Release;
    }
    oldIrql = KeAcquireSpinLockRaiseToDpc(&pRecord->lock);
    pRecord->refCount--;
    KeReleaseSpinLock(&pRecord->lock, oldIrql);
    if (pRecord->refCount != 0) {
        goto Release;
    }

    // The last holder is gone, and the list's lock keeps any new one out, so nothing changes the
    // record any more. The copy is what the stream gets; when there is no memory for it the record
    // itself is written, which is as still.
    if (NT_SUCCESS(CopyTrackedDirtyBlockFile(pRecord, &pSnapshot))) {
        WriteBackLastMap(pSnapshot);
        DeleteTrackedDirtyBlockFile(pSnapshot);
    } else {
        WriteBackLastMap(pRecord);
    }
    (VOID) RemoveFromTrackedDirtyBlockFileList(pRecord);
    DeleteTrackedDirtyBlockFile(pRecord);

Release:
    ReleaseLock(g_DirtyBlockLock);
    return STATUS_SUCCESS;
}

VOID DeleteTrackedDirtyBlockFile(TrackedDirtyBlockFile* pRecord)
{
    if (pRecord == nullptr) {
        return;
    }
    TRACE_INFO("pTrackedDirtyBlockFile:[0x%p]", pRecord);
    FreeUnicodeString(&pRecord->filePath);
    if (pRecord->map != nullptr) {
        FreeBuffer(pRecord->map);
    }
    FreeBuffer(pRecord);
}

NTSTATUS CopyTrackedDirtyBlockFile(TrackedDirtyBlockFile* pRecord, TrackedDirtyBlockFile** ppCopy)
{
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    TrackedDirtyBlockFile* pCopy;
    KIRQL oldIrql;

    if (pRecord == nullptr || ppCopy == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    pCopy = (TrackedDirtyBlockFile*)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(TrackedDirtyBlockFile));
    if (pCopy == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pCopy, sizeof(*pCopy));
    KeInitializeSpinLock(&pCopy->lock);

    // The map may grow between any two moments outside the lock: its length is read and the copy
    // made under it.
    oldIrql = KeAcquireSpinLockRaiseToDpc(&pRecord->lock);
    if (pRecord->filePath != nullptr) {
        pCopy->filePath = CopyUnicodeString(pRecord->filePath);
        if (pCopy->filePath == nullptr) {
            goto Unlock;
        }
    }
    if (pRecord->map != nullptr) {
        pCopy->map = (PUCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, pRecord->mapLen);
        if (pCopy->map == nullptr) {
            goto Unlock;
        }
        RtlCopyMemory(pCopy->map, pRecord->map, pRecord->mapLen);
        pCopy->mapLen = pRecord->mapLen;
    }
    pCopy->dirtyBlockCount = pRecord->dirtyBlockCount;
    pCopy->bTrackingFailed = pRecord->bTrackingFailed;
    status = STATUS_SUCCESS;

Unlock:
    KeReleaseSpinLock(&pRecord->lock, oldIrql);
    if (!NT_SUCCESS(status)) {
        DeleteTrackedDirtyBlockFile(pCopy);
        return status;
    }
    *ppCopy = pCopy;
    return STATUS_SUCCESS;
}

BOOLEAN AddToTrackedDirtyBlockFileList(TrackedDirtyBlockFile* pRecord)
{
    if (pRecord == nullptr) {
        return FALSE;
    }
    TRACE_INFO("[INFO] Adding [%wZ] to tracked dirty block file list", pRecord->filePath);
    AcquireLockExclusive(g_DirtyBlockLock);
    pRecord->next = g_DirtyBlockFileList;
    g_DirtyBlockFileList = pRecord;
    ReleaseLock(g_DirtyBlockLock);
    return TRUE;
}

BOOLEAN RemoveFromTrackedDirtyBlockFileList(TrackedDirtyBlockFile* pRecord)
{
    if (pRecord == nullptr) {
        return FALSE;
    }
    AcquireLockExclusive(g_DirtyBlockLock);
    if (g_DirtyBlockFileList == pRecord) {
        g_DirtyBlockFileList = pRecord->next;
    } else if (g_DirtyBlockFileList != nullptr) {
        if (KeGetCurrentIrql() == PASSIVE_LEVEL && IsTraceEnabled(&TRACE_DESCRIPTOR_INFO)) {
            LONG lBehindHead = 0;
            for (TrackedDirtyBlockFile* pEntry = g_DirtyBlockFileList->next; pEntry != nullptr;
                 pEntry = pEntry->next) {
                lBehindHead++;
            }
            TRACE_INFO("There are %d objects in the tracked file list, removing tracked file 0x%p", lBehindHead,
                       pRecord);
        }
        for (TrackedDirtyBlockFile* pEntry = g_DirtyBlockFileList; pEntry->next != nullptr; pEntry = pEntry->next) {
            if (pEntry->next == pRecord) {
                pEntry->next = pRecord->next;
                break;
            }
        }
    }
    pRecord->next = nullptr;
    ReleaseLock(g_DirtyBlockLock);
    return TRUE;
}

VOID ClearTrackedDirtyBlockFileList()
{
    // A start that failed before the lock was made has no record either.
    if (g_DirtyBlockLock == nullptr) {
        return;
    }
    AcquireLockExclusive(g_DirtyBlockLock);
    while (g_DirtyBlockFileList != nullptr) {
        TrackedDirtyBlockFile* pRecord = g_DirtyBlockFileList;
        g_DirtyBlockFileList = pRecord->next;
        DeleteTrackedDirtyBlockFile(pRecord);
    }
    ReleaseLock(g_DirtyBlockLock);
}

NTSTATUS DeleteTrackedDirtyBlockFileListLock()
{
    return DeleteDriverLock(&g_DirtyBlockLock);
}
