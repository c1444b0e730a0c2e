// IRP_MJ_CREATE, after the file system: the record that the pre-create made lives on with its file
// object when the open succeeded, and goes when it failed. A file that the open created or replaced
// is reported to the service, and uploaded at cleanup.
#include "context.h"
#include "exclusions.h"
#include "globals.h"
#include "loopback.h"
#include "operations.h"
#include "servicerequests.h"
#include "trace.h"

// Unlinks and frees the record of an open that isn't followed after all. IRQL: PASSIVE_LEVEL.
static VOID DropContext(FileContext* pContext)
{
    (VOID) RemoveContextFromContextTable(pContext);
    (VOID) DeleteContext(pContext);
}

// Whether the open's result replaced the file's content: superseded, created or overwritten.
static bool HasOpenReplacedContent(ULONG_PTR Information)
{
    return Information == FILE_SUPERSEDED || Information == FILE_CREATED || Information == FILE_OVERWRITTEN;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostCreate(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                        PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)
{
    FileContext* pContext = (FileContext*)CompletionContext;
    PFILE_OBJECT pFileObject = Data->Iopb->TargetFileObject;
    BOOLEAN bDirectory = FALSE;

    if (pContext == nullptr) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    // A loopback open's record, the other kind that the pre-create hands over, ends with its open,
    // whatever the open's status and the mode; it never reaches the table's routines.
    if (pContext->RecordType == RECORD_TYPE_MUP_ACCESS) {
        EndTrackedMupAccess((TrackedMupAccess*)CompletionContext);
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    // The instance is being detached: the file object can't be used, and none of its later
    // callbacks will reach this instance to close the record.
    if ((Flags & FLTFL_POST_OPERATION_DRAINING) != 0) {
        DropContext(pContext);
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    // The service has gone since the pre-create: no request, and only a successful open keeps its
    // record, to be closed as usual.
    if (g_PassThrough) {
        if (Data->IoStatus.Status != STATUS_SUCCESS) {
            DropContext(pContext);
        }
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    if (pFileObject != nullptr && pFileObject->FileName.Buffer != nullptr) {
        TRACE_INFO("[ENTER] - FileName [%wZ], result of IRP_MJ_CREATE was [%x]", &pFileObject->FileName,
                   Data->IoStatus.Status);
    }

    // The answer isn't kept: the test fills the user's exclusion cache, and for a directory that
    // the open has just made it asks after the directory itself.
    (VOID) IsExcludedByDirectory(pContext->pstrSid, pContext->pstrPath, FltObjects, Data->Iopb);

    // Any status but STATUS_SUCCESS, a reparse included: the file object opens nothing of ours. A
    // reparsed open comes back through the pre-create with a record of its own.
    if (Data->IoStatus.Status != STATUS_SUCCESS) {
        if (pContext->pstrPath != nullptr && pContext->pstrPath->Length != 0) {
            TRACE_INFO("[%wZ] failed to open.", pContext->pstrPath);
        }
        DropContext(pContext);
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    // The target directory of a rename is opened for the rename alone.
    if ((Data->Iopb->OperationFlags & SL_OPEN_TARGET_DIRECTORY) != 0) {
        DropContext(pContext);
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    if (NT_SUCCESS(FltIsDirectory(pFileObject, FltObjects->Instance, &bDirectory))) {
        pContext->bDirectory = bDirectory ? 1 : 0;
    }

    // New content is the service's to take at cleanup, whether or not it hears of it now.
    if (HasOpenReplacedContent(Data->IoStatus.Information)) {
        (VOID) ServiceRequest_ObjectChanged(pContext->pstrSid, pContext->pstrPath, FltObjects, Data->Iopb, 0);
        pContext->OnClose |= ON_CLOSE_UPLOAD;
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}
