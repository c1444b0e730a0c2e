// The in-memory volume behind CreateNtfsVolume, CreateFatVolume and CreateCdfsVolume: one model of
// files, directories, links and streams, with the features of each file system switched on or off.
//
// Model. A Node is a file record (a file or a directory): its id, attributes, four times, streams and,
// for a directory, its entries. A Link is one name of a node in one directory (a file with hard links
// has several); directories have exactly one. Directory entries are keyed by the upcased long name, and
// a second index holds the upcased short names, so a path component finds an entry by either. Streams
// are keyed by the upcased stream name; "" is the default data stream (for a directory, it only carries
// the share access of opens of the directory itself).
//
// Locking: one mutex per volume guards everything below; every public entry point takes it once.
#pragma once

#include <ntsim/sim/ntfs.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim::fs {

// Share access of one stream, as IoCheckShareAccess keeps it.
struct ShareAccess {
    ULONG openCount = 0;
    ULONG readers = 0;
    ULONG writers = 0;
    ULONG deleters = 0;
    ULONG sharedRead = 0;
    ULONG sharedWrite = 0;
    ULONG sharedDelete = 0;
};

struct Stream {
    std::u16string name;  // as created; empty for the default stream
    std::vector<unsigned char> data;
    LONGLONG allocationSize = 0;
    ShareAccess share;
    ULONG handleCount = 0;     // opens of this stream not yet cleaned up
    bool deletePending = false;
    bool removed = false;      // deleted while opens still refer to it
};

struct ExtendedAttribute {
    std::string name;  // upper case
    std::string value;
    UCHAR flags = 0;   // FILE_NEED_EA or 0
};

struct Link;

struct Node {
    ULONGLONG fileId = 0;
    bool directory = false;
    ULONG attributes = 0;  // never FILE_ATTRIBUTE_NORMAL (reported when nothing else is set)
    LONGLONG creationTime = 0;
    LONGLONG lastAccessTime = 0;
    LONGLONG lastWriteTime = 0;
    LONGLONG changeTime = 0;
    std::map<std::u16string, std::shared_ptr<Stream>> streams;     // upcased name -> stream
    std::map<std::u16string, std::shared_ptr<Link>> entries;       // directory: upcased long name
    std::map<std::u16string, std::shared_ptr<Link>> shortEntries;  // directory: upcased short name
    std::vector<Link*> links;  // the names of this node; empty for the root and for a deleted node
    ULONG handleCount = 0;     // opens of any stream of this node not yet cleaned up
    ULONG reparseTag = 0;      // a reparse point (FILE_ATTRIBUTE_REPARSE_POINT): its tag, 0 for none
    std::vector<UCHAR> reparseData;  // what follows the reparse buffer's header
    std::vector<ExtendedAttribute> extendedAttributes;  // in the order they were added
};

struct Link : std::enable_shared_from_this<Link> {
    std::u16string name;       // long name, as created
    std::u16string shortName;  // generated 8.3 name; empty when the long name is itself 8.3
    std::weak_ptr<Node> parent;
    std::shared_ptr<Node> node;
    bool linked = true;        // false once removed from its directory
    bool deletePending = false;
    ULONG handleCount = 0;     // opens through this name not yet cleaned up
};

struct Features {
    ULONG deviceType = 0;
    ULONG fileSystemType = 0;
    ULONG clusterSize = 4096;
    bool namedStreams = true;
    bool hardLinks = true;
    bool shortNames = true;
    bool reparsePoints = true;
    bool readOnly = false;
    bool extendedAttributes = true;
};

// A path as a create gives it, split into components and the stream part of the last one.
struct ParsedPath {
    std::vector<std::u16string> components;  // empty for the root
    std::u16string streamName;               // empty for the default stream
    bool streamSyntax = false;               // ":name", ":name:$DATA" or "::$DATA" was given
    bool trailingBackslash = false;
};

class MemoryVolumeImpl;

// The state of a directory scan, kept in the open: where the last entry handed out stood.
struct DirectoryScan {
    bool started = false;
    bool firstQuery = true;  // no query of this scan (since its start or restart) has run yet
    std::u16string pattern;  // upcased
    enum class Position { Start, AfterDot, AfterDotDot, AfterEntry } position = Position::Start;
    std::u16string lastKey;  // upcased long name of the last entry handed out (AfterEntry)
};

class MemoryOpen final : public VolumeOpen {
public:
    ~MemoryOpen() override;
    bool IsDirectory() const override { return !volumeOpen && node && node->directory && !namedStream; }
    RecordedShareAccess ShareAccess() const override { return recordedShareAccess; }

