// SPDX-License-Identifier: MIT
// The console report of a benchmark program followed by its own comparison of the measured times.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kpbench {

/// Seconds per iteration of each benchmark by name: the median over repetitions (or over the runs seen).
using Times = std::map<std::string, double>;

/// Prints the console report, then hands the per-iteration times to a function that prints the ratios, so one run
/// shows both. CPU time suits code that computes (the machine may be shared); wall time suits disk and threads.
class TimesReporter : public benchmark::ConsoleReporter {
public:
    enum class Clock { Cpu, Wall };

    TimesReporter(Clock clock, std::function<void(const Times&)> compare)
        : _clock(clock), _compare(std::move(compare)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const std::string name = run.run_name.function_name;
            if (run.error_occurred) {
                continue;
            }
            if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
                const double total = _clock == Clock::Cpu ? run.cpu_accumulated_time : run.real_accumulated_time;
                _samples[name].push_back(total / static_cast<double>(run.iterations));
            } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                // Aggregates are reported per iteration already, in the run's time unit.
                const double t = _clock == Clock::Cpu ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
                _medians[name] = t / benchmark::GetTimeUnitMultiplier(run.time_unit);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        Times times = _medians;
        for (auto& [name, samples] : _samples) {
            if (times.count(name) == 0) {
                std::sort(samples.begin(), samples.end());
                times[name] = samples[samples.size() / 2];
            }
        }
        _compare(times);
    }

private:
    Clock _clock;
    std::function<void(const Times&)> _compare;
    std::map<std::string, std::vector<double>> _samples;
    Times _medians;
};

/// The time of one benchmark, 0 when it did not run.
inline double timeOf(const Times& times, const std::string& name) {
    const auto it = times.find(name);
    return it == times.end() ? 0.0 : it->second;
}

/// Runs the registered benchmarks with the reporter; the exit code of main.
inline int runBenchmarks(int argc, char** argv, TimesReporter& reporter) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

} // namespace kpbench
