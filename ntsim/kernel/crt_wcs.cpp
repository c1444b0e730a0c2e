// 16-bit wide string routines of the C run-time, with the Microsoft run-time's semantics.
// The names are parenthesised in the definitions so that crt.h's forwarding macros leave them
// alone.
#include <ntsim/crt.h>
#include <ntsim/rtl.h>

namespace ntsim::crt {

size_t(wcslen)(const wchar_t* String)
{
    const wchar_t* p = String;
    while (*p != L'\0') {
        ++p;
    }
    return size_t(p - String);
}

size_t(wcsnlen)(const wchar_t* String, size_t MaxCount)
{
    size_t n = 0;
    while (n < MaxCount && String[n] != L'\0') {
        ++n;
    }
    return n;
}

int(wcscmp)(const wchar_t* String1, const wchar_t* String2)
{
    for (;; ++String1, ++String2) {
        const auto c1 = static_cast<USHORT>(*String1);
        const auto c2 = static_cast<USHORT>(*String2);
        if (c1 != c2) {
            return c1 < c2 ? -1 : 1;
        }
        if (c1 == 0) {
            return 0;
        }
    }
}

int(_wcsnicmp)(const wchar_t* String1, const wchar_t* String2, size_t Count)
{
    if (String1 == nullptr || String2 == nullptr) {
        return _NLSCMPERROR;
    }
    for (size_t i = 0; i < Count; ++i) {
        const auto c1 = static_cast<USHORT>(RtlDowncaseUnicodeChar(String1[i]));
        const auto c2 = static_cast<USHORT>(RtlDowncaseUnicodeChar(String2[i]));
        if (c1 != c2) {
            return int(c1) - int(c2);
        }
        if (c1 == 0) {
            return 0;
        }
    }
    return 0;
}

int(_wcsicmp)(const wchar_t* String1, const wchar_t* String2)
{
    return _wcsnicmp(String1, String2, _TRUNCATE);
}

errno_t(wcscpy_s)(wchar_t* Destination, size_t SizeInWords, const wchar_t* Source)
{
    return wcsncpy_s(Destination, SizeInWords, Source, _TRUNCATE - 1);
}

errno_t(wcsncpy_s)(wchar_t* Destination, size_t SizeInWords, const wchar_t* Source, size_t Count)
{
    if (Destination == nullptr && SizeInWords == 0 && Count == 0) {
        return 0;  // nothing to copy and nowhere to copy it: accepted
    }
    if (Destination == nullptr || SizeInWords == 0) {
        return EINVAL;
    }
    if (Source == nullptr) {
        Destination[0] = L'\0';
        return Count == 0 ? 0 : EINVAL;
    }
    // Count == _TRUNCATE: as much as fits, with the terminator.
    const bool truncate = Count == _TRUNCATE;
    const size_t limit = truncate ? SizeInWords - 1 : Count;
    size_t n = 0;
    while (n < limit && Source[n] != L'\0') {
        if (n == SizeInWords - 1) {
            Destination[0] = L'\0';
            return ERANGE;
        }
        Destination[n] = Source[n];
        ++n;
    }
    Destination[n] = L'\0';
    if (truncate && Source[n] != L'\0') {
        return STRUNCATE;
    }
    return 0;
}

errno_t(wcscat_s)(wchar_t* Destination, size_t SizeInWords, const wchar_t* Source)
{
    if (Destination == nullptr || SizeInWords == 0) {
        return EINVAL;
    }
    if (Source == nullptr) {
        Destination[0] = L'\0';
        return EINVAL;
    }
    const size_t start = wcsnlen(Destination, SizeInWords);
    if (start == SizeInWords) {
        Destination[0] = L'\0';
        return EINVAL;
    }
    size_t n = 0;
    while (Source[n] != L'\0') {
        if (start + n == SizeInWords - 1) {
            Destination[0] = L'\0';
            return ERANGE;
        }
        Destination[start + n] = Source[n];
        ++n;
    }
    Destination[start + n] = L'\0';
    return 0;
}

}  // namespace ntsim::crt
