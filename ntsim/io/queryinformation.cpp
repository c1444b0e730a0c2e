// Query information: NtQueryInformationFile, ZwQueryInformationFile and FltQueryInformationFile, and
// the fast and IRP forms of a query that the rest of the I/O manager builds on.
//
// Before any filter sees a native query, the I/O manager refuses a class that cannot be queried
// (STATUS_INVALID_INFO_CLASS) and a buffer shorter than the class's fixed part
// (STATUS_INFO_LENGTH_MISMATCH), and only then looks the handle up with the access the class needs.
// FilePositionInformation of a synchronous file object is answered from the file object.
//
// Basic and standard information are first offered as fast I/O (FastIoQueryBasicInfo,
// FastIoQueryStandardInfo): the callback data carries FLTFL_CALLBACK_DATA_FAST_IO_OPERATION, the
// caller's own buffer, and the record's size as Length, since those routines take no length. A
// filter that answers FLT_PREOP_DISALLOW_FASTIO, or a file system that declines, sends the query
// again as an IRP. An IRP query carries a system buffer (FLTFL_CALLBACK_DATA_SYSTEM_BUFFER), not
// zeroed, as pool isn't: when it completes with a status that is not an error, its first
// IoStatus.Information bytes go back to the caller's buffer, whoever completed it. A driver that reports more bytes than the buffer holds is a
// verifier error (nothing past the buffer is copied).
//
// A handle's query goes below the instance that opened its file object, if a filter opened it with
// FltCreateFileEx. FltQueryInformationFile goes below the given instance, as an IRP, and the I/O
// manager's length check does not apply to it: the file system checks what reaches it.
#include "iomgr.hpp"

#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace ntsim::iomgr {

namespace {

// What a new block of ntsim's pool holds, byte after byte.
constexpr UCHAR kPoolFill = 0xA5;

// The fixed part of a class's record, as the I/O manager's table has it: 0 for a class that is
// never queried (directory and set-only classes). Classes ntsim does not list are left to the file
// system.
std::optional<ULONG> QueryOperationLength(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileBasicInformation:
        return sizeof(FILE_BASIC_INFORMATION);
    case FileStandardInformation:
        return sizeof(FILE_STANDARD_INFORMATION);
    case FileInternalInformation:
        return sizeof(FILE_INTERNAL_INFORMATION);
    case FileEaInformation:
        return sizeof(FILE_EA_INFORMATION);
    case FileAccessInformation:
        return sizeof(FILE_ACCESS_INFORMATION);
    case FileNameInformation:
    case FileAlternateNameInformation:
    case FileNormalizedNameInformation:
        return sizeof(FILE_NAME_INFORMATION);
    case FilePositionInformation:
        return sizeof(FILE_POSITION_INFORMATION);
    case FileModeInformation:
        return sizeof(FILE_MODE_INFORMATION);
    case FileAlignmentInformation:
        return sizeof(FILE_ALIGNMENT_INFORMATION);
    case FileAllInformation:
        return sizeof(FILE_ALL_INFORMATION);
    case FileStreamInformation:
        return sizeof(FILE_STREAM_INFORMATION);
    case FileNetworkOpenInformation:
        return sizeof(FILE_NETWORK_OPEN_INFORMATION);
    case FileAttributeTagInformation:
        return sizeof(FILE_ATTRIBUTE_TAG_INFORMATION);
    case FileDirectoryInformation:
    case FileFullDirectoryInformation:
    case FileBothDirectoryInformation:
    case FileNamesInformation:
    case FileIdBothDirectoryInformation:
    case FileIdFullDirectoryInformation:
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileLinkInformation:
    case FileLinkInformationEx:
    case FileDispositionInformation:
    case FileDispositionInformationEx:
    case FileFullEaInformation:
    case FileAllocationInformation:
    case FileEndOfFileInformation:
    case FileMailslotSetInformation:
    case FileCompletionInformation:
    case FileMoveClusterInformation:
    case FileTrackingInformation:
    case FileValidDataLengthInformation:
    case FileShortNameInformation:
        return 0;
    default:
        return std::nullopt;
    }
}

