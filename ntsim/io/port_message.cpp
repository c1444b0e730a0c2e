// Messages from a filter to its client: FltSendMessage, and the client's FilterGetMessage and
// FilterReplyMessage, with the waits on the virtual clock and the termination of a waiting thread.
#include "port_objects.hpp"

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/ports.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace ntsim::ports {

namespace {

// FILTER_MESSAGE_HEADER and FILTER_REPLY_HEADER (fltUser.h): 16 bytes, the 64-bit MessageId at 8.
constexpr ULONG kHeaderSize = 16;
constexpr size_t kMessageIdOffset = 8;

std::atomic<ULONGLONG> nextMessageId{1};

struct Terminations {
    std::mutex mutex;
    std::map<HANDLE, unsigned> pending;  // by thread id
};

Terminations& GetTerminations()
{
    static Terminations terminations;
    return terminations;
}

bool TerminationPending(HANDLE thread)
{
    Terminations& terminations = GetTerminations();
    std::lock_guard lock(terminations.mutex);
    return terminations.pending.count(thread) != 0;
}

bool ConsumeTermination(HANDLE thread)
{
    Terminations& terminations = GetTerminations();
    std::lock_guard lock(terminations.mutex);
    auto it = terminations.pending.find(thread);
    if (it == terminations.pending.end()) {
        return false;
    }
    if (--it->second == 0) {
        terminations.pending.erase(it);
    }
    return true;
}

// The client has the message (under the connection's mutex).
void TakeMessage(Connection& connection, const std::shared_ptr<Message>& message)
{
    message->state = Message::State::Delivered;
    if (message->reply != nullptr) {
        connection.awaitingReply.emplace(message->id, message);
    }
}

// The sender stops waiting: the message leaves the queue, and a reply is no longer taken.
void WithdrawMessage(Connection& connection, const Message& message)
{
    auto queued = std::find_if(connection.queue.begin(), connection.queue.end(),
                               [&](const auto& candidate) { return candidate.get() == &message; });
    if (queued != connection.queue.end()) {
        connection.queue.erase(queued);
    }
    connection.awaitingReply.erase(message.id);
}

// A buffer the kernel copies to or from must lie in the calling process's user memory (a kernel-mode
// caller is trusted).
bool IsUserBuffer(const void* buffer, ULONG size)
{
    if (size == 0 || CurrentPreviousMode() == KernelMode) {
        return true;
    }
    return buffer != nullptr && CurrentProcess().OwnsUserMemory(buffer, size);
}

// The connection of a client port handle, for a call whose buffer starts with a message or reply
// header: STATUS_INVALID_HANDLE for a handle that is no client port, STATUS_INVALID_PARAMETER for
// a buffer too small for the header, STATUS_ACCESS_VIOLATION for one outside the caller's memory.
NTSTATUS ConnectionForHeaderBuffer(HANDLE handle, const void* buffer, ULONG size,
                                   std::shared_ptr<Connection>* connection)
{
    *connection = ConnectionFromHandle(handle);
    if (*connection == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (buffer == nullptr || size < kHeaderSize) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsUserBuffer(buffer, size)) {
        return STATUS_ACCESS_VIOLATION;
    }
    return STATUS_SUCCESS;
}

}  // namespace

void WakeSendersOfThread(HANDLE threadId)
{
    std::vector<std::shared_ptr<Connection>> connections;
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        for (const auto& [key, connection] : registry.clients) {
            connections.push_back(connection);
        }
    }
    // A waiting sender's message is queued or awaits its reply. Looking under the connection's
    // mutex orders the wake after the sender's last test of its condition.
    std::vector<std::shared_ptr<Message>> senders;
    for (const auto& connection : connections) {
        std::lock_guard lock(connection->mutex);
        for (const auto& message : connection->queue) {
            if (message->sender == threadId) {
                senders.push_back(message);
            }
        }
        for (const auto& [id, message] : connection->awaitingReply) {
            if (message->sender == threadId) {
                senders.push_back(message);
            }
        }
    }
    for (const auto& message : senders) {
        message->settled.notify_one();
    }
}

