// The whole open of a managed file through the I/O path, from the download request to the close,
// with a scripted service: what the caller saw, the requests the service received in order, and the
// records left behind. Every test ends with no file context and no dirty block record in the
// tables: none outlives its file object.
#include "filter_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include <foldermerge/service/control.hpp>
#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/iomanager.hpp>

#include <future>

#include "context.h"
#include "dirtyblocktracking.h"
#include "driver/globals.h"
#include "driver/operations.h"
#include "driver/ownedstring.h"
#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using service::FilterConnection;
using service::ReplyContent;
using service::RequestView;
using service::ResponderAction;
using service::ScriptedResponder;
using Codes = std::vector<uint32_t>;

constexpr char16_t kPath[] = u"\\??\\C:\\Data\\a.txt";
constexpr char16_t kFile[] = u"\\Device\\HarddiskVolume2\\Data\\a.txt";
constexpr char16_t kSignature[] = u"signature-7";

constexpr uint32_t kExclusion = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE;
constexpr uint32_t kDownload = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED;
constexpr uint32_t kSignatureCode = SERVICE_REQUEST_OBJECT_SIGNATURE;
constexpr uint32_t kChanged = SERVICE_REQUEST_OBJECT_CHANGED;
constexpr uint32_t kUpload = SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED;
constexpr uint32_t kDeleted = SERVICE_REQUEST_OBJECT_DELETED;
constexpr uint32_t kUnlock = SERVICE_REQUEST_OBJECT_IS_LOCKED;

constexpr OpenOptions kShareAll{};
constexpr OpenOptions kOverwrite{.disposition = FILE_OVERWRITE_IF, .createOptions = FILE_SYNCHRONOUS_IO_NONALERT};

class WholeOpen : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedDirectory(u"\\Data\\Sub");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {kBob, u"C:\\Shared"}}), STATUS_SUCCESS);
        alice_ = UserProcess(kAlice);
        service_.AddRule({.code = kExclusion, .reply = {.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)}});
        service_.AddRule({.code = kSignatureCode, .reply = {.signatureName = kSignature}});
    }

    void TearDown() override
    {
        EXPECT_EQ(g_ContextList, nullptr);
        EXPECT_EQ(g_DirtyBlockFileList, nullptr);
        service_.Disconnect();
        LoadedFilter::TearDown();
    }

    OpenResult Open(std::u16string_view path, ACCESS_MASK access, const OpenOptions& options, HANDLE* handle,
                    const std::shared_ptr<ntsim::Process>& process = nullptr)
    {
        ntsim::AttachThread thread(process != nullptr ? process : alice_);
        return OpenHandle(path, access, options, handle);
    }

    void Close(HANDLE handle, const std::shared_ptr<ntsim::Process>& process = nullptr)
    {
        ntsim::AttachThread thread(process != nullptr ? process : alice_);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }

    // The valid record of an open handle, as the cleanup finds it; null when there is none.
    FileContext* RecordOf(HANDLE handle, const std::shared_ptr<ntsim::Process>& process = nullptr)
    {
        ntsim::AttachThread thread(process != nullptr ? process : alice_);
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        FileContext* context = FindContextByFileObject(fileObject, FALSE);
        ObDereferenceObject(fileObject);
        return context;
    }

    // The requests received since the last call, exclusion queries aside unless asked for.
    std::vector<RequestView> NewRequests(bool withExclusions = false)
    {
        const auto recorded = service_.Requests();
        std::vector<RequestView> views;
        for (; seen_ < recorded.size(); seen_++) {
            const auto& view = recorded[seen_].view;
            EXPECT_TRUE(view.has_value()) << recorded[seen_].decodeError;
            if (view && (withExclusions || view->code != kExclusion)) {
                views.push_back(*view);
            }
        }
        return views;
    }

    static Codes CodesOf(const std::vector<RequestView>& requests)
    {
        Codes codes;
        for (const RequestView& request : requests) {
            codes.push_back(request.code);
        }
        return codes;
    }
    Codes NewCodes(bool withExclusions = false) { return CodesOf(NewRequests(withExclusions)); }

    std::shared_ptr<ntsim::Process> alice_;
    ScriptedResponder service_;
    size_t seen_ = 0;
};

