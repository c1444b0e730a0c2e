// Attribute-only opens of managed files sent to a dummy file: the two passes through the open gate
// and ntsim's re-parse between them, the queries answered for the real file, the dummy's deletion,
// and what becomes of the open when the service or the filter's own work fails.
#include "redirect_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>

#include <future>

namespace foldermerge::testing {
namespace {

using service::ResponderAction;

constexpr ULONG kAllNeeded = sizeof(FILE_ALL_INFORMATION) + sizeof(kRealFile) - sizeof(char16_t);

class Redirection : public RedirectingService {
protected:
    HANDLE OpenForAttributes(NTSTATUS expected = STATUS_SUCCESS)
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES, &handle).status, expected);
        return handle;
    }

    LONGLONG EndOfFile(HANDLE handle)
    {
        return Query(handle, FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION))
            .As<FILE_STANDARD_INFORMATION>()
            .EndOfFile.QuadPart;
    }
};

TEST_F(Redirection, AnAttributeOnlyOpenStandsOnTheDummyAndIsAnsweredForTheRealFile)
{
    Redirect();
    AnswerInformation();
    ASSERT_EQ(service_.Connect(), S_OK);
    const HANDLE handle = OpenForAttributes();

    // The first pass asks about the real file as the disk has it, the second about the dummy; the
    // download is then the real file's, of which nothing is known.
    const std::vector<service::RequestView> atOpen = NewRequests();
    ASSERT_EQ(atOpen.size(), 3u);
    EXPECT_EQ(atOpen[0].path, kRealFile);
    EXPECT_EQ(atOpen[0].information->endOfFile, 12);
    EXPECT_EQ(atOpen[1].path, kDummyFile);
    EXPECT_EQ(atOpen[1].information->endOfFile, 5);
    EXPECT_EQ(atOpen[2].code, kDownloadCode);
    EXPECT_EQ(atOpen[2].path, kRealFile);
    EXPECT_TRUE(atOpen[2].information->IsUnknown());
    EXPECT_EQ(atOpen[2].information->endOfFile, 0x7FFFFFFFFFFFFFFFll);

    PFILE_OBJECT fileObject = nullptr;
    const FileContext* record = RecordOf(handle, &fileObject);
    EXPECT_EQ(std::u16string(ntsim::View(fileObject->FileName)), kDummyOnVolume);
    ObDereferenceObject(fileObject);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrPath)), kRealFile);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrTemporaryFile)), kDummyFile);

    // Basic and standard come as fast I/O, network-open and all as IRPs: each is the service's.
    const QueryResult basic = Query(handle, FileBasicInformation, sizeof(FILE_BASIC_INFORMATION));
    EXPECT_EQ(basic.information, sizeof(FILE_BASIC_INFORMATION));
    EXPECT_EQ(basic.As<FILE_BASIC_INFORMATION>().LastWriteTime.QuadPart, 3333);
    EXPECT_EQ(EndOfFile(handle), 5000);
    const QueryResult network = Query(handle, FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION));
    ASSERT_EQ(network.information, sizeof(FILE_NETWORK_OPEN_INFORMATION));
    const auto& open = network.As<FILE_NETWORK_OPEN_INFORMATION>();
    EXPECT_EQ(open.CreationTime.QuadPart + open.ChangeTime.QuadPart, 1111 + 4444);
    EXPECT_EQ(open.AllocationSize.QuadPart + open.EndOfFile.QuadPart, 8192 + 5000);
    EXPECT_EQ(open.FileAttributes, ULONG{FILE_ATTRIBUTE_READONLY});

    const QueryResult all = Query(handle, FileAllInformation, kAllNeeded);
    ASSERT_EQ(all.status, STATUS_SUCCESS);
    EXPECT_EQ(all.information, kAllNeeded);
    const auto& allInformation = all.As<FILE_ALL_INFORMATION>();
    EXPECT_EQ(allInformation.BasicInformation.LastAccessTime.QuadPart, 2222);
    EXPECT_EQ(allInformation.StandardInformation.EndOfFile.QuadPart, 5000);
    EXPECT_EQ(allInformation.InternalInformation.IndexNumber.QuadPart, 0x000C000000000123ll);
    EXPECT_EQ(allInformation.EaInformation.EaSize + allInformation.AlignmentInformation.AlignmentRequirement, 0u);
    EXPECT_EQ(allInformation.PositionInformation.CurrentByteOffset.QuadPart, 0);
    // The IRP's system buffer is unzeroed pool: none of it may reach the caller.
    EXPECT_EQ(allInformation.AccessInformation.AccessFlags + allInformation.ModeInformation.Mode, 0u);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(allInformation.NameInformation.FileName),
                             allInformation.NameInformation.FileNameLength / sizeof(WCHAR)),
              kRealFile);
    EXPECT_EQ(NewCalls(), Calls(4, {kInformationCode, kRealFile}));

    // Another class is the file system's, which knows the dummy alone.
    const QueryResult name = Query(handle, FileNameInformation, 512);
    EXPECT_EQ(name.As<FILE_NAME_INFORMATION>().FileNameLength, kDummyOnVolume.size() * sizeof(WCHAR));

    // The last handle takes the dummy with it; the real file stays.
    Close(handle);
    EXPECT_FALSE(volume_->Exists(kDummyOnVolume));
    EXPECT_EQ(volume_->Content(u"\\Data\\a.txt"), "alice's file");
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
        {u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES | READ_CONTROL | FILE_EXECUTE, {}, true},
        {u"\\??\\C:\\Data\\new.txt", FILE_READ_ATTRIBUTES, {.disposition = FILE_OPEN_IF}, true},
        {u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES | FILE_READ_DATA, {}, false},
        {u"\\??\\C:\\Data\\a.txt", 0, {}, false},
        {u"\\??\\C:\\Data\\Sub", FILE_READ_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}, false},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(ntsim::ToUtf8(test.path) + " access " + std::to_string(test.access));
        HANDLE handle = nullptr;
        ASSERT_EQ(Open(test.path, test.access, &handle, test.options).status, STATUS_SUCCESS);
        const Calls calls = NewCalls();
        EXPECT_EQ(!calls.empty() && calls[0].first == kRedirectCode, test.offered);
        // Not redirected: an ordinary open of managed content.
        ASSERT_NE(RecordOf(handle), nullptr);
        EXPECT_EQ(RecordOf(handle)->pstrTemporaryFile, nullptr);
        Close(handle);
        NewCalls();
    }
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
    ASSERT_NE(RecordOf(handle), nullptr);
    EXPECT_EQ(RecordOf(handle)->bForeignUserAccess, 1);
    Close(handle);
}

