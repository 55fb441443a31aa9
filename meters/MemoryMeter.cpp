#include "MemoryMeter.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "Diagnostics.h"
#include "HintCodes.h"
#include "MeterConfig.h"
#include "MeterMath.h"
#include "MeterRegistry.h"
#include "seams.h"

bool MemoryMeter::registerMeter = MeterRegistry::Register<MemoryMeter>("Memory");

using meters::guardedMultiply;
using meters::guardedSubtract;
using meters::kSamplePeriodMs;
using meters::kSamplePeriodUs;
using meters::wrappingAdd;

namespace {

constexpr char kComponent[] = "MemoryMeter";
constexpr char kFieldComponent[] = "Meter";  // MemoryField's lines
// Configuration: "TotalSamplesToRun" (atoi), the sample bound; absent, nothing is sampled.
constexpr char kTotalSamplesKey[] = "TotalSamplesToRun";
constexpr char kTotalSamplesDefault[] = "0";
// Events: end of activity ({hint::kNone, hint::kTypeEnd}) stops the run and is not kept;
// hint::kLaunchComplete ends it at the next poll.

constexpr char kRssSwap[] = "rss_swap";
constexpr char kIonTesk[] = "ion_tesk";
// Both recognised names have this length; no other name is compared.
constexpr size_t kFieldNameLength = 8;

constexpr int32_t kStableBudgetMs = 8100;
constexpr int32_t kDriftThreshold = 14;
constexpr int32_t kRangeThreshold = 17;

// |((value - base) * 100) / base|, multiplying first: unlike the VmRss detector this one sees
// fractions of the base. A zero base gives 0.
int32_t percentChange(int32_t value, int32_t base) {
    if (base == 0)
        return 0;
    const int64_t quotient = guardedMultiply(guardedSubtract(value, base), 100) / int64_t{base};
    return static_cast<int32_t>(quotient < 0 ? -quotient : quotient);
}

}  // namespace

Field::Field(std::string name) : mName(std::move(name)), mNameLength(mName.size()) {}

Field::~Field() = default;

MemoryField::MemoryField(std::string name, int numSamples)
    : Field(std::move(name)), mNumSamples(numSamples) {
    // A negative count cannot be allocated; it fails like any other failed allocation.
    if (numSamples >= 0)
        mMemoryValues.reset(new (std::nothrow) int64_t[numSamples]);
    if (mMemoryValues == nullptr)
        METER_LOGE(kFieldComponent, "MemoryField", 27, "Failed mMemoryValues");
    MemoryField::reset();  // a constructor reaches its own class's version only, so say so
}

MemoryField::~MemoryField() = default;

void MemoryField::reset() {
    // A fresh vector rather than a refill, so the zeros stay untouched pages.
    mResults = Results(mNumSamples > 0 ? static_cast<size_t>(mNumSamples) : 0);
}

int64_t MemoryField::collectStats(int sample, sysstats_task stats) {
    if (sample == 0 && !mResults.empty())
        mResults[0] = 0;
    if (sample >= mNumSamples || sample < 0) {
        METER_LOGE(kFieldComponent, "collectStats", 53,
                   "The sample number given is out of range\n");
        return 0;
    }
    if (mNameLength == kFieldNameLength &&
        strncmp(mName.c_str(), kIonTesk, kFieldNameLength) == 0) {
        // Recorded for the end point only: the GPU memory does not count towards the sum.
        if (mMemoryValues != nullptr)
            mMemoryValues[sample] = stats.gpu_mem_kb;
        return 0;
    }
    if (mNameLength == kFieldNameLength &&
        strncmp(mName.c_str(), kRssSwap, kFieldNameLength) == 0) {
        int64_t value = static_cast<int64_t>(static_cast<uint64_t>(stats.vm_rss_kb) +
                                             static_cast<uint64_t>(stats.vm_swap_kb));
        if (mMemoryValues != nullptr)
            mMemoryValues[sample] = value;
        return value;
    }
    if (mMemoryValues != nullptr)
        mMemoryValues[sample] = 0;
    return 0;
}

void MemoryField::updateStats(int sample) {
    // The meter only passes indices of samples it has taken; anything else is ignored.
    if (mMemoryValues == nullptr || sample < 0 || sample >= mNumSamples || mResults.empty())
        return;
    mResults[0] = mMemoryValues[sample];
}

