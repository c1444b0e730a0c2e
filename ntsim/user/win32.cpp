// Win32 handles, the last error and the process heap, for user-mode code on ntsim.
#include <windows.h>

#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>

#include <stdexcept>

namespace {

thread_local DWORD lastError = ERROR_SUCCESS;

// The one heap of every process: its handle only names the heap; blocks belong to the caller's process.
char processHeapTag;

}  // namespace

extern "C" {

BOOL WINAPI CloseHandle(HANDLE hObject)
{
    if (!NT_SUCCESS(ntsim::ob::CloseHandle(hObject, ntsim::CurrentPreviousMode()))) {
        lastError = ERROR_INVALID_HANDLE;
        return FALSE;
    }
    return TRUE;
}

DWORD WINAPI GetLastError(VOID)
{
    return lastError;
}

VOID WINAPI SetLastError(DWORD dwErrCode)
{
    lastError = dwErrCode;
}

HANDLE WINAPI GetProcessHeap(VOID)
{
    return &processHeapTag;
}

LPVOID WINAPI HeapAlloc(HANDLE hHeap, DWORD, SIZE_T dwBytes)
{
    ntsim::Process& process = ntsim::CurrentProcess();
    if (hHeap != &processHeapTag || dwBytes == 0 || process.Mode() != UserMode) {
        lastError = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    return process.AllocateUserMemory(dwBytes);  // zeroed
}

BOOL WINAPI HeapFree(HANDLE hHeap, DWORD, LPVOID lpMem)
{
    if (hHeap != &processHeapTag) {
        lastError = ERROR_INVALID_HANDLE;
        return FALSE;
    }
    if (lpMem == nullptr) {
        return TRUE;
    }
    try {
        ntsim::CurrentProcess().FreeUserMemory(lpMem);
    } catch (const std::invalid_argument&) {
        lastError = ERROR_INVALID_PARAMETER;  // not the start of a block of this process
        return FALSE;
    }
    return TRUE;
}

}  // extern "C"
