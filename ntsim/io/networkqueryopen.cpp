// The network query open: NtQueryFullAttributesFile and ZwQueryFullAttributesFile, and
// ntsim::IoNetworkQueryOpen.
//
// The I/O manager first offers the query to the volume that the name resolves to as
// IRP_MJ_NETWORK_QUERY_OPEN fast I/O (FastIoQueryOpen), through every filter. Its file object lives
// on the caller's stack: it has no handle, gets neither cleanup nor close, and must never be
// referenced (ObReferenceObject of it is a verifier error). The file system opens the name for its
// attributes, fills the caller's FILE_NETWORK_OPEN_INFORMATION and lets the open go.
//
// When a filter answers FLT_PREOP_DISALLOW_FASTIO, or the file system declines, the I/O manager
// makes a query-only open instead, each step through every filter: IRP_MJ_CREATE of the name for
// FILE_READ_ATTRIBUTES (FILE_OPEN, FILE_OPEN_REPARSE_POINT, every share mode), the query of
// FileNetworkOpenInformation on that file object (offered as fast I/O, then as an IRP), and its
// cleanup and close. A create that the stack re-parses is parsed again from the root, as any open.
//
// ntsim::IoNetworkQueryOpen issues the operation alone, as fast I/O or as an IRP, so that a
// filter's handling of each form can be seen; the native calls never issue the IRP form.
#include "iomgr.hpp"

#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

