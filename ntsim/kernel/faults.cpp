// Fault injection. Rules are few and armed rarely; the counts are atomics, so that a run with
// nothing armed pays one atomic increment per failure point.
#include <ntsim/sim/faults.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace ntsim::faults {

namespace {

enum class RuleKind { NthAllocation, Tag, Routine, NthPoint, NthPointOf, StopAt };

struct Rule {
    RuleKind kind;
    uint64_t target = 0;  // absolute count for the Nth kinds; n for NthPointOf
    PointSet set;         // NthPointOf, StopAt: the points it counts
    PointSet halted;      // StopAt: the points it fails once the count is reached
    uint64_t seen = 0;    // NthPointOf, StopAt: points of its set since it was armed
    ULONG tag = 0;
    std::string routine;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    Persistence persistence = Persistence::Once;
};

constexpr std::string_view kAllocationRoutine = "ExAllocatePoolWithTag";

struct InjectorState {
    std::mutex mutex;
    std::vector<Rule> rules;
    std::vector<InjectedFailure> injected;
    std::atomic<bool> armed{false};
    std::atomic<uint64_t> points{0};
    std::atomic<uint64_t> allocations{0};
};

InjectorState& Injector()
{
    static InjectorState& state = *new InjectorState;
    return state;
}

bool Reached(const Rule& rule, uint64_t count)
{
    return rule.persistence == Persistence::Once ? count == rule.target : count >= rule.target;
}

bool Holds(const PointSet& set, bool isAllocation, std::string_view routine, ULONG tag)
{
    return isAllocation ? set.HoldsAllocation(tag) : set.HoldsRoutine(routine);
}

bool Holds(const Rule& rule, bool isAllocation, std::string_view routine, ULONG tag)
{
    return Holds(rule.set, isAllocation, routine, tag);
}

bool Counts(const Rule& rule)
{
    return rule.kind == RuleKind::NthPointOf || rule.kind == RuleKind::StopAt;
}

// Under the mutex: the first rule that fails this point, removed when it fires only once. Every
// NthPointOf rule counts the point first, whichever rule fails it; one that reaches its n-th point
// on a point another rule fails is spent with it.
std::optional<NTSTATUS> Match(InjectorState& state, uint64_t point, uint64_t allocation, bool isAllocation,
                              std::string_view routine, ULONG tag)
{
    for (Rule& rule : state.rules) {
        if (Counts(rule) && Holds(rule, isAllocation, routine, tag)) {
            rule.seen += 1;
        }
    }
    for (auto it = state.rules.begin(); it != state.rules.end(); ++it) {
        bool fires = false;
        switch (it->kind) {
        case RuleKind::NthAllocation:
            fires = isAllocation && Reached(*it, allocation);
            break;
        case RuleKind::Tag:
            fires = isAllocation && it->tag == tag;
            break;
        case RuleKind::Routine:
            fires = it->routine == routine;
            break;
        case RuleKind::NthPoint:
            fires = Reached(*it, point);
            break;
        case RuleKind::NthPointOf:
            fires = Holds(*it, isAllocation, routine, tag) && Reached(*it, it->seen);
            break;
        case RuleKind::StopAt:
            fires = it->seen >= it->target && Holds(it->halted, isAllocation, routine, tag);
            break;
        }
        if (!fires) {
            continue;
        }
        NTSTATUS status = isAllocation ? STATUS_INSUFFICIENT_RESOURCES : it->status;
        state.injected.push_back(InjectedFailure{point, std::string(routine), isAllocation ? tag : 0, status});
        const size_t fired = static_cast<size_t>(it - state.rules.begin());
        for (size_t index = state.rules.size(); index-- > 0;) {
            const Rule& rule = state.rules[index];
            bool spent = rule.persistence == Persistence::Once &&
                         (index == fired || (rule.kind == RuleKind::NthPointOf && rule.seen == rule.target &&
                                             Holds(rule, isAllocation, routine, tag)));
            if (spent) {
                state.rules.erase(state.rules.begin() + static_cast<std::ptrdiff_t>(index));
            }
        }
        state.armed.store(!state.rules.empty());
        return status;
    }
    return std::nullopt;
}

void Arm(Rule rule)
{
    InjectorState& state = Injector();
    std::lock_guard guard(state.mutex);
    state.rules.push_back(std::move(rule));
    state.armed.store(true);
}

}  // namespace

