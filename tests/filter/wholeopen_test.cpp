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
#include "driver/mergefolders.h"
#include "driver/operations.h"
#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using service::FilterConnection;
using service::RecordedRequest;
using service::ReplyContent;
using service::RequestView;
using service::ResponderAction;
using service::ScriptedResponder;

constexpr int32_t kNotExcluded = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND);
constexpr char16_t kVolume[] = u"\\Device\\HarddiskVolume2";
constexpr char16_t kFile[] = u"\\Device\\HarddiskVolume2\\Data\\a.txt";
constexpr char16_t kSignature[] = u"signature-7";

constexpr uint32_t kExclusion = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE;
constexpr uint32_t kDownload = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED;
constexpr uint32_t kSignatureCode = SERVICE_REQUEST_OBJECT_SIGNATURE;
constexpr uint32_t kChanged = SERVICE_REQUEST_OBJECT_CHANGED;
constexpr uint32_t kUpload = SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED;
constexpr uint32_t kDeleted = SERVICE_REQUEST_OBJECT_DELETED;
constexpr uint32_t kUnlock = SERVICE_REQUEST_OBJECT_IS_LOCKED;

using Codes = std::vector<uint32_t>;

// The requests as a failure message shows them: code and path, one a line.
std::string Describe(const std::vector<RequestView>& requests)
{
    std::string text;
    for (const RequestView& request : requests) {
        text += "\n  " + std::to_string(request.code) + " " + ntsim::ToUtf8(request.path);
    }
    return text;
}

// A filter below FolderMerge: what it does between FolderMerge's pre- and post-callbacks.
using BelowFilter = iotest::TestFilter<0>;

class WholeOpen : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedDirectory(u"\\Data\\Sub");
        volume_->SeedFile(u"\\Shared\\c.txt", "bob's file");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {kBob, u"C:\\Shared"}}), STATUS_SUCCESS);
        alice_ = UserProcess(kAlice);
        service_.AddRule({.code = kExclusion, .reply = {.status = kNotExcluded}});
        service_.AddRule({.code = kSignatureCode, .reply = {.signatureName = kSignature}});
    }

    void TearDown() override
    {
        // Every file object of the test is closed: none of its records may be left.
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
        EXPECT_NE(fileObject, nullptr);
        FileContext* context = FindContextByFileObject(fileObject, FALSE);
        ObDereferenceObject(fileObject);
        return context;
    }

    // The requests received since the last call, exclusion queries aside unless asked for.
    std::vector<RequestView> NewRequests(bool withExclusions = false)
    {
        const std::vector<RecordedRequest> recorded = service_.Requests();
        std::vector<RequestView> views;
        for (size_t index = seen_; index < recorded.size(); index++) {
            EXPECT_TRUE(recorded[index].view.has_value()) << recorded[index].decodeError;
            if (recorded[index].view && (withExclusions || recorded[index].view->code != kExclusion)) {
                views.push_back(*recorded[index].view);
            }
        }
        seen_ = recorded.size();
        return views;
    }

    Codes NewCodes(bool withExclusions = false)
    {
        Codes codes;
        for (const RequestView& request : NewRequests(withExclusions)) {
            codes.push_back(request.code);
        }
        return codes;
    }

    static constexpr OpenOptions kShareAll{};
    static constexpr OpenOptions kDirectory{.createOptions = FILE_DIRECTORY_FILE};

    std::shared_ptr<ntsim::Process> alice_;
    ScriptedResponder service_;
    size_t seen_ = 0;
};

