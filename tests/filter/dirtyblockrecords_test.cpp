// Tracked dirty block records: finding and sharing them by path, loading them from the map stream
// or wholly dirty, giving references back, the write-back of the last one, and the unload.
#include "dirtyblock_fixture.hpp"

#include <ntsim/sim/faults.hpp>

namespace foldermerge::testing {
namespace {

using DirtyBlockRecords = DirtyBlockTest;

TEST_F(DirtyBlockRecords, FileWithoutStreamStartsWhollyDirtyWithAMapForItsSize)
{
    struct Case {
        size_t size;
        ULONG mapLen;
        ULONG count;
    };
    // A file of 0 bytes still has one map byte; 40000 bytes are 9 whole blocks, in a 2-byte map.
    for (const Case& c : {Case{0, 1, 0}, Case{4095, 1, 0}, Case{4096, 1, 1}, Case{40000, 2, 9},
                          Case{8 * 4096 - 1, 1, 7}, Case{8 * 4096, 2, 8}}) {
        volume_->SeedFile(u"\\Data\\a.txt", std::string(c.size, 'x'));
        TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
        ASSERT_NE(pRecord, nullptr) << c.size;
        EXPECT_EQ(pRecord->bTrackingFailed, 1) << c.size;
        EXPECT_EQ(pRecord->mapLen, c.mapLen) << c.size;
        EXPECT_EQ(MapOf(pRecord), std::vector<uint8_t>(c.mapLen, 0xFF)) << c.size;
        EXPECT_EQ(pRecord->dirtyBlockCount, c.count) << c.size;
        EXPECT_EQ(pRecord->refCount, 1u);
        // Dropping it writes the wholly dirty state, which the next size's case must not find.
        EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
        volume_->SeedRemove(u"\\Data\\a.txt" + kMapStream);
    }
    EXPECT_TRUE(ListedRecords().empty());
}

TEST_F(DirtyBlockRecords, OpensOfOnePathInAnyCaseShareOneRecord)
{
    volume_->SeedFile(u"\\Data\\Report.txt", "r");
    volume_->SeedFile(u"\\Data\\other.txt", "o");
    TrackedDirtyBlockFile* pFirst = MustGet(u"\\Data\\Report.txt");
    TrackedDirtyBlockFile* pSecond = MustGet(u"\\DATA\\REPORT.TXT");
    TrackedDirtyBlockFile* pOther = MustGet(u"\\Data\\other.txt");
    ASSERT_NE(pFirst, nullptr);
    EXPECT_EQ(pSecond, pFirst);
    EXPECT_NE(pOther, pFirst);
    EXPECT_EQ(pFirst->refCount, 2u);
    EXPECT_EQ(ntsim::ToUtf8(*pFirst->filePath), "\\Device\\HarddiskVolume2\\Data\\Report.txt")
        << "the key is the path of the first open, never the stream's";
    // A path that only begins like the key is another file.
    TrackedDirtyBlockFile* pLonger = nullptr;
    volume_->SeedFile(u"\\Data\\Report.txt2", "2");
    ASSERT_EQ(Get(u"\\Data\\Report.txt2", &pLonger), STATUS_SUCCESS);
    EXPECT_NE(pLonger, pFirst);
    EXPECT_EQ(ListedRecords(), (std::vector<const TrackedDirtyBlockFile*>{pLonger, pOther, pFirst}))
        << "new records go in at the head";

    for (TrackedDirtyBlockFile* pRecord : {pFirst, pSecond, pOther, pLonger}) {
        EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
    }
    EXPECT_TRUE(ListedRecords().empty());
}

TEST_F(DirtyBlockRecords, ValidStreamIsLoadedThenDeletedWithTheFilesInformationUnchanged)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(20000, 'a'), FILE_ATTRIBUTE_HIDDEN);
    SeedStream(u"\\Data\\a.txt", {.count = 3, .trackingFailed = 1}, {0x81, 0x00, 0x20});
    ntsim::clock::Advance(ntsim::clock::kSecond);
    const FILE_BASIC_INFORMATION before = *volume_->BasicInformation(u"\\Data\\a.txt");

    TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(MapOf(pRecord), (std::vector<uint8_t>{0x81, 0x00, 0x20, 0x00})) << "read into at least 4 bytes";
    EXPECT_EQ(pRecord->dirtyBlockCount, 3u);
    EXPECT_EQ(pRecord->bTrackingFailed, 1);
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value()) << "memory holds the truth while the record lives";
    const FILE_BASIC_INFORMATION after = *volume_->BasicInformation(u"\\Data\\a.txt");
    EXPECT_EQ(std::memcmp(&after, &before, sizeof(before)), 0) << "the delete left no mark on times or attributes";
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
}

TEST_F(DirtyBlockRecords, StreamThatCanNotBeDeletedMakesEveryByteOfItsMapDirty)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    SeedStream(u"\\Data\\a.txt", {.count = 5}, std::vector<uint8_t>(100, 0x01));
    ntsim::faults::FailRoutine("ZwDeleteFile", STATUS_ACCESS_DENIED);
    TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->mapLen, 100u);
    EXPECT_EQ(MapOf(pRecord), std::vector<uint8_t>(100, 0xFF));
    EXPECT_EQ(pRecord->dirtyBlockCount, 100u) << "the count is the map's bytes, not its bits";
    EXPECT_EQ(pRecord->bTrackingFailed, 0) << "the flag stays as read";
    EXPECT_TRUE(Stream(u"\\Data\\a.txt").has_value());
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);

    // A warning from the delete is no failure: the map stays as read.
    SeedStream(u"\\Data\\a.txt", {.count = 5}, std::vector<uint8_t>(100, 0x01));
    ntsim::faults::FailRoutine("ZwDeleteFile", STATUS_BUFFER_OVERFLOW);
    pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(MapOf(pRecord), std::vector<uint8_t>(100, 0x01));
    EXPECT_EQ(pRecord->dirtyBlockCount, 5u);
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
}

TEST_F(DirtyBlockRecords, TimesThatCanNotBePutBackFailTheCreationAfterTheStreamIsGone)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    SeedStream(u"\\Data\\a.txt", {.count = 1}, {0x80});
    ntsim::faults::FailRoutine("FltSetInformationFile", STATUS_DISK_FULL);
    TrackedDirtyBlockFile* pRecord = reinterpret_cast<TrackedDirtyBlockFile*>(1);
    EXPECT_EQ(Get(u"\\Data\\a.txt", &pRecord), STATUS_DISK_FULL);
    EXPECT_EQ(pRecord, nullptr);
    EXPECT_TRUE(ListedRecords().empty());
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());

    // With the stream gone, the next creation has nothing to trust.
    pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->bTrackingFailed, 1);
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
}

TEST_F(DirtyBlockRecords, CreationFailsForAFileWhoseInformationCanNotBeHad)
{
    volume_->SeedDirectory(u"\\Data");
    TrackedDirtyBlockFile* pRecord = reinterpret_cast<TrackedDirtyBlockFile*>(1);
    EXPECT_EQ(Get(u"\\Data\\missing.txt", &pRecord), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(pRecord, nullptr);
    EXPECT_TRUE(ListedRecords().empty());
    EXPECT_EQ(GetTrackedDirtyBlockRecord(g_ServiceData.FilterHandle, instance_, nullptr, &pRecord),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(pRecord, nullptr);
}

TEST_F(DirtyBlockRecords, LastReferenceWritesTheMapOnceAndDestroysTheRecord)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(100, 'a'));
    TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(MustGet(u"\\Data\\a.txt"), pRecord);
    pRecord->map[0] = 0x42;
    pRecord->dirtyBlockCount = 2;
    ntsim::clock::Advance(ntsim::clock::kSecond);
    const FILE_BASIC_INFORMATION before = *volume_->BasicInformation(u"\\Data\\a.txt");

    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value()) << "a holder is left";
    EXPECT_EQ(ListedRecords().size(), 1u);

    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
    EXPECT_TRUE(ListedRecords().empty());
    const std::optional<std::string> stream = Stream(u"\\Data\\a.txt");
    ASSERT_TRUE(stream.has_value());
    EXPECT_EQ(stream->size(), 35u);
    const StreamHeader header = ParseHeader(*stream);
    EXPECT_EQ(header.version, 2);
    EXPECT_EQ(header.count, 2u);
    EXPECT_EQ(header.timestamp, ntsim::clock::Now());
    EXPECT_EQ(header.trackingFailed, 1);
    EXPECT_EQ(MapOfStream(*stream), std::vector<uint8_t>{0x42});
    const FILE_BASIC_INFORMATION after = *volume_->BasicInformation(u"\\Data\\a.txt");
    EXPECT_EQ(std::memcmp(&after, &before, sizeof(before)), 0);

    EXPECT_EQ(DerefTrackedDirtyBlockRecord(nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(DirtyBlockRecords, MapSurvivesTheLastReferenceAndTheNextLoad)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(9000, 'a'));
    TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    pRecord->map[0] = 0x20;
    pRecord->dirtyBlockCount = 1;
    pRecord->bTrackingFailed = 0;
    ASSERT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);

    ntsim::clock::Advance(ntsim::clock::kMinute);
    pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(MapOf(pRecord), (std::vector<uint8_t>{0x20, 0, 0, 0}));
    EXPECT_EQ(pRecord->dirtyBlockCount, 1u);
    EXPECT_EQ(pRecord->bTrackingFailed, 0);
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());
    ASSERT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);

    // Written while nobody tracked it: the stream is stale and the file wholly dirty.
    ntsim::clock::Advance(ntsim::clock::kMinute);
    volume_->SeedFile(u"\\Data\\a.txt", std::string(9000, 'b'));
    pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->bTrackingFailed, 1);
    EXPECT_EQ(MapOf(pRecord), std::vector<uint8_t>{0xFF});
    EXPECT_EQ(pRecord->dirtyBlockCount, 2u);
    EXPECT_TRUE(Stream(u"\\Data\\a.txt").has_value()) << "a stale stream is left for the next write-back";
    ASSERT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
}

