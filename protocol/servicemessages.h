// The records that cross FolderMerge's communication port, shared by the filter and the service,
// and the header of the block map stream that the filter keeps on each tracked file.
//
// Little-endian, packed, fixed-width fields only. Text is UTF-16 ended by a 16-bit zero inside its
// field. Each record's offsets and size are pinned below; the port adds its own framing
// (FILTER_MESSAGE_HEADER / FILTER_REPLY_HEADER) in front.
#pragma once

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <assert.h>  // static_assert is a macro of <assert.h> in C11
#endif
#include "servicerequests.h"

// The server port. The service connects twice: the Thread port, on which the filter sends its
// requests, with a connection context of exactly THREAD_PORT_CONTEXT_SIZE bytes; the Config port
// with any other context (or none).
#define FOLDERMERGE_PORT_NAME L"\\Velmora_DriverPort"
#define FOLDERMERGE_MAX_CONNECTIONS 8
#define THREAD_PORT_CONTEXT_SIZE 4

// Control messages, service to filter: the first u32 of the input buffer. Every message is at
// least CONTROL_MESSAGE_MIN_SIZE bytes long.
#define CONTROL_SET_CONFIGURATION 1
#define CONTROL_SET_TRACING_ENABLED 2
#define CONTROL_REQUEST_DIRTY_BLOCK_MAP 3
#define CONTROL_REQUEST_DIRTY_BLOCK_COUNT 4
#define CONTROL_MESSAGE_MIN_SIZE 8

// The dirty block queries: the head of each request before its path, and the replies' lengths.
// A map reply is DIRTY_BLOCK_MAP_REPLY_LENGTH(MapLength) bytes: the head, the map, and 4 zero bytes.
#define DIRTY_BLOCK_MAP_REQUEST_HEAD_SIZE 8
#define DIRTY_BLOCK_COUNT_REQUEST_HEAD_SIZE 10
#define DIRTY_BLOCK_MAP_REPLY_HEAD_SIZE 8
#define DIRTY_BLOCK_MAP_REPLY_TAIL_SIZE 4
#define DIRTY_BLOCK_MAP_REPLY_LENGTH(mapLength) \
    (DIRTY_BLOCK_MAP_REPLY_HEAD_SIZE + (mapLength) + DIRTY_BLOCK_MAP_REPLY_TAIL_SIZE)
#define DIRTY_BLOCK_COUNT_REPLY_SIZE 8

// The block map stream of a tracked file: the file's path, ":", then this name. Its content is a
// DirtyBlockStreamHeader followed by the map (one bit per 4096-byte block, block 0 in the most
// significant bit of byte 0); the map's length is the stream's length less the header.
#define DIRTY_BLOCK_STREAM_NAME L"{22ccc030-c7fd-4d41-af27-03d193e7f165}"
#define DIRTY_BLOCK_STREAM_HEADER_SIZE 34
#define DIRTY_BLOCK_STREAM_HEADER_VERSION 2
#define DIRTY_BLOCK_SIZE 4096

#define CONFIGURATION_MIN_VERSION 4
#define CONFIGURATION_MAX_FOLDERS 50
#define CONFIGURATION_SID_CHARS 261
#define CONFIGURATION_PATH_CHARS 1041
#define CONFIGURATION_BLACKLIST_CHARS 4099

#pragma pack(push, 1)

// One managed folder of a SetConfiguration message.
typedef struct _MergeFolderRecord {
    uint16_t Sid[CONFIGURATION_SID_CHARS];          // the user's SID string
    uint16_t FolderPath[CONFIGURATION_PATH_CHARS];  // drive letter, colon, path: C:\Data
    uint32_t bReadOnly;                             // non-zero: the folder's own path is read-only
    uint32_t Reserved1;
    uint32_t Reserved2;
} MergeFolderRecord;

// The folder block that SetConfiguration's pFolderBlock points at: a count and the records.
typedef struct _MergeFolderBlock {
    uint32_t FolderCount;  // 0 to CONFIGURATION_MAX_FOLDERS
    MergeFolderRecord Folders[1];
} MergeFolderBlock;

