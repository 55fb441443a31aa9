// A memory-bus operating point from how long the big and little clusters' memory-latency
// governors keep each frequency: a process-wide worker samples both votes every 300 ms on a
// thread of its own, and the meter forwards triggers to it and asks it for the point.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "Meter.h"

// The single worker. There is no reference count: whichever MinDDRMeter holding it is destroyed
// first destroys it, and the others keep a dangling pointer.
class AuxMinDDRMeter {
  public:
    // The process's worker, created from info by the first call.
    static AuxMinDDRMeter* getInstance(MeterInfo& info);

    // Reads the little cluster's frequencies into both maps; a conversion error there throws.
    explicit AuxMinDDRMeter(MeterInfo& info);
    // Asks the sampling thread to end and joins it.
    ~AuxMinDDRMeter();
    AuxMinDDRMeter(const AuxMinDDRMeter&) = delete;
    AuxMinDDRMeter& operator=(const AuxMinDDRMeter&) = delete;

    // Starts the sampling thread, once.
    void start();
    // 4097 reset and sample, 4098 stop, 4099 sample, 4100 pause; returns the new mRunState.
    int AsyncUpdate(int hintId);
    // The sampling thread's body.
    void Run();
    // One reading of a cur_freq node, or -1. Text that is not a number throws.
    int readValue(std::ifstream& stream, std::string& path);
    // Counts one sample of each vote other than -1.
    void buildResidencyMap(int bigFreq, int littleFreq);
    // For each map, the lowest frequency with at least 20 samples below it; unchanged if none.
    void getOpp(int& littleOpp, int& bigOpp);
    void initResidencyMap(std::string& path);
    // Zeroes every count, keeping the frequencies.
    void resetMeter();
    // Closes both vote nodes; the next reading reopens them.
    void cleanupMeter();

    std::map<int32_t, int32_t> mBigResidency;
    std::map<int32_t, int32_t> mLittleResidency;
    std::ifstream mBigFreqStream;
    std::ifstream mLittleFreqStream;
    std::string mBigVotePath;
    std::string mLittleVotePath;
    std::string mAvailFreqLittlePath;
    std::thread mSamplerThread;
    std::condition_variable mStateCv;
    // Guards both maps and both streams.
    std::mutex mResidencyMutex;
    // Pairs with mStateCv.
    std::mutex mWaitMutex;
    std::atomic<bool> mThreadStarted{false};
    // 0 sampling, 1 paused, 2 stopped, 3 reset requested, 4 exit requested.
    std::atomic<int32_t> mRunState{2};

    static AuxMinDDRMeter* mInstance;
    static std::mutex mInstanceMutex;

  private:
    // Wakes the sampling thread after mRunState changed.
    void notifyStateChanged();
};

class MinDDRMeter : public Meter {
  public:
    explicit MinDDRMeter(MeterInfo info);
    // Without a worker: every operation does nothing and getOpp() is -1.
    explicit MinDDRMeter(std::string& name);
    // Destroys the worker it holds.
    ~MinDDRMeter() override;

    void start() override;
    void asyncTriggerUpdate(const AsyncTriggerPayload& payload) override;

    // The larger of the little and big operating points, or -1.
    int getOpp();

    AuxMinDDRMeter* mWorker = nullptr;

    static bool mRegisterMeter;
};
