// IRQL and critical regions: per-thread state, the raise/lower rules, PAGED_CODE and the IRQL
// assertion other components use.
#include <gtest/gtest.h>

#include <ntsim/ke.h>
#include <ntsim/sim/verifier.hpp>

#include <thread>

namespace {

namespace rules = ntsim::verifier::rules;
using ntsim::verifier::BugCheckCapture;

TEST(Irql, RaiseReturnsThePreviousLevelAndLowerRestoresIt)
{
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    KIRQL first;
    KeRaiseIrql(APC_LEVEL, &first);
    EXPECT_EQ(first, PASSIVE_LEVEL);
    KIRQL second = KeRaiseIrqlToDpcLevel();
    EXPECT_EQ(second, APC_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(second);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    KeLowerIrql(first);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST(Irql, BelongsToTheThread)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KIRQL seenByOther = HIGH_LEVEL;
    std::thread other([&seenByOther] { seenByOther = KeGetCurrentIrql(); });
    other.join();
    EXPECT_EQ(seenByOther, PASSIVE_LEVEL);
    KeLowerIrql(old);
}

TEST(Irql, RaisingDownOrLoweringUpIsReportedAndIgnored)
{
    BugCheckCapture capture;
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KIRQL unused;
    KeRaiseIrql(APC_LEVEL, &unused);
    EXPECT_TRUE(capture.Consume(rules::kIrqlNotGreaterOrEqual));
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(old);

    KeLowerIrql(APC_LEVEL);
    EXPECT_TRUE(capture.Consume(rules::kIrqlNotLessOrEqual));
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(capture.Count(), 0u);
}

void PageableRoutine()
{
    PAGED_CODE();
}

TEST(PagedCode, IsAllowedUpToApcLevelAndNamesTheRoutineAbove)
{
    BugCheckCapture capture;
    PageableRoutine();
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    PageableRoutine();
    EXPECT_EQ(capture.Count(), 0u);
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    PageableRoutine();
    KeLowerIrql(PASSIVE_LEVEL);
    EXPECT_NE(capture.ConsumeDetail(rules::kPagedCode).find("PageableRoutine"), std::string::npos);
}

TEST(IrqlAssertion, FiresOnlyAboveTheGivenLevel)
{
    BugCheckCapture capture;
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    ntsim::verifier::AssertIrqlAtMost(APC_LEVEL, "FltSendMessage");
    EXPECT_EQ(capture.Count(), 0u);
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FltSendMessage");
    EXPECT_NE(capture.ConsumeDetail(rules::kIrqlTooHigh).find("FltSendMessage"), std::string::npos);
    KeLowerIrql(old);
}

TEST(CriticalRegion, NestsPerThreadAndDisablesApcs)
{
    EXPECT_FALSE(KeAreApcsDisabled());
    KeEnterCriticalRegion();
    KeEnterCriticalRegion();
    EXPECT_EQ(ntsim::verifier::CriticalRegionDepth(), 2);
    EXPECT_TRUE(KeAreApcsDisabled());
    bool otherDisabled = true;
    std::thread other([&otherDisabled] { otherDisabled = KeAreApcsDisabled(); });
    other.join();
    EXPECT_FALSE(otherDisabled);
    KeLeaveCriticalRegion();
    EXPECT_TRUE(KeAreApcsDisabled());
    KeLeaveCriticalRegion();
    EXPECT_FALSE(KeAreApcsDisabled());

    BugCheckCapture capture;
    KeLeaveCriticalRegion();
    EXPECT_TRUE(capture.Consume(rules::kCriticalRegionUnderflow));
    EXPECT_EQ(ntsim::verifier::CriticalRegionDepth(), 0);
}

}  // namespace
