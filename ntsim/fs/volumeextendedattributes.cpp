// Extended attributes on the in-memory volumes: the EAs a file keeps, their query as
// FILE_FULL_EA_INFORMATION entries (a scan kept in the open, an index, or a list of names), and the
// size that FILE_EA_INFORMATION reports.
#include "memoryvolume.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace ntsim::fs {

namespace {

constexpr ULONG kFullEaHeader = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);
constexpr ULONG kGetEaHeader = FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName);
constexpr size_t kMaximumEaNameLength = 255;
constexpr size_t kMaximumEaValueLength = 0xFFFF;

constexpr ULONG LongAlign(ULONG value) { return (value + 3) & ~3u; }

// The bytes of one FILE_FULL_EA_INFORMATION entry: header, name, its terminating zero, value.
ULONG FullEntrySize(size_t nameLength, size_t valueLength)
{
    return static_cast<ULONG>(kFullEaHeader + nameLength + 1 + valueLength);
}

// EA names compare without regard to case and are kept in upper case.
std::string UpcaseEaName(std::string_view name)
{
    std::string upcased(name);
    for (char& c : upcased) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return upcased;
}

const ExtendedAttribute* FindExtendedAttribute(const Node& node, std::string_view upcasedName)
{
    for (const ExtendedAttribute& ea : node.extendedAttributes) {
        if (ea.name == upcasedName) {
            return &ea;
        }
    }
    return nullptr;
}

// Lays FILE_FULL_EA_INFORMATION entries one after another into a caller's buffer of any alignment,
// each on a 4-byte boundary, linking each to the one before.
class FullEaWriter {
public:
    FullEaWriter(void* buffer, ULONG length) : bytes_(static_cast<unsigned char*>(buffer)), length_(length) {}

    // False, with nothing written, when the entry does not fit.
    bool Append(std::string_view name, std::string_view value, UCHAR flags)
    {
        const ULONG size = FullEntrySize(name.size(), value.size());
        if (static_cast<ULONGLONG>(next_) + size > length_) {
            return false;
        }
        FILE_FULL_EA_INFORMATION header{};
        header.Flags = flags;
        header.EaNameLength = static_cast<UCHAR>(name.size());
        header.EaValueLength = static_cast<USHORT>(value.size());
        unsigned char* entry = bytes_ + next_;
        std::memcpy(entry, &header, kFullEaHeader);
        std::memcpy(entry + kFullEaHeader, name.data(), name.size());
        entry[kFullEaHeader + name.size()] = 0;
        if (!value.empty()) {
            std::memcpy(entry + kFullEaHeader + name.size() + 1, value.data(), value.size());
        }
        if (count_ != 0) {
            const ULONG offset = next_ - last_;
            std::memcpy(bytes_ + last_, &offset, sizeof(offset));
        }
        last_ = next_;
        end_ = next_ + size;
        next_ = LongAlign(end_);
        ++count_;
        return true;
    }

    ULONG Count() const { return count_; }
    ULONG End() const { return end_; }

private:
    unsigned char* bytes_;
    ULONG length_;
    ULONG next_ = 0;  // where the next entry starts
    ULONG last_ = 0;  // where the last entry written starts
    ULONG end_ = 0;   // the end of the last entry written
    ULONG count_ = 0;
};

// The status of a query that wrote what fit: all of it, some of it, or not even the first entry.
NTSTATUS StatusOfFill(bool allFit, const FullEaWriter& writer)
{
    if (allFit) {
        return STATUS_SUCCESS;
    }
    return writer.Count() == 0 ? STATUS_BUFFER_TOO_SMALL : STATUS_BUFFER_OVERFLOW;
}

}  // namespace

ULONG MemoryVolumeImpl::ExtendedAttributesSize(const Node& node) const
{
    ULONG size = 0;
    for (const ExtendedAttribute& ea : node.extendedAttributes) {
        size += LongAlign(FullEntrySize(ea.name.size(), ea.value.size()));
    }
    return size;
}

