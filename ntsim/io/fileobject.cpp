// File objects: their making and freeing, their life in the object manager (handles, references),
// and the cleanup and close that end it. Cleanup goes through the stack when the last handle
// closes, in the closing thread; close goes when the last reference goes.
#include "iomgr.hpp"

#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>

namespace ntsim::iomgr {

namespace {

const ob::ObjectType& FileType()
{
    static auto* type = new ob::ObjectType(
        u"File", GENERIC_MAPPING{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS},
        FILE_ALL_ACCESS,
        [](void* object, PEPROCESS, ULONG remainingHandles) {
            if (remainingHandles == 0) {
                SendCleanup(static_cast<FileObjectRecord*>(object));
            }
        },
        [](void* object) {
            // An opened file object that never had a handle gets its cleanup here, before the
            // close; one whose create failed gets them only if the file system had opened it (a
            // cancelled open, whose cleanup the cancel sent).
            auto* record = static_cast<FileObjectRecord*>(object);
            if ((record->fileObject.Flags & FO_FILE_OPEN) != 0 || record->open != nullptr) {
                SendCleanup(record);
                SendClose(record);
            }
            FreeFileObject(record);
        });
    return *type;
}

POBJECT_TYPE fileObjectType = FileType().AsObjectType();

// Cleanup and close: what they send down and what the file system does with them.
void SendEndOfOpen(FileObjectRecord* record, UCHAR major)
{
    CallbackFrame frame(FLTFL_CALLBACK_DATA_IRP_OPERATION, KernelMode);
    frame.iopb.MajorFunction = major;
    frame.iopb.IrpFlags = major == IRP_MJ_CLOSE ? IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API : IRP_SYNCHRONOUS_API;
    frame.iopb.TargetFileObject = &record->fileObject;
    Dispatch(*record->volume, record->below.get(), frame,
             [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK&) {
                 if (major == IRP_MJ_CLEANUP && record->open != nullptr) {
                     record->volume->volume->Cleanup(*record->open);
                 }
                 data.IoStatus.Status = STATUS_SUCCESS;
                 data.IoStatus.Information = 0;
             });
}

}  // namespace

FileObjectRecord* RecordOf(PFILE_OBJECT fileObject)
{
    return reinterpret_cast<FileObjectRecord*>(fileObject);
}

FileObjectRecord* AllocateFileObject(const std::shared_ptr<_FLT_VOLUME>& volume, std::u16string_view fileName,
                                      PFILE_OBJECT related)
{
    auto* record = new FileObjectRecord();
    FILE_OBJECT& fileObject = record->fileObject;
    fileObject.Type = IO_TYPE_FILE;
    fileObject.Size = sizeof(FILE_OBJECT);
    fileObject.DeviceObject = &volume->device;
    fileObject.Vpb = &volume->vpb;
    fileObject.SectionObjectPointer = &record->sectionObjectPointers;
    fileObject.RelatedFileObject = related;
    if (related != nullptr) {
        ObReferenceObject(related);
    }
    const size_t bytes = fileName.size() * sizeof(WCHAR);
    if (bytes != 0) {
        // The buffer leaves with the file object (ExFreePool); a filter may replace it.
        auto* buffer = static_cast<PWCH>(ExAllocatePoolWithTag(NonPagedPoolNx, bytes, kFileNameTag));
        if (buffer == nullptr) {
            if (related != nullptr) {
                ObDereferenceObject(related);
            }
            delete record;
            return nullptr;
        }
        std::memcpy(buffer, fileName.data(), bytes);
        fileObject.FileName.Buffer = buffer;
        fileObject.FileName.Length = static_cast<USHORT>(bytes);
        fileObject.FileName.MaximumLength = static_cast<USHORT>(bytes);
    }
    record->volume = volume;
    return record;
}

void FreeFileObject(FileObjectRecord* record)
{
    if (record->fileObject.FileName.Buffer != nullptr) {
        ExFreePool(record->fileObject.FileName.Buffer);
    }
    if (record->fileObject.RelatedFileObject != nullptr) {
        ObDereferenceObject(record->fileObject.RelatedFileObject);
    }
    record->open.reset();
    delete record;
}

void RegisterFileObject(FileObjectRecord* record)
{
    ob::RegisterObject(record, FileType(), 1);
}

NTSTATUS InsertFileHandle(FileObjectRecord* record, ULONG attributes, ACCESS_MASK grantedAccess, KPROCESSOR_MODE mode,
                          PHANDLE handle)
{
    if (mode == UserMode) {
        attributes &= ~OBJ_KERNEL_HANDLE;
    }
    HANDLE inserted;
    {
        ScopedPreviousMode previousMode(mode);
        inserted = ob::InsertHandle(record, grantedAccess, attributes);
    }
    if (inserted == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    record->fileObject.Flags |= FO_HANDLE_CREATED;
    *handle = inserted;
    return STATUS_SUCCESS;
}

NTSTATUS ReferenceFileByHandle(HANDLE handle, ACCESS_MASK desiredAccess, KPROCESSOR_MODE mode,
                               FileObjectRecord** record)
{
    void* object = nullptr;
    NTSTATUS status = ob::ReferenceObjectByHandle(handle, desiredAccess, &FileType(), mode, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *record = static_cast<FileObjectRecord*>(object);
    return STATUS_SUCCESS;
}

void DereferenceFile(FileObjectRecord* record)
{
    ObDereferenceObject(&record->fileObject);
}

void SendCleanup(FileObjectRecord* record)
{
    if (record->cleanedUp.exchange(true)) {
        return;
    }
    SendEndOfOpen(record, IRP_MJ_CLEANUP);
    record->fileObject.Flags |= FO_CLEANUP_COMPLETE;
}

void SendClose(FileObjectRecord* record)
{
    if (record->closed.exchange(true)) {
        verifier::BugCheck(rules::kFileObjectReused, "a file object was closed twice");
        return;
    }
    SendEndOfOpen(record, IRP_MJ_CLOSE);
}

}  // namespace ntsim::iomgr

using namespace ntsim;
using namespace ntsim::iomgr;

POBJECT_TYPE* IoFileObjectType = &fileObjectType;

namespace ntsim {

PFILE_OBJECT ReferenceFileObjectByHandle(HANDLE handle)
{
    FileObjectRecord* record = nullptr;
    if (!NT_SUCCESS(ReferenceFileByHandle(handle, 0, KernelMode, &record))) {
        return nullptr;
    }
    return &record->fileObject;
}

}  // namespace ntsim

extern "C" PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject)
{
    return FileObject != nullptr ? FileObject->DeviceObject : nullptr;
}