TEST_F(WholeOpen, TheRoadOfOneOpenAsksTheServiceInOrderAndEndsWithItsFileObject)
{
    service_.AddRule({.code = kDownload, .reply = {.locked = true}});
    ASSERT_EQ(service_.Connect(), S_OK);

    HANDLE handle = nullptr;
    const OpenResult opened =
        Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, {.share = FILE_SHARE_READ}, &handle);
    ASSERT_EQ(opened.status, STATUS_SUCCESS);
    EXPECT_EQ(opened.information, FILE_OPENED);

    // The exclusion query of the file's directory, then the download of the file as the disk holds
    // it, with the caller's own share access.
    const std::vector<RequestView> atOpen = NewRequests(true);
    ASSERT_EQ(atOpen.size(), 2u);
    EXPECT_EQ(atOpen[0].code, kExclusion);
    EXPECT_EQ(atOpen[0].path, u"\\Device\\HarddiskVolume2\\Data");
    const RequestView& download = atOpen[1];
    EXPECT_EQ(download.code, kDownload);
    EXPECT_EQ(download.sid, kAlice);
    EXPECT_EQ(download.path, kFile);
    EXPECT_EQ(download.processId, reinterpret_cast<uint64_t>(alice_->Id()));
    EXPECT_EQ(download.shareAccess, FILE_SHARE_READ);
    EXPECT_EQ(download.desiredAccess, FILE_GENERIC_READ | SYNCHRONIZE);
    EXPECT_EQ(download.createOptions >> 24, static_cast<uint32_t>(FILE_OPEN));
    ASSERT_TRUE(download.information.has_value());
    EXPECT_EQ(download.information->endOfFile, 12);

    // The record follows the file object with what the service said.
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrPath)), kFile);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrSid)), kAlice);
    EXPECT_EQ(record->bLocked, 1);
    EXPECT_EQ(record->bDirectory, 0);
    EXPECT_EQ(record->OnClose, 0u);
    EXPECT_EQ(record->pstrSignatureName, nullptr);
    EXPECT_EQ(record->pTrackedDirtyBlockFile, nullptr);

    // The last handle goes: the file is unlocked, and the close frees the record.
    Close(handle);
    const std::vector<RequestView> atCleanup = NewRequests(true);
    ASSERT_EQ(atCleanup.size(), 1u);
    EXPECT_EQ(atCleanup[0].code, kUnlock);
    EXPECT_EQ(atCleanup[0].path, kFile);
    EXPECT_EQ(atCleanup[0].sid, kAlice);
}

TEST_F(WholeOpen, AFollowedOpenSharesEverythingThoughTheServiceHearsTheCallersSharing)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE exclusive = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, {.share = 0}, &exclusive).status,
              STATUS_SUCCESS);
    EXPECT_EQ(NewRequests()[0].shareAccess, 0);

    // A process whose opens the gate leaves alone still gets in beside it.
    auto backup = UserProcess(kBob, u"\\Device\\HarddiskVolume2\\Tools\\indexer.exe");
    HANDLE other = nullptr;
    EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, {.share = FILE_SHARE_READ},
                   &other, backup)
                  .status,
              STATUS_SUCCESS);
    Close(other, backup);
    Close(exclusive);
}

// Each disposition's result, and whether the service hears of new content at the open (and is
// asked to upload it at cleanup). Every open here writes, so a signature follows the download.
TEST_F(WholeOpen, DispositionsThatReplaceTheContentAreReportedAtOnceAndUploadedAtCleanup)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    struct Case {
        const char* name;
        ULONG disposition;
        bool exists;
        ULONG_PTR information;
    };
    const Case cases[] = {
        {"open", FILE_OPEN, true, FILE_OPENED},
        {"open-if, existing", FILE_OPEN_IF, true, FILE_OPENED},
        {"open-if, new", FILE_OPEN_IF, false, FILE_CREATED},
        {"create", FILE_CREATE, false, FILE_CREATED},
        {"overwrite", FILE_OVERWRITE, true, FILE_OVERWRITTEN},
        {"overwrite-if", FILE_OVERWRITE_IF, true, FILE_OVERWRITTEN},
        {"supersede", FILE_SUPERSEDE, true, FILE_SUPERSEDED},
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
        const OpenResult opened =
            Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, {.disposition = test.disposition}, &handle);
        ASSERT_EQ(opened.status, STATUS_SUCCESS);
        EXPECT_EQ(opened.information, test.information);
        const std::vector<RequestView> atOpen = NewRequests();
        EXPECT_EQ(atOpen.size(), replaced ? 3u : 2u);
        ASSERT_GE(atOpen.size(), 2u);
        EXPECT_EQ(atOpen[0].code, kDownload);
        EXPECT_EQ(atOpen[0].information->IsUnknown(), !test.exists) << "the download sees the disk before the open";
        EXPECT_EQ(atOpen[1].code, kSignatureCode);
        if (replaced && atOpen.size() == 3) {
            EXPECT_EQ(atOpen[2].code, kChanged);
            EXPECT_EQ(atOpen[2].path, kFile);
            EXPECT_FALSE(atOpen[2].attributesOnly);
        }
        const FileContext* record = RecordOf(handle);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->OnClose, replaced ? ULONG{ON_CLOSE_UPLOAD} : 0u) << "set before any write";
        EXPECT_EQ(record->bSignatureRequired, 1);

        Close(handle);
        const std::vector<RequestView> atCleanup = NewRequests();
        if (replaced) {
            ASSERT_EQ(atCleanup.size(), 2u);
            EXPECT_EQ(atCleanup[0].code, kUpload);
            EXPECT_EQ(atCleanup[0].secondString, kSignature);
            EXPECT_EQ(atCleanup[1].code, kUnlock);
        } else {
            ASSERT_EQ(atCleanup.size(), 1u);
            EXPECT_EQ(atCleanup[0].code, kUnlock);
        }
    }
}

