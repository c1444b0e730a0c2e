// The path of one of a file's alternate data streams.
#include "fileaccess.h"

// Room for ":", the terminator and a margin, in characters.
#define STREAM_PATH_EXTRA_CHARS 11

OwnedString* JoinPathAndStreamName(PCUNICODE_STRING pPath, PCWSTR pszStreamName)
{
    if (pPath == nullptr || pszStreamName == nullptr || (pPath->Buffer == nullptr && pPath->Length != 0)) {
        return nullptr;
    }

    // A zeroed block, so that the text stays terminated whatever is cut from its end.
    SIZE_T ulPathChars = pPath->Length / sizeof(WCHAR);
    SIZE_T ulCapacityChars = ulPathChars + wcslen(pszStreamName) + STREAM_PATH_EXTRA_CHARS;
    PWCHAR pszJoined = (PWCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulCapacityChars * sizeof(WCHAR));
    if (pszJoined == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(pszJoined, ulCapacityChars * sizeof(WCHAR));

    OwnedString* pstrResult = nullptr;
    if (wcsncpy_s(pszJoined, ulCapacityChars, pPath->Buffer, ulPathChars) == 0) {
        // "file\" and "file" name the same object; a stream name only follows the second.
        for (SIZE_T ulIndex = ulPathChars; ulIndex > 0 && pszJoined[ulIndex - 1] == L'\\'; ulIndex--) {
            pszJoined[ulIndex - 1] = L'\0';
        }
        // The separator, then the stream's name.
        if (wcscat_s(pszJoined, ulCapacityChars, L":") == 0 &&
            wcscat_s(pszJoined, ulCapacityChars, pszStreamName) == 0) {
            pstrResult = CreateUnicodeStringFromText(pszJoined);
        }
    }

    FreeBuffer(pszJoined);
    return pstrResult;
}
