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
    UCHAR bDisconnected;              // 1 when the Thread port went away during the last send
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

// Writes basic and standard information into a message's file information block. A null pBasic
// writes the unknown pattern, a null pStandard a zero standard half. IRQL: any.
VOID StoreFileInformationBlock(const FILE_BASIC_INFORMATION* pBasic, const FILE_STANDARD_INFORMATION* pStandard,
                               FileInformationBlock* pBlock);

// Fills a message's file information block from GetFileInformation of pPath, at the filter of
// FltObjects and the target instance of Iopb, and its marker byte when pbMarkerStreamPresent is
// given. Any failure leaves the unknown pattern (and marker 0); without FltObjects or Iopb nothing
// is opened and the block holds the unknown pattern. IRQL: PASSIVE_LEVEL.
VOID FillFileInformationBlock(PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS FltObjects,
                              PFLT_IO_PARAMETER_BLOCK Iopb, FileInformationBlock* pBlock,
                              uint8_t* pbMarkerStreamPresent);

// Allocates a zeroed reply of ulReplyLength bytes (the previous send's reply is freed first), sends
// the message and judges the result by the first rule that matches:
// - the Thread port disconnected since the request began: STATUS_UNSUCCESSFUL, the reply unread
//   (bDisconnected says so);
// - the send failed, or timed out: its status (STATUS_TIMEOUT is not an error), the reply unread;
// - codes 1 and 14: the send's own status, the reply read whatever its Status says;
// - every other code: the reply's Status, the reply read.
// bReplyRead says whether the caller may take the payload. STATUS_INSUFFICIENT_RESOURCES when the
// reply can't be allocated (nothing sent). May be called again on the same message.
// IRQL: <= APC_LEVEL, no lock held.
NTSTATUS SendServiceRequest(ServiceRequest* pRequest, ULONG ulReplyLength);

// Frees the reply, then the message. IRQL: <= DISPATCH_LEVEL.
VOID EndServiceRequest(ServiceRequest* pRequest);

// ---- the requests ----
//
// Each runs the frame above. Common arguments: pstrSid is the user's SID text, pstrPath the device
// path (\Device\HarddiskVolume2\Data\a.txt) in the caller's case, FltObjects and Iopb the
// operation's; where a request carries a file information block, it comes from GetFileInformation
// of the path at FltObjects' filter and Iopb's target instance (the unknown pattern without them).
// A failed argument check returns STATUS_INVALID_PARAMETER with nothing allocated or sent.
// "The SID test" is IsServiceRequestSidAcceptable.
//
// Results: STATUS_UNSUCCESSFUL when the Thread port went away during the wait, the send's failure,
// STATUS_TIMEOUT (not an error) when the service didn't answer in 30 minutes, and otherwise the
// reply's Status (codes 1 and 14: the send's own status). Out values are written only from a reply
// that was read, as each routine says; callers set them first.
//
// IRQL: PASSIVE_LEVEL (those that open the file) or <= APC_LEVEL, no lock held.

// Code 1: whether the service holds the file. Reply bytes 16 and 17 go to *pbExists and
// *pbSecondFlag (each when given) whatever the reply's Status says; the result is the send's status.
NTSTATUS ServiceRequest_ObjectExists(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                     PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb, PUCHAR pbExists,
                                     PUCHAR pbSecondFlag);

// Code 2: a file the service holds is renamed out of the managed folders; bToRecycleBin when the
// destination lies in a recycle bin. Checks: pstrPath.
NTSTATUS ServiceRequest_ObjectRenameFromManaged(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                                UCHAR bToRecycleBin, PCFLT_RELATED_OBJECTS FltObjects,
                                                PFLT_IO_PARAMETER_BLOCK Iopb);

// Code 3: asks the service to bring the file's content to the disk before the open (Iopb, a create)
// goes on. The block is the caller's pBasic and pStandard (null ones: unknown pattern, zeros). The
// process id is ProcessId when it isn't 0, else the current one. On a reply whose Status isn't
// negative, reply bytes 16, 17 and 18 go to the three flags. Checks: pstrPath, the three flag
// pointers, FltObjects and Iopb.
NTSTATUS ServiceRequest_ObjectDownloadIfRequired(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                                 const FILE_BASIC_INFORMATION* pBasic,
                                                 const FILE_STANDARD_INFORMATION* pStandard,
                                                 UCHAR bMarkerStreamPresent, PUCHAR pbUploadCancelled,
                                                 PUCHAR pbLocked, PCFLT_RELATED_OBJECTS FltObjects,
                                                 PFLT_IO_PARAMETER_BLOCK Iopb, PUCHAR pbTrackDirtyBlocks,
                                                 HANDLE ProcessId);

// Code 4: asks the service to upload the file, with the signature name (may be null) as the
// message's second string. Checks: pstrPath, Iopb and its target instance.
NTSTATUS ServiceRequest_ObjectUploadIfRequired(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                               PCUNICODE_STRING pstrSignatureName, PFLT_IO_PARAMETER_BLOCK Iopb,
                                               PCFLT_RELATED_OBJECTS FltObjects);

// Code 7: the file was deleted. Checks: pstrPath.
NTSTATUS ServiceRequest_ObjectDeleted(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath);

