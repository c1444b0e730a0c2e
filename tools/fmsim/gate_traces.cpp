// The filter's trace events through an ntsim trace session.
#include "gate_traces.hpp"

#include <ntsim/sim/etw.hpp>

#include "trace.h"

#include <algorithm>
#include <iterator>

namespace fmsim::gate {

namespace {

// What the filter's events carry (TRACE_EVENT_LAYOUT): source file, line, function, a reserved
// u32, module name and message.
constexpr size_t kFunctionField = 2;
constexpr size_t kMessageField = 5;
constexpr size_t kFieldCount = sizeof(TRACE_EVENT_LAYOUT) - 1;

bool SameGuid(const GUID& left, const GUID& right)
{
    return left.Data1 == right.Data1 && left.Data2 == right.Data2 && left.Data3 == right.Data3 &&
           std::equal(std::begin(left.Data4), std::end(left.Data4), std::begin(right.Data4));
}

// A zero-terminated ANSI field, without its terminator; a field without one is shown whole.
std::string Text(const std::vector<uint8_t>& field)
{
    std::string text(field.begin(), field.end());
    if (!text.empty() && text.back() == '\0') {
        text.pop_back();
    }
    return text;
}

}  // namespace

struct GateTraces::Session {
    ntsim::etw::Session session;
};

GateTraces::GateTraces() : session_(std::make_unique<Session>())
{
    // Informational level and up, and the one keyword every event of the filter carries.
    session_->session.EnableProvider(
        TRACE_PROVIDER_GUID,
        {.level = TRACE_DESCRIPTOR_INFO.Level, .matchAnyKeyword = TRACE_DESCRIPTOR_INFO.Keyword});
}

GateTraces::~GateTraces() = default;

std::vector<TraceLine> GateTraces::Take()
{
    std::vector<TraceLine> lines;
    for (const ntsim::etw::EventRecord& event : session_->session.TakeEvents()) {
        if (!SameGuid(event.provider, TRACE_PROVIDER_GUID)) {
            continue;
        }
        TraceLine line;
        line.level = ntsim::etw::LevelName(event.descriptor.Level);
        if (event.fields.size() == kFieldCount) {
            line.function = Text(event.fields[kFunctionField]);
            line.message = Text(event.fields[kMessageField]);
        } else {
            line.message = "<an event of " + std::to_string(event.fields.size()) + " fields>";
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

}  // namespace fmsim::gate
