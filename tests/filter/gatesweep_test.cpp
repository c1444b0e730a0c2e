// The open gate under fault injection. Each class of open that the gate knows is run again and
// again, failing the 1st, 2nd, 3rd ... failure point of the filter's own work, once or from that
// point on, until a run injects nothing.
//
// The filter's own work for an open is its pool (its one tag), the platform routines it calls
// (FltGetVolumeName, SeQueryInformationToken, FltGetFileNameInformation, ZwQueryInformationProcess,
// and EtwWrite, for tracing is on), and what those routines allocate for it: the token's user record,
// the SID text and the name information. The I/O manager's own allocations for the same open are
// never failed: they would fail the open before the filter sees it.
//
// After every run:
//   - the caller saw what it sees without failures, or, where the gate refuses the open, the open
//     passing as if the filter weren't there: the filter fails open, and never with a status of its
//     own;
//   - the pool is as it was before the open: no block of any tag is left, and the filter's tag has
//     the blocks it had (the configuration is untouched);
//   - the verifier reported nothing.
// The run that injects nothing ends the sweep and must give the class's verdict again, and the test
// ends with an unload that leaves the pool clean.
//
// Failure points of each class (the test prints them in their order). Every open passes 8 on its
// way to the classification (the path and the SID); the rest are the lookups' copies, the process
// image name (an allocation, the name query twice and its buffer), the exclusion test of a managed
// open (its two copies of the path, the user record and its SID, the request to the service, the
// cached verdict), the file's information read below the filter, the record that follows a managed
// open (no service is connected, so its requests fail at once) and the trace writes:
//   own folder 67, another user's folder 62, blacklisted in own folder 13, blacklisted in another
//   user's folder 13, not managed 8, dummy file 63, read-only refusal 35, merge folder deletion
//   refusal 34, stream path 35, kernel mode for attributes 9, kernel mode for content 36, relative
//   open 35, short-name path 38 (the long name: the name query, its record and the filter's copy).
#include "sweep_fixture.hpp"
#include "trace_fixture.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/process.hpp>

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>