namespace ntsim::iomgr {

namespace {

// The file system's part: an open of the name for its attributes, their query, and the end of
// the open, all inside the file system.
NTSTATUS QueryOpenOnVolume(_FLT_VOLUME& volume, const FLT_IO_PARAMETER_BLOCK& parameters)
{
    VolumeCreateParameters volumeParameters;
    NTSTATUS status = PathForFileSystem(*parameters.TargetFileObject, &volumeParameters.path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    volumeParameters.desiredAccess = FILE_READ_ATTRIBUTES;
    volumeParameters.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    volumeParameters.disposition = FILE_OPEN;
    volumeParameters.createOptions = FILE_OPEN_REPARSE_POINT;
    std::unique_ptr<VolumeOpen> open;
    ULONG_PTR createInformation = 0;
    std::u16string finalComponent;
    status = volume.volume->Create(volumeParameters, &open, &createInformation, &finalComponent, nullptr);
    if (!NT_SUCCESS(status) || open == nullptr) {  // STATUS_REPARSE opens nothing
        return status;
    }
    ULONG returned = 0;
    status = volume.volume->QueryInformation(*open, FileNetworkOpenInformation,
                                             parameters.Parameters.NetworkQueryOpen.NetworkInformation,
                                             sizeof(FILE_NETWORK_OPEN_INFORMATION), &returned);
    volume.volume->Cleanup(*open);
    return status;
}

// IRP_MJ_NETWORK_QUERY_OPEN of a name, with a file object that exists for this call only.
// STATUS_FLT_DISALLOW_FAST_IO when the fast form was declined.
NTSTATUS SendNetworkQueryOpen(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES objectAttributes,
                              PFILE_NETWORK_OPEN_INFORMATION information, bool fastIo)
{
    FileObjectRecord* related = nullptr;
    if (objectAttributes->RootDirectory != nullptr) {
        NTSTATUS status = ReferenceFileByHandle(objectAttributes->RootDirectory, 0, mode, &related);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    std::shared_ptr<_FLT_VOLUME> volume;
    std::u16string fileName(View(*objectAttributes->ObjectName));
    if (related != nullptr) {
        volume = related->volume;
    } else {
        const std::u16string name = fileName;
        NTSTATUS status = ResolveVolumePath(name, &volume, &fileName);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    FileObjectRecord* record = AllocateFileObject(volume, fileName, related != nullptr ? &related->fileObject : nullptr);
    if (related != nullptr) {
        DereferenceFile(related);
    }
    if (record == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    record->stackObject = true;
    record->fileObject.Flags = FileObjectFlagsFor(0, objectAttributes->Attributes, false);

    CallbackFrame frame(fastIo ? FLTFL_CALLBACK_DATA_FAST_IO_OPERATION : FLTFL_CALLBACK_DATA_IRP_OPERATION, mode);
    frame.iopb.MajorFunction = IRP_MJ_NETWORK_QUERY_OPEN;
    frame.iopb.TargetFileObject = &record->fileObject;
    frame.iopb.Parameters.NetworkQueryOpen.Irp = nullptr;
    frame.iopb.Parameters.NetworkQueryOpen.NetworkInformation = information;
    DispatchResult result;
    {
        ob::UnreferenceableObjectScope onTheStack(&record->fileObject, rules::kStackFileObjectReferenced,
                                                  "the file object of a network query open lives on its "
                                                  "caller's stack and must not be referenced");
        result = Dispatch(*volume, nullptr, frame, [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& params) {
            data.IoStatus.Status = QueryOpenOnVolume(*volume, params);
            data.IoStatus.Information = NT_SUCCESS(data.IoStatus.Status) ? sizeof(FILE_NETWORK_OPEN_INFORMATION) : 0;
        });
    }
    FreeFileObject(record);
    return result == DispatchResult::FastIoRefused ? STATUS_FLT_DISALLOW_FAST_IO : frame.data.IoStatus.Status;
}

// The query-only open that stands in for a declined fast network query open.
NTSTATUS QueryOnlyOpen(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES objectAttributes,
                       PFILE_NETWORK_OPEN_INFORMATION information)
{
    CreateRequest request;
    request.objectAttributes = objectAttributes;
    request.desiredAccess = FILE_READ_ATTRIBUTES;
    request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    request.disposition = FILE_OPEN;
    request.createOptions = FILE_OPEN_REPARSE_POINT;
    request.mode = mode;
    FileObjectRecord* record = nullptr;
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status = CreateFileObject(request, &ioStatus, &record);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG returned = 0;
    status = QueryInformationFastThenIrp(record, record->below.get(), information, sizeof(FILE_NETWORK_OPEN_INFORMATION),
                                         FileNetworkOpenInformation, mode, &returned);
    DereferenceFile(record);  // no handle: cleanup and close
    return status;
}

bool ValidArguments(POBJECT_ATTRIBUTES objectAttributes, PFILE_NETWORK_OPEN_INFORMATION information)
{
    return objectAttributes != nullptr && objectAttributes->ObjectName != nullptr && information != nullptr;
}

NTSTATUS QueryFullAttributesAs(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES objectAttributes,
                               PFILE_NETWORK_OPEN_INFORMATION information)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtQueryFullAttributesFile");
    if (!ValidArguments(objectAttributes, information)) {
        return STATUS_INVALID_PARAMETER;
    }
    ScopedPreviousMode previousMode(mode);
    NTSTATUS status = SendNetworkQueryOpen(mode, objectAttributes, information, true);
    // A reparse point on the way is followed only by a create: the query-only open takes over then too.
    if (status != STATUS_FLT_DISALLOW_FAST_IO && status != STATUS_REPARSE) {
        return status;
    }
    return QueryOnlyOpen(mode, objectAttributes, information);
}

}  // namespace

}  // namespace ntsim::iomgr

namespace ntsim {

NTSTATUS IoNetworkQueryOpen(POBJECT_ATTRIBUTES objectAttributes, PFILE_NETWORK_OPEN_INFORMATION information,
                            bool fastIo)
{
    if (!iomgr::ValidArguments(objectAttributes, information)) {
        return STATUS_INVALID_PARAMETER;
    }
    return iomgr::SendNetworkQueryOpen(ExGetPreviousMode(), objectAttributes, information, fastIo);
}

}  // namespace ntsim

extern "C" {

NTSTATUS NTAPI NtQueryFullAttributesFile(POBJECT_ATTRIBUTES ObjectAttributes,
                                         PFILE_NETWORK_OPEN_INFORMATION FileInformation)
{
    return ntsim::iomgr::QueryFullAttributesAs(ExGetPreviousMode(), ObjectAttributes, FileInformation);
}

NTSTATUS NTAPI ZwQueryFullAttributesFile(POBJECT_ATTRIBUTES ObjectAttributes,
                                         PFILE_NETWORK_OPEN_INFORMATION FileInformation)
{
    return ntsim::iomgr::QueryFullAttributesAs(KernelMode, ObjectAttributes, FileInformation);
}

}  // extern "C"
