// The C run-time routines that kernel code calls, with Windows semantics, for ntsim:
// 16-bit wide strings (wcslen, wcscpy_s, _wcsicmp, ...) and _snprintf/_vsnprintf.
//
// Why these are not the C library's routines, and how the names stay apart:
// This platform builds with -fshort-wchar, so WCHAR and L"..." are 16 bits wide, but the C
// library was built with a 4-byte wchar_t: its wcslen would read 16-bit text two characters
// at a time. The C library also owns some of the same names (wcslen, wcsnlen, wcscmp), both
// as declarations in <wchar.h> and as link-time symbols.
// 1. The routines live in namespace ntsim::crt with C++ linkage, so their symbols are mangled
//    and never meet the C library's at link time.
// 2. Each WDK name is a function-like macro that forwards to ntsim::crt, e.g.
//    `#define wcslen(String) ::ntsim::crt::wcslen(String)`: kernel code writes `wcslen(p)` and
//    gets the 16-bit routine.
// 3. This header includes <cwchar> and <string_view> before it defines the macros. The C
//    library's declarations (`size_t wcslen(const wchar_t*)`), <cwchar>'s `#undef wcslen` and
//    `using ::wcslen;`, and the standard library's own inline calls are thus parsed without
//    the macros, the same way whichever of these headers a unit includes first; later
//    inclusions are no-ops behind their include guards. A function-like macro also leaves
//    alone every mention of the name that is not a call (`using ::wcslen;`).
// Consequences: code that needs the address of one of these routines names it in full
// (`&ntsim::crt::wcslen`); `std::wcslen(...)` after this header does not compile, which is
// intended (it would be the C library's 4-byte routine). The standard library's wide strings
// (std::wstring) stay unusable on this platform; use std::u16string and sim/text.hpp.
//
// _snprintf/_vsnprintf follow the Microsoft run-time:
// - With len the length of the output: len < count stores it and a terminator and returns
//   len; len == count stores len characters without a terminator and returns len; len > count
//   stores count characters without a terminator and returns -1. A null buffer with count 0
//   returns len and stores nothing.
// - Conversions: d i u x X o c C s S Z p %; flags - + space # 0; width and precision (also *).
//   Size prefixes: hh and h (char, short), l (32 bits: ULONG), ll and I64 (64 bits), I32,
//   I (pointer sized), z t j (64 bits), w (wide for c, s and Z).
//   %s and %hs take char text, %S %ls %ws wide (16-bit) text, %c a char, %C %lc %wc a WCHAR,
//   %Z a PANSI_STRING, %wZ a PUNICODE_STRING. A null string prints "(null)". %p prints 16
//   upper-case hexadecimal digits. Wide text is written through the ANSI code page (1252):
//   a character it cannot hold becomes '?'.
// - Floating-point conversions and %n are not supported: the call fails with -1 and the
//   verifier reports the format.
#pragma once

#include <errno.h>
#include <stdarg.h>

#include <cwchar>
#include <string_view>

#include "ntdef.h"
#include "ntstatus.h"

typedef int errno_t;

#ifndef STRUNCATE
#define STRUNCATE 80
#endif
#define _TRUNCATE ((size_t)-1)
// What _wcsicmp/_wcsnicmp return for a null argument.
#define _NLSCMPERROR 2147483647

namespace ntsim::crt {

// ---- length and comparison ----
size_t wcslen(const wchar_t* String);
// Characters before the terminator, at most MaxCount (MaxCount when there is none in range).
size_t wcsnlen(const wchar_t* String, size_t MaxCount);
// Sign of the first differing 16-bit pair, unsigned.
int wcscmp(const wchar_t* String1, const wchar_t* String2);
// Case-insensitive: both characters are lower-cased (RtlDowncaseUnicodeChar) before they are
// compared, so '_' sorts before letters. A null argument gives _NLSCMPERROR.
int _wcsicmp(const wchar_t* String1, const wchar_t* String2);
int _wcsnicmp(const wchar_t* String1, const wchar_t* String2, size_t Count);

// ---- bounded copies ----
// All take the destination's size in characters. On success they return 0 and leave the
// result zero-terminated. Errors: EINVAL for a null destination or a size of 0 (the
// destination is not touched), EINVAL for a null source or, for wcscat_s, a destination that
// is not terminated within its size; ERANGE when the result does not fit. On EINVAL with a
// usable destination and on ERANGE, the destination becomes the empty string.
errno_t wcscpy_s(wchar_t* Destination, size_t SizeInWords, const wchar_t* Source);
errno_t wcscat_s(wchar_t* Destination, size_t SizeInWords, const wchar_t* Source);
// Copies at most Count characters of Source. Count == _TRUNCATE copies what fits and
// returns STRUNCATE when it had to cut the text. A null source with Count 0 is accepted.
errno_t wcsncpy_s(wchar_t* Destination, size_t SizeInWords, const wchar_t* Source, size_t Count);

// ---- formatting ----
int _vsnprintf(char* Buffer, size_t Count, const char* Format, va_list ArgList);
int _snprintf(char* Buffer, size_t Count, const char* Format, ...);

}  // namespace ntsim::crt

#define wcslen(String) ::ntsim::crt::wcslen(String)
#define wcsnlen(String, MaxCount) ::ntsim::crt::wcsnlen(String, MaxCount)
#define wcscmp(String1, String2) ::ntsim::crt::wcscmp(String1, String2)
#define _wcsicmp(String1, String2) ::ntsim::crt::_wcsicmp(String1, String2)
#define _wcsnicmp(String1, String2, Count) ::ntsim::crt::_wcsnicmp(String1, String2, Count)
#define wcscpy_s(Destination, SizeInWords, Source) \
    ::ntsim::crt::wcscpy_s(Destination, SizeInWords, Source)
#define wcscat_s(Destination, SizeInWords, Source) \
    ::ntsim::crt::wcscat_s(Destination, SizeInWords, Source)
#define wcsncpy_s(Destination, SizeInWords, Source, Count) \
    ::ntsim::crt::wcsncpy_s(Destination, SizeInWords, Source, Count)
#define _vsnprintf(Buffer, Count, Format, ArgList) \
    ::ntsim::crt::_vsnprintf(Buffer, Count, Format, ArgList)
#define _snprintf(...) ::ntsim::crt::_snprintf(__VA_ARGS__)
