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
#include <vector>

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

// What IoCheckShareAccess and IoSetShareAccess leave in the FILE_OBJECT of an open: the access
// flags of an open that takes part in share access (read, write or delete access) and the sharing it
// granted. An open that takes no part, or that skipped the check (IO_IGNORE_SHARE_ACCESS_CHECK),
// records nothing: every flag is false.
struct RecordedShareAccess {
    bool readAccess = false;
    bool writeAccess = false;
    bool deleteAccess = false;
    bool sharedRead = false;
    bool sharedWrite = false;
    bool sharedDelete = false;
};

// What an EA query asks for besides its buffer.
struct VolumeEaQuery {
    ULONG flags = 0;               // SL_RESTART_SCAN, SL_RETURN_SINGLE_ENTRY, SL_INDEX_SPECIFIED
    const void* eaList = nullptr;  // FILE_GET_EA_INFORMATION chain, or null
    ULONG eaListLength = 0;
    ULONG eaIndex = 0;             // 1-based, with SL_INDEX_SPECIFIED
};

// The names of a FILE_GET_EA_INFORMATION chain of `length` bytes, checked as NtQueryEaFile checks
// a caller's list: every entry holds its header, its name and the name's terminating zero, and a
// NextEntryOffset other than 0 (the last entry's) is a multiple of 4 that passes the entry and
// leads to another inside the chain. False for a chain that breaks a rule, with *badOffset the
// offset of the entry that breaks it. names may be null.
bool ParseEaNameList(const void* list, ULONG length, std::vector<std::string>* names, ULONG* badOffset);

// One open of one stream, as the file system keeps it. Opaque to the I/O manager. Destroying an open
// is its close (the last reference); an open destroyed without Cleanup is cleaned up first, so share
// access and delete dispositions are never left behind. Cleanup runs once; a second call does nothing.
// I/O may still arrive on an open between Cleanup and its destruction (paging I/O).
class VolumeOpen {
public:
    virtual ~VolumeOpen() = default;
    virtual bool IsDirectory() const = 0;
    // The share access this open recorded when it was made (cleanup does not change the answer).
    virtual RecordedShareAccess ShareAccess() const = 0;
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
    // A reparse point on the way (or at the end, unless FILE_OPEN_REPARSE_POINT opens it itself)
    // answers STATUS_REPARSE with no open: *information is its tag and *reparseBuffer (if given)
    // its REPARSE_DATA_BUFFER, whose Reserved is the length in bytes of the path after it.
    // For SL_OPEN_TARGET_DIRECTORY the open is of the parent and *finalComponent receives the last
    // component, which the I/O manager puts in FILE_OBJECT::FileName.
    // An empty path opens the volume itself (FILE_OPEN or FILE_OPEN_IF only): an open on which
    // data, information and directory requests fail with STATUS_INVALID_DEVICE_REQUEST or
    // STATUS_INVALID_PARAMETER. SL_CASE_SENSITIVE is ignored: names are always case-insensitive.
    // The file systems check the option combinations themselves too (FILE_DIRECTORY_FILE with
    // FILE_NON_DIRECTORY_FILE, or with a disposition other than CREATE/OPEN/OPEN_IF, and
    // FILE_DELETE_ON_CLOSE without DELETE access give STATUS_INVALID_PARAMETER).
    virtual NTSTATUS Create(const VolumeCreateParameters& parameters, std::unique_ptr<VolumeOpen>* open,
                            ULONG_PTR* information, std::u16string* finalComponent,
                            std::vector<UCHAR>* reparseBuffer) = 0;

    // Data. offset is explicit (the I/O manager resolves the current position); a read at or past the
    // end gives STATUS_END_OF_FILE. A write past the end extends the stream; times are updated.
    virtual NTSTATUS Read(VolumeOpen& open, LONGLONG offset, ULONG length, void* buffer, ULONG* bytesRead) = 0;
    virtual NTSTATUS Write(VolumeOpen& open, LONGLONG offset, ULONG length, const void* buffer,
                           ULONG* bytesWritten) = 0;

    // Information records in the published layouts. *returned is the number of bytes filled;
    // STATUS_BUFFER_OVERFLOW with a partial record where Windows gives one. A buffer shorter than a
    // fixed-size record gives STATUS_INFO_LENGTH_MISMATCH. FilePositionInformation and
    // FileModeInformation are the I/O manager's (STATUS_INVALID_PARAMETER here; FileAllInformation
    // carries the mode bits of the create options, and position 0, which the I/O manager replaces by
    // the file object's before any filter's post-callback sees the answer).
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

    // Extended attributes, as NtQueryEaFile asks for them: the FILE_FULL_EA_INFORMATION entries of the
    // file (the names in upper case, each entry on a 4-byte boundary, the last one's NextEntryOffset
    // 0), *returned the bytes through the end of the last entry. With an EA list (a chain of
    // FILE_GET_EA_INFORMATION that the I/O manager has checked), the named EAs in the list's order,
    // an EA the file lacks as an entry with no value, and the scan position left alone. Otherwise the
    // scan continues from where the open's last query left it: from the start after SL_RESTART_SCAN,
    // from the 1-based eaIndex with SL_INDEX_SPECIFIED (STATUS_NONEXISTENT_EA_ENTRY for an index of 0
    // or past the end), STATUS_NO_MORE_EAS when it is at the end. SL_RETURN_SINGLE_ENTRY returns one
    // entry. STATUS_NO_EAS_ON_FILE for a file without EAs, whatever the request; the entries that fit
    // and STATUS_BUFFER_OVERFLOW when some but not all fit, STATUS_BUFFER_TOO_SMALL when not even the
    // first does (the scan moves past what was returned).
    virtual NTSTATUS QueryEa(VolumeOpen& open, const VolumeEaQuery& query, void* buffer, ULONG length,
                             ULONG* returned) = 0;
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
