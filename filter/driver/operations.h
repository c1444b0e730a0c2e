// The operation callbacks of the filter's operation table, and the instance callbacks.
//
// Every pre-operation callback runs in the caller's thread. Unless a callback says otherwise it
// runs at or below APC_LEVEL; post-operation callbacks may run at DISPATCH_LEVEL.
#pragma once

#include <fltKernel.h>

// ---- create ----
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreCreate(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostCreate(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                        PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// ---- read, fast I/O, cache flush, extended attributes ----
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreMaybeFastio(PFLT_CALLBACK_DATA Data,
                                                           PCFLT_RELATED_OBJECTS FltObjects,
                                                           PVOID* CompletionContext);
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreFastIoCheckIfPossible(PFLT_CALLBACK_DATA Data,
                                                                     PCFLT_RELATED_OBJECTS FltObjects,
                                                                     PVOID* CompletionContext);
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
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreQueryEa(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostQueryEa(PFLT_CALLBACK_DATA Data,
                                                         PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
                                                         FLT_POST_OPERATION_FLAGS Flags);

// ---- write ----
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreWrite(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostWrite(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// ---- cleanup and close ----
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreCleanup(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostCleanup(PFLT_CALLBACK_DATA Data,
                                                         PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
                                                         FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreClose(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostClose(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                       PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// ---- set and query information ----
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreSetInformation(PFLT_CALLBACK_DATA Data,
                                                              PCFLT_RELATED_OBJECTS FltObjects,
                                                              PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostSetInformation(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID CompletionContext,
                                                                FLT_POST_OPERATION_FLAGS Flags);
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

// ---- directory control ----
FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                                  PVOID CompletionContext,
                                                                  FLT_POST_OPERATION_FLAGS Flags);

// ---- instances ----
// STATUS_SUCCESS for NTFS volumes and the MUP device, STATUS_FLT_DO_NOT_ATTACH for anything else.
NTSTATUS FLTAPI FolderMerge_InstanceSetup(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                                         DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType);
// Always STATUS_SUCCESS: any instance may be detached by hand.
NTSTATUS FLTAPI FolderMerge_InstanceQueryTeardown(PCFLT_RELATED_OBJECTS FltObjects,
                                                 FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags);
// Teardown start and complete: nothing of the filter's state is per instance.
VOID FLTAPI FolderMerge_InstanceTeardown(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason);
