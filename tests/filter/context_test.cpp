// The file context table: records made, linked, found, renamed, invalidated and freed, with the
// table walked newest first, and its indexes giving the answers a walk of the list gives.
#include "dirtyblock_fixture.hpp"

#include <ntsim/sim/faults.hpp>

#include <algorithm>
#include <array>
#include <random>

#include "context.h"

namespace foldermerge::testing {
namespace {

constexpr char16_t kPath[] = u"\\Device\\HarddiskVolume2\\Data\\a.txt";
constexpr char16_t kOtherPath[] = u"\\Device\\HarddiskVolume2\\Data\\b.txt";
constexpr char16_t kNewPath[] = u"\\Device\\HarddiskVolume2\\Data\\renamed.txt";

class ContextTable : public LoadedFilter {
protected:
    void TearDown() override
    {
        for (FileContext* context : unlinked_) {
            DeleteContext(context);
        }
        LoadedFilter::TearDown();
    }

    // A record of file object `object`, linked into the table.
    FileContext* Add(size_t object, std::u16string_view path = kPath, std::u16string_view sid = kAlice)
    {
        FileContext* context = Make(object, path, sid);
        EXPECT_TRUE(AddContextToContextTable(context));
        return context;
    }

    // A record that is in no table; the fixture deletes it unless the test links it.
    FileContext* Make(size_t object, std::u16string_view path = kPath, std::u16string_view sid = kAlice)
    {
        ntsim::UnicodeStringHolder pathText(path);
        ntsim::UnicodeStringHolder sidText(sid);
        FileContext* context = nullptr;
        EXPECT_EQ(CreateContext(&objects_[object], pathText.get(), sidText.get(), &context), STATUS_SUCCESS);
        return context;
    }

    // Takes a record out of the table and frees it, as the close of its file object does.
    static void Close(FileContext* context)
    {
        EXPECT_TRUE(RemoveContextFromContextTable(context));
        EXPECT_EQ(DeleteContext(context), STATUS_SUCCESS);
    }

    FileContext* Find(size_t object, bool includeInvalid = false)
    {
        return FindContextByFileObject(&objects_[object], includeInvalid ? TRUE : FALSE);
    }

    // The table as a walk from its head sees it.
    static std::vector<FileContext*> Walk()
    {
        std::vector<FileContext*> records;
        for (FileContext* context = g_ContextList; context != nullptr; context = context->pNext) {
            records.push_back(context);
        }
        return records;
    }

    static bool Rename(std::u16string_view sid, std::u16string_view from, std::u16string_view to)
    {
        ntsim::UnicodeStringHolder sidText(sid), fromText(from), toText(to);
        return RenameContexts(sidText.get(), fromText.get(), toText.get());
    }

    static bool Invalidate(std::u16string_view sid, std::u16string_view path)
    {
        ntsim::UnicodeStringHolder sidText(sid), pathText(path);
        return InvalidateContexts(sidText.get(), pathText.get());
    }

    static bool Locked(std::u16string_view path)
    {
        ntsim::UnicodeStringHolder pathText(path);
        return HasLockedContext(pathText.get());
    }

