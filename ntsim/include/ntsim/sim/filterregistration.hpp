// Registration pieces for the small minifilters that tests, benchmarks and the simulator load on
// ntsim: one pre/post callback pair registered for a list of operations, and the register-then-
// start body of a DriverEntry.
//
//     static constexpr auto kOperations = ntsim::RegisterEachOperation(ntsim::kEveryOperation, Pre, Post);
//     static constexpr FLT_REGISTRATION kRegistration = {
//         .Size = sizeof(FLT_REGISTRATION),
//         .Version = FLT_REGISTRATION_VERSION,
//         .OperationRegistration = kOperations.entries,
//         .FilterUnloadCallback = Unload,
//     };
//     NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
//     {
//         return ntsim::RegisterAndStartFiltering(driver, kRegistration, &filter);
//     }
#pragma once

#include <fltKernel.h>

#include <cstddef>

namespace ntsim {

// Every major function that ntsim's I/O path hands to filters.
inline constexpr UCHAR kEveryOperation[] = {
    IRP_MJ_CREATE,
    IRP_MJ_CLOSE,
    IRP_MJ_READ,
    IRP_MJ_WRITE,
    IRP_MJ_QUERY_INFORMATION,
    IRP_MJ_SET_INFORMATION,
    IRP_MJ_QUERY_EA,
    IRP_MJ_FLUSH_BUFFERS,
    IRP_MJ_DIRECTORY_CONTROL,
    IRP_MJ_CLEANUP,
    IRP_MJ_NETWORK_QUERY_OPEN,
    IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE,
    IRP_MJ_ACQUIRE_FOR_CC_FLUSH,
    IRP_MJ_RELEASE_FOR_CC_FLUSH,
    IRP_MJ_ACQUIRE_FOR_MOD_WRITE,
    IRP_MJ_RELEASE_FOR_MOD_WRITE,
};

// An operation registration array of Count operations and its IRP_MJ_OPERATION_END entry.
template <size_t Count>
struct OperationTable {
    FLT_OPERATION_REGISTRATION entries[Count + 1];
};

// pre and post (either may be null) for each of majors, in their order, with no flags.
template <size_t Count>
constexpr OperationTable<Count> RegisterEachOperation(const UCHAR (&majors)[Count], PFLT_PRE_OPERATION_CALLBACK pre,
                                                      PFLT_POST_OPERATION_CALLBACK post)
{
    OperationTable<Count> table{};
    for (size_t index = 0; index < Count; index++) {
        table.entries[index] = {majors[index], 0, pre, post, nullptr};
    }
    table.entries[Count] = {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr};
    return table;
}

// FltRegisterFilter, then FltStartFiltering. A filter that does not start is unregistered again
// and *filter set to null. The status of the step that failed, or STATUS_SUCCESS.
inline NTSTATUS RegisterAndStartFiltering(PDRIVER_OBJECT driver, const FLT_REGISTRATION& registration,
                                          PFLT_FILTER* filter)
{
    NTSTATUS status = FltRegisterFilter(driver, &registration, filter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = FltStartFiltering(*filter);
    if (!NT_SUCCESS(status)) {
        FltUnregisterFilter(*filter);
        *filter = nullptr;
    }
    return status;
}

}  // namespace ntsim
