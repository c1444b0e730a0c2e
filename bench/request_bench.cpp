// One service request round trip through ntsim's communication port: the FolderMerge driver's frame
// builds the message, FltSendMessage carries it to a scripted service, and the reply comes back and
// is judged. Requests per second with 1 and with 4 service threads (and as many senders).
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

    for (auto _ : state) {
        ServiceRequest request;
        NTSTATUS status =
            BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, sid.get(), path.get(), nullptr);
        if (NT_SUCCESS(status)) {
            status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_IS_EXCLUDED_FILE);
        }
        EndServiceRequest(&request);
        if (status != STATUS_SUCCESS) {
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
