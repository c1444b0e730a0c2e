// The control side of ntsim's I/O manager and Filter Manager, for tests, the simulator and other
// ntsim components: mounting volumes, loading and unloading filter drivers, and issuing the I/O
// that no native API call produces on demand (paging writes after cleanup, fast I/O attempts, the
// lazy writer's and the modified page writer's writes, a directory query at an index).
//
// Everything runs in the calling thread, as the simulated thread it is (see sim/process.hpp):
// its process, token and previous mode are what the filters see. Calls are synchronous.
#pragma once

#include <fltKernel.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim {

class Volume;

// ---- volumes ----

// Mounts volume under its DeviceName() ("\Device\HarddiskVolume2"): makes its device object,
// links driveLetter ("C:", or empty for none) to it as \??\C:, and offers the new volume to every
// filter that is filtering (instance setup with FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME).
// STATUS_OBJECT_NAME_COLLISION when a device of that name is mounted already.
NTSTATUS MountVolume(std::shared_ptr<Volume> volume, std::u16string_view driveLetter = {});

// Tears down every instance on the volume (teardown start and complete, VOLUME_DISMOUNT), then
// removes its drive link and device. Files still open on it keep working until they close.
// STATUS_NO_SUCH_DEVICE when no volume of that device name is mounted.
NTSTATUS DismountVolume(std::u16string_view deviceName);

// The device object of a mounted volume, or null.
PDEVICE_OBJECT GetVolumeDeviceObject(std::u16string_view deviceName);

// ---- filter drivers ----

struct FilterLoadOptions {
    std::u16string name = u"Filter";       // service name, as fltmc lists it
    std::u16string altitude = u"370000";   // decimal; higher altitudes see operations first
    // Pool tags that belong to the driver: every block of these tags must be freed by the time the
    // driver has unloaded (verifier: POOL_LEAK).
    std::vector<ULONG> poolTags;
};

// Loads a filter driver: makes its DRIVER_OBJECT and calls driverEntry, in the calling thread.
// The altitude in options is the one FltRegisterFilter finds for the driver. A failing
// DriverEntry leaves nothing loaded (a filter it registered and left registered is a
// verifier error). Returns DriverEntry's status.
NTSTATUS LoadFilter(PDRIVER_INITIALIZE driverEntry, const FilterLoadOptions& options);

// Unloads as `fltmc unload` does: calls the filter's unload callback (flags 0); a failure status
// from it refuses the unload and is returned. The callback is expected to call
// FltUnregisterFilter (its instances' teardown callbacks run there). Then the verifier checks
// that no pool of the driver's tags is left, and that the driver dropped every reference it took
// on Filter Manager objects. STATUS_FLT_FILTER_NOT_FOUND for an unknown name;
// STATUS_FLT_DO_NOT_DETACH when the filter has no unload callback.
NTSTATUS UnloadFilter(std::u16string_view name);

// Detaches a filter's instance from a volume as `fltmc detach` does: asks the instance's query
// teardown callback (a failure refuses and is returned), then teardown start and complete with
// FLTFL_INSTANCE_TEARDOWN_MANUAL. STATUS_FLT_DO_NOT_DETACH without a query teardown callback.
NTSTATUS DetachFilter(std::u16string_view filterName, std::u16string_view deviceName);

// Names of the loaded filters, highest altitude first.
std::vector<std::u16string> LoadedFilters();

// ---- where post-operation callbacks run ----

// On Windows a post-operation callback runs where the operation completes: at any IRQL up to
// DISPATCH_LEVEL, in an arbitrary thread. ntsim completes every operation in the thread that issued
// it, at its IRQL, unless told otherwise; the other settings run the post-operation callbacks that
// Windows may run that way in such a context, so that the verifier catches work done there that
// Windows forbids (paged pool, waits, name queries, FltSendMessage). Whatever the setting, a
// post-create runs at PASSIVE_LEVEL in the thread of the open, a post-callback whose pre-callback
// returned FLT_PREOP_SYNCHRONIZE in the issuing thread, and the post-callbacks of fast I/O and of
// file-system filter operations in the issuing thread (the fast path never leaves it); and
// FltDoCompletionProcessingWhenSafe moves a post-callback's work to a thread at PASSIVE_LEVEL.
enum class PostOperationContext {
    IssuingThread,    // the thread of the operation, at its IRQL (the default)
    DispatchLevel,    // the thread of the operation, raised to DISPATCH_LEVEL
    ArbitraryThread,  // a system thread of its own, at DISPATCH_LEVEL
};

void SetPostOperationContext(PostOperationContext context);
PostOperationContext GetPostOperationContext();

// Sets the context for the object's life.
class ScopedPostOperationContext {
public:
    explicit ScopedPostOperationContext(PostOperationContext context);
    ~ScopedPostOperationContext();
    ScopedPostOperationContext(const ScopedPostOperationContext&) = delete;
    ScopedPostOperationContext& operator=(const ScopedPostOperationContext&) = delete;

private:
    PostOperationContext saved_;
};

// ---- I/O that tests issue on a file object ----