TEST_F(Redirection, ARedirectionThatLeadsNowhereFailsTheOpen)
{
    // No Thread port: the request never reaches a service, both flags stay set, and the name left
    // in the file object (the rest of the path on the volume) names nothing from the root.
    OpenForAttributes(STATUS_OBJECT_PATH_NOT_FOUND);

    // The service goes away with the request: the same.
    service_.AddRule({.code = kRedirectCode, .action = ResponderAction::Disconnect});
    ASSERT_EQ(service_.Connect(), S_OK);
    OpenForAttributes(STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(NewCalls(), Calls(1, {kRedirectCode, kRealFile}));
    EXPECT_EQ(volume_->OpenCount(), 0u);
}

TEST_F(Redirection, AServiceThatAlwaysReparsesEndsAtTheIoManagersLimit)
{
    service_.AddRule(
        {.code = kRedirectCode, .reply = {.reparse = true, .redirected = true, .name = u"\\??\\C:\\Data\\a.txt"}});
    ASSERT_EQ(service_.Connect(), S_OK);
    OpenForAttributes(STATUS_REPARSE_POINT_NOT_RESOLVED);
    EXPECT_EQ(NewCalls().size(), 33u) << "the first pass and 32 re-parses";
    EXPECT_EQ(volume_->OpenCount(), 0u);
}

TEST_F(Redirection, FileAllInformationAnswersEachOfItsThreeLengths)
{
    Redirect();
    AnswerInformation();
    ASSERT_EQ(service_.Connect(), S_OK);
    const HANDLE handle = OpenForAttributes();
    NewCalls();

    // Room for the fixed part, not for the whole name: no name, and the caller's Length.
    for (ULONG length : {ULONG{sizeof(FILE_ALL_INFORMATION)}, kAllNeeded - 1}) {
        const QueryResult all = Query(handle, FileAllInformation, length);
        EXPECT_EQ(all.status, STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(all.information, length);
        EXPECT_EQ(all.As<FILE_ALL_INFORMATION>().NameInformation.FileNameLength, 0u);
        EXPECT_EQ(all.As<FILE_ALL_INFORMATION>().StandardInformation.EndOfFile.QuadPart, 5000);
    }

    // Less than the fixed part: the I/O manager refuses it before any filter, but a filter above
    // (A) may send it, and learns the length needed without a service request; B, between A and
    // FolderMerge, sees the answer go by.
    EXPECT_EQ(Query(handle, FileAllInformation, sizeof(FILE_ALL_INFORMATION) - 1).status, STATUS_INFO_LENGTH_MISMATCH);
    ASSERT_EQ(iotest::FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(iotest::FilterB::Load(u"300000"), STATUS_SUCCESS);
    PFLT_INSTANCE above = iotest::FilterA::Instance(u"C:");
    PFILE_OBJECT fileObject = nullptr;
    RecordOf(handle, &fileObject);
    std::vector<UCHAR> buffer(sizeof(FILE_ALL_INFORMATION) - 1);
    ULONG returned = 0;
    EXPECT_EQ(FltQueryInformationFile(above, fileObject, buffer.data(), static_cast<ULONG>(buffer.size()),
                                      FileAllInformation, &returned),
              STATUS_BUFFER_TOO_SMALL);
    ObDereferenceObject(fileObject);
    FltObjectDereference(above);
    const std::vector<iotest::Event> seen = iotest::EventsOf(IRP_MJ_QUERY_INFORMATION);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].information, kAllNeeded);
    EXPECT_EQ(NewCalls(), Calls(2, {kInformationCode, kRealFile}));
    Close(handle);
}

TEST_F(Redirection, TheServicesFailureOrSilenceIsTheQuerysAnswerAndTheDummyIsNeverShown)
{
    Redirect();
    service_.AddRule({.code = kInformationCode, .action = ResponderAction::NoAnswer});
    ASSERT_EQ(service_.Connect(), S_OK);
    const HANDLE handle = OpenForAttributes();

    // A service that never answers: after its 30 minutes the query ends in the time-out, a success
    // status with nothing written, whether the class is written into the caller's buffer or
    // composed from the answer.
    size_t handled = service_.RequestCount();
    for (FILE_INFORMATION_CLASS infoClass : {FileBasicInformation, FileAllInformation}) {
        auto query = std::async(std::launch::async, [&] { return Query(handle, infoClass, 200); });
        ASSERT_TRUE(service_.WaitForHandled(++handled));
        ntsim::clock::Advance(30 * ntsim::clock::kMinute);
        const QueryResult silent = query.get();
        EXPECT_EQ(silent.status, STATUS_TIMEOUT);
        EXPECT_EQ(silent.information, 0u);
        EXPECT_EQ(silent.bytes, std::vector<UCHAR>(200, 0xCC));
    }

    // A service that is gone: the query fails, and the file system, which knows the dummy, isn't asked.
    service_.Disconnect();
    const QueryResult gone = Query(handle, FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION));
    EXPECT_TRUE(NT_ERROR(gone.status));
    EXPECT_EQ(gone.bytes, std::vector<UCHAR>(sizeof(FILE_NETWORK_OPEN_INFORMATION), 0xCC));
    Close(handle);
    EXPECT_FALSE(volume_->Exists(kDummyOnVolume));
}

