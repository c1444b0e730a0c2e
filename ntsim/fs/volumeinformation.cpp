// Data and information on the in-memory volumes: read, write, query and set information, flush, and
// the normalized (long-name) paths of opens. Extended attributes are in volumeextendedattributes.cpp.
#include "memoryvolume.hpp"

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>
#include <string>

namespace ntsim::fs {

namespace {

constexpr ULONG Align8(ULONG value) { return (value + 7) & ~7u; }

// Copies a fixed-size record into a caller's buffer of any alignment.
template <typename Record>
NTSTATUS PutRecord(const Record& record, void* buffer, ULONG length, ULONG* returned)
{
    if (length < sizeof(Record)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    std::memcpy(buffer, &record, sizeof(Record));
    *returned = sizeof(Record);
    return STATUS_SUCCESS;
}

template <typename Record>
Record GetRecord(const void* buffer)
{
    Record record;
    std::memcpy(&record, buffer, sizeof(Record));
    return record;
}

std::string ClassName(FILE_INFORMATION_CLASS infoClass)
{
    return "information class " + std::to_string(static_cast<int>(infoClass));
}

// Classes that NtQueryInformationFile refuses (they are set-only or directory classes).
bool IsNotQueryable(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileDirectoryInformation: case FileFullDirectoryInformation: case FileBothDirectoryInformation:
    case FileNamesInformation: case FileIdBothDirectoryInformation: case FileIdFullDirectoryInformation:
    case FileRenameInformation: case FileLinkInformation: case FileDispositionInformation:
    case FileAllocationInformation: case FileEndOfFileInformation: case FileDispositionInformationEx:
    case FileRenameInformationEx: case FileLinkInformationEx: case FileFullEaInformation:
        return true;
    default:
        return false;
    }
}

// Classes that NtSetInformationFile refuses (they are query-only or directory classes).
bool IsNotSettable(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileDirectoryInformation: case FileFullDirectoryInformation: case FileBothDirectoryInformation:
    case FileNamesInformation: case FileIdBothDirectoryInformation: case FileIdFullDirectoryInformation:
    case FileStandardInformation: case FileInternalInformation: case FileEaInformation:
    case FileAccessInformation: case FileNameInformation: case FileAllInformation: case FileStreamInformation:
    case FileNetworkOpenInformation: case FileAttributeTagInformation: case FileAlternateNameInformation:
    case FileAlignmentInformation:
        return true;
    default:
        return false;
    }
}

}  // namespace

const Stream* MemoryVolumeImpl::DefaultStream(const Node& node) const
{
    return node.streams.at(u"").get();
}

ULONG MemoryVolumeImpl::ReportedAttributes(const Node& node) const
{
    return node.attributes == 0 ? FILE_ATTRIBUTE_NORMAL : node.attributes;
}

// ---- data ----

