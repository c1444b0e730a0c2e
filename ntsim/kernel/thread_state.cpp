// Per-thread kernel state.
#include "thread_state.hpp"

#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <atomic>
#include <string>

namespace ntsim::kernel {

namespace {
std::atomic<uint64_t> g_nextThreadId{1};
}

ThreadState::ThreadState() : id(g_nextThreadId.fetch_add(1)) {}

ThreadState::~ThreadState()
{
    if (irql == PASSIVE_LEVEL && criticalRegion == 0 && held.empty()) {
        return;
    }
    std::string detail = "thread " + std::to_string(id) + " ended at IRQL " + std::to_string(irql) +
                         ", critical region depth " + std::to_string(criticalRegion) + ", holding " +
                         std::to_string(held.size()) + " lock(s)";
    for (const HeldLock& lock : held) {
        char address[32];
        snprintf(address, sizeof address, "%p", lock.lock);
        detail += std::string(" [") + std::string(lock.kind) + " " + address + "]";
    }
    verifier::BugCheck(verifier::rules::kThreadExitedHoldingState, detail);
}

ThreadState& CurrentThread()
{
    thread_local ThreadState state;
    return state;
}

bool HoldsLock(const ThreadState& thread, const void* lock)
{
    return std::any_of(thread.held.begin(), thread.held.end(),
                       [lock](const HeldLock& held) { return held.lock == lock; });
}

}  // namespace ntsim::kernel
