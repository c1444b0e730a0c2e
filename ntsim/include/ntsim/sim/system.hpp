// The system's exported routines (what MmGetSystemRoutineAddress finds) and the version that
// RtlGetVersion reports.
#pragma once

#include <ntsim/ntdef.h>

#include <string>
#include <string_view>

namespace ntsim {

// ---- exported routines ----
// Adds (or replaces) an export. ntsim's own exports are registered from the start; a component
// whose routines a driver looks up by name (EtwRegister, ...) registers them before the driver
// loads. Names are case-sensitive.
void RegisterSystemRoutine(std::u16string_view name, void* address);

// Makes MmGetSystemRoutineAddress answer null for name, as on a system that lacks the routine,
// until RevealSystemRoutine(name) or RevealAllSystemRoutines().
void HideSystemRoutine(std::u16string_view name);
void RevealSystemRoutine(std::u16string_view name);
void RevealAllSystemRoutines();

// Hides a routine for the object's life.
class ScopedHiddenSystemRoutine {
public:
    explicit ScopedHiddenSystemRoutine(std::u16string_view name);
    ~ScopedHiddenSystemRoutine();
    ScopedHiddenSystemRoutine(const ScopedHiddenSystemRoutine&) = delete;
    ScopedHiddenSystemRoutine& operator=(const ScopedHiddenSystemRoutine&) = delete;

private:
    std::u16string name_;
};

// ---- version ----
struct ReportedVersion {
    ULONG major = 10;
    ULONG minor = 0;
    ULONG build = 19045;
};

// What RtlGetVersion reports from now on (default 10.0.19045).
void SetReportedVersion(ULONG major, ULONG minor, ULONG build);
ReportedVersion GetReportedVersion();
void ResetReportedVersion();

// Reports a version for the object's life.
class ScopedReportedVersion {
public:
    ScopedReportedVersion(ULONG major, ULONG minor, ULONG build);
    ~ScopedReportedVersion();
    ScopedReportedVersion(const ScopedReportedVersion&) = delete;
    ScopedReportedVersion& operator=(const ScopedReportedVersion&) = delete;

private:
    ReportedVersion saved_;
};

}  // namespace ntsim
