// The filter's requests to the service: the message, its transport over the Thread port, and the
// frame that every request runs.
//
// A request is a synchronous call in the caller's thread: it blocks in FltSendMessage for up to
// 30 minutes, and no lock of the filter may be held across it. A request routine runs the frame:
//
//     if (<its argument checks fail>) return STATUS_INVALID_PARAMETER;      // nothing allocated
//     ServiceRequest request;
//     status = BeginServiceRequest(&request, code, pstrSid, pstrPath, nullptr);
//     if (!NT_SUCCESS(status)) return status;
//     FillFileInformationBlock(pstrPath, FltObjects, Iopb, &request.pMessage->Area.X.Information,
//                              &request.pMessage->Area.X.bMarkerStreamPresent);   // codes with a block
//     <set the code's other fields in request.pMessage->Area.X>
//     status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_X);
//     if (request.bReplyRead) { <take the payload from request.pReply> }
//     EndServiceRequest(&request);
//     return status;
#pragma once

#include <fltKernel.h>

#include "driver/globals.h"
#include "driver/ownedstring.h"
#include "servicemessages.h"

// The time-out of every request: 1800 seconds relative to now, in 100 ns units.
#define SERVICE_REQUEST_TIMEOUT (-18000000000ll)

// A new message of SERVICE_REQUEST_HEAD_SIZE bytes plus the lengths of the two strings, from
// g_PoolType, all zero but MessageLength, the strings and their lengths. For each string that is
// given and has a buffer, its byte length goes into the u32 at its offset in the message and its
// text into the tail: the first behind the head, the second behind the first. Either string may be
// null (its offset is then not used). Null when out of memory. The caller frees the message with
// FreeBuffer. IRQL: <= DISPATCH_LEVEL.
ServiceRequestMessage* AllocateServerRequestMessage(ULONG ulFirstLengthOffset, PCUNICODE_STRING pFirst,
                                                    ULONG ulSecondLengthOffset, PCUNICODE_STRING pSecond);

// Sends pMessage on the Thread port (g_ServiceData's FilterHandle and ThreadClientPort) and waits
// for the reply into pReply, *pulReplyLength bytes, up to pTimeout. A send that finds the thread
// being terminated is made once more, and that second result stands. Doesn't look at the reply.
// Returns what FltSendMessage returned: STATUS_TIMEOUT (not an error) when no reply came in time.
// IRQL: <= APC_LEVEL, no lock held.
NTSTATUS SendMessageToService(ServiceRequestMessage* pMessage, ULONG ulMessageLength, ServiceReply* pReply,
                              PULONG pulReplyLength, PLARGE_INTEGER pTimeout);

// One request in flight: its message, the reply of its last send, and what the frame noted.
typedef struct _ServiceRequest {
    ServiceRequestMessage* pMessage;  // owned; null once ended
    ServiceReply* pReply;             // owned: the last send's reply buffer
    ULONG ulReplyLength;              // bytes of pReply
    ULONG ulDisconnectCount;          // g_ServiceData.ClientPortDisconnectCount when the request began
    LARGE_INTEGER Timeout;            // SERVICE_REQUEST_TIMEOUT
    NTSTATUS SendStatus;              // what the last SendMessageToService returned
    UCHAR bReplyRead;                 // 1 when the last send's reply may be read
} ServiceRequest;

// The Thread port's disconnect count. The disconnect notification increments it in another thread,
// without a lock: a request only has to see that it changed while it waited. IRQL: any.
FORCEINLINE ULONG ReadDisconnectCount()
{
    return *(volatile ULONG*)&g_ServiceData.ClientPortDisconnectCount;
}

// The SID test of the requests that make it: a SID whose text, with the lowest bit of its length
// cleared, is shorter than SERVICE_REQUEST_SID_LIMIT_BYTES. False for a null SID. IRQL: any.
BOOLEAN IsServiceRequestSidAcceptable(PCUNICODE_STRING pstrSid);

// Begins a request: notes the disconnect count, sets the time-out, allocates the message with
// pstrPath as first string and pstrSecondString (codes 4 and 8; may be null) as second, and sets
// RequestCode, ProcessId and ThreadId (the current ones) and the SID's text (none when pstrSid is
// null). A SID longer than the field can hold is cut to fit it with its zero character.
// STATUS_INSUFFICIENT_RESOURCES when the message can't be allocated; *pRequest can be ended in
// every case. IRQL: <= APC_LEVEL.
NTSTATUS BeginServiceRequest(ServiceRequest* pRequest, ULONG ulRequestCode, PCUNICODE_STRING pstrSid,
                             PCUNICODE_STRING pstrPath, PCUNICODE_STRING pstrSecondString);

// Fills a message's file information block from GetFileInformation of pPath, at the filter of
// FltObjects and the target instance of Iopb, and its marker byte when pbMarkerStreamPresent is
// given. Any failure leaves the unknown pattern (and marker 0); without FltObjects or Iopb nothing
// is opened and the block holds the unknown pattern. IRQL: PASSIVE_LEVEL.
VOID FillFileInformationBlock(PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS FltObjects,
                              PFLT_IO_PARAMETER_BLOCK Iopb, FileInformationBlock* pBlock,
                              uint8_t* pbMarkerStreamPresent);

// Allocates a zeroed reply of ulReplyLength bytes (the previous send's reply is freed first), sends
// the message and judges the result by the first rule that matches:
// - the Thread port disconnected since the request began: STATUS_UNSUCCESSFUL, the reply unread;
// - the send failed, or timed out: its status (STATUS_TIMEOUT is not an error), the reply unread;
// - codes 1 and 14: the send's own status, the reply read whatever its Status says;
// - every other code: the reply's Status, the reply read.
// bReplyRead says whether the caller may take the payload. STATUS_INSUFFICIENT_RESOURCES when the
// reply can't be allocated (nothing sent). May be called again on the same message.
// IRQL: <= APC_LEVEL, no lock held.
NTSTATUS SendServiceRequest(ServiceRequest* pRequest, ULONG ulReplyLength);

// Frees the reply, then the message. IRQL: <= DISPATCH_LEVEL.
VOID EndServiceRequest(ServiceRequest* pRequest);
