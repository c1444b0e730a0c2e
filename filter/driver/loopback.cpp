// Loopback access tracking: the list of TrackedMupAccess records, the gate's step that makes them
// and the post-create that drops them.
#include "loopback.h"

#include "context.h"
#include "locks.h"
#include "trace.h"

TrackedMupAccess* g_MupAccessList;

static const UNICODE_STRING g_MupPrefix = RTL_CONSTANT_STRING(L"\\Device\\Mup\\");
static const UNICODE_STRING g_MupLoopbackPrefix = RTL_CONSTANT_STRING(L"\\Device\\Mup\\127.0.0.1\\");

// No path of the MUP device that names a share is shorter than this.
#define MUP_PATH_MIN_BYTES 24

// \Device\Mup\127.0.0.1\ is 22 characters; the share's drive letter follows, then two characters
// ("C$") that the local path drops.
#define LOOPBACK_DRIVE_INDEX 22
#define LOOPBACK_SHARE_END_BYTES (24 * sizeof(WCHAR))

// The longest text a UNICODE_STRING holds: an even number of bytes below 64 KiB.
#define MAX_STRING_BYTES ((ULONG)(MAXUSHORT & ~1u))

// The process id as the traces print it.
#define TRACE_PID(ProcessId) ((int)(ULONG_PTR)(ProcessId))

bool IsLoopbackMupPath(PCUNICODE_STRING pPath)
{
    return RtlPrefixUnicodeString(&g_MupLoopbackPrefix, pPath, TRUE) != FALSE;
}

bool IsMupPath(PCUNICODE_STRING pPath)
{
    return pPath->Length >= MUP_PATH_MIN_BYTES && RtlPrefixUnicodeString(&g_MupPrefix, pPath, TRUE) != FALSE;
}

