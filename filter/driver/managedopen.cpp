// The last stretch of an open of managed content: the service brings the file's content to the
// disk (and names a signature when the open writes), and a record is made that follows the file
// object from here to its close.
//
// The open waits here for the service, up to the request's 30 minutes. The service can refuse the
// open by STATUS_ACCESS_DENIED or STATUS_SHARING_VIOLATION alone; any other failure of the service
// or of the filter's own work lets the open go on, with no flags, no signature or no record.
#include "create.h"

#include "context.h"
#include "dirtyblocktracking.h"
#include "fileaccess.h"
#include "globals.h"
#include "loopback.h"
#include "servicerequests.h"
#include "trace.h"

// Room for the signature's name: 260 characters and a zero character.
#define SIGNATURE_NAME_CAPACITY ((USHORT)((SERVICE_SIGNATURE_NAME_CHARS + 1) * sizeof(WCHAR)))

// Whether the service's answer refuses the open: an error, and one of the two statuses by which
// the service says no. IRQL: any.
static bool IsDownloadRefusal(NTSTATUS status)
{
    return status == STATUS_ACCESS_DENIED || status == STATUS_SHARING_VIOLATION;
}

// Asks the service for the signature of an open that writes. The name, or null when the request
// failed or its string couldn't be allocated. IRQL: PASSIVE_LEVEL, no lock held.
static OwnedString* RequestSignature(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                     PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb)
{
    TRACE_INFO("File access requires signature: %wZ", pstrPath);
    OwnedString* pstrSignatureName = CreateUnicodeString(POOL_SELECTOR_NONPAGED, SIGNATURE_NAME_CAPACITY);
    if (pstrSignatureName == nullptr) {
        return nullptr;
    }
    NTSTATUS status = ServiceRequest_ObjectSignature(pstrSid, pstrPath, pstrSignatureName, FltObjects, Iopb);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("ServiceRequest_ObjectSignature failed, error code: 0x%x", status);
        FreeUnicodeString(&pstrSignatureName);
    }
    return pstrSignatureName;
}

// The process for which the service brings the content: the one whose thread makes the open. The
// file server's open of a file that a loopback access has in flight stands for the process that
// made that access. Null, which the request takes for the current process, when there is none.
// IRQL: PASSIVE_LEVEL.
static HANDLE DownloadRequesterProcessId(PCUNICODE_STRING pstrPath)
{
    return FindTrackedMupPID(pstrPath);
}

// Asks the service to bring the file's content to the disk and, for an open that writes without
// DELETE, for a signature. The request carries the caller's own share access: the widening comes
// after it. The flags and the signature name are written only from a reply that didn't fail; a
// time-out is no failure, and may still lead to the signature. Returns the download's status.
// IRQL: PASSIVE_LEVEL, no lock held.
static NTSTATUS RequestContent(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, PCUNICODE_STRING pstrPath,
                               PCUNICODE_STRING pstrSid, const FILE_BASIC_INFORMATION* pBasic,
                               const FILE_STANDARD_INFORMATION* pStandard, UCHAR bMarkerStreamPresent,
                               PUCHAR pbUploadCancelled, PUCHAR pbLocked, PUCHAR pbTrackDirtyBlocks,
                               OwnedString** ppstrSignatureName)
{
    PIO_SECURITY_CONTEXT pSecurityContext = Data->Iopb->Parameters.Create.SecurityContext;
    ACCESS_MASK DesiredAccess = pSecurityContext != nullptr ? pSecurityContext->DesiredAccess : 0;

    NTSTATUS status = ServiceRequest_ObjectDownloadIfRequired(
        pstrSid, pstrPath, pBasic, pStandard, bMarkerStreamPresent, pbUploadCancelled, pbLocked, FltObjects,
        Data->Iopb, pbTrackDirtyBlocks, DownloadRequesterProcessId(pstrPath));
    if (NT_ERROR(status)) {
        // Any failure but a refusal opens the file as it lies on the disk.
        TRACE_ERROR("ServiceRequest_ObjectDownloadIfRequired for file [%wZ] failed, status: 0x%x", pstrPath, status);
    }
    if (NT_SUCCESS(status) && (DesiredAccess & DELETE) == 0 && (DesiredAccess & ACCESS_REQUIRING_SIGNATURE) != 0) {
        *ppstrSignatureName = RequestSignature(pstrSid, pstrPath, FltObjects, Data->Iopb);
    }
    return status;
}

