// DriverEntry, FolderMerge_Unload, the instance callbacks and the global state.
#include "lifecycle.h"

#include "configuration.h"
#include "context.h"
#include "dirtyblocktracking.h"
#include "globals.h"
#include "locks.h"
#include "operations.h"
#include "loopback.h"
#include "ownedstring.h"
#include "ports.h"
#include "registration.h"
#include "streamnames.h"
#include "trace.h"
#include "traceprovider.h"
#include "user.h"

ServiceData g_ServiceData;
volatile UCHAR g_PassThrough;
LIST_ENTRY g_UserList;

PERESOURCE g_ConfigLock;
PERESOURCE g_ContextLock;
PERESOURCE g_DirtyBlockLock;
PERESOURCE g_MupLock;
PERESOURCE g_UserListLock;
PERESOURCE g_TraceLock;

// Allocates (g_PoolType) and initialises one lock into *ppLock. *ppLock stays null on failure.
static NTSTATUS MakeLock(PERESOURCE* ppLock)
{
    PERESOURCE pLock = (PERESOURCE)AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(ERESOURCE));
    if (pLock == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = ExInitializeResourceLite(pLock);
    if (!NT_SUCCESS(status)) {
        FreeBuffer(pLock);
        return status;
    }
    *ppLock = pLock;
    return STATUS_SUCCESS;
}

NTSTATUS DeleteDriverLock(PERESOURCE* ppLock)
{
    if (*ppLock == nullptr) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = ExDeleteResourceLite(*ppLock);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FreeBufferAndClear((PVOID*)ppLock);
    return STATUS_SUCCESS;
}

// Makes the six locks in their order. A lock that can't be made is traced and the others are still
// made; the result is the first failure, so that start can end before any callback could run
// without its lock.
static NTSTATUS MakeLocks()
{
    NTSTATUS firstFailure = STATUS_SUCCESS;
    NTSTATUS status;

    status = MakeLock(&g_ConfigLock);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("File configuration lock initialization error (0x%x)", status);
        firstFailure = NT_SUCCESS(firstFailure) ? status : firstFailure;
    }
    status = MakeLock(&g_ContextLock);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("File context lock initialization error (0x%x)", status);
        firstFailure = NT_SUCCESS(firstFailure) ? status : firstFailure;
    }
    status = MakeLock(&g_DirtyBlockLock);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Dirty block file list initialization error (0x%x)", status);
        firstFailure = NT_SUCCESS(firstFailure) ? status : firstFailure;
    }
    status = MakeLock(&g_MupLock);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Mup tracking list initialization error (0x%x)", status);
        firstFailure = NT_SUCCESS(firstFailure) ? status : firstFailure;
    }
    InitializeListHead(&g_UserList);
    status = MakeLock(&g_UserListLock);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("User list initialization error (0x%x)", status);
        firstFailure = NT_SUCCESS(firstFailure) ? status : firstFailure;
    }
    status = MakeLock(&g_TraceLock);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Trace lock initialization error (0x%x)", status);
        firstFailure = NT_SUCCESS(firstFailure) ? status : firstFailure;
    }
    return firstFailure;
}

