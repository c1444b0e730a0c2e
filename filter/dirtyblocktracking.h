// Dirty block tracking: which 4096-byte blocks of a file were written since the service last took
// its map.
//
// Each tracked file has one TrackedDirtyBlockFile, shared by every open of the file and by the
// service's queries, found by path in g_DirtyBlockFileList and kept alive by its reference count.
// A record is loaded from the file's map stream when it is made, and the stream is deleted at once:
// while the record lives, memory holds the truth. The last reference writes the map back to the
// stream, with a timestamp by which the next load tells whether the file changed in between.
//
// A record whose map can't be trusted (no stream, a stale or unreadable one) starts wholly dirty:
// every bit of its map set and bTrackingFailed 1, so that the service takes the whole file as
// changed until it has taken the map once.
#pragma once

#include <fltKernel.h>

#include "driver/ownedstring.h"
#include "servicemessages.h"

// The per-file record. The list's lock (g_DirtyBlockLock) guards next and every change of refCount;
// lock guards dirtyBlockCount, bTrackingFailed, map and mapLen, and is also held around each
// decrement of refCount. Everything lives in non-paged memory: writers reach it at DISPATCH_LEVEL.
typedef struct _TrackedDirtyBlockFile {
    KSPIN_LOCK lock;
    OwnedString* filePath;  // the file's device path, the record's key; never the stream's path
    ULONG refCount;         // holders; 1 at creation
    ULONG dirtyBlockCount;  // the count reported to the service, not always the number of set bits
    UCHAR bTrackingFailed;  // 1: the whole file must be taken as changed
    PUCHAR map;             // mapLen bytes; block b is bit 0x80 >> (b & 7) of byte b >> 3
    ULONG mapLen;           // at least 1 in a live record; never shrinks while the record lives
    struct _TrackedDirtyBlockFile* next;
} TrackedDirtyBlockFile;

// Head of the list of live records, newest first. Guarded by g_DirtyBlockLock.
extern TrackedDirtyBlockFile* g_DirtyBlockFileList;

// ---- records (records.cpp) ----

// Finds the record of pPath (compared without regard to case) or makes one, loading its map from
// the file's stream below pInstance, and gives the caller one reference in *ppRecord. On failure
// *ppRecord is null: STATUS_INSUFFICIENT_RESOURCES, or the status of reading the file's
// information or of putting its times back after the stream's deletion. A missing, stale or
// unreadable stream is no failure: the record starts wholly dirty. IRQL: PASSIVE_LEVEL; takes
// g_DirtyBlockLock and does file I/O under it.
NTSTATUS GetTrackedDirtyBlockRecord(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                                    TrackedDirtyBlockFile** ppRecord);

// Gives one reference back. The last one writes a copy of the map to the file's stream (with the
// filter handle of g_ServiceData, at the filter's instance on the file's volume) and destroys the
// record; a failed write-back is traced and the map lost. STATUS_INVALID_PARAMETER for a null
// record, STATUS_SUCCESS otherwise, also for a record whose count is already 0 (traced, nothing
// changed). IRQL: PASSIVE_LEVEL; takes g_DirtyBlockLock and does file I/O under it.
NTSTATUS DerefTrackedDirtyBlockRecord(TrackedDirtyBlockFile* pRecord);

// Builds a record for pPath with refCount 1, not in the list: its map from the file's stream, which
// is then deleted, or the wholly dirty state. See GetTrackedDirtyBlockRecord for the results.
// IRQL: PASSIVE_LEVEL.
NTSTATUS CreateTrackedDirtyBlockFile(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                                     TrackedDirtyBlockFile** ppRecord);

// Frees the record with its path and map, without writing anything. IRQL: <= DISPATCH_LEVEL.
VOID DeleteTrackedDirtyBlockFile(TrackedDirtyBlockFile* pRecord);