// Notes in the record what its cleanup must do, of these the first that fits: delete a file opened
// to be deleted (an upload held back for it is moot), or remember the held-back upload, which the
// first write cancels. IRQL: PASSIVE_LEVEL.
static VOID NoteWorkAtCleanup(FileContext* pContext, ULONG ulCreateOptions, UCHAR bUploadCancelled)
{
    const bool bHasPath = pContext->pstrPath->Length != 0;
    if ((ulCreateOptions & FILE_DELETE_ON_CLOSE) != 0) {
        if (bHasPath) {
            TRACE_INFO("Created context [0x%p] for file [%wZ], ON_CLOSE_DELETE_ON_CLOSE set", pContext,
                       pContext->pstrPath);
        }
        pContext->OnClose |= ON_CLOSE_DELETE_ON_CLOSE;
    } else if (bUploadCancelled) {
        if (bHasPath) {
            TRACE_INFO("Created context [0x%p] for file [%wZ], ON_CLOSE_UPLOAD set", pContext, pContext->pstrPath);
        }
        pContext->bUploadCancelled = 1;
    } else if (bHasPath) {
        TRACE_INFO("Created context [0x%p] for file [%wZ]", pContext, pContext->pstrPath);
    }
}

FLT_PREOP_CALLBACK_STATUS FollowManagedOpen(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                            PCUNICODE_STRING pstrPath, PCUNICODE_STRING pstrSid,
                                            UCHAR bForeignUserAccess, const FILE_BASIC_INFORMATION* pBasic,
                                            const FILE_STANDARD_INFORMATION* pStandard, UCHAR bMarkerStreamPresent,
                                            OwnedString** ppstrTemporaryFile, PVOID* CompletionContext)
{
    PFLT_IO_PARAMETER_BLOCK Iopb = Data->Iopb;
    FLT_PREOP_CALLBACK_STATUS callbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    OwnedString* pstrSignatureName = nullptr;
    FileContext* pContext = nullptr;
    UCHAR bUploadCancelled = 0;
    UCHAR bLocked = 0;
    UCHAR bTrackDirtyBlocks = 0;
    NTSTATUS status;

    TRACE_INFO("Making a service request for [%wZ]. Calling ServiceRequest_ObjectDownloadIfRequired", pstrPath);

    // A directory has no content to bring, and another user's folder gets local content only. A
    // path that wasn't found may be a file about to be created: the service hears of it.
    if (!bForeignUserAccess &&
        !(AreFileAttributesKnown(pBasic) && (pBasic->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)) {
        status = RequestContent(Data, FltObjects, pstrPath, pstrSid, pBasic, pStandard, bMarkerStreamPresent,
                                &bUploadCancelled, &bLocked, &bTrackDirtyBlocks, &pstrSignatureName);
        if (IsDownloadRefusal(status)) {
            Data->IoStatus.Status = status;
            Data->IoStatus.Information = 0;
            callbackStatus = FLT_PREOP_COMPLETE;
            goto Exit;
        }
    }

    // Opens that the filter follows never stand in one another's way, nor in the service's.
    Iopb->Parameters.Create.ShareAccess |= FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    FltSetCallbackDataDirty(Data);

    status = CreateContext(Iopb->TargetFileObject, pstrPath, pstrSid, &pContext);
    if (!NT_SUCCESS(status)) {
        TRACE_INFO("[EXIT] Failed to create context. Returning FLT_PREOP_SUCCESS_NO_CALLBACK");
        goto Exit;
    }
    pContext->bForeignUserAccess = bForeignUserAccess;
    pContext->bLocked = bLocked;

    if (bTrackDirtyBlocks) {
        status = GetTrackedDirtyBlockRecord(FltObjects->Filter, Iopb->TargetInstance, pstrPath,
                                            &pContext->pTrackedDirtyBlockFile);
        if (!NT_SUCCESS(status)) {
            TRACE_ERROR("Failed to create/retrieve dirty block record (0x%08x)", status);
        }
    }
    NoteWorkAtCleanup(pContext, Iopb->Parameters.Create.Options, bUploadCancelled);

    // The dummy file of a redirected open goes at its cleanup.
    pContext->pstrTemporaryFile = *ppstrTemporaryFile;
    *ppstrTemporaryFile = nullptr;

    if (pstrSignatureName != nullptr) {
        pContext->pstrSignatureName = pstrSignatureName;
        pContext->bSignatureRequired = 1;
        pstrSignatureName = nullptr;
    }

    // Only now may other threads find the record.
    (VOID) AddContextToContextTable(pContext);
    *CompletionContext = pContext;
    TRACE_INFO("[EXIT] Returning FLT_PREOP_SUCCESS_WITH_CALLBACK");
    callbackStatus = FLT_PREOP_SUCCESS_WITH_CALLBACK;

Exit:
    FreeUnicodeString(&pstrSignatureName);
    return callbackStatus;
}
