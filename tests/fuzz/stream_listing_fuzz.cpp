// The filter's rewriting of a stream listing, on listings of any bytes.
//
// A FileStreamInformation answer comes from whatever file system or filter lies below, and the
// filter rewrites it in place. Each input is a completed query's buffer, its Length, its
// Information and its status; RemoveVelmoraStreams runs on a buffer of exactly Length bytes (so
// that the sanitizers see any access past it), and the result is checked against a reading of the
// listing made here on its own:
//   - a listing that failed, is empty, or whose entries don't hold together within the bytes
//     written (min of Information and Length) comes back byte for byte as it went in, with its
//     status and Information;
//   - otherwise the kept entries (those whose name holds none of the system's thirteen stream names,
//     compared without regard to case) stand in their order from the buffer's start, each with its
//     header and name as they were, chained by their own NextEntryOffset, the last closed by 0; the
//     status is success and Information the end of the last kept name, or 0 when nothing was kept;
//     nothing past the bytes written changes;
//   - the pool of the filter's tag is as it was.
// An input (little-endian), cut where it ends:
//     u8  options      kOverflow: STATUS_BUFFER_OVERFLOW instead of success;
//                      kShortInformation / kLongInformation: Information below / above Length
//     u16 delta        how far Information lies from Length
//     the rest         the buffer, Length bytes
// The filter stays loaded for the whole process (loaded_filter.hpp); a verifier report or a failed
// check aborts.
#include <ntsim/sim/text.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "driver/streamnames.h"
#include "loaded_filter.hpp"

