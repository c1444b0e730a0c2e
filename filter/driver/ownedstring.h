// The filter's string type and its pool helpers.
//
// An OwnedString is a UNICODE_STRING whose characters lie directly behind the header, in the
// same pool allocation: one FreeBuffer releases both. Lengths are in bytes; the text is not
// terminated unless the capacity leaves room behind it (the zero fill then supplies the zero).
#pragma once

#include <fltKernel.h>

// The one pool tag of the filter: the literal 'RMLV', which reads VLMR in memory.
#define FOLDERMERGE_POOL_TAG ((ULONG)0x524D4C56)

// Pool selectors of CreateUnicodeString and AllocateBuffer.
#define POOL_SELECTOR_PAGED 0      // paged pool: never touched at DISPATCH_LEVEL
#define POOL_SELECTOR_NONPAGED 1   // g_PoolType

typedef UNICODE_STRING OwnedString;

// Pool type of every non-paged allocation: NonPagedPool, or NonPagedPoolNx from NT 6.2 on.
extern POOL_TYPE g_PoolType;

// An empty string with room for usCapacity bytes, all zero. Null when out of memory.
// ulPoolSelector: POOL_SELECTOR_NONPAGED for g_PoolType, anything else for paged pool.
// IRQL: <= APC_LEVEL for paged pool, <= DISPATCH_LEVEL otherwise.
OwnedString* CreateUnicodeString(ULONG ulPoolSelector, USHORT usCapacity);

// A copy of zero-terminated text from g_PoolType, Length == MaximumLength (no terminator).
// Null when out of memory, for a null text, or for a text too long for a UNICODE_STRING.
// IRQL: <= DISPATCH_LEVEL.
OwnedString* CreateUnicodeStringFromText(PCWSTR pszText);

// A copy of pSource from g_PoolType with the same MaximumLength; the bytes behind Length are
// zero. Null when out of memory or for a null source. IRQL: <= DISPATCH_LEVEL.
OwnedString* CopyUnicodeString(PCUNICODE_STRING pSource);

// A plain block under the filter's tag, not zeroed; null when out of memory.
PVOID AllocateBuffer(ULONG ulPoolSelector, SIZE_T ulSize);

// Frees a block (or an OwnedString) made by the routines above. pBuffer must not be null.
VOID FreeBuffer(PVOID pBuffer);

// Frees *ppBuffer, which must not be null, and sets it to null.
VOID FreeBufferAndClear(PVOID* ppBuffer);

// Frees *ppstr if it is set, and sets it to null. For the cleanup of routines that hold strings.
VOID FreeUnicodeString(OwnedString** ppstr);

// Character index of the first occurrence of pNeedle in pHaystack, or -1. An empty needle, a
// needle longer than the haystack and a null string or buffer give -1. With bIgnoreCase the
// characters are compared after RtlUpcaseUnicodeChar. IRQL: any, for resident strings.
LONG FindUnicodeSubstring(PCUNICODE_STRING pHaystack, PCUNICODE_STRING pNeedle, UCHAR bIgnoreCase);

// Whether pString holds the character ch anywhere in its Length; FALSE for a null string or
// buffer. IRQL: any, for a resident string.
BOOLEAN StringContainsCharacter(PCUNICODE_STRING pString, WCHAR ch);

// Whether a string is there to print: pString and its buffer are set. IRQL: any.
BOOLEAN StringHasText(PCUNICODE_STRING pString);

// Whether pString begins with the zero-terminated pszPrefix, without regard to case.
BOOLEAN StringStartsWithText(PCUNICODE_STRING pString, PCWSTR pszPrefix);
