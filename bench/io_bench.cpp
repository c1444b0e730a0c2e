// Baseline costs of the I/O path on ntsim, so that a filter's overhead can be given as a ratio
// against the platform alone: an open and close of an existing file, and a 4 KiB write, by a
// user process on an NTFS volume as C:, with no filter loaded and with a pass-through filter
// (every pre-operation callback answers FLT_PREOP_SUCCESS_NO_CALLBACK; no post-callbacks).
#include <benchmark/benchmark.h>

#include <fltKernel.h>
#include <ntsim/sim/filterregistration.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

namespace {

constexpr std::u16string_view kDevice = u"\\Device\\HarddiskVolume2";
constexpr std::u16string_view kFilterName = u"PassThrough";

// ---- the pass-through filter ----

PFLT_FILTER passThroughFilter = nullptr;

FLT_PREOP_CALLBACK_STATUS FLTAPI PassThroughPre(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)
{
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

NTSTATUS FLTAPI PassThroughUnload(FLT_FILTER_UNLOAD_FLAGS)
{
    FltUnregisterFilter(passThroughFilter);
    passThroughFilter = nullptr;
    return STATUS_SUCCESS;
}

constexpr auto kPassThroughOperations = ntsim::RegisterEachOperation(ntsim::kEveryOperation, PassThroughPre, nullptr);

constexpr FLT_REGISTRATION kPassThroughRegistration = {
    .Size = sizeof(FLT_REGISTRATION),
    .Version = FLT_REGISTRATION_VERSION,
    .Flags = 0,
    .ContextRegistration = nullptr,
    .OperationRegistration = kPassThroughOperations.entries,
    .FilterUnloadCallback = PassThroughUnload,
};

NTSTATUS PassThroughEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    return ntsim::RegisterAndStartFiltering(driver, kPassThroughRegistration, &passThroughFilter);
}

// ---- the setting ----

void Require(bool condition, const char* what)
{
    if (!condition) {
        std::cerr << "io_bench: " << what << "\n";
        std::abort();
    }
}

// C: with one file, mounted once for the whole program, and the user process that does the I/O.
struct Setting {
    std::shared_ptr<ntsim::MemoryVolume> volume = ntsim::CreateNtfsVolume(std::u16string(kDevice));
    std::shared_ptr<ntsim::Process> process = ntsim::CreateProcess();

    Setting()
    {
        volume->SeedFile(u"\\bench\\file.bin", std::string(4096, 'x'));
        Require(ntsim::MountVolume(volume, u"C:") == STATUS_SUCCESS, "C: could not be mounted");
    }
};

Setting& GetSetting()
{
    static Setting setting;
    return setting;
}

// Loads the pass-through filter for one benchmark's life when asked to.
class FilterScope {
public:
    explicit FilterScope(bool load) : loaded_(load)
    {
        if (loaded_) {
            ntsim::FilterLoadOptions options;
            options.name = std::u16string(kFilterName);
            Require(ntsim::LoadFilter(PassThroughEntry, options) == STATUS_SUCCESS, "the filter did not load");
        }
    }
    ~FilterScope()
    {
        if (loaded_) {
            Require(ntsim::UnloadFilter(kFilterName) == STATUS_SUCCESS, "the filter did not unload");
        }
    }
    FilterScope(const FilterScope&) = delete;
    FilterScope& operator=(const FilterScope&) = delete;

private:
    bool loaded_;
};

NTSTATUS OpenFile(ntsim::UnicodeStringHolder& name, ACCESS_MASK access, HANDLE* handle)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK ioStatus{};
    return NtCreateFile(handle, access, &attributes, &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

// ---- the benchmarks ----

// NtCreateFile of an existing file (FILE_OPEN_IF, read/write) and NtClose: create, cleanup, close.
void BM_CreateClose(benchmark::State& state, bool withFilter)
{
    Setting& setting = GetSetting();
    FilterScope filter(withFilter);
    ntsim::AttachThread attach(setting.process);
    ntsim::UnicodeStringHolder name(u"\\??\\C:\\bench\\file.bin");
    for (auto _ : state) {
        HANDLE handle = nullptr;
        if (OpenFile(name, FILE_GENERIC_READ | FILE_GENERIC_WRITE, &handle) != STATUS_SUCCESS) {
            state.SkipWithError("the open failed");
            break;
        }
        NtClose(handle);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_CreateClose, NoFilter, false);
BENCHMARK_CAPTURE(BM_CreateClose, PassThroughFilter, true);

// NtWriteFile of 4096 bytes at offset 0 of an open file.
void BM_Write4KiB(benchmark::State& state, bool withFilter)
{
    Setting& setting = GetSetting();
    FilterScope filter(withFilter);
    ntsim::AttachThread attach(setting.process);
    ntsim::UnicodeStringHolder name(u"\\??\\C:\\bench\\file.bin");
    HANDLE handle = nullptr;
    Require(OpenFile(name, FILE_GENERIC_WRITE, &handle) == STATUS_SUCCESS, "the file did not open");
    std::string data(4096, 'w');
    LARGE_INTEGER offset{};
    for (auto _ : state) {
        IO_STATUS_BLOCK ioStatus{};
        if (NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, data.data(), static_cast<ULONG>(data.size()),
                        &offset, nullptr) != STATUS_SUCCESS) {
            state.SkipWithError("the write failed");
            break;
        }
    }
    NtClose(handle);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(data.size()));
}
BENCHMARK_CAPTURE(BM_Write4KiB, NoFilter, false);
BENCHMARK_CAPTURE(BM_Write4KiB, PassThroughFilter, true);

}  // namespace

BENCHMARK_MAIN();
