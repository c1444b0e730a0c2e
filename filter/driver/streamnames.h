// The names of the system's own streams, hidden from every stream listing of a followed file.
#pragma once

#include <fltKernel.h>

#include "context.h"
#include "ownedstring.h"

#define STREAM_NAME_COUNT 13

// STREAM_NAME_COUNT names with their leading colon, and a null end. Built at start, read only after.
extern OwnedString** g_StreamNames;

// Builds g_StreamNames: paged pool, each string a header over its constant text.
// STATUS_NO_MEMORY when any allocation fails, with nothing left behind. IRQL: PASSIVE_LEVEL.
NTSTATUS CreateStreamStringTable();

// Frees the names and the array, and sets g_StreamNames to null. Nothing to do when it is null.
VOID DeleteStreamStringTable();

// Takes every entry whose name holds one of g_StreamNames (without regard to case) out of the
// FILE_STREAM_INFORMATION listing of a completed FileStreamInformation query, in place: the kept
// entries move up in their order, keep their NextEntryOffset, and the last of them closes the list.
// IoStatus.Information becomes the length of the kept list, to the end of its last entry's name; 0
// when every entry was hidden, which leaves one entry whose NextEntryOffset is 0 and success. The
// listing is left as the file system gave it for a null argument, a failed query (a listing cut by
// STATUS_BUFFER_OVERFLOW included), an empty one, or entries that don't hold together within the
// bytes the file system wrote (an entry or its name past them, an offset that isn't a multiple of
// 8 or leaves no room for the entry's name). pContext gives the file's path to the traces.
// Always FLT_POSTOP_FINISHED_PROCESSING. IRQL: <= APC_LEVEL, since g_StreamNames is paged.
FLT_POSTOP_CALLBACK_STATUS RemoveVelmoraStreams(PFLT_CALLBACK_DATA Data, PFLT_IO_PARAMETER_BLOCK Iopb,
                                                FileContext* pContext);
