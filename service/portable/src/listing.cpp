// Listings of directories: their records, the search pattern, and the listings held by handle.
#include <foldermerge/service/listing.hpp>

#include <servicerequests.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace foldermerge::service {

namespace {

// The longest name a record is given: that of a counted string.
constexpr size_t kLongestNameBytes = 65534;

template <typename T>
void WriteAt(std::vector<uint8_t>& bytes, size_t offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

template <typename T>
T ReadAt(std::span<const uint8_t> bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

size_t RoundUpTo8(size_t value)
{
    return (value + 7) & ~size_t{7};
}

bool HasDirectoryHead(uint32_t fileInformationClass)
{
    return fileInformationClass != SERVICE_LISTING_NAMES;
}

bool HasEaSize(uint32_t fileInformationClass)
{
    return fileInformationClass != SERVICE_LISTING_NAMES && fileInformationClass != SERVICE_LISTING_DIRECTORY;
}

bool HasShortName(uint32_t fileInformationClass)
{
    return fileInformationClass == SERVICE_LISTING_BOTH_DIRECTORY ||
           fileInformationClass == SERVICE_LISTING_ID_BOTH_DIRECTORY;
}

// The FileId's offset, or 0 for a class without one.
size_t FileIdOffset(uint32_t fileInformationClass)
{
    switch (fileInformationClass) {
    case SERVICE_LISTING_ID_BOTH_DIRECTORY: return offsetof(ListingIdBothDirectoryRecord, FileId);
    case SERVICE_LISTING_ID_FULL_DIRECTORY: return offsetof(ListingIdFullDirectoryRecord, FileId);
    default: return 0;
    }
}

size_t FileNameLengthOffset(uint32_t fileInformationClass)
{
    return HasDirectoryHead(fileInformationClass) ? offsetof(ListingDirectoryHead, FileNameLength)
                                                  : offsetof(ListingNamesRecord, FileNameLength);
}

// Writes entry's record at `at` of listing, which has room for it.
void WriteRecord(std::vector<uint8_t>& listing, size_t at, uint32_t fileInformationClass, const ListingEntry& entry)
{
    const size_t nameOffset = ServiceListingNameOffset(fileInformationClass);
    const auto nameBytes = static_cast<uint32_t>(entry.name.size() * 2);
    WriteAt<uint32_t>(listing, at + offsetof(ListingNamesRecord, FileIndex), entry.fileIndex);
    WriteAt<uint32_t>(listing, at + FileNameLengthOffset(fileInformationClass), nameBytes);
    if (HasDirectoryHead(fileInformationClass)) {
        WriteAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, CreationTime), entry.creationTime);
        WriteAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, LastAccessTime), entry.lastAccessTime);
        WriteAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, LastWriteTime), entry.lastWriteTime);
        WriteAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, ChangeTime), entry.changeTime);
        WriteAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, EndOfFile), entry.endOfFile);
        WriteAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, AllocationSize), entry.allocationSize);
        WriteAt<uint32_t>(listing, at + offsetof(ListingDirectoryHead, FileAttributes), entry.fileAttributes);
    }
    if (HasEaSize(fileInformationClass)) {
        WriteAt<uint32_t>(listing, at + offsetof(ListingFullDirectoryRecord, EaSize), entry.eaSize);
    }
    if (HasShortName(fileInformationClass)) {
        WriteAt<int8_t>(listing, at + offsetof(ListingBothDirectoryRecord, ShortNameLength),
                        static_cast<int8_t>(entry.shortName.size() * 2));
        std::memcpy(listing.data() + at + offsetof(ListingBothDirectoryRecord, ShortName), entry.shortName.data(),
                    entry.shortName.size() * 2);
    }
    if (const size_t fileId = FileIdOffset(fileInformationClass); fileId != 0) {
        WriteAt<int64_t>(listing, at + fileId, entry.fileId);
    }
    std::memcpy(listing.data() + at + nameOffset, entry.name.data(), nameBytes);
}

// Reads the record at `at`, whose name lies inside listing.
ListingEntry ReadRecord(std::span<const uint8_t> listing, size_t at, uint32_t fileInformationClass,
                        uint32_t nameBytes)
{
    ListingEntry entry;
    entry.fileIndex = ReadAt<uint32_t>(listing, at + offsetof(ListingNamesRecord, FileIndex));
    if (HasDirectoryHead(fileInformationClass)) {
        entry.creationTime = ReadAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, CreationTime));
        entry.lastAccessTime = ReadAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, LastAccessTime));
        entry.lastWriteTime = ReadAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, LastWriteTime));
        entry.changeTime = ReadAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, ChangeTime));
        entry.endOfFile = ReadAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, EndOfFile));
        entry.allocationSize = ReadAt<int64_t>(listing, at + offsetof(ListingDirectoryHead, AllocationSize));
        entry.fileAttributes = ReadAt<uint32_t>(listing, at + offsetof(ListingDirectoryHead, FileAttributes));
    }
    if (HasEaSize(fileInformationClass)) {
        entry.eaSize = ReadAt<uint32_t>(listing, at + offsetof(ListingFullDirectoryRecord, EaSize));
    }
    if (HasShortName(fileInformationClass)) {
        const auto shortBytes = static_cast<uint8_t>(
            ReadAt<int8_t>(listing, at + offsetof(ListingBothDirectoryRecord, ShortNameLength)));
        const size_t chars = std::min<size_t>(shortBytes / 2, SERVICE_LISTING_SHORT_NAME_CHARS);
        entry.shortName.resize(chars);
        std::memcpy(entry.shortName.data(), listing.data() + at + offsetof(ListingBothDirectoryRecord, ShortName),
                    chars * 2);
    }
    if (const size_t fileId = FileIdOffset(fileInformationClass); fileId != 0) {
        entry.fileId = ReadAt<int64_t>(listing, at + fileId);
    }
    entry.name.resize(nameBytes / 2);
    std::memcpy(entry.name.data(), listing.data() + at + ServiceListingNameOffset(fileInformationClass),
                entry.name.size() * 2);
    return entry;
}

