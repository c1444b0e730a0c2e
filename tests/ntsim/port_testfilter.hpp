// A small minifilter with one communication server port, for the tests of ntsim's ports, and a
// fixture that loads it and makes a service process (Local System) for the client side.
//
// The filter records every notification; the cookie of a connection is its client port, and the
// disconnect notification closes that port unless the test says otherwise.
#pragma once

#include <gtest/gtest.h>

#include <fltKernel.h>
#include <fltUser.h>
#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/ports.hpp>
#include <ntsim/sim/process.hpp>
#include <userbuffer.hpp>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace porttest {

inline constexpr const WCHAR* kPortName = L"\\PortTest";
inline constexpr std::u16string_view kPortName16 = u"\\PortTest";
inline constexpr std::u16string_view kFilterName = u"PortTestFilter";

struct ConnectRecord {
    PFLT_PORT clientPort = nullptr;
    bool contextNull = true;
    std::vector<UCHAR> context;
    ULONG sizeOfContext = 0;
    HANDLE processId = nullptr;
    HANDLE threadId = nullptr;
    KIRQL irql = 0xFF;
};

struct DisconnectRecord {
    PVOID cookie = nullptr;
    HANDLE threadId = nullptr;
};

using MessageHandler = std::function<NTSTATUS(PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                                              PULONG returned)>;

// What the filter saw and what the test scripts (set before the filter is loaded or between calls).
struct FilterState {
    PFLT_FILTER filter = nullptr;
    PFLT_PORT serverPort = nullptr;
    std::mutex mutex;
    std::vector<ConnectRecord> connects;
    std::vector<DisconnectRecord> disconnects;
    std::vector<PFLT_PORT> openClients;  // connected and not yet closed by the filter

    LONG maxConnections = 2;
    bool defaultSecurity = false;
    bool closeServerPortAtUnload = true;
    bool closeClientOnDisconnect = true;
    NTSTATUS connectResult = STATUS_SUCCESS;
    MessageHandler onMessage;

    // The open client port of the n-th successful connection, or null.
    PFLT_PORT ClientOf(size_t n)
    {
        std::lock_guard lock(mutex);
        size_t seen = 0;
        for (const ConnectRecord& record : connects) {
            if (record.clientPort != nullptr && seen++ == n) {
                return record.clientPort;
            }
        }
        return nullptr;
    }
    size_t DisconnectCount()
    {
        std::lock_guard lock(mutex);
        return disconnects.size();
    }
};

inline FilterState& State()
{
    static FilterState state;
    return state;
}

inline NTSTATUS FLTAPI Connect(PFLT_PORT ClientPort, PVOID, PVOID ConnectionContext, ULONG SizeOfContext,
                               PVOID* ConnectionPortCookie)
{
    FilterState& state = State();
    ConnectRecord record;
    record.contextNull = ConnectionContext == nullptr;
    record.sizeOfContext = SizeOfContext;
    if (ConnectionContext != nullptr) {
        const auto* bytes = static_cast<const UCHAR*>(ConnectionContext);
        record.context.assign(bytes, bytes + SizeOfContext);
    }
    record.processId = PsGetCurrentProcessId();
    record.threadId = PsGetCurrentThreadId();
    record.irql = KeGetCurrentIrql();
    std::lock_guard lock(state.mutex);
    if (!NT_SUCCESS(state.connectResult)) {
        state.connects.push_back(record);
        return state.connectResult;
    }
    record.clientPort = ClientPort;
    state.connects.push_back(record);
    state.openClients.push_back(ClientPort);
    *ConnectionPortCookie = ClientPort;
    return STATUS_SUCCESS;
}

inline VOID FLTAPI Disconnect(PVOID ConnectionCookie)
{
    FilterState& state = State();
    PFLT_PORT port = nullptr;
    {
        std::lock_guard lock(state.mutex);
        state.disconnects.push_back({ConnectionCookie, PsGetCurrentThreadId()});
        if (!state.closeClientOnDisconnect) {
            return;
        }
        for (auto it = state.openClients.begin(); it != state.openClients.end(); ++it) {
            if (*it == ConnectionCookie) {
                port = *it;
                state.openClients.erase(it);
                break;
            }
        }
    }
    if (port != nullptr) {
        FltCloseClientPort(state.filter, &port);
    }
}

inline NTSTATUS FLTAPI Message(PVOID, PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                               ULONG OutputBufferLength, PULONG ReturnOutputBufferLength)
{
    if (!State().onMessage) {
        return STATUS_SUCCESS;
    }
    return State().onMessage(InputBuffer, InputBufferLength, OutputBuffer, OutputBufferLength,
                             ReturnOutputBufferLength);
}

inline NTSTATUS FLTAPI Unload(FLT_FILTER_UNLOAD_FLAGS)
{
    FilterState& state = State();
    if (state.closeServerPortAtUnload && state.serverPort != nullptr) {
        FltCloseCommunicationPort(state.serverPort);
        state.serverPort = nullptr;
    }
    FltUnregisterFilter(state.filter);
    return STATUS_SUCCESS;
}

