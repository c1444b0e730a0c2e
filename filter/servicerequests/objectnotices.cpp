// The object requests whose whole answer is their result: the service is told of a change, asked
// to act, or asked a question that its Status alone answers (an exclusion).
#include "servicerequests.h"

#include "trace.h"

// Sends a begun notice once, ends it and returns its result. beginStatus is what Begin returned:
// a failure is passed on, nothing sent.
static NTSTATUS SendNoticeAndEnd(ServiceRequest* pRequest, NTSTATUS beginStatus, ULONG ulReplyLength)
{
    NTSTATUS status = beginStatus;

    if (NT_SUCCESS(status)) {
        status = SendServiceRequest(pRequest, ulReplyLength);
    }
    EndServiceRequest(pRequest);
    return status;
}

// A notice that carries its path and nothing in its area.
static NTSTATUS SendPathNotice(ULONG ulRequestCode, PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                               ULONG ulReplyLength)
{
    ServiceRequest request;

    NTSTATUS status = BeginServiceRequest(&request, ulRequestCode, pstrSid, pstrPath, nullptr);
    return SendNoticeAndEnd(&request, status, ulReplyLength);
}

// A notice whose area is the file information block at 560, with the marker byte at 624 when
// bWithMarker is set.
static NTSTATUS SendObjectInformationNotice(ULONG ulRequestCode, PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                            PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb,
                                            BOOLEAN bWithMarker, ULONG ulReplyLength)
{
    ServiceRequest request;

    NTSTATUS status = BeginServiceRequest(&request, ulRequestCode, pstrSid, pstrPath, nullptr);
    if (NT_SUCCESS(status)) {
        ObjectInformationArea* pArea = &request.pMessage->Area.ObjectInformation;
        FillFileInformationBlock(pstrPath, FltObjects, Iopb, &pArea->Information,
                                 bWithMarker ? &pArea->bMarkerStreamPresent : nullptr);
    }
    return SendNoticeAndEnd(&request, status, ulReplyLength);
}

NTSTATUS ServiceRequest_ObjectRenameFromManaged(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                                UCHAR bToRecycleBin, PCFLT_RELATED_OBJECTS FltObjects,
                                                PFLT_IO_PARAMETER_BLOCK Iopb)
{
    ServiceRequest request;

    if (pstrPath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status =
        BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED, pstrSid, pstrPath, nullptr);
    if (NT_SUCCESS(status)) {
        RenameFromManagedArea* pArea = &request.pMessage->Area.RenameFromManaged;
        FillFileInformationBlock(pstrPath, FltObjects, Iopb, &pArea->Information, &pArea->bMarkerStreamPresent);
        pArea->bToRecycleBin = bToRecycleBin;
    }
    return SendNoticeAndEnd(&request, status, SERVICE_REPLY_LENGTH_OBJECT_RENAME_FROM_MANAGED);
}

NTSTATUS ServiceRequest_ObjectUploadIfRequired(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                               PCUNICODE_STRING pstrSignatureName, PFLT_IO_PARAMETER_BLOCK Iopb,
                                               PCFLT_RELATED_OBJECTS FltObjects)
{
    ServiceRequest request;

    if (pstrPath != nullptr && pstrPath->Buffer != nullptr) {
        TRACE_INFO("pstrPath[%wZ] piob[0x%p] piob->TargetInstance[0x%p]", pstrPath, Iopb,
                   Iopb != nullptr ? Iopb->TargetInstance : nullptr);
    }
    if (pstrPath == nullptr || Iopb == nullptr || Iopb->TargetInstance == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED, pstrSid, pstrPath,
                                          pstrSignatureName);
    if (NT_SUCCESS(status)) {
        UploadIfRequiredArea* pArea = &request.pMessage->Area.UploadIfRequired;
        FillFileInformationBlock(pstrPath, FltObjects, Iopb, &pArea->Information, &pArea->bMarkerStreamPresent);
        status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_UPLOAD_IF_REQUIRED);
        if (request.bDisconnected) {
            TRACE_INFO("SendMessageToService failed, error = 0x%x", request.SendStatus);
        }
    }
    EndServiceRequest(&request);
    return status;
}

