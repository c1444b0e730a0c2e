// Pool memory. Each block comes from the C heap at its exact size (so that AddressSanitizer sees
// every overrun) and is filled with a pattern (so that code which reads memory it never wrote does
// not find zeros by luck). A table of live blocks gives the accounting, the leak reports and the
// checks on free.
#include <ntsim/ex.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include "pool_table.hpp"
#include "resource_registry.hpp"
#include "stacktrace.hpp"
#include "thread_state.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>

namespace ntsim::pool {

namespace {

constexpr unsigned char kFillPattern = 0xA5;
constexpr size_t kMaxCallSiteDepth = 16;
constexpr size_t kRecentlyFreed = 4096;
// Unwinding a stack costs microseconds: test builds record a few callers for leak reports, release
// builds only the immediate caller.
#if defined(NDEBUG)
constexpr size_t kDefaultCallSiteDepth = 1;
#else
constexpr size_t kDefaultCallSiteDepth = 6;
#endif

struct Block {
    SIZE_T size;
    ULONG tag;
    POOL_TYPE type;
    uint64_t sequence;
    Usage* tagUsage;  // the tag's entry of byTag, which lives as long as the pool
    uint8_t depth;
    std::array<const void*, kMaxCallSiteDepth> callSite;
};

// The accounting classes of pool types.
enum TypeClass { kNonPaged = 0, kPaged = 1, kNonPagedNx = 2, kTypeClasses = 3 };

struct PoolState {
    std::mutex mutex;
    LiveTable<Block> live;
    std::unordered_map<ULONG, Usage> byTag;
    std::array<Usage, kTypeClasses> byType{};
    uint64_t sequence = 0;
    std::array<const void*, kRecentlyFreed> recentlyFreed{};  // a ring, to tell a double free
    size_t recentlyFreedNext = 0;
    std::atomic<size_t> callSiteDepth{kDefaultCallSiteDepth};
};

PoolState& State()
{
    static PoolState& state = *new PoolState;
    return state;
}

bool Classify(POOL_TYPE type, TypeClass* typeClass)
{
    switch (static_cast<int>(type)) {
    case NonPagedPool:
    case NonPagedPoolCacheAligned:
        *typeClass = kNonPaged;
        return true;
    case PagedPool:
    case PagedPoolCacheAligned:
        *typeClass = kPaged;
        return true;
    case NonPagedPoolNx:
    case NonPagedPoolNxCacheAligned:
        *typeClass = kNonPagedNx;
        return true;
    default:
        return false;
    }
}

const char* TypeName(POOL_TYPE type)
{
    switch (static_cast<int>(type)) {
    case NonPagedPool: return "NonPagedPool";
    case PagedPool: return "PagedPool";
    case NonPagedPoolCacheAligned: return "NonPagedPoolCacheAligned";
    case PagedPoolCacheAligned: return "PagedPoolCacheAligned";
    case NonPagedPoolNx: return "NonPagedPoolNx";
    case NonPagedPoolNxCacheAligned: return "NonPagedPoolNxCacheAligned";
    default: return "?";
    }
}

std::string Hex(const void* address)
{
    char text[32];
    snprintf(text, sizeof text, "%p", address);
    return text;
}

Allocation ToAllocation(const void* address, const Block& block)
{
    Allocation allocation;
    allocation.address = address;
    allocation.size = block.size;
    allocation.tag = block.tag;
    allocation.type = block.type;
    allocation.sequence = block.sequence;
    allocation.callSite.assign(block.callSite.begin(), block.callSite.begin() + block.depth);
    return allocation;
}

std::vector<Allocation> Collect(uint64_t afterSequence, bool anyTag, ULONG tag)
{
    PoolState& state = State();
    std::vector<Allocation> result;
    {
        std::lock_guard guard(state.mutex);
        state.live.ForEach([&](const void* address, const Block& block) {
            if (block.sequence > afterSequence && (anyTag || block.tag == tag)) {
                result.push_back(ToAllocation(address, block));
            }
        });
    }
    std::sort(result.begin(), result.end(),
              [](const Allocation& a, const Allocation& b) { return a.sequence < b.sequence; });
    return result;
}

// Whether a block of this pool type may be freed at irql: paged pool at or below APC_LEVEL, any
// other at or below DISPATCH_LEVEL.
bool MayFreeAt(TypeClass typeClass, KIRQL irql)
{
    return irql <= (typeClass == kPaged ? APC_LEVEL : DISPATCH_LEVEL);
}

// Drops a live block from the table, its accounting, and notes it among the recent frees. The
// caller holds the table's lock, and frees the memory afterwards.
void ForgetBlock(PoolState& state, const void* address, const Block& block)
{
    TypeClass typeClass = kNonPaged;
    Classify(block.type, &typeClass);
    for (Usage* usage : {block.tagUsage, &state.byType[typeClass]}) {
        usage->liveCount -= 1;
        usage->liveBytes -= block.size;
    }
    state.recentlyFreed[state.recentlyFreedNext] = address;
    state.recentlyFreedNext = (state.recentlyFreedNext + 1) % kRecentlyFreed;
    state.live.Erase(address);
}

}  // namespace

std::string TagText(ULONG tag)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        unsigned char c = static_cast<unsigned char>(tag >> (8 * i));
        if (c >= 0x20 && c < 0x7F) {
            text.push_back(static_cast<char>(c));
        } else {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02X", c);
            text += escaped;
        }
    }
    return text;
}

