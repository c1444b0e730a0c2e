// The filter's trace events, as a trace session that enables its provider collects them.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace fmsim::gate {

// One event of the filter's provider: its level and where it was written, and its message.
struct TraceLine {
    std::string level;     // "info", "warning", "error"
    std::string function;  // FolderMerge_PreCreate
    std::string message;
};

// A session enabling the filter's provider at the informational level with its keyword, for the
// object's life. The filter writes events only while its service has turned tracing on.
class GateTraces {
public:
    GateTraces();
    ~GateTraces();
    GateTraces(const GateTraces&) = delete;
    GateTraces& operator=(const GateTraces&) = delete;

    // The filter's events written since the last call, oldest first.
    std::vector<TraceLine> Take();

private:
    struct Session;
    std::unique_ptr<Session> session_;
};

}  // namespace fmsim::gate