void TerminateWaits(HANDLE threadId, unsigned waits)
{
    if (waits == 0) {
        return;
    }
    {
        Terminations& terminations = GetTerminations();
        std::lock_guard lock(terminations.mutex);
        terminations.pending[threadId] += waits;
    }
    WakeSendersOfThread(threadId);
}

unsigned PendingTerminations(HANDLE threadId)
{
    Terminations& terminations = GetTerminations();
    std::lock_guard lock(terminations.mutex);
    auto it = terminations.pending.find(threadId);
    return it == terminations.pending.end() ? 0 : it->second;
}

size_t QueuedMessageCount()
{
    std::vector<std::shared_ptr<Connection>> connections;
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        for (const auto& [key, connection] : registry.clients) {
            connections.push_back(connection);
        }
    }
    size_t count = 0;
    for (const auto& connection : connections) {
        std::lock_guard lock(connection->mutex);
        count += connection->queue.size();
    }
    return count;
}

NTSTATUS GetPortMessage(HANDLE handle, void* buffer, ULONG size)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FilterGetMessage");
    std::shared_ptr<Connection> connection;
    if (NTSTATUS status = ConnectionForHeaderBuffer(handle, buffer, size, &connection); !NT_SUCCESS(status)) {
        return status;
    }
    std::shared_ptr<Message> message;
    {
        std::unique_lock lock(connection->mutex);
        if (connection->ended) {
            return STATUS_PORT_DISCONNECTED;
        }
        if (!connection->queue.empty()) {
            message = connection->queue.front();
            connection->queue.pop_front();
            TakeMessage(*connection, message);
        } else {
            auto reader = std::make_shared<Connection::Reader>();
            connection->readers.push_back(reader);
            clock::WaitUntil(lock, reader->wake, clock::kNever,
                             [&] { return reader->message != nullptr || connection->ended; });
            // A sender that handed over its message took the reader off the list already.
            auto self = std::find(connection->readers.begin(), connection->readers.end(), reader);
            if (self != connection->readers.end()) {
                connection->readers.erase(self);
            }
            if (reader->message == nullptr) {
                return STATUS_CANCELLED;  // the connection ended during the wait
            }
            message = std::move(reader->message);
        }
    }
    if (message->reply == nullptr) {
        message->settled.notify_one();  // its sender waited for the take only
    }

    // FILTER_MESSAGE_HEADER, then as much of the message as fits.
    auto* bytes = static_cast<UCHAR*>(buffer);
    const ULONG replyLength = message->reply != nullptr ? message->replyCapacity + kHeaderSize : 0;
    std::memset(bytes, 0, kHeaderSize);
    std::memcpy(bytes, &replyLength, sizeof(replyLength));
    std::memcpy(bytes + kMessageIdOffset, &message->id, sizeof(message->id));
    const size_t room = size - kHeaderSize;
    const size_t copied = std::min(room, message->body.size());
    if (copied != 0) {
        std::memcpy(bytes + kHeaderSize, message->body.data(), copied);
    }
    return copied < message->body.size() ? STATUS_BUFFER_TOO_SMALL : STATUS_SUCCESS;
}

NTSTATUS ReplyPortMessage(HANDLE handle, const void* buffer, ULONG size)
{
    verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "FilterReplyMessage");
    std::shared_ptr<Connection> connection;
    if (NTSTATUS status = ConnectionForHeaderBuffer(handle, buffer, size, &connection); !NT_SUCCESS(status)) {
        return status;
    }
    const auto* bytes = static_cast<const UCHAR*>(buffer);
    ULONGLONG id;
    std::memcpy(&id, bytes + kMessageIdOffset, sizeof(id));
    const ULONG offered = size - kHeaderSize;
    bool cut;
    std::shared_ptr<Message> answered;
    {
        std::lock_guard lock(connection->mutex);
        if (connection->ended) {
            return STATUS_PORT_DISCONNECTED;
        }
        auto it = connection->awaitingReply.find(id);
        if (it == connection->awaitingReply.end()) {
            return STATUS_FLT_NO_WAITER_FOR_REPLY;
        }
        Message& message = *it->second;
        const ULONG delivered = std::min(offered, message.replyCapacity);
        if (delivered != 0) {
            std::memcpy(message.reply, bytes + kHeaderSize, delivered);
        }
        message.replyLength = delivered;
        message.state = Message::State::Replied;
        cut = offered > message.replyCapacity;
        answered = std::move(it->second);
        connection->awaitingReply.erase(it);
    }
    answered->settled.notify_one();
    return cut ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

}  // namespace ntsim::ports

