// Opens on the NTFS volume: dispositions, name resolution, share access, target-directory opens,
// delete pending, named streams and short names.
#include "ntfs_test_support.hpp"

using namespace ntfs_test;
using ntsim::ToUtf8;

namespace {

class NtfsCreate : public VolumeTest {};

TEST_F(NtfsCreate, EachDispositionReportsItsInformationOnMissingAndExistingFiles)
{
    struct Case {
        ULONG disposition;
        NTSTATUS missingStatus;
        ULONG_PTR missingInformation;
        NTSTATUS existingStatus;
        ULONG_PTR existingInformation;
        bool truncates;
    };
    const Case cases[] = {
        {FILE_SUPERSEDE, STATUS_SUCCESS, FILE_CREATED, STATUS_SUCCESS, FILE_SUPERSEDED, true},
        {FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND, 0, STATUS_SUCCESS, FILE_OPENED, false},
        {FILE_CREATE, STATUS_SUCCESS, FILE_CREATED, STATUS_OBJECT_NAME_COLLISION, 0, false},
        {FILE_OPEN_IF, STATUS_SUCCESS, FILE_CREATED, STATUS_SUCCESS, FILE_OPENED, false},
        {FILE_OVERWRITE, STATUS_OBJECT_NAME_NOT_FOUND, 0, STATUS_SUCCESS, FILE_OVERWRITTEN, true},
        {FILE_OVERWRITE_IF, STATUS_SUCCESS, FILE_CREATED, STATUS_SUCCESS, FILE_OVERWRITTEN, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.disposition);
        const std::u16string missing = u"\\missing" + std::u16string(1, u'0' + c.disposition);
        Opened created = Open({.path = missing, .access = FILE_WRITE_DATA, .disposition = c.disposition});
        EXPECT_EQ(created.status, c.missingStatus);
        if (NT_SUCCESS(c.missingStatus)) {
            EXPECT_EQ(created.information, c.missingInformation);
            EXPECT_TRUE(volume->Exists(missing));
        } else {
            EXPECT_FALSE(volume->Exists(missing));
        }

        const std::u16string existing = u"\\existing" + std::u16string(1, u'0' + c.disposition);
        volume->SeedFile(existing, "content");
        Opened opened = Open({.path = existing, .access = FILE_WRITE_DATA, .disposition = c.disposition});
        EXPECT_EQ(opened.status, c.existingStatus);
        if (NT_SUCCESS(c.existingStatus)) {
            EXPECT_EQ(opened.information, c.existingInformation);
        }
        EXPECT_EQ(volume->Content(existing), c.truncates ? "" : "content");
    }
}

TEST_F(NtfsCreate, MissingLeafAndMissingOrFileParentAreTold)
{
    volume->SeedFile(u"\\dir\\file.txt");
    EXPECT_EQ(Open({.path = u"\\dir\\nothing.txt"}).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open({.path = u"\\nodir\\file.txt"}).status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open({.path = u"\\dir\\file.txt\\below"}).status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open({.path = u"\\nodir\\new.txt", .disposition = FILE_CREATE}).status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open({.path = u"\\dir\\a*b"}).status, STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Open({.path = u"\\dir\\\\file.txt"}).status, STATUS_OBJECT_NAME_INVALID);
}

TEST_F(NtfsCreate, DirectoryAndNonDirectoryOptionsAreEnforced)
{
    volume->SeedFile(u"\\file.txt");
    volume->SeedDirectory(u"\\dir");
    EXPECT_EQ(Open({.path = u"\\file.txt", .options = FILE_DIRECTORY_FILE}).status, STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(Open({.path = u"\\dir", .options = FILE_NON_DIRECTORY_FILE}).status, STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Open({.path = u"\\dir", .disposition = FILE_OVERWRITE_IF}).status, STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Open({.path = u"\\x", .disposition = FILE_OVERWRITE_IF, .options = FILE_DIRECTORY_FILE}).status,
              STATUS_INVALID_PARAMETER);

    Opened made = Open({.path = u"\\newdir", .disposition = FILE_CREATE, .options = FILE_DIRECTORY_FILE});
    ASSERT_EQ(made.status, STATUS_SUCCESS);
    EXPECT_TRUE(made.open->IsDirectory());
    EXPECT_TRUE(volume->IsDirectoryPath(u"\\newdir"));
    EXPECT_FALSE(MustOpen({.path = u"\\file.txt"})->IsDirectory());
}

TEST_F(NtfsCreate, NamesMatchWithoutRegardToCaseAndKeepTheirCase)
{
    ASSERT_EQ(Open({.path = u"\\MixedCase.Txt", .disposition = FILE_CREATE}).status, STATUS_SUCCESS);
    EXPECT_EQ(Open({.path = u"\\mixedcase.TXT"}).status, STATUS_SUCCESS);
    EXPECT_EQ(Open({.path = u"\\MIXEDCASE.txt", .disposition = FILE_CREATE}).status, STATUS_OBJECT_NAME_COLLISION);
    // Latin-1 letters fold too: U+00E9 and U+00C9.
    volume->SeedFile(u"\\caf\u00e9");
    EXPECT_TRUE(volume->Exists(u"\\CAF\u00c9"));
    ASSERT_EQ(volume->List(u"\\").size(), 2u);
    EXPECT_EQ(ToUtf8(volume->List(u"\\")[1]), "MixedCase.Txt");
}

TEST_F(NtfsCreate, SharingViolationsFollowAccessAndShareModesPerStream)
{
    volume->SeedFile(u"\\f.txt", "x");
    auto reader = MustOpen({.path = u"\\f.txt", .access = FILE_READ_DATA, .share = FILE_SHARE_READ});
    // A writer conflicts with the reader's share mode; a reader that shares reading does not.
    EXPECT_EQ(Open({.path = u"\\f.txt", .access = FILE_WRITE_DATA}).status, STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Open({.path = u"\\f.txt", .access = FILE_READ_DATA, .share = FILE_SHARE_READ}).status, STATUS_SUCCESS);
    // A reader that does not share reading conflicts with the reader already there.
    EXPECT_EQ(Open({.path = u"\\f.txt", .access = FILE_READ_DATA, .share = FILE_SHARE_WRITE}).status,
              STATUS_SHARING_VIOLATION);
    // Attribute-only access takes no part in share access.
    EXPECT_EQ(Open({.path = u"\\f.txt", .access = FILE_READ_ATTRIBUTES, .share = 0}).status, STATUS_SUCCESS);
    // Share access is per stream: a named stream of the same file is free.
    EXPECT_EQ(Open({.path = u"\\f.txt:side", .access = FILE_WRITE_DATA, .disposition = FILE_OPEN_IF}).status,
              STATUS_SUCCESS);
    // Cleanup releases what the reader recorded.
    Close(reader);
    EXPECT_EQ(Open({.path = u"\\f.txt", .access = FILE_WRITE_DATA, .share = 0}).status, STATUS_SUCCESS);
}

TEST_F(NtfsCreate, IgnoringShareAccessNeitherChecksNorRecords)
{
    volume->SeedFile(u"\\f.txt", "x");
    auto exclusive = MustOpen({.path = u"\\f.txt", .access = FILE_READ_DATA, .share = 0});
    ASSERT_EQ(Open({.path = u"\\f.txt", .access = FILE_READ_DATA}).status, STATUS_SHARING_VIOLATION);
    auto bypass = Open({.path = u"\\f.txt", .access = FILE_WRITE_DATA, .share = 0, .ignoreShareAccess = true});
    ASSERT_EQ(bypass.status, STATUS_SUCCESS);
    Close(exclusive);
    // Had the bypassing open recorded its write access without sharing, this would be refused.
    EXPECT_EQ(Open({.path = u"\\f.txt", .access = FILE_WRITE_DATA}).status, STATUS_SUCCESS);
    Close(bypass.open);
    EXPECT_EQ(volume->OpenCount(), 0u);
}

TEST_F(NtfsCreate, TargetDirectoryOpenOpensTheParentAndTellsWhetherTheNameExists)
{
    volume->SeedFile(u"\\dir\\present.txt");
    Opened present = Open({.path = u"\\dir\\present.txt", .access = FILE_WRITE_DATA, .flags = 0x4});
    ASSERT_EQ(present.status, STATUS_SUCCESS);
    EXPECT_EQ(present.information, FILE_EXISTS);
    EXPECT_EQ(ToUtf8(present.finalComponent), "present.txt");
    EXPECT_TRUE(present.open->IsDirectory());
    std::u16string path;
    ASSERT_EQ(volume->NormalizedPath(*present.open, &path), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(path), "\\dir");

    Opened absent = Open({.path = u"\\dir\\absent.txt", .flags = 0x4});
    ASSERT_EQ(absent.status, STATUS_SUCCESS);
    EXPECT_EQ(absent.information, FILE_DOES_NOT_EXIST);
    EXPECT_EQ(Open({.path = u"\\nodir\\x", .flags = 0x4}).status, STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(NtfsCreate, DeleteDispositionRefusesNewOpensAndDeletesAtTheLastCleanup)
{
    volume->SeedFile(u"\\doomed.txt", "x");
    auto first = MustOpen({.path = u"\\doomed.txt", .access = DELETE});
    auto second = MustOpen({.path = u"\\doomed.txt", .access = FILE_READ_DATA});
    ASSERT_EQ(Delete(*first), STATUS_SUCCESS);
    EXPECT_TRUE(Standard(*second).DeletePending);
    EXPECT_EQ(Open({.path = u"\\doomed.txt"}).status, STATUS_DELETE_PENDING);
    Close(first);
    EXPECT_TRUE(volume->Exists(u"\\doomed.txt"));  // the second handle still holds it
    Close(second);
    EXPECT_FALSE(volume->Exists(u"\\doomed.txt"));

    // Clearing the disposition before cleanup keeps the file.
    volume->SeedFile(u"\\kept.txt");
    auto kept = MustOpen({.path = u"\\kept.txt", .access = DELETE});
    ASSERT_EQ(Delete(*kept), STATUS_SUCCESS);
    ASSERT_EQ(Delete(*kept, false), STATUS_SUCCESS);
    Close(kept);
    EXPECT_TRUE(volume->Exists(u"\\kept.txt"));
}

TEST_F(NtfsCreate, DeleteDispositionRefusals)
{
    volume->SeedFile(u"\\dir\\child");
    volume->SeedFile(u"\\readonly.txt", "", FILE_ATTRIBUTE_READONLY);
    volume->SeedFile(u"\\plain.txt");
    EXPECT_EQ(Delete(*MustOpen({.path = u"\\dir", .access = DELETE})), STATUS_DIRECTORY_NOT_EMPTY);
    EXPECT_EQ(Delete(*MustOpen({.path = u"\\readonly.txt", .access = DELETE})), STATUS_CANNOT_DELETE);
    EXPECT_EQ(Delete(*MustOpen({.path = u"\\plain.txt", .access = FILE_READ_DATA})), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Delete(*MustOpen({.path = u"\\", .access = DELETE})), STATUS_CANNOT_DELETE);
}

TEST_F(NtfsCreate, DeleteOnCloseTakesEffectAtThatHandlesCleanup)
{
    volume->SeedFile(u"\\temp.txt");
    auto temp = MustOpen({.path = u"\\temp.txt", .access = DELETE, .options = FILE_DELETE_ON_CLOSE});
    // Until the cleanup the name is not pending: others may still open it.
    auto other = MustOpen({.path = u"\\temp.txt"});
    Close(temp);
    EXPECT_EQ(Open({.path = u"\\temp.txt"}).status, STATUS_DELETE_PENDING);
    Close(other);
    EXPECT_FALSE(volume->Exists(u"\\temp.txt"));
    EXPECT_EQ(Open({.path = u"\\x", .access = FILE_READ_DATA, .disposition = FILE_CREATE,
                    .options = FILE_DELETE_ON_CLOSE}).status,
              STATUS_INVALID_PARAMETER);  // delete on close needs DELETE access
}

TEST_F(NtfsCreate, ExtendedDispositionSupportsPosixRemovalAndDeleteOnClose)
{
    volume->SeedFile(u"\\posix.txt", "still readable");
    auto deleter = MustOpen({.path = u"\\posix.txt", .access = DELETE});
    auto reader = MustOpen({.path = u"\\posix.txt", .access = FILE_READ_DATA});
    FILE_DISPOSITION_INFORMATION_EX disposition{};
    disposition.Flags = FILE_DISPOSITION_DELETE | FILE_DISPOSITION_POSIX_SEMANTICS;
    ASSERT_EQ(Set(*deleter, FileDispositionInformationEx, disposition), STATUS_SUCCESS);
    Close(deleter);
    // The name goes at this handle's cleanup although another handle is open; that one reads on.
    EXPECT_FALSE(volume->Exists(u"\\posix.txt"));
    ASSERT_EQ(Open({.path = u"\\posix.txt", .disposition = FILE_CREATE}).status, STATUS_SUCCESS);
    char data[32];
    ULONG read = 0;
    ASSERT_EQ(volume->Read(*reader, 0, sizeof(data), data, &read), STATUS_SUCCESS);
    EXPECT_EQ(std::string(data, read), "still readable");
    std::u16string path;
    EXPECT_EQ(volume->NormalizedPath(*reader, &path), STATUS_FILE_DELETED);

    volume->SeedFile(u"\\onclose.txt");
    auto onClose = MustOpen({.path = u"\\onclose.txt", .access = DELETE});
    disposition.Flags = FILE_DISPOSITION_DELETE | FILE_DISPOSITION_ON_CLOSE;
    ASSERT_EQ(Set(*onClose, FileDispositionInformationEx, disposition), STATUS_SUCCESS);
    EXPECT_FALSE(Standard(*onClose).DeletePending);  // only at cleanup
    Close(onClose);
    EXPECT_FALSE(volume->Exists(u"\\onclose.txt"));
}

TEST_F(NtfsCreate, NamedStreamsOpenByEitherFormAndStayApartFromTheDefaultStream)
{
    volume->SeedFile(u"\\f.txt", "main");
    Opened created = Open({.path = u"\\f.txt:side", .access = FILE_WRITE_DATA, .disposition = FILE_CREATE});
    ASSERT_EQ(created.status, STATUS_SUCCESS);
    EXPECT_EQ(created.information, FILE_CREATED);
    ULONG written = 0;
    ASSERT_EQ(volume->Write(*created.open, 0, 4, "side", &written), STATUS_SUCCESS);

    auto longForm = MustOpen({.path = u"\\F.TXT:SIDE:$data"});
    char data[8] = {};
    ULONG read = 0;
    ASSERT_EQ(volume->Read(*longForm, 0, sizeof(data), data, &read), STATUS_SUCCESS);
    EXPECT_EQ(std::string(data, read), "side");
    EXPECT_EQ(volume->Content(u"\\f.txt::$DATA"), "main");
    EXPECT_EQ(volume->Content(u"\\f.txt"), "main");

    EXPECT_EQ(Open({.path = u"\\f.txt:other"}).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open({.path = u"\\f.txt:side:$INDEX_ALLOCATION"}).status, STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Open({.path = u"\\f.txt:"}).status, STATUS_OBJECT_NAME_INVALID);
    std::u16string normalized;
    ASSERT_EQ(volume->NormalizedPath(*longForm, &normalized), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(normalized), "\\f.txt:side");
}

TEST_F(NtfsCreate, LongNamesGetNumberedShortNamesUniqueInTheirDirectory)
{
    volume->SeedFile(u"\\dir\\Long File Name.text");
    volume->SeedFile(u"\\dir\\Long File Other.text");
    volume->SeedFile(u"\\dir\\SHORT.TXT");
    volume->SeedFile(u"\\dir\\lower.txt");
    volume->SeedFile(u"\\dir\\.gitignore");
    volume->SeedFile(u"\\dir\\a+b.c.d");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\dir\\Long File Name.text")), "LONGFI~1.TEX");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\dir\\Long File Other.text")), "LONGFI~2.TEX");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\dir\\SHORT.TXT")), "");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\dir\\lower.txt")), "");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\dir\\.gitignore")), "GITIGN~1");
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\dir\\a+b.c.d")), "A_BC~1.D");
}

