// IRP_MJ_SET_INFORMATION: renames, hard links, deletions, size and attribute changes of managed
// files.
//
// The pre-callback decides, and asks the service what it must know before the file system acts; it
// notes in the record's SetInfoRequest what is left, and the post-callback does that once the file
// system has acted. Two kinds of file objects come here: those with a valid record, for which every
// class below is followed, and those without one, of which only renames and links are looked at, for
// such a file may be entering a merge folder from outside. Any other class, the Ex forms of rename
// and disposition among them, passes with no post-callback.
//
// What a rename does, by its route:
//   record -> managed:      read-only, collision, hard link (an object new to the service) and root
//                           tests, a write notice if tracked, the held-back upload cancelled; after
//                           it, the map stream goes at the new name, the service hears both names
//                           and the records of the file under this SID take the new path.
//   record -> unmanaged:    root test, a write notice if tracked, and the service may veto the
//                           rename of an object it knows; after it, as above.
//   no record -> managed:   read-only, hard link and exclusion tests and a new record; after it,
//                           an upload at cleanup, the map stream gone, the service told of the new
//                           object.
//   no record -> unmanaged: nothing.
#include "setinformation.h"

#include "context.h"
#include "dirtyblocktracking.h"
#include "exclusions.h"
#include "fileaccess.h"
#include "globals.h"
#include "identity.h"
#include "mergefolders.h"
#include "operations.h"
#include "servicerequests.h"
#include "trace.h"

// A rename's destination must be shorter than this, in bytes (the lowest bit of the length aside).
#define RENAME_DESTINATION_LIMIT_BYTES 520

static const UNICODE_STRING g_RecycleBinComponent = RTL_CONSTANT_STRING(L"\\$Recycle.Bin\\");

bool IsRecycleBinPath(PCUNICODE_STRING pPath)
{
    if (pPath == nullptr || pPath->Buffer == nullptr) {
        return false;
    }
    // The recycle bin stands at the volume's root: behind the third backslash of a device path.
    ULONG ulBackslashes = 0;
    USHORT usChars = pPath->Length / sizeof(WCHAR);
    for (USHORT usIndex = 0; usIndex < usChars; usIndex++) {
        if (pPath->Buffer[usIndex] != L'\\') {
            continue;
        }
        ulBackslashes++;
        if (ulBackslashes == 3) {
            UNICODE_STRING Remainder;
            Remainder.Buffer = pPath->Buffer + usIndex;
            Remainder.Length = (USHORT)(pPath->Length - usIndex * sizeof(WCHAR));
            Remainder.MaximumLength = Remainder.Length;
            return RtlPrefixUnicodeString(&g_RecycleBinComponent, &Remainder, TRUE) != FALSE;
        }
    }
    return false;
}

// Ends the operation with Status: the file system never sees it. Returns FLT_PREOP_COMPLETE.
// IRQL: any.
static FLT_PREOP_CALLBACK_STATUS RefuseSetInformation(PFLT_CALLBACK_DATA Data, NTSTATUS Status)
{
    Data->IoStatus.Status = Status;
    Data->IoStatus.Information = 0;
    return FLT_PREOP_COMPLETE;
}

// Hands the record to the post-callback, which then runs in this thread once the file system has
// acted. Returns FLT_PREOP_SYNCHRONIZE. IRQL: any.
static FLT_PREOP_CALLBACK_STATUS SynchronizeWithRecord(FileContext* pContext, PVOID* CompletionContext)
{
    *CompletionContext = pContext;
    return FLT_PREOP_SYNCHRONIZE;
}

// Whether a rename's destination is short enough to be a managed path. IRQL: any.
static bool IsDestinationWithinLimit(PCUNICODE_STRING pDestination)
{
    return (pDestination->Length & 0xFFFE) < RENAME_DESTINATION_LIMIT_BYTES;
}

// Whether the target file has two or more links, as the volume below this instance counts them. A
// query that fails says no. IRQL: PASSIVE_LEVEL.
static bool HasSeveralLinks(PFLT_IO_PARAMETER_BLOCK Iopb)
{
    FILE_STANDARD_INFORMATION Standard;
    ULONG ulReturned = 0;
    NTSTATUS status = FltQueryInformationFile(Iopb->TargetInstance, Iopb->TargetFileObject, &Standard,
                                              sizeof(Standard), FileStandardInformation, &ulReturned);
    return NT_SUCCESS(status) && Standard.NumberOfLinks >= 2;
}