TEST_F(WholeOpen, AnOpenThatAlsoDeletesOrOnlyAppendsGetsNoSignature)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE | DELETE, {.disposition = FILE_OVERWRITE_IF}, &handle)
                  .status,
              STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kChanged}));
    Close(handle);
    const std::vector<RequestView> atCleanup = NewRequests();
    ASSERT_EQ(atCleanup.size(), 2u);
    EXPECT_EQ(atCleanup[0].code, kUpload);
    EXPECT_EQ(atCleanup[0].secondString, u"") << "an upload without a signature";

    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_APPEND_DATA, kShareAll, &handle).status, STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), Codes{kDownload});
    Close(handle);
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
        EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, {.disposition = FILE_OVERWRITE_IF}, &handle)
                      .status,
                  refusal);
        EXPECT_EQ(NewCodes(), Codes{kDownload}) << "no signature for a refused open";
        EXPECT_EQ(volume_->Content(u"\\Data\\a.txt"), "alice's file") << "the file system never saw the open";
    }

    // Any other error, and a warning, let the open go on as the disk holds the file: no flag of
    // the reply counts, and no signature is asked for.
    for (NTSTATUS other : {STATUS_UNSUCCESSFUL, STATUS_INVALID_PARAMETER, STATUS_BUFFER_OVERFLOW}) {
        answer = other;
        HANDLE handle = nullptr;
        ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, kShareAll, &handle).status, STATUS_SUCCESS);
        EXPECT_EQ(NewCodes(), Codes{kDownload});
        const FileContext* record = RecordOf(handle);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->bLocked, 0);
        EXPECT_EQ(record->bUploadCancelled, 0);
        Close(handle);
        EXPECT_EQ(NewCodes(), Codes{kUnlock});
    }
}

TEST_F(WholeOpen, AServiceThatIsGoneOrSlowNeverStopsTheOpen)
{
    // No Thread port: every request fails at once, and the open is followed with no flags.
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, {.disposition = FILE_OVERWRITE_IF}, &handle).status,
              STATUS_SUCCESS);
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->pstrSignatureName, nullptr);
    EXPECT_EQ(record->OnClose, ULONG{ON_CLOSE_UPLOAD});
    Close(handle);

    // A service that takes the download and never answers: the open waits its 30 minutes of
    // virtual time, then goes on, and the time-out, no error, still leads to the signature.
    service_.AddRule({.code = kDownload, .action = ResponderAction::NoAnswer});
    ASSERT_EQ(service_.Connect(), S_OK);
    auto open = std::async(std::launch::async, [&] {
        return Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, kShareAll, &handle).status;
    });
    // The exclusion query failed with the port gone and left its verdict cached: the download is
    // the one request. The clock moves on whatever happened, so that a failure can't hang the test.
    EXPECT_TRUE(service_.WaitForHandled(1));
    EXPECT_EQ(open.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    EXPECT_EQ(open.get(), STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kSignatureCode}));
    Close(handle);
    EXPECT_EQ(NewCodes(), Codes{kUnlock});
}

