// The scripted service: its rules, its record, and its connection's life.
#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>

#include <algorithm>
#include <thread>

namespace foldermerge::service {

namespace {

constexpr int32_t kInvalidParameter = static_cast<int32_t>(0xC000000Du);

char16_t Upcase(char16_t c)
{
    return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - (u'a' - u'A')) : c;
}

bool SamePath(std::u16string_view left, std::u16string_view right)
{
    return std::ranges::equal(left, right, [](char16_t a, char16_t b) { return Upcase(a) == Upcase(b); });
}

}  // namespace

ScriptedResponder::ScriptedResponder(Options options)
    : options_(std::move(options)),
      process_(ntsim::CreateProcess({.imageFileName = options_.imageFileName, .userSid = options_.userSid})),
      connection_(reinterpret_cast<const WCHAR*>(options_.portName.c_str()))
{
}

ScriptedResponder::~ScriptedResponder()
{
    Disconnect();
}

HRESULT ScriptedResponder::Connect()
{
    std::lock_guard lock(connectionMutex_);
    if (everConnected_) {
        return E_FAIL;
    }
    HRESULT result;
    {
        ntsim::AttachThread attach(process_);
        result = connection_.ConnectThreadPort();
    }
    if (FAILED(result)) {
        return result;
    }
    everConnected_ = true;
    auto starter = [process = process_](std::function<void()> body) {
        return std::thread([process, body = std::move(body)] {
            ntsim::AttachThread attach(process);
            body();
        });
    };
    receiver_ = std::make_unique<RequestReceiver>(
        connection_.threadPort(), [this](const IncomingRequest& request) { return Handle(request); },
        options_.threads, sizeof(FILTER_MESSAGE_HEADER) + FilterConnection::kLargestRequest, starter,
        [this](const IncomingRequest& request, std::optional<HRESULT> replied) { Replied(request, replied); });
    return result;
}

void ScriptedResponder::Disconnect()
{
    {
        // Under the delay's mutex too, so that a worker between its test and its wait can't miss it.
        std::lock_guard delay(delayMutex_);
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    delayChanged_.notify_all();
    CloseThreadPort();
    // The close ended the workers' waits for messages; a worker that is disconnecting itself needs
    // connectionMutex_, which is free again here.
    std::unique_ptr<RequestReceiver> receiver;
    {
        std::lock_guard lock(connectionMutex_);
        receiver = std::move(receiver_);
    }
    receiver.reset();
}

void ScriptedResponder::CloseThreadPort()
{
    std::lock_guard lock(connectionMutex_);
    if (connection_.threadPort() != nullptr) {
        ntsim::AttachThread attach(process_);
        connection_.DisconnectThreadPort();
    }
}

void ScriptedResponder::AddRule(ResponderRule rule)
{
    std::lock_guard lock(mutex_);
    rules_.push_back(std::move(rule));
}

std::vector<RecordedRequest> ScriptedResponder::Requests() const
{
    std::lock_guard lock(mutex_);
    return requests_;
}

size_t ScriptedResponder::RequestCount() const
{
    std::lock_guard lock(mutex_);
    return requestCount_;
}

bool ScriptedResponder::WaitForRequests(size_t count, std::chrono::milliseconds limit) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return requestCount_ >= count; });
}

bool ScriptedResponder::WaitForHandled(size_t count, std::chrono::milliseconds limit) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return handledCount_ >= count; });
}

bool ScriptedResponder::Connected() const
{
    std::lock_guard lock(connectionMutex_);
    return connection_.threadPort() != nullptr;
}

ResponderRule ScriptedResponder::Choose(const std::optional<RequestView>& view)
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

bool ScriptedResponder::WaitForDeadline(LONGLONG deadline)
{
    std::unique_lock lock(delayMutex_);
    ntsim::clock::WaitUntil(lock, delayChanged_, deadline, [&] {
        std::lock_guard state(mutex_);
        return stopping_;
    });
    std::lock_guard state(mutex_);
    return !stopping_;
}

std::optional<std::vector<uint8_t>> ScriptedResponder::Handle(const IncomingRequest& request)
{
    const std::span<const uint8_t> bytes = request.Bytes();
    DecodedRequest decoded = DecodeRequest(bytes);

    ResponderRule rule;
    LONGLONG deadline;
    {
        std::lock_guard lock(mutex_);
        // The delay counts from the moment the request was recorded: a test that has seen it and
        // then advances the clock is sure to reach the deadline.
        const LONGLONG receivedAt = ntsim::clock::Now();
        rule = Choose(decoded.request);
        deadline = receivedAt + std::max<LONGLONG>(rule.delay, 0);
        if (options_.record) {
            recordOf_[request.messageId] = requests_.size();
            requests_.push_back({.bytes = std::vector<uint8_t>(bytes.begin(), bytes.end()),
                                 .view = decoded.request,
                                 .decodeError = decoded.error,
                                 .replyLength = request.replyCapacity,
                                 .receivedAt = receivedAt,
                                 .action = rule.action});
        }
        requestCount_++;
    }
    changed_.notify_all();

    if (rule.delay > 0 && !WaitForDeadline(deadline)) {
        return std::nullopt;
    }
    switch (rule.action) {
    case ResponderAction::NoAnswer:
        return std::nullopt;
    case ResponderAction::Disconnect:
        CloseThreadPort();
        return std::nullopt;
    case ResponderAction::AnswerThenDisconnect: {
        std::lock_guard lock(mutex_);
        disconnectAfterReply_.insert(request.messageId);
        break;
    }
    case ResponderAction::Answer:
        break;
    }
    if (!decoded.request) {
        return EncodeRefusal(request.replyCapacity, kInvalidParameter);
    }
    if (rule.answerBytes) {
        return rule.answerBytes(*decoded.request);
    }
    return EncodeReply(*decoded.request, rule.answer ? rule.answer(*decoded.request) : rule.reply);
}

void ScriptedResponder::Replied(const IncomingRequest& request, std::optional<HRESULT> replied)
{
    bool disconnect = false;
    {
        std::lock_guard lock(mutex_);
        disconnect = disconnectAfterReply_.erase(request.messageId) != 0;
    }
    // Before the request counts as handled, so that a test that waited for it finds the port closed.
    if (disconnect) {
        CloseThreadPort();
    }
    {
        std::lock_guard lock(mutex_);
        if (auto it = recordOf_.find(request.messageId); it != recordOf_.end()) {
            requests_[it->second].answered = replied.has_value();
            requests_[it->second].replyResult = replied.value_or(S_OK);
            recordOf_.erase(it);
        }
        handledCount_++;
    }
    changed_.notify_all();
}

}  // namespace foldermerge::service
