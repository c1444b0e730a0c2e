// The filter's end of \Velmora_DriverPort as a service meets it through the raw port calls: which
// connection takes which slot, the refusal of a second connection of one kind, the service's own
// opens, and the checks of a control message's buffers, which lie in the service's memory.
#include "filter_fixture.hpp"

#include <fltUser.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/ports.hpp>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "driver/globals.h"
#include "driver/mergefolders.h"

namespace foldermerge::testing {
namespace {

const HRESULT kRefused = HRESULT_FROM_WIN32(ERROR_CONNECTION_REFUSED);
const HRESULT kNoAccess = HRESULT_FROM_WIN32(ERROR_NOACCESS);

// A service process (Local System, as the port's default descriptor requires) that calls the port
// in its own threads. What it sends lies in its heap unless a test passes other memory on purpose:
// memory of the test itself is no memory of the service, and the filter's probes refuse it.
class Service {
public:
    explicit Service(std::shared_ptr<ntsim::Process> process) : process_(std::move(process)) {}

    ~Service()
    {
        ntsim::AttachThread attach(process_);
        for (HANDLE port : ports_) {
            CloseHandle(port);
        }
        for (void* block : heap_) {
            HeapFree(GetProcessHeap(), 0, block);
        }
    }

    // A connection with a context of contextSize bytes (0: none). *port gets its handle.
    HRESULT Connect(WORD contextSize, HANDLE* port = nullptr)
    {
        ntsim::AttachThread attach(process_);
        ULONGLONG context = 0x1234;
        HANDLE handle = nullptr;
        HRESULT hr = FilterConnectCommunicationPort(FOLDERMERGE_PORT_NAME, 0, contextSize != 0 ? &context : nullptr,
                                                    contextSize, nullptr, &handle);
        if (SUCCEEDED(hr)) {
            ports_.push_back(handle);
            if (port != nullptr) {
                *port = handle;
            }
        }
        return hr;
    }
    HRESULT ConnectThread(HANDLE* port = nullptr) { return Connect(THREAD_PORT_CONTEXT_SIZE, port); }

    void Disconnect(HANDLE port)
    {
        ntsim::AttachThread attach(process_);
        EXPECT_TRUE(CloseHandle(port));
        std::erase(ports_, port);
    }

    // A block of the service's heap holding bytes, or size bytes of fill.
    UCHAR* Heap(const void* bytes, size_t size)
    {
        auto* block = Heap(size, 0);
        std::memcpy(block, bytes, size);
        return block;
    }
    UCHAR* Heap(size_t size, UCHAR fill)
    {
        ntsim::AttachThread attach(process_);
        auto* block = static_cast<UCHAR*>(HeapAlloc(GetProcessHeap(), 0, size));
        std::memset(block, fill, size);
        heap_.push_back(block);
        return block;
    }

    // FilterSendMessage on the first port, with the buffers as given.
    HRESULT Send(void* input, DWORD inputSize, void* output = nullptr, DWORD outputSize = 0)
    {
        ntsim::AttachThread attach(process_);
        DWORD returned = 0xFFFF;
        HRESULT hr = FilterSendMessage(ports_.front(), input, inputSize, output, outputSize, &returned);
        lastReturned_ = returned;
        return hr;
    }
    DWORD lastReturned() const { return lastReturned_; }

    // A SetConfiguration record and its folder block, both in the service's heap.
    SetConfigurationMessage* Configuration(const std::vector<Folder>& folders)
    {
        SIZE_T blockSize = FIELD_OFFSET(MergeFolderBlock, Folders) + folders.size() * sizeof(MergeFolderRecord);
        UCHAR* block = Heap(blockSize, 0);
        reinterpret_cast<MergeFolderBlock*>(block)->FolderCount = static_cast<uint32_t>(folders.size());
        for (size_t index = 0; index < folders.size(); index++) {
            auto* record =
                reinterpret_cast<MergeFolderRecord*>(block + FIELD_OFFSET(MergeFolderBlock, Folders)) + index;
            std::memcpy(record->Sid, folders[index].sid.data(), folders[index].sid.size() * 2);
            std::memcpy(record->FolderPath, folders[index].path.data(), folders[index].path.size() * 2);
            record->bReadOnly = folders[index].readOnly ? 1 : 0;
        }
        auto* message = reinterpret_cast<SetConfigurationMessage*>(Heap(sizeof(SetConfigurationMessage), 0));
        message->Code = CONTROL_SET_CONFIGURATION;
        message->ConfigVersion = CONFIGURATION_MIN_VERSION;
        message->pFolderBlock = reinterpret_cast<uint64_t>(block);
        return message;
    }
    HRESULT Configure(const std::vector<Folder>& folders)
    {
        return Send(Configuration(folders), sizeof(SetConfigurationMessage));
    }

