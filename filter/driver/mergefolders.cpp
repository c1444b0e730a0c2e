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

// ---- the table's summary ----
//
// A row holds a path only if one of its two strings equals, case folded, a part of the path that
// begins at the path's start and ends where a name ends: at one of its backslashes, or at its end.
// The summary keeps two bits for each row string, chosen by a key that equal strings share (the
// length, and the last and middle characters folded), and the length of the longest string. A
// lookup whose path has no such part with both bits of its key set ends at once: no row can hold
// the path, and that is the answer of every lookup for nearly every open of the machine. A part
// whose bits are set (a row string, or one that shares its bits) leads to the scan of the rows.
// Guarded by g_ConfigLock with the table; SummarizeMergeFolders keeps it in step.
#define FOLDER_SUMMARY_BITS 4096

static ULONG g_FolderSummary[FOLDER_SUMMARY_BITS / 32];
static USHORT g_usShortestFolderChars;
static USHORT g_usLongestFolderChars;

// A character folded as RtlUpcaseUnicodeChar folds it: ASCII here (a-z alone), any other through it.
static FORCEINLINE WCHAR FoldCharacter(WCHAR ch)
{
    if (ch < 0x80) {
        return (ch >= L'a' && ch <= L'z') ? (WCHAR)(ch - (L'a' - L'A')) : ch;
    }
    return RtlUpcaseUnicodeChar(ch);
}

// The key of the first usChars characters of pChars.
static ULONG SummaryKey(const WCHAR* pChars, USHORT usChars)
{
    ULONG ulKey = usChars * 0x9E3779B1u;
    if (usChars != 0) {
        ulKey ^= FoldCharacter(pChars[usChars - 1]) * 0x85EBCA77u;
        ulKey ^= FoldCharacter(pChars[usChars / 2]) * 0xC2B2AE3Du;
    }
    return ulKey ^ (ulKey >> 15);
}

// The two bits of a key: from its low and its high half.
static FORCEINLINE ULONG SummaryBitLow(ULONG ulKey)
{
    return ulKey % FOLDER_SUMMARY_BITS;
}

static FORCEINLINE ULONG SummaryBitHigh(ULONG ulKey)
{
    return (ulKey >> 16) % FOLDER_SUMMARY_BITS;
}

static FORCEINLINE bool SummaryHasBit(ULONG ulBit)
{
    return (g_FolderSummary[ulBit / 32] & (1u << (ulBit % 32))) != 0;
}

static bool SummaryHolds(const WCHAR* pChars, USHORT usChars)
{
    ULONG ulKey = SummaryKey(pChars, usChars);
    return SummaryHasBit(SummaryBitLow(ulKey)) && SummaryHasBit(SummaryBitHigh(ulKey));
}

static VOID AddToSummary(PCUNICODE_STRING pString)
{
    USHORT usChars = pString->Length / sizeof(WCHAR);
    ULONG ulKey = SummaryKey(pString->Buffer, usChars);
    ULONG ulLow = SummaryBitLow(ulKey);
    ULONG ulHigh = SummaryBitHigh(ulKey);
    g_FolderSummary[ulLow / 32] |= 1u << (ulLow % 32);
    g_FolderSummary[ulHigh / 32] |= 1u << (ulHigh % 32);
    if (usChars < g_usShortestFolderChars) {
        g_usShortestFolderChars = usChars;
    }
    if (usChars > g_usLongestFolderChars) {
        g_usLongestFolderChars = usChars;
    }
}

VOID SummarizeMergeFolders()
{
    RtlZeroMemory(g_FolderSummary, sizeof(g_FolderSummary));
    g_usShortestFolderChars = MAXUSHORT;
    g_usLongestFolderChars = 0;
    for (ULONG ulRow = 0; ulRow < g_MergeFolderCount; ulRow++) {
        const MergeFolderEntry* pRow = &g_MergeFolders[ulRow];
        if (pRow->pstrLinkPath != nullptr) {
            AddToSummary(pRow->pstrLinkPath);
        }
        if (pRow->pstrDevicePath != nullptr) {
            AddToSummary(pRow->pstrDevicePath);
        }
    }
}

