// Costs the meters pay on every sampling cycle or diagnostic: one log line, one CSV dump of a
// full VmRss series, one read of a process's statistics from /proc. The per-sample reads are
// set against a raw read of the same file, and the program ends with their ratios.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "DumpData.h"
#include "MemoryMeter.h"
#include "NodeStream.h"
#include "RatioReporter.h"
#include "StatsProvider.h"
#include "VmRssMeter.h"

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
    if (stats.getPIDStats(pid).vm_rss_kb <= 0)  // an empty answer would time nothing
        state.SkipWithError("no VmRSS for this process");
    for (auto _ : state)
        benchmark::DoNotOptimize(stats.getPIDStats(pid));
}
BENCHMARK(BM_GetPIDStatsSelf);

// The floor for one sample: a kept-open status file read at offset 0, two keys found.
void BM_RawPreadStatus(benchmark::State& state) {
    int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        state.SkipWithError("cannot open /proc/self/status");
    char buf[4096];
    for (auto _ : state) {
        ssize_t n = pread(fd, buf, sizeof(buf) - 1, 0);
        buf[n > 0 ? n : 0] = '\0';
        const char* rssAnon = strstr(buf, "RssAnon:");
        const char* vmSwap = strstr(buf, "VmSwap:");
        int value = rssAnon != nullptr ? atoi(rssAnon + 8) : -1;
        if (vmSwap != nullptr)
            value += atoi(vmSwap + 7);
        benchmark::DoNotOptimize(value);
    }
    if (fd >= 0)
        close(fd);
}
BENCHMARK(BM_RawPreadStatus);

// VmRssMeter's sample: its parser on the kept-open node, then the rewind for the next one.
void BM_NodeFileVmRssSample(benchmark::State& state) {
    meters::NodeFile node("/proc/self/status");
    VmRssMeter meter("VmRss", 1, {});
    if (meter.getProcessVmRss(node.get()) < 1 || !node.rewind())
        state.SkipWithError("cannot read /proc/self/status");
    for (auto _ : state) {
        benchmark::DoNotOptimize(meter.getProcessVmRss(node.get()));
        node.rewind();
    }
}
BENCHMARK(BM_NodeFileVmRssSample);

long residentKb() {
    long pages = 0, resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm != nullptr && fscanf(statm, "%ld %ld", &pages, &resident) != 2)
        resident = 0;
    if (statm != nullptr)
        fclose(statm);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// A field sized for 100000000 samples, used as a run uses it (sample 0 and the end point):
// what it costs in resident memory. Target: well under 1 MB of the 1.6 GB it spans.
void BM_MemoryFieldOfAHugeCount(benchmark::State& state) {
    long grown = 0;
    for (auto _ : state) {
        long before = residentKb();
        MemoryField field("rss_swap", 100000000);
        field.collectStats(0, sysstats_task{51200, 0, 128, 0, 0, {}});
        field.updateStats(0);
        grown = std::max(grown, residentKb() - before);
        benchmark::DoNotOptimize(field.mResults[0]);
    }
    state.counters["resident_kB"] = static_cast<double>(grown);
}
BENCHMARK(BM_MemoryFieldOfAHugeCount)->Iterations(5)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    return bench::runWithRatios(
        argc, argv,
        {{"NodeFile/raw", "BM_NodeFileVmRssSample", "BM_RawPreadStatus", 1.3},
         {"getPIDStats/raw", "BM_GetPIDStatsSelf", "BM_RawPreadStatus", 1.5}});
}
