// The context table: membership and the lookups by file object and by record.
#include "context/contextindex.h"

#include "driver/locks.h"
#include "trace.h"

// A million buckets per index; past that, chains grow longer instead.
#define CONTEXT_INDEX_MAX_BITS 20

FileContext* g_ContextList;
ULONG g_ContextCount;
HashIndex g_ContextsByFileObject;
HashIndex g_ContextsByRecord;
HashIndex g_ContextsByPath;

ULONGLONG HashOfPathIgnoringCase(PCUNICODE_STRING pPath)
{
    // The comparison counts whole characters: so does the hash. Four upcased characters a word.
    ULONG ulChars = pPath->Length / sizeof(WCHAR);
    ULONGLONG Hash = HashStart(ulChars);
    ULONGLONG Word = 0;
    for (ULONG ulIndex = 0; ulIndex < ulChars; ulIndex++) {
        Word = (Word << 16) | RtlUpcaseUnicodeChar(pPath->Buffer[ulIndex]);
        if (ulIndex % 4 == 3) {
            Hash = MixHashWord(Hash, Word);
            Word = 0;
        }
    }
    if (ulChars % 4 != 0) {
        Hash = MixHashWord(Hash, Word);
    }
    return FinishHash(Hash);
}

VOID IndexContextPath(FileContext* pContext)
{
    if (pContext->pstrPath != nullptr) {
        InsertHashLink(&g_ContextsByPath, &pContext->PathLink, HashOfPathIgnoringCase(pContext->pstrPath));
    }
}

// The record at this address if it is in the table, without reading the address. The caller holds
// g_ContextLock.
static FileContext* FindRecordInTable(const FileContext* pContext)
{
    for (HashLink* pLink = FirstHashLink(&g_ContextsByRecord, HashOfPointer(pContext)); pLink != nullptr;
         pLink = NextHashLink(pLink)) {
        FileContext* pCandidate = CONTAINING_RECORD(pLink, FileContext, RecordLink);
        if (pCandidate == pContext) {
            return pCandidate;
        }
    }
    return nullptr;
}

bool AddContextToContextTable(FileContext* pContext)
{
    if (pContext == nullptr) {
        return false;
    }
    if (pContext->pstrPath != nullptr) {
        TRACE_INFO("INFO: Adding Context Entry to Context Table for [%wZ]. ", pContext->pstrPath);
    }

    AcquireLockExclusive(g_ContextLock);
    pContext->pNext = g_ContextList;
    pContext->pPrevious = nullptr;
    if (g_ContextList != nullptr) {
        g_ContextList->pPrevious = pContext;
    }
    g_ContextList = pContext;
    g_ContextCount++;
    InsertHashLink(&g_ContextsByFileObject, &pContext->FileObjectLink, HashOfPointer(pContext->pFileObject));
    InsertHashLink(&g_ContextsByRecord, &pContext->RecordLink, HashOfPointer(pContext));
    IndexContextPath(pContext);
    GrowHashIndexIfFull(&g_ContextsByFileObject, CONTEXT_INDEX_MAX_BITS);
    GrowHashIndexIfFull(&g_ContextsByRecord, CONTEXT_INDEX_MAX_BITS);
    GrowHashIndexIfFull(&g_ContextsByPath, CONTEXT_INDEX_MAX_BITS);
    ReleaseLock(g_ContextLock);
    return true;
}

bool RemoveContextFromContextTable(FileContext* pContext)
{
    bool bRemoved = false;
    if (pContext == nullptr) {
        return false;
    }

    AcquireLockExclusive(g_ContextLock);
    if (g_ContextList == nullptr) {
        goto Exit;
    }
    if (pContext != g_ContextList) {
        TRACE_INFO("There are %d objects in the context table, removing context 0x%p", (int)g_ContextCount, pContext);
    }
    if (FindRecordInTable(pContext) == nullptr) {
        goto Exit;
    }

    if (pContext->pPrevious != nullptr) {
        pContext->pPrevious->pNext = pContext->pNext;
    } else {
        g_ContextList = pContext->pNext;
    }
    if (pContext->pNext != nullptr) {
        pContext->pNext->pPrevious = pContext->pPrevious;
    }
    pContext->pNext = nullptr;
    pContext->pPrevious = nullptr;
    g_ContextCount--;
    (VOID) RemoveHashLink(&g_ContextsByFileObject, &pContext->FileObjectLink);
    (VOID) RemoveHashLink(&g_ContextsByRecord, &pContext->RecordLink);
    if (pContext->pstrPath != nullptr) {
        (VOID) RemoveHashLink(&g_ContextsByPath, &pContext->PathLink);
    }
    bRemoved = true;

Exit:
    ReleaseLock(g_ContextLock);
    return bRemoved;
}

FileContext* FindContextByFileObject(PFILE_OBJECT pFileObject, BOOLEAN bIncludeInvalid)
{
    FileContext* pFound = nullptr;

    // The index keeps the records of one file object newest first, as the list does. A pointer's
    // hash is its own: every link of the hash is a record of this file object.
    AcquireLockExclusive(g_ContextLock);
    for (HashLink* pLink = FirstHashLink(&g_ContextsByFileObject, HashOfPointer(pFileObject)); pLink != nullptr;
         pLink = NextHashLink(pLink)) {
        FileContext* pCandidate = CONTAINING_RECORD(pLink, FileContext, FileObjectLink);
        if (bIncludeInvalid || pCandidate->bValid) {
            pFound = pCandidate;
            break;
        }
    }
    ReleaseLock(g_ContextLock);
    return pFound;
}

bool IsContextValid(FileContext* pContext)
{
    bool bValid = false;
    if (pContext == nullptr) {
        return false;
    }
    AcquireLockExclusive(g_ContextLock);
    FileContext* pFound = FindRecordInTable(pContext);
    bValid = pFound != nullptr && pFound->bValid;
    ReleaseLock(g_ContextLock);
    return bValid;
}

VOID DeleteAllContexts()
{
    // A start that failed before the lock was made has no records.
    if (g_ContextLock == nullptr) {
        return;
    }
    AcquireLockExclusive(g_ContextLock);
    FileContext* pContext = g_ContextList;
    while (pContext != nullptr) {
        FileContext* pNext = pContext->pNext;
        (VOID) DeleteContext(pContext);
        pContext = pNext;
    }
    g_ContextList = nullptr;
    g_ContextCount = 0;
    ResetHashIndex(&g_ContextsByFileObject);
    ResetHashIndex(&g_ContextsByRecord);
    ResetHashIndex(&g_ContextsByPath);
    ReleaseLock(g_ContextLock);
}

NTSTATUS DeleteContextLock()
{
    return DeleteDriverLock(&g_ContextLock);
}
