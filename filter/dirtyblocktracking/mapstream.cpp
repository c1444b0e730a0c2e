// The map stream on disk: reading it into a record, writing a record to it with the file's times
// kept, and deleting it.
//
// All I/O but the delete goes through FltCreateFileEx at the given instance, so this filter's own
// callbacks never see it; the delete enters the stack at its top.
#include "dirtyblocktracking.h"

#include "fileaccess.h"
#include "trace.h"

// The smallest map buffer a load makes, whatever the stream holds.
#define DIRTY_BLOCK_MAP_MIN_BUFFER 4

// Opens the stream at pStreamPath below pInstance for reading (FILE_OPEN) or for writing
// (FILE_OVERWRITE_IF: created, or cut to length 0), sharing everything.
static NTSTATUS OpenMapStream(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pStreamPath,
                              BOOLEAN bWrite, PHANDLE phStream, PFILE_OBJECT* ppStreamObject)
{
    OBJECT_ATTRIBUTES objectAttributes;
    IO_STATUS_BLOCK ioStatus;

    InitializeObjectAttributes(&objectAttributes, (PUNICODE_STRING)pStreamPath,
                               bWrite ? (OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE)
                                      : (OBJ_KERNEL_HANDLE | OBJ_OPENIF | OBJ_CASE_INSENSITIVE),
                               nullptr, nullptr);
    return FltCreateFileEx(pFilter, pInstance, phStream, ppStreamObject, bWrite ? GENERIC_WRITE : GENERIC_READ,
                           &objectAttributes, &ioStatus, nullptr, 0,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           bWrite ? FILE_OVERWRITE_IF : FILE_OPEN, 0, nullptr, 0, 0);
}

// The length of the map a stream holds: its length less the header, or 0 when the stream's size
// can't be had (the open that follows then tells why). A stream too short for a header holds none.
static NTSTATUS MapLengthOfStream(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pStreamPath,
                                  PULONG pulMapLength)
{
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;

    *pulMapLength = 0;
    if (!NT_SUCCESS(GetFileInformation(pStreamPath, pFilter, pInstance, &basic, &standard, nullptr))) {
        return STATUS_SUCCESS;
    }
    ULONG ulStreamLength = (ULONG)standard.EndOfFile.LowPart;
    if (ulStreamLength < DIRTY_BLOCK_STREAM_HEADER_SIZE) {
        return STATUS_FILE_CORRUPT_ERROR;
    }
    *pulMapLength = ulStreamLength - DIRTY_BLOCK_STREAM_HEADER_SIZE;
    return STATUS_SUCCESS;
}