ULONG TagFromText(std::string_view text)
{
    ULONG tag = 0;
    for (int i = 0; i < 4; ++i) {
        unsigned char c = i < static_cast<int>(text.size()) ? static_cast<unsigned char>(text[i]) : ' ';
        tag |= static_cast<ULONG>(c) << (8 * i);
    }
    return tag;
}

Usage UsageOfTag(ULONG tag)
{
    PoolState& state = State();
    std::lock_guard guard(state.mutex);
    auto it = state.byTag.find(tag);
    return it == state.byTag.end() ? Usage{} : it->second;
}

Usage UsageOfType(POOL_TYPE type)
{
    TypeClass typeClass;
    if (!Classify(type, &typeClass)) {
        return Usage{};
    }
    PoolState& state = State();
    std::lock_guard guard(state.mutex);
    return state.byType[typeClass];
}

std::vector<Allocation> LiveAllocations()
{
    return Collect(0, true, 0);
}

bool IsLive(const void* address)
{
    PoolState& state = State();
    std::lock_guard guard(state.mutex);
    return state.live.Find(address) != nullptr;
}

std::string FormatReport(const std::vector<Allocation>& allocations)
{
    std::string report;
    std::map<ULONG, std::pair<uint64_t, uint64_t>> totals;  // tag -> count, bytes
    for (const Allocation& allocation : allocations) {
        report += "  '" + TagText(allocation.tag) + "' " + std::to_string(allocation.size) + " bytes " +
                  TypeName(allocation.type) + " at " + Hex(allocation.address) + " (allocation #" +
                  std::to_string(allocation.sequence) + "), allocated at:\n";
        report += kernel::FormatStack(allocation.callSite, "      ");
        auto& total = totals[allocation.tag];
        total.first += 1;
        total.second += allocation.size;
    }
    for (const auto& [tag, total] : totals) {
        report += "  total '" + TagText(tag) + "': " + std::to_string(total.first) + " block(s), " +
                  std::to_string(total.second) + " bytes\n";
    }
    return report;
}

void SetCallSiteDepth(size_t depth)
{
    State().callSiteDepth.store(std::clamp<size_t>(depth, 1, kMaxCallSiteDepth));
}

Checkpoint::Checkpoint() : anyTag_(true), tag_(0)
{
    PoolState& state = State();
    std::lock_guard guard(state.mutex);
    sequence_ = state.sequence;
}

Checkpoint::Checkpoint(ULONG tag) : Checkpoint()
{
    anyTag_ = false;
    tag_ = tag;
}

std::vector<Allocation> Checkpoint::Leaks() const
{
    return Collect(sequence_, anyTag_, tag_);
}

bool Checkpoint::Verify(std::string_view where) const
{
    std::vector<Allocation> leaks = Leaks();
    if (leaks.empty()) {
        return true;
    }
    verifier::BugCheck(verifier::rules::kPoolLeak, std::string(where) + ": " + std::to_string(leaks.size()) +
                                                       " pool block(s) leaked\n" + FormatReport(leaks));
    return false;
}

}  // namespace ntsim::pool

using namespace ntsim;

extern "C" PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    const void* caller = __builtin_return_address(0);
    pool::TypeClass typeClass;
    if (!pool::Classify(PoolType, &typeClass)) {
        verifier::BugCheck(verifier::rules::kPoolBadType,
                           "ExAllocatePoolWithTag with pool type " + std::to_string(static_cast<int>(PoolType)) +
                               ", tag '" + pool::TagText(Tag) + "'");
        return nullptr;
    }
    KIRQL irql = kernel::CurrentThread().irql;
    if (typeClass == pool::kPaged && irql > APC_LEVEL) {
        verifier::BugCheck(verifier::rules::kPagedPoolAtDispatch,
                           "ExAllocatePoolWithTag(" + std::string(pool::TypeName(PoolType)) + ", " +
                               std::to_string(NumberOfBytes) + ", '" + pool::TagText(Tag) + "') at IRQL " +
                               std::to_string(irql));
    } else if (irql > DISPATCH_LEVEL) {
        verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "ExAllocatePoolWithTag");
    }
    if (NumberOfBytes == 0) {
        verifier::BugCheck(verifier::rules::kPoolZeroSize,
                           "ExAllocatePoolWithTag of 0 bytes, tag '" + pool::TagText(Tag) + "'");
    }
    if (faults::CheckAllocation(PoolType, NumberOfBytes, Tag)) {
        return nullptr;
    }

    SIZE_T size = NumberOfBytes == 0 ? 1 : NumberOfBytes;
    void* block = malloc(size);
    if (block == nullptr) {
        return nullptr;
    }
    memset(block, pool::kFillPattern, size);

    pool::PoolState& state = pool::State();
    pool::Block record;
    record.size = NumberOfBytes;
    record.tag = Tag;
    record.type = PoolType;
    size_t depth = state.callSiteDepth.load(std::memory_order_relaxed);
    if (depth <= 1) {
        record.callSite[0] = caller;
        record.depth = 1;
    } else {
        std::vector<const void*> stack = kernel::CaptureStack(caller, depth);
        record.depth = static_cast<uint8_t>(stack.size());
        std::copy(stack.begin(), stack.end(), record.callSite.begin());
    }

    std::lock_guard guard(state.mutex);
    record.sequence = ++state.sequence;
    record.tagUsage = &state.byTag[Tag];
    state.live.Insert(block, record);
    for (pool::Usage* usage : {record.tagUsage, &state.byType[typeClass]}) {
        usage->liveCount += 1;
        usage->liveBytes += NumberOfBytes;
        usage->totalAllocations += 1;
    }
    return block;
}

