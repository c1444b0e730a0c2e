// The service of the demonstration: a Local System process (service.exe) that holds a connection
// to the filter through the service library. Every call runs in a thread of that process, so the
// filter sees the service's own process and probes the service's own memory.
#pragma once

#include <foldermerge/service/control.hpp>

#include <ntsim/sim/process.hpp>

#include <memory>
#include <utility>

namespace fmsim {

class DemoService {
public:
    static constexpr char16_t kImage[] = u"\\Device\\HarddiskVolume2\\Program Files\\FolderMerge\\service.exe";
    static constexpr char16_t kSid[] = u"S-1-5-18";

    DemoService()
        : process_(ntsim::CreateProcess({.imageFileName = kImage, .userSid = kSid})),
          connection_(std::make_unique<foldermerge::service::FilterConnection>())
    {
    }

    // Closes both ports in the service's thread.
    ~DemoService()
    {
        ntsim::AttachThread thread(process_);
        connection_.reset();
    }

    DemoService(const DemoService&) = delete;
    DemoService& operator=(const DemoService&) = delete;

    // Runs call(connection) in a thread of the service process and returns its result.
    template <typename Call>
    auto Run(Call call)
    {
        ntsim::AttachThread thread(process_);
        return call(*connection_);
    }

    const std::shared_ptr<ntsim::Process>& process() const { return process_; }

private:
    std::shared_ptr<ntsim::Process> process_;
    std::unique_ptr<foldermerge::service::FilterConnection> connection_;
};

}  // namespace fmsim
