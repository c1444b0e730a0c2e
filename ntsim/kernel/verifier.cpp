// The verifier's report channel: bugchecks, capture scopes, and the checks other components call.
#include <ntsim/sim/verifier.hpp>

#include "stacktrace.hpp"
#include "thread_state.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>

namespace ntsim::verifier {

namespace {

struct ReportState {
    std::mutex mutex;
    BugCheckCapture* innermost = nullptr;
    std::vector<BugCheckRecord> unconsumed;
    std::string runContext;
};

ReportState& Reports()
{
    static ReportState& state = *new ReportState;  // outlives every thread, never destroyed
    return state;
}

}  // namespace

void BugCheck(std::string_view rule, std::string_view detail)
{
    ReportState& state = Reports();
    {
        std::lock_guard guard(state.mutex);
        if (state.innermost != nullptr) {
            state.innermost->Record(BugCheckRecord{std::string(rule), std::string(detail)});
            return;
        }
        fprintf(stderr, "\n*** ntsim verifier: bugcheck %.*s\n*** %.*s\n", static_cast<int>(rule.size()),
                rule.data(), static_cast<int>(detail.size()), detail.data());
        if (!state.runContext.empty()) {
            fprintf(stderr, "*** while running %s\n", state.runContext.c_str());
        }
        fprintf(stderr, "*** call stack:\n");
        fflush(stderr);
    }
    kernel::PrintCurrentStack();
    fflush(stderr);
    abort();
}

void SetRunContext(std::string_view context)
{
    ReportState& state = Reports();
    std::lock_guard guard(state.mutex);
    state.runContext = context;
}

BugCheckCapture::BugCheckCapture()
{
    ReportState& state = Reports();
    std::lock_guard guard(state.mutex);
    outer_ = state.innermost;
    state.innermost = this;
}

BugCheckCapture::~BugCheckCapture()
{
    ReportState& state = Reports();
    std::lock_guard guard(state.mutex);
    // Scopes close in the reverse order of opening; a scope closed out of order unlinks itself.
    if (state.innermost == this) {
        state.innermost = outer_;
    } else {
        for (BugCheckCapture* scope = state.innermost; scope != nullptr; scope = scope->outer_) {
            if (scope->outer_ == this) {
                scope->outer_ = outer_;
                break;
            }
        }
    }
    for (BugCheckRecord& record : records_) {
        state.unconsumed.push_back(std::move(record));
    }
}

void BugCheckCapture::Record(BugCheckRecord record)
{
    records_.push_back(std::move(record));  // under the report mutex
}

std::vector<BugCheckRecord> BugCheckCapture::Take()
{
    std::lock_guard guard(Reports().mutex);
    return std::exchange(records_, {});
}

bool BugCheckCapture::Consume(std::string_view rule)
{
    std::lock_guard guard(Reports().mutex);
    auto it = std::find_if(records_.begin(), records_.end(),
                           [rule](const BugCheckRecord& record) { return record.rule == rule; });
    if (it == records_.end()) {
        return false;
    }
    records_.erase(it);
    return true;
}

std::string BugCheckCapture::ConsumeDetail(std::string_view rule)
{
    std::lock_guard guard(Reports().mutex);
    auto it = std::find_if(records_.begin(), records_.end(),
                           [rule](const BugCheckRecord& record) { return record.rule == rule; });
    if (it == records_.end()) {
        return {};
    }
    std::string detail = std::move(it->detail);
    records_.erase(it);
    return detail;
}

size_t BugCheckCapture::Count() const
{
    std::lock_guard guard(Reports().mutex);
    return records_.size();
}

std::vector<std::string> BugCheckCapture::Rules() const
{
    std::lock_guard guard(Reports().mutex);
    std::vector<std::string> rules;
    for (const BugCheckRecord& record : records_) {
        rules.push_back(record.rule);
    }
    return rules;
}

std::vector<BugCheckRecord> TakeUnconsumed()
{
    ReportState& state = Reports();
    std::lock_guard guard(state.mutex);
    return std::exchange(state.unconsumed, {});
}

void AssertIrqlAtMost(KIRQL max, std::string_view routine)
{
    KIRQL irql = kernel::CurrentThread().irql;
    if (irql > max) {
        BugCheck(rules::kIrqlTooHigh, std::string(routine) + " called at IRQL " + std::to_string(irql) +
                                          "; it needs IRQL <= " + std::to_string(max));
    }
}

NTSTATUS NotImplemented(std::string_view routine)
{
    BugCheck(rules::kNotImplemented, std::string(routine) + " is not implemented by ntsim");
    return STATUS_NOT_IMPLEMENTED;
}

int CriticalRegionDepth()
{
    return kernel::CurrentThread().criticalRegion;
}

CallbackScope::CallbackScope(std::string_view callback) : callback_(callback)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    irql_ = thread.irql;
    criticalRegion_ = thread.criticalRegion;
    heldLocks_ = thread.held.size();
}

CallbackScope::~CallbackScope()
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    if (thread.irql == irql_ && thread.criticalRegion == criticalRegion_ && thread.held.size() == heldLocks_) {
        return;  // a callback that leaves the thread as it found it costs no text
    }
    std::string name(callback_);
    if (thread.irql != irql_) {
        BugCheck(rules::kIrqlLeftRaised, name + " returned at IRQL " + std::to_string(thread.irql) +
                                             ", entered at " + std::to_string(irql_));
    }
    if (thread.criticalRegion != criticalRegion_) {
        BugCheck(rules::kCriticalRegionLeftOpen, name + " returned at critical region depth " +
                                                     std::to_string(thread.criticalRegion) + ", entered at " +
                                                     std::to_string(criticalRegion_));
    }
    if (thread.held.size() != heldLocks_) {
        BugCheck(rules::kLockHeldOnReturn, name + " returned holding " + std::to_string(thread.held.size()) +
                                               " lock(s), entered holding " + std::to_string(heldLocks_));
    }
}

std::string ResetCurrentThread()
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    std::string found;
    if (thread.irql != PASSIVE_LEVEL) {
        found += "IRQL left at " + std::to_string(thread.irql) + "; ";
    }
    if (thread.criticalRegion != 0) {
        found += "critical region depth left at " + std::to_string(thread.criticalRegion) + "; ";
    }
    if (!thread.held.empty()) {
        found += "locks still held:";
        for (const std::string& name : HeldLockNames()) {
            found += " [" + name + "]";
        }
        found += "; ";
    }
    thread.irql = PASSIVE_LEVEL;
    thread.criticalRegion = 0;
    thread.held.clear();
    return found;
}

}  // namespace ntsim::verifier
