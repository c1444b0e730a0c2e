// The Filter Manager's interface to minifilters (the WDK's fltKernel.h): registration, the
// callback data of an operation, instances and volumes, names, and file I/O below a filter.
// Communication ports are declared with the port implementation.
//
// ntsim's Filter Manager (ntsim/io/) dispatches as Windows does: pre-operation callbacks from the
// highest altitude down, post-operation callbacks from the lowest up, in the caller's thread.
// All I/O is synchronous, so FLT_PREOP_SYNCHRONIZE behaves as FLT_PREOP_SUCCESS_WITH_CALLBACK;
// FLT_PREOP_PENDING and FLT_POSTOP_MORE_PROCESSING_REQUIRED are not supported and fail loudly.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include "fileinfo.h"
#include "ps.h"
#include "se.h"
#include "ex.h"
#include "io.h"

// ---- opaque Filter Manager objects ----
typedef struct _FLT_FILTER* PFLT_FILTER;
typedef struct _FLT_VOLUME* PFLT_VOLUME;
typedef struct _FLT_INSTANCE* PFLT_INSTANCE;
typedef struct _FLT_PORT* PFLT_PORT;
typedef PVOID PFLT_CONTEXT;
typedef struct _KTRANSACTION* PKTRANSACTION;

// ---- major codes of the operations that are not IRPs (fast I/O and file system filter) ----
#define IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION ((UCHAR)-1)
#define IRP_MJ_RELEASE_FOR_SECTION_SYNCHRONIZATION ((UCHAR)-2)
#define IRP_MJ_ACQUIRE_FOR_MOD_WRITE ((UCHAR)-3)
#define IRP_MJ_RELEASE_FOR_MOD_WRITE ((UCHAR)-4)
#define IRP_MJ_ACQUIRE_FOR_CC_FLUSH ((UCHAR)-5)
#define IRP_MJ_RELEASE_FOR_CC_FLUSH ((UCHAR)-6)
#define IRP_MJ_QUERY_OPEN ((UCHAR)-7)
#define IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE ((UCHAR)-13)
#define IRP_MJ_NETWORK_QUERY_OPEN ((UCHAR)-14)
#define IRP_MJ_MDL_READ ((UCHAR)-15)
#define IRP_MJ_MDL_READ_COMPLETE ((UCHAR)-16)
#define IRP_MJ_PREPARE_MDL_WRITE ((UCHAR)-17)
#define IRP_MJ_MDL_WRITE_COMPLETE ((UCHAR)-18)
#define IRP_MJ_VOLUME_MOUNT ((UCHAR)-19)
#define IRP_MJ_VOLUME_DISMOUNT ((UCHAR)-20)
#define IRP_MJ_OPERATION_END ((UCHAR)0x80)

// ---- callback results ----
typedef enum _FLT_PREOP_CALLBACK_STATUS {
    FLT_PREOP_SUCCESS_WITH_CALLBACK = 0,
    FLT_PREOP_SUCCESS_NO_CALLBACK = 1,
    FLT_PREOP_PENDING = 2,
    FLT_PREOP_DISALLOW_FASTIO = 3,
    FLT_PREOP_COMPLETE = 4,
    FLT_PREOP_SYNCHRONIZE = 5,
    FLT_PREOP_DISALLOW_FSFILTER_IO = 6,
} FLT_PREOP_CALLBACK_STATUS, *PFLT_PREOP_CALLBACK_STATUS;

typedef enum _FLT_POSTOP_CALLBACK_STATUS {
    FLT_POSTOP_FINISHED_PROCESSING = 0,
    FLT_POSTOP_MORE_PROCESSING_REQUIRED = 1,
    FLT_POSTOP_DISALLOW_FSFILTER_IO = 2,
} FLT_POSTOP_CALLBACK_STATUS, *PFLT_POSTOP_CALLBACK_STATUS;