// Control message 1: the merge folders and the process blacklist, replacing what was set before.
typedef struct _SetConfigurationMessage {
    uint32_t Code;                                              // CONTROL_SET_CONFIGURATION
    uint32_t ConfigVersion;                                     // CONFIGURATION_MIN_VERSION or more
    uint16_t Reserved[CONFIGURATION_SID_CHARS];
    uint16_t ProcessBlacklist[CONFIGURATION_BLACKLIST_CHARS];  // a.exe|b.exe
    uint64_t pFolderBlock;  // address of the MergeFolderBlock in the service's own address space
} SetConfigurationMessage;

// Control message 2: turns the filter's tracing on or off.
typedef struct _SetTracingEnabledMessage {
    uint32_t Code;  // CONTROL_SET_TRACING_ENABLED
    uint32_t Reserved;
    uint8_t bEnable;
} SetTracingEnabledMessage;

// Control message 3: the dirty block map of one file, which the filter hands back and clears. The
// path follows the head: the file's device path (\Device\HarddiskVolume2\Data\a.txt) ended by a
// zero character, as long as the message makes it.
typedef struct _DirtyBlockMapRequest {
    uint32_t Code;  // CONTROL_REQUEST_DIRTY_BLOCK_MAP
    uint32_t Reserved;
    uint16_t Path[1];
} DirtyBlockMapRequest;

// Control message 4: the dirty block count of one file, cleared with the map when bReset is set.
typedef struct _DirtyBlockCountRequest {
    uint32_t Code;  // CONTROL_REQUEST_DIRTY_BLOCK_COUNT
    uint32_t Reserved1;
    uint8_t bReset;  // non-zero: clear the map and the count once read
    uint8_t Reserved2;
    uint16_t Path[1];
} DirtyBlockCountRequest;

// The reply to message 3, in its output buffer: the head, MapLength bytes of map, then
// DIRTY_BLOCK_MAP_REPLY_TAIL_SIZE zero bytes that the reply's length counts.
typedef struct _DirtyBlockMapReply {
    uint8_t bTrackingFailed;
    uint8_t Reserved[3];
    uint32_t MapLength;
    uint8_t Map[1];
} DirtyBlockMapReply;

// The reply to message 4, in its output buffer.
typedef struct _DirtyBlockCountReply {
    uint8_t bTrackingFailed;
    uint8_t Reserved[3];
    uint32_t DirtyBlockCount;
} DirtyBlockCountReply;

// The head of the block map stream. The reader looks at DirtyBlockCount, HeaderTimestamp and
// bTrackingFailed only: a stream whose file was last written after HeaderTimestamp is stale.
typedef struct _DirtyBlockStreamHeader {
    uint8_t HeaderVersion;     // DIRTY_BLOCK_STREAM_HEADER_VERSION
    uint32_t DirtyBlockCount;  // the record's count when the stream was written
    int64_t HeaderTimestamp;   // system time of the write, 100 ns units since 1601-01-01 UTC
    uint32_t Reserved1;        // 0
    uint8_t bTrackingFailed;   // the record's flag when the stream was written
    uint8_t Reserved2[16];     // 0
} DirtyBlockStreamHeader;

#pragma pack(pop)

static_assert(offsetof(MergeFolderRecord, Sid) == 0, "MergeFolderRecord.Sid");
static_assert(offsetof(MergeFolderRecord, FolderPath) == 522, "MergeFolderRecord.FolderPath");
static_assert(offsetof(MergeFolderRecord, bReadOnly) == 2604, "MergeFolderRecord.bReadOnly");
static_assert(offsetof(MergeFolderRecord, Reserved1) == 2608, "MergeFolderRecord.Reserved1");
static_assert(offsetof(MergeFolderRecord, Reserved2) == 2612, "MergeFolderRecord.Reserved2");
static_assert(sizeof(MergeFolderRecord) == 2616, "MergeFolderRecord size");

static_assert(offsetof(MergeFolderBlock, FolderCount) == 0, "MergeFolderBlock.FolderCount");
static_assert(offsetof(MergeFolderBlock, Folders) == 4, "MergeFolderBlock.Folders");

static_assert(offsetof(SetConfigurationMessage, Code) == 0, "SetConfigurationMessage.Code");
static_assert(offsetof(SetConfigurationMessage, ConfigVersion) == 4, "SetConfigurationMessage.ConfigVersion");
static_assert(offsetof(SetConfigurationMessage, Reserved) == 8, "SetConfigurationMessage.Reserved");
static_assert(offsetof(SetConfigurationMessage, ProcessBlacklist) == 530,
              "SetConfigurationMessage.ProcessBlacklist");
