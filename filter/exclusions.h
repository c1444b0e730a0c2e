// Whether a path is excluded from the merge: the service decides, per user, and each user's
// verdicts stand in a cache of up to EXCLUSION_CACHE_LIMIT entries inside the user's record, in
// least-recently-used order. A verdict lives until the LRU order pushes it out or the
// configuration is cleared.
//
// Keys are lower-case paths compared as plain bytes. An excluded entry covers every key of which
// its own is a byte prefix, with no separator check (\a\b covers \a\bc\d); a not-excluded entry
// answers for its own key only. A lookup hits on the most recently used entry that answers.
//
// The cache is the list exclusionCacheList of the user's record, most recently used first. Beside it
// an index finds the entries of a key by hash, and keeps each verdict's entries in key order, so a
// lookup and an insertion cost the same with ten entries as with ten thousand, and answer as a walk
// of the list from its front would. The record's spin lock guards all of it.
#pragma once

#include <fltKernel.h>

#include "driver/ownedstring.h"
#include "hashindex.h"

#define EXCLUSION_CACHE_LIMIT 10000

// 16384 buckets: more than the cache can hold.
#define EXCLUSION_INDEX_MAX_BITS 14

typedef struct _UserRecord UserRecord;

typedef struct _ExclusionCacheEntry {
    OwnedString* pstrPath;  // lower-case key, in the entry's own block behind it
    UCHAR bExcluded;        // 1 excluded, 0 not excluded
    LIST_ENTRY link;        // in the owner's exclusionCacheList

    // The owner's index.
    HashLink KeyLink;                         // in the index by key
    ULONGLONG LastUse;                        // owner's use count when the entry last went to the front
    struct _ExclusionCacheEntry* pLeft;       // the tree of the entries of this verdict, by key
    struct _ExclusionCacheEntry* pRight;
    struct _ExclusionCacheEntry* pParent;
    ULONG ulPriority;                         // above that of its children in the tree
} ExclusionCacheEntry;

typedef struct _ExclusionIndex {
    HashIndex Keys;                       // every entry, by key
    ExclusionCacheEntry* pExcludedRoot;   // entries of verdict 1, in key order
    ExclusionCacheEntry* pIncludedRoot;   // entries of verdict 0, in key order
    ULONGLONG UseCount;                   // counts every move to the front
    ULONG ulPrioritySeed;                 // draws the tree priorities
} ExclusionIndex;

// 1 when pPath is excluded for pSid, at the level of directories: a file (or a path that can't be
// opened) stands for its parent directory, a directory for itself. Asks the service on a miss and
// caches its answer, whatever it was; a failed, timed-out or disconnected request caches not
// excluded. Every failure of the filter's own work gives 0. pFltObjects and pIopb are the
// operation's, for the file information and the request. IRQL: PASSIVE_LEVEL, no lock held.
UCHAR IsExcludedByDirectory(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS pFltObjects,
                            PFLT_IO_PARAMETER_BLOCK pIopb);

// As IsExcludedByDirectory, for pPath as given, without the reduction to its directory.
UCHAR IsExcludedByPath(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, PCFLT_RELATED_OBJECTS pFltObjects,
                       PFLT_IO_PARAMETER_BLOCK pIopb);

// Looks pKey (lower case) up in the record's cache. On a hit the entry that answers goes to the
// front, *pbExcluded is its verdict and the result is TRUE; on a miss *pbExcluded is 0.
// The caller holds a reference on the record. IRQL: <= DISPATCH_LEVEL.
BOOLEAN FindInExclusionCache(UserRecord* pRecord, PCUNICODE_STRING pKey, PUCHAR pbExcluded);

// Puts the verdict for pKey (lower case) at the front of the record's cache. An entry of the same
// verdict whose key is a byte prefix of pKey makes the new one redundant: nothing is added. Entries
// of the same verdict whose keys pKey is a byte prefix of go. Past EXCLUSION_CACHE_LIMIT the least
// recently used entry goes. Out of memory leaves the cache as it was. The caller holds a reference
// on the record. IRQL: <= DISPATCH_LEVEL.
VOID AddToExclusionCache(UserRecord* pRecord, PCUNICODE_STRING pKey, UCHAR bExcluded);

// Frees an entry and its key, which share its block. A null entry is allowed.
// IRQL: <= DISPATCH_LEVEL.
VOID FreeExclusionCacheEntry(ExclusionCacheEntry* pEntry);

// Makes the record's cache empty and ready, at the record's creation.
VOID InitializeExclusionCache(UserRecord* pRecord);

// Frees every entry of the record's cache and its index. The caller holds the record's lock and
// is its last holder. IRQL: DISPATCH_LEVEL.
VOID DeleteExclusionCacheEntries(UserRecord* pRecord);
