// A directory listing that the service's entries make long: a user lists C:\Data\Big, a managed
// directory with nothing on disk and 100,000 entries at the service, through NtQueryDirectoryFile with
// a 64 KiB buffer (FileIdBothDirectoryInformation, as Explorer asks), from the open to the query that
// says no more files. Every query crosses the filter; the listing is fetched from a scripted service in
// its two requests and handed out record by record. Beside it, in the same run, one memcpy of the
// listing's bytes: the floor of any way to hand them out; and the filter's own part alone (the
// listing's check and its hand-out). The program prints each as a multiple of the memcpy (real
// time: the service works in threads of its own).
//
//     listing_bench --benchmark_repetitions=3
#include <benchmark/benchmark.h>

#include <foldermerge/service/control.hpp>

#include <ntsim/sim/process.hpp>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "driver/configuration.h"
#include "driver/listingmerge.h"
#include "fastest_runs.hpp"
#include "request_transcript.hpp"

namespace {

using requestbench::LoadedDriver;

constexpr size_t kEntries = 100000;
constexpr ULONG kQueryBytes = 64 * 1024;
constexpr char16_t kUserSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";
constexpr char16_t kDirectory[] = u"\\??\\C:\\Data\\Big";

// FolderMerge over C: with C:\Data managed for the user, and a service whose listing of every
// directory is the same 100,000 entries. Made on first use; main takes it down (the service before
// the driver's unload).
struct ListingRig {
    LoadedDriver driver;
    std::vector<uint8_t> listing;
    std::unique_ptr<requestbench::ScriptedResponder> service;
    std::shared_ptr<ntsim::Process> user;
    std::string failure;
};

std::unique_ptr<ListingRig> g_rig;

ListingRig& Rig()
{
    if (g_rig != nullptr) {
        return *g_rig;
    }
    g_rig = std::make_unique<ListingRig>();
    ListingRig* rig = g_rig.get();
    if (!NT_SUCCESS(rig->driver.status())) {
        rig->failure = "FolderMerge could not be loaded";
        return *rig;
    }
    rig->driver.volume().SeedDirectory(u"\\Data\\Big");
    std::vector<foldermerge::service::ListingEntry> entries(kEntries);
    for (size_t index = 0; index < kEntries; index++) {
        const std::string number = std::to_string(1000000 + index);
        entries[index].name = u"document-" + std::u16string(number.begin(), number.end()) + u".txt";
        entries[index].fileIndex = static_cast<uint32_t>(index);
        entries[index].endOfFile = static_cast<int64_t>(index * 100);
        entries[index].fileId = static_cast<int64_t>(0x10000 + index);
    }
    rig->listing = *foldermerge::service::EncodeListing(FileIdBothDirectoryInformation, entries);

    rig->service = std::make_unique<requestbench::ScriptedResponder>(
        requestbench::ScriptedResponder::Options{.record = false});
    rig->service->AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                            .reply = {.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)}});
    rig->service->AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE,
                            .reply = {.listingHandle = 1, .listingLength = static_cast<uint32_t>(rig->listing.size())}});
    rig->service->AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS, .reply = {.listing = rig->listing}});
    if (FAILED(rig->service->Connect())) {
        rig->failure = "the service could not connect";
        return *rig;
    }
    {
        // The configuration is the service's, in its memory, as the Config port would bring it.
        ntsim::AttachThread service(rig->service->ServiceProcess());
        foldermerge::service::ConfigurationMessage message;
        if (FAILED(foldermerge::service::ConfigurationMessage::Build({.folders = {{kUserSid, u"C:\\Data"}}},
                                                                     &message)) ||
            !NT_SUCCESS(ClearConfiguration()) || !NT_SUCCESS(SetConfiguration(message.record()))) {
            rig->failure = "FolderMerge could not be configured";
            return *rig;
        }
    }
    rig->user = ntsim::CreateProcess({.userSid = kUserSid});
    return *rig;
}

