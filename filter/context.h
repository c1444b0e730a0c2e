// The file context table: one FileContext record follows each open of a managed file, from its
// pre-create to its close, and hands over between all callbacks of that file object.
//
// The table is the list g_ContextList, newest record first, guarded by g_ContextLock (taken
// exclusively in a critical region for every walk, change and lookup). Beside the list the table
// keeps hash indexes by file object, by record address and by path, so that a lookup costs the
// same with ten records as with ten thousand; every answer is the one a walk of the list from its
// head would give.
//
// A lookup hands out the bare pointer after releasing the lock. That is safe because a record is
// deleted only at the close or failed create of its own file object, after all other I/O on it.
#pragma once

#include <fltKernel.h>

#include "dirtyblocktracking.h"
#include "driver/ownedstring.h"
#include "hashindex.h"

// What cleanup has to do (OnClose).
#define ON_CLOSE_UPLOAD 1              // save the dirty block map, ask for the upload
#define ON_CLOSE_DELETE_ON_CLOSE 2     // opened with FILE_DELETE_ON_CLOSE: treat the file as deleted
#define ON_CLOSE_DELETE_DISPOSITION 4  // a delete disposition is set: treat the file as deleted

// What the post-set-information callback has to finish (SetInfoRequest).
#define SET_INFO_REQUEST_OBJECT_RENAME 1
#define SET_INFO_REQUEST_DELETE 2
#define SET_INFO_REQUEST_UNDELETE 3
#define SET_INFO_REQUEST_OBJECT_RENAME_TO_MANAGED 6
#define SET_INFO_REQUEST_BASIC_INFORMATION 7
#define SET_INFO_REQUEST_SIZE 8

// RecordType of the two records that the pre-create hands to the post-create.
#define RECORD_TYPE_FILE_CONTEXT 0
#define RECORD_TYPE_MUP_ACCESS 1

typedef struct _FileContext {
    ULONG RecordType;                 // RECORD_TYPE_FILE_CONTEXT; first, as in TrackedMupAccess
    PFILE_OBJECT pFileObject;         // the key, compared by pointer; no reference is taken
    OwnedString* pstrPath;            // normalized device path; null after a rename that ran out of memory
    OwnedString* pstrFilter;          // search pattern of the first directory query that had one
    OwnedString* pstrSid;             // SID under which the service knows the file
    OwnedString* pstrRenameTarget;    // destination of a rename between its pre and post callbacks
    OwnedString* pstrTemporaryFile;   // dummy file of a redirected attribute request, deleted at cleanup
    LONGLONG LastWriteNotifyTime;     // system time of the last write notice to the service
    UCHAR bExcluded;                  // the path is excluded for this SID
    UCHAR bValid;                     // 1 while the open is live; 0: only the close finds the record
    UCHAR bDirectory;                 // the file object opens a directory
    UCHAR bUploadCancelled;           // the service still has to hear that a held-back upload is off
    UCHAR bForeignUserAccess;         // local content only, in a merge folder of another user
    UCHAR bLocked;                    // the service holds a lock on the file for this open
    ULONG SetInfoRequest;             // SET_INFO_REQUEST_*
    ULONG OnClose;                    // ON_CLOSE_* bits
    PUCHAR pDirectoryListing;         // the service's directory listing (paged pool), or null
    ULONG DirectoryListingLength;     // bytes of pDirectoryListing
    PUCHAR pNextListingEntry;         // next listing entry to hand out
    ULONG DirectoryListingClass;      // FileInformationClass of pDirectoryListing's records
    volatile LONG lListingInUse;      // 1 while a query's post-operation works on the listing
    UCHAR bCreatedForCcFlush;         // the record lives for one cache flush
    UCHAR bSignatureRequired;         // the upload must carry pstrSignatureName
    OwnedString* pstrSignatureName;   // name from the signature request, or null
    TrackedDirtyBlockFile* pTrackedDirtyBlockFile;  // one reference held, or null
    struct _FileContext* pNext;       // next (older) record of the table

    // The table's own bookkeeping, written under g_ContextLock only.
    struct _FileContext* pPrevious;   // previous (newer) record of the table
    HashLink FileObjectLink;          // in the index by pFileObject
    HashLink RecordLink;              // in the index by the record's address
    HashLink PathLink;                // in the index by pstrPath, while it has one
} FileContext;

// Head of the table: the newest record, or null.
extern FileContext* g_ContextList;

// Builds a record for pFileObject that is in no table yet: bValid 1, copies of pPath and pSid
// (g_PoolType, each keeping its source's MaximumLength), everything else zero. A null pPath or pSid
// leaves its field null. On success *ppContext is the record; STATUS_INSUFFICIENT_RESOURCES, with
// nothing made, when the record or a copy can't be allocated: a record without the path or SID it
// was given could serve no request, so its caller passes the operation as it would without memory.
// IRQL: <= APC_LEVEL.
NTSTATUS CreateContext(PFILE_OBJECT pFileObject, PCUNICODE_STRING pPath, PCUNICODE_STRING pSid,
                       FileContext** ppContext);

// Frees a record that its caller has unlinked, and all it holds; drops its reference on the tracked
// dirty block record. A null record is allowed. Always STATUS_SUCCESS. IRQL: PASSIVE_LEVEL.
NTSTATUS DeleteContext(FileContext* pContext);

// Links the record in at the head. False only for a null record. IRQL: <= APC_LEVEL.
bool AddContextToContextTable(FileContext* pContext);

// Unlinks the record. False, with nothing changed, for a null record or one that isn't in the
// table; the record itself is then not read. IRQL: <= APC_LEVEL.
bool RemoveContextFromContextTable(FileContext* pContext);

// The newest record of this file object that is valid, or valid or not with bIncludeInvalid; null
// when there is none. IRQL: <= APC_LEVEL.
FileContext* FindContextByFileObject(PFILE_OBJECT pFileObject, BOOLEAN bIncludeInvalid);

// True when this very pointer is still in the table and its record is valid. The pointer may be
// stale: it is read only once it is found in the table. IRQL: <= APC_LEVEL.
bool IsContextValid(FileContext* pContext);

// Gives every record of this SID and old path (compared without regard to case) a copy of pNewPath.
// A record whose copy can't be allocated is left without a path. pOldPath and pNewPath may be the
// path of a record that is renamed: its old string is freed only at the end. False when an argument
// is null or the table is empty; true otherwise, also when nothing matched.
// IRQL: PASSIVE_LEVEL.
bool RenameContexts(PCUNICODE_STRING pSid, PCUNICODE_STRING pOldPath, PCUNICODE_STRING pNewPath);

// Clears bValid in every record of this SID and path. False when an argument is null or the table
// is empty; true otherwise. IRQL: PASSIVE_LEVEL.
bool InvalidateContexts(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath);

// True when a valid record of this path, of any SID, has bLocked set and bCreatedForCcFlush clear.
// False at once for a null path or an empty table. IRQL: PASSIVE_LEVEL.
bool HasLockedContext(PCUNICODE_STRING pPath);

// Unload: deletes every record and empties the table. Nothing to do without g_ContextLock (a start
// that failed before making it). IRQL: PASSIVE_LEVEL.
VOID DeleteAllContexts();

// Unload, after DeleteAllContexts: deletes g_ContextLock and frees it. A failing delete returns its
// status and frees nothing. STATUS_SUCCESS when there is no lock. IRQL: PASSIVE_LEVEL.
NTSTATUS DeleteContextLock();
