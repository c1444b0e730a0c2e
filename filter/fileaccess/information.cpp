// File metadata below the filter: GetFileInformation, SetFileInformation and the unknown pattern.
#include "fileaccess.h"

#include "trace.h"

// Every open of these helpers: case-insensitive, opened if it exists, a kernel handle.
#define FILE_ACCESS_OBJECT_ATTRIBUTES (OBJ_CASE_INSENSITIVE | OBJ_OPENIF | OBJ_KERNEL_HANDLE)

VOID SetUnknownFileInformation(PFILE_BASIC_INFORMATION pBasic)
{
    pBasic->CreationTime.QuadPart = FILE_TIME_UNKNOWN;
    pBasic->LastAccessTime.QuadPart = FILE_TIME_UNKNOWN;
    pBasic->LastWriteTime.QuadPart = FILE_TIME_UNKNOWN;
    pBasic->ChangeTime.QuadPart = FILE_TIME_UNKNOWN;
    pBasic->FileAttributes = FILE_ATTRIBUTES_UNKNOWN;
}

BOOLEAN AreFileAttributesKnown(const FILE_BASIC_INFORMATION* pBasic)
{
    return pBasic->FileAttributes != FILE_ATTRIBUTES_UNKNOWN;
}

// Opens pPath below pInstance, whatever share access others hold and recording none, into a kernel
// handle and a referenced file object. A null path fails as an invalid name would.
static NTSTATUS OpenFileBelowFilter(PCUNICODE_STRING pPath, PFLT_FILTER pFilter, PFLT_INSTANCE pInstance,
                                    ACCESS_MASK DesiredAccess, ULONG ulShareAccess, ULONG ulCreateOptions,
                                    PHANDLE phFile, PFILE_OBJECT* ppFileObject)
{
    OBJECT_ATTRIBUTES objectAttributes;
    IO_STATUS_BLOCK ioStatus;

    if (pPath == nullptr) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    InitializeObjectAttributes(&objectAttributes, (PUNICODE_STRING)pPath, FILE_ACCESS_OBJECT_ATTRIBUTES, nullptr,
                               nullptr);
    return FltCreateFileEx(pFilter, pInstance, phFile, ppFileObject, DesiredAccess, &objectAttributes, &ioStatus,
                           nullptr, FILE_ATTRIBUTE_NORMAL, ulShareAccess, FILE_OPEN, ulCreateOptions, nullptr, 0,
                           IO_IGNORE_SHARE_ACCESS_CHECK);
}

static VOID CloseFileBelowFilter(HANDLE hFile, PFILE_OBJECT pFileObject)
{
    FltClose(hFile);
    ObDereferenceObject(pFileObject);
}