// The access a handle needs for a class.
ACCESS_MASK AccessToQuery(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileBasicInformation:
    case FileAllInformation:
    case FileNetworkOpenInformation:
    case FileAttributeTagInformation:
        return FILE_READ_ATTRIBUTES;
    default:
        return 0;
    }
}

// The I/O manager's checks of a native query's class and length, made before the handle is looked
// up.
NTSTATUS CheckQueryArguments(FILE_INFORMATION_CLASS infoClass, ULONG length)
{
    if (infoClass <= 0 || infoClass >= FileMaximumInformation) {
        return STATUS_INVALID_INFO_CLASS;
    }
    std::optional<ULONG> minimum = QueryOperationLength(infoClass);
    if (minimum && *minimum == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (minimum && length < *minimum) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    return STATUS_SUCCESS;
}

// The file system's part of a query. FileAllInformation's position is the file object's, which the
// file system reads from the file object it is given.
NTSTATUS QueryOnVolume(FileObjectRecord* record, const FLT_IO_PARAMETER_BLOCK& params, ULONG* filled)
{
    const auto& query = params.Parameters.QueryFileInformation;
    *filled = 0;
    if (record->open == nullptr) {
        return STATUS_FILE_CLOSED;
    }
    NTSTATUS status = record->volume->volume->QueryInformation(*record->open, query.FileInformationClass,
                                                               query.InfoBuffer, query.Length, filled);
    constexpr ULONG kPositionOffset = FIELD_OFFSET(FILE_ALL_INFORMATION, PositionInformation);
    if (query.FileInformationClass == FileAllInformation && !NT_ERROR(status) &&
        *filled >= kPositionOffset + sizeof(FILE_POSITION_INFORMATION)) {
        std::lock_guard lock(record->positionMutex);
        std::memcpy(static_cast<UCHAR*>(query.InfoBuffer) + kPositionOffset, &record->fileObject.CurrentByteOffset,
                    sizeof(LARGE_INTEGER));
    }
    return status;
}

}  // namespace

DispatchResult QueryInformationAsFastIo(FileObjectRecord* record, const _FLT_INSTANCE* below, PVOID buffer,
                                        FILE_INFORMATION_CLASS infoClass, KPROCESSOR_MODE mode,
                                        IO_STATUS_BLOCK* ioStatus)
{
    CallbackFrame frame(FLTFL_CALLBACK_DATA_FAST_IO_OPERATION, mode);
    FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
    iopb.MajorFunction = IRP_MJ_QUERY_INFORMATION;
    iopb.TargetFileObject = &record->fileObject;
    iopb.Parameters.QueryFileInformation.Length = *QueryOperationLength(infoClass);
    iopb.Parameters.QueryFileInformation.FileInformationClass = infoClass;
    iopb.Parameters.QueryFileInformation.InfoBuffer = buffer;
    DispatchResult result =
        Dispatch(*record->volume, below, frame, [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& params) {
            ULONG filled = 0;
            data.IoStatus.Status = QueryOnVolume(record, params, &filled);
            data.IoStatus.Information = filled;
        });
    *ioStatus = frame.data.IoStatus;
    return result;
}

