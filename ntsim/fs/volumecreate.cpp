// Opens on the in-memory volumes: path resolution, create dispositions, share access, cleanup
// (delete pending, delete on close) and close.
#include "memoryvolume.hpp"

#include <ntsim/sim/clock.hpp>

#include <algorithm>

namespace ntsim::fs {

namespace {

bool WantsShareCheck(ACCESS_MASK access)
{
    return (access & (kReadShareAccess | kWriteShareAccess | kDeleteShareAccess)) != 0;
}

// IoCheckShareAccess: the new open's access against what earlier opens share, and what it shares
// against what earlier opens hold.
NTSTATUS CheckShareAccess(const ShareAccess& current, ACCESS_MASK access, ULONG share)
{
    if (!WantsShareCheck(access)) {
        return STATUS_SUCCESS;
    }
    const bool read = (access & kReadShareAccess) != 0;
    const bool write = (access & kWriteShareAccess) != 0;
    const bool del = (access & kDeleteShareAccess) != 0;
    if ((read && current.sharedRead < current.openCount) || (write && current.sharedWrite < current.openCount) ||
        (del && current.sharedDelete < current.openCount) ||
        (current.readers != 0 && !(share & FILE_SHARE_READ)) ||
        (current.writers != 0 && !(share & FILE_SHARE_WRITE)) ||
        (current.deleters != 0 && !(share & FILE_SHARE_DELETE))) {
        return STATUS_SHARING_VIOLATION;
    }
    return STATUS_SUCCESS;
}

// IoSetShareAccess: records the open in the stream's share access and in the open, unless the open
// skips share access or takes no part in it (no read, write or delete access).
void RecordShareAccess(ShareAccess& current, const VolumeCreateParameters& parameters, MemoryOpen& open)
{
    const ACCESS_MASK access = parameters.desiredAccess;
    const ULONG share = parameters.shareAccess;
    if (parameters.ignoreShareAccess || !WantsShareCheck(access)) {
        return;
    }
    open.shareRecorded = true;
    open.recordedShareAccess = RecordedShareAccess{
        .readAccess = (access & kReadShareAccess) != 0,
        .writeAccess = (access & kWriteShareAccess) != 0,
        .deleteAccess = (access & kDeleteShareAccess) != 0,
        .sharedRead = (share & FILE_SHARE_READ) != 0,
        .sharedWrite = (share & FILE_SHARE_WRITE) != 0,
        .sharedDelete = (share & FILE_SHARE_DELETE) != 0,
    };
    current.openCount++;
    current.readers += (access & kReadShareAccess) ? 1 : 0;
    current.writers += (access & kWriteShareAccess) ? 1 : 0;
    current.deleters += (access & kDeleteShareAccess) ? 1 : 0;
    current.sharedRead += (share & FILE_SHARE_READ) ? 1 : 0;
    current.sharedWrite += (share & FILE_SHARE_WRITE) ? 1 : 0;
    current.sharedDelete += (share & FILE_SHARE_DELETE) ? 1 : 0;
}

void RemoveShareAccess(ShareAccess& current, ACCESS_MASK access, ULONG share)
{
    current.openCount--;
    current.readers -= (access & kReadShareAccess) ? 1 : 0;
    current.writers -= (access & kWriteShareAccess) ? 1 : 0;
    current.deleters -= (access & kDeleteShareAccess) ? 1 : 0;
    current.sharedRead -= (share & FILE_SHARE_READ) ? 1 : 0;
    current.sharedWrite -= (share & FILE_SHARE_WRITE) ? 1 : 0;
    current.sharedDelete -= (share & FILE_SHARE_DELETE) ? 1 : 0;
}

bool IsOverwrite(ULONG disposition)
{
    return disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF;
}

// What a create asks that a read-only medium refuses.
bool WouldWrite(const VolumeCreateParameters& parameters)
{
    constexpr ACCESS_MASK kWriting = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES |
                                     DELETE | WRITE_DAC | WRITE_OWNER;
    return (parameters.desiredAccess & kWriting) != 0 || parameters.disposition != FILE_OPEN ||
           (parameters.createOptions & FILE_DELETE_ON_CLOSE) != 0;
}

// The last component of a path as given, for a target-directory open.
std::u16string LastComponentText(std::u16string_view path)
{
    while (path.size() > 1 && path.back() == u'\\') {
        path.remove_suffix(1);
    }
    return std::u16string(path.substr(path.rfind(u'\\') + 1));
}

}  // namespace

MemoryOpen::~MemoryOpen()
{
    if (volume) {
        volume->Close(*this);
    }
}

MemoryVolumeImpl::MemoryVolumeImpl(std::u16string deviceName, const Features& features)
    : deviceName_(std::move(deviceName)), features_(features)
{
    root_ = std::make_shared<Node>();
    root_->directory = true;
    root_->fileId = 0x0005000000000005ULL;  // record 5, sequence 5: the root's id on NTFS
    root_->attributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    const LONGLONG now = clock::Now();
    root_->creationTime = root_->lastAccessTime = root_->lastWriteTime = root_->changeTime = now;
    root_->streams[u""] = std::make_shared<Stream>();
}

// ---- names and paths ----

NTSTATUS MemoryVolumeImpl::Parse(std::u16string_view path, ParsedPath* parsed) const
{
    *parsed = ParsedPath{};
    if (path.empty() || path.front() != u'\\') {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::u16string_view rest = path.substr(1);
    if (rest.empty()) {
        return STATUS_SUCCESS;  // the root
    }
    if (rest.back() == u'\\') {
        parsed->trailingBackslash = true;
        rest.remove_suffix(1);
    }
    while (true) {
        size_t separator = rest.find(u'\\');
        parsed->components.emplace_back(rest.substr(0, separator));
        if (separator == std::u16string_view::npos) {
            break;
        }
        rest = rest.substr(separator + 1);
    }

    // The stream part of the last component: "name:stream", "name:stream:$DATA" or "name::$DATA".
    std::u16string& last = parsed->components.back();
    size_t colon = last.find(u':');
    if (colon != std::u16string::npos) {
        std::u16string_view streamPart = std::u16string_view(last).substr(colon + 1);
        size_t typeColon = streamPart.find(u':');
        std::u16string_view streamName = streamPart.substr(0, typeColon);
        if (typeColon != std::u16string_view::npos) {
            if (Upcase(streamPart.substr(typeColon + 1)) != u"$DATA") {
                return STATUS_OBJECT_NAME_INVALID;
            }
        } else if (streamName.empty()) {
            return STATUS_OBJECT_NAME_INVALID;  // "name:"
        }
        if (!streamName.empty() && !IsValidName(streamName)) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (!features_.namedStreams || parsed->trailingBackslash) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        parsed->streamSyntax = true;
        parsed->streamName = std::u16string(streamName);
        last.resize(colon);
    }
    for (const auto& component : parsed->components) {
        if (!IsValidName(component) || component == u"." || component == u"..") {
            return STATUS_OBJECT_NAME_INVALID;
        }
    }
    return STATUS_SUCCESS;
}

std::shared_ptr<Link> MemoryVolumeImpl::FindEntry(const Node& directory, std::u16string_view name) const
{
    const std::u16string key = Upcase(name);
    if (auto found = directory.entries.find(key); found != directory.entries.end()) {
        return found->second;
    }
    if (auto found = directory.shortEntries.find(key); found != directory.shortEntries.end()) {
        return found->second;
    }
    return nullptr;
}

NTSTATUS MemoryVolumeImpl::ResolveDirectory(const std::vector<std::u16string>& components, size_t count,
                                            std::shared_ptr<Node>* directory) const
{
    std::shared_ptr<Node> current = root_;
    for (size_t i = 0; i < count; ++i) {
        auto entry = FindEntry(*current, components[i]);
        if (!entry || !entry->node->directory) {
            return STATUS_OBJECT_PATH_NOT_FOUND;
        }
        current = entry->node;
    }
    *directory = current;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::Resolve(const ParsedPath& parsed, Target* target) const
{
    *target = Target{};
    if (parsed.components.empty()) {
        target->node = root_;
        return STATUS_SUCCESS;
    }
    NTSTATUS status = ResolveDirectory(parsed.components, parsed.components.size() - 1, &target->parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    target->link = FindEntry(*target->parent, parsed.components.back());
    if (target->link) {
        target->node = target->link->node;
        if (!parsed.streamName.empty()) {
            auto stream = target->node->streams.find(Upcase(parsed.streamName));
            if (stream != target->node->streams.end()) {
                target->stream = stream->second;
            }
        }
    }
    return STATUS_SUCCESS;
}

std::u16string MemoryVolumeImpl::PathOf(const Link* link) const
{
    if (link == nullptr) {
        return u"\\";
    }
    std::vector<const std::u16string*> names;
    while (link != nullptr) {
        if (!link->linked) {
            return {};  // a name on the way was removed
        }
        names.push_back(&link->name);
        auto parent = link->parent.lock();
        if (!parent) {
            return {};
        }
        link = parent == root_ ? nullptr : (parent->links.empty() ? nullptr : parent->links.front());
        if (link == nullptr && parent != root_) {
            return {};
        }
    }
    std::u16string path;
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        path += u'\\';
        path += **name;
    }
    return path;
}

bool MemoryVolumeImpl::IsDescendant(const Node& ancestor, const Node& node) const
{
    const Node* current = &node;
    while (current != nullptr && current != root_.get()) {
        if (current == &ancestor) {
            return true;
        }
        if (current->links.empty()) {
            return false;
        }
        auto parent = current->links.front()->parent.lock();
        current = parent.get();
    }
    return current == &ancestor;
}

bool MemoryVolumeImpl::HasHandlesBelow(const Node& directory) const
{
    for (const auto& [key, link] : directory.entries) {
        if (link->node->handleCount != 0 ||
            (link->node->directory && HasHandlesBelow(*link->node))) {
            return true;
        }
    }
    return false;
}

// ---- building and removing ----

std::shared_ptr<Node> MemoryVolumeImpl::NewNode(bool directory, ULONG attributes)
{
    auto node = std::make_shared<Node>();
    node->directory = directory;
    node->attributes = attributes;
    // An NTFS file reference: sequence number 1 in the top 16 bits, the record number below.
    node->fileId = (1ULL << 48) | nextFileIndex_++;
    const LONGLONG now = clock::Now();
    node->creationTime = node->lastAccessTime = node->lastWriteTime = node->changeTime = now;
    node->streams[u""] = std::make_shared<Stream>();
    return node;
}

std::u16string MemoryVolumeImpl::GenerateShortName(const Node& directory, std::u16string_view longName) const
{
    std::u16string stem;
    std::u16string extension;
    ShortNameParts(longName, &stem, &extension);
    for (unsigned number = 1;; ++number) {
        std::u16string suffix = u"~";
        for (char c : std::to_string(number)) {
            suffix.push_back(static_cast<char16_t>(c));
        }
        std::u16string candidate = stem.substr(0, std::min(stem.size(), 8 - suffix.size())) + suffix;
        if (!extension.empty()) {
            candidate += u'.';
            candidate += extension;
        }
        if (!directory.entries.contains(candidate) && !directory.shortEntries.contains(candidate)) {
            return candidate;
        }
    }
}

std::shared_ptr<Link> MemoryVolumeImpl::AddLink(const std::shared_ptr<Node>& directory, std::u16string_view name,
                                                const std::shared_ptr<Node>& node, bool withShortName)
{
    auto link = std::make_shared<Link>();
    link->name = std::u16string(name);
    link->parent = directory;
    link->node = node;
    if (withShortName && features_.shortNames && !IsShortNameCompliant(name)) {
        link->shortName = GenerateShortName(*directory, name);
        directory->shortEntries[Upcase(link->shortName)] = link;
    }
    directory->entries[Upcase(name)] = link;
    node->links.push_back(link.get());
    return link;
}

void MemoryVolumeImpl::RemoveLink(std::shared_ptr<Link> link)
{
    if (!link->linked) {
        return;
    }
    if (auto parent = link->parent.lock()) {
        parent->entries.erase(Upcase(link->name));
        if (!link->shortName.empty()) {
            parent->shortEntries.erase(Upcase(link->shortName));
        }
    }
    auto& links = link->node->links;
    links.erase(std::remove(links.begin(), links.end(), link.get()), links.end());
    link->linked = false;
    link->parent.reset();
}

void MemoryVolumeImpl::RemoveTree(std::shared_ptr<Link> link)
{
    if (link->node->directory) {
        std::vector<std::shared_ptr<Link>> children;
        for (const auto& [key, child] : link->node->entries) {
            children.push_back(child);
        }
        for (auto& child : children) {
            RemoveTree(child);
        }
    }
    RemoveLink(std::move(link));
}

std::shared_ptr<Stream> MemoryVolumeImpl::AddStream(Node& node, std::u16string_view name)
{
    auto stream = std::make_shared<Stream>();
    stream->name = std::u16string(name);
    node.streams[Upcase(name)] = stream;
    return stream;
}

LONGLONG MemoryVolumeImpl::RoundToCluster(LONGLONG size) const
{
    const LONGLONG cluster = features_.clusterSize;
    return size <= 0 ? 0 : (size + cluster - 1) / cluster * cluster;
}

void MemoryVolumeImpl::Touch(Node& node, bool written) const
{
    const LONGLONG now = clock::Now();
    node.changeTime = now;
    if (written) {
        node.lastWriteTime = now;
        if (!node.directory) {
            node.attributes |= FILE_ATTRIBUTE_ARCHIVE;
        }
    }
}

// ---- create ----

NTSTATUS MemoryVolumeImpl::Create(const VolumeCreateParameters& parameters, std::unique_ptr<VolumeOpen>* open,
                                  ULONG_PTR* information, std::u16string* finalComponent,
                                  std::vector<UCHAR>* reparseBuffer)
{
    std::unique_ptr<MemoryOpen> created;
    NTSTATUS status;
    {
        std::lock_guard lock(mutex_);
        status = CreateLocked(parameters, &created, information, finalComponent, reparseBuffer);
    }
    if (NT_SUCCESS(status) && created != nullptr) {
        *open = std::move(created);
    }
    return status;
}

NTSTATUS MemoryVolumeImpl::CreateLocked(const VolumeCreateParameters& parameters, std::unique_ptr<MemoryOpen>* out,
                                        ULONG_PTR* information, std::u16string* finalComponent,
                                        std::vector<UCHAR>* reparseBuffer)
{
    const ULONG disposition = parameters.disposition;
    const ULONG options = parameters.createOptions;
    if (disposition > FILE_MAXIMUM_DISPOSITION ||
        ((options & FILE_DIRECTORY_FILE) && (options & FILE_NON_DIRECTORY_FILE)) ||
        ((options & FILE_DIRECTORY_FILE) && disposition != FILE_CREATE && disposition != FILE_OPEN &&
         disposition != FILE_OPEN_IF) ||
        ((options & FILE_DELETE_ON_CLOSE) && !(parameters.desiredAccess & DELETE))) {
        return STATUS_INVALID_PARAMETER;
    }

    auto open = std::make_unique<MemoryOpen>();
    open->access = parameters.desiredAccess;
    open->shareAccess = parameters.shareAccess;
    open->createOptions = options;

    if (parameters.path.empty()) {
        if (disposition != FILE_OPEN && disposition != FILE_OPEN_IF) {
            return STATUS_INVALID_PARAMETER;
        }
        open->volumeOpen = true;
        *information = FILE_OPENED;
    } else {
        ParsedPath parsed;
        NTSTATUS status = Parse(parameters.path, &parsed);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (features_.readOnly && WouldWrite(parameters)) {
            return STATUS_ACCESS_DENIED;
        }
        status = ReparseOnTheWay(parameters, parsed, information, reparseBuffer);
        if (status != STATUS_SUCCESS) {
            return status;
        }
        if (parameters.flags & kOpenTargetDirectory) {
            if (parsed.components.empty()) {
                return STATUS_OBJECT_NAME_INVALID;
            }
            std::shared_ptr<Node> parent;
            status = ResolveDirectory(parsed.components, parsed.components.size() - 1, &parent);
            if (!NT_SUCCESS(status)) {
                return status;
            }
            std::shared_ptr<Link> parentLink =
                parent == root_ ? nullptr : parent->links.front()->shared_from_this();
            if (parentLink && parentLink->deletePending) {
                return STATUS_DELETE_PENDING;
            }
            auto stream = parent->streams.at(u"");
            if (!parameters.ignoreShareAccess) {
                status = CheckShareAccess(stream->share, parameters.desiredAccess, parameters.shareAccess);
                if (!NT_SUCCESS(status)) {
                    return status;
                }
            }
            RecordShareAccess(stream->share, parameters, *open);
            *information = FindEntry(*parent, parsed.components.back()) ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
            if (finalComponent != nullptr) {
                *finalComponent = LastComponentText(parameters.path);
            }
            open->node = parent;
            open->link = parentLink;
            open->stream = stream;
        } else {
            Target target;
            status = Resolve(parsed, &target);
            if (!NT_SUCCESS(status)) {
                return status;
            }
            status = target.node ? OpenExisting(parameters, parsed, target, *open, information)
                                 : CreateNew(parameters, parsed, target, *open, information);
            if (!NT_SUCCESS(status)) {
                return status;
            }
        }
        open->node->handleCount++;
        open->stream->handleCount++;
        if (open->link) {
            open->link->handleCount++;
        }
        open->deleteOnClose = (options & FILE_DELETE_ON_CLOSE) != 0;
    }
    open->volume = shared_from_this();
    ++openCount_;
    *out = std::move(open);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::ReparseOnTheWay(const VolumeCreateParameters& parameters, const ParsedPath& parsed,
                                           ULONG_PTR* information, std::vector<UCHAR>* reparseBuffer) const
{
    // A target-directory open walks to the parent, which is what it opens.
    size_t count = parsed.components.size();
    if ((parameters.flags & kOpenTargetDirectory) != 0 && count > 0) {
        --count;
    }
    const std::u16string& path = parameters.path;
    size_t end = 0;  // the end of the components walked so far in path (path[0] is the root's '\')
    std::shared_ptr<Node> current = root_;
    for (size_t i = 0; i < count; ++i) {
        auto entry = FindEntry(*current, parsed.components[i]);
        if (!entry) {
            return STATUS_SUCCESS;  // for the rest of the create to report
        }
        end = path.find(u'\\', end + 1);
        if (end == std::u16string::npos) {
            end = path.size();
        }
        const Node& node = *entry->node;
        const bool openItself = i + 1 == count && (parameters.createOptions & FILE_OPEN_REPARSE_POINT) != 0;
        if (node.reparseTag != 0 && !openItself) {
            const size_t unparsedBytes = (path.size() - end) * sizeof(WCHAR);
            if (reparseBuffer != nullptr) {
                reparseBuffer->assign(REPARSE_DATA_BUFFER_HEADER_SIZE + node.reparseData.size(), 0);
                auto* buffer = reinterpret_cast<REPARSE_DATA_BUFFER*>(reparseBuffer->data());
                buffer->ReparseTag = node.reparseTag;
                buffer->ReparseDataLength = static_cast<USHORT>(node.reparseData.size());
                buffer->Reserved = static_cast<USHORT>(unparsedBytes);
                std::copy(node.reparseData.begin(), node.reparseData.end(),
                          reparseBuffer->begin() + REPARSE_DATA_BUFFER_HEADER_SIZE);
            }
            *information = node.reparseTag;
            return STATUS_REPARSE;
        }
        if (!node.directory) {
            return STATUS_SUCCESS;
        }
        current = entry->node;
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::OpenExisting(const VolumeCreateParameters& parameters, const ParsedPath& parsed,
                                        Target& target, MemoryOpen& open, ULONG_PTR* information)
{
    Node& node = *target.node;
    const ULONG disposition = parameters.disposition;
    const ULONG options = parameters.createOptions;
    if (target.link && target.link->deletePending) {
        return STATUS_DELETE_PENDING;
    }

    std::shared_ptr<Stream> stream;
    bool newStream = false;
    if (!parsed.streamName.empty()) {
        if (options & FILE_DIRECTORY_FILE) {
            return STATUS_NOT_A_DIRECTORY;
        }
        if (target.stream) {
            if (target.stream->deletePending) {
                return STATUS_DELETE_PENDING;
            }
            if (disposition == FILE_CREATE) {
                return STATUS_OBJECT_NAME_COLLISION;
            }
            stream = target.stream;
        } else if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        } else {
            newStream = true;
        }
    } else if (node.directory) {
        if (parsed.streamSyntax || (options & FILE_NON_DIRECTORY_FILE)) {
            return STATUS_FILE_IS_A_DIRECTORY;
        }
        if (disposition == FILE_CREATE) {
            return STATUS_OBJECT_NAME_COLLISION;
        }
        if (IsOverwrite(disposition)) {
            return STATUS_FILE_IS_A_DIRECTORY;
        }
        stream = node.streams.at(u"");
    } else {
        if (options & FILE_DIRECTORY_FILE) {
            return STATUS_NOT_A_DIRECTORY;
        }
        if (parsed.trailingBackslash) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (disposition == FILE_CREATE) {
            return STATUS_OBJECT_NAME_COLLISION;
        }
        stream = node.streams.at(u"");
    }

    const bool overwrite = !newStream && IsOverwrite(disposition);
    if (node.attributes & FILE_ATTRIBUTE_READONLY) {
        if (options & FILE_DELETE_ON_CLOSE) {
            return STATUS_CANNOT_DELETE;
        }
        if (!node.directory &&
            ((parameters.desiredAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA)) || overwrite)) {
            return STATUS_ACCESS_DENIED;
        }
    }
    if (overwrite && parsed.streamName.empty()) {
        // Overwriting a hidden or system file must say so in the new attributes.
        const ULONG kept = node.attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
        if ((parameters.fileAttributes & kept) != kept) {
            return STATUS_ACCESS_DENIED;
        }
    }
    if (!newStream && !parameters.ignoreShareAccess) {
        NTSTATUS status = CheckShareAccess(stream->share, parameters.desiredAccess, parameters.shareAccess);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }

    if (newStream) {
        stream = AddStream(node, parsed.streamName);
        stream->allocationSize = RoundToCluster(parameters.allocationSize);
        Touch(node, true);
        *information = FILE_CREATED;
    } else if (overwrite) {
        stream->data.clear();
        stream->allocationSize = RoundToCluster(parameters.allocationSize);
        if (parsed.streamName.empty()) {
            node.attributes = (parameters.fileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL) |
                              FILE_ATTRIBUTE_ARCHIVE;
        }
        Touch(node, true);
        *information = disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
    } else {
        *information = FILE_OPENED;
    }
    RecordShareAccess(stream->share, parameters, open);
    open.node = target.node;
    open.link = target.link;
    open.stream = stream;
    open.namedStream = !parsed.streamName.empty();
    return STATUS_SUCCESS;
}

NTSTATUS MemoryVolumeImpl::CreateNew(const VolumeCreateParameters& parameters, const ParsedPath& parsed,
                                     Target& target, MemoryOpen& open, ULONG_PTR* information)
{
    const ULONG disposition = parameters.disposition;
    const ULONG options = parameters.createOptions;
    if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    Node& parent = *target.parent;
    if (!parent.links.empty() && parent.links.front()->deletePending) {
        return STATUS_DELETE_PENDING;
    }
    const bool directory = (options & FILE_DIRECTORY_FILE) != 0;
    if (directory && parsed.streamSyntax) {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (parsed.trailingBackslash && !directory) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    ULONG attributes = parameters.fileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
    if ((attributes & FILE_ATTRIBUTE_READONLY) && (options & FILE_DELETE_ON_CLOSE)) {
        return STATUS_CANNOT_DELETE;
    }
    attributes = directory ? ((attributes & ~FILE_ATTRIBUTE_ARCHIVE) | FILE_ATTRIBUTE_DIRECTORY)
                           : (attributes | FILE_ATTRIBUTE_ARCHIVE);

    auto node = NewNode(directory, attributes);
    auto link = AddLink(target.parent, parsed.components.back(), node, true);
    Touch(parent, true);
    std::shared_ptr<Stream> stream = node->streams.at(u"");
    if (!parsed.streamName.empty()) {
        stream = AddStream(*node, parsed.streamName);
    }
    if (!directory) {
        stream->allocationSize = RoundToCluster(parameters.allocationSize);
    }
    RecordShareAccess(stream->share, parameters, open);
    open.node = node;
    open.link = link;
    open.stream = stream;
    open.namedStream = !parsed.streamName.empty();
    *information = FILE_CREATED;
    return STATUS_SUCCESS;
}

// ---- cleanup and close ----

void MemoryVolumeImpl::Cleanup(VolumeOpen& open)
{
    std::lock_guard lock(mutex_);
    CleanupLocked(static_cast<MemoryOpen&>(open));
}

void MemoryVolumeImpl::CleanupLocked(MemoryOpen& open)
{
    if (open.cleanedUp) {
        return;
    }
    open.cleanedUp = true;
    if (open.volumeOpen) {
        return;
    }
    Stream& stream = *open.stream;
    Node& node = *open.node;
    if (open.shareRecorded) {
        RemoveShareAccess(stream.share, open.access, open.shareAccess);
        open.shareRecorded = false;
    }
    stream.handleCount--;
    node.handleCount--;
    if (open.link) {
        open.link->handleCount--;
    }
    if (open.deleteOnClose) {
        if (open.namedStream) {
            stream.deletePending = true;
        } else if (open.link) {
            open.link->deletePending = true;
        }
    }

    if (open.namedStream) {
        if (stream.deletePending && !stream.removed && (stream.handleCount == 0 || open.posixDelete)) {
            auto entry = node.streams.find(Upcase(stream.name));
            if (entry != node.streams.end() && entry->second.get() == &stream) {
                node.streams.erase(entry);
            }
            stream.removed = true;
            Touch(node, true);
        }
        return;
    }
    const auto& link = open.link;
    if (link && link->linked && link->deletePending && (link->handleCount == 0 || open.posixDelete)) {
        if (node.directory && !node.entries.empty()) {
            link->deletePending = false;  // something was made in it since: it stays
            return;
        }
        auto parent = link->parent.lock();
        RemoveLink(link);
        if (parent) {
            Touch(*parent, true);
        }
    }
}

void MemoryVolumeImpl::Close(MemoryOpen& open)
{
    std::lock_guard lock(mutex_);
    CleanupLocked(open);
    --openCount_;
}

}  // namespace ntsim::fs