// ---- file system types (instance setup) ----
typedef enum _FLT_FILESYSTEM_TYPE {
    FLT_FSTYPE_UNKNOWN = 0,
    FLT_FSTYPE_RAW = 1,
    FLT_FSTYPE_NTFS = 2,
    FLT_FSTYPE_FAT = 3,
    FLT_FSTYPE_CDFS = 4,
    FLT_FSTYPE_UDFS = 5,
    FLT_FSTYPE_LANMAN = 6,
    FLT_FSTYPE_WEBDAV = 7,
    FLT_FSTYPE_RDPDR = 8,
    FLT_FSTYPE_NFS = 9,
    FLT_FSTYPE_MS_NETWARE = 10,
    FLT_FSTYPE_NETWARE = 11,
    FLT_FSTYPE_BSUDF = 12,
    FLT_FSTYPE_MUP = 13,
    FLT_FSTYPE_RSFX = 14,
    FLT_FSTYPE_ROXIO_UDF1 = 15,
    FLT_FSTYPE_ROXIO_UDF2 = 16,
    FLT_FSTYPE_ROXIO_UDF3 = 17,
    FLT_FSTYPE_TACIT = 18,
    FLT_FSTYPE_FS_REC = 19,
    FLT_FSTYPE_INCD = 20,
    FLT_FSTYPE_INCD_FAT = 21,
    FLT_FSTYPE_EXFAT = 22,
    FLT_FSTYPE_PSFS = 23,
    FLT_FSTYPE_GPFS = 24,
    FLT_FSTYPE_NPFS = 25,
    FLT_FSTYPE_MSFS = 26,
    FLT_FSTYPE_CSVFS = 27,
    FLT_FSTYPE_REFS = 28,
    FLT_FSTYPE_OPENAFS = 29,
    FLT_FSTYPE_CIMFS = 30,
} FLT_FILESYSTEM_TYPE, *PFLT_FILESYSTEM_TYPE;

// ---- related objects of a callback ----
typedef struct _FLT_RELATED_OBJECTS {
    const USHORT Size;
    const USHORT TransactionContext;
    const PFLT_FILTER Filter;
    const PFLT_VOLUME Volume;
    const PFLT_INSTANCE Instance;
    const PFILE_OBJECT FileObject;
    const PKTRANSACTION Transaction;
} FLT_RELATED_OBJECTS, *PFLT_RELATED_OBJECTS;
typedef const struct _FLT_RELATED_OBJECTS* PCFLT_RELATED_OBJECTS;

// ---- operation parameters ----
typedef union _FLT_PARAMETERS {
    struct {
        PIO_SECURITY_CONTEXT SecurityContext;
        ULONG Options;  // disposition in the top 8 bits, create options in the low 24
        USHORT POINTER_ALIGNMENT FileAttributes;
        USHORT ShareAccess;
        ULONG POINTER_ALIGNMENT EaLength;
        PVOID EaBuffer;
        LARGE_INTEGER AllocationSize;
    } Create;

    struct {
        ULONG Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PVOID ReadBuffer;
        struct _MDL* MdlAddress;
    } Read;

    struct {
        ULONG Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PVOID WriteBuffer;
        struct _MDL* MdlAddress;
    } Write;

    struct {
        ULONG Length;
        FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
        PVOID InfoBuffer;
    } QueryFileInformation;

    struct {
        ULONG Length;
        FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
        PFILE_OBJECT ParentOfTarget;  // rename and link: the target's directory, opened for the call
        union {
            struct {
                BOOLEAN ReplaceIfExists;
                BOOLEAN AdvanceOnly;
            };
            ULONG ClusterCount;
            HANDLE DeleteHandle;
        };
        PVOID InfoBuffer;
    } SetFileInformation;

    struct {
        ULONG Length;
        PVOID EaList;
        ULONG EaListLength;
        ULONG POINTER_ALIGNMENT EaIndex;
        PVOID EaBuffer;
        struct _MDL* MdlAddress;
    } QueryEa;

    struct {
        ULONG Length;
        PVOID EaBuffer;
        struct _MDL* MdlAddress;
    } SetEa;

    union {
        struct {
            ULONG Length;
            PUNICODE_STRING FileName;  // the search pattern, or null
            FILE_INFORMATION_CLASS FileInformationClass;
            ULONG POINTER_ALIGNMENT FileIndex;
            PVOID DirectoryBuffer;
            struct _MDL* MdlAddress;
        } QueryDirectory;

        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT CompletionFilter;
            ULONG POINTER_ALIGNMENT Spare1;
            ULONG POINTER_ALIGNMENT Spare2;
            PVOID DirectoryBuffer;
            struct _MDL* MdlAddress;
        } NotifyDirectory;
    } DirectoryControl;

    struct {
        LARGE_INTEGER FileOffset;
        ULONG Length;
        ULONG POINTER_ALIGNMENT LockKey;
        BOOLEAN POINTER_ALIGNMENT CheckForReadOperation;
    } FastIoCheckIfPossible;

    struct {
        PIRP Irp;
        PFILE_NETWORK_OPEN_INFORMATION NetworkInformation;
    } NetworkQueryOpen;

    struct {
        PLARGE_INTEGER EndingOffset;
        PERESOURCE* ResourceToRelease;
    } AcquireForModifiedPageWriter;

    struct {
        PERESOURCE ResourceToRelease;
    } ReleaseForModifiedPageWriter;

    struct {
        PVOID Argument1;
        PVOID Argument2;
        PVOID Argument3;
        PVOID Argument4;
        PVOID Argument5;
        LARGE_INTEGER Argument6;
    } Others;
} FLT_PARAMETERS, *PFLT_PARAMETERS;

