// IRP_MJ_DIRECTORY_CONTROL: listings of managed directories get the service's entries behind the
// disk's. A listing is merged for a directory with a record in the context table; until the table
// and the directory requests are kept, every listing passes.
#include "operations.h"

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID* CompletionContext)
{
    // No directory has a record yet, so no listing is merged.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                                  PVOID CompletionContext,
                                                                  FLT_POST_OPERATION_FLAGS Flags)
{
    // Reached only for a merged listing, of which there is none yet.
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    UNREFERENCED_PARAMETER(Flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}
