// Loopback access tracking: an open through \\127.0.0.1\C$ reaches the filter as the requester's
// MUP open and then as the file server's kernel-mode open of the local file; the record made by the
// first carries the requester to the second, and goes with the first open.
#include "trace_fixture.hpp"

#include <foldermerge/service/responder.hpp>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/mup.hpp>

#include "driver/loopback.h"

namespace foldermerge::testing {
namespace {

constexpr char kLocalPath[] = "\\Device\\HarddiskVolume2\\Data\\a.txt";

class LoopbackAccess : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        ASSERT_EQ(ntsim::MountMup(), STATUS_SUCCESS);
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        TakeEvents();
        alice_ = UserProcess(kAlice);
    }

    void TearDown() override
    {
        EXPECT_EQ(g_MupAccessList, nullptr) << "a record outlived its open";
        EXPECT_EQ(ntsim::DismountMup(), STATUS_SUCCESS);
        TracedFilter::TearDown();
    }

    NTSTATUS OpenAsAlice(std::u16string_view path, ACCESS_MASK access)
    {
        ntsim::AttachThread attach(alice_);
        return OpenAndClose(path, access).status;
    }

    static bool Contains(const std::vector<std::string>& lines, const std::string& line)
    {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    static bool AnyBeginsWith(const std::vector<std::string>& lines, const std::string& prefix)
    {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.starts_with(prefix); });
    }

    std::shared_ptr<ntsim::Process> alice_;
};

TEST_F(LoopbackAccess, TheServersKernelOpenIsFollowedOnlyWhileTheLoopbackOpenIsInFlight)
{
    // A read: an open for attributes alone would be redirected, which needs a service that answers.
    const std::string pid = std::to_string(reinterpret_cast<ULONG_PTR>(alice_->Id()));
    ASSERT_EQ(OpenAsAlice(u"\\??\\UNC\\127.0.0.1\\c$\\data\\A.TXT", FILE_READ_DATA), STATUS_SUCCESS);
    const std::vector<std::string> lines = TakeMessages();
    EXPECT_TRUE(Contains(lines, "Tracking MUP record for [\\Device\\HarddiskVolume2\\data\\A.TXT], pid:" + pid));
    EXPECT_TRUE(AnyBeginsWith(lines, "Tracking MUP access [\\Device\\HarddiskVolume2\\data\\A.TXT], record:[0x"));
    EXPECT_TRUE(Contains(lines, "Found [\\Device\\HarddiskVolume2\\data\\A.TXT], pid:" + pid));
    EXPECT_TRUE(Contains(lines, "Previous mode is KernelMode but access requires download"));
    EXPECT_FALSE(Contains(lines, "[EXIT] Previous mode is KernelMode"));
    EXPECT_TRUE(AnyBeginsWith(lines, "Deleting MUP tracking record [0x"));

    // Without a loopback open in flight the same kernel-mode open passes.
    ASSERT_EQ(OpenAndClose(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES).status, STATUS_SUCCESS);
    const std::vector<std::string> kernelLines = TakeMessages();
    EXPECT_TRUE(Contains(kernelLines, std::string("No MUP record for [") + kLocalPath + "]"));
    EXPECT_TRUE(Contains(kernelLines, "[EXIT] Previous mode is KernelMode"));
}

TEST_F(LoopbackAccess, TheDownloadOfALoopbackOpenCarriesTheRequestersProcessId)
{
    // The service excludes nothing (an exclusion query answered "not found").
    service::ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                     .reply = {.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)}});
    ASSERT_EQ(service.Connect(), S_OK);
    ASSERT_EQ(OpenAsAlice(u"\\??\\UNC\\127.0.0.1\\C$\\Data\\a.txt", FILE_READ_DATA), STATUS_SUCCESS);
    std::vector<std::pair<uint64_t, std::string>> downloads;
    for (const service::RecordedRequest& request : service.Requests()) {
        if (request.view.has_value() && request.view->code == SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED) {
            downloads.emplace_back(request.view->processId, ntsim::ToUtf8(request.view->path));
        }
    }
    // The file server's open of the local file, in its own process, stands for alice.
    ASSERT_EQ(downloads.size(), 1u);
    EXPECT_EQ(downloads[0].first, reinterpret_cast<ULONG_PTR>(alice_->Id()));
    EXPECT_NE(downloads[0].first, reinterpret_cast<ULONG_PTR>(ntsim::MupServerProcess()->Id()));
    EXPECT_EQ(downloads[0].second, kLocalPath);
    TakeEvents();
}

