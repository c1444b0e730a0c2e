// FolderMerge loaded on ntsim once per fuzzing process, and what a target checks around each input.
//
// A libFuzzer target runs millions of inputs in one process. Loading the filter for each would
// cost more than the input itself, so a target loads it on its first input (an NTFS volume as C:,
// the filter over it) and unloads it when the process exits: the unload is where the verifier
// checks that no pool of the filter's tag is left. Between inputs a target brings the filter back
// to one state of rest and compares the pool of its tag there (PoolAtRest).
//
// Every verifier report ends the process (abort), which libFuzzer records as a crash with the
// input that caused it; a target must not open a BugCheckCapture.
#pragma once

#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "driver/lifecycle.h"
#include "driver/ownedstring.h"

namespace foldermerge::fuzzing {

inline constexpr char16_t kFilterName[] = u"FolderMerge";
inline constexpr char16_t kVolumeDevice[] = u"\\Device\\HarddiskVolume2";

// Ends the process as a crash that names what failed.
[[noreturn]] inline void Fail(std::string_view what)
{
    fprintf(stderr, "\n*** fuzz target: %.*s\n", static_cast<int>(what.size()), what.data());
    fflush(stderr);
    abort();
}

// Ends the process as a crash that names the check, unless it holds.
inline void Check(bool condition, std::string_view what)
{
    if (!condition) {
        Fail(what);
    }
}

namespace detail {

struct ExitState {
    std::shared_ptr<ntsim::MemoryVolume> volume;
    std::vector<std::function<void()>> beforeUnload;
};

inline ExitState& State()
{
    static ExitState& state = *new ExitState;  // still there when the exit handler runs
    return state;
}

// The unload, where the verifier bugchecks POOL_LEAK for any block of the filter's tag left, and
// the dismount, after the steps a target registered.
inline void Unload()
{
    ExitState& state = State();
    for (auto step = state.beforeUnload.rbegin(); step != state.beforeUnload.rend(); ++step) {
        (*step)();
    }
    NTSTATUS status = ntsim::UnloadFilter(kFilterName);
    if (!NT_SUCCESS(status)) {
        Fail("the filter refused its unload: status " + std::to_string(static_cast<ULONG>(status)));
    }
    (void)ntsim::DismountVolume(kVolumeDevice);
    state.volume.reset();
}

// exit() has already destroyed the exiting thread's thread-local state, ntsim's simulated
// identity among it, when it runs the exit handlers: the unload runs in a thread of its own.
inline void UnloadAtExit()
{
    std::thread(Unload).join();
}

}  // namespace detail

// The next little-endian value of an input, zero-filled where the input ends, which moves past it.
template <typename T>
T Take(const uint8_t*& data, size_t& size)
{
    T value{};
    const size_t taken = std::min(sizeof(T), size);
    std::memcpy(&value, data, taken);
    data += taken;
    size -= taken;
    return value;
}

// Mounts an NTFS volume as C: and loads the filter over it, the first time only; the volume. A
// load that fails ends the process. The unload runs at exit, after everything this call made.
inline const std::shared_ptr<ntsim::MemoryVolume>& LoadFilterOnce()
{
    std::shared_ptr<ntsim::MemoryVolume>& volume = detail::State().volume;
    if (volume != nullptr) {
        return volume;
    }
    volume = ntsim::CreateNtfsVolume(kVolumeDevice);
    if (ntsim::MountVolume(volume, u"C:") != STATUS_SUCCESS) {
        Fail("the volume could not be mounted as C:");
    }
    if (ntsim::LoadFilter(DriverEntry,
                          {.name = kFilterName, .altitude = u"185200", .poolTags = {FOLDERMERGE_POOL_TAG}}) !=
        STATUS_SUCCESS) {
        Fail("the filter did not load");
    }
    atexit(detail::UnloadAtExit);
    return volume;
}

// Runs step at exit, in the unloading thread, before the unload; steps run latest first. For what
// a target made around the loaded filter: a service's connections, open files.
inline void BeforeUnload(std::function<void()> step)
{
    detail::State().beforeUnload.push_back(std::move(step));
}

// The pool of the filter's tag in the state of rest that a target brings the filter back to after
// each input. Taken once at rest; Verify, at rest again, bugchecks POOL_LEAK when the count or the
// bytes differ, with the blocks allocated since this check began.
class PoolAtRest {
public:
    PoolAtRest() : usage_(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG)), checkpoint_(FOLDERMERGE_POOL_TAG) {}

    void Verify(std::string_view where) const
    {
        const ntsim::pool::Usage now = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG);
        if (now.liveCount != usage_.liveCount || now.liveBytes != usage_.liveBytes) {
            ntsim::verifier::BugCheck(
                ntsim::verifier::rules::kPoolLeak,
                std::string(where) + ": the filter's tag holds " + std::to_string(now.liveCount) + " blocks of " +
                    std::to_string(now.liveBytes) + " bytes at rest, " + std::to_string(usage_.liveCount) +
                    " blocks of " + std::to_string(usage_.liveBytes) + " bytes before; allocated since:\n" +
                    ntsim::pool::FormatReport(checkpoint_.Leaks()));
        }
    }

private:
    ntsim::pool::Usage usage_;
    ntsim::pool::Checkpoint checkpoint_;
};

}  // namespace foldermerge::fuzzing
