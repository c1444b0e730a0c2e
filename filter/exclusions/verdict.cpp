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

// The verdict for pKey from pSid's cache, or on a miss from the service, asked about
// pServicePath, whose answer is cached whatever it was: only a result of exactly 0 says excluded.
// Without a record (no memory for one) the service's answer is taken and not kept.
static UCHAR DecideExclusion(PCUNICODE_STRING pSid, PCUNICODE_STRING pKey, PCUNICODE_STRING pServicePath,
                             PCFLT_RELATED_OBJECTS pFltObjects, PFLT_IO_PARAMETER_BLOCK pIopb, bool bTrace)
{
    UCHAR bExcluded = 0;
    UserRecord* pRecord = FindUserRecord(pSid);

    if (pRecord != nullptr && FindInExclusionCache(pRecord, pKey, &bExcluded)) {
        if (bTrace && HasText(pKey)) {
            TRACE_INFO("Found [%wZ] in exclusion cache. %s", pKey, bExcluded ? "Excluded" : "Not excluded");
        }
    } else {
        if (bTrace && HasText(pKey)) {
            TRACE_INFO("Failed to find [%wZ] in exclusion cache", pKey);
        }
        bExcluded = ServiceRequest_ObjectIsExcludedFile(pSid, pServicePath, pFltObjects, pIopb) == 0 ? 1 : 0;
        if (pRecord != nullptr) {
            AddToExclusionCache(pRecord, pKey, bExcluded);
        }
    }
    ReleaseUserRecord(pRecord, 0);
    return bExcluded;
}

// TRUE when the file information of pPath says it is a directory. A path that can't be opened is
// taken for a file.
static BOOLEAN IsKnownDirectory(PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS pFltObjects)
{
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    NTSTATUS status = pFltObjects != nullptr ? GetFileInformation(pPath, pFltObjects->Filter, pFltObjects->Instance,
                                                                  &basic, &standard, nullptr)
                                             : STATUS_INVALID_PARAMETER;
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to get file info for [%wZ] (0x%08x)", pPath, status);
        return FALSE;
    }
    return AreFileAttributesKnown(&basic) && (basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

UCHAR IsExcludedByDirectory(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS pFltObjects,
                            PFLT_IO_PARAMETER_BLOCK pIopb)
{
    UCHAR bExcluded = 0;
    OwnedString* pstrKey = nullptr;
    OwnedString* pstrServicePath = nullptr;

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

    // A file, or a path that can't be opened yet, is judged by its directory: both copies end before
    // the last backslash, unless that is the first character.
    if (!IsKnownDirectory(pPath, pFltObjects)) {
        USHORT usIndex = pstrKey->Length / sizeof(WCHAR);
        while (usIndex > 0 && pstrKey->Buffer[usIndex - 1] != L'\\') {
            usIndex--;
        }
        if (usIndex > 1) {
            pstrKey->Length = (USHORT)((usIndex - 1) * sizeof(WCHAR));
            pstrServicePath->Length = pstrKey->Length;
        }
    }

    bExcluded = DecideExclusion(pSid, pstrKey, pstrServicePath, pFltObjects, pIopb, true);

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
    if (pstrKey != nullptr) {
        bExcluded = DecideExclusion(pSid, pstrKey, pPath, pFltObjects, pIopb, false);
        FreeUnicodeString(&pstrKey);
    }
    return bExcluded;
}
