// The download request: before an open of a managed file goes on, the service brings the file's
// content to the disk and answers with three flags for the open.
#include "servicerequests.h"

#include "trace.h"

// Whether both strings can be printed.
static bool HaveText(PCUNICODE_STRING pFirst, PCUNICODE_STRING pSecond)
{
    return pFirst != nullptr && pFirst->Buffer != nullptr && pSecond != nullptr && pSecond->Buffer != nullptr;
}

NTSTATUS ServiceRequest_ObjectDownloadIfRequired(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                                 const FILE_BASIC_INFORMATION* pBasic,
                                                 const FILE_STANDARD_INFORMATION* pStandard,
                                                 UCHAR bMarkerStreamPresent, PUCHAR pbUploadCancelled,
                                                 PUCHAR pbLocked, PCFLT_RELATED_OBJECTS FltObjects,
                                                 PFLT_IO_PARAMETER_BLOCK Iopb, PUCHAR pbTrackDirtyBlocks,
                                                 HANDLE ProcessId)
{
    ServiceRequest request;
    NTSTATUS status;

    if (pstrPath == nullptr || pbUploadCancelled == nullptr || pbLocked == nullptr || pbTrackDirtyBlocks == nullptr ||
        FltObjects == nullptr || Iopb == nullptr) {
        TRACE_ERROR("Invalid parameter: pstrPath:0x%p, pbUploadCancelled:0x%p, pbLocked:0x%p, iopb:0x%p, "
                    "pbTrackDirtyBlocks:0x%p",
                    pstrPath, pbUploadCancelled, pbLocked, Iopb, pbTrackDirtyBlocks);
        return STATUS_INVALID_PARAMETER;
    }

    // What the open asks for, as the service is to see it.
    const ULONG ulCreateOptions = Iopb->Parameters.Create.Options;
    const USHORT usShareAccess = Iopb->Parameters.Create.ShareAccess;
    const ACCESS_MASK DesiredAccess = Iopb->Parameters.Create.SecurityContext != nullptr
                                          ? Iopb->Parameters.Create.SecurityContext->DesiredAccess
                                          : 0;
    if (HaveText(pstrPath, pstrSid)) {
        TRACE_INFO("File Name [%wZ], SID [%wZ].", pstrPath, pstrSid);
    }

    status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        TRACE_INFO("EXIT: Status=%x", status);
        goto Cleanup;
    }
    // The loopback server's open of the same file stands for the process that opened it.
    if (ProcessId != nullptr) {
        request.pMessage->ProcessId = (uint64_t)(ULONG_PTR)ProcessId;
    }
    {
        DownloadIfRequiredArea* pArea = &request.pMessage->Area.DownloadIfRequired;
        pArea->CreateOptions = ulCreateOptions;
        pArea->ShareAccess = usShareAccess;
        pArea->DesiredAccess = DesiredAccess;
        StoreFileInformationBlock(pBasic, pStandard, &pArea->Information);
        pArea->bMarkerStreamPresent = bMarkerStreamPresent;
    }

    if (HaveText(pstrPath, pstrSid)) {
        TRACE_INFO("Calling SendMessageToService for [%wZ], SID [%wZ].", pstrPath, pstrSid);
    }
    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_DOWNLOAD_IF_REQUIRED);
    if (request.pReply == nullptr) {
        TRACE_INFO("EXIT: Status=%x", status);
        goto Cleanup;
    }
    // A refusal delivers no flags.
    if (request.bReplyRead && NT_SUCCESS(status)) {
        *pbUploadCancelled = request.pReply->Payload.DownloadIfRequired.bUploadCancelled;
        *pbLocked = request.pReply->Payload.DownloadIfRequired.bLocked;
        *pbTrackDirtyBlocks = request.pReply->Payload.DownloadIfRequired.bTrackDirtyBlocks;
    }
    if (HaveText(pstrPath, pstrSid)) {
        TRACE_INFO("EXIT: File Name [%wZ], SID [%wZ], Status[%x]", pstrPath, pstrSid, status);
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}
