// Trace sessions: enabling providers and collecting their events.
#include <algorithm>

#include "etw_internal.hpp"

namespace ntsim::etw {

Session::Session() : state_(std::make_shared<State>())
{
    auto& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    registry.sessions.push_back(state_.get());
}

Session::~Session()
{
    std::vector<GUID> released;
    {
        auto& registry = TheRegistry();
        std::lock_guard guard(registry.lock);
        registry.sessions.erase(std::find(registry.sessions.begin(), registry.sessions.end(), state_.get()));
        for (const auto& [provider, parameters] : state_->enabled) {
            NoteProviderChanged(registry, provider);
            released.push_back(provider);
        }
    }
    for (const GUID& provider : released) {
        NotifyProvider(provider);
    }
}

void Session::EnableProvider(const GUID& provider, const EnableParameters& parameters)
{
    {
        auto& registry = TheRegistry();
        std::lock_guard guard(registry.lock);
        auto it = std::find_if(state_->enabled.begin(), state_->enabled.end(),
                               [&](const auto& entry) { return IsEqualGUID(entry.first, provider); });
        if (it == state_->enabled.end()) {
            state_->enabled.emplace_back(provider, parameters);
        } else {
            it->second = parameters;
        }
        NoteProviderChanged(registry, provider);
    }
    NotifyProvider(provider);
}

bool Session::DisableProvider(const GUID& provider)
{
    {
        auto& registry = TheRegistry();
        std::lock_guard guard(registry.lock);
        auto it = std::find_if(state_->enabled.begin(), state_->enabled.end(),
                               [&](const auto& entry) { return IsEqualGUID(entry.first, provider); });
        if (it == state_->enabled.end()) {
            return false;
        }
        state_->enabled.erase(it);
        NoteProviderChanged(registry, provider);
    }
    NotifyProvider(provider);
    return true;
}

std::vector<EventRecord> Session::Events() const
{
    auto& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    return state_->events;
}

std::vector<EventRecord> Session::TakeEvents()
{
    auto& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    std::vector<EventRecord> events;
    events.swap(state_->events);
    return events;
}

}  // namespace ntsim::etw
