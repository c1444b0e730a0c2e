// Set information: NtSetInformationFile, ZwSetInformationFile and FltSetInformationFile.
//
// Before any filter sees the request, the I/O manager checks the handle's access for the class and
// the buffer's length (each class has a fixed part), and copies the caller's buffer into a system
// buffer. A rename or link (FileRenameInformation, FileLinkInformation and their Ex forms) whose
// target is a full path ("\??\C:\dir\name", "\Device\HarddiskVolume2\dir\name") or is relative to
// a RootDirectory handle first has the target's directory opened (IRP_MJ_CREATE with
// SL_OPEN_TARGET_DIRECTORY, which leaves the last component in the file object's name) below the
// same point of the stack as the request itself; that file object is the request's ParentOfTarget,
// and its cleanup and close follow the request. A bare name, with no RootDirectory, names the
// target in the source's own directory, and ParentOfTarget stays null.
//
// The file system finds the target from what reaches it: the directory of ParentOfTarget and the
// name left in that file object, or the source's directory and the bare name of the buffer.
#include "iomgr.hpp"

#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>
#include <optional>
#include <vector>

namespace ntsim::iomgr {

namespace {

bool IsRenameOrLink(FILE_INFORMATION_CLASS infoClass)
{
    return infoClass == FileRenameInformation || infoClass == FileRenameInformationEx ||
           infoClass == FileLinkInformation || infoClass == FileLinkInformationEx;
}

bool IsDisposition(FILE_INFORMATION_CLASS infoClass)
{
    return infoClass == FileDispositionInformation || infoClass == FileDispositionInformationEx;
}

// The access a caller's handle needs for a class. A hard link needs none on its source.
ACCESS_MASK AccessToSet(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileBasicInformation:
        return FILE_WRITE_ATTRIBUTES;
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileDispositionInformation:
    case FileDispositionInformationEx:
        return DELETE;
    case FileEndOfFileInformation:
    case FileAllocationInformation:
        return FILE_WRITE_DATA;
    default:
        return 0;
    }
}

// The fixed part of a class's record: a shorter buffer never reaches a filter.
std::optional<ULONG> MinimumLength(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileBasicInformation:
        return sizeof(FILE_BASIC_INFORMATION);
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileLinkInformation:
    case FileLinkInformationEx:
        return sizeof(FILE_RENAME_INFORMATION);
    case FileDispositionInformation:
        return sizeof(FILE_DISPOSITION_INFORMATION);
    case FileDispositionInformationEx:
        return sizeof(FILE_DISPOSITION_INFORMATION_EX);
    case FilePositionInformation:
        return sizeof(FILE_POSITION_INFORMATION);
    case FileAllocationInformation:
        return sizeof(FILE_ALLOCATION_INFORMATION);
    case FileEndOfFileInformation:
        return sizeof(FILE_END_OF_FILE_INFORMATION);
    default:
        return std::nullopt;
    }
}

// The target name of a rename or link record, if the record holds all of it.
std::optional<std::u16string_view> TargetName(const void* buffer, ULONG length)
{
    const auto* rename = static_cast<const FILE_RENAME_INFORMATION*>(buffer);
    if (FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + static_cast<ULONGLONG>(rename->FileNameLength) > length) {
        return std::nullopt;
    }
    return std::u16string_view(reinterpret_cast<const char16_t*>(rename->FileName),
                               rename->FileNameLength / sizeof(WCHAR));
}

std::u16string JoinPath(std::u16string directory, std::u16string_view name)
{
    if (directory.empty() || directory.back() != u'\\') {
        directory += u'\\';
    }
    directory += name;
    return directory;
}

