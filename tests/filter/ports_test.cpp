// The service's side of the filter: its two connections to \Velmora_DriverPort, its own opens, the
// configuration it sends, and pass-through mode when its Config port goes.
#include "filter_fixture.hpp"

#include <fltUser.h>

#include <ntsim/sim/ports.hpp>

#include "driver/globals.h"
#include "driver/mergefolders.h"

namespace foldermerge::testing {
namespace {

// The service process: Local System, as the port's default descriptor requires. Its calls run in
// its own threads and pass its own user memory, which the filter probes.
class Service {
public:
    explicit Service(std::shared_ptr<ntsim::Process> process) : process_(std::move(process)) {}

    ~Service()
    {
        for (HANDLE port : {config_, thread_}) {
            if (port != nullptr) {
                ntsim::AttachThread attach(process_);
                CloseHandle(port);
            }
        }
    }

    HRESULT ConnectConfig(const void* context = nullptr, WORD contextSize = 0)
    {
        return Connect(&config_, context, contextSize);
    }
    HRESULT ConnectThread()
    {
        ULONG context = 0x1234;
        return Connect(&thread_, &context, sizeof(context));
    }
    void DisconnectConfig() { Close(&config_); }
    void DisconnectThread() { Close(&thread_); }

    // Sends a control message from the service's heap; *output receives what the filter wrote.
    HRESULT Send(const void* message, DWORD size, std::vector<UCHAR>* output = nullptr, DWORD outputSize = 0)
    {
        ntsim::AttachThread attach(process_);
        auto* in = static_cast<UCHAR*>(HeapAlloc(GetProcessHeap(), 0, size));
        std::memcpy(in, message, size);
        auto* out = outputSize != 0 ? static_cast<UCHAR*>(HeapAlloc(GetProcessHeap(), 0, outputSize)) : nullptr;
        if (out != nullptr) {
            std::memset(out, 0xAA, outputSize);
        }
        DWORD returned = 0;
        HRESULT hr = FilterSendMessage(config_, in, size, out, outputSize, &returned);
        if (output != nullptr) {
            output->assign(out, out + outputSize);
        }
        HeapFree(GetProcessHeap(), 0, in);
        if (out != nullptr) {
            HeapFree(GetProcessHeap(), 0, out);
        }
        return hr;
    }

    // A configuration message whose folder block is in the service's heap too.
    HRESULT Configure(const std::vector<Folder>& folders)
    {
        ntsim::AttachThread attach(process_);
        SIZE_T blockSize = FIELD_OFFSET(MergeFolderBlock, Folders) + folders.size() * sizeof(MergeFolderRecord);
        auto* block = static_cast<UCHAR*>(HeapAlloc(GetProcessHeap(), 0, blockSize));
        reinterpret_cast<MergeFolderBlock*>(block)->FolderCount = static_cast<uint32_t>(folders.size());
        for (size_t index = 0; index < folders.size(); index++) {
            auto* record =
                reinterpret_cast<MergeFolderRecord*>(block + FIELD_OFFSET(MergeFolderBlock, Folders)) + index;
            std::memcpy(record->Sid, folders[index].sid.data(), folders[index].sid.size() * 2);
            std::memcpy(record->FolderPath, folders[index].path.data(), folders[index].path.size() * 2);
            record->bReadOnly = folders[index].readOnly ? 1 : 0;
        }
        auto* message = static_cast<SetConfigurationMessage*>(HeapAlloc(GetProcessHeap(), 0, sizeof(SetConfigurationMessage)));
        message->Code = CONTROL_SET_CONFIGURATION;
        message->ConfigVersion = CONFIGURATION_MIN_VERSION;
        message->pFolderBlock = reinterpret_cast<uint64_t>(block);
        DWORD returned = 0;
        HRESULT hr = FilterSendMessage(config_, message, sizeof(SetConfigurationMessage), nullptr, 0, &returned);
        HeapFree(GetProcessHeap(), 0, message);
        HeapFree(GetProcessHeap(), 0, block);
        return hr;
    }

    NTSTATUS Open(std::u16string_view path, ACCESS_MASK access, ULONG share, HANDLE* handle)
    {
        ntsim::AttachThread attach(process_);
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK ioStatus{};
        return NtCreateFile(handle, access | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0, share, FILE_OPEN, 0,
                            nullptr, 0);
    }

    void CloseFile(HANDLE handle)
    {
        ntsim::AttachThread attach(process_);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }

    const std::shared_ptr<ntsim::Process>& process() const { return process_; }

private:
    HRESULT Connect(HANDLE* port, const void* context, WORD contextSize)
    {
        ntsim::AttachThread attach(process_);
        return FilterConnectCommunicationPort(FOLDERMERGE_PORT_NAME, 0, context,
                                              contextSize, nullptr, port);
    }

    void Close(HANDLE* port)
    {
        ntsim::AttachThread attach(process_);
        EXPECT_TRUE(CloseHandle(*port));
        *port = nullptr;
    }