namespace {

using foldermerge::fuzzing::Check;
using foldermerge::fuzzing::Take;

constexpr uint8_t kOverflow = 0x01;
constexpr uint8_t kShortInformation = 0x02;
constexpr uint8_t kLongInformation = 0x04;
constexpr size_t kHeader = 24;  // the name's offset in an entry

// The system's stream names as the listing's reader knows them, independently of the filter's table.
const std::array<std::u16string, 13> kHidden = {
    u":{1817910B-C48F-402e-97A7-35511415DB0D}", u":{47CF23DD-2EBE-4E96-B04D-54BB379C2A16}",
    u":{29FCDE77-E881-4B51-8912-44076F83DB7D}", u":{991C35CF-A2AC-4113-94D3-4C718901B2A7}",
    u":{B706972E-62AA-4769-A637-0A8DEFD570F0}", u":{F1585B1F-14A4-46C6-BA47-8DF1352578BF}",
    u":{A5A0A22F-0F6E-467F-84F8-14CF3B1A7ECD}", u":{6D6EE7D5-7753-4446-802C-38A7255F41CF}",
    u":{22ccc030-c7fd-4d41-af27-03d193e7f165}", u":{1785F7C7-EEAD-4079-BF85-B68C6BB0E743}",
    u":{6C3E8A1E-4F3D-42E7-ACD2-424029763E69}", u":{C8CAB137-B211-4CF7-84EC-A7AEF20BB975}",
    u":{8B01ACF6-273B-4E99-97AC-C1C5F4D39DD9}",
};

template <typename T>
T ReadAt(const std::vector<uint8_t>& bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

std::u16string Upcase(std::u16string text)
{
    for (char16_t& c : text) {
        c = RtlUpcaseUnicodeChar(c);
    }
    return text;
}

bool IsHidden(const std::u16string& name)
{
    const std::u16string upper = Upcase(name);
    return std::any_of(kHidden.begin(), kHidden.end(),
                       [&](const std::u16string& hidden) { return upper.find(Upcase(hidden)) != upper.npos; });
}

struct Entry {
    size_t offset;
    uint32_t next;
    std::vector<uint8_t> bytes;  // header and name
    std::u16string name;
};

// The entries of a listing of `length` bytes, or nothing when they don't hold together.
std::optional<std::vector<Entry>> ReadListing(const std::vector<uint8_t>& bytes, size_t length)
{
    std::vector<Entry> entries;
    size_t offset = 0;
    for (;;) {
        if (length < offset + kHeader) {
            return std::nullopt;
        }
        const uint32_t next = ReadAt<uint32_t>(bytes, offset);
        const uint32_t nameLength = ReadAt<uint32_t>(bytes, offset + 4);
        if (nameLength > 0xFFFF || offset + kHeader + nameLength > length) {
            return std::nullopt;
        }
        Entry entry{offset, next, {bytes.begin() + offset, bytes.begin() + offset + kHeader + nameLength}, {}};
        entry.name.resize(nameLength / 2);
        std::memcpy(entry.name.data(), bytes.data() + offset + kHeader, nameLength / 2 * 2);
        entries.push_back(std::move(entry));
        if (next == 0) {
            return entries;
        }
        if (next % 8 != 0 || next < kHeader + nameLength || offset + next >= length) {
            return std::nullopt;
        }
        offset += next;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::unique_ptr<foldermerge::fuzzing::PoolAtRest> pool;
    if (pool == nullptr) {
        foldermerge::fuzzing::LoadFilterOnce();
        pool = std::make_unique<foldermerge::fuzzing::PoolAtRest>();
    }
    const uint8_t options = Take<uint8_t>(data, size);
    const uint16_t delta = Take<uint16_t>(data, size);
    const std::vector<uint8_t> before(data, data + size);
    const ULONG length = static_cast<ULONG>(size);
    ULONG_PTR information = length;
    if (options & kShortInformation) {
        information = length - std::min<ULONG>(delta, length);
    } else if (options & kLongInformation) {
        information = static_cast<ULONG_PTR>(length) + delta;
    }
    const NTSTATUS status = (options & kOverflow) ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;

    // The buffer is a block of its own, 8-byte aligned as a system buffer is, and not a byte longer.
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[std::max<size_t>(size, 1)]);
    std::copy(before.begin(), before.end(), buffer.get());

    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.MajorFunction = IRP_MJ_QUERY_INFORMATION;
    iopb.Parameters.QueryFileInformation.Length = length;
    iopb.Parameters.QueryFileInformation.FileInformationClass = FileStreamInformation;
    iopb.Parameters.QueryFileInformation.InfoBuffer = buffer.get();
    FLT_CALLBACK_DATA callbackData{.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_POST_OPERATION,
                                   .Thread = nullptr,
                                   .Iopb = &iopb};
    callbackData.IoStatus.Status = status;
    callbackData.IoStatus.Information = information;
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\a.txt");
    FileContext context{};
    context.bValid = 1;
    context.pstrPath = path.get();

    Check(RemoveVelmoraStreams(&callbackData, &iopb, &context) == FLT_POSTOP_FINISHED_PROCESSING,
          "the rewriting asked for more processing");
    const std::vector<uint8_t> after(buffer.get(), buffer.get() + size);

    const size_t written = std::min<size_t>(information, length);
    const std::optional<std::vector<Entry>> entries =
        NT_SUCCESS(status) && written != 0 ? ReadListing(before, written) : std::nullopt;
    if (!entries) {
        Check(after == before, "a listing that was not to be rewritten changed");
        Check(callbackData.IoStatus.Status == status && callbackData.IoStatus.Information == information,
              "a listing that was not to be rewritten changed its status or Information");
    } else {
        std::vector<const Entry*> kept;
        for (const Entry& entry : *entries) {
            if (!IsHidden(entry.name)) {
                kept.push_back(&entry);
            }
        }
        size_t offset = 0;
        for (size_t index = 0; index < kept.size(); index++) {
            std::vector<uint8_t> expected = kept[index]->bytes;
            if (index + 1 == kept.size()) {
                std::memset(expected.data(), 0, sizeof(uint32_t));
            }
            Check(std::equal(expected.begin(), expected.end(), after.begin() + offset),
                  "a kept entry is not where the entries before it leave room for it, as it was");
            offset += kept[index]->next;
        }
        if (kept.empty()) {
            Check(ReadAt<uint32_t>(after, 0) == 0, "an emptied listing's first entry does not close it");
        }
        const size_t end = kept.empty() ? 0 : (offset - kept.back()->next) + kept.back()->bytes.size();
        Check(callbackData.IoStatus.Status == STATUS_SUCCESS, "a rewritten listing did not end in success");
        Check(callbackData.IoStatus.Information == end, "Information is not the end of the kept listing");
        Check(std::equal(after.begin() + written, after.end(), before.begin() + written),
              "bytes past those the file system wrote changed");
    }
    pool->Verify("after a listing's rewriting");
    return 0;
}
