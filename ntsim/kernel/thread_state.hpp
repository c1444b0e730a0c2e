// The kernel state that ntsim keeps for each OS thread: its IRQL, its critical-region depth and the
// locks it holds. Internal to ntsim/kernel.
#pragma once

#include <ntsim/ntdef.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace ntsim::kernel {

struct HeldLock {
    const void* lock;
    std::string_view kind;  // static storage
};

struct ThreadState {
    ThreadState();
    ~ThreadState();  // a thread that ends raised, in a critical region or holding a lock bugchecks

    uint64_t id;  // unique over the process, never reused
    KIRQL irql = PASSIVE_LEVEL;
    int criticalRegion = 0;  // depth of KeEnterCriticalRegion
    std::vector<HeldLock> held;
};

ThreadState& CurrentThread();

// Whether the calling thread holds lock (any number of times).
bool HoldsLock(const ThreadState& thread, const void* lock);

}  // namespace ntsim::kernel
