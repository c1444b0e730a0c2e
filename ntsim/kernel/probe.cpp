// ProbeForRead / ProbeForWrite: a user buffer must lie in user memory of the calling process.
#include <ntsim/seh.h>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>

namespace {

void Probe(const volatile void* address, SIZE_T length, ULONG alignment, const char* routine)
{
    ntsim::verifier::AssertIrqlAtMost(APC_LEVEL, routine);
    if (length == 0) {
        return;
    }
    if (alignment != 1 && alignment != 2 && alignment != 4 && alignment != 8 && alignment != 16) {
        char detail[80];
        std::snprintf(detail, sizeof(detail), "%s with alignment %u", routine, static_cast<unsigned>(alignment));
        ntsim::verifier::BugCheck(ntsim::rules::kProbeAlignmentInvalid, detail);
        alignment = 1;
    }
    const auto start = reinterpret_cast<uintptr_t>(address);
    if ((start & (alignment - 1)) != 0) {
        throw ntsim::SehException(STATUS_DATATYPE_MISALIGNMENT, routine);
    }
    if (start + length < start ||
        !ntsim::CurrentProcess().OwnsUserMemory(const_cast<const void*>(address), length)) {
        throw ntsim::SehException(STATUS_ACCESS_VIOLATION, routine);
    }
}

}  // namespace

extern "C" {

VOID ProbeForRead(const volatile VOID* Address, SIZE_T Length, ULONG Alignment)
{
    Probe(Address, Length, Alignment, "ProbeForRead");
}

VOID ProbeForWrite(volatile VOID* Address, SIZE_T Length, ULONG Alignment)
{
    Probe(Address, Length, Alignment, "ProbeForWrite");
}

}  // extern "C"
