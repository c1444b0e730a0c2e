// Counted strings: initialisation, copy, append, comparison, release; RtlCompareMemory and
// RtlIntegerToUnicodeString.
#include <ntsim/rtl.h>
#include <ntsim/crt.h>
#include <ntsim/ex.h>

#include "rtl_internal.hpp"

namespace {

// The largest Length an initialised string gets: MaximumLength (Length + terminator) must
// still fit in a USHORT, and both stay even.
constexpr size_t kMaxUnicodeInitLength = 0xFFFC;
constexpr size_t kMaxAnsiInitLength = 0xFFFE;

// Writes a terminating zero behind the text when the capacity leaves room for a whole one.
void TerminateIfRoom(PUNICODE_STRING String)
{
    if (size_t(String->Length) + sizeof(WCHAR) <= String->MaximumLength) {
        String->Buffer[String->Length / sizeof(WCHAR)] = L'\0';
    }
}

NTSTATUS AppendBytes(PUNICODE_STRING Destination, const WCHAR* Source, size_t Bytes)
{
    if (Bytes == 0) {
        return STATUS_SUCCESS;
    }
    if (size_t(Destination->Length) + Bytes > Destination->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    // The source may lie inside the destination's buffer.
    memmove(reinterpret_cast<PUCHAR>(Destination->Buffer) + Destination->Length, Source, Bytes);
    Destination->Length = USHORT(Destination->Length + Bytes);
    TerminateIfRoom(Destination);
    return STATUS_SUCCESS;
}

LONG CompareCharacters(const WCHAR* s1, const WCHAR* s2, size_t count, BOOLEAN CaseInSensitive)
{
    for (size_t i = 0; i < count; ++i) {
        WCHAR c1 = s1[i];
        WCHAR c2 = s2[i];
        if (c1 != c2 && CaseInSensitive) {
            c1 = RtlUpcaseUnicodeChar(c1);
            c2 = RtlUpcaseUnicodeChar(c2);
        }
        if (c1 != c2) {
            return LONG(c1) - LONG(c2);
        }
    }
    return 0;
}

}  // namespace

NTSYSAPI SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length)
{
    const auto* p1 = static_cast<const UCHAR*>(Source1);
    const auto* p2 = static_cast<const UCHAR*>(Source2);
    SIZE_T i = 0;
    while (i < Length && p1[i] == p2[i]) {
        ++i;
    }
    return i;
}

NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    if (SourceString == nullptr) {
        DestinationString->Length = 0;
        DestinationString->MaximumLength = 0;
        DestinationString->Buffer = nullptr;
        return;
    }
    size_t bytes = wcslen(SourceString) * sizeof(WCHAR);
    if (bytes > kMaxUnicodeInitLength) {
        bytes = kMaxUnicodeInitLength;
    }
    DestinationString->Length = USHORT(bytes);
    DestinationString->MaximumLength = USHORT(bytes + sizeof(WCHAR));
    DestinationString->Buffer = const_cast<PWCH>(SourceString);
}

NTSYSAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    if (SourceString == nullptr) {
        DestinationString->Length = 0;
        DestinationString->MaximumLength = 0;
        DestinationString->Buffer = nullptr;
        return;
    }
    size_t bytes = strlen(SourceString);
    if (bytes > kMaxAnsiInitLength) {
        bytes = kMaxAnsiInitLength;
    }
    DestinationString->Length = USHORT(bytes);
    DestinationString->MaximumLength = USHORT(bytes + 1);
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

NTSYSAPI VOID NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString)
{
    RtlInitAnsiString(DestinationString, SourceString);
}

NTSYSAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString,
                                         PCUNICODE_STRING SourceString)
{
    if (SourceString == nullptr || SourceString->Buffer == nullptr) {
        DestinationString->Length = 0;
        return;
    }
    USHORT bytes = SourceString->Length;
    if (bytes > DestinationString->MaximumLength) {
        bytes = DestinationString->MaximumLength;
    }
    memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    TerminateIfRoom(DestinationString);
}

NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination,
                                                       PCUNICODE_STRING Source)
{
    return AppendBytes(Destination, Source->Buffer, Source->Length);
}

NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    if (Source == nullptr) {
        return STATUS_SUCCESS;
    }
    return AppendBytes(Destination, Source, wcslen(Source) * sizeof(WCHAR));
}

NTSYSAPI LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                            BOOLEAN CaseInSensitive)
{
    ntsim::rtl::CheckPagedCaller("RtlCompareUnicodeString");
    const size_t count1 = String1->Length / sizeof(WCHAR);
    const size_t count2 = String2->Length / sizeof(WCHAR);
    const LONG result = CompareCharacters(String1->Buffer, String2->Buffer,
                                          count1 < count2 ? count1 : count2, CaseInSensitive);
    if (result != 0) {
        return result;
    }
    return LONG(count1) - LONG(count2);
}

NTSYSAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                             BOOLEAN CaseInSensitive)
{
    ntsim::rtl::CheckPagedCaller("RtlEqualUnicodeString");
    if (String1->Length != String2->Length) {
        return FALSE;
    }
    return CompareCharacters(String1->Buffer, String2->Buffer, String1->Length / sizeof(WCHAR),
                             CaseInSensitive) == 0;
}

NTSYSAPI BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                              BOOLEAN CaseInSensitive)
{
    ntsim::rtl::CheckPagedCaller("RtlPrefixUnicodeString");
    if (String1->Length > String2->Length) {
        return FALSE;
    }
    return CompareCharacters(String1->Buffer, String2->Buffer, String1->Length / sizeof(WCHAR),
                             CaseInSensitive) == 0;
}

NTSYSAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    if (UnicodeString->Buffer != nullptr) {
        ExFreePool(UnicodeString->Buffer);
    }
    UnicodeString->Length = 0;
    UnicodeString->MaximumLength = 0;
    UnicodeString->Buffer = nullptr;
}

NTSYSAPI VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString)
{
    if (AnsiString->Buffer != nullptr) {
        ExFreePool(AnsiString->Buffer);
    }
    AnsiString->Length = 0;
    AnsiString->MaximumLength = 0;
    AnsiString->Buffer = nullptr;
}

NTSYSAPI NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String)
{
    if (Base == 0) {
        Base = 10;
    }
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    WCHAR digits[32];
    size_t count = 0;
    do {
        const ULONG digit = Value % Base;
        digits[count++] = WCHAR(digit < 10 ? L'0' + digit : L'A' + (digit - 10));
        Value /= Base;
    } while (Value != 0);

    if ((count + 1) * sizeof(WCHAR) > String->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (size_t i = 0; i < count; ++i) {
        String->Buffer[i] = digits[count - 1 - i];
    }
    String->Buffer[count] = L'\0';
    String->Length = USHORT(count * sizeof(WCHAR));
    return STATUS_SUCCESS;
}
