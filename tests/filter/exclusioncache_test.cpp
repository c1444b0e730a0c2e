// A user's exclusion cache: its lookups and insertions, the covering rules of both verdicts, the
// least-recently-used order and its limit, and, against a plain walk of the list as the rules read,
// the same answers and the same order through thousands of random operations.
#include "filter_fixture.hpp"

#include <ntsim/sim/faults.hpp>

#include <list>
#include <optional>
#include <random>

#include "user.h"

namespace foldermerge::testing {
namespace {

// A key as bytes: its first `bytes` bytes of UTF-16 text (all of it by default), so that a key may
// end inside a character.
struct Key {
    std::u16string text;
    USHORT bytes;

    Key(const char16_t* value) : Key(std::u16string(value)) {}
    Key(std::u16string value) : text(std::move(value)), bytes(static_cast<USHORT>(text.size() * 2)) {}
    Key(std::u16string value, USHORT length) : text(std::move(value)), bytes(length) {}

    UNICODE_STRING String() const
    {
        return {bytes, static_cast<USHORT>(text.size() * 2),
                const_cast<PWCH>(reinterpret_cast<const WCHAR*>(text.data()))};
    }
    std::string Bytes() const { return std::string(reinterpret_cast<const char*>(text.data()), bytes); }
};

struct Entry {
    std::string key;  // bytes
    bool excluded;
    bool operator==(const Entry&) const = default;
};

// The record's list from its front, most recently used first.
std::vector<Entry> ListOf(UserRecord* record)
{
    std::vector<Entry> entries;
    for (PLIST_ENTRY link = record->exclusionCacheList.Flink; link != &record->exclusionCacheList; link = link->Flink) {
        auto* entry = CONTAINING_RECORD(link, ExclusionCacheEntry, link);
        entries.push_back({std::string(reinterpret_cast<const char*>(entry->pstrPath->Buffer), entry->pstrPath->Length),
                           entry->bExcluded != 0});
    }
    EXPECT_EQ(entries.size(), record->exclusionCacheCount);
    return entries;
}

std::ostream& operator<<(std::ostream& stream, const Entry& entry)
{
    return stream << (entry.excluded ? "excluded " : "not excluded ") << entry.key.size() << " bytes";
}

// The cache as its rules read: a list walked from the front for every lookup and insertion.
class WalkedCache {
public:
    std::optional<bool> Find(const std::string& key)
    {
        for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
            if ((entry->excluded && IsProperPrefix(entry->key, key)) || entry->key == key) {
                entries_.splice(entries_.begin(), entries_, entry);
                return entries_.front().excluded;
            }
        }
        return std::nullopt;
    }

    void Add(const std::string& key, bool excluded)
    {
        for (auto entry = entries_.begin(); entry != entries_.end();) {
            if (entry->excluded == excluded && IsProperPrefix(key, entry->key)) {
                entry = entries_.erase(entry);
            } else if (entry->excluded == excluded && IsProperPrefix(entry->key, key)) {
                return;
            } else {
                ++entry;
            }
        }
        entries_.push_front({key, excluded});
        if (entries_.size() > EXCLUSION_CACHE_LIMIT) {
            entries_.pop_back();
        }
    }

    // Puts a key at the front as Add would, for a key that no cached key begins or is begun by.
    void AddUnrelated(const std::string& key, bool excluded) { entries_.push_front({key, excluded}); }

    std::vector<Entry> Entries() const { return {entries_.begin(), entries_.end()}; }

private:
    static bool IsProperPrefix(const std::string& prefix, const std::string& key)
    {
        return prefix.size() < key.size() && key.compare(0, prefix.size(), prefix) == 0;
    }

