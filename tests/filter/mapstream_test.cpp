// The map stream on disk: its bytes as written, what a load accepts and refuses, the file's
// information kept across a write, cut writes, and the stream's deletion.
#include "dirtyblock_fixture.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>

#include "fileaccess.h"

namespace foldermerge::testing {
namespace {

class MapStream : public DirtyBlockTest {
protected:
    // A record that lends the test's bytes as its map, for the writers.
    static TrackedDirtyBlockFile Lending(std::vector<uint8_t>& map, ULONG count, UCHAR bTrackingFailed)
    {
        TrackedDirtyBlockFile record{};
        record.map = map.data();
        record.mapLen = static_cast<ULONG>(map.size());
        record.dirtyBlockCount = count;
        record.bTrackingFailed = bTrackingFailed;
        return record;
    }

    NTSTATUS WriteStream(std::u16string_view volumePath, TrackedDirtyBlockFile* pRecord)
    {
        ntsim::UnicodeStringHolder path(DevicePath(std::u16string(volumePath) + kMapStream));
        return WriteDirtyBlockMapToADS(g_ServiceData.FilterHandle, instance_, path.get(), pRecord);
    }

    NTSTATUS WriteMap(std::u16string_view volumePath, TrackedDirtyBlockFile* pRecord)
    {
        ntsim::UnicodeStringHolder path(DevicePath(volumePath));
        return WriteDirtyBlockMap(g_ServiceData.FilterHandle, instance_, path.get(), pRecord);
    }

    // Loads the stream of volumePath into a fresh record, compared against lastWriteTime.
    struct Loaded {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        std::vector<uint8_t> map;
        ULONG mapLen = 0;
        ULONG count = 0;
        UCHAR bTrackingFailed = 0;
    };
    Loaded LoadStream(std::u16string_view volumePath, LONGLONG lastWriteTime)
    {
        ntsim::UnicodeStringHolder path(DevicePath(std::u16string(volumePath) + kMapStream));
        TrackedDirtyBlockFile record{};
        Loaded loaded;
        loaded.status = ReadDirtyBlockMapFromADS(g_ServiceData.FilterHandle, instance_, path.get(), &record,
                                                 lastWriteTime);
        loaded.map = MapOf(&record);
        loaded.mapLen = record.mapLen;
        loaded.count = record.dirtyBlockCount;
        loaded.bTrackingFailed = record.bTrackingFailed;
        if (record.map != nullptr) {
            FreeBuffer(record.map);
        }
        EXPECT_TRUE(NT_SUCCESS(loaded.status) || (record.map == nullptr && record.mapLen == 0))
            << "a failed load leaves no map";
        return loaded;
    }
};

TEST_F(MapStream, MapIsStoredBehindTheHeaderAndComesBackInAtLeastFourBytes)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    std::vector<uint8_t> map = {0xA5};
    TrackedDirtyBlockFile record = Lending(map, 0x01020304, 1);
    ASSERT_EQ(WriteStream(u"\\Data\\a.txt", &record), STATUS_SUCCESS);
    EXPECT_EQ(*Stream(u"\\Data\\a.txt"),
              StreamBytes({.count = 0x01020304, .timestamp = ntsim::clock::Now(), .trackingFailed = 1}, {0xA5}))
        << "35 bytes: version 2, count, time, zeros, flag, zeros, map";
    Loaded loaded = LoadStream(u"\\Data\\a.txt", ntsim::clock::Now());
    ASSERT_EQ(loaded.status, STATUS_SUCCESS);
    EXPECT_EQ(loaded.map, (std::vector<uint8_t>{0xA5, 0, 0, 0}));
    EXPECT_EQ(loaded.count, 0x01020304u);
    EXPECT_EQ(loaded.bTrackingFailed, 1);

    // 100 bytes: a stream of 134, read back whole.
    map.resize(100);
    for (size_t i = 0; i < map.size(); i++) {
        map[i] = static_cast<uint8_t>(i * 7);
    }
    record = Lending(map, 9, 0);
    ASSERT_EQ(WriteStream(u"\\Data\\a.txt", &record), STATUS_SUCCESS);
    EXPECT_EQ(Stream(u"\\Data\\a.txt")->size(), 134u);
    loaded = LoadStream(u"\\Data\\a.txt", ntsim::clock::Now());
    ASSERT_EQ(loaded.status, STATUS_SUCCESS);
    EXPECT_EQ(loaded.map, map);
    EXPECT_EQ(loaded.count, 9u);
    EXPECT_EQ(loaded.bTrackingFailed, 0);
}

TEST_F(MapStream, VersionAndReservedBytesDoNotAffectALoad)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    const LONGLONG now = ntsim::clock::Now();
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream,
                      StreamBytes({.version = 0x77, .count = 6, .timestamp = now, .trackingFailed = 1}, {1, 2, 3, 4, 5},
                                  '\xEE'));
    const Loaded loaded = LoadStream(u"\\Data\\a.txt", now);
    ASSERT_EQ(loaded.status, STATUS_SUCCESS);
    EXPECT_EQ(loaded.map, (std::vector<uint8_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(loaded.count, 6u);
    EXPECT_EQ(loaded.bTrackingFailed, 1);
}

TEST_F(MapStream, StreamWrittenBeforeTheFilesLastWriteIsStaleByOneTickAndStays)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    const LONGLONG stamp = ntsim::clock::Now();
    const std::string bytes = StreamBytes({.count = 1, .timestamp = stamp}, {0x80});
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream, bytes);

    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", stamp).status, STATUS_SUCCESS) << "equal times pass";
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", stamp - 1).status, STATUS_SUCCESS);
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", stamp + 1).status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Stream(u"\\Data\\a.txt"), bytes) << "a stale stream is left as it is";

    // The comparison is signed: a timestamp below zero is older than any file.
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream, StreamBytes({.timestamp = -5}, {0x80}));
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", 0).status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", -5).status, STATUS_SUCCESS);
}

