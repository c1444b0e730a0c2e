// The service's listing handed out into a caller's buffer: the size each record takes, the check of a
// listing's chain before any of it is used, and the merge behind what the file system wrote.
#include <gtest/gtest.h>

#include <foldermerge/service/listing.hpp>

#include <ntsim/sim/pool.hpp>

#include <cstring>
#include <string>
#include <vector>

#include "driver/listingmerge.h"
#include "driver/ownedstring.h"

namespace {

using foldermerge::service::EncodeListing;
using foldermerge::service::ListingEntry;

constexpr ULONG kClasses[] = {FileDirectoryInformation,       FileFullDirectoryInformation,
                              FileBothDirectoryInformation,   FileNamesInformation,
                              FileIdBothDirectoryInformation, FileIdFullDirectoryInformation};

// Where each class keeps FileNameLength, and its record's size with a one-character name.
ULONG NameLengthOffset(ULONG infoClass)
{
    return infoClass == FileNamesInformation ? 8 : 60;
}

ULONG OneCharacterRecord(ULONG infoClass)
{
    switch (infoClass) {
    case FileDirectoryInformation: return 72;
    case FileFullDirectoryInformation: return 72;
    case FileBothDirectoryInformation: return 96;
    case FileNamesInformation: return 16;
    case FileIdBothDirectoryInformation: return 112;
    case FileIdFullDirectoryInformation: return 88;
    default: return 0;
    }
}

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

std::vector<uint8_t> Listing(ULONG infoClass, const std::vector<std::u16string>& names)
{
    std::vector<ListingEntry> entries;
    for (const std::u16string& name : names) {
        entries.push_back({.name = name, .fileIndex = static_cast<uint32_t>(entries.size() + 7)});
    }
    return EncodeListing(infoClass, entries).value();
}

// A listing held as the filter holds it: a paged block of the filter's tag, and the record's fields.
struct HeldListing {
    HeldListing(ULONG infoClass, const std::vector<uint8_t>& bytes) : infoClass(infoClass), length(bytes.size())
    {
        block = static_cast<PUCHAR>(AllocateBuffer(POOL_SELECTOR_PAGED, length));
        std::memcpy(block, bytes.data(), length);
        next = block;
        end = block + length;
    }
    ~HeldListing()
    {
        if (block != nullptr) {
            FreeBuffer(block);
        }
    }
    NTSTATUS Merge(std::vector<UCHAR>& buffer, ULONG_PTR information, ULONG* used)
    {
        return MergeDirectoryBuffer(buffer.data(), static_cast<ULONG>(buffer.size()), &block, &next, end, infoClass,
                                    information, used);
    }

