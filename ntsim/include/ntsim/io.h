// The I/O manager's interface (the WDK's wdm.h and ntifs.h): device, driver and file objects,
// the I/O status block, major and minor function codes, stack-location and IRP flags, and the
// native file API (Nt/Zw). Layouts are the x64 ones; the file object's offsets are pinned below.
//
// ntsim's I/O manager (ntsim/io/) implements the routines; the C++ control side that tests use
// (mounting volumes, loading filters, paging and fast I/O on demand) is ntsim/sim/iomanager.hpp.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include "fileinfo.h"  // FILE_INFORMATION_CLASS, records, access rights, create options, DEVICE_TYPE
#include "ke.h"        // KEVENT, KSPIN_LOCK
#include "ps.h"        // PETHREAD, PEPROCESS
#include "se.h"        // IO_SECURITY_CONTEXT, ACCESS_STATE
#include "ob.h"        // POBJECT_TYPE
#include "mm.h"        // MDL

#ifndef POINTER_ALIGNMENT
#define POINTER_ALIGNMENT __attribute__((aligned(8)))
#endif

struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _FILE_OBJECT;
struct _IRP;
struct _MDL;

typedef struct _IRP IRP, *PIRP;

// ---- I/O status ----
typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;
static_assert(sizeof(IO_STATUS_BLOCK) == 16, "IO_STATUS_BLOCK");

typedef VOID(NTAPI* PIO_APC_ROUTINE)(PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG Reserved);

// ---- object type codes (the Type field of I/O objects) ----
#define IO_TYPE_ADAPTER 1
#define IO_TYPE_CONTROLLER 2
#define IO_TYPE_DEVICE 3
#define IO_TYPE_DRIVER 4
#define IO_TYPE_FILE 5
#define IO_TYPE_IRP 6
#define IO_TYPE_VPB 10

// ---- volume parameter block ----
#define MAXIMUM_VOLUME_LABEL_LENGTH (32 * sizeof(WCHAR))

typedef struct _VPB {
    CSHORT Type;
    CSHORT Size;
    USHORT Flags;
    USHORT VolumeLabelLength;  // bytes
    struct _DEVICE_OBJECT* DeviceObject;  // the file system's volume device
    struct _DEVICE_OBJECT* RealDevice;    // the storage device
    ULONG SerialNumber;
    ULONG ReferenceCount;
    WCHAR VolumeLabel[MAXIMUM_VOLUME_LABEL_LENGTH / sizeof(WCHAR)];
} VPB, *PVPB;

#define VPB_MOUNTED 0x00000001
#define VPB_LOCKED 0x00000002

// ---- device objects ----
// The fields up to StackSize keep the WDK order; the rest of the WDK's record is not modelled.
typedef struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    struct _DRIVER_OBJECT* DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    struct _IRP* CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;  // FILE_REMOTE_DEVICE, FILE_READ_ONLY_DEVICE, ...
    PVPB Vpb;
    PVOID DeviceExtension;
    DEVICE_TYPE DeviceType;  // FILE_DEVICE_DISK_FILE_SYSTEM, FILE_DEVICE_NETWORK_FILE_SYSTEM, ...
    CCHAR StackSize;
} DEVICE_OBJECT, *PDEVICE_OBJECT;

#define DO_VERIFY_VOLUME 0x00000002
#define DO_BUFFERED_IO 0x00000004
#define DO_EXCLUSIVE 0x00000008
#define DO_DIRECT_IO 0x00000010
#define DO_DEVICE_HAS_NAME 0x00000040
#define DO_DEVICE_INITIALIZING 0x00000080

