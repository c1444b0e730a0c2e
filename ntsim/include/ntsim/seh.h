// Structured exception handling and user-buffer probes.
//
// Drivers write __try / __except / GetExceptionCode / __leave, ExRaiseStatus and
// ProbeForRead / ProbeForWrite as on Windows. ntsim carries an NT exception as a C++ exception
// of type ntsim::SehException:
//
//   __try { body } __except (filter) { handler }
//
// becomes a try block whose catch clause evaluates the filter expression while the exception is
// in flight (GetExceptionCode() there reads the exception's code). A positive filter result
// (EXCEPTION_EXECUTE_HANDLER) ends the exception and runs the handler after the catch clause,
// outside of it, so that break, continue and return in the handler behave as in the source and
// a raise inside the handler goes to the enclosing __try. Zero (EXCEPTION_CONTINUE_SEARCH) passes
// the exception on to the enclosing __try. A negative result (EXCEPTION_CONTINUE_EXECUTION)
// cannot resume a C++ exception: the verifier reports it and the search goes on.
//
// __try is the plain C++ keyword, exactly as the C++ library defines it for its own use, so that
// the library's headers and these macros can be included in any order. __leave ends the
// innermost __try body and continues after its handler. __finally is not provided: a C++
// cleanup block cannot run on every way out of a body (return, goto) as Windows runs it; write a
// single cleanup label instead.
//
// Only exceptions that NT code raises are handled here: an access to unmapped memory in a body
// is a real crash, not STATUS_ACCESS_VIOLATION. Memory that a driver must guard is probed first.
#pragma once

#include <exception>

#include "ntdef.h"
#include "ntstatus.h"

namespace ntsim {

// An NT exception in flight.
class SehException : public std::exception {
public:
    explicit SehException(NTSTATUS code, const char* raisedBy = nullptr) noexcept;
    NTSTATUS Code() const noexcept { return code_; }
    const char* what() const noexcept override;

private:
    NTSTATUS code_;
    char text_[96];
};

// Thrown by __leave; caught by the innermost __try.
struct SehLeave {};

// Evaluates a filter result for the exception being handled. TRUE: the handler will run (the
// code is kept for the handler's GetExceptionCode). FALSE: the caller rethrows.
bool SehAcceptException(const SehException& exception, LONG filterResult) noexcept;

// The handler's view of the exception that its __except accepted, taken as the handler starts.
class SehHandlerEntry {
public:
    SehHandlerEntry() noexcept;
    bool Entered() const noexcept { return entered_; }
    NTSTATUS Code() const noexcept { return code_; }

private:
    bool entered_;
    NTSTATUS code_;
};

}  // namespace ntsim

#ifndef __try
#define __try try
#endif

#define __except(filter)                                                          \
    catch (const ::ntsim::SehException& ntsimSehCode_) {                          \
        if (!::ntsim::SehAcceptException(ntsimSehCode_, (LONG)(filter))) throw;   \
    }                                                                             \
    catch (const ::ntsim::SehLeave&) {                                            \
    }                                                                             \
    if (const ::ntsim::SehHandlerEntry ntsimSehCode_{}; !ntsimSehCode_.Entered()) \
    {                                                                             \
    }                                                                             \
    else

#define __leave throw ::ntsim::SehLeave()

// The code of the exception, in a filter expression or in an __except handler.
#define GetExceptionCode() (ntsimSehCode_.Code())
#define _exception_code() GetExceptionCode()

extern "C" {

// ---- raising ----
[[noreturn]] NTKERNELAPI VOID ExRaiseStatus(NTSTATUS Status);
[[noreturn]] NTKERNELAPI VOID ExRaiseAccessViolation(VOID);
[[noreturn]] NTKERNELAPI VOID ExRaiseDatatypeMisalignment(VOID);

// ---- probes of user buffers ----
// Raise STATUS_DATATYPE_MISALIGNMENT when Address is not a multiple of Alignment (1, 2, 4, 8 or
// 16), and STATUS_ACCESS_VIOLATION unless [Address, Address + Length) lies inside one block of
// user memory that the calling thread's process owns (ntsim::Process::AllocateUserMemory).
// Length 0 probes nothing. Kernel memory, another process's memory and freed memory all fail.
// Any IRQL at or below APC_LEVEL.
NTKERNELAPI VOID ProbeForRead(const volatile VOID* Address, SIZE_T Length, ULONG Alignment);
NTKERNELAPI VOID ProbeForWrite(volatile VOID* Address, SIZE_T Length, ULONG Alignment);

}  // extern "C"