TEST_F(WholeOpen, TheRoadOfOneOpenAsksTheServiceInOrderAndEndsWithItsFileObject)
{
    service_.AddRule({.code = kDownload, .reply = {.locked = true}});
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE reader = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_READ, {.share = FILE_SHARE_READ}, &reader).status, STATUS_SUCCESS);

    // The exclusion query of the file's directory, then the download of the file as the disk holds
    // it, with the caller's own share access.
    const std::vector<RequestView> atOpen = NewRequests(true);
    ASSERT_EQ(CodesOf(atOpen), (Codes{kExclusion, kDownload}));
    EXPECT_EQ(atOpen[0].path, u"\\Device\\HarddiskVolume2\\Data");
    EXPECT_EQ(atOpen[1].sid, kAlice);
    EXPECT_EQ(atOpen[1].path, kFile);
    EXPECT_EQ(atOpen[1].processId, reinterpret_cast<uint64_t>(alice_->Id()));
    EXPECT_EQ(atOpen[1].shareAccess, FILE_SHARE_READ);
    ASSERT_TRUE(atOpen[1].information.has_value());
    EXPECT_EQ(atOpen[1].information->endOfFile, 12);
    const FileContext* record = RecordOf(reader);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrPath)), kFile);
    EXPECT_EQ(record->bLocked, 1);
    EXPECT_EQ(record->OnClose, 0u);

    // The file system recorded the widened share access: a writer gets in beside the reader. It
    // replaced the content, so its cleanup asks for the upload while the reader is live, and the
    // reader's lock keeps the file locked.
    HANDLE writer = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE, kOverwrite, &writer).status, STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kSignatureCode, kChanged}));
    Close(writer);
    EXPECT_EQ(NewCodes(), Codes{kUpload});

    // The last one's cleanup unlocks the file, and its close frees the record.
    Close(reader);
    const std::vector<RequestView> atCleanup = NewRequests(true);
    EXPECT_EQ(CodesOf(atCleanup), Codes{kUnlock});
    EXPECT_EQ(atCleanup.at(0).path, kFile);
}

// Each disposition's result, the signature of an open that writes, and whether the service hears of
// new content at the open (and is asked to upload it, with the signature, at cleanup).
TEST_F(WholeOpen, DispositionsThatReplaceTheContentAreReportedAtOnceAndUploadedAtCleanup)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    struct Case {
        const char* name;
        ACCESS_MASK access;
        ULONG disposition;
        bool exists;
        ULONG_PTR information;
        bool signature;
    };
    const Case cases[] = {
        {"open", FILE_GENERIC_WRITE, FILE_OPEN, true, FILE_OPENED, true},
        {"open-if, existing", FILE_GENERIC_WRITE, FILE_OPEN_IF, true, FILE_OPENED, true},
        {"open-if, new", FILE_GENERIC_WRITE, FILE_OPEN_IF, false, FILE_CREATED, true},
        {"create", FILE_GENERIC_WRITE, FILE_CREATE, false, FILE_CREATED, true},
        {"overwrite", FILE_GENERIC_WRITE, FILE_OVERWRITE, true, FILE_OVERWRITTEN, true},
        {"supersede", FILE_GENERIC_WRITE, FILE_SUPERSEDE, true, FILE_SUPERSEDED, true},
        {"overwrite-if with DELETE", FILE_GENERIC_WRITE | DELETE, FILE_OVERWRITE_IF, true, FILE_OVERWRITTEN, false},
        {"append only", FILE_APPEND_DATA, FILE_OPEN, true, FILE_OPENED, false},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        if (test.exists) {
            volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        } else {
            volume_->SeedRemove(u"\\Data\\a.txt");
        }
        const bool replaced = test.information != FILE_OPENED;
        HANDLE handle = nullptr;
        const OpenResult opened = Open(kPath, test.access, {.disposition = test.disposition}, &handle);
        ASSERT_EQ(opened.status, STATUS_SUCCESS);
        EXPECT_EQ(opened.information, test.information);
        const std::vector<RequestView> atOpen = NewRequests();
        Codes expected{kDownload};
        if (test.signature) {
            expected.push_back(kSignatureCode);
        }
        if (replaced) {
            expected.push_back(kChanged);
        }
        ASSERT_EQ(CodesOf(atOpen), expected);
        EXPECT_EQ(atOpen[0].information->IsUnknown(), !test.exists) << "the download sees the disk before the open";
        const FileContext* record = RecordOf(handle);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->OnClose, replaced ? ULONG{ON_CLOSE_UPLOAD} : 0u) << "set before any write";

        Close(handle);
        const std::vector<RequestView> atCleanup = NewRequests();
        ASSERT_EQ(CodesOf(atCleanup), (replaced ? Codes{kUpload, kUnlock} : Codes{kUnlock}));
        if (replaced) {
            EXPECT_EQ(atCleanup[0].secondString, test.signature ? kSignature : u"");
        }
    }
}

