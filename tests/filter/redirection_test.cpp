// Attribute-only opens of managed files through the I/O path, with a service that sends them to a
// dummy file: the two passes through the open gate and ntsim's re-parse between them, the queries
// answered for the real file, the dummy's deletion at cleanup, and what becomes of the open when the
// service or the filter's own work fails.
#include "redirect_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>

#include <future>

namespace foldermerge::testing {
namespace {

using service::ResponderAction;
using Calls = std::vector<std::pair<uint32_t, std::u16string>>;

class Redirection : public RedirectingService {
protected:
    void ExpectServiceView(const FILE_BASIC_INFORMATION& basic)
    {
        EXPECT_EQ(basic.CreationTime.QuadPart, 1111);
        EXPECT_EQ(basic.LastAccessTime.QuadPart, 2222);
        EXPECT_EQ(basic.LastWriteTime.QuadPart, 3333);
        EXPECT_EQ(basic.ChangeTime.QuadPart, 4444);
        EXPECT_EQ(basic.FileAttributes, ULONG{FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE});
    }

    // Opens a.txt for its attributes through both passes; the handle stands on the dummy file.
    HANDLE OpenRedirected()
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status, STATUS_SUCCESS);
        return handle;
    }
};

TEST_F(Redirection, AnAttributeOnlyOpenStandsOnTheDummyAndIsAnsweredForTheRealFile)
{
    RedirectFirstPass();
    RedirectSecondPass();
    AnswerInformation();
    ASSERT_EQ(service_.Connect(), S_OK);

    HANDLE handle = nullptr;
    const OpenResult opened = Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle);
    ASSERT_EQ(opened.status, STATUS_SUCCESS);
    EXPECT_EQ(opened.information, FILE_OPENED);

    // The first pass asks for the real file as the disk holds it, the second for the dummy; the
    // download then concerns the real file, of which nothing is known.
    const std::vector<service::RequestView> atOpen = NewRequests();
    ASSERT_EQ(atOpen.size(), 3u);
    EXPECT_EQ(atOpen[0].code, kRedirectCode);
    EXPECT_EQ(atOpen[0].path, kRealFile);
    EXPECT_EQ(atOpen[0].sid, kAlice);
    ASSERT_TRUE(atOpen[0].information.has_value());
    EXPECT_EQ(atOpen[0].information->endOfFile, 12);
    EXPECT_EQ(atOpen[1].code, kRedirectCode);
    EXPECT_EQ(atOpen[1].path, kDummyFile);
    ASSERT_TRUE(atOpen[1].information.has_value());
    EXPECT_EQ(atOpen[1].information->endOfFile, 5);
    EXPECT_EQ(atOpen[2].code, kDownloadCode);
    EXPECT_EQ(atOpen[2].path, kRealFile);
    ASSERT_TRUE(atOpen[2].information.has_value());
    EXPECT_TRUE(atOpen[2].information->IsUnknown());
    EXPECT_EQ(atOpen[2].information->endOfFile, 0x7FFFFFFFFFFFFFFFll);

    // The caller's file object is the dummy's; the record speaks of the real file.
    EXPECT_EQ(FileObjectName(handle), kDummyOnVolume);
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrPath)), kRealFile);
    ASSERT_NE(record->pstrTemporaryFile, nullptr);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrTemporaryFile)), kDummyFile);

    // Basic and standard information come as fast I/O into the caller's buffer.
    const QueryResult basic = Query(handle, FileBasicInformation, sizeof(FILE_BASIC_INFORMATION));
    ASSERT_EQ(basic.status, STATUS_SUCCESS);
    EXPECT_EQ(basic.information, sizeof(FILE_BASIC_INFORMATION));
    ExpectServiceView(basic.As<FILE_BASIC_INFORMATION>());

    const QueryResult standard = Query(handle, FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION));
    ASSERT_EQ(standard.status, STATUS_SUCCESS);
    EXPECT_EQ(standard.As<FILE_STANDARD_INFORMATION>().AllocationSize.QuadPart, 8192);
    EXPECT_EQ(standard.As<FILE_STANDARD_INFORMATION>().EndOfFile.QuadPart, 5000);
    EXPECT_EQ(standard.As<FILE_STANDARD_INFORMATION>().NumberOfLinks, 1u);

    // Network-open information comes as an IRP: its answer reaches the caller by Information.
    const QueryResult networkOpen =
        Query(handle, FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION));
    ASSERT_EQ(networkOpen.status, STATUS_SUCCESS);
    EXPECT_EQ(networkOpen.information, sizeof(FILE_NETWORK_OPEN_INFORMATION));
    const auto& open = networkOpen.As<FILE_NETWORK_OPEN_INFORMATION>();
    EXPECT_EQ(open.CreationTime.QuadPart, 1111);
    EXPECT_EQ(open.LastAccessTime.QuadPart, 2222);
    EXPECT_EQ(open.LastWriteTime.QuadPart, 3333);
    EXPECT_EQ(open.ChangeTime.QuadPart, 4444);
    EXPECT_EQ(open.AllocationSize.QuadPart, 8192);
    EXPECT_EQ(open.EndOfFile.QuadPart, 5000);
    EXPECT_EQ(open.FileAttributes, ULONG{FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE});

    // FileAllInformation: the service's records, fixed values, and the real file's device path.
    const ULONG needed = sizeof(FILE_ALL_INFORMATION) + sizeof(kRealFile) - sizeof(char16_t);
    const QueryResult all = Query(handle, FileAllInformation, needed);
    ASSERT_EQ(all.status, STATUS_SUCCESS);
    EXPECT_EQ(all.information, needed);
    const auto& allInformation = all.As<FILE_ALL_INFORMATION>();
    ExpectServiceView(allInformation.BasicInformation);
    EXPECT_EQ(allInformation.StandardInformation.EndOfFile.QuadPart, 5000);
    EXPECT_EQ(allInformation.InternalInformation.IndexNumber.QuadPart, 0x000C000000000123ll);
    EXPECT_EQ(allInformation.EaInformation.EaSize, 0u);
    EXPECT_EQ(allInformation.PositionInformation.CurrentByteOffset.QuadPart, 0);
    EXPECT_EQ(allInformation.AlignmentInformation.AlignmentRequirement, 0u);
    EXPECT_EQ(allInformation.AccessInformation.AccessFlags, 0u) << "no pool bytes reach the caller";
    EXPECT_EQ(allInformation.ModeInformation.Mode, 0u) << "no pool bytes reach the caller";
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(allInformation.NameInformation.FileName),
                             allInformation.NameInformation.FileNameLength / sizeof(WCHAR)),
              kRealFile);

    // Each answer was the service's, asked in alice's name for the real file.
    const std::vector<service::RequestView> queries = NewRequests();
    ASSERT_EQ(queries.size(), 4u);
    for (const service::RequestView& query : queries) {
        EXPECT_EQ(query.code, kInformationCode);
        EXPECT_EQ(query.path, kRealFile);
        EXPECT_EQ(query.sid, kAlice);
    }

    // Any other class goes to the file system, which knows only the dummy.
    const QueryResult name = Query(handle, FileNameInformation, 512);
    ASSERT_EQ(name.status, STATUS_SUCCESS);
    const auto& nameInformation = name.As<FILE_NAME_INFORMATION>();
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(nameInformation.FileName),
                             nameInformation.FileNameLength / sizeof(WCHAR)),
              kDummyOnVolume);
    EXPECT_TRUE(NewRequests().empty());

    // The last handle goes and takes the dummy with it; the real file stays. The dummy's deletion
    // goes through the gate like any delete on close; the real file is unlocked.
    Close(handle);
    EXPECT_FALSE(volume_->Exists(kDummyOnVolume));
    EXPECT_EQ(volume_->Content(u"\\Data\\a.txt"), "alice's file");
    EXPECT_EQ(NewCalls(), (Calls{{kDownloadCode, kDummyFile}, {kDeletedCode, kDummyFile}, {kUnlockCode, kRealFile}}));
}

