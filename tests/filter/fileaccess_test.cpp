// Reaching files by path below the filter: their information and marker stream, setting their
// times, the paths of their streams, and deleting them through the whole stack.
#include "instance_fixture.hpp"

#include <ntsim/sim/faults.hpp>

#include <cstring>
#include <string>
#include <vector>

#include "fileaccess.h"

namespace foldermerge::testing {
namespace {

const std::u16string kMarker = reinterpret_cast<const char16_t*>(MARKER_STREAM_NAME);

std::string Text(const UNICODE_STRING* string)
{
    return string == nullptr ? std::string("<null>") : ntsim::ToUtf8(*string);
}

bool HoldsUnknownPattern(const FILE_BASIC_INFORMATION& basic)
{
    return basic.CreationTime.QuadPart == 0x7FFFFFFFFFFFFFFFll && basic.LastAccessTime.QuadPart == 0x7FFFFFFFFFFFFFFFll &&
           basic.LastWriteTime.QuadPart == 0x7FFFFFFFFFFFFFFFll && basic.ChangeTime.QuadPart == 0x7FFFFFFFFFFFFFFFll &&
           basic.FileAttributes == 0xFFFFFFFFu;
}

bool IsAllZero(const void* bytes, size_t size)
{
    std::vector<UCHAR> zeros(size, 0);
    return std::memcmp(bytes, zeros.data(), size) == 0;
}

class FileAccessTest : public LoadedFilterOnVolume {
protected:
    static std::u16string DevicePath(std::u16string_view volumePath) { return kVolume + std::u16string(volumePath); }

