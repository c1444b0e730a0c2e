// The key-ordered tree of one verdict's exclusion cache entries.
#include "exclusions/keytree.h"

LONG CompareExclusionKeys(PCUNICODE_STRING pFirst, PCUNICODE_STRING pSecond)
{
    USHORT usCommon = pFirst->Length < pSecond->Length ? pFirst->Length : pSecond->Length;
    int iOrder = usCommon == 0 ? 0 : memcmp(pFirst->Buffer, pSecond->Buffer, usCommon);
    if (iOrder != 0) {
        return iOrder;
    }
    return (LONG)pFirst->Length - (LONG)pSecond->Length;
}

BOOLEAN IsProperKeyPrefix(PCUNICODE_STRING pPrefix, PCUNICODE_STRING pKey)
{
    return pPrefix->Length < pKey->Length &&
           (pPrefix->Length == 0 || RtlEqualMemory(pPrefix->Buffer, pKey->Buffer, pPrefix->Length));
}

// Lifts pChild into its parent's place, the parent becoming its child; the order is kept.
static VOID RotateUp(ExclusionCacheEntry** ppRoot, ExclusionCacheEntry* pChild)
{
    ExclusionCacheEntry* pParent = pChild->pParent;
    ExclusionCacheEntry* pGrandparent = pParent->pParent;
    if (pParent->pLeft == pChild) {
        pParent->pLeft = pChild->pRight;
        if (pChild->pRight != nullptr) {
            pChild->pRight->pParent = pParent;
        }
        pChild->pRight = pParent;
    } else {
        pParent->pRight = pChild->pLeft;
        if (pChild->pLeft != nullptr) {
            pChild->pLeft->pParent = pParent;
        }
        pChild->pLeft = pParent;
    }
    pParent->pParent = pChild;
    pChild->pParent = pGrandparent;
    if (pGrandparent == nullptr) {
        *ppRoot = pChild;
    } else if (pGrandparent->pLeft == pParent) {
        pGrandparent->pLeft = pChild;
    } else {
        pGrandparent->pRight = pChild;
    }
}

VOID InsertIntoKeyTree(ExclusionCacheEntry** ppRoot, ExclusionCacheEntry* pEntry)
{
    ExclusionCacheEntry* pParent = nullptr;
    ExclusionCacheEntry** ppLink = ppRoot;
    while (*ppLink != nullptr) {
        pParent = *ppLink;
        ppLink = CompareExclusionKeys(pEntry->pstrPath, pParent->pstrPath) < 0 ? &pParent->pLeft : &pParent->pRight;
    }
    pEntry->pLeft = nullptr;
    pEntry->pRight = nullptr;
    pEntry->pParent = pParent;
    *ppLink = pEntry;
    while (pEntry->pParent != nullptr && pEntry->pParent->ulPriority < pEntry->ulPriority) {
        RotateUp(ppRoot, pEntry);
    }
}

VOID RemoveFromKeyTree(ExclusionCacheEntry** ppRoot, ExclusionCacheEntry* pEntry)
{
    // Down to a leaf, under the child of higher priority each time, then off.
    while (pEntry->pLeft != nullptr || pEntry->pRight != nullptr) {
        ExclusionCacheEntry* pChild;
        if (pEntry->pLeft == nullptr) {
            pChild = pEntry->pRight;
        } else if (pEntry->pRight == nullptr) {
            pChild = pEntry->pLeft;
        } else {
            pChild = pEntry->pLeft->ulPriority > pEntry->pRight->ulPriority ? pEntry->pLeft : pEntry->pRight;
        }
        RotateUp(ppRoot, pChild);
    }
    if (pEntry->pParent == nullptr) {
        *ppRoot = nullptr;
    } else if (pEntry->pParent->pLeft == pEntry) {
        pEntry->pParent->pLeft = nullptr;
    } else {
        pEntry->pParent->pRight = nullptr;
    }
    pEntry->pParent = nullptr;
}

ExclusionCacheEntry* LastKeyBelow(ExclusionCacheEntry* pRoot, PCUNICODE_STRING pKey)
{
    ExclusionCacheEntry* pFound = nullptr;
    ExclusionCacheEntry* pEntry = pRoot;
    while (pEntry != nullptr) {
        if (CompareExclusionKeys(pEntry->pstrPath, pKey) < 0) {
            pFound = pEntry;
            pEntry = pEntry->pRight;
        } else {
            pEntry = pEntry->pLeft;
        }
    }
    return pFound;
}

ExclusionCacheEntry* FirstKeyNotBelow(ExclusionCacheEntry* pRoot, PCUNICODE_STRING pKey)
{
    ExclusionCacheEntry* pFound = nullptr;
    ExclusionCacheEntry* pEntry = pRoot;
    while (pEntry != nullptr) {
        if (CompareExclusionKeys(pEntry->pstrPath, pKey) >= 0) {
            pFound = pEntry;
            pEntry = pEntry->pLeft;
        } else {
            pEntry = pEntry->pRight;
        }
    }
    return pFound;
}

ExclusionCacheEntry* NextInKeyOrder(ExclusionCacheEntry* pEntry)
{
    if (pEntry->pRight != nullptr) {
        pEntry = pEntry->pRight;
        while (pEntry->pLeft != nullptr) {
            pEntry = pEntry->pLeft;
        }
        return pEntry;
    }
    while (pEntry->pParent != nullptr && pEntry->pParent->pRight == pEntry) {
        pEntry = pEntry->pParent;
    }
    return pEntry->pParent;
}

ExclusionCacheEntry* PreviousInKeyOrder(ExclusionCacheEntry* pEntry)
{
    if (pEntry->pLeft != nullptr) {
        pEntry = pEntry->pLeft;
        while (pEntry->pRight != nullptr) {
            pEntry = pEntry->pRight;
        }
        return pEntry;
    }
    while (pEntry->pParent != nullptr && pEntry->pParent->pLeft == pEntry) {
        pEntry = pEntry->pParent;
    }
    return pEntry->pParent;
}
