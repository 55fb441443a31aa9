// The launch meter's costs: one analysis pass over series of a game's and a non-game's lengths,
// and one 30 ms sampling round set against raw reads of the same two kept-open files.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "LaunchMeter.h"
#include "NodeStream.h"
#include "RatioReporter.h"

namespace {

// Series shaped like a launch, with the jitter real counters have: a climb over the first
// third, then a plateau that wobbles among a few values.
void fill(LLFeaturesList& f, int n) {
    for (int k = 0; k < n; ++k) {
        const bool settled = k >= n / 3;
        f.insertVmRss(settled ? 180000 + (k % 7) * 4 : 60000 + 300 * k);
        f.insertOMMScroe(settled ? 200 + k % 3 : 900 - k);
        f.insertFDCount(settled ? 120 + k % 5 : 40 + k);
    }
}

// Arguments: the series' length, and whether the launch is a game (all top counts, window 10).
void BM_AnalysisPass(benchmark::State& state) {
    LLFeaturesList f;
    fill(f, static_cast<int>(state.range(0)));
    f.mIsGame = static_cast<int>(state.range(1));
    const int window = f.mIsGame != 0 ? 10 : 5;
    for (auto _ : state) {
        f.clearIntermediates();  // as between a game's passes
        f.mResolutions.clear();
        f.mEpDone = false;
        f.churnForStablizingPoints(0, window);
        benchmark::DoNotOptimize(f.mEp);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_AnalysisPass)
    ->ArgsProduct({{167, 500, 1000, 2000}, {0, 1}})
    ->Unit(benchmark::kMicrosecond)
    ->Complexity(benchmark::oNLogN);

// The floor for one round: both kept-open files read at offset 0 and parsed.
void BM_RawRound(benchmark::State& state) {
    int status = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    int oomScore = open("/proc/self/oom_score", O_RDONLY | O_CLOEXEC);
    if (status < 0 || oomScore < 0)
        state.SkipWithError("cannot open /proc/self");
    char text[4096];
    for (auto _ : state) {
        ssize_t n = pread(status, text, sizeof(text) - 1, 0);
        text[n > 0 ? n : 0] = '\0';
        const char* rssAnon = strstr(text, "RssAnon:");
        const char* vmSwap = strstr(text, "VmSwap:");
        int kb = (rssAnon != nullptr ? atoi(rssAnon + 8) : -1) +
                 (vmSwap != nullptr ? atoi(vmSwap + 7) : 0);
        n = pread(oomScore, text, 149, 0);
        text[n > 0 ? n : 0] = '\0';
        benchmark::DoNotOptimize(kb + strtol(text, nullptr, 10));
    }
    close(status);
    close(oomScore);
}
BENCHMARK(BM_RawRound);

// The meter's round: both nodes through the node stream, each value into its series.
void BM_LaunchRound(benchmark::State& state) {
    LaunchMeter meter("Launch");
    meters::NodeFile status("/proc/self/status");
    meters::NodeFile oomScore("/proc/self/oom_score");
    if (!status.isOpen() || !oomScore.isOpen())
        state.SkipWithError("cannot open /proc/self");
    for (auto _ : state) {
        int kb = meter.getProcessVmRss(status.get());
        status.rewind();
        if (kb >= 1)
            meter.mFeatures.insertVmRss(kb);
        oomScore.rewind();
        int score = meter.getProcessOMMScore(oomScore.get());
        if (score >= 1)
            meter.mFeatures.insertOMMScroe(score);
        if (meter.mFeatures.mVmRss.size() >= 2000)  // keep inserting, as a launch does
            meter.mFeatures.clearAll();
    }
}
BENCHMARK(BM_LaunchRound);

}  // namespace

int main(int argc, char** argv) {
    return bench::runWithRatios(argc, argv,
                                {{"launch round/raw", "BM_LaunchRound", "BM_RawRound", 1.3}});
}
