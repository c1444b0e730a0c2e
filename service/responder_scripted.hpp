// A scripted service for tests, benchmarks and demonstrations: it connects the Thread port, takes
// the filter's requests on its own threads, records each one and answers from rules that the
// caller gives.
//
//     ScriptedResponder service({.portName = u"\\Velmora_DriverPort", .threads = 1});
//     service.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
//                      .reply = {.trackDirtyBlocks = true}});
//     service.AddRule({.path = u"\\Device\\HarddiskVolume2\\Data\\slow.txt", .delay = 5 * ntsim::clock::kMinute});
//     service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_LOCKED, .action = ResponderAction::NoAnswer});
//     ASSERT_EQ(service.Connect(), S_OK);
//     ... the filter sends ...
//     service.WaitForRequests(1);
//     auto requests = service.Requests();
//
// The service runs as a user-mode process of its own (Local System by default, which the port's
// default security admits). Rules are tried in the order they were added; the first that matches a
// request's code and path (compared without regard to case) decides, and a rule with a number of
// uses serves that many requests. A request that no rule matches gets Options::defaultReply.
// Delays run on ntsim's virtual clock: the test advances it. A reply is the FILTER_REPLY_HEADER
// followed by the ServiceReply record at the exact length of its code (request_reply.hpp).
#pragma once

#include <fltUser.h>
#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/process.hpp>

#include "request_reply.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace foldermerge::service {

// What the service does with a request, after the rule's delay.
enum class ResponderAction {
    Answer,      // reply with the rule's content
    NoAnswer,    // take the request and never answer: the filter waits until its time-out
    Disconnect,  // close the Thread port without answering
};

struct ResponderRule {
    std::optional<uint32_t> code;         // any code when empty
    std::optional<std::u16string> path;   // the request's first string; any path when empty
    ReplyContent reply;                   // for ResponderAction::Answer
    // Computes the reply from the request instead of `reply`, when set.
    std::function<ReplyContent(const RequestView&)> answer;
    LONGLONG delay = 0;                   // virtual time, in 100 ns units, before the service acts
    ResponderAction action = ResponderAction::Answer;
    std::optional<size_t> uses;           // requests the rule serves; all when empty
};

struct RecordedRequest {
    std::vector<uint8_t> bytes;        // as the filter sent them (MessageLength bytes)
    std::optional<RequestView> view;   // empty when the bytes are no request
    std::string decodeError;
    uint32_t replyLength = 0;          // the size of the filter's reply buffer
    LONGLONG receivedAt = 0;           // virtual time
    ResponderAction action = ResponderAction::Answer;
    bool answered = false;             // a reply was handed to FilterReplyMessage
    HRESULT replyResult = S_OK;        // what FilterReplyMessage said
};

struct ResponderOptions {
    std::u16string portName = u"\\Velmora_DriverPort";
    size_t threads = 1;  // service threads taking requests from the one Thread port
    std::u16string userSid = u"S-1-5-18";
    std::u16string imageFileName = u"\\Device\\HarddiskVolume2\\Program Files\\FolderMerge\\service.exe";
    ReplyContent defaultReply;  // for a request that no rule matches
    bool record = true;         // keep every request (a benchmark turns this off)
};

class ScriptedResponder {
public:
    using Options = ResponderOptions;

    explicit ScriptedResponder(Options options = {})
        : options_(std::move(options)),
          process_(ntsim::CreateProcess({.imageFileName = options_.imageFileName, .userSid = options_.userSid}))
    {
    }

    ~ScriptedResponder() { Disconnect(); }

    ScriptedResponder(const ScriptedResponder&) = delete;
    ScriptedResponder& operator=(const ScriptedResponder&) = delete;

    // Connects the Thread port (a connection context of 4 bytes) from the service process and
    // starts the service threads. The connection's HRESULT; a responder connects once.
    HRESULT Connect()
    {
        std::lock_guard lock(mutex_);
        if (port_ != nullptr || everConnected_) {
            return E_FAIL;
        }
        HRESULT result;
        {
            ntsim::AttachThread attach(process_);
            const uint32_t context = 0;
            result = FilterConnectCommunicationPort(reinterpret_cast<LPCWSTR>(options_.portName.c_str()), 0,
                                                    &context, sizeof(context), nullptr, &port_);
        }
        if (FAILED(result)) {
            port_ = nullptr;
            return result;
        }
        everConnected_ = true;
        for (size_t index = 0; index < options_.threads; index++) {
            threads_.emplace_back([this] { Serve(); });
        }
        return result;
    }

