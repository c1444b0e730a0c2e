// The filter's one trace facility: events that carry the source file, line, function, module name
// and a formatted ANSI message, written through an ETW provider.
//
// A trace site is a gate and a call. Nothing is written above PASSIVE_LEVEL (so nothing under a spin
// lock), nothing while g_TraceProvider is null (from start until the service turns tracing on), and
// nothing that the enabling session's level and keywords leave out. Formats are printf-style ANSI;
// %wZ takes a PUNICODE_STRING and %S a wide string. A site that prints a string tests first that the
// string and its buffer are there.
//
// An event's payload is six fields, in this order:
//   1 source file name (the text after the last backslash of the path), zero-terminated ANSI
//   2 source line, u32
//   3 function name, zero-terminated ANSI
//   4 the record's EventField4, u32 (0)
//   5 module name, zero-terminated ANSI
//   6 message, zero-terminated ANSI, at most TRACE_MESSAGE_LIMIT characters
// A missing text (a null source, a null format) is sent as "NULL".
#pragma once

#include <fltKernel.h>

// The provider's name for the events' fifth field.
#define TRACE_MODULE_NAME L"Velmora_Driver.sys"

// The longest message text; longer messages are cut.
#define TRACE_MESSAGE_LIMIT 511

// The six fields for a consumer's decoder: text, u32, text, u32, text, text.
#define TRACE_EVENT_LAYOUT "sususs"

// {749213BC-94DA-4C80-9EE2-22825191BF51}
extern const GUID TRACE_PROVIDER_GUID;

// The three events: info 101 (Level 4), warning 102 (Level 3), error 103 (Level 2); all of
// version 0, channel 16, opcode 0, task 2, keyword bit 63.
extern const EVENT_DESCRIPTOR TRACE_DESCRIPTOR_INFO;
extern const EVENT_DESCRIPTOR TRACE_DESCRIPTOR_WARNING;
extern const EVENT_DESCRIPTOR TRACE_DESCRIPTOR_ERROR;

// The provider record, allocated from g_PoolType, zeroed at first. Its fields are guarded by
// g_TraceLock.
typedef struct _TraceProvider {
    PANSI_STRING pModuleName;  // TRACE_MODULE_NAME in ANSI; the header is a pool block of its own
    ULONG EventField4;         // 0, sent as the event's fourth field
    UCHAR Level;               // from the enabling sessions; 0 when disabled
    REGHANDLE RegHandle;       // from EtwRegister
    ULONGLONG MatchAnyKeyword; // from the enabling sessions; 0 when disabled
    ULONGLONG MatchAllKeyword; // from the enabling sessions; 0 when disabled
} TraceProvider;

// Null while tracing is off: from start until the service turns it on. Written only under
// g_TraceLock; read by the gate without it.
extern TraceProvider* g_TraceProvider;

// The gate without its IRQL test: a provider is registered, and the level and keywords its
// sessions asked for admit pDescriptor. FALSE for a null descriptor; a descriptor of keyword 0
// needs no keyword of the sessions. Never touches the record, which may be freed under a reader.
// IRQL: any.
BOOLEAN IsTraceEnabled(PCEVENT_DESCRIPTOR pDescriptor);

// Writes one event (pDescriptor) with the six fields. Serialised by g_TraceLock.
// STATUS_INVALID_PARAMETER when pProvider isn't the registered provider any more (tracing was
// turned off after the site's gate), else EtwWrite's status. No caller looks at the result.
// IRQL: PASSIVE_LEVEL.
NTSTATUS TraceWrite(TraceProvider* pProvider, PCEVENT_DESCRIPTOR pDescriptor, PCSTR pszSourcePath, ULONG ulLine,
                    PCSTR pszFunction, PCSTR pszFormat, ...);

#define TRACE_AT(pDescriptor, ...)                                                                        \
    do {                                                                                                  \
        if (KeGetCurrentIrql() == PASSIVE_LEVEL && IsTraceEnabled(pDescriptor)) {                         \
            (VOID) TraceWrite(g_TraceProvider, (pDescriptor), __FILE__, __LINE__, __func__, __VA_ARGS__); \
        }                                                                                                 \
    } while (0)

#define TRACE_INFO(...) TRACE_AT(&TRACE_DESCRIPTOR_INFO, __VA_ARGS__)
#define TRACE_WARNING(...) TRACE_AT(&TRACE_DESCRIPTOR_WARNING, __VA_ARGS__)
#define TRACE_ERROR(...) TRACE_AT(&TRACE_DESCRIPTOR_ERROR, __VA_ARGS__)
