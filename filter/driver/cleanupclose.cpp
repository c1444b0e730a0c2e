// IRP_MJ_CLEANUP and IRP_MJ_CLOSE: the end of a followed file object.
//
// Cleanup, when the last handle goes, carries out what the open gathered in its record's OnClose:
// a deleted file is reported, a changed one is uploaded after its block map is saved, and the
// service hears that the file is unlocked once no live open holds the lock. The record then turns
// invalid: the file object's late I/O passes through. Close, at the last reference, frees it.
//
// Both pre-callbacks synchronize, so that the post-callbacks run in the caller's thread at
// PASSIVE_LEVEL, where they may wait for the service and do file I/O.
#include "context.h"
#include "dirtyblocktracking.h"
#include "fileaccess.h"
#include "globals.h"
#include "operations.h"
#include "servicerequests.h"
#include "trace.h"

// Deletes the dummy file of a redirected open. IRQL: PASSIVE_LEVEL.
static VOID DeleteTemporaryFile(PCUNICODE_STRING pstrTemporaryFile)
{
    NTSTATUS status = DeleteFile(pstrTemporaryFile);
    if (NT_ERROR(status)) {
        TRACE_INFO("DeleteFile() failed to delete temporary file [%wZ], status=[0x%x]", pstrTemporaryFile, status);
    } else {
        TRACE_INFO("Deleted temporary file [%wZ]", pstrTemporaryFile);
    }
}

// Traces and clears the record's bValid: only the close finds it from here on.
static VOID MarkContextInvalid(FileContext* pContext)
{
    TRACE_INFO("Marking context 0x%x as invalid", (ULONG)(ULONG_PTR)pContext);
    pContext->bValid = 0;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreCleanup(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(FltObjects);

    // No test of pass-through mode: a record that exists is followed to its end.
    FileContext* pContext = FindContextByFileObject(Data->Iopb->TargetFileObject, FALSE);
    if (pContext == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    TRACE_INFO("FileName [%wZ]", &Data->Iopb->TargetFileObject->FileName);
    *CompletionContext = pContext;
    return FLT_PREOP_SYNCHRONIZE;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostCleanup(PFLT_CALLBACK_DATA Data,
                                                         PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
                                                         FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(Flags);
    FileContext* pContext = (FileContext*)CompletionContext;

    // Another open's cleanup may have ended this record since the pre-callback: a deleted file.
    if (pContext == nullptr || !pContext->bValid) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    TRACE_INFO("[ENTER] - FileName [%wZ]", &Data->Iopb->TargetFileObject->FileName);

    // The dummy file goes whatever became of the cleanup; the record keeps its path, and its
    // cleared bValid keeps this from running twice.
    if (pContext->pstrTemporaryFile != nullptr) {
        DeleteTemporaryFile(pContext->pstrTemporaryFile);
    }

    if (!NT_SUCCESS(Data->IoStatus.Status)) {
        MarkContextInvalid(pContext);
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    if (g_PassThrough) {
        pContext->bValid = 0;
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    // A deletion beats an upload, and a deleted file isn't unlocked. Every open of the file under
    // this SID ends here.
    if ((pContext->OnClose & (ON_CLOSE_DELETE_ON_CLOSE | ON_CLOSE_DELETE_DISPOSITION)) != 0) {
        (VOID) InvalidateContexts(pContext->pstrSid, pContext->pstrPath);
        (VOID) ServiceRequest_ObjectDeleted(pContext->pstrSid, pContext->pstrPath);
        MarkContextInvalid(pContext);
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    TRACE_INFO("OnClose[%d] pContext->bLocked[%d] pContext=0x%p", pContext->OnClose & ON_CLOSE_UPLOAD,
               pContext->bLocked, pContext);
    if ((pContext->OnClose & ON_CLOSE_UPLOAD) != 0) {
        // The map on disk is at least as new as the upload the service is about to make. Other
        // opens of the file may go on marking the shared record: a copy taken under its lock is
        // what gets written.
        if (pContext->pTrackedDirtyBlockFile != nullptr) {
            (VOID) WriteStableDirtyBlockMap(FltObjects->Filter, Data->Iopb->TargetInstance, pContext->pstrPath,
                                            pContext->pTrackedDirtyBlockFile);
        }
        (VOID) ServiceRequest_ObjectUploadIfRequired(pContext->pstrSid, pContext->pstrPath,
                                                     pContext->bSignatureRequired ? pContext->pstrSignatureName
                                                                                  : nullptr,
                                                     Data->Iopb, FltObjects);
    }
    pContext->bValid = 0;

    // The lock is the file's, not this open's: it ends with the last live open that holds it,
    // this record no longer counting.
    if (pContext->bDirectory || HasLockedContext(pContext->pstrPath)) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    (VOID) ServiceRequest_ObjectIsLocked(pContext->pstrSid, pContext->pstrPath);
    TRACE_INFO("Told service to unlock the file");
    return FLT_POSTOP_FINISHED_PROCESSING;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreClose(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(FltObjects);

    FileContext* pContext = FindContextByFileObject(Data->Iopb->TargetFileObject, TRUE);
    if (pContext == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    TRACE_INFO("FileName [%wZ]", &Data->Iopb->TargetFileObject->FileName);
    *CompletionContext = pContext;
    return FLT_PREOP_SYNCHRONIZE;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostClose(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    FileContext* pContext = (FileContext*)CompletionContext;
    PFILE_OBJECT pFileObject = Data->Iopb->TargetFileObject;

    if (pContext == nullptr) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    // The file object is gone by now: its address is only a key, and the name is the record's.
    TRACE_INFO("FileName [%wZ]", pContext->pstrPath);

    // Every record of the file object goes with it, the one handed over first: an older one left
    // behind would be taken for a later file object at the same address. Neither pass-through mode
    // nor an invalid record changes that.
    do {
        TRACE_INFO("Deleting context 0x%x", (ULONG)(ULONG_PTR)pContext);
        (VOID) RemoveContextFromContextTable(pContext);
        (VOID) DeleteContext(pContext);
        pContext = FindContextByFileObject(pFileObject, TRUE);
    } while (pContext != nullptr);
    return FLT_POSTOP_FINISHED_PROCESSING;
}
