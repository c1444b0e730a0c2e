// File information classes, the published information records, and the constants of file
// opens (access rights, share modes, dispositions, options, attributes, device types), as the
// WDK's wdm.h and ntifs.h give them. Plain C-compatible declarations: the filter includes this.
// Every record keeps the x64 layout; the static_asserts below pin each published offset.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

// ---- access rights of files (the standard and generic rights are in ntdef.h) ----
#define FILE_READ_DATA                   0x0001  // file and pipe
#define FILE_LIST_DIRECTORY              0x0001  // directory
#define FILE_WRITE_DATA                  0x0002  // file and pipe
#define FILE_ADD_FILE                    0x0002  // directory
#define FILE_APPEND_DATA                 0x0004  // file
#define FILE_ADD_SUBDIRECTORY            0x0004  // directory
#define FILE_CREATE_PIPE_INSTANCE        0x0004  // named pipe
#define FILE_READ_EA                     0x0008
#define FILE_WRITE_EA                    0x0010
#define FILE_EXECUTE                     0x0020  // file
#define FILE_TRAVERSE                    0x0020  // directory
#define FILE_DELETE_CHILD                0x0040  // directory
#define FILE_READ_ATTRIBUTES             0x0080
#define FILE_WRITE_ATTRIBUTES            0x0100

#define FILE_ALL_ACCESS     (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF)
#define FILE_GENERIC_READ   (STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | \
                             SYNCHRONIZE)
#define FILE_GENERIC_WRITE  (STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | \
                             FILE_APPEND_DATA | SYNCHRONIZE)
#define FILE_GENERIC_EXECUTE (STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE)

static_assert(FILE_ALL_ACCESS == 0x1F01FF, "FILE_ALL_ACCESS");
static_assert(FILE_GENERIC_READ == 0x120089, "FILE_GENERIC_READ");
static_assert(FILE_GENERIC_WRITE == 0x120116, "FILE_GENERIC_WRITE");
static_assert(FILE_GENERIC_EXECUTE == 0x1200A0, "FILE_GENERIC_EXECUTE");

// ---- share access ----
#define FILE_SHARE_READ                  0x00000001
#define FILE_SHARE_WRITE                 0x00000002
#define FILE_SHARE_DELETE                0x00000004
#define FILE_SHARE_VALID_FLAGS           0x00000007

// ---- create dispositions ----
#define FILE_SUPERSEDE                   0x00000000
#define FILE_OPEN                        0x00000001
#define FILE_CREATE                      0x00000002
#define FILE_OPEN_IF                     0x00000003
#define FILE_OVERWRITE                   0x00000004
#define FILE_OVERWRITE_IF                0x00000005
#define FILE_MAXIMUM_DISPOSITION         0x00000005

// ---- create options ----
#define FILE_DIRECTORY_FILE              0x00000001
#define FILE_WRITE_THROUGH               0x00000002
#define FILE_SEQUENTIAL_ONLY             0x00000004
#define FILE_NO_INTERMEDIATE_BUFFERING   0x00000008
#define FILE_SYNCHRONOUS_IO_ALERT        0x00000010
#define FILE_SYNCHRONOUS_IO_NONALERT     0x00000020
#define FILE_NON_DIRECTORY_FILE          0x00000040
#define FILE_CREATE_TREE_CONNECTION      0x00000080
#define FILE_COMPLETE_IF_OPLOCKED        0x00000100
#define FILE_NO_EA_KNOWLEDGE             0x00000200
#define FILE_OPEN_REMOTE_INSTANCE        0x00000400
#define FILE_RANDOM_ACCESS               0x00000800
#define FILE_DELETE_ON_CLOSE             0x00001000
#define FILE_OPEN_BY_FILE_ID             0x00002000
#define FILE_OPEN_FOR_BACKUP_INTENT      0x00004000
#define FILE_NO_COMPRESSION              0x00008000
#define FILE_OPEN_REQUIRING_OPLOCK       0x00010000
#define FILE_DISALLOW_EXCLUSIVE          0x00020000
#define FILE_SESSION_AWARE               0x00040000
#define FILE_RESERVE_OPFILTER            0x00100000
#define FILE_OPEN_REPARSE_POINT          0x00200000
#define FILE_OPEN_NO_RECALL              0x00400000
#define FILE_OPEN_FOR_FREE_SPACE_QUERY   0x00800000
#define FILE_VALID_OPTION_FLAGS          0x00FFFFFF
#define FILE_VALID_PIPE_OPTION_FLAGS     0x00000032
#define FILE_VALID_MAILSLOT_OPTION_FLAGS 0x00000032
#define FILE_VALID_SET_FLAGS             0x00000036

