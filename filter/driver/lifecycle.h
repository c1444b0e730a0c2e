// The driver's start and end.
#pragma once

#include <fltKernel.h>

// Registers the filter, makes the six locks and the port, builds the stream table and starts
// filtering. A start that fails at any step releases everything it made and returns that step's
// status; a start never leaves a lock missing behind a running callback. IRQL: PASSIVE_LEVEL.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

// Closes the port, unregisters the filter and frees everything. Never refuses; always
// STATUS_SUCCESS. IRQL: PASSIVE_LEVEL.
NTSTATUS FLTAPI FolderMerge_Unload(FLT_FILTER_UNLOAD_FLAGS Flags);
