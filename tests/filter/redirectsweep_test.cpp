// Redirection, redirected queries, stream listings and full-attribute queries under fault
// injection. Each scenario is run again and again, failing the 1st, 2nd, 3rd ... failure point of
// the filter's own work (its pool, the untagged name it hands the I/O manager, the platform routines
// it calls and what they allocate for it, the messages to the service), once, until a run injects
// nothing.
//
// After every run:
//   - the caller saw one of the answers that the scenario can give: the service's view of the
//     file; the disk's view, as if the filter weren't there; for a redirected open whose second
//     pass the filter gave up on, the dummy's own view; or, where the redirect request itself
//     failed, the open re-parsed under its own name, which names nothing;
//   - every query of one open has the same view: an open is answered by one source;
//   - no block of any tag is left, no record is left, and the verifier reported nothing.
// The run that injects nothing must give the scenario's answer without failures.
#include "redirect_fixture.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>
#include <functional>
#include <optional>
#include <set>

#include "user.h"

namespace foldermerge::testing {
namespace {

using ntsim::faults::Persistence;

const ULONG kTokenInformationTag = ntsim::pool::TagFromText("SeTi");
const ULONG kSidTextTag = ntsim::pool::TagFromText("SeSd");
const ULONG kNameInformationTag = ntsim::pool::TagFromText("FlFn");

ntsim::faults::PointSet FilterWork()
{
    return {.tags = {FOLDERMERGE_POOL_TAG, NTSIM_UNTAGGED_POOL_TAG, kTokenInformationTag, kSidTextTag,
                     kNameInformationTag},
            .routines = {"FltGetVolumeName", "SeQueryInformationToken", "FltGetFileNameInformation",
                         "ZwQueryInformationProcess", "FltSendMessage", "FltCreateFileEx", "FltQueryInformationFile",
                         "ZwDeleteFile"}};
}

std::string PointName(const ntsim::faults::InjectedFailure& failure)
{
    return failure.tag != 0 ? "pool '" + ntsim::pool::TagText(failure.tag) + "'" : failure.routine;
}

// Where an answer came from, by the end of file it reports.
enum class View { Service, Disk, Dummy, Reparsed, Failed, Other };

const char* Describe(View view)
{
    switch (view) {
    case View::Service:
        return "the service's";
    case View::Disk:
        return "the disk's";
    case View::Dummy:
        return "the dummy's";
    case View::Reparsed:
        return "a re-parse of the same name";
    case View::Failed:
        return "a failed query";
    default:
        return "something else";
    }
}

View ViewOfEndOfFile(LONGLONG endOfFile)
{
    switch (endOfFile) {
    case 5000:
        return View::Service;
    case 12:
        return View::Disk;
    case 5:
        return View::Dummy;
    default:
        return View::Other;
    }
}

struct Scenario {
    std::string name;
    std::set<View> allowed;  // what a run with a failure may give
    View verdict;            // what the run without failures gives
    // Runs the scenario and gives the views of its answers, in order.
    std::function<std::vector<View>()> run;
};

class RedirectSweep : public RedirectingService {
protected:
    void SetUp() override
    {
        RedirectingService::SetUp();
        RedirectFirstPass();
        RedirectSecondPass();
        AnswerInformation();
        volume_->SeedFile(u"\\Data\\a.txt:{22ccc030-c7fd-4d41-af27-03d193e7f165}", "map");
        ASSERT_EQ(service_.Connect(), S_OK);
    }

    // The redirected attribute-only open and four queries of it.
    std::vector<View> RedirectedQueries()
    {
        HANDLE handle = nullptr;
        const OpenResult opened = Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle);
        if (opened.status == STATUS_OBJECT_PATH_NOT_FOUND) {
            return {View::Reparsed};
        }
        if (!NT_SUCCESS(opened.status)) {
            return {View::Other};
        }
        std::vector<View> views;
        const ULONG allLength = 512;
        for (FILE_INFORMATION_CLASS infoClass :
             {FileBasicInformation, FileStandardInformation, FileNetworkOpenInformation, FileAllInformation}) {
            const QueryResult result = Query(handle, infoClass, allLength);
            if (!NT_SUCCESS(result.status)) {
                views.push_back(View::Failed);
                continue;
            }
            switch (infoClass) {
            case FileBasicInformation:
                // Only the service's view has these times.
                views.push_back(result.As<FILE_BASIC_INFORMATION>().LastWriteTime.QuadPart == 3333 ? View::Service
                                                                                                   : View::Disk);
                break;
            case FileStandardInformation:
                views.push_back(ViewOfEndOfFile(result.As<FILE_STANDARD_INFORMATION>().EndOfFile.QuadPart));
                break;
            case FileNetworkOpenInformation:
                views.push_back(ViewOfEndOfFile(result.As<FILE_NETWORK_OPEN_INFORMATION>().EndOfFile.QuadPart));
                break;
            default:
                views.push_back(ViewOfEndOfFile(result.As<FILE_ALL_INFORMATION>().StandardInformation.EndOfFile.QuadPart));
                break;
            }
        }
        Close(handle);
        // The basic record tells the service's answer from the others only: any other is taken for
        // the file system's answer that the other queries of the open got.
        if (views[0] != View::Service) {
            for (size_t index = 1; index < views.size(); index++) {
                if (views[index] != View::Service && views[index] != View::Failed) {
                    views[0] = views[index];
                    break;
                }
            }
        }
        return views;
    }