TEST_F(WholeOpen, TheFileIsUnlockedByTheLastCleanupWhileAnotherLiveOpenHoldsTheLock)
{
    bool locked = true;
    service_.AddRule(
        {.code = kDownload, .answer = [&](const RequestView&) { return ReplyContent{.locked = locked}; }});
    ASSERT_EQ(service_.Connect(), S_OK);

    // Two opens holding the lock; the one that replaced the file cleans up first, and its upload
    // goes out while the other is still live.
    HANDLE reader = nullptr, writer = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, kShareAll, &reader).status, STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, {.disposition = FILE_OVERWRITE_IF}, &writer).status,
              STATUS_SUCCESS);
    NewCodes();
    Close(writer);
    EXPECT_EQ(NewCodes(), Codes{kUpload});
    Close(reader);
    EXPECT_EQ(NewCodes(), Codes{kUnlock});

    // The rule is the file's, not the open's: an open without the lock unlocks at its cleanup
    // unless another live open holds it.
    locked = false;
    HANDLE first = nullptr, second = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, kShareAll, &first).status, STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, kShareAll, &second).status, STATUS_SUCCESS);
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
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, kShareAll, &reader).status, STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE | DELETE,
                   {.disposition = FILE_OVERWRITE_IF, .createOptions = FILE_DELETE_ON_CLOSE}, &deleter)
                  .status,
              STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kDownload, kChanged}));
    const FileContext* record = RecordOf(deleter);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->OnClose, ULONG{ON_CLOSE_DELETE_ON_CLOSE | ON_CLOSE_UPLOAD});

    // One deletion notice: no upload, no unlock; the reader's record ends with it.
    Close(deleter);
    const std::vector<RequestView> atCleanup = NewRequests();
    ASSERT_EQ(atCleanup.size(), 1u);
    EXPECT_EQ(atCleanup[0].code, kDeleted);
    EXPECT_EQ(atCleanup[0].path, kFile);
    EXPECT_EQ(RecordOf(reader), nullptr);
    Close(reader);
    EXPECT_EQ(NewCodes(), Codes{});
    EXPECT_FALSE(volume_->Exists(u"\\Data\\a.txt"));
}

TEST_F(WholeOpen, DirectoriesAreNeitherDownloadedNorUnlocked)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\Sub", FILE_LIST_DIRECTORY, kDirectory, &handle).status, STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), Codes{});
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->bDirectory, 1);
    Close(handle);
    EXPECT_EQ(NewCodes(), Codes{});

    // A directory the open creates wasn't on the disk: the download is asked for, and the service
    // hears of the new directory, which the exclusion test now asks after itself.
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\New", FILE_LIST_DIRECTORY, {.disposition = FILE_CREATE,
                                                                  .createOptions = FILE_DIRECTORY_FILE},
                   &handle)
                  .status,
              STATUS_SUCCESS);
    // The pre-create asks after the parent of a path that isn't there; the post-create after the
    // directory itself.
    const std::vector<RequestView> atOpen = NewRequests(true);
    ASSERT_EQ(atOpen.size(), 4u) << Describe(atOpen);
    EXPECT_EQ(atOpen[0].code, kExclusion);
    EXPECT_EQ(atOpen[0].path, u"\\Device\\HarddiskVolume2\\Data");
    EXPECT_EQ(atOpen[1].code, kDownload);
    EXPECT_EQ(atOpen[2].code, kExclusion);
    EXPECT_EQ(atOpen[2].path, u"\\Device\\HarddiskVolume2\\Data\\New");
    EXPECT_EQ(atOpen[3].code, kChanged);
    Close(handle);
    EXPECT_EQ(NewCodes(), Codes{kUpload});
}

TEST_F(WholeOpen, AnotherUsersOpenGetsLocalContentUnderTheOwnersName)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    auto bob = UserProcess(kBob);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, kShareAll, &handle, bob).status, STATUS_SUCCESS);
    EXPECT_EQ(NewCodes(), Codes{}) << "neither download nor signature";
    const FileContext* record = RecordOf(handle, bob);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->bForeignUserAccess, 1);
    EXPECT_EQ(std::u16string(ntsim::View(*record->pstrSid)), kAlice);
    Close(handle, bob);
    const std::vector<RequestView> atCleanup = NewRequests();
    ASSERT_EQ(atCleanup.size(), 1u);
    EXPECT_EQ(atCleanup[0].code, kUnlock);
    EXPECT_EQ(atCleanup[0].sid, kAlice);
}

