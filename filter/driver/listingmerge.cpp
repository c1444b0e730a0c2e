// The service's listing handed out into a caller's directory buffer.
#include "listingmerge.h"

#include "ownedstring.h"

// The largest size DirectoryEntrySize gives: a FileNameLength near 4 GiB saturates here rather than
// wrapping to a small size, so such a record fits no block and no buffer.
#define LISTING_ENTRY_SIZE_LIMIT ((ULONG)(MAXULONG & ~7u))

// Fields of a record or a caller's buffer may stand at any address: read and written bytewise.
static ULONG ReadEntryUlong(const UCHAR* pField)
{
    ULONG ulValue;
    RtlCopyMemory(&ulValue, pField, sizeof(ULONG));
    return ulValue;
}

static VOID WriteEntryUlong(UCHAR* pField, ULONG ulValue)
{
    RtlCopyMemory(pField, &ulValue, sizeof(ULONG));
}

// Where a record of the class keeps FileNameLength, and the size of the class's record with a
// one-character name; both 0 for a class that is none of the six.
static VOID DescribeDirectoryClass(ULONG FileInformationClass, PULONG pulNameLengthOffset, PULONG pulOneCharacterSize)
{
    ULONG ulNameLengthOffset = FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileNameLength);
    ULONG ulOneCharacterSize = 0;
    switch (FileInformationClass) {
    case FileDirectoryInformation: ulOneCharacterSize = sizeof(FILE_DIRECTORY_INFORMATION); break;
    case FileFullDirectoryInformation: ulOneCharacterSize = sizeof(FILE_FULL_DIR_INFORMATION); break;
    case FileBothDirectoryInformation: ulOneCharacterSize = sizeof(FILE_BOTH_DIR_INFORMATION); break;
    case FileIdBothDirectoryInformation: ulOneCharacterSize = sizeof(FILE_ID_BOTH_DIR_INFORMATION); break;
    case FileIdFullDirectoryInformation: ulOneCharacterSize = sizeof(FILE_ID_FULL_DIR_INFORMATION); break;
    case FileNamesInformation:
        ulNameLengthOffset = FIELD_OFFSET(FILE_NAMES_INFORMATION, FileNameLength);
        ulOneCharacterSize = sizeof(FILE_NAMES_INFORMATION);
        break;
    default: ulNameLengthOffset = 0; break;
    }
    *pulNameLengthOffset = ulNameLengthOffset;
    *pulOneCharacterSize = ulOneCharacterSize;
}

ULONG ListingEntryHeadSize(ULONG FileInformationClass)
{
    ULONG ulNameLengthOffset;
    ULONG ulOneCharacterSize;
    DescribeDirectoryClass(FileInformationClass, &ulNameLengthOffset, &ulOneCharacterSize);
    return ulOneCharacterSize == 0 ? (ULONG)sizeof(ULONG) : ulNameLengthOffset + (ULONG)sizeof(ULONG);
}

ULONG DirectoryEntrySize(ULONG FileInformationClass, const VOID* pEntry)
{
    ULONG ulNameLengthOffset;
    ULONG ulOneCharacterSize;
    DescribeDirectoryClass(FileInformationClass, &ulNameLengthOffset, &ulOneCharacterSize);
    if (ulOneCharacterSize == 0) {
        return 8;
    }
    const ULONG ulFileNameLength = ReadEntryUlong((const UCHAR*)pEntry + ulNameLengthOffset);
    const ULONGLONG ullSize = (((ULONGLONG)ulFileNameLength + ulOneCharacterSize) & ~7ull) + 8;
    return ullSize > LISTING_ENTRY_SIZE_LIMIT ? LISTING_ENTRY_SIZE_LIMIT : (ULONG)ullSize;
}

