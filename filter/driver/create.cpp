// IRP_MJ_CREATE: the open gate, where the filter decides what an open means.
//
// An open ends in one of these ways: it is left alone (the file system serves it and no later
// callback of its file object finds a record), it is refused (a write to a read-only merge folder,
// the deletion of a merge folder, or by the service), it is sent to a dummy file by a re-parse (an
// attribute-only open that the service redirects, redirection.cpp), or it is one of managed
// content, of the caller's own merge folder or, with local content only, of another user's: the
// service brings the content (managedopen.cpp) and a record follows the file object, which the
// post-create keeps or drops by the open's result (postcreate.cpp). Any failure of the filter's own
// work passes the open: the filter fails open.
#include "create.h"

#include "exclusions.h"
#include "fileaccess.h"
#include "globals.h"
#include "identity.h"
#include "loopback.h"
#include "mergefolders.h"
#include "operations.h"
#include "ownedstring.h"
#include "redirection.h"
#include "trace.h"

// The name that the service gives the dummy files to which attribute-only opens are sent.
static const UNICODE_STRING g_DummyFileText =
    RTL_CONSTANT_STRING(L"vm_redirected_a2210125-0016-41ce-b6e7-495eee531977");

// A share on another machine: a path of the MUP device that isn't under the loopback share.
static bool IsRemoteMupPath(PCUNICODE_STRING pPath)
{
    return IsMupPath(pPath) && !IsLoopbackMupPath(pPath);
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreCreate(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID* CompletionContext)
{
    FLT_PREOP_CALLBACK_STATUS callbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    OwnedString* pstrPath = nullptr;
    OwnedString* pstrSid = nullptr;
    OwnedString* pstrImageName = nullptr;
    OwnedString* pstrOwnerSid = nullptr;
    UCHAR bReadOnly = 0;
    UCHAR bForeignUserAccess = 0;
    OwnedString* pstrTemporaryFile = nullptr;
    FILE_BASIC_INFORMATION basicInformation;
    FILE_STANDARD_INFORMATION standardInformation;
    UCHAR bMarkerStreamPresent = 0;
    NTSTATUS status;
    PIO_SECURITY_CONTEXT pSecurityContext = Data->Iopb->Parameters.Create.SecurityContext;
    ACCESS_MASK DesiredAccess = pSecurityContext != nullptr ? pSecurityContext->DesiredAccess : 0;

    // Pass-through mode: the service has gone, and nothing is looked at.
    if (g_PassThrough) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }

    // The service's own opens share everything, so that they never stand in a caller's way.
    if (IoGetCurrentProcess() == g_ServiceData.ServiceProcess) {
        Data->Iopb->Parameters.Create.ShareAccess |= FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        FltSetCallbackDataDirty(Data);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }

    // The path of the open, device form.
    status = PathFromRequest(FltObjects, Data->Iopb, TRUE, &pstrPath);
    if (!NT_SUCCESS(status)) {
        TRACE_INFO("[EXIT] - PathFromRequest failed with status [0x%08x]", status);
        goto Exit;
    }

    // The SID of the token the I/O manager captured for the open.
    status = GetRequestSid(pSecurityContext, &pstrSid);
    if (!NT_SUCCESS(status)) {
        TRACE_INFO("[EXIT] - GetRequestSid failed with status [0x%08x]", status);
        goto Exit;
    }

    // A share on another machine is never managed: it passes before any lookup.
    if (IsRemoteMupPath(pstrPath)) {
        goto Exit;
    }

    // Short names to long names; on failure the path stays as it is.
    (VOID) NormalizeFilePath(Data, &pstrPath);

    // A kernel-mode open counts only if it touches content, or if it is the file server's open for
    // a loopback access in flight.
    if (ExGetPreviousMode() == KernelMode) {
        if ((DesiredAccess & ACCESS_REQUIRING_DOWNLOAD) == 0 && FindTrackedMupPID(pstrPath) == nullptr) {
            TRACE_INFO("[EXIT] Previous mode is KernelMode");
            goto Exit;
        }
        TRACE_INFO("Previous mode is KernelMode but access requires download");
    }

    // The loopback share: the open is tracked for the local open it causes, and goes on down the
    // redirector with nothing else done to it.
    if (IsLoopbackMupPath(pstrPath)) {
        callbackStatus = TrackLoopbackAccess(Data, FltObjects, pstrPath, CompletionContext);
        goto Exit;
    }

    // Classification: the first class that fits.
    if (IsManagedPath(pstrSid, pstrPath, &bReadOnly)) {
        // The caller's own merge folder. A process whose name can't be had is managed.
        pstrImageName = CreateUnicodeString(POOL_SELECTOR_PAGED, PROCESS_IMAGE_NAME_CAPACITY);
        if (pstrImageName != nullptr && NT_SUCCESS(GetProcessImageName(pstrImageName)) &&
            IsProcessBlacklisted(pstrImageName)) {
            TRACE_INFO("Ignoring blacklisted process [%wZ]", pstrImageName);
            goto Exit;
        }
    } else if (FindUnicodeSubstring(pstrPath, &g_DummyFileText, FALSE) >= 0) {
        // A dummy file: the redirection of attribute-only opens makes and consumes these paths.
    } else if ((pstrOwnerSid = FindMergeFolderOwner(pstrPath)) != nullptr) {
        // Another user's merge folder: local content only, under the owner's SID.
        pstrImageName = CreateUnicodeString(POOL_SELECTOR_PAGED, PROCESS_IMAGE_NAME_CAPACITY);
        if (pstrImageName == nullptr) {
            TRACE_ERROR("[EXIT] CreateUnicodeString failed");
            goto Exit;
        }
        if (!NT_SUCCESS(GetProcessImageName(pstrImageName)) || IsProcessBlacklisted(pstrImageName)) {
            goto Exit;
        }
        TRACE_INFO("Permitting access to [%wZ] to local content only for non-blacklisted process [%wZ]", pstrPath,
                   pstrImageName);
        bForeignUserAccess = 1;
        FreeUnicodeString(&pstrSid);
        pstrSid = pstrOwnerSid;
        pstrOwnerSid = nullptr;
    } else {
        // Not managed: the common way out for every file outside merge folders.
        goto Exit;
    }

    // A path that the service excludes for this user, or that lies in a directory it excludes, is
    // none of the filter's business.
    if (IsExcludedByDirectory(pstrSid, pstrPath, FltObjects, Data->Iopb)) {
        TRACE_INFO("[EXIT] - Ignoring excluded file [%wZ]", pstrPath);
        goto Exit;
    }

    // From here on the open is a request for managed content.
    TRACE_INFO("Normalized requested Path is [%wZ] and the user SID is [%wZ]", pstrPath, pstrSid);

    // What the disk holds for the path, for the service. A file that can't be read stays unknown:
    // the status isn't looked at.
    (VOID) GetFileInformation(pstrPath, FltObjects->Filter, Data->Iopb->TargetInstance, &basicInformation,
                              &standardInformation, &bMarkerStreamPresent);

    // An open for attributes alone may be sent to a dummy file; at the dummy it goes on as the open
    // of the real file.
    if (IsAttributeOnlyOpen(DesiredAccess, &basicInformation) &&
        RedirectAttributeOnlyOpen(Data, FltObjects, pstrSid, &pstrPath, &basicInformation, &standardInformation,
                                  &pstrTemporaryFile, &callbackStatus) == RedirectionEnded) {
        goto Exit;
    }

    // A merge folder's own path, marked read-only, can't be opened for writing.
    if (bReadOnly && (DesiredAccess & ACCESS_WRITING) != 0) {
        TRACE_INFO("[EXIT] [%wZ] is readonly and the desired access is write. Returning STATUS_ACCESS_DENIED",
                   pstrPath);
        Data->IoStatus.Status = STATUS_ACCESS_DENIED;
        Data->IoStatus.Information = 0;
        callbackStatus = FLT_PREOP_COMPLETE;
        goto Exit;
    }

    // Alternate data streams are the file system's affair alone.
    if (StringContainsCharacter(pstrPath, L':')) {
        TRACE_INFO("[EXIT] Requested path [%wZ] is ADS, ignoring", pstrPath);
        goto Exit;
    }

    // A merge folder can't be deleted from under the service.
    if ((Data->Iopb->Parameters.Create.Options & FILE_DELETE_ON_CLOSE) != 0 && IsMergeFolderRoot(pstrSid, pstrPath)) {
        Data->IoStatus.Status = STATUS_ACCESS_DENIED;
        Data->IoStatus.Information = 0;
        callbackStatus = FLT_PREOP_COMPLETE;
        goto Exit;
    }

    // An open to follow: the service brings the content, and a record follows the file object.
    callbackStatus = FollowManagedOpen(Data, FltObjects, pstrPath, pstrSid, bForeignUserAccess, &basicInformation,
                                       &standardInformation, bMarkerStreamPresent, &pstrTemporaryFile,
                                       CompletionContext);

Exit:
    FreeUnicodeString(&pstrPath);
    FreeUnicodeString(&pstrSid);
    FreeUnicodeString(&pstrImageName);
    FreeUnicodeString(&pstrOwnerSid);
    FreeUnicodeString(&pstrTemporaryFile);
    return callbackStatus;
}
