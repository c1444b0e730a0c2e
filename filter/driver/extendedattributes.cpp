// IRP_MJ_QUERY_EA: an extended attribute query of a followed file is traced and comes as an IRP;
// the query itself is the file system's.
#include "context.h"
#include "operations.h"
#include "trace.h"

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreQueryEa(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID* CompletionContext)
{
    FileContext* pContext = FltObjects != nullptr ? FindContextByFileObject(FltObjects->FileObject, FALSE) : nullptr;
    if (pContext == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    if (StringHasText(pContext->pstrPath)) {
        TRACE_INFO("PreQueryEa on file: %wZ", pContext->pstrPath);
    }
    if (FLT_IS_FASTIO_OPERATION(Data)) {
        return FLT_PREOP_DISALLOW_FASTIO;
    }
    *CompletionContext = pContext;
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostQueryEa(PFLT_CALLBACK_DATA Data,
                                                         PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
                                                         FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    // The record outlives the query: it goes only at the close of its file object, after all
    // other I/O on it. The line is the same as the pre-callback's.
    const FileContext* pContext = (const FileContext*)CompletionContext;
    if (pContext != nullptr && StringHasText(pContext->pstrPath)) {
        TRACE_INFO("PreQueryEa on file: %wZ", pContext->pstrPath);
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}