static_assert(FIELD_OFFSET(FLT_PARAMETERS, Create.Options) == 8, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, Create.FileAttributes) == 16, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, Create.ShareAccess) == 18, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, Create.EaLength) == 24, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, Create.AllocationSize) == 40, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, Write.ByteOffset) == 16, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, Write.WriteBuffer) == 24, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, QueryFileInformation.InfoBuffer) == 16, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, SetFileInformation.ParentOfTarget) == 16, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, SetFileInformation.ReplaceIfExists) == 24, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, SetFileInformation.InfoBuffer) == 32, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, DirectoryControl.QueryDirectory.FileName) == 8, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, DirectoryControl.QueryDirectory.FileIndex) == 24, "FLT_PARAMETERS");
static_assert(FIELD_OFFSET(FLT_PARAMETERS, DirectoryControl.QueryDirectory.DirectoryBuffer) == 32, "FLT_PARAMETERS");

// ---- the I/O parameter block and callback data ----
typedef struct _FLT_IO_PARAMETER_BLOCK {
    ULONG IrpFlags;         // IRP_NOCACHE, IRP_PAGING_IO, IRP_SYNCHRONOUS_PAGING_IO, ...
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR OperationFlags;   // SL_* of the stack location
    UCHAR Reserved;
    PFILE_OBJECT TargetFileObject;
    PFLT_INSTANCE TargetInstance;
    FLT_PARAMETERS Parameters;
} FLT_IO_PARAMETER_BLOCK, *PFLT_IO_PARAMETER_BLOCK;

typedef ULONG FLT_CALLBACK_DATA_FLAGS;
#define FLTFL_CALLBACK_DATA_REISSUE_MASK 0x0000FFFF
#define FLTFL_CALLBACK_DATA_IRP_OPERATION 0x00000001
#define FLTFL_CALLBACK_DATA_FAST_IO_OPERATION 0x00000002
#define FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION 0x00000004
#define FLTFL_CALLBACK_DATA_SYSTEM_BUFFER 0x00000008
#define FLTFL_CALLBACK_DATA_GENERATED_IO 0x00010000
#define FLTFL_CALLBACK_DATA_REISSUED_IO 0x00020000
#define FLTFL_CALLBACK_DATA_DRAINING_IO 0x00040000
#define FLTFL_CALLBACK_DATA_POST_OPERATION 0x00080000
#define FLTFL_CALLBACK_DATA_NEW_SYSTEM_BUFFER 0x00100000
#define FLTFL_CALLBACK_DATA_DIRTY 0x80000000

#define FLT_IS_IRP_OPERATION(Data) (((Data)->Flags & FLTFL_CALLBACK_DATA_IRP_OPERATION) != 0)
#define FLT_IS_FASTIO_OPERATION(Data) (((Data)->Flags & FLTFL_CALLBACK_DATA_FAST_IO_OPERATION) != 0)
#define FLT_IS_FS_FILTER_OPERATION(Data) (((Data)->Flags & FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION) != 0)
#define FLT_IS_SYSTEM_BUFFER(Data) (((Data)->Flags & FLTFL_CALLBACK_DATA_SYSTEM_BUFFER) != 0)

