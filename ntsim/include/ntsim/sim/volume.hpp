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

// One open of one stream, as the file system keeps it. Opaque to the I/O manager. Destroying an open
// is its close (the last reference); an open destroyed without Cleanup is cleaned up first, so share
// access and delete dispositions are never left behind. Cleanup runs once; a second call does nothing.
// I/O may still arrive on an open between Cleanup and its destruction (paging I/O).
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
    // An empty path opens the volume itself (FILE_OPEN or FILE_OPEN_IF only): an open on which
    // data, information and directory requests fail with STATUS_INVALID_DEVICE_REQUEST or
    // STATUS_INVALID_PARAMETER. SL_CASE_SENSITIVE is ignored: names are always case-insensitive.
    // The file systems check the option combinations themselves too (FILE_DIRECTORY_FILE with
    // FILE_NON_DIRECTORY_FILE, or with a disposition other than CREATE/OPEN/OPEN_IF, and
    // FILE_DELETE_ON_CLOSE without DELETE access give STATUS_INVALID_PARAMETER).
    virtual NTSTATUS Create(const VolumeCreateParameters& parameters, std::unique_ptr<VolumeOpen>* open,
                            ULONG_PTR* information, std::u16string* finalComponent) = 0;

    // Data. offset is explicit (the I/O manager resolves the current position); a read at or past the
    // end gives STATUS_END_OF_FILE. A write past the end extends the stream; times are updated.
    virtual NTSTATUS Read(VolumeOpen& open, LONGLONG offset, ULONG length, void* buffer, ULONG* bytesRead) = 0;
    virtual NTSTATUS Write(VolumeOpen& open, LONGLONG offset, ULONG length, const void* buffer,
                           ULONG* bytesWritten) = 0;

    // Information records in the published layouts. *returned is the number of bytes filled;
    // STATUS_BUFFER_OVERFLOW with a partial record where Windows gives one. A buffer shorter than a
    // fixed-size record gives STATUS_INFO_LENGTH_MISMATCH. FilePositionInformation and
    // FileModeInformation are the I/O manager's (STATUS_INVALID_PARAMETER here; FileAllInformation
    // carries position 0 and the mode bits of the create options, for the I/O manager to overwrite).
    // FileNameInformation gives the long-name path from the volume root (with ":stream" for a named
    // stream). A class the volumes do not model fails through verifier::NotImplemented.
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
    // The pattern of the first query holds for the life of the open: a later one is ignored, with or
    // without SL_RESTART_SCAN (a restart only moves the scan back to the start, and its first query
    // that finds nothing again says STATUS_NO_SUCH_FILE). When not even the first record fits, its
    // fixed part and what fits of its name are returned with STATUS_BUFFER_OVERFLOW and the record
    // counts as handed out; a buffer shorter than the fixed part gives STATUS_INFO_LENGTH_MISMATCH. FileIndex is the entry's 1-based position in the listing ("." and ".."
    // first), and SL_INDEX_SPECIFIED resumes after that position. A non-directory open gives
    // STATUS_INVALID_PARAMETER.
    virtual NTSTATUS QueryDirectory(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer,
                                    ULONG length, const UNICODE_STRING* pattern, ULONG flags, ULONG fileIndex,
                                    ULONG* returned) = 0;

    virtual NTSTATUS QueryEa(VolumeOpen& open, void* buffer, ULONG length, ULONG* returned) = 0;
    virtual NTSTATUS Flush(VolumeOpen& open) = 0;

    // Last handle closed: share access released; delete-on-close and delete disposition carried out.
    virtual void Cleanup(VolumeOpen& open) = 0;

    // The normalized (long-name) volume-relative path of an open, for FltGetFileNameInformation.
    // Fails with STATUS_OBJECT_NAME_NOT_FOUND (or the file system's status) for a missing file.
    // A named stream adds ":name" (without ":$DATA"); a name that was deleted gives STATUS_FILE_DELETED;
    // the open of the volume itself gives an empty path. An open follows renames of its name.
    virtual NTSTATUS NormalizedPath(VolumeOpen& open, std::u16string* path) = 0;
    // The same for a path that need not be open (the name query of a create before it runs). Every
    // component must exist: STATUS_OBJECT_PATH_NOT_FOUND for a missing directory on the way,
    // STATUS_OBJECT_NAME_NOT_FOUND for a missing last component or stream. An empty path gives an
    // empty result.
    virtual NTSTATUS NormalizePath(const std::u16string& path, std::u16string* normalized) = 0;
};

}  // namespace ntsim