// ---- create results (IO_STATUS_BLOCK.Information of a create) ----
#define FILE_SUPERSEDED                  0x00000000
#define FILE_OPENED                      0x00000001
#define FILE_CREATED                     0x00000002
#define FILE_OVERWRITTEN                 0x00000003
#define FILE_EXISTS                      0x00000004
#define FILE_DOES_NOT_EXIST              0x00000005

// ---- file attributes ----
#define FILE_ATTRIBUTE_READONLY              0x00000001
#define FILE_ATTRIBUTE_HIDDEN                0x00000002
#define FILE_ATTRIBUTE_SYSTEM                0x00000004
#define FILE_ATTRIBUTE_DIRECTORY             0x00000010
#define FILE_ATTRIBUTE_ARCHIVE               0x00000020
#define FILE_ATTRIBUTE_DEVICE                0x00000040
#define FILE_ATTRIBUTE_NORMAL                0x00000080
#define FILE_ATTRIBUTE_TEMPORARY             0x00000100
#define FILE_ATTRIBUTE_SPARSE_FILE           0x00000200
#define FILE_ATTRIBUTE_REPARSE_POINT         0x00000400
#define FILE_ATTRIBUTE_COMPRESSED            0x00000800
#define FILE_ATTRIBUTE_OFFLINE               0x00001000
#define FILE_ATTRIBUTE_NOT_CONTENT_INDEXED   0x00002000
#define FILE_ATTRIBUTE_ENCRYPTED             0x00004000
#define FILE_ATTRIBUTE_INTEGRITY_STREAM      0x00008000
#define FILE_ATTRIBUTE_VIRTUAL               0x00010000
#define FILE_ATTRIBUTE_NO_SCRUB_DATA         0x00020000
#define FILE_ATTRIBUTE_EA                    0x00040000
#define FILE_ATTRIBUTE_PINNED                0x00080000
#define FILE_ATTRIBUTE_UNPINNED              0x00100000
#define FILE_ATTRIBUTE_RECALL_ON_OPEN        0x00040000
#define FILE_ATTRIBUTE_RECALL_ON_DATA_ACCESS 0x00400000
#define FILE_ATTRIBUTE_VALID_FLAGS           0x00007FB7
#define FILE_ATTRIBUTE_VALID_SET_FLAGS       0x000031A7

// ---- reparse points ----
// Tags of Microsoft's reparse points (a tag's top bit marks Microsoft's own).
#define IO_REPARSE_TAG_MOUNT_POINT       0xA0000003L  // a junction
#define IO_REPARSE_TAG_SYMLINK           0xA000000CL
#define SYMLINK_FLAG_RELATIVE            0x00000001

// A reparse point as the file system keeps it and hands it to the I/O manager with a
// STATUS_REPARSE create (Information is the tag). In that hand-over Reserved is the length in bytes
// of the part of the opened name that follows the reparse point.
typedef struct _REPARSE_DATA_BUFFER {
    ULONG ReparseTag;
    USHORT ReparseDataLength;  // bytes after the header
    USHORT Reserved;
    union {
        struct {
            USHORT SubstituteNameOffset;  // in bytes, into PathBuffer
            USHORT SubstituteNameLength;
            USHORT PrintNameOffset;
            USHORT PrintNameLength;
            ULONG Flags;  // SYMLINK_FLAG_RELATIVE
            WCHAR PathBuffer[1];
        } SymbolicLinkReparseBuffer;
        struct {
            USHORT SubstituteNameOffset;
            USHORT SubstituteNameLength;
            USHORT PrintNameOffset;
            USHORT PrintNameLength;
            WCHAR PathBuffer[1];
        } MountPointReparseBuffer;
        struct {
            UCHAR DataBuffer[1];
        } GenericReparseBuffer;
    };
} REPARSE_DATA_BUFFER, *PREPARSE_DATA_BUFFER;

#define REPARSE_DATA_BUFFER_HEADER_SIZE FIELD_OFFSET(REPARSE_DATA_BUFFER, GenericReparseBuffer)

// ---- alignment requirements (FILE_ALIGNMENT_INFORMATION) ----
#define FILE_BYTE_ALIGNMENT              0x00000000
#define FILE_WORD_ALIGNMENT              0x00000001
#define FILE_LONG_ALIGNMENT              0x00000003
#define FILE_QUAD_ALIGNMENT              0x00000007
#define FILE_OCTA_ALIGNMENT              0x0000000F
#define FILE_32_BYTE_ALIGNMENT           0x0000001F
#define FILE_64_BYTE_ALIGNMENT           0x0000003F
#define FILE_128_BYTE_ALIGNMENT          0x0000007F
#define FILE_256_BYTE_ALIGNMENT          0x000000FF
#define FILE_512_BYTE_ALIGNMENT          0x000001FF