// A private copy of the record: its counts, flag, map and path copied under its lock, refCount 0,
// in no list. What is written to a stream while the record itself goes on changing.
// STATUS_INSUFFICIENT_RESOURCES when the copy can't be allocated. IRQL: <= DISPATCH_LEVEL.
NTSTATUS CopyTrackedDirtyBlockFile(TrackedDirtyBlockFile* pRecord, TrackedDirtyBlockFile** ppCopy);

// Links the record in at the head of the list: FALSE for null. Takes g_DirtyBlockLock (recursively
// when the caller holds it). IRQL: <= APC_LEVEL.
BOOLEAN AddToTrackedDirtyBlockFileList(TrackedDirtyBlockFile* pRecord);

// Unlinks the record if it is in the list: FALSE for null, TRUE otherwise. Takes g_DirtyBlockLock.
// IRQL: <= APC_LEVEL.
BOOLEAN RemoveFromTrackedDirtyBlockFileList(TrackedDirtyBlockFile* pRecord);

// Destroys every record of the list without writing maps back, and empties it. At unload.
// IRQL: PASSIVE_LEVEL.
VOID ClearTrackedDirtyBlockFileList();

// Deletes and frees g_DirtyBlockLock, after the list was cleared. A lock that can't be deleted is
// left allocated and its status returned. IRQL: PASSIVE_LEVEL.
NTSTATUS DeleteTrackedDirtyBlockFileListLock();

// ---- the map stream (mapstream.cpp) ----

// Loads map, mapLen, dirtyBlockCount and bTrackingFailed of pRecord (which has no map yet) from the
// stream at pStreamPath below pInstance. The stream is valid when it opens, holds a whole header,
// was written no earlier than llFileLastWriteTime (the file's own, compared signed; equal passes)
// and its map can be read. mapLen is the stream's length less the header, and at least 4; a
// shorter map leaves the rest of the buffer zero. On failure the record has no map and mapLen 0:
// STATUS_INVALID_PARAMETER for a null record, STATUS_FILE_CORRUPT_ERROR for a stream too short to
// hold a header, STATUS_UNSUCCESSFUL for a stale one, else the status of the allocation, the open
// or a read. A stale stream is left where it is. IRQL: PASSIVE_LEVEL.
NTSTATUS ReadDirtyBlockMapFromADS(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pStreamPath,
                                  TrackedDirtyBlockFile* pRecord, LONGLONG llFileLastWriteTime);

// Replaces the stream at pStreamPath with pRecord's state: the header (version 2, the count, the
// system time now, the flag) and the map. The record must not change during the call (a copy, or a
// record that nothing else holds). The open cuts the stream first, so a failed write leaves one too
// short to load. IRQL: PASSIVE_LEVEL.
NTSTATUS WriteDirtyBlockMapToADS(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pStreamPath,
                                 TrackedDirtyBlockFile* pRecord);

// Writes pRecord's map to the stream of the file at pPath, and puts the file's basic information
// (times and attributes) back as it was before, so that the file's last write time stays at or
// below the stream's timestamp. Nothing is written when the file's information can't be read.
// The record must not change during the call. IRQL: PASSIVE_LEVEL.
NTSTATUS WriteDirtyBlockMap(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                            TrackedDirtyBlockFile* pRecord);

// Deletes the stream of the file at pPath (the path as it stands, then ":" and the stream's name),
// through the whole I/O stack. STATUS_INSUFFICIENT_RESOURCES, traced, when the stream's path can't
// be built; else the status of the delete. IRQL: PASSIVE_LEVEL.
NTSTATUS DeleteDirtyBlockADS(PCUNICODE_STRING pPath);

// Writes a copy of a shared record's map, taken under its lock, to the stream of the file at
// pPath as WriteDirtyBlockMap does: the record goes on being marked meanwhile. For the saves made
// while the record has holders (the cleanup of one open). STATUS_INSUFFICIENT_RESOURCES, with
// nothing written, when the copy can't be made. IRQL: PASSIVE_LEVEL.
NTSTATUS WriteStableDirtyBlockMap(PFLT_FILTER pFilter, PFLT_INSTANCE pInstance, PCUNICODE_STRING pPath,
                                  TrackedDirtyBlockFile* pRecord);

