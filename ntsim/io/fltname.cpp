// File names as the Filter Manager gives them to filters: the opened or normalized name of the
// target of an operation, in device form, and its parsing into components.
#include "iomgr.hpp"

#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <atomic>
#include <cstring>
#include <new>

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

// One pool block: this header, then the name's characters. The caller sees `information`.
struct NameBlock {
    std::atomic<long> references;
    _FLT_FILTER* owner;
    FLT_FILE_NAME_INFORMATION information;
};

NameBlock* BlockOf(PFLT_FILE_NAME_INFORMATION information)
{
    return CONTAINING_RECORD(information, NameBlock, information);
}

UNICODE_STRING Slice(const UNICODE_STRING& name, size_t start, size_t end)
{
    UNICODE_STRING part{};
    part.Buffer = name.Buffer + start;
    part.Length = static_cast<USHORT>((end - start) * sizeof(WCHAR));
    part.MaximumLength = part.Length;
    return part;
}

// The normalized name of a file that a create is about to make: its parent normalized and the last
// component as the caller gave it (a tunneled or short name stays as given). A parent that does
// not exist fails the query with STATUS_OBJECT_PATH_NOT_FOUND.
NTSTATUS NormalizeNameToCreate(Volume& volume, std::u16string_view opened, std::u16string* path)
{
    std::u16string_view trimmed = opened;
    if (trimmed.size() > 1 && trimmed.back() == u'\\') {
        trimmed.remove_suffix(1);
    }
    const size_t slash = trimmed.rfind(u'\\');
    if (slash == std::u16string_view::npos) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::u16string parent;
    NTSTATUS status = volume.NormalizePath(std::u16string(trimmed.substr(0, slash == 0 ? 1 : slash)), &parent);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (parent.empty() || parent.back() != u'\\') {
        parent += u'\\';
    }
    *path = parent + std::u16string(trimmed.substr(slash + 1));
    return STATUS_SUCCESS;
}

// The path on the volume of the target of an operation: of the open when the file system has
// opened it, else as the create names it (before the file system saw it, or a network query open).
NTSTATUS TargetPath(FileObjectRecord* record, bool normalized, std::u16string* path)
{
    const FILE_OBJECT& fileObject = record->fileObject;
    if (record->open != nullptr) {
        if (normalized) {
            return record->volume->volume->NormalizedPath(*record->open, path);
        }
        *path = record->volumePath;
        return STATUS_SUCCESS;
    }
    std::u16string opened(View(fileObject.FileName));
    if (fileObject.RelatedFileObject != nullptr) {
        NTSTATUS status = JoinRelativePath(RecordOf(fileObject.RelatedFileObject), opened, &opened);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (!normalized) {
        *path = std::move(opened);
        return STATUS_SUCCESS;
    }
    Volume& volume = *record->volume->volume;
    NTSTATUS status = volume.NormalizePath(opened, path);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND && record->createStage == CreateStage::BeforeFileSystem) {
        return NormalizeNameToCreate(volume, opened, path);
    }
    return status;
}