// ---- device types and characteristics ----
typedef ULONG DEVICE_TYPE;
#define FILE_DEVICE_BEEP                 0x00000001
#define FILE_DEVICE_CD_ROM               0x00000002
#define FILE_DEVICE_CD_ROM_FILE_SYSTEM   0x00000003
#define FILE_DEVICE_CONTROLLER           0x00000004
#define FILE_DEVICE_DATALINK             0x00000005
#define FILE_DEVICE_DFS                  0x00000006
#define FILE_DEVICE_DISK                 0x00000007
#define FILE_DEVICE_DISK_FILE_SYSTEM     0x00000008
#define FILE_DEVICE_FILE_SYSTEM          0x00000009
#define FILE_DEVICE_INPORT_PORT          0x0000000A
#define FILE_DEVICE_KEYBOARD             0x0000000B
#define FILE_DEVICE_MAILSLOT             0x0000000C
#define FILE_DEVICE_MIDI_IN              0x0000000D
#define FILE_DEVICE_MIDI_OUT             0x0000000E
#define FILE_DEVICE_MOUSE                0x0000000F
#define FILE_DEVICE_MULTI_UNC_PROVIDER   0x00000010
#define FILE_DEVICE_NAMED_PIPE           0x00000011
#define FILE_DEVICE_NETWORK              0x00000012
#define FILE_DEVICE_NETWORK_BROWSER      0x00000013
#define FILE_DEVICE_NETWORK_FILE_SYSTEM  0x00000014
#define FILE_DEVICE_NULL                 0x00000015
#define FILE_DEVICE_PARALLEL_PORT        0x00000016
#define FILE_DEVICE_PHYSICAL_NETCARD     0x00000017
#define FILE_DEVICE_PRINTER              0x00000018
#define FILE_DEVICE_SCANNER              0x00000019
#define FILE_DEVICE_SERIAL_MOUSE_PORT    0x0000001A
#define FILE_DEVICE_SERIAL_PORT          0x0000001B
#define FILE_DEVICE_SCREEN               0x0000001C
#define FILE_DEVICE_SOUND                0x0000001D
#define FILE_DEVICE_STREAMS              0x0000001E
#define FILE_DEVICE_TAPE                 0x0000001F
#define FILE_DEVICE_TAPE_FILE_SYSTEM     0x00000020
#define FILE_DEVICE_TRANSPORT            0x00000021
#define FILE_DEVICE_UNKNOWN              0x00000022
#define FILE_DEVICE_VIDEO                0x00000023
#define FILE_DEVICE_VIRTUAL_DISK         0x00000024
#define FILE_DEVICE_WAVE_IN              0x00000025
#define FILE_DEVICE_WAVE_OUT             0x00000026
#define FILE_DEVICE_8042_PORT            0x00000027
#define FILE_DEVICE_NETWORK_REDIRECTOR   0x00000028
#define FILE_DEVICE_BATTERY              0x00000029
#define FILE_DEVICE_BUS_EXTENDER         0x0000002A
#define FILE_DEVICE_MODEM                0x0000002B
#define FILE_DEVICE_VDM                  0x0000002C
#define FILE_DEVICE_MASS_STORAGE         0x0000002D
#define FILE_DEVICE_SMB                  0x0000002E
#define FILE_DEVICE_KS                   0x0000002F
#define FILE_DEVICE_CHANGER              0x00000030
#define FILE_DEVICE_SMARTCARD            0x00000031
#define FILE_DEVICE_ACPI                 0x00000032
#define FILE_DEVICE_DVD                  0x00000033
#define FILE_DEVICE_FULLSCREEN_VIDEO     0x00000034
#define FILE_DEVICE_DFS_FILE_SYSTEM      0x00000035
#define FILE_DEVICE_DFS_VOLUME           0x00000036

#define FILE_REMOVABLE_MEDIA             0x00000001
#define FILE_READ_ONLY_DEVICE            0x00000002
#define FILE_FLOPPY_DISKETTE             0x00000004
#define FILE_WRITE_ONCE_MEDIA            0x00000008
#define FILE_REMOTE_DEVICE               0x00000010
#define FILE_DEVICE_IS_MOUNTED           0x00000020
#define FILE_VIRTUAL_VOLUME              0x00000040
#define FILE_DEVICE_SECURE_OPEN          0x00000100

