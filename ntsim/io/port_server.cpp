// Communication server ports: FltCreateCommunicationPort, FltCloseCommunicationPort, the port
// namespace and the access check of a connection.
#include "port_objects.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/ports.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>

namespace ntsim::ports {

namespace {

constexpr USHORT kDaclPresent = 0x0004;
constexpr USHORT kSelfRelative = 0x8000;
constexpr UCHAR kAccessAllowedAceType = 0;
constexpr UCHAR kAccessDeniedAceType = 1;

template <typename T>
T ReadAt(const UCHAR* bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes + offset, sizeof(T));
    return value;
}

// Copies the DACL of a self-relative security descriptor. False for a descriptor ntsim cannot read.
bool CopyDacl(const UCHAR* descriptor, ServerPort& server)
{
    const auto control = ReadAt<USHORT>(descriptor, 2);
    if ((control & kSelfRelative) == 0) {
        return false;
    }
    const auto daclOffset = ReadAt<ULONG>(descriptor, 16);
    if ((control & kDaclPresent) == 0 || daclOffset == 0) {
        server.hasDacl = false;  // no DACL: everyone
        return true;
    }
    server.hasDacl = true;
    const UCHAR* acl = descriptor + daclOffset;
    const auto aceCount = ReadAt<USHORT>(acl, 4);
    const UCHAR* ace = acl + 8;
    for (USHORT index = 0; index < aceCount; ++index) {
        const UCHAR type = ace[0];
        const auto aceSize = ReadAt<USHORT>(ace, 2);
        if (type == kAccessAllowedAceType || type == kAccessDeniedAceType) {
            AccessEntry entry;
            entry.allow = type == kAccessAllowedAceType;
            entry.mask = ReadAt<ACCESS_MASK>(ace, 4);
            const UCHAR* sid = ace + 8;
            entry.sid.assign(sid, sid + 8 + 4 * static_cast<size_t>(sid[1]));
            server.dacl.push_back(std::move(entry));
        }
        ace += aceSize;
    }
    return true;
}

}  // namespace

Registry& GetRegistry()
{
    static Registry registry;
    return registry;
}

bool MayConnect(const ServerPort& server)
{
    if (!server.hasDacl) {
        return true;
    }
    std::shared_ptr<Token> token = CurrentImpersonationToken();
    if (token == nullptr) {
        token = CurrentProcess().PrimaryToken();
    }
    const auto* user = static_cast<const UCHAR*>(token->UserSid());
    const std::vector<UCHAR> userSid(user, user + token->UserSidLength());
    // Entries in order; the first that names the user and the connect right decides.
    constexpr ACCESS_MASK kConnectRights = FLT_PORT_CONNECT | GENERIC_ALL | GENERIC_READ | GENERIC_WRITE;
    for (const AccessEntry& entry : server.dacl) {
        if (entry.sid == userSid && (entry.mask & kConnectRights) != 0) {
            return entry.allow;
        }
    }
    return false;
}

size_t ServerPortCount()
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    return registry.servers.size();
}

}  // namespace ntsim::ports

using namespace ntsim;
using namespace ntsim::ports;

extern "C" {

NTSTATUS FLTAPI FltCreateCommunicationPort(PFLT_FILTER Filter, PFLT_PORT* ServerPort,
                                           POBJECT_ATTRIBUTES ObjectAttributes, PVOID ServerPortCookie,
                                           PFLT_CONNECT_NOTIFY ConnectNotifyCallback,
                                           PFLT_DISCONNECT_NOTIFY DisconnectNotifyCallback,
                                           PFLT_MESSAGE_NOTIFY MessageNotifyCallback, LONG MaxConnections)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FltCreateCommunicationPort");
    if (auto failure = faults::Check("FltCreateCommunicationPort")) {
        return *failure;
    }
    if (Filter == nullptr || ServerPort == nullptr || ObjectAttributes == nullptr ||
        ObjectAttributes->ObjectName == nullptr || ObjectAttributes->ObjectName->Length == 0 ||
        (ObjectAttributes->Attributes & OBJ_KERNEL_HANDLE) == 0 || MaxConnections <= 0 ||
        ConnectNotifyCallback == nullptr || DisconnectNotifyCallback == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto server = std::make_shared<ports::ServerPort>();
    server->filter = Filter;
    const UNICODE_STRING& name = *ObjectAttributes->ObjectName;
    server->name.assign(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / sizeof(WCHAR));
    server->cookie = ServerPortCookie;
    server->connectNotify = ConnectNotifyCallback;
    server->disconnectNotify = DisconnectNotifyCallback;
    server->messageNotify = MessageNotifyCallback;
    server->maxConnections = MaxConnections;
    if (ObjectAttributes->SecurityDescriptor != nullptr &&
        !CopyDacl(static_cast<const UCHAR*>(ObjectAttributes->SecurityDescriptor), *server)) {
        return verifier::NotImplemented("FltCreateCommunicationPort with an absolute security descriptor");
    }

    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    for (const auto& [key, other] : registry.servers) {
        if (ob::ObjectNamesEqual(other->name, server->name)) {
            return STATUS_OBJECT_NAME_COLLISION;
        }
    }
    registry.servers.emplace(server.get(), server);
    *ServerPort = server.get();
    return STATUS_SUCCESS;
}

VOID FLTAPI FltCloseCommunicationPort(PFLT_PORT ServerPort)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    auto it = registry.servers.find(ServerPort);
    if (it == registry.servers.end()) {
        verifier::BugCheck(ports::rules::kBadPort, "FltCloseCommunicationPort of a pointer that is no open server port");
        return;
    }
    it->second->open = false;
    registry.servers.erase(it);
}

}  // extern "C"
