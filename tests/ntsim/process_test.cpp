// Processes and threads: identities of simulated threads, previous mode, image file names,
// references on processes.
#include <gtest/gtest.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>
#include <wdm.h>

#include <set>
#include <vector>

namespace {

constexpr char16_t kExplorer[] = u"\\Device\\HarddiskVolume2\\Windows\\explorer.exe";

TEST(SimulatedThreads, UnattachedThreadIsASystemThreadInKernelMode)
{
    EXPECT_EQ(PsGetCurrentProcessId(), reinterpret_cast<HANDLE>(4));
    EXPECT_EQ(IoGetCurrentProcess(), ntsim::SystemProcess()->AsEprocess());
    EXPECT_EQ(ExGetPreviousMode(), KernelMode);
    EXPECT_TRUE(PsIsSystemThread(PsGetCurrentThread()));
}

TEST(SimulatedThreads, AttachGivesTheProcessIdentityAndNestsInnermostFirst)
{
    auto first = ntsim::CreateProcess();
    auto second = ntsim::CreateProcess();
    EXPECT_NE(first->Id(), second->Id());
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(first->Id()) % 4, 0u);
    {
        ntsim::AttachThread outer(first);
        EXPECT_EQ(PsGetCurrentProcessId(), first->Id());
        EXPECT_EQ(PsGetCurrentProcess(), first->AsEprocess());
        EXPECT_EQ(ExGetPreviousMode(), UserMode);
        EXPECT_EQ(PsGetThreadProcess(PsGetCurrentThread()), first->AsEprocess());
        const HANDLE outerThread = PsGetCurrentThreadId();
        {
            ntsim::AttachThread inner(second, {.previousMode = KernelMode});
            EXPECT_EQ(PsGetCurrentProcessId(), second->Id());
            EXPECT_EQ(ExGetPreviousMode(), KernelMode);
            EXPECT_NE(PsGetCurrentThreadId(), outerThread);
        }
        EXPECT_EQ(PsGetCurrentProcessId(), first->Id());
        EXPECT_EQ(PsGetCurrentThreadId(), outerThread);
        {
            ntsim::ScopedPreviousMode kernel(KernelMode);
            EXPECT_EQ(ExGetPreviousMode(), KernelMode);
        }
        EXPECT_EQ(ExGetPreviousMode(), UserMode);
    }
    EXPECT_EQ(PsGetCurrentProcessId(), reinterpret_cast<HANDLE>(4));
}

TEST(SimulatedThreads, NewThreadsRunAsThreadsOfTheirProcess)
{
    auto process = ntsim::CreateProcess();
    std::vector<HANDLE> processIds(2), threadIds(2);
    {
        ntsim::SimulatedThread a(process, [&] {
            processIds[0] = PsGetCurrentProcessId();
            threadIds[0] = PsGetCurrentThreadId();
        });
        ntsim::SimulatedThread b(process, [&] {
            processIds[1] = PsGetCurrentProcessId();
            threadIds[1] = PsGetCurrentThreadId();
        });
    }
    EXPECT_EQ(processIds[0], process->Id());
    EXPECT_EQ(processIds[1], process->Id());
    EXPECT_NE(threadIds[0], threadIds[1]);
    EXPECT_EQ(PsGetCurrentProcessId(), reinterpret_cast<HANDLE>(4)) << "the starting thread is unchanged";
}

// The image name query as a driver makes it: size first, then the name.
TEST(ProcessImageFileName, LengthProtocol)
{
    auto process = ntsim::CreateProcess({.imageFileName = kExplorer});
    ntsim::AttachThread attach(process);
    const ULONG nameBytes = sizeof(kExplorer) - sizeof(WCHAR);
    const ULONG needed = sizeof(UNICODE_STRING) + nameBytes + sizeof(WCHAR);

    ULONG returned = 0;
    EXPECT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, nullptr, 0, &returned),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(returned, needed);

    std::vector<UCHAR> buffer(needed + 8, 0xCC);
    returned = 0;
    EXPECT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, buffer.data(), needed - 1, &returned),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(returned, needed);

    ASSERT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, buffer.data(), needed, &returned),
              STATUS_SUCCESS);
    auto* name = reinterpret_cast<PUNICODE_STRING>(buffer.data());
    EXPECT_EQ(name->Length, nameBytes);
    EXPECT_EQ(name->Buffer, reinterpret_cast<PWCH>(name + 1)) << "the text follows the header";
    EXPECT_EQ(ntsim::ToUtf8(*name), "\\Device\\HarddiskVolume2\\Windows\\explorer.exe");
    EXPECT_EQ(name->Buffer[nameBytes / sizeof(WCHAR)], 0);
    EXPECT_EQ(buffer[needed], 0xCC) << "nothing is written past the size reported";
}

TEST(ProcessImageFileName, OtherProcessByHandleAndFailures)
{
    auto caller = ntsim::CreateProcess();
    auto target = ntsim::CreateProcess({.imageFileName = u"\\Device\\HarddiskVolume2\\Apps\\tool.exe"});
    ntsim::AttachThread attach(caller);

    HANDLE handle = nullptr;
    ASSERT_EQ(ObOpenObjectByPointer(target->AsEprocess(), OBJ_KERNEL_HANDLE, nullptr, 0x0400, *PsProcessType,
                                    KernelMode, &handle),
              STATUS_SUCCESS);
    std::vector<UCHAR> buffer(512);
    ULONG returned = 0;
    ASSERT_EQ(ZwQueryInformationProcess(handle, ProcessImageFileName, buffer.data(), 512, &returned), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::ToUtf8(*reinterpret_cast<PUNICODE_STRING>(buffer.data())), "\\Device\\HarddiskVolume2\\Apps\\tool.exe");
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);

    ntsim::verifier::BugCheckCapture capture;
    EXPECT_EQ(ZwQueryInformationProcess(handle, ProcessImageFileName, buffer.data(), 512, &returned),
              STATUS_INVALID_HANDLE);

    ntsim::faults::FailRoutine("ZwQueryInformationProcess", STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, buffer.data(), 512, &returned),
              STATUS_ACCESS_DENIED);

    EXPECT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessTimes, buffer.data(), 512, &returned),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(capture.Consume(ntsim::verifier::rules::kNotImplemented));
}

TEST(ProcessImageFileName, BasicInformationCarriesTheProcessId)
{
    auto process = ntsim::CreateProcess();
    ntsim::AttachThread attach(process);
    PROCESS_BASIC_INFORMATION basic{};
    ULONG returned = 0;
    ASSERT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessBasicInformation, &basic, sizeof(basic), &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(basic.UniqueProcessId, reinterpret_cast<ULONG_PTR>(process->Id()));
    EXPECT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessBasicInformation, &basic, sizeof(basic) - 1, &returned),
              STATUS_INFO_LENGTH_MISMATCH);
}

TEST(ProcessReferences, AReferenceKeepsTheProcessAfterItsLastOwner)
{
    auto process = ntsim::CreateProcess();
    PEPROCESS eprocess = process->AsEprocess();
    std::weak_ptr<ntsim::Process> watch = process;
    EXPECT_EQ(ObReferenceObject(eprocess), 1);
    process.reset();
    ASSERT_FALSE(watch.expired());
    EXPECT_EQ(PsGetProcessId(eprocess), watch.lock()->Id());
    EXPECT_EQ(ObDereferenceObject(eprocess), 0);
    EXPECT_TRUE(watch.expired());
}

}  // namespace
