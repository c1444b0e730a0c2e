// The block map: marking the blocks of a write and following a new end of file.
//
// Block b is bit 0x80 >> (b & 7) of byte b >> 3. Block numbers are 32 bits wide, so the map
// reaches 2^32 blocks, 16 TiB of file. A position it can't hold (the negative offsets that stand
// for the end of file or the current position, or one at 2^44 bytes or beyond) can't be marked
// where it lands: the whole map is then marked and bTrackingFailed set, so that the service takes
// the whole file as changed rather than miss the write.
#include "dirtyblocktracking.h"

#include "trace.h"

// The number of set bits of a 64-bit word.
static ULONG CountSetBits(ULONG64 ullWord)
{
    ullWord = ullWord - ((ullWord >> 1) & 0x5555555555555555ull);
    ullWord = (ullWord & 0x3333333333333333ull) + ((ullWord >> 2) & 0x3333333333333333ull);
    ullWord = (ullWord + (ullWord >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    return (ULONG)((ullWord * 0x0101010101010101ull) >> 56);
}

// Sets every bit of ulBytes bytes and returns how many were clear. Eight bytes are counted at a
// time: a long write marks thousands of whole bytes.
static ULONG SetWholeBytes(PUCHAR pBytes, ULONG ulBytes)
{
    ULONG ulCleared = 0;
    ULONG ulIndex = 0;
    for (; ulBytes - ulIndex >= sizeof(ULONG64); ulIndex += sizeof(ULONG64)) {
        ULONG64 ullWord;
        RtlCopyMemory(&ullWord, pBytes + ulIndex, sizeof(ullWord));
        ulCleared += 64 - CountSetBits(ullWord);
    }
    for (; ulIndex < ulBytes; ulIndex++) {
        ulCleared += 8 - CountSetBits(pBytes[ulIndex]);
    }
    RtlFillMemory(pBytes, ulBytes, 0xFF);
    return ulCleared;
}

// Marks one block; FALSE when it lies past the map.
static BOOLEAN MarkOneBlock(TrackedDirtyBlockFile* pRecord, ULONG64 ullBlock)
{
    ULONG64 ullByte = ullBlock >> 3;
    UCHAR ucMask = (UCHAR)(0x80 >> (ullBlock & 7));
    if (ullByte >= pRecord->mapLen) {
        return FALSE;
    }
    if ((pRecord->map[ullByte] & ucMask) == 0) {
        pRecord->dirtyBlockCount++;
        pRecord->map[ullByte] |= ucMask;
    }
    return TRUE;
}

// The whole file counts as changed: every bit set (each one that was clear counted) and the flag
// raised. The caller holds the record's lock.
static VOID MarkWholeFileDirty(TrackedDirtyBlockFile* pRecord)
{
    pRecord->dirtyBlockCount += SetWholeBytes(pRecord->map, pRecord->mapLen);
    pRecord->bTrackingFailed = 1;
}

// The block of a byte position, when the map can hold it.
static BOOLEAN BlockOfPosition(ULONG64 ullPosition, PULONG pulBlock)
{
    ULONG64 ullBlock = ullPosition / DIRTY_BLOCK_SIZE;
    if (ullBlock > MAXULONG) {
        return FALSE;
    }
    *pulBlock = (ULONG)ullBlock;
    return TRUE;
}

NTSTATUS ResizeMap(TrackedDirtyBlockFile* pRecord, ULONG ulByteIndex)
{
    if (ulByteIndex < pRecord->mapLen) {
        return STATUS_SUCCESS;
    }
    // Twice the index that must fit, so that a file growing by appends reallocates rarely. A live
    // map has at least one byte, so the index is at least 1 here; the largest block gives an index
    // below 2^29, and the length fits.
    ULONG ulNewLen = ulByteIndex != 0 ? 2 * ulByteIndex : 1;
    PUCHAR pNewMap = (PUCHAR)AllocateBuffer(POOL_SELECTOR_NONPAGED, ulNewLen);
    if (pNewMap == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pNewMap, ulNewLen);
    if (pRecord->map != nullptr) {
        RtlCopyMemory(pNewMap, pRecord->map, pRecord->mapLen);
        FreeBuffer(pRecord->map);
    }
    pRecord->map = pNewMap;
    pRecord->mapLen = ulNewLen;
    return STATUS_SUCCESS;
}

NTSTATUS MarkBlocksDirty(TrackedDirtyBlockFile* pRecord, ULONG ulFirstBlock, ULONG ulLastBlock)
{
    if (ulFirstBlock > ulLastBlock) {
        return STATUS_SUCCESS;
    }
    // In 64 bits the end past the last block can't wrap.
    ULONG64 ullBlock = ulFirstBlock;
    const ULONG64 ullEnd = (ULONG64)ulLastBlock + 1;

    // The blocks before the first whole byte, then whole bytes, then what is left of the last byte;
    // the first block past the map stops the marking, what came before it stays marked.
    for (; ullBlock < ullEnd && (ullBlock & 7) != 0; ullBlock++) {
        if (!MarkOneBlock(pRecord, ullBlock)) {
            return STATUS_BUFFER_OVERFLOW;
        }
    }
    if (ullEnd - ullBlock >= 8) {
        ULONG64 ullFirstByte = ullBlock >> 3;
        ULONG64 ullEndByte = ullEnd >> 3;
        if (ullFirstByte < pRecord->mapLen) {
            ULONG64 ullMarkedEnd = ullEndByte < pRecord->mapLen ? ullEndByte : pRecord->mapLen;
            pRecord->dirtyBlockCount +=
                SetWholeBytes(pRecord->map + ullFirstByte, (ULONG)(ullMarkedEnd - ullFirstByte));
        }
        if (ullEndByte > pRecord->mapLen) {
            return STATUS_BUFFER_OVERFLOW;
        }
        ullBlock = ullEndByte << 3;
    }
    for (; ullBlock < ullEnd; ullBlock++) {
        if (!MarkOneBlock(pRecord, ullBlock)) {
            return STATUS_BUFFER_OVERFLOW;
        }
    }
    return STATUS_SUCCESS;
}

VOID MarkBlockDirty(TrackedDirtyBlockFile* pRecord, LONGLONG llOffset, ULONG ulLength)
{
    NTSTATUS status;
    KIRQL oldIrql;
    ULONG ulFirstBlock = 0;
    ULONG ulLastBlock = 0;

    if (pRecord == nullptr) {
        return;
    }
    // The last block is that of the byte just past the write: a write that ends on a block's
    // boundary marks the next block too.
    BOOLEAN bWithinReach = llOffset >= 0 && BlockOfPosition((ULONG64)llOffset, &ulFirstBlock) &&
                           BlockOfPosition((ULONG64)llOffset + ulLength, &ulLastBlock);
    TRACE_INFO("[ENTER] Offset:%llu, Length:%lu, Start:%lu, End:%lu", llOffset, ulLength, ulFirstBlock, ulLastBlock);

    oldIrql = KeAcquireSpinLockRaiseToDpc(&pRecord->lock);
    if (!bWithinReach) {
        MarkWholeFileDirty(pRecord);
        KeReleaseSpinLock(&pRecord->lock, oldIrql);
        TRACE_ERROR("A write at offset %lld can't be placed in the map: the whole file is dirty", llOffset);
        return;
    }
    status = ResizeMap(pRecord, ulLastBlock >> 3);
    if (!NT_SUCCESS(status)) {
        KeReleaseSpinLock(&pRecord->lock, oldIrql);
        TRACE_ERROR("Failed to resize map (0x%08x)", status);
        return;
    }
    status = MarkBlocksDirty(pRecord, ulFirstBlock, ulLastBlock);
    KeReleaseSpinLock(&pRecord->lock, oldIrql);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("MarkBlocksDirty failed (0x%08x)", status);
        return;
    }

    if (KeGetCurrentIrql() == PASSIVE_LEVEL && IsTraceEnabled(&TRACE_DESCRIPTOR_INFO)) {
        for (ULONG ulBlock = ulFirstBlock;; ulBlock++) {
            TRACE_INFO("Wrote to [mapByte=%lu] [mapBitNum=%d] [mapBit=%lu]", ulBlock >> 3, (int)(ulBlock & 7),
                       (ULONG)(0x80 >> (ulBlock & 7)));
            if (ulBlock == ulLastBlock) {
                break;
            }
        }
    }
    TRACE_INFO("[EXIT]");
}

VOID DirtyBlockSetEOF(TrackedDirtyBlockFile* pRecord, LONGLONG llOldEndOfFile, LONGLONG llNewEndOfFile)
{
    KIRQL oldIrql;
    ULONG ulOldLastBlock = 0;
    ULONG ulNewLastBlock = 0;

    if (pRecord == nullptr) {
        return;
    }
    // A negative end of file is refused by the file system: nothing changes on the disk.
    if (llNewEndOfFile < 0 || llOldEndOfFile < 0) {
        return;
    }
    BOOLEAN bWithinReach = BlockOfPosition((ULONG64)llOldEndOfFile, &ulOldLastBlock) &&
                           BlockOfPosition((ULONG64)llNewEndOfFile, &ulNewLastBlock);
    TRACE_INFO("[ENTER] - oldLastBlock:%lu newLastBlock:%lu oldEOF:%llu newEOF:%llu", ulOldLastBlock,
               ulNewLastBlock, llOldEndOfFile, llNewEndOfFile);

    oldIrql = KeAcquireSpinLockRaiseToDpc(&pRecord->lock);
    if (!bWithinReach) {
        MarkWholeFileDirty(pRecord);
    } else if (NT_SUCCESS(ResizeMap(pRecord, ulNewLastBlock >> 3))) {
        if (ulNewLastBlock > ulOldLastBlock) {
            // The old last block gains the bytes between the old end and its boundary.
            (VOID) MarkBlocksDirty(pRecord, ulOldLastBlock, ulNewLastBlock);
        } else {
            // The blocks cut off count as changed; their bits stay, and the map keeps its length.
            pRecord->dirtyBlockCount += ulOldLastBlock - ulNewLastBlock;
        }
    }
    KeReleaseSpinLock(&pRecord->lock, oldIrql);
    TRACE_INFO("[EXIT]");
}
