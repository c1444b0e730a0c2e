// IRP_MJ_READ and IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE: a file that the filter follows is read through
// IRPs only.
//
// The filter has no work to do in a read; it refuses the fast path of a read on a file object with
// a valid record so that everything done to a followed file comes to the stack as an IRP. Reads
// of other files, and reads that come as IRPs, are left alone.
#include "context.h"
#include "operations.h"
#include "trace.h"

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
    UNREFERENCED_PARAMETER(CompletionContext);
    // No test of pass-through mode: as long as a record is valid, its file is read through IRPs.
    FileContext* pContext = FltObjects != nullptr ? FindContextByFileObject(FltObjects->FileObject, FALSE) : nullptr;
    if (pContext == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    if (StringHasText(pContext->pstrPath)) {
        TRACE_INFO("Entering FileName [%wZ]", pContext->pstrPath);
    }
    return FLT_IS_FASTIO_OPERATION(Data) ? FLT_PREOP_DISALLOW_FASTIO : FLT_PREOP_SUCCESS_NO_CALLBACK;
}