    std::shared_ptr<MemoryVolumeImpl> volume;
    bool volumeOpen = false;      // an open of the volume itself (empty path)
    std::shared_ptr<Node> node;
    std::shared_ptr<Link> link;   // null for the root
    std::shared_ptr<Stream> stream;
    bool namedStream = false;
    ACCESS_MASK access = 0;
    ULONG shareAccess = 0;
    ULONG createOptions = 0;
    bool shareRecorded = false;   // counted in the stream's share access until cleanup
    RecordedShareAccess recordedShareAccess;
    bool cleanedUp = false;
    bool deleteOnClose = false;   // FILE_DELETE_ON_CLOSE or a disposition with FILE_DISPOSITION_ON_CLOSE
    bool posixDelete = false;     // this handle's cleanup removes the name at once
    DirectoryScan scan;
    size_t nextEa = 0;            // the EA scan: index of the next extended attribute to return
};

class MemoryVolumeImpl final : public MemoryVolume, public std::enable_shared_from_this<MemoryVolumeImpl> {
public:
    MemoryVolumeImpl(std::u16string deviceName, const Features& features);

    // ---- Volume ----
    const std::u16string& DeviceName() const override { return deviceName_; }
    ULONG DeviceType() const override { return features_.deviceType; }
    ULONG FileSystemType() const override { return features_.fileSystemType; }
    NTSTATUS Create(const VolumeCreateParameters& parameters, std::unique_ptr<VolumeOpen>* open,
                    ULONG_PTR* information, std::u16string* finalComponent,
                    std::vector<UCHAR>* reparseBuffer) override;
    NTSTATUS Read(VolumeOpen& open, LONGLONG offset, ULONG length, void* buffer, ULONG* bytesRead) override;
    NTSTATUS Write(VolumeOpen& open, LONGLONG offset, ULONG length, const void* buffer,
                   ULONG* bytesWritten) override;
    NTSTATUS QueryInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                              ULONG* returned) override;
    NTSTATUS SetInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, const void* buffer,
                            ULONG length, const std::u16string* targetPath) override;
    NTSTATUS QueryDirectory(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                            const UNICODE_STRING* pattern, ULONG flags, ULONG fileIndex,
                            ULONG* returned) override;
    NTSTATUS QueryEa(VolumeOpen& open, const VolumeEaQuery& query, void* buffer, ULONG length,
                     ULONG* returned) override;
    NTSTATUS Flush(VolumeOpen& open) override;
    void Cleanup(VolumeOpen& open) override;
    NTSTATUS NormalizedPath(VolumeOpen& open, std::u16string* path) override;
    NTSTATUS NormalizePath(const std::u16string& path, std::u16string* normalized) override;

    // ---- MemoryVolume: seeding and inspection ----
    void SeedDirectory(std::u16string_view path, ULONG attributes) override;
    void SeedFile(std::u16string_view path, std::string_view content, ULONG attributes) override;
    void SeedHardLink(std::u16string_view existingPath, std::u16string_view newPath) override;
    void SeedShortName(std::u16string_view path, std::u16string_view shortName) override;
    void SeedBasicInformation(std::u16string_view path, const FILE_BASIC_INFORMATION& basic) override;
    void SeedExtendedAttribute(std::u16string_view path, std::string_view name, std::string_view value,
                               UCHAR flags) override;
    void SeedRemove(std::u16string_view path) override;
    void SeedReparsePoint(std::u16string_view path, ULONG tag, const std::vector<UCHAR>& data) override;
    void SeedJunction(std::u16string_view path, std::u16string_view target) override;
    bool Exists(std::u16string_view path) const override;
    bool IsDirectoryPath(std::u16string_view path) const override;
    std::optional<std::string> Content(std::u16string_view path) const override;
    std::vector<std::u16string> StreamNames(std::u16string_view path) const override;
    std::optional<FILE_BASIC_INFORMATION> BasicInformation(std::u16string_view path) const override;
    std::u16string ShortName(std::u16string_view path) const override;
    ULONG LinkCount(std::u16string_view path) const override;
    std::vector<std::u16string> List(std::u16string_view path) const override;
    size_t OpenCount() const override;
    ULONG HandleCount(std::u16string_view path) const override;

    // Called by ~MemoryOpen: a close without cleanup cleans up first.
    void Close(MemoryOpen& open);

