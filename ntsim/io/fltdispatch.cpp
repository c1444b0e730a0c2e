// The Filter Manager's dispatch of one operation through the instances of a volume.
//
// Pre-operation callbacks run from the highest altitude down. What each returns decides:
//   SUCCESS_WITH_CALLBACK, SYNCHRONIZE  go on down; this instance's post-callback runs later with
//                                       the completion context (everything is synchronous: the two
//                                       differ only in where the post-callback may run, see
//                                       fltcompletion.cpp)
//   SUCCESS_NO_CALLBACK                 go on down; no post-callback
//   COMPLETE                            the operation ends with the IoStatus the filter set: nothing
//                                       below runs and this instance's post-callback is not called
//   DISALLOW_FASTIO                     fast I/O only: the fast attempt ends; the caller reissues the
//                                       operation as an IRP
// The file system may decline a fast I/O attempt too (its fast I/O routine answers FALSE): it sets
// STATUS_FLT_DISALLOW_FAST_IO, and the attempt ends as a refusal by a filter would.
// Post-operation callbacks then run from the lowest instance that asked for one up. The file system
// sees the callback data's parameters only if the data is dirty when the pre-callbacks are done;
// otherwise it sees the parameters as the operation was issued.
#include "iomgr.hpp"

#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <string>

namespace ntsim::iomgr {

CallbackFrame::CallbackFrame(FLT_CALLBACK_DATA_FLAGS flags, KPROCESSOR_MODE requestorMode)
    : data{.Flags = flags,
           .Thread = PsGetCurrentThread(),
           .Iopb = &iopb,
           .IoStatus = {},
           .TagData = nullptr,
           .FilterContext = {},
           .RequestorMode = requestorMode}
{
}

namespace {

struct PendingPost {
    std::shared_ptr<_FLT_INSTANCE> instance;
    PVOID context;
    bool synchronized;  // the pre-callback returned FLT_PREOP_SYNCHRONIZE
};

bool SkippedByRegistration(const _FLT_INSTANCE& instance, const FLT_CALLBACK_DATA& data)
{
    const UCHAR major = data.Iopb->MajorFunction;
    if (major != IRP_MJ_READ && major != IRP_MJ_WRITE) {
        return false;
    }
    const FLT_OPERATION_REGISTRATION_FLAGS flags = instance.flags[major];
    const ULONG irpFlags = data.Iopb->IrpFlags;
    if ((flags & FLTFL_OPERATION_REGISTRATION_SKIP_PAGING_IO) != 0 && (irpFlags & IRP_PAGING_IO) != 0) {
        return true;
    }
    if ((flags & FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO) != 0 && (irpFlags & IRP_NOCACHE) == 0) {
        return true;
    }
    return false;
}

std::string CallbackName(const _FLT_INSTANCE& instance, const char* which, UCHAR major)
{
    return std::string(which) + " callback of " + std::to_string(major) + " in filter " +
           std::string(instance.filter->name.begin(), instance.filter->name.end());
}

void RunPostCallbacks(_FLT_VOLUME& volume, CallbackFrame& frame, std::vector<PendingPost>& posts)
{
    FLT_CALLBACK_DATA& data = frame.data;
    data.Flags |= FLTFL_CALLBACK_DATA_POST_OPERATION;
    for (auto post = posts.rbegin(); post != posts.rend(); ++post) {
        _FLT_INSTANCE& instance = *post->instance;
        frame.iopb.TargetInstance = &instance;
        const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, instance.filter.get(), &volume, &instance,
                                          frame.iopb.TargetFileObject, nullptr};
        const NTSTATUS statusBefore = data.IoStatus.Status;
        const FLT_POSTOP_CALLBACK_STATUS status = CallPostOperationCallback(
            instance.post[frame.iopb.MajorFunction], data, objects, post->context, post->synchronized);
        if (frame.iopb.MajorFunction == IRP_MJ_CREATE) {
            CheckPostCreateResult(RecordOf(frame.iopb.TargetFileObject), post->instance, data, statusBefore);
        }
        if (status != FLT_POSTOP_FINISHED_PROCESSING) {
            verifier::BugCheck(rules::kInvalidPostopStatus,
                               CallbackName(instance, "post-operation", frame.iopb.MajorFunction) + " returned " +
                                   std::to_string(status) +
                                   " (only FLT_POSTOP_FINISHED_PROCESSING is supported, or "
                                   "FLT_POSTOP_MORE_PROCESSING_REQUIRED from FltDoCompletionProcessingWhenSafe)");
        }
    }
    data.Flags &= ~FLTFL_CALLBACK_DATA_POST_OPERATION;
}

}  // namespace

