// EtwRegister, EtwUnregister, EtwWrite: providers, their enable callbacks and the delivery of events
// to the sessions that want them.
#include <ntsim/etw.h>
#include <ntsim/ps.h>
#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/system.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>

#include "etw_internal.hpp"

namespace ntsim::etw {

Registry& TheRegistry()
{
    // Never destroyed: providers may unregister from static destructors of other units.
    static Registry& registry = *new Registry;
    return registry;
}

void InstallSystemRoutines()
{
    RegisterSystemRoutine(u"EtwRegister", reinterpret_cast<void*>(&EtwRegister));
    RegisterSystemRoutine(u"EtwUnregister", reinterpret_cast<void*>(&EtwUnregister));
    RegisterSystemRoutine(u"EtwWrite", reinterpret_cast<void*>(&EtwWrite));
}

namespace {

// The routines are part of the system from the start, as on Windows: every program that links this
// unit (any user of the provider routines or of sessions) exports them before main.
[[maybe_unused]] const bool kInstalled = (InstallSystemRoutines(), true);

// A session that asks for no keyword in particular asks for all of them: ETW hands its providers
// every bit, so that a provider's own keyword test lets its events through.
ULONGLONG MatchAnyKeywordOf(const EnableParameters& parameters)
{
    return parameters.matchAnyKeyword == 0 ? ~0ull : parameters.matchAnyKeyword;
}

bool Admits(const EnableParameters& parameters, const EVENT_DESCRIPTOR& descriptor)
{
    bool levelPasses = descriptor.Level == 0 || parameters.level == 0 || descriptor.Level <= parameters.level;
    bool keywordPasses = descriptor.Keyword == 0 || ((descriptor.Keyword & MatchAnyKeywordOf(parameters)) != 0 &&
                                                     (descriptor.Keyword & parameters.matchAllKeyword) ==
                                                         parameters.matchAllKeyword);
    return levelPasses && keywordPasses;
}

size_t CallbacksInOtherThreads(const Registration& registration)
{
    auto self = std::this_thread::get_id();
    return static_cast<size_t>(std::count_if(registration.callbackThreads.begin(),
                                             registration.callbackThreads.end(),
                                             [self](std::thread::id id) { return id != self; }));
}

}  // namespace

CombinedState CombinedStateOf(Registry& registry, const GUID& provider)
{
    CombinedState state;
    bool anyLevelZero = false;
    ULONGLONG matchAll = ~0ull;
    for (const Session::State* session : registry.sessions) {
        for (const auto& [guid, parameters] : session->enabled) {
            if (!IsEqualGUID(guid, provider)) {
                continue;
            }
            state.enabled = true;
            anyLevelZero |= parameters.level == 0;
            state.parameters.level = std::max(state.parameters.level, parameters.level);
            state.parameters.matchAnyKeyword |= MatchAnyKeywordOf(parameters);
            matchAll &= parameters.matchAllKeyword;
        }
    }
    if (state.enabled) {
        if (anyLevelZero) {
            state.parameters.level = 0;
        }
        state.parameters.matchAllKeyword = matchAll;
    }
    auto it = registry.generations.find(provider);
    state.generation = it == registry.generations.end() ? 0 : it->second;
    return state;
}

void NoteProviderChanged(Registry& registry, const GUID& provider)
{
    registry.generations[provider]++;
}

void NotifyProvider(const GUID& provider, const std::shared_ptr<Registration>& only)
{
    Registry& registry = TheRegistry();
    for (;;) {
        std::vector<std::shared_ptr<Registration>> targets;
        CombinedState state;
        {
            std::lock_guard guard(registry.lock);
            state = CombinedStateOf(registry, provider);
            if (only != nullptr) {
                if (!only->unregistered && only->callback != nullptr) {
                    targets.push_back(only);
                }
            } else {
                for (const auto& [handle, registration] : registry.registrations) {
                    if (IsEqualGUID(registration->provider, provider) && registration->callback != nullptr) {
                        targets.push_back(registration);
                    }
                }
            }
            for (const auto& registration : targets) {
                registration->callbackThreads.push_back(std::this_thread::get_id());
            }
        }
        for (const auto& registration : targets) {
            GUID source = provider;
            registration->callback(&source,
                                   state.enabled ? EVENT_CONTROL_CODE_ENABLE_PROVIDER
                                                 : EVENT_CONTROL_CODE_DISABLE_PROVIDER,
                                   state.parameters.level, state.parameters.matchAnyKeyword,
                                   state.parameters.matchAllKeyword, nullptr, registration->context);
        }
        std::lock_guard guard(registry.lock);
        for (const auto& registration : targets) {
            auto& threads = registration->callbackThreads;
            threads.erase(std::find(threads.begin(), threads.end(), std::this_thread::get_id()));
        }
        registry.callbackReturned.notify_all();
        // Another thread may have changed the provider's state while this one delivered an older
        // one, and finished first: deliver again until the latest state is the one delivered.
        if (targets.empty() || CombinedStateOf(registry, provider).generation == state.generation) {
            return;
        }
    }
}

}  // namespace ntsim::etw

