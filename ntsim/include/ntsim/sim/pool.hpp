// Pool accounting: what is allocated, by tag and by pool type, and where each live block came from.
//
// Every block that ExAllocatePoolWithTag hands out is a live allocation until ExFreePoolWithTag
// frees it. A test takes a Checkpoint before the work it checks and verifies it after: any block
// allocated after the checkpoint and still live is a leak, reported with its tag, size, pool type
// and allocation call site (POOL_LEAK).
#pragma once

#include <ntsim/ntdef.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim::pool {

// A tag as its four bytes read in memory order ("VLMR" for 'RMLV'), as pool tools print it.
std::string TagText(ULONG tag);
// The tag whose memory bytes are text (at most four characters, padded with spaces).
ULONG TagFromText(std::string_view text);

struct Allocation {
    const void* address = nullptr;
    SIZE_T size = 0;
    ULONG tag = 0;
    POOL_TYPE type = NonPagedPool;
    uint64_t sequence = 0;             // order of allocation, 1-based, over the process
    std::vector<const void*> callSite; // return addresses, innermost first: the caller of the
                                       // allocation routine, then its callers
};

struct Usage {
    uint64_t liveCount = 0;
    uint64_t liveBytes = 0;
    uint64_t totalAllocations = 0;  // ever, including freed ones
};

// Live blocks and totals under one tag, and in one pool type. Cache-aligned types count with their
// base type (PagedPoolCacheAligned as PagedPool, NonPagedPoolNxCacheAligned as NonPagedPoolNx).
Usage UsageOfTag(ULONG tag);
Usage UsageOfType(POOL_TYPE type);
// Every live block, oldest first.
std::vector<Allocation> LiveAllocations();
// Whether address is the start of a live block, and its size and tag.
bool IsLive(const void* address);

// A readable report: one line per block (tag, size, type, call site), then a total per tag.
std::string FormatReport(const std::vector<Allocation>& allocations);

// How many return addresses each allocation records (1 to 16). The default is 6 in debug builds and 1
// in release builds (NDEBUG): one costs a few nanoseconds, more cost an unwind of microseconds.
void SetCallSiteDepth(size_t depth);

class Checkpoint {
public:
    // Remembers the allocations made so far; only later ones count. With a tag, only that tag's.
    Checkpoint();
    explicit Checkpoint(ULONG tag);

    // Blocks allocated since the checkpoint and still live, oldest first.
    std::vector<Allocation> Leaks() const;
    // Bugchecks POOL_LEAK with the report of Leaks() naming where; true when there is none.
    bool Verify(std::string_view where) const;

private:
    uint64_t sequence_;
    bool anyTag_;
    ULONG tag_;
};

}  // namespace ntsim::pool
