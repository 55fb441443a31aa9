// Named per-process memory statistics sampled through the host's StatsProvider, and the end of
// an application's launch detected from the sum of those statistics.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Meter.h"
#include "StatsProvider.h"
#include "ZeroPageAllocator.h"

// One tracked statistic of a process.
class Field {
  public:
    explicit Field(std::string name);
    virtual int64_t collectStats(int sample, sysstats_task stats) = 0;
    virtual void updateStats(int sample) = 0;
    virtual void reset() = 0;
    virtual ~Field();

    Field(const Field&) = delete;
    Field& operator=(const Field&) = delete;

    using Results = std::vector<int64_t, ZeroPageAllocator<int64_t>>;

    std::string mName;
    size_t mNameLength;
    // Entry 0 holds the field's value at the launch end point; the others are never used.
    Results mResults;
};

// A memory statistic, recorded per sample index.
class MemoryField : public Field {
  public:
    MemoryField(std::string name, int numSamples);
    ~MemoryField() override;

    int64_t collectStats(int sample, sysstats_task stats) override;
    void updateStats(int sample) override;
    void reset() override;

    int32_t mNumSamples;
    std::unique_ptr<int64_t[]> mMemoryValues;  // null when it could not be allocated
};

class MemoryMeter : public Meter {
  public:
    explicit MemoryMeter(MeterInfo info);
    ~MemoryMeter() override;

    void start() override;
    void asyncTriggerUpdate(const AsyncTriggerPayload& payload) override;
    std::vector<AsyncTriggerPayload>* getAsyncUpdates() override;
    void getAsyncUpdates(std::vector<AsyncTriggerPayload>& out) override;

    // Advances the end-point detector by one sample of the fields' sum; the end point in ms once
    // memory has stayed within bounds for the budget, else 0.
    int detectLaunchEndPoint(int value);

    int32_t mTotalSamples;
    std::vector<Field*> mFields;
    // Not locked: the host does not deliver events while start() copies them.
    std::vector<AsyncTriggerPayload> mAsyncUpdates;
    int32_t mElapsedMs = 0;
    int32_t mEndpointMs = 0;
    int32_t mBaseline = 0;
    int32_t mMin = 0;
    int32_t mMax = 0;
    std::atomic<int32_t> mTriggerCount{0};

    static bool registerMeter;
};
