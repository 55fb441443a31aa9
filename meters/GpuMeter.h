// The GPU's load, read on demand from four nodes of its driver: the busy percentage, and a
// history of per-level usage from the cumulative clock statistics, each level weighted by its
// frequency relative to the maximum clock.
#pragma once

#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "Meter.h"

class GpuMeter : public Meter {
  public:
    explicit GpuMeter(MeterInfo info);
    // Default paths; the configuration is not read.
    explicit GpuMeter(std::string& name);
    ~GpuMeter() override;

    // Opens the closed nodes unless a stop was notified; closes them all and empties both
    // histories if one was.
    void start() override;
    // {kActivityStop or kActivityPause, kTypeEnd} stops, {kActivityResume, kTypeEnd} resumes;
    // any other event resumes and is kept in the base's pending list.
    void asyncTriggerUpdate(const AsyncTriggerPayload& payload) override;

    // The available frequencies, one per level; empty when the node cannot be read.
    void getAvlGpuFreqs(std::vector<int>& freqs);
    // The cumulative clock statistics, one per level; empty when the node cannot be read.
    void getClockStats(std::vector<long>& stats);
    // The maximum GPU clock, or -1. Reads without mIoMutex.
    int getGpuMaxFreq();
    // The driver's busy percentage, or 0.0.
    float getBusyPercentage();
    // Takes a snapshot of the clock statistics and returns every usage vector kept, oldest first.
    void getGpuUsage(std::vector<std::vector<float>>& usage);

    // Guards the four streams.
    std::mutex mIoMutex;
    std::ifstream mAvailFreqsStream;
    std::ifstream mClockStatsStream;
    std::ifstream mBusyPercentageStream;
    std::ifstream mMaxClkStream;
    std::string mAvailFreqsPath;
    std::string mClockStatsPath;
    std::string mBusyPercentagePath;
    std::string mMaxClkPath;
    // Guards the two histories; taken after mIoMutex when both are held.
    std::mutex mHistoryMutex;
    // The last 60 clock-statistics snapshots and usage vectors, oldest first.
    std::vector<std::vector<int64_t>> mClockStatsHistory;
    std::vector<std::vector<float>> mUsageHistory;

    static bool registerMeter;
};
