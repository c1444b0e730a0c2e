// Opens: parsing an object name down to a volume, IRP_MJ_CREATE through the stack, the re-parse
// of a create that a filter or file system completed with STATUS_REPARSE, and every entry point
// that opens a file (NtCreateFile and its relatives, ZwDeleteFile, FltCreateFileEx). The network
// query open is in networkqueryopen.cpp.
#include "iomgr.hpp"

#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>

namespace ntsim::iomgr {

namespace {

// The number of times one open may be re-parsed; past it the open fails with
// STATUS_REPARSE_POINT_NOT_RESOLVED.
constexpr int kMaximumReparses = 32;

std::u16string NameOf(const UNICODE_STRING* name)
{
    return name != nullptr ? std::u16string(View(*name)) : std::u16string();
}

}  // namespace

ULONG FileObjectFlagsFor(ULONG createOptions, ULONG attributes, bool volumeOpen)
{
    ULONG flags = 0;
    if ((createOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0) {
        flags |= FO_SYNCHRONOUS_IO;
    }
    if ((createOptions & FILE_SYNCHRONOUS_IO_ALERT) != 0) {
        flags |= FO_ALERTABLE_IO;
    }
    if ((createOptions & FILE_NO_INTERMEDIATE_BUFFERING) != 0) {
        flags |= FO_NO_INTERMEDIATE_BUFFERING;
    } else {
        flags |= FO_CACHE_SUPPORTED;
    }
    if ((createOptions & FILE_WRITE_THROUGH) != 0) {
        flags |= FO_WRITE_THROUGH;
    }
    if ((createOptions & FILE_SEQUENTIAL_ONLY) != 0) {
        flags |= FO_SEQUENTIAL_ONLY;
    }
    if ((createOptions & FILE_RANDOM_ACCESS) != 0) {
        flags |= FO_RANDOM_ACCESS;
    }
    if ((attributes & OBJ_CASE_INSENSITIVE) == 0) {
        flags |= FO_OPENED_CASE_SENSITIVE;
    }
    if (volumeOpen) {
        flags |= FO_VOLUME_OPEN;
    }
    return flags;
}

// The path on the volume that the file system opens for this file object, read from the file
// object as it stands when the create reaches the file system.
NTSTATUS PathForFileSystem(const FILE_OBJECT& fileObject, std::u16string* path)
{
    std::u16string name(View(fileObject.FileName));
    if (fileObject.RelatedFileObject != nullptr) {
        return JoinRelativePath(RecordOf(fileObject.RelatedFileObject), name, path);
    }
    *path = std::move(name);
    return STATUS_SUCCESS;
}

namespace {

std::u16string ParentPath(const std::u16string& path)
{
    size_t end = path.size();
    while (end > 1 && path[end - 1] == u'\\') {
        --end;
    }
    size_t slash = path.rfind(u'\\', end - 1);
    if (slash == std::u16string::npos || slash == 0) {
        return u"\\";
    }
    return path.substr(0, slash);
}

// The file system's IoSetShareAccess leaves what it recorded for the open in the file object,
// where filters read it from the post-create on.
void SetShareAccessFlags(FILE_OBJECT& fileObject, const RecordedShareAccess& recorded)
{
    fileObject.ReadAccess = recorded.readAccess;
    fileObject.WriteAccess = recorded.writeAccess;
    fileObject.DeleteAccess = recorded.deleteAccess;
    fileObject.SharedRead = recorded.sharedRead;
    fileObject.SharedWrite = recorded.sharedWrite;
    fileObject.SharedDelete = recorded.sharedDelete;
}

// The name a create answered with STATUS_REPARSE goes on with, parsed from the root: for
// IO_REPARSE the name a filter put in the file object; for a junction its substitute name and
// what followed the junction in the opened name. STATUS_REPARSE, or why the open fails instead:
// a tag nobody handled, or reparse data that does not hold together.
NTSTATUS NameAfterReparse(const FILE_OBJECT& fileObject, ULONG_PTR tag, const FLT_TAG_DATA_BUFFER* tagData,
                          std::u16string* name)
{
    const std::u16string_view opened = View(fileObject.FileName);
    if (tag == IO_REPARSE) {
        *name = std::u16string(opened);
        return STATUS_REPARSE;
    }
    if (tag == IO_REPARSE_TAG_SYMLINK) {
        return verifier::NotImplemented("the re-parse of a create at a symbolic link");
    }
    if (tag != IO_REPARSE_TAG_MOUNT_POINT) {
        return STATUS_IO_REPARSE_TAG_NOT_HANDLED;
    }
    if (tagData == nullptr || tagData->FileTag != tag) {
        return STATUS_IO_REPARSE_DATA_INVALID;
    }
    const auto& mountPoint = tagData->MountPointReparseBuffer;
    const size_t namesStart = FIELD_OFFSET(FLT_TAG_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) -
                              FIELD_OFFSET(FLT_TAG_DATA_BUFFER, MountPointReparseBuffer);
    const size_t substituteEnd =
        namesStart + size_t{mountPoint.SubstituteNameOffset} + size_t{mountPoint.SubstituteNameLength};
    const size_t unparsed = tagData->UnparsedNameLength / sizeof(WCHAR);
    if (substituteEnd > tagData->TagDataLength || mountPoint.SubstituteNameLength == 0 ||
        (mountPoint.SubstituteNameOffset | mountPoint.SubstituteNameLength | tagData->UnparsedNameLength) % 2 != 0 ||
        unparsed > opened.size()) {
        return STATUS_IO_REPARSE_DATA_INVALID;
    }
    std::u16string substitute(mountPoint.SubstituteNameLength / sizeof(WCHAR), u'\0');
    std::memcpy(substitute.data(),
                reinterpret_cast<const UCHAR*>(mountPoint.PathBuffer) + mountPoint.SubstituteNameOffset,
                mountPoint.SubstituteNameLength);
    std::u16string_view rest = opened.substr(opened.size() - unparsed);
    if (substitute.back() == u'\\' && !rest.empty() && rest.front() == u'\\') {
        rest.remove_prefix(1);
    }
    *name = substitute + std::u16string(rest);
    return STATUS_REPARSE;
}

void ReplaceFileName(FILE_OBJECT& fileObject, std::u16string_view name)
{
    const size_t bytes = name.size() * sizeof(WCHAR);
    if (bytes <= fileObject.FileName.MaximumLength && fileObject.FileName.Buffer != nullptr) {
        std::memmove(fileObject.FileName.Buffer, name.data(), bytes);
        fileObject.FileName.Length = static_cast<USHORT>(bytes);
    }
}

}  // namespace

ACCESS_MASK MapGenericFileAccess(ACCESS_MASK access)
{
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    if ((access & GENERIC_READ) != 0) {
        mapped |= FILE_GENERIC_READ;
    }
    if ((access & GENERIC_WRITE) != 0) {
        mapped |= FILE_GENERIC_WRITE;
    }
    if ((access & GENERIC_EXECUTE) != 0) {
        mapped |= FILE_GENERIC_EXECUTE;
    }
    if ((access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0) {
        mapped |= FILE_ALL_ACCESS;
    }
    return mapped;
}

NTSTATUS ResolveVolumePath(std::u16string_view name, std::shared_ptr<_FLT_VOLUME>* volume, std::u16string* rest)
{
    if (name.empty() || name[0] != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    std::u16string resolved;
    NTSTATUS status = ob::ResolveSymbolicLinks(name, &resolved);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::shared_ptr<_FLT_VOLUME> best;
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        for (const auto& candidate : registry.volumes) {
            const std::u16string& device = candidate->deviceName;
            if (NameHasPrefix(resolved, device) &&
                (resolved.size() == device.size() || resolved[device.size()] == u'\\') &&
                (best == nullptr || device.size() > best->deviceName.size())) {
                best = candidate;
            }
        }
    }
    if (best == nullptr) {
        // The first component that names nothing decides: "\Device\Nothing" and "\nothing" name no
        // object; "\Device\Nothing\file" and "\dir\file" (a volume-relative name parsed from the
        // root) go through a missing one. Below the root only \Device holds the devices.
        size_t separators = 0;
        for (char16_t c : resolved) {
            separators += c == u'\\' ? 1 : 0;
        }
        const bool underDevice = NameHasPrefix(resolved, u"\\Device\\");
        return separators > (underDevice ? 2u : 1u) ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *volume = best;
    *rest = resolved.substr(best->deviceName.size());
    return STATUS_SUCCESS;
}

NTSTATUS JoinRelativePath(const FileObjectRecord* related, std::u16string_view fileName, std::u16string* path)
{
    if (!fileName.empty() && fileName[0] == u'\\') {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::u16string joined = related->volumePath;
    if (!fileName.empty()) {
        if (joined.empty() || joined.back() != u'\\') {
            joined += u'\\';
        }
        joined += fileName;
    }
    *path = std::move(joined);
    return STATUS_SUCCESS;
}

NTSTATUS CreateFileObject(const CreateRequest& request, PIO_STATUS_BLOCK ioStatus, FileObjectRecord** result)
{
    const POBJECT_ATTRIBUTES attributes = request.objectAttributes;
    if (attributes == nullptr || attributes->ObjectName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG options = request.createOptions;
    if (request.disposition > FILE_MAXIMUM_DISPOSITION || (options & ~FILE_VALID_OPTION_FLAGS) != 0 ||
        ((options & FILE_DIRECTORY_FILE) != 0 && (options & FILE_NON_DIRECTORY_FILE) != 0) ||
        ((options & FILE_DIRECTORY_FILE) != 0 && request.disposition != FILE_CREATE &&
         request.disposition != FILE_OPEN && request.disposition != FILE_OPEN_IF)) {
        return STATUS_INVALID_PARAMETER;
    }
    const ACCESS_MASK access = MapGenericFileAccess(request.desiredAccess);
    if ((options & FILE_DELETE_ON_CLOSE) != 0 && (access & DELETE) == 0) {
        return STATUS_INVALID_PARAMETER;
    }

    FileObjectRecord* related = nullptr;
    if (attributes->RootDirectory != nullptr) {
        NTSTATUS status = ReferenceFileByHandle(attributes->RootDirectory, 0, request.mode, &related);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    std::u16string name = NameOf(attributes->ObjectName);
    const bool ignoreShareAccess = (request.ioFlags & IO_IGNORE_SHARE_ACCESS_CHECK) != 0;

    for (int reparses = 0;; ++reparses) {
        std::shared_ptr<_FLT_VOLUME> volume;
        std::u16string fileName;
        if (related != nullptr) {
            volume = related->volume;
            fileName = name;
        } else {
            NTSTATUS status = ResolveVolumePath(name, &volume, &fileName);
            if (!NT_SUCCESS(status)) {
                return status;
            }
        }
        FileObjectRecord* record =
            AllocateFileObject(volume, fileName, related != nullptr ? &related->fileObject : nullptr);
        if (record == nullptr) {
            if (related != nullptr) {
                DereferenceFile(related);
            }
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        // The file object is an object from here on: filters may reference it during the create.
        RegisterFileObject(record);
        FILE_OBJECT& fileObject = record->fileObject;
        fileObject.Flags = FileObjectFlagsFor(options, attributes->Attributes, related == nullptr && fileName.empty());

        ACCESS_STATE accessState{};
        accessState.OriginalDesiredAccess = access;
        accessState.RemainingDesiredAccess = access;
        accessState.SecurityDescriptor = attributes->SecurityDescriptor;
        SeCaptureSubjectContext(&accessState.SubjectSecurityContext);
        IO_SECURITY_CONTEXT securityContext{
            static_cast<PSECURITY_QUALITY_OF_SERVICE>(attributes->SecurityQualityOfService), &accessState, access,
            options};

        CallbackFrame frame(FLTFL_CALLBACK_DATA_IRP_OPERATION |
                                (request.generatedByFilter ? FLTFL_CALLBACK_DATA_GENERATED_IO : 0),
                            request.mode);
        FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
        iopb.MajorFunction = IRP_MJ_CREATE;
        iopb.IrpFlags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API;
        iopb.OperationFlags = 0;
        if ((attributes->Attributes & OBJ_CASE_INSENSITIVE) == 0) {
            iopb.OperationFlags |= SL_CASE_SENSITIVE;
        }
        if ((request.ioFlags & IO_OPEN_TARGET_DIRECTORY) != 0) {
            iopb.OperationFlags |= SL_OPEN_TARGET_DIRECTORY;
        }
        if ((request.ioFlags & IO_FORCE_ACCESS_CHECK) != 0 || request.mode == UserMode) {
            iopb.OperationFlags |= SL_FORCE_ACCESS_CHECK;
        }
        iopb.TargetFileObject = &fileObject;
        auto& create = iopb.Parameters.Create;
        create.SecurityContext = &securityContext;
        create.Options = (request.disposition << 24) | (options & FILE_VALID_OPTION_FLAGS);
        create.FileAttributes = static_cast<USHORT>(request.fileAttributes);
        create.ShareAccess = static_cast<USHORT>(request.shareAccess);
        create.EaLength = request.eaLength;
        create.EaBuffer = request.eaBuffer;
        create.AllocationSize.QuadPart = request.allocationSize != nullptr ? request.allocationSize->QuadPart : 0;

        std::vector<UCHAR> reparseBuffer;  // a reparse point the file system answered with
        Dispatch(*volume, request.below.get(), frame,
                 [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& parameters) {
                     record->createStage = CreateStage::AfterFileSystem;
                     const auto& params = parameters.Parameters.Create;
                     VolumeCreateParameters volumeParameters;
                     NTSTATUS status = PathForFileSystem(*parameters.TargetFileObject, &volumeParameters.path);
                     if (!NT_SUCCESS(status)) {
                         data.IoStatus.Status = status;
                         data.IoStatus.Information = 0;
                         return;
                     }
                     volumeParameters.desiredAccess = params.SecurityContext->DesiredAccess;
                     volumeParameters.shareAccess = params.ShareAccess;
                     volumeParameters.disposition = params.Options >> 24;
                     volumeParameters.createOptions = params.Options & FILE_VALID_OPTION_FLAGS;
                     volumeParameters.fileAttributes = params.FileAttributes;
                     volumeParameters.allocationSize = params.AllocationSize.QuadPart;
                     volumeParameters.flags = parameters.OperationFlags;
                     volumeParameters.ignoreShareAccess = ignoreShareAccess;
                     std::unique_ptr<VolumeOpen> open;
                     ULONG_PTR information = 0;
                     std::u16string finalComponent;
                     status = volume->volume->Create(volumeParameters, &open, &information, &finalComponent,
                                                     &reparseBuffer);
                     if (status == STATUS_REPARSE && !reparseBuffer.empty()) {
                         data.TagData = reinterpret_cast<PFLT_TAG_DATA_BUFFER>(reparseBuffer.data());
                     }
                     if (NT_SUCCESS(status) && open != nullptr) {
                         SetShareAccessFlags(*parameters.TargetFileObject, open->ShareAccess());
                         record->open = std::move(open);
                         record->volumePath = volumeParameters.path;
                         if ((parameters.OperationFlags & SL_OPEN_TARGET_DIRECTORY) != 0) {
                             record->volumePath = ParentPath(volumeParameters.path);
                             ReplaceFileName(*parameters.TargetFileObject, finalComponent);
                         }
                     }
                     data.IoStatus.Status = status;
                     data.IoStatus.Information = information;
                 });
        SeReleaseSubjectContext(&accessState.SubjectSecurityContext);
        record->createStage = CreateStage::Finished;

        const NTSTATUS status = frame.data.IoStatus.Status;
        const ULONG_PTR information = frame.data.IoStatus.Information;
        if (!NT_SUCCESS(status) || status == STATUS_REPARSE) {
            NTSTATUS final = status;
            if (status == STATUS_REPARSE) {
                final = NameAfterReparse(fileObject, information, frame.data.TagData, &name);
            }
            const bool reparse = final == STATUS_REPARSE;
            // The creator's reference goes; an open that a post-create cancelled gets its close when
            // the last one goes (a filter may still hold one).
            DereferenceFile(record);
            if (reparse && reparses < kMaximumReparses) {
                // The new name is parsed from the root of the namespace again.
                if (related != nullptr) {
                    DereferenceFile(related);
                    related = nullptr;
                }
                continue;
            }
            if (related != nullptr) {
                DereferenceFile(related);
            }
            if (reparse) {
                final = STATUS_REPARSE_POINT_NOT_RESOLVED;
            }
            if (ioStatus != nullptr) {
                ioStatus->Status = final;
                ioStatus->Information = status == STATUS_REPARSE ? 0 : information;
            }
            return final;
        }

        record->grantedAccess = access;
        record->createOptions = options;
        if ((options & FILE_DELETE_ON_CLOSE) != 0) {
            fileObject.Flags |= FO_DELETE_ON_CLOSE;
        }
        fileObject.Flags |= FO_FILE_OPEN;
        if (related != nullptr) {
            DereferenceFile(related);
        }
        if (ioStatus != nullptr) {
            ioStatus->Status = status;
            ioStatus->Information = information;
        }
        *result = record;
        return status;
    }
}

}  // namespace ntsim::iomgr

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

// The request of an NtCreateFile-shaped call, from its arguments as the caller passed them.
CreateRequest RequestFromCreateArguments(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES ObjectAttributes,
                                         ACCESS_MASK DesiredAccess, PLARGE_INTEGER AllocationSize,
                                         ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                                         ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength)
{
    CreateRequest request;
    request.objectAttributes = ObjectAttributes;
    request.desiredAccess = DesiredAccess;
    request.allocationSize = AllocationSize;
    request.fileAttributes = FileAttributes;
    request.shareAccess = ShareAccess;
    request.disposition = CreateDisposition;
    request.createOptions = CreateOptions;
    request.eaBuffer = EaBuffer;
    request.eaLength = EaLength;
    request.mode = mode;
    return request;
}

NTSTATUS CreateWithHandle(const CreateRequest& request, PHANDLE fileHandle, PIO_STATUS_BLOCK ioStatus)
{
    if (fileHandle == nullptr || ioStatus == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    FileObjectRecord* record = nullptr;
    NTSTATUS status = CreateFileObject(request, ioStatus, &record);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    NTSTATUS inserted = InsertFileHandle(record, request.objectAttributes->Attributes, record->grantedAccess,
                                         request.mode, fileHandle);
    // The handle holds its own reference; the creator's goes. Without a handle this is the last one:
    // cleanup and close follow.
    DereferenceFile(record);
    if (!NT_SUCCESS(inserted)) {
        ioStatus->Status = inserted;
        ioStatus->Information = 0;
        return inserted;
    }
    return status;
}

NTSTATUS NtCreateFileAs(KPROCESSOR_MODE mode, PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                        POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                        PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                        ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtCreateFile");
    const CreateRequest request =
        RequestFromCreateArguments(mode, ObjectAttributes, DesiredAccess, AllocationSize, FileAttributes, ShareAccess,
                                   CreateDisposition, CreateOptions, EaBuffer, EaLength);
    ScopedPreviousMode previousMode(mode);
    return CreateWithHandle(request, FileHandle, IoStatusBlock);
}

NTSTATUS DeleteFileAs(KPROCESSOR_MODE mode, POBJECT_ATTRIBUTES ObjectAttributes)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtDeleteFile");
    CreateRequest request;
    request.objectAttributes = ObjectAttributes;
    request.desiredAccess = DELETE;
    request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    request.disposition = FILE_OPEN;
    request.createOptions = FILE_DELETE_ON_CLOSE;
    request.mode = mode;
    ScopedPreviousMode previousMode(mode);
    FileObjectRecord* record = nullptr;
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status = CreateFileObject(request, &ioStatus, &record);
    if (NT_SUCCESS(status)) {
        DereferenceFile(record);  // no handle: cleanup (the delete) and close
    }
    return status;
}

}  // namespace

extern "C" {

NTSTATUS NTAPI NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                            PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                            ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                            ULONG EaLength)
{
    return NtCreateFileAs(ExGetPreviousMode(), FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock,
                          AllocationSize, FileAttributes, ShareAccess, CreateDisposition, CreateOptions, EaBuffer,
                          EaLength);
}

NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                            PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                            ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                            ULONG EaLength)
{
    return NtCreateFileAs(KernelMode, FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize,
                          FileAttributes, ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength);
}

NTSTATUS NTAPI NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions)
{
    return NtCreateFileAs(ExGetPreviousMode(), FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0,
                          ShareAccess, FILE_OPEN, OpenOptions, nullptr, 0);
}

NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions)
{
    return NtCreateFileAs(KernelMode, FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0,
                          ShareAccess, FILE_OPEN, OpenOptions, nullptr, 0);
}

NTSTATUS NTAPI NtDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes)
{
    return DeleteFileAs(ExGetPreviousMode(), ObjectAttributes);
}

NTSTATUS NTAPI ZwDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes)
{
    if (auto failure = faults::Check("ZwDeleteFile")) {
        return *failure;
    }
    return DeleteFileAs(KernelMode, ObjectAttributes);
}

NTSTATUS FLTAPI FltCreateFileEx(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                                PFILE_OBJECT* FileObject, ACCESS_MASK DesiredAccess,
                                POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                                ULONG Flags)
{
    if (auto failure = faults::Check("FltCreateFileEx")) {
        return *failure;
    }
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FltCreateFileEx");
    auto filter = FilterOf(Filter);
    if (filter == nullptr || FileHandle == nullptr || IoStatusBlock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    CreateRequest request =
        RequestFromCreateArguments(KernelMode, ObjectAttributes, DesiredAccess, AllocationSize, FileAttributes,
                                   ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength);
    request.ioFlags = Flags;
    request.generatedByFilter = true;
    if (Instance != nullptr) {
        request.below = InstanceOf(Instance);
        if (request.below == nullptr || request.below->filter != filter) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    ScopedPreviousMode previousMode(KernelMode);
    FileObjectRecord* record = nullptr;
    NTSTATUS status = CreateFileObject(request, IoStatusBlock, &record);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // Cleanup and close of this file object go below the instance too.
    record->below = request.below;
    NTSTATUS inserted = InsertFileHandle(record, ObjectAttributes->Attributes, record->grantedAccess, KernelMode,
                                         FileHandle);
    if (!NT_SUCCESS(inserted)) {
        DereferenceFile(record);
        IoStatusBlock->Status = inserted;
        IoStatusBlock->Information = 0;
        return inserted;
    }
    if (FileObject != nullptr) {
        *FileObject = &record->fileObject;  // the creator's reference goes to the caller
    } else {
        DereferenceFile(record);
    }
    return status;
}

NTSTATUS FLTAPI FltCreateFile(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                              ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                              ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                              ULONG EaLength, ULONG Flags)
{
    return FltCreateFileEx(Filter, Instance, FileHandle, nullptr, DesiredAccess, ObjectAttributes, IoStatusBlock,
                           AllocationSize, FileAttributes, ShareAccess, CreateDisposition, CreateOptions, EaBuffer,
                           EaLength, Flags);
}

NTSTATUS FLTAPI FltClose(HANDLE FileHandle)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FltClose");
    ScopedPreviousMode previousMode(KernelMode);
    return ob::CloseHandle(FileHandle, KernelMode);
}

}  // extern "C"
