// The user-mode filter library's port routines: FilterConnectCommunicationPort, FilterSendMessage,
// FilterGetMessage and FilterReplyMessage, over the port services of ntsim's Filter Manager, with
// their statuses turned into HRESULTs as the Win32 layer turns them.
#include <fltUser.h>

#include "../io/port_objects.hpp"

#include <ntsim/sim/verifier.hpp>

#include <string_view>

namespace {

// The Win32 error of a status, as the system converts the statuses that ports give; 0 when there
// is none in this table.
LONG Win32ErrorOf(NTSTATUS status)
{
    switch (status) {
    case STATUS_OBJECT_NAME_NOT_FOUND: return ERROR_FILE_NOT_FOUND;
    case STATUS_OBJECT_PATH_NOT_FOUND: return ERROR_PATH_NOT_FOUND;
    case STATUS_OBJECT_PATH_INVALID: return ERROR_BAD_PATHNAME;
    case STATUS_OBJECT_NAME_INVALID: return ERROR_INVALID_NAME;
    case STATUS_OBJECT_NAME_COLLISION: return ERROR_ALREADY_EXISTS;
    case STATUS_ACCESS_DENIED: return ERROR_ACCESS_DENIED;
    case STATUS_INVALID_HANDLE: return ERROR_INVALID_HANDLE;
    case STATUS_PORT_DISCONNECTED: return ERROR_INVALID_HANDLE;
    case STATUS_NO_MEMORY: return ERROR_NOT_ENOUGH_MEMORY;
    case STATUS_INSUFFICIENT_RESOURCES: return ERROR_NO_SYSTEM_RESOURCES;
    case STATUS_UNSUCCESSFUL: return ERROR_GEN_FAILURE;
    case STATUS_NOT_SUPPORTED: return ERROR_NOT_SUPPORTED;
    case STATUS_NOT_IMPLEMENTED: return ERROR_INVALID_FUNCTION;
    case STATUS_INVALID_DEVICE_REQUEST: return ERROR_INVALID_FUNCTION;
    case STATUS_INVALID_PARAMETER: return ERROR_INVALID_PARAMETER;
    case STATUS_BUFFER_TOO_SMALL: return ERROR_INSUFFICIENT_BUFFER;
    case STATUS_BUFFER_OVERFLOW: return ERROR_MORE_DATA;
    case STATUS_ACCESS_VIOLATION: return ERROR_NOACCESS;
    case STATUS_CANCELLED: return ERROR_OPERATION_ABORTED;
    case STATUS_NOT_FOUND: return ERROR_NOT_FOUND;
    case STATUS_CONNECTION_REFUSED: return ERROR_CONNECTION_REFUSED;
    case STATUS_CONNECTION_COUNT_LIMIT: return ERROR_CONNECTION_COUNT_LIMIT;
    default: return 0;
    }
}

HRESULT HResultOf(NTSTATUS status)
{
    if (NT_SUCCESS(status)) {
        return S_OK;
    }
    if (LONG error = Win32ErrorOf(status); error != 0) {
        return HRESULT_FROM_WIN32(error);
    }
    // Filter Manager statuses (facility 0x1C) have their errors in facility 0x1F.
    if ((static_cast<ULONG>(status) & 0x0FFF0000u) == 0x001C0000u) {
        return static_cast<HRESULT>(0x801F0000u | (static_cast<ULONG>(status) & 0xFFFFu));
    }
    return HRESULT_FROM_NT(status);
}

std::u16string_view NameOf(LPCWSTR name)
{
    const auto* text = reinterpret_cast<const char16_t*>(name);
    size_t length = 0;
    while (text[length] != u'\0') {
        ++length;
    }
    return {text, length};
}

}  // namespace

extern "C" {

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD dwOptions, LPCVOID lpContext,
                                              WORD wSizeOfContext, LPSECURITY_ATTRIBUTES, HANDLE* hPort)
{
    if (lpPortName == nullptr || hPort == nullptr || (dwOptions & ~FLT_PORT_FLAG_SYNC_HANDLE) != 0 ||
        (lpContext == nullptr) != (wSizeOfContext == 0)) {
        return E_INVALIDARG;
    }
    HANDLE handle = nullptr;
    NTSTATUS status = ntsim::ports::ConnectToPort(NameOf(lpPortName), lpContext, wSizeOfContext, &handle);
    if (!NT_SUCCESS(status)) {
        return HResultOf(status);
    }
    *hPort = handle;
    return S_OK;
}

HRESULT WINAPI FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID lpOutBuffer,
                                 DWORD dwOutBufferSize, LPDWORD lpBytesReturned)
{
    if (lpBytesReturned == nullptr) {
        return E_INVALIDARG;
    }
    ULONG returned = 0;
    NTSTATUS status =
        ntsim::ports::SendPortMessage(hPort, lpInBuffer, dwInBufferSize, lpOutBuffer, dwOutBufferSize, &returned);
    *lpBytesReturned = returned;
    return HResultOf(status);
}

HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                                LPOVERLAPPED lpOverlapped)
{
    if (lpOverlapped != nullptr) {
        ntsim::verifier::NotImplemented("FilterGetMessage with an OVERLAPPED");
        return E_NOTIMPL;
    }
    if (lpMessageBuffer == nullptr || dwMessageBufferSize < sizeof(FILTER_MESSAGE_HEADER)) {
        return E_INVALIDARG;
    }
    return HResultOf(ntsim::ports::GetPortMessage(hPort, lpMessageBuffer, dwMessageBufferSize));
}

HRESULT WINAPI FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer, DWORD dwReplyBufferSize)
{
    if (lpReplyBuffer == nullptr || dwReplyBufferSize < sizeof(FILTER_REPLY_HEADER)) {
        return E_INVALIDARG;
    }
    return HResultOf(ntsim::ports::ReplyPortMessage(hPort, lpReplyBuffer, dwReplyBufferSize));
}

}  // extern "C"
