// Memory descriptor lists: IoAllocateMdl and IoFreeMdl, locking a buffer's pages, and the system's
// view of locked pages.
//
// Every MDL that IoAllocateMdl hands out is known here with what its lock holds: for a range of the
// calling process's user memory, a second mapping of the same pages (kernel/pagemapping.hpp), made
// when the pages are locked and kept until they are unlocked, so that the system's view stays valid
// in any thread and even after the process frees the block; for any other memory, nothing (its
// system view is the buffer's own address).
#include <ntsim/ex.h>
#include <ntsim/io.h>
#include <ntsim/mm.h>
#include <ntsim/seh.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "ob_internal.hpp"
#include "pagemapping.hpp"

namespace ntsim {
namespace {

inline constexpr ULONG kMdlTag = ob::internal::PoolTag("Mdl ");

// An MDL's size field counts bytes in 16 bits, which bounds the pages one MDL can describe.
constexpr size_t kMaximumMdlSize = 0xFFFF;

struct MdlState {
    bool locked = false;
    std::unique_ptr<PageMapping> view;  // the second mapping of locked user pages
    PVOID systemAddress = nullptr;      // the buffer's first byte as the system sees it while locked
};

struct MdlRegistry {
    std::mutex lock;
    std::unordered_map<const MDL*, MdlState> mdls;
};

MdlRegistry& Registry()
{
    static MdlRegistry& registry = *new MdlRegistry;
    return registry;
}

std::string Describe(const MDL* mdl)
{
    char text[64];
    std::snprintf(text, sizeof(text), "MDL %p", static_cast<const void*>(mdl));
    return text;
}

// The state of a live MDL, with the registry locked; null (after a bug check) for any other pointer.
MdlState* StateOf(const MDL* mdl, const char* routine)
{
    auto it = Registry().mdls.find(mdl);
    if (it == Registry().mdls.end()) {
        verifier::BugCheck(verifier::rules::kMdlBadObject,
                           std::string(routine) + " of " + Describe(mdl) + ", which IoAllocateMdl did not make or "
                                                                           "which was freed");
        return nullptr;
    }
    return &it->second;
}

}  // namespace
}  // namespace ntsim

using namespace ntsim;

extern "C" {

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN, BOOLEAN, PIRP Irp)
{
    verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "IoAllocateMdl");
    if (Irp != nullptr) {
        verifier::NotImplemented("IoAllocateMdl with an IRP (ntsim has no IRPs to chain an MDL to)");
        return nullptr;
    }
    const size_t pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(VirtualAddress, Length);
    const size_t size = sizeof(MDL) + pages * sizeof(PFN_NUMBER);
    if (Length == 0 || size > kMaximumMdlSize) {
        return nullptr;
    }
    auto* mdl = static_cast<PMDL>(ExAllocatePoolWithTag(NonPagedPoolNx, size, kMdlTag));
    if (mdl == nullptr) {
        return nullptr;
    }
    std::memset(mdl, 0, size);
    mdl->Size = static_cast<CSHORT>(size);
    mdl->StartVa = PAGE_ALIGN(VirtualAddress);
    mdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
    mdl->ByteCount = Length;
    std::lock_guard guard(Registry().lock);
    Registry().mdls.emplace(mdl, MdlState{});
    return mdl;
}

VOID IoFreeMdl(PMDL Mdl)
{
    verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "IoFreeMdl");
    {
        std::lock_guard guard(Registry().lock);
        MdlState* state = StateOf(Mdl, "IoFreeMdl");
        if (state == nullptr) {
            return;
        }
        if (state->locked) {
            verifier::BugCheck(verifier::rules::kMdlFreedWithPagesLocked,
                               "IoFreeMdl of " + Describe(Mdl) + " whose pages are still locked (MmUnlockPages first)");
        }
        Registry().mdls.erase(Mdl);
    }
    ExFreePoolWithTag(Mdl, kMdlTag);
}