NTSTATUS MemoryVolumeImpl::Read(VolumeOpen& open, LONGLONG offset, ULONG length, void* buffer, ULONG* bytesRead)
{
    std::lock_guard lock(mutex_);
    auto& o = static_cast<MemoryOpen&>(open);
    *bytesRead = 0;
    if (o.volumeOpen || o.IsDirectory()) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (offset < 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (length == 0) {
        return STATUS_SUCCESS;
    }
    const auto& data = o.stream->data;
    if (static_cast<ULONGLONG>(offset) >= data.size()) {
        return STATUS_END_OF_FILE;
    }
    const ULONG count = static_cast<ULONG>(std::min<ULONGLONG>(length, data.size() - offset));
    std::memcpy(buffer, data.data() + offset, count);
    *bytesRead = count;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::Write(VolumeOpen& open, LONGLONG offset, ULONG length, const void* buffer,
                                 ULONG* bytesWritten)
{
    std::lock_guard lock(mutex_);
    auto& o = static_cast<MemoryOpen&>(open);
    *bytesWritten = 0;
    if (o.volumeOpen || o.IsDirectory()) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (features_.readOnly) {
        return STATUS_ACCESS_DENIED;
    }
    if (offset < 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (length == 0) {
        return STATUS_SUCCESS;
    }
    Stream& stream = *o.stream;
    const ULONGLONG end = static_cast<ULONGLONG>(offset) + length;
    if (end > stream.data.size()) {
        stream.data.resize(end);
    }
    std::memcpy(stream.data.data() + offset, buffer, length);
    stream.allocationSize = std::max(stream.allocationSize, RoundToCluster(static_cast<LONGLONG>(stream.data.size())));
    Touch(*o.node, true);
    *bytesWritten = length;
    return STATUS_SUCCESS;
}

// ---- query information ----

NTSTATUS MemoryVolumeImpl::QueryInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer,
                                            ULONG length, ULONG* returned)
{
    std::lock_guard lock(mutex_);
    auto& o = static_cast<MemoryOpen&>(open);
    *returned = 0;
    if (o.volumeOpen) {
        return STATUS_INVALID_PARAMETER;
    }
    const Node& node = *o.node;
    const Stream& stream = *o.stream;
    const bool directory = o.IsDirectory();

    FILE_BASIC_INFORMATION basic{};
    basic.CreationTime.QuadPart = node.creationTime;
    basic.LastAccessTime.QuadPart = node.lastAccessTime;
    basic.LastWriteTime.QuadPart = node.lastWriteTime;
    basic.ChangeTime.QuadPart = node.changeTime;
    basic.FileAttributes = ReportedAttributes(node);

    FILE_STANDARD_INFORMATION standard{};
    standard.AllocationSize.QuadPart = directory ? 0 : stream.allocationSize;
    standard.EndOfFile.QuadPart = directory ? 0 : static_cast<LONGLONG>(stream.data.size());
    standard.NumberOfLinks = static_cast<ULONG>(node.links.size());
    standard.DeletePending = o.namedStream ? stream.deletePending : (o.link && o.link->deletePending);
    standard.Directory = directory;

    // The long-name path of the open, with the stream for a named stream.
    auto name = [&]() {
        std::u16string path = PathOf(o.link.get());
        if (!path.empty() && o.namedStream) {
            path += u':';
            path += stream.name;
        }
        return path;
    };

    switch (infoClass) {
    case FileBasicInformation:
        return PutRecord(basic, buffer, length, returned);
    case FileStandardInformation:
        return PutRecord(standard, buffer, length, returned);
    case FileInternalInformation: {
        FILE_INTERNAL_INFORMATION internal{};
        internal.IndexNumber.QuadPart = static_cast<LONGLONG>(node.fileId);
        return PutRecord(internal, buffer, length, returned);
    }
    case FileEaInformation: {
        FILE_EA_INFORMATION ea{};
        ea.EaSize = ExtendedAttributesSize(node);
        return PutRecord(ea, buffer, length, returned);
    }
    case FileAccessInformation: {
        FILE_ACCESS_INFORMATION access{};
        access.AccessFlags = o.access;
        return PutRecord(access, buffer, length, returned);
    }
    case FileAlignmentInformation: {
        FILE_ALIGNMENT_INFORMATION alignment{};
        alignment.AlignmentRequirement = FILE_BYTE_ALIGNMENT;
        return PutRecord(alignment, buffer, length, returned);
    }
    case FileNetworkOpenInformation: {
        FILE_NETWORK_OPEN_INFORMATION network{};
        network.CreationTime = basic.CreationTime;
        network.LastAccessTime = basic.LastAccessTime;
        network.LastWriteTime = basic.LastWriteTime;
        network.ChangeTime = basic.ChangeTime;
        network.AllocationSize = standard.AllocationSize;
        network.EndOfFile = standard.EndOfFile;
        network.FileAttributes = basic.FileAttributes;
        return PutRecord(network, buffer, length, returned);
    }
    case FileAttributeTagInformation: {
        FILE_ATTRIBUTE_TAG_INFORMATION tag{};
        tag.FileAttributes = basic.FileAttributes;
        tag.ReparseTag = node.reparseTag;
        return PutRecord(tag, buffer, length, returned);
    }
    case FileNameInformation:
    case FileAlternateNameInformation:
    case FileAllInformation: {
        std::u16string text;
        if (infoClass == FileAlternateNameInformation) {
            if (!o.link || o.link->shortName.empty()) {
                return STATUS_OBJECT_NAME_NOT_FOUND;
            }
            text = o.link->shortName;
        } else {
            text = name();
            if (text.empty()) {
                return STATUS_FILE_DELETED;
            }
        }
        const ULONG nameOffset = infoClass == FileAllInformation
                                     ? FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation.FileName)
                                     : FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
        const ULONG fixedSize = infoClass == FileAllInformation ? sizeof(FILE_ALL_INFORMATION) : nameOffset;
        if (length < fixedSize) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        auto* bytes = static_cast<unsigned char*>(buffer);
        if (infoClass == FileAllInformation) {
            FILE_ALL_INFORMATION all{};
            all.BasicInformation = basic;
            all.StandardInformation = standard;
            all.InternalInformation.IndexNumber.QuadPart = static_cast<LONGLONG>(node.fileId);
            all.EaInformation.EaSize = ExtendedAttributesSize(node);
            all.AccessInformation.AccessFlags = o.access;
            all.ModeInformation.Mode =
                o.createOptions & (FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY | FILE_NO_INTERMEDIATE_BUFFERING |
                                   FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE);
            std::memcpy(bytes, &all, nameOffset);
        }
        const ULONG nameBytes = static_cast<ULONG>(text.size() * sizeof(WCHAR));
        const ULONG copied = std::min(nameBytes, (length - nameOffset) & ~1u);
        std::memcpy(bytes + nameOffset - sizeof(ULONG), &nameBytes, sizeof(ULONG));  // FileNameLength
        std::memcpy(bytes + nameOffset, text.data(), copied);
        *returned = nameOffset + copied;
        return copied < nameBytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
    }
    case FileStreamInformation: {
        if (!features_.namedStreams) {
            return STATUS_INVALID_PARAMETER;
        }
        // "::$DATA" for a file's default stream first, then the named streams in upcased order.
        auto* bytes = static_cast<unsigned char*>(buffer);
        ULONG next = 0;
        LONG previous = -1;
        for (const auto& [key, entry] : node.streams) {
            if (key.empty() && node.directory) {
                continue;
            }
            std::u16string streamName = u":" + entry->name + u":$DATA";
            const ULONG nameBytes = static_cast<ULONG>(streamName.size() * sizeof(WCHAR));
            const ULONG size = FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) + nameBytes;
            if (static_cast<ULONGLONG>(next) + size > length) {
                return STATUS_BUFFER_OVERFLOW;
            }
            FILE_STREAM_INFORMATION record{};
            record.StreamNameLength = nameBytes;
            record.StreamSize.QuadPart = static_cast<LONGLONG>(entry->data.size());
            record.StreamAllocationSize.QuadPart = entry->allocationSize;
            std::memcpy(bytes + next, &record, FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName));
            std::memcpy(bytes + next + FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName), streamName.data(),
                        nameBytes);
            if (previous >= 0) {
                const ULONG offset = next - static_cast<ULONG>(previous);
                std::memcpy(bytes + previous, &offset, sizeof(ULONG));
            }
            previous = static_cast<LONG>(next);
            *returned = next + size;
            next = Align8(next + size);
        }
        return STATUS_SUCCESS;
    }
    case FilePositionInformation:
    case FileModeInformation:
        return STATUS_INVALID_PARAMETER;  // the I/O manager answers these from the file object
    default:
        if (IsNotQueryable(infoClass)) {
            return STATUS_INVALID_INFO_CLASS;
        }
        return verifier::NotImplemented("NtQueryInformationFile on a memory volume: " + ClassName(infoClass));
    }
}

