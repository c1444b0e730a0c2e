// Exclusion verdicts against a scripted service: a file is judged by its directory and a directory
// by itself, the service is asked once per key and its answer cached whatever it was, each user
// apart; and through the open gate, an excluded open passes, until the next configuration.
#include "request_fixture.hpp"
#include "trace_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/process.hpp>

#include <algorithm>
#include <future>
#include <memory>

#include "exclusions.h"
#include "user.h"

namespace foldermerge::testing {
namespace {

using service::ReplyContent;
using service::RequestView;
using service::ResponderAction;
using service::ScriptedResponder;

constexpr char16_t kMusic[] = u"\\Device\\HarddiskVolume2\\Data\\Music";
constexpr int32_t kNotExcludedStatus = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND);

// The scripted service's exclusion answers: status 0 (excluded) for the given directories, another
// status for everything else.
void ExcludeDirectories(ScriptedResponder& service, std::vector<std::u16string> directories)
{
    for (const auto& directory : directories) {
        service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .path = directory, .reply = {.status = 0}});
    }
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .reply = {.status = kNotExcludedStatus}});
}

// The paths of the exclusion queries that the service received, in order; other requests (the
// download of a managed open and its unlock at cleanup) aren't counted.
std::vector<std::string> AskedPaths(const ScriptedResponder& service)
{
    std::vector<std::string> paths;
    for (const auto& request : service.Requests()) {
        if (request.view && request.view->code != SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE) {
            continue;
        }
        paths.push_back(request.view ? ntsim::ToUtf8(request.view->path) : "<" + request.decodeError + ">");
    }
    return paths;
}

class ExclusionVerdicts : public RequestTest {
protected:
    void SetUp() override
    {
        RequestTest::SetUp();
        volume_->SeedFile(u"\\Data\\Music\\song.mp3", "la");
        volume_->SeedFile(u"\\Data\\Docs\\letter.txt", "dear");
        objects_ = std::make_unique<FLT_RELATED_OBJECTS>(RelatedObjects());
    }

    UCHAR ByDirectory(std::u16string_view path, std::u16string_view sid = kAlice)
    {
        ntsim::UnicodeStringHolder sidText(sid), pathText(path);
        return IsExcludedByDirectory(sidText.get(), pathText.get(), objects_.get(), &iopb_);
    }

    UCHAR ByPath(std::u16string_view path, std::u16string_view sid = kAlice)
    {
        ntsim::UnicodeStringHolder sidText(sid), pathText(path);
        return IsExcludedByPath(sidText.get(), pathText.get(), objects_.get(), &iopb_);
    }

    std::unique_ptr<FLT_RELATED_OBJECTS> objects_;
};

TEST_F(ExclusionVerdicts, AFileIsJudgedByItsDirectoryWhichCoversEverythingBelowIt)
{
    ScriptedResponder service;
    ExcludeDirectories(service, {kMusic});
    ASSERT_EQ(service.Connect(), S_OK);

    // The service sees the directory as the caller spelled it; the key is folded.
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\MUSIC\\song.mp3"), 1);
    EXPECT_EQ(AskedPaths(service), std::vector<std::string>{"\\Device\\HarddiskVolume2\\Data\\MUSIC"});

    // A file that doesn't exist yet, the directory itself, and a path below it: all from the cache.
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\new.mp3"), 1);
    EXPECT_EQ(ByDirectory(kMusic), 1);
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\Live\\1999\\track.mp3"), 1);
    // No separator check: a sibling whose name begins with the excluded one's is covered too.
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Musicals\\cats.mp3"), 1);
    EXPECT_EQ(service.RequestCount(), 1u);
}

TEST_F(ExclusionVerdicts, ANotExcludedDirectoryAnswersForItselfAndTheServiceIsAskedBelowIt)
{
    ScriptedResponder service;
    ExcludeDirectories(service, {});
    ASSERT_EQ(service.Connect(), S_OK);

    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data"), 0);
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Docs\\letter.txt"), 0);
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Docs\\letter.txt"), 0);
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Docs\\other.txt"), 0);
    // \Data\Docs isn't kept beside \Data, which makes it redundant: it is asked again.
    EXPECT_EQ(AskedPaths(service), (std::vector<std::string>{"\\Device\\HarddiskVolume2\\Data",
                                                             "\\Device\\HarddiskVolume2\\Data\\Docs",
                                                             "\\Device\\HarddiskVolume2\\Data\\Docs",
                                                             "\\Device\\HarddiskVolume2\\Data\\Docs"}));
}

