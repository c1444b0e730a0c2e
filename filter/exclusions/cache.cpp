// A user's exclusion cache: the list in least-recently-used order and the index beside it.
//
// The index rests on one rule of the insertion: an entry whose key begins with a key of the same
// verdict is never added, and entries whose keys begin with a new key of their verdict go. So the
// keys of one verdict never begin one another, and for any key, the entries of a verdict whose keys
// begin it are copies of one key: in key order, the last ones below it.
//
// Of all entries that answer a lookup, the list's walk from the front would stop at the one used
// last; each entry notes when it last went to the front, and the lookup takes the latest.
#include "exclusions.h"

#include "exclusions/keytree.h"
#include "user.h"

static ULONGLONG HashOfKey(PCUNICODE_STRING pKey)
{
    return HashOfBytes(pKey->Buffer, pKey->Length);
}

static ExclusionCacheEntry** TreeOfVerdict(UserRecord* pRecord, UCHAR bExcluded)
{
    return bExcluded ? &pRecord->exclusionIndex.pExcludedRoot : &pRecord->exclusionIndex.pIncludedRoot;
}

// The next number of a xorshift sequence: the tree priorities need no more than that.
static ULONG DrawPriority(ExclusionIndex* pIndex)
{
    ULONG ulValue = pIndex->ulPrioritySeed;
    ulValue ^= ulValue << 13;
    ulValue ^= ulValue >> 17;
    ulValue ^= ulValue << 5;
    pIndex->ulPrioritySeed = ulValue;
    return ulValue;
}

static ExclusionCacheEntry* MoreRecentlyUsed(ExclusionCacheEntry* pFirst, ExclusionCacheEntry* pSecond)
{
    return pFirst == nullptr || pSecond->LastUse > pFirst->LastUse ? pSecond : pFirst;
}

VOID InitializeExclusionCache(UserRecord* pRecord)
{
    InitializeListHead(&pRecord->exclusionCacheList);
    pRecord->exclusionCacheCount = 0;
    RtlZeroMemory(&pRecord->exclusionIndex, sizeof(ExclusionIndex));
    // Any seed but zero will do; a record's address differs from record to record.
    pRecord->exclusionIndex.ulPrioritySeed = (ULONG)(HashOfPointer(pRecord) >> 32) | 1;
}

// A new entry for pKey, zeroed but for its key and verdict, or null when out of memory. The key's
// string and text lie behind the entry in the same block: a lookup finds them in the lines it has
// just read, and one free releases all.
static ExclusionCacheEntry* CreateExclusionCacheEntry(PCUNICODE_STRING pKey, UCHAR bExcluded)
{
    SIZE_T ulSize = sizeof(ExclusionCacheEntry) + sizeof(OwnedString) + pKey->Length;
    ExclusionCacheEntry* pEntry = (ExclusionCacheEntry*)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulSize);
    if (pEntry == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(pEntry, ulSize);
    OwnedString* pstrKey = (OwnedString*)(pEntry + 1);
    pstrKey->Buffer = (PWCH)(pstrKey + 1);
    pstrKey->Length = pKey->Length;
    pstrKey->MaximumLength = pKey->Length;
    if (pKey->Length != 0) {
        RtlCopyMemory(pstrKey->Buffer, pKey->Buffer, pKey->Length);
    }
    pEntry->pstrPath = pstrKey;
    pEntry->bExcluded = bExcluded;
    return pEntry;
}

VOID FreeExclusionCacheEntry(ExclusionCacheEntry* pEntry)
{
    if (pEntry != nullptr) {
        FreeBuffer(pEntry);
    }
}

// Links a new entry in at the front, as the most recently used. The caller holds the record's lock.
static VOID LinkEntry(UserRecord* pRecord, ExclusionCacheEntry* pEntry, ULONGLONG KeyHash)
{
    InsertHeadList(&pRecord->exclusionCacheList, &pEntry->link);
    pEntry->LastUse = ++pRecord->exclusionIndex.UseCount;
    InsertHashLink(&pRecord->exclusionIndex.Keys, &pEntry->KeyLink, KeyHash);
    pEntry->ulPriority = DrawPriority(&pRecord->exclusionIndex);
    InsertIntoKeyTree(TreeOfVerdict(pRecord, pEntry->bExcluded), pEntry);
    pRecord->exclusionCacheCount++;
}

// Takes an entry out of the list and the index. The caller holds the record's lock.
static VOID UnlinkEntry(UserRecord* pRecord, ExclusionCacheEntry* pEntry)
{
    RemoveEntryList(&pEntry->link);
    (VOID) RemoveHashLink(&pRecord->exclusionIndex.Keys, &pEntry->KeyLink);
    RemoveFromKeyTree(TreeOfVerdict(pRecord, pEntry->bExcluded), pEntry);
    pRecord->exclusionCacheCount--;
}