NTSTATUS GetName(PFILE_OBJECT fileObject, const _FLT_INSTANCE* instance, FLT_FILE_NAME_OPTIONS options,
                 PFLT_FILE_NAME_INFORMATION* result)
{
    if (auto failure = faults::Check("FltGetFileNameInformation")) {
        return *failure;
    }
    if (KeGetCurrentIrql() > APC_LEVEL) {
        // Reported; the query then fails rather than touch paged pool where it may not.
        verifier::AssertIrqlAtMost(APC_LEVEL, "FltGetFileNameInformation");
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    if (fileObject == nullptr || instance == nullptr || result == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG format = options & FLT_VALID_FILE_NAME_FORMATS;
    if (format == FLT_FILE_NAME_SHORT) {
        return verifier::NotImplemented("FltGetFileNameInformation with FLT_FILE_NAME_SHORT");
    }
    if (format != FLT_FILE_NAME_NORMALIZED && format != FLT_FILE_NAME_OPENED) {
        return STATUS_INVALID_PARAMETER;
    }
    FileObjectRecord* record = RecordOf(fileObject);
    std::u16string path;
    NTSTATUS status = TargetPath(record, format == FLT_FILE_NAME_NORMALIZED, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const std::u16string name = record->volume->deviceName + path;
    const size_t bytes = name.size() * sizeof(WCHAR);
    if (bytes > MAXUSHORT) {
        return STATUS_NAME_TOO_LONG;
    }
    auto* block = static_cast<NameBlock*>(ExAllocatePoolWithTag(PagedPool, sizeof(NameBlock) + bytes, kNameInfoTag));
    if (block == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    new (&block->references) std::atomic<long>(1);
    block->owner = instance->filter.get();
    FLT_FILE_NAME_INFORMATION& information = block->information;
    std::memset(&information, 0, sizeof(information));
    auto* characters = reinterpret_cast<PWCH>(block + 1);
    std::memcpy(characters, name.data(), bytes);
    information.Size = sizeof(FLT_FILE_NAME_INFORMATION);
    information.Format = format;
    information.Name.Buffer = characters;
    information.Name.Length = static_cast<USHORT>(bytes);
    information.Name.MaximumLength = static_cast<USHORT>(bytes);
    information.Volume = Slice(information.Name, 0, record->volume->deviceName.size());
    ++block->owner->nameInformation;
    *result = &information;
    return STATUS_SUCCESS;
}

}  // namespace

extern "C" {

NTSTATUS FLTAPI FltGetFileNameInformation(PFLT_CALLBACK_DATA CallbackData, FLT_FILE_NAME_OPTIONS NameOptions,
                                          PFLT_FILE_NAME_INFORMATION* FileNameInformation)
{
    if (CallbackData == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return GetName(CallbackData->Iopb->TargetFileObject, CallbackData->Iopb->TargetInstance, NameOptions,
                   FileNameInformation);
}

NTSTATUS FLTAPI FltGetFileNameInformationUnsafe(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance,
                                                FLT_FILE_NAME_OPTIONS NameOptions,
                                                PFLT_FILE_NAME_INFORMATION* FileNameInformation)
{
    return GetName(FileObject, Instance, NameOptions, FileNameInformation);
}

VOID FLTAPI FltReferenceFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    ++BlockOf(FileNameInformation)->references;
}

VOID FLTAPI FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    NameBlock* block = BlockOf(FileNameInformation);
    if (--block->references == 0) {
        --block->owner->nameInformation;
        block->references.~atomic();
        ExFreePoolWithTag(block, kNameInfoTag);
    }
}

// Splits Name after the volume: ParentDir "\dir\", FinalComponent "file.txt:stream",
// Stream ":stream", Extension "txt" (of the final component without its stream).
NTSTATUS FLTAPI FltParseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    if (FileNameInformation == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    FLT_FILE_NAME_INFORMATION& information = *FileNameInformation;
    const UNICODE_STRING& name = information.Name;
    const size_t count = name.Length / sizeof(WCHAR);
    const size_t volumeEnd = information.Volume.Length / sizeof(WCHAR);
    size_t lastSeparator = volumeEnd;
    bool anySeparator = false;
    for (size_t i = volumeEnd; i < count; ++i) {
        if (name.Buffer[i] == L'\\') {
            lastSeparator = i;
            anySeparator = true;
        }
    }
    if (!anySeparator) {
        information.NamesParsed = FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT | FLTFL_FILE_NAME_PARSED_EXTENSION |
                                  FLTFL_FILE_NAME_PARSED_STREAM | FLTFL_FILE_NAME_PARSED_PARENT_DIR;
        return STATUS_SUCCESS;
    }
    information.ParentDir = Slice(name, volumeEnd, lastSeparator + 1);
    information.FinalComponent = Slice(name, lastSeparator + 1, count);
    size_t streamStart = count;
    for (size_t i = lastSeparator + 1; i < count; ++i) {
        if (name.Buffer[i] == L':') {
            streamStart = i;
            break;
        }
    }
    if (streamStart < count) {
        information.Stream = Slice(name, streamStart, count);
    }
    for (size_t i = streamStart; i > lastSeparator + 1; --i) {
        if (name.Buffer[i - 1] == L'.') {
            information.Extension = Slice(name, i, streamStart);
            break;
        }
    }
    information.NamesParsed = FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT | FLTFL_FILE_NAME_PARSED_EXTENSION |
                              FLTFL_FILE_NAME_PARSED_STREAM | FLTFL_FILE_NAME_PARSED_PARENT_DIR;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltIsDirectory(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance, PBOOLEAN IsDirectory)
{
    if (FileObject == nullptr || Instance == nullptr || IsDirectory == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    FileObjectRecord* record = RecordOf(FileObject);
    if (record->open == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *IsDirectory = record->open->IsDirectory() ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

}  // extern "C"
