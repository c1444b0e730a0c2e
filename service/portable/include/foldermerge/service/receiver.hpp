// The receiving side of the Thread port: worker threads that take the filter's requests, hand each
// to a handler, and send the handler's answer back.
#pragma once

#include <foldermerge/service/port.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

namespace foldermerge::service {

// One request as it came off the port.
struct IncomingRequest {
    ULONGLONG messageId = 0;
    // Bytes the filter's reply buffer holds: the header's ReplyLength less the reply header; 0
    // when the filter waits for no reply.
    ULONG replyCapacity = 0;
    // The message, in the worker's buffer, valid during the handler's call. It holds the whole
    // buffer after the message header: the request's own length field says how much of it is the
    // request.
    std::span<const uint8_t> message;
    // The message was bigger than the worker's buffer and arrived cut.
    bool truncated = false;

    // The request's own bytes in message: as many as its MessageLength says, or the head alone
    // when that length is no request's (all of message when it is shorter than a head).
    std::span<const uint8_t> Bytes() const;
};

// The bytes that follow FILTER_REPLY_HEADER in the answer, that is the reply record as the
// filter reads it (its first four bytes, the record's status, also go into the header's Status);
// or nothing, to leave the request unanswered.
using RequestHandler = std::function<std::optional<std::vector<uint8_t>>(const IncomingRequest&)>;

// Starts a worker: runs body in a new thread of the service process. The default is a plain
// std::thread; a platform whose threads need setting up passes its own.
using ThreadStarter = std::function<std::thread(std::function<void()> body)>;

// Told, in the worker, once the handler's request is dealt with: what FilterReplyMessage returned,
// or nothing when no answer went out (the handler gave none, or the filter waits for no reply).
using ReplyObserver = std::function<void(const IncomingRequest& request, std::optional<HRESULT> replied)>;

class RequestReceiver {
public:
    // Starts `workers` threads taking requests from port with buffers of bufferSize bytes (the
    // message header included). The port stays the caller's.
    RequestReceiver(HANDLE port, RequestHandler handler, unsigned workers, size_t bufferSize,
                    ThreadStarter starter = {}, ReplyObserver observer = {});
    // Joins the workers: they end when the port closes or its connection ends.
    ~RequestReceiver();
    RequestReceiver(const RequestReceiver&) = delete;
    RequestReceiver& operator=(const RequestReceiver&) = delete;

    // Waits for the workers to end (after the port was closed).
    void Join();

    uint64_t received() const { return received_; }
    uint64_t answered() const { return answered_; }
    // Waits until at least count answers went out, or the (real-time) timeout passed: the filter's
    // thread may go on before the worker has counted its answer.
    bool WaitForAnswered(uint64_t count, std::chrono::milliseconds timeout) const;
    // Answers the filter no longer waited for (ERROR_FLT_NO_WAITER_FOR_REPLY) or that failed.
    uint64_t answersRefused() const { return refused_; }

private:
    void Work();

    HANDLE port_;
    RequestHandler handler_;
    ReplyObserver observer_;
    size_t bufferSize_;
    std::atomic<uint64_t> received_{0};
    std::atomic<uint64_t> answered_{0};
    std::atomic<uint64_t> refused_{0};
    mutable std::mutex answeredLock_;
    mutable std::condition_variable answeredChanged_;
    std::vector<std::thread> workers_;
};

}  // namespace foldermerge::service