BOOLEAN FindInExclusionCache(UserRecord* pRecord, PCUNICODE_STRING pKey, PUCHAR pbExcluded)
{
    ULONGLONG KeyHash = HashOfKey(pKey);
    ExclusionCacheEntry* pFound = nullptr;
    ExclusionCacheEntry* pEntry;

    AcquireUserRecordLock(pRecord);
    // An entry of this very key answers, whatever its verdict.
    for (HashLink* pLink = FirstHashLink(&pRecord->exclusionIndex.Keys, KeyHash); pLink != nullptr;
         pLink = NextHashLink(pLink)) {
        pEntry = CONTAINING_RECORD(pLink, ExclusionCacheEntry, KeyLink);
        if (CompareExclusionKeys(pEntry->pstrPath, pKey) == 0) {
            pFound = MoreRecentlyUsed(pFound, pEntry);
        }
    }
    // So does an excluded entry whose key begins this one.
    for (pEntry = LastKeyBelow(pRecord->exclusionIndex.pExcludedRoot, pKey);
         pEntry != nullptr && IsProperKeyPrefix(pEntry->pstrPath, pKey); pEntry = PreviousInKeyOrder(pEntry)) {
        pFound = MoreRecentlyUsed(pFound, pEntry);
    }

    if (pFound != nullptr) {
        RemoveEntryList(&pFound->link);
        InsertHeadList(&pRecord->exclusionCacheList, &pFound->link);
        pFound->LastUse = ++pRecord->exclusionIndex.UseCount;
        *pbExcluded = pFound->bExcluded;
    } else {
        *pbExcluded = 0;
    }
    ReleaseUserRecordLock(pRecord);
    return pFound != nullptr;
}

// Doubles the key index's buckets, which held 2^ulBits, unless another thread did it first. The
// array is allocated before the lock is taken, and the one given up freed after.
static VOID GrowExclusionIndex(UserRecord* pRecord, ULONG ulBits)
{
    HashLink** ppUnused = AllocateHashBuckets(ulBits + 1);
    if (ppUnused == nullptr) {
        return;
    }
    AcquireUserRecordLock(pRecord);
    if (HashIndexBucketBits(&pRecord->exclusionIndex.Keys) == ulBits) {
        ppUnused = GrowHashIndex(&pRecord->exclusionIndex.Keys, ppUnused);
    }
    ReleaseUserRecordLock(pRecord);
    if (ppUnused != nullptr) {
        FreeBuffer(ppUnused);
    }
}

VOID AddToExclusionCache(UserRecord* pRecord, PCUNICODE_STRING pKey, UCHAR bExcluded)
{
    ExclusionCacheEntry* pEntry;
    BOOLEAN bGrow;
    ULONG ulBits;

    ExclusionCacheEntry* pNew = CreateExclusionCacheEntry(pKey, bExcluded);
    if (pNew == nullptr) {
        return;
    }
    ULONGLONG KeyHash = HashOfKey(pKey);

    AcquireUserRecordLock(pRecord);
    ExclusionCacheEntry** ppTree = TreeOfVerdict(pRecord, bExcluded);

    // An entry of this verdict whose key begins the new one makes it redundant.
    pEntry = LastKeyBelow(*ppTree, pKey);
    if (pEntry != nullptr && IsProperKeyPrefix(pEntry->pstrPath, pKey)) {
        FreeExclusionCacheEntry(pNew);
        ReleaseUserRecordLock(pRecord);
        return;
    }

    // Entries of this verdict whose keys begin with the new one go; in key order they follow the
    // copies of the new key itself, which stay.
    pEntry = FirstKeyNotBelow(*ppTree, pKey);
    while (pEntry != nullptr && CompareExclusionKeys(pEntry->pstrPath, pKey) == 0) {
        pEntry = NextInKeyOrder(pEntry);
    }
    while (pEntry != nullptr && IsProperKeyPrefix(pKey, pEntry->pstrPath)) {
        ExclusionCacheEntry* pNextEntry = NextInKeyOrder(pEntry);
        UnlinkEntry(pRecord, pEntry);
        FreeExclusionCacheEntry(pEntry);
        pEntry = pNextEntry;
    }

    LinkEntry(pRecord, pNew, KeyHash);
    if (pRecord->exclusionCacheCount > EXCLUSION_CACHE_LIMIT) {
        pEntry = CONTAINING_RECORD(pRecord->exclusionCacheList.Blink, ExclusionCacheEntry, link);
        UnlinkEntry(pRecord, pEntry);
        FreeExclusionCacheEntry(pEntry);
    }
    bGrow = HashIndexWantsGrowth(&pRecord->exclusionIndex.Keys, EXCLUSION_INDEX_MAX_BITS);
    ulBits = HashIndexBucketBits(&pRecord->exclusionIndex.Keys);
    ReleaseUserRecordLock(pRecord);

    if (bGrow) {
        GrowExclusionIndex(pRecord, ulBits);
    }
}

VOID DeleteExclusionCacheEntries(UserRecord* pRecord)
{
    while (!IsListEmpty(&pRecord->exclusionCacheList)) {
        FreeExclusionCacheEntry(
            CONTAINING_RECORD(RemoveHeadList(&pRecord->exclusionCacheList), ExclusionCacheEntry, link));
    }
    pRecord->exclusionCacheCount = 0;
    ResetHashIndex(&pRecord->exclusionIndex.Keys);
    pRecord->exclusionIndex.pExcludedRoot = nullptr;
    pRecord->exclusionIndex.pIncludedRoot = nullptr;
}