    ULONG infoClass;
    size_t length;
    PUCHAR block = nullptr;
    PUCHAR next = nullptr;
    PUCHAR end = nullptr;
};

// The names in a caller's buffer of FileNamesInformation records, following NextEntryOffset.
std::vector<std::u16string> NamesIn(const std::vector<UCHAR>& buffer, ULONG used)
{
    std::vector<std::u16string> names;
    for (ULONG at = 0; at + 12 <= used;) {
        const ULONG nameBytes = ReadUlong(buffer.data() + at + 8);
        names.emplace_back(reinterpret_cast<const char16_t*>(buffer.data() + at + 12), nameBytes / 2);
        const ULONG next = ReadUlong(buffer.data() + at);
        if (next == 0) {
            break;
        }
        at += next;
    }
    return names;
}

TEST(DirectoryEntrySize, IsTheOneCharacterRecordPlusTheNameRoundedDownPlusEight)
{
    for (ULONG infoClass : kClasses) {
        SCOPED_TRACE(infoClass);
        for (ULONG nameBytes : {0u, 2u, 6u, 8u, 10u, 14u, 16u, 510u}) {
            std::vector<UCHAR> record(128, 0);
            WriteUlong(record.data() + NameLengthOffset(infoClass), nameBytes);
            const ULONG expected = ((nameBytes + OneCharacterRecord(infoClass)) & ~7u) + 8;
            EXPECT_EQ(DirectoryEntrySize(infoClass, record.data()), expected) << nameBytes;
            EXPECT_EQ(DirectoryEntrySize(infoClass, record.data()), ServiceListingEntrySize(infoClass, nameBytes))
                << "the service builds its listings for the same copy";
        }
    }
    // Any other class counts 8 bytes a record, whatever the record holds.
    std::vector<UCHAR> record(128, 0xFF);
    EXPECT_EQ(DirectoryEntrySize(FileObjectIdInformation, record.data()), 8u);
    // A name length near 4 GiB doesn't wrap around to a small size.
    WriteUlong(record.data() + 60, 0xFFFFFFF0u);
    EXPECT_GT(DirectoryEntrySize(FileIdBothDirectoryInformation, record.data()), 0xFFFFFF00u);
}

TEST(ListingCheck, AcceptsWhatTheServiceBuildsInEveryClass)
{
    for (ULONG infoClass : kClasses) {
        SCOPED_TRACE(infoClass);
        for (const auto& names : {std::vector<std::u16string>{u"a"}, {u"alpha.txt", u"b", u"a longer name.docx"}}) {
            const std::vector<uint8_t> listing = Listing(infoClass, names);
            EXPECT_TRUE(IsListingWellFormed(listing.data(), static_cast<ULONG>(listing.size()), infoClass));
        }
    }
    const std::vector<uint8_t> listing = Listing(FileNamesInformation, {u"a"});
    EXPECT_FALSE(IsListingWellFormed(listing.data(), 0, FileNamesInformation));
    EXPECT_FALSE(IsListingWellFormed(nullptr, 24, FileNamesInformation));
}

TEST(ListingCheck, RefusesListingsThatLieAboutTheirChain)
{
    for (ULONG infoClass : kClasses) {
        SCOPED_TRACE(infoClass);
        const std::vector<uint8_t> good = Listing(infoClass, {u"first", u"second", u"third"});
        const ULONG length = static_cast<ULONG>(good.size());
        const ULONG second = ReadUlong(good.data());
        const ULONG third = second + ReadUlong(good.data() + second);
        auto check = [&](std::vector<uint8_t> bytes, ULONG checked) {
            return IsListingWellFormed(bytes.data(), checked, infoClass);
        };
        auto withUlong = [&](ULONG at, ULONG value) {
            std::vector<uint8_t> bytes = good;
            WriteUlong(bytes.data() + at, value);
            return bytes;
        };
        EXPECT_TRUE(check(good, length));
        EXPECT_FALSE(check(good, length - 1)) << "the last record without the slack of its copy";
        EXPECT_FALSE(check(good, third + NameLengthOffset(infoClass))) << "the last record's head cut";
        EXPECT_FALSE(check(withUlong(0, length), length)) << "a next record at the end of the block";
        EXPECT_FALSE(check(withUlong(second, 0x80000000u), length)) << "a next record past the end";
        EXPECT_FALSE(check(withUlong(second, 0xFFFFFFF8u), length)) << "an offset that wraps around";
        EXPECT_FALSE(check(withUlong(third + NameLengthOffset(infoClass), 0xFFFFFFFEu), length))
            << "a name longer than the block";
        EXPECT_FALSE(check(withUlong(NameLengthOffset(infoClass), length), length))
            << "a first name running past the end";
        // A chain that ends early leaves bytes unused, which is no lie.
        EXPECT_TRUE(check(withUlong(second, 0), length));
    }
}

class Merge : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u); }
};

TEST_F(Merge, PacksRecordsAtTheirEntrySizeUntilTheNextWouldReachTheEnd)
{
    const std::vector<std::u16string> names = {u"a", u"bb.txt", u"a much longer name.docx"};
    HeldListing held(FileNamesInformation, Listing(FileNamesInformation, names));
    const ULONG first = DirectoryEntrySize(FileNamesInformation, held.block);
    const ULONG second = DirectoryEntrySize(FileNamesInformation, held.block + ReadUlong(held.block));

    // Room for the first record and one byte short of the second's end: only the first goes in,
    // and a buffer exactly as long as the two holds no more.
    for (ULONG length : {first + second - 1, first + second}) {
        HeldListing again(FileNamesInformation, Listing(FileNamesInformation, names));
        std::vector<UCHAR> buffer(length, 0xCC);
        ULONG used = 0;
        EXPECT_EQ(again.Merge(buffer, 0, &used), STATUS_SUCCESS);
        EXPECT_EQ(used, first);
        EXPECT_EQ(NamesIn(buffer, used), std::vector<std::u16string>{u"a"});
        EXPECT_EQ(ReadUlong(buffer.data()), 0u) << "the last record placed ends the chain";
        EXPECT_EQ(again.next, again.block + ReadUlong(again.block)) << "the second waits for the next query";
    }

    std::vector<UCHAR> buffer(4096, 0xCC);
    ULONG used = 0;
    ASSERT_EQ(held.Merge(buffer, 0, &used), STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer, used), names);
    EXPECT_EQ(ReadUlong(buffer.data()), first);
    EXPECT_EQ(ReadUlong(buffer.data() + first), second);
    EXPECT_EQ(used, first + second + ((46 + 16) & ~7u) + 8);
    EXPECT_EQ(ReadUlong(buffer.data() + 8), 2u) << "FileNameLength copied";
    EXPECT_EQ(held.next, held.end);
    EXPECT_NE(held.block, nullptr) << "the listing is freed only by the query that finds it used up";

    // The query after the last record: no more files, nothing written, the block freed.
    std::fill(buffer.begin(), buffer.end(), 0xCC);
    used = 77;
    EXPECT_EQ(held.Merge(buffer, 0, &used), STATUS_NO_MORE_FILES);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(held.block, nullptr);
    EXPECT_EQ(buffer[0], 0xCC);
}

