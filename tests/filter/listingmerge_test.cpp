// The service's listing handed out into a caller's buffer: the size each record takes, and the merge
// behind what the file system wrote. (Listings of any bytes go through listing_merge_fuzz.)
#include <gtest/gtest.h>

#include <foldermerge/service/listing.hpp>

#include <ntsim/sim/pool.hpp>

#include <cstring>
#include <string>
#include <vector>

#include "driver/listingmerge.h"
#include "driver/ownedstring.h"

namespace {

ULONG ReadUlong(const UCHAR* at)
{
    ULONG value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

void WriteUlong(UCHAR* at, ULONG value)
{
    std::memcpy(at, &value, sizeof(value));
}

// A FileNamesInformation listing held as the filter holds it: a paged block of the filter's tag.
struct HeldListing {
    explicit HeldListing(const std::vector<std::u16string>& names)
    {
        std::vector<foldermerge::service::ListingEntry> entries;
        for (const std::u16string& name : names) {
            entries.push_back({.name = name});
        }
        const auto bytes = *foldermerge::service::EncodeListing(FileNamesInformation, entries);
        block = static_cast<PUCHAR>(AllocateBuffer(POOL_SELECTOR_PAGED, bytes.size()));
        std::memcpy(block, bytes.data(), bytes.size());
        next = block;
        end = block + bytes.size();
    }
    ~HeldListing()
    {
        if (block != nullptr) {
            FreeBuffer(block);
        }
    }
    NTSTATUS Merge(std::vector<UCHAR>& buffer, ULONG_PTR information, ULONG* used)
    {
        return MergeDirectoryBuffer(buffer.data(), static_cast<ULONG>(buffer.size()), &block, &next, end,
                                    FileNamesInformation, information, used);
    }

    PUCHAR block = nullptr;
    PUCHAR next = nullptr;
    PUCHAR end = nullptr;
};

// The names in a buffer of FileNamesInformation records, following NextEntryOffset.
std::vector<std::u16string> NamesIn(const std::vector<UCHAR>& buffer, ULONG used)
{
    std::vector<std::u16string> names;
    for (ULONG at = 0; at + 12 <= used;) {
        names.emplace_back(reinterpret_cast<const char16_t*>(buffer.data() + at + 12),
                           ReadUlong(buffer.data() + at + 8) / 2);
        const ULONG next = ReadUlong(buffer.data() + at);
        if (next == 0) {
            break;
        }
        at += next;
    }
    return names;
}

class Merge : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u); }
};

TEST(DirectoryEntrySize, IsTheOneCharacterRecordPlusTheNameRoundedDownPlusEight)
{
    struct Class {
        ULONG infoClass;
        ULONG nameLengthAt;
        ULONG oneCharacterRecord;
    };
    for (Class c : {Class{FileDirectoryInformation, 60, 72}, Class{FileFullDirectoryInformation, 60, 72},
                    Class{FileBothDirectoryInformation, 60, 96}, Class{FileNamesInformation, 8, 16},
                    Class{FileIdBothDirectoryInformation, 60, 112}, Class{FileIdFullDirectoryInformation, 60, 88}}) {
        for (ULONG nameBytes : {0u, 2u, 6u, 8u, 10u, 16u, 510u}) {
            std::vector<UCHAR> record(128, 0);
            WriteUlong(record.data() + c.nameLengthAt, nameBytes);
            EXPECT_EQ(DirectoryEntrySize(c.infoClass, record.data()), ((nameBytes + c.oneCharacterRecord) & ~7u) + 8)
                << c.infoClass << " " << nameBytes;
        }
    }
    std::vector<UCHAR> record(128, 0xFF);
    EXPECT_EQ(DirectoryEntrySize(FileObjectIdInformation, record.data()), 8u) << "any other class";
    WriteUlong(record.data() + 60, 0xFFFFFFF0u);
    EXPECT_GT(DirectoryEntrySize(FileIdBothDirectoryInformation, record.data()), 0xFFFFFF00u)
        << "a name length near 4 GiB doesn't wrap around to a small size";
}

