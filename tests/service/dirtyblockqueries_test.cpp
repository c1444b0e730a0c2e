// The dirty block queries as a service makes them through the port: the map of a file taken and
// cleared, its count read and reset, for files open or not, the replies' lengths, refusals, and
// writes that race the queries.
#include "../filter/dirtyblock_fixture.hpp"

#include <foldermerge/service/control.hpp>
#include <foldermerge/service/dirtyblocks.hpp>
#include <foldermerge/service/simulated_service.hpp>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>

#include <atomic>
#include <thread>

namespace foldermerge::testing {
namespace {

using service::DirtyBlockCount;
using service::DirtyBlockMap;
using service::FilterConnection;
using service::HeapBuffer;
using service::SimulatedService;

const HRESULT kTooSmall = HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);

class DirtyBlockQueries : public DirtyBlockTest {
protected:
    void SetUp() override
    {
        DirtyBlockTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        service_ = std::make_unique<SimulatedService>();
        ASSERT_EQ(service_->Run([](FilterConnection& connection) { return connection.ConnectConfigPort(); }), S_OK);
    }

    void TearDown() override
    {
        service_.reset();
        DirtyBlockTest::TearDown();
    }

    // The map of a file named by its device path.
    HRESULT TakeMapAt(const std::u16string& devicePath, uint32_t capacity, DirtyBlockMap* map)
    {
        return service_->Run([&](FilterConnection& connection) {
            return service::RequestDirtyBlockMap(connection, devicePath, capacity, map);
        });
    }

    HRESULT TakeMap(std::u16string_view volumePath, uint32_t capacity, DirtyBlockMap* map)
    {
        return TakeMapAt(DevicePath(volumePath), capacity, map);
    }

    DirtyBlockMap MustTakeMap(std::u16string_view volumePath)
    {
        DirtyBlockMap map;
        EXPECT_EQ(service_->Run([&](FilterConnection& connection) {
                      return service::ReadDirtyBlockMap(connection, DevicePath(volumePath), &map);
                  }),
                  S_OK);
        return map;
    }

    HRESULT Count(std::u16string_view volumePath, bool reset, DirtyBlockCount* count)
    {
        return service_->Run([&](FilterConnection& connection) {
            return service::RequestDirtyBlockCount(connection, DevicePath(volumePath), reset, count);
        });
    }

    // A control message of the test's bytes with an output buffer of outputLength bytes.
    HRESULT SendRaw(const std::vector<uint8_t>& bytes, DWORD outputLength)
    {
        return service_->Run([&](FilterConnection& connection) {
            HeapBuffer message(bytes.size());
            std::memcpy(message.data(), bytes.data(), bytes.size());
            HeapBuffer output(outputLength);
            DWORD returned = 0;
            return connection.SendControl(message, &output, &returned);
        });
    }

    static std::vector<uint8_t> CountMessage(std::u16string_view path, uint8_t reset)
    {
        std::vector<uint8_t> bytes(DIRTY_BLOCK_COUNT_REQUEST_HEAD_SIZE + 2 * (path.size() + 1));
        bytes[0] = CONTROL_REQUEST_DIRTY_BLOCK_COUNT;
        bytes[8] = reset;
        std::memcpy(bytes.data() + DIRTY_BLOCK_COUNT_REQUEST_HEAD_SIZE, path.data(), 2 * path.size());
        return bytes;
    }

