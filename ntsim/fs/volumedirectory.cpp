// Directory enumeration on the in-memory volumes (IRP_MN_QUERY_DIRECTORY).
//
// A listing is "." and ".." (except in the root), then the entries in upcased-name order. An entry
// matches when its long name, or its short name, is in the scan's expression. The scan remembers
// where the last entry it handed out stood (by name, so entries made or removed between queries do
// not shift it). FileIndex is the entry's 1-based position in the whole listing at the time of the
// query; SL_INDEX_SPECIFIED resumes after the entry at that position.
#include "memoryvolume.hpp"

#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>

namespace ntsim::fs {

namespace {

constexpr ULONG Align8(ULONGLONG value) { return static_cast<ULONG>((value + 7) & ~7ull); }

// What one listing entry shows.
struct Entry {
    std::u16string_view name;
    std::u16string_view shortName;
    const Node* node = nullptr;
    DirectoryScan::Position position = DirectoryScan::Position::AfterEntry;
    const std::u16string* key = nullptr;  // for named entries
    ULONG fileIndex = 0;
    LONGLONG endOfFile = 0;
    LONGLONG allocationSize = 0;
    ULONG attributes = 0;
};

ULONG NameOffset(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileDirectoryInformation: return FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
    case FileFullDirectoryInformation: return FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName);
    case FileBothDirectoryInformation: return FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
    case FileNamesInformation: return FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
    case FileIdBothDirectoryInformation: return FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName);
    case FileIdFullDirectoryInformation: return FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName);
    default: return 0;
    }
}

template <typename Record>
void FillCommon(Record& record, const Entry& entry, ULONG nameBytes)
{
    record.FileIndex = entry.fileIndex;
    record.CreationTime.QuadPart = entry.node->creationTime;
    record.LastAccessTime.QuadPart = entry.node->lastAccessTime;
    record.LastWriteTime.QuadPart = entry.node->lastWriteTime;
    record.ChangeTime.QuadPart = entry.node->changeTime;
    record.EndOfFile.QuadPart = entry.endOfFile;
    record.AllocationSize.QuadPart = entry.allocationSize;
    record.FileAttributes = entry.attributes;
    record.FileNameLength = nameBytes;
}

template <typename Record>
void FillShortName(Record& record, const Entry& entry)
{
    // "." and "..", and names that are 8.3 names themselves, have none: the field stays zero.
    const size_t characters = std::min<size_t>(entry.shortName.size(), 12);
    record.ShortNameLength = static_cast<CCHAR>(characters * sizeof(WCHAR));
    if (characters != 0) {
        std::memcpy(record.ShortName, entry.shortName.data(), characters * sizeof(WCHAR));
    }
}

template <typename Record>
void PutFixed(const Record& record, unsigned char* destination, ULONG nameOffset)
{
    std::memcpy(destination, &record, nameOffset);
}

// Writes the fixed part of entry's record (NextEntryOffset 0) at destination.
void WriteFixedPart(FILE_INFORMATION_CLASS infoClass, const Entry& entry, ULONG nameBytes, unsigned char* destination)
{
    const ULONG nameOffset = NameOffset(infoClass);
    switch (infoClass) {
    case FileDirectoryInformation: {
        FILE_DIRECTORY_INFORMATION record{};
        FillCommon(record, entry, nameBytes);
        PutFixed(record, destination, nameOffset);
        break;
    }
    case FileFullDirectoryInformation: {
        FILE_FULL_DIR_INFORMATION record{};
        FillCommon(record, entry, nameBytes);
        PutFixed(record, destination, nameOffset);
        break;
    }
    case FileBothDirectoryInformation: {
        FILE_BOTH_DIR_INFORMATION record{};
        FillCommon(record, entry, nameBytes);
        FillShortName(record, entry);
        PutFixed(record, destination, nameOffset);
        break;
    }
    case FileIdBothDirectoryInformation: {
        FILE_ID_BOTH_DIR_INFORMATION record{};
        FillCommon(record, entry, nameBytes);
        FillShortName(record, entry);
        record.FileId.QuadPart = static_cast<LONGLONG>(entry.node->fileId);
        PutFixed(record, destination, nameOffset);
        break;
    }
    case FileIdFullDirectoryInformation: {
        FILE_ID_FULL_DIR_INFORMATION record{};
        FillCommon(record, entry, nameBytes);
        record.FileId.QuadPart = static_cast<LONGLONG>(entry.node->fileId);
        PutFixed(record, destination, nameOffset);
        break;
    }
    case FileNamesInformation: {
        FILE_NAMES_INFORMATION record{};
        record.FileIndex = entry.fileIndex;
        record.FileNameLength = nameBytes;
        PutFixed(record, destination, nameOffset);
        break;
    }
    default:
        break;
    }
}

}  // namespace