// The reparse point that a file system answered a create with (STATUS_REPARSE, the tag in
// IoStatus.Information), as post-create callbacks see it in FLT_CALLBACK_DATA::TagData: the
// layout of REPARSE_DATA_BUFFER, with the length of the name left after the reparse point.
typedef struct _FLT_TAG_DATA_BUFFER {
    ULONG FileTag;
    USHORT TagDataLength;
    USHORT UnparsedNameLength;
    union {
        struct {
            USHORT SubstituteNameOffset;
            USHORT SubstituteNameLength;
            USHORT PrintNameOffset;
            USHORT PrintNameLength;
            ULONG Flags;
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
        struct {
            GUID TagGuid;
            UCHAR DataBuffer[1];
        } GenericGUIDReparseBuffer;
    };
} FLT_TAG_DATA_BUFFER, *PFLT_TAG_DATA_BUFFER;

static_assert(FIELD_OFFSET(FLT_TAG_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) ==
                  FIELD_OFFSET(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer),
              "FLT_TAG_DATA_BUFFER");

typedef struct _FLT_CALLBACK_DATA {
    FLT_CALLBACK_DATA_FLAGS Flags;
    const PETHREAD Thread;  // the thread that issued the operation
    const PFLT_IO_PARAMETER_BLOCK Iopb;
    IO_STATUS_BLOCK IoStatus;
    PFLT_TAG_DATA_BUFFER TagData;  // a create answered with STATUS_REPARSE and a reparse point's tag
    union {
        struct {
            LIST_ENTRY QueueLinks;
            PVOID QueueContext[2];
        };
        PVOID FilterContext[4];
    };
    KPROCESSOR_MODE RequestorMode;
} FLT_CALLBACK_DATA, *PFLT_CALLBACK_DATA;

static_assert(FIELD_OFFSET(FLT_CALLBACK_DATA, Iopb) == 16, "FLT_CALLBACK_DATA");
static_assert(FIELD_OFFSET(FLT_CALLBACK_DATA, IoStatus) == 24, "FLT_CALLBACK_DATA");
static_assert(FIELD_OFFSET(FLT_CALLBACK_DATA, RequestorMode) == 80, "FLT_CALLBACK_DATA");

// ---- callbacks ----
typedef ULONG FLT_POST_OPERATION_FLAGS;
#define FLTFL_POST_OPERATION_DRAINING 0x00000001

typedef FLT_PREOP_CALLBACK_STATUS FLTAPI FLT_PRE_OPERATION_CALLBACK(PFLT_CALLBACK_DATA Data,
                                                                   PCFLT_RELATED_OBJECTS FltObjects,
                                                                   PVOID* CompletionContext);
typedef FLT_PRE_OPERATION_CALLBACK* PFLT_PRE_OPERATION_CALLBACK;

typedef FLT_POSTOP_CALLBACK_STATUS FLTAPI FLT_POST_OPERATION_CALLBACK(PFLT_CALLBACK_DATA Data,
                                                                     PCFLT_RELATED_OBJECTS FltObjects,
                                                                     PVOID CompletionContext,
                                                                     FLT_POST_OPERATION_FLAGS Flags);
typedef FLT_POST_OPERATION_CALLBACK* PFLT_POST_OPERATION_CALLBACK;

typedef ULONG FLT_FILTER_UNLOAD_FLAGS;
#define FLTFL_FILTER_UNLOAD_MANDATORY 0x00000001
typedef NTSTATUS FLTAPI FLT_FILTER_UNLOAD_CALLBACK(FLT_FILTER_UNLOAD_FLAGS Flags);
typedef FLT_FILTER_UNLOAD_CALLBACK* PFLT_FILTER_UNLOAD_CALLBACK;

typedef ULONG FLT_INSTANCE_SETUP_FLAGS;
#define FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT 0x00000001
#define FLTFL_INSTANCE_SETUP_MANUAL_ATTACHMENT 0x00000002
#define FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME 0x00000004
#define FLTFL_INSTANCE_SETUP_DETACHED_VOLUME 0x00000008
typedef NTSTATUS FLTAPI FLT_INSTANCE_SETUP_CALLBACK(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                                                   DEVICE_TYPE VolumeDeviceType,
                                                   FLT_FILESYSTEM_TYPE VolumeFilesystemType);
typedef FLT_INSTANCE_SETUP_CALLBACK* PFLT_INSTANCE_SETUP_CALLBACK;

typedef ULONG FLT_INSTANCE_QUERY_TEARDOWN_FLAGS;
typedef NTSTATUS FLTAPI FLT_INSTANCE_QUERY_TEARDOWN_CALLBACK(PCFLT_RELATED_OBJECTS FltObjects,
                                                            FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags);
typedef FLT_INSTANCE_QUERY_TEARDOWN_CALLBACK* PFLT_INSTANCE_QUERY_TEARDOWN_CALLBACK;

typedef ULONG FLT_INSTANCE_TEARDOWN_FLAGS;
#define FLTFL_INSTANCE_TEARDOWN_MANUAL 0x00000001
#define FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD 0x00000002
#define FLTFL_INSTANCE_TEARDOWN_MANDATORY_FILTER_UNLOAD 0x00000004
#define FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT 0x00000008
#define FLTFL_INSTANCE_TEARDOWN_INTERNAL_ERROR 0x00000010
typedef VOID FLTAPI FLT_INSTANCE_TEARDOWN_CALLBACK(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason);
typedef FLT_INSTANCE_TEARDOWN_CALLBACK* PFLT_INSTANCE_TEARDOWN_CALLBACK;

// Name provider and transaction callbacks: part of the registration record; ntsim refuses a
// registration that sets them (STATUS_NOT_IMPLEMENTED).
typedef struct _FLT_NAME_CONTROL* PFLT_NAME_CONTROL;
typedef ULONG FLT_FILE_NAME_OPTIONS;
typedef ULONG FLT_NORMALIZE_NAME_FLAGS, *PFLT_NORMALIZE_NAME_FLAGS;
typedef NTSTATUS FLTAPI FLT_GENERATE_FILE_NAME(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                              PFLT_CALLBACK_DATA CallbackData, FLT_FILE_NAME_OPTIONS NameOptions,
                                              PBOOLEAN CacheFileNameInformation, PFLT_NAME_CONTROL FileName);
typedef FLT_GENERATE_FILE_NAME* PFLT_GENERATE_FILE_NAME;
typedef NTSTATUS FLTAPI FLT_NORMALIZE_NAME_COMPONENT(PFLT_INSTANCE Instance, PCUNICODE_STRING ParentDirectory,
                                                    USHORT VolumeNameLength, PCUNICODE_STRING Component,
                                                    PVOID ExpandComponentName, ULONG ExpandComponentNameLength,
                                                    FLT_NORMALIZE_NAME_FLAGS Flags,
                                                    PVOID* NormalizationContext);
typedef FLT_NORMALIZE_NAME_COMPONENT* PFLT_NORMALIZE_NAME_COMPONENT;
typedef NTSTATUS FLTAPI FLT_NORMALIZE_NAME_COMPONENT_EX(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                                       PCUNICODE_STRING ParentDirectory, USHORT VolumeNameLength,
                                                       PCUNICODE_STRING Component, PVOID ExpandComponentName,
                                                       ULONG ExpandComponentNameLength,
                                                       FLT_NORMALIZE_NAME_FLAGS Flags, PVOID* NormalizationContext);
typedef FLT_NORMALIZE_NAME_COMPONENT_EX* PFLT_NORMALIZE_NAME_COMPONENT_EX;
typedef VOID FLTAPI FLT_NORMALIZE_CONTEXT_CLEANUP(PVOID* NormalizationContext);
typedef FLT_NORMALIZE_CONTEXT_CLEANUP* PFLT_NORMALIZE_CONTEXT_CLEANUP;
typedef NTSTATUS FLTAPI FLT_TRANSACTION_NOTIFICATION_CALLBACK(PCFLT_RELATED_OBJECTS FltObjects,
                                                             PFLT_CONTEXT TransactionContext,
                                                             ULONG NotificationMask);
typedef FLT_TRANSACTION_NOTIFICATION_CALLBACK* PFLT_TRANSACTION_NOTIFICATION_CALLBACK;

// ---- registration ----
typedef USHORT FLT_CONTEXT_TYPE;
typedef VOID FLTAPI FLT_CONTEXT_CLEANUP_CALLBACK(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType);
typedef FLT_CONTEXT_CLEANUP_CALLBACK* PFLT_CONTEXT_CLEANUP_CALLBACK;
typedef PVOID FLTAPI FLT_CONTEXT_ALLOCATE_CALLBACK(POOL_TYPE PoolType, SIZE_T Size, FLT_CONTEXT_TYPE ContextType);
typedef FLT_CONTEXT_ALLOCATE_CALLBACK* PFLT_CONTEXT_ALLOCATE_CALLBACK;
typedef VOID FLTAPI FLT_CONTEXT_FREE_CALLBACK(PVOID Pool, FLT_CONTEXT_TYPE ContextType);
typedef FLT_CONTEXT_FREE_CALLBACK* PFLT_CONTEXT_FREE_CALLBACK;

typedef struct _FLT_CONTEXT_REGISTRATION {
    FLT_CONTEXT_TYPE ContextType;
    USHORT Flags;
    PFLT_CONTEXT_CLEANUP_CALLBACK ContextCleanupCallback;
    SIZE_T Size;
    ULONG PoolTag;
    PFLT_CONTEXT_ALLOCATE_CALLBACK ContextAllocateCallback;
    PFLT_CONTEXT_FREE_CALLBACK ContextFreeCallback;
    PVOID Reserved1;
} FLT_CONTEXT_REGISTRATION, *PFLT_CONTEXT_REGISTRATION;
typedef const FLT_CONTEXT_REGISTRATION* PCFLT_CONTEXT_REGISTRATION;

typedef ULONG FLT_OPERATION_REGISTRATION_FLAGS;
#define FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO 0x00000001
#define FLTFL_OPERATION_REGISTRATION_SKIP_PAGING_IO 0x00000002
#define FLTFL_OPERATION_REGISTRATION_SKIP_NON_DASD_IO 0x00000004

typedef struct _FLT_OPERATION_REGISTRATION {
    UCHAR MajorFunction;
    FLT_OPERATION_REGISTRATION_FLAGS Flags;
    PFLT_PRE_OPERATION_CALLBACK PreOperation;
    PFLT_POST_OPERATION_CALLBACK PostOperation;
    PVOID Reserved1;
} FLT_OPERATION_REGISTRATION, *PFLT_OPERATION_REGISTRATION;

typedef ULONG FLT_REGISTRATION_FLAGS;
#define FLTFL_REGISTRATION_DO_NOT_SUPPORT_SERVICE_STOP 0x00000001
#define FLTFL_REGISTRATION_SUPPORT_NPFS_MSFS 0x00000002
#define FLTFL_REGISTRATION_SUPPORT_DAX_VOLUME 0x00000004

#define FLT_REGISTRATION_VERSION_0200 0x0200
#define FLT_REGISTRATION_VERSION_0201 0x0201
#define FLT_REGISTRATION_VERSION_0202 0x0202
#define FLT_REGISTRATION_VERSION FLT_REGISTRATION_VERSION_0202

typedef struct _FLT_REGISTRATION {
    USHORT Size;     // sizeof(FLT_REGISTRATION)
    USHORT Version;  // FLT_REGISTRATION_VERSION
    FLT_REGISTRATION_FLAGS Flags;
    const FLT_CONTEXT_REGISTRATION* ContextRegistration;
    const FLT_OPERATION_REGISTRATION* OperationRegistration;  // ends with IRP_MJ_OPERATION_END
    PFLT_FILTER_UNLOAD_CALLBACK FilterUnloadCallback;
    PFLT_INSTANCE_SETUP_CALLBACK InstanceSetupCallback;
    PFLT_INSTANCE_QUERY_TEARDOWN_CALLBACK InstanceQueryTeardownCallback;
    PFLT_INSTANCE_TEARDOWN_CALLBACK InstanceTeardownStartCallback;
    PFLT_INSTANCE_TEARDOWN_CALLBACK InstanceTeardownCompleteCallback;
    PFLT_GENERATE_FILE_NAME GenerateFileNameCallback;
    PFLT_NORMALIZE_NAME_COMPONENT NormalizeNameComponentCallback;
    PFLT_NORMALIZE_CONTEXT_CLEANUP NormalizeContextCleanupCallback;
    PFLT_TRANSACTION_NOTIFICATION_CALLBACK TransactionNotificationCallback;
    PFLT_NORMALIZE_NAME_COMPONENT_EX NormalizeNameComponentExCallback;
} FLT_REGISTRATION, *PFLT_REGISTRATION;

static_assert(sizeof(FLT_REGISTRATION) == 104, "FLT_REGISTRATION 0x0202");
static_assert(FIELD_OFFSET(FLT_REGISTRATION, OperationRegistration) == 16, "FLT_REGISTRATION");
static_assert(FIELD_OFFSET(FLT_REGISTRATION, FilterUnloadCallback) == 24, "FLT_REGISTRATION");
static_assert(sizeof(FLT_OPERATION_REGISTRATION) == 32, "FLT_OPERATION_REGISTRATION");

// ---- names ----
// Name format (one of) and query method (one of), plus flags.
#define FLT_FILE_NAME_NORMALIZED 0x01
#define FLT_FILE_NAME_OPENED 0x02
#define FLT_FILE_NAME_SHORT 0x03
#define FLT_VALID_FILE_NAME_FORMATS 0x000000ff
#define FLT_FILE_NAME_QUERY_DEFAULT 0x0100
#define FLT_FILE_NAME_QUERY_CACHE_ONLY 0x0200
#define FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY 0x0300
#define FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP 0x0400
#define FLT_VALID_FILE_NAME_QUERY_METHODS 0x0000ff00
#define FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER 0x01000000
#define FLT_FILE_NAME_DO_NOT_CACHE 0x02000000
#define FLT_FILE_NAME_ALLOW_QUERY_ON_REPARSE 0x04000000

typedef USHORT FLT_FILE_NAME_PARSED_FLAGS;
#define FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT 0x0001
#define FLTFL_FILE_NAME_PARSED_EXTENSION 0x0002
#define FLTFL_FILE_NAME_PARSED_STREAM 0x0004
#define FLTFL_FILE_NAME_PARSED_PARENT_DIR 0x0008

// Every string is a view into Name, which is "\Device\HarddiskVolume2\dir\file.txt:stream".
typedef struct _FLT_FILE_NAME_INFORMATION {
    USHORT Size;
    FLT_FILE_NAME_PARSED_FLAGS NamesParsed;
    FLT_FILE_NAME_OPTIONS Format;
    UNICODE_STRING Name;
    UNICODE_STRING Volume;          // "\Device\HarddiskVolume2"
    UNICODE_STRING Share;           // empty except on network volumes
    UNICODE_STRING Extension;       // after FltParseFileNameInformation: "txt"
    UNICODE_STRING Stream;          // ":stream", or empty
    UNICODE_STRING FinalComponent;  // "file.txt:stream"
    UNICODE_STRING ParentDir;       // "\dir\"
} FLT_FILE_NAME_INFORMATION, *PFLT_FILE_NAME_INFORMATION;
typedef const FLT_FILE_NAME_INFORMATION* PCFLT_FILE_NAME_INFORMATION;

// ---- I/O below a filter ----
typedef ULONG FLT_IO_OPERATION_FLAGS;
#define FLTFL_IO_OPERATION_NON_CACHED 0x00000001
#define FLTFL_IO_OPERATION_PAGING 0x00000002
#define FLTFL_IO_OPERATION_DO_NOT_UPDATE_BYTE_OFFSET 0x00000004
#define FLTFL_IO_OPERATION_SYNCHRONOUS_PAGING 0x00000008

typedef VOID FLTAPI FLT_COMPLETED_ASYNC_IO_CALLBACK(PFLT_CALLBACK_DATA CallbackData, PFLT_CONTEXT Context);
typedef FLT_COMPLETED_ASYNC_IO_CALLBACK* PFLT_COMPLETED_ASYNC_IO_CALLBACK;

// ---- port access (for the default security descriptor) ----
#define FLT_PORT_CONNECT 0x0001
#define FLT_PORT_ALL_ACCESS (FLT_PORT_CONNECT | STANDARD_RIGHTS_ALL)

// ---- routines ----
extern "C" {

// Registration and lifecycle. FltRegisterFilter takes the registration as it stands (it must
// stay valid while the filter is registered); FltStartFiltering attaches instances to the
// mounted volumes (instance setup decides); FltUnregisterFilter tears every instance down
// (query teardown is not asked: the unload is mandatory) and waits for nothing, as all I/O is
// synchronous. PASSIVE_LEVEL.
NTSTATUS FLTAPI FltRegisterFilter(PDRIVER_OBJECT Driver, const FLT_REGISTRATION* Registration, PFLT_FILTER* RetFilter);
NTSTATUS FLTAPI FltStartFiltering(PFLT_FILTER Filter);
VOID FLTAPI FltUnregisterFilter(PFLT_FILTER Filter);

// The dirty flag of a callback data: changed parameters reach the layers below only when it is
// set as the pre-callbacks finish. IoStatus needs no dirty flag.
VOID FLTAPI FltSetCallbackDataDirty(PFLT_CALLBACK_DATA Data);
VOID FLTAPI FltClearCallbackDataDirty(PFLT_CALLBACK_DATA Data);
BOOLEAN FLTAPI FltIsCallbackDataDirty(PFLT_CALLBACK_DATA Data);

// Locks the pages of an operation's buffer and describes them by an MDL in the parameters
// (Parameters.DirectoryControl.QueryDirectory.MdlAddress), so that a post-operation can reach the
// buffer through MmGetSystemAddressForMdlSafe in any context. The buffer is probed in the request's
// mode: a user-mode caller's buffer must be its own user memory, else the probe's status
// (STATUS_ACCESS_VIOLATION) is returned and nothing changes. The MDL belongs to the operation: the
// filters above see it in their post-operations, the file system writes through it, and the I/O
// manager unlocks and frees it when the operation completes. STATUS_SUCCESS without a new MDL when
// one is there already, or for a system buffer or an empty one. Directory control only (other
// operations report NOT_IMPLEMENTED). At or below APC_LEVEL.
NTSTATUS FLTAPI FltLockUserBuffer(PFLT_CALLBACK_DATA CallbackData);

// Whether the operation completes in the thread that issued it (so that a pre-callback may wait
// for its post-callback): TRUE for fast I/O and file system filter operations; for an IRP, TRUE for
// synchronous paging I/O (IRP_SYNCHRONOUS_PAGING_IO), FALSE for other paging I/O, and otherwise
// TRUE when IRP_SYNCHRONOUS_API is set or the file object was opened for synchronous I/O.
BOOLEAN FLTAPI FltIsOperationSynchronous(PFLT_CALLBACK_DATA CallbackData);

// Volume names: "\Device\HarddiskVolume2". With a null VolumeName, or one too short,
// STATUS_BUFFER_TOO_SMALL and *BufferSizeNeeded (if given) the size in bytes.
NTSTATUS FLTAPI FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName, PULONG BufferSizeNeeded);

// The volume by name: "\Device\HarddiskVolume2", "\??\C:", "\DosDevices\C:", "C:" (a trailing
// backslash is allowed). The caller drops the reference with FltObjectDereference.
NTSTATUS FLTAPI FltGetVolumeFromName(PFLT_FILTER Filter, PCUNICODE_STRING VolumeName, PFLT_VOLUME* RetVolume);
// The filter's instance on a volume (InstanceName null: the highest one). Referenced.
NTSTATUS FLTAPI FltGetVolumeInstanceFromName(PFLT_FILTER Filter, PFLT_VOLUME Volume, PCUNICODE_STRING InstanceName,
                                             PFLT_INSTANCE* RetInstance);
NTSTATUS FLTAPI FltGetVolumeFromInstance(PFLT_INSTANCE Instance, PFLT_VOLUME* RetVolume);
NTSTATUS FLTAPI FltGetFilterFromInstance(PFLT_INSTANCE Instance, PFLT_FILTER* RetFilter);
NTSTATUS FLTAPI FltObjectReference(PVOID FltObject);
VOID FLTAPI FltObjectDereference(PVOID FltObject);

// Name of the target of an operation. FLT_FILE_NAME_NORMALIZED gives the long-name form (short
// names expanded by the file system) and fails for a file that does not exist, except in a
// pre-create: there a last component that does not exist yet is kept as the caller gave it,
// behind its parent's normalized name (STATUS_OBJECT_PATH_NOT_FOUND when the parent does not
// exist). FLT_FILE_NAME_OPENED gives the name as opened. The result is referenced; release it
// with FltReleaseFileNameInformation. PASSIVE_LEVEL or APC_LEVEL.
NTSTATUS FLTAPI FltGetFileNameInformation(PFLT_CALLBACK_DATA CallbackData, FLT_FILE_NAME_OPTIONS NameOptions,
                                          PFLT_FILE_NAME_INFORMATION* FileNameInformation);
NTSTATUS FLTAPI FltGetFileNameInformationUnsafe(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance,
                                                FLT_FILE_NAME_OPTIONS NameOptions,
                                                PFLT_FILE_NAME_INFORMATION* FileNameInformation);
VOID FLTAPI FltReferenceFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);
VOID FLTAPI FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);
NTSTATUS FLTAPI FltParseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);

