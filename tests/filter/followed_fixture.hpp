// The loaded FolderMerge on C: with a scripted service on its Thread port, Alice's merge folders,
// and files followed as an open follows them: the file object's record in the context table.
#pragma once

#include "instance_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/iomanager.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "context.h"
#include "dirtyblocktracking.h"
#include "driver/globals.h"

namespace foldermerge::testing {

using service::ReplyContent;
using service::RequestView;
using service::ResponderAction;
using service::ResponderRule;
using service::ScriptedResponder;

// What the service answers to an exclusion question when the path isn't excluded (0 says excluded).
inline constexpr int32_t kNotExcluded = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND);

inline std::u16string OnVolume(std::u16string_view volumePath)
{
    return u"\\Device\\HarddiskVolume2" + std::u16string(volumePath);
}

class FollowedFileTest : public LoadedFilterOnVolume {
protected:
    void SetUp() override
    {
        LoadedFilterOnVolume::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        volume_->SeedDirectory(u"\\Data\\Docs");
        volume_->SeedDirectory(u"\\ReadOnly");
        volume_->SeedDirectory(u"\\Outside");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {kAlice, u"C:\\ReadOnly", true}, {kBob, u"C:\\Shared"}}),
                  STATUS_SUCCESS);
        alice_ = UserProcess(kAlice);
        thread_ = std::make_unique<ntsim::AttachThread>(alice_);
    }

    void TearDown() override
    {
        thread_.reset();
        service_.Disconnect();
        LoadedFilterOnVolume::TearDown();
    }

    // Connects the service with the test's rules first, then not-excluded for every exclusion
    // question; anything else gets the default reply (status 0, every flag clear).
    void Serve(std::vector<ResponderRule> rules = {})
    {
        for (ResponderRule& rule : rules) {
            service_.AddRule(std::move(rule));
        }
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .reply = {.status = kNotExcluded}});
        ASSERT_EQ(service_.Connect(), S_OK);
    }

    // Opens a volume path (\Data\a.txt) as Alice, synchronous I/O; the handle stays open.
    HANDLE Open(std::u16string_view volumePath, ACCESS_MASK access, ULONG createOptions = FILE_SYNCHRONOUS_IO_NONALERT,
                ULONG disposition = FILE_OPEN)
    {
        HANDLE handle = nullptr;
        const OpenResult result =
            OpenHandle(u"\\??\\C:" + std::u16string(volumePath), access,
                       {.disposition = disposition, .createOptions = createOptions}, &handle);
        EXPECT_EQ(result.status, STATUS_SUCCESS) << ntsim::ToUtf8(volumePath);
        return handle;
    }

    static PFILE_OBJECT FileObjectOf(HANDLE handle)
    {
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        if (fileObject != nullptr) {
            ObDereferenceObject(fileObject);  // the handle keeps it
        }
        return fileObject;
    }

    // The file object's valid record: the one its open made, or, where the open made none, one made
    // here as an open of managed content makes it (the path, the SID, bDirectory).
    FileContext* Follow(HANDLE handle, std::u16string_view volumePath, std::u16string_view sid = kAlice,
                        bool directory = false)
    {
        PFILE_OBJECT fileObject = FileObjectOf(handle);
        FileContext* pContext = FindContextByFileObject(fileObject, FALSE);
        if (pContext == nullptr) {
            ntsim::UnicodeStringHolder path(OnVolume(volumePath));
            ntsim::UnicodeStringHolder sidText(sid);
            EXPECT_EQ(CreateContext(fileObject, path.get(), sidText.get(), &pContext), STATUS_SUCCESS);
            pContext->bDirectory = directory ? 1 : 0;
            EXPECT_TRUE(AddContextToContextTable(pContext));
        }
        return pContext;
    }

    // Gives the record the file's tracked dirty block record, as an open the service tracks has it,
    // with its map clear, as the service leaves it once it has taken the map.
    TrackedDirtyBlockFile* Track(FileContext* pContext)
    {
        if (pContext->pTrackedDirtyBlockFile == nullptr) {
            EXPECT_EQ(GetTrackedDirtyBlockRecord(g_ServiceData.FilterHandle, instance_, pContext->pstrPath,
                                                 &pContext->pTrackedDirtyBlockFile),
                      STATUS_SUCCESS);
        }
        TrackedDirtyBlockFile* pRecord = pContext->pTrackedDirtyBlockFile;
        if (pRecord != nullptr) {
            std::fill(pRecord->map, pRecord->map + pRecord->mapLen, 0);
            pRecord->dirtyBlockCount = 0;
            pRecord->bTrackingFailed = 0;
        }
        return pRecord;
    }

    // Closes the handle; the records of its file object go with it, as its close takes them.
    void Close(HANDLE handle)
    {
        PFILE_OBJECT fileObject = FileObjectOf(handle);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        while (FileContext* pContext = FindContextByFileObject(fileObject, TRUE)) {
            RemoveContextFromContextTable(pContext);
            DeleteContext(pContext);
        }
    }

    // The codes of the requests the service took since the first `from`.
    std::vector<uint32_t> CodesSince(size_t from) const
    {
        std::vector<uint32_t> codes;
        const std::vector<service::RecordedRequest> requests = service_.Requests();
        for (size_t index = from; index < requests.size(); index++) {
            codes.push_back(requests[index].view ? requests[index].view->code : 0);
        }
        return codes;
    }

    // The requests the service took since the first `from`.
    std::vector<RequestView> RequestsSince(size_t from) const
    {
        std::vector<RequestView> views;
        const std::vector<service::RecordedRequest> requests = service_.Requests();
        for (size_t index = from; index < requests.size(); index++) {
            if (requests[index].view) {
                views.push_back(*requests[index].view);
            }
        }
        return views;
    }

    size_t Mark() const { return service_.RequestCount(); }

    ScriptedResponder service_;
    std::shared_ptr<ntsim::Process> alice_;
    std::unique_ptr<ntsim::AttachThread> thread_;
};

}  // namespace foldermerge::testing