    std::array<FILE_OBJECT, 8> objects_{};
    std::vector<FileContext*> unlinked_;
};

TEST_F(ContextTable, AnEmptyTableFindsNothingAndItsWalksReportFalse)
{
    EXPECT_EQ(Find(0), nullptr);
    EXPECT_EQ(Find(0, true), nullptr);
    EXPECT_FALSE(IsContextValid(reinterpret_cast<FileContext*>(&objects_[0])));
    EXPECT_FALSE(Rename(kAlice, kPath, kNewPath));
    EXPECT_FALSE(Invalidate(kAlice, kPath));
    EXPECT_FALSE(Locked(kPath));

    FileContext* context = Make(0);
    unlinked_.push_back(context);
    EXPECT_FALSE(RemoveContextFromContextTable(context));

    EXPECT_FALSE(AddContextToContextTable(nullptr));
    EXPECT_FALSE(RemoveContextFromContextTable(nullptr));
    EXPECT_FALSE(IsContextValid(nullptr));
}

TEST_F(ContextTable, ARecordIsBuiltValidWithCopiesOfItsStringsThatKeepTheirCapacity)
{
    ntsim::UnicodeStringHolder path(kPath, 200);
    ntsim::UnicodeStringHolder sid(kAlice);
    FileContext* context = nullptr;
    ASSERT_EQ(CreateContext(&objects_[0], path.get(), sid.get(), &context), STATUS_SUCCESS);
    unlinked_.push_back(context);

    EXPECT_EQ(context->RecordType, static_cast<ULONG>(RECORD_TYPE_FILE_CONTEXT));
    EXPECT_EQ(context->pFileObject, &objects_[0]);
    EXPECT_EQ(context->bValid, 1);
    ASSERT_NE(context->pstrPath, nullptr);
    EXPECT_NE(context->pstrPath->Buffer, path->Buffer);
    EXPECT_EQ(ntsim::ToUtf8(*context->pstrPath), ntsim::ToUtf8(kPath));
    EXPECT_EQ(context->pstrPath->MaximumLength, 200);
    EXPECT_EQ(ntsim::ToUtf8(*context->pstrSid), ntsim::ToUtf8(kAlice));
    EXPECT_EQ(context->pstrFilter, nullptr);
    EXPECT_EQ(context->pTrackedDirtyBlockFile, nullptr);
    EXPECT_EQ(context->OnClose, 0u);
    EXPECT_EQ(context->pNext, nullptr);
}

TEST_F(ContextTable, ARecordThatCantHaveItsPathOrSidIsNotMadeAndLeavesNothingBehind)
{
    ntsim::UnicodeStringHolder path(kPath);
    ntsim::UnicodeStringHolder sid(kAlice);
    // The record, the SID copy and the path copy, in that order.
    for (uint64_t point = 1; point <= 3; point++) {
        const auto before = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
        FileContext* context = reinterpret_cast<FileContext*>(0x1);
        ntsim::faults::FailNthAllocation(point);
        EXPECT_EQ(CreateContext(&objects_[0], path.get(), sid.get(), &context), STATUS_INSUFFICIENT_RESOURCES)
            << "allocation " << point;
        ntsim::faults::Reset();
        EXPECT_EQ(context, reinterpret_cast<FileContext*>(0x1)) << "allocation " << point;
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, before) << "allocation " << point;
    }
}

TEST_F(ContextTable, DeletingARecordFreesEveryStringItHolds)
{
    const auto before = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
    FileContext* context = Make(0);
    ntsim::UnicodeStringHolder text(u"*.txt");
    context->pstrFilter = CopyUnicodeString(text.get());
    context->pstrRenameTarget = CopyUnicodeString(text.get());
    context->pstrTemporaryFile = CopyUnicodeString(text.get());
    context->pstrSignatureName = CopyUnicodeString(text.get());
    context->pDirectoryListing = static_cast<PUCHAR>(AllocateBuffer(POOL_SELECTOR_PAGED, 64));
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, before + 8);
    EXPECT_EQ(DeleteContext(context), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, before);
    EXPECT_EQ(DeleteContext(nullptr), STATUS_SUCCESS);
}

TEST_F(ContextTable, NewRecordsEnterAtTheHeadAndTheNewestOfAFileObjectWinsEveryLookup)
{
    FileContext* first = Add(0);
    FileContext* other = Add(1, kOtherPath);
    FileContext* second = Add(0);
    EXPECT_EQ(Walk(), (std::vector<FileContext*>{second, other, first}));
    EXPECT_EQ(Find(0), second);
    EXPECT_EQ(Find(1), other);
    EXPECT_EQ(Find(2), nullptr);

    // An invalid record is seen by the close alone; an older valid one behind it answers the others.
    second->bValid = 0;
    EXPECT_EQ(Find(0), first);
    EXPECT_EQ(Find(0, true), second);
    first->bValid = 0;
    EXPECT_EQ(Find(0), nullptr);
    EXPECT_EQ(Find(0, true), second);

    // The close deletes the newest; the older record of the same object stays in the table.
    Close(Find(0, true));
    EXPECT_EQ(Find(0, true), first);
    EXPECT_EQ(Walk(), (std::vector<FileContext*>{other, first}));
}

