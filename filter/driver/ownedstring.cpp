// OwnedString and the pool helpers.
#include "ownedstring.h"

POOL_TYPE g_PoolType = NonPagedPool;

static POOL_TYPE PoolTypeFromSelector(ULONG ulPoolSelector)
{
    return ulPoolSelector == POOL_SELECTOR_NONPAGED ? g_PoolType : PagedPool;
}

OwnedString* CreateUnicodeString(ULONG ulPoolSelector, USHORT usCapacity)
{
    SIZE_T ulSize = sizeof(OwnedString) + usCapacity;
    OwnedString* pstr = (OwnedString*)ExAllocatePoolWithTag(PoolTypeFromSelector(ulPoolSelector), ulSize,
                                                           FOLDERMERGE_POOL_TAG);
    if (pstr == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(pstr, ulSize);
    pstr->Length = 0;
    pstr->MaximumLength = usCapacity;
    pstr->Buffer = (PWCH)(pstr + 1);
    return pstr;
}

OwnedString* CreateUnicodeStringFromText(PCWSTR pszText)
{
    if (pszText == nullptr) {
        return nullptr;
    }
    SIZE_T ulBytes = wcslen(pszText) * sizeof(WCHAR);
    if (ulBytes > (MAXUSHORT & ~1u)) {
        return nullptr;
    }
    OwnedString* pstr = CreateUnicodeString(POOL_SELECTOR_NONPAGED, (USHORT)ulBytes);
    if (pstr == nullptr) {
        return nullptr;
    }
    RtlCopyMemory(pstr->Buffer, pszText, ulBytes);
    pstr->Length = (USHORT)ulBytes;
    return pstr;
}

OwnedString* CopyUnicodeString(PCUNICODE_STRING pSource)
{
    if (pSource == nullptr) {
        return nullptr;
    }
    // A source whose Length exceeds its MaximumLength is malformed; the copy still holds all of it.
    USHORT usCapacity = pSource->MaximumLength >= pSource->Length ? pSource->MaximumLength : pSource->Length;
    OwnedString* pstr = CreateUnicodeString(POOL_SELECTOR_NONPAGED, usCapacity);
    if (pstr == nullptr) {
        return nullptr;
    }
    if (pSource->Length != 0 && pSource->Buffer != nullptr) {
        RtlCopyMemory(pstr->Buffer, pSource->Buffer, pSource->Length);
        pstr->Length = pSource->Length;
    }
    return pstr;
}

PVOID AllocateBuffer(ULONG ulPoolSelector, SIZE_T ulSize)
{
    return ExAllocatePoolWithTag(PoolTypeFromSelector(ulPoolSelector), ulSize, FOLDERMERGE_POOL_TAG);
}

VOID FreeBuffer(PVOID pBuffer)
{
    ExFreePoolWithTag(pBuffer, FOLDERMERGE_POOL_TAG);
}

VOID FreeBufferAndClear(PVOID* ppBuffer)
{
    FreeBuffer(*ppBuffer);
    *ppBuffer = nullptr;
}

VOID FreeUnicodeString(OwnedString** ppstr)
{
    if (*ppstr != nullptr) {
        FreeBuffer(*ppstr);
        *ppstr = nullptr;
    }
}

LONG FindUnicodeSubstring(PCUNICODE_STRING pHaystack, PCUNICODE_STRING pNeedle, UCHAR bIgnoreCase)
{
    if (pHaystack == nullptr || pNeedle == nullptr || pHaystack->Buffer == nullptr || pNeedle->Buffer == nullptr ||
        pNeedle->Length > pHaystack->Length || pNeedle->Length < sizeof(WCHAR)) {
        return -1;
    }
    ULONG ulHaystackChars = pHaystack->Length / sizeof(WCHAR);
    ULONG ulNeedleChars = pNeedle->Length / sizeof(WCHAR);
    // A start position is tried only where the needle's first character stands: the scan for it
    // is all that most positions cost.
    WCHAR chFirst = bIgnoreCase ? RtlUpcaseUnicodeChar(pNeedle->Buffer[0]) : pNeedle->Buffer[0];
    ULONG ulLastStart = ulHaystackChars - ulNeedleChars;
    for (ULONG ulStart = 0; ulStart <= ulLastStart; ulStart++) {
        WCHAR chStart = pHaystack->Buffer[ulStart];
        if (chStart != chFirst && (!bIgnoreCase || RtlUpcaseUnicodeChar(chStart) != chFirst)) {
            continue;
        }
        ULONG ulIndex = 1;
        for (; ulIndex < ulNeedleChars; ulIndex++) {
            WCHAR chHaystack = pHaystack->Buffer[ulStart + ulIndex];
            WCHAR chNeedle = pNeedle->Buffer[ulIndex];
            if (bIgnoreCase) {
                chHaystack = RtlUpcaseUnicodeChar(chHaystack);
                chNeedle = RtlUpcaseUnicodeChar(chNeedle);
            }
            if (chHaystack != chNeedle) {
                break;
            }
        }
        if (ulIndex == ulNeedleChars) {
            return (LONG)ulStart;
        }
    }
    return -1;
}

BOOLEAN StringContainsCharacter(PCUNICODE_STRING pString, WCHAR ch)
{
    if (pString == nullptr || pString->Buffer == nullptr) {
        return FALSE;
    }
    USHORT usChars = pString->Length / sizeof(WCHAR);
    for (USHORT usIndex = 0; usIndex < usChars; usIndex++) {
        if (pString->Buffer[usIndex] == ch) {
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN StringStartsWithText(PCUNICODE_STRING pString, PCWSTR pszPrefix)
{
    if (pString == nullptr || pString->Buffer == nullptr) {
        return FALSE;
    }
    UNICODE_STRING prefix;
    RtlInitUnicodeString(&prefix, pszPrefix);
    return RtlPrefixUnicodeString(&prefix, pString, TRUE);
}

BOOLEAN StringHasText(PCUNICODE_STRING pString)
{
    return pString != nullptr && pString->Buffer != nullptr;
}
