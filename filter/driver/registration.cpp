// The registration record and the operation table.
#include "registration.h"

#include "lifecycle.h"
#include "operations.h"

// Each operation is here once the filter does something with it; the others never reach it.
static const FLT_OPERATION_REGISTRATION g_OperationRegistration[] = {
    {.MajorFunction = IRP_MJ_CREATE,
     .Flags = 0,
     .PreOperation = FolderMerge_PreCreate,
     .PostOperation = FolderMerge_PostCreate},
    {.MajorFunction = IRP_MJ_READ, .Flags = 0, .PreOperation = FolderMerge_PreMaybeFastio, .PostOperation = nullptr},
    {.MajorFunction = IRP_MJ_CLEANUP,
     .Flags = 0,
     .PreOperation = FolderMerge_PreCleanup,
     .PostOperation = FolderMerge_PostCleanup},
    {.MajorFunction = IRP_MJ_CLOSE,
     .Flags = 0,
     .PreOperation = FolderMerge_PreClose,
     .PostOperation = FolderMerge_PostClose},
    {.MajorFunction = IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE,
     .Flags = 0,
     .PreOperation = FolderMerge_PreFastIoCheckIfPossible,
     .PostOperation = nullptr},
    {.MajorFunction = IRP_MJ_ACQUIRE_FOR_CC_FLUSH,
     .Flags = 0,
     .PreOperation = FolderMerge_PreAcquireCcFlush,
     .PostOperation = FolderMerge_PostAcquireCcFlush},
    {.MajorFunction = IRP_MJ_RELEASE_FOR_CC_FLUSH,
     .Flags = 0,
     .PreOperation = FolderMerge_PreReleaseCcFlush,
     .PostOperation = FolderMerge_PostReleaseCcFlush},
    {.MajorFunction = IRP_MJ_QUERY_EA,
     .Flags = 0,
     .PreOperation = FolderMerge_PreQueryEa,
     .PostOperation = FolderMerge_PostQueryEa},
    {.MajorFunction = IRP_MJ_OPERATION_END},
};

const FLT_REGISTRATION FilterRegistration = {
    .Size = sizeof(FLT_REGISTRATION),
    .Version = FLT_REGISTRATION_VERSION_0202,
    .Flags = 0,
    .ContextRegistration = nullptr,
    .OperationRegistration = g_OperationRegistration,
    .FilterUnloadCallback = FolderMerge_Unload,
    .InstanceSetupCallback = FolderMerge_InstanceSetup,
    .InstanceQueryTeardownCallback = FolderMerge_InstanceQueryTeardown,
    .InstanceTeardownStartCallback = FolderMerge_InstanceTeardown,
    .InstanceTeardownCompleteCallback = FolderMerge_InstanceTeardown,
    .GenerateFileNameCallback = nullptr,
    .NormalizeNameComponentCallback = nullptr,
    .NormalizeContextCleanupCallback = nullptr,
    .TransactionNotificationCallback = nullptr,
    .NormalizeNameComponentExCallback = nullptr,
};