NTSTATUS ServiceRequest_ObjectDeleted(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath)
{
    if (pstrPath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return SendPathNotice(SERVICE_REQUEST_OBJECT_DELETED, pstrSid, pstrPath, SERVICE_REPLY_LENGTH_OBJECT_DELETED);
}

NTSTATUS ServiceRequest_ObjectRename(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrOldPath,
                                     PCUNICODE_STRING pstrNewPath, PCFLT_RELATED_OBJECTS FltObjects,
                                     PFLT_IO_PARAMETER_BLOCK Iopb)
{
    ServiceRequest request;

    if (pstrOldPath == nullptr || pstrNewPath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status =
        BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_RENAME, pstrSid, pstrOldPath, pstrNewPath);
    if (NT_SUCCESS(status)) {
        // The block tells what now stands at the new path.
        FillFileInformationBlock(pstrNewPath, FltObjects, Iopb, &request.pMessage->Area.Rename.Information, nullptr);
    }
    return SendNoticeAndEnd(&request, status, SERVICE_REPLY_LENGTH_OBJECT_RENAME);
}

NTSTATUS ServiceRequest_ObjectIsExcludedFile(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                             PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb)
{
    if (pstrPath != nullptr && pstrPath->Buffer != nullptr) {
        TRACE_INFO("[ENTER] - ServiceRequest_ObjectIsExcludedFile [%wZ]", pstrPath);
    }
    NTSTATUS status = STATUS_INVALID_PARAMETER;
    if (pstrPath != nullptr && IsServiceRequestSidAcceptable(pstrSid)) {
        status = SendObjectInformationNotice(SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, pstrSid, pstrPath, FltObjects,
                                             Iopb, TRUE, SERVICE_REPLY_LENGTH_OBJECT_IS_EXCLUDED_FILE);
    }
    TRACE_INFO("[EXIT] - Status:0x%08x", status);
    return status;
}

NTSTATUS ServiceRequest_ObjectCancelUpload(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                           PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb)
{
    if (pstrPath == nullptr || !IsServiceRequestSidAcceptable(pstrSid)) {
        return STATUS_INVALID_PARAMETER;
    }
    return SendObjectInformationNotice(SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD, pstrSid, pstrPath, FltObjects, Iopb,
                                       TRUE, SERVICE_REPLY_LENGTH_OBJECT_CANCEL_UPLOAD);
}

NTSTATUS ServiceRequest_ObjectWriteNotify(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath)
{
    if (pstrPath == nullptr || !IsServiceRequestSidAcceptable(pstrSid)) {
        return STATUS_INVALID_PARAMETER;
    }
    return SendPathNotice(SERVICE_REQUEST_OBJECT_WRITE_NOTIFY, pstrSid, pstrPath,
                          SERVICE_REPLY_LENGTH_OBJECT_WRITE_NOTIFY);
}

NTSTATUS ServiceRequest_ObjectChanged(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                      PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb,
                                      UCHAR bAttributesOnly)
{
    ServiceRequest request;

    if (pstrPath == nullptr || Iopb == nullptr || Iopb->TargetInstance == nullptr ||
        Iopb->TargetFileObject == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_CHANGED, pstrSid, pstrPath, nullptr);
    if (NT_SUCCESS(status)) {
        ChangedArea* pArea = &request.pMessage->Area.Changed;
        FillFileInformationBlock(pstrPath, FltObjects, Iopb, &pArea->Information, &pArea->bMarkerStreamPresent);
        pArea->bAttributesOnly = bAttributesOnly;
    }
    // The reply's 8 bytes behind the head carry nothing the filter uses: they stay unread.
    return SendNoticeAndEnd(&request, status, SERVICE_REPLY_LENGTH_OBJECT_CHANGED);
}

NTSTATUS ServiceRequest_ObjectIsLocked(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath)
{
    ServiceRequest request;

    if (pstrPath == nullptr || !IsServiceRequestSidAcceptable(pstrSid)) {
        TRACE_INFO("STATUS_INVALID_PARAMETER");
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_LOCKED, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        TRACE_INFO("STATUS_INSUFFICIENT_RESOURCES AllocateServerRequestMessage");
        goto Cleanup;
    }
    request.pMessage->Area.IsLocked.bLocked = 0;  // the file is unlocked: all that this request says

    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_IS_LOCKED);
    if (request.pReply == nullptr) {
        TRACE_INFO("STATUS_INSUFFICIENT_RESOURCES ulReplyLength");
    } else if (request.bDisconnected) {
        TRACE_INFO("ulDisconnectCount = %d  g_ServiceData.ClientPortDisconnectCount = %d", request.ulDisconnectCount,
                   ReadDisconnectCount());
    } else if (!request.bReplyRead) {
        TRACE_INFO("ulDisconnectCount = %d  g_ServiceData.ClientPortDisconnectCount = %d status = 0x%x",
                   request.ulDisconnectCount, ReadDisconnectCount(), status);
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}

NTSTATUS ServiceRequest_ObjectRenameToManaged(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                              PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb)
{
    if (pstrPath == nullptr || !IsServiceRequestSidAcceptable(pstrSid)) {
        return STATUS_INVALID_PARAMETER;
    }
    return SendObjectInformationNotice(SERVICE_REQUEST_OBJECT_RENAME_TO_MANAGED, pstrSid, pstrPath, FltObjects, Iopb,
                                       FALSE, SERVICE_REPLY_LENGTH_OBJECT_RENAME_TO_MANAGED);
}
