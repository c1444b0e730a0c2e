// The filter's one trace facility: events that carry the source file, line, function, module name
// and a formatted ANSI message, written through an ETW provider.
//
// A trace site is a gate and a call. Nothing is written above PASSIVE_LEVEL (so nothing under a spin
// lock), nothing while g_TraceProvider is null (from start until the service turns tracing on), and
// nothing that the enabling session's level and keywords leave out. Formats are printf-style ANSI;
// %wZ takes a PUNICODE_STRING and %S a wide string. A site that prints a string tests first that the
// string and its buffer are there.
#pragma once

#include <fltKernel.h>

// Event levels (the descriptors' Level): info 4, warning 3, error 2. Every event carries keyword
// bit 63.
#define TRACE_LEVEL_ERROR 2
#define TRACE_LEVEL_WARNING 3
#define TRACE_LEVEL_INFO 4
#define TRACE_KEYWORD 0x8000000000000000ull

#define TRACE_MESSAGE_LIMIT 511

// The provider record, allocated from g_PoolType, zeroed at first. Its fields are guarded by
// g_TraceLock; the gate reads Level and the keywords without it.
typedef struct _TraceProvider {
    PANSI_STRING pModuleName;  // "Velmora_Driver.sys"
    ULONG EventField4;         // 0, sent as the event's fourth field
    UCHAR Level;               // from the enabling session; 0 when disabled
    ULONGLONG RegHandle;       // the provider's registration handle
    ULONGLONG MatchAnyKeyword;
    ULONGLONG MatchAllKeyword;
} TraceProvider;

// Null while tracing is off: from start until the service turns it on.
extern TraceProvider* g_TraceProvider;

// The gate without its IRQL test: a provider is registered, and its session's level and keywords
// admit an event of ucLevel. IRQL: any.
BOOLEAN IsTraceEnabled(UCHAR ucLevel);

// Writes one event of ucLevel. Serialised by g_TraceLock. STATUS_INVALID_PARAMETER when no provider
// can write. No caller looks at the result. IRQL: PASSIVE_LEVEL.
NTSTATUS TraceWrite(TraceProvider* pProvider, UCHAR ucLevel, PCSTR pszSourcePath, ULONG ulLine, PCSTR pszFunction,
                    PCSTR pszFormat, ...);

#define TRACE_EVENT(ucLevel, ...)                                                                      \
    do {                                                                                               \
        if (KeGetCurrentIrql() == PASSIVE_LEVEL && IsTraceEnabled(ucLevel)) {                          \
            (VOID) TraceWrite(g_TraceProvider, (ucLevel), __FILE__, __LINE__, __func__, __VA_ARGS__);  \
        }                                                                                              \
    } while (0)

#define TRACE_INFO(...) TRACE_EVENT(TRACE_LEVEL_INFO, __VA_ARGS__)
#define TRACE_WARNING(...) TRACE_EVENT(TRACE_LEVEL_WARNING, __VA_ARGS__)
#define TRACE_ERROR(...) TRACE_EVENT(TRACE_LEVEL_ERROR, __VA_ARGS__)
