// File-system run-time routines (the FsRtl* part of the WDK's ntifs.h) for ntsim: name
// matching against wildcard expressions.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

// The DOS wildcards that the Win32 layer puts in expressions in place of '*', '?' and '.'.
#define DOS_STAR (L'<')  // any run of characters up to the last '.' of the name
#define DOS_QM (L'>')    // one character, or nothing at a '.' or at the end of the name
#define DOS_DOT (L'"')   // a '.', or nothing at the end of the name

#define FsRtlIsUnicodeCharacterWild(C)                                                   \
    ((C) == L'*' || (C) == L'?' || (C) == DOS_STAR || (C) == DOS_QM || (C) == DOS_DOT)

extern "C" {

// TRUE when Name matches Expression. '*' matches any run (also an empty one), '?' exactly
// one character; the DOS wildcards as above. With IgnoreCase only Name is upcased (through
// UpcaseTable, 65536 entries, when one is given, else RtlUpcaseUnicodeChar): Expression must
// already be upper case, and a lower-case letter in it never matches. An empty name matches
// only an empty expression, so '*' does not match an empty name. At or below APC_LEVEL.
NTKERNELAPI BOOLEAN NTAPI FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name,
                                                  BOOLEAN IgnoreCase, PWCH UpcaseTable);

// TRUE when any character of Name is one of the five wildcards.
NTKERNELAPI BOOLEAN NTAPI FsRtlDoesNameContainWildCards(PUNICODE_STRING Name);

}  // extern "C"