// Opens the directory of a rename or link target given by a full path or relative to RootDirectory,
// as the I/O manager does before the request: for adding a file (a subdirectory, when the source is
// a directory), sharing read and write, through the stack below `below`. *parent is null for a bare
// name, which needs no open.
NTSTATUS OpenTargetDirectory(FileObjectRecord* source, const FILE_RENAME_INFORMATION& rename, std::u16string_view name,
                             const std::shared_ptr<_FLT_INSTANCE>& below, KPROCESSOR_MODE mode, bool generated,
                             FileObjectRecord** parent)
{
    *parent = nullptr;
    const bool fullPath = !name.empty() && name.front() == u'\\';
    if (rename.RootDirectory == nullptr && !fullPath) {
        return STATUS_SUCCESS;
    }
    UNICODE_STRING objectName{static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                              static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                              const_cast<PWCH>(AsWide(name.data()))};
    const ULONG caseInsensitive = (source->fileObject.Flags & FO_OPENED_CASE_SENSITIVE) != 0 ? 0 : OBJ_CASE_INSENSITIVE;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &objectName, caseInsensitive | OBJ_KERNEL_HANDLE, rename.RootDirectory,
                               nullptr);
    const bool directory = source->open != nullptr && source->open->IsDirectory();
    CreateRequest request;
    request.objectAttributes = &attributes;
    request.desiredAccess = (directory ? FILE_ADD_SUBDIRECTORY : FILE_ADD_FILE) | SYNCHRONIZE;
    request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    request.disposition = FILE_OPEN;
    request.createOptions = FILE_OPEN_FOR_BACKUP_INTENT;
    request.ioFlags = IO_OPEN_TARGET_DIRECTORY | IO_FORCE_ACCESS_CHECK;
    request.mode = mode;
    request.below = below;
    request.generatedByFilter = generated;
    IO_STATUS_BLOCK ioStatus{};
    FileObjectRecord* opened = nullptr;
    NTSTATUS status = CreateFileObject(request, &ioStatus, &opened);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // Its cleanup and close go where its open went.
    opened->below = below;
    if (opened->volume != source->volume) {
        DereferenceFile(opened);
        return STATUS_NOT_SAME_DEVICE;
    }
    *parent = opened;
    return STATUS_SUCCESS;
}

