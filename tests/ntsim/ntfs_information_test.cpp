// Data and information on the NTFS volume: writes and times, the query records, stream listings,
// rename, hard links, and the set classes.
#include "ntfs_test_support.hpp"

#include <ntsim/sim/verifier.hpp>

using namespace ntfs_test;
using ntsim::ToUtf8;
namespace vclock = ntsim::clock;

namespace {

class NtfsInformation : public VolumeTest {};

constexpr ACCESS_MASK kReadWrite = FILE_READ_DATA | FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES;

TEST_F(NtfsInformation, WritesExtendTheStreamAndMoveWriteAndChangeTimesOnly)
{
    volume->SeedFile(u"\\f.bin", "abc");
    const FILE_BASIC_INFORMATION before = *volume->BasicInformation(u"\\f.bin");
    auto open = MustOpen({.path = u"\\f.bin", .access = kReadWrite});
    vclock::Advance(5 * vclock::kSecond);

    ULONG written = 0;
    ASSERT_EQ(volume->Write(*open, 5000, 2, "yz", &written), STATUS_SUCCESS);
    EXPECT_EQ(written, 2u);
    const FILE_STANDARD_INFORMATION standard = Standard(*open);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 5002);
    EXPECT_EQ(standard.AllocationSize.QuadPart, 8192);  // whole 4096-byte clusters
    const std::string content = *volume->Content(u"\\f.bin");
    EXPECT_EQ(content.substr(0, 3), "abc");
    EXPECT_EQ(content.substr(3, 4997), std::string(4997, '\0'));  // the gap reads as zeros

    const FILE_BASIC_INFORMATION after = *volume->BasicInformation(u"\\f.bin");
    EXPECT_EQ(after.LastWriteTime.QuadPart, vclock::Now());
    EXPECT_EQ(after.ChangeTime.QuadPart, vclock::Now());
    EXPECT_EQ(after.CreationTime.QuadPart, before.CreationTime.QuadPart);
    EXPECT_EQ(after.LastAccessTime.QuadPart, before.LastAccessTime.QuadPart);

    char data[4];
    ULONG read = 99;
    EXPECT_EQ(volume->Read(*open, 5002, sizeof(data), data, &read), STATUS_END_OF_FILE);
    EXPECT_EQ(read, 0u);
    ASSERT_EQ(volume->Read(*open, 5000, sizeof(data), data, &read), STATUS_SUCCESS);
    EXPECT_EQ(std::string(data, read), "yz");
}

