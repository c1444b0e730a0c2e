// Start and unload of the filter: the volumes it attaches to, its pool type by the reported system
// version, what unload leaves behind, and a start that fails at each of its steps.
#include "filter_fixture.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/system.hpp>

#include <algorithm>

#include "driver/globals.h"
#include "driver/locks.h"
#include "driver/mergefolders.h"
#include "driver/operations.h"

namespace foldermerge::testing {
namespace {

bool IsLoaded()
{
    auto filters = ntsim::LoadedFilters();
    return std::find(filters.begin(), filters.end(), std::u16string(kFilterName)) != filters.end();
}

TEST(InstanceSetup, AttachesToNtfsVolumesAndTheMupDeviceOnly)
{
    struct Case {
        DEVICE_TYPE deviceType;
        FLT_FILESYSTEM_TYPE fileSystemType;
        NTSTATUS expected;
    };
    const Case cases[] = {
        {FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_NTFS, STATUS_SUCCESS},
        {FILE_DEVICE_NETWORK_FILE_SYSTEM, FLT_FSTYPE_MUP, STATUS_SUCCESS},
        {FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_FAT, STATUS_FLT_DO_NOT_ATTACH},
        {FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_RAW, STATUS_FLT_DO_NOT_ATTACH},
        {FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_EXFAT, STATUS_FLT_DO_NOT_ATTACH},
        {FILE_DEVICE_CD_ROM_FILE_SYSTEM, FLT_FSTYPE_CDFS, STATUS_FLT_DO_NOT_ATTACH},
        {FILE_DEVICE_CD_ROM_FILE_SYSTEM, FLT_FSTYPE_NTFS, STATUS_FLT_DO_NOT_ATTACH},
        {FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_UDFS, STATUS_FLT_DO_NOT_ATTACH},
        {FILE_DEVICE_NETWORK_FILE_SYSTEM, FLT_FSTYPE_LANMAN, STATUS_FLT_DO_NOT_ATTACH},
        {FILE_DEVICE_NETWORK_FILE_SYSTEM, FLT_FSTYPE_RDPDR, STATUS_FLT_DO_NOT_ATTACH},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(FolderMerge_InstanceSetup(nullptr, 0, c.deviceType, c.fileSystemType), c.expected)
            << "device " << c.deviceType << ", file system " << c.fileSystemType;
    }
}

class Lifecycle : public LoadedFilter {
protected:
    NTSTATUS InstanceFor(std::u16string_view path)
    {
        ntsim::UnicodeStringHolder text(path);
        PFLT_INSTANCE pInstance = nullptr;
        NTSTATUS status = GetVolumeInstanceForPath(g_ServiceData.FilterHandle, text.get(), &pInstance);
        if (NT_SUCCESS(status)) {
            FltObjectDereference(pInstance);
        }
        return status;
    }
};

TEST_F(Lifecycle, VolumesMountedLaterGetAnInstanceByTheirType)
{
    auto fat = ntsim::CreateFatVolume(u"\\Device\\HarddiskVolume3");
    auto cd = ntsim::CreateCdfsVolume(u"\\Device\\CdRom0");
    auto ntfs = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume4");
    ASSERT_EQ(ntsim::MountVolume(fat, u"F:"), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::MountVolume(cd, u"D:"), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::MountVolume(ntfs, u"N:"), STATUS_SUCCESS);

    EXPECT_EQ(InstanceFor(u"\\Device\\HarddiskVolume2\\x"), STATUS_SUCCESS);
    EXPECT_EQ(InstanceFor(u"\\Device\\HarddiskVolume4\\x"), STATUS_SUCCESS);
    EXPECT_FALSE(NT_SUCCESS(InstanceFor(u"\\Device\\HarddiskVolume3\\x")));
    EXPECT_FALSE(NT_SUCCESS(InstanceFor(u"\\Device\\CdRom0\\x")));

    // Without an instance the gate never sees the volume: a read-only folder there isn't guarded.
    fat->SeedDirectory(u"\\Data");
    ntfs->SeedDirectory(u"\\Data");
    ASSERT_EQ(Configure({{kAlice, u"F:\\Data", true}, {kAlice, u"N:\\Data", true}}), STATUS_SUCCESS);
    {
        ntsim::AttachThread thread(UserProcess(kAlice));
        EXPECT_EQ(OpenAndClose(u"\\??\\F:\\Data", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}).status,
                  STATUS_SUCCESS);
        EXPECT_EQ(OpenAndClose(u"\\??\\N:\\Data", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}).status,
                  STATUS_ACCESS_DENIED);
    }

    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume3"), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\CdRom0"), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume4"), STATUS_SUCCESS);
}