    std::unique_ptr<SimulatedService> service_;
};

TEST_F(DirtyBlockQueries, UntrackedFileIsWhollyDirtyOnceAndCleanAfterItsMapWasTaken)
{
    // 40000 bytes: a map of 2 bytes; 300000 bytes: 10 bytes, longer than the smallest load.
    for (auto [size, mapLen] : {std::pair<size_t, size_t>{40000, 2}, {300000, 10}}) {
        volume_->SeedFile(u"\\Data\\a.txt", std::string(size, 'a'));
        if (Stream(u"\\Data\\a.txt").has_value()) {
            volume_->SeedRemove(u"\\Data\\a.txt" + kMapStream);
        }
        DirtyBlockMap map;
        ASSERT_EQ(TakeMap(u"\\Data\\a.txt", 64, &map), S_OK);
        EXPECT_TRUE(map.trackingFailed) << size;
        EXPECT_EQ(map.map, std::vector<uint8_t>(mapLen, 0xFF)) << size;
        EXPECT_TRUE(ListedRecords().empty()) << "the query's record went with the query";

        // The stream says what the cleared map says.
        const std::optional<std::string> stream = Stream(u"\\Data\\a.txt");
        ASSERT_TRUE(stream.has_value());
        EXPECT_EQ(ParseHeader(*stream).count, 0u);
        EXPECT_EQ(ParseHeader(*stream).trackingFailed, 0);
        EXPECT_EQ(MapOfStream(*stream), std::vector<uint8_t>(mapLen, 0)) << size;

        ASSERT_EQ(TakeMap(u"\\Data\\a.txt", 64, &map), S_OK);
        EXPECT_FALSE(map.trackingFailed) << size;
        EXPECT_EQ(map.map, std::vector<uint8_t>(std::max<size_t>(mapLen, 4), 0)) << size;
    }
}

TEST_F(DirtyBlockQueries, MapReplyNeedsRoomForTheWholeMapAndChangesNothingWithout)
{
    // Held open, the file keeps the 2-byte map its load gave it.
    volume_->SeedFile(u"\\Data\\a.txt", std::string(40000, 'a'));
    TrackedDirtyBlockFile* pHeld = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pHeld, nullptr);
    DirtyBlockMap map;
    EXPECT_EQ(TakeMap(u"\\Data\\a.txt", 1, &map), kTooSmall) << "13 bytes for a reply of 14";
    EXPECT_EQ(TakeMap(u"\\Data\\a.txt", 0, &map), kTooSmall);
    EXPECT_EQ(pHeld->dirtyBlockCount, 9u);
    ASSERT_EQ(TakeMap(u"\\Data\\a.txt", 2, &map), S_OK) << "exactly the map's length + 12";
    EXPECT_TRUE(map.trackingFailed) << "the refused queries cleared nothing";
    EXPECT_EQ(map.map, (std::vector<uint8_t>{0xFF, 0xFF}));
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pHeld), STATUS_SUCCESS);

    // A service that doesn't know the length finds it by growing its buffer.
    volume_->SeedFile(u"\\Data\\big.txt", "b");
    TrackedDirtyBlockFile* pOpen = MustGet(u"\\Data\\big.txt");
    ASSERT_NE(pOpen, nullptr);
    MarkBlockDirty(pOpen, 100000LL * 4096, 0);
    const ULONG mapLen = pOpen->mapLen;
    EXPECT_EQ(mapLen, 25000u);
    ASSERT_EQ(service_->Run([&](FilterConnection& connection) {
                  return service::ReadDirtyBlockMap(connection, DevicePath(u"\\Data\\big.txt"), &map, 16);
              }),
              S_OK);
    ASSERT_EQ(map.map.size(), mapLen);
    EXPECT_EQ(map.map[12500], 0x80);
    EXPECT_EQ(SetBits(map.map), 8u + 1u) << "the wholly dirty byte of the load and the write";
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pOpen), STATUS_SUCCESS);
}