NTSTATUS CreateTrackedMupRecord(OwnedString* pstrPath, HANDLE ProcessId, TrackedMupAccess** ppRecord)
{
    if (ppRecord == nullptr) {
        FreeUnicodeString(&pstrPath);
        return STATUS_INVALID_PARAMETER;
    }
    if (StringHasText(pstrPath)) {
        TRACE_INFO("Tracking MUP record for [%wZ], pid:%d", pstrPath, TRACE_PID(ProcessId));
    }
    // Only ever touched at PASSIVE_LEVEL: paged pool.
    TrackedMupAccess* pRecord = (TrackedMupAccess*)AllocateBuffer(POOL_SELECTOR_PAGED, sizeof(TrackedMupAccess));
    if (pRecord == nullptr) {
        FreeUnicodeString(&pstrPath);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pRecord->RecordType = RECORD_TYPE_MUP_ACCESS;
    pRecord->pstrPath = pstrPath;
    pRecord->ProcessId = ProcessId;
    pRecord->pNext = nullptr;
    (VOID) AddToTrackedMupAccessList(pRecord);
    *ppRecord = pRecord;
    return STATUS_SUCCESS;
}

bool AddToTrackedMupAccessList(TrackedMupAccess* pRecord)
{
    if (pRecord == nullptr) {
        return false;
    }
    if (StringHasText(pRecord->pstrPath)) {
        TRACE_INFO("Adding [%wZ] to tracked Mup access list", pRecord->pstrPath);
    }
    // At the head: of two records of one path, the newer is found first.
    AcquireLockExclusive(g_MupLock);
    pRecord->pNext = g_MupAccessList;
    g_MupAccessList = pRecord;
    ReleaseLock(g_MupLock);
    return true;
}

HANDLE FindTrackedMupPID(PCUNICODE_STRING pPath)
{
    HANDLE ProcessId = nullptr;
    bool bFound = false;
    if (pPath == nullptr) {
        return nullptr;
    }
    // The id is copied out under the lock: the record may go as soon as it is released.
    AcquireLockExclusive(g_MupLock);
    for (TrackedMupAccess* pRecord = g_MupAccessList; pRecord != nullptr; pRecord = pRecord->pNext) {
        if (pRecord->pstrPath != nullptr && pRecord->pstrPath->Length == pPath->Length &&
            RtlEqualUnicodeString(pRecord->pstrPath, pPath, TRUE)) {
            ProcessId = pRecord->ProcessId;
            bFound = true;
            break;
        }
    }
    ReleaseLock(g_MupLock);
    if (StringHasText(pPath)) {
        if (bFound) {
            TRACE_INFO("Found [%wZ], pid:%d", pPath, TRACE_PID(ProcessId));
        } else {
            TRACE_INFO("No MUP record for [%wZ]", pPath);
        }
    }
    return ProcessId;
}

bool RemoveFromTrackedMupAccessList(TrackedMupAccess* pRecord)
{
    if (pRecord == nullptr) {
        return false;
    }
    bool bCounted = false;
    int iBehindHead = 0;
    AcquireLockExclusive(g_MupLock);
    if (g_MupAccessList == pRecord) {
        g_MupAccessList = pRecord->pNext;
    } else if (g_MupAccessList != nullptr) {
        // The count is only for the trace: it is taken while a session wants it.
        if (IsTraceEnabled(&TRACE_DESCRIPTOR_INFO)) {
            bCounted = true;
            for (TrackedMupAccess* pEntry = g_MupAccessList->pNext; pEntry != nullptr; pEntry = pEntry->pNext) {
                iBehindHead++;
            }
        }
        for (TrackedMupAccess* pPrevious = g_MupAccessList; pPrevious->pNext != nullptr;
             pPrevious = pPrevious->pNext) {
            if (pPrevious->pNext == pRecord) {
                pPrevious->pNext = pRecord->pNext;
                break;
            }
        }
    }
    ReleaseLock(g_MupLock);
    // Traced once the lock is let go: g_MupLock is never held with another lock, the trace's
    // included.
    if (bCounted) {
        TRACE_INFO("There are %d objects in the tracked file list, removing tracked file 0x%x", iBehindHead,
                   (ULONG)(ULONG_PTR)pRecord);
    }
    return true;
}

VOID DeleteTrackedMupRecord(TrackedMupAccess* pRecord)
{
    if (pRecord == nullptr) {
        return;
    }
    TRACE_INFO("pTrackedMupAccess:[0x%p]", pRecord);
    FreeUnicodeString(&pRecord->pstrPath);
    FreeBuffer(pRecord);
}

VOID ClearTrackedMupAccessList()
{
    if (g_MupLock == nullptr) {
        return;
    }
    // Deleting traces; the records are first taken out under the lock, then deleted without it.
    AcquireLockExclusive(g_MupLock);
    TrackedMupAccess* pRecord = g_MupAccessList;
    g_MupAccessList = nullptr;
    ReleaseLock(g_MupLock);
    while (pRecord != nullptr) {
        TrackedMupAccess* pNext = pRecord->pNext;
        DeleteTrackedMupRecord(pRecord);
        pRecord = pNext;
    }
}

NTSTATUS DeleteTrackedMupAccessListLock()
{
    return DeleteDriverLock(&g_MupLock);
}

FLT_PREOP_CALLBACK_STATUS TrackLoopbackAccess(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                              PCUNICODE_STRING pPath, PVOID* CompletionContext)
{
    FLT_PREOP_CALLBACK_STATUS callbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    OwnedString* pstrVolumePath = nullptr;
    OwnedString* pstrVolumeName = nullptr;
    OwnedString* pstrDevicePath = nullptr;
    PFLT_VOLUME pVolume = nullptr;
    TrackedMupAccess* pRecord = nullptr;
    ULONG ulVolumeLength = 0;
    ULONG ulDeviceLength;
    NTSTATUS status;

    // A path that ends before its share's two characters names no drive, and its local path would
    // begin behind its end: it passes, as the step's other failures do.
    if (pPath->Length < LOOPBACK_SHARE_END_BYTES) {
        goto Exit;
    }

    // The share's first character is taken for the drive letter: C$ becomes C:\.
    pstrVolumePath = CreateUnicodeString(POOL_SELECTOR_PAGED, 3 * sizeof(WCHAR));
    if (pstrVolumePath == nullptr) {
        TRACE_ERROR("[EXIT] - Failed to create volume path string");
        goto Exit;
    }
    pstrVolumePath->Buffer[0] = pPath->Buffer[LOOPBACK_DRIVE_INDEX];
    pstrVolumePath->Buffer[1] = L':';
    pstrVolumePath->Buffer[2] = L'\\';
    pstrVolumePath->Length = 3 * sizeof(WCHAR);
    status = FltGetVolumeFromName(FltObjects->Filter, pstrVolumePath, &pVolume);
    FreeUnicodeString(&pstrVolumePath);
    if (!NT_SUCCESS(status)) {
        pVolume = nullptr;
        TRACE_ERROR("[EXIT] - Failed to get the volume: 0x%08x", status);
        goto Exit;
    }

    status = FltGetVolumeName(pVolume, nullptr, &ulVolumeLength);
    if (status != STATUS_BUFFER_TOO_SMALL) {
        TRACE_ERROR("[EXIT] - Failed to get volume name length (0x%08x)", status);
        goto Exit;
    }
    pstrVolumeName =
        ulVolumeLength <= MAX_STRING_BYTES ? CreateUnicodeString(POOL_SELECTOR_PAGED, (USHORT)ulVolumeLength) : nullptr;
    if (pstrVolumeName == nullptr) {
        TRACE_ERROR("[EXIT] - Failed to create device name string");
        goto Exit;
    }
    status = FltGetVolumeName(pVolume, pstrVolumeName, nullptr);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("[EXIT] - Failed to create volume name (0x%08x)", status);
        goto Exit;
    }

    // \Device\Mup\127.0.0.1\C$\dir\file becomes \Device\HarddiskVolume2\dir\file. A sum that a
    // UNICODE_STRING can't hold fails like a failed allocation.
    ulDeviceLength = (ULONG)pPath->Length + pstrVolumeName->Length - LOOPBACK_SHARE_END_BYTES;
    pstrDevicePath =
        ulDeviceLength <= MAX_STRING_BYTES ? CreateUnicodeString(POOL_SELECTOR_PAGED, (USHORT)ulDeviceLength) : nullptr;
    if (pstrDevicePath == nullptr) {
        TRACE_ERROR("[EXIT] - Failed to create device path string");
        goto Exit;
    }
    RtlCopyMemory(pstrDevicePath->Buffer, pstrVolumeName->Buffer, pstrVolumeName->Length);
    RtlCopyMemory((PUCHAR)pstrDevicePath->Buffer + pstrVolumeName->Length,
                  (const UCHAR*)pPath->Buffer + LOOPBACK_SHARE_END_BYTES, pPath->Length - LOOPBACK_SHARE_END_BYTES);
    pstrDevicePath->Length = pstrDevicePath->MaximumLength;
    FltObjectDereference(pVolume);
    pVolume = nullptr;

    // The record takes the device path over, also when it can't be made.
    status = CreateTrackedMupRecord(pstrDevicePath, PsGetCurrentProcessId(), &pRecord);
    pstrDevicePath = nullptr;
    if (NT_SUCCESS(status)) {
        TRACE_INFO("Tracking MUP access [%wZ], record:[0x%p]", pRecord->pstrPath, pRecord);
        *CompletionContext = pRecord;
        callbackStatus = FLT_PREOP_SUCCESS_WITH_CALLBACK;
    } else {
        // The one failure of the filter's own work that fails an open: untracked, the local open
        // would reach the service as the file server's.
        Data->IoStatus.Status = status;
        Data->IoStatus.Information = 0;
        callbackStatus = FLT_PREOP_COMPLETE;
    }

Exit:
    if (pVolume != nullptr) {
        FltObjectDereference(pVolume);
    }
    FreeUnicodeString(&pstrVolumeName);
    FreeUnicodeString(&pstrDevicePath);
    return callbackStatus;
}

VOID EndTrackedMupAccess(TrackedMupAccess* pRecord)
{
    if (StringHasText(pRecord->pstrPath)) {
        TRACE_INFO("Deleting MUP tracking record [0x%p] for [%wZ]", pRecord, pRecord->pstrPath);
    }
    (VOID) RemoveFromTrackedMupAccessList(pRecord);
    DeleteTrackedMupRecord(pRecord);
}