using namespace ntsim;
using namespace ntsim::ports;

extern "C" {

NTSTATUS FLTAPI FltSendMessage(PFLT_FILTER Filter, PFLT_PORT* ClientPort, PVOID SenderBuffer, ULONG SenderBufferLength,
                               PVOID ReplyBuffer, PULONG ReplyLength, PLARGE_INTEGER Timeout)
{
    verifier::AssertNoLocksHeld("FltSendMessage");
    verifier::AssertIrqlAtMost(APC_LEVEL, "FltSendMessage");
    if (auto failure = faults::Check("FltSendMessage")) {
        return *failure;
    }
    if (ClientPort == nullptr || (ReplyBuffer != nullptr && ReplyLength == nullptr) ||
        (SenderBuffer == nullptr && SenderBufferLength != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    std::shared_ptr<Connection> connection;
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        auto it = *ClientPort == nullptr ? registry.clients.end() : registry.clients.find(*ClientPort);
        if (it == registry.clients.end()) {
            return STATUS_PORT_DISCONNECTED;
        }
        connection = it->second;
    }
    if (connection->server->filter != Filter) {
        verifier::BugCheck(ports::rules::kBadPort, "FltSendMessage on a client port of another filter");
    }

    const HANDLE thread = PsGetCurrentThreadId();
    auto message = std::make_shared<Message>();
    message->id = nextMessageId.fetch_add(1);
    if (SenderBufferLength != 0) {
        const auto* sender = static_cast<const UCHAR*>(SenderBuffer);
        message->body.assign(sender, sender + SenderBufferLength);
    }
    message->reply = ReplyBuffer;
    message->replyCapacity = ReplyBuffer != nullptr ? *ReplyLength : 0;
    message->sender = thread;
    const LONGLONG deadline = clock::DeadlineFromTimeout(Timeout);

    std::unique_lock lock(connection->mutex);
    if (connection->ended) {
        return STATUS_PORT_DISCONNECTED;
    }
    if (ConsumeTermination(thread)) {
        return STATUS_THREAD_IS_TERMINATING;
    }
    if (!connection->readers.empty()) {
        std::shared_ptr<Connection::Reader> reader = std::move(connection->readers.front());
        connection->readers.pop_front();
        reader->message = message;
        TakeMessage(*connection, message);
        // The reader is woken with the mutex free, so that it does not wait for this thread's wait.
        lock.unlock();
        reader->wake.notify_one();
        if (ReplyBuffer == nullptr) {
            return STATUS_SUCCESS;  // delivered
        }
        lock.lock();
    } else {
        connection->queue.push_back(message);
    }

    auto finished = [&] {
        return message->state == Message::State::Replied ||
               (ReplyBuffer == nullptr && message->state == Message::State::Delivered) || connection->ended ||
               TerminationPending(thread);
    };
    clock::WaitUntil(lock, message->settled, deadline, finished);

    if (message->state == Message::State::Replied) {
        *ReplyLength = message->replyLength;
        return STATUS_SUCCESS;
    }
    if (ReplyBuffer == nullptr && message->state == Message::State::Delivered) {
        return STATUS_SUCCESS;
    }
    WithdrawMessage(*connection, *message);
    if (connection->ended) {
        return STATUS_PORT_DISCONNECTED;
    }
    if (ConsumeTermination(thread)) {
        return STATUS_THREAD_IS_TERMINATING;
    }
    return STATUS_TIMEOUT;
}

}  // extern "C"