TEST_F(Lifecycle, UnloadWithConfigurationAndOpenFilesLeavesNothing)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", true}, {kBob, u"C:\\Data", false}}, u"x.exe|y.exe"), STATUS_SUCCESS);

    // A handle that stays open across the unload.
    ntsim::AttachThread thread(UserProcess(kAlice));
    HANDLE handle = nullptr;
    ASSERT_EQ(OpenHandle(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, {.share = FILE_SHARE_READ}, &handle).status,
              STATUS_SUCCESS);
    EXPECT_GT(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);

    EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    loaded_ = false;
    EXPECT_FALSE(IsLoaded());
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);
    EXPECT_EQ(g_ConfigLock, nullptr);
    EXPECT_EQ(g_TraceLock, nullptr);
    EXPECT_EQ(g_ProcessBlacklist, nullptr);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);

    // The filter starts again from its load state.
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    loaded_ = true;
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(g_PassThrough, 0);
}

class ReportedVersion : public ::testing::TestWithParam<std::tuple<ULONG, ULONG, POOL_TYPE>> {
protected:
    void TearDown() override { ntsim::SetReportedVersion(10, 0, 19045); }
};

TEST_P(ReportedVersion, NonPagedPoolIsNonExecutableFromNt62On)
{
    auto [major, minor, expected] = GetParam();
    ntsim::SetReportedVersion(major, minor, 9200);
    auto volume = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume2");
    ASSERT_EQ(ntsim::MountVolume(volume, u"C:"), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::LoadFilter(DriverEntry, {.name = kFilterName, .poolTags = {FOLDERMERGE_POOL_TAG}}),
              STATUS_SUCCESS);
    EXPECT_EQ(g_PoolType, expected);
    // The locks are the filter's non-paged blocks: all of them of that type.
    size_t nonPaged = 0;
    for (const auto& allocation : ntsim::pool::LiveAllocations()) {
        if (allocation.tag == FOLDERMERGE_POOL_TAG && allocation.type != PagedPool) {
            EXPECT_EQ(allocation.type, expected);
            nonPaged++;
        }
    }
    EXPECT_EQ(nonPaged, 6u);
    EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume2"), STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Versions, ReportedVersion,
                         ::testing::Values(std::make_tuple(6u, 1u, NonPagedPool),
                                           std::make_tuple(6u, 2u, NonPagedPoolNx),
                                           std::make_tuple(6u, 3u, NonPagedPoolNx),
                                           std::make_tuple(10u, 0u, NonPagedPoolNx)));

TEST(FailedStart, EachFailingStepEndsStartWithNothingLeft)
{
    auto volume = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume2");
    ASSERT_EQ(ntsim::MountVolume(volume, u"C:"), STATUS_SUCCESS);
    volume->SeedDirectory(u"\\Data");

    size_t failedStarts = 0;
    for (uint64_t point = 1;; point++) {
        ntsim::faults::Reset();
        ntsim::faults::FailNthPoint(point, STATUS_INSUFFICIENT_RESOURCES);
        NTSTATUS status =
            ntsim::LoadFilter(DriverEntry, {.name = kFilterName, .poolTags = {FOLDERMERGE_POOL_TAG}});
        bool injected = ntsim::faults::FailuresInjected() != 0;
        ntsim::faults::Reset();
        if (NT_SUCCESS(status)) {
            // A point the start could absorb: the filter must work as loaded.
            ASSERT_EQ(Configure({{kAlice, u"C:\\Data", true}}), STATUS_SUCCESS) << "point " << point;
            {
                ntsim::AttachThread thread(ntsim::CreateProcess({.userSid = kAlice}));
                EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE})
                              .status,
                          STATUS_ACCESS_DENIED)
                    << "point " << point;
            }
            EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
        } else {
            failedStarts++;
            EXPECT_TRUE(injected) << "start failed without an injected failure: 0x" << std::hex << status;
            EXPECT_FALSE(IsLoaded()) << "point " << point;
            EXPECT_EQ(g_ConfigLock, nullptr) << "point " << point;
            EXPECT_EQ(g_ServiceData.FilterHandle, nullptr) << "point " << point;
        }
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u) << "point " << point;
        if (!injected) {
            break;
        }
    }
    // Registration, the descriptor, six locks, the stream table and its names, start: each can fail.
    EXPECT_GE(failedStarts, 10u);
    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume2"), STATUS_SUCCESS);
}

TEST(FailedStart, AMissingLockIsTracedAndEndsStartAfterTheOthersWereTried)
{
    auto volume = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume2");
    ASSERT_EQ(ntsim::MountVolume(volume, u"C:"), STATUS_SUCCESS);
    // The filter's first allocation is its first lock.
    uint64_t before = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).totalAllocations;
    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG, ntsim::faults::Persistence::Once);
    EXPECT_EQ(ntsim::LoadFilter(DriverEntry, {.name = kFilterName, .poolTags = {FOLDERMERGE_POOL_TAG}}),
              STATUS_INSUFFICIENT_RESOURCES);
    ASSERT_EQ(ntsim::faults::FailuresInjected(), 1u);
    // The other five locks were still made, and released with everything else; nothing after the
    // locks (the stream table) was started.
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).totalAllocations - before, 5u);
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);
    EXPECT_FALSE(IsLoaded());
    EXPECT_EQ(g_ConfigLock, nullptr);
    EXPECT_EQ(g_UserListLock, nullptr);
    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume2"), STATUS_SUCCESS);
}

}  // namespace
}  // namespace foldermerge::testing
