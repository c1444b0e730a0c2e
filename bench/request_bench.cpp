// One service request round trip through ntsim's communication port: a FolderMerge request routine
// (the exclusion query) builds the message, FltSendMessage carries it to a scripted service, and the
// reply comes back and is judged. Requests per second with 1 and with 4 service threads (and as many
// senders), and with the information block that the routine reads from the volume first.
//
//     request_bench                 run the benchmarks
//     request_bench --transcript    print the requests and replies of a short run instead
#include <benchmark/benchmark.h>

#include "request_transcript.hpp"

#include <cstring>
#include <iostream>
#include <memory>

namespace {

using requestbench::LoadedDriver;
using requestbench::ScriptedResponder;

struct Transport {
    LoadedDriver driver;
    std::unique_ptr<ScriptedResponder> service;
};
Transport* g_transport = nullptr;

void BM_RequestRoundTrip(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        g_transport = new Transport;
        if (!NT_SUCCESS(g_transport->driver.status())) {
            state.SkipWithError("FolderMerge could not be loaded");
        }
        g_transport->service = std::make_unique<ScriptedResponder>(ScriptedResponder::Options{
            .threads = static_cast<unsigned>(state.range(0)), .record = false});
        if (FAILED(g_transport->service->Connect())) {
            state.SkipWithError("the service could not connect");
        }
    }
    ntsim::UnicodeStringHolder sid(u"S-1-5-21-1004336348-1177238915-682003330-1001");
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\report.txt");

    // No operation's objects: no information block is read, so the figure is the transport's.
    for (auto _ : state) {
        if (ServiceRequest_ObjectIsExcludedFile(sid.get(), path.get(), nullptr, nullptr) != STATUS_SUCCESS) {
            state.SkipWithError("a request failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());

    if (state.thread_index() == 0) {
        delete g_transport;  // the service disconnects before the driver unloads
        g_transport = nullptr;
    }
}
BENCHMARK(BM_RequestRoundTrip)->Arg(1)->Threads(1)->UseRealTime();
BENCHMARK(BM_RequestRoundTrip)->Arg(4)->Threads(4)->UseRealTime();

// The same request with its information block: the routine opens the file below the filter, reads
// its basic and standard information and looks for its marker stream before it sends.
void BM_RequestWithInformationBlock(benchmark::State& state)
{
    LoadedDriver driver;
    if (!NT_SUCCESS(driver.status())) {
        state.SkipWithError("FolderMerge could not be loaded");
        return;
    }
    driver.volume().SeedFile(u"\\Data\\report.txt", "quarterly numbers");
    ScriptedResponder service(ScriptedResponder::Options{.record = false});
    if (FAILED(service.Connect())) {
        state.SkipWithError("the service could not connect");
        return;
    }
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr,
                                      driver.Instance(), nullptr, nullptr};
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetInstance = objects.Instance;
    ntsim::UnicodeStringHolder sid(u"S-1-5-21-1004336348-1177238915-682003330-1001");
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\report.txt");

    for (auto _ : state) {
        if (ServiceRequest_ObjectIsExcludedFile(sid.get(), path.get(), &objects, &iopb) != STATUS_SUCCESS) {
            state.SkipWithError("a request failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RequestWithInformationBlock)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    for (int index = 1; index < argc; index++) {
        if (std::strcmp(argv[index], "--transcript") == 0) {
            requestbench::PrintTransportTranscript(std::cout);
            return 0;
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
