// Follows the anonymous resident memory plus swap of a launching application and estimates the
// moment its launch ended: the point after which that memory stops changing much.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <list>
#include <mutex>
#include <string>

#include "Meter.h"

class VmRssMeter : public Meter {
  public:
    explicit VmRssMeter(MeterInfo info);
    VmRssMeter(std::string name, int numSamples, std::list<std::string> list);
    ~VmRssMeter() override;

    // Puts every member back to its constructed state with a fresh sample array.
    void Init();
    // Clears the per-run state and the received events before a run.
    void Reset();

    void start() override;
    void asyncTriggerUpdate(const AsyncTriggerPayload& p) override;

    // The pid of p's application, retried five times 200 ms apart; 0 for a null p.
    int getPid(AsyncTriggerPayload* p);
    // The first foreground task whose command line is appName, or -1.
    int getPidExpensive(std::string& appName);
    // RssAnon + VmSwap in kB from an open status file; RssAnon alone (or -1) if VmSwap is missing.
    int getProcessVmRss(FILE* status);
    // atoi of the text after the first occurrence of key in line, or -1.
    int getFieldValue(char* line, const char* key);
    // Feeds one sample to the end-point detector: the end point in ms, or 0 while none is known.
    int detectLaunchEndpoint(int value);

    int32_t mNumSamples = 0;
    std::atomic<int32_t> mLaunchEndpoint{0};
    int32_t mMaxDurationMs = 8100;
    int32_t* mVmRssValues = nullptr;
    int32_t mSampleCount = 0;
    int32_t mElapsedMs = 0;
    int32_t mEndpointMs = 0;
    std::atomic<int32_t> mBaseline{0};
    int32_t mMin = 0;
    int32_t mMax = 0;
    bool mAborted = false;
    int32_t mTriggerCount = 0;
    bool mStopRequested = false;
    std::mutex mTriggerMutex;
    std::mutex mStopMutex;

    static bool registerMeter;
};
