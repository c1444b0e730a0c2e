// Dispatcher events and waits. One dispatcher mutex guards the signal state of every event, as the
// kernel's dispatcher lock does; waiters sleep on one condition variable and re-test their object
// when any event is signalled or the clock passes their deadline.
#include <ntsim/ke.h>
#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/verifier.hpp>

#include "thread_state.hpp"

#include <condition_variable>
#include <mutex>
#include <string>

using namespace ntsim;

namespace {

struct Dispatcher {
    std::mutex mutex;
    std::condition_variable_any signalled;
};

Dispatcher& TheDispatcher()
{
    static Dispatcher& dispatcher = *new Dispatcher;
    return dispatcher;
}

// Checks the IRQL of a wait. A wait that can block needs IRQL <= APC_LEVEL; one that only tests
// the state (zero timeout) is allowed up to DISPATCH_LEVEL. Returns false when the wait must not
// block (reported), so that the caller only tests the state.
bool CheckWaitIrql(const char* routine, bool mayBlock)
{
    KIRQL irql = kernel::CurrentThread().irql;
    if (mayBlock && irql > APC_LEVEL) {
        verifier::BugCheck(verifier::rules::kWaitAtDispatch,
                           std::string(routine) + " waits at IRQL " + std::to_string(irql));
        return false;
    }
    if (!mayBlock && irql > DISPATCH_LEVEL) {
        verifier::AssertIrqlAtMost(DISPATCH_LEVEL, routine);
    }
    return true;
}

}  // namespace

extern "C" VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    Event->Header.Type = Type == NotificationEvent ? EventNotificationObject : EventSynchronizationObject;
    Event->Header.Signalling = 0;
    Event->Header.Size = static_cast<UCHAR>(sizeof(KEVENT) / sizeof(LONG));
    Event->Header.Reserved1 = 0;
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

extern "C" LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN)
{
    Dispatcher& dispatcher = TheDispatcher();
    LONG previous;
    {
        std::lock_guard guard(dispatcher.mutex);
        previous = Event->Header.SignalState;
        Event->Header.SignalState = 1;
    }
    dispatcher.signalled.notify_all();
    return previous;
}

extern "C" LONG NTAPI KeResetEvent(PRKEVENT Event)
{
    std::lock_guard guard(TheDispatcher().mutex);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

extern "C" VOID NTAPI KeClearEvent(PRKEVENT Event)
{
    KeResetEvent(Event);
}

extern "C" LONG NTAPI KeReadStateEvent(PRKEVENT Event)
{
    std::lock_guard guard(TheDispatcher().mutex);
    return Event->Header.SignalState;
}

extern "C" NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                                                PLARGE_INTEGER Timeout)
{
    auto* header = static_cast<DISPATCHER_HEADER*>(Object);
    if (header->Type != EventNotificationObject && header->Type != EventSynchronizationObject) {
        return verifier::NotImplemented("KeWaitForSingleObject on a dispatcher object of type " +
                                        std::to_string(header->Type));
    }
    bool mayBlock = Timeout == nullptr || Timeout->QuadPart != 0;
    LONGLONG deadline = clock::DeadlineFromTimeout(Timeout);
    if (!CheckWaitIrql("KeWaitForSingleObject", mayBlock)) {
        deadline = clock::Now();
    }
    bool autoReset = header->Type == EventSynchronizationObject;
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    bool signalled = clock::WaitUntil(lock, dispatcher.signalled, deadline, [header, autoReset] {
        if (header->SignalState <= 0) {
            return false;
        }
        if (autoReset) {
            header->SignalState = 0;
        }
        return true;
    });
    return signalled ? STATUS_SUCCESS : STATUS_TIMEOUT;
}

extern "C" NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval)
{
    if (Interval == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    LONGLONG deadline = clock::DeadlineFromTimeout(Interval);
    if (!CheckWaitIrql("KeDelayExecutionThread", Interval->QuadPart != 0)) {
        return STATUS_SUCCESS;
    }
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    clock::WaitUntil(lock, dispatcher.signalled, deadline, [] { return false; });
    return STATUS_SUCCESS;
}
