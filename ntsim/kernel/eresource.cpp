// ERESOURCE: reader/writer locks, recursive for their exclusive owner. The state lives on the C
// heap, made by ExInitializeResourceLite and released by ExDeleteResourceLite; a registry of the
// live ones lets the pool refuse to free a block that still holds one.
#include <ntsim/ex.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/verifier.hpp>

#include "lockorder.hpp"
#include "resource_registry.hpp"
#include "thread_state.hpp"

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>

using namespace ntsim;

namespace {

constexpr ULONG kLiveSignature = 0x73655245;     // "ERes"
constexpr ULONG kDeletedSignature = 0x64655245;  // "ERed"
constexpr std::string_view kResourceKind = "ERESOURCE";

struct ResourceState {
    std::mutex mutex;
    std::condition_variable changed;
    uint64_t exclusiveOwner = 0;  // thread id, 0 when none
    ULONG exclusiveCount = 0;     // acquisitions of the exclusive owner, shared ones included
    std::unordered_map<uint64_t, ULONG> sharedOwners;
    ULONG sharedWaiters = 0;
    ULONG exclusiveWaiters = 0;
};

struct Registry {
    std::mutex mutex;
    std::set<const void*> live;
};

Registry& LiveResources()
{
    static Registry& registry = *new Registry;
    return registry;
}

std::string Describe(const char* routine, const void* resource)
{
    return std::string(routine) + "(" + kernel::LockLabel(resource, kResourceKind) + ")";
}

// The state of an initialized resource, or null (reported) for one never initialized or deleted.
ResourceState* StateOf(PERESOURCE resource, const char* routine)
{
    if (resource == nullptr || resource->Signature != kLiveSignature || resource->Reserved1 == nullptr) {
        verifier::BugCheck(verifier::rules::kResourceNotInitialized,
                           Describe(routine, resource) + ": " +
                               (resource != nullptr && resource->Signature == kDeletedSignature
                                    ? "the resource was deleted"
                                    : "the resource was never initialized"));
        return nullptr;
    }
    return static_cast<ResourceState*>(resource->Reserved1);
}

// The rules every acquisition follows: IRQL <= APC_LEVEL and normal kernel APCs disabled.
void CheckAcquireContext(PERESOURCE resource, const char* routine)
{
    const kernel::ThreadState& thread = kernel::CurrentThread();
    if (thread.irql > APC_LEVEL) {
        verifier::BugCheck(verifier::rules::kIrqlTooHigh,
                           Describe(routine, resource) + " at IRQL " + std::to_string(thread.irql) +
                               "; it needs IRQL <= APC_LEVEL");
    } else if (thread.criticalRegion == 0 && thread.irql < APC_LEVEL) {
        verifier::BugCheck(verifier::rules::kResourceOutsideCriticalRegion,
                           Describe(routine, resource) + " with normal kernel APCs enabled: call " +
                               "KeEnterCriticalRegion first");
    }
}

enum class Access { Shared, Exclusive };

BOOLEAN Acquire(PERESOURCE resource, BOOLEAN wait, Access access, const char* routine, const void* caller)
{
    CheckAcquireContext(resource, routine);
    ResourceState* state = StateOf(resource, routine);
    if (state == nullptr) {
        return FALSE;
    }
    const uint64_t me = kernel::CurrentThread().id;
    // A waiting acquisition records its order after the locks the thread holds (none for one it
    // holds already) before it takes the resource's state: the thread's own list says which.
    if (wait) {
        kernel::CheckLockOrder(resource, kResourceKind, caller);
    }
    std::unique_lock lock(state->mutex);
    if (access == Access::Exclusive && state->exclusiveOwner != me && state->sharedOwners.count(me) != 0) {
        lock.unlock();
        verifier::BugCheck(verifier::rules::kResourceSharedToExclusive,
                           Describe(routine, resource) + " by thread " + std::to_string(me) +
                               ", which holds it shared: the thread would wait for itself");
        return FALSE;
    }
    auto grantable = [&] {
        if (state->exclusiveOwner == me) {
            return true;
        }
        if (access == Access::Exclusive) {
            return state->exclusiveOwner == 0 && state->sharedOwners.empty();
        }
        if (state->sharedOwners.count(me) != 0) {
            return true;
        }
        return state->exclusiveOwner == 0 && state->exclusiveWaiters == 0;
    };
    if (!wait) {
        // A try-acquire cannot deadlock: it records no lock order.
        if (!grantable()) {
            return FALSE;
        }
    } else {
        if (!grantable()) {
            ULONG& waiters = access == Access::Exclusive ? state->exclusiveWaiters : state->sharedWaiters;
            waiters += 1;
            state->changed.wait(lock, grantable);
            waiters -= 1;
        }
    }
    if (state->exclusiveOwner == me) {
        state->exclusiveCount += 1;
    } else if (access == Access::Exclusive) {
        state->exclusiveOwner = me;
        state->exclusiveCount = 1;
    } else {
        state->sharedOwners[me] += 1;
    }
    lock.unlock();
    kernel::PushHeldLock(resource, kResourceKind);
    return TRUE;
}

}  // namespace

namespace ntsim::kernel {

const void* FindLiveResourceIn(const void* address, size_t size)
{
    Registry& registry = LiveResources();
    std::lock_guard guard(registry.mutex);
    const char* begin = static_cast<const char*>(address);
    auto it = registry.live.lower_bound(begin);
    if (it != registry.live.end() && static_cast<const char*>(*it) < begin + size) {
        return *it;
    }
    return nullptr;
}

}  // namespace ntsim::kernel