TEST_F(WholeOpen, TheServiceRefusesAnOpenWithAccessDeniedOrSharingViolationAlone)
{
    NTSTATUS answer = STATUS_SUCCESS;
    service_.AddRule({.code = kDownload, .answer = [&](const RequestView&) {
                          return ReplyContent{.status = answer, .uploadCancelled = true, .locked = true};
                      }});
    ASSERT_EQ(service_.Connect(), S_OK);
    for (NTSTATUS refusal : {STATUS_ACCESS_DENIED, STATUS_SHARING_VIOLATION}) {
        answer = refusal;
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(kPath, FILE_GENERIC_WRITE, kOverwrite, &handle).status, refusal);
        EXPECT_EQ(NewCodes(), Codes{kDownload}) << "no signature for a refused open";
        EXPECT_EQ(volume_->Content(u"\\Data\\a.txt"), "alice's file") << "the file system never saw the open";
    }

    // Any other error, and a warning, let the open go on as the disk holds the file, with no flag
    // of the reply and no signature.
    for (NTSTATUS other : {STATUS_UNSUCCESSFUL, STATUS_BUFFER_OVERFLOW}) {
        answer = other;
        HANDLE handle = nullptr;
        ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE, kShareAll, &handle).status, STATUS_SUCCESS);
        EXPECT_EQ(NewCodes(), Codes{kDownload});
        const FileContext* record = RecordOf(handle);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->bLocked + record->bUploadCancelled, 0);
        Close(handle);
        EXPECT_EQ(NewCodes(), Codes{kUnlock});
    }
}

TEST_F(WholeOpen, AServiceThatIsGoneOrSlowNeverStopsTheOpen)
{
    // No Thread port: every request fails at once, and the open is followed with no flags.
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE, kOverwrite, &handle).status, STATUS_SUCCESS);
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->pstrSignatureName, nullptr);
    EXPECT_EQ(record->OnClose, ULONG{ON_CLOSE_UPLOAD});
    Close(handle);

    // A service that takes the download and never answers: the open waits its 30 minutes of
    // virtual time, then goes on, and the time-out, no error, still leads to the signature. The
    // exclusion query failed with the port gone and left its verdict cached: the download is the
    // one request. The clock moves on whatever happened, so that a failure can't hang the test.
    service_.AddRule({.code = kDownload, .action = ResponderAction::NoAnswer});
    ASSERT_EQ(service_.Connect(), S_OK);
    auto open = std::async(std::launch::async, [&] { return Open(kPath, FILE_GENERIC_WRITE, kShareAll, &handle).status; });
    EXPECT_TRUE(service_.WaitForHandled(1));
    EXPECT_EQ(open.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    EXPECT_EQ(open.get(), STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kSignatureCode}));
    Close(handle);
    EXPECT_EQ(NewCodes(), Codes{kUnlock});
}

// The unlock is the file's, not the open's: an open without the lock unlocks at its cleanup unless
// another live open holds it.
TEST_F(WholeOpen, EveryCleanupUnlocksTheFileWhenNoOtherLiveOpenHoldsTheLock)
{
    service_.AddRule({.code = kDownload, .reply = {.locked = false}});
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE first = nullptr, second = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_READ, kShareAll, &first).status, STATUS_SUCCESS);
    ASSERT_EQ(Open(kPath, FILE_GENERIC_READ, kShareAll, &second).status, STATUS_SUCCESS);
    NewCodes();
    Close(first);
    EXPECT_EQ(NewCodes(), Codes{kUnlock});
    Close(second);
    EXPECT_EQ(NewCodes(), Codes{kUnlock});
}