// ---- information classes ----
typedef enum _FILE_INFORMATION_CLASS {
    FileDirectoryInformation = 1,
    FileFullDirectoryInformation = 2,
    FileBothDirectoryInformation = 3,
    FileBasicInformation = 4,
    FileStandardInformation = 5,
    FileInternalInformation = 6,
    FileEaInformation = 7,
    FileAccessInformation = 8,
    FileNameInformation = 9,
    FileRenameInformation = 10,
    FileLinkInformation = 11,
    FileNamesInformation = 12,
    FileDispositionInformation = 13,
    FilePositionInformation = 14,
    FileFullEaInformation = 15,
    FileModeInformation = 16,
    FileAlignmentInformation = 17,
    FileAllInformation = 18,
    FileAllocationInformation = 19,
    FileEndOfFileInformation = 20,
    FileAlternateNameInformation = 21,
    FileStreamInformation = 22,
    FilePipeInformation = 23,
    FilePipeLocalInformation = 24,
    FilePipeRemoteInformation = 25,
    FileMailslotQueryInformation = 26,
    FileMailslotSetInformation = 27,
    FileCompressionInformation = 28,
    FileObjectIdInformation = 29,
    FileCompletionInformation = 30,
    FileMoveClusterInformation = 31,
    FileQuotaInformation = 32,
    FileReparsePointInformation = 33,
    FileNetworkOpenInformation = 34,
    FileAttributeTagInformation = 35,
    FileTrackingInformation = 36,
    FileIdBothDirectoryInformation = 37,
    FileIdFullDirectoryInformation = 38,
    FileValidDataLengthInformation = 39,
    FileShortNameInformation = 40,
    FileIoCompletionNotificationInformation = 41,
    FileIoStatusBlockRangeInformation = 42,
    FileIoPriorityHintInformation = 43,
    FileSfioReserveInformation = 44,
    FileSfioVolumeInformation = 45,
    FileHardLinkInformation = 46,
    FileProcessIdsUsingFileInformation = 47,
    FileNormalizedNameInformation = 48,
    FileNetworkPhysicalNameInformation = 49,
    FileIdGlobalTxDirectoryInformation = 50,
    FileIsRemoteDeviceInformation = 51,
    FileUnusedInformation = 52,
    FileNumaNodeInformation = 53,
    FileStandardLinkInformation = 54,
    FileRemoteProtocolInformation = 55,
    FileRenameInformationBypassAccessCheck = 56,
    FileLinkInformationBypassAccessCheck = 57,
    FileVolumeNameInformation = 58,
    FileIdInformation = 59,
    FileIdExtdDirectoryInformation = 60,
    FileReplaceCompletionInformation = 61,
    FileHardLinkFullIdInformation = 62,
    FileIdExtdBothDirectoryInformation = 63,
    FileDispositionInformationEx = 64,
    FileRenameInformationEx = 65,
    FileRenameInformationExBypassAccessCheck = 66,
    FileDesiredStorageClassInformation = 67,
    FileStatInformation = 68,
    FileMemoryPartitionInformation = 69,
    FileStatLxInformation = 70,
    FileCaseSensitiveInformation = 71,
    FileLinkInformationEx = 72,
    FileLinkInformationExBypassAccessCheck = 73,
    FileStorageReserveIdInformation = 74,
    FileCaseSensitiveInformationForceAccessCheck = 75,
    FileMaximumInformation
} FILE_INFORMATION_CLASS, *PFILE_INFORMATION_CLASS;

typedef enum _FSINFOCLASS {
    FileFsVolumeInformation = 1,
    FileFsLabelInformation = 2,
    FileFsSizeInformation = 3,
    FileFsDeviceInformation = 4,
    FileFsAttributeInformation = 5,
    FileFsControlInformation = 6,
    FileFsFullSizeInformation = 7,
    FileFsObjectIdInformation = 8,
    FileFsDriverPathInformation = 9,
    FileFsVolumeFlagsInformation = 10,
    FileFsSectorSizeInformation = 11,
    FileFsDataCopyInformation = 12,
    FileFsMetadataSizeInformation = 13,
    FileFsFullSizeInformationEx = 14,
    FileFsMaximumInformation
} FS_INFORMATION_CLASS, *PFS_INFORMATION_CLASS;

// ---- query and set information records ----
typedef struct _FILE_BASIC_INFORMATION {
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    ULONG FileAttributes;
} FILE_BASIC_INFORMATION, *PFILE_BASIC_INFORMATION;

typedef struct _FILE_STANDARD_INFORMATION {
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    ULONG NumberOfLinks;
    BOOLEAN DeletePending;
    BOOLEAN Directory;
} FILE_STANDARD_INFORMATION, *PFILE_STANDARD_INFORMATION;

typedef struct _FILE_INTERNAL_INFORMATION {
    LARGE_INTEGER IndexNumber;
} FILE_INTERNAL_INFORMATION, *PFILE_INTERNAL_INFORMATION;

typedef struct _FILE_EA_INFORMATION {
    ULONG EaSize;
} FILE_EA_INFORMATION, *PFILE_EA_INFORMATION;

typedef struct _FILE_ACCESS_INFORMATION {
    ACCESS_MASK AccessFlags;
} FILE_ACCESS_INFORMATION, *PFILE_ACCESS_INFORMATION;

typedef struct _FILE_POSITION_INFORMATION {
    LARGE_INTEGER CurrentByteOffset;
} FILE_POSITION_INFORMATION, *PFILE_POSITION_INFORMATION;

