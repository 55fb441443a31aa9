// A bench program's main: runs the benchmarks as the console reporter does, then prints each
// listed benchmark's median real time over its baseline's, with the target it is held to.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iomanip>
#include <map>
#include <string>
#include <vector>

namespace bench {

struct Ratio {
    std::string label;     // printed as "ratio <label> = ..."
    std::string measured;  // benchmark names, as registered
    std::string baseline;
    double target;
};

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    explicit RatioReporter(std::vector<Ratio> ratios)
        : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Color : OO_None), mRatios(std::move(ratios)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                mTimes[run.benchmark_name()].push_back(run.GetAdjustedRealTime());
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        for (const Ratio& ratio : mRatios) {
            double measured = median(ratio.measured), baseline = median(ratio.baseline);
            if (measured > 0 && baseline > 0)
                GetOutputStream() << "ratio " << ratio.label << " = " << std::fixed
                                  << std::setprecision(2) << measured / baseline
                                  << " (target <= " << ratio.target << ")\n";
        }
    }

  private:
    double median(const std::string& name) {
        std::vector<double>& t = mTimes[name];
        if (t.empty())
            return 0;
        std::nth_element(t.begin(), t.begin() + t.size() / 2, t.end());
        return t[t.size() / 2];
    }

    std::vector<Ratio> mRatios;
    std::map<std::string, std::vector<double>> mTimes;
};

// The whole main of a bench program. Node paths are the real ones, whatever the environment.
inline int runWithRatios(int argc, char** argv, std::vector<Ratio> ratios) {
    unsetenv("METERS_ROOT");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter(std::move(ratios));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
