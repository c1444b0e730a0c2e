// The subset of the Win32 API (windows.h, winerror.h) that user-mode code on ntsim uses: HRESULTs
// and error codes, handles, and heap memory.
//
// A simulated user process owns the memory that the kernel accepts from it: HeapAlloc (and so
// every buffer a service passes through a port) takes a block of the calling thread's simulated
// process (ntsim::Process::AllocateUserMemory), which ProbeForRead/ProbeForWrite accept in that
// process's threads only. Memory from malloc or new is not user memory of any simulated process.
#pragma once

#include "ntsim/ntdef.h"

typedef void* LPVOID;
typedef const void* LPCVOID;
typedef DWORD* LPDWORD;

typedef struct _OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *PSECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)

// ---- HRESULTs ----
#define S_OK ((HRESULT)0)
#define S_FALSE ((HRESULT)1)
#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)
#define FACILITY_WIN32 7
#define FACILITY_NT_BIT 0x10000000
#define HRESULT_CODE(hr) ((hr) & 0xFFFF)
#define HRESULT_FACILITY(hr) (((hr) >> 16) & 0x1FFF)
#define HRESULT_FROM_NT(x) ((HRESULT)((x) | FACILITY_NT_BIT))

// A Win32 error code as an HRESULT; a value that is an HRESULT already (zero or negative) stays.
inline HRESULT HRESULT_FROM_WIN32(LONG x)
{
    return x <= 0 ? (HRESULT)x : (HRESULT)((((ULONG)x) & 0x0000FFFF) | (FACILITY_WIN32 << 16) | 0x80000000u);
}

#define E_NOTIMPL ((HRESULT)0x80004001L)
#define E_FAIL ((HRESULT)0x80004005L)
#define E_ACCESSDENIED ((HRESULT)0x80070005L)
#define E_HANDLE ((HRESULT)0x80070006L)
#define E_OUTOFMEMORY ((HRESULT)0x8007000EL)
#define E_INVALIDARG ((HRESULT)0x80070057L)

// ---- Win32 error codes ----
#define ERROR_SUCCESS 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_GEN_FAILURE 31L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_BAD_PATHNAME 161L
#define ERROR_ALREADY_EXISTS 183L
#define ERROR_MORE_DATA 234L
#define WAIT_TIMEOUT 258L
#define ERROR_OPERATION_ABORTED 995L
#define ERROR_NOACCESS 998L
#define ERROR_NOT_FOUND 1168L
#define ERROR_CONNECTION_REFUSED 1225L
#define ERROR_CONNECTION_COUNT_LIMIT 1238L
#define ERROR_NO_SYSTEM_RESOURCES 1450L
// Filter Manager errors are HRESULTs of facility 0x1F (winerror.h).
#define ERROR_FLT_NO_WAITER_FOR_REPLY ((HRESULT)0x801F0020L)

// ---- heap ----
#define HEAP_ZERO_MEMORY 0x00000008

extern "C" {

// Closes a handle of the calling process (a port handle, for instance). FALSE and
// ERROR_INVALID_HANDLE for one that is not open.
BOOL WINAPI CloseHandle(HANDLE hObject);

// The calling thread's last error, as the routines above set it.
DWORD WINAPI GetLastError(VOID);
VOID WINAPI SetLastError(DWORD dwErrCode);

// The calling process's heap: blocks of its simulated user memory, always zeroed. HeapAlloc gives
// null (ERROR_NOT_ENOUGH_MEMORY) for size 0 and in a thread of no user process.
HANDLE WINAPI GetProcessHeap(VOID);
LPVOID WINAPI HeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes);
BOOL WINAPI HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem);

}  // extern "C"
