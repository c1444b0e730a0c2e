// Set information of managed files against a scripted service: each refusal of renames, links and
// deletions, the requests each route of a rename sends and the records it leaves, dispositions set
// and cleared, size and basic information changes; the recycle bin test of a rename's destination.
#include "followed_fixture.hpp"

#include <ntsim/sim/iomanager.hpp>

#include <cstring>
#include <string>

#include "driver/setinformation.h"

namespace foldermerge::testing {
namespace {

constexpr ACCESS_MASK kRenameAccess = DELETE | FILE_GENERIC_READ | FILE_GENERIC_WRITE;

std::vector<UCHAR> RenameRecord(std::u16string_view target, bool replace)
{
    const size_t nameBytes = target.size() * sizeof(WCHAR);
    std::vector<UCHAR> buffer(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + nameBytes + sizeof(WCHAR), 0);
    auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
    rename->ReplaceIfExists = replace ? TRUE : FALSE;
    rename->FileNameLength = static_cast<ULONG>(nameBytes);
    std::memcpy(rename->FileName, target.data(), nameBytes);
    return buffer;
}

NTSTATUS SetInformation(HANDLE handle, FILE_INFORMATION_CLASS infoClass, std::vector<UCHAR> buffer)
{
    IO_STATUS_BLOCK ioStatus{};
    return NtSetInformationFile(handle, &ioStatus, buffer.data(), static_cast<ULONG>(buffer.size()), infoClass);
}

// Renames (or links, with FileLinkInformation) to target: \??\C:\... or a relative name.
NTSTATUS Rename(HANDLE handle, std::u16string_view target, bool replace = false,
                FILE_INFORMATION_CLASS infoClass = FileRenameInformation)
{
    return SetInformation(handle, infoClass, RenameRecord(target, replace));
}

template <typename Record>
NTSTATUS Set(HANDLE handle, FILE_INFORMATION_CLASS infoClass, const Record& record)
{
    std::vector<UCHAR> buffer(sizeof(Record));
    std::memcpy(buffer.data(), &record, sizeof(Record));
    return SetInformation(handle, infoClass, buffer);
}

NTSTATUS Dispose(HANDLE handle, bool deleteFile)
{
    return Set(handle, FileDispositionInformation, FILE_DISPOSITION_INFORMATION{static_cast<BOOLEAN>(deleteFile)});
}

std::string Text(std::u16string_view text)
{
    return ntsim::ToUtf8(text);
}

// What the open of a rename's target directory in a managed folder costs: the I/O manager opens it
// before any filter sees the rename, and the open gate asks as for any open that adds a file.
const std::vector<uint32_t> kTargetDirectoryOpen = {SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                                                    SERVICE_REQUEST_OBJECT_SIGNATURE};

std::vector<uint32_t> After(std::vector<uint32_t> first, const std::vector<uint32_t>& then)
{
    first.insert(first.end(), then.begin(), then.end());
    return first;
}

class SetInformationTest : public FollowedFileTest {
protected:
    // The codes of the requests since `from` that the set-information handling sends: exclusion questions,
    // which the exclusion cache answers or not, are left out.
    std::vector<uint32_t> StepsSince(size_t from) const
    {
        std::vector<uint32_t> codes;
        for (uint32_t code : CodesSince(from)) {
            if (code != SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE) {
                codes.push_back(code);
            }
        }
        return codes;
    }

