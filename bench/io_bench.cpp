// Costs of the I/O path on ntsim, and what a filter adds to them as a ratio within one run: an
// open and close of an existing file, and a 4 KiB write, by a user process on an NTFS volume as
// C:, with no filter loaded, with a pass-through filter (every pre-operation callback answers
// FLT_PREOP_SUCCESS_NO_CALLBACK; no post-callbacks), and with FolderMerge configured by a
// simulated service: no folders or 50 folders of five users, tracing off or on with a session
// that takes every event, and an open outside every merge folder or inside the caller's own.
//
// After the run the program prints each open's time as a ratio of the open with no filter, and
// fails when FolderMerge's open outside every merge folder, with 50 folders and tracing off, costs
// more than kOutsideFolderLimit times that: the open gate sees every open of the machine. A ratio
// is of CPU times within the run: with repetitions, of the fastest repetition of each case (other
// work on the machine only ever adds time), and the repetitions of all cases are interleaved in
// random order, so that a busy moment falls on any case alike.
//
//     io_bench --benchmark_repetitions=3
#include <benchmark/benchmark.h>

#include <fltKernel.h>
#include <ntsim/sim/etw.hpp>
#include <ntsim/sim/filterregistration.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>

#include <foldermerge/service/simulated_service.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "driver/lifecycle.h"
#include "fastest_runs.hpp"
#include "driver/ownedstring.h"
#include "trace.h"

namespace {

constexpr std::u16string_view kDevice = u"\\Device\\HarddiskVolume2";
constexpr std::u16string_view kFilterName = u"PassThrough";
constexpr std::u16string_view kFolderMergeName = u"FolderMerge";

// The user who opens the files, and four others with merge folders of their own.
constexpr char16_t kUserSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";
constexpr int kUsers = 5;
constexpr int kFoldersPerUser = 10;

// A file outside every merge folder, though beside the user's own, and a file in one of them.
constexpr char16_t kOutsideFile[] = u"\\??\\C:\\Users\\user0\\Documents\\file.bin";
constexpr char16_t kManagedFile[] = u"\\??\\C:\\Users\\user0\\Merged9\\file.bin";

// The most that FolderMerge's open outside every merge folder (50 folders, tracing off) may cost,
// as a multiple of the open with no filter.
constexpr double kOutsideFolderLimit = 1.5;

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

// The SID of user number `user`: the benchmark's user is number 0.
std::u16string UserSid(int user)
{
    std::u16string sid(kUserSid);
    sid.back() = static_cast<char16_t>(u'1' + user);
    return sid;
}

std::u16string Number(int value)
{
    std::string text = std::to_string(value);
    return std::u16string(text.begin(), text.end());
}

// C: with the files, mounted once for the whole program, and the user process that does the I/O.
struct Setting {
    std::shared_ptr<ntsim::MemoryVolume> volume = ntsim::CreateNtfsVolume(std::u16string(kDevice));
    std::shared_ptr<ntsim::Process> process = ntsim::CreateProcess({.userSid = kUserSid});