TEST_F(DirtyBlockQueries, CountIsReadAloneOrResetWithTheMapButNotTheFlag)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(40000, 'a'));
    DirtyBlockCount count;
    for (int twice = 0; twice < 2; twice++) {
        ASSERT_EQ(Count(u"\\Data\\a.txt", false, &count), S_OK);
        EXPECT_EQ(count.count, 9u);
        EXPECT_TRUE(count.trackingFailed);
    }
    // Too short a buffer by one byte: refused, and no reset.
    EXPECT_EQ(SendRaw(CountMessage(DevicePath(u"\\Data\\a.txt"), 1), 7), kTooSmall);

    ASSERT_EQ(Count(u"\\Data\\a.txt", true, &count), S_OK);
    EXPECT_EQ(count.count, 9u) << "the count as it was before the reset";
    ASSERT_EQ(Count(u"\\Data\\a.txt", false, &count), S_OK);
    EXPECT_EQ(count.count, 0u);
    EXPECT_TRUE(count.trackingFailed) << "only taking the map clears the flag";

    DirtyBlockMap map = MustTakeMap(u"\\Data\\a.txt");
    EXPECT_TRUE(map.trackingFailed);
    EXPECT_EQ(SetBits(map.map), 0u) << "the reset cleared the map";
    ASSERT_EQ(Count(u"\\Data\\a.txt", false, &count), S_OK);
    EXPECT_FALSE(count.trackingFailed);
}

TEST_F(DirtyBlockQueries, OpenFilesMapIsTheLiveOneAndLaterWritesLandInTheClearedMap)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(40000, 'a'));
    SeedStream(u"\\Data\\a.txt", {}, {0x00, 0x00});
    TrackedDirtyBlockFile* pOpen = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pOpen, nullptr);
    ASSERT_EQ(pOpen->bTrackingFailed, 0);

    MarkBlockDirty(pOpen, 3 * 4096, 0);
    DirtyBlockMap map = MustTakeMap(u"\\Data\\a.txt");
    EXPECT_FALSE(map.trackingFailed);
    EXPECT_EQ(map.map, (std::vector<uint8_t>{0x10, 0, 0, 0}));
    EXPECT_EQ(pOpen->dirtyBlockCount, 0u);
    EXPECT_EQ(ListedRecords().size(), 1u) << "the open's record outlives the query";

    MarkBlockDirty(pOpen, 5 * 4096, 0);
    map = MustTakeMap(u"\\Data\\a.txt");
    EXPECT_EQ(map.map, (std::vector<uint8_t>{0x04, 0, 0, 0}));
    DirtyBlockCount count;
    ASSERT_EQ(Count(u"\\Data\\a.txt", false, &count), S_OK);
    EXPECT_EQ(count.count, 0u);
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pOpen), STATUS_SUCCESS);
}

TEST_F(DirtyBlockQueries, QueriesThatNameNoTrackableFileChangeNothing)
{
    auto fat = ntsim::CreateFatVolume(u"\\Device\\HarddiskVolume3");
    fat->SeedFile(u"\\f.txt", "f");
    ASSERT_EQ(ntsim::MountVolume(fat, u"F:"), STATUS_SUCCESS);
    volume_->SeedDirectory(u"\\Data");
    DirtyBlockMap map;
    DirtyBlockCount count;

    auto query = [&](std::u16string path) { return TakeMapAt(path, 64, &map); };
    EXPECT_EQ(query(u"\\??\\C:\\Data\\a.txt"), HRESULT_FROM_WIN32(ERROR_BAD_PATHNAME)) << "not a device path";
    EXPECT_EQ(query(u""), HRESULT_FROM_WIN32(ERROR_BAD_PATHNAME));
    EXPECT_TRUE(FAILED(query(u"\\Device\\HarddiskVolume3\\f.txt"))) << "no instance on a FAT volume";
    EXPECT_EQ(query(DevicePath(u"\\Data\\missing.txt")), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Count(u"\\Data\\missing.txt", true, &count), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));

    // A path must end inside the message.
    std::vector<uint8_t> unterminated = CountMessage(DevicePath(u"\\Data\\a.txt"), 0);
    unterminated.resize(unterminated.size() - 2);
    EXPECT_EQ(SendRaw(unterminated, 8), E_INVALIDARG);
    EXPECT_EQ(SendRaw(std::vector<uint8_t>{CONTROL_REQUEST_DIRTY_BLOCK_COUNT, 0, 0, 0, 0, 0, 0, 0, 0}, 8),
              E_INVALIDARG)
        << "a message too short to hold its flag";

    EXPECT_TRUE(ListedRecords().empty());
    EXPECT_TRUE(fat->StreamNames(u"\\f.txt").empty());
    EXPECT_TRUE(volume_->List(u"\\Data").empty());
    ASSERT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume3"), STATUS_SUCCESS);
}