// ---- set information ----

NTSTATUS MemoryVolumeImpl::SetInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, const void* buffer,
                                          ULONG length, const std::u16string* targetPath)
{
    std::lock_guard lock(mutex_);
    auto& o = static_cast<MemoryOpen&>(open);
    if (o.volumeOpen) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsNotSettable(infoClass)) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (features_.readOnly) {
        return STATUS_ACCESS_DENIED;
    }
    switch (infoClass) {
    case FileBasicInformation:
        if (length < sizeof(FILE_BASIC_INFORMATION)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        return SetBasic(o, GetRecord<FILE_BASIC_INFORMATION>(buffer));
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileLinkInformation:
    case FileLinkInformationEx: {
        if (length < static_cast<ULONG>(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName))) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        FILE_RENAME_INFORMATION header;
        std::memcpy(&header, buffer, FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName));
        const bool link = infoClass == FileLinkInformation || infoClass == FileLinkInformationEx;
        bool replace = header.ReplaceIfExists != FALSE;
        bool posix = false;
        bool ignoreReadOnly = false;
        if (infoClass == FileRenameInformationEx) {
            replace = (header.Flags & FILE_RENAME_REPLACE_IF_EXISTS) != 0;
            posix = (header.Flags & FILE_RENAME_POSIX_SEMANTICS) != 0;
            ignoreReadOnly = (header.Flags & FILE_RENAME_IGNORE_READONLY_ATTRIBUTE) != 0;
        } else if (infoClass == FileLinkInformationEx) {
            replace = (header.Flags & FILE_LINK_REPLACE_IF_EXISTS) != 0;
            posix = (header.Flags & FILE_LINK_POSIX_SEMANTICS) != 0;
            ignoreReadOnly = (header.Flags & FILE_LINK_IGNORE_READONLY_ATTRIBUTE) != 0;
        }
        return SetRenameOrLink(o, link, replace, posix, ignoreReadOnly, targetPath);
    }
    case FileDispositionInformation:
        if (length < sizeof(FILE_DISPOSITION_INFORMATION)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        return SetDisposition(o, GetRecord<FILE_DISPOSITION_INFORMATION>(buffer).DeleteFile != FALSE, false, false,
                              false);
    case FileDispositionInformationEx: {
        if (length < sizeof(FILE_DISPOSITION_INFORMATION_EX)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        const ULONG flags = GetRecord<FILE_DISPOSITION_INFORMATION_EX>(buffer).Flags;
        return SetDisposition(o, (flags & FILE_DISPOSITION_DELETE) != 0, (flags & FILE_DISPOSITION_ON_CLOSE) != 0,
                              (flags & FILE_DISPOSITION_POSIX_SEMANTICS) != 0,
                              (flags & FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE) != 0);
    }
    case FileAllocationInformation:
        if (length < sizeof(FILE_ALLOCATION_INFORMATION)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        return SetAllocation(o, GetRecord<FILE_ALLOCATION_INFORMATION>(buffer).AllocationSize.QuadPart);
    case FileEndOfFileInformation:
        if (length < sizeof(FILE_END_OF_FILE_INFORMATION)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        return SetEndOfFile(o, GetRecord<FILE_END_OF_FILE_INFORMATION>(buffer).EndOfFile.QuadPart);
    case FilePositionInformation:
    case FileModeInformation:
        return STATUS_INVALID_PARAMETER;  // the I/O manager keeps these in the file object
    default:
        return verifier::NotImplemented("NtSetInformationFile on a memory volume: " + ClassName(infoClass));
    }
}

NTSTATUS MemoryVolumeImpl::SetBasic(MemoryOpen& o, const FILE_BASIC_INFORMATION& basic)
{
    if (!(o.access & FILE_WRITE_ATTRIBUTES)) {
        return STATUS_ACCESS_DENIED;
    }
    Node& node = *o.node;
    if ((basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !node.directory) {
        return STATUS_INVALID_PARAMETER;
    }
    // 0 leaves a time as it is; so does -1 (which also stops later automatic updates on Windows:
    // not modelled).
    auto given = [](const LARGE_INTEGER& time) { return time.QuadPart != 0 && time.QuadPart != -1; };
    if (given(basic.CreationTime)) {
        node.creationTime = basic.CreationTime.QuadPart;
    }
    if (given(basic.LastAccessTime)) {
        node.lastAccessTime = basic.LastAccessTime.QuadPart;
    }
    if (given(basic.LastWriteTime)) {
        node.lastWriteTime = basic.LastWriteTime.QuadPart;
    }
    if (basic.FileAttributes != 0) {
        node.attributes = (basic.FileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL) |
                          (node.directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    }
    node.changeTime = given(basic.ChangeTime) ? basic.ChangeTime.QuadPart : clock::Now();
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::SetEndOfFile(MemoryOpen& o, LONGLONG endOfFile)
{
    if (!(o.access & FILE_WRITE_DATA)) {
        return STATUS_ACCESS_DENIED;
    }
    if (o.IsDirectory() || endOfFile < 0) {
        return STATUS_INVALID_PARAMETER;
    }
    Stream& stream = *o.stream;
    // Growing keeps a larger allocation made before; shrinking gives back the clusters past the end.
    const bool growing = static_cast<ULONGLONG>(endOfFile) >= stream.data.size();
    stream.data.resize(static_cast<size_t>(endOfFile));
    stream.allocationSize = growing ? std::max(stream.allocationSize, RoundToCluster(endOfFile))
                                    : RoundToCluster(endOfFile);
    Touch(*o.node, true);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::SetAllocation(MemoryOpen& o, LONGLONG allocationSize)
{
    if (!(o.access & FILE_WRITE_DATA)) {
        return STATUS_ACCESS_DENIED;
    }
    if (o.IsDirectory() || allocationSize < 0) {
        return STATUS_INVALID_PARAMETER;
    }
    Stream& stream = *o.stream;
    stream.allocationSize = RoundToCluster(allocationSize);
    const bool truncated = static_cast<ULONGLONG>(allocationSize) < stream.data.size();
    if (truncated) {
        stream.data.resize(static_cast<size_t>(allocationSize));
    }
    Touch(*o.node, truncated);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::SetDisposition(MemoryOpen& o, bool deleteFile, bool onClose, bool posix,
                                          bool ignoreReadOnly)
{
    if (!(o.access & DELETE)) {
        return STATUS_ACCESS_DENIED;
    }
    Node& node = *o.node;
    if (!deleteFile) {
        if (onClose) {
            o.deleteOnClose = false;
        } else if (o.namedStream) {
            o.stream->deletePending = false;
        } else if (o.link) {
            o.link->deletePending = false;
        }
        return STATUS_SUCCESS;
    }
    if (!o.link && !o.namedStream) {
        return STATUS_CANNOT_DELETE;  // the root
    }
    if ((node.attributes & FILE_ATTRIBUTE_READONLY) && !ignoreReadOnly) {
        return STATUS_CANNOT_DELETE;
    }
    if (!o.namedStream && node.directory && !node.entries.empty()) {
        return STATUS_DIRECTORY_NOT_EMPTY;
    }
    if (onClose) {
        o.deleteOnClose = true;
        return STATUS_SUCCESS;
    }
    if (o.namedStream) {
        o.stream->deletePending = true;
    } else {
        o.link->deletePending = true;
    }
    o.posixDelete = posix;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::SetRenameOrLink(MemoryOpen& o, bool link, bool replaceIfExists, bool posix,
                                           bool ignoreReadOnly, const std::u16string* targetPath)
{
    if (targetPath == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (link && !features_.hardLinks) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (o.namedStream) {
        if (link) {
            return STATUS_INVALID_PARAMETER;
        }
        return verifier::NotImplemented("NtSetInformationFile(FileRenameInformation) of a named stream");
    }
    if (!o.link) {
        return STATUS_INVALID_PARAMETER;  // the root has no name to change
    }
    if (!o.link->linked) {
        return STATUS_FILE_DELETED;
    }
    if (o.link->deletePending) {
        return STATUS_DELETE_PENDING;
    }
    const std::shared_ptr<Node>& node = o.node;
    if (!link && !(o.access & DELETE)) {
        return STATUS_ACCESS_DENIED;
    }
    if (link && node->directory) {
        return STATUS_FILE_IS_A_DIRECTORY;
    }

    ParsedPath parsed;
    NTSTATUS status = Parse(*targetPath, &parsed);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (parsed.components.empty()) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (parsed.streamSyntax) {
        if (link) {
            return STATUS_INVALID_PARAMETER;
        }
        return verifier::NotImplemented("NtSetInformationFile(FileRenameInformation) to a stream name");
    }
    std::shared_ptr<Node> directory;
    status = ResolveDirectory(parsed.components, parsed.components.size() - 1, &directory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!directory->links.empty() && directory->links.front()->deletePending) {
        return STATUS_DELETE_PENDING;
    }
    if (!link && node->directory && IsDescendant(*node, *directory)) {
        return STATUS_INVALID_PARAMETER;  // a directory cannot move below itself
    }
    if (link && node->links.size() >= 1024) {
        return STATUS_TOO_MANY_LINKS;
    }
    if (!link && node->directory && HasHandlesBelow(*node)) {
        return STATUS_ACCESS_DENIED;
    }
    const std::u16string& newName = parsed.components.back();
    std::shared_ptr<Link> existing = FindEntry(*directory, newName);
    if (existing == o.link) {
        if (link) {
            return replaceIfExists ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
        }
        if (Upcase(newName) == Upcase(o.link->name)) {
            o.link->name = newName;  // only the letter case changes
            Touch(*node, false);
            Touch(*directory, true);
            return STATUS_SUCCESS;
        }
        existing = nullptr;  // the target named this entry by its short name: a rename to that name
    }
    if (existing) {
        if (!replaceIfExists) {
            return STATUS_OBJECT_NAME_COLLISION;
        }
        if (existing->node->directory) {
            return STATUS_ACCESS_DENIED;
        }
        if (existing->node->handleCount != 0 && !posix) {
            return STATUS_ACCESS_DENIED;
        }
        if ((existing->node->attributes & FILE_ATTRIBUTE_READONLY) && !ignoreReadOnly) {
            return STATUS_ACCESS_DENIED;
        }
        RemoveLink(existing);
    }

    if (link) {
        AddLink(directory, newName, node, false);
        Touch(*node, false);
        Touch(*directory, true);
        return STATUS_SUCCESS;
    }
    // Move the name: the Link object stays, so every open through it follows the rename.
    std::shared_ptr<Link> moving = o.link;
    auto oldDirectory = moving->parent.lock();
    if (oldDirectory) {
        oldDirectory->entries.erase(Upcase(moving->name));
        if (!moving->shortName.empty()) {
            oldDirectory->shortEntries.erase(Upcase(moving->shortName));
        }
    }
    moving->name = newName;
    moving->shortName.clear();
    if (features_.shortNames && !IsShortNameCompliant(newName)) {
        moving->shortName = GenerateShortName(*directory, newName);
        directory->shortEntries[Upcase(moving->shortName)] = moving;
    }
    directory->entries[Upcase(newName)] = moving;
    moving->parent = directory;
    if (oldDirectory) {
        Touch(*oldDirectory, true);
    }
    Touch(*directory, true);
    Touch(*node, false);
    return STATUS_SUCCESS;
}

// ---- flush ----

NTSTATUS MemoryVolumeImpl::Flush(VolumeOpen& open)
{
    UNREFERENCED_PARAMETER(open);
    // Nothing is cached above the model: what was written is already on the "disk".
    return STATUS_SUCCESS;
}

// ---- names ----

NTSTATUS MemoryVolumeImpl::NormalizedPath(VolumeOpen& open, std::u16string* path)
{
    std::lock_guard lock(mutex_);
    auto& o = static_cast<MemoryOpen&>(open);
    if (o.volumeOpen) {
        path->clear();
        return STATUS_SUCCESS;
    }
    std::u16string result = PathOf(o.link.get());
    if (result.empty() || (o.namedStream && o.stream->removed)) {
        return STATUS_FILE_DELETED;
    }
    if (o.namedStream) {
        result += u':';
        result += o.stream->name;
    }
    *path = std::move(result);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::NormalizePath(const std::u16string& path, std::u16string* normalized)
{
    std::lock_guard lock(mutex_);
    if (path.empty()) {
        normalized->clear();
        return STATUS_SUCCESS;
    }
    ParsedPath parsed;
    NTSTATUS status = Parse(path, &parsed);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Target target;
    status = Resolve(parsed, &target);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!target.node || (!parsed.streamName.empty() && !target.stream)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    std::u16string result = PathOf(target.link.get());
    if (target.stream) {
        result += u':';
        result += target.stream->name;
    }
    *normalized = std::move(result);
    return STATUS_SUCCESS;
}

}  // namespace ntsim::fs
