// Structured exception handling over C++ exceptions: the exception type, the filter's verdict and
// the hand-over of the exception's code to the handler.
#include <ntsim/seh.h>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>

namespace ntsim {
namespace {

// The exception that an __except filter accepted, between its catch clause and its handler.
struct Accepted {
    bool pending = false;
    NTSTATUS code = 0;
};
thread_local Accepted tlsAccepted;

}  // namespace

SehException::SehException(NTSTATUS code, const char* raisedBy) noexcept : code_(code)
{
    std::snprintf(text_, sizeof(text_), "NT exception 0x%08X raised by %s and not handled",
                  static_cast<unsigned>(code), raisedBy != nullptr ? raisedBy : "the kernel");
}

const char* SehException::what() const noexcept
{
    return text_;
}

bool SehAcceptException(const SehException& exception, LONG filterResult) noexcept
{
    if (filterResult > 0) {
        tlsAccepted.pending = true;
        tlsAccepted.code = exception.Code();
        return true;
    }
    if (filterResult < 0) {
        char detail[120];
        std::snprintf(detail, sizeof(detail),
                      "an __except filter answered EXCEPTION_CONTINUE_EXECUTION for 0x%08X; the search goes on",
                      static_cast<unsigned>(exception.Code()));
        verifier::BugCheck(rules::kSehContinueExecution, detail);
    }
    return false;
}

SehHandlerEntry::SehHandlerEntry() noexcept : entered_(tlsAccepted.pending), code_(tlsAccepted.code)
{
    tlsAccepted = Accepted{};
}

}  // namespace ntsim

extern "C" {

VOID ExRaiseStatus(NTSTATUS Status)
{
    throw ntsim::SehException(Status, "ExRaiseStatus");
}

VOID ExRaiseAccessViolation(VOID)
{
    throw ntsim::SehException(STATUS_ACCESS_VIOLATION, "ExRaiseAccessViolation");
}

VOID ExRaiseDatatypeMisalignment(VOID)
{
    throw ntsim::SehException(STATUS_DATATYPE_MISALIGNMENT, "ExRaiseDatatypeMisalignment");
}

}  // extern "C"
