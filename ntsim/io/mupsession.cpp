// The loopback server's sessions: a thread of the server's process per MUP open, impersonating the
// client, that runs each request forwarded from the MUP device while the client's thread waits.
#include "mupsession.hpp"

#include <ntsim/sim/text.hpp>

#include <stdexcept>
#include <utility>

namespace ntsim::mup {

namespace {

// A token to impersonate, of the same user as client's (its primary or impersonation token).
std::shared_ptr<Token> ImpersonationTokenFor(const Token& client)
{
    WCHAR text[192];
    UNICODE_STRING sidText{0, sizeof(text), text};
    NTSTATUS status = RtlConvertSidToUnicodeString(&sidText, client.UserSid(), FALSE);
    if (!NT_SUCCESS(status)) {
        throw std::logic_error("the MUP client's token has no valid user SID");
    }
    return CreateToken(View(sidText), TokenImpersonation, SecurityImpersonation);
}

}  // namespace

Session::Session(std::shared_ptr<Process> server, const Token& client)
{
    ThreadOptions options;
    options.impersonation = ImpersonationTokenFor(client);
    thread_ = std::make_unique<SimulatedThread>(std::move(server), [this] { Serve(); }, std::move(options));
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return threadId_ != std::thread::id(); });
}

Session::~Session()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_->Join();
}

void Session::Run(const std::function<void()>& request)
{
    if (std::this_thread::get_id() == threadId_) {
        request();
        return;
    }
    std::lock_guard caller(callers_);
    std::unique_lock lock(mutex_);
    pending_ = &request;
    done_ = false;
    failure_ = nullptr;
    changed_.notify_all();
    changed_.wait(lock, [this] { return done_; });
    pending_ = nullptr;
    if (failure_ != nullptr) {
        std::rethrow_exception(std::exchange(failure_, nullptr));
    }
}

void Session::Serve()
{
    std::unique_lock lock(mutex_);
    threadId_ = std::this_thread::get_id();
    changed_.notify_all();
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || (pending_ != nullptr && !done_); });
        if (pending_ == nullptr || done_) {
            return;  // stopping, with nothing left to run
        }
        const std::function<void()>* request = pending_;
        lock.unlock();
        std::exception_ptr failure;
        try {
            (*request)();
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        failure_ = failure;
        done_ = true;
        changed_.notify_all();
    }
}

}  // namespace ntsim::mup
