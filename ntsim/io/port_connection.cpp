// Connections of communication ports: connecting, the port handle of the client process, the ends
// of a connection (the client's last handle, FltCloseClientPort, the filter's unregistration), and
// the client's messages to the filter (the message notification).
#include "port_objects.hpp"

#include <ntsim/sim/object.hpp>
#include <ntsim/sim/ports.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <deque>
#include <vector>

namespace ntsim::ports {

namespace {

// What a port handle of the client process refers to.
struct PortHandleObject {
    explicit PortHandleObject(std::shared_ptr<Connection> owner) : connection(std::move(owner)) {}
    ~PortHandleObject() { ob::UnregisterSharedObject(this); }
    PortHandleObject(const PortHandleObject&) = delete;
    PortHandleObject& operator=(const PortHandleObject&) = delete;

    std::shared_ptr<Connection> connection;
};

void ClientHandlesClosed(Connection& connection)
{
    {
        std::lock_guard lock(connection.mutex);
        connection.clientClosed = true;
    }
    EndConnection(connection);
    if (ClaimDisconnect(connection)) {
        RunDisconnectNotify(connection);
    }
}

const ob::ObjectType& PortHandleType()
{
    static const ob::ObjectType type(
        u"FilterConnectionPort",
        GENERIC_MAPPING{FLT_PORT_ALL_ACCESS, FLT_PORT_ALL_ACCESS, FLT_PORT_ALL_ACCESS, FLT_PORT_ALL_ACCESS},
        FLT_PORT_ALL_ACCESS, [](void* object, PEPROCESS, ULONG remainingHandles) {
            if (remainingHandles == 0) {
                ClientHandlesClosed(*static_cast<PortHandleObject*>(object)->connection);
            }
        });
    return type;
}

bool IsEnded(Connection& connection)
{
    std::lock_guard lock(connection.mutex);
    return connection.ended;
}

}  // namespace

bool EndConnection(Connection& connection)
{
    // Every thread that waits on the connection: the readers, and the senders of the messages not
    // yet taken or not yet answered (a sender whose message was taken without a reply buffer is
    // done already).
    std::deque<std::shared_ptr<Connection::Reader>> readers;
    std::vector<std::shared_ptr<Message>> senders;
    {
        std::lock_guard lock(connection.mutex);
        if (connection.ended) {
            return false;
        }
        connection.ended = true;
        readers = connection.readers;  // each reader leaves the list itself
        senders.assign(connection.queue.begin(), connection.queue.end());
        for (auto& [id, message] : connection.awaitingReply) {
            senders.push_back(std::move(message));
        }
        connection.queue.clear();
        connection.awaitingReply.clear();
    }
    for (const auto& reader : readers) {
        reader->wake.notify_one();
    }
    for (const auto& message : senders) {
        message->settled.notify_one();
    }
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    --connection.server->connections;
    return true;
}

bool ClaimDisconnect(Connection& connection)
{
    std::lock_guard lock(connection.mutex);
    if (connection.disconnectDue) {
        return false;
    }
    connection.disconnectDue = true;
    return true;
}

void RunDisconnectNotify(Connection& connection)
{
    verifier::CallbackScope scope("DisconnectNotifyCallback");
    connection.server->disconnectNotify(connection.cookie);
}

NTSTATUS ConnectToPort(std::u16string_view name, const void* context, USHORT sizeOfContext, HANDLE* handle)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FilterConnectCommunicationPort");
    Registry& registry = GetRegistry();
    std::shared_ptr<ServerPort> server;
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard lock(registry.mutex);
        for (const auto& [key, candidate] : registry.servers) {
            if (ob::ObjectNamesEqual(candidate->name, name)) {
                server = candidate;
            }
        }
        if (server == nullptr) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if (!MayConnect(*server)) {
            return STATUS_ACCESS_DENIED;
        }
        if (server->connections >= server->maxConnections) {
            return STATUS_CONNECTION_COUNT_LIMIT;
        }
        ++server->connections;
        connection = std::make_shared<Connection>(server);
        registry.clients.emplace(connection.get(), connection);
    }

    // The notification sees a kernel copy of the context, and null/0 when there is none.
    std::vector<UCHAR> copy;
    if (context != nullptr && sizeOfContext != 0) {
        const auto* bytes = static_cast<const UCHAR*>(context);
        copy.assign(bytes, bytes + sizeOfContext);
    }
    PVOID cookie = nullptr;
    NTSTATUS status;
    {
        verifier::CallbackScope scope("ConnectNotifyCallback");
        status = server->connectNotify(connection.get(), server->cookie, copy.empty() ? nullptr : copy.data(),
                                       static_cast<ULONG>(copy.size()), &cookie);
    }
    if (!NT_SUCCESS(status)) {
        // Refused: the client port goes as if the filter had closed it, with no notification.
        {
            std::lock_guard lock(registry.mutex);
            registry.clients.erase(connection.get());
        }
        ClaimDisconnect(*connection);
        EndConnection(*connection);
        return status;
    }
    {
        std::lock_guard lock(connection->mutex);
        connection->cookie = cookie;
    }
    auto object = std::make_shared<PortHandleObject>(connection);
    ob::RegisterSharedObject(object.get(), PortHandleType(), object);
    *handle = ob::InsertHandle(object.get(), FLT_PORT_ALL_ACCESS, 0);
    return STATUS_SUCCESS;
}

