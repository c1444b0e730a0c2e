// Inside ntsim's I/O manager and Filter Manager: the records behind the opaque Filter Manager
// objects and behind FILE_OBJECT, the registry of filters and volumes, and the dispatch of one
// operation through the instances of a volume. Not for code outside ntsim/io.
#pragma once

#include <fltKernel.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/volume.hpp>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

// ---- Filter Manager objects ----

struct _FLT_VOLUME;
struct _FLT_INSTANCE;

struct _FLT_FILTER {
    enum class State { Registered, Filtering, Unregistered };

    PDRIVER_OBJECT driver = nullptr;
    FLT_REGISTRATION registration{};
    std::vector<FLT_OPERATION_REGISTRATION> operations;
    std::u16string name;
    std::u16string altitude;
    long double altitudeValue = 0;
    State state = State::Registered;
    std::atomic<long> references{0};
    std::atomic<long> nameInformation{0};  // FLT_FILE_NAME_INFORMATION not yet released
    // References this filter took on volumes by FltGetVolumeFromName, not yet dropped (under
    // the registry's mutex).
    std::map<const _FLT_VOLUME*, long> volumeReferences;
};

struct _FLT_VOLUME {
    std::shared_ptr<ntsim::Volume> volume;
    std::u16string deviceName;  // "\Device\HarddiskVolume2"
    std::u16string driveLink;   // "\??\C:", or empty
    DEVICE_OBJECT device{};
    VPB vpb{};
    bool mounted = true;
    // Attached instances, highest altitude first (under the registry's mutex).
    std::vector<std::shared_ptr<_FLT_INSTANCE>> instances;
    std::atomic<long> references{0};
};

struct _FLT_INSTANCE {
    std::shared_ptr<_FLT_FILTER> filter;
    std::shared_ptr<_FLT_VOLUME> volume;
    std::array<PFLT_PRE_OPERATION_CALLBACK, 256> pre{};
    std::array<PFLT_POST_OPERATION_CALLBACK, 256> post{};
    std::array<FLT_OPERATION_REGISTRATION_FLAGS, 256> flags{};
    std::array<bool, 256> registered{};
    std::atomic<long> references{0};
};

namespace ntsim::iomgr {

// Verifier rules of the Filter Manager.
namespace rules {
inline constexpr std::string_view kInvalidPreopStatus = "FLT_INVALID_PREOP_STATUS";
inline constexpr std::string_view kInvalidPostopStatus = "FLT_INVALID_POSTOP_STATUS";
inline constexpr std::string_view kContextWithoutPostCallback = "FLT_COMPLETION_CONTEXT_WITHOUT_POST_CALLBACK";
inline constexpr std::string_view kObjectReferenceLeak = "FLT_OBJECT_REFERENCE_LEAK";
inline constexpr std::string_view kBadObject = "FLT_BAD_OBJECT";
inline constexpr std::string_view kFilterNotUnregistered = "FLT_FILTER_NOT_UNREGISTERED";
inline constexpr std::string_view kFileObjectReused = "IO_FILE_OBJECT_USED_AFTER_CLOSE";
inline constexpr std::string_view kNameInformationLeak = "FLT_NAME_INFORMATION_LEAK";
// A post-create turned an open that the file system made into a failure without FltCancelFileOpen.
inline constexpr std::string_view kOpenFailedWithoutCancel = "FLT_OPEN_FAILED_WITHOUT_CANCEL";
// A post-create left a success status on an open that was cancelled.
inline constexpr std::string_view kCancelledOpenNotFailed = "FLT_CANCELLED_OPEN_NOT_FAILED";
// FltCancelFileOpen outside the post-create of an open the file system made, after a handle was
// made, or twice.
inline constexpr std::string_view kInvalidCancelOfFileOpen = "INVALID_CANCEL_OF_FILE_OPEN";
// A buffered operation completed with IoStatus.Information beyond the caller's buffer.
inline constexpr std::string_view kInformationBeyondBuffer = "IO_INFORMATION_BEYOND_BUFFER";
// A driver referenced the file object of a network query open, which lives on its caller's stack.
inline constexpr std::string_view kStackFileObjectReferenced = "IO_STACK_FILE_OBJECT_REFERENCED";
}  // namespace rules

// A pool tag whose bytes in memory read as text.
constexpr ULONG PoolTag(const char (&text)[5])
{
    return static_cast<ULONG>(static_cast<UCHAR>(text[0])) | static_cast<ULONG>(static_cast<UCHAR>(text[1])) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(text[2])) << 16 | static_cast<ULONG>(static_cast<UCHAR>(text[3])) << 24;
}

