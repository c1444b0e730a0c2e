// Memory manager routines that drivers use. ntsim keeps a table of the system's exported
// routines that MmGetSystemRoutineAddress searches (ntsim/sim/system.hpp registers and hides
// entries).
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

extern "C" {

// The address of an exported system routine by its name (case-sensitive, as on Windows), or null
// if the system does not export it. PASSIVE_LEVEL.
NTKERNELAPI PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

}  // extern "C"
