// A loaded FolderMerge on ntsim: an NTFS volume as C:, the filter loaded over it, and helpers to set
// its configuration and to open paths as simulated processes.
#pragma once

#include <gtest/gtest.h>

#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "driver/configuration.h"
#include "driver/lifecycle.h"
#include "driver/ownedstring.h"

namespace foldermerge::testing {

inline constexpr char16_t kAlice[] = u"S-1-5-21-1-2-3-1001";
inline constexpr char16_t kBob[] = u"S-1-5-21-1-2-3-1002";
inline constexpr char16_t kFilterName[] = u"FolderMerge";

struct Folder {
    std::u16string sid;
    std::u16string path;  // C:\Data
    bool readOnly = false;
};

// Fills the table and the blacklist as a configuration message does: ClearConfiguration, then
// SetConfiguration with a folder block in the caller's memory.
inline NTSTATUS Configure(const std::vector<Folder>& folders, std::u16string_view blacklist = u"",
                          ULONG version = CONFIGURATION_MIN_VERSION, ULONG count = ~0u)
{
    std::vector<UCHAR> block(FIELD_OFFSET(MergeFolderBlock, Folders) + folders.size() * sizeof(MergeFolderRecord));
    auto* header = reinterpret_cast<MergeFolderBlock*>(block.data());
    header->FolderCount = count == ~0u ? static_cast<uint32_t>(folders.size()) : count;
    for (size_t index = 0; index < folders.size(); index++) {
        auto* record = reinterpret_cast<MergeFolderRecord*>(block.data() + FIELD_OFFSET(MergeFolderBlock, Folders)) +
                       index;
        std::memcpy(record->Sid, folders[index].sid.data(), folders[index].sid.size() * 2);
        std::memcpy(record->FolderPath, folders[index].path.data(), folders[index].path.size() * 2);
        record->bReadOnly = folders[index].readOnly ? 1 : 0;
    }
    auto message = std::make_unique<SetConfigurationMessage>();
    std::memset(message.get(), 0, sizeof(SetConfigurationMessage));
    message->Code = CONTROL_SET_CONFIGURATION;
    message->ConfigVersion = version;
    std::memcpy(message->ProcessBlacklist, blacklist.data(), blacklist.size() * 2);
    message->pFolderBlock = reinterpret_cast<uint64_t>(block.data());
    ClearConfiguration();
    return SetConfiguration(message.get());
}

// What one open gave its caller.
struct OpenResult {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ULONG_PTR information = 0;
};

struct OpenOptions {
    ULONG disposition = FILE_OPEN;
    ULONG createOptions = 0;
    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    HANDLE root = nullptr;  // a directory handle for a relative open
};

// Opens path (\??\C:\Data\a.txt) in the calling thread's identity with NtCreateFile (SYNCHRONIZE
// added to access) and leaves the handle in *handle for the caller to close. Kernel callers
// (ZwCreateFile) get a kernel handle.
inline OpenResult OpenHandle(std::u16string_view path, ACCESS_MASK access, const OpenOptions& options, HANDLE* handle)
{
    ntsim::UnicodeStringHolder name(path);
    bool kernel = ExGetPreviousMode() == KernelMode;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE | (kernel ? OBJ_KERNEL_HANDLE : 0),
                               options.root, nullptr);
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status = kernel ? ZwCreateFile(handle, access | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0,
                                            options.share, options.disposition, options.createOptions, nullptr, 0)
                             : NtCreateFile(handle, access | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0,
                                            options.share, options.disposition, options.createOptions, nullptr, 0);
    return {status, ioStatus.Information};
}

// Opens path as OpenHandle does, and closes the handle again.
inline OpenResult OpenAndClose(std::u16string_view path, ACCESS_MASK access, const OpenOptions& options = {})
{
    HANDLE handle = nullptr;
    const OpenResult result = OpenHandle(path, access, options, &handle);
    if (NT_SUCCESS(result.status)) {
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }
    return result;
}

// The loaded filter over an NTFS volume mounted as C: (\Device\HarddiskVolume2). Every test ends
// with the filter unloaded and no block of its pool tag left.
class LoadedFilter : public ::testing::Test {
protected:
    void SetUp() override
    {
        volume_ = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume2");
        ASSERT_EQ(ntsim::MountVolume(volume_, u"C:"), STATUS_SUCCESS);
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        loaded_ = true;
    }

    void TearDown() override
    {
        if (loaded_) {
            EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
        }
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);
        EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume2"), STATUS_SUCCESS);
    }

    static NTSTATUS Load()
    {
        return ntsim::LoadFilter(DriverEntry,
                                 {.name = kFilterName, .altitude = u"185200", .poolTags = {FOLDERMERGE_POOL_TAG}});
    }

    std::shared_ptr<ntsim::Process> UserProcess(std::u16string_view sid,
                                                std::u16string_view image = u"\\Device\\HarddiskVolume2\\Apps\\app.exe")
    {
        return ntsim::CreateProcess({.imageFileName = std::u16string(image), .userSid = std::u16string(sid)});
    }

    std::shared_ptr<ntsim::MemoryVolume> volume_;
    bool loaded_ = false;
};

}  // namespace foldermerge::testing
