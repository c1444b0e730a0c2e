// The service's listing of a directory, as the reply to a listing fetch carries it: a chain of
// records in the published layout of the FileInformationClass that the size request named.
//
// - The first record stands at the start of the block.
// - A record's NextEntryOffset gives the distance to the next record; the last one has 0.
// - The filter copies SERVICE_LISTING_ENTRY_SIZE bytes of each record into its caller's buffer,
//   which can be up to 16 bytes more than the record itself: from the start of every record, the
//   last one included, that many bytes must lie inside the block.
//
// Of a record the filter reads only NextEntryOffset and FileNameLength. Names are UTF-16LE without
// a terminator; times are in 100 ns units since 1601.
//
// Little-endian, packed, fixed-width fields only; C and C++ alike.
#pragma once

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <assert.h>  // static_assert is a macro of <assert.h> in C11
#endif

// ---- the six information classes a listing can be in ----
#define SERVICE_LISTING_DIRECTORY 1           // FileDirectoryInformation
#define SERVICE_LISTING_FULL_DIRECTORY 2      // FileFullDirectoryInformation
#define SERVICE_LISTING_BOTH_DIRECTORY 3      // FileBothDirectoryInformation
#define SERVICE_LISTING_NAMES 12              // FileNamesInformation
#define SERVICE_LISTING_ID_BOTH_DIRECTORY 37  // FileIdBothDirectoryInformation
#define SERVICE_LISTING_ID_FULL_DIRECTORY 38  // FileIdFullDirectoryInformation

// Characters of a short (8.3) name's field.
#define SERVICE_LISTING_SHORT_NAME_CHARS 12

#pragma pack(push, 1)

// The head of FILE_DIRECTORY_INFORMATION, which the three directory records and their Id forms
// begin with.
typedef struct _ListingDirectoryHead {
    uint32_t NextEntryOffset;
    uint32_t FileIndex;
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    int64_t EndOfFile;
    int64_t AllocationSize;
    uint32_t FileAttributes;
    uint32_t FileNameLength;  // bytes
} ListingDirectoryHead;

// FileDirectoryInformation.
typedef struct _ListingDirectoryRecord {
    ListingDirectoryHead Head;
    uint16_t FileName[1];
} ListingDirectoryRecord;

// FileFullDirectoryInformation.
typedef struct _ListingFullDirectoryRecord {
    ListingDirectoryHead Head;
    uint32_t EaSize;
    uint16_t FileName[1];
} ListingFullDirectoryRecord;

// FileBothDirectoryInformation.
typedef struct _ListingBothDirectoryRecord {
    ListingDirectoryHead Head;
    uint32_t EaSize;
    int8_t ShortNameLength;  // bytes
    uint8_t Padding;
    uint16_t ShortName[SERVICE_LISTING_SHORT_NAME_CHARS];
    uint16_t FileName[1];
} ListingBothDirectoryRecord;

// FileNamesInformation.
typedef struct _ListingNamesRecord {
    uint32_t NextEntryOffset;
    uint32_t FileIndex;
    uint32_t FileNameLength;  // bytes
    uint16_t FileName[1];
} ListingNamesRecord;

// FileIdBothDirectoryInformation.
typedef struct _ListingIdBothDirectoryRecord {
    ListingDirectoryHead Head;
    uint32_t EaSize;
    int8_t ShortNameLength;
    uint8_t Padding1;
    uint16_t ShortName[SERVICE_LISTING_SHORT_NAME_CHARS];
    uint16_t Padding2;
    int64_t FileId;
    uint16_t FileName[1];
} ListingIdBothDirectoryRecord;

// FileIdFullDirectoryInformation.
typedef struct _ListingIdFullDirectoryRecord {
    ListingDirectoryHead Head;
    uint32_t EaSize;
    uint32_t Padding;
    int64_t FileId;
    uint16_t FileName[1];
} ListingIdFullDirectoryRecord;

#pragma pack(pop)

