// User records: one per SID, found without regard to case, kept with their verdicts while the
// configuration stands, and taken out all at once by its clearing, a record in use living on until
// its last holder lets go.
#include "filter_fixture.hpp"

#include <ntsim/sim/faults.hpp>

#include <atomic>
#include <thread>

#include "user.h"

namespace foldermerge::testing {
namespace {

class UserRecords : public LoadedFilter {
protected:
    static UserRecord* Find(std::u16string_view sid)
    {
        ntsim::UnicodeStringHolder sidText(sid);
        return FindUserRecord(sidText.get());
    }

    // The records of g_UserList, from its head.
    static std::vector<UserRecord*> Listed()
    {
        std::vector<UserRecord*> records;
        for (PLIST_ENTRY link = g_UserList.Flink; link != &g_UserList; link = link->Flink) {
            records.push_back(CONTAINING_RECORD(link, UserRecord, userListEntry));
        }
        return records;
    }

    static void Cache(UserRecord* record, std::u16string_view key, UCHAR excluded)
    {
        ntsim::UnicodeStringHolder keyText(key);
        AddToExclusionCache(record, keyText.get(), excluded);
    }

    static bool Cached(UserRecord* record, std::u16string_view key)
    {
        ntsim::UnicodeStringHolder keyText(key);
        UCHAR excluded = 0;
        return FindInExclusionCache(record, keyText.get(), &excluded);
    }
};

TEST_F(UserRecords, ASidFindsOneRecordWhateverItsCaseAndANewSidGetsANewOneAtTheTail)
{
    UserRecord* alice = Find(kAlice);
    ASSERT_NE(alice, nullptr);
    EXPECT_EQ(alice->refCount, 2u) << "the list's reference and the caller's";
    EXPECT_EQ(ntsim::ToUtf8(*alice->pstrSid), ntsim::ToUtf8(kAlice));

    UserRecord* again = Find(u"s-1-5-21-1-2-3-1001");
    EXPECT_EQ(again, alice);
    EXPECT_EQ(alice->refCount, 3u);

    // Same length, one character apart.
    UserRecord* bob = Find(kBob);
    EXPECT_NE(bob, alice);
    EXPECT_EQ(Listed(), (std::vector<UserRecord*>{alice, bob}));
    // A SID that another begins is a SID of its own.
    UserRecord* shorter = Find(u"S-1-5-21-1-2-3-100");
    EXPECT_NE(shorter, alice);
    EXPECT_EQ(Listed().size(), 3u);

    ReleaseUserRecord(alice, 0);
    ReleaseUserRecord(again, 0);
    ReleaseUserRecord(bob, 0);
    ReleaseUserRecord(shorter, 0);
    EXPECT_EQ(alice->refCount, 1u);
    EXPECT_EQ(Listed().size(), 3u);
    EXPECT_EQ(FindUserRecord(nullptr), nullptr);
}

TEST_F(UserRecords, AnIdleRecordKeepsItsVerdictsUntilTheConfigurationIsCleared)
{
    UserRecord* alice = Find(kAlice);
    Cache(alice, u"\\data\\music", 1);
    ReleaseUserRecord(alice, 0);
    EXPECT_EQ(alice->refCount, 1u);

    alice = Find(kAlice);
    EXPECT_TRUE(Cached(alice, u"\\data\\music"));
    ReleaseUserRecord(alice, 0);

    // A configuration message clears the records: the user starts with an empty cache.
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
    EXPECT_TRUE(Listed().empty());
    alice = Find(kAlice);
    EXPECT_FALSE(Cached(alice, u"\\data\\music"));
    ReleaseUserRecord(alice, 0);

    ClearUserRecords();
    EXPECT_TRUE(Listed().empty());
    ClearUserRecords();
    EXPECT_TRUE(Listed().empty());
}

TEST_F(UserRecords, ARecordInUseDuringAClearIsOrphanedAndFreedByItsLastHolder)
{
    UserRecord* held = Find(kAlice);
    UserRecord* heldTwice = Find(kAlice);
    UserRecord* idle = Find(kBob);
    ReleaseUserRecord(idle, 0);
    Cache(held, u"\\a", 1);

    ClearUserRecords();
    EXPECT_TRUE(Listed().empty());
    EXPECT_FALSE(ntsim::pool::IsLive(idle)) << "an idle record is freed at once";
    ASSERT_TRUE(ntsim::pool::IsLive(held));
    EXPECT_EQ(held->bRemoved, 1);
    EXPECT_EQ(held->refCount, 2u);

    // The orphan still works for its holders; a new test of the SID makes a new record beside it.
    EXPECT_TRUE(Cached(held, u"\\a\\b"));
    Cache(held, u"\\c", 0);
    UserRecord* fresh = Find(kAlice);
    EXPECT_NE(fresh, held);
    EXPECT_FALSE(Cached(fresh, u"\\a\\b"));
    EXPECT_EQ(Listed(), (std::vector<UserRecord*>{fresh}));

    // The holders' releases don't cut the list link again: the new record stays listed.
    ReleaseUserRecord(held, 0);
    EXPECT_TRUE(ntsim::pool::IsLive(held));
    ReleaseUserRecord(heldTwice, 0);
    EXPECT_FALSE(ntsim::pool::IsLive(held));
    EXPECT_EQ(Listed(), (std::vector<UserRecord*>{fresh}));
    ReleaseUserRecord(fresh, 0);
}

TEST_F(UserRecords, ARecordThatCantBeMadeLeavesNothingInTheList)
{
    const auto before = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
    // The record, then its SID copy.
    for (uint64_t allocation = 1; allocation <= 2; allocation++) {
        ntsim::faults::FailNthAllocation(allocation);
        EXPECT_EQ(Find(kAlice), nullptr) << "allocation " << allocation;
        ntsim::faults::Reset();
        EXPECT_TRUE(Listed().empty()) << "allocation " << allocation;
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, before) << "allocation " << allocation;
    }
    UserRecord* alice = Find(kAlice);
    EXPECT_NE(alice, nullptr);
    ReleaseUserRecord(alice, 0);
}

// Threads test and cache verdicts of three users while the configuration is cleared again and again:
// records are orphaned under their holders and freed by the last of them, nothing is freed twice or
// read after it is freed, and nothing is left when all have let go.
TEST_F(UserRecords, RecordsClearedUnderBusyHoldersAreAllFreedByTheLastOfThem)
{
    const auto before = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
    const std::u16string sids[] = {kAlice, kBob, u"S-1-5-21-1-2-3-1003"};
    std::atomic<int> running = 4;
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 4; worker++) {
        threads.emplace_back([&, worker] {
            for (int round = 0; round < 300; round++) {
                UserRecord* record = Find(sids[(worker + round) % 3]);
                ASSERT_NE(record, nullptr);
                const std::u16string key = u"\\dir" + ntsim::ToUtf16(std::to_string(round % 17));
                if (!Cached(record, key)) {
                    Cache(record, key, static_cast<UCHAR>(round % 2));
                }
                ReleaseUserRecord(record, 0);
            }
            running--;
        });
    }
    int clears = 0;
    while (running > 0) {
        ClearUserRecords();
        clears++;
        std::this_thread::yield();
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ClearUserRecords();
    EXPECT_GT(clears, 0);
    EXPECT_TRUE(Listed().empty());
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, before);
}

}  // namespace
}  // namespace foldermerge::testing