TEST_F(ContextTable, RecordsLeaveTheTableFromAnyPlaceAndAreThenNeitherFoundNorValid)
{
    std::vector<FileContext*> records;
    for (size_t object = 0; object < 5; object++) {
        records.push_back(Add(object));
    }
    Close(records[2]);  // the middle
    Close(records[4]);  // the head
    Close(records[0]);  // the tail
    EXPECT_EQ(Walk(), (std::vector<FileContext*>{records[3], records[1]}));
    EXPECT_EQ(Find(2, true), nullptr);
    EXPECT_EQ(Find(3), records[3]);

    // The pointers are stale now: the table tells without reading them (AddressSanitizer would see it).
    EXPECT_FALSE(IsContextValid(records[2]) || IsContextValid(records[4]));
    EXPECT_TRUE(IsContextValid(records[1]));
    records[1]->bValid = 0;
    EXPECT_FALSE(IsContextValid(records[1]));

    // A record that was never linked isn't removed, and the table stays as it was.
    FileContext* stray = Make(6);
    unlinked_.push_back(stray);
    EXPECT_FALSE(RemoveContextFromContextTable(stray));
    EXPECT_EQ(Walk(), (std::vector<FileContext*>{records[3], records[1]}));
}

TEST_F(ContextTable, ARenameRewritesEveryOpenOfThePathUnderThatSidAndNoOther)
{
    FileContext* first = Add(0, kPath);
    FileContext* second = Add(1, u"\\DEVICE\\HarddiskVolume2\\data\\A.TXT");
    FileContext* bobs = Add(2, kPath, kBob);
    FileContext* other = Add(3, kOtherPath);

    EXPECT_TRUE(Rename(kAlice, kPath, kNewPath));
    EXPECT_EQ(ntsim::ToUtf8(*first->pstrPath), ntsim::ToUtf8(kNewPath));
    EXPECT_EQ(ntsim::ToUtf8(*second->pstrPath), ntsim::ToUtf8(kNewPath));
    EXPECT_EQ(ntsim::ToUtf8(*bobs->pstrPath), ntsim::ToUtf8(kPath));
    EXPECT_EQ(ntsim::ToUtf8(*other->pstrPath), ntsim::ToUtf8(kOtherPath));

    // The walks find the records under their new path, and not under the old one.
    EXPECT_TRUE(Rename(kAlice, kPath, kOtherPath));
    EXPECT_EQ(ntsim::ToUtf8(*first->pstrPath), ntsim::ToUtf8(kNewPath));
    EXPECT_TRUE(Invalidate(kAlice, u"\\device\\harddiskvolume2\\data\\RENAMED.txt"));
    EXPECT_EQ((std::vector<int>{first->bValid, second->bValid, bobs->bValid, other->bValid}),
              (std::vector<int>{0, 0, 1, 1}));

    // A walk that matches nothing still reports that it walked.
    EXPECT_TRUE(Rename(kAlice, u"\\nowhere", kNewPath));

    ntsim::UnicodeStringHolder sid(kAlice), path(kPath);
    EXPECT_FALSE(RenameContexts(nullptr, path.get(), path.get()));
    EXPECT_FALSE(RenameContexts(sid.get(), nullptr, path.get()));
    EXPECT_FALSE(RenameContexts(sid.get(), path.get(), nullptr));
    EXPECT_FALSE(InvalidateContexts(nullptr, path.get()));
    EXPECT_FALSE(InvalidateContexts(sid.get(), nullptr));
}

TEST_F(ContextTable, ARenameFromARecordsOwnPathStringReadsNoFreedText)
{
    FileContext* first = Add(0, kPath);
    FileContext* second = Add(1, kPath);
    ntsim::UnicodeStringHolder sid(kAlice), to(kNewPath);
    // The first match's old string is the one the walk compares the others with.
    EXPECT_TRUE(RenameContexts(sid.get(), second->pstrPath, to.get()));
    EXPECT_EQ(ntsim::ToUtf8(*first->pstrPath), ntsim::ToUtf8(kNewPath));
    EXPECT_EQ(ntsim::ToUtf8(*second->pstrPath), ntsim::ToUtf8(kNewPath));

    // Renamed onto the string of a record that the walk rewrites: whichever record it meets first,
    // the other still copies the text.
    ntsim::UnicodeStringHolder from(kNewPath);
    EXPECT_TRUE(RenameContexts(sid.get(), from.get(), first->pstrPath));
    EXPECT_TRUE(RenameContexts(sid.get(), from.get(), second->pstrPath));
    EXPECT_EQ(ntsim::ToUtf8(*first->pstrPath), ntsim::ToUtf8(kNewPath));
    EXPECT_EQ(ntsim::ToUtf8(*second->pstrPath), ntsim::ToUtf8(kNewPath));
}