TEST_F(WholeOpen, ATrackedFilesMapIsOnTheDiskBeforeItsUploadIsAsked)
{
    const std::u16string stream = std::u16string(u"\\Data\\a.txt:") + reinterpret_cast<const char16_t*>(
                                                                           DIRTY_BLOCK_STREAM_NAME);
    std::optional<bool> streamAtUpload;
    service_.AddRule({.code = kDownload, .reply = {.trackDirtyBlocks = true}});
    service_.AddRule({.code = kUpload, .answer = [&](const RequestView&) {
                          streamAtUpload = volume_->Exists(stream);
                          return ReplyContent{};
                      }});
    ASSERT_EQ(service_.Connect(), S_OK);

    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, {.disposition = FILE_OVERWRITE_IF}, &handle).status,
              STATUS_SUCCESS);
    const FileContext* record = RecordOf(handle);
    ASSERT_NE(record, nullptr);
    ASSERT_NE(record->pTrackedDirtyBlockFile, nullptr);
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
    EXPECT_EQ(NewCodes(), Codes{kDownload}) << "the download is asked for a path the disk doesn't have";
    EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, {.disposition = FILE_CREATE}, &handle).status,
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kSignatureCode}));
    EXPECT_EQ(g_ContextList, nullptr);

    // A rename opens its target's directory through the stack: that open is followed no further,
    // and its close unlocks nothing.
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", DELETE, kShareAll, &handle).status, STATUS_SUCCESS);
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
    // The target is opened to write into its directory: a download and a signature, then nothing.
    ASSERT_EQ(atRename.size(), 2u) << Describe(atRename);
    EXPECT_EQ(atRename[0].code, kDownload);
    EXPECT_EQ(atRename[0].path, u"\\Device\\HarddiskVolume2\\Data\\b.txt");
    EXPECT_EQ(atRename[1].code, kSignatureCode);
    Close(handle);
    const std::vector<RequestView> atCleanup = NewRequests();
    ASSERT_EQ(atCleanup.size(), 1u);
    EXPECT_EQ(atCleanup[0].path, kFile) << "the record keeps the name it was opened by";
}

TEST_F(WholeOpen, PassThroughModeArrivingBetweenThePreAndPostCallbacksSendsNothingMore)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    // The service's Config port, which a filter below FolderMerge closes in the middle of an
    // operation.
    FilterConnection config;
    auto serviceProcess = service_.ServiceProcess();
    {
        ntsim::AttachThread thread(serviceProcess);
        ASSERT_EQ(config.ConnectConfigPort(), S_OK);
    }
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
    auto reconfigure = [&] {
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
        ntsim::AttachThread thread(serviceProcess);
        ASSERT_EQ(config.ConnectConfigPort(), S_OK);
    };

    // Between the pre- and post-create: an opened file keeps its record, and neither the
    // post-create nor the cleanup sends anything.
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_WRITE, {.disposition = FILE_OVERWRITE_IF}, &handle).status,
              STATUS_SUCCESS);
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(NewCodes(), (Codes{kDownload, kSignatureCode}));
    EXPECT_NE(RecordOf(handle), nullptr);
    Close(handle);
    EXPECT_EQ(NewCodes(), Codes{});

    // A failed open's record goes all the same.
    reconfigure();
    EXPECT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, {.disposition = FILE_CREATE}, &handle).status,
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(g_ContextList, nullptr);

    // Between the pre- and post-cleanup: the record turns invalid with no unlock, and the close
    // frees it.
    reconfigure();
    leaveAt = IRP_MJ_CLEANUP;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, kShareAll, &handle).status, STATUS_SUCCESS);
    NewCodes();
    Close(handle);
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(NewCodes(), Codes{});

    BelowFilter::script().pre = nullptr;
    EXPECT_EQ(ntsim::UnloadFilter(u"BelowFolderMerge"), STATUS_SUCCESS);
    BelowFilter::script() = {};
}

TEST_F(WholeOpen, TheCloseFreesEveryRecordOfItsFileObject)
{
    // A file object can hold two records (a cache flush makes one for an object whose record is
    // invalid); neither may outlive it, lest a later file object at its address find it.
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_GENERIC_READ, kShareAll, &handle).status, STATUS_SUCCESS);
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

TEST_F(WholeOpen, ACreateDrainedFromADetachingInstanceLeavesNoRecordAndSendsNothing)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    ntsim::UnicodeStringHolder root(std::u16string(kVolume) + u"\\"), path(kFile), sid(kAlice);
    PFLT_INSTANCE instance = nullptr;
    ASSERT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, root.get(), &instance), STATUS_SUCCESS);
    FileContext* record = nullptr;
    ASSERT_EQ(CreateContext(nullptr, path.get(), sid.get(), &record), STATUS_SUCCESS);
    ASSERT_TRUE(AddContextToContextTable(record));

    // A create that made the file: were it not draining, the service would hear of it. The file
    // object isn't usable, so none is given.
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
