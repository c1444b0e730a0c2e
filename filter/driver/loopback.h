// Loopback access tracking: an open through the local loopback share (\Device\Mup\127.0.0.1\C$\...)
// reaches the filter twice, first with the MUP path in the requester's process, then, while that
// open is still in flight, with the local device path in the file server's process, in kernel mode.
// Only the first open knows who asked. A TrackedMupAccess carries that from the first open to the
// second: the first open's pre-create makes it, the second open finds it by path (it lifts the
// kernel-mode test of the gate and names the requester to the service), and the first open's
// post-create drops it.
//
// The records are a singly linked list, newest first, guarded by g_MupLock, which is taken alone:
// no other lock of the filter is held with it.
#pragma once

#include <fltKernel.h>

#include "ownedstring.h"

typedef struct _TrackedMupAccess {
    ULONG RecordType;                  // RECORD_TYPE_MUP_ACCESS; first, as in FileContext
    OwnedString* pstrPath;             // local device path of the file; owned by the record
    HANDLE ProcessId;                  // the process that made the loopback open
    struct _TrackedMupAccess* pNext;   // next (older) record, null at the end
} TrackedMupAccess;

// Head of the list: the newest record, or null.
extern TrackedMupAccess* g_MupAccessList;

// Whether pPath lies under the loopback share's prefix \Device\Mup\127.0.0.1\ (without regard to
// case). IRQL: any, for a resident string.
bool IsLoopbackMupPath(PCUNICODE_STRING pPath);

// Whether pPath is a path of the MUP device: at least 24 bytes, beginning with the device's name
// and a backslash, \Device\Mup\ (without regard to case). IRQL: any, for a resident string.
bool IsMupPath(PCUNICODE_STRING pPath);

// Makes a record of pstrPath (which the record takes over, and frees on failure) and ProcessId,
// and links it in at the head. STATUS_INVALID_PARAMETER for a null ppRecord (pstrPath is then
// freed too), STATUS_INSUFFICIENT_RESOURCES without memory; *ppRecord is set only on success.
// IRQL: PASSIVE_LEVEL.
NTSTATUS CreateTrackedMupRecord(OwnedString* pstrPath, HANDLE ProcessId, TrackedMupAccess** ppRecord);

// Links pRecord in at the head. False only for a null record. IRQL: PASSIVE_LEVEL.
bool AddToTrackedMupAccessList(TrackedMupAccess* pRecord);

// The process id of the newest record whose path equals pPath (same length, characters without
// regard to case), or null when there is none. IRQL: PASSIVE_LEVEL.
HANDLE FindTrackedMupPID(PCUNICODE_STRING pPath);

// Unlinks pRecord. False only for a null record; a record that isn't in the list leaves the list
// as it is. IRQL: PASSIVE_LEVEL.
bool RemoveFromTrackedMupAccessList(TrackedMupAccess* pRecord);

// Frees the record and its path. The record is out of the list (or the list is being dropped).
// A null record is allowed. IRQL: PASSIVE_LEVEL.
VOID DeleteTrackedMupRecord(TrackedMupAccess* pRecord);

// Unload: deletes every record and empties the list. Nothing to do without g_MupLock (a start that
// failed before making it). IRQL: PASSIVE_LEVEL.
VOID ClearTrackedMupAccessList();

// Unload, after ClearTrackedMupAccessList: deletes g_MupLock and frees it. A failing delete returns
// its status and frees nothing. IRQL: PASSIVE_LEVEL.
NTSTATUS DeleteTrackedMupAccessListLock();

// The gate's step for a loopback path (pPath under \Device\Mup\127.0.0.1\X$\): the local device
// path of the same file, \Device\<volume of X:>\..., is tracked with the current process id, and
// the record goes to *CompletionContext for the post-create to drop. FLT_PREOP_SUCCESS_WITH_CALLBACK
// when it was made; FLT_PREOP_SUCCESS_NO_CALLBACK (the open passes) when the local path can't be
// built; FLT_PREOP_COMPLETE with the failure in IoStatus when the record can't be made.
// IRQL: PASSIVE_LEVEL.
FLT_PREOP_CALLBACK_STATUS TrackLoopbackAccess(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                              PCUNICODE_STRING pPath, PVOID* CompletionContext);

// The post-create of a loopback open: unlinks and deletes its record, whatever the open's status.
// IRQL: PASSIVE_LEVEL.
VOID EndTrackedMupAccess(TrackedMupAccess* pRecord);
