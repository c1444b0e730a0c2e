// The object requests whose reply carries values for the caller: whether the service holds a file,
// the information it has of one, and whether a path is read-only. Their payload is taken whatever
// the reply's Status says.
#include "servicerequests.h"

// The reply's information is copied into the published structures as it stands.
static_assert(sizeof(FILE_BASIC_INFORMATION) == sizeof(ServiceBasicInformation), "basic information layout");
static_assert(sizeof(FILE_STANDARD_INFORMATION) == sizeof(ServiceStandardInformation), "standard information layout");

NTSTATUS ServiceRequest_ObjectExists(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                     PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb, PUCHAR pbExists,
                                     PUCHAR pbSecondFlag)
{
    ServiceRequest request;

    NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_EXISTS, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    FillFileInformationBlock(pstrPath, FltObjects, Iopb, &request.pMessage->Area.ObjectInformation.Information,
                             &request.pMessage->Area.ObjectInformation.bMarkerStreamPresent);

    // The result is the send's own status; the reply's Status is never read.
    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_EXISTS);
    if (request.bReplyRead) {
        if (pbExists != nullptr) {
            *pbExists = request.pReply->Payload.ObjectExists.bExists;
        }
        if (pbSecondFlag != nullptr) {
            *pbSecondFlag = request.pReply->Payload.ObjectExists.bSecondFlag;
        }
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}

NTSTATUS ServiceRequest_ObjectInformation(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                          PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb,
                                          PFILE_BASIC_INFORMATION pBasic, PFILE_STANDARD_INFORMATION pStandard)
{
    ServiceRequest request;

    if (pBasic == nullptr && pStandard == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_INFORMATION, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    FillFileInformationBlock(pstrPath, FltObjects, Iopb, &request.pMessage->Area.ObjectInformation.Information,
                             nullptr);

    // As for code 1: the send's status is the result, the payload is taken as it stands.
    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_INFORMATION);
    if (request.bReplyRead) {
        if (pBasic != nullptr) {
            RtlCopyMemory(pBasic, &request.pReply->Payload.ObjectInformation.Basic, sizeof(*pBasic));
        }
        if (pStandard != nullptr) {
            RtlCopyMemory(pStandard, &request.pReply->Payload.ObjectInformation.Standard, sizeof(*pStandard));
        }
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}

NTSTATUS ServiceRequest_ObjectIsReadOnly(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath, PUCHAR pbReadOnly)
{
    ServiceRequest request;

    if (!IsServiceRequestSidAcceptable(pstrSid)) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_READ_ONLY, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // The flag counts even from a reply that refuses: the result is its Status all the same.
    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_IS_READ_ONLY);
    if (request.bReplyRead && pbReadOnly != nullptr) {
        *pbReadOnly = request.pReply->Payload.IsReadOnly.bReadOnly;
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}