DispatchResult Dispatch(_FLT_VOLUME& volume, const _FLT_INSTANCE* below, CallbackFrame& frame,
                        const FileSystemRoutine& fileSystem)
{
    FLT_CALLBACK_DATA& data = frame.data;
    const bool fastIo = (data.Flags & FLTFL_CALLBACK_DATA_FAST_IO_OPERATION) != 0;
    const FLT_IO_PARAMETER_BLOCK issued = frame.iopb;
    const UCHAR major = issued.MajorFunction;
    std::vector<PendingPost> posts;
    bool completed = false;
    bool fastIoRefused = false;

    for (const auto& instance : InstancesBelow(volume, below)) {
        if (!instance->registered[major] || SkippedByRegistration(*instance, data)) {
            continue;
        }
        frame.iopb.TargetInstance = instance.get();
        PVOID context = nullptr;
        FLT_PREOP_CALLBACK_STATUS status = FLT_PREOP_SUCCESS_WITH_CALLBACK;
        if (PFLT_PRE_OPERATION_CALLBACK pre = instance->pre[major]) {
            const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, instance->filter.get(), &volume,
                                              instance.get(), frame.iopb.TargetFileObject, nullptr};
            verifier::CallbackScope scope("pre-operation callback");
            status = pre(&data, &objects, &context);
        }
        const bool hasPost = instance->post[major] != nullptr;
        switch (status) {
        case FLT_PREOP_SUCCESS_WITH_CALLBACK:
        case FLT_PREOP_SYNCHRONIZE:
            if (hasPost) {
                posts.push_back({instance, context, status == FLT_PREOP_SYNCHRONIZE});
            } else if (context != nullptr) {
                verifier::BugCheck(rules::kContextWithoutPostCallback,
                                   CallbackName(*instance, "pre-operation", major) +
                                       " returned a completion context but has no post-operation callback");
            }
            break;
        case FLT_PREOP_SUCCESS_NO_CALLBACK:
        case FLT_PREOP_COMPLETE:
            if (context != nullptr) {
                verifier::BugCheck(rules::kContextWithoutPostCallback,
                                   CallbackName(*instance, "pre-operation", major) +
                                       " returned a completion context with a status that calls no post-callback");
            }
            completed = status == FLT_PREOP_COMPLETE;
            break;
        case FLT_PREOP_DISALLOW_FASTIO:
            if (fastIo) {
                fastIoRefused = true;
            } else {
                verifier::BugCheck(rules::kInvalidPreopStatus, CallbackName(*instance, "pre-operation", major) +
                                                                   " returned FLT_PREOP_DISALLOW_FASTIO for an "
                                                                   "operation that is not fast I/O");
            }
            break;
        default:
            verifier::BugCheck(rules::kInvalidPreopStatus,
                               CallbackName(*instance, "pre-operation", major) + " returned " +
                                   std::to_string(status) +
                                   (status == FLT_PREOP_PENDING ? " (FLT_PREOP_PENDING: not supported, all I/O is "
                                                                  "synchronous)"
                                                                : ""));
            data.IoStatus.Status = STATUS_NOT_IMPLEMENTED;
            data.IoStatus.Information = 0;
            completed = true;
            break;
        }
        if (completed || fastIoRefused) {
            break;
        }
    }

    if (fastIoRefused) {
        data.IoStatus.Status = STATUS_FLT_DISALLOW_FAST_IO;
        data.IoStatus.Information = 0;
    } else if (!completed) {
        const bool dirty = (data.Flags & FLTFL_CALLBACK_DATA_DIRTY) != 0;
        FLT_IO_PARAMETER_BLOCK parameters = dirty ? frame.iopb : issued;
        ApplyLockedBuffer(frame, parameters);
        parameters.TargetInstance = nullptr;
        fileSystem(data, parameters);
        if (fastIo && data.IoStatus.Status == STATUS_FLT_DISALLOW_FAST_IO) {
            data.IoStatus.Information = 0;
            fastIoRefused = true;
        }
    }
    data.Flags &= ~FLTFL_CALLBACK_DATA_DIRTY;
    RunPostCallbacks(volume, frame, posts);
    return fastIoRefused ? DispatchResult::FastIoRefused : DispatchResult::Completed;
}

}  // namespace ntsim::iomgr

using namespace ntsim::iomgr;

extern "C" {

// Whether the operation completes in the thread that issued it, as IoIsOperationSynchronous
// decides for an IRP: fast I/O and file system filter operations always do; paging I/O does when
// it is synchronous paging I/O, whatever the file object; other IRPs do when they come from a
// synchronous API or through a file object opened for synchronous I/O.
BOOLEAN FLTAPI FltIsOperationSynchronous(PFLT_CALLBACK_DATA CallbackData)
{
    if (!FLT_IS_IRP_OPERATION(CallbackData)) {
        return TRUE;
    }
    const ULONG irpFlags = CallbackData->Iopb->IrpFlags;
    if ((irpFlags & IRP_PAGING_IO) != 0) {
        return (irpFlags & IRP_SYNCHRONOUS_PAGING_IO) != 0;
    }
    if ((irpFlags & IRP_SYNCHRONOUS_API) != 0) {
        return TRUE;
    }
    const PFILE_OBJECT fileObject = CallbackData->Iopb->TargetFileObject;
    return fileObject != nullptr && (fileObject->Flags & FO_SYNCHRONOUS_IO) != 0;
}

}  // extern "C"