std::shared_ptr<Connection> ConnectionFromHandle(HANDLE handle)
{
    void* object = nullptr;
    if (!NT_SUCCESS(ob::ReferenceObjectByHandle(handle, 0, &PortHandleType(), CurrentPreviousMode(), &object))) {
        return nullptr;
    }
    std::shared_ptr<Connection> connection = static_cast<PortHandleObject*>(object)->connection;
    ObDereferenceObject(object);
    return connection;
}

NTSTATUS SendPortMessage(HANDLE handle, void* input, ULONG inputSize, void* output, ULONG outputSize,
                         ULONG* bytesReturned)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FilterSendMessage");
    std::shared_ptr<Connection> connection = ConnectionFromHandle(handle);
    if (connection == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (IsEnded(*connection)) {
        return STATUS_PORT_DISCONNECTED;
    }
    if (connection->server->messageNotify == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    ULONG returned = 0;
    NTSTATUS status;
    {
        verifier::CallbackScope scope("MessageNotifyCallback");
        status = connection->server->messageNotify(connection->cookie, input, inputSize, output, outputSize,
                                                   &returned);
    }
    if (returned > outputSize) {
        verifier::BugCheck(rules::kReturnLengthTooLarge, "the message notification returned " +
                                                             std::to_string(returned) + " bytes for an output buffer of " +
                                                             std::to_string(outputSize));
        returned = outputSize;
    }
    *bytesReturned = NT_SUCCESS(status) ? returned : 0;
    return status;
}

void DisconnectFilterPorts(PFLT_FILTER filter)
{
    Registry& registry = GetRegistry();
    std::vector<std::shared_ptr<ServerPort>> servers;
    std::vector<std::shared_ptr<Connection>> connections;
    {
        std::lock_guard lock(registry.mutex);
        for (const auto& [key, server] : registry.servers) {
            if (server->filter == filter) {
                servers.push_back(server);
            }
        }
        for (const auto& [key, connection] : registry.clients) {
            if (connection->server->filter == filter) {
                connections.push_back(connection);
            }
        }
    }
    for (const auto& connection : connections) {
        EndConnection(*connection);
        if (ClaimDisconnect(*connection)) {
            RunDisconnectNotify(*connection);
        }
    }
    for (const auto& server : servers) {
        verifier::BugCheck(rules::kServerPortLeftOpen,
                           "FltUnregisterFilter with the server port " + ToUtf8(server->name) +
                               " still open (FltCloseCommunicationPort missing)");
        FltCloseCommunicationPort(server.get());
    }
    std::vector<std::shared_ptr<Connection>> leftOpen;
    {
        std::lock_guard lock(registry.mutex);
        for (auto it = registry.clients.begin(); it != registry.clients.end();) {
            if (it->second->server->filter == filter) {
                leftOpen.push_back(it->second);
                it = registry.clients.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (const auto& connection : leftOpen) {
        verifier::BugCheck(rules::kClientPortLeftOpen,
                           "FltUnregisterFilter with a client port of " + ToUtf8(connection->server->name) +
                               " that the filter never closed (FltCloseClientPort missing)");
    }
}

size_t ConnectionCount()
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    size_t count = 0;
    for (const auto& [key, connection] : registry.clients) {
        count += IsEnded(*connection) ? 0 : 1;
    }
    return count;
}

size_t ConnectionCount(std::u16string_view serverPortName)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    size_t count = 0;
    for (const auto& [key, connection] : registry.clients) {
        if (ob::ObjectNamesEqual(connection->server->name, serverPortName)) {
            count += IsEnded(*connection) ? 0 : 1;
        }
    }
    return count;
}

}  // namespace ntsim::ports

using namespace ntsim;
using namespace ntsim::ports;

extern "C" {

VOID FLTAPI FltCloseClientPort(PFLT_FILTER Filter, PFLT_PORT* ClientPort)
{
    if (ClientPort == nullptr) {
        verifier::BugCheck(ports::rules::kBadPort, "FltCloseClientPort with a null ClientPort");
        return;
    }
    std::shared_ptr<Connection> connection;
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        if (*ClientPort == nullptr) {
            return;
        }
        auto it = registry.clients.find(*ClientPort);
        if (it == registry.clients.end()) {
            verifier::BugCheck(ports::rules::kBadPort, "FltCloseClientPort of a pointer that is no open client port");
            return;
        }
        connection = it->second;
        if (connection->server->filter != Filter) {
            verifier::BugCheck(ports::rules::kBadPort, "FltCloseClientPort of a client port of another filter");
        }
        registry.clients.erase(it);
        *ClientPort = nullptr;
    }
    // The filter knows: no disconnect notification comes for this connection any more.
    ClaimDisconnect(*connection);
    EndConnection(*connection);
}

}  // extern "C"