NTSTATUS ReadDirtyBlockMapFromADS(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pStreamPath,
                                  TrackedDirtyBlockFile* pRecord, LONGLONG llFileLastWriteTime)
{
    HANDLE hStream = nullptr;
    PFILE_OBJECT pStreamObject = nullptr;
    DirtyBlockStreamHeader header;
    LARGE_INTEGER offset;
    ULONG ulMapLength = 0;
    ULONG ulBytesRead = 0;
    NTSTATUS status;

    if (pRecord == nullptr || pStreamPath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    TRACE_INFO("[ENTER] - [%wZ]", pStreamPath);

    status = MapLengthOfStream(pFilter, pInstance, pStreamPath, &ulMapLength);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    pRecord->mapLen = ulMapLength > DIRTY_BLOCK_MAP_MIN_BUFFER ? ulMapLength : DIRTY_BLOCK_MAP_MIN_BUFFER;
    pRecord->map = (PUCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, pRecord->mapLen);
    if (pRecord->map == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Exit;
    }
    RtlZeroMemory(pRecord->map, pRecord->mapLen);
    TRACE_INFO("fileLen:%u, *bufferLen:%u", ulMapLength, pRecord->mapLen);

    // A file that never had a stream ends here.
    status = OpenMapStream(pFilter, pInstance, pStreamPath, FALSE, &hStream, &pStreamObject);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("FltCreateFileEx failed (0x%08x)", status);
        hStream = nullptr;
        goto Exit;
    }

    // A header that isn't whole is no header: the stream was cut before its write ended.
    RtlZeroMemory(&header, sizeof(header));
    offset.QuadPart = 0;
    status = FltReadFile(pInstance, pStreamObject, &offset, sizeof(header), &header, 0, &ulBytesRead, nullptr,
                         nullptr);
    if (NT_SUCCESS(status) && ulBytesRead < sizeof(header)) {
        status = STATUS_FILE_CORRUPT_ERROR;
    }
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("FltReadFile failed (0x%08x)", status);
        goto Exit;
    }
    TRACE_INFO("File LW:%llu, Header LW:%llu", llFileLastWriteTime, header.HeaderTimestamp);

    // Written to after the map was stored, by somebody the filter didn't see.
    if (llFileLastWriteTime > header.HeaderTimestamp) {
        TRACE_ERROR("Parent last write more recent than header timestamp");
        status = STATUS_UNSUCCESSFUL;
        goto Exit;
    }
    pRecord->dirtyBlockCount = header.DirtyBlockCount;
    pRecord->bTrackingFailed = header.bTrackingFailed;

    // A stream with a header and no map byte fails here with STATUS_END_OF_FILE: its write was cut.
    offset.QuadPart = DIRTY_BLOCK_STREAM_HEADER_SIZE;
    status = FltReadFile(pInstance, pStreamObject, &offset, pRecord->mapLen, pRecord->map, 0, &ulBytesRead, nullptr,
                         nullptr);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("FltReadFile failed (0x%08x)", status);
        goto Exit;
    }
    TRACE_INFO("dirtyBlockCount:%d bTrackingFailed=%d", pRecord->dirtyBlockCount, pRecord->bTrackingFailed);

Exit:
    if (hStream != nullptr) {
        FltClose(hStream);
        ObDereferenceObject(pStreamObject);
    }
    if (!NT_SUCCESS(status) && pRecord->map != nullptr) {
        FreeBuffer(pRecord->map);
        pRecord->map = nullptr;
    }
    if (!NT_SUCCESS(status)) {
        pRecord->mapLen = 0;
    }
    TRACE_INFO("[EXIT]");
    return status;
}

NTSTATUS WriteDirtyBlockMapToADS(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pStreamPath,
                                 TrackedDirtyBlockFile* pRecord)
{
    HANDLE hStream = nullptr;
    PFILE_OBJECT pStreamObject = nullptr;
    DirtyBlockStreamHeader header;
    LARGE_INTEGER offset;
    LARGE_INTEGER now;
    ULONG ulBytesWritten = 0;
    NTSTATUS status;

    if (pRecord == nullptr || pRecord->map == nullptr || pStreamPath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    TRACE_INFO("[ENTER] [%wZ]", pStreamPath);

    status = OpenMapStream(pFilter, pInstance, pStreamPath, TRUE, &hStream, &pStreamObject);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("FltCreateFileEx failed (0x%08x)", status);
        return status;
    }

    // The reserved bytes are written as zero.
    RtlZeroMemory(&header, sizeof(header));
    KeQuerySystemTime(&now);
    header.HeaderVersion = DIRTY_BLOCK_STREAM_HEADER_VERSION;
    header.DirtyBlockCount = pRecord->dirtyBlockCount;
    header.HeaderTimestamp = now.QuadPart;
    header.bTrackingFailed = pRecord->bTrackingFailed;
    TRACE_INFO("dirtyBlockCount:%d", pRecord->dirtyBlockCount);
    TRACE_INFO("Last Write:%llu", now.QuadPart);
    TRACE_INFO("bTrackingFailed:%d", pRecord->bTrackingFailed);

    offset.QuadPart = 0;
    status = FltWriteFile(pInstance, pStreamObject, &offset, sizeof(header), &header, 0, &ulBytesWritten, nullptr,
                          nullptr);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("FltWriteFile failed (0x%08x)", status);
    } else {
        offset.QuadPart = DIRTY_BLOCK_STREAM_HEADER_SIZE;
        status = FltWriteFile(pInstance, pStreamObject, &offset, pRecord->mapLen, pRecord->map, 0, &ulBytesWritten,
                              nullptr, nullptr);
        if (!NT_SUCCESS(status)) {
            TRACE_ERROR("FltWriteFile failed (0x%08x)", status);
        }
    }

    FltClose(hStream);
    ObDereferenceObject(pStreamObject);
    TRACE_INFO("[EXIT]");
    return status;
}

