// The merge folder table and the blacklist as the service sets them.
#include "configuration.h"

#include "identity.h"
#include "locks.h"
#include "trace.h"
#include "user.h"

static PWSTR g_pszNextBarToken;

// Characters before the terminator within a field of ulMaxChars, or ulMaxChars when there is none.
static ULONG BoundedTextLength(const uint16_t* pText, ULONG ulMaxChars)
{
    ULONG ulChars = 0;
    while (ulChars < ulMaxChars && pText[ulChars] != 0) {
        ulChars++;
    }
    return ulChars;
}

static VOID ClearMergeFolderRow(MergeFolderEntry* pRow)
{
    FreeUnicodeString(&pRow->pstrSid);
    FreeUnicodeString(&pRow->pstrLinkPath);
    FreeUnicodeString(&pRow->pstrDevicePath);
    pRow->bReadOnly = 0;
}

NTSTATUS ClearConfiguration()
{
    AcquireLockExclusive(g_ConfigLock);
    // Every user's verdicts go with the table: the next configuration may decide otherwise.
    ClearUserRecords();
    for (ULONG ulRow = 0; ulRow < g_MergeFolderCount; ulRow++) {
        ClearMergeFolderRow(&g_MergeFolders[ulRow]);
    }
    g_MergeFolderCount = 0;
    RtlZeroMemory(g_MergeFolders, sizeof(g_MergeFolders));
    SummarizeMergeFolders();
    ReleaseLock(g_ConfigLock);
    return STATUS_SUCCESS;
}

