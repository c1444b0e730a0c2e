// The redirection of attribute-only opens: a step of the open gate.
//
// An open that asks for nothing but a managed file's attributes goes to the service first, which
// may send it to a dummy file of its own making. That takes two passes through the gate. In the
// first the service answers with the dummy file's name and a re-parse: the open completes with
// STATUS_REPARSE, and the I/O manager parses the new name from the root and sends the open through
// the stack once more, with a new file object. In the second the open arrives at the dummy file
// (whose name marks it as one) and the service answers with the real file's path and no re-parse:
// the gate goes on as for the real file, and the record it makes keeps the dummy's path, so that
// queries are answered for the real file and the dummy goes at cleanup.
//
// A request that never reached the service leaves both of its flags set: the open is re-parsed under
// the name it has. The filter has no way back to an ordinary open there.
#include "redirection.h"

#include "create.h"
#include "fileaccess.h"
#include "servicerequests.h"
#include "trace.h"

// The sizes of a file that nothing is known about.
#define FILE_SIZE_UNKNOWN 0x7FFFFFFFFFFFFFFFll

bool IsAttributeOnlyOpen(ACCESS_MASK DesiredAccess, const FILE_BASIC_INFORMATION* pBasic)
{
    if ((DesiredAccess & ACCESS_REQUIRING_DOWNLOAD) != 0 || (DesiredAccess & FILE_READ_ATTRIBUTES) == 0) {
        return false;
    }
    return !AreFileAttributesKnown(pBasic) || (pBasic->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

// Gives the target file object the service's name, in a buffer that the I/O manager frees with the
// file object: the one allocation of the filter without its tag. The new buffer is allocated before
// the old one goes, so that a failure leaves the file object as it was. STATUS_INSUFFICIENT_RESOURCES
// then. IRQL: PASSIVE_LEVEL.
static NTSTATUS ReplaceFileObjectName(PFILE_OBJECT pFileObject, PCUNICODE_STRING pName)
{
    PWCH pBuffer = (PWCH)ExAllocatePool(g_PoolType, pName->MaximumLength);
    if (pBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (pFileObject->FileName.Buffer != nullptr) {
        ExFreePoolWithTag(pFileObject->FileName.Buffer, 0);
    }
    RtlCopyMemory(pBuffer, pName->Buffer, pName->Length);
    pFileObject->FileName.Length = pName->Length;
    pFileObject->FileName.MaximumLength = pName->MaximumLength;
    pFileObject->FileName.Buffer = pBuffer;
    return STATUS_SUCCESS;
}

REDIRECTION_OUTCOME RedirectAttributeOnlyOpen(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                              PCUNICODE_STRING pstrSid, OwnedString** ppstrPath,
                                              PFILE_BASIC_INFORMATION pBasic, PFILE_STANDARD_INFORMATION pStandard,
                                              OwnedString** ppstrTemporaryFile,
                                              FLT_PREOP_CALLBACK_STATUS* pCallbackStatus)
{
    REDIRECTION_OUTCOME outcome = RedirectionGoOn;
    OwnedString* pstrRedirectPath = nullptr;
    UCHAR bRedirected = 1;
    UCHAR bReparse = 1;

    // A request that doesn't reach the service writes neither flag: they stay set.
    (VOID) ServiceRequest_ObjectRedirectAttributes(pstrSid, *ppstrPath, FltObjects, Data->Iopb, &pstrRedirectPath,
                                                   &bRedirected, &bReparse);

    if (!bRedirected) {
        goto Cleanup;
    }

    if (bReparse) {
        // The first pass: the open goes to the name the service gave, or is parsed again as it is.
        PFILE_OBJECT pFileObject = Data->Iopb->TargetFileObject;
        outcome = RedirectionEnded;
        if (pstrRedirectPath != nullptr && !NT_SUCCESS(ReplaceFileObjectName(pFileObject, pstrRedirectPath))) {
            TRACE_ERROR("[EXIT] No memory for the redirected name of [%wZ]; the open passes", *ppstrPath);
            *pCallbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
            goto Cleanup;
        }
        if (pFileObject->FileName.Buffer != nullptr) {
            TRACE_INFO("Access for attributes only [%wZ] issuing reparse and redirecting to [%wZ]", *ppstrPath,
                       &pFileObject->FileName);
        }
        // Only the file object and the status change, and the open ends here: the data isn't dirty.
        Data->IoStatus.Status = STATUS_REPARSE;
        Data->IoStatus.Information = IO_REPARSE;
        *pCallbackStatus = FLT_PREOP_COMPLETE;
        goto Cleanup;
    }

    // The second pass, at the dummy file. Without the real path there is nothing to answer queries
    // for: the open goes on as an ordinary open of the dummy.
    if (pstrRedirectPath == nullptr) {
        TRACE_ERROR("Redirected attribute request for [%wZ] came without the real path", *ppstrPath);
        goto Cleanup;
    }
    *ppstrTemporaryFile = *ppstrPath;
    *ppstrPath = pstrRedirectPath;
    pstrRedirectPath = nullptr;
    if ((*ppstrTemporaryFile)->Length != 0 && (*ppstrPath)->Length != 0) {
        TRACE_INFO("Processing redirected attribute request, dummy file [%wZ] -> [%wZ]", *ppstrTemporaryFile,
                   *ppstrPath);
    }
    // What was read described the dummy, not the real file.
    SetUnknownFileInformation(pBasic);
    pStandard->AllocationSize.QuadPart = FILE_SIZE_UNKNOWN;
    pStandard->EndOfFile.QuadPart = FILE_SIZE_UNKNOWN;

Cleanup:
    FreeUnicodeString(&pstrRedirectPath);
    return outcome;
}
