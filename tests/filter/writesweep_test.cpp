// Writes and set information under fault injection. Each scenario is run again and again, failing
// the 1st, 2nd, 3rd ... failure point of the filter's own work during the operation, until a run
// injects nothing.
//
// The filter's own work is its pool, what the platform allocates for it (the token's user record,
// the SID text, name information), the platform routines it calls (names, tokens, process names,
// symbolic links, its file opens, queries and deletions below itself) and every request to the
// service (FltSendMessage). After every run the caller saw the operation's result without
// failures, or the one it gets without the filter, or where a failed request decides otherwise what
// the filter then answers (a rename the service can't take the new name of, a rename out of the
// managed folders that the service couldn't agree to); nothing of any tag is left once the
// scenario's handles are closed; and the verifier reported nothing.
#include "followed_fixture.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <string>

#include "sweep_fixture.hpp"
#include "user.h"

namespace foldermerge::testing {
namespace {

using ntsim::faults::Persistence;

ntsim::faults::PointSet FilterWork()
{
    return {.tags = {FOLDERMERGE_POOL_TAG, ntsim::pool::TagFromText("SeTi"), ntsim::pool::TagFromText("SeSd"),
                     ntsim::pool::TagFromText("FlFn")},
            .routines = {"FltSendMessage", "FltGetVolumeName", "SeQueryInformationToken", "FltGetFileNameInformation",
                         "ZwQueryInformationProcess", "ZwOpenSymbolicLinkObject", "ZwQuerySymbolicLinkObject",
                         "FltCreateFileEx", "FltQueryInformationFile", "ZwDeleteFile"}};
}

NTSTATUS SetInformation(HANDLE handle, FILE_INFORMATION_CLASS infoClass, const void* record, size_t length)
{
    IO_STATUS_BLOCK ioStatus{};
    return NtSetInformationFile(handle, &ioStatus, const_cast<void*>(record), static_cast<ULONG>(length), infoClass);
}

NTSTATUS Rename(HANDLE handle, std::u16string_view target)
{
    std::vector<UCHAR> buffer(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + target.size() * 2 + 2, 0);
    auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
    rename->FileNameLength = static_cast<ULONG>(target.size() * 2);
    std::memcpy(rename->FileName, target.data(), target.size() * 2);
    return SetInformation(handle, FileRenameInformation, buffer.data(), buffer.size());
}

NTSTATUS SetDeleteDisposition(HANDLE handle)
{
    FILE_DISPOSITION_INFORMATION disposition{TRUE};
    return SetInformation(handle, FileDispositionInformation, &disposition, sizeof(disposition));
}

struct Scenario {
    std::string name;
    std::vector<std::u16string> files;        // seeded before each run, removed after it
    std::u16string directory;                 // seeded before each run, removed after it
    std::vector<std::u16string> leftBehind;   // where the operation may leave something to remove
    std::function<HANDLE()> prepare;          // opens (and follows) what the operation works on
    std::function<NTSTATUS(HANDLE)> operate;  // the operation under fault injection
    std::set<NTSTATUS> accepted;              // what the caller may see
};

class WriteSweep : public FollowedFileTest {
protected:
    std::vector<Scenario> Scenarios()
    {
        const ACCESS_MASK renameAccess = DELETE | FILE_GENERIC_READ | FILE_GENERIC_WRITE;
        // Opens a file that the open follows (tracked, an upload held back, a signature, as the
        // service's rules below say).
        auto followed = [this](std::u16string path, ACCESS_MASK access) {
            return [this, path, access] {
                HANDLE handle = Open(path, access);
                Follow(handle);
                return handle;
            };
        };
        return {
            {.name = "write",
             .files = {u"\\Data\\w.txt"},
             .prepare = followed(u"\\Data\\w.txt", FILE_GENERIC_WRITE),
             .operate = [](HANDLE handle) {
                 IO_STATUS_BLOCK ioStatus{};
                 LARGE_INTEGER offset{};
                 offset.QuadPart = 5000;
                 char data[] = "0123456789";
                 return NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, data, 10, &offset, nullptr);
             },
             .accepted = {STATUS_SUCCESS}},
            {.name = "rename within the managed folders",
             .files = {u"\\Data\\s.txt"},
             .leftBehind = {u"\\Data\\Docs\\s.txt"},
             .prepare = followed(u"\\Data\\s.txt", renameAccess),
             .operate = [](HANDLE handle) { return Rename(handle, u"\\??\\C:\\Data\\Docs\\s.txt"); },
             .accepted = {STATUS_SUCCESS, STATUS_OBJECT_NAME_INVALID}},
            {.name = "rename out of the managed folders",
             .files = {u"\\Data\\o.txt"},
             .leftBehind = {u"\\Outside\\o.txt"},
             .prepare = followed(u"\\Data\\o.txt", renameAccess),
             .operate = [](HANDLE handle) { return Rename(handle, u"\\??\\C:\\Outside\\o.txt"); },
             .accepted = {STATUS_SUCCESS, STATUS_OBJECT_NAME_INVALID, STATUS_ACCESS_DENIED}},
            {.name = "rename into a managed folder",
             .files = {u"\\Outside\\i.txt"},
             .leftBehind = {u"\\Data\\i.txt"},
             .prepare = [this, renameAccess] { return Open(u"\\Outside\\i.txt", renameAccess); },
             .operate = [](HANDLE handle) { return Rename(handle, u"\\??\\C:\\Data\\i.txt"); },
             .accepted = {STATUS_SUCCESS}},
            {.name = "delete disposition of a file",
             .files = {u"\\Data\\d.txt"},
             .prepare = followed(u"\\Data\\d.txt", renameAccess),
             .operate = SetDeleteDisposition,
             .accepted = {STATUS_SUCCESS}},
            {.name = "delete disposition of a directory",
             .directory = u"\\Data\\Dir",
             .prepare = [this] {
                 HANDLE handle = Open(u"\\Data\\Dir", DELETE | FILE_LIST_DIRECTORY,
                                      FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE);
                 Follow(handle);
                 return handle;
             },
             .operate = SetDeleteDisposition,
             .accepted = {STATUS_SUCCESS}},
            {.name = "end of file of a tracked file",
             .files = {u"\\Data\\e.txt"},
             .prepare = followed(u"\\Data\\e.txt", renameAccess),
             .operate = [](HANDLE handle) {
                 FILE_END_OF_FILE_INFORMATION endOfFile{};
                 endOfFile.EndOfFile.QuadPart = 3 * 4096;
                 return SetInformation(handle, FileEndOfFileInformation, &endOfFile, sizeof(endOfFile));
             },
             .accepted = {STATUS_SUCCESS}},
            {.name = "basic information",
             .files = {u"\\Data\\b.txt"},
             .prepare = followed(u"\\Data\\b.txt", renameAccess),
             .operate = [](HANDLE handle) {
                 FILE_BASIC_INFORMATION basic{};
                 basic.FileAttributes = FILE_ATTRIBUTE_ARCHIVE;
                 return SetInformation(handle, FileBasicInformation, &basic, sizeof(basic));
             },
             .accepted = {STATUS_SUCCESS}},
        };
    }