// False when no row can hold pPath, as the folder it is or as one above it. The caller holds
// g_ConfigLock.
static bool SummaryMayHoldPath(PCUNICODE_STRING pPath)
{
    if (pPath->Buffer == nullptr || (pPath->Length % sizeof(WCHAR)) != 0) {
        return true;  // no summary for a malformed string: the rows decide
    }
    // Only a part as long as some row string can be one: the parts looked at run from the
    // shortest row string's length to the longest's.
    const WCHAR* pChars = pPath->Buffer;
    USHORT usChars = pPath->Length / sizeof(WCHAR);
    USHORT usLimit = usChars < g_usLongestFolderChars ? usChars : g_usLongestFolderChars;
    for (USHORT usIndex = g_usShortestFolderChars; usIndex < usLimit; usIndex++) {
        if (pChars[usIndex] == L'\\' && SummaryHolds(pChars, usIndex)) {
            return true;
        }
    }
    if (usLimit == usChars) {
        return SummaryHolds(pChars, usChars);
    }
    return pChars[usLimit] == L'\\' && SummaryHolds(pChars, usLimit);
}

// The same character without regard to case, folded as the Rtl comparisons fold it.
static bool SameCharacterFolded(WCHAR chA, WCHAR chB)
{
    return chA == chB || RtlUpcaseUnicodeChar(chA) == RtlUpcaseUnicodeChar(chB);
}

// The last character of pFolder is, folded, the character of pPath at the same place. pPath is
// at least as long as pFolder. Rows differ mostly at their end (the RID of a SID, the last name
// of a folder), so this tells nearly every row apart before a comparison of the whole string.
static bool LastCharacterMatches(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    USHORT usChars = pFolder->Length / sizeof(WCHAR);
    return usChars == 0 || SameCharacterFolded(pFolder->Buffer[usChars - 1], pPath->Buffer[usChars - 1]);
}

// Equal without regard to case, as RtlEqualUnicodeString with CaseInSensitive TRUE answers.
static bool PathEquals(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    return pFolder->Length == pPath->Length && LastCharacterMatches(pFolder, pPath) &&
           RtlEqualUnicodeString(pFolder, pPath, TRUE) != FALSE;
}

// pFolder is a prefix of pPath without regard to case, as RtlPrefixUnicodeString with
// CaseInSensitive TRUE answers. IsBelowPrefix then tells whether pPath lies below it.
static bool IsPrefix(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    return pFolder->Length <= pPath->Length && LastCharacterMatches(pFolder, pPath) &&
           RtlPrefixUnicodeString(pFolder, pPath, TRUE) != FALSE;
}

static FORCEINLINE bool IsBelowPrefix(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    return pPath->Length > pFolder->Length && pPath->Buffer[pFolder->Length / sizeof(WCHAR)] == L'\\';
}

// The folder's string ends where a name of the path ends: at the path's end or at one of its
// backslashes. A folder that doesn't can be neither the path nor a folder above it.
static FORCEINLINE bool EndsAtNameBoundary(PCUNICODE_STRING pFolder, PCUNICODE_STRING pPath)
{
    return pPath->Length == pFolder->Length || IsBelowPrefix(pFolder, pPath);
}

static bool IsRowComplete(const MergeFolderEntry* pRow)
{
    return pRow->pstrSid != nullptr && pRow->pstrLinkPath != nullptr && pRow->pstrDevicePath != nullptr;
}

// Where a path lies against the folder of a row that has both its paths.
typedef enum _FOLDER_PLACE {
    PathOutsideFolder,
    PathIsFolder,     // the path is one of the row's two paths
    PathBelowFolder,  // the path lies below one of them
} FOLDER_PLACE;