TEST_F(NtfsCreate, ShortNamesOpenFilesAndNormalizeToLongNames)
{
    volume->SeedFile(u"\\Program Files\\Long Application.exe", "app");
    ASSERT_EQ(ToUtf8(volume->ShortName(u"\\Program Files")), "PROGRA~1");
    auto open = MustOpen({.path = u"\\progra~1\\LONGAP~1.EXE"});
    std::u16string path;
    ASSERT_EQ(volume->NormalizedPath(*open, &path), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(path), "\\Program Files\\Long Application.exe");
    ASSERT_EQ(volume->NormalizePath(u"\\PROGRA~1\\longap~1.exe", &path), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(path), "\\Program Files\\Long Application.exe");
    EXPECT_EQ(volume->NormalizePath(u"\\PROGRA~1\\missing.exe", &path), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(volume->NormalizePath(u"\\PROGRA~2\\x", &path), STATUS_OBJECT_PATH_NOT_FOUND);
    // A name made through the I/O path gets one too, unique beside the existing one.
    ASSERT_EQ(Open({.path = u"\\Program Files\\Long Apple.exe", .disposition = FILE_CREATE}).status, STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(volume->ShortName(u"\\Program Files\\Long Apple.exe")), "LONGAP~2.EXE");
}

TEST_F(NtfsCreate, ReadOnlyFilesRefuseWritingOpens)
{
    volume->SeedFile(u"\\ro.txt", "x", FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(Open({.path = u"\\ro.txt", .access = FILE_WRITE_DATA}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open({.path = u"\\ro.txt", .disposition = FILE_OVERWRITE}).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open({.path = u"\\ro.txt", .access = DELETE, .options = FILE_DELETE_ON_CLOSE}).status,
              STATUS_CANNOT_DELETE);
    EXPECT_EQ(Open({.path = u"\\ro.txt", .access = FILE_READ_DATA}).status, STATUS_SUCCESS);
}

}  // namespace