// Takes a reference on the file object behind a file handle (as ObReferenceObjectByHandle with
// kernel access). Drop it with ObDereferenceObject; while it is held, closing the last handle
// sends IRP_MJ_CLEANUP but not IRP_MJ_CLOSE. Null for a handle that is not a file's.
PFILE_OBJECT ReferenceFileObjectByHandle(HANDLE handle);

struct IoRequest {
    // IRP_NOCACHE, IRP_PAGING_IO, IRP_SYNCHRONOUS_PAGING_IO: what the request claims to be. Paging
    // I/O is always non-cached, comes in kernel mode and may be sent after cleanup, as the cache and
    // memory managers do. Any other request gets IRP_NOCACHE and IRP_SYNCHRONOUS_API from the file
    // object, as a caller's would.
    ULONG irpFlags = 0;
    // Try the fast path first (cached I/O only). A filter that answers FLT_PREOP_DISALLOW_FASTIO
    // refuses it, and the same request comes again as an IRP. Inside the fast path, before it copies,
    // the file system asks the stack with IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE (fast I/O, the offset,
    // length and direction of the request): a filter that refuses the check also sends the request
    // as an IRP, and the fast attempt's post-callbacks see STATUS_FLT_DISALLOW_FAST_IO.
    bool fastIo = false;
};

// Read or write at an explicit offset, through every filter (below the file object's opening
// instance, if a filter opened it). *transferred gets the byte count.
NTSTATUS IoReadFile(PFILE_OBJECT fileObject, LONGLONG offset, ULONG length, void* buffer, const IoRequest& request,
                    ULONG* transferred);
NTSTATUS IoWriteFile(PFILE_OBJECT fileObject, LONGLONG offset, ULONG length, const void* buffer,
                     const IoRequest& request, ULONG* transferred);

// IRP_MJ_DIRECTORY_CONTROL / IRP_MN_QUERY_DIRECTORY with any stack flags (SL_RESTART_SCAN,
// SL_RETURN_SINGLE_ENTRY, SL_INDEX_SPECIFIED) and a FileIndex. pattern may be null. A driver's own
// request, in the calling thread's previous mode: NtQueryDirectoryFile's checks of the class, the
// length and the buffer are not made.
NTSTATUS IoQueryDirectoryFile(PFILE_OBJECT fileObject, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                              PCUNICODE_STRING pattern, UCHAR flags, ULONG fileIndex, ULONG* returned);

// IRP_MJ_NETWORK_QUERY_OPEN for a path, alone, as fast I/O (fastIo) or as an IRP. Its file object
// lives only for the call and must not be referenced. A refused fast attempt gives
// STATUS_FLT_DISALLOW_FAST_IO here, and a reparse point on the way STATUS_REPARSE (the query-only
// open that follows either is NtQueryFullAttributesFile's); NtQueryFullAttributesFile never sends
// the IRP form.
NTSTATUS IoNetworkQueryOpen(POBJECT_ATTRIBUTES objectAttributes, PFILE_NETWORK_OPEN_INFORMATION information,
                            bool fastIo);

// The cache. A cached write (neither paging nor non-cached) leaves the pages it changed dirty in
// the file object's cache; the write-back of those pages comes as synchronous paging writes of
// whole pages (IRP_PAGING_IO | IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO, kernel mode) on that file
// object, which the file system cuts at the end of file. A change of the end of file through the
// file object drops its pages past the new end unwritten. A close forgets pages never written
// back: their data is on the volume already.

// A cache flush, as a flush of the file or of a mapped view makes it, in the calling thread and
// with its previous mode: IRP_MJ_ACQUIRE_FOR_CC_FLUSH, the write-back of the dirty pages, the file
// system's flush, then IRP_MJ_RELEASE_FOR_CC_FLUSH. Acquire and release are file system filter
// operations (FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION) on the flushed file object, below its
// opening instance; the file systems answer both with STATUS_SUCCESS and IoStatus.Information 0. A
// filter that completes the acquire with a failure fails the flush with that status (nothing is
// written, the release is not sent). A file object that has had its cleanup can still be flushed.
NTSTATUS IoFlushCache(PFILE_OBJECT fileObject);

// The lazy writer's write-behind of the file object, as IoFlushCache, in a worker thread of the
// System process (kernel previous mode); the call returns when it is done. A file object whose last
// handle is closed may still be written back this way while a reference holds it (cleanup has come,
// close has not), as the cache and memory managers' references do on Windows.
NTSTATUS IoLazyWrite(PFILE_OBJECT fileObject);

// A process changed `length` bytes at `offset` through a mapped view of the file, and the modified
// page writer writes out the pages that hold them, in kernel mode: IRP_MJ_ACQUIRE_FOR_MOD_WRITE
// (EndingOffset the end of the last page; no resource to release), an IRP_MJ_WRITE of those whole
// pages with IRP_PAGING_IO | IRP_NOCACHE (an asynchronous page write, done before the call
// returns), IRP_MJ_RELEASE_FOR_MOD_WRITE. A mapped view never extends the file: what lies past the
// end of file is cut. A filter that fails the acquire fails the write with its status.
NTSTATUS IoWriteModifiedPages(PFILE_OBJECT fileObject, LONGLONG offset, ULONG length, const void* data);

}  // namespace ntsim
