// The chained hash index.
#include "hashindex.h"

#include "driver/ownedstring.h"

static HashLink** BucketsOf(const HashIndex* pIndex)
{
    return pIndex->ppBuckets != nullptr ? pIndex->ppBuckets : (HashLink**)pIndex->InitialBuckets;
}

ULONG HashIndexBucketBits(const HashIndex* pIndex)
{
    return pIndex->ppBuckets != nullptr ? pIndex->ulBucketBits : HASH_INDEX_INITIAL_BITS;
}

// The bucket is chosen by the hash's high bits, so that doubling splits bucket i into 2i and 2i+1.
static HashLink** BucketOf(const HashIndex* pIndex, ULONGLONG Hash)
{
    return &BucketsOf(pIndex)[Hash >> (64 - HashIndexBucketBits(pIndex))];
}

ULONGLONG HashOfBytes(const VOID* pBytes, SIZE_T ulLength)
{
    const UCHAR* pByte = (const UCHAR*)pBytes;
    ULONGLONG Hash = HashStart(ulLength);
    ULONGLONG Word;
    for (; ulLength >= sizeof(Word); ulLength -= sizeof(Word), pByte += sizeof(Word)) {
        RtlCopyMemory(&Word, pByte, sizeof(Word));
        Hash = MixHashWord(Hash, Word);
    }
    if (ulLength != 0) {
        Word = 0;
        RtlCopyMemory(&Word, pByte, ulLength);
        Hash = MixHashWord(Hash, Word);
    }
    return FinishHash(Hash);
}

VOID InsertHashLink(HashIndex* pIndex, HashLink* pLink, ULONGLONG Hash)
{
    HashLink** ppBucket = BucketOf(pIndex, Hash);
    pLink->Hash = Hash;
    pLink->pNext = *ppBucket;
    *ppBucket = pLink;
    pIndex->ulCount++;
}

BOOLEAN RemoveHashLink(HashIndex* pIndex, HashLink* pLink)
{
    for (HashLink** ppLink = BucketOf(pIndex, pLink->Hash); *ppLink != nullptr; ppLink = &(*ppLink)->pNext) {
        if (*ppLink == pLink) {
            *ppLink = pLink->pNext;
            pLink->pNext = nullptr;
            pIndex->ulCount--;
            return TRUE;
        }
    }
    return FALSE;
}

static HashLink* FirstOfHashFrom(HashLink* pLink, ULONGLONG Hash)
{
    while (pLink != nullptr && pLink->Hash != Hash) {
        pLink = pLink->pNext;
    }
    return pLink;
}

HashLink* FirstHashLink(const HashIndex* pIndex, ULONGLONG Hash)
{
    return FirstOfHashFrom(*BucketOf(pIndex, Hash), Hash);
}

HashLink* NextHashLink(const HashLink* pLink)
{
    return FirstOfHashFrom(pLink->pNext, pLink->Hash);
}

BOOLEAN HashIndexWantsGrowth(const HashIndex* pIndex, ULONG ulMaxBits)
{
    ULONG ulBits = HashIndexBucketBits(pIndex);
    return ulBits < ulMaxBits && pIndex->ulCount > (1ul << ulBits);
}

HashLink** AllocateHashBuckets(ULONG ulBits)
{
    SIZE_T ulSize = ((SIZE_T)1 << ulBits) * sizeof(HashLink*);
    HashLink** ppBuckets = (HashLink**)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulSize);
    if (ppBuckets != nullptr) {
        RtlZeroMemory(ppBuckets, ulSize);
    }
    return ppBuckets;
}

HashLink** GrowHashIndex(HashIndex* pIndex, HashLink** ppNewBuckets)
{
    ULONG ulOldBits = HashIndexBucketBits(pIndex);
    HashLink** ppOldBuckets = BucketsOf(pIndex);
    ULONG ulNewBits = ulOldBits + 1;

    // Each old bucket splits into two new ones; its links are appended in their order.
    for (ULONG ulBucket = 0; ulBucket < (1ul << ulOldBits); ulBucket++) {
        HashLink** ppLowTail = &ppNewBuckets[2 * ulBucket];
        HashLink** ppHighTail = &ppNewBuckets[2 * ulBucket + 1];
        HashLink* pLink = ppOldBuckets[ulBucket];
        while (pLink != nullptr) {
            HashLink* pNext = pLink->pNext;
            HashLink*** pppTail = (pLink->Hash >> (64 - ulNewBits)) & 1 ? &ppHighTail : &ppLowTail;
            pLink->pNext = nullptr;
            **pppTail = pLink;
            *pppTail = &pLink->pNext;
            pLink = pNext;
        }
        ppOldBuckets[ulBucket] = nullptr;
    }

    HashLink** ppGivenUp = pIndex->ppBuckets;
    pIndex->ppBuckets = ppNewBuckets;
    pIndex->ulBucketBits = ulNewBits;
    return ppGivenUp;
}

VOID GrowHashIndexIfFull(HashIndex* pIndex, ULONG ulMaxBits)
{
    if (!HashIndexWantsGrowth(pIndex, ulMaxBits)) {
        return;
    }
    HashLink** ppNewBuckets = AllocateHashBuckets(HashIndexBucketBits(pIndex) + 1);
    if (ppNewBuckets == nullptr) {
        return;
    }
    HashLink** ppGivenUp = GrowHashIndex(pIndex, ppNewBuckets);
    if (ppGivenUp != nullptr) {
        FreeBuffer(ppGivenUp);
    }
}

VOID ResetHashIndex(HashIndex* pIndex)
{
    if (pIndex->ppBuckets != nullptr) {
        FreeBuffer(pIndex->ppBuckets);
    }
    RtlZeroMemory(pIndex, sizeof(*pIndex));
}
