// The whole open of a managed file under fault injection: a user opens, maybe writes, and closes,
// with a scripted service, again and again, failing the 1st, 2nd, 3rd ... failure point of the
// filter's own work, once or from that point on, until a run injects nothing.
//
// The filter's own work is its pool (its one tag), the platform routines it calls (the volume and
// name queries, the token query, the process image name, the service requests by FltSendMessage,
// its own opens, reads, writes and information calls below itself, the trace writes) and what those
// routines allocate for it. The I/O manager's work for the caller's own operations is never failed.
//
// After every run:
//   - the caller saw what it sees without failures: the filter fails open, and never with a status
//     of its own;
//   - the file holds what the caller wrote, or is gone when it was opened to be deleted;
//   - the service received a part of the requests of the run without failures, in their order:
//     a failure may cost the service a request, never add one (an exclusion query may come later);
//   - no file context or dirty block record is left, the pool is as it was, and the verifier
//     reported nothing.
#include "filter_fixture.hpp"
#include "sweep_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/process.hpp>

#include <cstdio>
#include <mutex>
#include <tuple>

#include "context.h"
#include "dirtyblocktracking.h"
#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using ntsim::faults::Persistence;
using service::ScriptedResponder;
using Codes = std::vector<uint32_t>;

constexpr char16_t kPath[] = u"\\??\\C:\\Data\\a.txt";
constexpr char16_t kVolumePath[] = u"\\Data\\a.txt";
constexpr char kSeed[] = "alice's file";
constexpr char kWritten[] = "written by alice";

ntsim::faults::PointSet FilterWork()
{
    return {.tags = {FOLDERMERGE_POOL_TAG, ntsim::pool::TagFromText("SeTi"), ntsim::pool::TagFromText("SeSd"),
                     ntsim::pool::TagFromText("FlFn")},
            .routines = {"FltGetVolumeName", "SeQueryInformationToken", "FltGetFileNameInformation",
                         "ZwQueryInformationProcess", "FltSendMessage", "FltCreateFileEx", "FltQueryInformationFile",
                         "FltSetInformationFile", "FltReadFile", "FltWriteFile", "FltGetVolumeFromName",
                         "FltGetVolumeInstanceFromName"}};
}


// What the caller saw of one road: the open's status and information, the write's status if
// any, the close's status.
using CallerView = std::tuple<NTSTATUS, ULONG_PTR, NTSTATUS, NTSTATUS>;

struct Road {
    std::string name;
    ACCESS_MASK access = 0;
    OpenOptions options;
    bool write = false;
    Codes requests;                       // without failures, exclusion queries included
    std::optional<std::string> contentAfter;  // none: the file is gone
};

// Whether part holds requests of whole, in whole's order. Exclusion queries aren't counted: a test
// that fails before its verdict is cached leaves the question to the next test, the post-create's.
bool IsSubsequence(const Codes& part, const Codes& whole)
{
    size_t next = 0;
    for (uint32_t code : part) {
        if (code == SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE) {
            continue;
        }
        while (next < whole.size() && whole[next] != code) {
            next++;
        }
        if (next == whole.size()) {
            return false;
        }
        next++;
    }
    return true;
}

