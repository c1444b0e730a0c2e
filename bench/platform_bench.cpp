// Baseline costs of ntsim's kernel primitives, with the verifier's bookkeeping included: pool
// allocation and free, an ERESOURCE taken the way the filter takes it, and a spin lock.
#include <benchmark/benchmark.h>

#include <ntsim/ex.h>
#include <ntsim/ke.h>
#include <ntsim/sim/pool.hpp>

namespace {

const ULONG kTag = ntsim::pool::TagFromText("Bnch");

// Each block records its allocation call site: one return address, or an unwound stack of six.
void BM_PoolAllocateFree(benchmark::State& state, POOL_TYPE type, size_t callSiteDepth)
{
    ntsim::pool::SetCallSiteDepth(callSiteDepth);
    const SIZE_T size = static_cast<SIZE_T>(state.range(0));
    for (auto _ : state) {
        void* block = ExAllocatePoolWithTag(type, size, kTag);
        benchmark::DoNotOptimize(block);
        ExFreePoolWithTag(block, kTag);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_PoolAllocateFree, Paged, PagedPool, 1)->Arg(64)->Arg(4096);
BENCHMARK_CAPTURE(BM_PoolAllocateFree, NonPagedNx, NonPagedPoolNx, 1)->Arg(64)->Arg(4096);
BENCHMARK_CAPTURE(BM_PoolAllocateFree, NonPagedNxWithCallStack, NonPagedPoolNx, 6)->Arg(64);

void BM_ResourceExclusiveInCriticalRegion(benchmark::State& state)
{
    static ERESOURCE resource;
    if (state.thread_index() == 0) {
        ExInitializeResourceLite(&resource);
    }
    for (auto _ : state) {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&resource, TRUE);
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    }
    if (state.thread_index() == 0) {
        ExDeleteResourceLite(&resource);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ResourceExclusiveInCriticalRegion)->Threads(1)->Threads(2);

void BM_SpinLockAcquireRelease(benchmark::State& state)
{
    static KSPIN_LOCK lock;
    if (state.thread_index() == 0) {
        KeInitializeSpinLock(&lock);
    }
    for (auto _ : state) {
        KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
        KeReleaseSpinLock(&lock, old);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpinLockAcquireRelease)->Threads(1)->Threads(2);

// A spin lock taken under an ERESOURCE: the nesting the lock-order check looks at.
void BM_SpinLockUnderResource(benchmark::State& state)
{
    ERESOURCE resource;
    ExInitializeResourceLite(&resource);
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&resource, TRUE);
    for (auto _ : state) {
        KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
        KeReleaseSpinLock(&lock, old);
    }
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&resource);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpinLockUnderResource);

}  // namespace

BENCHMARK_MAIN();