private:
    // Everything below runs with mutex_ held.
    struct Target {
        std::shared_ptr<Node> parent;  // the directory that holds (or would hold) the last component
        std::shared_ptr<Link> link;    // null when the last component does not exist (or for the root)
        std::shared_ptr<Node> node;    // the root, or link->node
        std::shared_ptr<Stream> stream;  // the named stream, when the path names one that exists
    };
    NTSTATUS Parse(std::u16string_view path, ParsedPath* parsed) const;
    NTSTATUS ResolveDirectory(const std::vector<std::u16string>& components, size_t count,
                              std::shared_ptr<Node>* directory) const;
    NTSTATUS Resolve(const ParsedPath& parsed, Target* target) const;
    std::shared_ptr<Link> FindEntry(const Node& directory, std::u16string_view name) const;

    std::shared_ptr<Node> NewNode(bool directory, ULONG attributes);
    std::shared_ptr<Link> AddLink(const std::shared_ptr<Node>& directory, std::u16string_view name,
                                  const std::shared_ptr<Node>& node, bool withShortName);
    void RemoveLink(std::shared_ptr<Link> link);
    void RemoveTree(std::shared_ptr<Link> link);
    std::shared_ptr<Stream> AddStream(Node& node, std::u16string_view name);
    std::u16string GenerateShortName(const Node& directory, std::u16string_view longName) const;
    std::u16string PathOf(const Link* link) const;
    bool IsDescendant(const Node& ancestor, const Node& node) const;
    bool HasHandlesBelow(const Node& directory) const;

    NTSTATUS CreateLocked(const VolumeCreateParameters& parameters, std::unique_ptr<MemoryOpen>* open,
                          ULONG_PTR* information, std::u16string* finalComponent,
                          std::vector<UCHAR>* reparseBuffer);
    NTSTATUS ReparseOnTheWay(const VolumeCreateParameters& parameters, const ParsedPath& parsed,
                             ULONG_PTR* information, std::vector<UCHAR>* reparseBuffer) const;
    NTSTATUS OpenExisting(const VolumeCreateParameters& parameters, const ParsedPath& parsed, Target& target,
                          MemoryOpen& open, ULONG_PTR* information);
    NTSTATUS CreateNew(const VolumeCreateParameters& parameters, const ParsedPath& parsed, Target& target,
                       MemoryOpen& open, ULONG_PTR* information);
    void CleanupLocked(MemoryOpen& open);

    NTSTATUS SetRenameOrLink(MemoryOpen& open, bool link, bool replaceIfExists, bool posix, bool ignoreReadOnly,
                             const std::u16string* targetPath);
    NTSTATUS SetDisposition(MemoryOpen& open, bool deleteFile, bool onClose, bool posix, bool ignoreReadOnly);
    NTSTATUS SetBasic(MemoryOpen& open, const FILE_BASIC_INFORMATION& basic);
    NTSTATUS SetEndOfFile(MemoryOpen& open, LONGLONG endOfFile);
    NTSTATUS SetAllocation(MemoryOpen& open, LONGLONG allocationSize);

    // The length of a FILE_FULL_EA_INFORMATION list of all the node's extended attributes.
    ULONG ExtendedAttributesSize(const Node& node) const;

    LONGLONG RoundToCluster(LONGLONG size) const;
    ULONG ReportedAttributes(const Node& node) const;
    const Stream* DefaultStream(const Node& node) const;
    void Touch(Node& node, bool written) const;

    // Seeding helpers.
    std::shared_ptr<Node> SeedDirectories(const std::vector<std::u16string>& components, size_t count);
    Target ResolveOrThrow(std::u16string_view path) const;
    bool TryResolve(std::u16string_view path, Target* target) const;

    friend class MemoryOpen;

    const std::u16string deviceName_;
    const Features features_;
    mutable std::mutex mutex_;
    std::shared_ptr<Node> root_;
    ULONGLONG nextFileIndex_ = 0x40;
    size_t openCount_ = 0;
};

// ---- names (volumenames.cpp) ----
std::u16string Upcase(std::u16string_view text);
// A valid long name or stream name: 1 to 255 characters, none below 0x20 and none of "*/:<>?\|.
bool IsValidName(std::u16string_view name);
// A name that is already a DOS 8.3 name (letter case aside): it needs no generated short name.
bool IsShortNameCompliant(std::u16string_view name);
// The stem and extension a generated short name starts from: "Long File Name.text" gives "LONGFI", "TEX".
void ShortNameParts(std::u16string_view longName, std::u16string* stem, std::u16string* extension);
// TRUE when name matches the upcased expression, as FsRtlIsNameInExpression with IgnoreCase.
bool NameMatches(std::u16string_view upcasedExpression, std::u16string_view name);

// Access that counts for share access.
inline constexpr ACCESS_MASK kReadShareAccess = FILE_READ_DATA | FILE_EXECUTE;
inline constexpr ACCESS_MASK kWriteShareAccess = FILE_WRITE_DATA | FILE_APPEND_DATA;
inline constexpr ACCESS_MASK kDeleteShareAccess = DELETE;

// Flags of the create stack location and of a directory query.
inline constexpr ULONG kOpenTargetDirectory = 0x04;  // SL_OPEN_TARGET_DIRECTORY
inline constexpr ULONG kRestartScan = 0x01;          // SL_RESTART_SCAN
inline constexpr ULONG kReturnSingleEntry = 0x02;    // SL_RETURN_SINGLE_ENTRY
inline constexpr ULONG kIndexSpecified = 0x04;       // SL_INDEX_SPECIFIED

}  // namespace ntsim::fs
