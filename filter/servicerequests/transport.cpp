// The transport of a request over the Thread port, and the judgement of its result.
#include "servicerequests.h"

#include "trace.h"

NTSTATUS SendMessageToService(ServiceRequestMessage* pMessage, ULONG ulMessageLength, ServiceReply* pReply,
                              PULONG pulReplyLength, PLARGE_INTEGER pTimeout)
{
    NTSTATUS status = FltSendMessage(g_ServiceData.FilterHandle, &g_ServiceData.ThreadClientPort, pMessage,
                                     ulMessageLength, pReply, pulReplyLength, pTimeout);

    // A thread that is being terminated gets one more try; whatever that gives stands.
    if (status == STATUS_THREAD_IS_TERMINATING) {
        TRACE_WARNING("FltSendMessage failed with STATUS_THREAD_IS_TERMINATING, calling again..");
        status = FltSendMessage(g_ServiceData.FilterHandle, &g_ServiceData.ThreadClientPort, pMessage,
                                ulMessageLength, pReply, pulReplyLength, pTimeout);
    }
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("FltSendMessage failed with 0x%08X", status);
    }
    return status;
}

// Codes whose result is the send's own status: their reply's Status is never read.
static bool IsSendStatusTheResult(ULONG ulRequestCode)
{
    return ulRequestCode == SERVICE_REQUEST_OBJECT_EXISTS || ulRequestCode == SERVICE_REQUEST_OBJECT_INFORMATION;
}

NTSTATUS SendServiceRequest(ServiceRequest* pRequest, ULONG ulReplyLength)
{
    pRequest->bReplyRead = 0;
    pRequest->bDisconnected = 0;
    if (pRequest->pReply != nullptr) {
        FreeBufferAndClear((PVOID*)&pRequest->pReply);
    }
    pRequest->ulReplyLength = 0;

    ServiceReply* pReply = (ServiceReply*)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulReplyLength);
    if (pReply == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The whole buffer, not only its head: a service that answers short leaves zeros behind.
    RtlZeroMemory(pReply, ulReplyLength);
    pRequest->pReply = pReply;
    pRequest->ulReplyLength = ulReplyLength;

    // The length that comes back is not looked at.
    ULONG ulReturnedLength = ulReplyLength;
    NTSTATUS sendStatus = SendMessageToService(pRequest->pMessage, pRequest->pMessage->MessageLength, pReply,
                                               &ulReturnedLength, &pRequest->Timeout);
    pRequest->SendStatus = sendStatus;

    // The Thread port went away during the wait: whatever arrived belongs to no one.
    if (ReadDisconnectCount() != pRequest->ulDisconnectCount) {
        pRequest->bDisconnected = 1;
        return STATUS_UNSUCCESSFUL;
    }
    if (!NT_SUCCESS(sendStatus) || sendStatus == STATUS_TIMEOUT) {
        return sendStatus;
    }
    pRequest->bReplyRead = 1;
    if (IsSendStatusTheResult(pRequest->pMessage->RequestCode)) {
        return sendStatus;
    }
    return (NTSTATUS)pReply->Status;
}
