// The filter's trace events through an ntsim trace session.
#include "gate_traces.hpp"

#include <ntsim/sim/etw.hpp>

#include <algorithm>
#include <iterator>

namespace fmsim::gate {

namespace {

// The filter's provider, and what its events carry: source file, line, function, a reserved u32,
// module name and message.
constexpr GUID kProvider = {0x749213BC, 0x94DA, 0x4C80, {0x9E, 0xE2, 0x22, 0x82, 0x51, 0x91, 0xBF, 0x51}};
constexpr size_t kFunctionField = 2;
constexpr size_t kMessageField = 5;
constexpr size_t kFieldCount = 6;
constexpr UCHAR kLevelInformation = 4;
constexpr ULONGLONG kKeyword = 0x8000000000000000ull;

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
    session_->session.EnableProvider(kProvider, {.level = kLevelInformation, .matchAnyKeyword = kKeyword});
}

GateTraces::~GateTraces() = default;

std::vector<TraceLine> GateTraces::Take()
{
    std::vector<TraceLine> lines;
    for (const ntsim::etw::EventRecord& event : session_->session.TakeEvents()) {
        if (!SameGuid(event.provider, kProvider)) {
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
