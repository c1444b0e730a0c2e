// Communication port round trips: a filter thread's FltSendMessage with a reply buffer, answered
// by service threads looping on FilterGetMessage / FilterReplyMessage. Messages per second for 1
// and 4 responder threads, with 1 and 4 sending threads.
#include <benchmark/benchmark.h>

#include <fltKernel.h>
#include <fltUser.h>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/process.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr ULONG kRequestSize = 2088 + 80;  // a request head and a short path
constexpr ULONG kReplySize = 19;

PFLT_FILTER benchFilter = nullptr;
PFLT_PORT serverPort = nullptr;
PFLT_PORT clientPort = nullptr;

NTSTATUS FLTAPI Connect(PFLT_PORT ClientPort, PVOID, PVOID, ULONG, PVOID* Cookie)
{
    clientPort = ClientPort;
    *Cookie = ClientPort;
    return STATUS_SUCCESS;
}

VOID FLTAPI Disconnect(PVOID)
{
    FltCloseClientPort(benchFilter, &clientPort);
}

NTSTATUS FLTAPI Unload(FLT_FILTER_UNLOAD_FLAGS)
{
    FltCloseCommunicationPort(serverPort);
    FltUnregisterFilter(benchFilter);
    return STATUS_SUCCESS;
}

NTSTATUS BenchEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    static const FLT_OPERATION_REGISTRATION operations[] = {{IRP_MJ_OPERATION_END}};
    static const FLT_REGISTRATION registration = {
        .Size = sizeof(FLT_REGISTRATION),
        .Version = FLT_REGISTRATION_VERSION,
        .OperationRegistration = operations,
        .FilterUnloadCallback = Unload,
    };
    NTSTATUS status = FltRegisterFilter(driver, &registration, &benchFilter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\PortBench");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    status = FltCreateCommunicationPort(benchFilter, &serverPort, &attributes, nullptr, Connect, Disconnect, nullptr, 1);
    if (!NT_SUCCESS(status)) {
        FltUnregisterFilter(benchFilter);
    }
    return status;
}

void Check(bool ok, const char* what)
{
    if (!ok) {
        std::fprintf(stderr, "port_bench: %s\n", what);
        std::abort();
    }
}

// A loaded filter, a connected service and its responder threads, for one benchmark run.
class Responders {
public:
    explicit Responders(int count)
    {
        Check(ntsim::LoadFilter(BenchEntry, {.name = u"PortBench", .altitude = u"385200"}) == STATUS_SUCCESS,
              "the filter did not load");
        service_ = ntsim::CreateProcess({.userSid = u"S-1-5-18"});
        {
            ntsim::AttachThread attach(service_);
            Check(SUCCEEDED(FilterConnectCommunicationPort(L"\\PortBench", 0, nullptr, 0, nullptr, &port_)),
                  "the service did not connect");
        }
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this] { Respond(); });
        }
    }
    ~Responders()
    {
        {
            ntsim::AttachThread attach(service_);
            CloseHandle(port_);  // ends the responders' waits
        }
        for (std::thread& thread : threads_) {
            thread.join();
        }
        Check(ntsim::UnloadFilter(u"PortBench") == STATUS_SUCCESS, "the filter did not unload");
    }

private:
    void Respond()
    {
        ntsim::AttachThread attach(service_);
        const DWORD messageSize = sizeof(FILTER_MESSAGE_HEADER) + kRequestSize;
        auto* message = static_cast<PFILTER_MESSAGE_HEADER>(HeapAlloc(GetProcessHeap(), 0, messageSize));
        auto* reply = static_cast<PFILTER_REPLY_HEADER>(HeapAlloc(GetProcessHeap(), 0, sizeof(FILTER_REPLY_HEADER) + kReplySize));
        while (SUCCEEDED(FilterGetMessage(port_, message, messageSize, nullptr))) {
            reply->Status = STATUS_SUCCESS;
            reply->MessageId = message->MessageId;
            std::memset(reply + 1, 1, kReplySize);
            FilterReplyMessage(port_, reply, sizeof(FILTER_REPLY_HEADER) + kReplySize);
        }
        HeapFree(GetProcessHeap(), 0, reply);
        HeapFree(GetProcessHeap(), 0, message);
    }

    std::shared_ptr<ntsim::Process> service_;
    HANDLE port_ = nullptr;
    std::vector<std::thread> threads_;
};

std::unique_ptr<Responders> responders;

void BM_PortRoundTrip(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        responders = std::make_unique<Responders>(static_cast<int>(state.range(0)));
    }
    std::vector<UCHAR> request(kRequestSize, 0x5A);
    UCHAR reply[kReplySize];
    for (auto _ : state) {
        ULONG length = sizeof(reply);
        NTSTATUS status = FltSendMessage(benchFilter, &clientPort, request.data(), kRequestSize, reply, &length, nullptr);
        if (status != STATUS_SUCCESS || length != kReplySize) {
            state.SkipWithError("a round trip failed");
            break;
        }
        benchmark::DoNotOptimize(reply);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        responders.reset();
    }
}

BENCHMARK(BM_PortRoundTrip)->ArgName("responders")->Arg(1)->Arg(4)->Threads(1)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