TEST_F(LoopbackAccess, LoopbackPathsWithoutALocalVolumePassUntracked)
{
    // No D: on this machine: the error is traced, and the redirector answers the open.
    EXPECT_EQ(OpenAsAlice(u"\\??\\UNC\\127.0.0.1\\D$\\x", FILE_READ_DATA), STATUS_BAD_NETWORK_NAME);
    std::vector<std::string> lines = TakeMessages();
    EXPECT_TRUE(Contains(lines, "[EXIT] - Failed to get the volume: 0xc01c0014"));
    EXPECT_FALSE(AnyBeginsWith(lines, "Tracking MUP"));

    // Names that end before a share of two characters are never read past their end.
    for (std::u16string_view shortPath : {u"\\??\\UNC\\127.0.0.1\\C", u"\\??\\UNC\\127.0.0.1\\"}) {
        EXPECT_EQ(OpenAsAlice(shortPath, FILE_READ_DATA), STATUS_BAD_NETWORK_NAME);
        EXPECT_FALSE(AnyBeginsWith(TakeMessages(), "Tracking MUP"));
    }
}

TEST_F(LoopbackAccess, ARecordThatCannotBeMadeFailsTheLoopbackOpenAndNothingElse)
{
    // Each of the filter's allocations in turn fails: every one of them passes the open, except the
    // record's own, which refuses it. No run leaves a record or a block behind.
    bool refused = false;
    for (uint64_t failing = 1;; failing++) {
        ntsim::faults::FailNthPointOf({.tags = {FOLDERMERGE_POOL_TAG}}, failing);
        const NTSTATUS status = OpenAsAlice(u"\\??\\UNC\\127.0.0.1\\C$\\Data\\a.txt", FILE_READ_DATA);
        const bool injected = ntsim::faults::FailuresInjected() != 0;
        ntsim::faults::Reset();
        if (!injected) {
            break;
        }
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES) << failing;
        refused |= status == STATUS_INSUFFICIENT_RESOURCES;
        EXPECT_EQ(g_MupAccessList, nullptr) << failing;
    }
    EXPECT_TRUE(refused);
    TakeEvents();
}

TEST_F(LoopbackAccess, TheListFindsTheNewestRecordOfTheWholePathInAnyCase)
{
    auto path = [](PCWSTR text) { return CreateUnicodeStringFromText(text); };
    auto find = [](PCWSTR text) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, text);
        return reinterpret_cast<ULONG_PTR>(FindTrackedMupPID(&name));
    };
    TrackedMupAccess *older = nullptr, *newer = nullptr, *other = nullptr;
    ASSERT_EQ(CreateTrackedMupRecord(path(L"\\Device\\HarddiskVolume2\\Data\\a.txt"), (HANDLE)11, &older),
              STATUS_SUCCESS);
    ASSERT_EQ(CreateTrackedMupRecord(path(L"\\Device\\HarddiskVolume2\\Data\\a.txt"), (HANDLE)22, &newer),
              STATUS_SUCCESS);
    ASSERT_EQ(CreateTrackedMupRecord(path(L"\\Device\\HarddiskVolume2\\b.txt"), (HANDLE)33, &other),
              STATUS_SUCCESS);
    EXPECT_EQ(CreateTrackedMupRecord(path(L"\\x"), (HANDLE)44, nullptr), STATUS_INVALID_PARAMETER);

    EXPECT_EQ(find(L"\\DEVICE\\HARDDISKVOLUME2\\DATA\\A.TXT"), 22u);
    EXPECT_EQ(find(L"\\Device\\HarddiskVolume2\\Data\\a.tx"), 0u) << "lengths must be equal";
    EXPECT_EQ(find(L"\\Device\\HarddiskVolume2\\Data\\a.txt2"), 0u);

    EXPECT_TRUE(RemoveFromTrackedMupAccessList(newer));  // from the middle
    DeleteTrackedMupRecord(newer);
    EXPECT_EQ(find(L"\\Device\\HarddiskVolume2\\Data\\a.txt"), 11u) << "the older record comes back";
    EXPECT_EQ(find(L"\\Device\\HarddiskVolume2\\b.txt"), 33u);
    EXPECT_TRUE(RemoveFromTrackedMupAccessList(other));  // the head
    EXPECT_TRUE(RemoveFromTrackedMupAccessList(other));  // no longer in the list
    EXPECT_EQ(find(L"\\Device\\HarddiskVolume2\\b.txt"), 0u);
    EXPECT_EQ(find(L"\\Device\\HarddiskVolume2\\Data\\a.txt"), 11u);
    DeleteTrackedMupRecord(other);
    EXPECT_FALSE(RemoveFromTrackedMupAccessList(nullptr));

    // A record left in the list is the unload's to free.
    ASSERT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    EXPECT_EQ(g_MupAccessList, nullptr);
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
}

}  // namespace
}  // namespace foldermerge::testing
