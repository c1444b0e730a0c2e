// IRP_MJ_QUERY_INFORMATION and IRP_MJ_NETWORK_QUERY_OPEN.
//
// Queries on followed files are answered with the service's view, and stream listings lose the
// system's streams. All of this works on file objects with a record in the context table, or asks
// the service; until those are kept, every query passes.
#include "operations.h"

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID* CompletionContext)
{
    // No file object has a record yet, so no query is followed.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                                  PVOID CompletionContext,
                                                                  FLT_POST_OPERATION_FLAGS Flags)
{
    // Reached only for a followed query, of which there is none yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    UNREFERENCED_PARAMETER(Flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreNetworkQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                       PCFLT_RELATED_OBJECTS FltObjects,
                                                                       PVOID* CompletionContext)
{
    // A network query open of a managed path is refused the fast path together with the queries
    // answered from the service; until then it passes.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}