TEST_F(WholeOpen, DeleteOnCloseBeatsTheUploadAndEndsEveryOpenOfTheFileUnderItsSid)
{
    service_.AddRule({.code = kDownload, .reply = {.locked = true}});
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE reader = nullptr, deleter = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_READ, kShareAll, &reader).status, STATUS_SUCCESS);
    ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE | DELETE,
                   {.disposition = FILE_OVERWRITE_IF, .createOptions = FILE_DELETE_ON_CLOSE}, &deleter)
                  .status,
              STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kDownload, kChanged}));
    EXPECT_EQ(RecordOf(deleter)->OnClose, ULONG{ON_CLOSE_DELETE_ON_CLOSE | ON_CLOSE_UPLOAD});

    // One deletion notice: no upload, no unlock; the reader's record ends with it.
    Close(deleter);
    EXPECT_EQ(NewCodes(), Codes{kDeleted});
    EXPECT_EQ(RecordOf(reader), nullptr);
    Close(reader);
    EXPECT_EQ(NewCodes(), Codes{});
    EXPECT_FALSE(volume_->Exists(u"\\Data\\a.txt"));
}

TEST_F(WholeOpen, DirectoriesAndAnotherUsersOpensAreNeitherDownloadedNorUnlocked)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\Sub", FILE_LIST_DIRECTORY, {.createOptions = FILE_DIRECTORY_FILE}, &handle).status,
              STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), Codes{});
    EXPECT_EQ(RecordOf(handle)->bDirectory, 1);
    Close(handle);
    EXPECT_EQ(NewCodes(), Codes{});

    // A directory the open creates wasn't on the disk: the download is asked for, and the service
    // hears of the new directory. The pre-create asks after the parent of a path that isn't there;
    // the post-create after the directory itself.
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\New", FILE_LIST_DIRECTORY,
                   {.disposition = FILE_CREATE, .createOptions = FILE_DIRECTORY_FILE}, &handle)
                  .status,
              STATUS_SUCCESS);
    const std::vector<RequestView> atOpen = NewRequests(true);
    EXPECT_EQ(CodesOf(atOpen), (Codes{kExclusion, kDownload, kExclusion, kChanged}));
    EXPECT_EQ(atOpen.at(2).path, u"\\Device\\HarddiskVolume2\\Data\\New");
    Close(handle);
    EXPECT_EQ(NewCodes(), Codes{kUpload});

    // Another user's open gets local content only, under the owner's SID.
    auto bob = UserProcess(kBob);
    ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE, kShareAll, &handle, bob).status, STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), Codes{}) << "neither download nor signature";
    EXPECT_EQ(RecordOf(handle, bob)->bForeignUserAccess, 1);
    Close(handle, bob);
    const std::vector<RequestView> atCleanup = NewRequests();
    ASSERT_EQ(atCleanup.size(), 1u);
    EXPECT_EQ(atCleanup[0].sid, kAlice);
}

TEST_F(WholeOpen, ATrackedFilesMapIsOnTheDiskBeforeItsUploadIsAsked)
{
    const std::u16string stream =
        std::u16string(u"\\Data\\a.txt:") + reinterpret_cast<const char16_t*>(DIRTY_BLOCK_STREAM_NAME);
    std::optional<bool> streamAtUpload;
    service_.AddRule({.code = kDownload, .reply = {.trackDirtyBlocks = true}});
    service_.AddRule({.code = kUpload, .answer = [&](const RequestView&) {
                          streamAtUpload = volume_->Exists(stream);
                          return ReplyContent{};
                      }});
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE, kOverwrite, &handle).status, STATUS_SUCCESS);
    EXPECT_NE(RecordOf(handle)->pTrackedDirtyBlockFile, nullptr);
    EXPECT_FALSE(volume_->Exists(stream));
    Close(handle);
    EXPECT_EQ(streamAtUpload, std::optional<bool>(true));
}