extern "C" NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource)
{
    if (auto failure = faults::Check("ExInitializeResourceLite")) {
        return *failure;
    }
    *Resource = ERESOURCE{};
    Resource->Signature = kLiveSignature;
    Resource->Reserved1 = std::make_unique<ResourceState>().release();
    verifier::ForgetLocks(Resource, sizeof *Resource);
    Registry& registry = LiveResources();
    std::lock_guard guard(registry.mutex);
    registry.live.insert(Resource);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource)
{
    if (auto failure = faults::Check("ExDeleteResourceLite")) {
        return *failure;
    }
    ResourceState* state = StateOf(Resource, "ExDeleteResourceLite");
    if (state == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::unique_lock lock(state->mutex);
    if (state->exclusiveOwner != 0 || !state->sharedOwners.empty() || state->exclusiveWaiters != 0 ||
        state->sharedWaiters != 0) {
        std::string holders = state->exclusiveOwner != 0
                                  ? "thread " + std::to_string(state->exclusiveOwner) + " holds it exclusive"
                                  : std::to_string(state->sharedOwners.size()) + " thread(s) hold it shared";
        lock.unlock();
        verifier::BugCheck(verifier::rules::kResourceDeletedWhileHeld,
                           Describe("ExDeleteResourceLite", Resource) + " while " + holders +
                               "; the resource is left as it was");
        return STATUS_INVALID_DEVICE_STATE;
    }
    lock.unlock();
    {
        Registry& registry = LiveResources();
        std::lock_guard guard(registry.mutex);
        registry.live.erase(Resource);
    }
    std::unique_ptr<ResourceState> owned(state);
    Resource->Reserved1 = nullptr;
    Resource->Signature = kDeletedSignature;
    verifier::ForgetLocks(Resource, sizeof *Resource);
    return STATUS_SUCCESS;
}

extern "C" BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait)
{
    return Acquire(Resource, Wait, Access::Exclusive, "ExAcquireResourceExclusiveLite", __builtin_return_address(0));
}

extern "C" BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait)
{
    return Acquire(Resource, Wait, Access::Shared, "ExAcquireResourceSharedLite", __builtin_return_address(0));
}

extern "C" VOID NTAPI ExReleaseResourceLite(PERESOURCE Resource)
{
    ResourceState* state = StateOf(Resource, "ExReleaseResourceLite");
    if (state == nullptr) {
        return;
    }
    const uint64_t me = kernel::CurrentThread().id;
    std::unique_lock lock(state->mutex);
    if (state->exclusiveOwner == me) {
        if (--state->exclusiveCount == 0) {
            state->exclusiveOwner = 0;
        }
    } else if (auto it = state->sharedOwners.find(me); it != state->sharedOwners.end()) {
        if (--it->second == 0) {
            state->sharedOwners.erase(it);
        }
    } else {
        std::string owner = state->exclusiveOwner != 0
                                ? "thread " + std::to_string(state->exclusiveOwner) + " holds it exclusive"
                                : state->sharedOwners.empty() ? std::string("nobody holds it")
                                                              : std::to_string(state->sharedOwners.size()) +
                                                                    " other thread(s) hold it shared";
        lock.unlock();
        verifier::BugCheck(verifier::rules::kResourceReleasedByNonOwner,
                           Describe("ExReleaseResourceLite", Resource) + " by thread " + std::to_string(me) + "; " +
                               owner);
        return;
    }
    // Only a waiter needs to look again.
    const bool waiters = state->exclusiveWaiters != 0 || state->sharedWaiters != 0;
    lock.unlock();
    if (waiters) {
        state->changed.notify_all();
    }
    kernel::PopHeldLock(Resource);
}

extern "C" BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource)
{
    ResourceState* state = StateOf(Resource, "ExIsResourceAcquiredExclusiveLite");
    if (state == nullptr) {
        return FALSE;
    }
    std::lock_guard lock(state->mutex);
    return state->exclusiveOwner == kernel::CurrentThread().id ? TRUE : FALSE;
}

extern "C" ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource)
{
    ResourceState* state = StateOf(Resource, "ExIsResourceAcquiredSharedLite");
    if (state == nullptr) {
        return 0;
    }
    const uint64_t me = kernel::CurrentThread().id;
    std::lock_guard lock(state->mutex);
    if (state->exclusiveOwner == me) {
        return state->exclusiveCount;
    }
    auto it = state->sharedOwners.find(me);
    return it == state->sharedOwners.end() ? 0 : it->second;
}

extern "C" ULONG NTAPI ExGetSharedWaiterCount(PERESOURCE Resource)
{
    ResourceState* state = StateOf(Resource, "ExGetSharedWaiterCount");
    if (state == nullptr) {
        return 0;
    }
    std::lock_guard lock(state->mutex);
    return state->sharedWaiters;
}

extern "C" ULONG NTAPI ExGetExclusiveWaiterCount(PERESOURCE Resource)
{
    ResourceState* state = StateOf(Resource, "ExGetExclusiveWaiterCount");
    if (state == nullptr) {
        return 0;
    }
    std::lock_guard lock(state->mutex);
    return state->exclusiveWaiters;
}

extern "C" PVOID NTAPI ExEnterCriticalRegionAndAcquireResourceExclusive(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    Acquire(Resource, TRUE, Access::Exclusive, "ExEnterCriticalRegionAndAcquireResourceExclusive",
            __builtin_return_address(0));
    return nullptr;
}

extern "C" VOID NTAPI ExReleaseResourceAndLeaveCriticalRegion(PERESOURCE Resource)
{
    ExReleaseResourceLite(Resource);
    KeLeaveCriticalRegion();
}
