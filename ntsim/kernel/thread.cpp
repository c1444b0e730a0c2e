// Simulated threads: the identity an OS thread carries (process, thread id, previous mode,
// impersonation), attaching, and the Ps routines that read it.
#include <ntsim/ps.h>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>

#include <atomic>
#include <utility>

#include "ob_internal.hpp"

namespace ntsim {

HANDLE NextClientId();  // process.cpp

namespace {

struct Identity {
    std::shared_ptr<Thread> thread;
    KPROCESSOR_MODE previousMode = KernelMode;
    std::shared_ptr<Token> impersonation;
};

std::shared_ptr<Thread> MakeThread(std::shared_ptr<Process> process)
{
    auto thread = std::make_shared<Thread>(NextClientId(), std::move(process));
    ob::RegisterSharedObject(thread->AsEthread(), ob::ThreadType(), thread);
    return thread;
}

// The identity of a thread that attached to nothing: a System thread in kernel mode, made at its
// first use.
Identity& DefaultIdentity()
{
    thread_local Identity identity;
    if (!identity.thread) {
        identity.thread = MakeThread(SystemProcess());
        identity.previousMode = KernelMode;
    }
    return identity;
}

thread_local Identity* tlsAttached = nullptr;

Identity& Current()
{
    return tlsAttached != nullptr ? *tlsAttached : DefaultIdentity();
}

}  // namespace

Thread::Thread(HANDLE id, std::shared_ptr<Process> process) : id_(id), process_(std::move(process)) {}

Thread::~Thread()
{
    ob::UnregisterSharedObject(AsEthread());
}

Process& CurrentProcess()
{
    return *Current().thread->OwningProcess();
}

Thread& CurrentThread()
{
    return *Current().thread;
}

KPROCESSOR_MODE CurrentPreviousMode()
{
    return Current().previousMode;
}

std::shared_ptr<Token> CurrentImpersonationToken()
{
    return Current().impersonation;
}

struct AttachThread::Saved {
    Identity identity;
    Identity* outer = nullptr;
};

AttachThread::AttachThread(std::shared_ptr<Process> process, ThreadOptions options)
    : saved_(std::make_unique<Saved>())
{
    const KPROCESSOR_MODE mode = options.previousMode.value_or(process->Mode());
    thread_ = MakeThread(std::move(process));
    saved_->identity.thread = thread_;
    saved_->identity.previousMode = mode;
    saved_->identity.impersonation = std::move(options.impersonation);
    saved_->outer = tlsAttached;
    tlsAttached = &saved_->identity;
}

AttachThread::~AttachThread()
{
    tlsAttached = saved_->outer;
}

SimulatedThread::SimulatedThread(std::shared_ptr<Process> process, std::function<void()> body,
                                 ThreadOptions options)
    : thread_([process = std::move(process), body = std::move(body), options = std::move(options)]() mutable {
          AttachThread attach(std::move(process), std::move(options));
          body();
      })
{
}

SimulatedThread::~SimulatedThread()
{
    Join();
}

void SimulatedThread::Join()
{
    if (thread_.joinable()) {
        thread_.join();
    }
}

ScopedPreviousMode::ScopedPreviousMode(KPROCESSOR_MODE mode) : saved_(Current().previousMode)
{
    Current().previousMode = mode;
}

ScopedPreviousMode::~ScopedPreviousMode()
{
    Current().previousMode = saved_;
}

ScopedImpersonation::ScopedImpersonation(std::shared_ptr<Token> token) : saved_(Current().impersonation)
{
    Current().impersonation = std::move(token);
}

ScopedImpersonation::~ScopedImpersonation()
{
    Current().impersonation = std::move(saved_);
}

}  // namespace ntsim

extern "C" {

PEPROCESS IoGetCurrentProcess(VOID)
{
    return ntsim::CurrentProcess().AsEprocess();
}

PEPROCESS PsGetCurrentProcess(VOID)
{
    return ntsim::CurrentProcess().AsEprocess();
}

PETHREAD PsGetCurrentThread(VOID)
{
    return ntsim::CurrentThread().AsEthread();
}

PKTHREAD KeGetCurrentThread(VOID)
{
    return reinterpret_cast<PKTHREAD>(ntsim::CurrentThread().AsEthread());
}

HANDLE PsGetCurrentProcessId(VOID)
{
    return ntsim::CurrentProcess().Id();
}

HANDLE PsGetCurrentThreadId(VOID)
{
    return ntsim::CurrentThread().Id();
}

HANDLE PsGetProcessId(PEPROCESS Process)
{
    return ntsim::ProcessFromEprocess(Process)->Id();
}

HANDLE PsGetThreadId(PETHREAD Thread)
{
    return static_cast<ntsim::Thread*>(Thread)->Id();
}

PEPROCESS PsGetThreadProcess(PETHREAD Thread)
{
    return static_cast<ntsim::Thread*>(Thread)->OwningProcess()->AsEprocess();
}

BOOLEAN PsIsSystemThread(PETHREAD Thread)
{
    return (BOOLEAN)(static_cast<ntsim::Thread*>(Thread)->OwningProcess()->Mode() == KernelMode);
}

KPROCESSOR_MODE ExGetPreviousMode(VOID)
{
    return ntsim::CurrentPreviousMode();
}

}  // extern "C"