NTSTATUS MemoryVolumeImpl::QueryEa(VolumeOpen& open, const VolumeEaQuery& query, void* buffer, ULONG length,
                                   ULONG* returned)
{
    std::lock_guard lock(mutex_);
    auto& o = static_cast<MemoryOpen&>(open);
    *returned = 0;
    if (!features_.extendedAttributes) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (o.volumeOpen) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::vector<ExtendedAttribute>& eas = o.node->extendedAttributes;
    if (eas.empty()) {
        return STATUS_NO_EAS_ON_FILE;
    }
    const bool single = (query.flags & kReturnSingleEntry) != 0;
    FullEaWriter writer(buffer, length);
    bool allFit = true;

    if (query.eaList != nullptr) {
        std::vector<std::string> names;
        ULONG badOffset = 0;
        if (!ParseEaNameList(query.eaList, query.eaListLength, &names, &badOffset)) {
            *returned = badOffset;
            return STATUS_EA_LIST_INCONSISTENT;
        }
        for (const std::string& name : names) {
            const std::string upcased = UpcaseEaName(name);
            const ExtendedAttribute* ea = FindExtendedAttribute(*o.node, upcased);
            allFit = ea != nullptr ? writer.Append(ea->name, ea->value, ea->flags) : writer.Append(upcased, {}, 0);
            if (!allFit || single) {
                break;
            }
        }
        *returned = writer.End();
        return StatusOfFill(allFit, writer);
    }

    size_t position = o.nextEa;
    if ((query.flags & kIndexSpecified) != 0) {
        if (query.eaIndex == 0 || query.eaIndex > eas.size() + 1) {
            return STATUS_NONEXISTENT_EA_ENTRY;
        }
        position = query.eaIndex - 1;
    } else if ((query.flags & kRestartScan) != 0) {
        position = 0;
    }
    if (position >= eas.size()) {
        o.nextEa = position;
        return STATUS_NO_MORE_EAS;
    }
    for (; position < eas.size(); ++position) {
        const ExtendedAttribute& ea = eas[position];
        allFit = writer.Append(ea.name, ea.value, ea.flags);
        if (!allFit) {
            break;
        }
        if (single) {
            ++position;
            break;
        }
    }
    o.nextEa = position;
    *returned = writer.End();
    return StatusOfFill(allFit, writer);
}

void MemoryVolumeImpl::SeedExtendedAttribute(std::u16string_view path, std::string_view name, std::string_view value,
                                             UCHAR flags)
{
    std::lock_guard lock(mutex_);
    if (!features_.extendedAttributes) {
        throw std::runtime_error("this volume keeps no extended attributes");
    }
    if (name.empty() || name.size() > kMaximumEaNameLength || value.size() > kMaximumEaValueLength) {
        throw std::runtime_error("an extended attribute name of 1 to 255 characters and a value of at most 65535 bytes");
    }
    Node& node = *ResolveOrThrow(path).node;
    const std::string upcased = UpcaseEaName(name);
    auto& eas = node.extendedAttributes;
    auto existing = std::find_if(eas.begin(), eas.end(), [&](const ExtendedAttribute& ea) { return ea.name == upcased; });
    if (value.empty()) {
        if (existing != eas.end()) {
            eas.erase(existing);
        }
        return;
    }
    if (existing != eas.end()) {
        existing->value = std::string(value);
        existing->flags = flags;
        return;
    }
    eas.push_back(ExtendedAttribute{upcased, std::string(value), flags});
}

}  // namespace ntsim::fs

namespace ntsim {

bool ParseEaNameList(const void* list, ULONG length, std::vector<std::string>* names, ULONG* badOffset)
{
    const auto* bytes = static_cast<const unsigned char*>(list);
    ULONG offset = 0;
    std::vector<std::string> parsed;
    for (;;) {
        const ULONG remaining = length - offset;
        FILE_GET_EA_INFORMATION header{};
        if (remaining < fs::kGetEaHeader) {
            *badOffset = offset;
            return false;
        }
        std::memcpy(&header, bytes + offset, fs::kGetEaHeader);
        const ULONG entrySize = fs::kGetEaHeader + header.EaNameLength + 1;
        if (remaining < entrySize) {
            *badOffset = offset;
            return false;
        }
        parsed.emplace_back(reinterpret_cast<const char*>(bytes + offset + fs::kGetEaHeader), header.EaNameLength);
        if (header.NextEntryOffset == 0) {
            break;
        }
        if (header.NextEntryOffset < entrySize || header.NextEntryOffset >= remaining ||
            (header.NextEntryOffset & 3) != 0) {
            *badOffset = offset;
            return false;
        }
        offset += header.NextEntryOffset;
    }
    if (names != nullptr) {
        *names = std::move(parsed);
    }
    return true;
}

}  // namespace ntsim