namespace foldermerge::testing {

bool operator==(const OpenResult& left, const OpenResult& right)
{
    return left.status == right.status && left.information == right.information;
}

std::string Describe(const OpenResult& result)
{
    std::ostringstream text;
    text << "status 0x" << std::hex << static_cast<ULONG>(result.status) << ", information " << std::dec
         << result.information;
    return text.str();
}

void PrintTo(const OpenResult& result, std::ostream* out)
{
    *out << Describe(result);
}

namespace {

using ntsim::faults::Persistence;

constexpr char16_t kDummyFileName[] = u"vm_redirected_a2210125-0016-41ce-b6e7-495eee531977";

// The tags under which the platform allocates what it hands the filter for an open.
const ULONG kTokenInformationTag = ntsim::pool::TagFromText("SeTi");
const ULONG kSidTextTag = ntsim::pool::TagFromText("SeSd");
const ULONG kNameInformationTag = ntsim::pool::TagFromText("FlFn");

ntsim::faults::PointSet FilterWork()
{
    return {.tags = {FOLDERMERGE_POOL_TAG, kTokenInformationTag, kSidTextTag, kNameInformationTag},
            .routines = {"FltGetVolumeName", "SeQueryInformationToken", "FltGetFileNameInformation",
                         "ZwQueryInformationProcess", "EtwWrite"}};
}

// Every open passes these before it is classified: the volume name asked twice, the volume name
// and the path, the token query and its record, the SID text and the filter's copy of it.
constexpr uint64_t kPathAndSidPoints = 8;

// What the open gives when the file system alone serves it: every open here opens what exists.
constexpr OpenResult kPassed{STATUS_SUCCESS, FILE_OPENED};


struct OpenCase {
    std::string name;
    std::u16string sid;
    std::u16string image;
    KPROCESSOR_MODE mode = UserMode;
    std::u16string path;  // relative to \Projects when relative is set
    ACCESS_MASK access = 0;
    OpenOptions options;
    bool relative = false;
    OpenResult verdict = kPassed;  // without failures
    std::string line;              // a text that one of the gate's lines holds; empty: it writes none
};

constexpr char16_t kApp[] = u"\\Device\\HarddiskVolume2\\Apps\\app.exe";
constexpr char16_t kBackup[] = u"\\Device\\HarddiskVolume2\\Tools\\backup.exe";
constexpr OpenResult kRefused{STATUS_ACCESS_DENIED, 0};
constexpr OpenOptions kDirectory{.createOptions = FILE_DIRECTORY_FILE};

class GateSweep : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedFile(u"\\Data\\a.txt:notes", "notes");
        volume_->SeedDirectory(u"\\Empty");
        volume_->SeedDirectory(u"\\LongFolderName");
        volume_->SeedFile(u"\\Shared\\c.txt", "bob's file");
        volume_->SeedDirectory(u"\\Projects\\Inner");
        volume_->SeedFile(u"\\Other\\d.txt", "d");
        volume_->SeedFile(u"\\Other\\" + std::u16string(kDummyFileName), "");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data", true},
                             {kAlice, u"C:\\Empty", false},
                             {kAlice, u"C:\\LongFolderName", true},
                             {kBob, u"C:\\Shared", false},
                             {kBob, u"C:\\Projects\\Inner", true}},
                            u"backup.exe"),
                  STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        TakeEvents();
    }

    std::vector<OpenCase> Cases() const
    {
        const std::u16string shortName = volume_->ShortName(u"\\LongFolderName");
        EXPECT_NE(shortName.find(u'~'), std::u16string::npos);
        const OpenOptions deleteDirectory{.createOptions = FILE_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE};
        return {
            {"own folder", kAlice, kApp, UserMode, u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, {}, false, kPassed,
             "Normalized requested Path is [\\Device\\HarddiskVolume2\\Data\\a.txt]"},
            {"another user's folder", kAlice, kApp, UserMode, u"\\??\\C:\\Shared\\c.txt", FILE_READ_DATA, {}, false,
             kPassed, "Permitting access to [\\Device\\HarddiskVolume2\\Shared\\c.txt]"},
            {"blacklisted in own folder", kAlice, kBackup, UserMode, u"\\??\\C:\\Data\\a.txt",
             FILE_READ_DATA | FILE_WRITE_DATA, {}, false, kPassed, "Ignoring blacklisted process"},
            {"blacklisted in another user's folder", kAlice, kBackup, UserMode, u"\\??\\C:\\Shared\\c.txt",
             FILE_READ_DATA | FILE_WRITE_DATA, {}, false, kPassed, ""},
            {"not managed", kAlice, kApp, UserMode, u"\\??\\C:\\Other\\d.txt", FILE_READ_DATA | FILE_WRITE_DATA, {},
             false, kPassed, ""},
            {"dummy file", kAlice, kApp, UserMode, u"\\??\\C:\\Other\\" + std::u16string(kDummyFileName),
             FILE_READ_DATA, {}, false, kPassed, "Normalized requested Path is [\\Device\\HarddiskVolume2\\Other\\vm_"},
            {"read-only refusal", kAlice, kApp, UserMode, u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory, false,
             kRefused, "[EXIT] [\\Device\\HarddiskVolume2\\Data] is readonly"},
            {"merge folder deletion refusal", kAlice, kApp, UserMode, u"\\??\\C:\\Empty", DELETE, deleteDirectory,
             false, kRefused, "Normalized requested Path is [\\Device\\HarddiskVolume2\\Empty]"},
            {"stream path", kAlice, kApp, UserMode, u"\\??\\C:\\Data\\a.txt:notes", FILE_READ_DATA | FILE_WRITE_DATA,
             {}, false, kPassed, "is ADS, ignoring"},
            {"kernel mode for attributes", kAlice, kApp, KernelMode, u"\\??\\C:\\Data", FILE_READ_ATTRIBUTES,
             kDirectory, false, kPassed, "[EXIT] Previous mode is KernelMode"},
            {"kernel mode for content", kAlice, kApp, KernelMode, u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES,
             kDirectory, false, kRefused, "Previous mode is KernelMode but access requires download"},
            {"relative open", kBob, kApp, UserMode, u"Inner", FILE_WRITE_ATTRIBUTES, kDirectory, true, kRefused,
             "[EXIT] [\\Device\\HarddiskVolume2\\Projects\\Inner] is readonly"},
            {"short-name path", kAlice, kApp, UserMode, u"\\??\\C:\\" + shortName, FILE_WRITE_ATTRIBUTES, kDirectory,
             false, kRefused, "[EXIT] [\\Device\\HarddiskVolume2\\LongFolderName] is readonly"},
        };
    }

    // One open of the case by its process, and the lines that FolderMerge_PreCreate wrote for it.
    OpenResult Open(const OpenCase& openCase, const std::shared_ptr<ntsim::Process>& process, HANDLE root,
                    std::vector<std::string>* lines = nullptr)
    {
        OpenResult result;
        {
            ntsim::AttachThread thread(process, {.previousMode = openCase.mode});
            OpenOptions options = openCase.options;
            options.root = openCase.relative ? root : nullptr;
            result = OpenAndClose(openCase.path, openCase.access, options);
        }
        for (const TraceEvent& event : TakeEvents()) {
            if (lines != nullptr && event.function == "FolderMerge_PreCreate") {
                lines->push_back(event.message);
            }
        }
        // A deletion that the gate let pass took the folder with it.
        if (!volume_->Exists(u"\\Empty")) {
            volume_->SeedDirectory(u"\\Empty");
        }
        return result;
    }

    // Runs the case failing its 1st, 2nd, ... point until a run injects nothing, and returns the
    // points it failed, in order.
    std::vector<std::string> Sweep(const OpenCase& openCase, const std::shared_ptr<ntsim::Process>& process,
                                   HANDLE root, Persistence persistence)
    {
        std::vector<std::string> points;
        for (uint64_t n = 1;; n++) {
            OpenResult result;
            const auto injected = RunWithNthPointFailed(
                FilterWork(), n, persistence, openCase.name, [&] { result = Open(openCase, process, root); },
                [&](const std::vector<ntsim::faults::InjectedFailure>& failed, const std::string& where) {
                    if (failed.empty()) {
                        EXPECT_EQ(result, openCase.verdict) << where << ": " << Describe(result);
                        return;
                    }
                    points.push_back(PointName(failed[0]));
                    EXPECT_TRUE(result == openCase.verdict || (openCase.verdict == kRefused && result == kPassed))
                        << where << ": the caller saw " << Describe(result) << ", expected "
                        << Describe(openCase.verdict) << (openCase.verdict == kRefused ? " or the open passing" : "");
                });
            if (injected.empty() || ::testing::Test::HasFatalFailure()) {
                break;
            }
        }
        return points;
    }
};