typedef struct _FILE_MODE_INFORMATION {
    ULONG Mode;
} FILE_MODE_INFORMATION, *PFILE_MODE_INFORMATION;

typedef struct _FILE_ALIGNMENT_INFORMATION {
    ULONG AlignmentRequirement;
} FILE_ALIGNMENT_INFORMATION, *PFILE_ALIGNMENT_INFORMATION;

// Also the record of FileAlternateNameInformation and FileNormalizedNameInformation.
typedef struct _FILE_NAME_INFORMATION {
    ULONG FileNameLength;  // bytes
    WCHAR FileName[1];
} FILE_NAME_INFORMATION, *PFILE_NAME_INFORMATION;

typedef struct _FILE_ALL_INFORMATION {
    FILE_BASIC_INFORMATION BasicInformation;
    FILE_STANDARD_INFORMATION StandardInformation;
    FILE_INTERNAL_INFORMATION InternalInformation;
    FILE_EA_INFORMATION EaInformation;
    FILE_ACCESS_INFORMATION AccessInformation;
    FILE_POSITION_INFORMATION PositionInformation;
    FILE_MODE_INFORMATION ModeInformation;
    FILE_ALIGNMENT_INFORMATION AlignmentInformation;
    FILE_NAME_INFORMATION NameInformation;
} FILE_ALL_INFORMATION, *PFILE_ALL_INFORMATION;

typedef struct _FILE_NETWORK_OPEN_INFORMATION {
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    ULONG FileAttributes;
} FILE_NETWORK_OPEN_INFORMATION, *PFILE_NETWORK_OPEN_INFORMATION;

typedef struct _FILE_ATTRIBUTE_TAG_INFORMATION {
    ULONG FileAttributes;
    ULONG ReparseTag;
} FILE_ATTRIBUTE_TAG_INFORMATION, *PFILE_ATTRIBUTE_TAG_INFORMATION;

typedef struct _FILE_STREAM_INFORMATION {
    ULONG NextEntryOffset;
    ULONG StreamNameLength;  // bytes
    LARGE_INTEGER StreamSize;
    LARGE_INTEGER StreamAllocationSize;
    WCHAR StreamName[1];     // ":name:$DATA", "::$DATA" for the default stream
} FILE_STREAM_INFORMATION, *PFILE_STREAM_INFORMATION;

typedef struct _FILE_VALID_DATA_LENGTH_INFORMATION {
    LARGE_INTEGER ValidDataLength;
} FILE_VALID_DATA_LENGTH_INFORMATION, *PFILE_VALID_DATA_LENGTH_INFORMATION;

// FileRenameInformation and FileRenameInformationEx share this record: the Ex class reads Flags,
// the plain class reads ReplaceIfExists.
#define FILE_RENAME_REPLACE_IF_EXISTS                    0x00000001
#define FILE_RENAME_POSIX_SEMANTICS                      0x00000002
#define FILE_RENAME_SUPPRESS_PIN_STATE_INHERITANCE       0x00000004
#define FILE_RENAME_SUPPRESS_STORAGE_RESERVE_INHERITANCE 0x00000008
#define FILE_RENAME_NO_INCREASE_AVAILABLE_SPACE          0x00000010
#define FILE_RENAME_NO_DECREASE_AVAILABLE_SPACE          0x00000020
#define FILE_RENAME_IGNORE_READONLY_ATTRIBUTE            0x00000040
#define FILE_RENAME_FORCE_RESIZE_TARGET_SR               0x00000080
#define FILE_RENAME_FORCE_RESIZE_SOURCE_SR               0x00000100

typedef struct _FILE_RENAME_INFORMATION {
    union {
        BOOLEAN ReplaceIfExists;
        ULONG Flags;
    };
    HANDLE RootDirectory;
    ULONG FileNameLength;  // bytes
    WCHAR FileName[1];
} FILE_RENAME_INFORMATION, *PFILE_RENAME_INFORMATION;

#define FILE_LINK_REPLACE_IF_EXISTS                      0x00000001
#define FILE_LINK_POSIX_SEMANTICS                        0x00000002
#define FILE_LINK_SUPPRESS_STORAGE_RESERVE_INHERITANCE   0x00000008
#define FILE_LINK_NO_INCREASE_AVAILABLE_SPACE            0x00000010
#define FILE_LINK_NO_DECREASE_AVAILABLE_SPACE            0x00000020
#define FILE_LINK_IGNORE_READONLY_ATTRIBUTE              0x00000040
#define FILE_LINK_FORCE_RESIZE_TARGET_SR                 0x00000080
#define FILE_LINK_FORCE_RESIZE_SOURCE_SR                 0x00000100

