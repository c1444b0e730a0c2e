// Communication ports of the Filter Manager (the minifilter side), under the WDK's names.
//
// A filter creates a named server port; a user-mode process connects to it by name
// (FilterConnectCommunicationPort, fltUser.h) and gets a handle; the filter gets a client port
// (PFLT_PORT) for that connection in its connect notification. The filter sends messages on a
// client port with FltSendMessage; the process sends messages to the filter with
// FilterSendMessage, which calls the message notification.
//
// ntsim's rules, where Windows leaves a point open:
// - A connection beyond MaxConnections is refused with STATUS_CONNECTION_COUNT_LIMIT. A connection
//   counts from its connect notification until it ends (the client's last handle closes, the
//   filter closes the client port, or the filter unregisters), whichever comes first.
// - A port whose ObjectAttributes carry a security descriptor admits only callers whose token
//   user (the impersonation token if there is one, else the process's) is granted FLT_PORT_CONNECT
//   by an access-allowed entry of its DACL; others get STATUS_ACCESS_DENIED. The descriptor of
//   FltBuildDefaultSecurityDescriptor admits S-1-5-18 (Local System) and S-1-5-32-544. A null
//   descriptor admits everyone. The descriptor is copied: the caller may free it at once.
// - The disconnect notification runs once per connection, at the first of: the client's handle
//   count reaching zero (in the closing thread), or FltUnregisterFilter of the port's filter (in
//   the unregistering thread). A connection that the filter closed itself with FltCloseClientPort
//   gets no disconnect notification.
// - FltUnregisterFilter expects the filter to have closed its server ports and, by the time the
//   disconnect notifications have run, every client port; the verifier reports what is left
//   (FLT_SERVER_PORT_LEFT_OPEN, FLT_CLIENT_PORT_LEFT_OPEN) and closes it.
//
// Every notification runs at PASSIVE_LEVEL in the thread of the caller that caused it, with the
// caller's process and previous mode.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include "fltmgr.h"

// ---- notifications ----

// A process connects. ClientPort is the new connection's port, valid until FltCloseClientPort.
// ConnectionContext/SizeOfContext are a kernel copy of what the client passed (null and 0 when it
// passed none); the copy lives for the call. The cookie stored in *ConnectionPortCookie comes back
// to the disconnect and message notifications. A failure status refuses the connection.
typedef NTSTATUS FLTAPI FLT_CONNECT_NOTIFY(PFLT_PORT ClientPort, PVOID ServerPortCookie, PVOID ConnectionContext,
                                           ULONG SizeOfContext, PVOID* ConnectionPortCookie);
typedef FLT_CONNECT_NOTIFY* PFLT_CONNECT_NOTIFY;

// A connection ended: the client's last handle closed, or the filter is unregistering. The filter
// is expected to call FltCloseClientPort on the connection's port.
typedef VOID FLTAPI FLT_DISCONNECT_NOTIFY(PVOID ConnectionCookie);
typedef FLT_DISCONNECT_NOTIFY* PFLT_DISCONNECT_NOTIFY;

// A message from the client (FilterSendMessage). InputBuffer and OutputBuffer are the caller's
// user-mode addresses, passed through unchecked: the filter probes them and touches them only
// under an exception guard. *ReturnOutputBufferLength starts at 0 and becomes the caller's
// *lpBytesReturned when the result is a success.
typedef NTSTATUS FLTAPI FLT_MESSAGE_NOTIFY(PVOID PortCookie, PVOID InputBuffer, ULONG InputBufferLength,
                                           PVOID OutputBuffer, ULONG OutputBufferLength,
                                           PULONG ReturnOutputBufferLength);
typedef FLT_MESSAGE_NOTIFY* PFLT_MESSAGE_NOTIFY;

extern "C" {

// Creates the server port named by ObjectAttributes->ObjectName, which needs OBJ_KERNEL_HANDLE in
// its Attributes (else STATUS_INVALID_PARAMETER). MaxConnections must be above 0, and the connect
// and disconnect notifications must be given (STATUS_INVALID_PARAMETER); MessageNotifyCallback may
// be null, and FilterSendMessage on such a port fails with STATUS_INVALID_DEVICE_REQUEST. A name in
// use by another open server port gives STATUS_OBJECT_NAME_COLLISION. Names compare without regard
// to case. A fault-injection point. PASSIVE_LEVEL.
NTSTATUS FLTAPI FltCreateCommunicationPort(PFLT_FILTER Filter, PFLT_PORT* ServerPort,
                                           POBJECT_ATTRIBUTES ObjectAttributes, PVOID ServerPortCookie,
                                           PFLT_CONNECT_NOTIFY ConnectNotifyCallback,
                                           PFLT_DISCONNECT_NOTIFY DisconnectNotifyCallback,
                                           PFLT_MESSAGE_NOTIFY MessageNotifyCallback, LONG MaxConnections);

// Closes a server port: its name goes, new connections are refused (the client sees the name as
// not found), and the connections made through it stay as they are. PASSIVE_LEVEL.
VOID FLTAPI FltCloseCommunicationPort(PFLT_PORT ServerPort);

// Closes the client port in *ClientPort and sets *ClientPort to null, under the lock that
// FltSendMessage reads it under. A null *ClientPort is allowed and does nothing. Senders waiting
// on the port return STATUS_PORT_DISCONNECTED, the client's waiting FilterGetMessage calls end,
// and no disconnect notification follows. PASSIVE_LEVEL.
VOID FLTAPI FltCloseClientPort(PFLT_FILTER Filter, PFLT_PORT* ClientPort);

// Sends SenderBuffer (copied at the call) to the client of *ClientPort, which *ClientPort is read
// for under the port lock, and blocks the calling thread:
// - with a Reply buffer, until the client answers with FilterReplyMessage: *ReplyLength (the
//   buffer's size on entry) becomes the number of reply bytes that arrived, and the result is
//   STATUS_SUCCESS;
// - without one (Reply null), until the client has taken the message with FilterGetMessage.
// Timeout on the virtual clock: null waits for ever, negative is relative in 100 ns units,
// positive is an absolute system time, zero only succeeds if the message can be taken at once.
// Results besides: STATUS_TIMEOUT (a success code) when the message was not taken or not answered
// in time (a later reply is refused to the client); STATUS_PORT_DISCONNECTED when *ClientPort is
// null, closed, or its connection ends during the wait; STATUS_THREAD_IS_TERMINATING when the
// waiting thread is being terminated (ntsim::ports::TerminateWaits); STATUS_INVALID_PARAMETER for
// a null ClientPort, or a Reply without ReplyLength. The verifier reports a call made while the
// thread holds any lock (LOCK_HELD_DURING_SERVICE_WAIT) or above APC_LEVEL. A fault-injection
// point, checked first.
NTSTATUS FLTAPI FltSendMessage(PFLT_FILTER Filter, PFLT_PORT* ClientPort, PVOID SenderBuffer, ULONG SenderBufferLength,
                               PVOID ReplyBuffer, PULONG ReplyLength, PLARGE_INTEGER Timeout);

}  // extern "C"