// A delete disposition set or cleared on a followed file. A merge folder can't be deleted, nor a
// directory in which the service still lists something, even when it is empty on the disk; a size
// request that fails lets the deletion go on. IRQL: PASSIVE_LEVEL.
static FLT_PREOP_CALLBACK_STATUS PreSetDisposition(PFLT_CALLBACK_DATA Data, FileContext* pContext,
                                                   PVOID* CompletionContext)
{
    PFILE_DISPOSITION_INFORMATION pDisposition =
        (PFILE_DISPOSITION_INFORMATION)Data->Iopb->Parameters.SetFileInformation.InfoBuffer;
    if (pDisposition == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    TRACE_INFO("Setting delete disposition:%d. bDirectory:%d", pDisposition->DeleteFile, pContext->bDirectory);

    if (!pDisposition->DeleteFile) {
        pContext->SetInfoRequest = SET_INFO_REQUEST_UNDELETE;
        return SynchronizeWithRecord(pContext, CompletionContext);
    }
    if (pContext->bDirectory && IsMergeFolderRoot(pContext->pstrSid, pContext->pstrPath)) {
        return RefuseSetInformation(Data, STATUS_ACCESS_DENIED);
    }
    if (pContext->bDirectory && pContext->pstrPath != nullptr) {
        ULONG ulListingLength = 0;
        (VOID) ServiceRequest_DirectoryContentsSize(pContext->pstrSid, pContext->pstrPath, nullptr,
                                                    FileNamesInformation, &ulListingLength, nullptr, 0);
        if (ulListingLength != 0) {
            return RefuseSetInformation(Data, STATUS_DIRECTORY_NOT_EMPTY);
        }
    }
    pContext->SetInfoRequest = SET_INFO_REQUEST_DELETE;
    return SynchronizeWithRecord(pContext, CompletionContext);
}

// A rename of a followed file: into, within or out of the managed folders. The tests that need the
// service are skipped when it can't answer, and the rename goes on. IRQL: PASSIVE_LEVEL.
static FLT_PREOP_CALLBACK_STATUS PreSetRename(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                              FileContext* pContext, PVOID* CompletionContext)
{
    FLT_PREOP_CALLBACK_STATUS callbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    PFILE_RENAME_INFORMATION pRename =
        (PFILE_RENAME_INFORMATION)Data->Iopb->Parameters.SetFileInformation.InfoBuffer;
    OwnedString* pstrDestination = nullptr;
    OwnedString* pstrSid = pContext->pstrSid;
    UCHAR bDestIsManaged = 0;
    UCHAR bReadOnly = 0;
    UCHAR bDestExists = 0;
    UCHAR bSourceExists = 0;
    NTSTATUS status;

    if (pRename == nullptr) {
        goto Exit;
    }
    // A relative target has no prefix that names its volume: it passes unseen.
    status = DevicePathFromRenameInformation(pRename, &pstrDestination);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    if (!IsDestinationWithinLimit(pstrDestination)) {
        callbackStatus = RefuseSetInformation(Data, STATUS_NO_SUCH_FILE);
        goto Exit;
    }

    // The record's SID serves for the whole call: only the record's creation writes it. A record
    // without one can't be judged, and its rename passes as if the file weren't followed.
    TRACE_INFO("Using Context SID: [%wZ] Foreign User Access is%Sset", pstrSid,
               pContext->bForeignUserAccess ? L" " : L" not ");
    if (pstrSid == nullptr) {
        TRACE_ERROR("Context SID does not exist");
        goto Exit;
    }

    // The destination's read-only state: the merge folder's row first, then the service's view.
    bDestIsManaged = IsManagedPath(pstrSid, pstrDestination, &bReadOnly) ? 1 : 0;
    TRACE_INFO("Rename request. bDestIsManaged:%d, bReadOnly:%d", bDestIsManaged, bReadOnly);
    if (bDestIsManaged && !bReadOnly) {
        (VOID) ServiceRequest_ObjectIsReadOnly(pstrSid, pstrDestination, &bReadOnly);
    }
    if (bReadOnly) {
        callbackStatus = RefuseSetInformation(Data, STATUS_ACCESS_DENIED);
        goto Exit;
    }

    // A name that the service holds is taken, whatever the disk says, unless the caller replaces it.
    if (bDestIsManaged) {
        status = ServiceRequest_ObjectExists(pstrSid, pstrDestination, FltObjects, Data->Iopb, &bDestExists,
                                             nullptr);
        if (NT_SUCCESS(status) && !pRename->ReplaceIfExists && bDestExists) {
            TRACE_INFO("Destination exists for rename [%wZ] -> [%wZ] returning STATUS_OBJECT_NAME_COLLISION",
                       pContext->pstrPath, pstrDestination);
            callbackStatus = RefuseSetInformation(Data, STATUS_OBJECT_NAME_COLLISION);
            goto Exit;
        }
    }

    // The source: a file with other links can't become managed content unknown to the service, and
    // a merge folder's own directory stays where it is.
    if (pContext->pstrPath != nullptr) {
        status = ServiceRequest_ObjectExists(pstrSid, pContext->pstrPath, FltObjects, Data->Iopb, &bSourceExists,
                                             nullptr);
        if (NT_SUCCESS(status)) {
            if (!bSourceExists && bDestIsManaged && HasSeveralLinks(Data->Iopb)) {
                callbackStatus = RefuseSetInformation(Data, STATUS_CANNOT_MAKE);
                goto Exit;
            }
            if (IsMergeFolderRoot(pstrSid, pContext->pstrPath)) {
                callbackStatus = RefuseSetInformation(Data, STATUS_ACCESS_DENIED);
                goto Exit;
            }
        }
    }

    if (pContext->pTrackedDirtyBlockFile != nullptr) {
        (VOID) ServiceRequest_ObjectWriteNotify(pstrSid, pContext->pstrPath);
    }
    if (bDestIsManaged) {
        (VOID) ServiceRequest_ObjectCancelUpload(pstrSid, pContext->pstrPath, FltObjects, Data->Iopb);
    } else if (bSourceExists) {
        // An object the service holds leaves the managed folders: the service may keep it.
        status = ServiceRequest_ObjectRenameFromManaged(pstrSid, pContext->pstrPath,
                                                        IsRecycleBinPath(pstrDestination) ? 1 : 0, FltObjects,
                                                        Data->Iopb);
        if (status != STATUS_SUCCESS) {
            callbackStatus = RefuseSetInformation(Data, STATUS_ACCESS_DENIED);
            goto Exit;
        }
    }

    pContext->SetInfoRequest = SET_INFO_REQUEST_OBJECT_RENAME;
    FreeUnicodeString(&pContext->pstrRenameTarget);
    pContext->pstrRenameTarget = pstrDestination;
    pstrDestination = nullptr;
    callbackStatus = SynchronizeWithRecord(pContext, CompletionContext);

Exit:
    FreeUnicodeString(&pstrDestination);
    return callbackStatus;
}

// A new end of file for a followed file. The block map of a tracked file follows the change before
// the file system acts, from the end of file on the disk; a size change that then fails isn't
// undone. IRQL: PASSIVE_LEVEL.
static FLT_PREOP_CALLBACK_STATUS PreSetEndOfFile(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                 FileContext* pContext, PVOID* CompletionContext)
{
    pContext->SetInfoRequest = SET_INFO_REQUEST_SIZE;
    if (pContext->pTrackedDirtyBlockFile != nullptr) {
        FILE_BASIC_INFORMATION Basic;
        FILE_STANDARD_INFORMATION Standard;
        NTSTATUS status = pContext->pstrPath != nullptr
                              ? GetFileInformation(pContext->pstrPath, FltObjects->Filter,
                                                   Data->Iopb->TargetInstance, &Basic, &Standard, nullptr)
                              : STATUS_INVALID_PARAMETER;
        PFILE_END_OF_FILE_INFORMATION pEndOfFile =
            (PFILE_END_OF_FILE_INFORMATION)Data->Iopb->Parameters.SetFileInformation.InfoBuffer;
        if (!NT_SUCCESS(status)) {
            TRACE_ERROR("Failed to get file info for dirty map resizing: 0x%08x", status);
        } else if (pEndOfFile == nullptr) {
            TRACE_ERROR("pEOFInfo NULL");
        } else {
            DirtyBlockSetEOF(pContext->pTrackedDirtyBlockFile, Standard.EndOfFile.QuadPart,
                             pEndOfFile->EndOfFile.QuadPart);
        }
    }
    return SynchronizeWithRecord(pContext, CompletionContext);
}

// A rename or link of a file object without a valid record. Only one that enters a managed folder
// of the caller is seen: a link into one is refused, and a rename gives the file object a record
// under its new path, unless the file is excluded where it is and where it goes. A failure of the
// filter's own work (no destination, SID, source path or record) passes the rename.
// IRQL: PASSIVE_LEVEL.
static FLT_PREOP_CALLBACK_STATUS PreSetInformationWithoutContext(PFLT_CALLBACK_DATA Data,
                                                                 PCFLT_RELATED_OBJECTS FltObjects,
                                                                 PVOID* CompletionContext)
{
    FLT_PREOP_CALLBACK_STATUS callbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    FILE_INFORMATION_CLASS InfoClass = Data->Iopb->Parameters.SetFileInformation.FileInformationClass;
    PFILE_RENAME_INFORMATION pRename =
        (PFILE_RENAME_INFORMATION)Data->Iopb->Parameters.SetFileInformation.InfoBuffer;
    OwnedString* pstrDestination = nullptr;
    OwnedString* pstrSid = nullptr;
    OwnedString* pstrImageName = nullptr;
    OwnedString* pstrSource = nullptr;
    FileContext* pContext = nullptr;
    UCHAR bReadOnly = 0;
    UCHAR bSourceReadOnly = 0;
    NTSTATUS status;

    if (InfoClass != FileRenameInformation && InfoClass != FileLinkInformation) {
        goto Exit;
    }
    if (IoGetCurrentProcess() == g_ServiceData.ServiceProcess || pRename == nullptr) {
        goto Exit;
    }
    status = DevicePathFromRenameInformation(pRename, &pstrDestination);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    // Without the caller's SID nothing can be managed for it.
    status = GetRequestSid(nullptr, &pstrSid);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    // Where every unmanaged rename ends.
    if (!IsManagedPath(pstrSid, pstrDestination, &bReadOnly)) {
        goto Exit;
    }

    // A process whose name can't be had is no blacklisted one.
    pstrImageName = CreateUnicodeString(POOL_SELECTOR_PAGED, PROCESS_IMAGE_NAME_CAPACITY);
    if (pstrImageName != nullptr && NT_SUCCESS(GetProcessImageName(pstrImageName)) &&
        IsProcessBlacklisted(pstrImageName)) {
        TRACE_INFO("Ignoring blacklisted process [%wZ]", pstrImageName);
        goto Exit;
    }
    TRACE_INFO("FileName [%wZ]", pstrDestination);

    if (!IsDestinationWithinLimit(pstrDestination)) {
        callbackStatus = RefuseSetInformation(Data, STATUS_NO_SUCH_FILE);
        goto Exit;
    }
    // A hard link into a managed folder is never made.
    if (bReadOnly || InfoClass == FileLinkInformation) {
        callbackStatus = RefuseSetInformation(Data, STATUS_ACCESS_DENIED);
        goto Exit;
    }
    if (HasSeveralLinks(Data->Iopb)) {
        callbackStatus = RefuseSetInformation(Data, STATUS_CANNOT_MAKE);
        goto Exit;
    }

    status = PathFromRequest(FltObjects, Data->Iopb, TRUE, &pstrSource);
    if (!NT_SUCCESS(status)) {
        TRACE_INFO("[EXIT] - PathFromRequest failed with status [0x%08x]", status);
        goto Exit;
    }
    // An excluded file that stays excluded needs no record. The tests stop at the first that fails.
    if (IsManagedPath(pstrSid, pstrSource, &bSourceReadOnly) && IsManagedPath(pstrSid, pstrDestination, &bReadOnly) &&
        IsExcludedByDirectory(pstrSid, pstrSource, FltObjects, Data->Iopb) &&
        IsExcludedByDirectory(pstrSid, pstrDestination, FltObjects, Data->Iopb)) {
        TRACE_INFO("[%wZ] and [%wZ] are both managed and excluded", pstrSource, pstrDestination);
        goto Exit;
    }

    // The record is whole before it enters the table: the file object's other operations may find
    // it at once. The destination stays with it until it goes.
    status = CreateContext(Data->Iopb->TargetFileObject, pstrDestination, pstrSid, &pContext);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    pContext->SetInfoRequest = SET_INFO_REQUEST_OBJECT_RENAME_TO_MANAGED;
    pContext->bExcluded = IsExcludedByPath(pstrSid, pstrDestination, FltObjects, Data->Iopb);
    pContext->pstrRenameTarget = pstrDestination;
    pstrDestination = nullptr;
    (VOID) AddContextToContextTable(pContext);
    TRACE_INFO("Created context 0x%x for file [%wZ] - SET_INFO_REQUEST_OBJECT_RENAME_TO_MANAGED bExcluded=%d",
               (ULONG)(ULONG_PTR)pContext, pContext->pstrPath, pContext->bExcluded);

    *CompletionContext = pContext;
    callbackStatus = FLT_PREOP_SUCCESS_WITH_CALLBACK;

Exit:
    FreeUnicodeString(&pstrDestination);
    FreeUnicodeString(&pstrSid);
    FreeUnicodeString(&pstrImageName);
    FreeUnicodeString(&pstrSource);
    return callbackStatus;
}

// Pre-set-information: decides renames, links, dispositions, size and basic information changes of
// followed files, and renames and links into managed folders of files that aren't followed.
// Returns FLT_PREOP_COMPLETE for a refusal, FLT_PREOP_SYNCHRONIZE (or, for a record made for a
// rename into a managed folder, FLT_PREOP_SUCCESS_WITH_CALLBACK) with the record as completion
// context when the post-callback has work, and FLT_PREOP_SUCCESS_NO_CALLBACK otherwise.
// IRQL: PASSIVE_LEVEL.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreSetInformation(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext)
{
    if (g_PassThrough) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    FileContext* pContext = FindContextByFileObject(Data->Iopb->TargetFileObject, FALSE);
    if (pContext == nullptr) {
        return PreSetInformationWithoutContext(Data, FltObjects, CompletionContext);
    }
    FILE_INFORMATION_CLASS InfoClass = Data->Iopb->Parameters.SetFileInformation.FileInformationClass;
    TRACE_INFO("[%wZ] - FileInformationClass:%d", pContext->pstrPath, (int)InfoClass);

    // Refreshed for every class: a rename may have moved the file in or out of an exclusion.
    pContext->bExcluded = IsExcludedByPath(pContext->pstrSid, pContext->pstrPath, FltObjects, Data->Iopb);

    switch (InfoClass) {
    case FileDispositionInformation:
        return PreSetDisposition(Data, pContext, CompletionContext);
    case FileRenameInformation:
        return PreSetRename(Data, FltObjects, pContext, CompletionContext);
    case FileLinkInformation:
        return RefuseSetInformation(Data, STATUS_ACCESS_DENIED);
    case FileAllocationInformation:
        pContext->SetInfoRequest = SET_INFO_REQUEST_SIZE;
        return SynchronizeWithRecord(pContext, CompletionContext);
    case FileEndOfFileInformation:
        return PreSetEndOfFile(Data, FltObjects, pContext, CompletionContext);
    case FileBasicInformation:
        pContext->SetInfoRequest = SET_INFO_REQUEST_BASIC_INFORMATION;
        return SynchronizeWithRecord(pContext, CompletionContext);
    default:
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
}

// Finishes a rename of a followed file, whether or not the file system made it: the map stream at
// the new name goes, the service hears the old and the new name (the caller sees
// STATUS_OBJECT_NAME_INVALID when it can't), an excluded file is uploaded at cleanup, and every
// record of the file under this SID takes the new path. IRQL: PASSIVE_LEVEL.
static VOID FinishRename(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, FileContext* pContext)
{
    (VOID) DeleteDirtyBlockADS(pContext->pstrRenameTarget);
    NTSTATUS status = ServiceRequest_ObjectRename(pContext->pstrSid, pContext->pstrPath, pContext->pstrRenameTarget,
                                                  FltObjects, Data->Iopb);
    if (!NT_SUCCESS(status)) {
        Data->IoStatus.Status = STATUS_OBJECT_NAME_INVALID;
    }
    if (pContext->bExcluded) {
        pContext->OnClose |= ON_CLOSE_UPLOAD;
        pContext->bExcluded = 0;
    }
    // The walk keeps this record's old path alive until it is over, so the path is given as it is.
    if (pContext->pstrPath != nullptr && pContext->pstrRenameTarget != nullptr) {
        (VOID) RenameContexts(pContext->pstrSid, pContext->pstrPath, pContext->pstrRenameTarget);
    }
    FreeUnicodeString(&pContext->pstrRenameTarget);
}

// Finishes a rename into a managed folder of a file that had no record. The record made for it
// holds the destination as its path, so a rename that the file system refused leaves a record that
// names a place where the file isn't: it turns invalid at once (its file object's later operations
// pass, and its close frees it) and the service hears nothing. IRQL: PASSIVE_LEVEL.
static VOID FinishRenameToManaged(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, FileContext* pContext)
{
    if (!NT_SUCCESS(Data->IoStatus.Status)) {
        pContext->bValid = 0;
        return;
    }
    pContext->OnClose |= ON_CLOSE_UPLOAD;
    (VOID) DeleteDirtyBlockADS(pContext->pstrPath);
    (VOID) ServiceRequest_ObjectRenameToManaged(pContext->pstrSid, pContext->pstrPath, FltObjects, Data->Iopb);
}

// The post-callback's work, at PASSIVE_LEVEL: what the pre-callback noted in SetInfoRequest, done
// whether or not the file system carried the change out (a rename into a managed folder aside).
// Always FLT_POSTOP_FINISHED_PROCESSING.
static FLT_POSTOP_CALLBACK_STATUS FLTAPI FinishSetInformation(PFLT_CALLBACK_DATA Data,
                                                               PCFLT_RELATED_OBJECTS FltObjects,
                                                               PVOID CompletionContext,
                                                               FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(Flags);
    FileContext* pContext = (FileContext*)CompletionContext;
    TRACE_INFO("Entering. FileName [%wZ]", pContext->pstrPath);

    switch (pContext->SetInfoRequest) {
    case SET_INFO_REQUEST_OBJECT_RENAME:
        FinishRename(Data, FltObjects, pContext);
        break;
    case SET_INFO_REQUEST_DELETE:
        // An upload held back at the open is off: the file goes. The flag stays for the cleanup.
        if (pContext->bUploadCancelled) {
            TRACE_INFO("Cancelling upload for: %wZ, context: 0x%x", pContext->pstrPath, (ULONG)(ULONG_PTR)pContext);
            (VOID) ServiceRequest_ObjectCancelUpload(pContext->pstrSid, pContext->pstrPath, FltObjects, Data->Iopb);
        }
        pContext->OnClose |= ON_CLOSE_DELETE_DISPOSITION;
        break;
    case SET_INFO_REQUEST_UNDELETE:
        pContext->OnClose &= ~(ULONG)ON_CLOSE_DELETE_DISPOSITION;
        break;
    case SET_INFO_REQUEST_OBJECT_RENAME_TO_MANAGED:
        FinishRenameToManaged(Data, FltObjects, pContext);
        break;
    case SET_INFO_REQUEST_BASIC_INFORMATION:
        if (!pContext->bExcluded) {
            (VOID) ServiceRequest_ObjectChanged(pContext->pstrSid, pContext->pstrPath, FltObjects, Data->Iopb, 1);
        }
        break;
    case SET_INFO_REQUEST_SIZE:
        if (Data->Iopb->Parameters.SetFileInformation.InfoBuffer != nullptr) {
            pContext->OnClose |= ON_CLOSE_UPLOAD;
        }
        break;
    default:
        break;
    }
    return FLT_POSTOP_FINISHED_PROCESSING;
}

// Post-set-information: finishes what the pre-callback began. Every path but the rename into a
// managed folder was synchronized and runs in the caller's thread; that one may complete at
// DISPATCH_LEVEL, and its requests to the service are moved to a thread where waiting is allowed.
// Always FLT_POSTOP_FINISHED_PROCESSING, or FLT_POSTOP_MORE_PROCESSING_REQUIRED while the moved work
// runs. IRQL: <= DISPATCH_LEVEL.
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostSetInformation(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags)
{
    if (g_PassThrough || CompletionContext == nullptr) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    FileContext* pContext = (FileContext*)CompletionContext;
    if (pContext->SetInfoRequest != SET_INFO_REQUEST_OBJECT_RENAME_TO_MANAGED) {
        return FinishSetInformation(Data, FltObjects, CompletionContext, Flags);
    }
    FLT_POSTOP_CALLBACK_STATUS postStatus = FLT_POSTOP_FINISHED_PROCESSING;
    if (FltDoCompletionProcessingWhenSafe(Data, FltObjects, CompletionContext, Flags, FinishSetInformation,
                                          &postStatus)) {
        return postStatus;
    }
    // A draining instance gives the rename back unfinished: the record made for it follows nothing.
    pContext->bValid = 0;
    return FLT_POSTOP_FINISHED_PROCESSING;
}