// Whether an open file object is of a directory.
NTSTATUS FLTAPI FltIsDirectory(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance, PBOOLEAN IsDirectory);

// A security descriptor that grants DesiredAccess to System and Administrators only.
NTSTATUS FLTAPI FltBuildDefaultSecurityDescriptor(PSECURITY_DESCRIPTOR* SecurityDescriptor, ACCESS_MASK DesiredAccess);
VOID FLTAPI FltFreeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor);

// Opens below a filter: with an Instance the open goes only to the instances below it and then
// to the file system (null Instance: from the top). Flags: IO_IGNORE_SHARE_ACCESS_CHECK skips the
// share check and records no share access. The handle is a kernel handle (OBJ_KERNEL_HANDLE
// required); close it with FltClose. *FileObject, if asked for, is referenced: drop it with
// ObDereferenceObject. The later cleanup and close of the file object go below Instance too.
NTSTATUS FLTAPI FltCreateFile(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                              ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                              ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                              ULONG EaLength, ULONG Flags);
NTSTATUS FLTAPI FltCreateFileEx(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                                PFILE_OBJECT* FileObject, ACCESS_MASK DesiredAccess,
                                POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                                ULONG Flags);
NTSTATUS FLTAPI FltClose(HANDLE FileHandle);

// From a post-operation callback that may run at DISPATCH_LEVEL: at APC_LEVEL or below, calls
// SafePostCallback at once and gives its result; above, queues it to a worker thread at
// PASSIVE_LEVEL and gives FLT_POSTOP_MORE_PROCESSING_REQUIRED, for the post-callback to return; the
// operation completes when SafePostCallback has returned. FALSE, with nothing called, for an
// operation that is not an IRP, for paging I/O and while draining.
BOOLEAN FLTAPI FltDoCompletionProcessingWhenSafe(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                 PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags,
                                                 PFLT_POST_OPERATION_CALLBACK SafePostCallback,
                                                 PFLT_POSTOP_CALLBACK_STATUS RetPostOperationStatus);

// From a post-create callback, before it sets a failure status on an open that the file system
// made: the instances below Instance and the file system see the cleanup of FileObject now and its
// close when its last reference goes (the instances above see only the failure). Nothing the open
// did is undone; a FILE_DELETE_ON_CLOSE open deletes the file at that cleanup. Sets
// FO_FILE_OPEN_CANCELLED. PASSIVE_LEVEL.
VOID FLTAPI FltCancelFileOpen(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject);

// Synchronous reads and writes below InitiatingInstance (CallbackRoutine must be null). A null
// ByteOffset uses the file object's position (synchronous file objects only). Flags:
// FLTFL_IO_OPERATION_NON_CACHED, _PAGING, _SYNCHRONOUS_PAGING, _DO_NOT_UPDATE_BYTE_OFFSET.
NTSTATUS FLTAPI FltReadFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                            ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesRead,
                            PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext);
NTSTATUS FLTAPI FltWriteFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                             ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesWritten,
                             PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext);
NTSTATUS FLTAPI FltQueryInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                        ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,
                                        PULONG LengthReturned);
NTSTATUS FLTAPI FltSetInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass);

}  // extern "C"
