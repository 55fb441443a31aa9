// The display and GPU getters on kept-open nodes, each beside a raw pread and parse of the same
// nodes in the same run; the program ends with each getter's median time over its raw read's.
// The nodes are files in a tmpfs directory, so the times are the readers' own, not a driver's.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "FpsMeter.h"
#include "GpuMeter.h"
#include "NodeStream.h"
#include "RatioReporter.h"

namespace {

std::string gDir;

std::string node(const char* name) {
    return gDir + "/" + name;
}

// The texts as the drivers write them.
const std::map<std::string, std::string> kNodes = {
    {"measured_fps", "fps: 59.94 duration:500000 frame_count:30\n"},
    {"fps_periodicity_ms", "500"},
    {"gpu_available_frequencies",
     "900000000 800000000 700000000 585000000 525000000 490000000 401000000 305000000\n"},
    {"gpu_clock_stats", "1203 50412 9910 230114 120012 93004 771902 3312009\n"},
    {"gpu_busy_percentage", "37 %\n"},
    {"max_gpuclk", "900000000\n"}};

// One pread at offset 0 of a kept-open node, as the kernel serves a reading.
class RawNode {
  public:
    explicit RawNode(const char* name) : mFd(open(node(name).c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~RawNode() {
        if (mFd >= 0)
            close(mFd);
    }
    const char* read() {
        ssize_t n = pread(mFd, mBuf, sizeof(mBuf) - 1, 0);
        mBuf[n > 0 ? n : 0] = '\0';
        return mBuf;
    }

  private:
    int mFd;
    char mBuf[4096];
};

MeterInfo displayInfo() {
    return MeterInfo{"",
                     {},
                     {},
                     {{"FPS_NODE", node("measured_fps")},
                      {"FPS_PERIODICITY_NODE", node("fps_periodicity_ms")},
                      {"GPU_AVAILABLE_FREQUENCIES", node("gpu_available_frequencies")},
                      {"GPU_CLOCK_STATS", node("gpu_clock_stats")},
                      {"GPU_BUSY_PERCENTAGE", node("gpu_busy_percentage")},
                      {"GPU_MAX_CLK", node("max_gpuclk")}}};
}

void BM_RawFps(benchmark::State& state) {
    RawNode fps("measured_fps");
    for (auto _ : state) {
        const char* line = fps.read();
        float rate = strtof(strchr(line, ':') + 1, nullptr);
        unsigned long frames = strtoul(strrchr(line, ':') + 1, nullptr, 10);
        benchmark::DoNotOptimize(rate);
        benchmark::DoNotOptimize(frames);
    }
}
BENCHMARK(BM_RawFps);

// The floor the node stream sets for the getters: the same parse after a line read from a
// kept-open std::ifstream and its rewind (an lseek and a read where the raw read is one pread).
void BM_StreamFps(benchmark::State& state) {
    std::ifstream stream;
    meters::openNode(stream, node("measured_fps"));
    std::string line;
    for (auto _ : state) {
        meters::readNodeLine(stream, line);
        float rate = strtof(strchr(line.c_str(), ':') + 1, nullptr);
        unsigned long frames = strtoul(strrchr(line.c_str(), ':') + 1, nullptr, 10);
        meters::rewindNode(stream);
        benchmark::DoNotOptimize(rate);
        benchmark::DoNotOptimize(frames);
    }
}
BENCHMARK(BM_StreamFps);

void BM_GetFps(benchmark::State& state) {
    FpsMeter meter(displayInfo());
    meter.start();
    if (meter.getFps() == 0.0F)
        state.SkipWithError("the fps node does not read");
    for (auto _ : state)
        benchmark::DoNotOptimize(meter.getFps());
}
BENCHMARK(BM_GetFps);

void BM_RawBusyPercentage(benchmark::State& state) {
    RawNode busy("gpu_busy_percentage");
    for (auto _ : state)
        benchmark::DoNotOptimize(strtof(busy.read(), nullptr));
}
BENCHMARK(BM_RawBusyPercentage);

void BM_GetBusyPercentage(benchmark::State& state) {
    GpuMeter meter(displayInfo());
    meter.start();
    if (meter.getBusyPercentage() == 0.0F)
        state.SkipWithError("the busy node does not read");
    for (auto _ : state)
        benchmark::DoNotOptimize(meter.getBusyPercentage());
}
BENCHMARK(BM_GetBusyPercentage);

// The three nodes getGpuUsage reads, each split into its numbers.
void BM_RawGpuUsageNodes(benchmark::State& state) {
    RawNode freqs("gpu_available_frequencies"), maxClk("max_gpuclk"), stats("gpu_clock_stats");
    std::vector<int> freqValues;
    std::vector<long> statValues;
    for (auto _ : state) {
        freqValues.clear();
        statValues.clear();
        char* end;
        for (const char* p = freqs.read(); *p != '\0' && *p != '\n'; p = end)
            freqValues.push_back(static_cast<int>(strtol(p, &end, 10)));
        benchmark::DoNotOptimize(atoi(maxClk.read()));
        for (const char* p = stats.read(); *p != '\0' && *p != '\n'; p = end)
            statValues.push_back(strtol(p, &end, 10));
        benchmark::DoNotOptimize(freqValues.data());
        benchmark::DoNotOptimize(statValues.data());
    }
}
BENCHMARK(BM_RawGpuUsageNodes);

// In the steady state: both histories full, the caller's vector passed again each time.
void BM_GetGpuUsage(benchmark::State& state) {
    GpuMeter meter(displayInfo());
    meter.start();
    std::vector<std::vector<float>> usage;
    for (int i = 0; i < 61; ++i)
        meter.getGpuUsage(usage);
    if (usage.size() != 60)
        state.SkipWithError("the GPU nodes do not read");
    for (auto _ : state) {
        meter.getGpuUsage(usage);
        benchmark::DoNotOptimize(usage.data());
    }
}
BENCHMARK(BM_GetGpuUsage);

}  // namespace

// The nodes live for the run only; the shared main then runs against the paths configured here.
int main(int argc, char** argv) {
    char dir[] = "/dev/shm/display-bench-XXXXXX";
    char fallback[] = "/tmp/display-bench-XXXXXX";
    const char* made = mkdtemp(dir) != nullptr ? dir : mkdtemp(fallback);
    if (made == nullptr)
        return 1;
    gDir = made;
    for (const auto& [name, text] : kNodes)
        std::ofstream(node(name.c_str())) << text;

    const int status = bench::runWithRatios(
        argc, argv,
        {{"getFps/raw", "BM_GetFps", "BM_RawFps", 2.0},
         {"getBusyPercentage/raw", "BM_GetBusyPercentage", "BM_RawBusyPercentage", 2.0},
         {"getGpuUsage/raw", "BM_GetGpuUsage", "BM_RawGpuUsageNodes", 2.0}});

    for (const auto& entry : kNodes)
        unlink(node(entry.first.c_str()).c_str());
    rmdir(made);
    return status;
}
