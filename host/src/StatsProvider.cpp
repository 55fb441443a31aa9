// Backs the statistics with /proc/<pid>/status (through the path seam), as a device's host
// backs them with its own sources.
#include "StatsProvider.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "seams.h"

namespace {

constexpr char kVmRss[] = "VmRSS:";
constexpr char kVmSwap[] = "VmSwap:";

std::mutex gMutex;
StatsProvider::StatsSource gStatsSource;
StatsProvider::GpuMemorySource gGpuSource;

sysstats_task readProcStatus(int pid) {
    sysstats_task stats{};
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/status", pid);
    FILE* f = fopen(seams::resolvePath(path).c_str(), "r");
    if (f == nullptr)
        return stats;
    char line[256];
    while (fgets(line, sizeof(line), f) != nullptr) {
        if (strncmp(line, kVmRss, sizeof(kVmRss) - 1) == 0) {
            stats.vm_rss_kb = strtoll(line + sizeof(kVmRss) - 1, nullptr, 10);
        } else if (strncmp(line, kVmSwap, sizeof(kVmSwap) - 1) == 0) {
            stats.vm_swap_kb = strtoll(line + sizeof(kVmSwap) - 1, nullptr, 10);
        }
    }
    fclose(f);
    return stats;
}

}  // namespace

StatsProvider::StatsProvider() = default;
StatsProvider::~StatsProvider() = default;

sysstats_task StatsProvider::getPIDStats(int pid) {
    StatsSource statsSource;
    GpuMemorySource gpuSource;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        statsSource = gStatsSource;
        gpuSource = gGpuSource;
    }
    if (statsSource)
        return statsSource(pid);
    sysstats_task stats = readProcStatus(pid);
    if (gpuSource)
        stats.gpu_mem_kb = gpuSource(pid);
    return stats;
}

void StatsProvider::setStatsSource(StatsSource source) {
    std::lock_guard<std::mutex> lock(gMutex);
    gStatsSource = std::move(source);
}

void StatsProvider::setGpuMemorySource(GpuMemorySource source) {
    std::lock_guard<std::mutex> lock(gMutex);
    gGpuSource = std::move(source);
}
