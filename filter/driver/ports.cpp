// The server port and its three notifications.
#include "ports.h"

#include "configuration.h"
#include "dirtyblocktracking.h"
#include "globals.h"
#include "locks.h"
#include "ownedstring.h"
#include "servicemessages.h"
#include "trace.h"
#include "traceprovider.h"

// Connection cookies: the addresses of two words tell the client ports apart; the values are
// never read.
static const ULONG ThreadPortCookie = 1;
static const ULONG ConfigPortCookie = 2;

// The filter takes one client port of each kind at a time: a slot holds the one port of its kind,
// and its disconnect closes that port. A second connection of a kind is refused while the first
// stands, so no client port is ever left without a slot that closes it. A kind is claimed from
// its connect to the end of its disconnect, under g_ConfigLock; FltCloseClientPort runs outside
// the lock and is what empties the slot.
static UCHAR g_bThreadPortClaimed;
static UCHAR g_bConfigPortClaimed;

// Claims a kind for a new connection: FALSE when a connection of that kind stands.
static BOOLEAN ClaimPortKind(UCHAR* pbClaimed)
{
    BOOLEAN bClaimed = FALSE;
    AcquireLockExclusive(g_ConfigLock);
    if (!*pbClaimed) {
        *pbClaimed = 1;
        bClaimed = TRUE;
    }
    ReleaseLock(g_ConfigLock);
    return bClaimed;
}

static VOID ReleasePortKind(UCHAR* pbClaimed)
{
    AcquireLockExclusive(g_ConfigLock);
    *pbClaimed = 0;
    ReleaseLock(g_ConfigLock);
}

NTSTATUS CreateServicePort(PSECURITY_DESCRIPTOR pSecurityDescriptor)
{
    UNICODE_STRING portName;
    RtlInitUnicodeString(&portName, FOLDERMERGE_PORT_NAME);
    g_bThreadPortClaimed = 0;
    g_bConfigPortClaimed = 0;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &portName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr,
                               pSecurityDescriptor);
    return FltCreateCommunicationPort(g_ServiceData.FilterHandle, &g_ServiceData.ServerPort, &attributes, nullptr,
                                      FolderMergeService_Connect, FolderMergeService_Disconnect,
                                      FolderMergeService_Message, FOLDERMERGE_MAX_CONNECTIONS);
}

VOID CloseServicePort()
{
    if (g_ServiceData.ServerPort != nullptr) {
        FltCloseCommunicationPort(g_ServiceData.ServerPort);
        g_ServiceData.ServerPort = nullptr;
    }
}

NTSTATUS FLTAPI FolderMergeService_Connect(PFLT_PORT ClientPort, PVOID ServerPortCookie, PVOID ConnectionContext,
                                          ULONG SizeOfContext, PVOID* ConnectionPortCookie)
{
    UNREFERENCED_PARAMETER(ServerPortCookie);
    if (ConnectionContext != nullptr && SizeOfContext == THREAD_PORT_CONTEXT_SIZE) {
        if (!ClaimPortKind(&g_bThreadPortClaimed)) {
            TRACE_ERROR("Thread port connection refused: a Thread port is connected");
            return STATUS_CONNECTION_REFUSED;
        }
        *ConnectionPortCookie = (PVOID)&ThreadPortCookie;
        g_ServiceData.ThreadClientPort = ClientPort;
    } else {
        if (!ClaimPortKind(&g_bConfigPortClaimed)) {
            TRACE_ERROR("Config port connection refused: a Config port is connected");
            return STATUS_CONNECTION_REFUSED;
        }
        *ConnectionPortCookie = (PVOID)&ConfigPortCookie;
        g_ServiceData.ConfigClientPort = ClientPort;
    }
    g_ServiceData.ServiceProcess = IoGetCurrentProcess();
    return STATUS_SUCCESS;
}

