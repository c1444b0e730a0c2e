// The buffer of an operation as filters and the file system reach it: FltLockUserBuffer, the MDL an
// operation owns, and the file system's view of a directory query's buffer.
//
// A directory query is neither buffered nor direct I/O: the request carries the caller's own
// address (DirectoryBuffer) and no MDL. A filter that must reach the buffer where that address is
// no good (another thread, a raised IRQL) locks it first with FltLockUserBuffer; from then on the
// MDL is in the parameters of every layer whose view names that buffer, the file system writes
// through the MDL's system view, and the frame unlocks and frees it at the end of the operation.
#include "iomgr.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/verifier.hpp>

#include <string>

namespace ntsim::iomgr {

CallbackFrame::~CallbackFrame()
{
    if (lockedBufferMdl != nullptr) {
        MmUnlockPages(lockedBufferMdl);
        IoFreeMdl(lockedBufferMdl);
    }
}

CallbackFrame* FrameOf(PFLT_CALLBACK_DATA data)
{
    CallbackFrame* frame = data == nullptr ? nullptr : CONTAINING_RECORD(data, CallbackFrame, data);
    if (frame == nullptr || data->Iopb != &frame->iopb) {
        verifier::BugCheck(rules::kBadObject, "a callback data that the Filter Manager did not make");
        return nullptr;
    }
    return frame;
}

void ApplyLockedBuffer(const CallbackFrame& frame, FLT_IO_PARAMETER_BLOCK& parameters)
{
    if (frame.lockedBufferMdl == nullptr || parameters.MajorFunction != IRP_MJ_DIRECTORY_CONTROL) {
        return;
    }
    auto& query = parameters.Parameters.DirectoryControl.QueryDirectory;
    if (query.DirectoryBuffer == frame.lockedBuffer && query.MdlAddress == nullptr) {
        query.MdlAddress = frame.lockedBufferMdl;
    }
}

PVOID DirectoryBufferOf(const FLT_IO_PARAMETER_BLOCK& parameters)
{
    const auto& query = parameters.Parameters.DirectoryControl.QueryDirectory;
    if (query.MdlAddress == nullptr) {
        return query.DirectoryBuffer;
    }
    return MmGetSystemAddressForMdlSafe(query.MdlAddress, NormalPagePriority | MdlMappingNoExecute);
}

}  // namespace ntsim::iomgr

using namespace ntsim;
using namespace ntsim::iomgr;

NTSTATUS FLTAPI FltLockUserBuffer(PFLT_CALLBACK_DATA CallbackData)
{
    verifier::AssertIrqlAtMost(APC_LEVEL, "FltLockUserBuffer");
    CallbackFrame* frame = FrameOf(CallbackData);
    if (frame == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    FLT_IO_PARAMETER_BLOCK& iopb = *CallbackData->Iopb;
    if (iopb.MajorFunction != IRP_MJ_DIRECTORY_CONTROL) {
        return verifier::NotImplemented("FltLockUserBuffer for major function " + std::to_string(iopb.MajorFunction));
    }
    // A query and a change notification keep their buffer and MDL at the same places.
    auto& query = iopb.Parameters.DirectoryControl.QueryDirectory;
    if (query.MdlAddress != nullptr || (CallbackData->Flags & FLTFL_CALLBACK_DATA_SYSTEM_BUFFER) != 0 ||
        query.DirectoryBuffer == nullptr || query.Length == 0) {
        return STATUS_SUCCESS;
    }
    if (frame->lockedBufferMdl != nullptr) {
        // A layer above swapped the buffer that a lower one had locked, and this is a lock of the
        // new one: ntsim keeps one locked buffer per operation.
        return verifier::NotImplemented("FltLockUserBuffer of a second buffer in one operation");
    }
    if (auto failure = faults::Check("FltLockUserBuffer")) {
        return *failure;
    }
    PMDL mdl = IoAllocateMdl(query.DirectoryBuffer, query.Length, FALSE, FALSE, nullptr);
    if (mdl == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    try {
        MmProbeAndLockPages(mdl, CallbackData->RequestorMode, IoWriteAccess);
    } catch (const SehException& exception) {
        IoFreeMdl(mdl);
        return exception.Code();
    }
    frame->lockedBufferMdl = mdl;
    frame->lockedBuffer = query.DirectoryBuffer;
    query.MdlAddress = mdl;
    return STATUS_SUCCESS;
}
