// Fast I/O, cache flushes and extended attributes.
//
// A file that the filter follows is seen through IRPs only. The files it follows are those with a
// record in the context table; until the table is kept, no file object has one, and these
// callbacks let every operation pass.
#include "operations.h"

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreFastIoCheckIfPossible(PFLT_CALLBACK_DATA Data,
                                                                     PCFLT_RELATED_OBJECTS FltObjects,
                                                                     PVOID* CompletionContext)
{
    // Every fast I/O check is refused, for every file: the I/O manager then issues an IRP.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_DISALLOW_FASTIO;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreMaybeFastio(PFLT_CALLBACK_DATA Data,
                                                           PCFLT_RELATED_OBJECTS FltObjects,
                                                           PVOID* CompletionContext)
{
    // Refuses the fast path of a read on a file with a record; no file object has one yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreAcquireCcFlush(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext)
{
    // A user-mode flush of a managed file gets a record for its length once the context table is kept.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostAcquireCcFlush(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags)
{
    // Reached only with a flush record from the pre-callback, which makes none yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    UNREFERENCED_PARAMETER(Flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreReleaseCcFlush(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext)
{
    // Expires a flush record once the context table is kept; no file object has one yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostReleaseCcFlush(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags)
{
    // Reached only with a record from the pre-callback, which passes none yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    UNREFERENCED_PARAMETER(Flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreQueryEa(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID* CompletionContext)
{
    // Follows an EA query on a file with a record; no file object has one yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostQueryEa(PFLT_CALLBACK_DATA Data,
                                                         PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
                                                         FLT_POST_OPERATION_FLAGS Flags)
{
    // Reached only for a file with a record, which none has yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    UNREFERENCED_PARAMETER(Flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}
