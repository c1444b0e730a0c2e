// A file context record's making and its end.
#include "context.h"

#include "trace.h"

NTSTATUS CreateContext(PFILE_OBJECT pFileObject, PCUNICODE_STRING pPath, PCUNICODE_STRING pSid,
                       FileContext** ppContext)
{
    if (pPath != nullptr && pFileObject != nullptr && pFileObject->FileName.Buffer != nullptr) {
        TRACE_INFO("INFO: Creating Context Entry for [%wZ]. FILE_OBJECT->FileName = [%wZ]", pPath,
                   &pFileObject->FileName);
    }

    FileContext* pContext = (FileContext*)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(FileContext));
    if (pContext == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pContext, sizeof(FileContext));
    pContext->RecordType = RECORD_TYPE_FILE_CONTEXT;
    pContext->bValid = 1;
    pContext->pFileObject = pFileObject;

    // Copies keep the given MaximumLength, so a rename within that room needs no new string.
    if (pSid != nullptr && (pContext->pstrSid = CopyUnicodeString(pSid)) == nullptr) {
        goto OutOfMemory;
    }
    if (pPath != nullptr && (pContext->pstrPath = CopyUnicodeString(pPath)) == nullptr) {
        goto OutOfMemory;
    }
    *ppContext = pContext;
    return STATUS_SUCCESS;

OutOfMemory:
    (VOID) DeleteContext(pContext);
    return STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS DeleteContext(FileContext* pContext)
{
    TRACE_INFO("Context:[0x%p]", pContext);
    if (pContext == nullptr) {
        return STATUS_SUCCESS;
    }
    FreeUnicodeString(&pContext->pstrSid);
    FreeUnicodeString(&pContext->pstrPath);
    FreeUnicodeString(&pContext->pstrFilter);
    FreeUnicodeString(&pContext->pstrTemporaryFile);
    FreeUnicodeString(&pContext->pstrRenameTarget);
    FreeUnicodeString(&pContext->pstrSignatureName);
    if (pContext->pTrackedDirtyBlockFile != nullptr) {
        (VOID) DerefTrackedDirtyBlockRecord(pContext->pTrackedDirtyBlockFile);
    }
    if (pContext->pDirectoryListing != nullptr) {
        FreeBuffer(pContext->pDirectoryListing);
    }
    FreeBuffer(pContext);
    return STATUS_SUCCESS;
}
