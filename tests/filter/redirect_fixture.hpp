// The loaded FolderMerge with a scripted service that can redirect attribute-only opens of alice's
// \Data\a.txt (12 bytes on disk) to a dummy file (5 bytes), and answers for the real file with
// information of its own (5000 bytes).
#pragma once

#include "filter_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/iomanager.hpp>

#include <string>
#include <utility>
#include <vector>

#include "context.h"
#include "servicerequests.h"

namespace foldermerge::testing {

inline constexpr char16_t kRealFile[] = u"\\Device\\HarddiskVolume2\\Data\\a.txt";
inline const std::u16string kDummyOnVolume = u"\\Temp\\a.txt.vm_redirected_a2210125-0016-41ce-b6e7-495eee531977";
inline const std::u16string kDummyFile = u"\\Device\\HarddiskVolume2" + kDummyOnVolume;

inline constexpr uint32_t kRedirectCode = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES;
inline constexpr uint32_t kInformationCode = SERVICE_REQUEST_OBJECT_INFORMATION;
inline constexpr uint32_t kDownloadCode = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED;

using Calls = std::vector<std::pair<uint32_t, std::u16string>>;

// A query's answer as the caller got it: the whole buffer, which was 0xCC before.
struct QueryResult {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ULONG_PTR information = 0;
    std::vector<UCHAR> bytes;

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
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                          .reply = {.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)}});
    }

    void TearDown() override
    {
        EXPECT_EQ(g_ContextList, nullptr) << "every handle is closed: no record may be left";
        service_.Disconnect();
        LoadedFilter::TearDown();
    }

    // The first pass sends a.txt to the dummy by a re-parse; the second names the real file.
    void Redirect()
    {
        service_.AddRule({.code = kRedirectCode,
                          .path = kRealFile,
                          .reply = {.reparse = true, .redirected = true, .name = u"\\??\\C:" + kDummyOnVolume}});
        service_.AddRule(
            {.code = kRedirectCode, .path = kDummyFile, .reply = {.redirected = true, .name = kRealFile}});
    }

    void AnswerInformation()
    {
        service_.AddRule({.code = kInformationCode,
                          .reply = {.information = {.creationTime = 1111,
                                                    .lastAccessTime = 2222,
                                                    .lastWriteTime = 3333,
                                                    .changeTime = 4444,
                                                    .fileAttributes = FILE_ATTRIBUTE_READONLY,
                                                    .allocationSize = 8192,
                                                    .endOfFile = 5000,
                                                    .numberOfLinks = 1}}});
    }

    OpenResult Open(std::u16string_view path, ACCESS_MASK access, HANDLE* handle, const OpenOptions& options = {})
    {
        ntsim::AttachThread thread(alice_);
        return OpenHandle(path, access, options, handle);
    }

    void Close(HANDLE handle)
    {
        ntsim::AttachThread thread(alice_);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }

    QueryResult Query(HANDLE handle, FILE_INFORMATION_CLASS infoClass, ULONG length)
    {
        ntsim::AttachThread thread(alice_);
        QueryResult result{.bytes = std::vector<UCHAR>(length, 0xCC)};
        IO_STATUS_BLOCK ioStatus{};
        result.status = NtQueryInformationFile(handle, &ioStatus, result.bytes.data(), length, infoClass);
        result.information = ioStatus.Information;
        return result;
    }

    // The handle's file object (a reference the caller drops) and its valid record, or null.
    FileContext* RecordOf(HANDLE handle, PFILE_OBJECT* fileObject = nullptr)
    {
        ntsim::AttachThread thread(alice_);
        PFILE_OBJECT object = ntsim::ReferenceFileObjectByHandle(handle);
        FileContext* context = FindContextByFileObject(object, FALSE);
        if (fileObject != nullptr) {
            *fileObject = object;
        } else {
            ObDereferenceObject(object);
        }
        return context;
    }

    // The requests received since the last call, exclusion queries aside.
    std::vector<service::RequestView> NewRequests()
    {
        std::vector<service::RequestView> views;
        const std::vector<service::RecordedRequest> recorded = service_.Requests();
        for (size_t index = seen_; index < recorded.size(); index++) {
            if (recorded[index].view->code != SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE) {
                views.push_back(*recorded[index].view);
            }
        }
        seen_ = recorded.size();
        return views;
    }

    Calls NewCalls()
    {
        Calls calls;
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
