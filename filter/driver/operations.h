// The operation callbacks of the filter's operation table, and the instance callbacks.
//
// Every pre-operation callback runs in the caller's thread at or below APC_LEVEL. A post-operation
// callback may run at DISPATCH_LEVEL in any thread, unless its pre-callback synchronized; the
// post-create runs at PASSIVE_LEVEL in the thread of the open, and the post-callbacks of cleanup
// and close there too, since their pre-callbacks synchronize.
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