NTSTATUS WriteDirtyBlockMap(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                            TrackedDirtyBlockFile* pRecord)
{
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    NTSTATUS status;

    TRACE_INFO("[ENTER]");
    if (pPath == nullptr || pPath->Buffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    OwnedString* pstrStreamPath = JoinPathAndStreamName(pPath, DIRTY_BLOCK_STREAM_NAME);
    if (pstrStreamPath == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    // The file's times as they stand before the stream is written, to be put back after it.
    status = GetFileInformation(pPath, pFilter, pInstance, &basic, &standard, nullptr);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to get file info for [%wZ] (0x%08x)", pPath, status);
        goto Exit;
    }
    status = WriteDirtyBlockMapToADS(pFilter, pInstance, pstrStreamPath, pRecord);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to write dirty block for [%wZ] (0x%08x)", pPath, status);
        goto Exit;
    }
    // Writing the stream moved the file's last write time past the header's timestamp; put back,
    // it says when the file's data was last written, which the next load compares.
    status = SetFileInformation(pPath, pFilter, pInstance, &basic);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to set file info for [%wZ] (0x%08x)", pPath, status);
    }

Exit:
    FreeBuffer(pstrStreamPath);
    TRACE_INFO("[EXIT]");
    return status;
}

NTSTATUS DeleteDirtyBlockADS(PCUNICODE_STRING pPath)
{
    static const WCHAR szStreamSuffix[] = L":" DIRTY_BLOCK_STREAM_NAME;
    NTSTATUS status;

    if (pPath == nullptr || (pPath->Buffer == nullptr && pPath->Length != 0)) {
        return STATUS_INVALID_PARAMETER;
    }

    // The path as it stands, then the suffix and a terminator, in a zeroed block.
    SIZE_T ulPathChars = pPath->Length / sizeof(WCHAR);
    SIZE_T ulBlockBytes = pPath->Length + sizeof(szStreamSuffix);
    PWCHAR pszStreamPath = (PWCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulBlockBytes);
    OwnedString* pstrStreamPath = nullptr;
    if (pszStreamPath != nullptr) {
        RtlZeroMemory(pszStreamPath, ulBlockBytes);
        if (ulPathChars != 0) {
            RtlCopyMemory(pszStreamPath, pPath->Buffer, pPath->Length);
        }
        RtlCopyMemory(pszStreamPath + ulPathChars, szStreamSuffix, sizeof(szStreamSuffix));
        pstrStreamPath = CreateUnicodeStringFromText(pszStreamPath);
        FreeBuffer(pszStreamPath);
    }
    if (pstrStreamPath == nullptr) {
        TRACE_ERROR("No memory to delete the dirty block stream of [%wZ]", pPath);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    status = DeleteFile(pstrStreamPath);
    if (NT_ERROR(status)) {
        TRACE_INFO("DeleteFile() failed to delete ADS file [%wZ], status=[0x%x]", pstrStreamPath, status);
    } else {
        TRACE_INFO("Deleted [%wZ]", pstrStreamPath);
    }
    FreeBuffer(pstrStreamPath);
    return status;
}

NTSTATUS WriteStableDirtyBlockMap(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                                  TrackedDirtyBlockFile* pRecord)
{
    TrackedDirtyBlockFile* pCopy = nullptr;

    if (pPath == nullptr || pPath->Buffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = CopyTrackedDirtyBlockFile(pRecord, &pCopy);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("No copy of the dirty block map of [%wZ] to write (0x%08x)", pPath, status);
        return status;
    }
    status = WriteDirtyBlockMap(pFilter, pInstance, pPath, pCopy);
    DeleteTrackedDirtyBlockFile(pCopy);
    return status;
}