TEST_F(NtfsInformation, QueryRecordsDescribeTheFile)
{
    volume->SeedFile(u"\\dir\\Some File.txt", "hello", FILE_ATTRIBUTE_HIDDEN);
    volume->SeedHardLink(u"\\dir\\Some File.txt", u"\\second.txt");
    auto open = MustOpen({.path = u"\\DIR\\some file.txt", .access = FILE_READ_DATA});

    auto all = Query(*open, FileAllInformation, 200);
    ASSERT_EQ(all.size(), 100u + 2 * 18);
    EXPECT_EQ(At<ULONG>(all, 32), static_cast<ULONG>(FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(At<LONGLONG>(all, 40), 4096);  // AllocationSize
    EXPECT_EQ(At<LONGLONG>(all, 48), 5);     // EndOfFile
    EXPECT_EQ(At<ULONG>(all, 56), 2u);       // NumberOfLinks
    EXPECT_EQ(all[60], FALSE);               // DeletePending
    EXPECT_EQ(all[61], FALSE);               // Directory
    EXPECT_EQ(At<ULONG>(all, 72), 0u);       // EaSize
    EXPECT_EQ(At<ACCESS_MASK>(all, 76), static_cast<ACCESS_MASK>(FILE_READ_DATA));
    EXPECT_EQ(At<ULONG>(all, 96), 36u);      // FileNameLength
    EXPECT_EQ(NameAt(all, 100, 36), "\\dir\\Some File.txt");

    // The file id is stable across opens and names, and differs between files.
    const LONGLONG id = At<LONGLONG>(all, 64);
    auto viaLink = MustOpen({.path = u"\\second.txt"});
    EXPECT_EQ(At<LONGLONG>(Query(*viaLink, FileInternalInformation, 8), 0), id);
    volume->SeedFile(u"\\other.txt");
    EXPECT_NE(At<LONGLONG>(Query(*MustOpen({.path = u"\\other.txt"}), FileInternalInformation, 8), 0), id);

    auto network = Query(*open, FileNetworkOpenInformation, 56);
    EXPECT_EQ(At<LONGLONG>(network, 24), At<LONGLONG>(all, 24));  // ChangeTime
    EXPECT_EQ(At<LONGLONG>(network, 32), 4096);
    EXPECT_EQ(At<LONGLONG>(network, 40), 5);
    EXPECT_EQ(At<ULONG>(network, 48), static_cast<ULONG>(FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(At<ULONG>(Query(*open, FileAttributeTagInformation, 8), 0), static_cast<ULONG>(FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(At<ULONG>(Query(*open, FileEaInformation, 4), 0), 0u);

    // A name that does not fit: what fits, the whole length, and the overflow warning.
    auto name = Query(*open, FileNameInformation, 4 + 10, STATUS_BUFFER_OVERFLOW);
    ASSERT_EQ(name.size(), 14u);
    EXPECT_EQ(At<ULONG>(name, 0), 36u);
    EXPECT_EQ(NameAt(name, 4, 10), "\\dir\\");
    Query(*open, FileBasicInformation, 39, STATUS_INFO_LENGTH_MISMATCH);
    Query(*open, FileAllInformation, 103, STATUS_INFO_LENGTH_MISMATCH);

    auto directory = MustOpen({.path = u"\\dir"});
    const FILE_STANDARD_INFORMATION standard = Standard(*directory);
    EXPECT_TRUE(standard.Directory);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 0);
}

TEST_F(NtfsInformation, StreamListingGivesTheDefaultStreamThenNamedOnesWithSizes)
{
    volume->SeedFile(u"\\f.txt", "12345");
    volume->SeedFile(u"\\f.txt:Zeta", "z");
    volume->SeedFile(u"\\f.txt:alpha", std::string(5000, 'a'));
    auto open = MustOpen({.path = u"\\f.txt"});
    auto list = Query(*open, FileStreamInformation, 512);

    // "::$DATA" (14 bytes) at 0, ":alpha:$DATA" (24) at 40, ":Zeta:$DATA" (22) at 88.
    ASSERT_EQ(list.size(), 88u + 24 + 22);
    EXPECT_EQ(At<ULONG>(list, 0), 40u);
    EXPECT_EQ(At<ULONG>(list, 4), 14u);
    EXPECT_EQ(At<LONGLONG>(list, 8), 5);
    EXPECT_EQ(At<LONGLONG>(list, 16), 4096);
    EXPECT_EQ(NameAt(list, 24, 14), "::$DATA");
    EXPECT_EQ(At<ULONG>(list, 40), 48u);
    EXPECT_EQ(At<LONGLONG>(list, 48), 5000);
    EXPECT_EQ(At<LONGLONG>(list, 56), 8192);
    EXPECT_EQ(NameAt(list, 64, 24), ":alpha:$DATA");
    EXPECT_EQ(At<ULONG>(list, 88), 0u);
    EXPECT_EQ(NameAt(list, 112, 22), ":Zeta:$DATA");

    // Only whole entries are returned when the buffer is short.
    auto partial = Query(*open, FileStreamInformation, 60, STATUS_BUFFER_OVERFLOW);
    ASSERT_EQ(partial.size(), 38u);
    EXPECT_EQ(At<ULONG>(partial, 0), 0u);

    // A directory has no default data stream to list.
    volume->SeedDirectory(u"\\dir");
    EXPECT_TRUE(Query(*MustOpen({.path = u"\\dir"}), FileStreamInformation, 64).empty());
}

TEST_F(NtfsInformation, RenameMovesTheNameAndOpensFollowIt)
{
    volume->SeedFile(u"\\a\\Old Name.txt", "data");
    volume->SeedDirectory(u"\\b");
    auto open = MustOpen({.path = u"\\a\\OLDNAM~1.TXT", .access = DELETE});
    ASSERT_EQ(Rename(*open, u"\\b\\New Name.txt", false), STATUS_SUCCESS);
    EXPECT_FALSE(volume->Exists(u"\\a\\Old Name.txt"));
    EXPECT_FALSE(volume->Exists(u"\\a\\OLDNAM~1.TXT"));  // the old short name went with it
    EXPECT_EQ(volume->Content(u"\\b\\New Name.txt"), "data");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\b\\New Name.txt")), "NEWNAM~1.TXT");
    std::u16string path;
    ASSERT_EQ(volume->NormalizedPath(*open, &path), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(path), "\\b\\New Name.txt");

    // Only the letter case changes.
    ASSERT_EQ(Rename(*open, u"\\b\\NEW NAME.TXT", false), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(volume->List(u"\\b")[0]), "NEW NAME.TXT");

    EXPECT_EQ(Rename(*MustOpen({.path = u"\\b\\NEW NAME.TXT", .access = FILE_READ_DATA}), u"\\c.txt", false),
              STATUS_ACCESS_DENIED);  // a rename needs DELETE access
    EXPECT_EQ(Rename(*open, u"\\nodir\\x.txt", false), STATUS_OBJECT_PATH_NOT_FOUND);
    auto directory = MustOpen({.path = u"\\a", .access = DELETE});
    EXPECT_EQ(Rename(*directory, u"\\a\\inside", false), STATUS_INVALID_PARAMETER);
}

TEST_F(NtfsInformation, RenameOverAnExistingNameNeedsReplaceAndAClosedFileTarget)
{
    volume->SeedFile(u"\\source.txt", "new");
    volume->SeedFile(u"\\target.txt", "old");
    volume->SeedDirectory(u"\\folder");
    auto source = MustOpen({.path = u"\\source.txt", .access = DELETE});
    EXPECT_EQ(Rename(*source, u"\\TARGET.TXT", false), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Rename(*source, u"\\folder", true), STATUS_ACCESS_DENIED);
    {
        auto held = MustOpen({.path = u"\\target.txt"});
        EXPECT_EQ(Rename(*source, u"\\target.txt", true), STATUS_ACCESS_DENIED);
        Close(held);
    }
    ASSERT_EQ(Rename(*source, u"\\target.txt", true), STATUS_SUCCESS);
    EXPECT_EQ(volume->Content(u"\\target.txt"), "new");
    EXPECT_FALSE(volume->Exists(u"\\source.txt"));

    // The extended class reads its flags word.
    volume->SeedFile(u"\\third.txt", "3");
    FILE_RENAME_INFORMATION ex{};
    ex.Flags = FILE_RENAME_REPLACE_IF_EXISTS;
    std::u16string target = u"\\target.txt";
    auto third = MustOpen({.path = u"\\third.txt", .access = DELETE});
    Close(source);
    ASSERT_EQ(volume->SetInformation(*third, FileRenameInformationEx, &ex, sizeof(ex), &target), STATUS_SUCCESS);
    EXPECT_EQ(volume->Content(u"\\target.txt"), "3");
}

TEST_F(NtfsInformation, HardLinksShareDataAndCountTheirNames)
{
    volume->SeedFile(u"\\first.txt", "shared");
    auto open = MustOpen({.path = u"\\first.txt", .access = kReadWrite});
    std::u16string target = u"\\dir2\\second.txt";
    volume->SeedDirectory(u"\\dir2");
    FILE_LINK_INFORMATION link{};
    ASSERT_EQ(volume->SetInformation(*open, FileLinkInformation, &link, sizeof(link), &target), STATUS_SUCCESS);
    EXPECT_EQ(Standard(*open).NumberOfLinks, 2u);
    EXPECT_EQ(volume->SetInformation(*open, FileLinkInformation, &link, sizeof(link), &target),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(ToUtf8(volume->ShortName(target)), "");  // a hard link gets no short name

    ULONG written = 0;
    ASSERT_EQ(volume->Write(*open, 0, 6, "SHARED", &written), STATUS_SUCCESS);
    EXPECT_EQ(volume->Content(target), "SHARED");

    auto second = MustOpen({.path = target, .access = DELETE});
    ASSERT_EQ(Delete(*second), STATUS_SUCCESS);
    Close(second);
    EXPECT_FALSE(volume->Exists(target));
    EXPECT_EQ(volume->LinkCount(u"\\first.txt"), 1u);
    EXPECT_EQ(Standard(*open).NumberOfLinks, 1u);

    auto directory = MustOpen({.path = u"\\dir2"});
    EXPECT_EQ(volume->SetInformation(*directory, FileLinkInformation, &link, sizeof(link), &target),
              STATUS_FILE_IS_A_DIRECTORY);
}

TEST_F(NtfsInformation, SetClassesChangeTimesAttributesAndSizes)
{
    volume->SeedFile(u"\\f.txt", "0123456789");
    auto open = MustOpen({.path = u"\\f.txt", .access = kReadWrite});
    const FILE_BASIC_INFORMATION before = *volume->BasicInformation(u"\\f.txt");
    vclock::Advance(vclock::kMinute);

    FILE_BASIC_INFORMATION basic{};
    basic.LastWriteTime.QuadPart = 12345;
    basic.FileAttributes = FILE_ATTRIBUTE_READONLY;
    ASSERT_EQ(Set(*open, FileBasicInformation, basic), STATUS_SUCCESS);
    const FILE_BASIC_INFORMATION after = *volume->BasicInformation(u"\\f.txt");
    EXPECT_EQ(after.LastWriteTime.QuadPart, 12345);
    EXPECT_EQ(after.CreationTime.QuadPart, before.CreationTime.QuadPart);  // 0 leaves it
    EXPECT_EQ(after.ChangeTime.QuadPart, vclock::Now());
    EXPECT_EQ(after.FileAttributes, static_cast<ULONG>(FILE_ATTRIBUTE_READONLY));
    basic = {};
    basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    ASSERT_EQ(Set(*open, FileBasicInformation, basic), STATUS_SUCCESS);
    EXPECT_EQ(volume->BasicInformation(u"\\f.txt")->FileAttributes, static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL));

    FILE_END_OF_FILE_INFORMATION endOfFile{};
    endOfFile.EndOfFile.QuadPart = 4;
    ASSERT_EQ(Set(*open, FileEndOfFileInformation, endOfFile), STATUS_SUCCESS);
    EXPECT_EQ(volume->Content(u"\\f.txt"), "0123");
    FILE_ALLOCATION_INFORMATION allocation{};
    allocation.AllocationSize.QuadPart = 10000;
    ASSERT_EQ(Set(*open, FileAllocationInformation, allocation), STATUS_SUCCESS);
    EXPECT_EQ(Standard(*open).AllocationSize.QuadPart, 12288);
    EXPECT_EQ(Standard(*open).EndOfFile.QuadPart, 4);
    allocation.AllocationSize.QuadPart = 2;
    ASSERT_EQ(Set(*open, FileAllocationInformation, allocation), STATUS_SUCCESS);
    EXPECT_EQ(volume->Content(u"\\f.txt"), "01");

    auto readOnly = MustOpen({.path = u"\\f.txt", .access = FILE_READ_DATA});
    EXPECT_EQ(Set(*readOnly, FileBasicInformation, basic), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Set(*readOnly, FileEndOfFileInformation, endOfFile), STATUS_ACCESS_DENIED);
}

TEST_F(NtfsInformation, FileWithoutExtendedAttributesHasNoneAndUnmodelledClassesFailLoudly)
{
    volume->SeedFile(u"\\f.txt");
    auto open = MustOpen({.path = u"\\f.txt"});
    char buffer[64];
    ULONG returned = 1;
    EXPECT_EQ(volume->QueryEa(*open, {}, buffer, sizeof(buffer), &returned), STATUS_NO_EAS_ON_FILE);
    EXPECT_EQ(returned, 0u);
    Query(*open, FileRenameInformation, 64, STATUS_INVALID_INFO_CLASS);

    ntsim::verifier::BugCheckCapture capture;
    Query(*open, FileCompressionInformation, 64, STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(capture.Consume(ntsim::verifier::rules::kNotImplemented));
}

}  // namespace