    std::shared_ptr<ntsim::Process> process_;
    HANDLE config_ = nullptr;
    HANDLE thread_ = nullptr;
};

class ServicePorts : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "a");
        service_ = std::make_unique<Service>(
            UserProcess(u"S-1-5-18", u"\\Device\\HarddiskVolume2\\Program Files\\Velmora\\service.exe"));
    }

    void TearDown() override
    {
        service_.reset();
        LoadedFilter::TearDown();
        EXPECT_EQ(ntsim::ports::ServerPortCount(), 0u);
        EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);
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

    std::unique_ptr<Service> service_;
};

TEST_F(ServicePorts, TheServicesOwnOpensShareEverythingAndAreNeverJudged)
{
    // Not yet the service: its exclusive open shuts others out as usual.
    EXPECT_EQ(AliceReadsWhileTheServiceHoldsTheFileExclusively(), STATUS_SHARING_VIOLATION);

    ASSERT_EQ(service_->ConnectConfig(), S_OK);
    EXPECT_EQ(g_ServiceData.ServiceProcess, service_->process()->AsEprocess());
    EXPECT_EQ(AliceReadsWhileTheServiceHoldsTheFileExclusively(), STATUS_SUCCESS);

    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}, {u"S-1-5-18", u"C:\\Data", true}}), S_OK);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_ACCESS_DENIED);
    HANDLE handle = nullptr;
    EXPECT_EQ(service_->Open(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, 0, &handle), STATUS_SUCCESS);
    service_->CloseFile(handle);
}

TEST_F(ServicePorts, ConnectionsAreToldApartByAFourByteContext)
{
    ULONGLONG eightBytes = 0;
    ASSERT_EQ(service_->ConnectConfig(&eightBytes, sizeof(eightBytes)), S_OK);
    EXPECT_NE(g_ServiceData.ConfigClientPort, nullptr);
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);
    ASSERT_EQ(service_->ConnectThread(), S_OK);
    EXPECT_NE(g_ServiceData.ThreadClientPort, nullptr);
    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}}), S_OK);

    // Losing the request channel keeps the configuration and the mode; it is counted.
    service_->DisconnectThread();
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 1u);
    EXPECT_EQ(g_PassThrough, 0);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_ACCESS_DENIED);
}

TEST_F(ServicePorts, LosingTheConfigPortEntersPassThroughUntilTheNextConfiguration)
{
    ASSERT_EQ(service_->ConnectConfig(), S_OK);
    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}}), S_OK);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_ACCESS_DENIED);

    service_->DisconnectConfig();
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(g_ServiceData.ConfigClientPort, nullptr);
    // In pass-through mode not even the service's own opens are looked at.
    EXPECT_EQ(AliceReadsWhileTheServiceHoldsTheFileExclusively(), STATUS_SHARING_VIOLATION);

    // A connection alone changes nothing; the configuration ends the mode.
    ASSERT_EQ(service_->ConnectConfig(), S_OK);
    EXPECT_EQ(g_PassThrough, 1);
    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}}), S_OK);
    EXPECT_EQ(g_PassThrough, 0);
    EXPECT_EQ(AliceWritesTheRoot(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(AliceReadsWhileTheServiceHoldsTheFileExclusively(), STATUS_SUCCESS);
}

TEST_F(ServicePorts, ControlMessagesAreCheckedBeforeTheyAreObeyed)
{
    ASSERT_EQ(service_->ConnectConfig(), S_OK);
    UCHAR message[16] = {};

    // Shorter than a code and its reserved word.
    message[0] = 99;
    EXPECT_EQ(service_->Send(message, 7), E_INVALIDARG);

    // An unknown code is obeyed by doing nothing: the zeroed output goes back whole.
    std::vector<UCHAR> output;
    EXPECT_EQ(service_->Send(message, 8, &output, 16), S_OK);
    EXPECT_EQ(output, std::vector<UCHAR>(16, 0));

    // The dirty block queries need an output buffer.
    message[0] = CONTROL_REQUEST_DIRTY_BLOCK_MAP;
    EXPECT_EQ(service_->Send(message, 8), E_INVALIDARG);

    // A configuration message too short for its record clears the table, fails, and still ends
    // pass-through mode.
    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}}), S_OK);
    message[0] = CONTROL_SET_CONFIGURATION;
    EXPECT_EQ(service_->Send(message, 16), E_INVALIDARG);
    EXPECT_EQ(g_MergeFolderCount, 0u);
}

TEST_F(ServicePorts, UnloadWithAConnectedServiceEndsItsConnections)
{
    ASSERT_EQ(service_->ConnectConfig(), S_OK);
    ASSERT_EQ(service_->ConnectThread(), S_OK);
    ASSERT_EQ(service_->Configure({{kAlice, u"C:\\Data", true}}), S_OK);
    EXPECT_EQ(ntsim::ports::ConnectionCount(u"\\Velmora_DriverPort"), 2u);

    EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    loaded_ = false;
    EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);
    EXPECT_EQ(ntsim::ports::ServerPortCount(), 0u);
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);
}

}  // namespace
}  // namespace foldermerge::testing
