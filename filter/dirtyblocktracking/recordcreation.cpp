// Making a tracked file's record: its map loaded from the file's stream, which then goes, or the
// wholly dirty state when no valid stream is there.
#include "dirtyblocktracking.h"

#include "fileaccess.h"
#include "trace.h"

// The blocks of a file of llEndOfFile bytes. Block numbers are 32 bits wide, so the map reaches
// 2^32 blocks (16 TiB): a larger file counts as that many, all of which the wholly dirty map marks.
static ULONG BlocksOfEndOfFile(LONGLONG llEndOfFile)
{
    if (llEndOfFile <= 0) {
        return 0;
    }
    ULONGLONG ullBlocks = (ULONGLONG)llEndOfFile / DIRTY_BLOCK_SIZE;
    return ullBlocks > MAXULONG ? MAXULONG : (ULONG)ullBlocks;
}

// The file can't be vouched for: every bit of a map long enough for its end of file is set, the
// count is its number of blocks, and bTrackingFailed tells the service to take the whole file.
static NTSTATUS SetWhollyDirty(TrackedDirtyBlockFile* pRecord, LONGLONG llEndOfFile)
{
    ULONG ulBlocks = BlocksOfEndOfFile(llEndOfFile);
    ULONG ulMapLen = ulBlocks / 8 + 1;
    PUCHAR pMap = (PUCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulMapLen);
    if (pMap == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlFillMemory(pMap, ulMapLen, 0xFF);
    pRecord->map = pMap;
    pRecord->mapLen = ulMapLen;
    pRecord->dirtyBlockCount = ulBlocks;
    pRecord->bTrackingFailed = 1;
    return STATUS_SUCCESS;
}

NTSTATUS CreateTrackedDirtyBlockFile(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                                     TrackedDirtyBlockFile** ppRecord)
{
    TrackedDirtyBlockFile* pRecord = nullptr;
    OwnedString* pstrStreamPath = nullptr;
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    NTSTATUS status;

    if (ppRecord == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *ppRecord = nullptr;
    if (pPath == nullptr || pPath->Buffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    TRACE_INFO("[INFO] Tracking dirty blocks for [%wZ]", pPath);

    pRecord = (TrackedDirtyBlockFile*)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(TrackedDirtyBlockFile));
    if (pRecord == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pRecord, sizeof(*pRecord));
    pstrStreamPath = JoinPathAndStreamName(pPath, DIRTY_BLOCK_STREAM_NAME);
    if (pstrStreamPath == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Failed;
    }

    status = GetFileInformation(pPath, pFilter, pInstance, &basic, &standard, nullptr);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to get file info for [%wZ] (0x%08x)", pPath, status);
        goto Failed;
    }

    if (!NT_SUCCESS(ReadDirtyBlockMapFromADS(pFilter, pInstance, pstrStreamPath, pRecord,
                                             basic.LastWriteTime.QuadPart))) {
        // No stream, a stale one or one that can't be read. Whatever is there stays: the next
        // write-back replaces it.
        status = SetWhollyDirty(pRecord, standard.EndOfFile.QuadPart);
        if (!NT_SUCCESS(status)) {
            goto Failed;
        }
    } else {
        // From here on memory holds the truth, and a stream left behind would outlive it: one that
        // can't be deleted makes every block of the map dirty, since a crash would bring it back.
        NTSTATUS deleteStatus = DeleteFile(pstrStreamPath);
        if (NT_ERROR(deleteStatus)) {
            TRACE_INFO("DeleteFile() failed to delete ADS file [%wZ], status=[0x%x]", pstrStreamPath, deleteStatus);
            RtlFillMemory(pRecord->map, pRecord->mapLen, 0xFF);
            pRecord->dirtyBlockCount = pRecord->mapLen;
        }
        // The delete changed the file's times; they go back, so that the file's last write time
        // keeps meaning a write of its data.
        status = SetFileInformation(pPath, pFilter, pInstance, &basic);
        if (!NT_SUCCESS(status)) {
            TRACE_ERROR("Failed to set file info for [%wZ] (0x%08x)", pPath, status);
            goto Failed;
        }
    }

    pRecord->filePath = CreateUnicodeString(POOL_SELECTOR_NONPAGED, pPath->Length);
    if (pRecord->filePath == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Failed;
    }
    RtlCopyMemory(pRecord->filePath->Buffer, pPath->Buffer, pPath->Length);
    pRecord->filePath->Length = pPath->Length;
    KeInitializeSpinLock(&pRecord->lock);
    pRecord->next = nullptr;
    pRecord->refCount = 1;
    FreeBuffer(pstrStreamPath);
    *ppRecord = pRecord;
    return STATUS_SUCCESS;

Failed:
    if (pstrStreamPath != nullptr) {
        FreeBuffer(pstrStreamPath);
    }
    DeleteTrackedDirtyBlockFile(pRecord);
    return status;
}
