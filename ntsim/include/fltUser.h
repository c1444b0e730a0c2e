// The user-mode side of Filter Manager communication ports (the SDK's fltUser.h), for ntsim.
//
// A service connects to a filter's server port by name and gets a port handle; it sends messages
// to the filter (FilterSendMessage), takes the filter's messages (FilterGetMessage) and answers
// them (FilterReplyMessage), and closes the port with CloseHandle. Calls are synchronous: an
// OVERLAPPED is not supported and fails loudly (E_NOTIMPL, and the verifier's NOT_IMPLEMENTED).
//
// Buffers that the platform copies from or to (FilterGetMessage, FilterReplyMessage) must be the
// calling process's user memory (HeapAlloc); others give HRESULT_FROM_WIN32(ERROR_NOACCESS).
// FilterSendMessage hands its buffers to the filter's message notification unchecked: the filter
// probes them.
//
// How a message and its reply map (see also docs/ports.md):
// - What FilterGetMessage returns is a FILTER_MESSAGE_HEADER followed by the bytes the filter sent.
//   ReplyLength is the filter's reply buffer size plus sizeof(FILTER_REPLY_HEADER) (16), or 0 when
//   the filter waits for no reply.
// - The service answers with a FILTER_REPLY_HEADER (MessageId from the message) followed by its
//   reply bytes. The filter's reply buffer receives the bytes that follow the header, from its
//   first byte on, up to the filter's reply buffer size; FltSendMessage's *ReplyLength is the
//   number that arrived. The header's Status is not passed on: FltSendMessage returns
//   STATUS_SUCCESS for every reply, and a protocol that wants a status carries it in its own bytes.
//   So a reply record laid out as the filter reads it goes after the 16-byte header, and a
//   dwReplyBufferSize of 16 + that record's length delivers it whole.
//
// HRESULTs, beyond S_OK; a status not listed here comes back as its Win32 error
// (HRESULT_FROM_WIN32), or as HRESULT_FROM_NT(status) when it has none:
// - FilterConnectCommunicationPort: ERROR_FILE_NOT_FOUND (0x80070002) no open server port of that
//   name; E_ACCESSDENIED (0x80070005) the port's security descriptor does not admit the caller;
//   ERROR_CONNECTION_COUNT_LIMIT (0x800704D6) the port has MaxConnections connections; E_INVALIDARG
//   for a context pointer without size or a size without pointer, an unknown option, or a null
//   port name or hPort; a failure of the filter's connect notification, converted.
// - FilterGetMessage: ERROR_INSUFFICIENT_BUFFER (0x8007007A) when the message is bigger than
//   dwMessageBufferSize - 16: the header and as much of the message as fits are written, and the
//   message counts as taken (its MessageId can be replied to; it is not offered again);
//   ERROR_OPERATION_ABORTED (0x800703E3) when the connection ended while the call waited (the
//   service closed the handle in another thread, or the filter closed the client port or
//   unloaded); ERROR_INVALID_HANDLE (0x80070006) on a handle that is no open port handle of the
//   process, or whose connection has ended; E_INVALIDARG for a buffer smaller than the header.
// - FilterReplyMessage: ERROR_FLT_NO_WAITER_FOR_REPLY (0x801F0020) when no filter thread waits for
//   a reply to that MessageId (it timed out, was terminated, was never sent, or was answered
//   already); ERROR_MORE_DATA (0x800700EA) when the reply is longer than the filter's buffer: the
//   filter got its buffer's worth and is answered; ERROR_INVALID_HANDLE as above; E_INVALIDARG for
//   a reply shorter than the header.
// - FilterSendMessage: the message notification's status, converted; *lpBytesReturned is what the
//   notification returned as ReturnOutputBufferLength on success, 0 on failure.
//   ERROR_INVALID_HANDLE as above; ERROR_INVALID_FUNCTION when the port has no message notification.
#pragma once

#include <windows.h>

#define FLT_PORT_FLAG_SYNC_HANDLE 0x00000001

typedef struct _FILTER_MESSAGE_HEADER {
    ULONG ReplyLength;
    ULONGLONG MessageId;
} FILTER_MESSAGE_HEADER, *PFILTER_MESSAGE_HEADER;

typedef struct _FILTER_REPLY_HEADER {
    NTSTATUS Status;
    ULONGLONG MessageId;
} FILTER_REPLY_HEADER, *PFILTER_REPLY_HEADER;

static_assert(sizeof(FILTER_MESSAGE_HEADER) == 16, "FILTER_MESSAGE_HEADER");
static_assert(FIELD_OFFSET(FILTER_MESSAGE_HEADER, ReplyLength) == 0, "FILTER_MESSAGE_HEADER");
static_assert(FIELD_OFFSET(FILTER_MESSAGE_HEADER, MessageId) == 8, "FILTER_MESSAGE_HEADER");
static_assert(sizeof(FILTER_REPLY_HEADER) == 16, "FILTER_REPLY_HEADER");
static_assert(FIELD_OFFSET(FILTER_REPLY_HEADER, Status) == 0, "FILTER_REPLY_HEADER");
static_assert(FIELD_OFFSET(FILTER_REPLY_HEADER, MessageId) == 8, "FILTER_REPLY_HEADER");

extern "C" {

// Connects to the server port lpPortName (L"\\Velmora_DriverPort"). lpContext/wSizeOfContext are
// handed to the connect notification (a copy); pass null and 0 for none. dwOptions is 0 or
// FLT_PORT_FLAG_SYNC_HANDLE; lpSecurityAttributes is ignored. The connect notification runs in
// the calling thread.
HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD dwOptions, LPCVOID lpContext,
                                              WORD wSizeOfContext, LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                                              HANDLE* hPort);

// Sends a message to the filter: its message notification runs in the calling thread with these
// buffers. lpBytesReturned is required.
HRESULT WINAPI FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID lpOutBuffer,
                                 DWORD dwOutBufferSize, LPDWORD lpBytesReturned);

// Waits (for ever) for the next message of the filter on this port; messages come in the order
// they were sent, and concurrent callers are served first come first served.
HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                                LPOVERLAPPED lpOverlapped);

// Answers the message lpReplyBuffer->MessageId with the dwReplyBufferSize - 16 bytes that follow
// the header.
HRESULT WINAPI FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer, DWORD dwReplyBufferSize);

}  // extern "C"
