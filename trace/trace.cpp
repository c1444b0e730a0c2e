// The trace gate and TraceWrite.
#include "trace.h"

TraceProvider* g_TraceProvider;

BOOLEAN IsTraceEnabled(UCHAR ucLevel)
{
    TraceProvider* pProvider = g_TraceProvider;
    if (pProvider == nullptr) {
        return FALSE;
    }
    if (pProvider->Level != 0 && ucLevel > pProvider->Level) {
        return FALSE;
    }
    if ((pProvider->MatchAnyKeyword & TRACE_KEYWORD) == 0) {
        return FALSE;
    }
    return (pProvider->MatchAllKeyword & TRACE_KEYWORD) == pProvider->MatchAllKeyword;
}

NTSTATUS TraceWrite(TraceProvider* pProvider, UCHAR ucLevel, PCSTR pszSourcePath, ULONG ulLine, PCSTR pszFunction,
                    PCSTR pszFormat, ...)
{
    UNREFERENCED_PARAMETER(pProvider);
    UNREFERENCED_PARAMETER(ucLevel);
    UNREFERENCED_PARAMETER(pszSourcePath);
    UNREFERENCED_PARAMETER(ulLine);
    UNREFERENCED_PARAMETER(pszFunction);
    UNREFERENCED_PARAMETER(pszFormat);
    // The ETW routines are bound when the provider registers, which the service asks for by its
    // tracing message. This build has neither: without EtwWrite a trace ends here, as one does
    // that passed the gate just before tracing was turned off.
    return STATUS_INVALID_PARAMETER;
}