// ---- driver objects ----
typedef NTSTATUS DRIVER_INITIALIZE(struct _DRIVER_OBJECT* DriverObject, PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;
typedef VOID DRIVER_UNLOAD(struct _DRIVER_OBJECT* DriverObject);
typedef DRIVER_UNLOAD* PDRIVER_UNLOAD;
typedef NTSTATUS DRIVER_DISPATCH(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp);
typedef DRIVER_DISPATCH* PDRIVER_DISPATCH;

#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PVOID DriverExtension;
    UNICODE_STRING DriverName;  // "\FileSystem\<name>" or "\Driver\<name>"
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PVOID DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT, *PDRIVER_OBJECT;

// ---- file objects ----
typedef struct _SECTION_OBJECT_POINTERS {
    PVOID DataSectionObject;
    PVOID SharedCacheMap;
    PVOID ImageSectionObject;
} SECTION_OBJECT_POINTERS, *PSECTION_OBJECT_POINTERS;

typedef struct _IO_COMPLETION_CONTEXT {
    PVOID Port;
    PVOID Key;
} IO_COMPLETION_CONTEXT, *PIO_COMPLETION_CONTEXT;

typedef struct _FILE_OBJECT {
    CSHORT Type;  // IO_TYPE_FILE
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;  // the volume's device
    PVPB Vpb;
    PVOID FsContext;   // the file system's per-stream context
    PVOID FsContext2;  // the file system's per-open context (ntsim: the ntsim::VolumeOpen)
    PSECTION_OBJECT_POINTERS SectionObjectPointer;
    PVOID PrivateCacheMap;  // non-null once cached I/O has been set up on this open
    NTSTATUS FinalStatus;
    struct _FILE_OBJECT* RelatedFileObject;
    BOOLEAN LockOperation;
    BOOLEAN DeletePending;
    BOOLEAN ReadAccess;
    BOOLEAN WriteAccess;
    BOOLEAN DeleteAccess;
    BOOLEAN SharedRead;
    BOOLEAN SharedWrite;
    BOOLEAN SharedDelete;
    ULONG Flags;  // FO_*
    // The name as the opener gave it, after the device: "\dir\file" for "\??\C:\dir\file",
    // the relative name for an open relative to RelatedFileObject, empty for a volume open.
    // The buffer is pool memory that the I/O manager frees with ExFreePool when the file
    // object goes; a filter that replaces it before a STATUS_REPARSE hands its buffer over.
    UNICODE_STRING FileName;
    LARGE_INTEGER CurrentByteOffset;
    volatile ULONG Waiters;
    volatile ULONG Busy;
    PVOID LastLock;
    KEVENT Lock;   // ntsim's I/O is synchronous: nobody waits on these two
    KEVENT Event;
    volatile PIO_COMPLETION_CONTEXT CompletionContext;
    KSPIN_LOCK IrpListLock;
    LIST_ENTRY IrpList;
    volatile PVOID FileObjectExtension;
} FILE_OBJECT, *PFILE_OBJECT;

static_assert(FIELD_OFFSET(FILE_OBJECT, DeviceObject) == 0x08, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, FsContext) == 0x18, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, FsContext2) == 0x20, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, FinalStatus) == 0x38, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, RelatedFileObject) == 0x40, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, LockOperation) == 0x48, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, Flags) == 0x50, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, FileName) == 0x58, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, CurrentByteOffset) == 0x68, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, Lock) == 0x80, "FILE_OBJECT");
static_assert(FIELD_OFFSET(FILE_OBJECT, CompletionContext) == 0xB0, "FILE_OBJECT");
static_assert(sizeof(FILE_OBJECT) == 0xD8, "FILE_OBJECT");

// File object flags.
#define FO_FILE_OPEN 0x00000001
#define FO_SYNCHRONOUS_IO 0x00000002
#define FO_ALERTABLE_IO 0x00000004
#define FO_NO_INTERMEDIATE_BUFFERING 0x00000008
#define FO_WRITE_THROUGH 0x00000010
#define FO_SEQUENTIAL_ONLY 0x00000020
#define FO_CACHE_SUPPORTED 0x00000040
#define FO_NAMED_PIPE 0x00000080
#define FO_STREAM_FILE 0x00000100
#define FO_MAILSLOT 0x00000200
#define FO_GENERATE_AUDIT_ON_CLOSE 0x00000400
#define FO_QUEUE_IRP_TO_THREAD FO_GENERATE_AUDIT_ON_CLOSE
#define FO_DIRECT_DEVICE_OPEN 0x00000800
#define FO_FILE_MODIFIED 0x00001000
#define FO_FILE_SIZE_CHANGED 0x00002000
#define FO_CLEANUP_COMPLETE 0x00004000
#define FO_TEMPORARY_FILE 0x00008000
#define FO_DELETE_ON_CLOSE 0x00010000
#define FO_OPENED_CASE_SENSITIVE 0x00020000
#define FO_HANDLE_CREATED 0x00040000
#define FO_FILE_FAST_IO_READ 0x00080000
#define FO_RANDOM_ACCESS 0x00100000
#define FO_FILE_OPEN_CANCELLED 0x00200000
#define FO_VOLUME_OPEN 0x00400000
#define FO_REMOTE_ORIGIN 0x01000000
#define FO_DISALLOW_EXCLUSIVE 0x02000000
#define FO_SKIP_COMPLETION_PORT FO_DISALLOW_EXCLUSIVE
#define FO_SKIP_SET_EVENT 0x04000000
#define FO_SKIP_SET_FAST_IO 0x08000000

