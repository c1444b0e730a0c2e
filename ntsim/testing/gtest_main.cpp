// Entry point of every test program. The platform's verifier is on for every test: a bugcheck
// outside a capture scope aborts the program with its report and the name of the running test.
// Around each test this main also
//   - starts the virtual clock at its start date and disarms the fault injector;
//   - fails the test when a bugcheck it captured was never consumed, when it left the main thread
//     raised, inside a critical region or holding a lock, or left a thread waiting on the clock.
#include <gtest/gtest.h>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/verifier.hpp>

#include <string>

namespace {

class KernelStateChecks : public ::testing::EmptyTestEventListener {
public:
    void OnTestStart(const ::testing::TestInfo& test) override
    {
        ntsim::verifier::SetRunContext(std::string(test.test_suite_name()) + "." + test.name());
        ntsim::faults::Reset();
        if (!ntsim::clock::Reset()) {
            ADD_FAILURE() << "the virtual clock could not be reset: " << ntsim::clock::WaiterCount()
                          << " thread(s) still wait on it from an earlier test";
        }
    }

    // Runs before the result printer's OnTestEnd, so failures added here count for this test.
    void OnTestEnd(const ::testing::TestInfo&) override
    {
        for (const ntsim::verifier::BugCheckRecord& record : ntsim::verifier::TakeUnconsumed()) {
            ADD_FAILURE() << "bugcheck " << record.rule << " was captured but never consumed by the test:\n"
                          << record.detail;
        }
        std::string leftover = ntsim::verifier::ResetCurrentThread();
        if (!leftover.empty()) {
            ADD_FAILURE() << "the test left the main thread in kernel state: " << leftover;
        }
        size_t waiters = ntsim::clock::WaiterCount();
        if (waiters != 0) {
            ADD_FAILURE() << "the test left " << waiters << " thread(s) waiting on the virtual clock";
        }
        ntsim::faults::Reset();
        ntsim::verifier::SetRunContext({});
    }
};

}  // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new KernelStateChecks);  // owned by gtest
    return RUN_ALL_TESTS();
}