TEST_F(Redirection, WhatTheFilterCantHaveLeavesAnOrdinaryOpen)
{
    Redirect();
    ASSERT_EQ(service_.Connect(), S_OK);
    // No memory for the name handed to the I/O manager (the filter's one untagged allocation): the
    // open passes with the file object as it was, on the real file, without a record.
    ntsim::faults::FailAllocationsWithTag(NTSIM_UNTAGGED_POOL_TAG, ntsim::faults::Persistence::Once);
    HANDLE handle = OpenForAttributes();
    EXPECT_EQ(ntsim::faults::FailuresInjected(), 1u);
    EXPECT_EQ(RecordOf(handle), nullptr);
    EXPECT_EQ(EndOfFile(handle), 12);
    Close(handle);
    EXPECT_EQ(NewCalls(), Calls(1, {kRedirectCode, kRealFile}));
}

TEST_F(Redirection, ASecondPassWithoutTheRealPathIsAnOrdinaryOpenOfTheDummy)
{
    // A name of odd length is no counted string: the second pass's request gives no name.
    service_.AddRule({.code = kRedirectCode,
                      .path = kDummyFile,
                      .reply = {.redirected = true, .name = u"x", .nameLength = 3}});
    Redirect();
    ASSERT_EQ(service_.Connect(), S_OK);
    const HANDLE handle = OpenForAttributes();
    ASSERT_NE(RecordOf(handle), nullptr);
    EXPECT_EQ(std::u16string(ntsim::View(*RecordOf(handle)->pstrPath)), kDummyFile);
    EXPECT_EQ(RecordOf(handle)->pstrTemporaryFile, nullptr);
    EXPECT_EQ(EndOfFile(handle), 5) << "the file system answers";
    Close(handle);
    EXPECT_TRUE(volume_->Exists(kDummyOnVolume));
}

}  // namespace
}  // namespace foldermerge::testing