std::optional<NTSTATUS> Check(std::string_view routine)
{
    InjectorState& state = Injector();
    uint64_t point = state.points.fetch_add(1) + 1;
    if (!state.armed.load()) {
        return std::nullopt;
    }
    std::lock_guard guard(state.mutex);
    return Match(state, point, 0, false, routine, 0);
}

bool CheckAllocation(POOL_TYPE, SIZE_T, ULONG tag)
{
    InjectorState& state = Injector();
    uint64_t point = state.points.fetch_add(1) + 1;
    uint64_t allocation = state.allocations.fetch_add(1) + 1;
    if (!state.armed.load()) {
        return false;
    }
    std::lock_guard guard(state.mutex);
    return Match(state, point, allocation, true, kAllocationRoutine, tag).has_value();
}

void FailNthAllocation(uint64_t n, Persistence persistence)
{
    Rule rule{RuleKind::NthAllocation};
    rule.target = Injector().allocations.load() + n;
    rule.persistence = persistence;
    Arm(std::move(rule));
}

void FailAllocationsWithTag(ULONG tag, Persistence persistence)
{
    Rule rule{RuleKind::Tag};
    rule.tag = tag;
    rule.persistence = persistence;
    Arm(std::move(rule));
}

void FailRoutine(std::string_view routine, NTSTATUS status, Persistence persistence)
{
    Rule rule{RuleKind::Routine};
    rule.routine = routine;
    rule.status = status;
    rule.persistence = persistence;
    Arm(std::move(rule));
}

void FailNthPoint(uint64_t n, NTSTATUS status, Persistence persistence)
{
    Rule rule{RuleKind::NthPoint};
    rule.target = Injector().points.load() + n;
    rule.status = status;
    rule.persistence = persistence;
    Arm(std::move(rule));
}

void StopAtNthPointOf(PointSet trigger, uint64_t n, PointSet halted, NTSTATUS status)
{
    Rule rule{RuleKind::StopAt};
    rule.set = std::move(trigger);
    rule.halted = std::move(halted);
    rule.target = n;
    rule.status = status;
    rule.persistence = Persistence::Persistent;
    Arm(std::move(rule));
}

void FailNthPointOf(PointSet set, uint64_t n, NTSTATUS status, Persistence persistence)
{
    Rule rule{RuleKind::NthPointOf};
    rule.set = std::move(set);
    rule.target = n;
    rule.status = status;
    rule.persistence = persistence;
    Arm(std::move(rule));
}

bool PointSet::HoldsAllocation(ULONG tag) const
{
    return std::find(tags.begin(), tags.end(), tag) != tags.end();
}

bool PointSet::HoldsRoutine(std::string_view routine) const
{
    return std::find(routines.begin(), routines.end(), routine) != routines.end();
}

uint64_t PointsPassed()
{
    return Injector().points.load();
}

uint64_t AllocationsPassed()
{
    return Injector().allocations.load();
}

uint64_t FailuresInjected()
{
    InjectorState& state = Injector();
    std::lock_guard guard(state.mutex);
    return state.injected.size();
}

std::vector<InjectedFailure> Injected()
{
    InjectorState& state = Injector();
    std::lock_guard guard(state.mutex);
    return state.injected;
}

void Reset()
{
    InjectorState& state = Injector();
    std::lock_guard guard(state.mutex);
    state.rules.clear();
    state.injected.clear();
    state.armed.store(false);
    state.points.store(0);
    state.allocations.store(0);
}

}  // namespace ntsim::faults
