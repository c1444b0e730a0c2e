// The loaded FolderMerge with a scripted service that redirects attribute-only opens of alice's
// file \Data\a.txt to a dummy file, and answers for the real file with information of its own,
// which differs from what the disk holds for either file. Helpers open, query and close as a
// simulated user, and read the requests the service received.
#pragma once

#include "filter_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/iomanager.hpp>

#include <string>
#include <vector>

#include "context.h"
#include "servicerequests.h"

namespace foldermerge::testing {

inline constexpr char16_t kDummyText[] = u"vm_redirected_a2210125-0016-41ce-b6e7-495eee531977";
inline constexpr char16_t kRealFile[] = u"\\Device\\HarddiskVolume2\\Data\\a.txt";
inline const std::u16string kDummyOnVolume = u"\\Temp\\a.txt." + std::u16string(kDummyText);
inline const std::u16string kDummyFile = u"\\Device\\HarddiskVolume2" + kDummyOnVolume;

inline constexpr uint32_t kExclusionCode = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE;
inline constexpr uint32_t kRedirectCode = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES;
inline constexpr uint32_t kInformationCode = SERVICE_REQUEST_OBJECT_INFORMATION;
inline constexpr uint32_t kDownloadCode = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED;
inline constexpr uint32_t kDeletedCode = SERVICE_REQUEST_OBJECT_DELETED;
inline constexpr uint32_t kUnlockCode = SERVICE_REQUEST_OBJECT_IS_LOCKED;

// What the service knows about the real file: neither the disk's a.txt (12 bytes) nor the dummy.
inline service::FileInformation ServiceView()
{
    return {.creationTime = 1111,
            .lastAccessTime = 2222,
            .lastWriteTime = 3333,
            .changeTime = 4444,
            .fileAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE,
            .allocationSize = 8192,
            .endOfFile = 5000,
            .numberOfLinks = 1};
}

// A query's answer as the caller got it.
struct QueryResult {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ULONG_PTR information = 0;
    std::vector<UCHAR> bytes;  // the whole buffer

    template <typename T>
    const T& As() const
    {
        return *reinterpret_cast<const T*>(bytes.data());
    }
};

class RedirectingService : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedFile(kDummyOnVolume, "dummy");
        volume_->SeedFile(u"\\Shared\\c.txt", "bob's file");
        volume_->SeedFile(u"\\Other\\d.txt", "d");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {kBob, u"C:\\Shared"}}), STATUS_SUCCESS);
        alice_ = UserProcess(kAlice);
        service_.AddRule({.code = kExclusionCode,
                          .reply = {.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)}});
    }

    void TearDown() override
    {
        // Every handle of the test is closed: no record may be left.
        EXPECT_EQ(g_ContextList, nullptr);
        service_.Disconnect();
        LoadedFilter::TearDown();
    }

    // The first pass of a redirection of `path`: a re-parse to the dummy file by its link name.
    void RedirectFirstPass(std::u16string_view path = kRealFile)
    {
        service_.AddRule({.code = kRedirectCode,
                          .path = std::u16string(path),
                          .reply = {.reparse = true, .redirected = true, .name = u"\\??\\C:" + kDummyOnVolume}});
    }

    // The second pass, at the dummy file: the real file's path and no re-parse.
    void RedirectSecondPass(std::u16string_view realPath = kRealFile)
    {
        service_.AddRule({.code = kRedirectCode,
                          .path = kDummyFile,
                          .reply = {.reparse = false, .redirected = true, .name = std::u16string(realPath)}});
    }

    // The service answers every information request with ServiceView().
    void AnswerInformation() { service_.AddRule({.code = kInformationCode, .reply = {.information = ServiceView()}}); }

    OpenResult Open(std::u16string_view path, ACCESS_MASK access, HANDLE* handle, const OpenOptions& options = {},
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

    // NtQueryInformationFile of `length` bytes, the buffer filled with 0xCC first.
    QueryResult Query(HANDLE handle, FILE_INFORMATION_CLASS infoClass, ULONG length,
                      const std::shared_ptr<ntsim::Process>& process = nullptr)
    {
        ntsim::AttachThread thread(process != nullptr ? process : alice_);
        QueryResult result;
        result.bytes.assign(length, 0xCC);
        IO_STATUS_BLOCK ioStatus{};
        result.status = NtQueryInformationFile(handle, &ioStatus, result.bytes.data(), length, infoClass);
        result.information = ioStatus.Information;
        return result;
    }

    // The record of an open handle's file object, valid or not; null when there is none.
    FileContext* RecordOf(HANDLE handle)
    {
        ntsim::AttachThread thread(alice_);
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        EXPECT_NE(fileObject, nullptr);
        FileContext* context = FindContextByFileObject(fileObject, TRUE);
        ObDereferenceObject(fileObject);
        return context;
    }

    // The name of the file object behind a handle, as the file system has it.
    std::u16string FileObjectName(HANDLE handle)
    {
        ntsim::AttachThread thread(alice_);
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        std::u16string name(ntsim::View(fileObject->FileName));
        ObDereferenceObject(fileObject);
        return name;
    }

    // The requests received since the last call, exclusion queries aside.
    std::vector<service::RequestView> NewRequests()
    {
        const std::vector<service::RecordedRequest> recorded = service_.Requests();
        std::vector<service::RequestView> views;
        for (size_t index = seen_; index < recorded.size(); index++) {
            EXPECT_TRUE(recorded[index].view.has_value()) << recorded[index].decodeError;
            if (recorded[index].view && recorded[index].view->code != kExclusionCode) {
                views.push_back(*recorded[index].view);
            }
        }
        seen_ = recorded.size();
        return views;
    }

    // The codes and paths of the requests received since the last call, exclusion queries aside.
    std::vector<std::pair<uint32_t, std::u16string>> NewCalls()
    {
        std::vector<std::pair<uint32_t, std::u16string>> calls;
        for (const service::RequestView& request : NewRequests()) {
            calls.emplace_back(request.code, request.path);
        }
        return calls;
    }

    std::shared_ptr<ntsim::Process> alice_;
    service::ScriptedResponder service_;
    size_t seen_ = 0;
};

}  // namespace foldermerge::testing
