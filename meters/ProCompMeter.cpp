#include "ProCompMeter.h"

#include <utility>

#include "Diagnostics.h"
#include "HintCodes.h"
#include "MeterMath.h"
#include "MeterRegistry.h"
#include "StatsProvider.h"
#include "seams.h"

bool ProCompMeter::registerMeter = MeterRegistry::Register<ProCompMeter>("ProComp");

namespace {

constexpr char kComponent[] = "ProCompMeter";
// Configuration: none; the pid to watch is intArgs[0] of the first event kept.
// Events: hint::kActivityStop or hint::kActivityPause with hint::kTypeEnd, and the end of
// activity ({hint::kNone, hint::kTypeEnd}), end the run and are not kept.

}  // namespace

ProCompMeter::ProCompMeter(MeterInfo info) : Meter(std::move(info)) {}

ProCompMeter::~ProCompMeter() = default;

void ProCompMeter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    if ((payload.hintId == hint::kActivityStop || payload.hintId == hint::kActivityPause) &&
        payload.hintType == hint::kTypeEnd) {
        mStop.store(true);
        return;
    }
    if (hint::isEndOfActivity(payload)) {
        mStop.store(true);
        return;
    }
    // Any other event belongs to a new activity. The base's flag is only ever cleared here:
    // this meter ends on mStop alone.
    if (stopRequested.load())
        stopRequested.store(false);
    try {
        mAsyncUpdates.push_back(payload);
    }
    METER_CATCH_EXCEPTION_CAUGHT(kComponent, "asyncTriggerUpdate", 74, 77)
}

std::vector<AsyncTriggerPayload>* ProCompMeter::getAsyncUpdates() {
    return &mAsyncUpdates;
}

void ProCompMeter::getAsyncUpdates(std::vector<AsyncTriggerPayload>& out) {
    try {
        if (&out != &mAsyncUpdates)
            out = mAsyncUpdates;
    }
    METER_CATCH_EXCEPTION_CAUGHT(kComponent, "getAsyncUpdates", 87, 90)
}

void ProCompMeter::start() {
    // The base's pending list is replaced by this meter's own, so both agree for the host.
    getAsyncUpdates(asyncUpdates);
    mPeak = 0;
    if (mAsyncUpdates.empty())
        return;
    const int pid = mAsyncUpdates.front().intArgs[0];
    if (pid < 0)
        return;
    // An end event that arrived before the run belongs to an earlier activity.
    mStop.store(false);
    StatsProvider stats;
    while (!mStop.load()) {
        const sysstats_task task = stats.getPIDStats(pid);
        // Compared unsigned, so a negative word reads as a huge one; only its low 32 bits fit.
        const uint64_t gpuMem = static_cast<uint64_t>(task.gpu_mem_kb);
        if (gpuMem > mPeak)
            mPeak = static_cast<uint32_t>(gpuMem);
        seams::sleepUs(meters::kSamplePeriodUs);
    }
}