TEST_F(Redirection, OnlyAttributeOnlyOpensOfWhatIsNoKnownDirectoryAreOffered)
{
    service_.AddRule({.code = kRedirectCode, .reply = {.redirected = false}});
    volume_->SeedDirectory(u"\\Data\\Sub");
    ASSERT_EQ(service_.Connect(), S_OK);
    struct Case {
        std::u16string path;
        ACCESS_MASK access;  // SYNCHRONIZE comes with every open
        OpenOptions options;
        bool offered;
    };
    const Case cases[] = {
        {u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, {}, true},
        {u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES | READ_CONTROL | FILE_EXECUTE, {}, true},
        {u"\\??\\C:\\Data\\new.txt", FILE_READ_ATTRIBUTES, {.disposition = FILE_OPEN_IF}, true},
        {u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES | FILE_READ_DATA, {}, false},
        {u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES | DELETE, {}, false},
        {u"\\??\\C:\\Data\\a.txt", 0, {}, false},
        {u"\\??\\C:\\Data\\Sub", FILE_READ_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}, false},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(ntsim::ToUtf8(test.path) + " access " + std::to_string(test.access));
        HANDLE handle = nullptr;
        ASSERT_EQ(Open(test.path, test.access, &handle, test.options).status, STATUS_SUCCESS);
        const Calls calls = NewCalls();
        EXPECT_EQ(!calls.empty() && calls[0].first == kRedirectCode, test.offered);
        // An open that the service doesn't redirect is an ordinary open of managed content.
        const FileContext* record = RecordOf(handle);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->pstrTemporaryFile, nullptr);
        Close(handle);
        NewCalls();
    }
    // The file that wasn't there was created as an ordinary open.
    EXPECT_TRUE(volume_->Exists(u"\\Data\\new.txt"));
}