TEST_F(ContextTable, ARecordLeftWithoutAPathByARenameIsMatchedByNoLaterWalk)
{
    FileContext* first = Add(0);
    FileContext* second = Add(1);
    first->bLocked = 1;
    second->bLocked = 1;

    // The walk meets the newest record first: its copy fails, the next one's works.
    ntsim::faults::FailNthAllocation(1);
    EXPECT_TRUE(Rename(kAlice, kPath, kNewPath));
    ntsim::faults::Reset();
    EXPECT_EQ(second->pstrPath, nullptr);
    ASSERT_NE(first->pstrPath, nullptr);
    EXPECT_EQ(ntsim::ToUtf8(*first->pstrPath), ntsim::ToUtf8(kNewPath));

    EXPECT_FALSE(Locked(kPath));
    EXPECT_TRUE(Invalidate(kAlice, kPath));
    EXPECT_EQ(second->bValid, 1);
    EXPECT_EQ(Find(1), second);
    Close(second);
}

TEST_F(ContextTable, TheSamePathUnderTwoSidsIsInvalidatedPerSidButSeenLockedByAny)
{
    FileContext* alices = Add(0);
    FileContext* bobs = Add(1, kPath, kBob);
    EXPECT_FALSE(Locked(kPath));
    bobs->bLocked = 1;
    EXPECT_TRUE(Locked(u"\\device\\harddiskvolume2\\DATA\\a.txt"));
    EXPECT_FALSE(Locked(kOtherPath));

    // The cleanup that asks has cleared its own record first: an invalid record doesn't count.
    EXPECT_TRUE(Invalidate(kBob, kPath));
    EXPECT_EQ(bobs->bValid, 0);
    EXPECT_EQ(alices->bValid, 1);
    EXPECT_FALSE(Locked(kPath));

    // A record that lives for a cache flush never holds the lock.
    alices->bLocked = 1;
    alices->bCreatedForCcFlush = 1;
    EXPECT_FALSE(Locked(kPath));
    alices->bCreatedForCcFlush = 0;
    EXPECT_TRUE(Locked(kPath));
    EXPECT_FALSE(HasLockedContext(nullptr));
}

class ContextsOfTrackedFiles : public DirtyBlockTest {};

TEST_F(ContextsOfTrackedFiles, EachDeletedRecordGivesItsReferenceBackAndTheLastOneWritesTheMap)
{
    volume_->SeedFile(u"\\Data\\a.txt", std::string(3 * 4096, 'x'));
    std::array<FILE_OBJECT, 2> objects{};
    std::array<FileContext*, 2> contexts{};
    ntsim::UnicodeStringHolder path(DevicePath(u"\\Data\\a.txt")), sid(kAlice);
    for (size_t index = 0; index < contexts.size(); index++) {
        ASSERT_EQ(CreateContext(&objects[index], path.get(), sid.get(), &contexts[index]), STATUS_SUCCESS);
        contexts[index]->pTrackedDirtyBlockFile = MustGet(u"\\Data\\a.txt");
        ASSERT_TRUE(AddContextToContextTable(contexts[index]));
    }
    TrackedDirtyBlockFile* tracked = contexts[0]->pTrackedDirtyBlockFile;
    EXPECT_EQ(tracked->refCount, 2u);
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value()) << "the load took the stream";

    ASSERT_TRUE(RemoveContextFromContextTable(contexts[1]));
    EXPECT_EQ(DeleteContext(contexts[1]), STATUS_SUCCESS);
    EXPECT_EQ(tracked->refCount, 1u);
    EXPECT_FALSE(Stream(u"\\Data\\a.txt").has_value());

    ASSERT_TRUE(RemoveContextFromContextTable(contexts[0]));
    EXPECT_EQ(DeleteContext(contexts[0]), STATUS_SUCCESS);
    EXPECT_TRUE(ListedRecords().empty());
    EXPECT_TRUE(Stream(u"\\Data\\a.txt").has_value()) << "the last reference wrote the map back";
}