    std::string PathOf(HANDLE handle) const
    {
        FileContext* pContext = FindContextByFileObject(FileObjectOf(handle), FALSE);
        return pContext == nullptr || pContext->pstrPath == nullptr ? "<none>" : ntsim::ToUtf8(*pContext->pstrPath);
    }
};

TEST(RecycleBinPath, TheRecycleBinCountsOnlyBelowItsDirectoryAtTheVolumeRoot)
{
    const struct {
        const char16_t* path;
        bool inRecycleBin;
    } cases[] = {
        {u"\\Device\\HarddiskVolume2\\$Recycle.Bin\\S-1-5-21\\$R1.txt", true},
        {u"\\Device\\HarddiskVolume2\\$RECYCLE.BIN\\x", true},
        {u"\\Device\\HarddiskVolume2\\$Recycle.Bin\\", true},
        {u"\\Device\\HarddiskVolume2\\$Recycle.Bin", false},
        {u"\\Device\\HarddiskVolume2\\dir\\$Recycle.Bin\\x", false},
        {u"\\Device\\HarddiskVolume2\\file", false},
        {u"\\Device\\$Recycle.Bin\\x", false},
        {u"", false},
    };
    for (const auto& test : cases) {
        ntsim::UnicodeStringHolder path(test.path);
        EXPECT_EQ(IsRecycleBinPath(path.get()), test.inRecycleBin) << Text(test.path);
    }
    EXPECT_FALSE(IsRecycleBinPath(nullptr));
}

// ---- the routes of a rename ----

TEST_F(SetInformationTest, RenameWithinManagedFoldersAsksTheServiceAndRenamesTheRecordsOfTheSid)
{
    constexpr char16_t kFile[] = u"\\Data\\a.txt";
    volume_->SeedFile(kFile, "content");
    volume_->SeedFile(std::u16string(kFile) + u":" + reinterpret_cast<const char16_t*>(DIRTY_BLOCK_STREAM_NAME), "map");
    Serve({Tracked(kFile)});
    HANDLE renamed = Open(kFile, kRenameAccess);
    HANDLE second = Open(kFile, FILE_GENERIC_READ);
    FileContext* pContext = Follow(renamed);
    Track(pContext);
    Follow(second);
    const size_t mark = Mark();

    ASSERT_EQ(Rename(renamed, u"\\??\\C:\\Data\\Docs\\b.txt"), STATUS_SUCCESS);

    EXPECT_EQ(StepsSince(mark),
              After(kTargetDirectoryOpen,
                    {SERVICE_REQUEST_OBJECT_IS_READ_ONLY, SERVICE_REQUEST_OBJECT_EXISTS, SERVICE_REQUEST_OBJECT_EXISTS,
                     SERVICE_REQUEST_OBJECT_WRITE_NOTIFY, SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD,
                     SERVICE_REQUEST_OBJECT_RENAME}));
    std::vector<RequestView> exists;
    std::vector<RequestView> renames;
    for (const RequestView& request : RequestsSince(mark)) {
        (request.code == SERVICE_REQUEST_OBJECT_EXISTS ? exists : renames).push_back(request);
    }
    const std::string oldPath = Text(OnVolume(kFile));
    const std::string newPath = Text(OnVolume(u"\\Data\\Docs\\b.txt"));
    ASSERT_EQ(exists.size(), 2u);
    EXPECT_EQ(Text(exists[0].path), newPath) << "the destination is asked about first";
    EXPECT_EQ(Text(exists[1].path), oldPath);
    ASSERT_EQ(renames.back().code, uint32_t{SERVICE_REQUEST_OBJECT_RENAME});
    EXPECT_EQ(Text(renames.back().path), oldPath);
    EXPECT_EQ(Text(renames.back().secondString), newPath);

    EXPECT_TRUE(volume_->Exists(u"\\Data\\Docs\\b.txt"));
    EXPECT_TRUE(volume_->StreamNames(u"\\Data\\Docs\\b.txt").empty()) << "the map stream goes at the new name";
    EXPECT_EQ(PathOf(renamed), newPath);
    EXPECT_EQ(PathOf(second), newPath) << "every open of the file under the SID";
    EXPECT_EQ(pContext->pstrRenameTarget, nullptr);
    Close(second);
    Close(renamed);
}

TEST_F(SetInformationTest, RenameOutOfManagedFoldersLetsTheServiceKeepAnObjectItHolds)
{
    volume_->SeedDirectory(u"\\$Recycle.Bin\\S-1-5-21-1-2-3-1001");
    for (const char16_t* name : {u"\\Data\\kept.txt", u"\\Data\\out.txt", u"\\Data\\bin.txt", u"\\Data\\new.txt"}) {
        volume_->SeedFile(name, "content");
    }
    Serve({{.code = SERVICE_REQUEST_OBJECT_EXISTS, .path = OnVolume(u"\\Data\\new.txt"), .reply = {.exists = false}},
           {.code = SERVICE_REQUEST_OBJECT_EXISTS, .reply = {.exists = true}},
           {.code = SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED, .path = OnVolume(u"\\Data\\kept.txt"),
            .reply = {.status = static_cast<int32_t>(STATUS_UNSUCCESSFUL)}}});

    HANDLE kept = Open(u"\\Data\\kept.txt", kRenameAccess);
    Follow(kept);
    size_t mark = Mark();
    EXPECT_EQ(Rename(kept, u"\\??\\C:\\Outside\\kept.txt"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(StepsSince(mark),
              (std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_EXISTS, SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED}));
    EXPECT_TRUE(volume_->Exists(u"\\Data\\kept.txt"));
    Close(kept);

    HANDLE out = Open(u"\\Data\\out.txt", kRenameAccess);
    Follow(out);
    mark = Mark();
    ASSERT_EQ(Rename(out, u"\\??\\C:\\Outside\\out.txt"), STATUS_SUCCESS);
    std::vector<RequestView> requests = RequestsSince(mark);
    EXPECT_EQ(StepsSince(mark),
              (std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_EXISTS, SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED,
                                     SERVICE_REQUEST_OBJECT_RENAME}));
    EXPECT_FALSE(requests.empty() || requests[requests.size() - 2].toRecycleBin);
    EXPECT_EQ(PathOf(out), Text(OnVolume(u"\\Outside\\out.txt"))) << "the record follows the file object";
    Close(out);

    HANDLE bin = Open(u"\\Data\\bin.txt", kRenameAccess);
    Follow(bin);
    mark = Mark();
    ASSERT_EQ(Rename(bin, u"\\??\\C:\\$Recycle.Bin\\S-1-5-21-1-2-3-1001\\$R1.txt"), STATUS_SUCCESS);
    requests = RequestsSince(mark);
    ASSERT_GE(requests.size(), 2u);
    EXPECT_EQ(requests[requests.size() - 2].code, uint32_t{SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED});
    EXPECT_TRUE(requests[requests.size() - 2].toRecycleBin);
    Close(bin);

    // An object the service doesn't hold leaves without a word to it before the rename.
    HANDLE fresh = Open(u"\\Data\\new.txt", kRenameAccess);
    Follow(fresh);
    mark = Mark();
    ASSERT_EQ(Rename(fresh, u"\\??\\C:\\Outside\\new.txt"), STATUS_SUCCESS);
    EXPECT_EQ(StepsSince(mark), (std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_EXISTS, SERVICE_REQUEST_OBJECT_RENAME}));
    Close(fresh);
}

TEST_F(SetInformationTest, RenameIntoAManagedFolderGivesTheFileObjectARecord)
{
    volume_->SeedFile(u"\\Outside\\in.txt", "content");
    volume_->SeedFile(u"\\Outside\\stays.txt", "content");
    volume_->SeedFile(u"\\Outside\\service.txt", "content");
    volume_->SeedFile(u"\\Outside\\late.txt", "content");
    Serve();

    HANDLE stays = Open(u"\\Outside\\stays.txt", kRenameAccess);
    size_t mark = Mark();
    ASSERT_EQ(Rename(stays, u"\\??\\C:\\Outside\\moved.txt"), STATUS_SUCCESS);
    EXPECT_TRUE(CodesSince(mark).empty()) << "an unmanaged file that stays unmanaged costs the service nothing";
    EXPECT_EQ(FindContextByFileObject(FileObjectOf(stays), TRUE), nullptr);
    Close(stays);

    {
        ntsim::AttachThread thread(service_.ServiceProcess());
        HANDLE own = Open(u"\\Outside\\service.txt", kRenameAccess);
        ASSERT_EQ(Rename(own, u"\\??\\C:\\Data\\service.txt"), STATUS_SUCCESS);
        EXPECT_EQ(FindContextByFileObject(FileObjectOf(own), TRUE), nullptr) << "the service's own renames pass";
        Close(own);
    }

    // The first round counts from before the service's own rename, which asks nothing. The rename
    // is not synchronized: where it completes at DISPATCH_LEVEL, its requests go out from a thread
    // where waiting is allowed.
    for (auto where : {ntsim::PostOperationContext::IssuingThread, ntsim::PostOperationContext::ArbitraryThread}) {
        ntsim::ScopedPostOperationContext context(where);
        const std::u16string name = where == ntsim::PostOperationContext::IssuingThread ? u"in.txt" : u"late.txt";
        SCOPED_TRACE(Text(name));
        HANDLE in = Open(u"\\Outside\\" + name, kRenameAccess);
        ASSERT_EQ(Rename(in, u"\\??\\C:\\Data\\" + name), STATUS_SUCCESS);
        EXPECT_EQ(StepsSince(mark), After(kTargetDirectoryOpen, {SERVICE_REQUEST_OBJECT_RENAME_TO_MANAGED}));
        const std::vector<RequestView> requests = RequestsSince(mark);
        ASSERT_FALSE(requests.empty());
        EXPECT_EQ(Text(requests.back().path), Text(OnVolume(u"\\Data\\" + name)));
        FileContext* pContext = FindContextByFileObject(FileObjectOf(in), FALSE);
        ASSERT_NE(pContext, nullptr);
        EXPECT_EQ(ntsim::ToUtf8(*pContext->pstrPath), Text(OnVolume(u"\\Data\\" + name)));
        EXPECT_EQ(ntsim::ToUtf8(*pContext->pstrSid), Text(kAlice));
        EXPECT_EQ(pContext->OnClose, ULONG{ON_CLOSE_UPLOAD});
        EXPECT_EQ(pContext->bExcluded, 0);
        Close(in);
        mark = Mark();
    }
}

// An excluded file that stays excluded needs no record; one that the file system refuses to move
// keeps none that would name a place where the file isn't.
TEST_F(SetInformationTest, RenameIntoAManagedFolderMakesNoRecordThatWouldFollowNothing)
{
    volume_->SeedFile(u"\\Data\\Skip\\a.txt", "content");
    volume_->SeedFile(u"\\Outside\\q.txt", "content");
    volume_->SeedFile(u"\\Data\\taken.txt", "content");
    Serve({{.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .path = OnVolume(u"\\Data\\Skip"), .reply = {.status = 0}}});

    HANDLE excluded = Open(u"\\Data\\Skip\\a.txt", kRenameAccess);
    EXPECT_EQ(FindContextByFileObject(FileObjectOf(excluded), TRUE), nullptr);
    ASSERT_EQ(Rename(excluded, u"\\??\\C:\\Data\\Skip\\b.txt"), STATUS_SUCCESS);
    EXPECT_EQ(FindContextByFileObject(FileObjectOf(excluded), TRUE), nullptr);
    Close(excluded);

    HANDLE refused = Open(u"\\Outside\\q.txt", kRenameAccess);
    size_t mark = Mark();
    EXPECT_EQ(Rename(refused, u"\\??\\C:\\Data\\taken.txt"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(StepsSince(mark), kTargetDirectoryOpen) << "the service hears of no new object";
    EXPECT_EQ(FindContextByFileObject(FileObjectOf(refused), FALSE), nullptr) << "its operations pass";
    EXPECT_NE(FindContextByFileObject(FileObjectOf(refused), TRUE), nullptr) << "its close frees the record";
    Close(refused);
}

// A relative target names no volume, and the Ex forms of rename and disposition aren't followed.
TEST_F(SetInformationTest, RelativeTargetsAndExFormsPassUnseen)
{
    volume_->SeedFile(u"\\Data\\rel.txt", "content");
    Serve();
    HANDLE file = Open(u"\\Data\\rel.txt", kRenameAccess);
    FileContext* pContext = Follow(file);
    size_t mark = Mark();
    ASSERT_EQ(Rename(file, u"renamed.txt"), STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\Data\\renamed.txt"));
    EXPECT_TRUE(StepsSince(mark).empty());
    ASSERT_EQ(SetInformation(file, FileRenameInformationEx, RenameRecord(u"\\??\\C:\\Data\\Docs\\ex.txt", false)),
              STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\Data\\Docs\\ex.txt"));
    ASSERT_EQ(Set(file, FileDispositionInformationEx, FILE_DISPOSITION_INFORMATION_EX{FILE_DISPOSITION_DELETE}),
              STATUS_SUCCESS);

    EXPECT_EQ(StepsSince(mark), kTargetDirectoryOpen);
    EXPECT_EQ(ntsim::ToUtf8(*pContext->pstrPath), Text(OnVolume(u"\\Data\\rel.txt")));
    EXPECT_EQ(pContext->OnClose, 0u);
    Close(file);
}

// An excluded file that is renamed is uploaded at cleanup, and the next call judges the new path.
TEST_F(SetInformationTest, RenamedExcludedFileIsMarkedForUpload)
{
    volume_->SeedFile(u"\\Data\\ex.txt", "content");
    Serve({{.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .path = OnVolume(u"\\Data\\ex.txt"),
            .reply = {.status = 0}}});
    HANDLE file = Open(u"\\Data\\ex.txt", kRenameAccess);
    FileContext* pContext = Follow(file);
    ASSERT_EQ(Rename(file, u"\\??\\C:\\Data\\Docs\\ex.txt"), STATUS_SUCCESS);
    EXPECT_EQ(pContext->OnClose & ON_CLOSE_UPLOAD, ULONG{ON_CLOSE_UPLOAD});
    EXPECT_EQ(pContext->bExcluded, 0);
    Close(file);
}

// ---- refusals ----

struct RefusalCase {
    const char* name;
    std::u16string source;  // volume path
    bool followed = true;
    std::u16string target;  // \??\C:\...
    NTSTATUS status = STATUS_SUCCESS;  // what the caller sees
    bool moved = false;                // the file system made the change
    FILE_INFORMATION_CLASS infoClass = FileRenameInformation;
    bool replace = false;
    bool directory = false;
};

TEST_F(SetInformationTest, EachRefusalOfARenameOrLinkEndsItBeforeTheFileSystem)
{
    const std::u16string longName(231, u'n');  // \Device\HarddiskVolume2\Data\ and 231 characters: 520 bytes
    volume_->SeedFile(u"\\Data\\h1.txt", "content");
    volume_->SeedHardLink(u"\\Data\\h1.txt", u"\\Outside\\h1link.txt");
    volume_->SeedFile(u"\\Outside\\h2.txt", "content");
    volume_->SeedHardLink(u"\\Outside\\h2.txt", u"\\Outside\\h2link.txt");
    volume_->SeedFile(u"\\Data\\Docs\\c2.txt", "older");
    const std::u16string data = u"\\??\\C:\\Data\\";
    const std::vector<RefusalCase> cases = {
        {"link of a followed file", u"\\Data\\l1.txt", true, u"\\??\\C:\\Outside\\l1.txt", STATUS_ACCESS_DENIED, false,
         FileLinkInformation},
        {"link into a managed folder", u"\\Outside\\l2.txt", false, data + u"l2.txt", STATUS_ACCESS_DENIED, false,
         FileLinkInformation},
        {"onto a read-only folder's own path", u"\\Data\\r1.txt", true, u"\\??\\C:\\ReadOnly", STATUS_ACCESS_DENIED},
        {"unfollowed onto a read-only folder's own path", u"\\Outside\\r2.txt", false, u"\\??\\C:\\ReadOnly",
         STATUS_ACCESS_DENIED},
        {"to a name read-only at the service", u"\\Data\\r3.txt", true, data + u"Docs\\r3.txt", STATUS_ACCESS_DENIED},
        {"to 520 bytes", u"\\Data\\n1.txt", true, data + longName, STATUS_NO_SUCH_FILE},
        {"unfollowed to 520 bytes", u"\\Outside\\n2.txt", false, data + longName, STATUS_NO_SUCH_FILE},
        {"to 518 bytes", u"\\Data\\n3.txt", true, data + longName.substr(1), STATUS_SUCCESS, true},
        {"to a name the service holds", u"\\Data\\c1.txt", true, data + u"Docs\\c1.txt", STATUS_OBJECT_NAME_COLLISION},
        {"replacing a name the service and the disk hold", u"\\Data\\c2.txt", true, data + u"Docs\\c2.txt",
         STATUS_SUCCESS, true, FileRenameInformation, true},
        {"a file of two links new to the service", u"\\Data\\h1.txt", true, data + u"Docs\\h1.txt", STATUS_CANNOT_MAKE},
        {"unfollowed file of two links", u"\\Outside\\h2.txt", false, data + u"h2.txt", STATUS_CANNOT_MAKE},
        {"a merge folder's own directory", u"\\Data", true, u"\\??\\C:\\Moved", STATUS_ACCESS_DENIED, false,
         FileRenameInformation, false, true},
        {"out of the managed folders, vetoed", u"\\Data\\v1.txt", true, u"\\??\\C:\\Outside\\v1.txt",
         STATUS_ACCESS_DENIED},
        {"the service unable to take the new name", u"\\Data\\f1.txt", true, data + u"Docs\\f1.txt",
         STATUS_OBJECT_NAME_INVALID, true},
    };
    for (const RefusalCase& refusal : cases) {
        if (!volume_->Exists(refusal.source)) {
            volume_->SeedFile(refusal.source, "content");
        }
    }
    Serve({{.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY, .path = OnVolume(u"\\Data\\Docs\\r3.txt"),
            .reply = {.readOnly = true}},
           {.code = SERVICE_REQUEST_OBJECT_EXISTS, .path = OnVolume(u"\\Data\\Docs\\c1.txt"), .reply = {.exists = true}},
           {.code = SERVICE_REQUEST_OBJECT_EXISTS, .path = OnVolume(u"\\Data\\Docs\\c2.txt"), .reply = {.exists = true}},
           {.code = SERVICE_REQUEST_OBJECT_EXISTS, .path = OnVolume(u"\\Data\\v1.txt"), .reply = {.exists = true}},
           {.code = SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED, .reply = {.status = 1}},
           {.code = SERVICE_REQUEST_OBJECT_RENAME, .path = OnVolume(u"\\Data\\f1.txt"),
            .reply = {.status = static_cast<int32_t>(STATUS_UNSUCCESSFUL)}}});

    for (const RefusalCase& refusal : cases) {
        HANDLE handle = Open(refusal.source, kRenameAccess,
                             FILE_SYNCHRONOUS_IO_NONALERT | (refusal.directory ? FILE_DIRECTORY_FILE : 0));
        if (refusal.followed) {
            Follow(handle);
        }
        EXPECT_EQ(Rename(handle, refusal.target, refusal.replace, refusal.infoClass), refusal.status) << refusal.name;
        EXPECT_EQ(volume_->Exists(refusal.source), !refusal.moved || refusal.infoClass == FileLinkInformation)
            << refusal.name;
        Close(handle);
    }
}

// ---- dispositions ----

TEST_F(SetInformationTest, DeleteDispositionEndsInItsLastStateAndCancelsAHeldBackUpload)
{
    volume_->SeedFile(u"\\Data\\gone.txt", "content");
    Serve({{.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, .reply = {.uploadCancelled = true}}});
    HANDLE file = Open(u"\\Data\\gone.txt", DELETE | FILE_GENERIC_READ);
    FileContext* pContext = Follow(file);
    ASSERT_EQ(pContext->bUploadCancelled, 1);
    const size_t mark = Mark();

    for (bool deleteFile : {true, false, true}) {
        ASSERT_EQ(Dispose(file, deleteFile), STATUS_SUCCESS);
        EXPECT_EQ(pContext->OnClose & ON_CLOSE_DELETE_DISPOSITION, deleteFile ? ON_CLOSE_DELETE_DISPOSITION : 0u);
    }
    EXPECT_EQ(pContext->bUploadCancelled, 1);
    EXPECT_EQ(StepsSince(mark), (std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD,
                                                       SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD}));
    Close(file);
    EXPECT_FALSE(volume_->Exists(u"\\Data\\gone.txt"));
}

TEST_F(SetInformationTest, DirectoryDeletionIsRefusedForAMergeFolderAndWhileTheServiceListsEntries)
{
    volume_->SeedDirectory(u"\\Data\\Listed");
    volume_->SeedDirectory(u"\\Data\\Empty");
    Serve({{.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, .path = OnVolume(u"\\Data\\Listed"),
            .reply = {.listingLength = 40}}});
    const ULONG directoryOptions = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE;

    HANDLE root = Open(u"\\Data", DELETE | FILE_LIST_DIRECTORY, directoryOptions);
    Follow(root);
    size_t mark = Mark();
    EXPECT_EQ(Dispose(root, true), STATUS_ACCESS_DENIED);
    EXPECT_TRUE(StepsSince(mark).empty());
    Close(root);

    HANDLE listed = Open(u"\\Data\\Listed", DELETE | FILE_LIST_DIRECTORY, directoryOptions);
    FileContext* pListed = Follow(listed);
    mark = Mark();
    EXPECT_EQ(Dispose(listed, true), STATUS_DIRECTORY_NOT_EMPTY);
    const std::vector<RequestView> requests = RequestsSince(mark);
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests.back().code, uint32_t{SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE});
    EXPECT_EQ(requests.back().fileInformationClass, uint32_t{FileNamesInformation});
    EXPECT_TRUE(requests.back().filter.empty());
    EXPECT_EQ(pListed->OnClose, 0u);
    Close(listed);
    EXPECT_TRUE(volume_->Exists(u"\\Data\\Listed"));

    HANDLE empty = Open(u"\\Data\\Empty", DELETE | FILE_LIST_DIRECTORY, directoryOptions);
    FileContext* pEmpty = Follow(empty);
    ASSERT_EQ(Dispose(empty, true), STATUS_SUCCESS);
    EXPECT_EQ(pEmpty->OnClose, ULONG{ON_CLOSE_DELETE_DISPOSITION});
    Close(empty);
    EXPECT_FALSE(volume_->Exists(u"\\Data\\Empty"));
}

// ---- size and basic information ----

TEST_F(SetInformationTest, EndOfFileResizesTheTrackedMapAndAllocationLeavesItAlone)
{
    volume_->SeedFile(u"\\Data\\size.txt", std::string(2 * 4096, 's'));
    volume_->SeedFile(u"\\Data\\plain.txt", "content");
    Serve({Tracked(u"\\Data\\size.txt")});
    HANDLE file = Open(u"\\Data\\size.txt", FILE_GENERIC_WRITE);
    FileContext* pContext = Follow(file);
    TrackedDirtyBlockFile* pRecord = Track(pContext);

    FILE_ALLOCATION_INFORMATION allocation{};
    allocation.AllocationSize.QuadPart = 16 * 4096;
    ASSERT_EQ(Set(file, FileAllocationInformation, allocation), STATUS_SUCCESS);
    EXPECT_EQ(pRecord->dirtyBlockCount, 0u);
    EXPECT_EQ(pRecord->map[0], 0);
    EXPECT_EQ(pContext->OnClose, ULONG{ON_CLOSE_UPLOAD});

    // Growing from 8192 to 5 blocks and a byte marks the blocks from the old end to the new one.
    FILE_END_OF_FILE_INFORMATION endOfFile{};
    endOfFile.EndOfFile.QuadPart = 5 * 4096 + 1;
    ASSERT_EQ(Set(file, FileEndOfFileInformation, endOfFile), STATUS_SUCCESS);
    EXPECT_EQ(pRecord->map[0] & 0x3C, 0x3C) << "blocks 2 to 5";
    EXPECT_EQ(pRecord->map[0] & 0x80, 0) << "block 0 is untouched";
    EXPECT_GT(pRecord->dirtyBlockCount, 0u);
    Close(file);

    // An untracked file is marked for upload all the same.
    HANDLE plain = Open(u"\\Data\\plain.txt", FILE_GENERIC_WRITE);
    FileContext* pPlain = Follow(plain);
    ASSERT_EQ(Set(plain, FileEndOfFileInformation, endOfFile), STATUS_SUCCESS);
    EXPECT_EQ(pPlain->OnClose, ULONG{ON_CLOSE_UPLOAD});
    Close(plain);
}

TEST_F(SetInformationTest, BasicInformationIsReportedUnlessTheFileIsExcluded)
{
    volume_->SeedFile(u"\\Data\\basic.txt", "content");
    volume_->SeedFile(u"\\Data\\hidden.txt", "content");
    Serve({{.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .path = OnVolume(u"\\Data\\hidden.txt"),
            .reply = {.status = 0}}});
    FILE_BASIC_INFORMATION basic{};
    basic.FileAttributes = FILE_ATTRIBUTE_ARCHIVE;

    HANDLE file = Open(u"\\Data\\basic.txt", FILE_GENERIC_WRITE);
    Follow(file);
    size_t mark = Mark();
    ASSERT_EQ(Set(file, FileBasicInformation, basic), STATUS_SUCCESS);
    const std::vector<RequestView> requests = RequestsSince(mark);
    ASSERT_EQ(StepsSince(mark), std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_CHANGED});
    EXPECT_TRUE(requests.back().attributesOnly);
    Close(file);

    HANDLE hidden = Open(u"\\Data\\hidden.txt", FILE_GENERIC_WRITE);
    Follow(hidden);
    mark = Mark();
    ASSERT_EQ(Set(hidden, FileBasicInformation, basic), STATUS_SUCCESS);
    EXPECT_TRUE(StepsSince(mark).empty());
    Close(hidden);
}

}  // namespace
}  // namespace foldermerge::testing
