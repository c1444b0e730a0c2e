// The names of the system's own streams, hidden from every stream listing of a followed file.
#pragma once

#include <fltKernel.h>

#include "ownedstring.h"

#define STREAM_NAME_COUNT 13

// STREAM_NAME_COUNT names with their leading colon, and a null end. Built at start, read only after.
extern OwnedString** g_StreamNames;

// Builds g_StreamNames: paged pool, each string a header over its constant text.
// STATUS_NO_MEMORY when any allocation fails, with nothing left behind. IRQL: PASSIVE_LEVEL.
NTSTATUS CreateStreamStringTable();

// Frees the names and the array, and sets g_StreamNames to null. Nothing to do when it is null.
VOID DeleteStreamStringTable();
