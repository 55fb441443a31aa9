// Scheduler readings of the vendor performance module: aggregated top-app load, runnable tasks on
// the big cores, per-cluster top-app load and current capacity. The module publishes them only
// while a client is registered, so triggers switch that registration, carried out by start().
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>

#include "Meter.h"

class SchedParamsMeter : public Meter {
  public:
    explicit SchedParamsMeter(MeterInfo info);
    ~SchedParamsMeter() override;

    // Writes a pending registration ("1") or deregistration ("0"); nothing else.
    void start() override;
    // 4097/4099 request registration, 4098/4100 deregistration; only stores the request.
    void asyncTriggerUpdate(const AsyncTriggerPayload& payload) override;

    // The aggregated top-app load, or -1 when the node cannot be read.
    int getTopAppLoad();
    // The runnable tasks on the big cores, or -1.
    int getBigNrRun();
    // The three clusters' values into out[0..2]; entries the node did not refresh keep their
    // previous values. False only for a null out.
    bool getClusterTopAppLoad(std::atomic<int>* out);
    bool getClusterCurrCap(std::atomic<int>* out);

    // One integer from a kept-open node, or -1.
    int readValue(std::ifstream& stream, std::string& path);
    // Up to three blank-separated integers into values; how many were stored, or -1.
    int readCluster(std::ifstream& stream, std::string& path, int* values);
    // value as decimal text into path; 0, or -1 when it cannot be opened.
    int writeValue(std::string& path, int value);

    std::string mAggrTopLoadPath;
    std::string mBigNrRunPath;
    std::string mRegisterTriggersPath;
    std::string mClusterTopLoadPath;
    std::string mClusterCurrCapPath;
    std::ifstream mBigNrRunStream;
    std::ifstream mTopLoadStream;
    std::ifstream mClusterTopLoadStream;
    std::ifstream mClusterCurrCapStream;
    // 1 not registered, 2 registration requested, 3 registered, 0 deregistration requested.
    std::atomic<int> mTriggerState{1};
    // Serialises start() and the four getters.
    std::mutex mIoMutex;
    int32_t mClusterTopLoad[3] = {};
    int32_t mClusterCurrCap[3] = {};

    static bool registerMeter;
};