TEST_F(WholeOpen, FailedOpensAndRenameTargetsLeaveNoRecord)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(u"\\??\\C:\\Data\\missing.txt", FILE_GENERIC_READ, kShareAll, &handle).status,
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(kPath, FILE_GENERIC_WRITE, {.disposition = FILE_CREATE}, &handle).status,
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kDownload, kSignatureCode}));
    EXPECT_EQ(g_ContextList, nullptr);

    ASSERT_EQ(Open(kPath, DELETE, kShareAll, &handle).status, STATUS_SUCCESS);
    NewCodes();
    {
        ntsim::AttachThread thread(alice_);
        const std::u16string target = u"\\??\\C:\\Data\\b.txt";
        std::vector<UCHAR> buffer(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + target.size() * sizeof(WCHAR));
        auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
        rename->FileNameLength = static_cast<ULONG>(target.size() * sizeof(WCHAR));
        std::memcpy(rename->FileName, target.data(), rename->FileNameLength);
        IO_STATUS_BLOCK ioStatus{};
        ASSERT_EQ(NtSetInformationFile(handle, &ioStatus, buffer.data(), static_cast<ULONG>(buffer.size()),
                                       FileRenameInformation),
                  STATUS_SUCCESS);
    }
    const std::vector<RequestView> atRename = NewRequests();
    // The target is opened to write into its directory: a download and a signature, then only the
    // rename's own requests, which end in the rename notice.
    ASSERT_GE(atRename.size(), 3u);
    EXPECT_EQ(atRename[0].code, kDownload);
    EXPECT_EQ(atRename[0].path, u"\\Device\\HarddiskVolume2\\Data\\b.txt");
    EXPECT_EQ(atRename[1].code, kSignatureCode);
    EXPECT_EQ(atRename.back().code, uint32_t{SERVICE_REQUEST_OBJECT_RENAME});
    Close(handle);
    const std::vector<RequestView> atCleanup = NewRequests();
    ASSERT_EQ(atCleanup.size(), 1u);
    EXPECT_EQ(atCleanup[0].path, u"\\Device\\HarddiskVolume2\\Data\\b.txt")
        << "the record took the new name at the rename";
}

TEST_F(WholeOpen, PassThroughModeArrivingBetweenThePreAndPostCallbacksSendsNothingMore)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    // A filter below FolderMerge closes the service's Config port in the middle of an operation.
    FilterConnection config;
    auto serviceProcess = service_.ServiceProcess();
    auto reconfigure = [&] {
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
        ntsim::AttachThread thread(serviceProcess);
        ASSERT_EQ(config.ConnectConfigPort(), S_OK);
    };
    reconfigure();
    using BelowFilter = iotest::TestFilter<0>;
    ASSERT_EQ(ntsim::LoadFilter(BelowFilter::DriverEntry, {.name = u"BelowFolderMerge", .altitude = u"100000"}),
              STATUS_SUCCESS);
    UCHAR leaveAt = IRP_MJ_CREATE;
    BelowFilter::script().pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == leaveAt && config.configPort() != nullptr &&
            ntsim::View(data->Iopb->TargetFileObject->FileName).ends_with(u"a.txt")) {
            ntsim::AttachThread thread(serviceProcess);
            config.DisconnectConfigPort();
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };

    // Between the pre- and post-create: an opened file keeps its record, and neither the
    // post-create nor the cleanup sends anything; a failed open's record goes all the same.
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE, kOverwrite, &handle).status, STATUS_SUCCESS);
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kSignatureCode}));
    EXPECT_NE(RecordOf(handle), nullptr);
    Close(handle);
    reconfigure();
    EXPECT_EQ(Open(kPath, FILE_GENERIC_READ, {.disposition = FILE_CREATE}, &handle).status,
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(g_ContextList, nullptr);

    // Between the pre- and post-cleanup: the record turns invalid with no unlock, and the close
    // frees it.
    reconfigure();
    leaveAt = IRP_MJ_CLEANUP;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_READ, kShareAll, &handle).status, STATUS_SUCCESS);
    NewCodes();
    Close(handle);
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(NewCodes(), Codes{});

    BelowFilter::script().pre = nullptr;
    EXPECT_EQ(ntsim::UnloadFilter(u"BelowFolderMerge"), STATUS_SUCCESS);
    BelowFilter::script() = {};
}

// The dummy file of a redirected open goes with its cleanup, even a cleanup that failed below the
// filter; the service then hears nothing, and the record ends at the close.
TEST_F(WholeOpen, TheDummyFileGoesAtCleanupEvenWhenTheCleanupFailsAndTheServiceHearsNothing)
{
    const std::u16string dummy = u"\\Data\\vm_redirected_a2210125-0016-41ce-b6e7-495eee531977";
    volume_->SeedFile(dummy, "");
    ASSERT_EQ(service_.Connect(), S_OK);
    using BelowFilter = iotest::TestFilter<0>;
    ASSERT_EQ(ntsim::LoadFilter(BelowFilter::DriverEntry, {.name = u"BelowFolderMerge", .altitude = u"100000"}),
              STATUS_SUCCESS);
    BelowFilter::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CLEANUP) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        data->IoStatus.Status = STATUS_UNSUCCESSFUL;
        return FLT_PREOP_COMPLETE;
    };
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_READ, kShareAll, &handle).status, STATUS_SUCCESS);
    NewCodes();
    ntsim::UnicodeStringHolder dummyPath(u"\\Device\\HarddiskVolume2" + dummy);
    RecordOf(handle)->pstrTemporaryFile = CopyUnicodeString(dummyPath.get());
    Close(handle);
    EXPECT_FALSE(volume_->Exists(dummy));
    // The deletion opens the dummy file through the whole stack, and the gate treats it as any
    // open of a dummy file; no unlock follows the failed cleanup.
    EXPECT_EQ(NewCodes(), Codes{kDownload});

    BelowFilter::script().pre = nullptr;
    EXPECT_EQ(ntsim::UnloadFilter(u"BelowFolderMerge"), STATUS_SUCCESS);
    BelowFilter::script() = {};
}

