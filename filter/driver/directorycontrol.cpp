// IRP_MJ_DIRECTORY_CONTROL: a listing of a managed directory gets the service's entries behind the
// disk's. The file system answers first; once it has nothing left, the service's listing of the
// directory is fetched (once per pass) and handed out as the caller's buffers allow, as if the file
// system had returned those entries too. All the state of an enumeration lives in the directory's
// record; a directory without one passes untouched.
//
// The post-operation may run at DISPATCH_LEVEL in any thread, where neither the service nor paged
// pool nor the caller's user address can be reached. So the pre-operation locks the caller's buffer
// (an MDL that reaches it from any thread), and the merge runs where it is safe: at once at or
// below APC_LEVEL, otherwise in a worker thread that the completion waits for.
#include "operations.h"

#include "context.h"
#include "exclusions.h"
#include "globals.h"
#include "listingmerge.h"
#include "ownedstring.h"
#include "servicerequests.h"
#include "trace.h"

// The pattern the service gets when the enumeration has none.
static const UNICODE_STRING g_AllNamesPattern = RTL_CONSTANT_STRING(L"*");

// The file system has nothing (more) to return: only then does the service's listing follow.
static bool IsEndOfDirectory(NTSTATUS status)
{
    return status == STATUS_NO_MORE_FILES || status == STATUS_NO_SUCH_FILE;
}

// Turns the DOS wildcards of a pattern into the plain ones the service knows, in place: DOS_STAR
// becomes '*', DOS_QM '?', DOS_DOT '.'. Characters are written only where they change.
// IRQL: any, for a resident string.
static VOID TranslateDosWildcards(PUNICODE_STRING pPattern)
{
    const ULONG ulCharacters = pPattern->Length / sizeof(WCHAR);
    for (ULONG ulIndex = 0; ulIndex < ulCharacters; ulIndex++) {
        switch (pPattern->Buffer[ulIndex]) {
        case DOS_STAR: pPattern->Buffer[ulIndex] = L'*'; break;
        case DOS_QM: pPattern->Buffer[ulIndex] = L'?'; break;
        case DOS_DOT: pPattern->Buffer[ulIndex] = L'.'; break;
        default: break;
        }
    }
}

// The caller's buffer as this thread can reach it: the system's view of the MDL that the
// pre-operation locked, or a system buffer. Null when there is neither (a user address can't be
// trusted outside its own process) or the view can't be mapped. IRQL: <= DISPATCH_LEVEL.
static PVOID ReachQueryBuffer(PFLT_CALLBACK_DATA Data)
{
    const auto& query = Data->Iopb->Parameters.DirectoryControl.QueryDirectory;
    if (query.MdlAddress != nullptr) {
        return MmGetSystemAddressForMdlSafe(query.MdlAddress, NormalPagePriority | MdlMappingNoExecute);
    }
    if ((Data->Flags & FLTFL_CALLBACK_DATA_SYSTEM_BUFFER) != 0) {
        return query.DirectoryBuffer;
    }
    return nullptr;
}

// Frees the record's listing and forgets it. IRQL: <= APC_LEVEL.
static VOID DropDirectoryListing(FileContext* pContext)
{
    if (pContext->pDirectoryListing != nullptr) {
        FreeBufferAndClear((PVOID*)&pContext->pDirectoryListing);
    }
    pContext->pNextListingEntry = nullptr;
}

