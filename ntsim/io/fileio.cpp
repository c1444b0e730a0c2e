// Operations on open files: read, write, directory queries, EAs and flushes, as the native API, the
// Filter Manager's I/O below a filter, and the test-issued forms. Query and set information are in
// queryinformation.cpp and setinformation.cpp, the cache's write-back in cachemanager.cpp.
#include "iomgr.hpp"

#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <vector>

namespace ntsim::iomgr {

namespace {

struct ReadWrite {
    bool write = false;
    FileObjectRecord* record = nullptr;
    const _FLT_INSTANCE* below = nullptr;
    PLARGE_INTEGER byteOffset = nullptr;  // null: the file object's position
    ULONG length = 0;
    PVOID buffer = nullptr;
    ULONG irpFlags = 0;
    bool tryFastIo = false;
    bool updatePosition = true;
    KPROCESSOR_MODE mode = KernelMode;
    bool generated = false;
};

bool UsesFilePosition(const LARGE_INTEGER* offset)
{
    return offset == nullptr || (offset->HighPart == -1 && offset->LowPart == FILE_USE_FILE_POINTER_POSITION);
}

// The IRP flags of a read or write. Paging I/O carries what the cache or memory manager says of it
// (IRP_PAGING_IO, IRP_SYNCHRONOUS_PAGING_IO for a synchronous page write) and is always non-cached.
// Any other I/O gets its kind, IRP_NOCACHE when the file object was opened without intermediate
// buffering, and IRP_SYNCHRONOUS_API when the file object is synchronous (the I/O manager then waits
// for the operation in the caller's thread).
ULONG IrpFlagsOf(const ReadWrite& request)
{
    if ((request.irpFlags & IRP_PAGING_IO) != 0) {
        return request.irpFlags | IRP_NOCACHE;
    }
    const ULONG fileObjectFlags = request.record->fileObject.Flags;
    ULONG flags = request.irpFlags | (request.write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION);
    if ((fileObjectFlags & FO_NO_INTERMEDIATE_BUFFERING) != 0) {
        flags |= IRP_NOCACHE;
    }
    if ((fileObjectFlags & FO_SYNCHRONOUS_IO) != 0) {
        flags |= IRP_SYNCHRONOUS_API;
    }
    return flags;
}

// The file system's part of a write: at the end of file for FILE_WRITE_TO_END_OF_FILE; a paging
// write never moves the end of file, so it is cut there (and one wholly past it writes nothing).
// A cached write leaves the pages it changed dirty in the file object's cache.
NTSTATUS WriteToVolume(FileObjectRecord* record, const FLT_IO_PARAMETER_BLOCK& params, ULONG* transferred)
{
    Volume& volume = *record->volume->volume;
    const auto& write = params.Parameters.Write;
    const bool toEnd = write.ByteOffset.HighPart == -1 && write.ByteOffset.LowPart == FILE_WRITE_TO_END_OF_FILE;
    const bool paging = (params.IrpFlags & IRP_PAGING_IO) != 0;
    LONGLONG at = write.ByteOffset.QuadPart;
    ULONG length = write.Length;
    if (toEnd || paging) {
        FILE_STANDARD_INFORMATION standard{};
        ULONG returned = 0;
        NTSTATUS status =
            volume.QueryInformation(*record->open, FileStandardInformation, &standard, sizeof(standard), &returned);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        const LONGLONG endOfFile = standard.EndOfFile.QuadPart;
        if (toEnd) {
            at = endOfFile;
        } else if (at >= endOfFile) {
            length = 0;
        } else {
            length = static_cast<ULONG>(std::min<LONGLONG>(length, endOfFile - at));
        }
    }
    NTSTATUS status = volume.Write(*record->open, at, length, write.WriteBuffer, transferred);
    if (NT_SUCCESS(status) && (params.IrpFlags & (IRP_PAGING_IO | IRP_NOCACHE)) == 0) {
        MarkCachedPagesDirty(record, at, *transferred);
    }
    return status;
}

// The fast read and write paths of the file systems find fast I/O questionable and ask the top of
// the stack before they copy, as FsRtlCopyRead and FsRtlCopyWrite do: IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE
// through every filter below `below`, then the file system's own answer, which is yes (ntsim's
// volumes keep no byte-range locks or oplocks). False when a filter refused or failed the check.
bool FastIoPossible(FileObjectRecord* record, const _FLT_INSTANCE* below, LONGLONG offset, ULONG length, bool read,
                    KPROCESSOR_MODE mode)
{
    CallbackFrame frame(FLTFL_CALLBACK_DATA_FAST_IO_OPERATION, mode);
    FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
    iopb.MajorFunction = IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE;
    iopb.TargetFileObject = &record->fileObject;
    auto& check = iopb.Parameters.FastIoCheckIfPossible;
    check.FileOffset.QuadPart = offset;
    check.Length = length;
    check.LockKey = 0;
    check.CheckForReadOperation = read;
    DispatchResult result =
        Dispatch(*record->volume, below, frame, [](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK&) {
            data.IoStatus.Status = STATUS_SUCCESS;
            data.IoStatus.Information = 0;
        });
    return result == DispatchResult::Completed && NT_SUCCESS(frame.data.IoStatus.Status);
}

// One attempt of a read or write: as fast I/O or as an IRP.
DispatchResult SendReadWrite(const ReadWrite& request, LONGLONG offset, bool fastIo, IO_STATUS_BLOCK* ioStatus)
{
    FileObjectRecord* record = request.record;
    const bool paging = (request.irpFlags & IRP_PAGING_IO) != 0;
    // Paging I/O comes from the system, in kernel mode, whoever's thread it runs in.
    CallbackFrame frame((fastIo ? FLTFL_CALLBACK_DATA_FAST_IO_OPERATION : FLTFL_CALLBACK_DATA_IRP_OPERATION) |
                            (request.generated ? FLTFL_CALLBACK_DATA_GENERATED_IO : 0),
                        paging ? static_cast<KPROCESSOR_MODE>(KernelMode) : request.mode);
    FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
    iopb.MajorFunction = request.write ? IRP_MJ_WRITE : IRP_MJ_READ;
    iopb.IrpFlags = fastIo ? 0 : IrpFlagsOf(request);
    iopb.TargetFileObject = &record->fileObject;
    if (request.write) {
        iopb.Parameters.Write.Length = request.length;
        iopb.Parameters.Write.ByteOffset.QuadPart = offset;
        iopb.Parameters.Write.WriteBuffer = request.buffer;
    } else {
        iopb.Parameters.Read.Length = request.length;
        iopb.Parameters.Read.ByteOffset.QuadPart = offset;
        iopb.Parameters.Read.ReadBuffer = request.buffer;
    }
    const _FLT_INSTANCE* below = request.below != nullptr ? request.below : record->below.get();
    DispatchResult result =
        Dispatch(*record->volume, below, frame, [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& params) {
            ULONG transferred = 0;
            NTSTATUS status;
            if (fastIo && !FastIoPossible(record, below, offset, request.length, !request.write, frame.data.RequestorMode)) {
                // The fast path declines; the I/O manager sends the operation as an IRP.
                status = STATUS_FLT_DISALLOW_FAST_IO;
            } else if (record->open == nullptr || record->closed) {
                status = STATUS_FILE_CLOSED;
            } else if (record->cleanedUp && (params.IrpFlags & IRP_PAGING_IO) == 0) {
                // After cleanup only the cache and memory managers' paging I/O may come.
                status = STATUS_FILE_CLOSED;
            } else if (request.write) {
                status = WriteToVolume(record, params, &transferred);
            } else {
                status = record->volume->volume->Read(*record->open, params.Parameters.Read.ByteOffset.QuadPart,
                                                      params.Parameters.Read.Length,
                                                      params.Parameters.Read.ReadBuffer, &transferred);
            }
            data.IoStatus.Status = status;
            data.IoStatus.Information = transferred;
        });
    *ioStatus = frame.data.IoStatus;
    return result;
}

NTSTATUS DoReadWrite(const ReadWrite& request, PIO_STATUS_BLOCK ioStatus, ULONG* transferred)
{
    FileObjectRecord* record = request.record;
    FILE_OBJECT& fileObject = record->fileObject;
    const bool synchronous = (fileObject.Flags & FO_SYNCHRONOUS_IO) != 0;
    const bool paging = (request.irpFlags & IRP_PAGING_IO) != 0;
    LONGLONG offset;
    std::unique_lock<std::mutex> position(record->positionMutex, std::defer_lock);
    if (UsesFilePosition(request.byteOffset)) {
        if (!synchronous) {
            return STATUS_INVALID_PARAMETER;
        }
        position.lock();
        offset = fileObject.CurrentByteOffset.QuadPart;
    } else {
        if (synchronous && !paging) {
            position.lock();
        }
        offset = request.byteOffset->QuadPart;
    }

    IO_STATUS_BLOCK result{};
    const bool cached = (request.irpFlags & (IRP_NOCACHE | IRP_PAGING_IO)) == 0 &&
                        (fileObject.Flags & FO_NO_INTERMEDIATE_BUFFERING) == 0;
    bool done = false;
    if (request.tryFastIo && cached) {
        done = SendReadWrite(request, offset, true, &result) == DispatchResult::Completed;
    }
    if (!done) {
        SendReadWrite(request, offset, false, &result);
        if (cached && NT_SUCCESS(result.Status)) {
            // The file system has set up caching for this open: later cached I/O may go fast.
            fileObject.PrivateCacheMap = &record->sectionObjectPointers;
            record->sectionObjectPointers.SharedCacheMap = &record->sectionObjectPointers;
        }
    }
    if (NT_SUCCESS(result.Status) && synchronous && !paging && request.updatePosition) {
        LONGLONG start = offset;
        if (request.write && request.byteOffset != nullptr && request.byteOffset->HighPart == -1 &&
            request.byteOffset->LowPart == FILE_WRITE_TO_END_OF_FILE) {
            FILE_STANDARD_INFORMATION standard{};
            ULONG returned = 0;
            record->volume->volume->QueryInformation(*record->open, FileStandardInformation, &standard,
                                                     sizeof(standard), &returned);
            start = standard.EndOfFile.QuadPart - static_cast<LONGLONG>(result.Information);
        }
        fileObject.CurrentByteOffset.QuadPart = start + static_cast<LONGLONG>(result.Information);
    }
    if (request.write && NT_SUCCESS(result.Status) && !paging) {
        fileObject.Flags |= FO_FILE_MODIFIED;
    }
    if (ioStatus != nullptr) {
        *ioStatus = result;
    }
    if (transferred != nullptr) {
        *transferred = static_cast<ULONG>(result.Information);
    }
    return result.Status;
}

NTSTATUS QueryDirectoryThroughStack(FileObjectRecord* record, PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                                    FILE_INFORMATION_CLASS infoClass, PCUNICODE_STRING pattern, UCHAR flags,
                                    ULONG fileIndex, KPROCESSOR_MODE mode)
{
    // The pattern is captured, as the I/O manager does for a caller's string.
    std::u16string patternText;
    UNICODE_STRING capturedPattern{};
    if (pattern != nullptr && pattern->Length != 0) {
        patternText = std::u16string(View(*pattern));
        capturedPattern.Buffer = AsWide(patternText.data());
        capturedPattern.Length = static_cast<USHORT>(patternText.size() * sizeof(WCHAR));
        capturedPattern.MaximumLength = capturedPattern.Length;
    }
    CallbackFrame frame(FLTFL_CALLBACK_DATA_IRP_OPERATION, mode);
    FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
    iopb.MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
    iopb.MinorFunction = IRP_MN_QUERY_DIRECTORY;
    iopb.OperationFlags = flags;
    iopb.IrpFlags = IRP_SYNCHRONOUS_API;
    iopb.TargetFileObject = &record->fileObject;
    auto& query = iopb.Parameters.DirectoryControl.QueryDirectory;
    query.Length = length;
    query.FileName = capturedPattern.Buffer != nullptr ? &capturedPattern : nullptr;
    query.FileInformationClass = infoClass;
    query.FileIndex = fileIndex;
    query.DirectoryBuffer = buffer;
    Dispatch(*record->volume, record->below.get(), frame,
             [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& params) {
                 const auto& q = params.Parameters.DirectoryControl.QueryDirectory;
                 ULONG returned = 0;
                 NTSTATUS status = STATUS_FILE_CLOSED;
                 PVOID target = DirectoryBufferOf(params);
                 if (record->open == nullptr) {
                     status = STATUS_FILE_CLOSED;
                 } else if (!record->open->IsDirectory()) {
                     status = STATUS_INVALID_PARAMETER;
                 } else if (target == nullptr) {
                     status = STATUS_INSUFFICIENT_RESOURCES;  // the MDL could not be mapped
                 } else {
                     status = record->volume->volume->QueryDirectory(*record->open, q.FileInformationClass, target,
                                                                     q.Length, q.FileName, params.OperationFlags,
                                                                     q.FileIndex, &returned);
                 }
                 data.IoStatus.Status = status;
                 data.IoStatus.Information = returned;
             });
    if (ioStatus != nullptr) {
        *ioStatus = frame.data.IoStatus;
    }
    return frame.data.IoStatus.Status;
}

// IRP_MJ_QUERY_EA through the stack below the file object's opening instance, with the caller's
// buffer (Windows has no fast I/O form of it).
NTSTATUS QueryEaThroughStack(FileObjectRecord* record, PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                             UCHAR flags, PVOID eaList, ULONG eaListLength, ULONG eaIndex, KPROCESSOR_MODE mode)
{
    CallbackFrame frame(FLTFL_CALLBACK_DATA_IRP_OPERATION, mode);
    FLT_IO_PARAMETER_BLOCK& iopb = frame.iopb;
    iopb.MajorFunction = IRP_MJ_QUERY_EA;
    iopb.OperationFlags = flags;
    iopb.IrpFlags = IRP_SYNCHRONOUS_API;
    iopb.TargetFileObject = &record->fileObject;
    auto& query = iopb.Parameters.QueryEa;
    query.Length = length;
    query.EaList = eaList;
    query.EaListLength = eaListLength;
    query.EaIndex = eaIndex;
    query.EaBuffer = buffer;
    Dispatch(*record->volume, record->below.get(), frame,
             [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& params) {
                 const auto& q = params.Parameters.QueryEa;
                 ULONG returned = 0;
                 NTSTATUS status = STATUS_FILE_CLOSED;
                 if (record->open != nullptr) {
                     const VolumeEaQuery eaQuery{.flags = params.OperationFlags,
                                                 .eaList = q.EaList,
                                                 .eaListLength = q.EaListLength,
                                                 .eaIndex = q.EaIndex};
                     status = record->volume->volume->QueryEa(*record->open, eaQuery, q.EaBuffer, q.Length, &returned);
                 }
                 data.IoStatus.Status = status;
                 data.IoStatus.Information = returned;
             });
    *ioStatus = frame.data.IoStatus;
    return frame.data.IoStatus.Status;
}

NTSTATUS FlushBuffersThroughStack(FileObjectRecord* record, PIO_STATUS_BLOCK ioStatus, KPROCESSOR_MODE mode)
{
    CallbackFrame frame(FLTFL_CALLBACK_DATA_IRP_OPERATION, mode);
    frame.iopb.MajorFunction = IRP_MJ_FLUSH_BUFFERS;
    frame.iopb.IrpFlags = IRP_SYNCHRONOUS_API;
    frame.iopb.TargetFileObject = &record->fileObject;
    Dispatch(*record->volume, record->below.get(), frame, [&](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK&) {
        data.IoStatus.Status = FlushCache(record);
        data.IoStatus.Information = 0;
    });
    if (ioStatus != nullptr) {
        *ioStatus = frame.data.IoStatus;
    }
    return frame.data.IoStatus.Status;
}

void SetIoStatus(PIO_STATUS_BLOCK ioStatus, NTSTATUS status, ULONG_PTR information)
{
    if (ioStatus != nullptr) {
        ioStatus->Status = status;
        ioStatus->Information = information;
    }
}

bool AsynchronousArguments(HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext)
{
    return event != nullptr || apcRoutine != nullptr || apcContext != nullptr;
}

}  // namespace

NTSTATUS SendPagingWrite(FileObjectRecord* record, LONGLONG offset, ULONG length, const void* buffer,
                         ULONG irpFlags, ULONG* written)
{
    LARGE_INTEGER at;
    at.QuadPart = offset;
    ReadWrite request;
    request.write = true;
    request.record = record;
    request.byteOffset = &at;
    request.length = length;
    request.buffer = const_cast<void*>(buffer);
    request.irpFlags = irpFlags | IRP_PAGING_IO;
    request.updatePosition = false;
    request.mode = KernelMode;
    return DoReadWrite(request, nullptr, written);
}

}  // namespace ntsim::iomgr

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