    Setting()
    {
        volume->SeedFile(u"\\bench\\file.bin", std::string(4096, 'x'));
        volume->SeedFile(u"\\Users\\user0\\Documents\\file.bin", std::string(4096, 'x'));
        for (int user = 0; user < kUsers; user++) {
            for (int folder = 0; folder < kFoldersPerUser; folder++) {
                volume->SeedDirectory(u"\\Users\\user" + Number(user) + u"\\Merged" + Number(folder));
            }
        }
        volume->SeedFile(u"\\Users\\user0\\Merged9\\file.bin", std::string(4096, 'x'));
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

// The 50 merge folders: ten of each user's in C:\Users\user<n>, each user's in a block of rows, the
// benchmark user's last, so that a lookup of the benchmark user's path passes every other row.
foldermerge::service::Configuration FiftyFolders()
{
    foldermerge::service::Configuration configuration;
    for (int user = kUsers - 1; user >= 0; user--) {
        for (int folder = 0; folder < kFoldersPerUser; folder++) {
            configuration.folders.push_back(
                {UserSid(user), u"C:\\Users\\user" + Number(user) + u"\\Merged" + Number(folder), false});
        }
    }
    configuration.blacklist = {u"backup.exe", u"indexer.exe"};
    return configuration;
}

struct FolderMergeSetting {
    bool fiftyFolders = false;
    bool tracing = false;
};

// FolderMerge loaded for one benchmark's life, a simulated service connected with its
// configuration, and with tracing a session that enables every event of the filter.
class FolderMergeScope {
public:
    explicit FolderMergeScope(const FolderMergeSetting& setting)
    {
        Require(ntsim::LoadFilter(DriverEntry, {.name = std::u16string(kFolderMergeName),
                                                .altitude = u"185200",
                                                .poolTags = {FOLDERMERGE_POOL_TAG}}) == STATUS_SUCCESS,
                "FolderMerge did not load");
        foldermerge::service::Configuration configuration;
        if (setting.fiftyFolders) {
            configuration = FiftyFolders();
        }
        service_ = std::make_unique<foldermerge::service::SimulatedService>(
            foldermerge::service::SimulatedServiceOptions{.configuration = configuration});
        Require(SUCCEEDED(service_->Arrive()), "the service did not arrive");
        if (setting.tracing) {
            session_ = std::make_unique<ntsim::etw::Session>();
            session_->EnableProvider(TRACE_PROVIDER_GUID, {.level = 4, .matchAnyKeyword = 0x8000000000000000ull});
            Require(SUCCEEDED(service_->Run([](foldermerge::service::FilterConnection& connection) {
                        return connection.SetTracingEnabled(true);
                    })),
                    "tracing was not turned on");
        }
    }
    ~FolderMergeScope()
    {
        service_.reset();
        session_.reset();
        Require(ntsim::UnloadFilter(kFolderMergeName) == STATUS_SUCCESS, "FolderMerge did not unload");
    }
    FolderMergeScope(const FolderMergeScope&) = delete;
    FolderMergeScope& operator=(const FolderMergeScope&) = delete;

    // The events the session received, which it then forgets.
    size_t TakeEvents() { return session_ != nullptr ? session_->TakeEvents().size() : 0; }

private:
    std::unique_ptr<foldermerge::service::SimulatedService> service_;
    std::unique_ptr<ntsim::etw::Session> session_;
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

// NtCreateFile (FILE_OPEN_IF, read/write) of an existing file and NtClose, state.iterations() times:
// create, cleanup, close.
void CreateAndCloseEach(benchmark::State& state, std::u16string_view path)
{
    ntsim::AttachThread attach(GetSetting().process);
    ntsim::UnicodeStringHolder name(path);
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

void BM_CreateClose(benchmark::State& state, bool withFilter)
{
    GetSetting();
    FilterScope filter(withFilter);
    CreateAndCloseEach(state, kOutsideFile);
}
// The fastest repetition, beside the mean and median that every run reports.
double Fastest(const std::vector<double>& times)
{
    return times.empty() ? 0.0 : *std::min_element(times.begin(), times.end());
}

BENCHMARK_CAPTURE(BM_CreateClose, NoFilter, false)->ComputeStatistics("min", Fastest);
BENCHMARK_CAPTURE(BM_CreateClose, PassThroughFilter, true)->ComputeStatistics("min", Fastest);

void BM_CreateCloseFolderMerge(benchmark::State& state, FolderMergeSetting setting, std::u16string_view path)
{
    GetSetting();
    FolderMergeScope folderMerge(setting);
    CreateAndCloseEach(state, path);
    state.counters["events"] = static_cast<double>(folderMerge.TakeEvents()) / static_cast<double>(state.iterations());
}
// FolderMerge's cases: where the open is, and the filter's setting.
struct FolderMergeCase {
    const char* name;
    FolderMergeSetting setting;
    std::u16string_view path;
};

constexpr FolderMergeCase kFolderMergeCases[] = {
    {.name = "Outside0Folders", .setting = {}, .path = kOutsideFile},
    {.name = "Outside0FoldersTracing", .setting = {.tracing = true}, .path = kOutsideFile},
    {.name = "Outside50Folders", .setting = {.fiftyFolders = true}, .path = kOutsideFile},
    {.name = "Outside50FoldersTracing", .setting = {.fiftyFolders = true, .tracing = true}, .path = kOutsideFile},
    {.name = "Managed50Folders", .setting = {.fiftyFolders = true}, .path = kManagedFile},
    {.name = "Managed50FoldersTracing", .setting = {.fiftyFolders = true, .tracing = true}, .path = kManagedFile},
};

void RegisterFolderMergeCases()
{
    for (const FolderMergeCase& folderMergeCase : kFolderMergeCases) {
        benchmark::RegisterBenchmark(
            (std::string("BM_CreateCloseFolderMerge/") + folderMergeCase.name).c_str(),
            [folderMergeCase](benchmark::State& state) {
                BM_CreateCloseFolderMerge(state, folderMergeCase.setting, folderMergeCase.path);
            })
            ->ComputeStatistics("min", Fastest);
    }
}

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

// ---- the ratios ----

// Prints every create + close against the open with no filter, and says whether FolderMerge's
// outside-folder open stays within its limit. False only when it was measured and is over.
bool ReportRatios(const FastestRuns& collector)
{
    const std::optional<double> baseline = collector.Time("BM_CreateClose/NoFilter");
    if (!baseline || *baseline <= 0) {
        return true;
    }
    std::printf("\ncreate + close as a multiple of BM_CreateClose/NoFilter (%.0f ns):\n", *baseline);
    for (const std::string& name : collector.Names()) {
        if (name.starts_with("BM_CreateClose")) {
            std::printf("  %-55s x%.2f\n", name.c_str(), *collector.Time(name) / *baseline);
        }
    }
    const std::optional<double> guarded = collector.Time("BM_CreateCloseFolderMerge/Outside50Folders");
    if (!guarded) {
        return true;
    }
    const double ratio = *guarded / *baseline;
    const bool within = ratio <= kOutsideFolderLimit;
    std::printf("FolderMerge outside every merge folder, 50 folders, tracing off: x%.2f, limit x%.2f: %s\n", ratio,
                kOutsideFolderLimit, within ? "within" : "OVER THE LIMIT");
    return within;
}

}  // namespace

int main(int argc, char** argv)
{
    RegisterFolderMergeCases();
    // Repetitions interleaved in random order unless the command line says otherwise (a flag given
    // later wins).
    std::vector<char*> arguments(argv, argv + argc);
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleaving);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    FastestRuns collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    benchmark::Shutdown();
    return ReportRatios(collector) ? 0 : 1;
}
