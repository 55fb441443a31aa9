// Measures one application launch at a time: finds the launching process, samples its memory and
// OOM score every 30 ms while its descriptor counts arrive as events, and stores how long the
// launch took until its series settled.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "FeatureLocator.h"
#include "LLFeaturesList.h"
#include "Meter.h"

class LaunchMeter : public Meter {
  public:
    explicit LaunchMeter(MeterInfo info);
    explicit LaunchMeter(std::string name);
    ~LaunchMeter() override;

    // The constructed state, with a fresh sample array.
    void Init();
    // Clears the last launch's results and series before the next.
    void Reset();

    // One launch, if a launch-start event armed it; returns at once otherwise.
    void start() override;
    void asyncTriggerUpdate(const AsyncTriggerPayload& payload) override;

    // Appends the payload's descriptor counts (intArgs[9] of values) unless the end is known.
    void updatesFDCount(const AsyncTriggerPayload& payload);
    // The host's classifier: answer 2 with selector 0 is a game; selector 1 weighs a non-game.
    bool isGame(std::string& pkg);
    void getPkgWeight(int& weight, std::string& pkg);
    // RssAnon + VmSwap in kB from an open status file (below 1 when not found).
    int getProcessVmRss(FILE* status);
    int getFieldValue(char* line, const char* key);
    // The integer at the start of an open oom_score file.
    int getProcessOMMScore(FILE* oomScore);

    // |a - b| / b in percent (b taken as 1 when |b| <= 1); 1.0, not 0, for equal values and for
    // any quotient whose percentage would not be a positive normal float.
    static float calcDiffPercentage(float a, float b);
    // a * b, or 1 on overflow; a - b, or 0 on overflow.
    static int Multiply(int a, int b);
    static int Subtract(int a, int b);

    std::atomic<int32_t> mLaunchDuration{0};  // ms, the host's result
    int32_t mTimeBudgetMs = 8100;
    int32_t* mVmRssValues = nullptr;  // the raw value of every round
    int32_t mSampleCount = 0;
    bool mAborted = false;
    bool mStopActive = false;  // guarded by mMutex
    int32_t mTotalSamples = 2000;
    int32_t mReservedFour = 4;   // part of the layout the host knows; nothing reads it
    bool mStartPending = false;  // guarded by mMutex
    std::mutex mMutex;
    LLFeaturesList mFeatures;
    FeatureLocator* mFeatureLocator = nullptr;
    int32_t mReservedRun = 0;  // zeroed by every start(); nothing reads it

    static bool registerMeter;
};