// Everything after the filter's registration is undone here, for the unload and for a start that
// failed: the port first, so that no new connection comes while the tables go, then the filter,
// whose unregistration ends the service's connections, then the tables and the locks.
static VOID ReleaseFilter()
{
    CloseServicePort();
    if (g_ServiceData.FilterHandle != nullptr) {
        FltUnregisterFilter(g_ServiceData.FilterHandle);
        g_ServiceData.FilterHandle = nullptr;
    }
    // A start that failed after its port was made may have had tracing turned on; no message can
    // come any more.
    StopTracing();
    if (g_ConfigLock != nullptr) {
        (VOID) ClearConfiguration();
    }
    // The blacklist outlives a cleared configuration, but not the filter.
    FreeProcessBlacklist();
    (VOID) DeleteDriverLock(&g_ConfigLock);
    // The file contexts go first: they hold references on tracked dirty block files. The maps
    // still live are not written back: the filter is unregistered and has no handle to write with,
    // and a file that stays open after the unload can be written unseen, so their next load starts
    // wholly dirty. The loopback access records left are those of opens that the unload overtook. The
    // configuration's clearing has taken the user records out; with no callback left, none is
    // still held.
    DeleteAllContexts();
    ClearTrackedDirtyBlockFileList();
    ClearTrackedMupAccessList();
    ClearUserRecords();
    DeleteStreamStringTable();
    (VOID) DeleteContextLock();
    (VOID) DeleteTrackedDirtyBlockFileListLock();
    (VOID) DeleteTrackedMupAccessListLock();
    (VOID) DeleteUserListLock();
    (VOID) DeleteDriverLock(&g_TraceLock);
}

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(RegistryPath);
    NTSTATUS status;
    PSECURITY_DESCRIPTOR pSecurityDescriptor = nullptr;

    // Every global starts from its load value, also when the image is started again in the same
    // address space.
    RtlZeroMemory(&g_ServiceData, sizeof(g_ServiceData));
    g_PassThrough = 0;
    g_DirtyBlockFileList = nullptr;
    g_MupAccessList = nullptr;
    g_PoolType = NonPagedPool;

    // Non-executable non-paged pool exists from NT 6.2 on.
    RTL_OSVERSIONINFOW versionInformation;
    RtlZeroMemory(&versionInformation, sizeof(versionInformation));
    versionInformation.dwOSVersionInfoSize = sizeof(versionInformation);
    if (NT_SUCCESS(RtlGetVersion(&versionInformation)) &&
        (versionInformation.dwMajorVersion > 6 ||
         (versionInformation.dwMajorVersion == 6 && versionInformation.dwMinorVersion >= 2))) {
        g_PoolType = NonPagedPoolNx;
    }

    g_ServiceData.ClientPortDisconnectCount = 0;

    status = FltRegisterFilter(DriverObject, &FilterRegistration, &g_ServiceData.FilterHandle);
    if (!NT_SUCCESS(status)) {
        g_ServiceData.FilterHandle = nullptr;
        return status;
    }

    status = FltBuildDefaultSecurityDescriptor(&pSecurityDescriptor, FLT_PORT_ALL_ACCESS);
    if (!NT_SUCCESS(status)) {
        goto Failed;
    }

    // Every lock is tried; a missing one ends start before any callback could run without it.
    status = MakeLocks();
    if (!NT_SUCCESS(status)) {
        FltFreeSecurityDescriptor(pSecurityDescriptor);
        goto Failed;
    }

    // A service may connect from here on.
    status = CreateServicePort(pSecurityDescriptor);
    FltFreeSecurityDescriptor(pSecurityDescriptor);
    if (!NT_SUCCESS(status)) {
        goto Failed;
    }

    status = CreateStreamStringTable();
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("Failed to initialise stream string table (0x%08x)", status);
        goto Failed;
    }

    status = FltStartFiltering(g_ServiceData.FilterHandle);
    if (!NT_SUCCESS(status)) {
        goto Failed;
    }
    TRACE_INFO("Velmora driver is resident.");
    return status;

Failed:
    ReleaseFilter();
    return status;
}

NTSTATUS FLTAPI FolderMerge_Unload(FLT_FILTER_UNLOAD_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(Flags);
    TRACE_INFO("FolderMerge_Unload");

    // Tracing ends first, while the service may still be connected.
    StopTracing();

    ReleaseFilter();
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FolderMerge_InstanceSetup(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                                         DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    // NTFS volumes and the MUP device only: no FAT, CDFS, UDFS, RAW or direct redirector volume.
    if ((VolumeDeviceType == FILE_DEVICE_DISK_FILE_SYSTEM || VolumeDeviceType == FILE_DEVICE_NETWORK_FILE_SYSTEM) &&
        (VolumeFilesystemType == FLT_FSTYPE_NTFS || VolumeFilesystemType == FLT_FSTYPE_MUP)) {
        return STATUS_SUCCESS;
    }
    return STATUS_FLT_DO_NOT_ATTACH;
}

NTSTATUS FLTAPI FolderMerge_InstanceQueryTeardown(PCFLT_RELATED_OBJECTS FltObjects,
                                                 FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    return STATUS_SUCCESS;
}

VOID FLTAPI FolderMerge_InstanceTeardown(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Reason);
}
