// The contract between ntsim's I/O manager (io/) and its file systems (fs/).
//
// A Volume is what sits below the Filter Manager on one device: the I/O manager hands it
// opens and operations on opens, already past every filter, in the volume's own terms
// (volume-relative paths, plain arguments). The I/O manager owns FILE_OBJECTs; a Volume
// owns what an open means to it (the stream, the share access it recorded, the directory
// scan position) in a VolumeOpen, which the I/O manager keeps in FILE_OBJECT::FsContext2.
#pragma once

#include <fltKernel.h>

#include <memory>
#include <string>

namespace ntsim {

// Device types and file-system types that instance setup sees.
// FILE_DEVICE_DISK_FILE_SYSTEM 8, FILE_DEVICE_CD_ROM_FILE_SYSTEM 3, FILE_DEVICE_NETWORK_FILE_SYSTEM 20;
// FLT_FSTYPE_NTFS 2, FLT_FSTYPE_FAT 3, FLT_FSTYPE_CDFS 4, FLT_FSTYPE_MUP 13.

// Everything a create carries, as the file system receives it.
struct VolumeCreateParameters {
    std::u16string path;             // volume-relative: L"\\dir\\file:stream:$DATA", L"\\" for the root,
                                     // empty for an open of the volume itself
    ACCESS_MASK desiredAccess = 0;   // specific rights: generic rights are mapped before this point
    ULONG shareAccess = 0;           // FILE_SHARE_*
    ULONG disposition = 1;           // FILE_SUPERSEDE .. FILE_OVERWRITE_IF
    ULONG createOptions = 0;         // FILE_DIRECTORY_FILE, FILE_NON_DIRECTORY_FILE, FILE_DELETE_ON_CLOSE, ...
    ULONG fileAttributes = 0;        // for a new file
    LONGLONG allocationSize = 0;
    ULONG flags = 0;                 // SL_* of the create stack location (SL_OPEN_TARGET_DIRECTORY, SL_CASE_SENSITIVE)
    bool ignoreShareAccess = false;  // IO_IGNORE_SHARE_ACCESS_CHECK: no check, nothing recorded
};

// One open of one stream, as the file system keeps it. Opaque to the I/O manager.
class VolumeOpen {
public:
    virtual ~VolumeOpen() = default;
    virtual bool IsDirectory() const = 0;
};

class Volume {
public:
    virtual ~Volume() = default;

    // "\Device\HarddiskVolume2": the device name FltGetVolumeName reports.
    virtual const std::u16string& DeviceName() const = 0;
    virtual ULONG DeviceType() const = 0;        // FILE_DEVICE_*
    virtual ULONG FileSystemType() const = 0;    // FLT_FSTYPE_*

    // Opens or creates. On success *open is set and *information holds FILE_OPENED, FILE_CREATED, ...
    // (on failure too where Windows reports one, such as FILE_DOES_NOT_EXIST for a target-directory open).
    // For SL_OPEN_TARGET_DIRECTORY the open is of the parent and *finalComponent receives the last
    // component, which the I/O manager puts in FILE_OBJECT::FileName.
    virtual NTSTATUS Create(const VolumeCreateParameters& parameters, std::unique_ptr<VolumeOpen>* open,
                            ULONG_PTR* information, std::u16string* finalComponent) = 0;

    // Data. offset is explicit (the I/O manager resolves the current position); a read at or past the
    // end gives STATUS_END_OF_FILE. A write past the end extends the stream; times are updated.
    virtual NTSTATUS Read(VolumeOpen& open, LONGLONG offset, ULONG length, void* buffer, ULONG* bytesRead) = 0;
    virtual NTSTATUS Write(VolumeOpen& open, LONGLONG offset, ULONG length, const void* buffer,
                           ULONG* bytesWritten) = 0;

    // Information records in the published layouts. *returned is the number of bytes filled;
    // STATUS_BUFFER_OVERFLOW with a partial record where Windows gives one.
    virtual NTSTATUS QueryInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer,
                                      ULONG length, ULONG* returned) = 0;
    // Set information. A rename or link target arrives already resolved to a volume-relative path
    // (the I/O manager resolves RootDirectory and \??\ forms); a target on another volume never
    // reaches here (STATUS_NOT_SAME_DEVICE is the I/O manager's).
    virtual NTSTATUS SetInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, const void* buffer,
                                    ULONG length, const std::u16string* targetPath) = 0;

    // Directory enumeration. pattern is null to keep the open's pattern (or "*" on its first query);
    // flags are SL_RESTART_SCAN, SL_RETURN_SINGLE_ENTRY, SL_INDEX_SPECIFIED. STATUS_NO_MORE_FILES at the
    // end of a scan that returned entries before, STATUS_NO_SUCH_FILE when the first query finds nothing.
    virtual NTSTATUS QueryDirectory(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer,
                                    ULONG length, const UNICODE_STRING* pattern, ULONG flags, ULONG fileIndex,
                                    ULONG* returned) = 0;

    virtual NTSTATUS QueryEa(VolumeOpen& open, void* buffer, ULONG length, ULONG* returned) = 0;
    virtual NTSTATUS Flush(VolumeOpen& open) = 0;

    // Last handle closed: share access released; delete-on-close and delete disposition carried out.
    virtual void Cleanup(VolumeOpen& open) = 0;

    // The normalized (long-name) volume-relative path of an open, for FltGetFileNameInformation.
    // Fails with STATUS_OBJECT_NAME_NOT_FOUND (or the file system's status) for a missing file.
    virtual NTSTATUS NormalizedPath(VolumeOpen& open, std::u16string* path) = 0;
    // The same for a path that need not be open (the name query of a create before it runs).
    virtual NTSTATUS NormalizePath(const std::u16string& path, std::u16string* normalized) = 0;
};

}  // namespace ntsim