    std::list<Entry> entries_;
};

class ExclusionCache : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        alice_ = Record(kAlice);
    }

    void TearDown() override
    {
        for (UserRecord* record : held_) {
            ReleaseUserRecord(record, 0);
        }
        LoadedFilter::TearDown();
    }

    UserRecord* Record(std::u16string_view sid)
    {
        ntsim::UnicodeStringHolder sidText(sid);
        UserRecord* record = FindUserRecord(sidText.get());
        EXPECT_NE(record, nullptr);
        held_.push_back(record);
        return record;
    }

    // The verdict of a hit, or nothing on a miss.
    static std::optional<bool> Find(UserRecord* record, const Key& key)
    {
        UNICODE_STRING text = key.String();
        UCHAR verdict = 0xCC;
        BOOLEAN hit = FindInExclusionCache(record, &text, &verdict);
        EXPECT_TRUE(hit || verdict == 0) << "a miss gives the verdict 0";
        return hit ? std::optional<bool>(verdict != 0) : std::nullopt;
    }

    static void Add(UserRecord* record, const Key& key, bool excluded)
    {
        UNICODE_STRING text = key.String();
        AddToExclusionCache(record, &text, excluded ? 1 : 0);
    }

    static Entry E(const char16_t* key, bool excluded) { return {Key(key).Bytes(), excluded}; }

    UserRecord* alice_ = nullptr;
    std::vector<UserRecord*> held_;
};

using List = std::vector<Entry>;
constexpr bool kExcluded = true;
constexpr bool kNotExcluded = false;

TEST_F(ExclusionCache, AnExcludedEntryCoversEveryKeyItsBytesBeginWithoutASeparatorCheck)
{
    Add(alice_, u"\\a", kExcluded);
    EXPECT_EQ(Find(alice_, u"\\a"), kExcluded);
    EXPECT_EQ(Find(alice_, u"\\a\\b"), kExcluded);
    EXPECT_EQ(Find(alice_, u"\\ab"), kExcluded);
    EXPECT_EQ(Find(alice_, u"\\"), std::nullopt);
    EXPECT_EQ(Find(alice_, u"\\b"), std::nullopt);
    EXPECT_EQ(ListOf(alice_), (List{E(u"\\a", kExcluded)}));
}

TEST_F(ExclusionCache, ANotExcludedEntryAnswersForItsOwnKeyOnly)
{
    Add(alice_, u"\\a", kNotExcluded);
    EXPECT_EQ(Find(alice_, u"\\a"), kNotExcluded);
    EXPECT_EQ(Find(alice_, u"\\a\\b"), std::nullopt);

    // The service says \a\b isn't excluded either: \a makes that entry redundant, and the next
    // test of \a\b misses again.
    Add(alice_, u"\\a\\b", kNotExcluded);
    EXPECT_EQ(ListOf(alice_), (List{E(u"\\a", kNotExcluded)}));
    EXPECT_EQ(Find(alice_, u"\\a\\b"), std::nullopt);

    // The service says \a\b is excluded: it stands beside \a.
    Add(alice_, u"\\a\\b", kExcluded);
    EXPECT_EQ(ListOf(alice_), (List{E(u"\\a\\b", kExcluded), E(u"\\a", kNotExcluded)}));
    EXPECT_EQ(Find(alice_, u"\\a\\b\\c"), kExcluded);
    EXPECT_EQ(Find(alice_, u"\\a"), kNotExcluded);
}

TEST_F(ExclusionCache, AKeyThatBeginsCachedKeysOfItsVerdictReplacesThem)
{
    Add(alice_, u"\\a\\b", kExcluded);
    Add(alice_, u"\\a\\c", kExcluded);
    Add(alice_, u"\\a\\c\\d", kNotExcluded);
    Add(alice_, u"\\ab", kExcluded);
    EXPECT_EQ(Find(alice_, u"\\a"), std::nullopt);

    // The service says \a is excluded: the excluded entries below it go, the other verdict stays.
    Add(alice_, u"\\a", kExcluded);
    EXPECT_EQ(ListOf(alice_), (List{E(u"\\a", kExcluded), E(u"\\a\\c\\d", kNotExcluded)}));

    // A not-excluded directory removes the not-excluded entries below it in the same way.
    Add(alice_, u"\\x\\y", kNotExcluded);
    Add(alice_, u"\\x\\z", kNotExcluded);
    Add(alice_, u"\\x", kNotExcluded);
    EXPECT_EQ(ListOf(alice_), (List{E(u"\\x", kNotExcluded), E(u"\\a", kExcluded), E(u"\\a\\c\\d", kNotExcluded)}));
}