// The file system's view of a rename or link target: the volume path it names.
NTSTATUS TargetOnVolume(FileObjectRecord* source, const FLT_IO_PARAMETER_BLOCK& params, std::u16string* target)
{
    const auto& set = params.Parameters.SetFileInformation;
    Volume& volume = *source->volume->volume;
    if (set.ParentOfTarget != nullptr) {
        FileObjectRecord* directory = RecordOf(set.ParentOfTarget);
        if (directory->volume != source->volume) {
            return STATUS_NOT_SAME_DEVICE;
        }
        if (directory->open == nullptr || !directory->open->IsDirectory()) {
            return STATUS_INVALID_PARAMETER;
        }
        std::u16string path;
        NTSTATUS status = volume.NormalizedPath(*directory->open, &path);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        *target = JoinPath(std::move(path), View(set.ParentOfTarget->FileName));
        return STATUS_SUCCESS;
    }
    std::optional<std::u16string_view> name = TargetName(set.InfoBuffer, set.Length);
    if (!name) {
        return STATUS_INVALID_PARAMETER;
    }
    if (name->find(u'\\') != std::u16string_view::npos) {
        return STATUS_OBJECT_NAME_INVALID;  // a path needs RootDirectory or a leading backslash
    }
    std::u16string path;
    NTSTATUS status = volume.NormalizedPath(*source->open, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const size_t slash = path.rfind(u'\\');
    path.resize(slash == std::u16string::npos ? 0 : slash);
    *target = JoinPath(std::move(path), *name);
    return STATUS_SUCCESS;
}

// Whether a disposition the file system accepted leaves the file object's delete pending, or
// leaves it as it was (a delete-on-close disposition only marks the handle).
std::optional<bool> DeletePendingAfter(FILE_INFORMATION_CLASS infoClass, const void* buffer)
{
    if (infoClass == FileDispositionInformation) {
        return static_cast<const FILE_DISPOSITION_INFORMATION*>(buffer)->DeleteFile != FALSE;
    }
    FILE_DISPOSITION_INFORMATION_EX disposition;
    std::memcpy(&disposition, buffer, sizeof(disposition));
    if ((disposition.Flags & FILE_DISPOSITION_ON_CLOSE) != 0) {
        return std::nullopt;
    }
    return (disposition.Flags & FILE_DISPOSITION_DELETE) != 0;
}

// The file system's part: the volume applies the class; the file object and its cache follow.
NTSTATUS SetOnVolume(FileObjectRecord* record, const FLT_IO_PARAMETER_BLOCK& params)
{
    if (record->open == nullptr) {
        return STATUS_FILE_CLOSED;
    }
    const auto& set = params.Parameters.SetFileInformation;
    const FILE_INFORMATION_CLASS infoClass = set.FileInformationClass;
    Volume& volume = *record->volume->volume;
    std::optional<std::u16string> target;
    if (IsRenameOrLink(infoClass)) {
        target.emplace();
        NTSTATUS status = TargetOnVolume(record, params, &*target);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    NTSTATUS status = volume.SetInformation(*record->open, infoClass, set.InfoBuffer, set.Length,
                                            target ? &*target : nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (infoClass == FileRenameInformation || infoClass == FileRenameInformationEx) {
        record->volumePath = *target;
    } else if (IsDisposition(infoClass)) {
        if (std::optional<bool> pending = DeletePendingAfter(infoClass, set.InfoBuffer)) {
            record->fileObject.DeletePending = *pending;
        }
    } else if (infoClass == FileEndOfFileInformation || infoClass == FileAllocationInformation) {
        FILE_STANDARD_INFORMATION standard{};
        ULONG returned = 0;
        if (NT_SUCCESS(volume.QueryInformation(*record->open, FileStandardInformation, &standard, sizeof(standard),
                                               &returned))) {
            DropCachedPagesBeyond(record, standard.EndOfFile.QuadPart);
        }
    }
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS SetInformationThroughStack(FileObjectRecord* record, const std::shared_ptr<_FLT_INSTANCE>& below,
                                    HANDLE handle, PVOID buffer, ULONG length, FILE_INFORMATION_CLASS infoClass,
                                    KPROCESSOR_MODE mode, bool generated)
{
    if (std::optional<ULONG> minimum = MinimumLength(infoClass); minimum && length < *minimum) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (infoClass == FilePositionInformation) {
        std::lock_guard lock(record->positionMutex);
        record->fileObject.CurrentByteOffset = static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset;
        return STATUS_SUCCESS;
    }
    std::vector<UCHAR> systemBuffer(static_cast<const UCHAR*>(buffer), static_cast<const UCHAR*>(buffer) + length);

    FileObjectRecord* parent = nullptr;
    BOOLEAN replaceIfExists = FALSE;
    if (IsRenameOrLink(infoClass)) {
        std::optional<std::u16string_view> name = TargetName(systemBuffer.data(), length);
        if (!name) {
            return STATUS_INVALID_PARAMETER;
        }
        const auto* rename = reinterpret_cast<const FILE_RENAME_INFORMATION*>(systemBuffer.data());
        if (infoClass == FileRenameInformationEx) {
            replaceIfExists = (rename->Flags & FILE_RENAME_REPLACE_IF_EXISTS) != 0;
        } else if (infoClass == FileLinkInformationEx) {
            replaceIfExists = (rename->Flags & FILE_LINK_REPLACE_IF_EXISTS) != 0;
        } else {
            replaceIfExists = rename->ReplaceIfExists;
        }
        NTSTATUS status = OpenTargetDirectory(record, *rename, *name, below, mode, generated, &parent);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }

    CallbackFrame frame(FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_SYSTEM_BUFFER |
                            (generated ? FLTFL_CALLBACK_DATA_GENERATED_IO : 0),
                        mode);
    FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
    iopb.MajorFunction = IRP_MJ_SET_INFORMATION;
    iopb.IrpFlags = IRP_BUFFERED_IO | IRP_SYNCHRONOUS_API;
    iopb.TargetFileObject = &record->fileObject;
    auto& set = iopb.Parameters.SetFileInformation;
    set.Length = length;
    set.FileInformationClass = infoClass;
    set.ParentOfTarget = parent != nullptr ? &parent->fileObject : nullptr;
    if (IsRenameOrLink(infoClass)) {
        set.ReplaceIfExists = replaceIfExists;
    } else if (IsDisposition(infoClass)) {
        set.DeleteHandle = handle;
    }
    set.InfoBuffer = systemBuffer.data();
    Dispatch(*record->volume, below.get(), frame, [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& params) {
        data.IoStatus.Status = SetOnVolume(record, params);
        data.IoStatus.Information = 0;
    });
    if (parent != nullptr) {
        DereferenceFile(parent);
    }
    return frame.data.IoStatus.Status;
}

}  // namespace ntsim::iomgr

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

NTSTATUS SetInformationAs(KPROCESSOR_MODE mode, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                          PVOID FileInformation, ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtSetInformationFile");
    if (IoStatusBlock == nullptr || FileInformation == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ScopedPreviousMode previousMode(mode);
    FileObjectRecord* record = nullptr;
    NTSTATUS status = ReferenceFileByHandle(FileHandle, AccessToSet(FileInformationClass), mode, &record);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = SetInformationThroughStack(record, record->below, FileHandle, FileInformation, Length,
                                        FileInformationClass, mode, false);
    DereferenceFile(record);
    IoStatusBlock->Status = status;
    IoStatusBlock->Information = 0;
    return status;
}

}  // namespace

extern "C" {

NTSTATUS NTAPI NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                    ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    return SetInformationAs(ExGetPreviousMode(), FileHandle, IoStatusBlock, FileInformation, Length,
                            FileInformationClass);
}

NTSTATUS NTAPI ZwSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                    ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    return SetInformationAs(KernelMode, FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass);
}

NTSTATUS FLTAPI FltSetInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    if (auto failure = faults::Check("FltSetInformationFile")) {
        return *failure;
    }
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FltSetInformationFile");
    auto instance = InstanceOf(Instance);
    if (instance == nullptr || FileObject == nullptr || FileInformation == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return SetInformationThroughStack(RecordOf(FileObject), instance, nullptr, FileInformation, Length,
                                      FileInformationClass, KernelMode, true);
}

}  // extern "C"
