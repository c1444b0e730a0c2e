// A FolderMerge service on ntsim, for demonstrations and tests: a Local System process whose own
// threads make every call of the service library, so that the filter sees the service's process
// and reads what it is sent from the service's memory. The service holds no content: it answers
// each request of the filter with a zeroed reply of the length the filter waits for (success, no
// flag set), so that nothing waits on it.
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

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace foldermerge::service {

inline constexpr char16_t kDemoAliceSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";
inline constexpr char16_t kDemoBobSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1002";

// Two users' merge folders on C:, alice's read-only at its root and bob's writable, and two
// processes whose opens are left alone.
inline Configuration DemoConfiguration()
{
    Configuration configuration;
    configuration.folders = {
        {kDemoAliceSid, u"C:\\Users\\alice\\Velmora", true},
        {kDemoBobSid, u"C:\\Users\\bob\\Velmora", false},
    };
    configuration.blacklist = {u"SearchIndexer.exe", u"backup.exe"};
    return configuration;
}

struct SimulatedServiceOptions {
    std::u16string imageFileName = u"\\Device\\HarddiskVolume2\\Program Files\\Velmora\\VelmoraService.exe";
    // Local System: the port's default security descriptor admits it.
    std::u16string userSid = u"S-1-5-18";
    Configuration configuration = DemoConfiguration();
    unsigned workers = 2;
};

class SimulatedService {
public:
    explicit SimulatedService(SimulatedServiceOptions options = {})
        : options_(std::move(options)),
          process_(ntsim::CreateProcess({.imageFileName = options_.imageFileName, .userSid = options_.userSid}))
    {
    }

    ~SimulatedService() { Leave(); }
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
    HRESULT Arrive()
    {
        HRESULT result = ConnectThreadPort();
        if (SUCCEEDED(result)) {
            result = Run([this](FilterConnection& connection) {
                HRESULT step = connection.ConnectConfigPort();
                return SUCCEEDED(step) ? connection.SetConfiguration(options_.configuration) : step;
            });
        }
        if (FAILED(result)) {
            Leave();
        }
        return result;
    }

    // Connects the Thread port (closing one it holds) and starts answering the filter's requests
    // on it, in threads of the service process.
    HRESULT ConnectThreadPort()
    {
        return Run([this](FilterConnection& connection) {
            HRESULT step = connection.ConnectThreadPort();
            if (SUCCEEDED(step)) {
                step = connection.StartReceiving(AnswerHoldingNothing, options_.workers,
                                                 [process = process_](std::function<void()> body) {
                                                     return std::thread([process, body = std::move(body)] {
                                                         ntsim::AttachThread attach(process);
                                                         body();
                                                     });
                                                 });
            }
            return step;
        });
    }

    // Closes both ports, the Thread port first; the filter drops the configuration and enters
    // pass-through mode. Nothing happens when the service isn't there.
    void Leave()
    {
        if (connection_ != nullptr) {
            ntsim::AttachThread attach(process_);
            connection_.reset();
        }
    }

    bool present() const { return connection_ != nullptr && connection_->configPort() != nullptr; }
    uint64_t requestsAnswered() const
    {
        return connection_ != nullptr && connection_->receiver() != nullptr ? connection_->receiver()->answered() : 0;
    }
    const Configuration& configuration() const { return options_.configuration; }
    const std::shared_ptr<ntsim::Process>& process() const { return process_; }

private:
    static std::optional<std::vector<uint8_t>> AnswerHoldingNothing(const IncomingRequest& request)
    {
        return std::vector<uint8_t>(request.replyCapacity, 0);
    }

    SimulatedServiceOptions options_;
    std::shared_ptr<ntsim::Process> process_;
    std::unique_ptr<FilterConnection> connection_;
};

// A service's whole visit: it arrives with DemoConfiguration(), whilePresent runs (the caller's
// opens), and it leaves. The result of Arrive; whilePresent runs only when it succeeded.
inline HRESULT VisitWithDemoService(const std::function<void(SimulatedService& service)>& whilePresent)
{
    SimulatedService service;
    const HRESULT arrived = service.Arrive();
    if (SUCCEEDED(arrived)) {
        whilePresent(service);
    }
    service.Leave();
    return arrived;
}

}  // namespace foldermerge::service
