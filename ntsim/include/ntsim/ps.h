// Processes and threads, under the WDK's names. EPROCESS and ETHREAD are opaque: a driver only
// compares and passes their pointers. Each simulated thread belongs to a process; a thread that
// never attached to one runs as a thread of the System process (id 4, kernel mode).
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

typedef struct _EPROCESS* PEPROCESS;
typedef struct _ETHREAD* PETHREAD;
typedef struct _KTHREAD* PKTHREAD, *PRKTHREAD;

// Pseudo-handles that every routine taking a process or thread handle accepts.
#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define ZwCurrentProcess() NtCurrentProcess()
#define NtCurrentThread() ((HANDLE)(LONG_PTR)-2)
#define ZwCurrentThread() NtCurrentThread()

// Process information classes. ntsim answers ProcessBasicInformation and ProcessImageFileName.
typedef enum _PROCESSINFOCLASS {
    ProcessBasicInformation = 0,
    ProcessQuotaLimits = 1,
    ProcessIoCounters = 2,
    ProcessVmCounters = 3,
    ProcessTimes = 4,
    ProcessBasePriority = 5,
    ProcessRaisePriority = 6,
    ProcessDebugPort = 7,
    ProcessExceptionPort = 8,
    ProcessAccessToken = 9,
    ProcessLdtInformation = 10,
    ProcessLdtSize = 11,
    ProcessDefaultHardErrorMode = 12,
    ProcessIoPortHandlers = 13,
    ProcessPooledUsageAndLimits = 14,
    ProcessWorkingSetWatch = 15,
    ProcessUserModeIOPL = 16,
    ProcessEnableAlignmentFaultFixup = 17,
    ProcessPriorityClass = 18,
    ProcessWx86Information = 19,
    ProcessHandleCount = 20,
    ProcessAffinityMask = 21,
    ProcessPriorityBoost = 22,
    ProcessDeviceMap = 23,
    ProcessSessionInformation = 24,
    ProcessForegroundInformation = 25,
    ProcessWow64Information = 26,
    ProcessImageFileName = 27,
    MaxProcessInfoClass = 28,
} PROCESSINFOCLASS;

typedef struct _PROCESS_BASIC_INFORMATION {
    NTSTATUS ExitStatus;
    PVOID PebBaseAddress;
    ULONG_PTR AffinityMask;
    KPRIORITY BasePriority;
    ULONG_PTR UniqueProcessId;
    ULONG_PTR InheritedFromUniqueProcessId;
} PROCESS_BASIC_INFORMATION, *PPROCESS_BASIC_INFORMATION;
static_assert(sizeof(PROCESS_BASIC_INFORMATION) == 48, "PROCESS_BASIC_INFORMATION");

extern "C" {

// ---- the current process and thread (any IRQL) ----
NTKERNELAPI PEPROCESS IoGetCurrentProcess(VOID);
NTKERNELAPI PEPROCESS PsGetCurrentProcess(VOID);
NTKERNELAPI PETHREAD PsGetCurrentThread(VOID);
NTKERNELAPI PKTHREAD KeGetCurrentThread(VOID);
NTKERNELAPI HANDLE PsGetCurrentProcessId(VOID);
NTKERNELAPI HANDLE PsGetCurrentThreadId(VOID);
NTKERNELAPI HANDLE PsGetProcessId(PEPROCESS Process);
NTKERNELAPI HANDLE PsGetThreadId(PETHREAD Thread);
NTKERNELAPI PEPROCESS PsGetThreadProcess(PETHREAD Thread);
NTKERNELAPI BOOLEAN PsIsSystemThread(PETHREAD Thread);

// The mode of the caller of the current system service: UserMode for a call that came from a
// simulated user process, KernelMode for a Zw call made inside the kernel.
NTKERNELAPI KPROCESSOR_MODE ExGetPreviousMode(VOID);

// Process information. ProcessImageFileName (27) writes a UNICODE_STRING followed by the image's
// NT device path (\Device\HarddiskVolume2\Windows\explorer.exe), zero-terminated; the string's
// Buffer points behind the header. The size needed is sizeof(UNICODE_STRING) plus the name and
// its terminating zero; a smaller ProcessInformationLength gives STATUS_INFO_LENGTH_MISMATCH with
// that size in *ReturnLength. ProcessHandle is NtCurrentProcess() or a handle to a process.
// PASSIVE_LEVEL.
NTSYSAPI NTSTATUS NTAPI ZwQueryInformationProcess(HANDLE ProcessHandle,
                                                  PROCESSINFOCLASS ProcessInformationClass,
                                                  PVOID ProcessInformation,
                                                  ULONG ProcessInformationLength,
                                                  PULONG ReturnLength);

}  // extern "C"