// Whether the marker stream of pPath can be opened, into *pbMarkerStreamPresent. The result is the
// status of that open; STATUS_INSUFFICIENT_RESOURCES when the stream's path can't be built.
static NTSTATUS LookUpMarkerStream(PCUNICODE_STRING pPath, PFLT_FILTER pFilter, PFLT_INSTANCE pInstance,
                                   PUCHAR pbMarkerStreamPresent)
{
    HANDLE hStream = nullptr;
    PFILE_OBJECT pStreamObject = nullptr;

    *pbMarkerStreamPresent = 0;
    OwnedString* pstrStreamPath = JoinPathAndStreamName(pPath, MARKER_STREAM_NAME);
    if (pstrStreamPath == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = OpenFileBelowFilter(pstrStreamPath, pFilter, pInstance, FILE_READ_ATTRIBUTES,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0, &hStream,
                                          &pStreamObject);
    if (NT_SUCCESS(status)) {
        *pbMarkerStreamPresent = 1;
        CloseFileBelowFilter(hStream, pStreamObject);
    }
    FreeBuffer(pstrStreamPath);
    return status;
}

NTSTATUS GetFileInformation(PCUNICODE_STRING pPath, PFLT_FILTER pFilter, PFLT_INSTANCE pInstance,
                            PFILE_BASIC_INFORMATION pBasic, PFILE_STANDARD_INFORMATION pStandard,
                            PUCHAR pbMarkerStreamPresent)
{
    HANDLE hFile = nullptr;
    PFILE_OBJECT pFileObject = nullptr;
    NTSTATUS status;

    if (pBasic == nullptr || pStandard == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }

    // Nothing learned yet.
    SetUnknownFileInformation(pBasic);
    RtlZeroMemory(pStandard, sizeof(*pStandard));

    // The file itself; a reparse point is opened as it stands.
    status = OpenFileBelowFilter(pPath, pFilter, pInstance, FILE_READ_ATTRIBUTES,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN_REPARSE_POINT,
                                 &hFile, &pFileObject);
    if (!NT_SUCCESS(status)) {
        if (pPath != nullptr && pPath->Buffer != nullptr) {
            TRACE_ERROR("FltCreateFileEx([%wZ]) failed: 0x%08x", pPath, status);
        }
        if (pbMarkerStreamPresent != nullptr) {
            *pbMarkerStreamPresent = 0;
        }
        return status;
    }

    // Both halves or neither: a failed standard query takes the basic half back.
    status = FltQueryInformationFile(pInstance, pFileObject, pBasic, sizeof(FILE_BASIC_INFORMATION),
                                     FileBasicInformation, nullptr);
    if (status != STATUS_SUCCESS) {
        TRACE_ERROR("FltQueryInformationFile() for basic information failed: 0x%08x", status);
    }
    if (NT_SUCCESS(status)) {
        status = FltQueryInformationFile(pInstance, pFileObject, pStandard, sizeof(FILE_STANDARD_INFORMATION),
                                         FileStandardInformation, nullptr);
        if (status != STATUS_SUCCESS) {
            TRACE_ERROR("FltQueryInformationFile() for standard information failed: 0x%08x", status);
            SetUnknownFileInformation(pBasic);
        }
    }

    TRACE_INFO("File information for [%wZ] CH[%lld] CR[%lld] LA[%lld] LW[%lld] ATTR[%lu] EOF[%lld]", pPath,
               pBasic->ChangeTime.QuadPart, pBasic->CreationTime.QuadPart, pBasic->LastAccessTime.QuadPart,
               pBasic->LastWriteTime.QuadPart, pBasic->FileAttributes, pStandard->EndOfFile.QuadPart);

    CloseFileBelowFilter(hFile, pFileObject);

    // With a marker out, the stream's open decides the result.
    if (pbMarkerStreamPresent == nullptr) {
        return status;
    }
    return LookUpMarkerStream(pPath, pFilter, pInstance, pbMarkerStreamPresent);
}

NTSTATUS SetFileInformation(PCUNICODE_STRING pPath, PFLT_FILTER pFilter, PFLT_INSTANCE pInstance,
                            PFILE_BASIC_INFORMATION pBasic)
{
    HANDLE hFile = nullptr;
    PFILE_OBJECT pFileObject = nullptr;

    if (pBasic == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }

    NTSTATUS status = OpenFileBelowFilter(pPath, pFilter, pInstance, FILE_WRITE_ATTRIBUTES, 0, 0, &hFile,
                                          &pFileObject);
    if (!NT_SUCCESS(status)) {
        if (pPath != nullptr && pPath->Buffer != nullptr) {
            TRACE_ERROR("FltCreateFileEx([%wZ]) failed: 0x%08x", pPath, status);
        }
        return status;
    }

    status = FltSetInformationFile(pInstance, pFileObject, pBasic, sizeof(FILE_BASIC_INFORMATION),
                                   FileBasicInformation);
    if (status != STATUS_SUCCESS) {
        TRACE_ERROR("FltSetInformationFile() for basic information failed: 0x%08x", status);
    }

    CloseFileBelowFilter(hFile, pFileObject);
    return status;
}
