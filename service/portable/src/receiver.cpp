// Worker threads of the Thread port.
#include <foldermerge/service/receiver.hpp>

#include <servicerequests.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace foldermerge::service {

std::span<const uint8_t> IncomingRequest::Bytes() const
{
    if (message.size() < SERVICE_REQUEST_HEAD_SIZE) {
        return message;
    }
    uint32_t messageLength;
    std::memcpy(&messageLength, message.data() + offsetof(ServiceRequestMessage, MessageLength),
                sizeof(messageLength));
    const bool plausible = messageLength >= SERVICE_REQUEST_HEAD_SIZE && messageLength <= message.size();
    return message.first(plausible ? messageLength : SERVICE_REQUEST_HEAD_SIZE);
}

RequestReceiver::RequestReceiver(HANDLE port, RequestHandler handler, unsigned workers, size_t bufferSize,
                                 ThreadStarter starter, ReplyObserver observer)
    : port_(port),
      handler_(std::move(handler)),
      observer_(std::move(observer)),
      bufferSize_(std::max(bufferSize, sizeof(FILTER_MESSAGE_HEADER)))
{
    if (!starter) {
        starter = [](std::function<void()> body) { return std::thread(std::move(body)); };
    }
    for (unsigned i = 0; i < workers; ++i) {
        workers_.push_back(starter([this] { Work(); }));
    }
}

RequestReceiver::~RequestReceiver()
{
    Join();
}

void RequestReceiver::Join()
{
    for (std::thread& worker : workers_) {
        if (worker.joinable()) {
            worker.join();
        }
    }
}

void RequestReceiver::Work()
{
    HeapBuffer buffer(bufferSize_);
    HeapBuffer answer;
    // The message header and a request's head are cleared before each message, so that a short
    // message never shows the head of an earlier one.
    const size_t cleared = std::min(buffer.size(), sizeof(FILTER_MESSAGE_HEADER) + SERVICE_REQUEST_HEAD_SIZE);
    for (;;) {
        std::memset(buffer.data(), 0, cleared);
        const HRESULT got =
            FilterGetMessage(port_, buffer.as<FILTER_MESSAGE_HEADER>(), buffer.dwordSize(), nullptr);
        const bool truncated = got == HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
        if (FAILED(got) && !truncated) {
            return;  // the port closed or its connection ended
        }
        ++received_;
        const FILTER_MESSAGE_HEADER header = *buffer.as<FILTER_MESSAGE_HEADER>();
        IncomingRequest request;
        request.messageId = header.MessageId;
        request.replyCapacity =
            header.ReplyLength > sizeof(FILTER_REPLY_HEADER) ? header.ReplyLength - sizeof(FILTER_REPLY_HEADER) : 0;
        request.message = buffer.bytes().subspan(sizeof(FILTER_MESSAGE_HEADER));
        request.truncated = truncated;
        std::optional<std::vector<uint8_t>> reply = handler_(request);
        if (!reply || header.ReplyLength == 0) {
            if (observer_) {
                observer_(request, std::nullopt);
            }
            continue;
        }
        const size_t size = sizeof(FILTER_REPLY_HEADER) + reply->size();
        if (answer.size() < size) {
            answer = HeapBuffer(size);
        }
        auto* head = answer.as<FILTER_REPLY_HEADER>();
        head->Status = 0;
        if (reply->size() >= sizeof(NTSTATUS)) {
            std::memcpy(&head->Status, reply->data(), sizeof(NTSTATUS));
        }
        head->MessageId = header.MessageId;
        if (!reply->empty()) {
            std::memcpy(answer.data() + sizeof(FILTER_REPLY_HEADER), reply->data(), reply->size());
        }
        const HRESULT replied = FilterReplyMessage(port_, head, static_cast<DWORD>(size));
        if (SUCCEEDED(replied)) {
            {
                std::lock_guard lock(answeredLock_);
                ++answered_;
            }
            answeredChanged_.notify_all();
        } else {
            ++refused_;
        }
        if (observer_) {
            observer_(request, replied);
        }
    }
}

bool RequestReceiver::WaitForAnswered(uint64_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(answeredLock_);
    return answeredChanged_.wait_for(lock, timeout, [&] { return answered_ >= count; });
}

}  // namespace foldermerge::service