using ntsim::etw::TheRegistry;

extern "C" {

NTSTATUS NTAPI EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback, PVOID CallbackContext,
                           PREGHANDLE RegHandle)
{
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "EtwRegister");
    if (ProviderId == nullptr || RegHandle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *RegHandle = 0;
    if (auto failure = ntsim::faults::Check("EtwRegister")) {
        return *failure;
    }
    auto registration = std::make_shared<ntsim::etw::Registration>();
    registration->provider = *ProviderId;
    registration->callback = EnableCallback;
    registration->context = CallbackContext;
    bool enabled;
    {
        auto& registry = TheRegistry();
        std::lock_guard guard(registry.lock);
        registration->handle = registry.nextHandle++;
        registry.registrations.emplace(registration->handle, registration);
        enabled = ntsim::etw::CombinedStateOf(registry, *ProviderId).enabled;
    }
    *RegHandle = registration->handle;
    // A session that enabled the provider before it registered: the provider learns of it now.
    if (enabled) {
        ntsim::etw::NotifyProvider(*ProviderId, registration);
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI EtwUnregister(REGHANDLE RegHandle)
{
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "EtwUnregister");
    auto& registry = TheRegistry();
    std::unique_lock guard(registry.lock);
    auto it = registry.registrations.find(RegHandle);
    if (it == registry.registrations.end()) {
        return STATUS_INVALID_HANDLE;
    }
    auto registration = it->second;
    registry.registrations.erase(it);
    registration->unregistered = true;
    // The caller may free the callback context once this returns.
    registry.callbackReturned.wait(guard, [&] { return ntsim::etw::CallbacksInOtherThreads(*registration) == 0; });
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI EtwWrite(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR EventDescriptor, LPCGUID ActivityId,
                        ULONG UserDataCount, PEVENT_DATA_DESCRIPTOR UserData)
{
    if (auto failure = ntsim::faults::Check("EtwWrite")) {
        return *failure;
    }
    if (EventDescriptor == nullptr || UserDataCount > MAX_EVENT_DATA_DESCRIPTORS ||
        (UserDataCount != 0 && UserData == nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    auto it = registry.registrations.find(RegHandle);
    if (it == registry.registrations.end()) {
        return STATUS_INVALID_HANDLE;
    }
    const GUID& provider = it->second->provider;
    ntsim::etw::EventRecord* first = nullptr;
    for (ntsim::etw::Session::State* session : registry.sessions) {
        auto wants = std::find_if(session->enabled.begin(), session->enabled.end(), [&](const auto& entry) {
            return IsEqualGUID(entry.first, provider) && ntsim::etw::Admits(entry.second, *EventDescriptor);
        });
        if (wants == session->enabled.end()) {
            continue;
        }
        if (first != nullptr) {
            session->events.push_back(*first);
            continue;
        }
        ntsim::etw::EventRecord record;
        record.provider = provider;
        record.descriptor = *EventDescriptor;
        if (ActivityId != nullptr) {
            record.activityId = *ActivityId;
        }
        record.processId = PsGetCurrentProcessId();
        record.threadId = PsGetCurrentThreadId();
        record.timestamp = ntsim::clock::Now();
        record.fields.reserve(UserDataCount);
        for (ULONG index = 0; index < UserDataCount; index++) {
            const auto* bytes = reinterpret_cast<const uint8_t*>(static_cast<ULONG_PTR>(UserData[index].Ptr));
            if (bytes == nullptr && UserData[index].Size != 0) {
                return STATUS_INVALID_PARAMETER;
            }
            record.fields.emplace_back(bytes, bytes + UserData[index].Size);
        }
        session->events.push_back(std::move(record));
        first = &session->events.back();
    }
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace ntsim::etw {

size_t RegisteredProviderCount()
{
    auto& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    return registry.registrations.size();
}

}  // namespace ntsim::etw
