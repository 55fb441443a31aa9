// The host's per-process statistics service.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// Eighteen 64-bit words per process. The meters read words 0, 2 and 4.
struct sysstats_task {
    int64_t vm_rss_kb;     // 0: resident memory (VmRSS), kB
    int64_t reserved1;     // 1
    int64_t vm_swap_kb;    // 2: swapped-out memory (VmSwap), kB
    int64_t reserved3;     // 3
    int64_t gpu_mem_kb;    // 4: memory held through the GPU driver, kB
    int64_t reserved[13];  // 5..17
};
static_assert(sizeof(sysstats_task) == 18 * sizeof(int64_t), "eighteen 64-bit words");

// One instance serves one thread. It keeps the status file of the last process it was asked
// about open, since a meter asks about the same process every sampling period.
class StatsProvider {
  public:
    StatsProvider();
    ~StatsProvider();
    StatsProvider(const StatsProvider&) = delete;
    StatsProvider& operator=(const StatsProvider&) = delete;

    // Statistics of one process; all zero for a process that cannot be read.
    sysstats_task getPIDStats(int pid);

    // Host-owner hooks (not used by meters). A stats source replaces the whole answer; a GPU
    // memory source supplies word 4 of the answer read from /proc. Empty functions restore the
    // defaults (word 4 is then 0).
    using StatsSource = std::function<sysstats_task(int pid)>;
    using GpuMemorySource = std::function<int64_t(int pid)>;
    static void setStatsSource(StatsSource source);
    static void setGpuMemorySource(GpuMemorySource source);

  private:
    bool openStatus(const std::string& path);
    void closeStatus();
    sysstats_task readStatus(int pid);

    std::string mPath;  // resolved path of the kept file; empty when none is open
    int mFd = -1;
    bool mCheckLinks = false;  // whether the kept file can be unlinked or replaced
};
