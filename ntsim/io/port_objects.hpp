// Inside ntsim's communication ports: the server port, the connection behind a client port and a
// user-mode port handle, the messages in flight, and the entry points that the user-mode filter
// library (ntsim/user) calls as its system services. Not for code outside ntsim/io and ntsim/user.
//
// Locks: the registry's mutex, then a connection's mutex; never the other way round, and no
// notification of a filter is called with either held.
//
// Waits: every waiting thread has a condition variable of its own (a sender its message's, a
// FilterGetMessage its reader's), used with the connection's mutex, and a change wakes only the
// threads it concerns: a reply or a take wakes the message's sender, a message handed over wakes
// its reader, the connection's end wakes every reader and every sender of a message in flight, a
// termination the senders of that thread.
#pragma once

#include <fltKernel.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

struct _FLT_PORT {
    enum class Kind { Server, Client };
    explicit _FLT_PORT(Kind portKind) : kind(portKind) {}
    const Kind kind;
};

namespace ntsim::ports {

// One entry of a server port's access list, copied from its security descriptor.
struct AccessEntry {
    bool allow = true;
    ACCESS_MASK mask = 0;
    std::vector<UCHAR> sid;
};

struct ServerPort : _FLT_PORT {
    ServerPort() : _FLT_PORT(Kind::Server) {}

    PFLT_FILTER filter = nullptr;
    std::u16string name;
    PVOID cookie = nullptr;
    PFLT_CONNECT_NOTIFY connectNotify = nullptr;
    PFLT_DISCONNECT_NOTIFY disconnectNotify = nullptr;
    PFLT_MESSAGE_NOTIFY messageNotify = nullptr;
    LONG maxConnections = 0;
    bool hasDacl = false;  // false: everyone may connect
    std::vector<AccessEntry> dacl;

    // Under the registry's mutex.
    bool open = true;
    LONG connections = 0;  // counted toward maxConnections
};

// One FltSendMessage in flight.
struct Message {
    enum class State {
        Queued,     // waiting for a FilterGetMessage
        Delivered,  // taken; waiting for FilterReplyMessage when it has a reply buffer
        Replied,
    };
    ULONGLONG id = 0;
    std::vector<UCHAR> body;
    void* reply = nullptr;  // the sender's kernel buffer, or null
    ULONG replyCapacity = 0;
    ULONG replyLength = 0;  // bytes that arrived
    State state = State::Queued;
    HANDLE sender = nullptr;  // the sending thread's id
    // The sender waits on it (with the connection's mutex) for its message to be taken or answered,
    // the connection to end or its thread to be terminated.
    std::condition_variable_any settled;
};

// A connection, seen by the filter as its client port.
struct Connection : _FLT_PORT {
    explicit Connection(std::shared_ptr<ServerPort> serverPort)
        : _FLT_PORT(Kind::Client), server(std::move(serverPort))
    {
    }

    const std::shared_ptr<ServerPort> server;
    PVOID cookie = nullptr;  // set by the connect notification, before any client can use it

    std::mutex mutex;
    // Under mutex.
    bool ended = false;          // no traffic any more: the client left, the filter closed it or unregistered
    bool clientClosed = false;   // the client's last handle is closed
    bool disconnectDue = false;  // the disconnect notification is claimed: it runs at most once
    // Messages not yet taken, oldest first. A sender only queues when no reader waits, so the queue
    // and the readers are never both non-empty.
    std::deque<std::shared_ptr<Message>> queue;
    // FilterGetMessage calls waiting for a message, first come first served; a sender hands its
    // message straight to the first of them and wakes that one only. Shared, so that a notifier may
    // wake it after letting go of the mutex.
    struct Reader {
        std::shared_ptr<Message> message;
        std::condition_variable_any wake;  // a message was handed over, or the connection ended
    };
    std::deque<std::shared_ptr<Reader>> readers;
    // Messages taken whose senders wait for a reply, by id.
    std::map<ULONGLONG, std::shared_ptr<Message>> awaitingReply;
};

struct Registry {
    std::mutex mutex;
    std::map<const _FLT_PORT*, std::shared_ptr<ServerPort>> servers;  // open server ports
    std::map<const _FLT_PORT*, std::shared_ptr<Connection>> clients;  // client ports not closed by the filter
};
Registry& GetRegistry();

// Whether the calling thread's token may connect to server (FLT_PORT_CONNECT by its DACL).
bool MayConnect(const ServerPort& server);

// Ends a connection: no traffic from now on, messages in flight are dropped, every waiter wakes
// (each reader, and the sender of each message in flight), and its place among the server's
// connections is freed. True when this call ended it.
bool EndConnection(Connection& connection);
// Claims the one disconnect notification of a connection; true when the caller must run it.
bool ClaimDisconnect(Connection& connection);
void RunDisconnectNotify(Connection& connection);

// Wakes the FltSendMessage waits of the thread threadId on every connection (its termination was
// requested).
void WakeSendersOfThread(HANDLE threadId);

// ---- system services of the user-mode filter library ----
// These run in the calling simulated thread; buffers are in the calling process's user memory.

// Connects to the server port `name`; on success *handle is a port handle in the calling process.
// STATUS_OBJECT_NAME_NOT_FOUND, STATUS_ACCESS_DENIED, STATUS_CONNECTION_COUNT_LIMIT, or the
// connect notification's failure.
NTSTATUS ConnectToPort(std::u16string_view name, const void* context, USHORT sizeOfContext, HANDLE* handle);
// The connection behind a port handle of the calling process, or null (STATUS_INVALID_HANDLE).
std::shared_ptr<Connection> ConnectionFromHandle(HANDLE handle);
// FilterGetMessage: waits for a message; writes the FILTER_MESSAGE_HEADER and the body.
NTSTATUS GetPortMessage(HANDLE handle, void* buffer, ULONG size);
// FilterReplyMessage: buffer starts with FILTER_REPLY_HEADER.
NTSTATUS ReplyPortMessage(HANDLE handle, const void* buffer, ULONG size);
// FilterSendMessage: calls the message notification in the calling thread.
NTSTATUS SendPortMessage(HANDLE handle, void* input, ULONG inputSize, void* output, ULONG outputSize,
                         ULONG* bytesReturned);

}  // namespace ntsim::ports
