// A client's session with the loopback file server behind \Device\Mup: one simulated thread of
// the server's process that runs the requests made on the client's behalf, one at a time,
// impersonating the client. Not for code outside ntsim/io.
#pragma once

#include <ntsim/sim/process.hpp>

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace ntsim::mup {

class Session {
public:
    // Starts the session's thread in server, impersonating a token of client's user.
    Session(std::shared_ptr<Process> server, const Token& client);
    // Ends the thread once the request in progress, if any, is done.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Runs request in the session's thread and returns when it has finished; what it throws is
    // thrown here. Requests from several callers run one after the other. A request made from
    // the session's own thread runs at once.
    void Run(const std::function<void()>& request);

private:
    void Serve();

    std::mutex callers_;  // one request at a time
    std::mutex mutex_;
    std::condition_variable changed_;
    const std::function<void()>* pending_ = nullptr;
    std::exception_ptr failure_;
    bool done_ = false;
    bool stopping_ = false;
    std::thread::id threadId_;
    std::unique_ptr<SimulatedThread> thread_;
};

}  // namespace ntsim::mup
