// Pool: accounting by tag and type, checkpoints and their leak reports, and the verifier's checks
// on every allocation and free.
#include <gtest/gtest.h>

#include <ntsim/ex.h>
#include <ntsim/ke.h>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

using ntsim::pool::TagFromText;
using ntsim::pool::UsageOfTag;
using ntsim::pool::UsageOfType;
namespace rules = ntsim::verifier::rules;

TEST(PoolTags, TagTextIsTheTagsBytesInMemoryOrder)
{
    // A driver writes its tag as the character literal 'RMLV'; pool tools show "VLMR".
    EXPECT_EQ(ntsim::pool::TagText(0x524D4C56u), "VLMR");
    EXPECT_EQ(TagFromText("VLMR"), 0x524D4C56u);
    EXPECT_EQ(TagFromText("ab"), TagFromText("ab  "));
    EXPECT_EQ(ntsim::pool::TagText(0x00414141u), "AAA\\x00");
}

TEST(PoolAccounting, CountsLiveBlocksAndBytesPerTagAndPerType)
{
    const ULONG tagA = TagFromText("TsA1");
    const ULONG tagB = TagFromText("TsB1");
    auto pagedBefore = UsageOfType(PagedPool);
    auto nxBefore = UsageOfType(NonPagedPoolNx);

    void* a1 = ExAllocatePoolWithTag(PagedPool, 100, tagA);
    void* a2 = ExAllocatePoolWithTag(PagedPoolCacheAligned, 28, tagA);
    void* a3 = ExAllocatePoolWithTag(NonPagedPoolNx, 7, tagA);
    void* b1 = ExAllocatePoolWithTag(NonPagedPoolNxCacheAligned, 1000, tagB);
    ASSERT_TRUE(a1 && a2 && a3 && b1);

    auto usageA = UsageOfTag(tagA);
    EXPECT_EQ(usageA.liveCount, 3u);
    EXPECT_EQ(usageA.liveBytes, 135u);
    EXPECT_EQ(UsageOfTag(tagB).liveBytes, 1000u);
    // Cache-aligned types count with their base type.
    EXPECT_EQ(UsageOfType(PagedPool).liveCount - pagedBefore.liveCount, 2u);
    EXPECT_EQ(UsageOfType(PagedPool).liveBytes - pagedBefore.liveBytes, 128u);
    EXPECT_EQ(UsageOfType(NonPagedPoolNx).liveBytes - nxBefore.liveBytes, 1007u);

    ExFreePoolWithTag(a1, tagA);
    ExFreePoolWithTag(b1, tagB);
    usageA = UsageOfTag(tagA);
    EXPECT_EQ(usageA.liveCount, 2u);
    EXPECT_EQ(usageA.liveBytes, 35u);
    EXPECT_EQ(usageA.totalAllocations, 3u);
    EXPECT_EQ(UsageOfTag(tagB).liveCount, 0u);
    EXPECT_FALSE(ntsim::pool::IsLive(a1));
    EXPECT_TRUE(ntsim::pool::IsLive(a2));

    ExFreePoolWithTag(a2, tagA);
    ExFreePoolWithTag(a3, 0);
    EXPECT_EQ(UsageOfTag(tagA).liveBytes, 0u);
    EXPECT_EQ(UsageOfType(PagedPool).liveBytes, pagedBefore.liveBytes);
}