static_assert(offsetof(SetConfigurationMessage, pFolderBlock) == 8728, "SetConfigurationMessage.pFolderBlock");
static_assert(sizeof(SetConfigurationMessage) == 8736, "SetConfigurationMessage size");

static_assert(offsetof(SetTracingEnabledMessage, Code) == 0, "SetTracingEnabledMessage.Code");
static_assert(offsetof(SetTracingEnabledMessage, Reserved) == 4, "SetTracingEnabledMessage.Reserved");
static_assert(offsetof(SetTracingEnabledMessage, bEnable) == 8, "SetTracingEnabledMessage.bEnable");
static_assert(sizeof(SetTracingEnabledMessage) == 9, "SetTracingEnabledMessage size");

static_assert(offsetof(DirtyBlockMapRequest, Code) == 0, "DirtyBlockMapRequest.Code");
static_assert(offsetof(DirtyBlockMapRequest, Reserved) == 4, "DirtyBlockMapRequest.Reserved");
static_assert(offsetof(DirtyBlockMapRequest, Path) == DIRTY_BLOCK_MAP_REQUEST_HEAD_SIZE, "DirtyBlockMapRequest.Path");

static_assert(offsetof(DirtyBlockCountRequest, Code) == 0, "DirtyBlockCountRequest.Code");
static_assert(offsetof(DirtyBlockCountRequest, Reserved1) == 4, "DirtyBlockCountRequest.Reserved1");
static_assert(offsetof(DirtyBlockCountRequest, bReset) == 8, "DirtyBlockCountRequest.bReset");
static_assert(offsetof(DirtyBlockCountRequest, Reserved2) == 9, "DirtyBlockCountRequest.Reserved2");
static_assert(offsetof(DirtyBlockCountRequest, Path) == DIRTY_BLOCK_COUNT_REQUEST_HEAD_SIZE,
              "DirtyBlockCountRequest.Path");

static_assert(offsetof(DirtyBlockMapReply, bTrackingFailed) == 0, "DirtyBlockMapReply.bTrackingFailed");
static_assert(offsetof(DirtyBlockMapReply, Reserved) == 1, "DirtyBlockMapReply.Reserved");
static_assert(offsetof(DirtyBlockMapReply, MapLength) == 4, "DirtyBlockMapReply.MapLength");
static_assert(offsetof(DirtyBlockMapReply, Map) == DIRTY_BLOCK_MAP_REPLY_HEAD_SIZE, "DirtyBlockMapReply.Map");
static_assert(DIRTY_BLOCK_MAP_REPLY_LENGTH(0) == 12, "DirtyBlockMapReply length of an empty map");

static_assert(offsetof(DirtyBlockCountReply, bTrackingFailed) == 0, "DirtyBlockCountReply.bTrackingFailed");
static_assert(offsetof(DirtyBlockCountReply, Reserved) == 1, "DirtyBlockCountReply.Reserved");
static_assert(offsetof(DirtyBlockCountReply, DirtyBlockCount) == 4, "DirtyBlockCountReply.DirtyBlockCount");
static_assert(sizeof(DirtyBlockCountReply) == DIRTY_BLOCK_COUNT_REPLY_SIZE, "DirtyBlockCountReply size");

static_assert(offsetof(DirtyBlockStreamHeader, HeaderVersion) == 0, "DirtyBlockStreamHeader.HeaderVersion");
static_assert(offsetof(DirtyBlockStreamHeader, DirtyBlockCount) == 1, "DirtyBlockStreamHeader.DirtyBlockCount");
static_assert(offsetof(DirtyBlockStreamHeader, HeaderTimestamp) == 5, "DirtyBlockStreamHeader.HeaderTimestamp");
static_assert(offsetof(DirtyBlockStreamHeader, Reserved1) == 13, "DirtyBlockStreamHeader.Reserved1");
static_assert(offsetof(DirtyBlockStreamHeader, bTrackingFailed) == 17, "DirtyBlockStreamHeader.bTrackingFailed");
static_assert(offsetof(DirtyBlockStreamHeader, Reserved2) == 18, "DirtyBlockStreamHeader.Reserved2");
static_assert(sizeof(DirtyBlockStreamHeader) == DIRTY_BLOCK_STREAM_HEADER_SIZE, "DirtyBlockStreamHeader size");
