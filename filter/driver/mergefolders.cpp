// The merge folder table, its lookups, and the process blacklist.
//
// Every lookup holds g_ConfigLock for the length of one search and walks the rows in table order.
// All comparisons fold case. A path lies below a folder when the folder's string is a prefix of the
// path and the next character of the path is a backslash, so \Data\Sub is below \Data and \Database
// isn't.
#include "mergefolders.h"

#include "locks.h"
#include "trace.h"

MergeFolderEntry g_MergeFolders[MAX_MERGE_FOLDERS];
ULONG g_MergeFolderCount;
OwnedString** g_ProcessBlacklist;

static bool PathEquals(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    return RtlEqualUnicodeString(pFolder, pPath, TRUE) != FALSE;
}

// pFolder is a prefix of pPath. IsBelowPrefix then tells whether pPath lies below it.
static bool IsPrefix(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    return RtlPrefixUnicodeString(pFolder, pPath, TRUE) != FALSE;
}

static bool IsBelowPrefix(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    return pPath->Length > pFolder->Length && pPath->Buffer[pFolder->Length / sizeof(WCHAR)] == L'\\';
}

static bool IsRowComplete(const MergeFolderEntry* pRow)
{
    return pRow->pstrSid != nullptr && pRow->pstrLinkPath != nullptr && pRow->pstrDevicePath != nullptr;
}

bool IsMergeFolderRoot(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath)
{
    if (pSid == nullptr || pPath == nullptr) {
        return false;
    }
    bool bMatch = false;
    AcquireLockExclusive(g_ConfigLock);
    for (ULONG ulRow = 0; ulRow < g_MergeFolderCount; ulRow++) {
        const MergeFolderEntry* pRow = &g_MergeFolders[ulRow];
        if (!IsRowComplete(pRow)) {
            break;
        }
        if (PathEquals(pRow->pstrSid, pSid) &&
            (PathEquals(pRow->pstrLinkPath, pPath) || PathEquals(pRow->pstrDevicePath, pPath))) {
            bMatch = true;
        }
    }
    ReleaseLock(g_ConfigLock);
    return bMatch;
}

bool IsManagedPath(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, UCHAR* pbReadOnly)
{
    *pbReadOnly = 0;
    if (pSid == nullptr || pPath == nullptr) {
        return false;
    }
    bool bManaged = false;
    AcquireLockExclusive(g_ConfigLock);
    for (ULONG ulRow = 0; ulRow < g_MergeFolderCount; ulRow++) {
        const MergeFolderEntry* pRow = &g_MergeFolders[ulRow];
        if (pRow->pstrSid == nullptr || !PathEquals(pRow->pstrSid, pSid)) {
            continue;
        }
        if (pRow->pstrLinkPath == nullptr || pRow->pstrDevicePath == nullptr) {
            break;
        }
        if (PathEquals(pRow->pstrLinkPath, pPath) || PathEquals(pRow->pstrDevicePath, pPath)) {
            *pbReadOnly = pRow->bReadOnly != 0 ? 1 : 0;
            bManaged = true;
            break;
        }
        // A link-form prefix decides the row alone: the device form isn't tried behind it.
        if (IsPrefix(pRow->pstrLinkPath, pPath)) {
            if (IsBelowPrefix(pRow->pstrLinkPath, pPath)) {
                bManaged = true;
                break;
            }
            continue;
        }
        if (IsPrefix(pRow->pstrDevicePath, pPath) && IsBelowPrefix(pRow->pstrDevicePath, pPath)) {
            bManaged = true;
            break;
        }
    }
    ReleaseLock(g_ConfigLock);
    return bManaged;
}

OwnedString* FindMergeFolderOwner(PCUNICODE_STRING pPath)
{
    if (pPath == nullptr) {
        return nullptr;
    }
    OwnedString* pstrOwner = nullptr;
    AcquireLockExclusive(g_ConfigLock);
    for (ULONG ulRow = 0; ulRow < g_MergeFolderCount; ulRow++) {
        const MergeFolderEntry* pRow = &g_MergeFolders[ulRow];
        if (!IsRowComplete(pRow)) {
            break;
        }
        bool bHolds;
        if (PathEquals(pRow->pstrLinkPath, pPath) || PathEquals(pRow->pstrDevicePath, pPath)) {
            bHolds = true;
        } else if (IsPrefix(pRow->pstrLinkPath, pPath)) {
            bHolds = IsBelowPrefix(pRow->pstrLinkPath, pPath);
        } else {
            bHolds = IsPrefix(pRow->pstrDevicePath, pPath) && IsBelowPrefix(pRow->pstrDevicePath, pPath);
        }
        if (bHolds) {
            pstrOwner = CopyUnicodeString(pRow->pstrSid);
            break;
        }
    }
    ReleaseLock(g_ConfigLock);
    return pstrOwner;
}