// Whether a row that has both its paths may hold pPath at all: one of its paths ends where a
// name of pPath ends. Most rows end inside a name with both, and are set aside by this test alone.
static FORCEINLINE bool MayHoldPath(const MergeFolderEntry* pRow, PCUNICODE_STRING pPath)
{
    return EndsAtNameBoundary(pRow->pstrLinkPath, pPath) || EndsAtNameBoundary(pRow->pstrDevicePath, pPath);
}

static FOLDER_PLACE PlaceOfPath(const MergeFolderEntry* pRow, PCUNICODE_STRING pPath)
{
    if (!MayHoldPath(pRow, pPath)) {
        return PathOutsideFolder;
    }
    if (PathEquals(pRow->pstrLinkPath, pPath) || PathEquals(pRow->pstrDevicePath, pPath)) {
        return PathIsFolder;
    }
    // A link-form prefix decides the row alone: the device form isn't tried behind it.
    if (IsPrefix(pRow->pstrLinkPath, pPath)) {
        return IsBelowPrefix(pRow->pstrLinkPath, pPath) ? PathBelowFolder : PathOutsideFolder;
    }
    if (IsBelowPrefix(pRow->pstrDevicePath, pPath) && IsPrefix(pRow->pstrDevicePath, pPath)) {
        return PathBelowFolder;
    }
    return PathOutsideFolder;
}

// Each lookup asks the summary first, and scans the rows only when a row may hold the path. It
// tests the path of a row before its SID: the answer is the same, since a row counts only when
// both fit, and the path sets nearly every row aside at once. Only a row that lacks a path needs
// its SID first, to know whether it ends the search.

bool IsMergeFolderRoot(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath)
{
    if (pSid == nullptr || pPath == nullptr) {
        return false;
    }
    bool bMatch = false;
    AcquireLockExclusive(g_ConfigLock);
    ULONG ulRows = SummaryMayHoldPath(pPath) ? g_MergeFolderCount : 0;
    for (ULONG ulRow = 0; ulRow < ulRows; ulRow++) {
        const MergeFolderEntry* pRow = &g_MergeFolders[ulRow];
        if (!IsRowComplete(pRow)) {
            break;
        }
        if ((PathEquals(pRow->pstrLinkPath, pPath) || PathEquals(pRow->pstrDevicePath, pPath)) &&
            PathEquals(pRow->pstrSid, pSid)) {
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
    ULONG ulRows = SummaryMayHoldPath(pPath) ? g_MergeFolderCount : 0;
    for (ULONG ulRow = 0; ulRow < ulRows; ulRow++) {
        const MergeFolderEntry* pRow = &g_MergeFolders[ulRow];
        if (pRow->pstrSid == nullptr) {
            continue;
        }
        if (pRow->pstrLinkPath == nullptr || pRow->pstrDevicePath == nullptr) {
            // A row of this SID without its paths ends the search; another user's is passed by.
            if (PathEquals(pRow->pstrSid, pSid)) {
                break;
            }
            continue;
        }
        if (!MayHoldPath(pRow, pPath)) {
            continue;
        }
        FOLDER_PLACE place = PlaceOfPath(pRow, pPath);
        if (place == PathOutsideFolder || !PathEquals(pRow->pstrSid, pSid)) {
            continue;
        }
        if (place == PathIsFolder) {
            *pbReadOnly = pRow->bReadOnly != 0 ? 1 : 0;
        }
        bManaged = true;
        break;
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
    ULONG ulRows = SummaryMayHoldPath(pPath) ? g_MergeFolderCount : 0;
    for (ULONG ulRow = 0; ulRow < ulRows; ulRow++) {
        const MergeFolderEntry* pRow = &g_MergeFolders[ulRow];
        if (!IsRowComplete(pRow)) {
            break;
        }
        if (MayHoldPath(pRow, pPath) && PlaceOfPath(pRow, pPath) != PathOutsideFolder) {
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