TEST_F(ExclusionCache, TheMostRecentlyUsedOfTheEntriesThatAnswerGivesTheVerdict)
{
    Add(alice_, u"\\a", kExcluded);
    Add(alice_, u"\\a\\b", kNotExcluded);
    // \a\b is newer than the \a that covers it.
    EXPECT_EQ(Find(alice_, u"\\a\\b"), kNotExcluded);
    // A test below \a\b brings \a to the front; from then on \a answers for \a\b too.
    EXPECT_EQ(Find(alice_, u"\\a\\b\\c"), kExcluded);
    EXPECT_EQ(Find(alice_, u"\\a\\b"), kExcluded);
    EXPECT_EQ(ListOf(alice_), (List{E(u"\\a", kExcluded), E(u"\\a\\b", kNotExcluded)}));

    // Two entries of one key stand side by side; the front one answers.
    Add(alice_, u"\\q", kNotExcluded);
    Add(alice_, u"\\q", kNotExcluded);
    Add(alice_, u"\\q", kExcluded);
    EXPECT_EQ(ListOf(alice_).size(), 5u);
    EXPECT_EQ(Find(alice_, u"\\q"), kExcluded);
}

TEST_F(ExclusionCache, TwoUsersKeepTheirOwnVerdictsForTheSamePath)
{
    UserRecord* bob = Record(kBob);
    Add(alice_, u"\\data\\music", kExcluded);
    Add(bob, u"\\data\\music", kNotExcluded);
    EXPECT_EQ(Find(alice_, u"\\data\\music\\x"), kExcluded);
    EXPECT_EQ(Find(bob, u"\\data\\music"), kNotExcluded);
    EXPECT_EQ(Find(bob, u"\\data\\music\\x"), std::nullopt);
}

TEST_F(ExclusionCache, TheInsertionPastTheLimitDropsTheLeastRecentlyUsedEntry)
{
    // \00000, \00001, ...
    auto key = [](int index) { return u"\\" + ntsim::ToUtf16(std::to_string(100000 + index)).substr(1); };
    for (int index = 0; index < EXCLUSION_CACHE_LIMIT; index++) {
        Add(alice_, key(index), index % 2 == 0);
    }
    EXPECT_EQ(alice_->exclusionCacheCount, static_cast<ULONG>(EXCLUSION_CACHE_LIMIT));

    // A hit saves the oldest entry; the next oldest goes in its place.
    EXPECT_EQ(Find(alice_, key(0)), kExcluded);
    Add(alice_, key(EXCLUSION_CACHE_LIMIT), kNotExcluded);
    EXPECT_EQ(alice_->exclusionCacheCount, static_cast<ULONG>(EXCLUSION_CACHE_LIMIT));
    EXPECT_EQ(Find(alice_, key(1)), std::nullopt);
    EXPECT_EQ(Find(alice_, key(0)), kExcluded);
    EXPECT_EQ(Find(alice_, key(2)), kExcluded);

    // An insertion that removes the entries it covers leaves room: nothing is evicted.
    Add(alice_, u"\\0000", kNotExcluded);  // covers \00000 to \00009 of its verdict: 3, 5, 7, 9
    EXPECT_EQ(alice_->exclusionCacheCount, static_cast<ULONG>(EXCLUSION_CACHE_LIMIT - 4 + 1));
    for (int index = 3; index <= 6; index++) {
        EXPECT_EQ(Find(alice_, key(index)), index % 2 == 0 ? std::optional<bool>(kExcluded) : std::nullopt) << index;
    }
}