// Pool tags of what the I/O manager allocates for drivers to see.
inline constexpr ULONG kFileNameTag = PoolTag("IoNm");  // FILE_OBJECT::FileName buffers
inline constexpr ULONG kNameInfoTag = PoolTag("FlFn");  // FLT_FILE_NAME_INFORMATION
inline constexpr ULONG kSecurityTag = PoolTag("FlFs");  // default security descriptors

struct LoadedDriver {
    DRIVER_OBJECT object{};
    std::u16string driverName;  // text behind object.DriverName
    FilterLoadOptions options;
    std::shared_ptr<_FLT_FILTER> filter;  // set by FltRegisterFilter
};

struct Registry {
    std::recursive_mutex mutex;
    std::vector<std::unique_ptr<LoadedDriver>> drivers;
    std::vector<std::shared_ptr<_FLT_FILTER>> filters;  // registered, not yet unregistered
    std::vector<std::shared_ptr<_FLT_VOLUME>> volumes;  // mounted
};
Registry& GetRegistry();

// Whether name begins with prefix, compared as object names are (ob::ObjectNamesEqual).
bool NameHasPrefix(std::u16string_view name, std::u16string_view prefix);

std::shared_ptr<_FLT_VOLUME> FindVolumeByDeviceName(std::u16string_view deviceName);
std::shared_ptr<_FLT_VOLUME> VolumeOfDevice(PDEVICE_OBJECT device);
std::shared_ptr<_FLT_FILTER> FilterOf(PFLT_FILTER filter);
std::shared_ptr<_FLT_INSTANCE> InstanceOf(PFLT_INSTANCE instance);

// The instances that one operation visits, highest first, each kept alive until the operation is
// done. A volume has few instances: up to kInline of them are held without a heap allocation, so
// that the walk of an operation through them allocates nothing, as the Filter Manager's own walk.
class InstanceSnapshot {
public:
    void Add(const std::shared_ptr<_FLT_INSTANCE>& instance);
    const std::shared_ptr<_FLT_INSTANCE>* begin() const { return spilled_.empty() ? held_.data() : spilled_.data(); }
    const std::shared_ptr<_FLT_INSTANCE>* end() const { return begin() + count_; }
    size_t size() const { return count_; }

private:
    static constexpr size_t kInline = 4;
    std::array<std::shared_ptr<_FLT_INSTANCE>, kInline> held_;
    std::vector<std::shared_ptr<_FLT_INSTANCE>> spilled_;  // all of them, once there are more
    size_t count_ = 0;
};

// The instances of volume that an operation visits: all attached ones, or only those below
// `below` (by altitude) when it is given. Highest first.
InstanceSnapshot InstancesBelow(_FLT_VOLUME& volume, const _FLT_INSTANCE* below);

// Offers volume to filter: instance setup, and the instance's attachment on success.
void SetupInstance(const std::shared_ptr<_FLT_FILTER>& filter, const std::shared_ptr<_FLT_VOLUME>& volume,
                   FLT_INSTANCE_SETUP_FLAGS flags);
// Teardown start and complete, and the detachment.
void TeardownInstance(const std::shared_ptr<_FLT_INSTANCE>& instance, FLT_INSTANCE_TEARDOWN_FLAGS reason);

// ---- file objects ----

