// One service request round trip through ntsim's communication port: the filter's frame builds the
// message, FltSendMessage carries it to a scripted service, and the reply comes back and is judged.
// Requests per second with 1 and with 4 service threads (and as many senders).
//
//     request_bench                 run the benchmarks
//     request_bench --transcript    print the requests and replies of a short run instead
#include <benchmark/benchmark.h>

#include <cstring>
#include <iostream>
#include <memory>

#include "../service/responder_host.hpp"
#include "../service/responder_scripted.hpp"
#include "../service/responder_transcript.hpp"
#include "servicerequests.h"

namespace {

using foldermerge::service::ScriptedResponder;
using foldermerge::service::TransportHost;

struct Transport {
    TransportHost host;
    std::unique_ptr<ScriptedResponder> service;
};
Transport* g_transport = nullptr;

void BM_RequestRoundTrip(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        g_transport = new Transport;
        if (!NT_SUCCESS(g_transport->host.Load())) {
            state.SkipWithError("the transport host could not be loaded");
        }
        g_transport->service = std::make_unique<ScriptedResponder>(ScriptedResponder::Options{
            .portName = TransportHost::kPortName, .threads = static_cast<size_t>(state.range(0)), .record = false});
        if (FAILED(g_transport->service->Connect())) {
            state.SkipWithError("the service could not connect");
        }
    }
    const std::u16string sidText = u"S-1-5-21-1004336348-1177238915-682003330-1001";
    const std::u16string pathText = u"\\Device\\HarddiskVolume2\\Data\\report.txt";
    UNICODE_STRING sid{(USHORT)(sidText.size() * 2), (USHORT)(sidText.size() * 2),
                       reinterpret_cast<PWCH>(const_cast<char16_t*>(sidText.data()))};
    UNICODE_STRING path{(USHORT)(pathText.size() * 2), (USHORT)(pathText.size() * 2),
                        reinterpret_cast<PWCH>(const_cast<char16_t*>(pathText.data()))};

    for (auto _ : state) {
        ServiceRequest request;
        NTSTATUS status = BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, &sid, &path, nullptr);
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
        g_transport->service.reset();
        g_transport->host.Unload();
        delete g_transport;
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
            foldermerge::service::PrintTransportTranscript(std::cout);
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