TEST_F(ExclusionVerdicts, APathWithoutABackslashAfterItsFirstCharacterIsJudgedWhole)
{
    ScriptedResponder service;
    ExcludeDirectories(service, {});
    ASSERT_EQ(service.Connect(), S_OK);
    EXPECT_EQ(ByDirectory(u"\\nothing.txt"), 0);
    EXPECT_EQ(ByDirectory(u"nothing.txt"), 0);
    EXPECT_EQ(AskedPaths(service), (std::vector<std::string>{"\\nothing.txt", "nothing.txt"}));
}

TEST_F(ExclusionVerdicts, ByPathTheServiceIsAskedAboutThePathAsGiven)
{
    ScriptedResponder service;
    ExcludeDirectories(service, {u"\\Device\\HarddiskVolume2\\Data\\Docs\\letter.txt"});
    ASSERT_EQ(service.Connect(), S_OK);
    EXPECT_EQ(ByPath(u"\\Device\\HarddiskVolume2\\Data\\Docs\\letter.txt"), 1);
    EXPECT_EQ(ByPath(u"\\Device\\HarddiskVolume2\\Data\\Docs"), 0);
    EXPECT_EQ(ByPath(u"\\device\\harddiskvolume2\\data\\docs\\LETTER.TXT"), 1);
    EXPECT_EQ(AskedPaths(service), (std::vector<std::string>{"\\Device\\HarddiskVolume2\\Data\\Docs\\letter.txt",
                                                             "\\Device\\HarddiskVolume2\\Data\\Docs"}));
}

TEST_F(ExclusionVerdicts, TwoUsersGetTheirOwnAnswersForTheSamePath)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .answer = [](const RequestView& request) {
                         return ReplyContent{.status = request.sid == kAlice ? 0 : kNotExcludedStatus};
                     }});
    ASSERT_EQ(service.Connect(), S_OK);
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(ByDirectory(kMusic, kAlice), 1);
        EXPECT_EQ(ByDirectory(kMusic, kBob), 0);
    }
    EXPECT_EQ(service.RequestCount(), 2u);
}

TEST_F(ExclusionVerdicts, AnAnswerThatNeverCameIsCachedAsNotExcludedUntilTheNextConfiguration)
{
    // No service: the request fails, and its verdict stands.
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\song.mp3"), 0);

    ScriptedResponder service;
    ExcludeDirectories(service, {kMusic});
    ASSERT_EQ(service.Connect(), S_OK);
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\song.mp3"), 0);
    EXPECT_EQ(service.RequestCount(), 0u);

    // A configuration forgets every verdict.
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\song.mp3"), 1);
    EXPECT_EQ(service.RequestCount(), 1u);
}

TEST_F(ExclusionVerdicts, AQueryThatTimedOutLeavesNotExcludedForTheNextTestsWithoutARequest)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .action = ResponderAction::NoAnswer, .uses = 1});
    ExcludeDirectories(service, {kMusic});
    ASSERT_EQ(service.Connect(), S_OK);

    auto verdict = std::async(std::launch::async, [&] {
        return ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\song.mp3");
    });
    ASSERT_TRUE(service.WaitForHandled(1));
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    EXPECT_EQ(verdict.get(), 0);

    // The service would now say excluded, but isn't asked.
    EXPECT_EQ(ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\song.mp3"), 0);
    EXPECT_EQ(service.RequestCount(), 1u);
}

