// Conversions between counted Unicode strings and the ANSI code page (1252).
#include <ntsim/rtl.h>
#include <ntsim/ex.h>

#include "rtl_internal.hpp"

namespace {

// Code page 1252 differs from Latin-1 only in 0x80-0x9F. The five bytes that 1252 leaves
// undefined (0x81, 0x8D, 0x8F, 0x90, 0x9D) map to the C1 controls of the same value.
constexpr WCHAR kHighControls1252[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  // 0x80
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,  // 0x88
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  // 0x90
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,  // 0x98
};

}  // namespace

namespace ntsim::rtl {

WCHAR AnsiToUnicodeChar(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80 && byte <= 0x9F) {
        return kHighControls1252[byte - 0x80];
    }
    return WCHAR(byte);
}

char UnicodeToAnsiChar(WCHAR c)
{
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
        return static_cast<char>(c);
    }
    for (unsigned i = 0; i < 32; ++i) {
        if (kHighControls1252[i] == c) {
            return static_cast<char>(0x80 + i);
        }
    }
    return '?';
}

}  // namespace ntsim::rtl

NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString,
                                                     PCUNICODE_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString)
{
    ntsim::rtl::CheckPagedCaller("RtlUnicodeStringToAnsiString");
    const size_t characters = SourceString->Length / sizeof(WCHAR);
    if (characters + 1 > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER_2;
    }

    NTSTATUS status = STATUS_SUCCESS;
    size_t count = characters;
    if (AllocateDestinationString) {
        auto* buffer = static_cast<PCHAR>(
            ntsim::rtl::AllocateStringBuffer(characters + 1, ntsim::rtl::kAnsiStringTag));
        if (buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = USHORT(characters + 1);
    } else if (characters >= DestinationString->MaximumLength) {
        if (DestinationString->MaximumLength == 0) {
            return STATUS_BUFFER_OVERFLOW;
        }
        count = DestinationString->MaximumLength - 1u;
        status = STATUS_BUFFER_OVERFLOW;
    }
    for (size_t i = 0; i < count; ++i) {
        DestinationString->Buffer[i] = ntsim::rtl::UnicodeToAnsiChar(SourceString->Buffer[i]);
    }
    DestinationString->Buffer[count] = '\0';
    DestinationString->Length = USHORT(count);
    return status;
}

NTSYSAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                                     PCANSI_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString)
{
    ntsim::rtl::CheckPagedCaller("RtlAnsiStringToUnicodeString");
    const size_t bytes = size_t(SourceString->Length) * sizeof(WCHAR);
    if (bytes + sizeof(WCHAR) > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER_2;
    }

    if (AllocateDestinationString) {
        auto* buffer = static_cast<PWCH>(ntsim::rtl::AllocateStringBuffer(bytes + sizeof(WCHAR)));
        if (buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = USHORT(bytes + sizeof(WCHAR));
    } else if (bytes + sizeof(WCHAR) > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (size_t i = 0; i < SourceString->Length; ++i) {
        DestinationString->Buffer[i] = ntsim::rtl::AnsiToUnicodeChar(SourceString->Buffer[i]);
    }
    DestinationString->Buffer[SourceString->Length] = L'\0';
    DestinationString->Length = USHORT(bytes);
    return STATUS_SUCCESS;
}
