// A reporter for benchmark programs that print ratios of their cases within one run: it passes every
// run on to the console and keeps, per benchmark, the times per iteration of its fastest repetition
// ("min", with repetitions) or of its one run. Other work on the machine only ever adds time.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

class FastestRuns : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) {
                continue;
            }
            const bool fastest = run.run_type == Run::RT_Aggregate && run.aggregate_name == "min";
            if (fastest || run.run_type == Run::RT_Iteration) {
                Figure& figure = figures_[run.run_name.str()];
                if (fastest || !figure.fastest) {
                    figure = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime(), fastest};
                }
            }
        }
    }

    // CPU time per iteration, in the benchmark's time unit.
    std::optional<double> Time(const std::string& name) const
    {
        auto it = figures_.find(name);
        return it == figures_.end() ? std::nullopt : std::optional<double>(it->second.cpuTime);
    }
    // Real time per iteration, in the benchmark's time unit.
    std::optional<double> RealTime(const std::string& name) const
    {
        auto it = figures_.find(name);
        return it == figures_.end() ? std::nullopt : std::optional<double>(it->second.realTime);
    }
    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (const auto& entry : figures_) {
            names.push_back(entry.first);
        }
        return names;
    }

private:
    struct Figure {
        double cpuTime = 0;
        double realTime = 0;
        bool fastest = false;
    };
    std::map<std::string, Figure> figures_;
};
