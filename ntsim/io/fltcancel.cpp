// The cancel of an open: a post-create callback that turns an open the file system made into a
// failure calls FltCancelFileOpen first, and the file system then sees the cleanup of the file
// object at once and its close when the last reference goes. Both go only to the layers below
// the cancelling instance, which saw the open succeed; the layers above see the failure the
// post-create sets. Nothing the open did is undone: a file it created stays, one it overwrote
// stays overwritten; a FILE_DELETE_ON_CLOSE open is carried out by that cleanup, as at any last
// handle.
#include "iomgr.hpp"

#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>
#include <string>

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

// What the I/O manager hands out a file object for.
bool OpenSucceeds(NTSTATUS status)
{
    return NT_SUCCESS(status) && status != STATUS_REPARSE;
}

std::string Hex(NTSTATUS status)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

std::string PostCreateOf(const _FLT_INSTANCE& instance)
{
    return "the post-create callback of filter " + ToUtf8(instance.filter->name);
}

}  // namespace

namespace ntsim::iomgr {

void CancelOpen(FileObjectRecord* record, const std::shared_ptr<_FLT_INSTANCE>& instance)
{
    record->openCancelled = true;
    record->below = instance;
    record->fileObject.Flags |= FO_FILE_OPEN_CANCELLED;
    SendCleanup(record);
}

void CheckPostCreateResult(FileObjectRecord* record, const std::shared_ptr<_FLT_INSTANCE>& instance,
                           FLT_CALLBACK_DATA& data, NTSTATUS statusBefore)
{
    const NTSTATUS status = data.IoStatus.Status;
    if (record->openCancelled) {
        if (OpenSucceeds(status)) {
            verifier::BugCheck(rules::kCancelledOpenNotFailed,
                               PostCreateOf(*instance) + " returned status " + Hex(status) +
                                   " for an open that FltCancelFileOpen cancelled; the open fails with "
                                   "STATUS_CANCELLED");
            data.IoStatus.Status = STATUS_CANCELLED;
            data.IoStatus.Information = 0;
        }
        return;
    }
    if (record->open != nullptr && OpenSucceeds(statusBefore) && !OpenSucceeds(status)) {
        verifier::BugCheck(rules::kOpenFailedWithoutCancel,
                           PostCreateOf(*instance) + " turned the open of \"" + ToUtf8(record->volumePath) +
                               "\" into status " + Hex(status) + " without calling FltCancelFileOpen first");
        CancelOpen(record, instance);
    }
}

}  // namespace ntsim::iomgr

extern "C" VOID FLTAPI FltCancelFileOpen(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FltCancelFileOpen");
    auto instance = InstanceOf(Instance);
    if (instance == nullptr || FileObject == nullptr) {
        verifier::BugCheck(rules::kInvalidCancelOfFileOpen,
                           "FltCancelFileOpen without a valid instance and file object");
        return;
    }
    FileObjectRecord* record = RecordOf(FileObject);
    std::string wrong;
    if ((FileObject->Flags & FO_HANDLE_CREATED) != 0) {
        wrong = "of a file object that has a handle";
    } else if (record->createStage != CreateStage::AfterFileSystem) {
        wrong = "outside the post-create of the file object's own create";
    } else if (record->openCancelled) {
        wrong = "of an open that was cancelled already";
    } else if (record->open == nullptr) {
        wrong = "of a create that the file system did not open";
    }
    if (!wrong.empty()) {
        verifier::BugCheck(rules::kInvalidCancelOfFileOpen, "FltCancelFileOpen " + wrong);
        return;
    }
    CancelOpen(record, instance);
}