    NTSTATUS Open(std::u16string_view path, ACCESS_MASK access, ULONG share, HANDLE* handle)
    {
        ntsim::AttachThread attach(process_);
        return OpenHandle(path, access, {.share = share}, handle).status;
    }

    void CloseFile(HANDLE handle)
    {
        ntsim::AttachThread attach(process_);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }

    const std::shared_ptr<ntsim::Process>& process() const { return process_; }

private:
    std::shared_ptr<ntsim::Process> process_;
    std::vector<HANDLE> ports_;
    std::vector<void*> heap_;
    DWORD lastReturned_ = 0;
};

class ServicePorts : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "a");
        service_ = MakeService(u"service.exe");
    }

    void TearDown() override
    {
        other_.reset();
        service_.reset();
        LoadedFilter::TearDown();
        EXPECT_EQ(ntsim::ports::ServerPortCount(), 0u);
        EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);
    }

    std::unique_ptr<Service> MakeService(std::u16string_view image)
    {
        return std::make_unique<Service>(
            UserProcess(u"S-1-5-18", u"\\Device\\HarddiskVolume2\\Program Files\\Velmora\\" + std::u16string(image)));
    }

    NTSTATUS AliceWritesTheRoot()
    {
        ntsim::AttachThread thread(UserProcess(kAlice));
        return OpenAndClose(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}).status;
    }

    NTSTATUS AliceReadsWhileTheServiceHoldsTheFileExclusively()
    {
        HANDLE handle = nullptr;
        NTSTATUS serviceStatus = service_->Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, 0, &handle);
        EXPECT_EQ(serviceStatus, STATUS_SUCCESS);
        NTSTATUS status;
        {
            ntsim::AttachThread thread(UserProcess(kAlice));
            status = OpenAndClose(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, {.share = FILE_SHARE_READ}).status;
        }
        if (NT_SUCCESS(serviceStatus)) {
            service_->CloseFile(handle);
        }
        return status;
    }

    // Pool allocations that one call makes, counted by the fault injector.
    static uint64_t AllocationsOf(const std::function<void()>& call)
    {
        ntsim::faults::Reset();
        call();
        uint64_t allocations = ntsim::faults::AllocationsPassed();
        ntsim::faults::Reset();
        return allocations;
    }

    std::unique_ptr<Service> service_;
    std::unique_ptr<Service> other_;
};

TEST_F(ServicePorts, TheServicesOwnOpensShareEverythingUntilPassThrough)
{
    // Not yet the service: its exclusive open shuts others out as usual.
    EXPECT_EQ(AliceReadsWhileTheServiceHoldsTheFileExclusively(), STATUS_SHARING_VIOLATION);

    HANDLE config = nullptr;
    ASSERT_EQ(service_->Connect(0, &config), S_OK);
    EXPECT_EQ(g_ServiceData.ServiceProcess, service_->process()->AsEprocess());
    EXPECT_EQ(AliceReadsWhileTheServiceHoldsTheFileExclusively(), STATUS_SUCCESS);

    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}, {u"S-1-5-18", u"C:\\Data", true}}), S_OK);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_ACCESS_DENIED);
    HANDLE handle = nullptr;
    EXPECT_EQ(service_->Open(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, 0, &handle), STATUS_SUCCESS);
    service_->CloseFile(handle);

    // In pass-through mode not even the service's own opens are looked at, though it is still
    // the service process.
    service_->Disconnect(config);
    EXPECT_EQ(g_ServiceData.ServiceProcess, service_->process()->AsEprocess());
    EXPECT_EQ(AliceReadsWhileTheServiceHoldsTheFileExclusively(), STATUS_SHARING_VIOLATION);
}

