// The loaded filter with a trace session: tracing turned on as the service turns it on, and the
// filter's events as the session received them.
#pragma once

#include <ntsim/sim/etw.hpp>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "filter_fixture.hpp"
#include "trace.h"
#include "traceprovider.h"

namespace foldermerge::testing {

inline constexpr ULONGLONG kTraceKeyword = 0x8000000000000000ull;

// One event of the filter, its fields as text.
struct TraceEvent {
    USHORT id = 0;
    UCHAR level = 0;
    std::string file, function, module, message;
    ULONG line = 0, field4 = 0;
};

// A field that is text ending in its one terminator, without the terminator; anything else shows
// as "<malformed>".
inline std::string FieldText(const std::vector<uint8_t>& field)
{
    if (field.empty() || field.back() != 0 || std::find(field.begin(), field.end(), 0) != field.end() - 1) {
        return "<malformed>";
    }
    return std::string(field.begin(), field.end() - 1);
}

inline ULONG FieldNumber(const std::vector<uint8_t>& field)
{
    ULONG value = 0xFFFFFFFF;
    if (field.size() == sizeof(value)) {
        std::memcpy(&value, field.data(), sizeof(value));
    }
    return value;
}

class TracedFilter : public LoadedFilter {
protected:
    // The service's SetTracingEnabled, handled as the message dispatch hands it over.
    static NTSTATUS SetTracing(bool enable)
    {
        SetTracingEnabledMessage message{};
        message.Code = CONTROL_SET_TRACING_ENABLED;
        message.bEnable = enable ? 1 : 0;
        return SetTracingEnabled(&message);
    }

    // A session that enables the filter's provider with parameters (by default everything the
    // filter writes).
    void StartSession(const ntsim::etw::EnableParameters& parameters = {.level = 4, .matchAnyKeyword = kTraceKeyword})
    {
        session_ = std::make_unique<ntsim::etw::Session>();
        session_->EnableProvider(TRACE_PROVIDER_GUID, parameters);
    }

    // The filter's events received since the last call.
    std::vector<TraceEvent> TakeEvents()
    {
        std::vector<TraceEvent> events;
        for (const auto& record : session_->TakeEvents()) {
            if (!IsEqualGUID(record.provider, TRACE_PROVIDER_GUID)) {
                continue;
            }
            TraceEvent event{record.descriptor.Id, record.descriptor.Level};
            EXPECT_EQ(record.fields.size(), 6u) << "every event of the filter has six fields";
            if (record.fields.size() == 6) {
                event.file = FieldText(record.fields[0]);
                event.line = FieldNumber(record.fields[1]);
                event.function = FieldText(record.fields[2]);
                event.field4 = FieldNumber(record.fields[3]);
                event.module = FieldText(record.fields[4]);
                event.message = FieldText(record.fields[5]);
            }
            events.push_back(event);
        }
        return events;
    }

    // The messages of the events since the last call.
    std::vector<std::string> TakeMessages()
    {
        std::vector<std::string> messages;
        for (const TraceEvent& event : TakeEvents()) {
            messages.push_back(event.message);
        }
        return messages;
    }

    std::unique_ptr<ntsim::etw::Session> session_;
};

}  // namespace foldermerge::testing
