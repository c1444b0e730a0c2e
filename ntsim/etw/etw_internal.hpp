// The state that ETW's provider side (etwprovider.cpp) and its sessions (etwsession.cpp) share.
#pragma once

#include <ntsim/sim/etw.hpp>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace ntsim::etw {

struct Session::State {
    // The providers this session enables, in the order it enabled them.
    std::vector<std::pair<GUID, EnableParameters>> enabled;
    std::vector<EventRecord> events;
};

struct GuidLess {
    bool operator()(const GUID& a, const GUID& b) const { return __builtin_memcmp(&a, &b, sizeof(GUID)) < 0; }
};

struct Registration {
    REGHANDLE handle = 0;
    GUID provider{};
    PETWENABLECALLBACK callback = nullptr;
    PVOID context = nullptr;
    bool unregistered = false;
    // Threads that are running the enable callback now.
    std::vector<std::thread::id> callbackThreads;
};

struct Registry {
    std::mutex lock;
    std::condition_variable callbackReturned;
    std::map<REGHANDLE, std::shared_ptr<Registration>> registrations;
    REGHANDLE nextHandle = 0x1000;
    std::vector<Session::State*> sessions;
    // Bumped by every change of what the sessions ask of a provider, so that a notifier can tell
    // whether what it delivered is still the latest.
    std::map<GUID, uint64_t, GuidLess> generations;
};

Registry& TheRegistry();

// The provider's combined state and its generation. Called with the registry's lock held.
struct CombinedState {
    bool enabled = false;
    EnableParameters parameters;
    uint64_t generation = 0;
};
CombinedState CombinedStateOf(Registry& registry, const GUID& provider);

// Marks a change of what the sessions ask of provider. Called with the registry's lock held.
void NoteProviderChanged(Registry& registry, const GUID& provider);

// Calls the enable callback of every live registration of provider (or only of `only`) with the
// provider's combined state, in this thread, without the registry's lock, until what was delivered
// is the latest state. Called without the lock.
void NotifyProvider(const GUID& provider, const std::shared_ptr<Registration>& only = nullptr);

}  // namespace ntsim::etw