// The records of a FileIdBothDirectoryInformation answer, by its chain.
size_t CountRecords(const UCHAR* buffer, ULONG_PTR information)
{
    size_t count = 0;
    for (ULONG at = 0; information != 0;) {
        count++;
        ULONG next;
        std::memcpy(&next, buffer + at, sizeof(next));
        if (next == 0) {
            break;
        }
        at += next;
    }
    return count;
}

void BM_ListServiceEntries(benchmark::State& state)
{
    ListingRig& rig = Rig();
    if (!rig.failure.empty()) {
        state.SkipWithError(rig.failure.c_str());
        return;
    }
    ntsim::AttachThread attach(rig.user);
    auto* buffer = static_cast<UCHAR*>(rig.user->AllocateUserMemory(kQueryBytes));
    ntsim::UnicodeStringHolder name(kDirectory);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    for (auto _ : state) {
        HANDLE directory = nullptr;
        IO_STATUS_BLOCK ioStatus{};
        if (NtCreateFile(&directory, FILE_LIST_DIRECTORY | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                         FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0) != STATUS_SUCCESS) {
            state.SkipWithError("the directory did not open");
            break;
        }
        size_t records = 0;
        while (NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &ioStatus, buffer, kQueryBytes,
                                    FileIdBothDirectoryInformation, FALSE, nullptr, FALSE) == STATUS_SUCCESS) {
            records += CountRecords(buffer, ioStatus.Information);
        }
        NtClose(directory);
        if (records != kEntries + 2) {  // "." and ".." from the disk
            state.SkipWithError(("the listing had " + std::to_string(records) + " records").c_str());
            break;
        }
    }
    rig.user->FreeUserMemory(buffer);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kEntries));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * rig.listing.size()));
}
BENCHMARK(BM_ListServiceEntries)->Unit(benchmark::kMillisecond)->UseRealTime();

// The filter's own part of the same pass, without the I/O path and the service: the check of the
// listing and its hand-out into 64 KiB buffers, from a paged block of the filter's pool that the
// merge frees at the end (the block's filling is not timed).
void BM_MergeListing(benchmark::State& state)
{
    ListingRig& rig = Rig();
    const ULONG length = static_cast<ULONG>(rig.listing.size());
    std::vector<UCHAR> buffer(kQueryBytes);
    for (auto _ : state) {
        state.PauseTiming();
        auto* block = static_cast<PUCHAR>(AllocateBuffer(POOL_SELECTOR_PAGED, length));
        std::memcpy(block, rig.listing.data(), length);
        state.ResumeTiming();
        if (!IsListingWellFormed(block, length, FileIdBothDirectoryInformation)) {
            state.SkipWithError("the listing was refused");
            FreeBuffer(block);
            break;
        }
        PUCHAR next = block;
        ULONG used = 0;
        while (MergeDirectoryBuffer(buffer.data(), kQueryBytes, &block, &next, block + length,
                                    FileIdBothDirectoryInformation, 0, &used) == STATUS_SUCCESS) {
            benchmark::DoNotOptimize(buffer.data());
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * rig.listing.size()));
}
BENCHMARK(BM_MergeListing)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CopyListingBytes(benchmark::State& state)
{
    ListingRig& rig = Rig();
    std::vector<uint8_t> copy(rig.listing.size());
    for (auto _ : state) {
        std::memcpy(copy.data(), rig.listing.data(), rig.listing.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * rig.listing.size()));
}
BENCHMARK(BM_CopyListingBytes)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    FastestRuns runs;
    benchmark::RunSpecifiedBenchmarks(&runs);
    benchmark::Shutdown();
    const auto copied = runs.RealTime("BM_CopyListingBytes/real_time");
    if (copied && *copied > 0) {
        std::printf("\n%zu service entries (%zu bytes) in %u-byte queries, as a multiple of one memcpy of them "
                    "(%.2f ms):\n",
                    kEntries, Rig().listing.size(), kQueryBytes, *copied);
        for (const char* name : {"BM_ListServiceEntries/real_time", "BM_MergeListing/real_time"}) {
            if (const auto time = runs.RealTime(name)) {
                std::printf("  %-32s %8.2f ms  x%.1f\n", name, *time, *time / *copied);
            }
        }
    }
    g_rig.reset();
    return 0;
}
