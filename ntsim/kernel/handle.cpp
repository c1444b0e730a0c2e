// Handle tables: one per process, and the kernel's table for OBJ_KERNEL_HANDLE.
#include <ntsim/ob.h>
#include <ntsim/ps.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>
#include <map>
#include <mutex>
#include <string>

#include "ob_internal.hpp"

namespace ntsim::ob {

struct HandleTable::Impl {
    struct Entry {
        void* object = nullptr;
        ACCESS_MASK grantedAccess = 0;
        ULONG attributes = 0;
    };
    mutable std::mutex lock;
    std::map<ULONG_PTR, Entry> entries;
    ULONG_PTR next = 4;
};

namespace {

constexpr ULONG_PTR kKernelHandleBits = 0xFFFFFFFF80000000ull;
constexpr ULONG_PTR kCurrentProcess = static_cast<ULONG_PTR>(-1);
constexpr ULONG_PTR kCurrentThread = static_cast<ULONG_PTR>(-2);
constexpr ACCESS_MASK kProcessAllAccess = 0x001FFFFF;
constexpr ACCESS_MASK kThreadAllAccess = 0x001FFFFF;

HandleTable::Impl& KernelTable()
{
    static HandleTable& table = *new HandleTable;
    return table.impl();
}

bool IsKernelHandle(HANDLE handle)
{
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    return (value & kKernelHandleBits) == kKernelHandleBits && value != kCurrentProcess &&
           value != kCurrentThread;
}

// The table a handle lives in for a caller of mode, and the key within it; null when the caller
// may not use such a handle.
HandleTable::Impl* TableOf(HANDLE handle, KPROCESSOR_MODE mode, ULONG_PTR* key)
{
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    if (IsKernelHandle(handle)) {
        if (mode != KernelMode) {
            return nullptr;
        }
        *key = value & ~kKernelHandleBits;
        return &KernelTable();
    }
    *key = value;
    return &CurrentProcess().Handles().impl();
}

std::string HandleText(HANDLE handle)
{
    char text[40];
    std::snprintf(text, sizeof(text), "%p", handle);
    return text;
}

}  // namespace

HandleTable::HandleTable() : impl_(std::make_unique<Impl>()) {}

HandleTable::~HandleTable() = default;

size_t HandleTable::Count() const
{
    std::lock_guard guard(impl_->lock);
    return impl_->entries.size();
}

void HandleTable::CloseAll(PEPROCESS owner)
{
    while (true) {
        Impl::Entry entry;
        {
            std::lock_guard guard(impl_->lock);
            if (impl_->entries.empty()) {
                return;
            }
            auto it = impl_->entries.begin();
            entry = it->second;
            impl_->entries.erase(it);
        }
        const ULONG remaining = internal::AdjustHandleCount(entry.object, -1);
        if (const ObjectType* type = TypeOf(entry.object); type != nullptr && type->Close()) {
            type->Close()(entry.object, owner, remaining);
        }
        ObfDereferenceObject(entry.object);
    }
}

size_t KernelHandleCount()
{
    std::lock_guard guard(KernelTable().lock);
    return KernelTable().entries.size();
}

namespace internal {

HANDLE InsertHandleForMode(void* object, ACCESS_MASK grantedAccess, ULONG attributes,
                           KPROCESSOR_MODE mode)
{
    if (ObfReferenceObject(object) == 0) {
        return nullptr;  // not an object: the verifier has reported it
    }
    AdjustHandleCount(object, +1);
    const bool kernel = (attributes & OBJ_KERNEL_HANDLE) != 0 && mode == KernelMode;
    HandleTable::Impl& table = kernel ? KernelTable() : CurrentProcess().Handles().impl();
    std::lock_guard guard(table.lock);
    const ULONG_PTR key = table.next;
    table.next += 4;
    table.entries[key] = {object, grantedAccess, static_cast<ULONG>(attributes & (OBJ_INHERIT | OBJ_KERNEL_HANDLE))};
    return reinterpret_cast<HANDLE>(kernel ? (key | kKernelHandleBits) : key);
}

}  // namespace internal

HANDLE InsertHandle(void* object, ACCESS_MASK grantedAccess, ULONG attributes)
{
    return internal::InsertHandleForMode(object, grantedAccess, attributes, CurrentPreviousMode());
}

NTSTATUS ReferenceObjectByHandle(HANDLE handle, ACCESS_MASK desiredAccess, const ObjectType* type,
                                 KPROCESSOR_MODE accessMode, void** object, ACCESS_MASK* grantedAccess)
{
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    void* found = nullptr;
    ACCESS_MASK granted = 0;
    if (value == kCurrentProcess || value == kCurrentThread) {
        found = value == kCurrentProcess ? static_cast<void*>(CurrentProcess().AsEprocess())
                                         : static_cast<void*>(CurrentThread().AsEthread());
        granted = value == kCurrentProcess ? kProcessAllAccess : kThreadAllAccess;
        if (type != nullptr && TypeOf(found) != type) {
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        ObfReferenceObject(found);
    } else {
        ULONG_PTR key = 0;
        HandleTable::Impl* table = TableOf(handle, accessMode, &key);
        if (table == nullptr) {
            return STATUS_INVALID_HANDLE;
        }
        std::lock_guard guard(table->lock);
        auto it = table->entries.find(key);
        if (it == table->entries.end()) {
            return STATUS_INVALID_HANDLE;
        }
        found = it->second.object;
        granted = it->second.grantedAccess;
        const ObjectType* actual = TypeOf(found);
        if (type != nullptr && actual != type) {
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        if (accessMode != KernelMode) {
            const ACCESS_MASK wanted = actual->MapGenericAccess(desiredAccess) & ~MAXIMUM_ALLOWED;
            if ((wanted & ~granted) != 0) {
                return STATUS_ACCESS_DENIED;
            }
        }
        // Referenced under the table's lock, so that a concurrent close cannot free it first.
        ObfReferenceObject(found);
    }
    *object = found;
    if (grantedAccess != nullptr) {
        *grantedAccess = granted;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CloseHandle(HANDLE handle, KPROCESSOR_MODE mode)
{
    ULONG_PTR key = 0;
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    if (value == kCurrentProcess || value == kCurrentThread) {
        return STATUS_INVALID_HANDLE;
    }
    HandleTable::Impl* table = TableOf(handle, mode, &key);
    if (table == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    HandleTable::Impl::Entry entry;
    {
        std::lock_guard guard(table->lock);
        auto it = table->entries.find(key);
        if (it == table->entries.end()) {
            return STATUS_INVALID_HANDLE;
        }
        entry = it->second;
        table->entries.erase(it);
    }
    const ULONG remaining = internal::AdjustHandleCount(entry.object, -1);
    PEPROCESS owner = table == &KernelTable() ? SystemProcess()->AsEprocess() : CurrentProcess().AsEprocess();
    if (const ObjectType* type = TypeOf(entry.object); type != nullptr && type->Close()) {
        type->Close()(entry.object, owner, remaining);
    }
    ObfDereferenceObject(entry.object);
    return STATUS_SUCCESS;
}

}  // namespace ntsim::ob

extern "C" {

// ZwClose is no failure point: Windows never fails the close of a valid handle, and a close that
// failed would leave a handle that its caller cannot get rid of.
NTSTATUS NTAPI ZwClose(HANDLE Handle)
{
    const NTSTATUS status = ntsim::ob::CloseHandle(Handle, KernelMode);
    if (status == STATUS_INVALID_HANDLE) {
        ntsim::verifier::BugCheck(ntsim::ob::rules::kInvalidKernelHandle,
                                  "ZwClose(" + ntsim::ob::HandleText(Handle) + ") of a handle that is not open");
    }
    return status;
}

NTSTATUS NTAPI NtClose(HANDLE Handle)
{
    const KPROCESSOR_MODE mode = ntsim::CurrentPreviousMode();
    const NTSTATUS status = ntsim::ob::CloseHandle(Handle, mode);
    if (status == STATUS_INVALID_HANDLE && mode == KernelMode) {
        ntsim::verifier::BugCheck(ntsim::ob::rules::kInvalidKernelHandle,
                                  "NtClose(" + ntsim::ob::HandleText(Handle) + ") of a handle that is not open");
    }
    return status;
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation)
{
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "ObReferenceObjectByHandle");
    ACCESS_MASK granted = 0;
    const NTSTATUS status = ntsim::ob::ReferenceObjectByHandle(
        Handle, DesiredAccess, ObjectType == nullptr ? nullptr : ntsim::ob::ObjectTypeFrom(ObjectType),
        AccessMode, Object, &granted);
    if (NT_SUCCESS(status) && HandleInformation != nullptr) {
        HandleInformation->GrantedAccess = granted;
        HandleInformation->HandleAttributes = 0;
    }
    return status;
}

NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, struct _ACCESS_STATE* PassedAccessState,
                               ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                               KPROCESSOR_MODE AccessMode, PHANDLE Handle)
{
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "ObOpenObjectByPointer");
    if (PassedAccessState != nullptr) {
        return ntsim::verifier::NotImplemented("ObOpenObjectByPointer with an access state");
    }
    const ntsim::ob::ObjectType* type = ntsim::ob::TypeOf(Object);
    if (type == nullptr) {
        ntsim::verifier::BugCheck(ntsim::ob::rules::kObjectNotKnown, "ObOpenObjectByPointer");
        return STATUS_INVALID_PARAMETER;
    }
    if (ObjectType != nullptr && ntsim::ob::ObjectTypeFrom(ObjectType) != type) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    ACCESS_MASK granted = type->MapGenericAccess(DesiredAccess);
    if (granted & MAXIMUM_ALLOWED) {
        granted = (granted & ~MAXIMUM_ALLOWED) | type->ValidAccess();
    }
    HANDLE handle = ntsim::ob::internal::InsertHandleForMode(Object, granted, HandleAttributes, AccessMode);
    if (handle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Handle = handle;
    return STATUS_SUCCESS;
}

}  // extern "C"