    // One run of the scenario, failing its n-th point of the filter's work (none with n 0): the
    // caller's status and what was failed.
    NTSTATUS Run(const Scenario& scenario, uint64_t n, std::vector<ntsim::faults::InjectedFailure>* injected)
    {
        for (const std::u16string& file : scenario.files) {
            volume_->SeedFile(file, "content");
        }
        if (!scenario.directory.empty()) {
            volume_->SeedDirectory(scenario.directory);
        }
        HANDLE handle = scenario.prepare();
        ntsim::faults::Reset();
        if (n != 0) {
            ntsim::faults::FailNthPointOf(FilterWork(), n, STATUS_INSUFFICIENT_RESOURCES, Persistence::Once);
        }
        const NTSTATUS status = scenario.operate(handle);
        *injected = ntsim::faults::Injected();
        ntsim::faults::Reset();
        Close(handle);
        for (const std::u16string& path : scenario.files) {
            RemoveIfThere(path);
        }
        for (const std::u16string& path : scenario.leftBehind) {
            RemoveIfThere(path);
        }
        if (!scenario.directory.empty()) {
            RemoveIfThere(scenario.directory);
        }
        ClearUserRecords();
        return status;
    }

    void RemoveIfThere(const std::u16string& path)
    {
        if (volume_->Exists(path)) {
            volume_->SeedRemove(path);
        }
    }
};

TEST_F(WriteSweep, EveryScenarioFailsOpenAtEachFailurePointOfTheFiltersWork)
{
    const ResponderRule heldBack = {.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                                    .reply = {.uploadCancelled = true, .trackDirtyBlocks = true}};
    ResponderRule deleted = heldBack;
    deleted.path = OnVolume(u"\\Data\\d.txt");
    deleted.reply.trackDirtyBlocks = false;
    ResponderRule written = heldBack;
    written.path = OnVolume(u"\\Data\\w.txt");
    Serve({written, deleted, Tracked(u"\\Data\\s.txt"), Tracked(u"\\Data\\e.txt"),
           {.code = SERVICE_REQUEST_OBJECT_EXISTS, .path = OnVolume(u"\\Data\\o.txt"), .reply = {.exists = true}}});
    std::set<std::string> reached;
    for (const Scenario& scenario : Scenarios()) {
        std::vector<ntsim::faults::InjectedFailure> injected;
        ASSERT_EQ(Run(scenario, 0, &injected), STATUS_SUCCESS) << scenario.name;

        std::vector<std::string> points;
        for (uint64_t n = 1;; n++) {
            const ntsim::pool::Checkpoint checkpoint;
            const ntsim::pool::Usage filterPool = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG);
            std::vector<ntsim::verifier::BugCheckRecord> bugchecks;
            NTSTATUS status;
            {
                ntsim::verifier::BugCheckCapture capture;
                status = Run(scenario, n, &injected);
                bugchecks = capture.Take();
            }
            const std::string where = scenario.name + ", point " + std::to_string(n) +
                                      (injected.empty() ? " (none left)" : " (" + PointName(injected[0]) + ")");
            EXPECT_TRUE(scenario.accepted.count(status)) << where << ": the caller saw 0x" << std::hex
                                                          << static_cast<ULONG>(status);
            const std::vector<ntsim::pool::Allocation> leaks = checkpoint.Leaks();
            EXPECT_TRUE(leaks.empty()) << where << ": left in pool\n" << ntsim::pool::FormatReport(leaks);
            EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, filterPool.liveCount) << where;
            for (const auto& record : bugchecks) {
                ADD_FAILURE() << where << ": bugcheck " << record.rule << "\n" << record.detail;
            }
            if (injected.empty() || HasFailure()) {
                break;
            }
            points.push_back(PointName(injected[0]));
        }
        reached.insert(points.begin(), points.end());
        std::printf("[  SWEEP   ] %-36s %3zu failure points\n", scenario.name.c_str(), points.size());
    }
    // The scenarios reach the service and the filter's own pool at least.
    EXPECT_TRUE(reached.count("FltSendMessage"));
    EXPECT_TRUE(reached.count("pool 'VLMR'"));
}

}  // namespace
}  // namespace foldermerge::testing
