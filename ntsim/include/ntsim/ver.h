// The operating system's version, as RtlGetVersion reports it. ntsim reports 10.0.19045 unless a
// test sets another version (ntsim/sim/system.hpp).
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

#define VER_PLATFORM_WIN32_NT 2
#define VER_NT_WORKSTATION 0x0000001
#define VER_NT_DOMAIN_CONTROLLER 0x0000002
#define VER_NT_SERVER 0x0000003
#define VER_SUITE_SINGLEUSERTS 0x00000100

typedef struct _OSVERSIONINFOW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
} OSVERSIONINFOW, *POSVERSIONINFOW, *LPOSVERSIONINFOW, RTL_OSVERSIONINFOW, *PRTL_OSVERSIONINFOW;

typedef struct _OSVERSIONINFOEXW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
    USHORT wServicePackMajor;
    USHORT wServicePackMinor;
    USHORT wSuiteMask;
    UCHAR wProductType;
    UCHAR wReserved;
} OSVERSIONINFOEXW, *POSVERSIONINFOEXW, *LPOSVERSIONINFOEXW, RTL_OSVERSIONINFOEXW,
    *PRTL_OSVERSIONINFOEXW;

static_assert(sizeof(RTL_OSVERSIONINFOW) == 276, "RTL_OSVERSIONINFOW");
static_assert(sizeof(RTL_OSVERSIONINFOEXW) == 284, "RTL_OSVERSIONINFOEXW");
static_assert(offsetof(RTL_OSVERSIONINFOEXW, wServicePackMajor) == 276, "wServicePackMajor");

extern "C" {

// Fills the record from the system's version. dwOSVersionInfoSize must be 276
// (RTL_OSVERSIONINFOW) or 284 (RTL_OSVERSIONINFOEXW, whose extra fields are filled too); any
// other size gives STATUS_INVALID_PARAMETER. Any IRQL at or below APC_LEVEL.
NTSYSAPI NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation);

}  // extern "C"