TEST_F(DirtyBlockQueries, QueryWithoutMemoryFailsOrRepliesAndLeavesNothingBehind)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(40000, 'a'));
    const auto liveBefore = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
    size_t failures = 0;
    for (uint64_t failing = 1;; failing++) {
        if (Stream(u"\\Data\\a.txt").has_value()) {
            volume_->SeedRemove(u"\\Data\\a.txt" + kMapStream);
        }
        DirtyBlockMap map;
        ntsim::faults::FailNthPointOf({.tags = {FOLDERMERGE_POOL_TAG}}, failing);
        const HRESULT result = TakeMap(u"\\Data\\a.txt", 64, &map);
        const bool injected = ntsim::faults::FailuresInjected() != 0;
        ntsim::faults::Reset();
        if (result == S_OK) {
            // The reply stands whatever memory the stream's writes lacked.
            EXPECT_TRUE(map.trackingFailed) << failing;
            EXPECT_EQ(map.map, (std::vector<uint8_t>{0xFF, 0xFF})) << failing;
        } else {
            failures++;
            EXPECT_EQ(result, HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES)) << failing;
        }
        EXPECT_TRUE(ListedRecords().empty()) << failing;
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, liveBefore) << failing;
        if (!injected) {
            break;
        }
    }
    EXPECT_GE(failures, 3u) << "the output's copy, the path, the record";
}

TEST_F(DirtyBlockQueries, WritesRacingMapQueriesEachLandInExactlyOneMap)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    SeedStream(u"\\Data\\a.txt", {}, {0x00});
    TrackedDirtyBlockFile* pOpen = MustGet(u"\\Data\\a.txt");
    ASSERT_NE(pOpen, nullptr);

    // Writer w marks blocks w, w + 4, w + 8, ... each once, the map growing as they go, until the
    // service has taken the map often enough or the blocks run out.
    constexpr uint32_t kWriters = 4;
    constexpr uint32_t kBlocksEach = 50000;
    constexpr size_t kQueries = 20;
    std::atomic<bool> stop{false};
    std::vector<uint32_t> written(kWriters, 0);
    std::vector<std::thread> writers;
    auto writerProcess = UserProcess(kAlice);
    for (uint32_t writer = 0; writer < kWriters; writer++) {
        writers.emplace_back([&, writer] {
            ntsim::AttachThread attach(writerProcess);
            uint32_t i = 0;
            for (; i < kBlocksEach && !stop.load(); i++) {
                MarkBlockDirty(pOpen, static_cast<LONGLONG>(writer + kWriters * i) * 4096, 0);
            }
            written[writer] = i;
        });
    }
    std::vector<uint32_t> seen(kWriters * kBlocksEach, 0);
    auto take = [&] {
        const DirtyBlockMap map = MustTakeMap(u"\\Data\\a.txt");
        for (size_t byte = 0; byte < map.map.size(); byte++) {
            for (uint32_t bit = 0; bit < 8; bit++) {
                if (map.map[byte] & (0x80 >> bit)) {
                    const size_t block = byte * 8 + bit;
                    ASSERT_LT(block, seen.size());
                    seen[block]++;
                }
            }
        }
    };
    for (size_t query = 0; query < kQueries; query++) {
        take();
    }
    stop = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
    take();

    size_t lost = 0;
    size_t twice = 0;
    for (uint32_t block = 0; block < seen.size(); block++) {
        const bool marked = block / kWriters < written[block % kWriters];
        lost += marked && seen[block] == 0 ? 1 : 0;
        twice += seen[block] > (marked ? 1u : 0u) ? 1 : 0;
    }
    EXPECT_EQ(lost, 0u) << "writes missing from every map";
    EXPECT_EQ(twice, 0u) << "writes in more than one map, or blocks never written";
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pOpen), STATUS_SUCCESS);
}

}  // namespace
}  // namespace foldermerge::testing
