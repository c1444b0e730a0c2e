// IRP_MJ_ACQUIRE_FOR_CC_FLUSH and IRP_MJ_RELEASE_FOR_CC_FLUSH: the cache flush of a managed file.
//
// A flush that a user-mode caller starts can come on a file object without a valid record, one
// whose handles are all closed, say. Such a file object gets a record for the time of the flush
// (bCreatedForCcFlush), so that the other callbacks see a followed file while the flush runs and
// its fast path stays shut; the release expires it again, and its close deletes it. A flush of a
// read-only merge folder is refused. The lazy writer and the mapped page writer flush in kernel
// mode and are not followed. No service request is made here: a flush never waits for the service.
//
// A change made through a mapped view reaches the file system as a paging write, which write
// tracking doesn't follow, so such a change alone doesn't ask for an upload at cleanup. A flush
// can't tell it apart: its release isn't told whether the flush wrote data, and the paging writes
// between acquire and release are as often the write-back of changes made through handles, which
// write tracking has seen already. The filter doesn't guess: a file changed through a mapped view
// alone is not uploaded at its cleanup.
#include "context.h"
#include "globals.h"
#include "identity.h"
#include "locks.h"
#include "loopback.h"
#include "mergefolders.h"
#include "operations.h"
#include "trace.h"

// Clears bValid of a flush record: from here on only its close finds it.
static VOID ExpireFlushContext(FileContext* pContext)
{
    AcquireLockExclusive(g_ContextLock);
    pContext->bValid = 0;
    ReleaseLock(g_ContextLock);
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreAcquireCcFlush(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext)
{
    FLT_PREOP_CALLBACK_STATUS callbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    OwnedString* pstrPath = nullptr;
    OwnedString* pstrSid = nullptr;
    FileContext* pContext = nullptr;
    UCHAR bReadOnly = 0;
    NTSTATUS status;

    if (g_PassThrough) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    // The lazy writer and the mapped page writer: only a flush that a user-mode call started is
    // followed.
    if (ExGetPreviousMode() == KernelMode) {
        PFILE_OBJECT pFileObject = Data->Iopb->TargetFileObject;
        if (pFileObject != nullptr && StringHasText(&pFileObject->FileName)) {
            TRACE_INFO("Exiting. Previous Mode==KernelMode FileName [%wZ]", &pFileObject->FileName);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    if (IoGetCurrentProcess() == g_ServiceData.ServiceProcess) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    if (FltObjects == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    // A file object with a valid record, of its open or of an outer flush, is followed already.
    if (FindContextByFileObject(FltObjects->FileObject, FALSE) != nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }

    status = PathFromRequest(FltObjects, Data->Iopb, FALSE, &pstrPath);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    // The flushing thread's SID: the file object's opener may have been someone else.
    status = GetRequestSid(nullptr, &pstrSid);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    // Network files, the loopback share's included, are followed through their local open.
    if (IsMupPath(pstrPath)) {
        goto Exit;
    }
    (VOID) NormalizeFilePath(Data, &pstrPath);
    if (!IsManagedPath(pstrSid, pstrPath, &bReadOnly)) {
        goto Exit;
    }
    TRACE_INFO("FileName [%wZ]", pstrPath);

    if (bReadOnly) {
        Data->IoStatus.Status = STATUS_ACCESS_DENIED;
        Data->IoStatus.Information = 0;
        callbackStatus = FLT_PREOP_COMPLETE;
        goto Exit;
    }

    // The record has copies of both strings.
    status = CreateContext(FltObjects->FileObject, pstrPath, pstrSid, &pContext);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    (VOID) AddContextToContextTable(pContext);
    pContext->bCreatedForCcFlush = 1;
    TRACE_INFO("Created context 0x%x for file [%wZ]", (ULONG)(ULONG_PTR)pContext, pstrPath);
    *CompletionContext = pContext;
    callbackStatus = FLT_PREOP_SUCCESS_WITH_CALLBACK;

Exit:
    FreeUnicodeString(&pstrPath);
    FreeUnicodeString(&pstrSid);
    return callbackStatus;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostAcquireCcFlush(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    // Reached only with the record the pre-callback made.
    FileContext* pContext = (FileContext*)CompletionContext;
    if (StringHasText(pContext->pstrPath)) {
        TRACE_INFO("Entering FileName [%wZ]", pContext->pstrPath);
    }
    // A failed acquire has no release to expire the record; neither has one of a file that is
    // gone (FILE_DOES_NOT_EXIST).
    if (Data->IoStatus.Status != STATUS_SUCCESS || Data->IoStatus.Information == FILE_DOES_NOT_EXIST) {
        TRACE_INFO("Marking context 0x%x as expired", (ULONG)(ULONG_PTR)pContext);
        ExpireFlushContext(pContext);
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreReleaseCcFlush(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext)
{
    if (g_PassThrough || FltObjects == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    // Any valid record goes on; only a flush record is expired after the release.
    FileContext* pContext = FindContextByFileObject(FltObjects->FileObject, FALSE);
    if (pContext == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    if (StringHasText(pContext->pstrPath)) {
        TRACE_INFO("Entering FileName [%wZ]", pContext->pstrPath);
    }
    if (FLT_IS_FASTIO_OPERATION(Data)) {
        return FLT_PREOP_DISALLOW_FASTIO;
    }
    *CompletionContext = pContext;
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostReleaseCcFlush(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    // A record of an ordinary open isn't touched by a flush.
    FileContext* pContext = (FileContext*)CompletionContext;
    if (pContext->bCreatedForCcFlush) {
        TRACE_INFO("Marking context 0x%x as expired", (ULONG)(ULONG_PTR)pContext);
        ExpireFlushContext(pContext);
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}
