// Costs the meters pay on every sampling cycle or diagnostic: one log line, one CSV dump of a
// full VmRss series, one read of a process's statistics from /proc.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <vector>

#include "Diagnostics.h"
#include "DumpData.h"
#include "StatsProvider.h"

namespace {

void discardLog(const __android_log_message*) {}

void BM_LogLine(benchmark::State& state) {
    __android_log_set_logger(discardLog);
    for (auto _ : state)
        METER_LOGE("VmRssMeter:", "start", 348, "Async Data NULL");
    __android_log_set_logger(nullptr);
}
BENCHMARK(BM_LogLine);

void BM_DumpDisabled(benchmark::State& state) {
    DumpData::mEnableCSV = 0;
    std::vector<int> values(200, 51200);
    for (auto _ : state)
        DumpData::Dump("com.example.app", 2400, values.data(), 200);
}
BENCHMARK(BM_DumpDisabled);

void BM_GetPIDStatsSelf(benchmark::State& state) {
    StatsProvider stats;
    int pid = getpid();
    for (auto _ : state)
        benchmark::DoNotOptimize(stats.getPIDStats(pid));
}
BENCHMARK(BM_GetPIDStatsSelf);

}  // namespace