// How far the create of a file object has come.
enum class CreateStage {
    BeforeFileSystem,  // pre-create callbacks run; nothing below has answered yet
    AfterFileSystem,   // the file system (or a filter in its place) answered; post-create callbacks run
    Finished,          // the create returned to its caller
};

// The record behind every FILE_OBJECT the I/O manager makes. The FILE_OBJECT comes first, so a
// PFILE_OBJECT is the record's address.
struct FileObjectRecord {
    FILE_OBJECT fileObject{};
    SECTION_OBJECT_POINTERS sectionObjectPointers{};
    std::shared_ptr<_FLT_VOLUME> volume;
    std::unique_ptr<VolumeOpen> open;     // null until the file system opened it
    std::u16string volumePath;            // the open's path on the volume ("\dir\file")
    // Cleanup and close go only below this instance: the one FltCreateFileEx opened at, or the one
    // that cancelled the open. Null: through every instance.
    std::shared_ptr<_FLT_INSTANCE> below;
    CreateStage createStage = CreateStage::BeforeFileSystem;
    bool openCancelled = false;           // FltCancelFileOpen (or the verifier in its place) ran
    ACCESS_MASK grantedAccess = 0;
    ULONG createOptions = 0;
    bool stackObject = false;             // lives only for one call (network query open)
    std::atomic<bool> cleanedUp{false};
    std::atomic<bool> closed{false};
    std::mutex positionMutex;             // CurrentByteOffset of synchronous file objects
    // The pages of this open's cache that cached writes changed and no paging write has written
    // back yet (page numbers, under cacheMutex). See cachemanager.cpp.
    std::mutex cacheMutex;
    std::set<LONGLONG> dirtyPages;
};

FileObjectRecord* RecordOf(PFILE_OBJECT fileObject);

// Makes a file object for an open of volume; the FileName buffer is allocated here.
FileObjectRecord* AllocateFileObject(const std::shared_ptr<_FLT_VOLUME>& volume, std::u16string_view fileName,
                                      PFILE_OBJECT related);
// Frees a stack file object (the network query open's), which the object manager never knew.
void FreeFileObject(FileObjectRecord* record);
// Makes a file object known to the object manager before its create is sent, with one reference
// (the creator's). Its last reference frees it, with cleanup and close first if the file system
// opened it.
void RegisterFileObject(FileObjectRecord* record);
// Opens a handle to a registered file object (the handle takes its own reference).
NTSTATUS InsertFileHandle(FileObjectRecord* record, ULONG attributes, ACCESS_MASK grantedAccess,
                          KPROCESSOR_MODE mode, PHANDLE handle);
// The file object behind a handle, referenced, after the access check for mode.
NTSTATUS ReferenceFileByHandle(HANDLE handle, ACCESS_MASK desiredAccess, KPROCESSOR_MODE mode,
                               FileObjectRecord** record);
void DereferenceFile(FileObjectRecord* record);

// IRP_MJ_CLEANUP and IRP_MJ_CLOSE through the stack (below the opening instance, if any).
void SendCleanup(FileObjectRecord* record);
void SendClose(FileObjectRecord* record);

// ---- dispatch ----

// One operation's callback data and parameter block, and what the operation owns: the MDL of its
// caller's buffer once a filter locked it (FltLockUserBuffer), unlocked and freed when the frame
// goes, as the I/O manager frees an IRP's MDL at completion.
struct CallbackFrame {
    FLT_IO_PARAMETER_BLOCK iopb{};
    FLT_CALLBACK_DATA data;
    PMDL lockedBufferMdl = nullptr;
    PVOID lockedBuffer = nullptr;  // the buffer that lockedBufferMdl describes
    CallbackFrame(FLT_CALLBACK_DATA_FLAGS flags, KPROCESSOR_MODE requestorMode);
    ~CallbackFrame();
    CallbackFrame(const CallbackFrame&) = delete;
    CallbackFrame& operator=(const CallbackFrame&) = delete;
};