    NTSTATUS Get(std::u16string_view volumePath, FILE_BASIC_INFORMATION* pBasic, FILE_STANDARD_INFORMATION* pStandard,
                 UCHAR* pbMarker)
    {
        ntsim::UnicodeStringHolder path(DevicePath(volumePath));
        return GetFileInformation(path.get(), g_ServiceData.FilterHandle, instance_, pBasic, pStandard, pbMarker);
    }
};

// ---- GetFileInformation ----

TEST_F(FileAccessTest, MissingFileGivesTheUnknownPatternZerosAndNoMarker)
{
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    std::memset(&basic, 0x11, sizeof(basic));
    std::memset(&standard, 0x22, sizeof(standard));
    UCHAR bMarker = 7;

    volume_->SeedDirectory(u"\\Data");
    EXPECT_EQ(Get(u"\\Data\\missing.txt", &basic, &standard, &bMarker), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(HoldsUnknownPattern(basic));
    EXPECT_FALSE(AreFileAttributesKnown(&basic));
    EXPECT_TRUE(IsAllZero(&standard, sizeof(standard)));
    EXPECT_EQ(bMarker, 0);
}

TEST_F(FileAccessTest, FileWithoutMarkerHasGoodInformationAndTheStreamsFailureAsResult)
{
    volume_->SeedFile(u"\\Data\\plain.txt", "0123456789", FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN);
    const FILE_BASIC_INFORMATION seeded = *volume_->BasicInformation(u"\\Data\\plain.txt");

    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    UCHAR bMarker = 7;
    // With a marker out the result speaks of the stream, not of the information.
    EXPECT_EQ(Get(u"\\Data\\plain.txt", &basic, &standard, &bMarker), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(bMarker, 0);
    EXPECT_EQ(basic.CreationTime.QuadPart, seeded.CreationTime.QuadPart);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, seeded.LastWriteTime.QuadPart);
    EXPECT_EQ(basic.ChangeTime.QuadPart, seeded.ChangeTime.QuadPart);
    EXPECT_EQ(basic.FileAttributes, (ULONG)(FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(standard.EndOfFile.QuadPart, 10);
    EXPECT_EQ(standard.AllocationSize.QuadPart, 4096);
    EXPECT_EQ(standard.NumberOfLinks, 1u);
    EXPECT_FALSE(standard.Directory);

    // Without one it is the status of the queries.
    FILE_BASIC_INFORMATION again;
    FILE_STANDARD_INFORMATION standardAgain;
    EXPECT_EQ(Get(u"\\Data\\plain.txt", &again, &standardAgain, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(&again, &basic, sizeof(again)), 0);
    EXPECT_EQ(standardAgain.EndOfFile.QuadPart, 10);
}

TEST_F(FileAccessTest, MarkerStreamIsFoundOnFilesAndDirectories)
{
    volume_->SeedFile(u"\\Data\\fetched.txt", "abc");
    volume_->SeedFile(u"\\Data\\fetched.txt:" + kMarker, "");
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    UCHAR bMarker = 0;
    EXPECT_EQ(Get(u"\\Data\\fetched.txt", &basic, &standard, &bMarker), STATUS_SUCCESS);
    EXPECT_EQ(bMarker, 1);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 3);

    volume_->SeedDirectory(u"\\Data\\folder");
    EXPECT_EQ(Get(u"\\Data\\folder", &basic, &standard, &bMarker), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(bMarker, 0);
    EXPECT_TRUE(AreFileAttributesKnown(&basic));
    EXPECT_NE(basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
    EXPECT_TRUE(standard.Directory);
}

TEST_F(FileAccessTest, NullOutsAreRefusedWithNothingTouched)
{
    volume_->SeedFile(u"\\Data\\a.txt", "a");
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    std::memset(&basic, 0x11, sizeof(basic));
    std::memset(&standard, 0x22, sizeof(standard));
    UCHAR bMarker = 7;
    EXPECT_EQ(Get(u"\\Data\\a.txt", nullptr, &standard, &bMarker), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Get(u"\\Data\\a.txt", &basic, nullptr, &bMarker), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(reinterpret_cast<UCHAR*>(&basic)[0], 0x11);
    EXPECT_EQ(reinterpret_cast<UCHAR*>(&standard)[0], 0x22);
    EXPECT_EQ(bMarker, 7);

    ntsim::UnicodeStringHolder path(DevicePath(u"\\Data\\a.txt"));
    EXPECT_EQ(SetFileInformation(path.get(), g_ServiceData.FilterHandle, instance_, nullptr),
              STATUS_INVALID_PARAMETER);
}

TEST_F(FileAccessTest, FileHeldOpenWithoutSharingIsStillReadAndItsTimesSet)
{
    volume_->SeedFile(u"\\Data\\locked.txt", "locked content");
    ntsim::AttachThread attach(UserProcess(kAlice));

    HANDLE exclusive = nullptr;
    ASSERT_EQ(OpenHandle(u"\\??\\C:\\Data\\locked.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                         {.createOptions = FILE_SYNCHRONOUS_IO_NONALERT, .share = 0}, &exclusive)
                  .status,
              STATUS_SUCCESS);
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data\\locked.txt", FILE_READ_DATA).status, STATUS_SHARING_VIOLATION);

    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    EXPECT_EQ(Get(u"\\Data\\locked.txt", &basic, &standard, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 14);

    FILE_BASIC_INFORMATION changed = basic;
    changed.LastWriteTime.QuadPart = basic.LastWriteTime.QuadPart - 1000;
    changed.CreationTime.QuadPart = 0;  // 0: left as it is
    ntsim::UnicodeStringHolder path(DevicePath(u"\\Data\\locked.txt"));
    EXPECT_EQ(SetFileInformation(path.get(), g_ServiceData.FilterHandle, instance_, &changed), STATUS_SUCCESS);
    EXPECT_EQ(volume_->BasicInformation(u"\\Data\\locked.txt")->LastWriteTime.QuadPart,
              basic.LastWriteTime.QuadPart - 1000);
    EXPECT_EQ(volume_->BasicInformation(u"\\Data\\locked.txt")->CreationTime.QuadPart, basic.CreationTime.QuadPart);

    EXPECT_EQ(NtClose(exclusive), STATUS_SUCCESS);
}

TEST_F(FileAccessTest, SetOnAMissingFileGivesTheOpensStatus)
{
    FILE_BASIC_INFORMATION basic{};
    volume_->SeedDirectory(u"\\Data");
    ntsim::UnicodeStringHolder path(DevicePath(u"\\Data\\missing.txt"));
    EXPECT_EQ(SetFileInformation(path.get(), g_ServiceData.FilterHandle, instance_, &basic),
              STATUS_OBJECT_NAME_NOT_FOUND);
}

// ---- JoinPathAndStreamName ----

TEST_F(FileAccessTest, StreamPathDropsTrailingBackslashesBeforeTheColon)
{
    struct Case {
        std::u16string path;
        std::string joined;
    };
    const std::vector<Case> cases = {
        {u"\\a\\b", "\\a\\b:x"},
        {u"\\a\\b\\", "\\a\\b:x"},
        {u"\\a\\b\\\\\\", "\\a\\b:x"},
        {u"\\a\\b\\.", "\\a\\b\\.:x"},
        {u"\\\\\\", ":x"},
        {u"", ":x"},
    };
    for (const Case& c : cases) {
        ntsim::UnicodeStringHolder path(c.path);
        OwnedString* pstrJoined = JoinPathAndStreamName(path.get(), L"x");
        ASSERT_NE(pstrJoined, nullptr) << ntsim::ToUtf8(c.path);
        EXPECT_EQ(Text(pstrJoined), c.joined) << ntsim::ToUtf8(c.path);
        EXPECT_EQ(pstrJoined->Length, pstrJoined->MaximumLength);
        FreeBuffer(pstrJoined);
    }

    // Only the characters within Length count, whatever the buffer holds behind them.
    char16_t text[] = u"\\a\\bc\\d";
    UNICODE_STRING counted{8, sizeof(text), reinterpret_cast<PWCH>(text)};
    OwnedString* pstrCounted = JoinPathAndStreamName(&counted, MARKER_STREAM_NAME);
    ASSERT_NE(pstrCounted, nullptr);
    EXPECT_EQ(Text(pstrCounted), "\\a\\b:" + ntsim::ToUtf8(kMarker));
    FreeBuffer(pstrCounted);
}

TEST_F(FileAccessTest, StreamPathFailsWithoutArgumentsOrMemory)
{
    ntsim::UnicodeStringHolder path(u"\\a");
    const size_t liveBefore = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
    EXPECT_EQ(JoinPathAndStreamName(nullptr, L"x"), nullptr);
    EXPECT_EQ(JoinPathAndStreamName(path.get(), nullptr), nullptr);

    // The block and the result: failing either gives null and leaves nothing behind.
    for (uint64_t failing = 1; failing <= 2; failing++) {
        ntsim::faults::FailNthAllocation(failing);
        EXPECT_EQ(JoinPathAndStreamName(path.get(), L"x"), nullptr) << failing;
        ntsim::faults::Reset();
    }
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, liveBefore);
}

TEST_F(FileAccessTest, TrailingBackslashOnADirectoryStillFindsItsMarker)
{
    volume_->SeedDirectory(u"\\Data\\fetched");
    volume_->SeedFile(u"\\Data\\fetched:" + kMarker, "");
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    UCHAR bMarker = 0;
    EXPECT_EQ(Get(u"\\Data\\fetched\\", &basic, &standard, &bMarker), STATUS_SUCCESS);
    EXPECT_EQ(bMarker, 1);
    EXPECT_TRUE(standard.Directory);
}

// ---- DeleteFile ----

TEST_F(FileAccessTest, DeleteRemovesAFileAndReportsAMissingOne)
{
    volume_->SeedFile(u"\\Data\\old.txt", "x");
    volume_->SeedFile(u"\\Data\\keep.txt:" + kMarker, "");
    ntsim::UnicodeStringHolder file(DevicePath(u"\\DATA\\OLD.TXT"));
    EXPECT_EQ(DeleteFile(file.get()), STATUS_SUCCESS);
    EXPECT_FALSE(volume_->Exists(u"\\Data\\old.txt"));
    EXPECT_EQ(DeleteFile(file.get()), STATUS_OBJECT_NAME_NOT_FOUND);

    // A stream goes alone.
    ntsim::UnicodeStringHolder stream(DevicePath(u"\\Data\\keep.txt:" + kMarker));
    EXPECT_EQ(DeleteFile(stream.get()), STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\Data\\keep.txt"));
    EXPECT_TRUE(volume_->StreamNames(u"\\Data\\keep.txt").empty());
}

TEST_F(FileAccessTest, DeleteGoesThroughTheFiltersOwnPreCreate)
{
    // The calling thread is the System process's: its merge folder C:\Data can't be deleted from
    // under the service, which only the filter's pre-create knows.
    volume_->SeedDirectory(u"\\Data");
    volume_->SeedDirectory(u"\\Data\\empty");
    ASSERT_EQ(Configure({{u"S-1-5-18", u"C:\\Data"}}), STATUS_SUCCESS);

    ntsim::UnicodeStringHolder root(DevicePath(u"\\Data"));
    EXPECT_EQ(DeleteFile(root.get()), STATUS_ACCESS_DENIED);
    EXPECT_TRUE(volume_->Exists(u"\\Data"));

    ntsim::UnicodeStringHolder inner(DevicePath(u"\\Data\\empty"));
    EXPECT_EQ(DeleteFile(inner.get()), STATUS_SUCCESS);
    EXPECT_FALSE(volume_->Exists(u"\\Data\\empty"));

    ClearConfiguration();
}

}  // namespace
}  // namespace foldermerge::testing