TEST_F(ServicePorts, OneConnectionOfEachKindStandsAtATime)
{
    // Eight bytes of context make a Config port, four bytes of any content a Thread port.
    ASSERT_EQ(service_->Connect(8), S_OK);
    PFLT_PORT config = g_ServiceData.ConfigClientPort;
    EXPECT_NE(config, nullptr);
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);
    HANDLE thread = nullptr;
    ASSERT_EQ(service_->ConnectThread(&thread), S_OK);
    PFLT_PORT threadPort = g_ServiceData.ThreadClientPort;
    EXPECT_NE(threadPort, nullptr);
    EXPECT_NE(threadPort, config);

    // A second connection of either kind is refused, from any process, and leaves the slots, the
    // service process and the connections as they were.
    other_ = MakeService(u"other.exe");
    EXPECT_EQ(other_->ConnectThread(), kRefused);
    EXPECT_EQ(other_->Connect(0), kRefused);
    EXPECT_EQ(service_->Connect(2), kRefused);
    EXPECT_EQ(g_ServiceData.ThreadClientPort, threadPort);
    EXPECT_EQ(g_ServiceData.ConfigClientPort, config);
    EXPECT_EQ(g_ServiceData.ServiceProcess, service_->process()->AsEprocess());
    EXPECT_EQ(ntsim::ports::ConnectionCount(u"\\Velmora_DriverPort"), 2u);

    // Once the Thread port is gone its kind is free again; the newcomer becomes the service, and
    // its own disconnect closes its own port.
    service_->Disconnect(thread);
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 1u);
    HANDLE otherThread = nullptr;
    ASSERT_EQ(other_->ConnectThread(&otherThread), S_OK);
    EXPECT_NE(g_ServiceData.ThreadClientPort, nullptr);
    EXPECT_EQ(g_ServiceData.ServiceProcess, other_->process()->AsEprocess());
    other_->Disconnect(otherThread);
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 2u);
    EXPECT_EQ(ntsim::ports::ConnectionCount(u"\\Velmora_DriverPort"), 1u);
    EXPECT_EQ(g_PassThrough, 0);
}

TEST_F(ServicePorts, ConnectionsOfOneKindRacingEachOtherLeaveExactlyOne)
{
    constexpr int kRacers = 6;
    std::vector<std::unique_ptr<Service>> racers;
    for (int index = 0; index < kRacers; index++) {
        racers.push_back(MakeService(u"racer.exe"));
    }
    std::atomic<int> ready{0};
    std::vector<HRESULT> results(kRacers, E_FAIL);
    {
        std::vector<std::jthread> threads;
        for (int index = 0; index < kRacers; index++) {
            threads.emplace_back([&, index] {
                for (ready++; ready < kRacers;) {
                    std::this_thread::yield();
                }
                results[index] = racers[index]->ConnectThread();
            });
        }
    }
    EXPECT_EQ(std::count(results.begin(), results.end(), S_OK), 1);
    EXPECT_EQ(std::count(results.begin(), results.end(), kRefused), kRacers - 1);
    EXPECT_EQ(ntsim::ports::ConnectionCount(u"\\Velmora_DriverPort"), 1u);
    racers.clear();
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);
}

TEST_F(ServicePorts, UnloadWithAConnectedServiceEndsItsConnections)
{
    ASSERT_EQ(service_->Connect(0), S_OK);
    ASSERT_EQ(service_->ConnectThread(), S_OK);
    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}}), S_OK);
    other_ = MakeService(u"other.exe");
    EXPECT_EQ(other_->ConnectThread(), kRefused);
    EXPECT_EQ(ntsim::ports::ConnectionCount(u"\\Velmora_DriverPort"), 2u);

    // The verifier reports a client port that the filter left open at its unregistration.
    EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    loaded_ = false;
    EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);
    EXPECT_EQ(ntsim::ports::ServerPortCount(), 0u);
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);
}

TEST_F(ServicePorts, AControlMessageIsReadOnlyWhereTheServiceCanGiveIt)
{
    ASSERT_EQ(service_->Connect(0), S_OK);
    UCHAR message[16] = {99};
    UCHAR* heapMessage = service_->Heap(message, sizeof(message));
    UCHAR testOutput[16];

    // Too short for a code and its reserved word, or no buffer: refused before anything is read.
    EXPECT_EQ(service_->Send(heapMessage, 7), E_INVALIDARG);
    EXPECT_EQ(service_->Send(nullptr, 8), E_INVALIDARG);
    // Memory that isn't the service's, as input or as output, ends the call with the fault.
    EXPECT_EQ(service_->Send(message, 8), kNoAccess);
    EXPECT_EQ(service_->Send(heapMessage, 8, testOutput, sizeof(testOutput)), kNoAccess);
    // An input whose length runs past the service's block is read no further than the probe.
    EXPECT_EQ(service_->Send(heapMessage, 4096), kNoAccess);
}