// The frame of a callback data that the I/O manager made; null (after a bug check) for any other.
CallbackFrame* FrameOf(PFLT_CALLBACK_DATA data);

// The MDL that a filter locked for the operation's buffer, put into parameters that name that
// buffer without an MDL (the parameters as issued, when the file system gets those).
void ApplyLockedBuffer(const CallbackFrame& frame, FLT_IO_PARAMETER_BLOCK& parameters);

// The directory buffer of a query as the file system reaches it: the system's view of its MDL
// when it has one, else its address. Null when the MDL cannot be mapped.
PVOID DirectoryBufferOf(const FLT_IO_PARAMETER_BLOCK& parameters);

enum class DispatchResult { Completed, FastIoRefused };

// What runs below the last instance: the file system's part of the operation, given the
// parameters that reach it (the callback data's if it is dirty, else the original ones). It sets
// data.IoStatus.
using FileSystemRoutine = std::function<void(FLT_CALLBACK_DATA& data, const FLT_IO_PARAMETER_BLOCK& parameters)>;

// Runs the pre-callbacks from the highest instance down (below `below`, if given), the file
// system, and the post-callbacks from the lowest up. The frame's Iopb must be filled in.
DispatchResult Dispatch(_FLT_VOLUME& volume, const _FLT_INSTANCE* below, CallbackFrame& frame,
                        const FileSystemRoutine& fileSystem);

// Calls one post-operation callback in the context the Filter Manager would give it (see
// PostOperationContext): synchronized is whether its pre-callback returned FLT_PREOP_SYNCHRONIZE.
// When the callback handed its work to FltDoCompletionProcessingWhenSafe, waits for that work and
// returns what it returned.
FLT_POSTOP_CALLBACK_STATUS CallPostOperationCallback(PFLT_POST_OPERATION_CALLBACK callback, FLT_CALLBACK_DATA& data,
                                                     const FLT_RELATED_OBJECTS& objects, PVOID context,
                                                     bool synchronized);

// ---- the cancel of an open ----

// Sends the cleanup of an open that the file system made to the layers below instance, which
// take its close as well when the file object's last reference goes.
void CancelOpen(FileObjectRecord* record, const std::shared_ptr<_FLT_INSTANCE>& instance);
// After each post-create callback: a successful open turned into a failure must have been
// cancelled, and a cancelled one must have failed (verifier rules; the open is then cancelled, or
// failed, in the callback's place). statusBefore is what the callback received.
void CheckPostCreateResult(FileObjectRecord* record, const std::shared_ptr<_FLT_INSTANCE>& instance,
                           FLT_CALLBACK_DATA& data, NTSTATUS statusBefore);

// ---- operations on an open file object ----

// IRP_MJ_QUERY_INFORMATION through the stack (below `below`, if given), with a system buffer
// whose first IoStatus.Information bytes go back to the caller's buffer unless the status is an
// error (queryinformation.cpp).
NTSTATUS QueryInformationThroughStack(FileObjectRecord* record, const _FLT_INSTANCE* below, PVOID buffer,
                                      ULONG length, FILE_INFORMATION_CLASS infoClass, KPROCESSOR_MODE mode,
                                      bool generated, ULONG* returned);
// The fast I/O form of a query of basic, standard or network-open information: the caller's buffer,
// Length the record's size. FastIoRefused when a filter or the file system declined it.
DispatchResult QueryInformationAsFastIo(FileObjectRecord* record, const _FLT_INSTANCE* below, PVOID buffer,
                                        FILE_INFORMATION_CLASS infoClass, KPROCESSOR_MODE mode,
                                        IO_STATUS_BLOCK* ioStatus);
// The fast I/O form first, and the IRP form when it is declined.
NTSTATUS QueryInformationFastThenIrp(FileObjectRecord* record, const _FLT_INSTANCE* below, PVOID buffer,
                                     ULONG length, FILE_INFORMATION_CLASS infoClass, KPROCESSOR_MODE mode,
                                     ULONG* returned);

