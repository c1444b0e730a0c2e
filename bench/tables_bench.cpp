// The cost of the filter's two hot lookups as their tables fill: finding a file object's context
// (every operation callback does it) with 10 and with 10,000 live records, and an exclusion cache
// hit (every open of managed content) with 10 and with 10,000 cached verdicts.
//
// Beside each, the same lookup done as a walk of the list from its head, which is what the table
// would cost without its index: the ratio between the two sizes tells how each grows.
//
// The lookups go to every record in a shuffled order, so at 10,000 records nearly every one misses
// the processor's caches; a second figure (/8) asks for the same 8 records over and over, which
// shows the lookup's own cost apart from the memory's.
#include <benchmark/benchmark.h>

#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/text.hpp>

#include "context.h"
#include "driver/lifecycle.h"
#include "driver/locks.h"
#include "user.h"

#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr char16_t kDriverName[] = u"FolderMerge";
constexpr char16_t kSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";

// FolderMerge loaded, with no volume: the tables need nothing more.
class LoadedDriver {
public:
    LoadedDriver()
    {
        loaded_ = NT_SUCCESS(ntsim::LoadFilter(
            DriverEntry, {.name = kDriverName, .altitude = u"185200", .poolTags = {FOLDERMERGE_POOL_TAG}}));
    }
    ~LoadedDriver()
    {
        if (loaded_) {
            ntsim::UnloadFilter(kDriverName);
        }
    }
    LoadedDriver(const LoadedDriver&) = delete;
    LoadedDriver& operator=(const LoadedDriver&) = delete;
    bool loaded() const { return loaded_; }

private:
    bool loaded_ = false;
};

// A directory path of the kind a user's folders hold: the same long beginning, then four names
// and a last one, so that paths have about the same length whatever the table's size.
std::u16string DirectoryPath(size_t index)
{
    static const char* const kNames[] = {"Documents", "Music", "Pictures", "Projects", "src", "build", "notes"};
    std::string path = "\\device\\harddiskvolume2\\users\\alice\\";
    size_t value = index;
    for (int level = 0; level < 4; level++) {
        path += kNames[value % 7];
        path += std::to_string(value % 13);
        path += '\\';
        value /= 7;
    }
    path += "folder" + std::to_string(100000 + index);
    return ntsim::ToUtf16(path);
}

