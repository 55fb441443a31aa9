// What one reading of the CPU meters costs the host: SchedParams' kept-open scalar and cluster
// nodes, and PerfCounters' node, opened, read and closed on every reading. Each getter is held
// to a raw reading of the same node in the same run: for the kept-open nodes a single pread at
// offset 0, the floor of any reading (a read followed by a seek back, what a kept-open stream's
// reading and rewind come to, is timed beside it, for comparison only); for the counters node an
// open, a read and a close. Target: within 2x.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "PerfCountersMeter.h"
#include "RatioReporter.h"
#include "SchedParamsMeter.h"
#include "VendorIPerfDataStore.h"

namespace {

// The nodes, in a directory of the run's own; the meters are given these paths.
std::string gTopLoad;
std::string gClusterCap;
std::string gCounters;

MeterInfo schedParamsInfo() {
    MeterInfo info;
    info.configs = {{"SCHEDPARAMS_AGGR_TOP_LOAD_PATH", gTopLoad},
                    {"SCHEDPARAMS_CLUSTER_CURR_CAP_PATH", gClusterCap}};
    return info;
}

// One reading of a node kept open: a pread at offset 0, or a read and a seek back.
void rawKeptOpen(benchmark::State& state, const std::string& path, bool seek) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        state.SkipWithError("cannot open the node");
    char buf[64];
    for (auto _ : state) {
        ssize_t n = seek ? read(fd, buf, sizeof(buf) - 1) : pread(fd, buf, sizeof(buf) - 1, 0);
        if (seek)
            lseek(fd, 0, SEEK_SET);
        buf[n > 0 ? n : 0] = '\0';
        benchmark::DoNotOptimize(atoi(buf));
    }
    close(fd);
}

void BM_PreadTopLoad(benchmark::State& state) {
    rawKeptOpen(state, gTopLoad, false);
}
BENCHMARK(BM_PreadTopLoad)->Repetitions(5);

void BM_ReadSeekTopLoad(benchmark::State& state) {
    rawKeptOpen(state, gTopLoad, true);
}
BENCHMARK(BM_ReadSeekTopLoad)->Repetitions(5);

void BM_GetTopAppLoad(benchmark::State& state) {
    SchedParamsMeter meter(schedParamsInfo());
    if (meter.getTopAppLoad() != 42)
        state.SkipWithError("cannot read the top-load node");
    for (auto _ : state)
        benchmark::DoNotOptimize(meter.getTopAppLoad());
}
BENCHMARK(BM_GetTopAppLoad)->Repetitions(5);

void BM_PreadClusterCap(benchmark::State& state) {
    rawKeptOpen(state, gClusterCap, false);
}
BENCHMARK(BM_PreadClusterCap)->Repetitions(5);

void BM_ReadSeekClusterCap(benchmark::State& state) {
    rawKeptOpen(state, gClusterCap, true);
}
BENCHMARK(BM_ReadSeekClusterCap)->Repetitions(5);

void BM_GetClusterCurrCap(benchmark::State& state) {
    SchedParamsMeter meter(schedParamsInfo());
    std::atomic<int> out[3];
    if (!meter.getClusterCurrCap(out) || out[2] != 1804)
        state.SkipWithError("cannot read the capacity node");
    for (auto _ : state)
        benchmark::DoNotOptimize(meter.getClusterCurrCap(out));
}
BENCHMARK(BM_GetClusterCurrCap)->Repetitions(5);

// The meter's own pattern, raw: open, read, close on every reading.
void BM_OpenReadCloseCounters(benchmark::State& state) {
    char buf[250];
    for (auto _ : state) {
        const int fd = open(gCounters.c_str(), O_RDONLY | O_CLOEXEC);
        ssize_t n = read(fd, buf, sizeof(buf) - 1);
        close(fd);
        buf[n > 0 ? n : 0] = '\0';
        benchmark::DoNotOptimize(atol(buf));
    }
}
BENCHMARK(BM_OpenReadCloseCounters)->Repetitions(5);

void BM_GetIPC(benchmark::State& state) {
    PerfCountersMeter meter{MeterInfo{}};
    if (meter.getIPC() != 2)
        state.SkipWithError("cannot read the counters node");
    for (auto _ : state)
        benchmark::DoNotOptimize(meter.getIPC());
}
BENCHMARK(BM_GetIPC)->Repetitions(5);

void addNode(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

}  // namespace

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::string dir = (fs::temp_directory_path() / "cpu-bench-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr)
        return 1;
    gTopLoad = dir + "/aggr_top_load";
    gClusterCap = dir + "/curr_cap_cluster";
    gCounters = dir + "/cpu_instructions";
    addNode(gTopLoad, "42\n");
    addNode(gClusterCap, "1017 1555 1804\n");
    addNode(gCounters, "1843212:2:2904117:55\n");
    VendorIPerfDataStore::getVendorIPerfDataStore()->Store(5, gCounters);
    const int status = bench::runWithRatios(
        argc, argv,
        {{"getTopAppLoad/pread", "BM_GetTopAppLoad/repeats:5", "BM_PreadTopLoad/repeats:5", 2.0},
         {"getClusterCurrCap/pread", "BM_GetClusterCurrCap/repeats:5",
          "BM_PreadClusterCap/repeats:5", 2.0},
         {"getIPC/open+read+close", "BM_GetIPC/repeats:5", "BM_OpenReadCloseCounters/repeats:5",
          2.0}});
    std::error_code ec;
    fs::remove_all(dir, ec);
    return status;
}
