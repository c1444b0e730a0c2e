// The context table's walks by name: the records of one path, found through the path index.
//
// Each of these touches every record of the path, so the order in which they are met doesn't
// matter. A record without a path (a rename that ran out of memory) matches no path.
#include "context/contextindex.h"

#include "driver/locks.h"

static bool TextEqualIgnoringCase(PCUNICODE_STRING pFirst, PCUNICODE_STRING pSecond)
{
    return RtlCompareUnicodeString(pFirst, pSecond, TRUE) == 0;
}

// The next record behind pLink (or the first, for a null pLink) whose path is pPath and, when pSid
// is given, whose SID is pSid. The caller holds g_ContextLock.
static FileContext* NextContextOfPath(HashLink* pLink, ULONGLONG PathHash, PCUNICODE_STRING pPath,
                                      PCUNICODE_STRING pSid)
{
    pLink = pLink == nullptr ? FirstHashLink(&g_ContextsByPath, PathHash) : NextHashLink(pLink);
    for (; pLink != nullptr; pLink = NextHashLink(pLink)) {
        FileContext* pContext = CONTAINING_RECORD(pLink, FileContext, PathLink);
        if (!TextEqualIgnoringCase(pContext->pstrPath, pPath)) {
            continue;
        }
        if (pSid == nullptr || (pContext->pstrSid != nullptr && TextEqualIgnoringCase(pContext->pstrSid, pSid))) {
            return pContext;
        }
    }
    return nullptr;
}

bool RenameContexts(PCUNICODE_STRING pSid, PCUNICODE_STRING pOldPath, PCUNICODE_STRING pNewPath)
{
    // A record that owns pOldPath or pNewPath keeps its old string until the walk is over.
    OwnedString* pstrOwnsOldPath = nullptr;
    OwnedString* pstrOwnsNewPath = nullptr;
    bool bWalked = false;

    if (pSid == nullptr || pOldPath == nullptr || pNewPath == nullptr) {
        return false;
    }

    AcquireLockExclusive(g_ContextLock);
    if (g_ContextList == nullptr) {
        goto Exit;
    }
    bWalked = true;
    {
        ULONGLONG OldPathHash = HashOfPathIgnoringCase(pOldPath);
        FileContext* pContext = NextContextOfPath(nullptr, OldPathHash, pOldPath, pSid);
        while (pContext != nullptr) {
            // The record moves to the bucket of its new path; the walk goes on behind it.
            FileContext* pNextMatch = NextContextOfPath(&pContext->PathLink, OldPathHash, pOldPath, pSid);
            (VOID) RemoveHashLink(&g_ContextsByPath, &pContext->PathLink);

            OwnedString* pstrOldPath = pContext->pstrPath;
            pContext->pstrPath = CopyUnicodeString(pNewPath);
            if (pstrOldPath == pOldPath) {
                pstrOwnsOldPath = pstrOldPath;
            } else if (pstrOldPath == pNewPath) {
                pstrOwnsNewPath = pstrOldPath;
            } else {
                FreeBuffer(pstrOldPath);
            }
            IndexContextPath(pContext);
            pContext = pNextMatch;
        }
    }

Exit:
    ReleaseLock(g_ContextLock);
    FreeUnicodeString(&pstrOwnsOldPath);
    FreeUnicodeString(&pstrOwnsNewPath);
    return bWalked;
}

bool InvalidateContexts(PCUNICODE_STRING pSid, PCUNICODE_STRING pPath)
{
    bool bWalked = false;
    if (pSid == nullptr || pPath == nullptr) {
        return false;
    }

    AcquireLockExclusive(g_ContextLock);
    if (g_ContextList != nullptr) {
        bWalked = true;
        ULONGLONG PathHash = HashOfPathIgnoringCase(pPath);
        for (FileContext* pContext = NextContextOfPath(nullptr, PathHash, pPath, pSid); pContext != nullptr;
             pContext = NextContextOfPath(&pContext->PathLink, PathHash, pPath, pSid)) {
            pContext->bValid = 0;
        }
    }
    ReleaseLock(g_ContextLock);
    return bWalked;
}

bool HasLockedContext(PCUNICODE_STRING pPath)
{
    bool bLocked = false;

    // The one look at the head outside the lock: an empty table has nothing locked.
    if (pPath == nullptr || *(FileContext* volatile*)&g_ContextList == nullptr) {
        return false;
    }

    AcquireLockExclusive(g_ContextLock);
    ULONGLONG PathHash = HashOfPathIgnoringCase(pPath);
    for (FileContext* pContext = NextContextOfPath(nullptr, PathHash, pPath, nullptr); pContext != nullptr;
         pContext = NextContextOfPath(&pContext->PathLink, PathHash, pPath, nullptr)) {
        if (pContext->bValid && pContext->bLocked && !pContext->bCreatedForCcFlush) {
            bLocked = true;
            break;
        }
    }
    ReleaseLock(g_ContextLock);
    return bLocked;
}
