// RtlGetVersion and the version it reports.
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/system.hpp>
#include <ntsim/ver.h>

#include <cstring>
#include <mutex>

namespace ntsim {
namespace {

std::mutex versionLock;
ReportedVersion reported;

}  // namespace

void SetReportedVersion(ULONG major, ULONG minor, ULONG build)
{
    std::lock_guard guard(versionLock);
    reported = ReportedVersion{major, minor, build};
}

ReportedVersion GetReportedVersion()
{
    std::lock_guard guard(versionLock);
    return reported;
}

void ResetReportedVersion()
{
    std::lock_guard guard(versionLock);
    reported = ReportedVersion{};
}

ScopedReportedVersion::ScopedReportedVersion(ULONG major, ULONG minor, ULONG build) : saved_(GetReportedVersion())
{
    SetReportedVersion(major, minor, build);
}

ScopedReportedVersion::~ScopedReportedVersion()
{
    SetReportedVersion(saved_.major, saved_.minor, saved_.build);
}

}  // namespace ntsim

extern "C" {

NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation)
{
    if (auto failure = ntsim::faults::Check("RtlGetVersion")) {
        return *failure;
    }
    const ULONG size = lpVersionInformation->dwOSVersionInfoSize;
    if (size != sizeof(RTL_OSVERSIONINFOW) && size != sizeof(RTL_OSVERSIONINFOEXW)) {
        return STATUS_INVALID_PARAMETER;
    }
    const ntsim::ReportedVersion version = ntsim::GetReportedVersion();
    lpVersionInformation->dwMajorVersion = version.major;
    lpVersionInformation->dwMinorVersion = version.minor;
    lpVersionInformation->dwBuildNumber = version.build;
    lpVersionInformation->dwPlatformId = VER_PLATFORM_WIN32_NT;
    std::memset(lpVersionInformation->szCSDVersion, 0, sizeof(lpVersionInformation->szCSDVersion));
    if (size == sizeof(RTL_OSVERSIONINFOEXW)) {
        auto* extended = reinterpret_cast<PRTL_OSVERSIONINFOEXW>(lpVersionInformation);
        extended->wServicePackMajor = 0;
        extended->wServicePackMinor = 0;
        extended->wSuiteMask = VER_SUITE_SINGLEUSERTS;
        extended->wProductType = VER_NT_WORKSTATION;
        extended->wReserved = 0;
    }
    return STATUS_SUCCESS;
}

}  // extern "C"