// Thousands of records of a few file objects and paths, added, closed, invalidated and renamed at
// random: every lookup gives what a walk of the list from its head gives, through the growth of the
// indexes and back.
TEST_F(ContextTable, LookupsAgreeWithAWalkOfTheListThroughThousandsOfRandomChanges)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::array<ntsim::UnicodeStringHolder, 3> paths = {ntsim::UnicodeStringHolder(kPath),
                                                       ntsim::UnicodeStringHolder(kOtherPath),
                                                       ntsim::UnicodeStringHolder(kNewPath)};
    std::array<ntsim::UnicodeStringHolder, 2> sids = {ntsim::UnicodeStringHolder(kAlice),
                                                      ntsim::UnicodeStringHolder(kBob)};
    auto pick = [&](size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random); };
    auto same = [](const OwnedString* text, const ntsim::UnicodeStringHolder& expected) {
        return text != nullptr && RtlEqualUnicodeString(text, expected.get(), FALSE);
    };
    auto walkFind = [&](const std::vector<FileContext*>& walk, size_t object, bool includeInvalid) -> FileContext* {
        for (FileContext* context : walk) {
            if (context->pFileObject == &objects_[object] && (includeInvalid || context->bValid)) {
                return context;
            }
        }
        return nullptr;
    };

    size_t live = 0;
    for (int step = 0; step < 2000; step++) {
        const size_t object = pick(objects_.size());
        // Records pile up in the first half, then the table grows more slowly.
        const size_t action = pick(step < 1000 ? 10 : 12);
        if (action < 5) {
            FileContext* context = Add(object, paths[pick(paths.size())].view(), sids[pick(sids.size())].view());
            context->bLocked = static_cast<UCHAR>(pick(2));
            live++;
        } else if (action < 7) {
            if (FileContext* context = walkFind(Walk(), object, pick(2) == 0); context != nullptr) {
                context->bValid = 0;
            }
        } else if (action == 7) {
            const auto& sid = sids[pick(sids.size())];
            const auto& path = paths[pick(paths.size())];
            std::vector<std::pair<FileContext*, bool>> expected;
            for (FileContext* context : Walk()) {
                bool match = same(context->pstrSid, sid) && same(context->pstrPath, path);
                expected.emplace_back(context, !match && context->bValid != 0);
            }
            EXPECT_EQ(InvalidateContexts(sid.get(), path.get()), live != 0);
            for (const auto& [context, valid] : expected) {
                ASSERT_EQ(context->bValid != 0, valid) << "step " << step;
            }
        } else if (action == 8 && pick(3) == 0) {
            EXPECT_EQ(RenameContexts(sids[0].get(), paths[pick(paths.size())].get(), paths[pick(paths.size())].get()),
                      live != 0);
        } else if (action == 8) {
            continue;
        } else if (FileContext* context = walkFind(Walk(), object, true); context != nullptr) {
            Close(context);
            live--;
        }

        const std::vector<FileContext*> walk = Walk();
        ASSERT_EQ(walk.size(), live);
        for (size_t probe = 0; probe < objects_.size(); probe++) {
            ASSERT_EQ(Find(probe), walkFind(walk, probe, false)) << "step " << step << ", object " << probe;
            ASSERT_EQ(Find(probe, true), walkFind(walk, probe, true)) << "step " << step << ", object " << probe;
        }
        for (const auto& path : paths) {
            bool locked = std::any_of(walk.begin(), walk.end(), [&](FileContext* context) {
                return context->bValid && context->bLocked && !context->bCreatedForCcFlush &&
                       same(context->pstrPath, path);
            });
            ASSERT_EQ(HasLockedContext(path.get()), locked) << "step " << step;
        }
    }
}

}  // namespace
}  // namespace foldermerge::testing