// Upper case as the system's table has it over Latin-1.
char16_t Upcase(char16_t c)
{
    if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7)) {
        return static_cast<char16_t>(c - 0x20);
    }
    return c == 0xFF ? char16_t{0x178} : c;
}

}  // namespace

std::optional<std::vector<uint8_t>> EncodeListing(uint32_t fileInformationClass, std::span<const ListingEntry> entries)
{
    const size_t nameOffset = ServiceListingNameOffset(fileInformationClass);
    if (nameOffset == 0) {
        return std::nullopt;
    }
    // Where each record goes, and how long the block must be for the filter's copy of each.
    std::vector<size_t> offsets;
    size_t next = 0;
    size_t length = 0;
    for (const ListingEntry& entry : entries) {
        const size_t nameBytes = entry.name.size() * 2;
        if (nameBytes > kLongestNameBytes || entry.shortName.size() > SERVICE_LISTING_SHORT_NAME_CHARS) {
            return std::nullopt;
        }
        offsets.push_back(next);
        const size_t spacing = RoundUpTo8(nameOffset + nameBytes);
        const size_t copied = ServiceListingEntrySize(fileInformationClass, static_cast<uint32_t>(nameBytes));
        length = std::max(length, next + std::max(spacing, copied));
        next += spacing;
    }
    if (length > std::numeric_limits<uint32_t>::max() - SERVICE_REPLY_HEAD_SIZE) {
        return std::nullopt;
    }

    std::vector<uint8_t> listing(length, 0);
    for (size_t index = 0; index < entries.size(); index++) {
        WriteRecord(listing, offsets[index], fileInformationClass, entries[index]);
        if (index + 1 < entries.size()) {
            WriteAt<uint32_t>(listing, offsets[index], static_cast<uint32_t>(offsets[index + 1] - offsets[index]));
        }
    }
    return listing;
}

std::optional<std::vector<ListingEntry>> DecodeListing(uint32_t fileInformationClass, std::span<const uint8_t> listing)
{
    const size_t nameOffset = ServiceListingNameOffset(fileInformationClass);
    if (nameOffset == 0) {
        return std::nullopt;
    }
    std::vector<ListingEntry> entries;
    if (listing.empty()) {
        return entries;
    }
    for (size_t at = 0;;) {
        if (listing.size() - at < nameOffset) {
            return std::nullopt;
        }
        const uint32_t nameBytes = ReadAt<uint32_t>(listing, at + FileNameLengthOffset(fileInformationClass));
        const size_t copied = ServiceListingEntrySize(fileInformationClass, nameBytes);
        if (nameBytes > listing.size() - at - nameOffset || copied > listing.size() - at) {
            return std::nullopt;
        }
        entries.push_back(ReadRecord(listing, at, fileInformationClass, nameBytes));
        const uint32_t nextEntryOffset = ReadAt<uint32_t>(listing, at);
        if (nextEntryOffset == 0) {
            return entries;
        }
        if (nextEntryOffset >= listing.size() - at) {
            return std::nullopt;
        }
        at += nextEntryOffset;
    }
}

bool NameMatchesPattern(std::u16string_view pattern, std::u16string_view name)
{
    if (pattern.empty()) {
        return true;
    }
    // The classic walk with one point to come back to: the last star and where its run ended.
    size_t p = 0, n = 0;
    size_t starAt = std::u16string_view::npos, runEnd = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == u'*') {
            starAt = p++;
            runEnd = n;
        } else if (p < pattern.size() && (pattern[p] == u'?' || Upcase(pattern[p]) == Upcase(name[n]))) {
            p++;
            n++;
        } else if (starAt != std::u16string_view::npos) {
            p = starAt + 1;
            n = ++runEnd;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == u'*') {
        p++;
    }
    return p == pattern.size();
}

std::vector<ListingEntry> SelectEntries(std::u16string_view pattern, std::span<const ListingEntry> entries)
{
    std::vector<ListingEntry> selected;
    for (const ListingEntry& entry : entries) {
        if (NameMatchesPattern(pattern, entry.name)) {
            selected.push_back(entry);
        }
    }
    return selected;
}

uint64_t ListingStore::Hold(std::vector<uint8_t> listing)
{
    std::lock_guard lock(mutex_);
    const uint64_t handle = nextHandle_++;
    held_.emplace_back(handle, std::move(listing));
    while (held_.size() > capacity_) {
        held_.pop_front();
    }
    return handle;
}

std::optional<std::vector<uint8_t>> ListingStore::Take(uint64_t handle)
{
    std::lock_guard lock(mutex_);
    auto it = std::find_if(held_.begin(), held_.end(), [&](const auto& held) { return held.first == handle; });
    if (it == held_.end()) {
        return std::nullopt;
    }
    std::vector<uint8_t> listing = std::move(it->second);
    held_.erase(it);
    return listing;
}

size_t ListingStore::size() const
{
    std::lock_guard lock(mutex_);
    return held_.size();
}

}  // namespace foldermerge::service
