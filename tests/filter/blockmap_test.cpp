// The block map: which blocks a write marks, how the map grows, how the count moves when a file
// grows or shrinks, and what a position the map can't hold does.
#include "dirtyblock_fixture.hpp"

#include <ntsim/sim/faults.hpp>

#include <random>
#include <set>

namespace foldermerge::testing {
namespace {

using Blocks = std::set<uint32_t>;

Blocks BlocksOf(const std::vector<uint8_t>& map)
{
    Blocks blocks;
    for (size_t byte = 0; byte < map.size(); byte++) {
        for (uint32_t bit = 0; bit < 8; bit++) {
            if (map[byte] & (0x80 >> bit)) {
                blocks.insert(static_cast<uint32_t>(byte * 8 + bit));
            }
        }
    }
    return blocks;
}

// A record of the test's making, with its map from the pool as the filter's records have it.
class Record {
public:
    explicit Record(const std::vector<uint8_t>& map, ULONG count = 0, UCHAR bTrackingFailed = 0)
    {
        p_ = static_cast<TrackedDirtyBlockFile*>(AllocateBuffer(POOL_SELECTOR_NONPAGED, sizeof(TrackedDirtyBlockFile)));
        std::memset(p_, 0, sizeof(*p_));
        KeInitializeSpinLock(&p_->lock);
        p_->map = static_cast<PUCHAR>(AllocateBuffer(POOL_SELECTOR_NONPAGED, map.size()));
        std::memcpy(p_->map, map.data(), map.size());
        p_->mapLen = static_cast<ULONG>(map.size());
        p_->dirtyBlockCount = count;
        p_->bTrackingFailed = bTrackingFailed;
        p_->refCount = 1;
    }
    ~Record() { DeleteTrackedDirtyBlockFile(p_); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    TrackedDirtyBlockFile* operator->() const { return p_; }
    TrackedDirtyBlockFile* get() const { return p_; }
    std::vector<uint8_t> map() const { return MapOf(p_); }
    Blocks blocks() const { return BlocksOf(map()); }

private:
    TrackedDirtyBlockFile* p_;
};

using BlockMap = DirtyBlockTest;

constexpr LONGLONG kBlock = 4096;
constexpr LONGLONG kReach = 1LL << 44;  // 2^32 blocks

TEST_F(BlockMap, WriteMarksFromItsFirstByteToTheByteJustPastIt)
{
    struct Case {
        LONGLONG offset;
        ULONG length;
        Blocks marked;
    };
    const std::vector<Case> cases = {
        {0, 1, {0}},
        {0, 4095, {0}},
        {0, 4096, {0, 1}},
        {4095, 1, {0, 1}},
        {8192, 0, {2}},
        {4096, 4096, {1, 2}},
        {4097, 8190, {1, 2}},
        {4097, 8191, {1, 2, 3}},
        {7 * kBlock + 100, 200, {7}},
        {13 * kBlock, 1, {13}},
    };
    for (const Case& c : cases) {
        Record record({0});
        MarkBlockDirty(record.get(), c.offset, c.length);
        EXPECT_EQ(record.blocks(), c.marked) << c.offset << "+" << c.length;
        EXPECT_EQ(record->dirtyBlockCount, c.marked.size()) << c.offset << "+" << c.length;
    }

    // Most significant bit first: block 0 is 0x80 of byte 0, block 13 is 0x04 of byte 1.
    Record record({0, 0});
    MarkBlockDirty(record.get(), 13 * kBlock, 0);
    MarkBlockDirty(record.get(), 7 * kBlock, 0);
    MarkBlockDirty(record.get(), 0, 0);
    EXPECT_EQ(record.map(), (std::vector<uint8_t>{0x81, 0x04}));
}

TEST_F(BlockMap, MarkingABlockTwiceCountsItOnceAndTheFlagStays)
{
    Record record({0x00, 0x00}, 7, 1);
    MarkBlockDirty(record.get(), 0, 4096);
    MarkBlockDirty(record.get(), 4096, 4096);
    EXPECT_EQ(record.blocks(), (Blocks{0, 1, 2}));
    EXPECT_EQ(record->dirtyBlockCount, 7u + 3u);
    EXPECT_EQ(record->bTrackingFailed, 1) << "marking neither reads nor clears it";

    // Bits set before count nothing.
    Record preset({0xF0});
    MarkBlockDirty(preset.get(), 0, 6 * 4096);
    EXPECT_EQ(preset.map(), (std::vector<uint8_t>{0xFE}));
    EXPECT_EQ(preset->dirtyBlockCount, 3u);
}

TEST_F(BlockMap, MapGrowsToTwiceTheIndexThatMustFitAndKeepsItsBits)
{
    Record record({0x80});
    MarkBlockDirty(record.get(), 8 * kBlock, 0);  // byte 1
    EXPECT_EQ(record->mapLen, 2u);
    EXPECT_EQ(record.map(), (std::vector<uint8_t>{0x80, 0x80}));

    MarkBlockDirty(record.get(), 40 * kBlock, 0);  // byte 5
    EXPECT_EQ(record->mapLen, 10u);
    EXPECT_EQ(record.blocks(), (Blocks{0, 8, 40}));

    MarkBlockDirty(record.get(), 79 * kBlock, 0);  // byte 9: inside, no growth
    EXPECT_EQ(record->mapLen, 10u);
    MarkBlockDirty(record.get(), 79 * kBlock, 4096);  // byte 10
    EXPECT_EQ(record->mapLen, 20u);
    EXPECT_EQ(record.blocks(), (Blocks{0, 8, 40, 79, 80}));
    EXPECT_EQ(record->dirtyBlockCount, 4u);
}

TEST_F(BlockMap, NoMemoryToGrowMarksNothingOfTheWrite)
{
    Record record({0x00}, 2);
    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG);
    MarkBlockDirty(record.get(), 6 * kBlock, 3 * 4096);  // blocks 6 to 9: 8 and 9 lie past the map
    DirtyBlockSetEOF(record.get(), 0, 100 * kBlock);
    ntsim::faults::Reset();
    EXPECT_EQ(record.map(), std::vector<uint8_t>{0x00});
    EXPECT_EQ(record->dirtyBlockCount, 2u);
    EXPECT_EQ(record->bTrackingFailed, 0);
}

TEST_F(BlockMap, EndOfFileGrowingMarksTheOldLastBlockAndEveryNewOne)
{
    Record record({0x00});
    DirtyBlockSetEOF(record.get(), 5000, 13000);  // last block 1 to 3
    EXPECT_EQ(record.blocks(), (Blocks{1, 2, 3}));
    EXPECT_EQ(record->dirtyBlockCount, 3u);

    DirtyBlockSetEOF(record.get(), 13000, 9 * kBlock);  // to block 9: the map grows
    EXPECT_EQ(record->mapLen, 2u);
    EXPECT_EQ(record.blocks(), (Blocks{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(record->dirtyBlockCount, 9u);
}

TEST_F(BlockMap, EndOfFileShrinkingCountsTheBlocksCutOffAndChangesNoBit)
{
    Record record({0x50}, 4);
    DirtyBlockSetEOF(record.get(), 13000, 5000);
    EXPECT_EQ(record.map(), std::vector<uint8_t>{0x50});
    EXPECT_EQ(record->dirtyBlockCount, 6u);

    // Within one block nothing changes, growing or shrinking.
    DirtyBlockSetEOF(record.get(), 5000, 8000);
    DirtyBlockSetEOF(record.get(), 8000, 4096);
    EXPECT_EQ(record.map(), std::vector<uint8_t>{0x50});
    EXPECT_EQ(record->dirtyBlockCount, 6u);

    // Shrinking a file larger than the map grows the map to its new last block, with no bit set.
    DirtyBlockSetEOF(record.get(), 30 * kBlock, 20 * kBlock);
    EXPECT_EQ(record->mapLen, 4u);
    EXPECT_EQ(record.map(), (std::vector<uint8_t>{0x50, 0, 0, 0}));
    EXPECT_EQ(record->dirtyBlockCount, 16u);
}

TEST_F(BlockMap, PositionsTheMapCanNotHoldMarkTheWholeFile)
{
    // The special offsets for the end of file (-1) and the current position (-2): where the data
    // lands is not known here.
    for (LONGLONG offset : {-1LL, -2LL, -4097LL}) {
        Record record({0x80, 0x01}, 2);
        MarkBlockDirty(record.get(), offset, 10);
        EXPECT_EQ(record.map(), (std::vector<uint8_t>{0xFF, 0xFF})) << offset;
        EXPECT_EQ(record->dirtyBlockCount, 16u) << offset;
        EXPECT_EQ(record->bTrackingFailed, 1) << offset;
    }

    // A write whose end reaches block 2^32 (byte 2^44) can't be marked; one that stops a byte short
    // can, in a map of 2^29 bytes, which a failed allocation stands for here.
    Record inReach({0x00});
    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG);
    MarkBlockDirty(inReach.get(), kReach - kBlock, 4095);
    ntsim::faults::Reset();
    EXPECT_EQ(inReach->bTrackingFailed, 0);
    EXPECT_EQ(inReach.map(), std::vector<uint8_t>{0x00});
    for (auto [offset, length] : {std::pair<LONGLONG, ULONG>{kReach - kBlock, 4096}, {kReach, 0},
                                  {kReach - 1, 0xFFFFFFFFu}, {0x7FFFFFFFFFFFFFFFLL, 0xFFFFFFFFu}}) {
        Record record({0x00});
        MarkBlockDirty(record.get(), offset, length);
        EXPECT_EQ(record.map(), std::vector<uint8_t>{0xFF}) << offset << "+" << length;
        EXPECT_EQ(record->dirtyBlockCount, 8u) << offset << "+" << length;
        EXPECT_EQ(record->bTrackingFailed, 1) << offset << "+" << length;
    }

    // The same for an end of file; a negative one is refused by the file system and changes nothing.
    Record grown({0x00});
    DirtyBlockSetEOF(grown.get(), 100, kReach);
    EXPECT_EQ(grown->bTrackingFailed, 1);
    EXPECT_EQ(grown.map(), std::vector<uint8_t>{0xFF});
    Record refused({0x00});
    DirtyBlockSetEOF(refused.get(), 100, -1);
    EXPECT_EQ(refused->bTrackingFailed, 0);
    EXPECT_EQ(refused.map(), std::vector<uint8_t>{0x00});
    EXPECT_EQ(refused->dirtyBlockCount, 0u);
}

TEST_F(BlockMap, MarkingUpToTheLastBlockStopsAtTheMapsEndWithoutWrapping)
{
    // The last block a map can name: no end past it to wrap.
    Record record({0x00, 0x00});
    EXPECT_EQ(MarkBlocksDirty(record.get(), 0xFFFFFFF0u, 0xFFFFFFFFu), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(MarkBlocksDirty(record.get(), 0, 0xFFFFFFFFu), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(record.map(), (std::vector<uint8_t>{0xFF, 0xFF}));
    EXPECT_EQ(record->dirtyBlockCount, 16u);

    EXPECT_EQ(ResizeMap(record.get(), 1), STATUS_SUCCESS);
    EXPECT_EQ(record->mapLen, 2u);
    EXPECT_EQ(ResizeMap(record.get(), 2), STATUS_SUCCESS);
    EXPECT_EQ(record->mapLen, 4u);
}

TEST_F(BlockMap, MarkingAgreesBitForBitWithMarkingOneBlockAtATime)
{
    // Random maps and ranges against the plain rule: each block in turn, its bit set and counted
    // if it was clear, stopping at the first block past the map.
    const unsigned seed = 20240101;
    std::mt19937 random(seed);
    for (int round = 0; round < 400; round++) {
        std::vector<uint8_t> map(1 + random() % 40);
        for (uint8_t& byte : map) {
            byte = random() % 4 == 0 ? static_cast<uint8_t>(random()) : 0;
        }
        const uint32_t first = random() % (map.size() * 8 + 16);
        const uint32_t last = first + random() % 200;

        std::vector<uint8_t> expected = map;
        uint32_t expectedCount = 5;
        NTSTATUS expectedStatus = STATUS_SUCCESS;
        for (uint64_t block = first; block <= last; block++) {
            if (block / 8 >= expected.size()) {
                expectedStatus = STATUS_BUFFER_OVERFLOW;
                break;
            }
            const uint8_t mask = static_cast<uint8_t>(0x80 >> (block % 8));
            expectedCount += (expected[block / 8] & mask) == 0 ? 1 : 0;
            expected[block / 8] |= mask;
        }

        Record record(map, 5);
        EXPECT_EQ(MarkBlocksDirty(record.get(), first, last), expectedStatus) << "seed " << seed << " round " << round;
        EXPECT_EQ(record.map(), expected) << "seed " << seed << " round " << round;
        EXPECT_EQ(record->dirtyBlockCount, expectedCount) << "seed " << seed << " round " << round;
    }
}

}  // namespace
}  // namespace foldermerge::testing
