// Peak of one process's GPU-held memory over an activity: sampled every 300 ms until the host
// reports the end of the activity.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "Meter.h"

class ProCompMeter : public Meter {
  public:
    explicit ProCompMeter(MeterInfo info);
    ~ProCompMeter() override;

    void start() override;
    void asyncTriggerUpdate(const AsyncTriggerPayload& payload) override;
    std::vector<AsyncTriggerPayload>* getAsyncUpdates() override;
    void getAsyncUpdates(std::vector<AsyncTriggerPayload>& out) override;

    // Set by an end-of-activity event on the host's event thread; ends the sampling loop.
    std::atomic<bool> mStop{false};
    // Largest word-4 value of the current run; read by the host after start() returns.
    uint32_t mPeak = 0;
    // Events kept for start(). Appended without a lock: the host does not deliver events while
    // start() copies them.
    std::vector<AsyncTriggerPayload> mAsyncUpdates;

    static bool registerMeter;
};
