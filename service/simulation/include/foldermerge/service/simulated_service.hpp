// A FolderMerge service on ntsim, for demonstrations and tests: a Local System process whose own
// threads make every call of the service library, so that the filter sees the service's process
// and reads what it is sent from the service's memory. The service holds no content: it answers
// each request of the filter with the request's reply, success and no field set (EncodeReply with
// an empty ReplyContent), so that nothing waits on it. An exclusion query is the one it decides:
// a path at or below one of its excluded folders is excluded (status 0), any other is not
// (STATUS_OBJECT_NAME_NOT_FOUND).
//
//     ... mount C:, load FolderMerge ...
//     SimulatedService service;
//     if (FAILED(service.Arrive())) { ... }   // both ports, then DemoConfiguration()
//     ... opens now meet the configuration ...
//     service.Leave();                         // the Config port goes: pass-through mode
//
// Or in one call: VisitWithDemoService([&](SimulatedService& service) { ... opens ... }).
#pragma once

#include <foldermerge/service/control.hpp>

#include <ntsim/sim/process.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace foldermerge::service {

inline constexpr char16_t kDemoAliceSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";
inline constexpr char16_t kDemoBobSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1002";

// Two users' merge folders on C:, alice's read-only at its root and bob's writable, and two
// processes whose opens are left alone.
Configuration DemoConfiguration();

// The folders the demonstration service excludes from the merge, as device paths: alice's Cache
// folder.
std::vector<std::u16string> DemoExcludedFolders();

struct SimulatedServiceOptions {
    std::u16string imageFileName = u"\\Device\\HarddiskVolume2\\Program Files\\Velmora\\VelmoraService.exe";
    // Local System: the port's default security descriptor admits it.
    std::u16string userSid = u"S-1-5-18";
    Configuration configuration = DemoConfiguration();
    // Device paths (\Device\HarddiskVolume2\...), compared without regard to ASCII case.
    std::vector<std::u16string> excludedFolders = DemoExcludedFolders();
    unsigned workers = 2;
};

class SimulatedService {
public:
    explicit SimulatedService(SimulatedServiceOptions options = {});
    ~SimulatedService();
    SimulatedService(const SimulatedService&) = delete;
    SimulatedService& operator=(const SimulatedService&) = delete;

    // Runs call(connection) in a thread of the service process.
    template <typename Call>
    auto Run(Call call)
    {
        ntsim::AttachThread attach(process_);
        if (connection_ == nullptr) {
            connection_ = std::make_unique<FilterConnection>();
        }
        return call(*connection_);
    }

    // Connects the Thread port and starts answering on it, connects the Config port, and sends the
    // configuration. On a failure it leaves again and returns the failure.
    HRESULT Arrive();

    // Connects the Thread port (closing one it holds) and starts answering the filter's requests
    // on it, in threads of the service process.
    HRESULT ConnectThreadPort();

    // Closes both ports, the Thread port first; the filter drops the configuration and enters
    // pass-through mode. Nothing happens when the service isn't there.
    void Leave();

    bool present() const { return connection_ != nullptr && connection_->configPort() != nullptr; }
    uint64_t requestsAnswered() const
    {
        return connection_ != nullptr && connection_->receiver() != nullptr ? connection_->receiver()->answered() : 0;
    }
    // Waits (in real time, for the service's worker threads) until at least count requests were
    // answered; false if that did not happen within the timeout.
    bool WaitForRequestsAnswered(uint64_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const
    {
        return connection_ != nullptr && connection_->receiver() != nullptr &&
               connection_->receiver()->WaitForAnswered(count, timeout);
    }
    const Configuration& configuration() const { return options_.configuration; }
    const std::shared_ptr<ntsim::Process>& process() const { return process_; }

private:
    SimulatedServiceOptions options_;
    std::shared_ptr<ntsim::Process> process_;
    std::unique_ptr<FilterConnection> connection_;
};

// A service's whole visit: it arrives with DemoConfiguration(), whilePresent runs (the caller's
// opens), and it leaves. The result of Arrive; whilePresent runs only when it succeeded.
HRESULT VisitWithDemoService(const std::function<void(SimulatedService& service)>& whilePresent);

}  // namespace foldermerge::service