extern "C" VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    pool::PoolState& state = pool::State();
    const KIRQL irql = kernel::CurrentThread().irql;
    // A free that passes every check is checked and done under one hold of the table's lock: a
    // live block, freed with its own tag or none, at a level where its pool may be freed, holding
    // no live ERESOURCE. Any other free takes the way below, which reports what is wrong.
    {
        std::unique_lock guard(state.mutex);
        if (const pool::Block* found = state.live.Find(P)) {
            const pool::Block& block = *found;
            pool::TypeClass typeClass = pool::kNonPaged;
            pool::Classify(block.type, &typeClass);
            // A block smaller than an ERESOURCE can't hold a live one: its lookup is spared.
            if ((Tag == 0 || Tag == block.tag) && pool::MayFreeAt(typeClass, irql) &&
                (block.size < sizeof(ERESOURCE) || kernel::FindLiveResourceIn(P, block.size) == nullptr)) {
                verifier::ForgetLocks(P, block.size);
                pool::ForgetBlock(state, P, block);
                guard.unlock();
                free(P);
                return;
            }
        }
    }

    pool::Block record;
    bool live = false;
    bool freedBefore = false;
    {
        std::lock_guard guard(state.mutex);
        if (const pool::Block* found = state.live.Find(P)) {
            live = true;
            record = *found;
        } else if (P != nullptr) {
            freedBefore = std::find(state.recentlyFreed.begin(), state.recentlyFreed.end(), P) !=
                          state.recentlyFreed.end();
        }
    }
    // The call as a report names it. Made only when a check fails: a free that passes every check
    // formats nothing, as Windows' own free doesn't.
    auto call = [P, Tag] { return "ExFreePoolWithTag(" + pool::Hex(P) + ", '" + pool::TagText(Tag) + "')"; };
    if (!live) {
        if (freedBefore) {
            verifier::BugCheck(verifier::rules::kPoolDoubleFree, call() + ": the block was already freed");
        } else {
            verifier::BugCheck(verifier::rules::kPoolFreeUnknown, call() + ": not the start of a pool block");
        }
        return;
    }
    if (Tag != 0 && Tag != record.tag) {
        verifier::BugCheck(verifier::rules::kPoolWrongTag,
                           call() + " of a block tagged '" + pool::TagText(record.tag) + "'");
    }
    pool::TypeClass typeClass = pool::kNonPaged;
    pool::Classify(record.type, &typeClass);
    if (typeClass == pool::kPaged && irql > APC_LEVEL) {
        verifier::BugCheck(verifier::rules::kPagedPoolAtDispatch,
                           call() + " of a paged block of " + std::to_string(record.size) + " bytes at IRQL " +
                               std::to_string(irql));
    } else if (irql > DISPATCH_LEVEL) {
        verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "ExFreePoolWithTag");
    }
    if (const void* resource = kernel::FindLiveResourceIn(P, record.size)) {
        // The block stays allocated: freeing it would leave the lock's state dangling.
        verifier::BugCheck(verifier::rules::kPoolFreeWithLiveResource,
                           call() + " of a block that holds the ERESOURCE at " + pool::Hex(resource) +
                               ", which was not deleted; the block is not freed");
        return;
    }
    verifier::ForgetLocks(P, record.size);

    bool raced = false;
    {
        std::lock_guard guard(state.mutex);
        if (const pool::Block* found = state.live.Find(P)) {
            pool::ForgetBlock(state, P, *found);
        } else {
            raced = true;
        }
    }
    if (raced) {
        verifier::BugCheck(verifier::rules::kPoolDoubleFree, call() + ": freed by two threads at once");
        return;
    }
    free(P);
}