VOID FLTAPI FolderMergeService_Disconnect(PVOID ConnectionCookie)
{
    if (ConnectionCookie == &ThreadPortCookie) {
        TRACE_INFO("Thread port disconnected");
        FltCloseClientPort(g_ServiceData.FilterHandle, &g_ServiceData.ThreadClientPort);
        // A service request in flight sees the count change and fails.
        g_ServiceData.ClientPortDisconnectCount++;
        ReleasePortKind(&g_bThreadPortClaimed);
    } else if (ConnectionCookie == &ConfigPortCookie) {
        TRACE_INFO("Config port disconnected");
        FltCloseClientPort(g_ServiceData.FilterHandle, &g_ServiceData.ConfigClientPort);
        (VOID) ClearConfiguration();
        TRACE_INFO("ENTERING PASS-THROUGH MODE");
        g_PassThrough = 1;
        // Only now may the next Config port come: its configuration must find the mode set.
        ReleasePortKind(&g_bConfigPortClaimed);
    }
}

NTSTATUS FLTAPI FolderMergeService_Message(PVOID PortCookie, PVOID InputBuffer, ULONG InputBufferLength,
                                          PVOID OutputBuffer, ULONG OutputBufferLength,
                                          PULONG ReturnOutputBufferLength)
{
    UNREFERENCED_PARAMETER(PortCookie);
    NTSTATUS status = STATUS_SUCCESS;
    ULONG ulCode = 0;
    PVOID pOutputCopy = nullptr;
    ULONG ulReplyLength = 0;

    if (InputBuffer == nullptr || InputBufferLength < CONTROL_MESSAGE_MIN_SIZE) {
        return STATUS_INVALID_PARAMETER;
    }
    // The buffers are the sending process's memory: probed here, touched only under a guard.
    __try {
        ProbeForRead(InputBuffer, InputBufferLength, 1);
        ulCode = *(const ULONG*)InputBuffer;
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return GetExceptionCode();
    }

    // The handlers work on a zeroed kernel copy of the output buffer, never on the caller's memory.
    if (OutputBuffer != nullptr && OutputBufferLength != 0) {
        pOutputCopy = AllocateBuffer(POOL_SELECTOR_NONPAGED, OutputBufferLength);
        if (pOutputCopy == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(pOutputCopy, OutputBufferLength);
    }

    switch (ulCode) {
    case CONTROL_SET_CONFIGURATION:
        (VOID) ClearConfiguration();
        status = InputBufferLength >= sizeof(SetConfigurationMessage)
                     ? SetConfiguration((SetConfigurationMessage*)InputBuffer)
                     : STATUS_INVALID_PARAMETER;
        // A configuration message ends pass-through mode whatever it set.
        if (g_PassThrough) {
            TRACE_INFO("EXITING PASS-THROUGH MODE");
            g_PassThrough = 0;
        }
        break;
    case CONTROL_SET_TRACING_ENABLED: {
        // The handler reads a kernel copy: bEnable lies past the 8 bytes checked above.
        SetTracingEnabledMessage message;
        if (InputBufferLength < sizeof(SetTracingEnabledMessage)) {
            status = STATUS_INVALID_PARAMETER;
            break;
        }
        __try {
            RtlCopyMemory(&message, InputBuffer, sizeof(message));
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            status = GetExceptionCode();
            break;
        }
        status = SetTracingEnabled(&message);
        break;
    }
    case CONTROL_REQUEST_DIRTY_BLOCK_MAP:
    case CONTROL_REQUEST_DIRTY_BLOCK_COUNT:
        // Both answer in the output buffer: without one they fail, with nothing allocated.
        if (pOutputCopy == nullptr) {
            status = STATUS_INVALID_PARAMETER;
            break;
        }
        status = ulCode == CONTROL_REQUEST_DIRTY_BLOCK_MAP
                     ? RequestDirtyBlockMap(InputBuffer, InputBufferLength, pOutputCopy, OutputBufferLength,
                                            &ulReplyLength)
                     : RequestDirtyBlockCount(InputBuffer, InputBufferLength, pOutputCopy, OutputBufferLength,
                                              &ulReplyLength);
        if (ReturnOutputBufferLength != nullptr) {
            *ReturnOutputBufferLength = ulReplyLength;
        }
        break;
    default:
        break;
    }

    if (pOutputCopy != nullptr) {
        if (NT_SUCCESS(status)) {
            __try {
                ProbeForWrite(OutputBuffer, OutputBufferLength, 1);
                RtlCopyMemory(OutputBuffer, pOutputCopy, OutputBufferLength);
            } __except (EXCEPTION_EXECUTE_HANDLER) {
                status = GetExceptionCode();
            }
        }
        FreeBuffer(pOutputCopy);
    }
    return status;
}
