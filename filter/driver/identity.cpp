// The path of a request, its long form, the requester's SID, and link paths to device paths.
#include "identity.h"

#include "trace.h"

// The longest text a UNICODE_STRING holds: an even number of bytes below 64 KiB.
#define MAX_STRING_BYTES ((ULONG)(MAXUSHORT & ~1u))

// \??\C: : the drive link in front of a link path.
#define DRIVE_LINK_CHARS 6
#define DRIVE_LINK_BYTES (DRIVE_LINK_CHARS * sizeof(WCHAR))

// The block in which a link's target is queried: a UNICODE_STRING and its characters.
#define LINK_TARGET_BLOCK_SIZE 4096

NTSTATUS PathFromRequest(PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb, UCHAR bIncludeRelated,
                         OwnedString** ppstrPath)
{
    if (FltObjects == nullptr || Iopb == nullptr || ppstrPath == nullptr || Iopb->TargetFileObject == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }

    // The volume name is asked for afresh each time: volumes come and go under the filter.
    ULONG ulVolumeLength = 0;
    NTSTATUS status = FltGetVolumeName(FltObjects->Volume, nullptr, &ulVolumeLength);
    if (status != STATUS_BUFFER_TOO_SMALL) {
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    if (ulVolumeLength > MAX_STRING_BYTES) {
        return STATUS_NAME_TOO_LONG;
    }
    OwnedString* pstrVolume = CreateUnicodeString(POOL_SELECTOR_NONPAGED, (USHORT)ulVolumeLength);
    if (pstrVolume == nullptr) {
        return STATUS_NO_MEMORY;
    }
    status = FltGetVolumeName(FltObjects->Volume, pstrVolume, nullptr);
    if (!NT_SUCCESS(status)) {
        FreeBuffer(pstrVolume);
        return status;
    }

    // The sum is taken in 32 bits: a path that a UNICODE_STRING can't hold fails, it doesn't wrap.
    PFILE_OBJECT pFileObject = Iopb->TargetFileObject;
    PFILE_OBJECT pRelated = bIncludeRelated ? pFileObject->RelatedFileObject : nullptr;
    if (pRelated != nullptr && pRelated->FileName.Buffer == nullptr) {
        pRelated = nullptr;
    }
    ULONG ulTotal = (ULONG)pstrVolume->Length + pFileObject->FileName.Length;
    bool bSeparator = false;
    if (pRelated != nullptr) {
        USHORT usRelatedChars = pRelated->FileName.Length / sizeof(WCHAR);
        ulTotal += pRelated->FileName.Length;
        if (usRelatedChars == 0 || pRelated->FileName.Buffer[usRelatedChars - 1] != L'\\') {
            ulTotal += sizeof(WCHAR);
            bSeparator = true;
        }
    }
    if (ulTotal > MAX_STRING_BYTES) {
        FreeBuffer(pstrVolume);
        return STATUS_NAME_TOO_LONG;
    }
    OwnedString* pstrPath = CreateUnicodeString(POOL_SELECTOR_NONPAGED, (USHORT)ulTotal);
    if (pstrPath == nullptr) {
        FreeBuffer(pstrVolume);
        return STATUS_NO_MEMORY;
    }

    // The capacity is the exact sum, so none of the appends can fail.
    RtlAppendUnicodeStringToString(pstrPath, pstrVolume);
    if (pRelated != nullptr) {
        RtlAppendUnicodeStringToString(pstrPath, &pRelated->FileName);
        if (bSeparator) {
            RtlAppendUnicodeToString(pstrPath, L"\\");
        }
    }
    RtlAppendUnicodeStringToString(pstrPath, &pFileObject->FileName);

    // An open of dir\* is taken as an open of dir.
    USHORT usChars = pstrPath->Length / sizeof(WCHAR);
    if (usChars >= 2 && pstrPath->Buffer[usChars - 2] == L'\\' && pstrPath->Buffer[usChars - 1] == L'*') {
        pstrPath->Buffer[usChars - 2] = L'\0';
        pstrPath->Buffer[usChars - 1] = L'\0';
        pstrPath->Length -= 2 * sizeof(WCHAR);
    }

    FreeBuffer(pstrVolume);
    *ppstrPath = pstrPath;
    return STATUS_SUCCESS;
}

NTSTATUS NormalizeFilePath(PFLT_CALLBACK_DATA Data, OwnedString** ppstrPath)
{
    if (ppstrPath == nullptr || *ppstrPath == nullptr) {
        TRACE_ERROR("ppPathName invalid");
        return STATUS_INVALID_PARAMETER;
    }

    // A '~' is the sign of an 8.3 short name. Most paths have none, and for them the Filter
    // Manager's name query, which is costly, never runs.
    if (!StringContainsCharacter(*ppstrPath, L'~')) {
        return STATUS_SUCCESS;
    }

    PFLT_FILE_NAME_INFORMATION pNameInformation = nullptr;
    NTSTATUS status =
        FltGetFileNameInformation(Data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_DEFAULT, &pNameInformation);
    if (!NT_SUCCESS(status) || pNameInformation == nullptr) {
        if (NT_SUCCESS(status)) {
            status = STATUS_UNSUCCESSFUL;
        }
        TRACE_ERROR("FltGetFileNameInformation failed: 0x%08x", status);
        return status;
    }

    const UNICODE_STRING* pName = &pNameInformation->Name;
    USHORT usCapacity = pName->MaximumLength >= pName->Length ? pName->MaximumLength : pName->Length;
    OwnedString* pstrLongFileName = CreateUnicodeString(POOL_SELECTOR_NONPAGED, usCapacity);
    if (pstrLongFileName == nullptr) {
        TRACE_ERROR("Failed to allocate %d bytes for pstrLongFileName", (int)(usCapacity + sizeof(OwnedString)));
        FltReleaseFileNameInformation(pNameInformation);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (pName->Length != 0) {
        RtlCopyMemory(pstrLongFileName->Buffer, pName->Buffer, pName->Length);
    }
    pstrLongFileName->Length = pName->Length;

    FreeBuffer(*ppstrPath);
    *ppstrPath = pstrLongFileName;
    FltReleaseFileNameInformation(pNameInformation);
    return status;
}

NTSTATUS GetRequestSid(PIO_SECURITY_CONTEXT pSecurityContext, OwnedString** ppstrSid)
{
    if (ppstrSid == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }

    // An impersonation token counts before the primary one: the open is made for the client.
    SECURITY_SUBJECT_CONTEXT capturedContext;
    bool bCaptured = false;
    PACCESS_TOKEN pToken = nullptr;
    if (pSecurityContext != nullptr) {
        if (pSecurityContext->AccessState != nullptr) {
            PSECURITY_SUBJECT_CONTEXT pSubject = &pSecurityContext->AccessState->SubjectSecurityContext;
            pToken = pSubject->ClientToken != nullptr ? pSubject->ClientToken : pSubject->PrimaryToken;
        }
    } else {
        SeCaptureSubjectContext(&capturedContext);
        bCaptured = true;
        pToken = capturedContext.ClientToken != nullptr ? capturedContext.ClientToken : capturedContext.PrimaryToken;
    }
    if (pToken == nullptr) {
        if (bCaptured) {
            SeReleaseSubjectContext(&capturedContext);
        }
        return STATUS_INVALID_PARAMETER;
    }

    PTOKEN_USER pTokenUser = nullptr;
    NTSTATUS status = SeQueryInformationToken(pToken, TokenUser, (PVOID*)&pTokenUser);
    if (bCaptured) {
        SeReleaseSubjectContext(&capturedContext);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }

    if (pTokenUser == nullptr || !RtlValidSid(pTokenUser->User.Sid)) {
        status = STATUS_INVALID_PARAMETER;
    } else {
        UNICODE_STRING sidText = {};
        status = RtlConvertSidToUnicodeString(&sidText, pTokenUser->User.Sid, TRUE);
        if (NT_SUCCESS(status)) {
            OwnedString* pstrSid = CopyUnicodeString(&sidText);
            RtlFreeUnicodeString(&sidText);
            if (pstrSid == nullptr) {
                status = STATUS_INSUFFICIENT_RESOURCES;
            } else {
                *ppstrSid = pstrSid;
            }
        }
    }
    if (pTokenUser != nullptr) {
        ExFreePoolWithTag(pTokenUser, 0);
    }
    return status;
}

NTSTATUS DeviceNameFromSymbolicLink(PCUNICODE_STRING pLinkName, OwnedString** ppstrDeviceName)
{
    if (pLinkName == nullptr || pLinkName->Buffer == nullptr || pLinkName->Length < DRIVE_LINK_BYTES ||
        ppstrDeviceName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }

    WCHAR szLinkName[DRIVE_LINK_CHARS + 1];
    RtlCopyMemory(szLinkName, pLinkName->Buffer, DRIVE_LINK_BYTES);
    szLinkName[DRIVE_LINK_CHARS] = L'\0';
    UNICODE_STRING linkName;
    RtlInitUnicodeString(&linkName, szLinkName);

    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &linkName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE hLink = nullptr;
    NTSTATUS status = ZwOpenSymbolicLinkObject(&hLink, SYMBOLIC_LINK_QUERY, &attributes);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("ZwOpenSymbolicLinkObject() failed, error code=0x%x", status);
        return status;
    }

    PUNICODE_STRING pTarget = (PUNICODE_STRING)AllocateBuffer(POOL_SELECTOR_PAGED, LINK_TARGET_BLOCK_SIZE);
    if (pTarget == nullptr) {
        ZwClose(hLink);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pTarget, LINK_TARGET_BLOCK_SIZE);
    pTarget->Buffer = (PWCH)(pTarget + 1);
    pTarget->MaximumLength = (USHORT)(LINK_TARGET_BLOCK_SIZE - sizeof(UNICODE_STRING));

    status = ZwQuerySymbolicLinkObject(hLink, pTarget, nullptr);
    if (NT_SUCCESS(status)) {
        if (pTarget->Length == 0) {
            status = STATUS_INVALID_PARAMETER;
        } else {
            OwnedString* pstrDeviceName = CreateUnicodeString(POOL_SELECTOR_PAGED, pTarget->Length);
            if (pstrDeviceName == nullptr) {
                status = STATUS_INSUFFICIENT_RESOURCES;
            } else {
                RtlCopyUnicodeString(pstrDeviceName, pTarget);
                *ppstrDeviceName = pstrDeviceName;
            }
        }
    }
    ZwClose(hLink);
    FreeBuffer(pTarget);
    return status;
}

NTSTATUS LinkToDevicePath(PCUNICODE_STRING pLinkPath, OwnedString** ppstrDevicePath)
{
    if (pLinkPath == nullptr || ppstrDevicePath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (pLinkPath->Buffer != nullptr) {
        TRACE_INFO("Converting path [%wZ]", pLinkPath);
    }
    // A rename target of \??\ with less than a drive behind it has no link to resolve.
    if (pLinkPath->Buffer == nullptr || pLinkPath->Length < DRIVE_LINK_BYTES) {
        return STATUS_INVALID_PARAMETER;
    }

    OwnedString* pstrTarget = nullptr;
    NTSTATUS status = DeviceNameFromSymbolicLink(pLinkPath, &pstrTarget);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    ULONG ulRestBytes = (ULONG)pLinkPath->Length - DRIVE_LINK_BYTES;
    ULONG ulTotal = (ULONG)pstrTarget->Length + ulRestBytes;
    if (ulTotal > MAX_STRING_BYTES) {
        status = STATUS_NAME_TOO_LONG;
    } else {
        OwnedString* pstrDevicePath = CreateUnicodeString(POOL_SELECTOR_PAGED, (USHORT)ulTotal);
        if (pstrDevicePath == nullptr) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            RtlCopyMemory(pstrDevicePath->Buffer, pstrTarget->Buffer, pstrTarget->Length);
            RtlCopyMemory((PUCHAR)pstrDevicePath->Buffer + pstrTarget->Length, pLinkPath->Buffer + DRIVE_LINK_CHARS,
                          ulRestBytes);
            pstrDevicePath->Length = (USHORT)ulTotal;
            TRACE_INFO("Converted path [%wZ]", pstrDevicePath);
            *ppstrDevicePath = pstrDevicePath;
        }
    }
    FreeBuffer(pstrTarget);
    return status;
}

NTSTATUS DevicePathFromRenameInformation(PFILE_RENAME_INFORMATION pRenameInformation,
                                         OwnedString** ppstrDevicePath)
{
    if (pRenameInformation == nullptr || ppstrDevicePath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (pRenameInformation->FileNameLength > MAX_STRING_BYTES) {
        return STATUS_NAME_TOO_LONG;
    }
    USHORT usNameBytes = (USHORT)(pRenameInformation->FileNameLength & ~1u);
    OwnedString* pstrName = CreateUnicodeString(POOL_SELECTOR_NONPAGED, usNameBytes);
    if (pstrName == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(pstrName->Buffer, pRenameInformation->FileName, usNameBytes);
    pstrName->Length = usNameBytes;

    NTSTATUS status;
    OwnedString* pstrDevicePath = nullptr;
    if (StringStartsWithText(pstrName, L"\\??\\")) {
        status = LinkToDevicePath(pstrName, &pstrDevicePath);
        // A substituted drive links to another link path: resolve once more, and no further.
        if (NT_SUCCESS(status) && StringStartsWithText(pstrDevicePath, L"\\??\\")) {
            FreeBuffer(pstrName);
            pstrName = pstrDevicePath;
            pstrDevicePath = nullptr;
            status = LinkToDevicePath(pstrName, &pstrDevicePath);
        }
    } else if (StringStartsWithText(pstrName, L"\\Device")) {
        pstrDevicePath = CopyUnicodeString(pstrName);
        status = pstrDevicePath != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
    } else {
        status = STATUS_INVALID_PARAMETER;
    }
    FreeBuffer(pstrName);
    if (NT_SUCCESS(status)) {
        *ppstrDevicePath = pstrDevicePath;
    }
    return status;
}
