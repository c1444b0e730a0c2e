// The operation callbacks of the filter's operation table, and the instance callbacks.
//
// Every pre-operation callback runs in the caller's thread at or below APC_LEVEL. A post-operation
// callback may run at DISPATCH_LEVEL in any thread, unless its pre-callback synchronized; the
// post-create runs at PASSIVE_LEVEL in the thread of the open, and the post-callbacks of cleanup,
// close and set information (but one, which says so) there too, since their pre-callbacks
// synchronize.
#pragma once

#include <fltKernel.h>

// ---- create ----
// The open gate: leaves an open alone (FLT_PREOP_SUCCESS_NO_CALLBACK), refuses it
// (FLT_PREOP_COMPLETE), or asks the service for a managed file's content and hands the file
// object's new record to the post-create (FLT_PREOP_SUCCESS_WITH_CALLBACK).
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreCreate(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID* CompletionContext);
// Keeps the record of a successful open, with bDirectory and, for a file that the open superseded,
// created or overwrote, a notice to the service and ON_CLOSE_UPLOAD; drops the record of a failed
// open, of a rename's target directory, and of an open drained from a detaching instance. Always
// FLT_POSTOP_FINISHED_PROCESSING.
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostCreate(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                        PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// ---- read, fast I/O, cache flush, extended attributes ----
// A file object with a valid record is seen through IRPs only: the fast path of its reads and EA
// queries is refused (FLT_PREOP_DISALLOW_FASTIO), and an IRP read passes
// (FLT_PREOP_SUCCESS_NO_CALLBACK); the fast I/O check is refused for every file.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreMaybeFastio(PFLT_CALLBACK_DATA Data,
                                                           PCFLT_RELATED_OBJECTS FltObjects,
                                                           PVOID* CompletionContext);
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreFastIoCheckIfPossible(PFLT_CALLBACK_DATA Data,
                                                                     PCFLT_RELATED_OBJECTS FltObjects,
                                                                     PVOID* CompletionContext);
// A user-mode flush of a managed file object without a valid record gets a record for the flush
// (the acquire hands it to its post-callback), which a failed acquire or the release expires; the
// acquire of a read-only merge folder's flush is refused (FLT_PREOP_COMPLETE, STATUS_ACCESS_DENIED).
// The release hands any valid record to its post-callback. Post-callbacks run in the flushing
// thread and always return FLT_POSTOP_FINISHED_PROCESSING.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreAcquireCcFlush(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostAcquireCcFlush(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreReleaseCcFlush(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostReleaseCcFlush(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags);
// An EA query of a file object with a valid record is traced before and after and comes as an IRP.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreQueryEa(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostQueryEa(PFLT_CALLBACK_DATA Data,
                                                         PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
                                                         FLT_POST_OPERATION_FLAGS Flags);

// ---- cleanup and close ----
// The pre-callbacks hand the file object's record (cleanup: its valid one; close: any) to their
// post-callbacks with FLT_PREOP_SYNCHRONIZE, or return FLT_PREOP_SUCCESS_NO_CALLBACK when it has
// none. PostCleanup reports a deletion, or saves the block map and asks for the upload, tells the
// service that the file is unlocked when no live open holds the lock, and invalidates the record;
// PostClose frees every record of the file object. Both always FLT_POSTOP_FINISHED_PROCESSING.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreCleanup(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostCleanup(PFLT_CALLBACK_DATA Data,
                                                         PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
                                                         FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreClose(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostClose(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// ---- directory control ----
// A query of a directory with a record: the pre-callback keeps the enumeration's first pattern, locks
// the caller's buffer and hands the record to the post-callback (FLT_PREOP_SUCCESS_WITH_CALLBACK);
// anything else, change notifications included, FLT_PREOP_SUCCESS_NO_CALLBACK. Once the file system
// has nothing left, the post-callback appends the service's listing of the directory, where that is
// safe (FltDoCompletionProcessingWhenSafe above APC_LEVEL); the outcome is in Data->IoStatus alone.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                                  PVOID CompletionContext,
                                                                  FLT_POST_OPERATION_FLAGS Flags);

// ---- write ----
// A caller's cached write to a followed file: the pre-callback refuses its fast form
// (FLT_PREOP_DISALLOW_FASTIO), cancels a held-back upload, notifies the service at most once a
// second and marks the signature, then hands the record on (FLT_PREOP_SUCCESS_WITH_CALLBACK); every
// other write gets FLT_PREOP_SUCCESS_NO_CALLBACK. The post-callback, at up to DISPATCH_LEVEL, marks a
// successful write for upload and its range dirty. Always FLT_POSTOP_FINISHED_PROCESSING.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreWrite(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostWrite(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// ---- set information ----
// Renames, links, dispositions, size and basic information of followed files, and renames and links
// into managed folders of files that aren't followed: the pre-callback refuses (FLT_PREOP_COMPLETE)
// or asks the service what it must know first and hands the record on (FLT_PREOP_SYNCHRONIZE; for
// a record made for a rename into a managed folder, FLT_PREOP_SUCCESS_WITH_CALLBACK). The
// post-callback tells the service and sets what cleanup must do; it moves the unsynchronized
// rename's work to PASSIVE_LEVEL.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreSetInformation(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostSetInformation(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags);

// ---- query information ----
// PreQueryInformation answers the basic, standard, all and network-open queries of a redirected
// file's valid record from the service (FLT_PREOP_COMPLETE), hands the record of a stream listing to
// its post-callback (FLT_PREOP_SUCCESS_WITH_CALLBACK), and lets everything else pass.
// PostQueryInformation takes the system's streams out of that listing, at a safe IRQL.
// PreNetworkQueryInformation refuses the fast form of a managed path's network query open
// (FLT_PREOP_DISALLOW_FASTIO) and lets everything else pass.
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                                  PVOID CompletionContext,
                                                                  FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreNetworkQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                       PCFLT_RELATED_OBJECTS FltObjects,
                                                                       PVOID* CompletionContext);

// ---- instances ----
// STATUS_SUCCESS for NTFS volumes and the MUP device, STATUS_FLT_DO_NOT_ATTACH for anything else.
NTSTATUS FLTAPI FolderMerge_InstanceSetup(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                                         DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType);
// Always STATUS_SUCCESS: any instance may be detached by hand.
NTSTATUS FLTAPI FolderMerge_InstanceQueryTeardown(PCFLT_RELATED_OBJECTS FltObjects,
                                                 FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags);
// Teardown start and complete: nothing of the filter's state is per instance.
VOID FLTAPI FolderMerge_InstanceTeardown(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason);