// Each allocation of a test failed in turn, from a state without records: the verdict is the
// service's whenever the service answered, 0 otherwise; nothing is left behind. When the user's
// record can't be made the service still decides, and nothing is cached.
TEST_F(ExclusionVerdicts, WithoutMemoryTheVerdictIsTheServicesWhenItWasAskedAndNotExcludedOtherwise)
{
    ScriptedResponder service;
    ExcludeDirectories(service, {kMusic});
    ASSERT_EQ(service.Connect(), S_OK);
    const ntsim::faults::PointSet filterPool{.tags = {FOLDERMERGE_POOL_TAG}};
    bool decidedWithoutRecord = false;
    for (uint64_t n = 1;; n++) {
        ClearUserRecords();
        const auto before = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
        const size_t asked = service.RequestCount();
        ntsim::faults::FailNthPointOf(filterPool, n);
        const UCHAR excluded = ByDirectory(u"\\Device\\HarddiskVolume2\\Data\\Music\\song.mp3");
        const bool injected = ntsim::faults::FailuresInjected() != 0;
        ntsim::faults::Reset();
        ASSERT_TRUE(service.WaitForHandled(service.RequestCount()));
        const auto requests = service.Requests();
        const bool answered = requests.size() > asked && requests.back().answered;
        EXPECT_EQ(excluded, answered ? 1 : 0) << "allocation " << n;

        UserRecord* record = nullptr;
        for (PLIST_ENTRY link = g_UserList.Flink; link != &g_UserList; link = link->Flink) {
            record = CONTAINING_RECORD(link, UserRecord, userListEntry);
        }
        decidedWithoutRecord |= excluded == 1 && record == nullptr;
        EXPECT_TRUE(record == nullptr || record->exclusionCacheCount <= 1) << "allocation " << n;
        ClearUserRecords();
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, before) << "allocation " << n;
        if (!injected) {
            EXPECT_EQ(excluded, 1);
            break;
        }
    }
    EXPECT_TRUE(decidedWithoutRecord);
}

// ---- through the open gate ----

class ExcludedOpens : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\Music\\song.mp3", "la");
        volume_->SeedFile(u"\\Data\\a.txt", "a");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        TakeEvents();
        alice_ = UserProcess(kAlice);
    }

    // Opens path as alice and returns the open gate's lines.
    std::vector<std::string> OpenAsAlice(std::u16string_view path)
    {
        {
            ntsim::AttachThread attach(alice_);
            EXPECT_EQ(OpenAndClose(path, FILE_READ_DATA).status, STATUS_SUCCESS) << ntsim::ToUtf8(path);
        }
        std::vector<std::string> lines;
        for (const TraceEvent& event : TakeEvents()) {
            if (event.function == "FolderMerge_PreCreate") {
                lines.push_back(event.message);
            }
        }
        return lines;
    }

    static bool Holds(const std::vector<std::string>& lines, std::string_view text)
    {
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.find(text) != line.npos; });
    }

    std::shared_ptr<ntsim::Process> alice_;
};

TEST_F(ExcludedOpens, AnOpenThatTheServiceExcludesPassesTheGateUntilTheNextConfiguration)
{
    ScriptedResponder service;
    ExcludeDirectories(service, {kMusic});
    ASSERT_EQ(service.Connect(), S_OK);

    auto lines = OpenAsAlice(u"\\??\\C:\\Data\\Music\\song.mp3");
    EXPECT_TRUE(Holds(lines, "[EXIT] - Ignoring excluded file [\\Device\\HarddiskVolume2\\Data\\Music\\song.mp3]"))
        << ::testing::PrintToString(lines);
    EXPECT_FALSE(Holds(lines, "Normalized requested Path"));

    // An open elsewhere in the folder goes on as managed content.
    lines = OpenAsAlice(u"\\??\\C:\\Data\\a.txt");
    EXPECT_FALSE(Holds(lines, "Ignoring excluded file"));
    EXPECT_TRUE(Holds(lines, "Normalized requested Path is [\\Device\\HarddiskVolume2\\Data\\a.txt]"));

    // The verdicts stand: the same opens ask nothing more.
    OpenAsAlice(u"\\??\\C:\\Data\\Music\\song.mp3");
    OpenAsAlice(u"\\??\\C:\\Data\\a.txt");
    EXPECT_EQ(AskedPaths(service), (std::vector<std::string>{"\\Device\\HarddiskVolume2\\Data\\Music",
                                                             "\\Device\\HarddiskVolume2\\Data"}));

    // Until the next configuration.
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
    TakeEvents();
    EXPECT_TRUE(Holds(OpenAsAlice(u"\\??\\C:\\Data\\Music\\song.mp3"), "Ignoring excluded file"));
    EXPECT_EQ(AskedPaths(service).size(), 3u);
}

}  // namespace
}  // namespace foldermerge::testing