// ---- the block map (blockmap.cpp) ----

// Marks the blocks of a write of ulLength bytes at llOffset: from the block of its first byte to
// the block of the byte just past it, so a write ending on a block boundary marks the next block
// too, and a write of length 0 marks one block. The map grows to hold the last block. Each bit
// that goes from clear to set adds 1 to dirtyBlockCount. With no memory to grow the map nothing is
// marked. An offset the map can't place (below 0, the special values for the end of file and the
// current position; or a range reaching 2^44 bytes) marks the whole map and sets bTrackingFailed.
// Nothing reaches the write's caller. IRQL: <= DISPATCH_LEVEL; takes the record's lock.
VOID MarkBlockDirty(TrackedDirtyBlockFile* pRecord, LONGLONG llOffset, ULONG ulLength);

// Follows a change of the end of file from llOldEndOfFile to llNewEndOfFile. Growing marks the
// old last block and every new one; shrinking, or a change within one block, adds the number of
// blocks cut off to dirtyBlockCount and changes no bit. The map grows to hold the new last block,
// and nothing changes when it can't. A negative end of file, which the file system refuses,
// changes nothing; one at 2^44 bytes or beyond marks the whole map and sets bTrackingFailed.
// IRQL: <= DISPATCH_LEVEL; takes the record's lock.
VOID DirtyBlockSetEOF(TrackedDirtyBlockFile* pRecord, LONGLONG llOldEndOfFile, LONGLONG llNewEndOfFile);

// Grows the map, zero-filled, to twice ulByteIndex when ulByteIndex is not inside it.
// STATUS_INSUFFICIENT_RESOURCES with the map unchanged when there is no memory. The caller holds
// the record's lock. IRQL: <= DISPATCH_LEVEL.
NTSTATUS ResizeMap(TrackedDirtyBlockFile* pRecord, ULONG ulByteIndex);

// Marks the blocks ulFirstBlock to ulLastBlock, both included (nothing when the first is greater),
// counting each bit that was clear. A block past the map stops the marking with
// STATUS_BUFFER_OVERFLOW; the blocks before it stay marked. The caller holds the record's lock.
// IRQL: <= DISPATCH_LEVEL.
NTSTATUS MarkBlocksDirty(TrackedDirtyBlockFile* pRecord, ULONG ulFirstBlock, ULONG ulLastBlock);

// ---- the service's queries (queries.cpp) ----

// Control message REQUEST_DIRTY_BLOCK_MAP: the map of the file whose device path the message
// carries (open or not: a record is loaded for the query when there is none), copied into the
// reply and cleared with the count and the flag in one step under the record's lock, so that
// every write lands either in the reply or in the cleared map; the stream then says the same.
// pMessage is the service's memory, ulMessageLength bytes, read under a guard; the path must end
// with a zero character inside the message. pOutput is a zeroed kernel buffer of ulOutputLength
// bytes; *pulReplyLength gets the reply's length (the map's length + 12). STATUS_BUFFER_TOO_SMALL
// with nothing changed when the map doesn't fit; STATUS_INVALID_PARAMETER for a message without a
// whole path; STATUS_INSUFFICIENT_RESOURCES without memory for the path; else the status of
// finding the volume or the record. IRQL: PASSIVE_LEVEL.
NTSTATUS RequestDirtyBlockMap(PVOID pMessage, ULONG ulMessageLength, PVOID pOutput, ULONG ulOutputLength,
                              PULONG pulReplyLength);

// Control message REQUEST_DIRTY_BLOCK_COUNT: the count and the flag of the file (an 8-byte reply).
// With bReset the map and the count are cleared in the same step, the flag kept, and the stream
// written as for a map query; without it nothing changes. Results as for RequestDirtyBlockMap.
// IRQL: PASSIVE_LEVEL.
NTSTATUS RequestDirtyBlockCount(PVOID pMessage, ULONG ulMessageLength, PVOID pOutput, ULONG ulOutputLength,
                                PULONG pulReplyLength);
