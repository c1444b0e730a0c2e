// The table of exported system routines that MmGetSystemRoutineAddress searches.
#include <ntsim/mm.h>
#include <ntsim/ob.h>
#include <ntsim/ps.h>
#include <ntsim/se.h>
#include <ntsim/seh.h>
#include <ntsim/sim/system.hpp>
#include <ntsim/sim/verifier.hpp>
#include <ntsim/ver.h>

#include <map>
#include <mutex>
#include <set>
#include <string>

namespace ntsim {
namespace {

struct ExportTable {
    std::mutex lock;
    std::map<std::u16string, void*, std::less<>> routines;
    std::set<std::u16string, std::less<>> hidden;
};

#define NTSIM_EXPORT(routine) {u## #routine, reinterpret_cast<void*>(&routine)}

// Starts with the routines of this component; other components add theirs.
ExportTable& Exports()
{
    static ExportTable& table = *new ExportTable{
        {},
        {
            NTSIM_EXPORT(ExGetPreviousMode),
            NTSIM_EXPORT(ExRaiseStatus),
            NTSIM_EXPORT(IoGetCurrentProcess),
            NTSIM_EXPORT(MmGetSystemRoutineAddress),
            NTSIM_EXPORT(ObfDereferenceObject),
            NTSIM_EXPORT(ObfReferenceObject),
            NTSIM_EXPORT(ObOpenObjectByPointer),
            NTSIM_EXPORT(ObReferenceObjectByHandle),
            NTSIM_EXPORT(ProbeForRead),
            NTSIM_EXPORT(ProbeForWrite),
            NTSIM_EXPORT(PsGetCurrentProcessId),
            NTSIM_EXPORT(PsGetCurrentThreadId),
            NTSIM_EXPORT(PsGetProcessId),
            NTSIM_EXPORT(RtlConvertSidToUnicodeString),
            NTSIM_EXPORT(RtlEqualSid),
            NTSIM_EXPORT(RtlGetVersion),
            NTSIM_EXPORT(RtlLengthSid),
            NTSIM_EXPORT(RtlValidSid),
            NTSIM_EXPORT(SeCaptureSubjectContext),
            NTSIM_EXPORT(SeQueryInformationToken),
            NTSIM_EXPORT(SeReleaseSubjectContext),
            NTSIM_EXPORT(ZwClose),
            NTSIM_EXPORT(ZwOpenSymbolicLinkObject),
            NTSIM_EXPORT(ZwQueryInformationProcess),
            NTSIM_EXPORT(ZwQuerySymbolicLinkObject),
        },
        {}};
    return table;
}

#undef NTSIM_EXPORT

}  // namespace

void RegisterSystemRoutine(std::u16string_view name, void* address)
{
    std::lock_guard guard(Exports().lock);
    Exports().routines.insert_or_assign(std::u16string(name), address);
}

void HideSystemRoutine(std::u16string_view name)
{
    std::lock_guard guard(Exports().lock);
    Exports().hidden.emplace(name);
}

void RevealSystemRoutine(std::u16string_view name)
{
    std::lock_guard guard(Exports().lock);
    if (auto it = Exports().hidden.find(name); it != Exports().hidden.end()) {
        Exports().hidden.erase(it);
    }
}

void RevealAllSystemRoutines()
{
    std::lock_guard guard(Exports().lock);
    Exports().hidden.clear();
}

ScopedHiddenSystemRoutine::ScopedHiddenSystemRoutine(std::u16string_view name) : name_(name)
{
    HideSystemRoutine(name_);
}

ScopedHiddenSystemRoutine::~ScopedHiddenSystemRoutine()
{
    RevealSystemRoutine(name_);
}

}  // namespace ntsim

extern "C" {

PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName)
{
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "MmGetSystemRoutineAddress");
    if (SystemRoutineName == nullptr || SystemRoutineName->Buffer == nullptr) {
        return nullptr;
    }
    const std::u16string_view name(reinterpret_cast<const char16_t*>(SystemRoutineName->Buffer),
                                   SystemRoutineName->Length / sizeof(WCHAR));
    auto& exports = ntsim::Exports();
    std::lock_guard guard(exports.lock);
    if (exports.hidden.find(name) != exports.hidden.end()) {
        return nullptr;
    }
    auto it = exports.routines.find(name);
    return it == exports.routines.end() ? nullptr : it->second;
}

}  // extern "C"
