// Worker threads of the Thread port.
#include <foldermerge/service/receiver.hpp>

#include <algorithm>
#include <cstring>

namespace foldermerge::service {

RequestReceiver::RequestReceiver(HANDLE port, RequestHandler handler, unsigned workers, size_t bufferSize,
                                 ThreadStarter starter)
    : port_(port), handler_(std::move(handler)), bufferSize_(std::max(bufferSize, sizeof(FILTER_MESSAGE_HEADER)))
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
    for (;;) {
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
        if (SUCCEEDED(FilterReplyMessage(port_, head, static_cast<DWORD>(size)))) {
            ++answered_;
        } else {
            ++refused_;
        }
    }
}

}  // namespace foldermerge::service
