// The cache and memory managers as filters meet them: the write-back of a file object's cached
// data by a flush or by the lazy writer, and the modified page writer's writes of pages that a
// process changed through a mapped view.
//
// ntsim keeps no data above the file system: a cached write reaches the volume at once. What the
// cache keeps of it is which pages it changed, so that the write-back comes to the filters as
// Windows sends it: whole pages, as synchronous paging writes (IRP_PAGING_IO | IRP_NOCACHE |
// IRP_SYNCHRONOUS_PAGING_IO) in kernel mode, carrying the bytes the volume holds. Each file object
// keeps its own dirty pages and is the target of their write-back; a close forgets what was never
// written back (the data is on the volume already). When the end of file moves through a file
// object, its pages wholly past the new end leave its cache unwritten; a write-back of another file
// object's pages past the end is cut there by the file system, since paging I/O never moves the end.
#include "iomgr.hpp"

#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>
#include <exception>
#include <vector>

namespace ntsim::iomgr {

namespace {

// An acquire or release of a file system filter operation (the cache flush's or the modified page
// writer's), through the stack below the file object's opening instance. The file system holds no
// resource for either, so the modified page writer is given none to release.
NTSTATUS SendFsFilterCallback(FileObjectRecord* record, UCHAR major, KPROCESSOR_MODE mode, LONGLONG endingOffset)
{
    CallbackFrame frame(FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION, mode);
    frame.iopb.MajorFunction = major;
    frame.iopb.TargetFileObject = &record->fileObject;
    LARGE_INTEGER ending;
    ending.QuadPart = endingOffset;
    PERESOURCE resourceToRelease = nullptr;
    if (major == IRP_MJ_ACQUIRE_FOR_MOD_WRITE) {
        frame.iopb.Parameters.AcquireForModifiedPageWriter.EndingOffset = &ending;
        frame.iopb.Parameters.AcquireForModifiedPageWriter.ResourceToRelease = &resourceToRelease;
    } else if (major == IRP_MJ_RELEASE_FOR_MOD_WRITE) {
        frame.iopb.Parameters.ReleaseForModifiedPageWriter.ResourceToRelease = nullptr;
    }
    Dispatch(*record->volume, record->below.get(), frame, [](FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK&) {
        data.IoStatus.Status = STATUS_SUCCESS;
        data.IoStatus.Information = 0;
    });
    return frame.data.IoStatus.Status;
}

// Pages [first, first + count) as the volume holds them, zero past the end of file.
std::vector<unsigned char> ReadPages(FileObjectRecord* record, LONGLONG first, ULONG count, NTSTATUS* status)
{
    std::vector<unsigned char> pages(static_cast<size_t>(count) * kPageSize, 0);
    ULONG read = 0;
    *status = record->open == nullptr ? STATUS_FILE_CLOSED
                                      : record->volume->volume->Read(*record->open, first * kPageSize,
                                                                     static_cast<ULONG>(pages.size()), pages.data(),
                                                                     &read);
    if (*status == STATUS_END_OF_FILE) {
        *status = STATUS_SUCCESS;
    }
    return pages;
}

// Writes back the file object's dirty pages, one synchronous paging write per run of adjacent pages.
// Pages whose write fails stay dirty; the first failure is returned.
NTSTATUS WriteBackDirtyPages(FileObjectRecord* record)
{
    std::set<LONGLONG> pages;
    {
        std::lock_guard lock(record->cacheMutex);
        pages.swap(record->dirtyPages);
    }
    NTSTATUS result = STATUS_SUCCESS;
    for (auto page = pages.begin(); page != pages.end();) {
        const LONGLONG first = *page;
        ULONG count = 0;
        while (page != pages.end() && *page == first + count) {
            ++count;
            ++page;
        }
        NTSTATUS status;
        std::vector<unsigned char> data = ReadPages(record, first, count, &status);
        if (NT_SUCCESS(status)) {
            ULONG written = 0;
            status = SendPagingWrite(record, first * kPageSize, static_cast<ULONG>(data.size()), data.data(),
                                     IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO, &written);
        }
        if (!NT_SUCCESS(status)) {
            std::lock_guard lock(record->cacheMutex);
            for (ULONG i = 0; i < count; ++i) {
                record->dirtyPages.insert(first + i);
            }
            if (NT_SUCCESS(result)) {
                result = status;
            }
        }
    }
    return result;
}

}  // namespace

void MarkCachedPagesDirty(FileObjectRecord* record, LONGLONG offset, ULONG length)
{
    if (length == 0) {
        return;
    }
    std::lock_guard lock(record->cacheMutex);
    const LONGLONG last = (offset + length - 1) / kPageSize;
    for (LONGLONG page = offset / kPageSize; page <= last; ++page) {
        record->dirtyPages.insert(page);
    }
}

void DropCachedPagesBeyond(FileObjectRecord* record, LONGLONG endOfFile)
{
    std::lock_guard lock(record->cacheMutex);
    const LONGLONG firstBeyond = (endOfFile + kPageSize - 1) / kPageSize;
    record->dirtyPages.erase(record->dirtyPages.lower_bound(firstBeyond), record->dirtyPages.end());
}

NTSTATUS FlushCache(FileObjectRecord* record)
{
    const KPROCESSOR_MODE mode = ExGetPreviousMode();
    NTSTATUS status = SendFsFilterCallback(record, IRP_MJ_ACQUIRE_FOR_CC_FLUSH, mode, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    NTSTATUS written = WriteBackDirtyPages(record);
    NTSTATUS flushed = record->open != nullptr ? record->volume->volume->Flush(*record->open) : STATUS_FILE_CLOSED;
    SendFsFilterCallback(record, IRP_MJ_RELEASE_FOR_CC_FLUSH, mode, 0);
    return NT_SUCCESS(written) ? flushed : written;
}

}  // namespace ntsim::iomgr

namespace ntsim {

using namespace iomgr;

NTSTATUS IoFlushCache(PFILE_OBJECT fileObject)
{
    return FlushCache(RecordOf(fileObject));
}

NTSTATUS IoLazyWrite(PFILE_OBJECT fileObject)
{
    // The lazy writer is a worker thread of the System process: what it runs into is thrown here.
    NTSTATUS status = STATUS_SUCCESS;
    std::exception_ptr failure;
    SimulatedThread lazyWriter(SystemProcess(), [&] {
        try {
            status = FlushCache(RecordOf(fileObject));
        } catch (...) {
            failure = std::current_exception();
        }
    });
    lazyWriter.Join();
    if (failure) {
        std::rethrow_exception(failure);
    }
    return status;
}

NTSTATUS IoWriteModifiedPages(PFILE_OBJECT fileObject, LONGLONG offset, ULONG length, const void* data)
{
    if (offset < 0 || length == 0 || data == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    FileObjectRecord* record = RecordOf(fileObject);
    ScopedPreviousMode systemThread(KernelMode);
    const LONGLONG first = offset / kPageSize;
    const ULONG count = static_cast<ULONG>((offset + length - 1) / kPageSize - first + 1);
    NTSTATUS status;
    std::vector<unsigned char> pages = ReadPages(record, first, count, &status);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::memcpy(pages.data() + (offset - first * kPageSize), data, length);
    const LONGLONG endingOffset = (first + count) * kPageSize;
    status = SendFsFilterCallback(record, IRP_MJ_ACQUIRE_FOR_MOD_WRITE, KernelMode, endingOffset);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG written = 0;
    status = SendPagingWrite(record, first * kPageSize, static_cast<ULONG>(pages.size()), pages.data(), IRP_NOCACHE,
                             &written);
    SendFsFilterCallback(record, IRP_MJ_RELEASE_FOR_MOD_WRITE, KernelMode, 0);
    return status;
}

}  // namespace ntsim