// The order in which the benchmarks ask for the records: all of them shuffled, or the first
// `asked` of that order when asked isn't 0.
std::vector<size_t> Shuffled(size_t count, size_t asked)
{
    std::vector<size_t> order(count);
    for (size_t index = 0; index < count; index++) {
        order[index] = index;
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    if (asked != 0 && asked < count) {
        order.resize(asked);
    }
    return order;
}

// ---- file contexts ----

// A table of `count` live records, one per file object.
struct ContextTable {
    explicit ContextTable(size_t count) : objects(count)
    {
        ntsim::UnicodeStringHolder sid(kSid);
        for (size_t index = 0; index < count; index++) {
            ntsim::UnicodeStringHolder path(DirectoryPath(index));
            FileContext* context = nullptr;
            if (NT_SUCCESS(CreateContext(&objects[index], path.get(), sid.get(), &context))) {
                AddContextToContextTable(context);
            }
        }
    }
    ~ContextTable() { DeleteAllContexts(); }

    std::vector<FILE_OBJECT> objects;
};

// What FindContextByFileObject would be as a walk of the list under the lock.
FileContext* WalkForFileObject(PFILE_OBJECT fileObject)
{
    FileContext* found = nullptr;
    AcquireLockExclusive(g_ContextLock);
    for (FileContext* context = g_ContextList; context != nullptr; context = context->pNext) {
        if (context->pFileObject == fileObject && context->bValid) {
            found = context;
            break;
        }
    }
    ReleaseLock(g_ContextLock);
    return found;
}

template <bool kWalk>
void BM_ContextLookup(benchmark::State& state)
{
    LoadedDriver driver;
    if (!driver.loaded()) {
        state.SkipWithError("FolderMerge could not be loaded");
        return;
    }
    const size_t count = static_cast<size_t>(state.range(0));
    ContextTable table(count);
    const std::vector<size_t> order = Shuffled(count, static_cast<size_t>(state.range(1)));
    size_t next = 0;
    for (auto _ : state) {
        PFILE_OBJECT fileObject = &table.objects[order[next]];
        next = next + 1 == order.size() ? 0 : next + 1;
        FileContext* context = kWalk ? WalkForFileObject(fileObject) : FindContextByFileObject(fileObject, FALSE);
        if (context == nullptr) {
            state.SkipWithError("a live record was not found");
            break;
        }
        benchmark::DoNotOptimize(context);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ContextLookup<false>)
    ->Name("FindContextByFileObject")
    ->Args({10, 0})
    ->Args({10000, 0})
    ->Args({10, 8})
    ->Args({10000, 8});
BENCHMARK(BM_ContextLookup<true>)->Name("ContextListWalk")->Args({10, 0})->Args({10000, 0});

// ---- exclusion cache ----

// What FindInExclusionCache would be as a walk of the list from its front: the first excluded
// entry that begins the key, or the first entry of the key, goes to the front.
BOOLEAN WalkExclusionCache(UserRecord* record, PCUNICODE_STRING key, PUCHAR excluded)
{
    BOOLEAN hit = FALSE;
    *excluded = 0;
    AcquireUserRecordLock(record);
    for (PLIST_ENTRY link = record->exclusionCacheList.Flink; link != &record->exclusionCacheList; link = link->Flink) {
        auto* entry = CONTAINING_RECORD(link, ExclusionCacheEntry, link);
        const USHORT length = entry->pstrPath->Length;
        const bool covers = entry->bExcluded && key->Length > length &&
                            RtlCompareMemory(entry->pstrPath->Buffer, key->Buffer, length) == length;
        const bool equal =
            key->Length == length && RtlCompareMemory(entry->pstrPath->Buffer, key->Buffer, length) == length;
        if (covers || equal) {
            RemoveEntryList(link);
            InsertHeadList(&record->exclusionCacheList, link);
            *excluded = entry->bExcluded;
            hit = TRUE;
            break;
        }
    }
    ReleaseUserRecordLock(record);
    return hit;
}

// A hit on each cached directory in turn, or on a file below it (one directory in eight is
// excluded, and its files hit on it).
template <bool kWalk>
void BM_ExclusionHit(benchmark::State& state)
{
    LoadedDriver driver;
    if (!driver.loaded()) {
        state.SkipWithError("FolderMerge could not be loaded");
        return;
    }
    const size_t count = static_cast<size_t>(state.range(0));
    ntsim::UnicodeStringHolder sid(kSid);
    UserRecord* record = FindUserRecord(sid.get());
    std::vector<ntsim::UnicodeStringHolder> keys;
    for (size_t index = 0; index < count; index++) {
        ntsim::UnicodeStringHolder directory(DirectoryPath(index));
        AddToExclusionCache(record, directory.get(), index % 8 == 0 ? 1 : 0);
        keys.emplace_back(DirectoryPath(index) + (index % 8 == 0 ? u"\\file.txt" : u""));
    }
    const std::vector<size_t> order = Shuffled(count, static_cast<size_t>(state.range(1)));
    size_t next = 0;
    for (auto _ : state) {
        PCUNICODE_STRING key = keys[order[next]].get();
        next = next + 1 == order.size() ? 0 : next + 1;
        UCHAR excluded = 0;
        if (!(kWalk ? WalkExclusionCache(record, key, &excluded) : FindInExclusionCache(record, key, &excluded))) {
            state.SkipWithError("a cached verdict was not found");
            break;
        }
        benchmark::DoNotOptimize(excluded);
    }
    ReleaseUserRecord(record, 0);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ExclusionHit<false>)
    ->Name("FindInExclusionCache")
    ->Args({10, 0})
    ->Args({10000, 0})
    ->Args({10, 8})
    ->Args({10000, 8});
BENCHMARK(BM_ExclusionHit<true>)->Name("ExclusionCacheWalk")->Args({10, 0})->Args({10000, 0});

}  // namespace

BENCHMARK_MAIN();