TEST_F(Redirection, AnotherUsersAttributeOnlyOpenIsOfferedInTheOwnersNameAndGetsNoDownload)
{
    service_.AddRule({.code = kRedirectCode, .reply = {.redirected = false}});
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Shared\\c.txt", FILE_READ_ATTRIBUTES, &handle).status, STATUS_SUCCESS);
    const std::vector<service::RequestView> requests = NewRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].code, kRedirectCode);
    EXPECT_EQ(requests[0].sid, kBob);
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->bForeignUserAccess, 1);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrSid)), kBob);
    Close(handle);
}

TEST_F(Redirection, AFailedRedirectRequestReparsesTheSameName)
{
    // No Thread port: the request never reaches a service, and both of its flags stay set. The
    // name left in the file object is the rest of the path on the volume, which names nothing in
    // the object namespace.
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(volume_->OpenCount(), 0u);

    // The same happens when the service goes away with the request.
    service_.AddRule({.code = kRedirectCode, .action = ResponderAction::Disconnect});
    ASSERT_EQ(service_.Connect(), S_OK);
    EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(NewCalls(), (Calls{{kRedirectCode, kRealFile}}));
    EXPECT_EQ(volume_->Content(u"\\Data\\a.txt"), "alice's file");
}

TEST_F(Redirection, AServiceThatAlwaysReparsesEndsAtTheIoManagersLimit)
{
    // The service sends the open back to the real file at each pass.
    service_.AddRule({.code = kRedirectCode,
                      .reply = {.reparse = true, .redirected = true, .name = u"\\??\\C:\\Data\\a.txt"}});
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status,
              STATUS_REPARSE_POINT_NOT_RESOLVED);
    // The first pass and the 32 re-parses each asked once.
    EXPECT_EQ(NewCalls().size(), 33u);
    EXPECT_EQ(volume_->OpenCount(), 0u);
}