// The offset of a class's FileName: the record's size without its name. 0 for a class that is
// none of the six.
static inline uint32_t ServiceListingNameOffset(uint32_t fileInformationClass)
{
    switch (fileInformationClass) {
    case SERVICE_LISTING_DIRECTORY: return (uint32_t)offsetof(ListingDirectoryRecord, FileName);
    case SERVICE_LISTING_FULL_DIRECTORY: return (uint32_t)offsetof(ListingFullDirectoryRecord, FileName);
    case SERVICE_LISTING_BOTH_DIRECTORY: return (uint32_t)offsetof(ListingBothDirectoryRecord, FileName);
    case SERVICE_LISTING_NAMES: return (uint32_t)offsetof(ListingNamesRecord, FileName);
    case SERVICE_LISTING_ID_BOTH_DIRECTORY: return (uint32_t)offsetof(ListingIdBothDirectoryRecord, FileName);
    case SERVICE_LISTING_ID_FULL_DIRECTORY: return (uint32_t)offsetof(ListingIdFullDirectoryRecord, FileName);
    default: return 0;
    }
}

// The bytes the filter copies of one record: the published record's size with a one-character name
// (its name offset and 2, rounded up to a multiple of 8), plus the name's length, rounded down to a
// multiple of 8, plus 8. 8 for a class that is none of the six.
static inline uint32_t ServiceListingEntrySize(uint32_t fileInformationClass, uint32_t fileNameLength)
{
    const uint32_t nameOffset = ServiceListingNameOffset(fileInformationClass);
    if (nameOffset == 0) {
        return 8;
    }
    const uint32_t oneCharacterRecord = (nameOffset + 2 + 7) & ~7u;
    return ((fileNameLength + oneCharacterRecord) & ~7u) + 8;
}

// ---- pinned layouts: the published x64 records ----

static_assert(sizeof(ListingDirectoryHead) == 64, "ListingDirectoryHead size");
static_assert(offsetof(ListingDirectoryHead, FileIndex) == 4, "FileIndex");
static_assert(offsetof(ListingDirectoryHead, CreationTime) == 8, "CreationTime");
static_assert(offsetof(ListingDirectoryHead, ChangeTime) == 32, "ChangeTime");
static_assert(offsetof(ListingDirectoryHead, EndOfFile) == 40, "EndOfFile");
static_assert(offsetof(ListingDirectoryHead, AllocationSize) == 48, "AllocationSize");
static_assert(offsetof(ListingDirectoryHead, FileAttributes) == 56, "FileAttributes");
static_assert(offsetof(ListingDirectoryHead, FileNameLength) == 60, "FileNameLength");
static_assert(offsetof(ListingDirectoryRecord, FileName) == 64, "FILE_DIRECTORY_INFORMATION.FileName");
static_assert(offsetof(ListingFullDirectoryRecord, EaSize) == 64, "FILE_FULL_DIR_INFORMATION.EaSize");
static_assert(offsetof(ListingFullDirectoryRecord, FileName) == 68, "FILE_FULL_DIR_INFORMATION.FileName");
static_assert(offsetof(ListingBothDirectoryRecord, ShortNameLength) == 68, "FILE_BOTH_DIR_INFORMATION.ShortNameLength");
static_assert(offsetof(ListingBothDirectoryRecord, ShortName) == 70, "FILE_BOTH_DIR_INFORMATION.ShortName");
static_assert(offsetof(ListingBothDirectoryRecord, FileName) == 94, "FILE_BOTH_DIR_INFORMATION.FileName");
static_assert(offsetof(ListingNamesRecord, FileNameLength) == 8, "FILE_NAMES_INFORMATION.FileNameLength");
static_assert(offsetof(ListingNamesRecord, FileName) == 12, "FILE_NAMES_INFORMATION.FileName");
static_assert(offsetof(ListingIdBothDirectoryRecord, ShortName) == 70, "FILE_ID_BOTH_DIR_INFORMATION.ShortName");
static_assert(offsetof(ListingIdBothDirectoryRecord, FileId) == 96, "FILE_ID_BOTH_DIR_INFORMATION.FileId");
static_assert(offsetof(ListingIdBothDirectoryRecord, FileName) == 104, "FILE_ID_BOTH_DIR_INFORMATION.FileName");
static_assert(offsetof(ListingIdFullDirectoryRecord, EaSize) == 64, "FILE_ID_FULL_DIR_INFORMATION.EaSize");
static_assert(offsetof(ListingIdFullDirectoryRecord, FileId) == 72, "FILE_ID_FULL_DIR_INFORMATION.FileId");
static_assert(offsetof(ListingIdFullDirectoryRecord, FileName) == 80, "FILE_ID_FULL_DIR_INFORMATION.FileName");