NTSTATUS QueryInformationThroughStack(FileObjectRecord* record, const _FLT_INSTANCE* below, PVOID buffer,
                                      ULONG length, FILE_INFORMATION_CLASS infoClass, KPROCESSOR_MODE mode,
                                      bool generated, ULONG* returned)
{
    *returned = 0;
    if (infoClass == FilePositionInformation && (record->fileObject.Flags & FO_SYNCHRONOUS_IO) != 0) {
        if (length < sizeof(FILE_POSITION_INFORMATION)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        std::lock_guard lock(record->positionMutex);
        static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset = record->fileObject.CurrentByteOffset;
        *returned = sizeof(FILE_POSITION_INFORMATION);
        return STATUS_SUCCESS;
    }
    // The system buffer comes from pool and isn't zeroed: what a driver reports without writing it
    // reaches the caller as the pool held it.
    std::vector<UCHAR> systemBuffer(length, kPoolFill);
    CallbackFrame frame(FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_SYSTEM_BUFFER |
                            (generated ? FLTFL_CALLBACK_DATA_GENERATED_IO : 0),
                        mode);
    FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
    iopb.MajorFunction = IRP_MJ_QUERY_INFORMATION;
    iopb.IrpFlags = IRP_BUFFERED_IO | IRP_INPUT_OPERATION | IRP_SYNCHRONOUS_API;
    iopb.TargetFileObject = &record->fileObject;
    iopb.Parameters.QueryFileInformation.Length = length;
    iopb.Parameters.QueryFileInformation.FileInformationClass = infoClass;
    iopb.Parameters.QueryFileInformation.InfoBuffer = systemBuffer.data();
    Dispatch(*record->volume, below, frame, [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& params) {
        ULONG filled = 0;
        data.IoStatus.Status = QueryOnVolume(record, params, &filled);
        data.IoStatus.Information = filled;
    });
    const NTSTATUS status = frame.data.IoStatus.Status;
    if (NT_ERROR(status)) {
        return status;
    }
    ULONG_PTR information = frame.data.IoStatus.Information;
    if (information > length) {
        verifier::BugCheck(rules::kInformationBeyondBuffer,
                           "a query of information class " + std::to_string(static_cast<int>(infoClass)) +
                               " completed with IoStatus.Information " + std::to_string(information) +
                               " for a buffer of " + std::to_string(length) + " bytes");
        information = length;
    }
    std::memcpy(buffer, systemBuffer.data(), information);
    *returned = static_cast<ULONG>(information);
    return status;
}

NTSTATUS QueryInformationFastThenIrp(FileObjectRecord* record, const _FLT_INSTANCE* below, PVOID buffer,
                                     ULONG length, FILE_INFORMATION_CLASS infoClass, KPROCESSOR_MODE mode,
                                     ULONG* returned)
{
    IO_STATUS_BLOCK ioStatus{};
    if (QueryInformationAsFastIo(record, below, buffer, infoClass, mode, &ioStatus) == DispatchResult::Completed) {
        *returned = NT_ERROR(ioStatus.Status) ? 0 : static_cast<ULONG>(ioStatus.Information);
        return ioStatus.Status;
    }
    return QueryInformationThroughStack(record, below, buffer, length, infoClass, mode, false, returned);
}

}  // namespace ntsim::iomgr

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

NTSTATUS QueryInformationAs(KPROCESSOR_MODE mode, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                            PVOID FileInformation, ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtQueryInformationFile");
    if (IoStatusBlock == nullptr || FileInformation == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ScopedPreviousMode previousMode(mode);
    NTSTATUS status = CheckQueryArguments(FileInformationClass, Length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FileObjectRecord* record = nullptr;
    status = ReferenceFileByHandle(FileHandle, AccessToQuery(FileInformationClass), mode, &record);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG returned = 0;
    if (FileInformationClass == FileBasicInformation || FileInformationClass == FileStandardInformation) {
        status = QueryInformationFastThenIrp(record, record->below.get(), FileInformation, Length,
                                             FileInformationClass, mode, &returned);
    } else {
        status = QueryInformationThroughStack(record, record->below.get(), FileInformation, Length,
                                              FileInformationClass, mode, false, &returned);
    }
    DereferenceFile(record);
    IoStatusBlock->Status = status;
    IoStatusBlock->Information = returned;
    return status;
}

}  // namespace

extern "C" {

NTSTATUS NTAPI NtQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    return QueryInformationAs(ExGetPreviousMode(), FileHandle, IoStatusBlock, FileInformation, Length,
                              FileInformationClass);
}

NTSTATUS NTAPI ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    return QueryInformationAs(KernelMode, FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass);
}

NTSTATUS FLTAPI FltQueryInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                        ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,
                                        PULONG LengthReturned)
{
    if (auto failure = faults::Check("FltQueryInformationFile")) {
        return *failure;
    }
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FltQueryInformationFile");
    auto instance = InstanceOf(Instance);
    if (instance == nullptr || FileObject == nullptr || FileInformation == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG returned = 0;
    NTSTATUS status = QueryInformationThroughStack(RecordOf(FileObject), instance.get(), FileInformation, Length,
                                                   FileInformationClass, KernelMode, true, &returned);
    if (LengthReturned != nullptr) {
        *LengthReturned = returned;
    }
    return status;
}

}  // extern "C"
