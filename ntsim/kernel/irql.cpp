// The IRQL of the calling thread. Raising it changes nothing in scheduling on ntsim; it changes
// what the verifier allows the thread to do.
#include <ntsim/ke.h>
#include <ntsim/sim/verifier.hpp>

#include "thread_state.hpp"

#include <string>

using namespace ntsim;

extern "C" KIRQL NTAPI KeGetCurrentIrql(VOID)
{
    return kernel::CurrentThread().irql;
}

extern "C" KIRQL NTAPI KfRaiseIrql(KIRQL NewIrql)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    KIRQL old = thread.irql;
    if (NewIrql < old) {
        verifier::BugCheck(verifier::rules::kIrqlNotGreaterOrEqual,
                           "KeRaiseIrql to " + std::to_string(NewIrql) + " from IRQL " + std::to_string(old));
        return old;
    }
    if (NewIrql > HIGH_LEVEL) {
        verifier::BugCheck(verifier::rules::kIrqlNotGreaterOrEqual,
                           "KeRaiseIrql to " + std::to_string(NewIrql) + ", above HIGH_LEVEL");
        return old;
    }
    thread.irql = NewIrql;
    return old;
}

extern "C" KIRQL NTAPI KeRaiseIrqlToDpcLevel(VOID)
{
    return KfRaiseIrql(DISPATCH_LEVEL);
}

extern "C" VOID NTAPI KeLowerIrql(KIRQL NewIrql)
{
    kernel::ThreadState& thread = kernel::CurrentThread();
    if (NewIrql > thread.irql) {
        verifier::BugCheck(verifier::rules::kIrqlNotLessOrEqual,
                           "KeLowerIrql to " + std::to_string(NewIrql) + " from IRQL " + std::to_string(thread.irql));
        return;
    }
    thread.irql = NewIrql;
}

extern "C" VOID NTAPI NtsimCheckPagedCode(PCSTR Function)
{
    KIRQL irql = kernel::CurrentThread().irql;
    if (irql > APC_LEVEL) {
        verifier::BugCheck(verifier::rules::kPagedCode,
                           std::string(Function != nullptr ? Function : "?") + " is pageable code, run at IRQL " +
                               std::to_string(irql));
    }
}
