// The trace provider's registration, its enable callback and the SetTracingEnabled message.
#include "traceprovider.h"

#include "driver/locks.h"
#include "driver/ownedstring.h"
#include "traceinternal.h"

// Sets the record's and the gate's level and keywords together.
static VOID SetTraceGate(TraceProvider* pProvider, UCHAR ucLevel, ULONGLONG ullMatchAny, ULONGLONG ullMatchAll)
{
    pProvider->Level = ucLevel;
    pProvider->MatchAnyKeyword = ullMatchAny;
    pProvider->MatchAllKeyword = ullMatchAll;
    g_TraceGateLevel = ucLevel;
    g_TraceGateMatchAnyKeyword = ullMatchAny;
    g_TraceGateMatchAllKeyword = ullMatchAll;
}

static PVOID FindSystemRoutine(PCWSTR pszName)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, pszName);
    return MmGetSystemRoutineAddress(&name);
}

VOID NTAPI TraceEnableCallback(LPCGUID SourceId, ULONG ControlCode, UCHAR Level, ULONGLONG MatchAnyKeyword,
                               ULONGLONG MatchAllKeyword, PEVENT_FILTER_DESCRIPTOR FilterData, PVOID CallbackContext)
{
    UNREFERENCED_PARAMETER(SourceId);
    UNREFERENCED_PARAMETER(FilterData);
    if (CallbackContext == nullptr) {
        return;
    }
    AcquireLockExclusive(g_TraceLock);
    // Every non-zero control code (capture state too) counts as enabling.
    if (ControlCode != EVENT_CONTROL_CODE_DISABLE_PROVIDER) {
        SetTraceGate((TraceProvider*)CallbackContext, Level, MatchAnyKeyword, MatchAllKeyword);
    } else {
        SetTraceGate((TraceProvider*)CallbackContext, 0, 0, 0);
    }
    ReleaseLock(g_TraceLock);
}

NTSTATUS RegisterTraceProvider(TraceProvider** ppProvider)
{
    NTSTATUS status;
    TraceProvider* pProvider = nullptr;
    PANSI_STRING pModuleName = nullptr;
    UNICODE_STRING moduleName;

    AcquireLockExclusive(g_TraceLock);
    *ppProvider = nullptr;

    PFN_ETW_REGISTER pfnRegister = (PFN_ETW_REGISTER)FindSystemRoutine(L"EtwRegister");
    PFN_ETW_UNREGISTER pfnUnregister = (PFN_ETW_UNREGISTER)FindSystemRoutine(L"EtwUnregister");
    PFN_ETW_WRITE pfnWrite = (PFN_ETW_WRITE)FindSystemRoutine(L"EtwWrite");
    if (pfnRegister == nullptr || pfnUnregister == nullptr || pfnWrite == nullptr) {
        status = STATUS_UNSUCCESSFUL;
        goto Done;
    }

    pProvider = (TraceProvider*)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(TraceProvider));
    if (pProvider == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Done;
    }
    RtlZeroMemory(pProvider, sizeof(TraceProvider));

    // A session that enables the provider already calls TraceEnableCallback in here.
    status = pfnRegister(&TRACE_PROVIDER_GUID, TraceEnableCallback, pProvider, &pProvider->RegHandle);
    if (!NT_SUCCESS(status)) {
        SetTraceGate(pProvider, 0, 0, 0);
        FreeBuffer(pProvider);
        goto Done;
    }

    pModuleName = (PANSI_STRING)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(ANSI_STRING));
    if (pModuleName == nullptr) {
        (VOID) pfnUnregister(pProvider->RegHandle);
        SetTraceGate(pProvider, 0, 0, 0);
        FreeBuffer(pProvider);
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Done;
    }
    RtlZeroMemory(pModuleName, sizeof(ANSI_STRING));
    RtlInitUnicodeString(&moduleName, TRACE_MODULE_NAME);
    status = RtlUnicodeStringToAnsiString(pModuleName, &moduleName, TRUE);

    pProvider->pModuleName = pModuleName;
    g_EtwRegister = pfnRegister;
    g_EtwUnregister = pfnUnregister;
    g_EtwWrite = pfnWrite;
    *ppProvider = pProvider;

Done:
    ReleaseLock(g_TraceLock);
    return status;
}

NTSTATUS UnregisterTraceProvider()
{
    if (g_TraceProvider == nullptr || g_EtwUnregister == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    AcquireLockExclusive(g_TraceLock);
    TraceProvider* pProvider = g_TraceProvider;
    NTSTATUS status = g_EtwUnregister(pProvider->RegHandle);
    if (pProvider->pModuleName != nullptr) {
        RtlFreeAnsiString(pProvider->pModuleName);
        FreeBuffer(pProvider->pModuleName);
    }
    // The gate refuses everything from here on, even to a site that still sees the record.
    SetTraceGate(pProvider, 0, 0, 0);
    FreeBuffer(pProvider);
    g_EtwWrite = nullptr;
    ReleaseLock(g_TraceLock);
    return status;
}

NTSTATUS SetTracingEnabled(const SetTracingEnabledMessage* pMessage)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (pMessage == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // One state change at a time: two enabling messages register one provider.
    AcquireLockExclusive(g_TraceLock);
    if (pMessage->bEnable == 0) {
        if (g_TraceProvider != nullptr) {
            TRACE_INFO("Disabling driver tracing");
            (VOID) UnregisterTraceProvider();
            g_TraceProvider = nullptr;
        }
    } else {
        if (g_TraceProvider == nullptr) {
            (VOID) RegisterTraceProvider(&g_TraceProvider);
        }
        if (g_TraceProvider == nullptr) {
            status = STATUS_UNSUCCESSFUL;
        } else {
            TRACE_INFO("Driver tracing enabled");
        }
    }
    ReleaseLock(g_TraceLock);
    return status;
}

VOID StopTracing()
{
    if (g_TraceLock == nullptr) {
        return;
    }
    AcquireLockExclusive(g_TraceLock);
    if (g_TraceProvider != nullptr) {
        (VOID) UnregisterTraceProvider();
        g_TraceProvider = nullptr;
    }
    ReleaseLock(g_TraceLock);
}
