// The FAT and CD-ROM volumes: their device and file-system types, and what they lack beside NTFS.
#include "ntfs_test_support.hpp"

#include <fltKernel.h>

using namespace ntfs_test;
using ntsim::ToUtf8;

namespace {

TEST(FileSystemTypes, EachVolumeReportsTheTypesInstanceSetupSees)
{
    auto ntfs = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume2");
    auto fat = ntsim::CreateFatVolume(u"\\Device\\HarddiskVolume3");
    auto cdfs = ntsim::CreateCdfsVolume(u"\\Device\\CdRom0");
    EXPECT_EQ(ntfs->DeviceType(), static_cast<ULONG>(FILE_DEVICE_DISK_FILE_SYSTEM));
    EXPECT_EQ(ntfs->FileSystemType(), static_cast<ULONG>(FLT_FSTYPE_NTFS));
    EXPECT_EQ(fat->DeviceType(), static_cast<ULONG>(FILE_DEVICE_DISK_FILE_SYSTEM));
    EXPECT_EQ(fat->FileSystemType(), static_cast<ULONG>(FLT_FSTYPE_FAT));
    EXPECT_EQ(cdfs->DeviceType(), static_cast<ULONG>(FILE_DEVICE_CD_ROM_FILE_SYSTEM));
    EXPECT_EQ(cdfs->FileSystemType(), static_cast<ULONG>(FLT_FSTYPE_CDFS));
    EXPECT_EQ(ToUtf8(cdfs->DeviceName()), "\\Device\\CdRom0");
}

class FatVolume : public VolumeTest {
protected:
    FatVolume() { volume = ntsim::CreateFatVolume(u"\\Device\\HarddiskVolume3"); }
};

TEST_F(FatVolume, HasNoNamedStreamsNorHardLinksButKeepsShortNames)
{
    volume->SeedFile(u"\\Long File Name.txt", "x");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\Long File Name.txt")), "LONGFI~1.TXT");
    EXPECT_EQ(Open({.path = u"\\Long File Name.txt:side", .disposition = FILE_OPEN_IF}).status,
              STATUS_OBJECT_NAME_INVALID);
    EXPECT_THROW(volume->SeedFile(u"\\Long File Name.txt:side", "y"), std::runtime_error);

    auto open = MustOpen({.path = u"\\LONGFI~1.TXT", .access = FILE_READ_DATA | DELETE});
    Query(*open, FileStreamInformation, 256, STATUS_INVALID_PARAMETER);
    std::u16string target = u"\\other.txt";
    FILE_LINK_INFORMATION link{};
    EXPECT_EQ(volume->SetInformation(*open, FileLinkInformation, &link, sizeof(link), &target),
              STATUS_INVALID_DEVICE_REQUEST);
    // What it has works as on NTFS.
    ASSERT_EQ(Rename(*open, target, false), STATUS_SUCCESS);
    EXPECT_EQ(volume->Content(u"\\other.txt"), "x");
}

class CdfsVolume : public VolumeTest {
protected:
    CdfsVolume() { volume = ntsim::CreateCdfsVolume(u"\\Device\\CdRom0"); }
};

TEST_F(CdfsVolume, IsReadOnlyExceptBySeeding)
{
    volume->SeedFile(u"\\setup.exe", "image");
    EXPECT_EQ(Open({.path = u"\\new.txt", .disposition = FILE_CREATE}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open({.path = u"\\setup.exe", .access = FILE_WRITE_DATA}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open({.path = u"\\setup.exe", .access = DELETE}).status, STATUS_ACCESS_DENIED);

    auto open = MustOpen({.path = u"\\setup.exe"});
    char data[8];
    ULONG read = 0;
    ASSERT_EQ(volume->Read(*open, 0, sizeof(data), data, &read), STATUS_SUCCESS);
    EXPECT_EQ(std::string(data, read), "image");
    ULONG written = 0;
    EXPECT_EQ(volume->Write(*open, 0, 1, "X", &written), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Standard(*open).AllocationSize.QuadPart, 2048);  // 2048-byte sectors
}

}  // namespace