TEST_F(Merge, ABufferTooSmallForTheNextRecordGetsNothingAndKeepsTheCursor)
{
    HeldListing held(FileIdBothDirectoryInformation, Listing(FileIdBothDirectoryInformation, {u"report.txt"}));
    std::vector<UCHAR> buffer(DirectoryEntrySize(FileIdBothDirectoryInformation, held.block), 0xCC);
    ULONG used = 5;
    EXPECT_EQ(held.Merge(buffer, 0, &used), STATUS_SUCCESS);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(held.next, held.block);
    EXPECT_EQ(buffer[0], 0xCC);
}

TEST_F(Merge, TheFirstRecordsFollowTheFileSystemsInItsChain)
{
    // The file system's answer: two records of its own, 24 bytes apart, the last ending the chain.
    std::vector<UCHAR> buffer(200, 0xCC);
    auto putFileSystemRecord = [&](ULONG at, ULONG next, std::u16string_view name) {
        WriteUlong(buffer.data() + at, next);
        WriteUlong(buffer.data() + at + 8, static_cast<ULONG>(name.size() * 2));
        std::memcpy(buffer.data() + at + 12, name.data(), name.size() * 2);
    };
    putFileSystemRecord(0, 24, u"disk1");
    putFileSystemRecord(24, 0, u"disk2");
    HeldListing held(FileNamesInformation, Listing(FileNamesInformation, {u"svc"}));

    ULONG used = 0;
    ASSERT_EQ(held.Merge(buffer, 24 + 12 + 10, &used), STATUS_SUCCESS);
    const ULONG diskSize = ((10 + 16) & ~7u) + 8;
    EXPECT_EQ(ReadUlong(buffer.data() + 24), diskSize) << "the file system's last record now leads on";
    EXPECT_EQ(NamesIn(buffer, used), (std::vector<std::u16string>{u"disk1", u"disk2", u"svc"}));
    EXPECT_EQ(used, 24 + diskSize + ((6 + 16) & ~7u) + 8);

    // A file system chain that leads out of the buffer is not followed there: nothing is placed, and
    // what the buffer holds is the file system's answer.
    HeldListing other(FileNamesInformation, Listing(FileNamesInformation, {u"svc"}));
    std::vector<UCHAR> small(40, 0);
    WriteUlong(small.data(), 44);
    ULONG usedSmall = 0;
    EXPECT_EQ(other.Merge(small, 30, &usedSmall), STATUS_SUCCESS);
    EXPECT_EQ(usedSmall, 30u);
    EXPECT_EQ(other.next, other.block);
}

TEST_F(Merge, MissingArgumentsTouchNothing)
{
    HeldListing held(FileNamesInformation, Listing(FileNamesInformation, {u"a"}));
    std::vector<UCHAR> buffer(64, 0);
    ULONG used = 9;
    EXPECT_EQ(MergeDirectoryBuffer(nullptr, 64, &held.block, &held.next, held.end, FileNamesInformation, 0, &used),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(MergeDirectoryBuffer(buffer.data(), 64, nullptr, &held.next, held.end, FileNamesInformation, 0, &used),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(MergeDirectoryBuffer(buffer.data(), 64, &held.block, &held.next, held.end, FileNamesInformation, 0,
                                   nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(used, 9u);
    EXPECT_EQ(held.next, held.block);
}

}  // namespace
