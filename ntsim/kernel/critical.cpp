// Critical regions: the depth of KeEnterCriticalRegion per thread, which is what an ERESOURCE
// acquisition checks.
#include <ntsim/ke.h>
#include <ntsim/sim/verifier.hpp>

#include "thread_state.hpp"

using namespace ntsim;

extern "C" VOID NTAPI KeEnterCriticalRegion(VOID)
{
    kernel::CurrentThread().criticalRegion += 1;
}

extern "C" VOID NTAPI KeLeaveCriticalRegion(VOID)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    if (thread.criticalRegion == 0) {
        verifier::BugCheck(verifier::rules::kCriticalRegionUnderflow,
                           "KeLeaveCriticalRegion without a matching KeEnterCriticalRegion");
        return;
    }
    thread.criticalRegion -= 1;
}

extern "C" BOOLEAN NTAPI KeAreApcsDisabled(VOID)
{
    const kernel::ThreadState& thread = kernel::CurrentThread();
    return (thread.criticalRegion > 0 || thread.irql >= APC_LEVEL) ? TRUE : FALSE;
}
