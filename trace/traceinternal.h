// State that the trace gate, TraceWrite and the provider's registration share. All of it is
// written under g_TraceLock.
#pragma once

#include <fltKernel.h>

typedef NTSTATUS(NTAPI* PFN_ETW_REGISTER)(LPCGUID, PETWENABLECALLBACK, PVOID, PREGHANDLE);
typedef NTSTATUS(NTAPI* PFN_ETW_UNREGISTER)(REGHANDLE);
typedef NTSTATUS(NTAPI* PFN_ETW_WRITE)(REGHANDLE, PCEVENT_DESCRIPTOR, LPCGUID, ULONG, PEVENT_DATA_DESCRIPTOR);

// The ETW routines, found when the provider registers. g_EtwWrite is null whenever no provider is
// registered.
extern PFN_ETW_REGISTER g_EtwRegister;
extern PFN_ETW_UNREGISTER g_EtwUnregister;
extern PFN_ETW_WRITE g_EtwWrite;

// What the sessions ask for, kept beside the record's Level and keywords and always equal to them
// while the record is registered: the gate reads these, never the record, because tracing may be
// turned off (and the record freed) between a site's null test and its level test. Zero while no
// provider is registered, which the gate's keyword test refuses.
extern volatile UCHAR g_TraceGateLevel;
extern volatile ULONGLONG g_TraceGateMatchAnyKeyword;
extern volatile ULONGLONG g_TraceGateMatchAllKeyword;
