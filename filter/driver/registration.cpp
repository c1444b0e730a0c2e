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
    {.MajorFunction = IRP_MJ_CLEANUP,
     .Flags = 0,
     .PreOperation = FolderMerge_PreCleanup,
     .PostOperation = FolderMerge_PostCleanup},
    {.MajorFunction = IRP_MJ_CLOSE,
     .Flags = 0,
     .PreOperation = FolderMerge_PreClose,
     .PostOperation = FolderMerge_PostClose},
    {.MajorFunction = IRP_MJ_DIRECTORY_CONTROL,
     .Flags = 0,
     .PreOperation = FolderMerge_PreDirectoryControl,
     .PostOperation = FolderMerge_PostDirectoryControl},
    {.MajorFunction = IRP_MJ_WRITE,
     .Flags = 0,
     .PreOperation = FolderMerge_PreWrite,
     .PostOperation = FolderMerge_PostWrite},
    {.MajorFunction = IRP_MJ_SET_INFORMATION,
     .Flags = 0,
     .PreOperation = FolderMerge_PreSetInformation,
     .PostOperation = FolderMerge_PostSetInformation},
    {.MajorFunction = IRP_MJ_QUERY_INFORMATION,
     .Flags = 0,
     .PreOperation = FolderMerge_PreQueryInformation,
     .PostOperation = FolderMerge_PostQueryInformation},
    {.MajorFunction = IRP_MJ_NETWORK_QUERY_OPEN,
     .Flags = 0,
     .PreOperation = FolderMerge_PreNetworkQueryInformation,
     .PostOperation = nullptr},
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
