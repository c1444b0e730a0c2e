// The redirect request of an attribute-only open: the one reply whose length the filter can't know
// beforehand. The reply grows until the service's name fits in it.
#include "servicerequests.h"

#include "trace.h"

// The name of a redirect reply that fits, as a new zero-terminated OwnedString; null when out of
// memory. ulNameLength is even and at most SERVICE_REDIRECT_NAME_MAX_BYTES.
static OwnedString* TakeRedirectName(const RedirectAttributesPayload* pPayload, ULONG ulNameLength)
{
    OwnedString* pstrName = CreateUnicodeString(POOL_SELECTOR_NONPAGED, (USHORT)(ulNameLength + sizeof(WCHAR)));
    if (pstrName != nullptr) {
        pstrName->Length = (USHORT)ulNameLength;
        RtlCopyMemory(pstrName->Buffer, pPayload->Name, ulNameLength);
    }
    return pstrName;
}

NTSTATUS ServiceRequest_ObjectRedirectAttributes(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                                 PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb,
                                                 OwnedString** ppstrName, PUCHAR pbRedirected, PUCHAR pbReparse)
{
    ServiceRequest request;
    NTSTATUS status;
    BOOLEAN bAskAgain;

    if (ppstrName == nullptr || !IsServiceRequestSidAcceptable(pstrSid)) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG ulCapacity = SERVICE_REDIRECT_NAME_MIN_CAPACITY;
    if (pstrPath != nullptr && pstrPath->Length > ulCapacity) {
        ulCapacity = pstrPath->Length;
    }

    // One message for every turn: only its ReplyNameCapacity changes.
    status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    FillFileInformationBlock(pstrPath, FltObjects, Iopb, &request.pMessage->Area.RedirectAttributes.Information,
                             &request.pMessage->Area.RedirectAttributes.bMarkerStreamPresent);

    do {
        bAskAgain = FALSE;
        request.pMessage->Area.RedirectAttributes.ReplyNameCapacity = ulCapacity;
        status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(ulCapacity));
        if (!request.bReplyRead) {
            break;
        }
        const RedirectAttributesPayload* pPayload = &request.pReply->Payload.RedirectAttributes;
        if (pbRedirected != nullptr) {
            *pbRedirected = pPayload->bRedirected;
        }
        if (pbReparse != nullptr) {
            *pbReparse = pPayload->bReparse;
        }
        if (pPayload->bRedirected == 0) {
            break;
        }
        const ULONG ulNameLength = pPayload->NameLength;
        if ((ulNameLength & 1) != 0 || ulNameLength > SERVICE_REDIRECT_NAME_MAX_BYTES) {
            // No counted string can hold it; asking again would not help.
            TRACE_ERROR("Redirect name of %lu bytes refused", ulNameLength);
            status = STATUS_OBJECT_NAME_INVALID;
        } else if (ulNameLength > ulCapacity) {
            ulCapacity = ulNameLength;
            bAskAgain = TRUE;
        } else {
            *ppstrName = TakeRedirectName(pPayload, ulNameLength);
            if (*ppstrName == nullptr) {
                // The caller goes on without a name, as after a request that failed.
                status = STATUS_INSUFFICIENT_RESOURCES;
            }
        }
    } while (bAskAgain);

Cleanup:
    EndServiceRequest(&request);
    return status;
}