typedef struct _FILE_LINK_INFORMATION {
    union {
        BOOLEAN ReplaceIfExists;
        ULONG Flags;
    };
    HANDLE RootDirectory;
    ULONG FileNameLength;  // bytes
    WCHAR FileName[1];
} FILE_LINK_INFORMATION, *PFILE_LINK_INFORMATION;

typedef struct _FILE_DISPOSITION_INFORMATION {
    BOOLEAN DeleteFile;
} FILE_DISPOSITION_INFORMATION, *PFILE_DISPOSITION_INFORMATION;

#define FILE_DISPOSITION_DO_NOT_DELETE              0x00000000
#define FILE_DISPOSITION_DELETE                     0x00000001
#define FILE_DISPOSITION_POSIX_SEMANTICS            0x00000002
#define FILE_DISPOSITION_FORCE_IMAGE_SECTION_CHECK  0x00000004
#define FILE_DISPOSITION_ON_CLOSE                   0x00000008
#define FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE  0x00000010

typedef struct _FILE_DISPOSITION_INFORMATION_EX {
    ULONG Flags;
} FILE_DISPOSITION_INFORMATION_EX, *PFILE_DISPOSITION_INFORMATION_EX;

typedef struct _FILE_END_OF_FILE_INFORMATION {
    LARGE_INTEGER EndOfFile;
} FILE_END_OF_FILE_INFORMATION, *PFILE_END_OF_FILE_INFORMATION;

typedef struct _FILE_ALLOCATION_INFORMATION {
    LARGE_INTEGER AllocationSize;
} FILE_ALLOCATION_INFORMATION, *PFILE_ALLOCATION_INFORMATION;

// ---- extended attributes ----
#define FILE_NEED_EA 0x00000080

typedef struct _FILE_FULL_EA_INFORMATION {
    ULONG NextEntryOffset;
    UCHAR Flags;
    UCHAR EaNameLength;
    USHORT EaValueLength;
    CHAR EaName[1];  // name, its terminating zero, then the value
} FILE_FULL_EA_INFORMATION, *PFILE_FULL_EA_INFORMATION;

typedef struct _FILE_GET_EA_INFORMATION {
    ULONG NextEntryOffset;
    UCHAR EaNameLength;
    CHAR EaName[1];
} FILE_GET_EA_INFORMATION, *PFILE_GET_EA_INFORMATION;

// ---- directory enumeration records (each entry starts on an 8-byte boundary) ----
typedef struct _FILE_DIRECTORY_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_DIRECTORY_INFORMATION, *PFILE_DIRECTORY_INFORMATION;

typedef struct _FILE_FULL_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    WCHAR FileName[1];
} FILE_FULL_DIR_INFORMATION, *PFILE_FULL_DIR_INFORMATION;

typedef struct _FILE_BOTH_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    CCHAR ShortNameLength;  // bytes
    WCHAR ShortName[12];
    WCHAR FileName[1];
} FILE_BOTH_DIR_INFORMATION, *PFILE_BOTH_DIR_INFORMATION;

typedef struct _FILE_NAMES_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_NAMES_INFORMATION, *PFILE_NAMES_INFORMATION;

typedef struct _FILE_ID_BOTH_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    CCHAR ShortNameLength;
    WCHAR ShortName[12];
    LARGE_INTEGER FileId;
    WCHAR FileName[1];
} FILE_ID_BOTH_DIR_INFORMATION, *PFILE_ID_BOTH_DIR_INFORMATION;

typedef struct _FILE_ID_FULL_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    LARGE_INTEGER FileId;
    WCHAR FileName[1];
} FILE_ID_FULL_DIR_INFORMATION, *PFILE_ID_FULL_DIR_INFORMATION;

// ---- volume information records ----
typedef struct _FILE_FS_VOLUME_INFORMATION {
    LARGE_INTEGER VolumeCreationTime;
    ULONG VolumeSerialNumber;
    ULONG VolumeLabelLength;
    BOOLEAN SupportsObjects;
    WCHAR VolumeLabel[1];
} FILE_FS_VOLUME_INFORMATION, *PFILE_FS_VOLUME_INFORMATION;

typedef struct _FILE_FS_SIZE_INFORMATION {
    LARGE_INTEGER TotalAllocationUnits;
    LARGE_INTEGER AvailableAllocationUnits;
    ULONG SectorsPerAllocationUnit;
    ULONG BytesPerSector;
} FILE_FS_SIZE_INFORMATION, *PFILE_FS_SIZE_INFORMATION;

typedef struct _FILE_FS_DEVICE_INFORMATION {
    DEVICE_TYPE DeviceType;
    ULONG Characteristics;
} FILE_FS_DEVICE_INFORMATION, *PFILE_FS_DEVICE_INFORMATION;

