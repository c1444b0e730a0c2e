// The merge folder table and the process blacklist, both guarded by g_ConfigLock.
#pragma once

#include <fltKernel.h>

#include "ownedstring.h"

#define MAX_MERGE_FOLDERS 50
#define MERGE_FOLDER_STRING_CAPACITY 4096

// One managed folder of one user. A row is complete when all three strings are there.
typedef struct _MergeFolderEntry {
    OwnedString* pstrSid;         // the user's SID string; paged pool
    OwnedString* pstrLinkPath;    // \??\C:\Data; paged pool
    OwnedString* pstrDevicePath;  // \Device\HarddiskVolume2\Data; g_PoolType
    ULONG bReadOnly;              // non-zero: the folder's own path is read-only
} MergeFolderEntry;

extern MergeFolderEntry g_MergeFolders[MAX_MERGE_FOLDERS];
extern ULONG g_MergeFolderCount;

// Null-terminated array (paged pool) of process file names (g_PoolType, zero-terminated), or null
// before the first configuration.
extern OwnedString** g_ProcessBlacklist;

// Brings the summary that spares the lookups most scans in step with the rows. The caller holds
// g_ConfigLock and calls it whenever it has changed rows, before it releases the lock.
// IRQL: <= APC_LEVEL.
VOID SummarizeMergeFolders();

// True when a row of this SID has exactly this path (link or device form), without regard to case.
// IRQL: <= APC_LEVEL; takes g_ConfigLock.
bool IsMergeFolderRoot(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath);

// True when pPath is a folder of this SID or lies below one. *pbReadOnly is 1 only for the exact
// path of a read-only folder, 0 otherwise (always written). IRQL: <= APC_LEVEL; takes g_ConfigLock.
bool IsManagedPath(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, UCHAR* pbReadOnly);

// A new copy (g_PoolType) of the SID of the first row, of any user, that holds pPath; null when
// none does or out of memory. The caller frees it. IRQL: <= APC_LEVEL; takes g_ConfigLock.
OwnedString* FindMergeFolderOwner(PCUNICODE_STRING pPath);

// The filter's instance on the volume that a device path names (\Device\<volume>\...). On success
// the caller owns one reference on *ppInstance and drops it with FltObjectDereference.
// IRQL: PASSIVE_LEVEL.
NTSTATUS GetVolumeInstanceForPath(PFLT_FILTER pFilter, PCUNICODE_STRING pPath, PFLT_INSTANCE* ppInstance);

// True when the last component of pImagePath names a blacklisted process, without regard to case.
// IRQL: <= APC_LEVEL; takes g_ConfigLock.
bool IsProcessBlacklisted(PCUNICODE_STRING pImagePath);

// Room for the process image name of the blacklist test, in bytes.
#define PROCESS_IMAGE_NAME_CAPACITY 260

// The current process's image file name, device form, into pstrImageName (its capacity decides).
// A name that does not fit gives STATUS_BUFFER_OVERFLOW and leaves the string as it was (Length
// unchanged), so that no caller reads a length its buffer doesn't hold. The size query's own
// failure is returned as it stands. IRQL: PASSIVE_LEVEL.
NTSTATUS GetProcessImageName(OwnedString* pstrImageName);
