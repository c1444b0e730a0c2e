// RtlGetVersion and MmGetSystemRoutineAddress: what a driver learns about the system at load.
#include <gtest/gtest.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/system.hpp>
#include <ntsim/sim/text.hpp>
#include <wdm.h>

#include <cstring>

namespace {

TEST(RtlGetVersion, ReportsTheSetVersionInBothRecordSizes)
{
    RTL_OSVERSIONINFOW basic{};
    basic.dwOSVersionInfoSize = sizeof(basic);
    ASSERT_EQ(RtlGetVersion(&basic), STATUS_SUCCESS);
    EXPECT_EQ(basic.dwMajorVersion, 10u);
    EXPECT_EQ(basic.dwMinorVersion, 0u);
    EXPECT_EQ(basic.dwBuildNumber, 19045u);
    EXPECT_EQ(basic.dwPlatformId, static_cast<ULONG>(VER_PLATFORM_WIN32_NT));

    {
        ntsim::ScopedReportedVersion windows7(6, 1, 7601);
        RTL_OSVERSIONINFOEXW extended;
        std::memset(&extended, 0xCC, sizeof(extended));
        extended.dwOSVersionInfoSize = sizeof(extended);
        ASSERT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&extended)), STATUS_SUCCESS);
        EXPECT_EQ(extended.dwMajorVersion, 6u);
        EXPECT_EQ(extended.dwMinorVersion, 1u);
        EXPECT_EQ(extended.dwBuildNumber, 7601u);
        EXPECT_EQ(extended.wProductType, VER_NT_WORKSTATION) << "the extended fields are filled too";
        EXPECT_EQ(extended.wServicePackMajor, 0);
        EXPECT_EQ(extended.szCSDVersion[0], 0);
    }
    ASSERT_EQ(RtlGetVersion(&basic), STATUS_SUCCESS);
    EXPECT_EQ(basic.dwMajorVersion, 10u) << "the scope restores the version";
}

TEST(RtlGetVersion, WrongSizeAndInjectedFailureLeaveTheRecord)
{
    RTL_OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof(info) - 4;
    EXPECT_EQ(RtlGetVersion(&info), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(info.dwMajorVersion, 0u);

    info.dwOSVersionInfoSize = sizeof(info);
    ntsim::faults::FailRoutine("RtlGetVersion", STATUS_UNSUCCESSFUL);
    EXPECT_EQ(RtlGetVersion(&info), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(info.dwMajorVersion, 0u);
}

PVOID Lookup(const char* name)
{
    ntsim::UnicodeStringHolder text(name);
    return MmGetSystemRoutineAddress(text.get());
}

int SampleRoutine() { return 42; }

TEST(SystemRoutines, RegisteredHiddenAndRevealed)
{
    EXPECT_EQ(Lookup("RtlGetVersion"), reinterpret_cast<PVOID>(&RtlGetVersion));
    EXPECT_EQ(Lookup("rtlgetversion"), nullptr) << "export names are case-sensitive";
    EXPECT_EQ(Lookup("NtsimNoSuchRoutine"), nullptr);

    ntsim::RegisterSystemRoutine(u"NtsimSampleRoutine", reinterpret_cast<void*>(&SampleRoutine));
    EXPECT_EQ(Lookup("NtsimSampleRoutine"), reinterpret_cast<PVOID>(&SampleRoutine));
    {
        ntsim::ScopedHiddenSystemRoutine hidden(u"NtsimSampleRoutine");
        EXPECT_EQ(Lookup("NtsimSampleRoutine"), nullptr);
        EXPECT_NE(Lookup("RtlGetVersion"), nullptr) << "hiding one routine hides only that one";
    }
    EXPECT_EQ(Lookup("NtsimSampleRoutine"), reinterpret_cast<PVOID>(&SampleRoutine));
    EXPECT_EQ(MmGetSystemRoutineAddress(nullptr), nullptr);
}

}  // namespace