// The file object behind a handle, referenced for the call, with the access the operation needs.
class HandleReference {
public:
    HandleReference(HANDLE handle, ACCESS_MASK access, KPROCESSOR_MODE mode)
    {
        status_ = ReferenceFileByHandle(handle, access, mode, &record_);
    }
    ~HandleReference()
    {
        if (record_ != nullptr) {
            DereferenceFile(record_);
        }
    }
    HandleReference(const HandleReference&) = delete;
    HandleReference& operator=(const HandleReference&) = delete;
    NTSTATUS status() const { return status_; }
    FileObjectRecord* get() const { return record_; }

private:
    NTSTATUS status_;
    FileObjectRecord* record_ = nullptr;
};

NTSTATUS NativeReadWrite(bool write, KPROCESSOR_MODE mode, HANDLE FileHandle, HANDLE Event,
                         PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                         ULONG Length, PLARGE_INTEGER ByteOffset)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, write ? "NtWriteFile" : "NtReadFile");
    if (AsynchronousArguments(Event, ApcRoutine, ApcContext)) {
        return verifier::NotImplemented(write ? "NtWriteFile with an event or APC" : "NtReadFile with an event or APC");
    }
    if (IoStatusBlock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ScopedPreviousMode previousMode(mode);
    FileObjectRecord* record = nullptr;
    NTSTATUS status = ReferenceFileByHandle(FileHandle, write ? FILE_WRITE_DATA : FILE_READ_DATA, mode, &record);
    if (write && status == STATUS_ACCESS_DENIED) {
        // Appending needs FILE_APPEND_DATA only.
        status = ReferenceFileByHandle(FileHandle, FILE_APPEND_DATA, mode, &record);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ReadWrite request;
    request.write = write;
    request.record = record;
    request.byteOffset = ByteOffset;
    request.length = Length;
    request.buffer = Buffer;
    request.tryFastIo = record->fileObject.PrivateCacheMap != nullptr;
    request.mode = mode;
    status = DoReadWrite(request, IoStatusBlock, nullptr);
    DereferenceFile(record);
    return status;
}

ULONG FltIoFlagsToIrpFlags(FLT_IO_OPERATION_FLAGS flags)
{
    ULONG irpFlags = 0;
    if ((flags & FLTFL_IO_OPERATION_NON_CACHED) != 0) {
        irpFlags |= IRP_NOCACHE;
    }
    if ((flags & FLTFL_IO_OPERATION_PAGING) != 0) {
        irpFlags |= IRP_PAGING_IO | IRP_NOCACHE;
    }
    if ((flags & FLTFL_IO_OPERATION_SYNCHRONOUS_PAGING) != 0) {
        irpFlags |= IRP_SYNCHRONOUS_PAGING_IO;
    }
    return irpFlags;
}

NTSTATUS FltReadWrite(bool write, PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                      PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags,
                      PULONG transferred, PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine)
{
    verifier::AssertIrqlAtMost(APC_LEVEL, write ? "FltWriteFile" : "FltReadFile");
    if (CallbackRoutine != nullptr) {
        return verifier::NotImplemented(write ? "FltWriteFile with a completion callback"
                                              : "FltReadFile with a completion callback");
    }
    auto instance = InstanceOf(InitiatingInstance);
    if (instance == nullptr || FileObject == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ReadWrite request;
    request.write = write;
    request.record = RecordOf(FileObject);
    request.below = instance.get();
    request.byteOffset = ByteOffset;
    request.length = Length;
    request.buffer = Buffer;
    request.irpFlags = FltIoFlagsToIrpFlags(Flags);
    request.updatePosition = (Flags & FLTFL_IO_OPERATION_DO_NOT_UPDATE_BYTE_OFFSET) == 0;
    request.mode = KernelMode;
    request.generated = true;
    ULONG done = 0;
    NTSTATUS status = DoReadWrite(request, nullptr, &done);
    if (transferred != nullptr) {
        *transferred = done;
    }
    return status;
}

}  // namespace

namespace ntsim {

NTSTATUS IoReadFile(PFILE_OBJECT fileObject, LONGLONG offset, ULONG length, void* buffer, const IoRequest& request,
                    ULONG* transferred)
{
    LARGE_INTEGER at;
    at.QuadPart = offset;
    ReadWrite rw;
    rw.record = RecordOf(fileObject);
    rw.byteOffset = &at;
    rw.length = length;
    rw.buffer = buffer;
    rw.irpFlags = request.irpFlags;
    rw.tryFastIo = request.fastIo;
    rw.mode = ExGetPreviousMode();
    return DoReadWrite(rw, nullptr, transferred);
}

NTSTATUS IoWriteFile(PFILE_OBJECT fileObject, LONGLONG offset, ULONG length, const void* buffer,
                     const IoRequest& request, ULONG* transferred)
{
    LARGE_INTEGER at;
    at.QuadPart = offset;
    ReadWrite rw;
    rw.write = true;
    rw.record = RecordOf(fileObject);
    rw.byteOffset = &at;
    rw.length = length;
    rw.buffer = const_cast<void*>(buffer);
    rw.irpFlags = request.irpFlags;
    rw.tryFastIo = request.fastIo;
    rw.mode = ExGetPreviousMode();
    return DoReadWrite(rw, nullptr, transferred);
}

NTSTATUS IoQueryDirectoryFile(PFILE_OBJECT fileObject, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                              PCUNICODE_STRING pattern, UCHAR flags, ULONG fileIndex, ULONG* returned)
{
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status = QueryDirectoryThroughStack(RecordOf(fileObject), &ioStatus, buffer, length, infoClass, pattern,
                                                 flags, fileIndex, ExGetPreviousMode());
    if (returned != nullptr) {
        *returned = static_cast<ULONG>(ioStatus.Information);
    }
    return status;
}

}  // namespace ntsim

extern "C" {

NTSTATUS NTAPI NtReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                          PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                          PULONG)
{
    return NativeReadWrite(false, ExGetPreviousMode(), FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock,
                           Buffer, Length, ByteOffset);
}

NTSTATUS NTAPI ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                          PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                          PULONG)
{
    return NativeReadWrite(false, KernelMode, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer,
                           Length, ByteOffset);
}

