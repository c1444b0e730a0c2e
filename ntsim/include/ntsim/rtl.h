// Run-time library routines of the kernel (the Rtl* part of the WDK's wdm.h/ntifs.h) for ntsim:
// counted strings, case mapping, ANSI conversion and the memory macros.
//
// Behaviour that callers may rely on:
// - Lengths are in bytes. Nothing here needs a terminating zero in a source; routines that
//   write a string add one only where the documentation says and only when there is room.
// - Case mapping covers ASCII, Latin-1 (0xB5 and 0xDF have no capital; 0xFF <-> 0x178), basic
//   Greek (final sigma upcases to 0x3A3) and basic Cyrillic; every other character maps to itself.
// - The ANSI code page is 1252. A character it cannot hold becomes '?' (there is no best-fit
//   mapping).
// - Allocating forms (AllocateDestinationString TRUE) take paged pool through
//   ExAllocatePoolWithTag; RtlFreeUnicodeString/RtlFreeAnsiString release it with ExFreePool.
//   A failed allocation gives STATUS_NO_MEMORY and leaves the destination untouched.
// - Routines that Windows keeps in paged code (comparisons with case folding, conversions,
//   string case mapping) must be called at or below APC_LEVEL; the verifier checks this.
#pragma once

#include <string.h>

#include "ntdef.h"
#include "ntstatus.h"

extern "C" {

// ---- memory ----
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))

// Number of leading bytes that are equal in both blocks (Length when they are equal).
NTSYSAPI SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);

// ---- initialisation ----
// Points the string at a zero-terminated text: Length is its size without the terminator,
// MaximumLength with it. A null source gives an empty string with a null Buffer. Text longer
// than a UNICODE_STRING can describe is cut at 32766 characters.
NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
NTSYSAPI VOID NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString);

// ---- copy and append ----
// Copies min(Source->Length, Destination->MaximumLength) bytes and adds a terminator when room
// is left. A null source empties the destination.
NTSYSAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString,
                                         PCUNICODE_STRING SourceString);
// STATUS_BUFFER_TOO_SMALL, destination unchanged, when the result would exceed MaximumLength.
// Otherwise appends and writes a terminator when there is room for one.
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination,
                                                       PCUNICODE_STRING Source);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);

// ---- comparison ----
// The first differing pair of characters decides (both upcased when CaseInSensitive); else
// the shorter string is less. Only the sign has a meaning.
NTSYSAPI LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                            BOOLEAN CaseInSensitive);
// Strings of different lengths are never equal.
NTSYSAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                             BOOLEAN CaseInSensitive);
// TRUE when String2 begins with String1. A longer String1 is never a prefix; an empty one
// is a prefix of anything.
NTSYSAPI BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                              BOOLEAN CaseInSensitive);

// ---- case mapping ----
NTSYSAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
NTSYSAPI WCHAR NTAPI RtlDowncaseUnicodeChar(WCHAR SourceCharacter);
// Destination may be the source itself. Without allocation, a destination whose
// MaximumLength is below the source's Length gives STATUS_BUFFER_OVERFLOW and is left as it
// was. No terminator is written.
NTSYSAPI NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString,
                                               PCUNICODE_STRING SourceString,
                                               BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS NTAPI RtlDowncaseUnicodeString(PUNICODE_STRING DestinationString,
                                                 PCUNICODE_STRING SourceString,
                                                 BOOLEAN AllocateDestinationString);

// ---- ANSI conversion ----
// The result is always zero-terminated. Without allocation a destination too small for the
// whole text and its terminator gets as much as fits, terminated, and STATUS_BUFFER_OVERFLOW.
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString,
                                                     PCUNICODE_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString);
// The result is always zero-terminated. Without allocation a destination without room for
// the text and its terminator gives STATUS_BUFFER_OVERFLOW and is left as it was.
NTSYSAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                                     PCANSI_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString);

// ---- release of allocated strings ----
// Frees a Buffer that an allocating Rtl routine made and clears the string.
NTSYSAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTSYSAPI VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString);

// ---- numbers ----
// Base 0 means 10; bases 2, 8, 10 and 16 are accepted (STATUS_INVALID_PARAMETER otherwise).
// Digits are upper case. STATUS_BUFFER_OVERFLOW, string unchanged, without room for the
// digits and a terminator.
NTSYSAPI NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);

}  // extern "C"