// ---- major and minor function codes ----
#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CREATE_NAMED_PIPE 0x01
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_QUERY_INFORMATION 0x05
#define IRP_MJ_SET_INFORMATION 0x06
#define IRP_MJ_QUERY_EA 0x07
#define IRP_MJ_SET_EA 0x08
#define IRP_MJ_FLUSH_BUFFERS 0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION 0x0b
#define IRP_MJ_DIRECTORY_CONTROL 0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL 0x0d
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_SHUTDOWN 0x10
#define IRP_MJ_LOCK_CONTROL 0x11
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_CREATE_MAILSLOT 0x13
#define IRP_MJ_QUERY_SECURITY 0x14
#define IRP_MJ_SET_SECURITY 0x15
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_DEVICE_CHANGE 0x18
#define IRP_MJ_QUERY_QUOTA 0x19
#define IRP_MJ_SET_QUOTA 0x1a
#define IRP_MJ_PNP 0x1b

#define IRP_MN_QUERY_DIRECTORY 0x01
#define IRP_MN_NOTIFY_CHANGE_DIRECTORY 0x02
#define IRP_MN_NORMAL 0x00
#define IRP_MN_DPC 0x01
#define IRP_MN_MDL 0x02
#define IRP_MN_COMPLETE 0x04
#define IRP_MN_COMPRESSED 0x08

// ---- stack location flags ----
#define SL_PENDING_RETURNED 0x01
#define SL_ERROR_RETURNED 0x02
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

// Create.
#define SL_FORCE_ACCESS_CHECK 0x01
#define SL_OPEN_PAGING_FILE 0x02
#define SL_OPEN_TARGET_DIRECTORY 0x04
#define SL_STOP_ON_SYMLINK 0x08
#define SL_CASE_SENSITIVE 0x80

// Read and write.
#define SL_KEY_SPECIFIED 0x01
#define SL_OVERRIDE_VERIFY_VOLUME 0x02
#define SL_WRITE_THROUGH 0x04
#define SL_FT_SEQUENTIAL_WRITE 0x08
#define SL_FORCE_DIRECT_WRITE 0x10

// Directory control and query EA.
#define SL_RESTART_SCAN 0x01
#define SL_RETURN_SINGLE_ENTRY 0x02
#define SL_INDEX_SPECIFIED 0x04
#define SL_WATCH_TREE 0x01

// ---- IRP flags ----
#define IRP_NOCACHE 0x00000001
#define IRP_PAGING_IO 0x00000002
#define IRP_MOUNT_COMPLETION 0x00000002
#define IRP_SYNCHRONOUS_API 0x00000004
#define IRP_ASSOCIATED_IRP 0x00000008
#define IRP_BUFFERED_IO 0x00000010
#define IRP_DEALLOCATE_BUFFER 0x00000020
#define IRP_INPUT_OPERATION 0x00000040
#define IRP_SYNCHRONOUS_PAGING_IO 0x00000040
#define IRP_CREATE_OPERATION 0x00000080
#define IRP_READ_OPERATION 0x00000100
#define IRP_WRITE_OPERATION 0x00000200
#define IRP_CLOSE_OPERATION 0x00000400
#define IRP_DEFER_IO_COMPLETION 0x00000800
#define IRP_OB_QUERY_NAME 0x00001000
#define IRP_HOLD_DEVICE_QUEUE 0x00002000

// ---- create: reparse and option flags ----
#define IO_REPARSE 0x0
#define IO_REMOUNT 0x1
#define IO_REPARSE_GLOBAL 0x2

// Flags of IoCreateFileEx / FltCreateFileEx.
#define IO_FORCE_ACCESS_CHECK 0x0001
#define IO_OPEN_PAGING_FILE 0x0002
#define IO_OPEN_TARGET_DIRECTORY 0x0004
#define IO_STOP_ON_SYMLINK 0x0008
#define IO_MOUNT_POINT_REPARSE 0x0010
#define IO_NO_PARAMETER_CHECKING 0x0100
#define IO_IGNORE_SHARE_ACCESS_CHECK 0x0800

// NtReadFile / NtWriteFile: ByteOffset values that name the file object's position.
#define FILE_WRITE_TO_END_OF_FILE 0xffffffff
#define FILE_USE_FILE_POINTER_POSITION 0xfffffffe

// The object type of file objects, for ObReferenceObjectByHandle.
extern "C" POBJECT_TYPE* IoFileObjectType;

