// Trace sessions: the controller and consumer side of ntsim's ETW (ntsim/etw.h is the provider
// side). A session enables providers by GUID with a level and keywords, as EnableTraceEx2 does,
// collects the events that EtwWrite hands it, and decodes them into text lines.
//
// The ETW routines (EtwRegister, EtwUnregister, EtwWrite) are exported to MmGetSystemRoutineAddress
// by a static initializer of the unit that defines them, before main, and again by ntsim::LoadFilter,
// so that every loaded driver finds them (ntsim is a static library: a program that only loads a
// driver might otherwise not link the unit at all). InstallSystemRoutines() may run any number of
// times. A test that wants a system without ETW hides the routines (ntsim::ScopedHiddenSystemRoutine),
// which outlasts a reinstall.
#pragma once

#include <ntsim/etw.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim::etw {

// Exports EtwRegister, EtwUnregister and EtwWrite by name.
void InstallSystemRoutines();

// What a session asks of a provider.
struct EnableParameters {
    UCHAR level = 0;                 // 0: every level
    ULONGLONG matchAnyKeyword = 0;   // 0: every keyword; providers are told all 64 bits
    ULONGLONG matchAllKeyword = 0;
};

// One event as a session received it.
struct EventRecord {
    GUID provider{};
    EVENT_DESCRIPTOR descriptor{};
    GUID activityId{};             // zero when the writer gave none
    HANDLE processId = nullptr;    // the writing thread's process and thread
    HANDLE threadId = nullptr;
    LONGLONG timestamp = 0;        // system time (ntsim::clock)
    std::vector<std::vector<uint8_t>> fields;  // the payload, one entry per data descriptor
};

// A collecting session, live for the object's life. Closing it disables every provider it enabled.
// Thread-safe.
class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Enables provider (registered or not yet) with parameters, or changes the parameters of an
    // earlier enable. Registered providers' enable callbacks run in this thread before it returns.
    void EnableProvider(const GUID& provider, const EnableParameters& parameters);
    // Stops this session's interest in provider; false if it didn't enable it.
    bool DisableProvider(const GUID& provider);

    // The events received so far, in the order they were written.
    std::vector<EventRecord> Events() const;
    // The events received so far; the session keeps none of them.
    std::vector<EventRecord> TakeEvents();

    struct State;

private:
    std::shared_ptr<State> state_;
};

// Field layouts for the decoder, one character per field:
//   s  zero-terminated ANSI text (the size includes the terminator)
//   S  zero-terminated UTF-16 text, printed as UTF-8
//   u  u32, decimal       x  u32, hexadecimal (0x...)
//   U  u64, decimal       X  u64, hexadecimal
//   b  any bytes, hexadecimal
// A field that doesn't fit its letter (wrong size, no terminator, fields missing or left over) is
// printed as "<bad:" its bytes in hexadecimal ">", so that a decoded line shows a malformed event.
//
// One event as a line: its id and level name, then every field, separated by " | ":
//   101 info | create.cpp | 153 | FolderMerge_PreCreate | 0 | Velmora_Driver.sys | Normalized ...
std::string FormatEvent(const EventRecord& event, std::string_view layout);

// The level's name: critical 1, error 2, warning 3, info 4, verbose 5, else the number.
std::string LevelName(UCHAR level);

// The events of provider in a list, decoded by layout, one line each.
std::vector<std::string> FormatEvents(const std::vector<EventRecord>& events, const GUID& provider,
                                      std::string_view layout);

// Writes FormatEvents(session.Events(), provider, layout), one line each, to out.
void PrintEvents(std::ostream& out, const Session& session, const GUID& provider, std::string_view layout);

// The number of providers registered now (for tests that look for leaked registrations).
size_t RegisteredProviderCount();

}  // namespace ntsim::etw