    // A followed file's stream listing: the service's view hides the map stream.
    std::vector<View> StreamListing()
    {
        HANDLE handle = nullptr;
        if (!NT_SUCCESS(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, &handle).status)) {
            return {View::Other};
        }
        const QueryResult listing = Query(handle, FileStreamInformation, 512);
        Close(handle);
        if (!NT_SUCCESS(listing.status)) {
            return {View::Failed};
        }
        const auto* first = reinterpret_cast<const FILE_STREAM_INFORMATION*>(listing.bytes.data());
        return {first->NextEntryOffset == 0 ? View::Service : View::Disk};
    }

    std::vector<View> FullAttributes()
    {
        ntsim::AttachThread thread(alice_);
        ntsim::UnicodeStringHolder name(u"\\??\\C:\\Data\\a.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        FILE_NETWORK_OPEN_INFORMATION information{};
        const NTSTATUS status = NtQueryFullAttributesFile(&attributes, &information);
        if (status == STATUS_OBJECT_PATH_NOT_FOUND) {
            return {View::Reparsed};
        }
        return {NT_SUCCESS(status) ? ViewOfEndOfFile(information.EndOfFile.QuadPart) : View::Failed};
    }

    std::vector<Scenario> Scenarios()
    {
        const std::set<View> redirected = {View::Service, View::Disk, View::Dummy, View::Reparsed, View::Failed};
        return {
            {"redirected queries", redirected, View::Service, [this] { return RedirectedQueries(); }},
            {"stream listing", {View::Service, View::Disk}, View::Service, [this] { return StreamListing(); }},
            {"full attributes", redirected, View::Service, [this] { return FullAttributes(); }},
        };
    }

    // Runs the scenario failing its 1st, 2nd, ... point until a run injects nothing; the number of
    // points it failed.
    size_t Sweep(const Scenario& scenario)
    {
        size_t failed = 0;
        for (uint64_t n = 1;; n++) {
            ClearUserRecords();
            volume_->SeedFile(kDummyOnVolume, "dummy");
            const ntsim::pool::Usage filterPool = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG);
            ntsim::pool::Checkpoint checkpoint;
            std::vector<ntsim::verifier::BugCheckRecord> bugchecks;
            std::vector<ntsim::faults::InjectedFailure> injected;
            std::vector<View> views;
            {
                ntsim::verifier::BugCheckCapture capture;
                ntsim::faults::Reset();
                ntsim::faults::FailNthPointOf(FilterWork(), n, STATUS_INSUFFICIENT_RESOURCES, Persistence::Once);
                views = scenario.run();
                injected = ntsim::faults::Injected();
                ntsim::faults::Reset();
                bugchecks = capture.Take();
            }
            const std::string where = scenario.name + ", point " + std::to_string(n) +
                                      (injected.empty() ? " (none left)" : " (" + PointName(injected[0]) + ")");
            std::string seen;
            for (View view : views) {
                seen += std::string(seen.empty() ? "" : ", ") + Describe(view);
            }
            if (injected.empty()) {
                EXPECT_EQ(views, std::vector<View>(views.size(), scenario.verdict)) << where << ": " << seen;
            } else {
                failed++;
                // One source answers an open; a single query may fail with the failure.
                std::set<View> sources(views.begin(), views.end());
                sources.erase(View::Failed);
                EXPECT_LE(sources.size(), 1u) << where << ": " << seen;
                for (View view : views) {
                    EXPECT_TRUE(scenario.allowed.count(view)) << where << ": " << seen;
                }
            }
            ClearUserRecords();
            EXPECT_EQ(g_ContextList, nullptr) << where;
            const std::vector<ntsim::pool::Allocation> leaks = checkpoint.Leaks();
            EXPECT_TRUE(leaks.empty()) << where << ": left in pool\n" << ntsim::pool::FormatReport(leaks);
            EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, filterPool.liveCount) << where;
            for (const auto& record : bugchecks) {
                ADD_FAILURE() << where << ": bugcheck " << record.rule << "\n" << record.detail;
            }
            if (injected.empty() || ::testing::Test::HasFailure()) {
                return failed;
            }
        }
    }
};

TEST_F(RedirectSweep, EveryFailureOfTheFiltersWorkGivesOneWholeAnswerAndLeavesNothingBehind)
{
    for (const Scenario& scenario : Scenarios()) {
        const size_t points = Sweep(scenario);
        std::printf("[  SWEEP   ] %-20s %3zu failure points\n", scenario.name.c_str(), points);
        EXPECT_GT(points, 20u) << scenario.name;
    }
}

}  // namespace
}  // namespace foldermerge::testing