TEST_F(ExclusionCache, AnInsertionWithoutMemoryLeavesTheCacheAsItWas)
{
    Add(alice_, u"\\a\\b", kExcluded);
    ntsim::faults::FailNthAllocation(1);
    Add(alice_, u"\\a", kExcluded);
    EXPECT_EQ(ntsim::faults::FailuresInjected(), 1u);
    ntsim::faults::Reset();
    EXPECT_EQ(ListOf(alice_), (List{E(u"\\a\\b", kExcluded)}));
}

// Runs random lookups and insertions against the cache and against a walked list, and compares
// every answer and, every `compareEvery` operations, the whole list.
void RunAgainstAWalkedList(UserRecord* record, WalkedCache& walked, std::mt19937& random, int operations,
                           size_t minimumLength, int compareEvery)
{
    auto pick = [&](size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random); };
    const std::u16string alphabet = u"\\ab";
    for (int operation = 0; operation < operations; operation++) {
        std::u16string text;
        for (size_t length = minimumLength + pick(6 - minimumLength); length > 0; length--) {
            text += alphabet[pick(alphabet.size())];
        }
        // One key in sixteen ends inside its last character.
        const USHORT bytes = static_cast<USHORT>(text.size() * 2 - (!text.empty() && pick(16) == 0 ? 1 : 0));
        const Key key(text, bytes);
        const bool excluded = pick(3) == 0;
        UNICODE_STRING string = key.String();
        switch (pick(3)) {
        case 0: {
            UCHAR verdict = 0xCC;
            const BOOLEAN hit = FindInExclusionCache(record, &string, &verdict);
            const std::optional<bool> expected = walked.Find(key.Bytes());
            ASSERT_EQ(hit != 0, expected.has_value()) << "operation " << operation;
            ASSERT_EQ(verdict != 0, expected.value_or(false)) << "operation " << operation;
            break;
        }
        case 1:
            AddToExclusionCache(record, &string, excluded ? 1 : 0);
            walked.Add(key.Bytes(), excluded);
            break;
        default: {
            // The way the filter uses the cache: an insertion after each miss.
            UCHAR verdict = 0xCC;
            if (!FindInExclusionCache(record, &string, &verdict)) {
                AddToExclusionCache(record, &string, excluded ? 1 : 0);
            }
            if (!walked.Find(key.Bytes())) {
                walked.Add(key.Bytes(), excluded);
            }
            break;
        }
        }
        if (operation % compareEvery == 0) {
            ASSERT_EQ(ListOf(record), walked.Entries()) << "operation " << operation;
        }
    }
}

TEST_F(ExclusionCache, EveryAnswerAndTheOrderOfTheListAreThoseOfAWalkedList)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    // Short keys of three characters, the empty key among them: prefixes everywhere. Short excluded
    // keys soon cover everything, so each user starts a new cache after a few hundred operations.
    for (int user = 0; user < 20; user++) {
        SCOPED_TRACE("user " + std::to_string(user));
        WalkedCache walked;
        RunAgainstAWalkedList(Record(u"S-1-5-21-7-" + ntsim::ToUtf16(std::to_string(user))), walked, random, 250, 0,
                              5);
    }
}

TEST_F(ExclusionCache, AFullCacheEvictsAsAWalkedListDoes)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    WalkedCache walked;
    // Keys that nothing else begins fill the cache close to its limit, then random keys push them out.
    for (int index = 0; index < EXCLUSION_CACHE_LIMIT - 100; index++) {
        const Key key(u"z" + ntsim::ToUtf16(std::to_string(100000 + index)));
        Add(alice_, key, index % 3 == 0);
        walked.AddUnrelated(key.Bytes(), index % 3 == 0);
    }
    ASSERT_EQ(ListOf(alice_), walked.Entries());
    RunAgainstAWalkedList(alice_, walked, random, 1000, 1, 100);
    EXPECT_EQ(ListOf(alice_), walked.Entries());
}

}  // namespace
}  // namespace foldermerge::testing