TEST(PoolAccounting, StaysExactUnderConcurrentAllocationAndFree)
{
    const ULONG tag = TagFromText("TsCc");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([tag] {
            std::vector<void*> blocks;
            for (int i = 0; i < 500; ++i) {
                blocks.push_back(ExAllocatePoolWithTag(NonPagedPoolNx, 16 + i % 7, tag));
                if (i % 3 == 0) {
                    ExFreePoolWithTag(blocks.front(), tag);
                    blocks.erase(blocks.begin());
                }
            }
            for (void* block : blocks) {
                ExFreePoolWithTag(block, tag);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    auto usage = UsageOfTag(tag);
    EXPECT_EQ(usage.liveCount, 0u);
    EXPECT_EQ(usage.liveBytes, 0u);
    EXPECT_EQ(usage.totalAllocations, 2000u);
}

TEST(PoolAccounting, ManyBlocksFreedInAnyOrderAreEachKnownUntilFreed)
{
    // Enough blocks to make the table of live blocks grow several times, freed in an order that
    // leaves holes everywhere: every block stays live until its own free, and no other block
    // is lost with it.
    const ULONG tag = TagFromText("TsMn");
    std::vector<void*> blocks;
    for (int i = 0; i < 5000; ++i) {
        blocks.push_back(ExAllocatePoolWithTag(PagedPool, 16 + i % 64, tag));
    }
    EXPECT_EQ(UsageOfTag(tag).liveCount, 5000u);
    for (size_t step : {3u, 2u, 1u}) {
        for (size_t i = 0; i < blocks.size(); i += step) {
            if (blocks[i] != nullptr) {
                ExFreePoolWithTag(blocks[i], tag);
                EXPECT_FALSE(ntsim::pool::IsLive(blocks[i]));
                blocks[i] = nullptr;
            }
        }
        for (void* block : blocks) {
            if (block != nullptr) {
                ASSERT_TRUE(ntsim::pool::IsLive(block));
            }
        }
    }
    EXPECT_EQ(UsageOfTag(tag).liveCount, 0u);
    EXPECT_EQ(UsageOfTag(tag).liveBytes, 0u);
}

TEST(PoolContents, BlocksAreNotZeroedButExAllocatePoolZeroZeroes)
{
    const ULONG tag = TagFromText("TsZr");
    auto* plain = static_cast<unsigned char*>(ExAllocatePoolWithTag(PagedPool, 64, tag));
    auto* zeroed = static_cast<unsigned char*>(ExAllocatePoolZero(PagedPool, 64, tag));
    ASSERT_NE(plain, nullptr);
    ASSERT_NE(zeroed, nullptr);
    EXPECT_TRUE(std::any_of(plain, plain + 64, [](unsigned char c) { return c != 0; }));
    EXPECT_TRUE(std::all_of(zeroed, zeroed + 64, [](unsigned char c) { return c == 0; }));
    ExFreePoolWithTag(plain, tag);
    ExFreePoolWithTag(zeroed, tag);
}

TEST(PoolContents, ExAllocatePoolTagsItsBlocksNoneAndExFreePoolFreesThem)
{
    auto before = UsageOfTag(TagFromText("None"));
    void* block = ExAllocatePool(NonPagedPool, 40);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(UsageOfTag(TagFromText("None")).liveCount, before.liveCount + 1);
    ExFreePool(block);
    EXPECT_EQ(UsageOfTag(TagFromText("None")).liveCount, before.liveCount);
}

// Not inlined, so that the leak report has a function of this file to name.
__attribute__((noinline)) void* AllocateBlockThatLeaks(ULONG tag)
{
    return ExAllocatePoolWithTag(PagedPool, 48, tag);
}

TEST(PoolCheckpoint, ReportsOnlyBlocksAllocatedAfterItThatAreStillLive)
{
    const ULONG tag = TagFromText("TsLk");
    void* older = ExAllocatePoolWithTag(NonPagedPool, 8, tag);
    ntsim::pool::Checkpoint checkpoint;
    void* freed = ExAllocatePoolWithTag(NonPagedPool, 16, tag);
    void* leaked = AllocateBlockThatLeaks(tag);
    ExFreePoolWithTag(freed, tag);

    auto leaks = checkpoint.Leaks();
    ASSERT_EQ(leaks.size(), 1u);
    EXPECT_EQ(leaks[0].address, leaked);
    EXPECT_EQ(leaks[0].size, 48u);
    EXPECT_EQ(leaks[0].tag, tag);
    EXPECT_EQ(leaks[0].type, PagedPool);
    ASSERT_FALSE(leaks[0].callSite.empty());

    {
        ntsim::verifier::BugCheckCapture capture;
        EXPECT_FALSE(checkpoint.Verify("unload"));
        std::string report = capture.ConsumeDetail(rules::kPoolLeak);
        EXPECT_NE(report.find("unload"), std::string::npos) << report;
        EXPECT_NE(report.find("'TsLk' 48 bytes PagedPool"), std::string::npos) << report;
#if defined(__SANITIZE_ADDRESS__)
        EXPECT_NE(report.find("AllocateBlockThatLeaks"), std::string::npos) << report;
#endif
    }

    ExFreePoolWithTag(leaked, tag);
    ExFreePoolWithTag(older, tag);
    ntsim::verifier::BugCheckCapture capture;
    EXPECT_TRUE(checkpoint.Verify("after the frees"));
    EXPECT_EQ(capture.Count(), 0u);
}

TEST(PoolCheckpoint, WithATagIgnoresOtherTags)
{
    const ULONG mine = TagFromText("TsMi");
    const ULONG other = TagFromText("TsOt");
    ntsim::pool::Checkpoint checkpoint(mine);
    void* block = ExAllocatePoolWithTag(PagedPool, 8, other);
    EXPECT_TRUE(checkpoint.Leaks().empty());
    void* own = ExAllocatePoolWithTag(PagedPool, 8, mine);
    EXPECT_EQ(checkpoint.Leaks().size(), 1u);
    ExFreePoolWithTag(block, other);
    ExFreePoolWithTag(own, mine);
}

TEST(PoolFreeChecks, DoubleFreeAndUnknownPointersAreReported)
{
    const ULONG tag = TagFromText("TsDf");
    ntsim::verifier::BugCheckCapture capture;
    char* block = static_cast<char*>(ExAllocatePoolWithTag(PagedPool, 32, tag));
    ExFreePoolWithTag(block, tag);
    EXPECT_EQ(capture.Count(), 0u);
    ExFreePoolWithTag(block, tag);
    EXPECT_TRUE(capture.Consume(rules::kPoolDoubleFree));

    int onTheStack = 0;
    ExFreePoolWithTag(&onTheStack, 0);
    EXPECT_TRUE(capture.Consume(rules::kPoolFreeUnknown));

    // A pointer inside a live block is not a block.
    char* live = static_cast<char*>(ExAllocatePoolWithTag(PagedPool, 32, tag));
    ExFreePoolWithTag(live + 8, tag);
    EXPECT_TRUE(capture.Consume(rules::kPoolFreeUnknown));
    EXPECT_TRUE(ntsim::pool::IsLive(live));
    ExFreePoolWithTag(live, tag);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST(PoolFreeChecks, TagMustMatchUnlessItIsZero)
{
    const ULONG tag = TagFromText("TsTg");
    ntsim::verifier::BugCheckCapture capture;
    void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 32, tag);
    ExFreePoolWithTag(block, TagFromText("Othr"));
    std::string detail = capture.ConsumeDetail(rules::kPoolWrongTag);
    EXPECT_NE(detail.find("'Othr'"), std::string::npos) << detail;
    EXPECT_NE(detail.find("'TsTg'"), std::string::npos) << detail;

    void* second = ExAllocatePoolWithTag(NonPagedPoolNx, 32, tag);
    ExFreePoolWithTag(second, 0);
    EXPECT_EQ(capture.Count(), 0u);
    EXPECT_EQ(UsageOfTag(tag).liveCount, 0u);
}

TEST(PoolIrql, PagedPoolIsRefusedAboveApcLevelAndNonPagedPoolIsNot)
{
    const ULONG tag = TagFromText("TsIr");
    ntsim::verifier::BugCheckCapture capture;
    void* paged = ExAllocatePoolWithTag(PagedPool, 16, tag);

    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    void* atApc = ExAllocatePoolWithTag(PagedPool, 16, tag);
    KeLowerIrql(old);
    EXPECT_EQ(capture.Count(), 0u);

    KeRaiseIrql(DISPATCH_LEVEL, &old);
    void* nonPaged = ExAllocatePoolWithTag(NonPagedPoolNx, 16, tag);
    ExFreePoolWithTag(nonPaged, tag);
    EXPECT_EQ(capture.Count(), 0u);
    void* pagedAtDispatch = ExAllocatePoolWithTag(PagedPool, 16, tag);
    EXPECT_TRUE(capture.Consume(rules::kPagedPoolAtDispatch));
    ExFreePoolWithTag(paged, tag);
    EXPECT_TRUE(capture.Consume(rules::kPagedPoolAtDispatch));
    KeLowerIrql(old);

    ExFreePoolWithTag(atApc, tag);
    ExFreePoolWithTag(pagedAtDispatch, tag);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST(PoolAllocationChecks, ZeroBytesAndUnknownPoolTypesAreReported)
{
    const ULONG tag = TagFromText("TsBd");
    ntsim::verifier::BugCheckCapture capture;
    void* empty = ExAllocatePoolWithTag(PagedPool, 0, tag);
    EXPECT_TRUE(capture.Consume(rules::kPoolZeroSize));
    ExFreePoolWithTag(empty, tag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolMustSucceed, 8, tag), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(static_cast<POOL_TYPE>(77), 8, tag), nullptr);
    EXPECT_EQ(capture.Take().size(), 2u);
    EXPECT_EQ(UsageOfTag(tag).liveCount, 0u);
}

TEST(PoolFreeChecks, ABlockHoldingALiveResourceIsNotFreed)
{
    const ULONG tag = TagFromText("TsRs");
    auto* resource = static_cast<PERESOURCE>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(ERESOURCE), tag));
    ASSERT_EQ(ExInitializeResourceLite(resource), STATUS_SUCCESS);
    {
        ntsim::verifier::BugCheckCapture capture;
        ExFreePoolWithTag(resource, tag);
        EXPECT_TRUE(capture.Consume(rules::kPoolFreeWithLiveResource));
        EXPECT_TRUE(ntsim::pool::IsLive(resource));
    }
    ASSERT_EQ(ExDeleteResourceLite(resource), STATUS_SUCCESS);
    ntsim::verifier::BugCheckCapture capture;
    ExFreePoolWithTag(resource, tag);
    EXPECT_EQ(capture.Count(), 0u);
    EXPECT_FALSE(ntsim::pool::IsLive(resource));
}

}  // namespace