TEST_F(GateSweep, EveryClassOfOpenFailsOpenAtEachFailurePointOfTheFiltersWork)
{
    std::set<std::string> reached;
    for (const OpenCase& openCase : Cases()) {
        auto process = ntsim::CreateProcess({.imageFileName = openCase.image, .userSid = openCase.sid});
        HANDLE root = nullptr;
        if (openCase.relative) {
            ntsim::AttachThread thread(process);
            ASSERT_EQ(OpenHandle(u"\\??\\C:\\Projects", FILE_LIST_DIRECTORY, kDirectory, &root).status, STATUS_SUCCESS);
            TakeEvents();
        }

        // Without failures the open is of its class: its verdict and the gate's line that says so.
        std::vector<std::string> lines;
        ASSERT_EQ(Open(openCase, process, root, &lines), openCase.verdict) << openCase.name;
        if (openCase.line.empty()) {
            EXPECT_TRUE(lines.empty()) << openCase.name << ": " << ::testing::PrintToString(lines);
        } else {
            EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                                    [&](const std::string& line) { return line.find(openCase.line) != line.npos; }))
                << openCase.name << ": no line holds \"" << openCase.line << "\" in "
                << ::testing::PrintToString(lines);
        }

        const std::vector<std::string> once = Sweep(openCase, process, root, Persistence::Once);
        const std::vector<std::string> persistent = Sweep(openCase, process, root, Persistence::Persistent);
        // The first n - 1 points of a run are those of the run without failures, so both sweeps
        // fail the same points.
        EXPECT_EQ(persistent, once) << openCase.name;
        EXPECT_GE(once.size(), kPathAndSidPoints) << openCase.name;
        reached.insert(once.begin(), once.end());

        std::string order;
        for (const std::string& point : once) {
            order += (order.empty() ? "" : ", ") + point;
        }
        std::printf("[  SWEEP   ] %-38s %2zu failure points: %s\n", openCase.name.c_str(), once.size(),
                    order.c_str());

        if (root != nullptr) {
            ntsim::AttachThread thread(process);
            EXPECT_EQ(ZwClose(root), STATUS_SUCCESS);
        }
    }

    // Every kind of point the sweep names was reached by some class: none of them is a name that
    // the platform no longer uses.
    const ntsim::faults::PointSet work = FilterWork();
    for (ULONG tag : work.tags) {
        EXPECT_TRUE(reached.count("pool '" + ntsim::pool::TagText(tag) + "'")) << ntsim::pool::TagText(tag);
    }
    for (const std::string& routine : work.routines) {
        EXPECT_TRUE(reached.count(routine)) << routine;
    }

    EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    loaded_ = false;
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);
}

// The one open whose verdict a failure turns from pass into refusal: a blacklisted process is known
// by its image name alone, and a process whose name can't be read is managed in its own folders. In
// another user's folder such a process passes, as a blacklisted one does.
TEST_F(GateSweep, ABlacklistedProcessWhoseNameCantBeReadIsManagedInItsOwnFoldersOnly)
{
    auto backup = ntsim::CreateProcess({.imageFileName = kBackup, .userSid = kAlice});
    ntsim::AttachThread thread(backup);
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory), kPassed);

    ntsim::faults::FailRoutine("ZwQueryInformationProcess", STATUS_INSUFFICIENT_RESOURCES, Persistence::Persistent);
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory), kRefused);
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Projects\\Inner", DELETE,
                           {.createOptions = FILE_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE}),
              kPassed);
    EXPECT_FALSE(volume_->Exists(u"\\Projects\\Inner"));
    EXPECT_GE(ntsim::faults::FailuresInjected(), 2u);
}

}  // namespace
}  // namespace foldermerge::testing
