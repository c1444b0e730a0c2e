// An intrusive chained hash index that stands beside a list and finds the records of one key
// without walking it.
//
// A record carries a HashLink per index it is in. The index holds links, not records: the owner
// gets its record back with CONTAINING_RECORD and compares the keys itself, since two keys may
// share a hash. Within a bucket, links enter at the front and keep their relative order through
// removals and through growth, so links of one key are met newest first.
//
// An index that is all zero is empty and ready: its first buckets lie inside it, and it grows into
// pool arrays (g_PoolType) as it fills. An index that can't grow stays correct, only slower.
// The index has no lock of its own: its owner's lock guards it. Nothing here touches paged memory
// or waits, so an owner may use it at DISPATCH_LEVEL.
#pragma once

#include <fltKernel.h>

#define HASH_INDEX_INITIAL_BITS 4

typedef struct _HashLink {
    struct _HashLink* pNext;  // next link of the same bucket
    ULONGLONG Hash;           // the key's hash, as the index was given it
} HashLink;

typedef struct _HashIndex {
    HashLink** ppBuckets;  // pool array of 2^ulBucketBits heads, or null while InitialBuckets serve
    ULONG ulBucketBits;    // meaningful with ppBuckets only
    ULONG ulCount;         // links in the index
    HashLink* InitialBuckets[1 << HASH_INDEX_INITIAL_BITS];
} HashIndex;

// Spreads a value over the high bits, which choose the bucket. A multiplication by an odd number:
// distinct values stay distinct.
FORCEINLINE ULONGLONG SpreadHash(ULONGLONG Value)
{
    return Value * 0x9E3779B97F4A7C15ull;
}

// The hash of a pointer. Distinct pointers have distinct hashes, so an equal hash is an equal key.
FORCEINLINE ULONGLONG HashOfPointer(const VOID* pKey)
{
    return SpreadHash((ULONGLONG)(ULONG_PTR)pKey);
}

// A hash built a word at a time: start from HashStart(length in bytes), mix in each word of 8 bytes
// (the last one padded with zeros), and finish.
FORCEINLINE ULONGLONG HashStart(SIZE_T ulLength)
{
    return 0xCBF29CE484222325ull ^ ulLength;
}

FORCEINLINE ULONGLONG MixHashWord(ULONGLONG Hash, ULONGLONG Word)
{
    Hash = (Hash ^ Word) * 0xFF51AFD7ED558CCDull;
    return Hash ^ (Hash >> 32);
}

FORCEINLINE ULONGLONG FinishHash(ULONGLONG Hash)
{
    return SpreadHash(Hash ^ (Hash >> 29));
}

// The hash of ulLength bytes.
ULONGLONG HashOfBytes(const VOID* pBytes, SIZE_T ulLength);

// Links pLink under Hash at the front of its bucket.
VOID InsertHashLink(HashIndex* pIndex, HashLink* pLink, ULONGLONG Hash);

// Unlinks pLink. FALSE, with nothing changed, when pLink isn't in the index.
BOOLEAN RemoveHashLink(HashIndex* pIndex, HashLink* pLink);

// The first link of this hash, newest first, or null. NextHashLink gives the ones behind it.
HashLink* FirstHashLink(const HashIndex* pIndex, ULONGLONG Hash);
HashLink* NextHashLink(const HashLink* pLink);

// Bits of the current bucket count (2^bits buckets).
ULONG HashIndexBucketBits(const HashIndex* pIndex);

// TRUE when the index holds more links than buckets and may still double up to 2^ulMaxBits.
BOOLEAN HashIndexWantsGrowth(const HashIndex* pIndex, ULONG ulMaxBits);

// A zeroed array of 2^ulBits bucket heads from g_PoolType, or null when out of memory.
HashLink** AllocateHashBuckets(ULONG ulBits);

// Moves every link into ppNewBuckets, an array from AllocateHashBuckets with one bit more than the
// index has now, keeping the order of the links within each bucket. Returns the array the index
// gave up, for the caller to free with FreeBuffer, or null when that was the index's own.
HashLink** GrowHashIndex(HashIndex* pIndex, HashLink** ppNewBuckets);

// Doubles the buckets when the index wants it, allocating here. For owners whose lock allows an
// allocation; out of memory leaves the index as it is.
VOID GrowHashIndexIfFull(HashIndex* pIndex, ULONG ulMaxBits);

// Frees the index's pool array and makes it empty. The links it held are forgotten, not touched.
VOID ResetHashIndex(HashIndex* pIndex);