// Fetches the service's listing of the record's directory in the query's class into the record:
// the exclusion test, the pattern, the size request, the block and its fetch, and the listing's
// check. True when the record holds a listing ready to hand out; false when the file system's answer
// is to stand. IRQL: PASSIVE_LEVEL, no lock held.
static bool FetchDirectoryListing(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, FileContext* pContext)
{
    PFLT_IO_PARAMETER_BLOCK Iopb = Data->Iopb;
    const ULONG FileInformationClass = Iopb->Parameters.DirectoryControl.QueryDirectory.FileInformationClass;
    const UCHAR bReturnSingleEntry = (Iopb->OperationFlags & SL_RETURN_SINGLE_ENTRY) != 0 ? 1 : 0;
    PCUNICODE_STRING pPattern = &g_AllNamesPattern;
    ULONGLONG ullListingHandle = 0;
    NTSTATUS status;

    pContext->bExcluded = IsExcludedByDirectory(pContext->pstrSid, pContext->pstrPath, FltObjects, Iopb);
    if (pContext->bExcluded) {
        TRACE_INFO("[EXIT] - FileName:[%wZ] for SID:[%wZ] is excluded, Status:0x%08x", pContext->pstrPath,
                   pContext->pstrSid, Data->IoStatus.Status);
        return false;
    }
    if (bReturnSingleEntry && Data->IoStatus.Information > 0) {
        TRACE_INFO("[EXIT] - Single entry request fulfilled by lower driver");
        return false;
    }

    if (pContext->pstrFilter != nullptr && pContext->pstrFilter->Buffer != nullptr) {
        TRACE_INFO("Found previously saved filter:[%wZ]", pContext->pstrFilter);
        // The translation stays in the saved pattern: the service only ever sees plain wildcards.
        TranslateDosWildcards(pContext->pstrFilter);
        pPattern = pContext->pstrFilter;
    }
    TRACE_INFO("Filter:[%wZ]", pPattern);

    // A pattern too long for the request is refused there, unsent and uncut: a cut one would ask
    // for other names than the caller's, so the caller gets the disk's entries alone.
    status = pContext->pstrPath == nullptr
                 ? STATUS_INVALID_PARAMETER
                 : ServiceRequest_DirectoryContentsSize(pContext->pstrSid, pContext->pstrPath, pPattern,
                                                        FileInformationClass, &pContext->DirectoryListingLength,
                                                        &ullListingHandle, bReturnSingleEntry);
    if (!NT_SUCCESS(status)) {
        TRACE_INFO("[EXIT] - ServiceRequest_DirectoryContentsSize() returned error [0x%08x]", status);
        return false;
    }
    if (pContext->DirectoryListingLength == 0) {
        TRACE_INFO("[EXIT] - ServiceRequest_DirectoryContentsSize() returned a listing length of size zero");
        return false;
    }
    TRACE_INFO("ServiceRequest_DirectoryContentsSize() returned a size of [%d]", pContext->DirectoryListingLength);

    pContext->pDirectoryListing = (PUCHAR)AllocateBuffer(POOL_SELECTOR_PAGED, pContext->DirectoryListingLength);
    if (pContext->pDirectoryListing == nullptr) {
        return false;
    }
    status = ServiceRequest_DirectoryContents(ullListingHandle, pContext->pDirectoryListing,
                                              pContext->DirectoryListingLength);
    if (!NT_SUCCESS(status)) {
        DropDirectoryListing(pContext);
        TRACE_INFO("[EXIT] ServiceRequest_DirectoryContents() returned error status [0x%08x]", status);
        return false;
    }
    // Nothing of a listing is handed out before its whole chain is known to keep inside the block.
    if (!IsListingWellFormed(pContext->pDirectoryListing, pContext->DirectoryListingLength, FileInformationClass)) {
        TRACE_ERROR("[EXIT] - Listing of [%u] bytes from the service breaks the rules of its records",
                    pContext->DirectoryListingLength);
        DropDirectoryListing(pContext);
        return false;
    }
    pContext->DirectoryListingClass = FileInformationClass;
    pContext->pNextListingEntry = pContext->pDirectoryListing;
    return true;
}