TEST_F(ServicePorts, OutputIsAZeroedCopyThatOnlySuccessBringsBack)
{
    ASSERT_EQ(service_->Connect(0), S_OK);
    auto send = [&](ULONG code, DWORD inputSize, UCHAR* output, DWORD outputSize) {
        UCHAR message[16] = {};
        std::memcpy(message, &code, sizeof(code));
        return service_->Send(service_->Heap(message, sizeof(message)), inputSize, output, outputSize);
    };
    auto bytes = [](const UCHAR* output) { return std::vector<UCHAR>(output, output + 16); };

    // An unknown code does nothing and succeeds: the zeroed copy goes back whole, with no length.
    UCHAR* output = service_->Heap(16, 0xAA);
    EXPECT_EQ(send(99, 8, output, 16), S_OK);
    EXPECT_EQ(bytes(output), std::vector<UCHAR>(16, 0));
    EXPECT_EQ(service_->lastReturned(), 0u);

    // The dirty block queries need an output buffer; without one nothing is even allocated.
    for (ULONG code : {CONTROL_REQUEST_DIRTY_BLOCK_MAP, CONTROL_REQUEST_DIRTY_BLOCK_COUNT}) {
        EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(send(code, 16, nullptr, 0), E_INVALIDARG); }), 0u);
        EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(send(code, 16, output, 0), E_INVALIDARG); }), 0u);
        // With one, a query that fails (an empty path names no volume) copies nothing back.
        output = service_->Heap(16, 0xAA);
        EXPECT_EQ(send(code, 16, output, 16), HRESULT_FROM_WIN32(ERROR_BAD_PATHNAME));
        EXPECT_EQ(bytes(output), std::vector<UCHAR>(16, 0xAA));
    }

    // A configuration that fails copies nothing either.
    output = service_->Heap(16, 0xAA);
    SetConfigurationMessage* configuration = service_->Configuration({{kAlice, u"C:\\Data", true}});
    configuration->ConfigVersion = 3;
    EXPECT_EQ(service_->Send(configuration, sizeof(*configuration), output, 16), E_INVALIDARG);
    EXPECT_EQ(bytes(output), std::vector<UCHAR>(16, 0xAA));

    // No pool for the copy: refused before the code is obeyed.
    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG, ntsim::faults::Persistence::Once);
    EXPECT_EQ(send(99, 8, output, 16), HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(output[0], 0xAA);
    ntsim::faults::Reset();
}

TEST_F(ServicePorts, AConfigurationIsReadThroughGuardedCopies)
{
    ASSERT_EQ(service_->Connect(0), S_OK);
    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}}), S_OK);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_ACCESS_DENIED);

    // A record shorter than its layout clears the table and fails.
    UCHAR shortRecord[16] = {CONTROL_SET_CONFIGURATION, 0, 0, 0, CONFIGURATION_MIN_VERSION};
    EXPECT_EQ(service_->Send(service_->Heap(shortRecord, sizeof(shortRecord)), sizeof(shortRecord)), E_INVALIDARG);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_SUCCESS);

    // A folder block outside the service's memory, or none, ends the message with no rows.
    MergeFolderBlock notTheServices = {};
    notTheServices.FolderCount = 1;
    SetConfigurationMessage* configuration = service_->Configuration({{kAlice, u"C:\\Data", true}});
    ASSERT_EQ(service_->Send(configuration, sizeof(*configuration)), S_OK);
    configuration->pFolderBlock = reinterpret_cast<uint64_t>(&notTheServices);
    EXPECT_EQ(service_->Send(configuration, sizeof(*configuration)), kNoAccess);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    configuration->pFolderBlock = 0;
    EXPECT_EQ(service_->Send(configuration, sizeof(*configuration)), E_INVALIDARG);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_SUCCESS);

    // A block that claims more folders than it holds is refused whole by the probe.
    configuration = service_->Configuration({{kAlice, u"C:\\Data", true}});
    reinterpret_cast<MergeFolderBlock*>(configuration->pFolderBlock)->FolderCount = 2;
    EXPECT_EQ(service_->Send(configuration, sizeof(*configuration)), kNoAccess);
    EXPECT_EQ(g_MergeFolderCount, 0u);
}

}  // namespace
}  // namespace foldermerge::testing
