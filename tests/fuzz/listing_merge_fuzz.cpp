// Listings from the service, fed arbitrary bytes, through the check the filter makes before it uses
// one and the merge into callers' buffers of arbitrary sizes.
//
// An input (little-endian), cut where it ends:
//     u8  class       0-5 the six directory classes, anything else a class that is none of them
//     u8  count       1 + count % 8 buffer lengths follow
//     u16 lengths[]   the callers' buffers, used in turn until the listing is used up or no longer
//                     moves through a whole turn
//     u16 information what the file system wrote into the first buffer (its bytes are the
//                     listing's, repeated), before the listing
//     the rest        the listing, in a block of the filter's pool of exactly its length
// Each buffer is a heap block of exactly its length, so that AddressSanitizer reports any access
// outside it or outside the listing. Checked besides:
//   - the filter accepts a listing of the six classes exactly when the service library's reader
//     reads it (the same rules, written apart);
//   - each merge returns STATUS_SUCCESS or, once the listing is used up, STATUS_NO_MORE_FILES with
//     the block freed; it uses no more than the buffer; the records it placed are the listing's
//     next ones, byte for byte but their NextEntryOffset, which leads from each to the next at its
//     DirectoryEntrySize and is 0 in the last; the cursor moves past exactly those;
//   - the listing is handed out whole, each record once, and the pool of the filter's tag is empty
//     after each input.
#include <foldermerge/service/listing.hpp>

#include <ntsim/sim/pool.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "driver/listingmerge.h"
#include "driver/ownedstring.h"
#include "loaded_filter.hpp"

namespace {

using foldermerge::fuzzing::Fail;

constexpr ULONG kClasses[] = {FileDirectoryInformation,       FileFullDirectoryInformation,
                              FileBothDirectoryInformation,   FileNamesInformation,
                              FileIdBothDirectoryInformation, FileIdFullDirectoryInformation};

ULONG ReadUlong(const UCHAR* at)
{
    ULONG value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

// Reads input from its front; what isn't there reads as zero.
struct Reader {
    const uint8_t* data;
    size_t size;

    uint32_t Take(size_t bytes)
    {
        uint32_t value = 0;
        for (size_t index = 0; index < bytes && size != 0; index++, data++, size--) {
            value |= uint32_t{*data} << (8 * index);
        }
        return value;
    }
};

// The offsets of the listing's records in chain order (a listing the filter accepted).
std::vector<ULONG> ChainOf(const std::vector<UCHAR>& listing)
{
    std::vector<ULONG> chain;
    for (ULONG at = 0;;) {
        chain.push_back(at);
        const ULONG next = ReadUlong(listing.data() + at);
        if (next == 0) {
            return chain;
        }
        at += next;
    }
}

// Checks what one merge placed: the records chain[first, last) at the end of `used` bytes.
void CheckPlaced(const std::vector<UCHAR>& buffer, ULONG used, const std::vector<UCHAR>& listing,
                 const std::vector<ULONG>& chain, size_t first, size_t last, ULONG infoClass)
{
    ULONG placedBytes = 0;
    for (size_t index = first; index < last; index++) {
        placedBytes += DirectoryEntrySize(infoClass, listing.data() + chain[index]);
    }
    if (placedBytes > used) {
        Fail("more records placed than the bytes used hold");
    }
    ULONG at = used - placedBytes;
    for (size_t index = first; index < last; index++) {
        const ULONG size = DirectoryEntrySize(infoClass, listing.data() + chain[index]);
        const ULONG next = ReadUlong(buffer.data() + at);
        if (next != (index + 1 == last ? 0 : size)) {
            Fail("a placed record's NextEntryOffset is not its entry size (0 for the last)");
        }
        if (std::memcmp(buffer.data() + at + 4, listing.data() + chain[index] + 4, size - 4) != 0) {
            Fail("a placed record differs from the listing's");
        }
        at += size;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader input{data, size};
    const uint32_t selector = input.Take(1);
    const ULONG infoClass = selector < 6 ? kClasses[selector] : FileObjectIdInformation;
    std::vector<ULONG> lengths(1 + input.Take(1) % 8);
    for (ULONG& length : lengths) {
        length = input.Take(2);
    }
    const ULONG information = input.Take(2);
    const std::vector<UCHAR> listing(input.data, input.data + input.size);

    const bool accepted = IsListingWellFormed(listing.data(), static_cast<ULONG>(listing.size()), infoClass);
    if (selector < 6 && !listing.empty() && accepted != foldermerge::service::DecodeListing(infoClass, listing).has_value()) {
        Fail(accepted ? "a listing accepted that the service's reader refuses"
                      : "a listing refused that the service's reader reads");
    }
    if (!accepted) {
        return 0;
    }

    const std::vector<ULONG> chain = ChainOf(listing);
    PUCHAR block = static_cast<PUCHAR>(AllocateBuffer(POOL_SELECTOR_PAGED, listing.size()));
    if (block == nullptr) {
        Fail("no pool for the listing");
    }
    std::memcpy(block, listing.data(), listing.size());
    PUCHAR next = block;
    PUCHAR const end = block + listing.size();
    size_t handedOut = 0;
    size_t sinceProgress = 0;
    for (size_t turn = 0; block != nullptr && sinceProgress <= lengths.size(); turn++) {
        const ULONG length = lengths[turn % lengths.size()];
        std::vector<UCHAR> buffer(length);
        buffer.reserve(1);  // an empty buffer still has an address
        for (size_t index = 0; index < buffer.size(); index++) {
            buffer[index] = listing[index % listing.size()];
        }
        const ULONG_PTR written = turn == 0 ? information : 0;
        ULONG used = 0;
        const NTSTATUS status =
            MergeDirectoryBuffer(buffer.data(), length, &block, &next, end, infoClass, written, &used);
        if (used > length) {
            Fail("more bytes used than the buffer has");
        }
        if (status == STATUS_NO_MORE_FILES) {
            if (block != nullptr || handedOut != chain.size()) {
                Fail("used up before every record was handed out, or its block kept");
            }
            break;
        }
        if (status != STATUS_SUCCESS) {
            Fail("a merge failed");
        }
        const size_t now = next == end ? chain.size()
                                       : std::find(chain.begin(), chain.end(), ULONG(next - block)) - chain.begin();
        if (now < handedOut || (now == chain.size() && next != end)) {
            Fail("the cursor left the chain or went back");
        }
        CheckPlaced(buffer, used, listing, chain, handedOut, now, infoClass);
        sinceProgress = now == handedOut ? sinceProgress + 1 : 0;
        handedOut = now;
    }
    if (block != nullptr) {
        FreeBuffer(block);
    }
    if (ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount != 0) {
        Fail("the filter's pool holds blocks after the listing is gone");
    }
    return 0;
}
