// Turning tracing on and off: the provider's registration with ETW, its enable callback, and the
// service's SetTracingEnabled message.
//
// The ETW routines are found at run time (MmGetSystemRoutineAddress), so the filter loads on a
// system without them; tracing is then unavailable and SetTracingEnabled fails.
#pragma once

#include <fltKernel.h>

#include "servicemessages.h"
#include "trace.h"

// Control message 2. bEnable 0: if tracing is on, traces "Disabling driver tracing", unregisters
// the provider and sets g_TraceProvider to null. Otherwise registers the provider if it isn't,
// and traces "Driver tracing enabled"; STATUS_UNSUCCESSFUL if no provider could be registered.
// Turning tracing on when it's on, or off when it's off, changes nothing. pMessage is a kernel
// copy of the record. IRQL: PASSIVE_LEVEL.
NTSTATUS SetTracingEnabled(const SetTracingEnabledMessage* pMessage);

// Finds the ETW routines, registers the provider and names its module. *ppProvider is set to null
// first, and to the record once it is registered. STATUS_UNSUCCESSFUL when a routine is missing,
// STATUS_INSUFFICIENT_RESOURCES without memory, else EtwRegister's failure or the status of the
// module name's conversion (the record is handed out even then; its module name is then "NULL").
// Takes g_TraceLock. IRQL: PASSIVE_LEVEL.
NTSTATUS RegisterTraceProvider(TraceProvider** ppProvider);

// Unregisters g_TraceProvider and frees it with its module name. Under g_TraceLock the record is
// taken out of use (g_TraceProvider null, the gate closed, its enable callbacks ignored); EtwUnregister
// and the frees come after the lock is released, since EtwUnregister waits for enable callbacks that
// wait for the lock. STATUS_INVALID_PARAMETER when no provider is registered, else EtwUnregister's
// status. Must not be called with g_TraceLock held. IRQL: PASSIVE_LEVEL.
NTSTATUS UnregisterTraceProvider();

// The ETW enable callback: a non-zero ControlCode stores the level and both keywords in the
// record (CallbackContext); 0 stores 0 in all three. A record that is being unregistered is left
// as it is. Takes g_TraceLock.
VOID NTAPI TraceEnableCallback(LPCGUID SourceId, ULONG ControlCode, UCHAR Level, ULONGLONG MatchAnyKeyword,
                               ULONGLONG MatchAllKeyword, PEVENT_FILTER_DESCRIPTOR FilterData, PVOID CallbackContext);

// Ends tracing at unload: unregisters the provider, if any, which sets g_TraceProvider to null.
// IRQL: PASSIVE_LEVEL.
VOID StopTracing();