TEST_F(MapStream, StreamsAroundTheHeadersLengthLoadOnlyWithAMapByte)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    const LONGLONG now = ntsim::clock::Now();
    const std::string whole = StreamBytes({.count = 2, .timestamp = now}, {0xC0});

    // One byte short of a header, a bare header (a write cut after it), and a map of one byte.
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream, whole.substr(0, 33));
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", now).status, STATUS_FILE_CORRUPT_ERROR);
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream, whole.substr(0, 34));
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", now).status, STATUS_END_OF_FILE);
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream, whole);
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", now).map, (std::vector<uint8_t>{0xC0, 0, 0, 0}));
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream, whole + '\x0F');
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", now).map, (std::vector<uint8_t>{0xC0, 0x0F, 0, 0}));

    // No stream at all: the open fails as it does for a file never tracked.
    volume_->SeedRemove(u"\\Data\\a.txt" + kMapStream);
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", now).status, STATUS_OBJECT_NAME_NOT_FOUND);

    // A header read that comes back short is no header, whatever the size query said.
    volume_->SeedFile(u"\\Data\\a.txt" + kMapStream, whole.substr(0, 20));
    ntsim::faults::FailRoutine("FltQueryInformationFile", STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(LoadStream(u"\\Data\\a.txt", now).status, STATUS_FILE_CORRUPT_ERROR);
}

TEST_F(MapStream, WritingTheMapKeepsTheFilesTimesAndAttributes)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    ntsim::clock::Advance(ntsim::clock::kHour);
    const FILE_BASIC_INFORMATION before = *volume_->BasicInformation(u"\\Data\\a.txt");
    std::vector<uint8_t> map = {0x01, 0x02};
    TrackedDirtyBlockFile record = Lending(map, 2, 0);

    ASSERT_EQ(WriteMap(u"\\Data\\a.txt", &record), STATUS_SUCCESS);
    const FILE_BASIC_INFORMATION after = *volume_->BasicInformation(u"\\Data\\a.txt");
    EXPECT_EQ(after.LastWriteTime.QuadPart, before.LastWriteTime.QuadPart);
    EXPECT_EQ(after.ChangeTime.QuadPart, before.ChangeTime.QuadPart);
    EXPECT_EQ(after.CreationTime.QuadPart, before.CreationTime.QuadPart);
    EXPECT_EQ(after.FileAttributes, before.FileAttributes);
    EXPECT_GT(ParseHeader(*Stream(u"\\Data\\a.txt")).timestamp, after.LastWriteTime.QuadPart);
    EXPECT_EQ(MapOfStream(*Stream(u"\\Data\\a.txt")), map);
}

TEST_F(MapStream, SaveOfAHeldRecordWritesACopyAndLeavesTheRecordAsItWas)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(20000, 'a'));
    SeedStream(u"\\Data\\a.txt", {.count = 1}, {0x40});
    TrackedDirtyBlockFile* pRecord = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pRecord, nullptr);
    MarkBlockDirty(pRecord, 9 * 4096, 0);
    ntsim::clock::Advance(ntsim::clock::kSecond);
    const FILE_BASIC_INFORMATION before = *volume_->BasicInformation(u"\\Data\\a.txt");

    ntsim::UnicodeStringHolder path(DevicePath(u"\\Data\\a.txt"));
    ASSERT_EQ(WriteStableDirtyBlockMap(g_ServiceData.FilterHandle, instance_, path.get(), pRecord), STATUS_SUCCESS);
    const std::string stream = *Stream(u"\\Data\\a.txt");
    EXPECT_EQ(MapOfStream(stream), (std::vector<uint8_t>{0x40, 0x40, 0, 0}));
    EXPECT_EQ(ParseHeader(stream).count, 2u);
    EXPECT_EQ(ParseHeader(stream).timestamp, ntsim::clock::Now());
    const FILE_BASIC_INFORMATION after = *volume_->BasicInformation(u"\\Data\\a.txt");
    EXPECT_EQ(std::memcmp(&after, &before, sizeof(before)), 0);
    EXPECT_EQ(MapOf(pRecord), (std::vector<uint8_t>{0x40, 0x40, 0, 0}));
    EXPECT_EQ(pRecord->refCount, 1u);
    EXPECT_EQ(ListedRecords().size(), 1u);

    // Without memory for the copy nothing is written.
    volume_->SeedRemove(u"\\Data\\a.txt" + kMapStream);
    ntsim::faults::FailNthPointOf({.tags = {FOLDERMERGE_POOL_TAG}}, 1);
    EXPECT_EQ(WriteStableDirtyBlockMap(g_ServiceData.FilterHandle, instance_, path.get(), pRecord),
              STATUS_INSUFFICIENT_RESOURCES);
    ntsim::faults::Reset();
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
}