MemoryMeter::MemoryMeter(MeterInfo info) : Meter(info) {
    // NOLINTNEXTLINE(cert-err34-c): the key's value is taken as atoi reads it (see the top).
    mTotalSamples = atoi(meters::configValue(info, kTotalSamplesKey, kTotalSamplesDefault).c_str());
    for (const std::string& name : info.fieldNames) {
        if (name != kIonTesk && name != kRssSwap)
            continue;
        // A field whose results cannot be had is left out, like one whose object cannot be.
        try {
            std::unique_ptr<Field> field(new (std::nothrow) MemoryField(name, mTotalSamples));
            if (field != nullptr) {
                mFields.push_back(field.get());
                (void)field.release();  // only once mFields holds it: push_back may throw
            }
        }
        METER_CATCH_CAUGHT_IN(kComponent, "MemoryMeter", __LINE__, __LINE__)
    }
}

MemoryMeter::~MemoryMeter() {
    for (Field* field : mFields)
        delete field;
}

void MemoryMeter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    if (hint::isEndOfActivity(payload)) {
        stopRequested.store(true);
        return;
    }
    if (payload.hintId == hint::kLaunchComplete)
        mTriggerCount.fetch_add(1);
    if (stopRequested.load())
        stopRequested.store(false);
    mAsyncUpdates.push_back(payload);
}

std::vector<AsyncTriggerPayload>* MemoryMeter::getAsyncUpdates() {
    return &mAsyncUpdates;
}

void MemoryMeter::getAsyncUpdates(std::vector<AsyncTriggerPayload>& out) {
    try {
        if (&out != &mAsyncUpdates)
            out = mAsyncUpdates;
    } catch (const std::exception& e) {
        METER_LOGE(kComponent, "getAsyncUpdates", 215, "Caught Exception: %s in %s", e.what(),
                   "getAsyncUpdates");
    } catch (...) {
        METER_LOGE(kComponent, "getAsyncUpdates", 217, "Caught Exception: in %s",
                   "getAsyncUpdates");
    }
}

void MemoryMeter::start() {
    std::vector<AsyncTriggerPayload> updates;
    getAsyncUpdates(updates);
    if (updates.empty()) {
        METER_LOGE(kComponent, "start", 144, "Async Data NULL");
        return;
    }
    int pid = updates[0].intArgs[0];
    if (pid < 1)
        return;

    mElapsedMs = 0;
    mEndpointMs = 0;
    mBaseline = 0;
    mMin = 0;
    mMax = 0;
    mTriggerCount.store(0);
    StatsProvider provider;

    int endpoint = 0;
    for (int i = 0; i < mTotalSamples; ++i) {
        if (hasStopNotification() || mTriggerCount.load() > 0)
            break;
        sysstats_task stats = provider.getPIDStats(pid);
        // The fields' 64-bit values are summed in 32 bits, as the detector works in int32.
        uint32_t sum = 0;
        for (Field* field : mFields)
            sum += static_cast<uint32_t>(field->collectStats(i, stats));
        int32_t total = static_cast<int32_t>(sum);
        if (total > 0) {
            int ep = detectLaunchEndPoint(total);
            if (ep >= 1) {
                endpoint = ep;
                break;
            }
        }
        seams::sleepUs(kSamplePeriodUs);
    }

    if (endpoint >= 1) {
        for (Field* field : mFields)
            field->updateStats(endpoint / kSamplePeriodMs);
    }
}

int MemoryMeter::detectLaunchEndPoint(int value) {
    mElapsedMs = wrappingAdd(mElapsedMs, kSamplePeriodMs);
    if (value != 0 && mBaseline == 0) {
        mBaseline = value;
        mMin = value;
        mMax = value;
    }
    if (value != 0) {
        if (value < mMin) {
            mMin = value;
        } else if (value > mMax) {
            mMax = value;
        }
        int32_t range = percentChange(mMax, mMin);
        int32_t drift = mBaseline != 0 ? percentChange(value, mBaseline) : 0;
        if (drift > kDriftThreshold || range > kRangeThreshold) {
            mMin = value;
            mMax = value;
            mBaseline = value;
            mEndpointMs = wrappingAdd(mEndpointMs, mElapsedMs);
            mElapsedMs = 0;
            if (mTriggerCount.load() >= 1)
                mBaseline = value;
            return 0;
        }
    }
    if (mTriggerCount.load() >= 1) {
        mBaseline = value;
        return 0;
    }
    return mElapsedMs > kStableBudgetMs ? mEndpointMs : 0;
}
