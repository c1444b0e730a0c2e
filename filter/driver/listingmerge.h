// The service's listing of a directory handed out into the caller's buffer of a directory query,
// record by record, behind what the file system wrote there.
//
// A listing is one block of records of the query's FileInformationClass, in the published layouts:
// the first record at the start of the block, each NextEntryOffset leading to the next record, 0 in
// the last. Of a record only NextEntryOffset and FileNameLength are read, and DirectoryEntrySize
// bytes are copied, which may run up to 16 bytes past the record itself: from the start of every
// record that many bytes must lie inside the block. The service keeps these rules; the filter checks
// a listing against them (IsListingWellFormed) before it hands out any of it.
#pragma once

#include <fltKernel.h>

// The bytes one record of FileInformationClass takes in a caller's buffer: the published record's
// size with a one-character name, plus its FileNameLength, rounded down to a multiple of 8, plus 8.
// 8 for a class that is none of the six directory classes, whose record is then not read. pEntry
// must hold the record's fixed part (ListingEntryHeadSize bytes). IRQL: any, for resident memory.
ULONG DirectoryEntrySize(ULONG FileInformationClass, const VOID* pEntry);

// The bytes of a record of FileInformationClass that must be present before DirectoryEntrySize can
// read it: up to and with FileNameLength (NextEntryOffset alone for a class that is none of the six).
ULONG ListingEntryHeadSize(ULONG FileInformationClass);

// Whether the ulLength bytes at pListing keep the rules of a listing of FileInformationClass: every
// record of the chain from the start of the block has its fixed part and DirectoryEntrySize bytes
// inside the block, and each NextEntryOffset leads to a record that starts inside it. The chain
// always moves forward, so the walk ends. False for a null or empty block. IRQL: any, for resident
// memory.
bool IsListingWellFormed(const UCHAR* pListing, ULONG ulLength, ULONG FileInformationClass);

// Copies records of the listing from *ppNextListingEntry on into the caller's buffer (ulLength bytes
// at pBuffer), behind the records of the file system's answer when nothing of the listing has been
// handed out yet (ulInformation bytes of them). Each record takes DirectoryEntrySize bytes; the copy
// of the last one placed has NextEntryOffset 0, and the one before it points to it. A record goes in
// only when it ends before the end of the buffer (one that would end exactly there waits for the
// next query). *ppNextListingEntry moves to the first record not placed, or to pListingEnd when the
// last one was placed.
//
// When the listing is used up on entry, the block is freed (FreeBuffer), *ppDirectoryListing becomes
// null and the result is STATUS_NO_MORE_FILES; otherwise STATUS_SUCCESS, also when nothing fits.
// *pulBytesUsed is the length of what the buffer now holds. STATUS_INVALID_PARAMETER, with nothing
// touched, for a null buffer, field address or out argument.
//
// The listing must be one that IsListingWellFormed accepted, with *ppNextListingEntry on one of its
// records or at its end. The caller's buffer is only read within ulInformation and ulLength, and
// only written within ulLength. IRQL: <= APC_LEVEL (the block is paged pool).
NTSTATUS MergeDirectoryBuffer(PVOID pBuffer, ULONG ulLength, PUCHAR* ppDirectoryListing, PUCHAR* ppNextListingEntry,
                              PUCHAR pListingEnd, ULONG FileInformationClass, ULONG_PTR ulInformation,
                              PULONG pulBytesUsed);
