// The trace provider's registration, its enable callback and the SetTracingEnabled message.
#include "traceprovider.h"

#include "driver/locks.h"
#include "driver/ownedstring.h"
#include "traceinternal.h"

// The record whose enable callbacks set the gate: the registered one, and the one being registered
// while EtwRegister runs. Null while none is.
static TraceProvider* g_TraceCallbackRecord;

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
    // A callback that comes while its record is being unregistered changes nothing: the gate
    // belongs to the live record alone.
    if (CallbackContext == g_TraceCallbackRecord) {
        // Every non-zero control code (capture state too) counts as enabling.
        if (ControlCode != EVENT_CONTROL_CODE_DISABLE_PROVIDER) {
            SetTraceGate((TraceProvider*)CallbackContext, Level, MatchAnyKeyword, MatchAllKeyword);
        } else {
            SetTraceGate((TraceProvider*)CallbackContext, 0, 0, 0);
        }
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

    // Both blocks come before the registration: once registered, the provider could only be taken
    // back by EtwUnregister, which waits for enable callbacks that wait for this lock.
    pProvider = (TraceProvider*)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(TraceProvider));
    pModuleName = (PANSI_STRING)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(ANSI_STRING));
    if (pProvider == nullptr || pModuleName == nullptr) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Done;
    }
    RtlZeroMemory(pProvider, sizeof(TraceProvider));
    RtlZeroMemory(pModuleName, sizeof(ANSI_STRING));

    // A session that enables the provider already calls TraceEnableCallback in here.
    g_TraceCallbackRecord = pProvider;
    status = pfnRegister(&TRACE_PROVIDER_GUID, TraceEnableCallback, pProvider, &pProvider->RegHandle);
    if (!NT_SUCCESS(status)) {
        g_TraceCallbackRecord = nullptr;
        SetTraceGate(pProvider, 0, 0, 0);
        goto Done;
    }

    RtlInitUnicodeString(&moduleName, TRACE_MODULE_NAME);
    status = RtlUnicodeStringToAnsiString(pModuleName, &moduleName, TRUE);
    pProvider->pModuleName = pModuleName;
    g_EtwRegister = pfnRegister;
    g_EtwUnregister = pfnUnregister;
    g_EtwWrite = pfnWrite;
    *ppProvider = pProvider;
    pProvider = nullptr;
    pModuleName = nullptr;

Done:
    if (pProvider != nullptr) {
        FreeBuffer(pProvider);
    }
    if (pModuleName != nullptr) {
        FreeBuffer(pModuleName);
    }
    ReleaseLock(g_TraceLock);
    return status;
}

NTSTATUS UnregisterTraceProvider()
{
    if (g_TraceProvider == nullptr || g_EtwUnregister == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // The record is taken out of use under the lock: no site writes with it, no enable callback
    // changes the gate for it, and the gate refuses everything.
    AcquireLockExclusive(g_TraceLock);
    TraceProvider* pProvider = g_TraceProvider;
    PFN_ETW_UNREGISTER pfnUnregister = g_EtwUnregister;
    if (pProvider != nullptr) {
        SetTraceGate(pProvider, 0, 0, 0);
        g_TraceCallbackRecord = nullptr;
        g_TraceProvider = nullptr;
        g_EtwWrite = nullptr;
    }
    ReleaseLock(g_TraceLock);
    if (pProvider == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // Without the lock: EtwUnregister waits for enable callbacks running in other threads, and
    // those wait for the lock. Once it returns no callback holds the record, which can go.
    NTSTATUS status = pfnUnregister(pProvider->RegHandle);
    if (pProvider->pModuleName != nullptr) {
        RtlFreeAnsiString(pProvider->pModuleName);
        FreeBuffer(pProvider->pModuleName);
    }
    FreeBuffer(pProvider);
    return status;
}

NTSTATUS SetTracingEnabled(const SetTracingEnabledMessage* pMessage)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (pMessage == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (pMessage->bEnable == 0) {
        if (g_TraceProvider != nullptr) {
            TRACE_INFO("Disabling driver tracing");
            // Two messages at once: the second finds no provider left to unregister.
            (VOID) UnregisterTraceProvider();
        }
        return STATUS_SUCCESS;
    }
    // One registration at a time: two enabling messages register one provider.
    AcquireLockExclusive(g_TraceLock);
    if (g_TraceProvider == nullptr) {
        (VOID) RegisterTraceProvider(&g_TraceProvider);
    }
    if (g_TraceProvider == nullptr) {
        status = STATUS_UNSUCCESSFUL;
    } else {
        TRACE_INFO("Driver tracing enabled");
    }
    ReleaseLock(g_TraceLock);
    return status;
}

VOID StopTracing()
{
    if (g_TraceLock == nullptr) {
        return;
    }
    (VOID) UnregisterTraceProvider();
}