// The merge of a query the file system has answered, where waiting, paged pool and the service are
// allowed. Always FLT_POSTOP_FINISHED_PROCESSING; the outcome is in Data->IoStatus.
// IRQL: PASSIVE_LEVEL.
static FLT_POSTOP_CALLBACK_STATUS FLTAPI MergeListingWhenSafe(PFLT_CALLBACK_DATA Data,
                                                             PCFLT_RELATED_OBJECTS FltObjects,
                                                             PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)
{
    FileContext* pContext = (FileContext*)CompletionContext;
    PFLT_IO_PARAMETER_BLOCK Iopb = Data->Iopb;
    const auto& query = Iopb->Parameters.DirectoryControl.QueryDirectory;
    bool bHoldsListing = false;
    bool bTraceExit = false;
    PVOID pBuffer = nullptr;
    ULONG ulBytesUsed = 0;
    NTSTATUS status;

    UNREFERENCED_PARAMETER(Flags);
    TRACE_INFO("[ENTER] - Filename:[%wZ], IoStus:[0x%08x], Information:[%d] Flags:[0x%x]",
               &Iopb->TargetFileObject->FileName, Data->IoStatus.Status, (ULONG)Data->IoStatus.Information,
               (ULONG)Iopb->OperationFlags);
    if (!IsContextValid(pContext)) {
        TRACE_ERROR("[EXIT] - Context [0x%p] does not exist", pContext);
        goto Cleanup;
    }
    // A query answered with entries, or failed otherwise, is left as it is: the service's entries
    // always follow all of the file system's.
    if (!IsEndOfDirectory(Data->IoStatus.Status)) {
        bTraceExit = true;
        goto Cleanup;
    }
    TRACE_INFO("Adding directory listing to listing from FS");

    // Queries racing on one handle: one works on the listing, the others keep the file system's
    // answer, so that no block is fetched twice or freed under another query.
    if (InterlockedCompareExchange(&pContext->lListingInUse, 1, 0) != 0) {
        goto Cleanup;
    }
    bHoldsListing = true;

    // Without a buffer it can write to, the merge would only move the listing on: it waits.
    pBuffer = ReachQueryBuffer(Data);
    if (pBuffer == nullptr) {
        goto Cleanup;
    }
    // A listing is handed out in the class it was fetched in; a query of another class ends its pass.
    if (pContext->pDirectoryListing != nullptr && pContext->DirectoryListingClass != query.FileInformationClass) {
        DropDirectoryListing(pContext);
        goto Cleanup;
    }
    if (pContext->pDirectoryListing == nullptr && !FetchDirectoryListing(Data, FltObjects, pContext)) {
        goto Cleanup;
    }
    // The record stays while its file object has a query in flight; only its validity can change.
    if (!IsContextValid(pContext)) {
        TRACE_ERROR("[EXIT] - Context [0x%p] no longer exists", pContext);
        DropDirectoryListing(pContext);
        goto Cleanup;
    }

    status = MergeDirectoryBuffer(pBuffer, query.Length, &pContext->pDirectoryListing, &pContext->pNextListingEntry,
                                  pContext->pDirectoryListing + pContext->DirectoryListingLength,
                                  query.FileInformationClass, Data->IoStatus.Information, &ulBytesUsed);
    if (status == STATUS_NO_MORE_FILES) {
        pContext->pNextListingEntry = nullptr;
        if ((Iopb->OperationFlags & SL_RETURN_SINGLE_ENTRY) != 0) {
            status = STATUS_NO_SUCH_FILE;
        }
    }
    Data->IoStatus.Status = status;
    Data->IoStatus.Information = ulBytesUsed;
    TRACE_INFO("Returning status [0x%08x], info [%d]", status, ulBytesUsed);
    bTraceExit = true;

Cleanup:
    if (bHoldsListing) {
        InterlockedExchange(&pContext->lListingInUse, 0);
    }
    if (bTraceExit) {
        TRACE_INFO("[EXIT] - FLT_POSTOP_FINISHED_PROCESSING");
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID* CompletionContext)
{
    PFLT_IO_PARAMETER_BLOCK Iopb = Data->Iopb;
    PFILE_OBJECT pFileObject = Iopb->TargetFileObject;

    UNREFERENCED_PARAMETER(FltObjects);
    if (g_PassThrough) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    TRACE_INFO("[ENTER] - File object directory [%wZ]", &pFileObject->FileName);
    // Change notifications are not touched.
    if (Iopb->MinorFunction != IRP_MN_QUERY_DIRECTORY) {
        TRACE_INFO("[EXIT] Not a IRP_MN_QUERY_DIRECTORY. Returning FLT_PREOP_SUCCESS_NO_CALLBACK");
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    PUNICODE_STRING pFileName = Iopb->Parameters.DirectoryControl.QueryDirectory.FileName;
    TRACE_INFO("QueryDirectory Filename [%wZ\\%wZ]", &pFileObject->FileName, pFileName);

    FileContext* pContext = FindContextByFileObject(pFileObject, FALSE);
    if (pContext == nullptr) {
        TRACE_INFO("[EXIT] No context. Returning FLT_PREOP_SUCCESS_NO_CALLBACK");
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    // The first pattern of the enumeration holds for its life, as it does for the file system.
    if (pFileName != nullptr && pFileName->Buffer != nullptr && pContext->pstrFilter == nullptr) {
        pContext->pstrFilter = CopyUnicodeString(pFileName);
    }
    // The post-operation reaches the buffer through this MDL, from whatever thread it runs in. A
    // buffer that can't be locked gets the file system's answer alone.
    NTSTATUS status = FltLockUserBuffer(Data);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("[EXIT] FltLockUserBuffer failed [0x%08x]. Returning FLT_PREOP_SUCCESS_NO_CALLBACK", status);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    TRACE_INFO("[EXIT] Context [0x%x]. Returning FLT_PREOP_SUCCESS_WITH_CALLBACK", (ULONG)(ULONG_PTR)pContext);
    *CompletionContext = pContext;
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                                  PVOID CompletionContext,
                                                                  FLT_POST_OPERATION_FLAGS Flags)
{
    FileContext* pContext = (FileContext*)CompletionContext;
    FLT_POSTOP_CALLBACK_STATUS result = FLT_POSTOP_FINISHED_PROCESSING;

    // Another user's folder shows the disk's entries alone. An instance that is going away gets no
    // merge either.
    if (g_PassThrough || pContext == nullptr || pContext->bForeignUserAccess ||
        (Flags & FLTFL_POST_OPERATION_DRAINING) != 0) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    // Above APC_LEVEL only a query that may need the merge is handed on to a safe thread.
    if (KeGetCurrentIrql() > APC_LEVEL && !IsEndOfDirectory(Data->IoStatus.Status)) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    if (!FltDoCompletionProcessingWhenSafe(Data, FltObjects, CompletionContext, Flags, MergeListingWhenSafe,
                                           &result)) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    return result;
}