class WholeOpenSweep : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
        alice_ = UserProcess(kAlice);
        // The service answers by code, and keeps the codes it received: the responder's own record
        // of every request would be copied whole after each of the sweep's runs.
        const auto answer = [this](service::ReplyContent content) {
            return [this, content](const service::RequestView& request) {
                std::lock_guard lock(mutex_);
                received_.push_back(request.code);
                return content;
            };
        };
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                          .answer = answer({.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)})});
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                          .answer = answer({.locked = true, .trackDirtyBlocks = true})});
        service_.AddRule(
            {.code = SERVICE_REQUEST_OBJECT_SIGNATURE, .answer = answer({.signatureName = u"signature-7"})});
        service_.AddRule({.answer = answer({})});
        ASSERT_EQ(service_.Connect(), S_OK);
    }

    void TearDown() override
    {
        service_.Disconnect();
        LoadedFilter::TearDown();
    }

    // One road from a fresh file (no map stream of an earlier run), and the requests it caused.
    CallerView Travel(const Road& road, Codes* requests)
    {
        if (volume_->Exists(kVolumePath)) {
            volume_->SeedRemove(kVolumePath);
        }
        volume_->SeedFile(kVolumePath, kSeed);
        {
            std::lock_guard lock(mutex_);
            received_.clear();
        }
        NTSTATUS written = STATUS_SUCCESS, closed = STATUS_SUCCESS;
        OpenResult opened;
        {
            ntsim::AttachThread thread(alice_);
            HANDLE handle = nullptr;
            opened = OpenHandle(kPath, road.access, road.options, &handle);
            if (NT_SUCCESS(opened.status)) {
                if (road.write) {
                    IO_STATUS_BLOCK ioStatus{};
                    char text[sizeof(kWritten)];
                    std::memcpy(text, kWritten, sizeof(text));
                    LARGE_INTEGER offset{};
                    written = NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, text,
                                             static_cast<ULONG>(std::strlen(kWritten)), &offset, nullptr);
                }
                closed = ZwClose(handle);
            }
        }
        std::lock_guard lock(mutex_);
        *requests = received_;
        return {opened.status, opened.information, written, closed};
    }

    // Runs the road failing its 1st, 2nd, ... point until a run injects nothing; the number of
    // points failed.
    size_t Sweep(const Road& road, const CallerView& expected, Persistence persistence)
    {
        size_t points = 0;
        for (uint64_t n = 1;; n++) {
            Codes requests;
            CallerView seen;
            const auto injected = RunWithNthPointFailed(
                FilterWork(), n, persistence, road.name, [&] { seen = Travel(road, &requests); },
                [&](const std::vector<ntsim::faults::InjectedFailure>& failed, const std::string& where) {
                    EXPECT_EQ(seen, expected) << where;
                    EXPECT_EQ(volume_->Content(kVolumePath), road.contentAfter) << where;
                    if (failed.empty()) {
                        EXPECT_EQ(requests, road.requests) << where;
                    } else {
                        EXPECT_TRUE(IsSubsequence(requests, road.requests))
                            << where << ": " << ::testing::PrintToString(requests);
                    }
                    EXPECT_EQ(g_ContextList, nullptr) << where;
                    EXPECT_EQ(g_DirtyBlockFileList, nullptr) << where;
                });
            if (injected.empty() || ::testing::Test::HasFailure()) {
                break;
            }
            points++;
        }
        return points;
    }

    std::shared_ptr<ntsim::Process> alice_;
    std::mutex mutex_;
    Codes received_;
    ScriptedResponder service_;
};

TEST_F(WholeOpenSweep, EveryRoadOfAnOpenFailsOpenAtEachFailurePointOfTheFiltersWork)
{
    constexpr uint32_t kExclusion = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE;
    constexpr uint32_t kDownload = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED;
    const Road roads[] = {
        {.name = "read",
         .access = FILE_GENERIC_READ,
         .requests = {kExclusion, kDownload, SERVICE_REQUEST_OBJECT_IS_LOCKED},
         .contentAfter = kSeed},
        {.name = "overwrite and write",
         .access = FILE_GENERIC_WRITE,
         .options = {.disposition = FILE_OVERWRITE_IF, .createOptions = FILE_SYNCHRONOUS_IO_NONALERT},
         .write = true,
         .requests = {kExclusion, kDownload, SERVICE_REQUEST_OBJECT_SIGNATURE, SERVICE_REQUEST_OBJECT_CHANGED,
                      SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED, SERVICE_REQUEST_OBJECT_IS_LOCKED},
         .contentAfter = kWritten},
        {.name = "delete on close",
         .access = FILE_GENERIC_READ | DELETE,
         .options = {.createOptions = FILE_DELETE_ON_CLOSE},
         .requests = {kExclusion, kDownload, SERVICE_REQUEST_OBJECT_DELETED},
         .contentAfter = std::nullopt},
    };

    size_t total = 0;
    for (const Road& road : roads) {
        Codes requests;
        const CallerView expected = Travel(road, &requests);
        ASSERT_TRUE(NT_SUCCESS(std::get<0>(expected))) << road.name;
        ASSERT_EQ(requests, road.requests) << road.name;

        const size_t once = Sweep(road, expected, Persistence::Once);
        const size_t persistent = Sweep(road, expected, Persistence::Persistent);
        ASSERT_FALSE(HasFailure()) << road.name;
        EXPECT_EQ(persistent, once) << road.name;
        std::printf("[  SWEEP   ] %-22s %3zu failure points, each failed once and from there on\n", road.name.c_str(),
                    once);
        total += once;
    }
    std::printf("[  SWEEP   ] %zu failure points in all\n", total);

    EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    loaded_ = false;
}

}  // namespace
}  // namespace foldermerge::testing
