// The service's dirty block queries: a file's map, taken and cleared, and its count.
//
// A query works on any file of a volume the filter is attached to: the file's record is found, or
// loaded from its stream for the length of the query, and the query's reference is given back at
// its end, which writes the map back when no open holds the record.
#include "dirtyblocktracking.h"

#include "driver/globals.h"
#include "driver/mergefolders.h"
#include "trace.h"

// What one query holds from its start to its end; null where it got no further.
typedef struct _DirtyBlockQuery {
    OwnedString* pstrPath;
    PFLT_INSTANCE pInstance;
    TrackedDirtyBlockFile* pRecord;
} DirtyBlockQuery;

// The path of a query: UTF-16 text from ulPathOffset of the message to its zero character, which
// must lie inside the message. The message is the service's memory, neither aligned nor to be
// trusted to stay as it is: it is read under a guard, and the length found first bounds the copy.
static NTSTATUS CopyPathFromMessage(PVOID pMessage, ULONG ulMessageLength, ULONG ulPathOffset,
                                    OwnedString** ppstrPath)
{
    const UCHAR* pText;
    ULONG ulChars = 0;
    BOOLEAN bTerminated = FALSE;

    if (pMessage == nullptr || ulMessageLength < ulPathOffset) {
        return STATUS_INVALID_PARAMETER;
    }
    pText = (const UCHAR*)pMessage + ulPathOffset;
    const ULONG ulMaxChars = (ulMessageLength - ulPathOffset) / sizeof(WCHAR);
    __try {
        ProbeForRead(pMessage, ulMessageLength, 1);
        for (; ulChars < ulMaxChars; ulChars++) {
            WCHAR wc;
            RtlCopyMemory(&wc, pText + ulChars * sizeof(WCHAR), sizeof(wc));
            if (wc == L'\0') {
                bTerminated = TRUE;
                break;
            }
        }
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return GetExceptionCode();
    }
    if (!bTerminated || ulChars * sizeof(WCHAR) > (MAXUSHORT & ~1u)) {
        return STATUS_INVALID_PARAMETER;
    }

    USHORT usBytes = (USHORT)(ulChars * sizeof(WCHAR));
    OwnedString* pstrPath = CreateUnicodeString(POOL_SELECTOR_NONPAGED, usBytes);
    if (pstrPath == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    __try {
        RtlCopyMemory(pstrPath->Buffer, pText, usBytes);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        FreeBuffer(pstrPath);
        return GetExceptionCode();
    }
    pstrPath->Length = usBytes;
    *ppstrPath = pstrPath;
    return STATUS_SUCCESS;
}

// The path, the filter's instance on its volume and a reference on the file's record. On failure
// the query holds what it got so far, for EndDirtyBlockQuery.
static NTSTATUS BeginDirtyBlockQuery(PVOID pMessage, ULONG ulMessageLength, ULONG ulPathOffset, BOOLEAN bMapQuery,
                                     DirtyBlockQuery* pQuery)
{
    RtlZeroMemory(pQuery, sizeof(*pQuery));
    NTSTATUS status = CopyPathFromMessage(pMessage, ulMessageLength, ulPathOffset, &pQuery->pstrPath);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = GetVolumeInstanceForPath(g_ServiceData.FilterHandle, pQuery->pstrPath, &pQuery->pInstance);
    if (!NT_SUCCESS(status)) {
        pQuery->pInstance = nullptr;
        TRACE_ERROR("Failed to get volume from path (0x%08x)", status);
        return status;
    }
    if (bMapQuery) {
        TRACE_INFO("REQUEST_DIRTY_BLOCK_MAP for [%wZ]", pQuery->pstrPath);
    } else {
        TRACE_INFO("REQUEST_DIRTY_BLOCK_COUNT for [%wZ]", pQuery->pstrPath);
    }
    return GetTrackedDirtyBlockRecord(g_ServiceData.FilterHandle, pQuery->pInstance, pQuery->pstrPath,
                                      &pQuery->pRecord);
}

static VOID EndDirtyBlockQuery(DirtyBlockQuery* pQuery)
{
    FreeUnicodeString(&pQuery->pstrPath);
    if (pQuery->pInstance != nullptr) {
        FltObjectDereference(pQuery->pInstance);
    }
    if (pQuery->pRecord != nullptr) {
        (VOID) DerefTrackedDirtyBlockRecord(pQuery->pRecord);
    }
}

// Makes the stream say what the cleared record says: an empty map of ulMapLen bytes, count 0 and
// flag 0. Without memory for it the stream stays as it was, older than the reply, which only
// makes a later load report blocks the service has had already; the reply stands either way.
static VOID WriteClearedMap(DirtyBlockQuery* pQuery, ULONG ulMapLen)
{
    TrackedDirtyBlockFile empty;
    RtlZeroMemory(&empty, sizeof(empty));
    empty.mapLen = ulMapLen;
    empty.map = (PUCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulMapLen);
    if (empty.map == nullptr) {
        TRACE_ERROR("No memory to write the cleared dirty block map of [%wZ]", pQuery->pstrPath);
        return;
    }
    RtlZeroMemory(empty.map, ulMapLen);
    (VOID) WriteDirtyBlockMap(g_ServiceData.FilterHandle, pQuery->pInstance, pQuery->pstrPath, &empty);
    FreeBuffer(empty.map);
}

NTSTATUS RequestDirtyBlockMap(PVOID pMessage, ULONG ulMessageLength, PVOID pOutput, ULONG ulOutputLength,
                              PULONG pulReplyLength)
{
    DirtyBlockQuery query;
    ULONG ulMapLen = 0;
    KIRQL oldIrql;

    if (pOutput == nullptr || pulReplyLength == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = BeginDirtyBlockQuery(pMessage, ulMessageLength, DIRTY_BLOCK_MAP_REQUEST_HEAD_SIZE, TRUE, &query);
    if (!NT_SUCCESS(status)) {
        goto End;
    }

    // Taking and clearing are one step for a writer: each write lands in the reply or in the
    // cleared map. A map loaded from a stream may be near 4 GiB long: the length is reckoned in 64 bits.
    oldIrql = KeAcquireSpinLockRaiseToDpc(&query.pRecord->lock);
    *pulReplyLength = 0;
    ulMapLen = query.pRecord->mapLen;
    if ((ULONG64)ulOutputLength < DIRTY_BLOCK_MAP_REPLY_LENGTH((ULONG64)ulMapLen)) {
        KeReleaseSpinLock(&query.pRecord->lock, oldIrql);
        status = STATUS_BUFFER_TOO_SMALL;
        goto End;
    }
    {
        DirtyBlockMapReply* pReply = (DirtyBlockMapReply*)pOutput;
        pReply->bTrackingFailed = query.pRecord->bTrackingFailed;
        pReply->MapLength = ulMapLen;
        RtlCopyMemory((PUCHAR)pOutput + DIRTY_BLOCK_MAP_REPLY_HEAD_SIZE, query.pRecord->map, ulMapLen);
    }
    *pulReplyLength = DIRTY_BLOCK_MAP_REPLY_LENGTH(ulMapLen);
    RtlZeroMemory(query.pRecord->map, ulMapLen);
    query.pRecord->dirtyBlockCount = 0;
    query.pRecord->bTrackingFailed = 0;
    KeReleaseSpinLock(&query.pRecord->lock, oldIrql);

    WriteClearedMap(&query, ulMapLen);
    status = STATUS_SUCCESS;

End:
    EndDirtyBlockQuery(&query);
    return status;
}

NTSTATUS RequestDirtyBlockCount(PVOID pMessage, ULONG ulMessageLength, PVOID pOutput, ULONG ulOutputLength,
                                PULONG pulReplyLength)
{
    DirtyBlockQuery query;
    UCHAR bReset = 0;
    ULONG ulMapLen = 0;
    KIRQL oldIrql;

    if (pOutput == nullptr || pulReplyLength == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status =
        BeginDirtyBlockQuery(pMessage, ulMessageLength, DIRTY_BLOCK_COUNT_REQUEST_HEAD_SIZE, FALSE, &query);
    if (!NT_SUCCESS(status)) {
        goto End;
    }
    // The path's copy proved the message long enough for the flag ahead of it.
    __try {
        bReset = ((const DirtyBlockCountRequest*)pMessage)->bReset;
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        status = GetExceptionCode();
        goto End;
    }

    oldIrql = KeAcquireSpinLockRaiseToDpc(&query.pRecord->lock);
    *pulReplyLength = 0;
    if (ulOutputLength < DIRTY_BLOCK_COUNT_REPLY_SIZE) {
        KeReleaseSpinLock(&query.pRecord->lock, oldIrql);
        status = STATUS_BUFFER_TOO_SMALL;
        goto End;
    }
    {
        DirtyBlockCountReply* pReply = (DirtyBlockCountReply*)pOutput;
        pReply->bTrackingFailed = query.pRecord->bTrackingFailed;
        pReply->DirtyBlockCount = query.pRecord->dirtyBlockCount;
    }
    *pulReplyLength = DIRTY_BLOCK_COUNT_REPLY_SIZE;
    // A reset clears the map and the count but not the flag: only taking the map does that.
    if (bReset != 0) {
        ulMapLen = query.pRecord->mapLen;
        RtlZeroMemory(query.pRecord->map, ulMapLen);
        query.pRecord->dirtyBlockCount = 0;
    }
    KeReleaseSpinLock(&query.pRecord->lock, oldIrql);

    if (bReset != 0) {
        WriteClearedMap(&query, ulMapLen);
    }
    status = STATUS_SUCCESS;

End:
    EndDirtyBlockQuery(&query);
    return status;
}