NTSTATUS GetVolumeInstanceForPath(PFLT_FILTER pFilter, PCUNICODE_STRING pPath, PFLT_INSTANCE* ppInstance)
{
    // \Device\ is matched with regard to case: only the device namespace's own spelling counts.
    UNICODE_STRING expression;
    RtlInitUnicodeString(&expression, L"\\Device\\*\\*");
    if (pPath == nullptr || pPath->Buffer == nullptr || pPath->Length < sizeof(WCHAR) || pPath->Buffer[0] != L'\\' ||
        !FsRtlIsNameInExpression(&expression, (PUNICODE_STRING)pPath, FALSE, nullptr)) {
        TRACE_ERROR("Failed to get the volume from the path : 0x%X", STATUS_OBJECT_PATH_INVALID);
        return STATUS_OBJECT_PATH_INVALID;
    }

    // The volume's name is everything before the third backslash; a view onto the path itself.
    USHORT usChars = pPath->Length / sizeof(WCHAR);
    USHORT usBackslashes = 0;
    USHORT usEnd = 0;
    for (; usEnd < usChars; usEnd++) {
        if (pPath->Buffer[usEnd] == L'\\' && ++usBackslashes == 3) {
            break;
        }
    }
    UNICODE_STRING volumeName;
    volumeName.Buffer = pPath->Buffer;
    volumeName.Length = (USHORT)(usEnd * sizeof(WCHAR));
    volumeName.MaximumLength = volumeName.Length;

    PFLT_VOLUME pVolume = nullptr;
    NTSTATUS status = FltGetVolumeFromName(pFilter, &volumeName, &pVolume);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to get the volume : 0x%X", status);
        return status;
    }
    PFLT_INSTANCE pInstance = nullptr;
    status = FltGetVolumeInstanceFromName(pFilter, pVolume, nullptr, &pInstance);
    FltObjectDereference(pVolume);
    if (NT_SUCCESS(status)) {
        *ppInstance = pInstance;
    }
    return status;
}

bool IsProcessBlacklisted(PCUNICODE_STRING pImagePath)
{
    if (pImagePath == nullptr || pImagePath->Buffer == nullptr) {
        return false;
    }
    // The file name: what follows the last backslash, or the whole path. The test works on the
    // counted string, so a name that fills its buffer to the last byte needs no terminator.
    USHORT usChars = pImagePath->Length / sizeof(WCHAR);
    USHORT usStart = usChars;
    while (usStart > 0 && pImagePath->Buffer[usStart - 1] != L'\\') {
        usStart--;
    }
    UNICODE_STRING fileName;
    fileName.Buffer = pImagePath->Buffer + usStart;
    fileName.Length = (USHORT)((usChars - usStart) * sizeof(WCHAR));
    fileName.MaximumLength = fileName.Length;

    bool bBlacklisted = false;
    AcquireLockExclusive(g_ConfigLock);
    if (g_ProcessBlacklist != nullptr) {
        for (OwnedString** ppstrEntry = g_ProcessBlacklist; *ppstrEntry != nullptr; ppstrEntry++) {
            if (RtlEqualUnicodeString(&fileName, *ppstrEntry, TRUE)) {
                bBlacklisted = true;
                break;
            }
        }
    }
    ReleaseLock(g_ConfigLock);
    return bBlacklisted;
}

NTSTATUS GetProcessImageName(OwnedString* pstrImageName)
{
    if (pstrImageName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG ulLength = 0;
    NTSTATUS status = ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, nullptr, 0, &ulLength);
    if (status != STATUS_INFO_LENGTH_MISMATCH) {
        return status;
    }
    // The length includes the UNICODE_STRING header that precedes the name. The caller's string is
    // left as it is when the name wouldn't fit.
    if (ulLength < sizeof(UNICODE_STRING) || pstrImageName->MaximumLength < ulLength - sizeof(UNICODE_STRING)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    PUNICODE_STRING pName = (PUNICODE_STRING)AllocateBuffer(POOL_SELECTOR_PAGED, ulLength);
    if (pName == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, pName, ulLength, &ulLength);
    if (NT_SUCCESS(status)) {
        RtlCopyUnicodeString(pstrImageName, pName);
    }
    FreeBuffer(pName);
    return status;
}