NTSTATUS NTAPI NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                           PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                           PULONG)
{
    return NativeReadWrite(true, ExGetPreviousMode(), FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock,
                           Buffer, Length, ByteOffset);
}

NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                           PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                           PULONG)
{
    return NativeReadWrite(true, KernelMode, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length,
                           ByteOffset);
}

// The smallest buffer a directory query of infoClass may bring: its record with a one-character
// name. 0 for a class that is no directory class.
static ULONG MinimumDirectoryBuffer(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileDirectoryInformation: return sizeof(FILE_DIRECTORY_INFORMATION);
    case FileFullDirectoryInformation: return sizeof(FILE_FULL_DIR_INFORMATION);
    case FileBothDirectoryInformation: return sizeof(FILE_BOTH_DIR_INFORMATION);
    case FileNamesInformation: return sizeof(FILE_NAMES_INFORMATION);
    case FileIdBothDirectoryInformation: return sizeof(FILE_ID_BOTH_DIR_INFORMATION);
    case FileIdFullDirectoryInformation: return sizeof(FILE_ID_FULL_DIR_INFORMATION);
    default: return 0;
    }
}

static NTSTATUS QueryDirectoryAs(KPROCESSOR_MODE mode, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                 PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                 ULONG Length, FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags,
                                 PUNICODE_STRING FileName)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtQueryDirectoryFile");
    if (AsynchronousArguments(Event, ApcRoutine, ApcContext)) {
        return verifier::NotImplemented("NtQueryDirectoryFile with an event or APC");
    }
    if (IoStatusBlock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((QueryFlags & FILE_QUERY_INDEX_SPECIFIED) != 0) {
        // No native caller can name the index; ntsim::IoQueryDirectoryFile can.
        return STATUS_INVALID_PARAMETER;
    }
    switch (FileInformationClass) {
    case FileObjectIdInformation: case FileReparsePointInformation:
    case FileIdGlobalTxDirectoryInformation: case FileIdExtdDirectoryInformation:
    case FileIdExtdBothDirectoryInformation:
        return verifier::NotImplemented("NtQueryDirectoryFile of information class " +
                                        std::to_string(static_cast<int>(FileInformationClass)));
    default:
        break;
    }
    const ULONG minimum = MinimumDirectoryBuffer(FileInformationClass);
    if (minimum == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (Length < minimum) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (mode == UserMode) {
        try {
            ProbeForWrite(FileInformation, Length, sizeof(ULONG));
        } catch (const SehException& exception) {
            return exception.Code();
        }
    } else if (FileInformation == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ScopedPreviousMode previousMode(mode);
    HandleReference file(FileHandle, FILE_LIST_DIRECTORY, mode);
    if (!NT_SUCCESS(file.status())) {
        return file.status();
    }
    UCHAR flags = 0;
    if ((QueryFlags & FILE_QUERY_RESTART_SCAN) != 0) {
        flags |= SL_RESTART_SCAN;
    }
    if ((QueryFlags & FILE_QUERY_RETURN_SINGLE_ENTRY) != 0) {
        flags |= SL_RETURN_SINGLE_ENTRY;
    }
    return QueryDirectoryThroughStack(file.get(), IoStatusBlock, FileInformation, Length, FileInformationClass,
                                      FileName, flags, 0, mode);
}

NTSTATUS NTAPI NtQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                    PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                    FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                                    PUNICODE_STRING FileName, BOOLEAN RestartScan)
{
    return QueryDirectoryAs(ExGetPreviousMode(), FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock,
                            FileInformation, Length, FileInformationClass,
                            (ReturnSingleEntry ? FILE_QUERY_RETURN_SINGLE_ENTRY : 0) |
                                (RestartScan ? FILE_QUERY_RESTART_SCAN : 0),
                            FileName);
}

NTSTATUS NTAPI ZwQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                    PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                    FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                                    PUNICODE_STRING FileName, BOOLEAN RestartScan)
{
    return QueryDirectoryAs(KernelMode, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FileInformation,
                            Length, FileInformationClass,
                            (ReturnSingleEntry ? FILE_QUERY_RETURN_SINGLE_ENTRY : 0) |
                                (RestartScan ? FILE_QUERY_RESTART_SCAN : 0),
                            FileName);
}

