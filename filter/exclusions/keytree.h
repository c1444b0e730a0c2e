// The entries of one verdict in a tree ordered by key bytes, so that the entries whose keys begin
// with a given key stand together and the nearest key below a given one is found without a walk.
//
// Keys are ordered byte by byte, and a key comes before every key of which it is a prefix. Equal
// keys may stand side by side. The tree is a treap: a search tree by key and a heap by ulPriority,
// which its owner draws at random, so its depth stays logarithmic whatever the order of insertion.
// The owner's lock guards it.
#pragma once

#include "exclusions.h"

// Below, equal or above zero as pFirst's bytes order before, with or after pSecond's.
LONG CompareExclusionKeys(PCUNICODE_STRING pFirst, PCUNICODE_STRING pSecond);

// TRUE when pPrefix is shorter than pKey and its bytes are pKey's first.
BOOLEAN IsProperKeyPrefix(PCUNICODE_STRING pPrefix, PCUNICODE_STRING pKey);

// Links pEntry, whose key and ulPriority are set, into the tree.
VOID InsertIntoKeyTree(ExclusionCacheEntry** ppRoot, ExclusionCacheEntry* pEntry);

// Unlinks pEntry from the tree it is in.
VOID RemoveFromKeyTree(ExclusionCacheEntry** ppRoot, ExclusionCacheEntry* pEntry);

// The last entry in key order whose key is below pKey, or null.
ExclusionCacheEntry* LastKeyBelow(ExclusionCacheEntry* pRoot, PCUNICODE_STRING pKey);

// The first entry in key order whose key isn't below pKey, or null.
ExclusionCacheEntry* FirstKeyNotBelow(ExclusionCacheEntry* pRoot, PCUNICODE_STRING pKey);

// The neighbours of an entry in key order, or null.
ExclusionCacheEntry* NextInKeyOrder(ExclusionCacheEntry* pEntry);
ExclusionCacheEntry* PreviousInKeyOrder(ExclusionCacheEntry* pEntry);
