// Structured exception handling and user-buffer probes.
#include <gtest/gtest.h>

#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>
#include <wdm.h>

#include <vector>

namespace {

// The code a guarded probe raised, or STATUS_SUCCESS.
NTSTATUS ProbeStatus(bool write, const void* address, SIZE_T length, ULONG alignment)
{
    NTSTATUS status = STATUS_SUCCESS;
    __try {
        if (write) {
            ProbeForWrite(const_cast<void*>(address), length, alignment);
        } else {
            ProbeForRead(address, length, alignment);
        }
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        status = GetExceptionCode();
    }
    return status;
}

LONG FilterRecording(NTSTATUS code, std::vector<NTSTATUS>* seen, LONG verdict)
{
    seen->push_back(code);
    return verdict;
}

TEST(StructuredExceptions, HandlerSeesTheRaisedCodeAndTheRestOfTheBodyIsSkipped)
{
    bool after = false;
    NTSTATUS caught = STATUS_SUCCESS;
    std::vector<NTSTATUS> filtered;
    __try {
        ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
        after = true;
    } __except (FilterRecording(GetExceptionCode(), &filtered, EXCEPTION_EXECUTE_HANDLER)) {
        caught = GetExceptionCode();
    }
    EXPECT_FALSE(after);
    EXPECT_EQ(caught, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(filtered, std::vector<NTSTATUS>{STATUS_INSUFFICIENT_RESOURCES});

    bool handled = false;
    __try {
        after = true;
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        handled = true;
    }
    EXPECT_TRUE(after);
    EXPECT_FALSE(handled) << "no exception, no handler";
}

TEST(StructuredExceptions, ContinueSearchGoesToTheEnclosingTry)
{
    std::vector<NTSTATUS> innerSeen;
    bool innerHandled = false;
    NTSTATUS outer = STATUS_SUCCESS;
    __try {
        __try {
            ExRaiseAccessViolation();
        } __except (FilterRecording(GetExceptionCode(), &innerSeen, EXCEPTION_CONTINUE_SEARCH)) {
            innerHandled = true;
        }
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        outer = GetExceptionCode();
    }
    EXPECT_EQ(innerSeen, std::vector<NTSTATUS>{STATUS_ACCESS_VIOLATION});
    EXPECT_FALSE(innerHandled);
    EXPECT_EQ(outer, STATUS_ACCESS_VIOLATION);
}

TEST(StructuredExceptions, NestedHandlersKeepTheirOwnCodes)
{
    NTSTATUS innerCode = 0, outerBefore = 0, outerAfter = 0, fromHandler = 0;
    __try {
        ExRaiseStatus(STATUS_ACCESS_DENIED);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        outerBefore = GetExceptionCode();
        __try {
            ExRaiseDatatypeMisalignment();
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            innerCode = GetExceptionCode();
        }
        outerAfter = GetExceptionCode();
    }
    EXPECT_EQ(outerBefore, STATUS_ACCESS_DENIED);
    EXPECT_EQ(innerCode, STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(outerAfter, STATUS_ACCESS_DENIED) << "an inner exception does not change the outer handler's code";

    // A raise inside a handler belongs to the enclosing __try.
    __try {
        __try {
            ExRaiseStatus(STATUS_ACCESS_DENIED);
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            ExRaiseStatus(STATUS_NO_MEMORY);
        }
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        fromHandler = GetExceptionCode();
    }
    EXPECT_EQ(fromHandler, STATUS_NO_MEMORY);
}

TEST(StructuredExceptions, LeaveEndsTheBodyWithoutRunningTheHandler)
{
    int steps = 0;
    bool handled = false;
    __try {
        ++steps;
        if (steps == 1) {
            __leave;
        }
        ++steps;
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        handled = true;
    }
    EXPECT_EQ(steps, 1);
    EXPECT_FALSE(handled);
}

TEST(StructuredExceptions, BreakAndContinueInAHandlerReachTheEnclosingLoop)
{
    int handled = 0;
    int iterations = 0;
    for (int i = 0; i < 5; ++i) {
        ++iterations;
        __try {
            ExRaiseStatus(i == 3 ? STATUS_NO_MEMORY : STATUS_ACCESS_DENIED);
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            ++handled;
            if (GetExceptionCode() == STATUS_NO_MEMORY) {
                break;
            }
            continue;
        }
        ADD_FAILURE() << "continue in the handler must skip the rest of the loop body";
    }
    EXPECT_EQ(iterations, 4);
    EXPECT_EQ(handled, 4);
}

TEST(StructuredExceptions, ContinueExecutionIsReportedAndTheSearchGoesOn)
{
    ntsim::verifier::BugCheckCapture capture;
    NTSTATUS outer = STATUS_SUCCESS;
    __try {
        __try {
            ExRaiseStatus(STATUS_ACCESS_DENIED);
        } __except (EXCEPTION_CONTINUE_EXECUTION) {
            ADD_FAILURE() << "a filter that answers CONTINUE_EXECUTION does not enter its handler";
        }
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        outer = GetExceptionCode();
    }
    EXPECT_EQ(outer, STATUS_ACCESS_DENIED);
    EXPECT_TRUE(capture.Consume(ntsim::rules::kSehContinueExecution));
}

TEST(Probes, UserMemoryOfTheCallingProcessOnly)
{
    auto own = ntsim::CreateProcess();
    auto other = ntsim::CreateProcess();
    auto* mine = static_cast<UCHAR*>(own->AllocateUserMemory(64));
    auto* theirs = static_cast<UCHAR*>(other->AllocateUserMemory(64));
    UCHAR kernel[64] = {};
    ntsim::AttachThread attach(own);

    for (bool write : {false, true}) {
        SCOPED_TRACE(write ? "ProbeForWrite" : "ProbeForRead");
        EXPECT_EQ(ProbeStatus(write, mine, 64, 1), STATUS_SUCCESS);
        EXPECT_EQ(ProbeStatus(write, mine + 60, 4, 4), STATUS_SUCCESS);
        EXPECT_EQ(ProbeStatus(write, mine + 60, 5, 1), STATUS_ACCESS_VIOLATION) << "runs past the block";
        EXPECT_EQ(ProbeStatus(write, theirs, 8, 1), STATUS_ACCESS_VIOLATION) << "another process's memory";
        EXPECT_EQ(ProbeStatus(write, kernel, 8, 1), STATUS_ACCESS_VIOLATION) << "kernel memory";
        EXPECT_EQ(ProbeStatus(write, mine + 1, 4, 4), STATUS_DATATYPE_MISALIGNMENT);
        EXPECT_EQ(ProbeStatus(write, reinterpret_cast<void*>(0x13), 0, 4), STATUS_SUCCESS) << "length 0 probes nothing";
        EXPECT_EQ(ProbeStatus(write, reinterpret_cast<void*>(~uintptr_t{0} - 2), 8, 1), STATUS_ACCESS_VIOLATION)
            << "a range that wraps";
    }

    own->FreeUserMemory(mine);
    EXPECT_EQ(ProbeStatus(false, mine, 1, 1), STATUS_ACCESS_VIOLATION) << "freed memory";
}

TEST(Probes, SystemThreadsOwnNoUserMemoryAndAlignmentMustBeAPowerOfTwo)
{
    auto process = ntsim::CreateProcess();
    void* block = process->AllocateUserMemory(16);
    EXPECT_EQ(ProbeStatus(false, block, 16, 1), STATUS_ACCESS_VIOLATION) << "an unattached thread is a System thread";

    ntsim::AttachThread attach(process);
    ntsim::verifier::BugCheckCapture capture;
    EXPECT_EQ(ProbeStatus(false, block, 16, 3), STATUS_SUCCESS);
    EXPECT_TRUE(capture.Consume(ntsim::rules::kProbeAlignmentInvalid));
}

}  // namespace
