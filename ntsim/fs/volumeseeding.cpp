// Laying out and inspecting the in-memory volumes directly, for tests; and the factories.
#include "memoryvolume.hpp"

#include <ntsim/sim/text.hpp>

#include <cstring>
#include <stdexcept>

namespace ntsim::fs {

namespace {

[[noreturn]] void Fail(std::string_view routine, std::u16string_view path, std::string_view why)
{
    throw std::runtime_error(std::string(routine) + "(" + ToUtf8(path) + "): " + std::string(why));
}

}  // namespace

std::shared_ptr<Node> MemoryVolumeImpl::SeedDirectories(const std::vector<std::u16string>& components, size_t count)
{
    std::shared_ptr<Node> current = root_;
    for (size_t i = 0; i < count; ++i) {
        auto entry = FindEntry(*current, components[i]);
        if (!entry) {
            auto node = NewNode(true, FILE_ATTRIBUTE_DIRECTORY);
            AddLink(current, components[i], node, true);
            Touch(*current, true);
            current = node;
        } else if (!entry->node->directory) {
            return nullptr;
        } else {
            current = entry->node;
        }
    }
    return current;
}

bool MemoryVolumeImpl::TryResolve(std::u16string_view path, Target* target) const
{
    ParsedPath parsed;
    if (!NT_SUCCESS(Parse(path, &parsed)) || !NT_SUCCESS(Resolve(parsed, target)) || !target->node) {
        return false;
    }
    return parsed.streamName.empty() || target->stream != nullptr;
}

MemoryVolumeImpl::Target MemoryVolumeImpl::ResolveOrThrow(std::u16string_view path) const
{
    Target target;
    if (!TryResolve(path, &target)) {
        Fail("MemoryVolume", path, "no such file, directory or stream");
    }
    return target;
}

void MemoryVolumeImpl::SeedDirectory(std::u16string_view path, ULONG attributes)
{
    std::lock_guard lock(mutex_);
    ParsedPath parsed;
    if (!NT_SUCCESS(Parse(path, &parsed)) || parsed.streamSyntax) {
        Fail("SeedDirectory", path, "not a valid directory path");
    }
    auto directory = SeedDirectories(parsed.components, parsed.components.size());
    if (!directory) {
        Fail("SeedDirectory", path, "a component is a file");
    }
    if (attributes != 0) {
        directory->attributes = (attributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_DIRECTORY;
    }
}

void MemoryVolumeImpl::SeedFile(std::u16string_view path, std::string_view content, ULONG attributes)
{
    std::lock_guard lock(mutex_);
    ParsedPath parsed;
    if (!NT_SUCCESS(Parse(path, &parsed)) || parsed.components.empty()) {
        Fail("SeedFile", path, "not a valid file path on this volume");
    }
    auto parent = SeedDirectories(parsed.components, parsed.components.size() - 1);
    if (!parent) {
        Fail("SeedFile", path, "a parent is a file");
    }
    std::shared_ptr<Node> node;
    if (auto entry = FindEntry(*parent, parsed.components.back())) {
        node = entry->node;
        if (node->directory && parsed.streamName.empty()) {
            Fail("SeedFile", path, "is a directory");
        }
    } else {
        node = NewNode(false, FILE_ATTRIBUTE_ARCHIVE);
        AddLink(parent, parsed.components.back(), node, true);
        Touch(*parent, true);
    }
    std::shared_ptr<Stream> stream;
    if (parsed.streamName.empty()) {
        stream = node->streams.at(u"");
    } else if (auto found = node->streams.find(Upcase(parsed.streamName)); found != node->streams.end()) {
        stream = found->second;
    } else {
        stream = AddStream(*node, parsed.streamName);
    }
    stream->data.assign(content.begin(), content.end());
    stream->allocationSize = RoundToCluster(static_cast<LONGLONG>(content.size()));
    Touch(*node, true);
    if (attributes != 0) {
        node->attributes = (attributes & ~FILE_ATTRIBUTE_NORMAL) | (node->directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    }
}

void MemoryVolumeImpl::SeedHardLink(std::u16string_view existingPath, std::u16string_view newPath)
{
    std::lock_guard lock(mutex_);
    if (!features_.hardLinks) {
        Fail("SeedHardLink", newPath, "this file system has no hard links");
    }
    Target existing = ResolveOrThrow(existingPath);
    if (existing.node->directory || existing.stream) {
        Fail("SeedHardLink", existingPath, "only a file can have more names");
    }
    ParsedPath parsed;
    if (!NT_SUCCESS(Parse(newPath, &parsed)) || parsed.components.empty() || parsed.streamSyntax) {
        Fail("SeedHardLink", newPath, "not a valid file path");
    }
    auto parent = SeedDirectories(parsed.components, parsed.components.size() - 1);
    if (!parent || FindEntry(*parent, parsed.components.back())) {
        Fail("SeedHardLink", newPath, "the name exists or a parent is a file");
    }
    AddLink(parent, parsed.components.back(), existing.node, false);
    Touch(*existing.node, false);
}

void MemoryVolumeImpl::SeedShortName(std::u16string_view path, std::u16string_view shortName)
{
    std::lock_guard lock(mutex_);
    Target target = ResolveOrThrow(path);
    if (!target.link || target.stream) {
        Fail("SeedShortName", path, "only a named file or directory has a short name");
    }
    const std::u16string key = Upcase(shortName);
    auto taken = FindEntry(*target.parent, shortName);
    if (!IsShortNameCompliant(shortName) || (taken && taken != target.link)) {
        Fail("SeedShortName", path, "not a valid 8.3 name, or taken in the directory");
    }
    auto& link = target.link;
    if (!link->shortName.empty()) {
        target.parent->shortEntries.erase(Upcase(link->shortName));
    }
    link->shortName = Upcase(shortName);
    target.parent->shortEntries[key] = link;
}

void MemoryVolumeImpl::SeedBasicInformation(std::u16string_view path, const FILE_BASIC_INFORMATION& basic)
{
    std::lock_guard lock(mutex_);
    Node& node = *ResolveOrThrow(path).node;
    if (basic.CreationTime.QuadPart != 0) {
        node.creationTime = basic.CreationTime.QuadPart;
    }
    if (basic.LastAccessTime.QuadPart != 0) {
        node.lastAccessTime = basic.LastAccessTime.QuadPart;
    }
    if (basic.LastWriteTime.QuadPart != 0) {
        node.lastWriteTime = basic.LastWriteTime.QuadPart;
    }
    if (basic.ChangeTime.QuadPart != 0) {
        node.changeTime = basic.ChangeTime.QuadPart;
    }
    if (basic.FileAttributes != 0) {
        node.attributes =
            (basic.FileAttributes & ~FILE_ATTRIBUTE_NORMAL) | (node.directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    }
}

void MemoryVolumeImpl::SeedRemove(std::u16string_view path)
{
    std::lock_guard lock(mutex_);
    Target target = ResolveOrThrow(path);
    if (target.stream) {
        target.node->streams.erase(Upcase(target.stream->name));
        target.stream->removed = true;
        return;
    }
    if (!target.link) {
        Fail("SeedRemove", path, "the root cannot be removed");
    }
    RemoveTree(target.link);
    Touch(*target.parent, true);
}

void MemoryVolumeImpl::SeedReparsePoint(std::u16string_view path, ULONG tag, const std::vector<UCHAR>& data)
{
    std::lock_guard lock(mutex_);
    if (!features_.reparsePoints) {
        Fail("SeedReparsePoint", path, "this file system has no reparse points");
    }
    Target target = ResolveOrThrow(path);
    if (!target.link || target.stream) {
        Fail("SeedReparsePoint", path, "only a file or a directory below the root can be a reparse point");
    }
    if (tag == 0 || data.size() > MAXUSHORT - REPARSE_DATA_BUFFER_HEADER_SIZE) {
        Fail("SeedReparsePoint", path, "no tag, or more data than a reparse buffer holds");
    }
    if (target.node->directory && !target.node->entries.empty()) {
        Fail("SeedReparsePoint", path, "a directory must be empty to become a reparse point");
    }
    target.node->reparseTag = tag;
    target.node->reparseData = data;
    target.node->attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    Touch(*target.node, false);
}

void MemoryVolumeImpl::SeedJunction(std::u16string_view path, std::u16string_view target)
{
    const std::u16string_view devicePrefix = u"\\??\\";
    if (target.substr(0, devicePrefix.size()) != devicePrefix) {
        Fail("SeedJunction", path, "the target must be a \\??\\ name");
    }
    const std::u16string_view printName = target.substr(devicePrefix.size());
    // The mount point part of the buffer: four offsets and lengths in bytes, then the substitute
    // name and the print name, each with a terminating zero.
    const size_t substituteBytes = target.size() * sizeof(WCHAR);
    const size_t printBytes = printName.size() * sizeof(WCHAR);
    const size_t namesOffset = FIELD_OFFSET(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) -
                               REPARSE_DATA_BUFFER_HEADER_SIZE;
    std::vector<UCHAR> data(namesOffset + substituteBytes + printBytes + 2 * sizeof(WCHAR));
    const USHORT fields[4] = {0, static_cast<USHORT>(substituteBytes), static_cast<USHORT>(substituteBytes + 2),
                              static_cast<USHORT>(printBytes)};
    std::memcpy(data.data(), fields, sizeof(fields));
    std::memcpy(data.data() + namesOffset, target.data(), substituteBytes);
    std::memcpy(data.data() + namesOffset + substituteBytes + 2, printName.data(), printBytes);
    SeedDirectory(path, 0);
    SeedReparsePoint(path, IO_REPARSE_TAG_MOUNT_POINT, data);
}

bool MemoryVolumeImpl::Exists(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    Target target;
    return TryResolve(path, &target);
}

bool MemoryVolumeImpl::IsDirectoryPath(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    Target target;
    return TryResolve(path, &target) && target.node->directory && !target.stream;
}

std::optional<std::string> MemoryVolumeImpl::Content(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    Target target;
    if (!TryResolve(path, &target) || (target.node->directory && !target.stream)) {
        return std::nullopt;
    }
    const Stream& stream = target.stream ? *target.stream : *DefaultStream(*target.node);
    return std::string(stream.data.begin(), stream.data.end());
}

std::vector<std::u16string> MemoryVolumeImpl::StreamNames(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    std::vector<std::u16string> names;
    Target target;
    if (TryResolve(path, &target)) {
        for (const auto& [key, stream] : target.node->streams) {
            if (!key.empty()) {
                names.push_back(stream->name);
            }
        }
    }
    return names;
}

std::optional<FILE_BASIC_INFORMATION> MemoryVolumeImpl::BasicInformation(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    Target target;
    if (!TryResolve(path, &target)) {
        return std::nullopt;
    }
    FILE_BASIC_INFORMATION basic{};
    basic.CreationTime.QuadPart = target.node->creationTime;
    basic.LastAccessTime.QuadPart = target.node->lastAccessTime;
    basic.LastWriteTime.QuadPart = target.node->lastWriteTime;
    basic.ChangeTime.QuadPart = target.node->changeTime;
    basic.FileAttributes = ReportedAttributes(*target.node);
    return basic;
}

std::u16string MemoryVolumeImpl::ShortName(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    Target target;
    if (!TryResolve(path, &target) || !target.link) {
        return {};
    }
    return target.link->shortName;
}

ULONG MemoryVolumeImpl::LinkCount(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    Target target;
    if (!TryResolve(path, &target)) {
        return 0;
    }
    return static_cast<ULONG>(target.node->links.size());
}

std::vector<std::u16string> MemoryVolumeImpl::List(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    std::vector<std::u16string> names;
    Target target;
    if (TryResolve(path, &target) && target.node->directory) {
        for (const auto& [key, link] : target.node->entries) {
            names.push_back(link->name);
        }
    }
    return names;
}

size_t MemoryVolumeImpl::OpenCount() const
{
    std::lock_guard lock(mutex_);
    return openCount_;
}

ULONG MemoryVolumeImpl::HandleCount(std::u16string_view path) const
{
    std::lock_guard lock(mutex_);
    Target target;
    if (!TryResolve(path, &target)) {
        return 0;
    }
    return target.node->handleCount;
}

}  // namespace ntsim::fs

namespace ntsim {

std::shared_ptr<MemoryVolume> CreateNtfsVolume(std::u16string deviceName)
{
    fs::Features features;
    features.deviceType = FILE_DEVICE_DISK_FILE_SYSTEM;
    features.fileSystemType = FLT_FSTYPE_NTFS;
    return std::make_shared<fs::MemoryVolumeImpl>(std::move(deviceName), features);
}

std::shared_ptr<MemoryVolume> CreateFatVolume(std::u16string deviceName)
{
    fs::Features features;
    features.deviceType = FILE_DEVICE_DISK_FILE_SYSTEM;
    features.fileSystemType = FLT_FSTYPE_FAT;
    features.namedStreams = false;
    features.hardLinks = false;
    features.reparsePoints = false;
    return std::make_shared<fs::MemoryVolumeImpl>(std::move(deviceName), features);
}

std::shared_ptr<MemoryVolume> CreateCdfsVolume(std::u16string deviceName)
{
    fs::Features features;
    features.deviceType = FILE_DEVICE_CD_ROM_FILE_SYSTEM;
    features.fileSystemType = FLT_FSTYPE_CDFS;
    features.clusterSize = 2048;
    features.namedStreams = false;
    features.hardLinks = false;
    features.reparsePoints = false;
    features.readOnly = true;
    features.extendedAttributes = false;
    return std::make_shared<fs::MemoryVolumeImpl>(std::move(deviceName), features);
}

}  // namespace ntsim