#define FILE_CASE_SENSITIVE_SEARCH       0x00000001
#define FILE_CASE_PRESERVED_NAMES        0x00000002
#define FILE_UNICODE_ON_DISK             0x00000004
#define FILE_PERSISTENT_ACLS             0x00000008
#define FILE_FILE_COMPRESSION            0x00000010
#define FILE_VOLUME_QUOTAS               0x00000020
#define FILE_SUPPORTS_SPARSE_FILES       0x00000040
#define FILE_SUPPORTS_REPARSE_POINTS     0x00000080
#define FILE_SUPPORTS_REMOTE_STORAGE     0x00000100
#define FILE_VOLUME_IS_COMPRESSED        0x00008000
#define FILE_SUPPORTS_OBJECT_IDS         0x00010000
#define FILE_SUPPORTS_ENCRYPTION         0x00020000
#define FILE_NAMED_STREAMS               0x00040000
#define FILE_READ_ONLY_VOLUME            0x00080000
#define FILE_SUPPORTS_HARD_LINKS         0x00400000

typedef struct _FILE_FS_ATTRIBUTE_INFORMATION {
    ULONG FileSystemAttributes;
    LONG MaximumComponentNameLength;
    ULONG FileSystemNameLength;
    WCHAR FileSystemName[1];
} FILE_FS_ATTRIBUTE_INFORMATION, *PFILE_FS_ATTRIBUTE_INFORMATION;

// ---- published x64 layouts ----
static_assert(sizeof(FILE_BASIC_INFORMATION) == 40, "FILE_BASIC_INFORMATION");
static_assert(FIELD_OFFSET(FILE_BASIC_INFORMATION, LastAccessTime) == 8, "FILE_BASIC_INFORMATION");
static_assert(FIELD_OFFSET(FILE_BASIC_INFORMATION, LastWriteTime) == 16, "FILE_BASIC_INFORMATION");
static_assert(FIELD_OFFSET(FILE_BASIC_INFORMATION, ChangeTime) == 24, "FILE_BASIC_INFORMATION");
static_assert(FIELD_OFFSET(FILE_BASIC_INFORMATION, FileAttributes) == 32, "FILE_BASIC_INFORMATION");

static_assert(sizeof(FILE_STANDARD_INFORMATION) == 24, "FILE_STANDARD_INFORMATION");
static_assert(FIELD_OFFSET(FILE_STANDARD_INFORMATION, EndOfFile) == 8, "FILE_STANDARD_INFORMATION");
static_assert(FIELD_OFFSET(FILE_STANDARD_INFORMATION, NumberOfLinks) == 16, "FILE_STANDARD_INFORMATION");
static_assert(FIELD_OFFSET(FILE_STANDARD_INFORMATION, DeletePending) == 20, "FILE_STANDARD_INFORMATION");
static_assert(FIELD_OFFSET(FILE_STANDARD_INFORMATION, Directory) == 21, "FILE_STANDARD_INFORMATION");

static_assert(sizeof(FILE_ALL_INFORMATION) == 104, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, StandardInformation) == 40, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, InternalInformation) == 64, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, EaInformation) == 72, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, AccessInformation) == 76, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, PositionInformation) == 80, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, ModeInformation) == 88, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, AlignmentInformation) == 92, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation) == 96, "FILE_ALL_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation.FileName) == 100, "FILE_ALL_INFORMATION");

static_assert(sizeof(FILE_NETWORK_OPEN_INFORMATION) == 56, "FILE_NETWORK_OPEN_INFORMATION");
static_assert(FIELD_OFFSET(FILE_NETWORK_OPEN_INFORMATION, ChangeTime) == 24, "FILE_NETWORK_OPEN_INFORMATION");
static_assert(FIELD_OFFSET(FILE_NETWORK_OPEN_INFORMATION, AllocationSize) == 32, "FILE_NETWORK_OPEN_INFORMATION");
static_assert(FIELD_OFFSET(FILE_NETWORK_OPEN_INFORMATION, EndOfFile) == 40, "FILE_NETWORK_OPEN_INFORMATION");
static_assert(FIELD_OFFSET(FILE_NETWORK_OPEN_INFORMATION, FileAttributes) == 48, "FILE_NETWORK_OPEN_INFORMATION");

static_assert(FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamNameLength) == 4, "FILE_STREAM_INFORMATION");
static_assert(FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamSize) == 8, "FILE_STREAM_INFORMATION");
static_assert(FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamAllocationSize) == 16, "FILE_STREAM_INFORMATION");
static_assert(FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) == 24, "FILE_STREAM_INFORMATION");

static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileIndex) == 4, "FILE_DIRECTORY_INFORMATION");
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, CreationTime) == 8, "FILE_DIRECTORY_INFORMATION");
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, ChangeTime) == 32, "FILE_DIRECTORY_INFORMATION");
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, EndOfFile) == 40, "FILE_DIRECTORY_INFORMATION");
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, AllocationSize) == 48, "FILE_DIRECTORY_INFORMATION");
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileAttributes) == 56, "FILE_DIRECTORY_INFORMATION");
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileNameLength) == 60, "FILE_DIRECTORY_INFORMATION");
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName) == 64, "FILE_DIRECTORY_INFORMATION");