NTSTATUS NTAPI NtQueryDirectoryFileEx(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                      PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                      FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags,
                                      PUNICODE_STRING FileName)
{
    return QueryDirectoryAs(ExGetPreviousMode(), FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock,
                            FileInformation, Length, FileInformationClass, QueryFlags, FileName);
}

NTSTATUS NTAPI ZwQueryDirectoryFileEx(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                      PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                      FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags,
                                      PUNICODE_STRING FileName)
{
    return QueryDirectoryAs(KernelMode, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FileInformation,
                            Length, FileInformationClass, QueryFlags, FileName);
}

NTSTATUS NTAPI NtNotifyChangeDirectoryFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG, ULONG,
                                           BOOLEAN)
{
    return verifier::NotImplemented("NtNotifyChangeDirectoryFile (IRP_MN_NOTIFY_CHANGE_DIRECTORY)");
}

NTSTATUS NTAPI ZwNotifyChangeDirectoryFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG, ULONG,
                                           BOOLEAN)
{
    return verifier::NotImplemented("ZwNotifyChangeDirectoryFile (IRP_MN_NOTIFY_CHANGE_DIRECTORY)");
}

static NTSTATUS QueryEaAs(KPROCESSOR_MODE mode, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                          ULONG Length, BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex,
                          BOOLEAN RestartScan)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtQueryEaFile");
    if (IoStatusBlock == nullptr || Buffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ScopedPreviousMode previousMode(mode);
    HandleReference file(FileHandle, FILE_READ_EA, mode);
    if (!NT_SUCCESS(file.status())) {
        return file.status();
    }
    // The caller's list of names is captured and checked before any driver sees it.
    std::vector<UCHAR> capturedList;
    if (EaList != nullptr && EaListLength != 0) {
        capturedList.assign(static_cast<const UCHAR*>(EaList), static_cast<const UCHAR*>(EaList) + EaListLength);
        ULONG badOffset = 0;
        if (!ParseEaNameList(capturedList.data(), EaListLength, nullptr, &badOffset)) {
            SetIoStatus(IoStatusBlock, STATUS_EA_LIST_INCONSISTENT, badOffset);
            return STATUS_EA_LIST_INCONSISTENT;
        }
    }
    UCHAR flags = (ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0) | (RestartScan ? SL_RESTART_SCAN : 0) |
                  (EaIndex != nullptr ? SL_INDEX_SPECIFIED : 0);
    return QueryEaThroughStack(file.get(), IoStatusBlock, Buffer, Length, flags,
                               capturedList.empty() ? nullptr : capturedList.data(),
                               static_cast<ULONG>(capturedList.size()), EaIndex != nullptr ? *EaIndex : 0, mode);
}

