// What the Rtl, FsRtl and CRT units of ntsim share: the pool of allocated strings and the
// check that a routine kept in paged code runs at a level where paged code may run.
#pragma once

#include <ntsim/ex.h>
#include <ntsim/ke.h>

namespace ntsim::rtl {

// Pool tags of the buffers that the allocating string routines make: "Ustr" and "Astr" in
// memory. RtlFreeUnicodeString and RtlFreeAnsiString free them with ExFreePool.
constexpr ULONG kUnicodeStringTag = 0x72747355;
constexpr ULONG kAnsiStringTag = 0x72747341;

// A paged-pool block of the given size (a zero size still gives a block), or null.
inline void* AllocateStringBuffer(size_t bytes, ULONG tag = kUnicodeStringTag)
{
    return ExAllocatePoolWithTag(PagedPool, bytes == 0 ? 1 : bytes, tag);
}

// Routines that Windows keeps in pageable code: callable at or below APC_LEVEL (the verifier
// reports PAGED_CODE_ABOVE_APC_LEVEL with the routine's name).
inline void CheckPagedCaller(PCSTR routine)
{
    NtsimCheckPagedCode(routine);
}

// One character through the ANSI code page (1252). A character the code page cannot hold
// becomes '?'.
char UnicodeToAnsiChar(WCHAR c);
WCHAR AnsiToUnicodeChar(char c);

}  // namespace ntsim::rtl