// Code 8: a file was renamed; the block describes the new path. Checks: both paths.
NTSTATUS ServiceRequest_ObjectRename(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrOldPath,
                                     PCUNICODE_STRING pstrNewPath, PCFLT_RELATED_OBJECTS FltObjects,
                                     PFLT_IO_PARAMETER_BLOCK Iopb);

// Code 12: the signature name of a file opened for writing, with the open's desired access. When a
// reply was read and pstrSignatureName has a buffer: a name of at most SERVICE_SIGNATURE_NAME_CHARS
// characters ended by a zero within the reply's field is copied and sets its Length, whatever the
// reply's Status; a field without a zero, or a name longer than pstrSignatureName's MaximumLength,
// leaves it as it was. Checks: pstrPath.
NTSTATUS ServiceRequest_ObjectSignature(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                        PUNICODE_STRING pstrSignatureName, PCFLT_RELATED_OBJECTS FltObjects,
                                        PFLT_IO_PARAMETER_BLOCK Iopb);

// Code 14: the information of a file opened through a redirection, as the service has it. Reply
// bytes 16-55 go to *pBasic and 56-79 to *pStandard (each when given) whatever the reply's Status;
// the result is the send's status. Checks: at least one out.
NTSTATUS ServiceRequest_ObjectInformation(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                          PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb,
                                          PFILE_BASIC_INFORMATION pBasic, PFILE_STANDARD_INFORMATION pStandard);

// Code 16: whether the path is excluded from the service's care: a result of 0 says excluded, any
// other not. Checks: pstrPath, pstrSid, the SID test.
NTSTATUS ServiceRequest_ObjectIsExcludedFile(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                             PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb);

// Code 17: cancels an upload that the service held back. Checks: pstrPath, pstrSid, the SID test.
NTSTATUS ServiceRequest_ObjectCancelUpload(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                           PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb);

// Code 18: whether an attribute-only open is to be redirected, and where to. The reply has room for
// a name of the larger of the path's length and 260 bytes; a service that reports a longer name is
// asked again with room for it, as often as it does. From each reply read, bytes 21 and 20 go to
// *pbRedirected and *pbReparse (each when given) whatever its Status. When redirected with a name
// that fits, *ppstrName gets a new OwnedString (g_PoolType, the text zero-terminated) that the
// caller frees. A NameLength that no counted string can hold (odd, or above
// SERVICE_REDIRECT_NAME_MAX_BYTES) gives no name and STATUS_OBJECT_NAME_INVALID; a name that can't
// be allocated gives no name and STATUS_INSUFFICIENT_RESOURCES. Checks: ppstrName, pstrSid, the SID
// test.
NTSTATUS ServiceRequest_ObjectRedirectAttributes(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                                 PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb,
                                                 OwnedString** ppstrName, PUCHAR pbRedirected, PUCHAR pbReparse);

// Code 19: the file is being written. Checks: pstrPath, pstrSid, the SID test.
NTSTATUS ServiceRequest_ObjectWriteNotify(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath);

// Code 20: whether the path is read-only at the service. Reply byte 16 goes to *pbReadOnly (when
// given) whatever the reply's Status. Checks: pstrSid, the SID test.
NTSTATUS ServiceRequest_ObjectIsReadOnly(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath, PUCHAR pbReadOnly);

// Code 21: the file was created or replaced (bAttributesOnly 0), or its basic information was set
// (1). The reply's payload is not read. Checks: pstrPath, Iopb, its target instance and target file
// object.
NTSTATUS ServiceRequest_ObjectChanged(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                      PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb,
                                      UCHAR bAttributesOnly);

// Code 22: the file is no longer locked by an open. Checks: pstrPath, pstrSid, the SID test.
NTSTATUS ServiceRequest_ObjectIsLocked(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath);

// Code 23: a file from outside the managed folders was renamed into one; pstrPath is the new path.
// Checks: pstrPath, pstrSid, the SID test.
NTSTATUS ServiceRequest_ObjectRenameToManaged(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                              PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb);

// Code 5: has the service build its listing of the directory pstrPath in FileInformationClass,
// narrowed by pPattern (null or without a buffer: none), and tell its length and, when
// pullListingHandle is given, a handle to fetch it by. On a reply whose Status isn't negative the
// two outs are written. A pattern of more than SERVICE_REQUEST_FILTER_TEXT_MAX_BYTES (the field
// must keep its zero character) is refused with STATUS_NAME_TOO_LONG, nothing sent. Checks:
// pulListingLength.
NTSTATUS ServiceRequest_DirectoryContentsSize(PCUNICODE_STRING pstrSid, PCUNICODE_STRING pstrPath,
                                              PCUNICODE_STRING pPattern, ULONG FileInformationClass,
                                              PULONG pulListingLength, PULONGLONG pullListingHandle,
                                              UCHAR bReturnSingleEntry);

// Code 6: fetches ulLength bytes of the listing ullListingHandle names into pBuffer, which has room
// for them, on a reply whose Status isn't negative. Checks: all three non-zero, and a reply length
// (ulLength + 16) that fits a ULONG.
NTSTATUS ServiceRequest_DirectoryContents(ULONGLONG ullListingHandle, PVOID pBuffer, ULONG ulLength);