NTSTATUS MemoryVolumeImpl::QueryDirectory(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer,
                                          ULONG length, const UNICODE_STRING* pattern, ULONG flags,
                                          ULONG fileIndex, ULONG* returned)
{
    std::lock_guard lock(mutex_);
    auto& o = static_cast<MemoryOpen&>(open);
    *returned = 0;
    if (!o.IsDirectory()) {
        return STATUS_INVALID_PARAMETER;
    }
    switch (infoClass) {
    case FileDirectoryInformation: case FileFullDirectoryInformation: case FileBothDirectoryInformation:
    case FileNamesInformation: case FileIdBothDirectoryInformation: case FileIdFullDirectoryInformation:
        break;
    case FileIdGlobalTxDirectoryInformation: case FileIdExtdDirectoryInformation:
    case FileIdExtdBothDirectoryInformation:
        return verifier::NotImplemented("NtQueryDirectoryFile on a memory volume: information class " +
                                        std::to_string(static_cast<int>(infoClass)));
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
    const ULONG nameOffset = NameOffset(infoClass);
    if (length < nameOffset) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }

    DirectoryScan& scan = o.scan;
    if (!scan.started) {
        // The expression of the first query stays for the life of the open.
        scan.started = true;
        scan.pattern = (pattern != nullptr && pattern->Length != 0) ? Upcase(View(*pattern)) : u"*";
    } else if (flags & kRestartScan) {
        scan.position = DirectoryScan::Position::Start;
        scan.lastKey.clear();
        scan.firstQuery = true;
    }

    // The whole listing as it stands now.
    const Node& directory = *o.node;
    std::vector<Entry> listing;
    auto describe = [&](Entry entry) {
        const Stream* data = DefaultStream(*entry.node);
        entry.endOfFile = entry.node->directory ? 0 : static_cast<LONGLONG>(data->data.size());
        entry.allocationSize = entry.node->directory ? 0 : data->allocationSize;
        entry.attributes = ReportedAttributes(*entry.node);
        entry.fileIndex = static_cast<ULONG>(listing.size() + 1);
        listing.push_back(entry);
    };
    if (&directory != root_.get()) {
        std::shared_ptr<Node> parent = directory.links.empty() ? nullptr : directory.links.front()->parent.lock();
        describe(Entry{u".", {}, &directory, DirectoryScan::Position::AfterDot});
        describe(Entry{u"..", {}, parent ? parent.get() : &directory, DirectoryScan::Position::AfterDotDot});
    }
    const size_t firstNamed = listing.size();
    for (const auto& [key, link] : directory.entries) {
        describe(Entry{link->name, link->shortName, link->node.get(), DirectoryScan::Position::AfterEntry, &key});
    }
    auto moveTo = [&](const Entry& entry) {
        scan.position = entry.position;
        if (entry.key != nullptr) {
            scan.lastKey = *entry.key;
        }
    };

    if (flags & kIndexSpecified) {
        if (fileIndex == 0 || listing.empty()) {
            scan.position = DirectoryScan::Position::Start;
        } else {
            moveTo(listing[std::min<size_t>(fileIndex, listing.size()) - 1]);
        }
    }

    size_t index = 0;
    switch (scan.position) {
    case DirectoryScan::Position::Start: index = 0; break;
    case DirectoryScan::Position::AfterDot: index = 1; break;
    case DirectoryScan::Position::AfterDotDot: index = 2; break;
    case DirectoryScan::Position::AfterEntry:
        index = firstNamed;
        while (index < listing.size() && *listing[index].key <= scan.lastKey) {
            ++index;
        }
        break;
    }

    auto* bytes = static_cast<unsigned char*>(buffer);
    ULONG next = 0;
    LONG previous = -1;
    ULONG placed = 0;
    for (; index < listing.size(); ++index) {
        const Entry& entry = listing[index];
        if (!NameMatches(scan.pattern, entry.name) &&
            (entry.shortName.empty() || !NameMatches(scan.pattern, entry.shortName))) {
            continue;
        }
        const ULONG nameBytes = static_cast<ULONG>(entry.name.size() * sizeof(WCHAR));
        const ULONG size = nameOffset + nameBytes;
        if (static_cast<ULONGLONG>(next) + size > length) {
            if (placed != 0) {
                break;  // left for the next query
            }
            // Not even the first entry fits: its fixed part and the bytes of its name that there is
            // room for (half a character, for an odd length). It counts as handed out;
            // FileNameLength tells the whole name's length.
            WriteFixedPart(infoClass, entry, nameBytes, bytes);
            std::memcpy(bytes + nameOffset, entry.name.data(), length - nameOffset);
            *returned = length;
            moveTo(entry);
            scan.firstQuery = false;
            return STATUS_BUFFER_OVERFLOW;
        }
        WriteFixedPart(infoClass, entry, nameBytes, bytes + next);
        std::memcpy(bytes + next + nameOffset, entry.name.data(), nameBytes);
        if (previous >= 0) {
            const ULONG offset = next - static_cast<ULONG>(previous);
            std::memcpy(bytes + previous, &offset, sizeof(ULONG));  // NextEntryOffset of the one before
        }
        previous = static_cast<LONG>(next);
        *returned = next + size;
        next = Align8(static_cast<ULONGLONG>(next) + size);
        ++placed;
        moveTo(entry);
        if (flags & kReturnSingleEntry) {
            break;
        }
    }

    NTSTATUS status = STATUS_SUCCESS;
    if (placed == 0) {
        status = scan.firstQuery ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
    }
    scan.firstQuery = false;
    return status;
}

}  // namespace ntsim::fs
