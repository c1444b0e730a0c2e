// Redirection, redirected queries, stream listings and full-attribute queries under fault
// injection: each scenario runs again and again, failing the 1st, 2nd, 3rd ... failure point of the
// filter's own work, once and from there on (its pool, the untagged name it hands the I/O manager,
// the platform routines it calls and what they allocate for it, its messages to the service),
// until a run injects nothing. After every run (tests/filter/sweep_fixture.hpp checks the pool and
// the verifier):
//   - each answer the caller got is one the scenario can give, and all answers of one open come
//     from one source, though queries may fail with the failure: S the service's view of the file,
//     D the disk's (as if the filter weren't there), d the dummy's (a redirected open whose second
//     pass the filter gave up), R the open re-parsed under its own name, which names nothing (the
//     redirect request failed), F a failed query;
//   - no record is left.
// The run that injects nothing gives the service's view throughout.
#include "redirect_fixture.hpp"

#include "sweep_fixture.hpp"

#include <cstdio>
#include <functional>

namespace foldermerge::testing {
namespace {

ntsim::faults::PointSet FilterWork()
{
    return {.tags = {FOLDERMERGE_POOL_TAG, NTSIM_UNTAGGED_POOL_TAG, ntsim::pool::TagFromText("SeTi"),
                     ntsim::pool::TagFromText("SeSd"), ntsim::pool::TagFromText("FlFn")},
            .routines = {"FltGetVolumeName", "SeQueryInformationToken", "FltGetFileNameInformation",
                         "ZwQueryInformationProcess", "FltSendMessage", "FltCreateFileEx", "FltQueryInformationFile",
                         "ZwDeleteFile"}};
}

char ViewOf(NTSTATUS status, LONGLONG endOfFile)
{
    if (!NT_SUCCESS(status)) {
        return status == STATUS_OBJECT_PATH_NOT_FOUND ? 'R' : 'F';
    }
    return endOfFile == 5000 ? 'S' : endOfFile == 12 ? 'D' : endOfFile == 5 ? 'd' : '?';
}

struct Scenario {
    std::string name;
    std::string allowed;
    std::function<std::string()> run;  // the views of its answers, in order
};

class RedirectSweep : public RedirectingService {
protected:
    void SetUp() override
    {
        RedirectingService::SetUp();
        Redirect();
        AnswerInformation();
        volume_->SeedFile(u"\\Data\\a.txt:{22ccc030-c7fd-4d41-af27-03d193e7f165}", "map");
        ASSERT_EQ(service_.Connect(), S_OK);
    }

    // The redirected open, its standard, network-open and all queries.
    std::string RedirectedQueries()
    {
        HANDLE handle = nullptr;
        const NTSTATUS status = Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status;
        if (!NT_SUCCESS(status)) {
            return std::string(1, ViewOf(status, 0));
        }
        const QueryResult standard = Query(handle, FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION));
        const QueryResult network = Query(handle, FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION));
        const QueryResult all = Query(handle, FileAllInformation, 512);
        Close(handle);
        return {ViewOf(standard.status, standard.As<FILE_STANDARD_INFORMATION>().EndOfFile.QuadPart),
                ViewOf(network.status, network.As<FILE_NETWORK_OPEN_INFORMATION>().EndOfFile.QuadPart),
                ViewOf(all.status, all.As<FILE_ALL_INFORMATION>().StandardInformation.EndOfFile.QuadPart)};
    }

    // A followed file's stream listing: S when the map stream is hidden (::$DATA alone is left).
    std::string StreamListing()
    {
        HANDLE handle = nullptr;
        if (!NT_SUCCESS(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, &handle).status)) {
            return "?";
        }
        const QueryResult listing = Query(handle, FileStreamInformation, 512);
        Close(handle);
        if (!NT_SUCCESS(listing.status)) {
            return "F";
        }
        return listing.As<FILE_STREAM_INFORMATION>().NextEntryOffset == 0 ? "S" : "D";
    }

    std::string FullAttributes()
    {
        ntsim::AttachThread thread(alice_);
        ntsim::UnicodeStringHolder name(u"\\??\\C:\\Data\\a.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        FILE_NETWORK_OPEN_INFORMATION information{};
        const NTSTATUS status = NtQueryFullAttributesFile(&attributes, &information);
        return std::string(1, ViewOf(status, information.EndOfFile.QuadPart));
    }

    // Runs the scenario failing its 1st, 2nd, ... point until a run injects nothing; the number of
    // points it failed.
    size_t Sweep(const Scenario& scenario, ntsim::faults::Persistence persistence)
    {
        for (uint64_t n = 1;; n++) {
            volume_->SeedFile(kDummyOnVolume, "dummy");
            std::string views;
            const auto injected = RunWithNthPointFailed(
                FilterWork(), n, persistence, scenario.name, [&] { views = scenario.run(); },
                [&](const std::vector<ntsim::faults::InjectedFailure>& failures, const std::string& where) {
                    if (failures.empty()) {
                        EXPECT_EQ(views, std::string(views.size(), 'S')) << where << ": " << views;
                        return;
                    }
                    std::string sources = views;
                    std::erase(sources, 'F');
                    EXPECT_EQ(sources.find_first_not_of(sources.empty() ? 'F' : sources[0]), std::string::npos)
                        << where << ": " << views;
                    EXPECT_EQ(views.find_first_not_of(scenario.allowed), std::string::npos) << where << ": " << views;
                    EXPECT_EQ(g_ContextList, nullptr) << where;
                });
            if (injected.empty() || HasFailure()) {
                return n - 1;
            }
        }
    }
};

TEST_F(RedirectSweep, EveryFailureOfTheFiltersWorkGivesOneWholeAnswerAndLeavesNothingBehind)
{
    const Scenario scenarios[] = {
        {"redirected queries", "SDdRF", [this] { return RedirectedQueries(); }},
        {"stream listing", "SD", [this] { return StreamListing(); }},
        {"full attributes", "SDdRF", [this] { return FullAttributes(); }},
    };
    for (const Scenario& scenario : scenarios) {
        const size_t once = Sweep(scenario, ntsim::faults::Persistence::Once);
        EXPECT_EQ(Sweep(scenario, ntsim::faults::Persistence::Persistent), once) << scenario.name;
        std::printf("[  SWEEP   ] %-20s %3zu failure points\n", scenario.name.c_str(), once);
        EXPECT_GT(once, 40u) << scenario.name;
    }
}

}  // namespace
}  // namespace foldermerge::testing
