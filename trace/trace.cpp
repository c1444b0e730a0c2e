// The trace gate and TraceWrite.
#include "trace.h"

#include "driver/locks.h"
#include "traceinternal.h"

const GUID TRACE_PROVIDER_GUID = {0x749213BC, 0x94DA, 0x4C80, {0x9E, 0xE2, 0x22, 0x82, 0x51, 0x91, 0xBF, 0x51}};

// Id, Version, Channel, Level, Opcode, Task, Keyword.
const EVENT_DESCRIPTOR TRACE_DESCRIPTOR_INFO = {101, 0, 16, 4, 0, 2, 0x8000000000000000ull};
const EVENT_DESCRIPTOR TRACE_DESCRIPTOR_WARNING = {102, 0, 16, 3, 0, 2, 0x8000000000000000ull};
const EVENT_DESCRIPTOR TRACE_DESCRIPTOR_ERROR = {103, 0, 16, 2, 0, 2, 0x8000000000000000ull};

TraceProvider* g_TraceProvider;

PFN_ETW_REGISTER g_EtwRegister;
PFN_ETW_UNREGISTER g_EtwUnregister;
PFN_ETW_WRITE g_EtwWrite;

volatile UCHAR g_TraceGateLevel;
volatile ULONGLONG g_TraceGateMatchAnyKeyword;
volatile ULONGLONG g_TraceGateMatchAllKeyword;

// What a field carries when its text is missing.
static const CHAR TraceNullText[] = "NULL";

BOOLEAN IsTraceEnabled(PCEVENT_DESCRIPTOR pDescriptor)
{
    if (pDescriptor == nullptr || g_TraceProvider == nullptr) {
        return FALSE;
    }
    UCHAR ucLevel = g_TraceGateLevel;
    if (ucLevel != 0 && pDescriptor->Level > ucLevel) {
        return FALSE;
    }
    if (pDescriptor->Keyword != 0 && (g_TraceGateMatchAnyKeyword & pDescriptor->Keyword) == 0) {
        return FALSE;
    }
    ULONGLONG ullMatchAll = g_TraceGateMatchAllKeyword;
    return (ullMatchAll & pDescriptor->Keyword) == ullMatchAll ? TRUE : FALSE;
}

static ULONG TextLength(PCSTR pszText)
{
    ULONG ulLength = 0;
    while (pszText[ulLength] != '\0') {
        ulLength++;
    }
    return ulLength;
}

// A zero-terminated text field, or "NULL" for a missing text.
static VOID DescribeText(PEVENT_DATA_DESCRIPTOR pField, PCSTR pszText)
{
    if (pszText == nullptr) {
        EventDataDescCreate(pField, TraceNullText, sizeof(TraceNullText));
    } else {
        EventDataDescCreate(pField, pszText, TextLength(pszText) + 1);
    }
}

// The file name of a source path: what follows its last backslash, or the whole path.
static PCSTR SourceFileName(PCSTR pszSourcePath)
{
    PCSTR pszName = pszSourcePath;
    for (PCSTR pszCursor = pszSourcePath; *pszCursor != '\0'; pszCursor++) {
        if (*pszCursor == '\\') {
            pszName = pszCursor + 1;
        }
    }
    return pszName;
}

NTSTATUS TraceWrite(TraceProvider* pProvider, PCEVENT_DESCRIPTOR pDescriptor, PCSTR pszSourcePath, ULONG ulLine,
                    PCSTR pszFunction, PCSTR pszFormat, ...)
{
    NTSTATUS status;
    EVENT_DATA_DESCRIPTOR fields[6];
    CHAR szMessage[TRACE_MESSAGE_LIMIT + 1];

    if (g_TraceLock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    AcquireLockExclusive(g_TraceLock);

    // A site that passed its gate just before tracing was turned off ends here; its provider
    // pointer may be freed, so it is only compared.
    if (g_EtwWrite == nullptr || pProvider == nullptr || pProvider != g_TraceProvider) {
        status = STATUS_INVALID_PARAMETER;
        goto Done;
    }

    DescribeText(&fields[0], pszSourcePath == nullptr ? nullptr : SourceFileName(pszSourcePath));
    EventDataDescCreate(&fields[1], &ulLine, sizeof(ULONG));
    DescribeText(&fields[2], pszFunction);
    EventDataDescCreate(&fields[3], &pProvider->EventField4, sizeof(ULONG));
    if (pProvider->pModuleName == nullptr || pProvider->pModuleName->Buffer == nullptr) {
        DescribeText(&fields[4], nullptr);
    } else {
        EventDataDescCreate(&fields[4], pProvider->pModuleName->Buffer, (ULONG)pProvider->pModuleName->Length + 1);
    }

    if (pszFormat == nullptr) {
        DescribeText(&fields[5], nullptr);
    } else {
        // Cut at the limit and always terminated, whatever _vsnprintf made of the format.
        RtlZeroMemory(szMessage, sizeof(szMessage));
        va_list arguments;
        va_start(arguments, pszFormat);
        (VOID) _vsnprintf(szMessage, TRACE_MESSAGE_LIMIT, pszFormat, arguments);
        va_end(arguments);
        szMessage[TRACE_MESSAGE_LIMIT] = '\0';
        DescribeText(&fields[5], szMessage);
    }

    status = g_EtwWrite(pProvider->RegHandle, pDescriptor, nullptr, 6, fields);

Done:
    ReleaseLock(g_TraceLock);
    return status;
}
