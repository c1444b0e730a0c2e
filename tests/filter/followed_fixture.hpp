// The loaded FolderMerge on C: with a scripted service on its Thread port, Alice's merge folders,
// and helpers for the records that opens make of the files they follow.
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
        // Every handle of the test is closed: no record may be left.
        EXPECT_EQ(g_ContextList, nullptr);
        EXPECT_EQ(g_DirtyBlockFileList, nullptr);
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

    // The file object's valid record, made by its open.
    static FileContext* Follow(HANDLE handle)
    {
        FileContext* pContext = FindContextByFileObject(FileObjectOf(handle), FALSE);
        EXPECT_NE(pContext, nullptr) << "the open made no record";
        return pContext;
    }

    // The tracked dirty block record that the open took for the record when the service asked for
    // tracking, with its map clear, as the service leaves it once it has taken the map.
    static TrackedDirtyBlockFile* Track(FileContext* pContext)
    {
        TrackedDirtyBlockFile* pRecord = pContext->pTrackedDirtyBlockFile;
        EXPECT_NE(pRecord, nullptr) << "the open isn't tracked";
        if (pRecord != nullptr) {
            std::fill(pRecord->map, pRecord->map + pRecord->mapLen, 0);
            pRecord->dirtyBlockCount = 0;
            pRecord->bTrackingFailed = 0;
        }
        return pRecord;
    }

    // The service's answer to the open of a file that it tracks.
    static ResponderRule Tracked(std::u16string_view volumePath)
    {
        return {.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, .path = OnVolume(volumePath),
                .reply = {.trackDirtyBlocks = true}};
    }

    // Closes the handle; its close frees the file object's records.
    static void Close(HANDLE handle)
    {
        PFILE_OBJECT fileObject = FileObjectOf(handle);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        EXPECT_EQ(FindContextByFileObject(fileObject, TRUE), nullptr) << "a record outlived its close";
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
