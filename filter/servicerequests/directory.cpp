// The directory requests: the service builds its listing of a directory and tells its length and a
// handle, and the listing is then fetched by that handle.
#include "servicerequests.h"

#include "trace.h"

NTSTATUS ServiceRequest_DirectoryContentsSize(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                              PCUNICODE_STRING pPattern, ULONG FileInformationClass,
                                              PULONG pulListingLength, PULONGLONG pullListingHandle,
                                              UCHAR bReturnSingleEntry)
{
    ServiceRequest request;
    NTSTATUS status;

    if (pulListingLength == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const BOOLEAN bHasPattern = pPattern != nullptr && pPattern->Buffer != nullptr;
    // Cut, a pattern would ask the service for other names than the caller's: it isn't sent.
    if (bHasPattern && pPattern->Length > SERVICE_REQUEST_FILTER_TEXT_MAX_BYTES) {
        TRACE_ERROR("Search pattern of %u bytes is too long for the request", (ULONG)pPattern->Length);
        return STATUS_NAME_TOO_LONG;
    }

    status = BeginServiceRequest(&request, SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, pstrSid, pstrPath, nullptr);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    {
        DirectoryContentsSizeArea* pArea = &request.pMessage->Area.DirectoryContentsSize;
        if (bHasPattern) {
            RtlCopyMemory(pArea->Filter, pPattern->Buffer, pPattern->Length);
        }
        pArea->FileInformationClass = FileInformationClass;
        pArea->bWantListingHandle = pullListingHandle != nullptr ? 1 : 0;
        pArea->bReturnSingleEntry = bReturnSingleEntry;
    }

    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS_SIZE);
    if (request.bReplyRead && NT_SUCCESS(status)) {
        if (pullListingHandle != nullptr) {
            *pullListingHandle = request.pReply->ListingHandle;
        }
        *pulListingLength = request.pReply->Payload.DirectoryContentsSize.ListingLength;
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}

NTSTATUS ServiceRequest_DirectoryContents(ULONGLONG ullListingHandle, PVOID pBuffer, ULONG ulLength)
{
    ServiceRequest request;
    NTSTATUS status;

    if (ullListingHandle == 0 || pBuffer == nullptr || ulLength == 0 || ulLength > MAXULONG - SERVICE_REPLY_HEAD_SIZE) {
        return STATUS_INVALID_PARAMETER;
    }

    // No SID and no path: the handle alone names the listing.
    status = BeginServiceRequest(&request, SERVICE_REQUEST_DIRECTORY_CONTENTS, nullptr, nullptr, nullptr);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    request.pMessage->Identity.Listing.ListingHandle = ullListingHandle;
    request.pMessage->Identity.Listing.ListingLength = ulLength;

    status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS(ulLength));
    if (request.bReplyRead && NT_SUCCESS(status)) {
        RtlCopyMemory(pBuffer, request.pReply->Payload.DirectoryContents.Listing, ulLength);
    }

Cleanup:
    EndServiceRequest(&request);
    return status;
}