NTSTATUS NTAPI NtQueryEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                             BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex,
                             BOOLEAN RestartScan)
{
    return QueryEaAs(ExGetPreviousMode(), FileHandle, IoStatusBlock, Buffer, Length, ReturnSingleEntry, EaList,
                     EaListLength, EaIndex, RestartScan);
}

NTSTATUS NTAPI ZwQueryEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                             BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex,
                             BOOLEAN RestartScan)
{
    return QueryEaAs(KernelMode, FileHandle, IoStatusBlock, Buffer, Length, ReturnSingleEntry, EaList, EaListLength,
                     EaIndex, RestartScan);
}

static NTSTATUS FlushAs(KPROCESSOR_MODE mode, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "NtFlushBuffersFile");
    if (IoStatusBlock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ScopedPreviousMode previousMode(mode);
    HandleReference file(FileHandle, 0, mode);
    if (!NT_SUCCESS(file.status())) {
        return file.status();
    }
    if (mode == UserMode && (file.get()->grantedAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == 0) {
        return STATUS_ACCESS_DENIED;
    }
    return FlushBuffersThroughStack(file.get(), IoStatusBlock, mode);
}

NTSTATUS NTAPI NtFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock)
{
    return FlushAs(ExGetPreviousMode(), FileHandle, IoStatusBlock);
}

NTSTATUS NTAPI ZwFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock)
{
    return FlushAs(KernelMode, FileHandle, IoStatusBlock);
}

NTSTATUS FLTAPI FltReadFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                            ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesRead,
                            PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID)
{
    if (auto failure = faults::Check("FltReadFile")) {
        return *failure;
    }
    return FltReadWrite(false, InitiatingInstance, FileObject, ByteOffset, Length, Buffer, Flags, BytesRead,
                        CallbackRoutine);
}

NTSTATUS FLTAPI FltWriteFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                             ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesWritten,
                             PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID)
{
    if (auto failure = faults::Check("FltWriteFile")) {
        return *failure;
    }
    return FltReadWrite(true, InitiatingInstance, FileObject, ByteOffset, Length, Buffer, Flags, BytesWritten,
                        CallbackRoutine);
}

}  // extern "C"
