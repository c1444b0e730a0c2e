// A reporter for benchmark programs that print ratios of their cases within one run: it passes every
// run on to the console and keeps, per benchmark, the least CPU and real times per iteration among
// its repetitions (or the library's "min" aggregate where it makes one). Other work on the machine
// only ever adds time.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
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
            // The "min" aggregate where the library makes one; otherwise the fastest repetition.
            const bool aggregate = run.run_type == Run::RT_Aggregate && run.aggregate_name == "min";
            if (aggregate || run.run_type == Run::RT_Iteration) {
                const Figure candidate{run.GetAdjustedCPUTime(), run.GetAdjustedRealTime(), aggregate};
                auto [it, added] = figures_.try_emplace(run.run_name.str(), candidate);
                Figure& figure = it->second;
                if (!added && aggregate) {
                    figure = candidate;
                } else if (!added && !figure.aggregate) {
                    figure.cpuTime = std::min(figure.cpuTime, candidate.cpuTime);
                    figure.realTime = std::min(figure.realTime, candidate.realTime);
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
        bool aggregate = false;
    };
    std::map<std::string, Figure> figures_;
};
