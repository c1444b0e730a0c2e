// A scripted service for tests, benchmarks and demonstrations on ntsim: it connects the Thread port
// through a FilterConnection, takes the filter's requests with a RequestReceiver, records each one
// and answers from rules that the caller gives.
//
//     ScriptedResponder service;
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
// default security admits), and its receiver's workers are threads of that process. Rules are tried
// in the order they were added; the first that matches a request's code and path (compared without
// regard to case) decides, and a rule with a number of uses serves that many requests. A request
// that no rule matches gets Options::defaultReply; bytes that are no request are refused with
// STATUS_INVALID_PARAMETER. Delays run on ntsim's virtual clock: the test advances it.
#pragma once

#include <foldermerge/service/control.hpp>
#include <foldermerge/service/reply.hpp>
#include <foldermerge/service/request.hpp>

#include <ntsim/sim/process.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace foldermerge::service {

// What the service does with a request, after the rule's delay.
enum class ResponderAction {
    Answer,      // reply with the rule's content
    NoAnswer,    // take the request and never answer: the filter waits until its time-out
    Disconnect,  // close the Thread port without answering
    // reply with the rule's content, then close the Thread port at once: the reply and the end of
    // the connection race to the filter's waiting thread
    AnswerThenDisconnect,
};

struct ResponderRule {
    std::optional<uint32_t> code;        // any code when empty
    std::optional<std::u16string> path;  // the request's first string; any path when empty
    ReplyContent reply;                  // for ResponderAction::Answer
    // Computes the reply from the request instead of `reply`, when set.
    std::function<ReplyContent(const RequestView&)> answer;
    // Computes the reply's bytes as they go out, of any length, instead of encoding one, when set:
    // for replies that no well-behaved service writes.
    std::function<std::vector<uint8_t>(const RequestView&)> answerBytes;
    LONGLONG delay = 0;  // virtual time, in 100 ns units, before the service acts
    ResponderAction action = ResponderAction::Answer;
    std::optional<size_t> uses;  // requests the rule serves; all when empty
};

struct RecordedRequest {
    std::vector<uint8_t> bytes;       // as the filter sent them (MessageLength bytes)
    std::optional<RequestView> view;  // empty when the bytes are no request
    std::string decodeError;
    uint32_t replyLength = 0;  // the size of the filter's reply buffer
    LONGLONG receivedAt = 0;   // virtual time
    ResponderAction action = ResponderAction::Answer;
    bool answered = false;       // a reply was handed to FilterReplyMessage
    HRESULT replyResult = S_OK;  // what FilterReplyMessage said
};

struct ResponderOptions {
    std::u16string portName = u"\\Velmora_DriverPort";
    unsigned threads = 1;  // receiver workers taking requests from the one Thread port
    std::u16string userSid = u"S-1-5-18";
    std::u16string imageFileName = u"\\Device\\HarddiskVolume2\\Program Files\\FolderMerge\\service.exe";
    ReplyContent defaultReply;  // for a request that no rule matches
    bool record = true;         // keep every request (a benchmark turns this off)
};

class ScriptedResponder {
public:
    using Options = ResponderOptions;

    explicit ScriptedResponder(Options options = {});
    // Disconnects.
    ~ScriptedResponder();
    ScriptedResponder(const ScriptedResponder&) = delete;
    ScriptedResponder& operator=(const ScriptedResponder&) = delete;

    // Connects the Thread port from the service process and starts the receiver. The connection's
    // HRESULT; E_FAIL once the responder has been connected (it connects once).
    HRESULT Connect();
    // Closes the Thread port, if the service still holds it, and waits for the receiver's workers.
    // A request that waits for its delay is abandoned.
    void Disconnect();

    void AddRule(ResponderRule rule);

    // The requests received so far, in the order they came.
    std::vector<RecordedRequest> Requests() const;
    // Requests that were taken, answered or not.
    size_t RequestCount() const;
    // Waits in real time, at most limit, until count requests were taken.
    bool WaitForRequests(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    // Waits in real time, at most limit, until count requests were dealt with (answered, left
    // unanswered, or disconnected on).
    bool WaitForHandled(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    bool Connected() const;
    const std::shared_ptr<ntsim::Process>& ServiceProcess() const { return process_; }

private:
    // The receiver's handler and observer, in its workers.
    std::optional<std::vector<uint8_t>> Handle(const IncomingRequest& request);
    void Replied(const IncomingRequest& request, std::optional<HRESULT> replied);

    // The rule for a request (its uses counted), or the default. Under mutex_.
    ResponderRule Choose(const std::optional<RequestView>& view);
    // Waits on the virtual clock until deadline; false when the responder is stopping.
    bool WaitForDeadline(LONGLONG deadline);
    // Closes the Thread port; the disconnect notification runs in the calling thread.
    void CloseThreadPort();

    const Options options_;
    const std::shared_ptr<ntsim::Process> process_;

    // Guards the connection: the test's thread and a worker that disconnects may meet there.
    mutable std::mutex connectionMutex_;
    FilterConnection connection_;
    bool everConnected_ = false;
    std::unique_ptr<RequestReceiver> receiver_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool stopping_ = false;
    std::vector<ResponderRule> rules_;
    std::vector<RecordedRequest> requests_;
    std::map<ULONGLONG, size_t> recordOf_;  // message id -> index in requests_, until dealt with
    std::set<ULONGLONG> disconnectAfterReply_;  // message ids answered with AnswerThenDisconnect
    size_t requestCount_ = 0;
    size_t handledCount_ = 0;

    std::mutex delayMutex_;
    std::condition_variable_any delayChanged_;
};

}  // namespace foldermerge::service
