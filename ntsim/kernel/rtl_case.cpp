// Case mapping of single characters and of counted strings.
//
// The system's case table, over the ranges ntsim models:
// - ASCII a-z <-> A-Z.
// - Latin-1: 0xE0-0xFE <-> 0xC0-0xDE except the division and multiplication signs (0xF7, 0xD7);
//   0xFF (y with diaeresis) <-> 0x178. The micro sign 0xB5 and sharp s 0xDF have no capital
//   in the table and stay as they are.
// - Greek: the basic letters 0x3B1-0x3C9 <-> 0x391-0x3A9 with final sigma 0x3C2 upcasing to
//   0x3A3 (sigma downcases to 0x3C3), and the accented vowels.
// - Cyrillic: 0x430-0x44F <-> 0x410-0x42F and 0x450-0x45F <-> 0x400-0x40F.
// Everything else maps to itself.
#include <ntsim/rtl.h>
#include <ntsim/ex.h>

#include "rtl_internal.hpp"

NTSYSAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter)
{
    const unsigned c = SourceCharacter;
    if (c < 0x80) {
        return (c >= 'a' && c <= 'z') ? WCHAR(c - 0x20) : SourceCharacter;
    }
    if (c < 0x100) {
        if (c >= 0xE0 && c <= 0xFE && c != 0xF7) {
            return WCHAR(c - 0x20);
        }
        return c == 0xFF ? WCHAR(0x178) : SourceCharacter;
    }
    if (c >= 0x3AC && c <= 0x3CE) {
        if (c == 0x3AC) {
            return WCHAR(0x386);
        }
        if (c <= 0x3AF) {
            return WCHAR(c - 0x25);  // 0x3AD-0x3AF -> 0x388-0x38A
        }
        if (c >= 0x3B1 && c <= 0x3CB) {
            return c == 0x3C2 ? WCHAR(0x3A3) : WCHAR(c - 0x20);
        }
        if (c == 0x3CC) {
            return WCHAR(0x38C);
        }
        if (c >= 0x3CD) {
            return WCHAR(c - 0x3F);  // 0x3CD-0x3CE -> 0x38E-0x38F
        }
        return SourceCharacter;
    }
    if (c >= 0x430 && c <= 0x44F) {
        return WCHAR(c - 0x20);
    }
    if (c >= 0x450 && c <= 0x45F) {
        return WCHAR(c - 0x50);
    }
    return SourceCharacter;
}

NTSYSAPI WCHAR NTAPI RtlDowncaseUnicodeChar(WCHAR SourceCharacter)
{
    const unsigned c = SourceCharacter;
    if (c < 0x80) {
        return (c >= 'A' && c <= 'Z') ? WCHAR(c + 0x20) : SourceCharacter;
    }
    if (c < 0x100) {
        return (c >= 0xC0 && c <= 0xDE && c != 0xD7) ? WCHAR(c + 0x20) : SourceCharacter;
    }
    if (c == 0x178) {
        return WCHAR(0xFF);
    }
    if (c >= 0x386 && c <= 0x3AB) {
        if (c == 0x386) {
            return WCHAR(0x3AC);
        }
        if (c >= 0x388 && c <= 0x38A) {
            return WCHAR(c + 0x25);
        }
        if (c == 0x38C) {
            return WCHAR(0x3CC);
        }
        if (c == 0x38E || c == 0x38F) {
            return WCHAR(c + 0x3F);
        }
        if (c >= 0x391 && c != 0x3A2) {
            return WCHAR(c + 0x20);
        }
        return SourceCharacter;
    }
    if (c >= 0x400 && c <= 0x40F) {
        return WCHAR(c + 0x50);
    }
    if (c >= 0x410 && c <= 0x42F) {
        return WCHAR(c + 0x20);
    }
    return SourceCharacter;
}

namespace {

NTSTATUS MapString(PUNICODE_STRING Destination, PCUNICODE_STRING Source, BOOLEAN Allocate,
                   WCHAR (*map)(WCHAR), PCSTR routine)
{
    ntsim::rtl::CheckPagedCaller(routine);
    const USHORT length = Source->Length & ~USHORT(1);
    PWCH buffer = Destination->Buffer;
    if (Allocate) {
        buffer = static_cast<PWCH>(ntsim::rtl::AllocateStringBuffer(length));
        if (buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        Destination->MaximumLength = length;
    } else if (length > Destination->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    // Element by element, so that the source may be the destination.
    for (USHORT i = 0; i < length / sizeof(WCHAR); ++i) {
        buffer[i] = map(Source->Buffer[i]);
    }
    Destination->Buffer = buffer;
    Destination->Length = length;
    return STATUS_SUCCESS;
}

}  // namespace

NTSYSAPI NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString,
                                               PCUNICODE_STRING SourceString,
                                               BOOLEAN AllocateDestinationString)
{
    return MapString(DestinationString, SourceString, AllocateDestinationString, RtlUpcaseUnicodeChar,
                     "RtlUpcaseUnicodeString");
}

NTSYSAPI NTSTATUS NTAPI RtlDowncaseUnicodeString(PUNICODE_STRING DestinationString,
                                                 PCUNICODE_STRING SourceString,
                                                 BOOLEAN AllocateDestinationString)
{
    return MapString(DestinationString, SourceString, AllocateDestinationString,
                     RtlDowncaseUnicodeChar, "RtlDowncaseUnicodeString");
}
