// Simulated processes: creation, the System process, user memory, and process information.
#include <ntsim/ps.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "ob_internal.hpp"
#include "pagemapping.hpp"

namespace ntsim {

// Process and thread ids: multiples of 4 from one counter, clear of the System process's 4.
HANDLE NextClientId()
{
    static std::atomic<ULONG_PTR> next{1000};
    return reinterpret_cast<HANDLE>(next.fetch_add(4));
}

namespace ob {

const ObjectType& ProcessType()
{
    static const ObjectType& type =
        *new ObjectType(u"Process", GENERIC_MAPPING{0x00020410, 0x00020BEA, 0x00121000, 0x001FFFFF}, 0x001FFFFF);
    return type;
}

const ObjectType& ThreadType()
{
    static const ObjectType& type =
        *new ObjectType(u"Thread", GENERIC_MAPPING{0x00020048, 0x00020437, 0x00121800, 0x001FFFFF}, 0x001FFFFF);
    return type;
}

}  // namespace ob

namespace {

std::shared_ptr<Process> MakeProcess(HANDLE id, ProcessOptions options)
{
    auto token = CreateToken(options.userSid, TokenPrimary);
    auto process = std::make_shared<Process>(id, std::move(options), std::move(token));
    ob::RegisterSharedObject(process->AsEprocess(), ob::ProcessType(), process);
    return process;
}

}  // namespace

Process::Process(HANDLE id, ProcessOptions options, std::shared_ptr<Token> primaryToken)
    : id_(id), imageFileName_(std::move(options.imageFileName)), primaryToken_(std::move(primaryToken)),
      mode_(options.mode), handles_(std::make_unique<ob::HandleTable>())
{
}

Process::~Process()
{
    // The process ends: its handles close as at process exit.
    handles_->CloseAll(this);
    ob::UnregisterSharedObject(AsEprocess());
}

void* Process::AllocateUserMemory(size_t size)
{
    UserBlock block{PageMapping::Allocate(size), size};
    void* address = block.pages->Data();
    std::lock_guard guard(memoryLock_);
    memory_.emplace(reinterpret_cast<uintptr_t>(address), std::move(block));
    return address;
}

void Process::FreeUserMemory(void* address)
{
    std::lock_guard guard(memoryLock_);
    if (memory_.erase(reinterpret_cast<uintptr_t>(address)) == 0) {
        throw std::invalid_argument("FreeUserMemory of memory the process does not own");
    }
}

const Process::UserBlock* Process::BlockHolding(const void* address, size_t length, size_t* offset) const
{
    const auto start = reinterpret_cast<uintptr_t>(address);
    auto it = memory_.upper_bound(start);
    if (it == memory_.begin()) {
        return nullptr;
    }
    --it;
    const uintptr_t within = start - it->first;
    if (within >= it->second.size || length > it->second.size - within) {
        return nullptr;
    }
    *offset = within;
    return &it->second;
}

bool Process::OwnsUserMemory(const void* address, size_t length) const
{
    std::lock_guard guard(memoryLock_);
    size_t offset = 0;
    return BlockHolding(address, length, &offset) != nullptr;
}

std::unique_ptr<PageMapping> Process::MapUserMemoryAgain(const void* address, size_t length, size_t* offset) const
{
    std::lock_guard guard(memoryLock_);
    size_t within = 0;
    const UserBlock* block = BlockHolding(address, length, &within);
    if (block == nullptr) {
        return nullptr;
    }
    std::unique_ptr<PageMapping> view = block->pages->MapAgain();
    if (view != nullptr) {
        *offset = within;
    }
    return view;
}

size_t Process::HandleCount() const
{
    return handles_->Count();
}

std::shared_ptr<Process> CreateProcess(ProcessOptions options)
{
    return MakeProcess(NextClientId(), std::move(options));
}

const std::shared_ptr<Process>& SystemProcess()
{
    // Never destroyed: threads and handles of the system may outlive any static object. Windows
    // reports an empty image file name for it.
    static const std::shared_ptr<Process>& system = *new std::shared_ptr<Process>(
        MakeProcess(reinterpret_cast<HANDLE>(4), ProcessOptions{u"", u"S-1-5-18", KernelMode}));
    return system;
}

}  // namespace ntsim

namespace {

POBJECT_TYPE processObjectType = ntsim::ob::ProcessType().AsObjectType();
POBJECT_TYPE threadObjectType = ntsim::ob::ThreadType().AsObjectType();

NTSTATUS QueryImageFileName(ntsim::Process& process, PVOID information, ULONG length, PULONG returnLength)
{
    const std::u16string& name = process.ImageFileName();
    const size_t nameBytes = name.size() * sizeof(WCHAR);
    const ULONG needed = static_cast<ULONG>(sizeof(UNICODE_STRING) + nameBytes + sizeof(WCHAR));
    if (returnLength != nullptr) {
        *returnLength = needed;
    }
    if (length < needed || information == nullptr) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    auto* string = static_cast<PUNICODE_STRING>(information);
    auto* text = reinterpret_cast<PWCH>(string + 1);
    std::memcpy(text, name.data(), nameBytes);
    text[name.size()] = 0;
    string->Length = static_cast<USHORT>(nameBytes);
    string->MaximumLength = static_cast<USHORT>(nameBytes + sizeof(WCHAR));
    string->Buffer = text;
    return STATUS_SUCCESS;
}

NTSTATUS QueryBasicInformation(ntsim::Process& process, PVOID information, ULONG length, PULONG returnLength)
{
    if (length != sizeof(PROCESS_BASIC_INFORMATION)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    PROCESS_BASIC_INFORMATION basic{};
    basic.ExitStatus = STATUS_PENDING;  // still running
    basic.AffinityMask = 1;
    basic.BasePriority = 8;
    basic.UniqueProcessId = reinterpret_cast<ULONG_PTR>(process.Id());
    std::memcpy(information, &basic, sizeof(basic));
    if (returnLength != nullptr) {
        *returnLength = sizeof(basic);
    }
    return STATUS_SUCCESS;
}

}  // namespace

extern "C" {

POBJECT_TYPE* PsProcessType = &processObjectType;
POBJECT_TYPE* PsThreadType = &threadObjectType;

NTSTATUS NTAPI ZwQueryInformationProcess(HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass,
                                         PVOID ProcessInformation, ULONG ProcessInformationLength,
                                         PULONG ReturnLength)
{
    if (auto failure = ntsim::faults::Check("ZwQueryInformationProcess")) {
        return *failure;
    }
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "ZwQueryInformationProcess");
    if (ProcessInformationClass != ProcessImageFileName && ProcessInformationClass != ProcessBasicInformation) {
        return ntsim::verifier::NotImplemented("ZwQueryInformationProcess(class " +
                                               std::to_string(ProcessInformationClass) + ")");
    }
    void* object = nullptr;
    NTSTATUS status = ntsim::ob::ReferenceObjectByHandle(ProcessHandle, 0x0400 /* PROCESS_QUERY_INFORMATION */,
                                                         &ntsim::ob::ProcessType(), KernelMode, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto& process = *static_cast<ntsim::Process*>(static_cast<_EPROCESS*>(object));
    if (ProcessInformationClass == ProcessImageFileName) {
        status = QueryImageFileName(process, ProcessInformation, ProcessInformationLength, ReturnLength);
    } else {
        status = QueryBasicInformation(process, ProcessInformation, ProcessInformationLength, ReturnLength);
    }
    ObfDereferenceObject(object);
    return status;
}

}  // extern "C"