// Windows may run a post-callback at DISPATCH_LEVEL, in any thread; the verifier then stops a wait
// for the service, paged pool or a name query. The cleanup's and the close's work waits for the
// service and writes the map, and their pre-callbacks synchronize, so that it never runs there.
TEST_F(WholeOpen, NoPostOperationWorkOfTheRoadRunsWherePostCallbacksMayRunAtDispatchLevel)
{
    service_.AddRule({.code = kDownload, .reply = {.locked = true, .trackDirtyBlocks = true}});
    ASSERT_EQ(service_.Connect(), S_OK);
    for (auto setting : {ntsim::PostOperationContext::DispatchLevel, ntsim::PostOperationContext::ArbitraryThread}) {
        ntsim::ScopedPostOperationContext where(setting);
        HANDLE handle = nullptr;
        ASSERT_EQ(Open(kPath, FILE_GENERIC_WRITE, kOverwrite, &handle).status, STATUS_SUCCESS);
        {
            ntsim::AttachThread thread(alice_);
            IO_STATUS_BLOCK ioStatus{};
            char text[] = "new";
            EXPECT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, text, 3, nullptr, nullptr),
                      STATUS_SUCCESS);
        }
        Close(handle);
        EXPECT_EQ(NewCodes(),
                  (Codes{kDownload, kSignatureCode, kChanged, SERVICE_REQUEST_OBJECT_WRITE_NOTIFY, kUpload, kUnlock}));
    }
}

// A file object can hold two records (a cache flush makes one for an object whose record is
// invalid); neither may outlive it, lest a later file object at its address find it.
TEST_F(WholeOpen, TheCloseFreesEveryRecordOfItsFileObject)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(kPath, FILE_GENERIC_READ, kShareAll, &handle).status, STATUS_SUCCESS);
    FileContext* second = nullptr;
    {
        ntsim::AttachThread thread(alice_);
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        ntsim::UnicodeStringHolder path(kFile), sid(kAlice);
        ASSERT_EQ(CreateContext(fileObject, path.get(), sid.get(), &second), STATUS_SUCCESS);
        ObDereferenceObject(fileObject);
    }
    ASSERT_TRUE(AddContextToContextTable(second));
    Close(handle);
}

// While an instance detaches, a create's post-callback may come with FLTFL_POST_OPERATION_DRAINING:
// its file object isn't usable and no later callback of it reaches the instance.
TEST_F(WholeOpen, ACreateDrainedFromADetachingInstanceLeavesNoRecordAndSendsNothing)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    ntsim::UnicodeStringHolder root(u"\\Device\\HarddiskVolume2\\"), path(kFile), sid(kAlice);
    PFLT_INSTANCE instance = nullptr;
    ASSERT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, root.get(), &instance), STATUS_SUCCESS);
    FileContext* record = nullptr;
    ASSERT_EQ(CreateContext(nullptr, path.get(), sid.get(), &record), STATUS_SUCCESS);
    ASSERT_TRUE(AddContextToContextTable(record));

    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.MajorFunction = IRP_MJ_CREATE;
    iopb.TargetInstance = instance;
    FLT_CALLBACK_DATA data{.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION, .Thread = nullptr, .Iopb = &iopb};
    data.IoStatus.Status = STATUS_SUCCESS;
    data.IoStatus.Information = FILE_CREATED;
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr,
                                      instance, nullptr, nullptr};
    EXPECT_EQ(FolderMerge_PostCreate(&data, &objects, record, FLTFL_POST_OPERATION_DRAINING),
              FLT_POSTOP_FINISHED_PROCESSING);
    FltObjectDereference(instance);
    EXPECT_EQ(service_.RequestCount(), 0u);
}

}  // namespace
}  // namespace foldermerge::testing
