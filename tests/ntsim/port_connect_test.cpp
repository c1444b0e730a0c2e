// Server ports and connections: creation rules, the connect and disconnect notifications, the
// connection limit, the security descriptor, and the ends of a connection from either side.
#include "port_testfilter.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/verifier.hpp>

#include <thread>

using namespace porttest;

namespace {

class PortConnectTest : public PortFixture {};

TEST_F(PortConnectTest, CreationNeedsAKernelHandleConnectionsAndAFreeName)
{
    Load();
    PFLT_PORT port = nullptr;
    EXPECT_EQ(CreatePort(&port, L"\\Other", 1, false, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CreatePort(&port, L"\\Other", 0, false), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CreatePort(&port, L"\\porttest", 1, false), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(ntsim::ports::ServerPortCount(), 1u);

    ASSERT_EQ(CreatePort(&port, L"\\Other", 1, false), STATUS_SUCCESS);
    FltCloseCommunicationPort(port);
    // The name is free again once its port is closed.
    ASSERT_EQ(CreatePort(&port, L"\\Other", 1, false), STATUS_SUCCESS);
    FltCloseCommunicationPort(port);

    ntsim::faults::FailRoutine("FltCreateCommunicationPort", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(CreatePort(&port, L"\\Other", 1, false), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(PortConnectTest, ConnectNotificationSeesTheClientsContextInTheClientsThread)
{
    Load();
    AttachToService();
    const UCHAR four[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    const UCHAR eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    HANDLE thread = nullptr, config = nullptr, other = nullptr;
    ASSERT_EQ(ConnectService(&thread, four, sizeof(four)), S_OK);
    ASSERT_EQ(ConnectService(&config), S_OK);
    EXPECT_EQ(ConnectService(&other, eight, sizeof(eight)), HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT));

    FilterState& state = State();
    ASSERT_EQ(state.connects.size(), 2u);
    EXPECT_FALSE(state.connects[0].contextNull);
    EXPECT_EQ(state.connects[0].sizeOfContext, 4u);
    EXPECT_EQ(state.connects[0].context, std::vector<UCHAR>(four, four + 4));
    EXPECT_TRUE(state.connects[1].contextNull);
    EXPECT_EQ(state.connects[1].sizeOfContext, 0u);
    for (const ConnectRecord& record : state.connects) {
        EXPECT_EQ(record.processId, service_->Id());
        EXPECT_EQ(record.threadId, PsGetCurrentThreadId());
        EXPECT_EQ(record.irql, PASSIVE_LEVEL);
    }
    EXPECT_NE(state.connects[0].clientPort, state.connects[1].clientPort);
    EXPECT_EQ(service_->HandleCount(), 2u);

    // Pointer and size go together.
    EXPECT_EQ(ConnectService(&other, nullptr, 4), E_INVALIDARG);
    EXPECT_EQ(FilterConnectCommunicationPort(kPortName, 0, four, 0, nullptr, &other), E_INVALIDARG);
    EXPECT_EQ(FilterConnectCommunicationPort(L"\\NoSuchPort", 0, nullptr, 0, nullptr, &other),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));

    EXPECT_TRUE(CloseHandle(thread));
    EXPECT_TRUE(CloseHandle(config));
    EXPECT_FALSE(CloseHandle(config));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(PortConnectTest, ConnectionLimitCountsLiveConnectionsOnly)
{
    Load();
    AttachToService();
    HANDLE first = nullptr, second = nullptr, third = nullptr;
    ASSERT_EQ(ConnectService(&first), S_OK);
    ASSERT_EQ(ConnectService(&second), S_OK);
    EXPECT_EQ(ConnectService(&third), HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT));
    EXPECT_EQ(State().connects.size(), 2u) << "a refused connection reaches no notification";

    ASSERT_TRUE(CloseHandle(first));
    ASSERT_EQ(State().DisconnectCount(), 1u);
    EXPECT_EQ(State().disconnects[0].cookie, State().connects[0].clientPort);
    EXPECT_EQ(State().disconnects[0].threadId, PsGetCurrentThreadId());
    ASSERT_EQ(ConnectService(&third), S_OK);

    // A connection the filter closed itself also frees its place.
    PFLT_PORT port = State().ClientOf(1);
    {
        std::lock_guard lock(State().mutex);
        std::erase(State().openClients, port);
    }
    FltCloseClientPort(State().filter, &port);
    EXPECT_EQ(port, nullptr);
    HANDLE fourth = nullptr;
    ASSERT_EQ(ConnectService(&fourth), S_OK);
    EXPECT_EQ(ntsim::ports::ConnectionCount(kPortName16), 2u);

    // Closing the handle of a connection the filter closed brings no notification.
    const size_t disconnects = State().DisconnectCount();
    EXPECT_TRUE(CloseHandle(second));
    EXPECT_EQ(State().DisconnectCount(), disconnects);
    EXPECT_TRUE(CloseHandle(third));
    EXPECT_TRUE(CloseHandle(fourth));
}

TEST_F(PortConnectTest, ConnectNotificationCanRefuseWithItsStatus)
{
    State().maxConnections = 1;
    Load();
    AttachToService();
    State().connectResult = STATUS_ACCESS_DENIED;
    HANDLE port = nullptr;
    EXPECT_EQ(ConnectService(&port), E_ACCESSDENIED);
    EXPECT_EQ(port, nullptr);
    State().connectResult = STATUS_INSUFFICIENT_RESOURCES;
    EXPECT_EQ(ConnectService(&port), HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(service_->HandleCount(), 0u);
    EXPECT_EQ(State().DisconnectCount(), 0u);

    // The refused connections took no place among the one allowed.
    State().connectResult = STATUS_SUCCESS;
    ASSERT_EQ(ConnectService(&port), S_OK);
    EXPECT_TRUE(CloseHandle(port));
}

TEST_F(PortConnectTest, ClosedServerPortRefusesNewConnectionsAndKeepsTheOldOnes)
{
    Load();
    AttachToService();
    HANDLE port = nullptr;
    ASSERT_EQ(ConnectService(&port), S_OK);
    FltCloseCommunicationPort(State().serverPort);
    State().serverPort = nullptr;

    HANDLE late = nullptr;
    EXPECT_EQ(ConnectService(&late), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));

    // The old connection still carries messages both ways.
    UCHAR seen = 0;
    State().onMessage = [&](PVOID input, ULONG, PVOID, ULONG, PULONG) {
        seen = *static_cast<UCHAR*>(input);
        return STATUS_SUCCESS;
    };
    UserBuffer input(1);
    input.data()[0] = 0x5A;
    DWORD returned = 7;
    EXPECT_EQ(FilterSendMessage(port, input.data(), 1, nullptr, 0, &returned), S_OK);
    EXPECT_EQ(seen, 0x5A);
    EXPECT_EQ(returned, 0u);

    PFLT_PORT client = State().ClientOf(0);
    NTSTATUS sent = STATUS_PENDING;
    std::thread sender([&] {
        ntsim::AttachThread attach(app_);
        UCHAR byte = 1;
        sent = FltSendMessage(State().filter, &client, &byte, 1, nullptr, nullptr, nullptr);
    });
    UserBuffer message(32);
    EXPECT_EQ(FilterGetMessage(port, message.as<FILTER_MESSAGE_HEADER>(), message.size(), nullptr), S_OK);
    sender.join();
    EXPECT_EQ(sent, STATUS_SUCCESS);

    EXPECT_TRUE(CloseHandle(port));
    EXPECT_EQ(State().DisconnectCount(), 1u);
}

TEST_F(PortConnectTest, DefaultSecurityDescriptorAdmitsLocalSystemAndAdministratorsOnly)
{
    State().defaultSecurity = true;
    Load();
    HANDLE port = nullptr;
    {
        ntsim::AttachThread user(app_);  // an ordinary user
        EXPECT_EQ(ConnectService(&port), E_ACCESSDENIED);
        // Impersonating Local System is enough.
        ntsim::ScopedImpersonation system(ntsim::CreateToken(u"S-1-5-18", TokenImpersonation));
        ASSERT_EQ(ConnectService(&port), S_OK);
        EXPECT_TRUE(CloseHandle(port));
    }
    auto admins = ntsim::CreateProcess({.userSid = u"S-1-5-32-544"});
    {
        ntsim::AttachThread admin(admins);
        ASSERT_EQ(ConnectService(&port), S_OK);
        EXPECT_TRUE(CloseHandle(port));
    }
    AttachToService();
    ASSERT_EQ(ConnectService(&port), S_OK);
    EXPECT_TRUE(CloseHandle(port));
    EXPECT_EQ(State().connects.size(), 3u);
}

TEST_F(PortConnectTest, ProcessEndClosesItsPortHandles)
{
    Load();
    auto shortLived = ntsim::CreateProcess({.userSid = u"S-1-5-18"});
    {
        ntsim::SimulatedThread thread(shortLived, [&] {
            HANDLE port = nullptr;
            ASSERT_EQ(FilterConnectCommunicationPort(kPortName, 0, nullptr, 0, nullptr, &port), S_OK);
        });
    }
    EXPECT_EQ(State().DisconnectCount(), 0u);
    shortLived.reset();
    EXPECT_EQ(State().DisconnectCount(), 1u);
    EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);
}

TEST_F(PortConnectTest, FilterClosingTheClientPortEndsTheServicesWaitWithoutNotification)
{
    Load();
    AttachToService();
    HANDLE port = nullptr;
    ASSERT_EQ(ConnectService(&port), S_OK);
    PFLT_PORT client = State().ClientOf(0);
    {
        std::lock_guard lock(State().mutex);
        State().openClients.clear();
    }
    std::thread closer([&] {
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
        FltCloseClientPort(State().filter, &client);
    });
    UserBuffer message(64);
    EXPECT_EQ(FilterGetMessage(port, message.as<FILTER_MESSAGE_HEADER>(), message.size(), nullptr),
              HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED));
    closer.join();
    EXPECT_EQ(client, nullptr);
    // The connection is over for the service too.
    EXPECT_EQ(FilterGetMessage(port, message.as<FILTER_MESSAGE_HEADER>(), message.size(), nullptr),
              HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    DWORD returned = 0;
    EXPECT_EQ(FilterSendMessage(port, message.data(), 8, nullptr, 0, &returned), HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(CloseHandle(port));
    EXPECT_EQ(State().DisconnectCount(), 0u);
}

TEST_F(PortConnectTest, UnloadDisconnectsRemainingClients)
{
    Load();
    AttachToService();
    HANDLE first = nullptr, second = nullptr;
    ASSERT_EQ(ConnectService(&first), S_OK);
    ASSERT_EQ(ConnectService(&second), S_OK);
    Unload();
    ASSERT_EQ(State().DisconnectCount(), 2u);
    for (const DisconnectRecord& record : State().disconnects) {
        EXPECT_EQ(record.threadId, PsGetCurrentThreadId());  // the unloading thread
    }
    UserBuffer message(64);
    EXPECT_EQ(FilterGetMessage(first, message.as<FILTER_MESSAGE_HEADER>(), message.size(), nullptr),
              HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_TRUE(CloseHandle(second));
    EXPECT_EQ(State().DisconnectCount(), 2u) << "each connection is notified once";
}

TEST_F(PortConnectTest, VerifierReportsPortsTheFilterLeftOpenAtUnload)
{
    State().closeServerPortAtUnload = false;
    State().closeClientOnDisconnect = false;
    Load();
    AttachToService();
    HANDLE port = nullptr;
    ASSERT_EQ(ConnectService(&port), S_OK);
    ntsim::verifier::BugCheckCapture capture;
    Unload();
    EXPECT_TRUE(capture.Consume(ntsim::ports::rules::kServerPortLeftOpen));
    EXPECT_TRUE(capture.Consume(ntsim::ports::rules::kClientPortLeftOpen));
    EXPECT_EQ(capture.Count(), 0u);
    EXPECT_TRUE(CloseHandle(port));
}

}  // namespace
