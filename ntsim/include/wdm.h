// The kernel's interface to drivers, as the WDK's wdm.h gives it, for ntsim.
#pragma once
#include "ntsim/ntdef.h"
#include "ntsim/ntstatus.h"
#include "ntsim/ke.h"   // IRQL, spin locks, critical regions, system time
#include "ntsim/ex.h"   // pool, ERESOURCE
#include "ntsim/rtl.h"  // counted strings, case mapping
#include "ntsim/crt.h"  // 16-bit wide C routines, _vsnprintf
#include "ntsim/seh.h"  // __try/__except, ProbeForRead/ProbeForWrite
#include "ntsim/se.h"   // SIDs, tokens, subject contexts
#include "ntsim/ps.h"   // processes and threads
#include "ntsim/ob.h"   // object manager: handles, symbolic links
#include "ntsim/mm.h"   // MmGetSystemRoutineAddress
#include "ntsim/etw.h"  // EtwRegister, EtwWrite: the provider side of event tracing
#include "ntsim/ver.h"  // RtlGetVersion