TEST_F(DirtyBlockRecords, ReferenceDroppedFromACountOfZeroChangesNothing)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    pRecord->refCount = 0;
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
    EXPECT_EQ(pRecord->refCount, 0u);
    EXPECT_EQ(ListedRecords().size(), 1u) << "the record stays in the list";
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());
    pRecord->refCount = 1;
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
}

TEST_F(DirtyBlockRecords, FailedWriteBackStillDestroysTheRecord)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    ntsim::faults::FailRoutine("FltCreateFileEx", STATUS_DISK_FULL, ntsim::faults::Persistence::Persistent);
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
    ntsim::faults::Reset();
    EXPECT_TRUE(ListedRecords().empty());
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());
}

TEST_F(DirtyBlockRecords, LastMapReachesItsStreamWithoutMemoryForACopy)
{
    // A record nobody holds any more can't change: without a copy it is written itself. The copy
    // is the record, its path and its map, the first three blocks the last reference allocates.
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    for (uint64_t failing = 1; failing <= 3; failing++) {
        TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
        ASSERT_NE(pRecord, nullptr);
        pRecord->map[0] = static_cast<UCHAR>(0x10 + failing);
        const std::vector<uint8_t> map = MapOf(pRecord);
        ntsim::faults::FailNthPointOf({.tags = {FOLDERMERGE_POOL_TAG}}, failing);
        EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
        EXPECT_EQ(ntsim::faults::FailuresInjected(), 1u) << failing;
        ntsim::faults::Reset();
        const std::optional<std::string> stream = Stream(u"\\Data\\a.txt");
        ASSERT_TRUE(stream.has_value()) << failing;
        EXPECT_EQ(MapOfStream(*stream), map) << failing;
    }
}

TEST_F(DirtyBlockRecords, UnloadFreesLiveRecordsWithoutWritingTheirMaps)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    volume_->SeedFile(u"\\Data\\b.txt", "b");
    ASSERT_NE(MustGet(u"\\Data\\a.txt"), nullptr);
    ASSERT_NE(MustGet(u"\\Data\\b.txt"), nullptr);
    // The verifier fails the unload for any block of the filter's tag left.
    ASSERT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    EXPECT_EQ(g_DirtyBlockFileList, nullptr);
    EXPECT_EQ(g_DirtyBlockLock, nullptr);
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());
    EXPECT_FALSE(Stream(u"\\Data\\b.txt").has_value());
    ASSERT_EQ(Load(), STATUS_SUCCESS);
}

}  // namespace
}  // namespace foldermerge::testing
