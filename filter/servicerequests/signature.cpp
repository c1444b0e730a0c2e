// The signature request of an open for writing: the service names a signature that the upload at
// cleanup carries back.
#include "servicerequests.h"

// Characters of the reply's name field: the longest name and its zero character.
#define SIGNATURE_FIELD_CHARS (SERVICE_SIGNATURE_NAME_CHARS + 1)

// Copies the reply's name into pstrName when a zero character ends it within the field and it fits
// pstrName's buffer; otherwise pstrName stays as it was.
static VOID TakeSignatureName(const SignaturePayload* pPayload, PUNICODE_STRING pstrName)
{
    ULONG ulChars = 0;

    while (ulChars < SIGNATURE_FIELD_CHARS && pPayload->SignatureName[ulChars] != 0) {
        ulChars++;
    }
    if (ulChars == SIGNATURE_FIELD_CHARS || ulChars * sizeof(WCHAR) > pstrName->MaximumLength) {
        return;
    }
    pstrName->Length = (USHORT)(ulChars * sizeof(WCHAR));
    RtlCopyMemory(pstrName->Buffer, pPayload->SignatureName, pstrName->Length);
}

NTSTATUS ServiceRequest_ObjectSignature(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                        PUNICODE_STRING pstrSignatureName, PCFLT_RELATED_OBJECTS FltObjects,
                                        PFLT_IO_PARAMETER_BLOCK Iopb)
{
    ServiceRequest request;

    if (pstrPath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_SIGNATURE, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    if (Iopb != nullptr && Iopb->Parameters.Create.SecurityContext != nullptr) {
        request.pMessage->Area.Signature.DesiredAccess = Iopb->Parameters.Create.SecurityContext->DesiredAccess;
    }
    FillFileInformationBlock(pstrPath, FltObjects, Iopb, &request.pMessage->Area.Signature.Information, nullptr);

    // The name is taken whatever the reply's Status says; a caller drops it on a failure.
    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_SIGNATURE);
    if (request.bReplyRead && pstrSignatureName != nullptr && pstrSignatureName->Buffer != nullptr) {
        TakeSignatureName(&request.pReply->Payload.Signature, pstrSignatureName);
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}