// IRP_MJ_SET_INFORMATION through the stack (below `below`, if given), with a system buffer copied
// from the caller's, after the I/O manager's length checks; a rename or link first opens the
// target's directory below the same point (setinformation.cpp). handle is the caller's handle, for
// Parameters.SetFileInformation.DeleteHandle, or null.
NTSTATUS SetInformationThroughStack(FileObjectRecord* record, const std::shared_ptr<_FLT_INSTANCE>& below,
                                    HANDLE handle, PVOID buffer, ULONG length, FILE_INFORMATION_CLASS infoClass,
                                    KPROCESSOR_MODE mode, bool generated);

// A paging write of the cache or memory manager through the stack below the file object's opening
// instance, in kernel mode, with irpFlags (IRP_PAGING_IO and what goes with it). The file system
// cuts it at the end of file. *written gets the byte count.
NTSTATUS SendPagingWrite(FileObjectRecord* record, LONGLONG offset, ULONG length, const void* buffer,
                         ULONG irpFlags, ULONG* written);

// ---- the cache and memory managers (cachemanager.cpp) ----

inline constexpr ULONG kPageSize = 4096;

// A cached write of [offset, offset + length) made these pages of the file object's cache dirty.
void MarkCachedPagesDirty(FileObjectRecord* record, LONGLONG offset, ULONG length);
// The file's end moved to endOfFile through this file object: pages wholly past it leave the cache
// unwritten, as the cache manager's file sizes follow the file system's.
void DropCachedPagesBeyond(FileObjectRecord* record, LONGLONG endOfFile);
// A cache flush: IRP_MJ_ACQUIRE_FOR_CC_FLUSH, the write-back of the dirty pages as synchronous
// paging writes, the file system's flush, IRP_MJ_RELEASE_FOR_CC_FLUSH.
NTSTATUS FlushCache(FileObjectRecord* record);

// ---- create ----

struct CreateRequest {
    POBJECT_ATTRIBUTES objectAttributes = nullptr;
    ACCESS_MASK desiredAccess = 0;
    PLARGE_INTEGER allocationSize = nullptr;
    ULONG fileAttributes = 0;
    ULONG shareAccess = 0;
    ULONG disposition = FILE_OPEN;
    ULONG createOptions = 0;
    PVOID eaBuffer = nullptr;
    ULONG eaLength = 0;
    ULONG ioFlags = 0;  // IO_IGNORE_SHARE_ACCESS_CHECK, IO_OPEN_TARGET_DIRECTORY, ...
    KPROCESSOR_MODE mode = KernelMode;
    std::shared_ptr<_FLT_INSTANCE> below;  // FltCreateFileEx's instance
    bool generatedByFilter = false;
};

// Parses the name, runs IRP_MJ_CREATE through the stack (re-parsing after STATUS_REPARSE) and
// gives a registered file object with one reference on success.
NTSTATUS CreateFileObject(const CreateRequest& request, PIO_STATUS_BLOCK ioStatus, FileObjectRecord** record);

// Resolves an absolute object name to a mounted volume and the rest of the name on it.
NTSTATUS ResolveVolumePath(std::u16string_view name, std::shared_ptr<_FLT_VOLUME>* volume, std::u16string* rest);

// The path on the volume that a create of fileName relative to related names.
NTSTATUS JoinRelativePath(const FileObjectRecord* related, std::u16string_view fileName, std::u16string* path);

// The FO_* flags a new file object gets from its create options and object attributes.
ULONG FileObjectFlagsFor(ULONG createOptions, ULONG attributes, bool volumeOpen);

// The path on the volume that the file system opens for a file object, read from the file object
// as it stands when the create reaches the file system (its name, after its related file object's).
NTSTATUS PathForFileSystem(const FILE_OBJECT& fileObject, std::u16string* path);

// Maps generic rights to the file-specific ones.
ACCESS_MASK MapGenericFileAccess(ACCESS_MASK access);

}  // namespace ntsim::iomgr