extern "C" {

// ---- the native file API ----
// Nt* run with the calling thread's previous mode; Zw* run as kernel-mode callers (previous
// mode KernelMode for the call). Handles are closed with NtClose/ZwClose (object manager).
// All I/O is synchronous: the call returns when the operation is complete, Event, ApcRoutine
// and ApcContext must be null (ntsim has no asynchronous completion), and *IoStatusBlock holds
// the final status and information.

NTSYSAPI NTSTATUS NTAPI NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                     PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                                     ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                     ULONG EaLength);
NTSYSAPI NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                     PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                                     ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                     ULONG EaLength);

// NtCreateFile with FILE_OPEN and no attributes, allocation size or EAs.
NTSYSAPI NTSTATUS NTAPI NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                   PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions);
NTSYSAPI NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                   PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions);

// ByteOffset null (or FILE_USE_FILE_POINTER_POSITION) uses and advances the file object's
// CurrentByteOffset, which needs a file opened for synchronous I/O. A cached read or write on a
// file object whose cache is set up (PrivateCacheMap) tries fast I/O first, and comes as an IRP
// when the fast path is refused. The IRP carries IRP_NOCACHE when the file was opened with
// FILE_NO_INTERMEDIATE_BUFFERING (such I/O never goes fast), and IRP_SYNCHRONOUS_API when it was
// opened for synchronous I/O.
NTSYSAPI NTSTATUS NTAPI NtReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                   PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                   PLARGE_INTEGER ByteOffset, PULONG Key);
NTSYSAPI NTSTATUS NTAPI ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                   PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                   PLARGE_INTEGER ByteOffset, PULONG Key);
NTSYSAPI NTSTATUS NTAPI NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                    PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                    PLARGE_INTEGER ByteOffset, PULONG Key);
NTSYSAPI NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                    PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                    PLARGE_INTEGER ByteOffset, PULONG Key);

// Buffered I/O, as on Windows: the operation fills a system buffer, and the first
// IoStatusBlock->Information bytes of it are copied to FileInformation unless the status is an
// error. A filter that completes a query itself must set Information to what it wrote.
NTSYSAPI NTSTATUS NTAPI NtQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                               PVOID FileInformation, ULONG Length,
                                               FILE_INFORMATION_CLASS FileInformationClass);
NTSYSAPI NTSTATUS NTAPI ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                               PVOID FileInformation, ULONG Length,
                                               FILE_INFORMATION_CLASS FileInformationClass);

// FilePositionInformation is kept by the I/O manager. A buffer shorter than its class's fixed part
// fails with STATUS_INFO_LENGTH_MISMATCH, and a handle without the class's access (DELETE for a
// rename or a disposition, FILE_WRITE_DATA for a size, FILE_WRITE_ATTRIBUTES for basic
// information; none for a hard link) with STATUS_ACCESS_DENIED, before any filter sees the request.
// A rename or link (and their Ex forms) to a full path, or relative to RootDirectory, opens the
// target's directory (SL_OPEN_TARGET_DIRECTORY) through the stack first, and hands it to the
// operation as ParentOfTarget; a bare name is in the source's own directory, ParentOfTarget null.
NTSYSAPI NTSTATUS NTAPI NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                             PVOID FileInformation, ULONG Length,
                                             FILE_INFORMATION_CLASS FileInformationClass);
NTSYSAPI NTSTATUS NTAPI ZwSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                             PVOID FileInformation, ULONG Length,
                                             FILE_INFORMATION_CLASS FileInformationClass);

// Directory queries. Before any filter sees one, the I/O manager refuses a class that is no
// directory class (STATUS_INVALID_INFO_CLASS) and a buffer shorter than the class's record with a
// one-character name (STATUS_INFO_LENGTH_MISMATCH), and for a user-mode caller probes the buffer for
// writing (the probe's exception status). The buffer is not copied: the file system, and a filter's
// post-operation, write the records at the caller's own address (DirectoryBuffer), or through the
// system's view of an MDL when one describes it (MdlAddress: FltLockUserBuffer makes one).
// FILE_QUERY_INDEX_SPECIFIED is refused (STATUS_INVALID_PARAMETER): only a driver's own request
// names an index.
NTSYSAPI NTSTATUS NTAPI NtQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                             PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock,
                                             PVOID FileInformation, ULONG Length,
                                             FILE_INFORMATION_CLASS FileInformationClass,
                                             BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                                             BOOLEAN RestartScan);
NTSYSAPI NTSTATUS NTAPI ZwQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                             PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock,
                                             PVOID FileInformation, ULONG Length,
                                             FILE_INFORMATION_CLASS FileInformationClass,
                                             BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                                             BOOLEAN RestartScan);

