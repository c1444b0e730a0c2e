// Where post-operation callbacks run, and FltDoCompletionProcessingWhenSafe.
//
// ntsim completes every operation in the issuing thread, so a post-operation callback runs there,
// at the issuing thread's IRQL, unless the PostOperationContext setting asks for the context that
// Windows may give it: DISPATCH_LEVEL, in the issuing thread or in a system thread of its own (a new
// OS thread per call, joined before the completion goes on). The post-create, a post-callback that
// its pre-callback synchronized, and the post-callbacks of fast I/O and file-system filter
// operations keep the issuing thread whatever the setting.
//
// FltDoCompletionProcessingWhenSafe called above APC_LEVEL hands the safe callback to a worker (a
// new OS thread, a System thread at PASSIVE_LEVEL) and the post-callback returns
// FLT_POSTOP_MORE_PROCESSING_REQUIRED; the dispatcher then waits for the worker before the
// completion goes on to the post-callbacks above.
#include "iomgr.hpp"

#include <ntsim/sim/verifier.hpp>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

std::atomic<PostOperationContext> g_postOperationContext{PostOperationContext::IssuingThread};

// A safe post-callback handed to a worker, by the callback data of its operation.
struct DeferredCompletion {
    std::thread worker;
    FLT_POSTOP_CALLBACK_STATUS status = FLT_POSTOP_FINISHED_PROCESSING;
};

struct DeferredCompletions {
    std::mutex mutex;
    std::map<const FLT_CALLBACK_DATA*, std::unique_ptr<DeferredCompletion>> byData;
};

DeferredCompletions& Deferred()
{
    static auto* deferred = new DeferredCompletions;  // worker threads may outlive static destruction
    return *deferred;
}

std::unique_ptr<DeferredCompletion> TakeDeferred(const FLT_CALLBACK_DATA& data)
{
    DeferredCompletions& deferred = Deferred();
    std::lock_guard lock(deferred.mutex);
    auto found = deferred.byData.find(&data);
    if (found == deferred.byData.end()) {
        return nullptr;
    }
    std::unique_ptr<DeferredCompletion> completion = std::move(found->second);
    deferred.byData.erase(found);
    return completion;
}

FLT_POSTOP_CALLBACK_STATUS CallChecked(PFLT_POST_OPERATION_CALLBACK callback, FLT_CALLBACK_DATA& data,
                                       const FLT_RELATED_OBJECTS& objects, PVOID context)
{
    verifier::CallbackScope scope("post-operation callback");
    return callback(&data, &objects, context, 0);
}

FLT_POSTOP_CALLBACK_STATUS CallAtDispatchLevel(PFLT_POST_OPERATION_CALLBACK callback, FLT_CALLBACK_DATA& data,
                                               const FLT_RELATED_OBJECTS& objects, PVOID context)
{
    KIRQL previous;
    KeRaiseIrql(DISPATCH_LEVEL, &previous);
    FLT_POSTOP_CALLBACK_STATUS status = CallChecked(callback, data, objects, context);
    KeLowerIrql(previous);
    return status;
}

}  // namespace

namespace ntsim {

void SetPostOperationContext(PostOperationContext context)
{
    g_postOperationContext = context;
}

PostOperationContext GetPostOperationContext()
{
    return g_postOperationContext;
}

ScopedPostOperationContext::ScopedPostOperationContext(PostOperationContext context)
    : saved_(GetPostOperationContext())
{
    SetPostOperationContext(context);
}

ScopedPostOperationContext::~ScopedPostOperationContext()
{
    SetPostOperationContext(saved_);
}

}  // namespace ntsim

namespace ntsim::iomgr {

FLT_POSTOP_CALLBACK_STATUS CallPostOperationCallback(PFLT_POST_OPERATION_CALLBACK callback, FLT_CALLBACK_DATA& data,
                                                     const FLT_RELATED_OBJECTS& objects, PVOID context,
                                                     bool synchronized)
{
    const bool mayCompleteAnywhere =
        FLT_IS_IRP_OPERATION(&data) && data.Iopb->MajorFunction != IRP_MJ_CREATE && !synchronized;
    const PostOperationContext where =
        mayCompleteAnywhere ? g_postOperationContext.load() : PostOperationContext::IssuingThread;
    FLT_POSTOP_CALLBACK_STATUS status = FLT_POSTOP_FINISHED_PROCESSING;
    switch (where) {
    case PostOperationContext::IssuingThread:
        status = CallChecked(callback, data, objects, context);
        break;
    case PostOperationContext::DispatchLevel:
        status = CallAtDispatchLevel(callback, data, objects, context);
        break;
    case PostOperationContext::ArbitraryThread:
        std::thread([&] { status = CallAtDispatchLevel(callback, data, objects, context); }).join();
        break;
    }
    if (std::unique_ptr<DeferredCompletion> deferred = TakeDeferred(data)) {
        deferred->worker.join();
        if (status != FLT_POSTOP_MORE_PROCESSING_REQUIRED) {
            verifier::BugCheck(rules::kInvalidPostopStatus,
                               "a post-operation callback returned " + std::to_string(status) +
                                   " after FltDoCompletionProcessingWhenSafe queued its work: it must return the "
                                   "FLT_POSTOP_MORE_PROCESSING_REQUIRED it was given");
        }
        status = deferred->status;
    }
    return status;
}

}  // namespace ntsim::iomgr

extern "C" BOOLEAN FLTAPI FltDoCompletionProcessingWhenSafe(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                            PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags,
                                                            PFLT_POST_OPERATION_CALLBACK SafePostCallback,
                                                            PFLT_POSTOP_CALLBACK_STATUS RetPostOperationStatus)
{
    if (Data == nullptr || FltObjects == nullptr || SafePostCallback == nullptr || RetPostOperationStatus == nullptr) {
        verifier::BugCheck(rules::kBadObject, "FltDoCompletionProcessingWhenSafe with a null argument");
        return FALSE;
    }
    if ((Data->Flags & FLTFL_CALLBACK_DATA_POST_OPERATION) == 0) {
        verifier::BugCheck(rules::kInvalidPostopStatus,
                           "FltDoCompletionProcessingWhenSafe outside a post-operation callback");
        return FALSE;
    }
    if (!FLT_IS_IRP_OPERATION(Data) || (Data->Iopb->IrpFlags & IRP_PAGING_IO) != 0 ||
        (Flags & FLTFL_POST_OPERATION_DRAINING) != 0) {
        return FALSE;
    }
    if (KeGetCurrentIrql() <= APC_LEVEL) {
        *RetPostOperationStatus = CallChecked(SafePostCallback, *Data, *FltObjects, CompletionContext);
        return TRUE;
    }
    auto completion = std::make_unique<DeferredCompletion>();
    DeferredCompletion& started = *completion;
    bool queued;
    {
        DeferredCompletions& deferred = Deferred();
        std::lock_guard lock(deferred.mutex);
        queued = deferred.byData.try_emplace(Data, std::move(completion)).second;
    }
    if (!queued) {
        verifier::BugCheck(rules::kInvalidPostopStatus,
                           "FltDoCompletionProcessingWhenSafe called twice for one operation");
        return FALSE;
    }
    // The related objects live in the dispatcher's frame, which waits for the worker.
    started.worker = std::thread([&started, Data, FltObjects, CompletionContext, SafePostCallback] {
        started.status = CallChecked(SafePostCallback, *Data, *FltObjects, CompletionContext);
    });
    *RetPostOperationStatus = FLT_POSTOP_MORE_PROCESSING_REQUIRED;
    return TRUE;
}