VOID MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation)
{
    PMDL mdl = MemoryDescriptorList;
    std::lock_guard guard(Registry().lock);
    MdlState* state = StateOf(mdl, "MmProbeAndLockPages");
    if (state == nullptr) {
        return;
    }
    if (state->locked) {
        verifier::BugCheck(verifier::rules::kMdlPagesAlreadyLocked,
                           "MmProbeAndLockPages of " + Describe(mdl) + " whose pages are locked already");
        return;
    }
    if (auto failure = faults::Check("MmProbeAndLockPages")) {
        ExRaiseStatus(*failure);
    }
    PVOID address = MmGetMdlVirtualAddress(mdl);
    size_t offset = 0;
    std::unique_ptr<PageMapping> view;
    if (CurrentProcess().OwnsUserMemory(address, mdl->ByteCount)) {
        verifier::AssertIrqlAtMost(APC_LEVEL, "MmProbeAndLockPages of user memory");
        view = CurrentProcess().MapUserMemoryAgain(address, mdl->ByteCount, &offset);
        if (view == nullptr) {
            ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
        }
    } else if (AccessMode != KernelMode) {
        ExRaiseStatus(STATUS_ACCESS_VIOLATION);
    } else {
        verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "MmProbeAndLockPages");
    }
    state->locked = true;
    state->systemAddress = view != nullptr ? view->Data() + offset : address;
    state->view = std::move(view);
    mdl->Process = state->view != nullptr ? CurrentProcess().AsEprocess() : nullptr;
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
    if (Operation != IoReadAccess) {
        mdl->MdlFlags |= MDL_WRITE_OPERATION;
    }
}

VOID MmUnlockPages(PMDL MemoryDescriptorList)
{
    PMDL mdl = MemoryDescriptorList;
    verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "MmUnlockPages");
    std::unique_ptr<PageMapping> view;
    {
        std::lock_guard guard(Registry().lock);
        MdlState* state = StateOf(mdl, "MmUnlockPages");
        if (state == nullptr) {
            return;
        }
        if (!state->locked) {
            verifier::BugCheck(verifier::rules::kMdlPagesNotLocked,
                               "MmUnlockPages of " + Describe(mdl) + " whose pages are not locked");
            return;
        }
        view = std::move(state->view);
        state->locked = false;
        state->systemAddress = nullptr;
        mdl->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_WRITE_OPERATION);
        mdl->MappedSystemVa = nullptr;
        mdl->Process = nullptr;
    }
}

PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, MEMORY_CACHING_TYPE,
                                   PVOID BaseAddress, ULONG BugCheckOnFailure, ULONG)
{
    PMDL mdl = MemoryDescriptorList;
    verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "MmMapLockedPagesSpecifyCache");
    if (AccessMode != KernelMode || BaseAddress != nullptr) {
        verifier::NotImplemented("MmMapLockedPagesSpecifyCache into user space or at a chosen address");
        return nullptr;
    }
    if (faults::Check("MmMapLockedPagesSpecifyCache")) {
        if (BugCheckOnFailure) {
            verifier::BugCheck("NO_MORE_SYSTEM_PTES", "MmMapLockedPagesSpecifyCache of " + Describe(mdl) +
                                                          " failed and the caller asked for a bug check");
        }
        return nullptr;
    }
    std::lock_guard guard(Registry().lock);
    MdlState* state = StateOf(mdl, "MmMapLockedPagesSpecifyCache");
    if (state == nullptr) {
        return nullptr;
    }
    if (!state->locked) {
        verifier::BugCheck(verifier::rules::kMdlPagesNotLocked,
                           "MmMapLockedPagesSpecifyCache of " + Describe(mdl) + " whose pages are not locked");
        return nullptr;
    }
    mdl->MappedSystemVa = state->systemAddress;
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return state->systemAddress;
}

VOID MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList)
{
    PMDL mdl = MemoryDescriptorList;
    verifier::AssertIrqlAtMost(DISPATCH_LEVEL, "MmUnmapLockedPages");
    std::lock_guard guard(Registry().lock);
    if (StateOf(mdl, "MmUnmapLockedPages") == nullptr) {
        return;
    }
    if ((mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) == 0 || BaseAddress != mdl->MappedSystemVa) {
        verifier::BugCheck(verifier::rules::kMdlPagesNotLocked,
                           "MmUnmapLockedPages of " + Describe(mdl) + " at an address it is not mapped at");
        return;
    }
    mdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
    mdl->MappedSystemVa = nullptr;
}

}  // extern "C"
