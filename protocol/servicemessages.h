// The records that cross FolderMerge's communication port, shared by the filter and the service.
//
// Little-endian, packed, fixed-width fields only. Text is UTF-16 ended by a 16-bit zero inside its
// field. Each record's offsets and size are pinned below; the port adds its own framing
// (FILTER_MESSAGE_HEADER / FILTER_REPLY_HEADER) in front.
#pragma once

#include <stddef.h>
#include <stdint.h>
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