bool IsListingWellFormed(const UCHAR* pListing, ULONG ulLength, ULONG FileInformationClass)
{
    if (pListing == nullptr || ulLength == 0) {
        return false;
    }
    const ULONG ulHeadSize = ListingEntryHeadSize(FileInformationClass);
    ULONG ulAt = 0;
    for (;;) {
        const ULONG ulLeft = ulLength - ulAt;
        if (ulLeft < ulHeadSize || DirectoryEntrySize(FileInformationClass, pListing + ulAt) > ulLeft) {
            return false;
        }
        const ULONG ulNextEntryOffset = ReadEntryUlong(pListing + ulAt);
        if (ulNextEntryOffset == 0) {
            return true;
        }
        if (ulNextEntryOffset >= ulLeft) {
            return false;
        }
        ulAt += ulNextEntryOffset;
    }
}

NTSTATUS MergeDirectoryBuffer(PVOID pBuffer, ULONG ulLength, PUCHAR* ppDirectoryListing, PUCHAR* ppNextListingEntry,
                              PUCHAR pListingEnd, ULONG FileInformationClass, ULONG_PTR ulInformation,
                              PULONG pulBytesUsed)
{
    if (pBuffer == nullptr || ppDirectoryListing == nullptr || ppNextListingEntry == nullptr ||
        pulBytesUsed == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    UCHAR* pbBuffer = (UCHAR*)pBuffer;
    ULONGLONG ullWrite = 0;
    UCHAR* pPrevious = nullptr;
    ULONG ulPreviousSize = 0;
    NTSTATUS status = STATUS_SUCCESS;

    // Before the first record of the listing: go past the file system's records, so that the
    // listing continues their chain. The walk keeps to what the file system wrote and to the buffer.
    if (*ppNextListingEntry == *ppDirectoryListing && ulLength != 0) {
        const ULONG ulHeadSize = ListingEntryHeadSize(FileInformationClass);
        while (ullWrite < ulInformation && ullWrite + ulHeadSize <= ulLength) {
            const ULONG ulNextEntryOffset = ReadEntryUlong(pbBuffer + ullWrite);
            if (ulNextEntryOffset == 0) {
                pPrevious = pbBuffer + ullWrite;
                ulPreviousSize = DirectoryEntrySize(FileInformationClass, pPrevious);
                ullWrite += ulPreviousSize;
                break;
            }
            ullWrite += ulNextEntryOffset;
        }
    }

    if (*ppNextListingEntry >= pListingEnd) {
        // Used up: the enumeration is over, and a later query fetches a new listing.
        if (*ppDirectoryListing != nullptr) {
            FreeBuffer(*ppDirectoryListing);
            *ppDirectoryListing = nullptr;
        }
        status = STATUS_NO_MORE_FILES;
        goto Done;
    }

    while (ullWrite < ulLength) {
        UCHAR* pEntry = *ppNextListingEntry;
        const ULONG ulNextEntryOffset = ReadEntryUlong(pEntry);
        const ULONG ulSize = DirectoryEntrySize(FileInformationClass, pEntry);
        // Strictly before the end: a record that would end exactly there waits for the next query.
        if (ullWrite + ulSize >= ulLength) {
            break;
        }
        if (pPrevious != nullptr) {
            WriteEntryUlong(pPrevious, ulPreviousSize);
        }
        RtlCopyMemory(pbBuffer + ullWrite, pEntry, ulSize);
        WriteEntryUlong(pbBuffer + ullWrite, 0);
        pPrevious = pbBuffer + ullWrite;
        ulPreviousSize = ulSize;
        ullWrite += ulSize;
        if (ulNextEntryOffset == 0) {
            *ppNextListingEntry = pListingEnd;
            break;
        }
        *ppNextListingEntry = pEntry + ulNextEntryOffset;
    }

Done:
    // A file system's chain that ran past the buffer leaves no room: its own answer is what the
    // buffer holds.
    if (ullWrite > ulLength) {
        ullWrite = ulInformation < ulLength ? ulInformation : ulLength;
    }
    *pulBytesUsed = (ULONG)ullWrite;
    return status;
}
