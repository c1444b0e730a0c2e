// Event Tracing for Windows, the kernel-mode provider side (the WDK's wdm.h subset): a provider
// registers by GUID, learns through its enable callback which level and keywords the sessions
// want, and writes events as arrays of data descriptors.
//
// ntsim's choices where Windows leaves a point open:
// - The enable callback runs in the thread that changed the provider's state: in EtwRegister's
//   caller when a session already enables the provider, otherwise in the thread that enabled or
//   disabled it (ntsim::etw::Session, sim/etw.hpp). It is passed the combined state of all
//   sessions that enable the provider: Level 0 if any session asked for 0 (everything), else the
//   highest level; MatchAnyKeyword 0 if any session asked for 0 (every keyword), else the union;
//   MatchAllKeyword the intersection. ControlCode is EVENT_CONTROL_CODE_ENABLE_PROVIDER while one
//   session still enables the provider, EVENT_CONTROL_CODE_DISABLE_PROVIDER with zero level and
//   keywords when the last one lets it go. FilterData is always null.
// - EtwUnregister waits until enable callbacks that are running in other threads for this
//   registration have returned; after it returns none runs again, so the callback context may
//   be freed.
// - EtwWrite copies the payload and hands it to every session whose own level and keywords
//   admit the event (an event of Level 0 passes any level, one of Keyword 0 any keywords; a
//   session's MatchAnyKeyword 0 admits every keyword). With no such session it writes nothing
//   and succeeds, as Windows does. It may be called at any IRQL.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

typedef ULONGLONG REGHANDLE, *PREGHANDLE;

// What an event is: 16 bytes, the published layout.
typedef struct _EVENT_DESCRIPTOR {
    USHORT Id;
    UCHAR Version;
    UCHAR Channel;
    UCHAR Level;
    UCHAR Opcode;
    USHORT Task;
    ULONGLONG Keyword;
} EVENT_DESCRIPTOR, *PEVENT_DESCRIPTOR;
typedef const EVENT_DESCRIPTOR* PCEVENT_DESCRIPTOR;

static_assert(sizeof(EVENT_DESCRIPTOR) == 16, "EVENT_DESCRIPTOR size");
static_assert(offsetof(EVENT_DESCRIPTOR, Level) == 4, "EVENT_DESCRIPTOR.Level");
static_assert(offsetof(EVENT_DESCRIPTOR, Task) == 6, "EVENT_DESCRIPTOR.Task");
static_assert(offsetof(EVENT_DESCRIPTOR, Keyword) == 8, "EVENT_DESCRIPTOR.Keyword");

// One field of an event's payload: an address and a size in bytes.
typedef struct _EVENT_DATA_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    union {
        ULONG Reserved;
        struct {
            UCHAR Type;
            UCHAR Reserved1;
            USHORT Reserved2;
        };
    };
} EVENT_DATA_DESCRIPTOR, *PEVENT_DATA_DESCRIPTOR;

static_assert(sizeof(EVENT_DATA_DESCRIPTOR) == 16, "EVENT_DATA_DESCRIPTOR size");
static_assert(offsetof(EVENT_DATA_DESCRIPTOR, Size) == 8, "EVENT_DATA_DESCRIPTOR.Size");

typedef struct _EVENT_FILTER_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    ULONG Type;
} EVENT_FILTER_DESCRIPTOR, *PEVENT_FILTER_DESCRIPTOR;

#define EVENT_CONTROL_CODE_DISABLE_PROVIDER 0
#define EVENT_CONTROL_CODE_ENABLE_PROVIDER 1
#define EVENT_CONTROL_CODE_CAPTURE_STATE 2

// The most data descriptors one event may carry.
#define MAX_EVENT_DATA_DESCRIPTORS 128

FORCEINLINE VOID EventDataDescCreate(PEVENT_DATA_DESCRIPTOR EventDataDescriptor, const VOID* DataPtr, ULONG DataSize)
{
    EventDataDescriptor->Ptr = (ULONGLONG)(ULONG_PTR)DataPtr;
    EventDataDescriptor->Size = DataSize;
    EventDataDescriptor->Reserved = 0;
}

typedef VOID(NTAPI* PETWENABLECALLBACK)(LPCGUID SourceId, ULONG ControlCode, UCHAR Level,
                                        ULONGLONG MatchAnyKeyword, ULONGLONG MatchAllKeyword,
                                        PEVENT_FILTER_DESCRIPTOR FilterData, PVOID CallbackContext);

extern "C" {

// Registers a provider. *RegHandle receives its handle (0 on failure). If a session enables the
// provider already, EnableCallback runs before this returns. STATUS_INVALID_PARAMETER for a null
// ProviderId or RegHandle. PASSIVE_LEVEL.
NTKERNELAPI NTSTATUS NTAPI EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback, PVOID CallbackContext,
                                       PREGHANDLE RegHandle);

// Ends a registration. STATUS_INVALID_HANDLE for a handle that isn't registered. PASSIVE_LEVEL.
NTKERNELAPI NTSTATUS NTAPI EtwUnregister(REGHANDLE RegHandle);

// Writes one event with UserDataCount fields. STATUS_INVALID_HANDLE for an unknown handle;
// STATUS_INVALID_PARAMETER for a null descriptor, more than MAX_EVENT_DATA_DESCRIPTORS fields,
// or fields without their array. Any IRQL.
NTKERNELAPI NTSTATUS NTAPI EtwWrite(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR EventDescriptor, LPCGUID ActivityId,
                                    ULONG UserDataCount, PEVENT_DATA_DESCRIPTOR UserData);

}  // extern "C"