// QueryFlags of NtQueryDirectoryFileEx.
#define FILE_QUERY_RESTART_SCAN 0x00000001
#define FILE_QUERY_RETURN_SINGLE_ENTRY 0x00000002
#define FILE_QUERY_INDEX_SPECIFIED 0x00000004
#define FILE_QUERY_RETURN_ON_DISK_ENTRIES_ONLY 0x00000008

NTSYSAPI NTSTATUS NTAPI NtQueryDirectoryFileEx(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                               PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock,
                                               PVOID FileInformation, ULONG Length,
                                               FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags,
                                               PUNICODE_STRING FileName);
NTSYSAPI NTSTATUS NTAPI ZwQueryDirectoryFileEx(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                               PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock,
                                               PVOID FileInformation, ULONG Length,
                                               FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags,
                                               PUNICODE_STRING FileName);

// Change notification (IRP_MN_NOTIFY_CHANGE_DIRECTORY) is not modelled: these report
// NOT_IMPLEMENTED by name.
#define FILE_NOTIFY_CHANGE_FILE_NAME 0x00000001
#define FILE_NOTIFY_CHANGE_DIR_NAME 0x00000002
#define FILE_NOTIFY_CHANGE_ATTRIBUTES 0x00000004
#define FILE_NOTIFY_CHANGE_SIZE 0x00000008
#define FILE_NOTIFY_CHANGE_LAST_WRITE 0x00000010
#define FILE_NOTIFY_CHANGE_LAST_ACCESS 0x00000020
#define FILE_NOTIFY_CHANGE_CREATION 0x00000040
#define FILE_NOTIFY_CHANGE_SECURITY 0x00000100
NTSYSAPI NTSTATUS NTAPI NtNotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                                    PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                                                    ULONG Length, ULONG CompletionFilter, BOOLEAN WatchTree);
NTSYSAPI NTSTATUS NTAPI ZwNotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                                    PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                                                    ULONG Length, ULONG CompletionFilter, BOOLEAN WatchTree);

NTSYSAPI NTSTATUS NTAPI NtQueryEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                      BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex,
                                      BOOLEAN RestartScan);
NTSYSAPI NTSTATUS NTAPI ZwQueryEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                      BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex,
                                      BOOLEAN RestartScan);

// IRP_MJ_FLUSH_BUFFERS; the file system's flush of cached data (the write-back of dirty pages as
// synchronous paging writes) runs between the acquire and the release for a cache flush, which
// filters see as IRP_MJ_ACQUIRE_FOR_CC_FLUSH and IRP_MJ_RELEASE_FOR_CC_FLUSH.
NTSYSAPI NTSTATUS NTAPI NtFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);
NTSYSAPI NTSTATUS NTAPI ZwFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);

// An open for DELETE with FILE_OPEN, FILE_DELETE_ON_CLOSE and all sharing, through every filter,
// then its cleanup and close.
NTSYSAPI NTSTATUS NTAPI NtDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes);
NTSYSAPI NTSTATUS NTAPI ZwDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes);

// Tries IRP_MJ_NETWORK_QUERY_OPEN as fast I/O first, on a file object that lives only for the
// call. If that is refused, falls back to an ordinary open for FILE_READ_ATTRIBUTES, a query of
// FileNetworkOpenInformation, cleanup and close.
NTSYSAPI NTSTATUS NTAPI NtQueryFullAttributesFile(POBJECT_ATTRIBUTES ObjectAttributes,
                                                  PFILE_NETWORK_OPEN_INFORMATION FileInformation);
NTSYSAPI NTSTATUS NTAPI ZwQueryFullAttributesFile(POBJECT_ATTRIBUTES ObjectAttributes,
                                                  PFILE_NETWORK_OPEN_INFORMATION FileInformation);

// ---- kernel I/O routines ----
// The device a request on this file object goes to: the volume's device.
NTKERNELAPI PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject);

// An MDL for [VirtualAddress, VirtualAddress + Length), from non-paged pool, its pages not yet
// locked; null when the pool refuses it or the buffer spans too many pages for one MDL. ntsim has
// no IRPs to attach it to: Irp must be null. At or below DISPATCH_LEVEL.
NTKERNELAPI PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                               PIRP Irp);
// Frees an MDL that IoAllocateMdl made. Its pages must be unlocked first (MmUnlockPages).
NTKERNELAPI VOID IoFreeMdl(PMDL Mdl);

}  // extern "C"
