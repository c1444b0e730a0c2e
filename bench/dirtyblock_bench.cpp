// The cost of marking dirty blocks on the write path: 1 GiB written in one write and in 4 KiB
// writes, beside a memset of the map bytes those writes touch, in the same run. The map is long
// enough from the start, so no growth is timed; marking a set bit costs what marking a clear one
// does, so the map isn't cleared between iterations.
#include <benchmark/benchmark.h>

#include <cstring>

#include "dirtyblocktracking.h"

namespace {

constexpr ULONG kGiB = 1u << 30;
constexpr ULONG kWriteSize = 4096;
// Blocks 0 to 2^18 (the block past the last byte included): 2^15 + 1 bytes.
constexpr ULONG kMapBytes = (kGiB / DIRTY_BLOCK_SIZE) / 8 + 1;

// A record as the filter keeps one, its map from the filter's pool.
class BenchRecord {
public:
    BenchRecord()
    {
        record_ = static_cast<TrackedDirtyBlockFile*>(AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(*record_)));
        std::memset(record_, 0, sizeof(*record_));
        KeInitializeSpinLock(&record_->lock);
        record_->mapLen = kMapBytes;
        record_->map = static_cast<PUCHAR>(AllocateBuffer(POOL_SELECTOR_NONPAGED, kMapBytes));
        std::memset(record_->map, 0, kMapBytes);
        record_->refCount = 1;
    }
    ~BenchRecord() { DeleteTrackedDirtyBlockFile(record_); }
    TrackedDirtyBlockFile* get() const { return record_; }

private:
    TrackedDirtyBlockFile* record_;
};

void BM_MarkOneGiBInOneWrite(benchmark::State& state)
{
    BenchRecord record;
    for (auto _ : state) {
        MarkBlockDirty(record.get(), 0, kGiB);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MarkOneGiBInOneWrite)->Unit(benchmark::kMicrosecond);

void BM_MarkOneGiBIn4KiBWrites(benchmark::State& state)
{
    BenchRecord record;
    for (auto _ : state) {
        for (ULONG offset = 0; offset < kGiB; offset += kWriteSize) {
            MarkBlockDirty(record.get(), offset, kWriteSize);
        }
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MarkOneGiBIn4KiBWrites)->Unit(benchmark::kMicrosecond);

void BM_MemsetOfTheSameMapBytes(benchmark::State& state)
{
    BenchRecord record;
    for (auto _ : state) {
        std::memset(record.get()->map, 0xFF, kMapBytes);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MemsetOfTheSameMapBytes)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