TEST_F(Merge, PacksRecordsAtTheirEntrySizeAndHoldsBackOneThatWouldEndAtTheBuffersEnd)
{
    const std::vector<std::u16string> names = {u"a", u"bb.txt", u"a much longer name.docx"};
    const ULONG first = ((2 + 16) & ~7u) + 8;
    const ULONG second = ((12 + 16) & ~7u) + 8;
    const ULONG third = ((46 + 16) & ~7u) + 8;
    struct Case {
        ULONG length;
        size_t placed;
    };
    for (Case c : {Case{first, 0}, Case{first + 1, 1}, Case{first + second, 1}, Case{first + second + 1, 2}}) {
        HeldListing held(names);
        std::vector<UCHAR> buffer(c.length, 0xCC);
        ULONG used = 99;
        EXPECT_EQ(held.Merge(buffer, 0, &used), STATUS_SUCCESS);
        EXPECT_EQ(NamesIn(buffer, used), std::vector<std::u16string>(names.begin(), names.begin() + c.placed));
        EXPECT_EQ(used, c.placed == 0 ? 0u : c.placed == 1 ? first : first + second) << c.length;
        EXPECT_EQ(held.next - held.block, c.placed == 0 ? 0 : c.placed == 1 ? 16 : 40) << "the next one waits";
    }

    HeldListing held(names);
    std::vector<UCHAR> buffer(4096, 0xCC);
    ULONG used = 0;
    ASSERT_EQ(held.Merge(buffer, 0, &used), STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, used), names);
    EXPECT_EQ(ReadUlong(buffer.data()), first);
    EXPECT_EQ(ReadUlong(buffer.data() + first), second);
    EXPECT_EQ(ReadUlong(buffer.data() + first + second), 0u) << "the last record placed ends the chain";
    EXPECT_EQ(used, first + second + third);
    EXPECT_EQ(held.next, held.end);
    EXPECT_NE(held.block, nullptr) << "freed only by the query that finds it used up";

    // That query: no more files, nothing written, the block freed.
    std::fill(buffer.begin(), buffer.end(), 0xCC);
    EXPECT_EQ(held.Merge(buffer, 0, &used), STATUS_NO_MORE_FILES);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(held.block, nullptr);
    EXPECT_EQ(buffer[0], 0xCC);
}

TEST_F(Merge, TheFirstRecordsContinueTheFileSystemsChainInsideWhatItWroteAndTheBuffer)
{
    std::vector<UCHAR> buffer(200, 0xCC);
    auto putRecord = [&](ULONG at, ULONG next, std::u16string_view name) {
        WriteUlong(buffer.data() + at, next);
        WriteUlong(buffer.data() + at + 8, static_cast<ULONG>(name.size() * 2));
        std::memcpy(buffer.data() + at + 12, name.data(), name.size() * 2);
    };
    putRecord(0, 24, u"disk1");
    putRecord(24, 0, u"disk2");
    HeldListing held({u"svc"});
    ULONG used = 0;
    ASSERT_EQ(held.Merge(buffer, 24 + 12 + 10, &used), STATUS_SUCCESS);
    const ULONG diskSize = ((10 + 16) & ~7u) + 8;
    EXPECT_EQ(ReadUlong(buffer.data() + 24), diskSize) << "the file system's last record now leads on";
    EXPECT_EQ(NamesIn(buffer, used), (std::vector<std::u16string>{u"disk1", u"disk2", u"svc"}));
    EXPECT_EQ(used, 24 + diskSize + ((6 + 16) & ~7u) + 8);

    // A chain that leads out of the buffer is not followed there: the buffer holds the file system's
    // answer alone.
    HeldListing other({u"svc"});
    std::vector<UCHAR> small(40, 0);
    WriteUlong(small.data(), 44);
    EXPECT_EQ(other.Merge(small, 30, &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 30u);
    EXPECT_EQ(other.next, other.block);
}

}  // namespace