    // Closes the Thread port, if the service still holds it, and waits for the service threads.
    // A request that waits for its delay is abandoned.
    void Disconnect()
    {
        {
            // Under the delay's mutex too, so that a service thread between its test and its wait
            // can't miss the news.
            std::lock_guard delay(delayMutex_);
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        delayChanged_.notify_all();
        ClosePort();
        for (std::thread& thread : threads_) {
            if (thread.joinable()) {
                thread.join();
            }
        }
        threads_.clear();
    }

    void AddRule(ResponderRule rule)
    {
        std::lock_guard lock(mutex_);
        rules_.push_back(std::move(rule));
    }

    // The requests received so far, in the order they came.
    std::vector<RecordedRequest> Requests() const
    {
        std::lock_guard lock(mutex_);
        return requests_;
    }

    // Requests that were taken, answered or not.
    size_t RequestCount() const { return requestCount_.load(); }

    // Waits in real time, at most limit, until count requests were taken.
    bool WaitForRequests(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        std::unique_lock lock(mutex_);
        return requestArrived_.wait_for(lock, limit, [&] { return requestCount_.load() >= count; });
    }

    // Waits in real time, at most limit, until count requests were dealt with (answered, left
    // unanswered, or disconnected on).
    bool WaitForHandled(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        std::unique_lock lock(mutex_);
        return requestArrived_.wait_for(lock, limit, [&] { return handledCount_ >= count; });
    }

    bool Connected() const
    {
        std::lock_guard lock(mutex_);
        return port_ != nullptr;
    }

    const std::shared_ptr<ntsim::Process>& ServiceProcess() const { return process_; }

private:
    static constexpr DWORD kMessageBufferSize = sizeof(FILTER_MESSAGE_HEADER) + SERVICE_REQUEST_MAX_SIZE;

    static bool SamePath(std::u16string_view left, std::u16string_view right)
    {
        if (left.size() != right.size()) {
            return false;
        }
        for (size_t index = 0; index < left.size(); index++) {
            char16_t a = left[index] >= u'a' && left[index] <= u'z' ? left[index] - 32 : left[index];
            char16_t b = right[index] >= u'a' && right[index] <= u'z' ? right[index] - 32 : right[index];
            if (a != b) {
                return false;
            }
        }
        return true;
    }

    void ClosePort()
    {
        HANDLE port;
        {
            std::lock_guard lock(mutex_);
            port = port_;
            port_ = nullptr;
        }
        if (port != nullptr) {
            ntsim::AttachThread attach(process_);
            CloseHandle(port);
        }
    }

    // The rule for a request (its uses counted), or the default. Under mutex_.
    ResponderRule Choose(const std::optional<RequestView>& view)
    {
        for (ResponderRule& rule : rules_) {
            if (rule.uses && *rule.uses == 0) {
                continue;
            }
            if (rule.code && (!view || view->code != *rule.code)) {
                continue;
            }
            if (rule.path && (!view || !SamePath(view->path, *rule.path))) {
                continue;
            }
            if (rule.uses) {
                --*rule.uses;
            }
            return rule;
        }
        return ResponderRule{.reply = options_.defaultReply};
    }

    // Waits on the virtual clock until deadline; false when the responder is stopping.
    bool WaitForDeadline(LONGLONG deadline)
    {
        std::unique_lock lock(delayMutex_);
        ntsim::clock::WaitUntil(lock, delayChanged_, deadline, [&] {
            std::lock_guard state(mutex_);
            return stopping_;
        });
        std::lock_guard state(mutex_);
        return !stopping_;
    }

    void Handled(size_t index, const std::function<void(RecordedRequest&)>& update)
    {
        {
            std::lock_guard lock(mutex_);
            if (options_.record && index < requests_.size()) {
                update(requests_[index]);
            }
            handledCount_++;
        }
        requestArrived_.notify_all();
    }

    void Serve()
    {
        ntsim::AttachThread attach(process_);
        HANDLE heap = GetProcessHeap();
        auto* buffer = static_cast<uint8_t*>(HeapAlloc(heap, 0, kMessageBufferSize));
        if (buffer == nullptr) {
            return;
        }
        for (;;) {
            HANDLE port;
            {
                std::lock_guard lock(mutex_);
                port = port_;
            }
            if (port == nullptr) {
                break;
            }
            // The head is cleared so that no earlier message shows through a short one.
            std::memset(buffer, 0, sizeof(FILTER_MESSAGE_HEADER) + SERVICE_REQUEST_HEAD_SIZE);
            auto* header = reinterpret_cast<PFILTER_MESSAGE_HEADER>(buffer);
            if (FAILED(FilterGetMessage(port, header, kMessageBufferSize, nullptr))) {
                break;
            }
            const uint8_t* body = buffer + sizeof(FILTER_MESSAGE_HEADER);
            uint32_t messageLength;
            std::memcpy(&messageLength, body + offsetof(ServiceRequestMessage, MessageLength), sizeof(messageLength));
            size_t received = messageLength < SERVICE_REQUEST_HEAD_SIZE || messageLength > SERVICE_REQUEST_MAX_SIZE
                                  ? SERVICE_REQUEST_HEAD_SIZE
                                  : messageLength;
            std::span<const uint8_t> bytes(body, received);
            DecodedRequest decoded = DecodeRequest(bytes);
            const ULONGLONG messageId = header->MessageId;
            const uint32_t replyLength =
                header->ReplyLength >= sizeof(FILTER_REPLY_HEADER) ? header->ReplyLength - sizeof(FILTER_REPLY_HEADER) : 0;

            ResponderRule rule;
            size_t index;
            LONGLONG deadline;
            {
                std::lock_guard lock(mutex_);
                // The delay counts from the moment the request was recorded: a test that has seen
                // it and then advances the clock is sure to reach the deadline.
                const LONGLONG receivedAt = ntsim::clock::Now();
                rule = Choose(decoded.request);
                deadline = rule.delay > 0 ? receivedAt + rule.delay : receivedAt;
                index = requests_.size();
                if (options_.record) {
                    requests_.push_back({.bytes = std::vector<uint8_t>(bytes.begin(), bytes.end()),
                                         .view = decoded.request,
                                         .decodeError = decoded.error,
                                         .replyLength = replyLength,
                                         .receivedAt = receivedAt,
                                         .action = rule.action});
                }
                requestCount_++;
            }
            requestArrived_.notify_all();

            if (rule.delay > 0 && !WaitForDeadline(deadline)) {
                Handled(index, [](RecordedRequest&) {});
                break;
            }
            if (rule.action == ResponderAction::NoAnswer) {
                Handled(index, [](RecordedRequest&) {});
                continue;
            }
            if (rule.action == ResponderAction::Disconnect) {
                ClosePort();
                Handled(index, [](RecordedRequest&) {});
                break;
            }

            // A request that can't be read is refused with STATUS_INVALID_PARAMETER.
            std::vector<uint8_t> record;
            if (decoded.request) {
                record = EncodeReply(*decoded.request, rule.answer ? rule.answer(*decoded.request) : rule.reply);
            } else {
                record.assign(replyLength, 0);
                if (record.size() >= sizeof(int32_t)) {
                    const int32_t invalidParameter = static_cast<int32_t>(0xC000000Du);
                    std::memcpy(record.data(), &invalidParameter, sizeof(invalidParameter));
                }
            }
            DWORD replySize = static_cast<DWORD>(sizeof(FILTER_REPLY_HEADER) + record.size());
            auto* reply = static_cast<uint8_t*>(HeapAlloc(heap, 0, replySize));
            HRESULT result = E_OUTOFMEMORY;
            if (reply != nullptr) {
                auto* replyHeader = reinterpret_cast<PFILTER_REPLY_HEADER>(reply);
                replyHeader->Status = 0;
                replyHeader->MessageId = messageId;
                std::memcpy(reply + sizeof(FILTER_REPLY_HEADER), record.data(), record.size());
                result = FilterReplyMessage(port, replyHeader, replySize);
                HeapFree(heap, 0, reply);
            }
            Handled(index, [&](RecordedRequest& recorded) {
                recorded.answered = true;
                recorded.replyResult = result;
            });
        }
        HeapFree(heap, 0, buffer);
    }

    Options options_;
    std::shared_ptr<ntsim::Process> process_;

    mutable std::mutex mutex_;
    mutable std::condition_variable requestArrived_;
    HANDLE port_ = nullptr;
    bool everConnected_ = false;
    bool stopping_ = false;
    std::vector<ResponderRule> rules_;
    std::vector<RecordedRequest> requests_;
    std::atomic<size_t> requestCount_{0};
    size_t handledCount_ = 0;
    std::vector<std::thread> threads_;

    std::mutex delayMutex_;
    std::condition_variable_any delayChanged_;
};

}  // namespace foldermerge::service
