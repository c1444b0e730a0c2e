// Whether a path is excluded for a user: the user's cache first, the service on a miss.
#include "exclusions.h"

#include "fileaccess.h"
#include "servicerequests.h"
#include "trace.h"
#include "user.h"

static bool HasText(PCUNICODE_STRING pString)
{
    return pString != nullptr && pString->Buffer != nullptr;
}

// A lower-case copy of pPath (g_PoolType), or null when it can't be made.
static OwnedString* CreateExclusionKey(PCUNICODE_STRING pPath)
{
    OwnedString* pstrKey = CopyUnicodeString(pPath);
    if (pstrKey != nullptr && !NT_SUCCESS(RtlDowncaseUnicodeString(pstrKey, pstrKey, FALSE))) {
        FreeUnicodeString(&pstrKey);
    }
    return pstrKey;
}

// The verdict cached for pKey in pRecord, TRUE on a hit. Without a record (no memory for one)
// there is no cache, and every test misses.
static BOOLEAN FindCachedExclusion(UserRecord* pRecord, PCUNICODE_STRING pKey, PUCHAR pbExcluded)
{
    *pbExcluded = 0;
    return pRecord != nullptr && FindInExclusionCache(pRecord, pKey, pbExcluded);
}

// The service's verdict on pServicePath, cached under pKey when there is a record, whatever made
// it: only a result of exactly 0 says excluded.
static UCHAR AskForExclusion(UserRecord* pRecord, PCUNICODE_STRING pSid, PCUNICODE_STRING pKey,
                             PCUNICODE_STRING pServicePath, PCFLT_RELATED_OBJECTS pFltObjects,
                             PFLT_IO_PARAMETER_BLOCK pIopb)
{
    UCHAR bExcluded = ServiceRequest_ObjectIsExcludedFile(pSid, pServicePath, pFltObjects, pIopb) == 0 ? 1 : 0;
    if (pRecord != nullptr) {
        AddToExclusionCache(pRecord, pKey, bExcluded);
    }
    return bExcluded;
}

UCHAR IsExcludedByDirectory(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS pFltObjects,
                            PFLT_IO_PARAMETER_BLOCK pIopb)
{
    UCHAR bExcluded = 0;
    OwnedString* pstrKey = nullptr;
    OwnedString* pstrServicePath = nullptr;
    UserRecord* pRecord = nullptr;
    FILE_BASIC_INFORMATION basic = {};
    FILE_STANDARD_INFORMATION standard = {};
    NTSTATUS status;

    if (pPath == nullptr) {
        return 0;
    }
    pstrKey = CreateExclusionKey(pPath);
    if (pstrKey == nullptr) {
        goto Cleanup;
    }
    pstrServicePath = CopyUnicodeString(pPath);
    if (pstrServicePath == nullptr) {
        goto Cleanup;
    }

    // A directory stands for itself. A file, or a path that can't be opened yet, is judged by its
    // directory: both copies end before the last backslash, unless that is the first character.
    status = pFltObjects != nullptr ? GetFileInformation(pPath, pFltObjects->Filter, pFltObjects->Instance, &basic,
                                                         &standard, nullptr)
                                    : STATUS_INVALID_PARAMETER;
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to get file info for [%wZ] (0x%08x)", pPath, status);
    }
    if (!NT_SUCCESS(status) || !AreFileAttributesKnown(&basic) ||
        (basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        USHORT usIndex = pstrKey->Length / sizeof(WCHAR);
        while (usIndex > 0 && pstrKey->Buffer[usIndex - 1] != L'\\') {
            usIndex--;
        }
        if (usIndex > 1) {
            pstrKey->Length = (USHORT)((usIndex - 1) * sizeof(WCHAR));
            pstrServicePath->Length = pstrKey->Length;
        }
    }

    pRecord = FindUserRecord(pSid);
    if (FindCachedExclusion(pRecord, pstrKey, &bExcluded)) {
        if (HasText(pstrKey)) {
            TRACE_INFO("Found [%wZ] in exclusion cache. %s", pstrKey, bExcluded ? "Excluded" : "Not excluded");
        }
    } else {
        if (HasText(pstrKey)) {
            TRACE_INFO("Failed to find [%wZ] in exclusion cache", pstrKey);
        }
        bExcluded = AskForExclusion(pRecord, pSid, pstrKey, pstrServicePath, pFltObjects, pIopb);
    }
    ReleaseUserRecord(pRecord, 0);

Cleanup:
    FreeUnicodeString(&pstrKey);
    FreeUnicodeString(&pstrServicePath);
    return bExcluded;
}

UCHAR IsExcludedByPath(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS pFltObjects,
                       PFLT_IO_PARAMETER_BLOCK pIopb)
{
    UCHAR bExcluded = 0;
    if (pPath == nullptr) {
        return 0;
    }
    OwnedString* pstrKey = CreateExclusionKey(pPath);
    if (pstrKey == nullptr) {
        return 0;
    }
    UserRecord* pRecord = FindUserRecord(pSid);
    if (!FindCachedExclusion(pRecord, pstrKey, &bExcluded)) {
        bExcluded = AskForExclusion(pRecord, pSid, pstrKey, pPath, pFltObjects, pIopb);
    }
    ReleaseUserRecord(pRecord, 0);
    FreeUnicodeString(&pstrKey);
    return bExcluded;
}