TEST_F(MapStream, NothingIsWrittenForAFileWhoseInformationCanNotBeHad)
{
    volume_->SeedDirectory(u"\\Data");
    std::vector<uint8_t> map = {0x01};
    TrackedDirtyBlockFile record = Lending(map, 1, 0);
    EXPECT_EQ(WriteMap(u"\\Data\\missing.txt", &record), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(volume_->Exists(u"\\Data\\missing.txt"));

    volume_->SeedFile(u"\\Data\\a.txt", "a");
    ntsim::faults::FailRoutine("FltQueryInformationFile", STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(WriteMap(u"\\Data\\a.txt", &record), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());
}

TEST_F(MapStream, CutWritesLeaveAStreamNoLoadAccepts)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    std::vector<uint8_t> map = {0xFF, 0x01};
    TrackedDirtyBlockFile record = Lending(map, 9, 0);

    // The header's write, then the map's: each failure leaves the stream cut by the open.
    for (uint64_t failing = 1; failing <= 2; failing++) {
        ASSERT_EQ(WriteMap(u"\\Data\\a.txt", &record), STATUS_SUCCESS);
        ntsim::faults::FailNthPointOf({.routines = {"FltWriteFile"}}, failing, STATUS_DISK_FULL);
        EXPECT_EQ(WriteMap(u"\\Data\\a.txt", &record), STATUS_DISK_FULL) << failing;
        ntsim::faults::Reset();
        EXPECT_EQ(Stream(u"\\Data\\a.txt")->size(), failing == 1 ? 0u : 34u) << failing;
        EXPECT_FALSE(NT_SUCCESS(LoadStream(u"\\Data\\a.txt", 0).status)) << failing;
    }

    // An open that fails writes nothing and leaves the stream there was.
    ASSERT_EQ(WriteMap(u"\\Data\\a.txt", &record), STATUS_SUCCESS);
    const std::string whole = *Stream(u"\\Data\\a.txt");
    ntsim::faults::FailNthPointOf({.routines = {"FltCreateFileEx"}}, 2, STATUS_DISK_FULL);
    EXPECT_EQ(WriteMap(u"\\Data\\a.txt", &record), STATUS_DISK_FULL);
    EXPECT_EQ(Stream(u"\\Data\\a.txt"), whole);
}

TEST_F(MapStream, DeletingTheStreamUsesThePathAsItStands)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    volume_->SeedFile(u"\\Data\\a.txt:keep", "k");
    SeedStream(u"\\Data\\a.txt", {}, {0x01});
    ntsim::UnicodeStringHolder path(DevicePath(u"\\DATA\\A.TXT"));
    EXPECT_EQ(DeleteDirtyBlockADS(path.get()), STATUS_SUCCESS);
    EXPECT_EQ(volume_->StreamNames(u"\\Data\\a.txt"), (std::vector<std::u16string>{u"keep"}));
    EXPECT_EQ(DeleteDirtyBlockADS(path.get()), STATUS_OBJECT_NAME_NOT_FOUND);

    // Unlike the other stream paths, a trailing backslash is kept: "a.txt\:..." names nothing.
    SeedStream(u"\\Data\\a.txt", {}, {0x01});
    ntsim::UnicodeStringHolder trailing(DevicePath(u"\\Data\\a.txt\\"));
    EXPECT_FALSE(NT_SUCCESS(DeleteDirtyBlockADS(trailing.get())));
    EXPECT_TRUE(Stream(u"\\Data\\a.txt").has_value());

    // No memory for the stream's path: nothing is deleted, and the caller is told.
    for (uint64_t failing = 1; failing <= 2; failing++) {
        ntsim::faults::FailNthPointOf({.tags = {FOLDERMERGE_POOL_TAG}}, failing);
        EXPECT_EQ(DeleteDirtyBlockADS(path.get()), STATUS_INSUFFICIENT_RESOURCES) << failing;
        ntsim::faults::Reset();
        EXPECT_TRUE(Stream(u"\\Data\\a.txt").has_value()) << failing;
    }
    EXPECT_EQ(DeleteDirtyBlockADS(nullptr), STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace foldermerge::testing