static_assert(FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileNameLength) == 60, "FILE_FULL_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, EaSize) == 64, "FILE_FULL_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName) == 68, "FILE_FULL_DIR_INFORMATION");

static_assert(FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, EaSize) == 64, "FILE_BOTH_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, ShortNameLength) == 68, "FILE_BOTH_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, ShortName) == 70, "FILE_BOTH_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName) == 94, "FILE_BOTH_DIR_INFORMATION");

static_assert(FIELD_OFFSET(FILE_NAMES_INFORMATION, FileIndex) == 4, "FILE_NAMES_INFORMATION");
static_assert(FIELD_OFFSET(FILE_NAMES_INFORMATION, FileNameLength) == 8, "FILE_NAMES_INFORMATION");
static_assert(FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName) == 12, "FILE_NAMES_INFORMATION");

static_assert(FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, EaSize) == 64, "FILE_ID_BOTH_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, ShortNameLength) == 68, "FILE_ID_BOTH_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, ShortName) == 70, "FILE_ID_BOTH_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileId) == 96, "FILE_ID_BOTH_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName) == 104, "FILE_ID_BOTH_DIR_INFORMATION");

static_assert(FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, EaSize) == 64, "FILE_ID_FULL_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileId) == 72, "FILE_ID_FULL_DIR_INFORMATION");
static_assert(FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName) == 80, "FILE_ID_FULL_DIR_INFORMATION");
// The size of each directory record with a one-character name: the I/O manager's minimum buffer.
static_assert(sizeof(FILE_DIRECTORY_INFORMATION) == 72, "FILE_DIRECTORY_INFORMATION");
static_assert(sizeof(FILE_FULL_DIR_INFORMATION) == 72, "FILE_FULL_DIR_INFORMATION");
static_assert(sizeof(FILE_BOTH_DIR_INFORMATION) == 96, "FILE_BOTH_DIR_INFORMATION");
static_assert(sizeof(FILE_NAMES_INFORMATION) == 16, "FILE_NAMES_INFORMATION");
static_assert(sizeof(FILE_ID_BOTH_DIR_INFORMATION) == 112, "FILE_ID_BOTH_DIR_INFORMATION");
static_assert(sizeof(FILE_ID_FULL_DIR_INFORMATION) == 88, "FILE_ID_FULL_DIR_INFORMATION");

static_assert(FIELD_OFFSET(FILE_RENAME_INFORMATION, RootDirectory) == 8, "FILE_RENAME_INFORMATION");
static_assert(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileNameLength) == 16, "FILE_RENAME_INFORMATION");
static_assert(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) == 20, "FILE_RENAME_INFORMATION");
static_assert(FIELD_OFFSET(FILE_LINK_INFORMATION, RootDirectory) == 8, "FILE_LINK_INFORMATION");
static_assert(FIELD_OFFSET(FILE_LINK_INFORMATION, FileNameLength) == 16, "FILE_LINK_INFORMATION");
static_assert(FIELD_OFFSET(FILE_LINK_INFORMATION, FileName) == 20, "FILE_LINK_INFORMATION");

static_assert(sizeof(FILE_DISPOSITION_INFORMATION) == 1, "FILE_DISPOSITION_INFORMATION");
static_assert(sizeof(FILE_DISPOSITION_INFORMATION_EX) == 4, "FILE_DISPOSITION_INFORMATION_EX");
static_assert(sizeof(FILE_END_OF_FILE_INFORMATION) == 8, "FILE_END_OF_FILE_INFORMATION");
static_assert(sizeof(FILE_ALLOCATION_INFORMATION) == 8, "FILE_ALLOCATION_INFORMATION");
static_assert(sizeof(FILE_INTERNAL_INFORMATION) == 8, "FILE_INTERNAL_INFORMATION");
static_assert(sizeof(FILE_ATTRIBUTE_TAG_INFORMATION) == 8, "FILE_ATTRIBUTE_TAG_INFORMATION");
static_assert(FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) == 4, "FILE_NAME_INFORMATION");
static_assert(FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) == 8, "FILE_FULL_EA_INFORMATION");
static_assert(FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName) == 5, "FILE_GET_EA_INFORMATION");

static_assert(REPARSE_DATA_BUFFER_HEADER_SIZE == 8, "REPARSE_DATA_BUFFER");
static_assert(FIELD_OFFSET(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) == 16, "REPARSE_DATA_BUFFER");
static_assert(FIELD_OFFSET(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer) == 20, "REPARSE_DATA_BUFFER");