NTSTATUS SetMergeFolder(MergeFolderEntry* pRow, const MergeFolderRecord* pFolder)
{
    pRow->bReadOnly = pFolder->bReadOnly;

    ULONG ulSidChars = BoundedTextLength(pFolder->Sid, CONFIGURATION_SID_CHARS);
    ULONG ulPathChars = BoundedTextLength(pFolder->FolderPath, CONFIGURATION_PATH_CHARS);
    if (ulSidChars == CONFIGURATION_SID_CHARS || ulPathChars == CONFIGURATION_PATH_CHARS) {
        return STATUS_INVALID_PARAMETER;
    }

    // Both strings fit their capacity whatever the record holds, so the appends can't fail.
    pRow->pstrSid = CreateUnicodeString(POOL_SELECTOR_PAGED, MERGE_FOLDER_STRING_CAPACITY);
    pRow->pstrLinkPath = CreateUnicodeString(POOL_SELECTOR_PAGED, MERGE_FOLDER_STRING_CAPACITY);
    if (pRow->pstrSid == nullptr || pRow->pstrLinkPath == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlAppendUnicodeToString(pRow->pstrSid, (PCWSTR)pFolder->Sid);
    RtlAppendUnicodeToString(pRow->pstrLinkPath, L"\\??\\");
    RtlAppendUnicodeToString(pRow->pstrLinkPath, (PCWSTR)pFolder->FolderPath);

    OwnedString* pstrDeviceName = nullptr;
    NTSTATUS status = DeviceNameFromSymbolicLink(pRow->pstrLinkPath, &pstrDeviceName);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // A row without its device path would end every lookup that reaches it, so it fails here.
    pRow->pstrDevicePath = CreateUnicodeString(POOL_SELECTOR_NONPAGED, MERGE_FOLDER_STRING_CAPACITY);
    if (pRow->pstrDevicePath == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        status = RtlAppendUnicodeStringToString(pRow->pstrDevicePath, pstrDeviceName);
        if (NT_SUCCESS(status) && ulPathChars > 2) {
            UNICODE_STRING folderPath;
            folderPath.Buffer = (PWCH)pFolder->FolderPath + 2;
            folderPath.Length = (USHORT)((ulPathChars - 2) * sizeof(WCHAR));
            folderPath.MaximumLength = folderPath.Length;
            status = RtlAppendUnicodeStringToString(pRow->pstrDevicePath, &folderPath);
        }
    }
    FreeBuffer(pstrDeviceName);

    if (NT_SUCCESS(status)) {
        TRACE_INFO("Setting managed folder [%wZ] -> [%wZ]", pRow->pstrSid, pRow->pstrDevicePath);
    }
    return status;
}

PWSTR NextBarToken(PWSTR pszText)
{
    if (pszText != nullptr) {
        g_pszNextBarToken = pszText;
    }
    PWSTR pszPosition = g_pszNextBarToken;
    if (pszPosition == nullptr) {
        return nullptr;
    }
    while (*pszPosition == L'|') {
        pszPosition++;
    }
    PWSTR pszToken = pszPosition;
    while (*pszPosition != L'\0' && *pszPosition != L'|') {
        pszPosition++;
    }
    if (*pszPosition == L'|') {
        *pszPosition = L'\0';
        g_pszNextBarToken = pszPosition + 1;
    } else {
        g_pszNextBarToken = pszPosition;
    }
    return *pszToken == L'\0' ? nullptr : pszToken;
}

VOID FreeProcessBlacklist()
{
    if (g_ProcessBlacklist == nullptr) {
        return;
    }
    for (OwnedString** ppstrEntry = g_ProcessBlacklist; *ppstrEntry != nullptr; ppstrEntry++) {
        FreeBuffer(*ppstrEntry);
    }
    FreeBufferAndClear((PVOID*)&g_ProcessBlacklist);
}

// Builds a new blacklist from a '|' list, which is split in place. On STATUS_NO_MEMORY for a
// name the list keeps what was built, with its null end. The caller holds g_ConfigLock.
static NTSTATUS ReplaceProcessBlacklist(PWSTR pszBlacklist)
{
    FreeProcessBlacklist();

    ULONG ulBars = 0;
    for (PCWSTR psz = pszBlacklist; *psz != L'\0'; psz++) {
        if (*psz == L'|') {
            ulBars++;
        }
    }
    SIZE_T ulSlots = (SIZE_T)ulBars + 2;
    OwnedString** ppstrList = (OwnedString**)AllocateBuffer(POOL_SELECTOR_PAGED, ulSlots * sizeof(OwnedString*));
    if (ppstrList == nullptr) {
        return STATUS_NO_MEMORY;
    }
    RtlZeroMemory(ppstrList, ulSlots * sizeof(OwnedString*));
    g_ProcessBlacklist = ppstrList;

    // Each entry is the name and a terminating zero: capacity Length + 2.
    ULONG ulEntry = 0;
    for (PWSTR pszToken = NextBarToken(pszBlacklist); pszToken != nullptr; pszToken = NextBarToken(nullptr)) {
        SIZE_T ulBytes = wcslen(pszToken) * sizeof(WCHAR);
        OwnedString* pstrEntry = CreateUnicodeString(POOL_SELECTOR_NONPAGED, (USHORT)(ulBytes + sizeof(WCHAR)));
        if (pstrEntry == nullptr) {
            return STATUS_NO_MEMORY;
        }
        RtlCopyMemory(pstrEntry->Buffer, pszToken, ulBytes);
        pstrEntry->Length = (USHORT)ulBytes;
        ppstrList[ulEntry++] = pstrEntry;
        TRACE_INFO("Blacklisting process [%wZ]", pstrEntry);
    }
    return STATUS_SUCCESS;
}

NTSTATUS SetConfiguration(SetConfigurationMessage* pMessage)
{
    NTSTATUS status = STATUS_SUCCESS;
    MergeFolderRecord* pFolder = nullptr;
    PWSTR pszBlacklist = nullptr;
    const MergeFolderBlock* pBlock = nullptr;
    ULONG ulFolderCount = 0;
    bool bUserBuffers = ExGetPreviousMode() == UserMode;

    AcquireLockExclusive(g_ConfigLock);

    // The message and the folder block are the sending process's memory: everything is copied
    // out of them under an exception guard, and only the copies are worked on.
    pFolder = (MergeFolderRecord*)AllocateBuffer(POOL_SELECTOR_PAGED, sizeof(MergeFolderRecord));
    pszBlacklist =
        (PWSTR)AllocateBuffer(POOL_SELECTOR_PAGED, (CONFIGURATION_BLACKLIST_CHARS + 1) * sizeof(WCHAR));
    if (pFolder == nullptr || pszBlacklist == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Cleanup;
    }
    if (pMessage == nullptr) {
        status = STATUS_INVALID_PARAMETER;
        goto Cleanup;
    }
    __try {
        if (bUserBuffers) {
            ProbeForRead(pMessage, sizeof(SetConfigurationMessage), 1);
        }
        pBlock = (const MergeFolderBlock*)(ULONG_PTR)pMessage->pFolderBlock;
        if (pMessage->ConfigVersion < CONFIGURATION_MIN_VERSION || pBlock == nullptr) {
            status = STATUS_INVALID_PARAMETER;
        } else {
            if (bUserBuffers) {
                ProbeForRead(pBlock, sizeof(pBlock->FolderCount), 1);
            }
            ulFolderCount = pBlock->FolderCount;
            if (ulFolderCount > CONFIGURATION_MAX_FOLDERS) {
                status = STATUS_INVALID_PARAMETER;
            } else if (bUserBuffers) {
                ProbeForRead(pBlock, FIELD_OFFSET(MergeFolderBlock, Folders) + ulFolderCount * sizeof(MergeFolderRecord),
                             1);
            }
            RtlCopyMemory(pszBlacklist, pMessage->ProcessBlacklist, CONFIGURATION_BLACKLIST_CHARS * sizeof(WCHAR));
            pszBlacklist[CONFIGURATION_BLACKLIST_CHARS] = L'\0';
        }
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        status = GetExceptionCode();
    }
    if (!NT_SUCCESS(status) || ulFolderCount == 0) {
        goto Cleanup;
    }

    TRACE_INFO("Setting configuration for %d folders", (int)ulFolderCount);

    // Rows stay compact: a folder that can't be set is dropped, and the next one takes its row.
    for (ULONG ulFolder = 0; ulFolder < ulFolderCount; ulFolder++) {
        __try {
            RtlCopyMemory(pFolder, &pBlock->Folders[ulFolder], sizeof(MergeFolderRecord));
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            status = GetExceptionCode();
        }
        if (!NT_SUCCESS(status)) {
            break;
        }
        MergeFolderEntry* pRow = &g_MergeFolders[g_MergeFolderCount];
        if (SetMergeFolder(pRow, pFolder) == STATUS_SUCCESS) {
            g_MergeFolderCount++;
        } else {
            ClearMergeFolderRow(pRow);
        }
    }
    if (NT_SUCCESS(status)) {
        status = ReplaceProcessBlacklist(pszBlacklist);
    }

Cleanup:
    // Whatever rows were set before an exit, the lookups find them.
    SummarizeMergeFolders();
    ReleaseLock(g_ConfigLock);
    if (pFolder != nullptr) {
        FreeBuffer(pFolder);
    }
    if (pszBlacklist != nullptr) {
        FreeBuffer(pszBlacklist);
    }
    return status;
}
