// The request message: its allocation, the fields every request sets, and the information block.
#include "servicerequests.h"

#include "fileaccess.h"

// The SID text ends at the field's first zero character, which the zero fill must supply.
#define SERVICE_REQUEST_SID_TEXT_MAX_BYTES (SERVICE_REQUEST_SID_FIELD_BYTES - sizeof(WCHAR))

static bool HasText(PCUNICODE_STRING pString)
{
    return pString != nullptr && pString->Buffer != nullptr;
}

ServiceRequestMessage* AllocateServerRequestMessage(ULONG ulFirstLengthOffset, PCUNICODE_STRING pFirst,
                                                    ULONG ulSecondLengthOffset, PCUNICODE_STRING pSecond)
{
    ULONG ulFirstLength = HasText(pFirst) ? pFirst->Length : 0;
    ULONG ulSecondLength = HasText(pSecond) ? pSecond->Length : 0;
    ULONG ulMessageLength = SERVICE_REQUEST_HEAD_SIZE + ulFirstLength + ulSecondLength;

    PUCHAR pBytes = (PUCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulMessageLength);
    if (pBytes == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(pBytes, ulMessageLength);

    ServiceRequestMessage* pMessage = (ServiceRequestMessage*)pBytes;
    pMessage->MessageLength = ulMessageLength;
    if (HasText(pFirst)) {
        RtlCopyMemory(pBytes + ulFirstLengthOffset, &ulFirstLength, sizeof(ULONG));
        RtlCopyMemory(pBytes + SERVICE_REQUEST_HEAD_SIZE, pFirst->Buffer, ulFirstLength);
    }
    if (HasText(pSecond)) {
        RtlCopyMemory(pBytes + ulSecondLengthOffset, &ulSecondLength, sizeof(ULONG));
        RtlCopyMemory(pBytes + SERVICE_REQUEST_HEAD_SIZE + ulFirstLength, pSecond->Buffer, ulSecondLength);
    }
    return pMessage;
}

BOOLEAN IsServiceRequestSidAcceptable(PCUNICODE_STRING pstrSid)
{
    return pstrSid != nullptr && (pstrSid->Length & ~1u) < SERVICE_REQUEST_SID_LIMIT_BYTES;
}

NTSTATUS BeginServiceRequest(ServiceRequest* pRequest, ULONG ulRequestCode, PCUNICODE_STRING pstrSid,
                             PCUNICODE_STRING pstrPath, PCUNICODE_STRING pstrSecondString)
{
    RtlZeroMemory(pRequest, sizeof(*pRequest));

    // The count is noted before anything else: a disconnect from here on voids the reply.
    pRequest->ulDisconnectCount = ReadDisconnectCount();
    pRequest->Timeout.QuadPart = SERVICE_REQUEST_TIMEOUT;

    ServiceRequestMessage* pMessage = AllocateServerRequestMessage(
        SERVICE_REQUEST_PATH_LENGTH_OFFSET, pstrPath, SERVICE_REQUEST_SECOND_LENGTH_OFFSET, pstrSecondString);
    if (pMessage == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    pMessage->RequestCode = ulRequestCode;
    pMessage->ProcessId = (uint64_t)(ULONG_PTR)PsGetCurrentProcessId();
    pMessage->ThreadId = (uint64_t)(ULONG_PTR)PsGetCurrentThreadId();
    if (HasText(pstrSid)) {
        USHORT usSidBytes = pstrSid->Length & ~1u;
        if (usSidBytes > SERVICE_REQUEST_SID_TEXT_MAX_BYTES) {
            usSidBytes = SERVICE_REQUEST_SID_TEXT_MAX_BYTES;
        }
        RtlCopyMemory(pMessage->Identity.Sid, pstrSid->Buffer, usSidBytes);
    }
    pRequest->pMessage = pMessage;
    return STATUS_SUCCESS;
}

VOID StoreFileInformationBlock(const FILE_BASIC_INFORMATION* pBasic, const FILE_STANDARD_INFORMATION* pStandard,
                               FileInformationBlock* pBlock)
{
    RtlZeroMemory(pBlock, sizeof(*pBlock));
    if (pBasic != nullptr) {
        pBlock->Basic.CreationTime = pBasic->CreationTime.QuadPart;
        pBlock->Basic.LastAccessTime = pBasic->LastAccessTime.QuadPart;
        pBlock->Basic.LastWriteTime = pBasic->LastWriteTime.QuadPart;
        pBlock->Basic.ChangeTime = pBasic->ChangeTime.QuadPart;
        pBlock->Basic.FileAttributes = pBasic->FileAttributes;
    } else {
        pBlock->Basic.CreationTime = FILE_TIME_UNKNOWN;
        pBlock->Basic.LastAccessTime = FILE_TIME_UNKNOWN;
        pBlock->Basic.LastWriteTime = FILE_TIME_UNKNOWN;
        pBlock->Basic.ChangeTime = FILE_TIME_UNKNOWN;
        pBlock->Basic.FileAttributes = FILE_ATTRIBUTES_UNKNOWN;
    }
    if (pStandard != nullptr) {
        pBlock->Standard.AllocationSize = pStandard->AllocationSize.QuadPart;
        pBlock->Standard.EndOfFile = pStandard->EndOfFile.QuadPart;
        pBlock->Standard.NumberOfLinks = pStandard->NumberOfLinks;
        pBlock->Standard.DeletePending = pStandard->DeletePending;
        pBlock->Standard.Directory = pStandard->Directory;
    }
}

VOID FillFileInformationBlock(PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS FltObjects,
                              PFLT_IO_PARAMETER_BLOCK Iopb, FileInformationBlock* pBlock,
                              uint8_t* pbMarkerStreamPresent)
{
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    UCHAR bMarkerStreamPresent = 0;

    SetUnknownFileInformation(&basic);
    RtlZeroMemory(&standard, sizeof(standard));

    // Its result is of no interest: on any failure the outs hold the unknown pattern.
    if (FltObjects != nullptr && Iopb != nullptr) {
        (VOID) GetFileInformation(pPath, FltObjects->Filter, Iopb->TargetInstance, &basic, &standard,
                                  pbMarkerStreamPresent != nullptr ? &bMarkerStreamPresent : nullptr);
    }

    StoreFileInformationBlock(&basic, &standard, pBlock);
    if (pbMarkerStreamPresent != nullptr) {
        *pbMarkerStreamPresent = bMarkerStreamPresent;
    }
}

VOID EndServiceRequest(ServiceRequest* pRequest)
{
    if (pRequest->pReply != nullptr) {
        FreeBufferAndClear((PVOID*)&pRequest->pReply);
    }
    if (pRequest->pMessage != nullptr) {
        FreeBufferAndClear((PVOID*)&pRequest->pMessage);
    }
    pRequest->bReplyRead = 0;
    pRequest->bDisconnected = 0;
}
