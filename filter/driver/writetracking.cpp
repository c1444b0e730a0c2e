// IRP_MJ_WRITE: the writes of a followed file mark it for upload at cleanup, mark the written blocks
// in its dirty block map when it is tracked, and tell the service that the file is being written, at
// most once a second for each open. A write never fails because of them, and its data is not read.
//
// Only a caller's cached write counts. The cache manager's write-back and the modified page
// writer's writes (paging I/O) and a caller's non-cached write carry what was already counted, or
// come through a mapping whose writes the filter doesn't follow.
#include "context.h"
#include "globals.h"
#include "operations.h"
#include "servicerequests.h"
#include "trace.h"

// The IRP flags of writes that aren't a caller's cached write.
#define WRITE_IRP_FLAGS_NOT_FOLLOWED (IRP_NOCACHE | IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO)

// The least time between two write notices of one open: one second, in 100 ns units.
#define WRITE_NOTIFY_INTERVAL 10000000ll

// Cancels an upload that the service held back when the open arrived: the first write makes that
// upload stale for good, so a new one is asked for at cleanup. IRQL: PASSIVE_LEVEL, no lock held.
static VOID CancelHeldBackUpload(FileContext* pContext, PCFLT_RELATED_OBJECTS FltObjects,
                                 PFLT_IO_PARAMETER_BLOCK Iopb)
{
    TRACE_INFO("Cancelling upload for: %wZ, context: 0x%x", pContext->pstrPath, (ULONG)(ULONG_PTR)pContext);
    (VOID) ServiceRequest_ObjectCancelUpload(pContext->pstrSid, pContext->pstrPath, FltObjects, Iopb);
    pContext->OnClose |= ON_CLOSE_UPLOAD;
    pContext->bUploadCancelled = 0;
}

// Tells the service that the file is being written, unless this open did so within the last
// second. The time is kept whether or not the service heard it, so a service that doesn't answer
// costs one wait a second, not one per write. IRQL: <= APC_LEVEL, no lock held.
static VOID NotifyWriteAtMostOnceASecond(FileContext* pContext)
{
    LARGE_INTEGER Now;
    KeQuerySystemTime(&Now);
    if (Now.QuadPart - pContext->LastWriteNotifyTime > WRITE_NOTIFY_INTERVAL) {
        (VOID) ServiceRequest_ObjectWriteNotify(pContext->pstrSid, pContext->pstrPath);
        pContext->LastWriteNotifyTime = Now.QuadPart;
    }
}

// Pre-write: a caller's write to a followed file. Fast I/O is refused on such a file, so that the
// write comes again as an IRP; the requests to the service go out before the file system sees the
// write, which waits for them. Returns FLT_PREOP_SUCCESS_WITH_CALLBACK with the record as
// completion context for a followed write, FLT_PREOP_DISALLOW_FASTIO for its fast form and
// FLT_PREOP_SUCCESS_NO_CALLBACK for every other. IRQL: PASSIVE_LEVEL.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreWrite(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID* CompletionContext)
{
    if (g_PassThrough || (Data->Iopb->IrpFlags & WRITE_IRP_FLAGS_NOT_FOLLOWED) != 0) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    FileContext* pContext = FindContextByFileObject(Data->Iopb->TargetFileObject, FALSE);
    if (pContext == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    TRACE_INFO("Entering FileName [%wZ]", pContext->pstrPath);

    if (FLT_IS_FASTIO_OPERATION(Data)) {
        return FLT_PREOP_DISALLOW_FASTIO;
    }
    TRACE_INFO("Writing to: %wZ, context: 0x%x", pContext->pstrPath, (ULONG)(ULONG_PTR)pContext);

    if (pContext->bUploadCancelled) {
        CancelHeldBackUpload(pContext, FltObjects, Data->Iopb);
    }
    NotifyWriteAtMostOnceASecond(pContext);

    // A written file is uploaded with the signature that its open was given.
    if (pContext->pstrSignatureName != nullptr) {
        TRACE_INFO("Setting bSignatureRequired to TRUE for file: %wZ", pContext->pstrPath);
        pContext->bSignatureRequired = 1;
    } else {
        TRACE_INFO("File: %wZ has a NULL signature name", pContext->pstrPath);
    }

    *CompletionContext = pContext;
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

// Post-write: a write that succeeded marks the file for upload (a directory's record excepted) and
// the requested range dirty in the block map. A failed write marks nothing. Always
// FLT_POSTOP_FINISHED_PROCESSING. IRQL: <= DISPATCH_LEVEL; sends nothing and takes only the
// tracked record's spin lock.
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostWrite(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(FltObjects);

    // A draining instance gives back writes that never reached the file system.
    if (g_PassThrough || (Flags & FLTFL_POST_OPERATION_DRAINING) != 0) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    if (Data->IoStatus.Status != STATUS_SUCCESS || CompletionContext == nullptr) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    FileContext* pContext = (FileContext*)CompletionContext;
    LONGLONG llOffset = Data->Iopb->Parameters.Write.ByteOffset.QuadPart;
    ULONG ulLength = Data->Iopb->Parameters.Write.Length;
    TRACE_INFO("[ENTER] FileName [%wZ] Offset[%llu] Length[%lu]", pContext->pstrPath, (ULONGLONG)llOffset,
               ulLength);

    if (!pContext->bDirectory) {
        pContext->OnClose |= ON_CLOSE_UPLOAD;
    }
    // The range the caller asked for counts, not the bytes the file system wrote.
    if (pContext->pTrackedDirtyBlockFile != nullptr) {
        MarkBlockDirty(pContext->pTrackedDirtyBlockFile, llOffset, ulLength);
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}
