// ntsim's file systems: in-memory volumes that the I/O manager mounts below the Filter Manager.
//
//     auto volume = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume2");
//     volume->SeedFile(u"\\Data\\report.txt", "content");          // parents are made as needed
//     volume->SeedFile(u"\\Data\\report.txt:extra", "stream data");
//     EXPECT_EQ(volume->Content(u"\\Data\\report.txt"), "content");
//
// The NTFS volume: case-insensitive and case-preserving names (upcased by RtlUpcaseUnicodeChar,
// directory entries in upcased order), directories, named streams, the four times from ntsim's
// clock, attributes, allocation in 4096-byte clusters, stable file ids, hard links, 8.3 short names
// generated as NAME~1.EXT (the numbered form only, unique in the directory; a name that is already
// 8.3 has none), share access per stream, delete pending and delete on close, reparse points
// (junctions and any other tag) that answer a create with STATUS_REPARSE, and extended attributes
// (FILE_EA_INFORMATION and FILE_ALL_INFORMATION report their size as the length of a
// FILE_FULL_EA_INFORMATION list of them all).
//
// The FAT volume is the same model without named streams, hard links and reparse points (a stream path is an
// invalid name; FileStreamInformation and FileLinkInformation are refused), directory entries
// still in upcased order rather than in the order they were made, and times kept to 100 ns rather
// than FAT's granularity. The CD-ROM volume is that FAT model made read-only (2048-byte sectors):
// every create that would write, and every write and set, gives STATUS_ACCESS_DENIED. Both exist so
// that instance setup sees their device and file-system types.
//
// Paths here and in ntsim::Volume are volume-relative: L"\\dir\\file.txt", L"\\" for the root,
// "file:name" or "file:name:$DATA" for a named stream, "file::$DATA" for the default stream.
#pragma once

#include <ntsim/sim/volume.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim {

// A volume that tests can lay out and inspect directly, without the I/O path: no share access is
// checked, nothing is recorded, and the times come from the clock as for any change. Seeding that
// cannot be done (a parent that is a file, a stream on FAT) throws std::runtime_error naming the path,
// since it is a mistake in the test.
class MemoryVolume : public Volume {
public:
    // ---- seeding ----
    // A directory and any missing parents. An existing directory keeps its contents.
    virtual void SeedDirectory(std::u16string_view path, ULONG attributes = 0) = 0;
    // A file with content (bytes), or a named stream of a file ("\a.txt:name"), making the file and any
    // missing parents. An existing file or stream has its content replaced. attributes 0 gives
    // FILE_ATTRIBUTE_ARCHIVE for a new file.
    virtual void SeedFile(std::u16string_view path, std::string_view content = {}, ULONG attributes = 0) = 0;
    // One more name for an existing file.
    virtual void SeedHardLink(std::u16string_view existingPath, std::u16string_view newPath) = 0;
    // Replaces the generated short name of a file or directory (as "fsutil file setshortname").
    virtual void SeedShortName(std::u16string_view path, std::u16string_view shortName) = 0;
    // Times and attributes, with FileBasicInformation's rule: a time of 0 and attributes of 0 are left.
    virtual void SeedBasicInformation(std::u16string_view path, const FILE_BASIC_INFORMATION& basic) = 0;
    // An extended attribute of a file or directory (of the file, for a stream path): added, or its
    // value and flags replaced; an empty value removes it. Names are ANSI, kept in upper case (as
    // NTFS keeps them) and compared without regard to case; flags is 0 or FILE_NEED_EA. The CD-ROM
    // volume keeps no extended attributes.
    virtual void SeedExtendedAttribute(std::u16string_view path, std::string_view name, std::string_view value,
                                       UCHAR flags = 0) = 0;
    // Removes a name (with everything below a directory) or a named stream, open or not.
    virtual void SeedRemove(std::u16string_view path) = 0;
    // Makes an existing file or directory a reparse point (NTFS only): its tag and the data that
    // follows the reparse buffer's header. An open that meets it on its way, or at its end without
    // FILE_OPEN_REPARSE_POINT, is answered with STATUS_REPARSE and the reparse buffer.
    virtual void SeedReparsePoint(std::u16string_view path, ULONG tag, const std::vector<UCHAR>& data) = 0;
    // A junction: an empty directory (made if missing) with a mount point reparse point whose
    // substitute name is target ("\??\C:\elsewhere") and whose print name is target without "\??".
    virtual void SeedJunction(std::u16string_view path, std::u16string_view target) = 0;

    // ---- inspection (short names are accepted in paths) ----
    // A file, directory or (with a stream part) named stream exists.
    virtual bool Exists(std::u16string_view path) const = 0;
    virtual bool IsDirectoryPath(std::u16string_view path) const = 0;
    // The bytes of a file's default stream or of a named stream; nothing when it does not exist.
    virtual std::optional<std::string> Content(std::u16string_view path) const = 0;
    // The named streams of a file, as created (without ':' and ":$DATA"), in listing order.
    virtual std::vector<std::u16string> StreamNames(std::u16string_view path) const = 0;
    virtual std::optional<FILE_BASIC_INFORMATION> BasicInformation(std::u16string_view path) const = 0;
    // The generated short name; empty when the name needs none or the path does not exist.
    virtual std::u16string ShortName(std::u16string_view path) const = 0;
    // The number of names of a file; 0 when it does not exist.
    virtual ULONG LinkCount(std::u16string_view path) const = 0;
    // The long names in a directory, in listing order (without "." and "..").
    virtual std::vector<std::u16string> List(std::u16string_view path) const = 0;
    // Opens made by Create and not yet destroyed (the I/O manager destroys an open at close).
    virtual size_t OpenCount() const = 0;
    // Opens of a file (any of its streams) that have not had their cleanup.
    virtual ULONG HandleCount(std::u16string_view path) const = 0;
};

// An NTFS volume (FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_NTFS) with an empty root.
std::shared_ptr<MemoryVolume> CreateNtfsVolume(std::u16string deviceName);
// A FAT volume (FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_FAT).
std::shared_ptr<MemoryVolume> CreateFatVolume(std::u16string deviceName);
// A CD-ROM volume (FILE_DEVICE_CD_ROM_FILE_SYSTEM, FLT_FSTYPE_CDFS), read-only except by seeding.
std::shared_ptr<MemoryVolume> CreateCdfsVolume(std::u16string deviceName);

}  // namespace ntsim
