// The service library's listings: records of the six classes at their published offsets, the slack
// the filter's copy of each record needs, reading a listing back, the search pattern, and the
// listings held by handle.
#include <gtest/gtest.h>

#include <foldermerge/service/listing.hpp>

#include <ntsim/sim/text.hpp>

#include <cstring>
#include <string>
#include <vector>

namespace foldermerge::service {
namespace {

constexpr uint32_t kClasses[] = {SERVICE_LISTING_DIRECTORY,      SERVICE_LISTING_FULL_DIRECTORY,
                                 SERVICE_LISTING_BOTH_DIRECTORY, SERVICE_LISTING_NAMES,
                                 SERVICE_LISTING_ID_BOTH_DIRECTORY, SERVICE_LISTING_ID_FULL_DIRECTORY};

template <typename T>
T At(const std::vector<uint8_t>& bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

std::vector<ListingEntry> ThreeEntries()
{
    return {
        {.name = u"a", .shortName = u"A", .fileIndex = 1, .creationTime = 11, .lastAccessTime = 12,
         .lastWriteTime = 13, .changeTime = 14, .endOfFile = 100, .allocationSize = 4096, .fileAttributes = 0x20,
         .eaSize = 0, .fileId = 0x1111},
        {.name = u"Quarterly report.docx", .shortName = u"QUARTE~1.DOC", .fileIndex = 2, .creationTime = 21,
         .lastWriteTime = 23, .endOfFile = 5000, .allocationSize = 8192, .fileAttributes = 0x21, .eaSize = 7,
         .fileId = 0x2222},
        {.name = u"sub", .fileIndex = 3, .fileAttributes = 0x10, .fileId = 0x3333},
    };
}

// What a class's records carry of an entry: the fields it has no room for read back as defaults.
ListingEntry AsCarriedBy(uint32_t fileInformationClass, ListingEntry entry)
{
    const bool head = fileInformationClass != SERVICE_LISTING_NAMES;
    const bool ea = head && fileInformationClass != SERVICE_LISTING_DIRECTORY;
    const bool shortName = fileInformationClass == SERVICE_LISTING_BOTH_DIRECTORY ||
                           fileInformationClass == SERVICE_LISTING_ID_BOTH_DIRECTORY;
    const bool id = fileInformationClass == SERVICE_LISTING_ID_BOTH_DIRECTORY ||
                    fileInformationClass == SERVICE_LISTING_ID_FULL_DIRECTORY;
    ListingEntry carried{.name = entry.name, .fileIndex = entry.fileIndex};
    if (head) {
        carried.creationTime = entry.creationTime;
        carried.lastAccessTime = entry.lastAccessTime;
        carried.lastWriteTime = entry.lastWriteTime;
        carried.changeTime = entry.changeTime;
        carried.endOfFile = entry.endOfFile;
        carried.allocationSize = entry.allocationSize;
        carried.fileAttributes = entry.fileAttributes;
    }
    carried.eaSize = ea ? entry.eaSize : 0;
    carried.shortName = shortName ? entry.shortName : u"";
    carried.fileId = id ? entry.fileId : 0;
    return carried;
}

TEST(Listing, EachClassChainsItsRecordsAtMultiplesOfEightWithRoomForTheFiltersCopyOfTheLast)
{
    const std::vector<ListingEntry> entries = ThreeEntries();
    for (uint32_t fileInformationClass : kClasses) {
        SCOPED_TRACE(fileInformationClass);
        const auto listing = EncodeListing(fileInformationClass, entries);
        ASSERT_TRUE(listing.has_value());
        const uint32_t nameOffset = ServiceListingNameOffset(fileInformationClass);
        const size_t nameLengthAt = fileInformationClass == SERVICE_LISTING_NAMES ? 8 : 60;

        size_t at = 0;
        for (size_t index = 0; index < entries.size(); index++) {
            const uint32_t nameBytes = At<uint32_t>(*listing, at + nameLengthAt);
            EXPECT_EQ(nameBytes, entries[index].name.size() * 2);
            EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(listing->data() + at + nameOffset),
                                     nameBytes / 2),
                      entries[index].name);
            EXPECT_LE(at + ServiceListingEntrySize(fileInformationClass, nameBytes), listing->size())
                << "record " << index << ": the filter's copy leaves the block";
            const uint32_t next = At<uint32_t>(*listing, at);
            if (index + 1 == entries.size()) {
                EXPECT_EQ(next, 0u);
            } else {
                EXPECT_EQ(next % 8, 0u);
                EXPECT_GE(next, nameOffset + nameBytes);
                at += next;
            }
        }
        EXPECT_EQ(DecodeListing(fileInformationClass, *listing),
                  (std::vector<ListingEntry>{AsCarriedBy(fileInformationClass, entries[0]),
                                             AsCarriedBy(fileInformationClass, entries[1]),
                                             AsCarriedBy(fileInformationClass, entries[2])}));
    }
}

TEST(Listing, BothDirectoryRecordHasItsFieldsAtThePublishedOffsets)
{
    const std::vector<ListingEntry> entries = {ThreeEntries()[1]};
    const auto listing = EncodeListing(SERVICE_LISTING_ID_BOTH_DIRECTORY, entries);
    ASSERT_TRUE(listing.has_value());
    EXPECT_EQ(At<uint32_t>(*listing, 4), 2u);             // FileIndex
    EXPECT_EQ(At<int64_t>(*listing, 8), 21);              // CreationTime
    EXPECT_EQ(At<int64_t>(*listing, 24), 23);             // LastWriteTime
    EXPECT_EQ(At<int64_t>(*listing, 40), 5000);           // EndOfFile
    EXPECT_EQ(At<int64_t>(*listing, 48), 8192);           // AllocationSize
    EXPECT_EQ(At<uint32_t>(*listing, 56), 0x21u);         // FileAttributes
    EXPECT_EQ(At<uint32_t>(*listing, 60), 42u);           // FileNameLength
    EXPECT_EQ(At<uint32_t>(*listing, 64), 7u);            // EaSize
    EXPECT_EQ(At<int8_t>(*listing, 68), 24);              // ShortNameLength
    EXPECT_EQ(At<char16_t>(*listing, 70), u'Q');          // ShortName
    EXPECT_EQ(At<char16_t>(*listing, 70 + 22), u'C');
    EXPECT_EQ(At<int64_t>(*listing, 96), 0x2222);         // FileId
    EXPECT_EQ(At<char16_t>(*listing, 104), u'Q');         // FileName
    // 104 + 42 bytes of record; the filter copies ((42 + 112) & ~7) + 8 = 160.
    EXPECT_EQ(listing->size(), 160u);
}

TEST(Listing, EntrySizeIsTheOneCharacterRecordPlusTheNameRoundedDownPlusEight)
{
    // The published records' sizes with a one-character name.
    const std::vector<std::pair<uint32_t, uint32_t>> oneCharacter = {
        {SERVICE_LISTING_DIRECTORY, 72},      {SERVICE_LISTING_FULL_DIRECTORY, 72},
        {SERVICE_LISTING_BOTH_DIRECTORY, 96}, {SERVICE_LISTING_NAMES, 16},
        {SERVICE_LISTING_ID_BOTH_DIRECTORY, 112}, {SERVICE_LISTING_ID_FULL_DIRECTORY, 88},
    };
    for (const auto& [fileInformationClass, size] : oneCharacter) {
        for (uint32_t nameBytes : {0u, 2u, 6u, 8u, 14u, 510u}) {
            EXPECT_EQ(ServiceListingEntrySize(fileInformationClass, nameBytes), ((nameBytes + size) & ~7u) + 8)
                << "class " << fileInformationClass << ", name of " << nameBytes << " bytes";
        }
    }
    EXPECT_EQ(ServiceListingEntrySize(SERVICE_LISTING_DIRECTORY, 2), 80u);
    EXPECT_EQ(ServiceListingEntrySize(4, 20), 8u) << "a class outside the six counts 8 bytes a record";
}

TEST(Listing, NoListingForAnotherClassAShortNameTooLongOrAnEmptyList)
{
    EXPECT_FALSE(EncodeListing(4, ThreeEntries()).has_value());
    EXPECT_FALSE(EncodeListing(SERVICE_LISTING_BOTH_DIRECTORY,
                               std::vector<ListingEntry>{{.name = u"x", .shortName = u"THIRTEEN.CHAR"}})
                     .has_value());
    const auto empty = EncodeListing(SERVICE_LISTING_NAMES, {});
    ASSERT_TRUE(empty.has_value());
    EXPECT_TRUE(empty->empty());
}

TEST(Listing, ReadingBackRefusesAChainOrANameOrACopyThatLeavesTheBlock)
{
    const std::vector<ListingEntry> entries = ThreeEntries();
    const std::vector<uint8_t> listing = *EncodeListing(SERVICE_LISTING_DIRECTORY, entries);
    ASSERT_TRUE(DecodeListing(SERVICE_LISTING_DIRECTORY, listing).has_value());

    std::vector<uint8_t> chainOut = listing;
    const uint32_t past = static_cast<uint32_t>(listing.size());
    std::memcpy(chainOut.data(), &past, 4);
    EXPECT_FALSE(DecodeListing(SERVICE_LISTING_DIRECTORY, chainOut).has_value());

    std::vector<uint8_t> nameOut = listing;
    const uint32_t hugeName = 0x10000;
    std::memcpy(nameOut.data() + 60, &hugeName, 4);
    EXPECT_FALSE(DecodeListing(SERVICE_LISTING_DIRECTORY, nameOut).has_value());

    // Without its slack the last record's copy would run past the end.
    std::vector<uint8_t> noSlack = listing;
    noSlack.resize(noSlack.size() - 8);
    EXPECT_FALSE(DecodeListing(SERVICE_LISTING_DIRECTORY, noSlack).has_value());
}

TEST(Listing, PatternMatchesStarsAndQuestionMarksWithoutRegardToCase)
{
    EXPECT_TRUE(NameMatchesPattern(u"*.txt", u"Report.TXT"));
    EXPECT_FALSE(NameMatchesPattern(u"*.txt", u"report.txt.bak"));
    EXPECT_TRUE(NameMatchesPattern(u"r?port*", u"REPORT"));
    EXPECT_FALSE(NameMatchesPattern(u"r?port", u"rport"));
    EXPECT_TRUE(NameMatchesPattern(u"a*b*c", u"axxbyybzc"));
    EXPECT_FALSE(NameMatchesPattern(u"a*b*c", u"axxbyybz"));
    EXPECT_TRUE(NameMatchesPattern(u"*", u"anything"));
    EXPECT_TRUE(NameMatchesPattern(u"", u"anything")) << "no pattern: every name";
    EXPECT_TRUE(NameMatchesPattern(u"caf\u00e9", u"CAF\u00c9"));
    EXPECT_FALSE(NameMatchesPattern(u"cafe", u"caf\u00e9"));

    const auto selected = SelectEntries(u"*U*", ThreeEntries());
    ASSERT_EQ(selected.size(), 2u);
    EXPECT_EQ(selected[0].name, u"Quarterly report.docx");
    EXPECT_EQ(selected[1].name, u"sub");
}

TEST(Listing, StoreHandsOutEachListingOnceByANonZeroHandleAndDropsTheOldestPastItsCapacity)
{
    ListingStore store(2);
    const uint64_t first = store.Hold({1});
    const uint64_t second = store.Hold({2});
    EXPECT_NE(first, 0u);
    EXPECT_NE(first, second);
    EXPECT_EQ(store.Take(second), (std::vector<uint8_t>{2}));
    EXPECT_FALSE(store.Take(second).has_value()) << "a fetch takes its listing away";

    const uint64_t third = store.Hold({3});
    const uint64_t fourth = store.Hold({4});
    EXPECT_EQ(store.size(), 2u);
    EXPECT_FALSE(store.Take(first).has_value()) << "the oldest went";
    EXPECT_EQ(store.Take(third), (std::vector<uint8_t>{3}));
    EXPECT_EQ(store.Take(fourth), (std::vector<uint8_t>{4}));
    EXPECT_FALSE(store.Take(0).has_value());
}

}  // namespace
}  // namespace foldermerge::service