inline NTSTATUS CreatePort(PFLT_PORT* port, const WCHAR* name, LONG maxConnections, bool defaultSecurity,
                           ULONG attributes = OBJ_KERNEL_HANDLE)
{
    UNICODE_STRING portName;
    RtlInitUnicodeString(&portName, name);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (defaultSecurity) {
        NTSTATUS status = FltBuildDefaultSecurityDescriptor(&descriptor, FLT_PORT_ALL_ACCESS);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    OBJECT_ATTRIBUTES attributesRecord;
    InitializeObjectAttributes(&attributesRecord, &portName, attributes | OBJ_CASE_INSENSITIVE, nullptr, descriptor);
    NTSTATUS status = FltCreateCommunicationPort(State().filter, port, &attributesRecord, nullptr, Connect, Disconnect,
                                                 Message, maxConnections);
    if (descriptor != nullptr) {
        FltFreeSecurityDescriptor(descriptor);  // the port keeps a copy
    }
    return status;
}

inline NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    static const FLT_OPERATION_REGISTRATION operations[] = {{IRP_MJ_OPERATION_END}};
    static const FLT_REGISTRATION registration = {
        .Size = sizeof(FLT_REGISTRATION),
        .Version = FLT_REGISTRATION_VERSION,
        .OperationRegistration = operations,
        .FilterUnloadCallback = Unload,
    };
    FilterState& state = State();
    NTSTATUS status = FltRegisterFilter(driver, &registration, &state.filter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreatePort(&state.serverPort, kPortName, state.maxConnections, state.defaultSecurity);
    if (!NT_SUCCESS(status)) {
        FltUnregisterFilter(state.filter);
    }
    return status;
}

// Loads the filter (after the test has set its options with Options()) and gives the test a
// service process running as Local System. The test's own thread is the service's while `attach`
// is set; the filter's sends come from other threads.
class PortFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        FilterState& state = State();
        std::lock_guard lock(state.mutex);
        state.connects.clear();
        state.disconnects.clear();
        state.openClients.clear();
        state.maxConnections = 2;
        state.defaultSecurity = false;
        state.closeServerPortAtUnload = true;
        state.closeClientOnDisconnect = true;
        state.connectResult = STATUS_SUCCESS;
        state.onMessage = nullptr;
        service_ = ntsim::CreateProcess({.imageFileName = u"\\Device\\HarddiskVolume2\\Program Files\\svc.exe",
                                         .userSid = u"S-1-5-18"});
        app_ = ntsim::CreateProcess({});
    }

    void Load()
    {
        ASSERT_EQ(ntsim::LoadFilter(DriverEntry, {.name = std::u16string(kFilterName), .altitude = u"385100"}),
                  STATUS_SUCCESS);
        loaded_ = true;
    }

    void Unload()
    {
        ASSERT_TRUE(loaded_);
        loaded_ = false;
        EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        attach_.reset();
        if (loaded_) {
            Unload();
        }
        EXPECT_EQ(ntsim::ports::ServerPortCount(), 0u);
        EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);
    }

    // Makes the test's thread a thread of the service process.
    void AttachToService() { attach_.emplace(service_); }

    // Connects from the calling thread (which must be the service's) with an optional context.
    HRESULT ConnectService(HANDLE* port, const void* context = nullptr, WORD size = 0)
    {
        return FilterConnectCommunicationPort(kPortName, 0, context, size, nullptr, port);
    }

    std::shared_ptr<ntsim::Process> service_;
    std::shared_ptr<ntsim::Process> app_;
    std::optional<ntsim::AttachThread> attach_;
    bool loaded_ = false;
};

// The loaded test filter with the service connected on one port, and the service's reply.
class ConnectedPortFixture : public PortFixture {
protected:
    void SetUp() override
    {
        PortFixture::SetUp();
        Load();
        AttachToService();
        ASSERT_EQ(ConnectService(&port_), S_OK);
    }
    void TearDown() override
    {
        if (port_ != nullptr) {
            EXPECT_TRUE(CloseHandle(port_));
        }
        PortFixture::TearDown();
    }

    // Replies to message id with FILTER_REPLY_HEADER (status) followed by bytes.
    HRESULT Reply(ULONGLONG id, const std::vector<UCHAR>& bytes, NTSTATUS status = STATUS_SUCCESS)
    {
        UserBuffer reply(sizeof(FILTER_REPLY_HEADER) + bytes.size());
        reply.as<FILTER_REPLY_HEADER>()->Status = status;
        reply.as<FILTER_REPLY_HEADER>()->MessageId = id;
        std::copy(bytes.begin(), bytes.end(), reply.data() + sizeof(FILTER_REPLY_HEADER));
        return FilterReplyMessage(port_, reply.as<FILTER_REPLY_HEADER>(), reply.size());
    }

    HANDLE port_ = nullptr;
};

template <typename T>
T ReadAt(const UCHAR* bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes + offset, sizeof(T));
    return value;
}

}  // namespace porttest
