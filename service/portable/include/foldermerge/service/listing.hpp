// The service's listings of directories: the bytes of a listing built from a list of entries in any
// of the six information classes, the narrowing of entries by the filter's search pattern, and the
// listings held between the size request and the fetch.
//
//     std::vector<ListingEntry> entries = SelectEntries(request.filter, entriesOfTheFolder);
//     auto listing = EncodeListing(request.fileInformationClass, entries);       // nothing: no such class
//     ReplyContent size{.listingHandle = listings.Hold(*listing), .listingLength = (uint32_t)listing->size()};
//     ...
//     ReplyContent contents{.listing = listings.Take(request.listingHandle).value_or({})};
#pragma once

#include <servicelistings.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foldermerge::service {

// One object of a listing. A class takes the fields its record has.
struct ListingEntry {
    std::u16string name;
    std::u16string shortName;  // the 8.3 name (Both classes), at most 12 characters; empty for none
    uint32_t fileIndex = 0;
    int64_t creationTime = 0;
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    int64_t changeTime = 0;
    int64_t endOfFile = 0;
    int64_t allocationSize = 0;
    uint32_t fileAttributes = 0;
    uint32_t eaSize = 0;
    int64_t fileId = 0;  // Id classes

    bool operator==(const ListingEntry&) const = default;
};

// The listing of entries, in their order, in fileInformationClass: each record at a multiple of 8
// bytes, NextEntryOffset to the next (0 in the last), and the block long enough that the filter's
// copy of each record (ServiceListingEntrySize) stays inside it. An empty list gives an empty
// listing. Nothing for a class that is none of the six, a name longer than a record can give, a
// short name of more than 12 characters, or a listing longer than a u32 can tell.
std::optional<std::vector<uint8_t>> EncodeListing(uint32_t fileInformationClass, std::span<const ListingEntry> entries);

// The entries of a listing read back: what each record of listing says, in the chain's order.
// Nothing when the chain leaves the block, a record's name or the filter's copy of it runs past the
// end, or the class is none of the six. For a service's own checks and for tests.
std::optional<std::vector<ListingEntry>> DecodeListing(uint32_t fileInformationClass, std::span<const uint8_t> listing);

// Whether name matches the filter's search pattern: `*` stands for any run of characters (also
// none), `?` for one character, letters match without regard to case (A-Z and Latin-1). An empty
// pattern matches every name: the filter sends none when it wants them all.
bool NameMatchesPattern(std::u16string_view pattern, std::u16string_view name);

// The entries whose names match pattern, in their order.
std::vector<ListingEntry> SelectEntries(std::u16string_view pattern, std::span<const ListingEntry> entries);

// Listings held between a size request that wanted a handle and the fetch that names it. The filter
// fetches at once or never (no memory, a lost port), and sends no message to drop a listing: a
// fetch takes its listing away, and beyond `capacity` listings the oldest goes. Handles are never 0
// and not used twice. Thread-safe.
class ListingStore {
public:
    explicit ListingStore(size_t capacity = 64) : capacity_(capacity == 0 ? 1 : capacity) {}

    // Holds listing; its handle.
    uint64_t Hold(std::vector<uint8_t> listing);
    // The listing of handle, no longer held; nothing for a handle that holds none.
    std::optional<std::vector<uint8_t>> Take(uint64_t handle);
    size_t size() const;

private:
    const size_t capacity_;
    mutable std::mutex mutex_;
    uint64_t nextHandle_ = 1;
    std::deque<std::pair<uint64_t, std::vector<uint8_t>>> held_;
};

}  // namespace foldermerge::service