TEST_F(Redirection, FileAllInformationAnswersEachOfItsThreeLengths)
{
    RedirectFirstPass();
    RedirectSecondPass();
    AnswerInformation();
    ASSERT_EQ(service_.Connect(), S_OK);
    const HANDLE handle = OpenRedirected();
    NewRequests();
    const ULONG needed = sizeof(FILE_ALL_INFORMATION) + sizeof(kRealFile) - sizeof(char16_t);

    // Room for the fixed part but not the name: the fixed part, no name, and the caller's Length.
    QueryResult all = Query(handle, FileAllInformation, sizeof(FILE_ALL_INFORMATION));
    EXPECT_EQ(all.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(all.information, sizeof(FILE_ALL_INFORMATION));
    EXPECT_EQ(all.As<FILE_ALL_INFORMATION>().NameInformation.FileNameLength, 0u);
    EXPECT_EQ(all.As<FILE_ALL_INFORMATION>().StandardInformation.EndOfFile.QuadPart, 5000);

    // One byte short of the name: the same.
    all = Query(handle, FileAllInformation, needed - 1);
    EXPECT_EQ(all.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(all.information, needed - 1);

    // Less than the fixed part never reaches a filter from NtQueryInformationFile...
    all = Query(handle, FileAllInformation, sizeof(FILE_ALL_INFORMATION) - 1);
    EXPECT_EQ(all.status, STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(NewRequests().size(), 2u);

    // ...but does from a filter above, which learns the length needed, without a service request.
    // B, between A and FolderMerge, sees the answer go by.
    ASSERT_EQ(iotest::FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(iotest::FilterB::Load(u"300000"), STATUS_SUCCESS);
    PFLT_INSTANCE above = iotest::FilterA::Instance(u"C:");
    ASSERT_NE(above, nullptr);
    {
        ntsim::AttachThread thread(alice_);
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        std::vector<UCHAR> buffer(sizeof(FILE_ALL_INFORMATION) - 1);
        ULONG returned = 0;
        EXPECT_EQ(FltQueryInformationFile(above, fileObject, buffer.data(), static_cast<ULONG>(buffer.size()),
                                          FileAllInformation, &returned),
                  STATUS_BUFFER_TOO_SMALL);
        ObDereferenceObject(fileObject);
    }
    FltObjectDereference(above);
    const std::vector<iotest::Event> seen = iotest::EventsOf(IRP_MJ_QUERY_INFORMATION);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(seen[1].post);
    EXPECT_EQ(seen[1].status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(seen[1].information, needed);
    EXPECT_TRUE(NewRequests().empty());
    EXPECT_EQ(ntsim::UnloadFilter(iotest::FilterA::Name()), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::UnloadFilter(iotest::FilterB::Name()), STATUS_SUCCESS);
    Close(handle);
}

TEST_F(Redirection, TheServicesFailureOrSilenceIsTheQuerysAnswerAndTheDummyIsNeverShown)
{
    RedirectFirstPass();
    RedirectSecondPass();
    service_.AddRule({.code = kInformationCode, .action = ResponderAction::NoAnswer, .uses = 2});
    ASSERT_EQ(service_.Connect(), S_OK);
    const HANDLE handle = OpenRedirected();
    const size_t before = service_.RequestCount();

    // A service that never answers: after its 30 minutes the query ends in the time-out, a success
    // status with nothing written, for the classes answered into the caller's buffer and for those
    // composed from the answer alike.
    for (FILE_INFORMATION_CLASS infoClass : {FileBasicInformation, FileAllInformation}) {
        SCOPED_TRACE(static_cast<int>(infoClass));
        auto query = std::async(std::launch::async, [&] { return Query(handle, infoClass, 200); });
        ASSERT_TRUE(service_.WaitForHandled(before + (infoClass == FileBasicInformation ? 1 : 2)));
        ntsim::clock::Advance(30 * ntsim::clock::kMinute);
        const QueryResult silent = query.get();
        EXPECT_EQ(silent.status, STATUS_TIMEOUT);
        EXPECT_EQ(silent.information, 0u);
        EXPECT_EQ(silent.bytes, std::vector<UCHAR>(200, 0xCC));
    }

    // A service that is gone: the query fails with the request's status, and the file system, which
    // would describe the dummy, isn't asked.
    service_.Disconnect();
    const QueryResult gone = Query(handle, FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION));
    EXPECT_TRUE(NT_ERROR(gone.status)) << std::hex << gone.status;
    EXPECT_EQ(gone.bytes, std::vector<UCHAR>(sizeof(FILE_NETWORK_OPEN_INFORMATION), 0xCC));

    // The dummy goes at cleanup all the same.
    Close(handle);
    EXPECT_FALSE(volume_->Exists(kDummyOnVolume));
}

TEST_F(Redirection, WithoutMemoryForTheNewNameTheOpenPassesUnchanged)
{
    RedirectFirstPass();
    RedirectSecondPass();
    ASSERT_EQ(service_.Connect(), S_OK);
    // The name handed to the I/O manager is the filter's one allocation without its tag.
    ntsim::faults::FailAllocationsWithTag(NTSIM_UNTAGGED_POOL_TAG, ntsim::faults::Persistence::Once);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status, STATUS_SUCCESS);
    EXPECT_EQ(ntsim::faults::FailuresInjected(), 1u);
    ntsim::faults::Reset();
    // The file object stands on the real file, with no record: the file system answers.
    EXPECT_EQ(FileObjectName(handle), u"\\Data\\a.txt");
    EXPECT_EQ(RecordOf(handle), nullptr);
    EXPECT_EQ(Query(handle, FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION))
                  .As<FILE_STANDARD_INFORMATION>()
                  .EndOfFile.QuadPart,
              12);
    EXPECT_EQ(NewCalls(), (Calls{{kRedirectCode, kRealFile}}));
    Close(handle);
    EXPECT_TRUE(volume_->Exists(kDummyOnVolume));
}

TEST_F(Redirection, ASecondPassWithoutTheRealPathIsAnOrdinaryOpenOfTheDummy)
{
    RedirectFirstPass();
    // A name of odd length is no counted string: the request gives no name.
    service_.AddRule({.code = kRedirectCode,
                      .path = kDummyFile,
                      .reply = {.reparse = false, .redirected = true, .name = u"x", .nameLength = 3}});
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status, STATUS_SUCCESS);
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrPath)), kDummyFile);
    EXPECT_EQ(record->pstrTemporaryFile, nullptr);
    EXPECT_EQ(NewCalls(), (Calls{{kRedirectCode, kRealFile}, {kRedirectCode, kDummyFile}, {kDownloadCode, kDummyFile}}));
    // Its queries go to the file system.
    EXPECT_EQ(Query(handle, FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION))
                  .As<FILE_STANDARD_INFORMATION>()
                  .EndOfFile.QuadPart,
              5);
    Close(handle);
    EXPECT_TRUE(volume_->Exists(kDummyOnVolume));
}

}  // namespace
}  // namespace foldermerge::testing
