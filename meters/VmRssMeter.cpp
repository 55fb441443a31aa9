#include "VmRssMeter.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <vector>

#include "Diagnostics.h"
#include "DumpData.h"
#include "HintCodes.h"
#include "MeterMath.h"
#include "MeterRegistry.h"
#include "NodeStream.h"
#include "ProcStatus.h"
#include "seams.h"

bool VmRssMeter::registerMeter = MeterRegistry::Register<VmRssMeter>("VmRss");

using meters::guardedMultiply;
using meters::guardedSubtract;
using meters::kSamplePeriodMs;
using meters::kSamplePeriodUs;
using meters::wrappingAdd;

namespace {

constexpr char kComponent[] = "VmRssMeter:";
// Configuration: none of its own; MeterInfo::numSamples bounds the run.
// Events: hint::kLaunchComplete ends the hunt at the last significant change;
// hint::kActivityStop abandons the run.

constexpr char kTasksPath[] = "/dev/cpuset/top-app/tasks";

constexpr int32_t kDefaultMaxDurationMs = 8100;
constexpr int kPidAttempts = 5;
constexpr uint32_t kPidRetryUs = 200000;
constexpr int kStatusPathSize = 128;

// A sample that moved more than this many percent from the baseline is a significant change...
constexpr int32_t kDriftThreshold = 9;
// ...and so is a spread of at least this many percent since the last change.
constexpr int32_t kRangeThreshold = 13;

// |((a - b) / divisor) * 100|, dividing first: only whole multiples of the divisor count, which
// keeps this detector deliberately coarse.
int32_t coarsePercentage(int32_t a, int32_t b, int32_t divisor) {
    const int64_t diff = guardedSubtract(a, b);
    // INT32_MIN / -1 wraps to INT32_MIN, as the device's division does.
    int32_t quotient = divisor == 0 ? 0 : static_cast<int32_t>(diff / divisor);
    int32_t percentage = guardedMultiply(quotient, 100);
    return percentage < 0 ? -percentage : percentage;
}

}  // namespace

VmRssMeter::VmRssMeter(MeterInfo info) : Meter(info), mNumSamples(info.numSamples) {
    Init();
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the host's signature; the list is unused.
VmRssMeter::VmRssMeter(std::string name, int numSamples, std::list<std::string> /*list*/)
    : Meter(name), mNumSamples(numSamples) {
    Init();
}

VmRssMeter::~VmRssMeter() {
    delete[] mVmRssValues;
}

void VmRssMeter::Init() {
    mMaxDurationMs = kDefaultMaxDurationMs;
    // The previous array is intentionally not freed here.
    if (mNumSamples >= 1) {
        mVmRssValues = new (std::nothrow) int32_t[mNumSamples];
        if (mVmRssValues == nullptr)
            METER_LOGE(kComponent, "Init", 95, "Failed mVmRssValues ");
    }
    Reset();
}

void VmRssMeter::Reset() {
    mSampleCount = 0;
    mElapsedMs = 0;
    mEndpointMs = 0;
    mBaseline = 0;
    mLaunchEndpoint = 0;
    mMin = 0;
    mMax = 0;
    mAborted = false;
    std::lock_guard<std::mutex> triggerLock(mTriggerMutex);
    std::lock_guard<std::mutex> stopLock(mStopMutex);
    mTriggerCount = 0;
    mStopRequested = false;
}

void VmRssMeter::asyncTriggerUpdate(const AsyncTriggerPayload& p) {
    Meter::asyncTriggerUpdate(p);
    if (p.hintId == hint::kLaunchComplete) {
        std::lock_guard<std::mutex> lock(mTriggerMutex);
        mTriggerCount = wrappingAdd(mTriggerCount, 1);
    }
    if (p.hintId == hint::kActivityStop) {
        std::lock_guard<std::mutex> lock(mStopMutex);
        mStopRequested = true;
    }
}

void VmRssMeter::start() {
    Reset();

    std::vector<AsyncTriggerPayload> updates;
    Meter::getAsyncUpdates(updates);
    if (updates.empty()) {
        METER_LOGE(kComponent, "start", 348, "Async Data NULL");
        return;
    }
    AsyncTriggerPayload& launch = updates.front();
    mMaxDurationMs = launch.intArgs[0];

    int pid = getPid(&launch);
    if (pid <= 0) {
        METER_LOGE(kComponent, "start", 359, "Could not find pid, can not collect vmrss data");
        return;
    }

    char path[kStatusPathSize];
    (void)snprintf(path, sizeof(path), "/proc/%d/status", pid);  // fits any int
    meters::NodeFile status(path);
    if (mNumSamples < 1)
        status.close();
    for (int i = 0; status.isOpen();) {
        bool stop;
        {
            std::lock_guard<std::mutex> lock(mStopMutex);
            stop = mStopRequested;
        }
        if (stop || hasStopNotification()) {
            mAborted = true;
            break;
        }
        int value = getProcessVmRss(status.get());
        if (value < 1) {  // the process is gone (its node reads nothing or was closed)
            mAborted = true;
            break;
        }
        if (mVmRssValues != nullptr && mSampleCount < mNumSamples) {
            mVmRssValues[mSampleCount] = value;
            ++mSampleCount;
        }
        int endpoint = detectLaunchEndpoint(value);
        if (endpoint != 0) {
            if (endpoint >= 1)
                mLaunchEndpoint = endpoint;
            break;
        }
        if (mEndpointMs == 0 && mElapsedMs > mMaxDurationMs)
            break;
        seams::sleepUs(kSamplePeriodUs);
        // A rewind that fails closes the node: the next sample then reads nothing and aborts.
        status.rewind();
        ++i;
        if (i >= mNumSamples)
            break;
    }

    if (!mAborted && mSampleCount >= 1)
        DumpData::Dump(launch.appName.c_str(), mLaunchEndpoint, mVmRssValues, mSampleCount);
}

int VmRssMeter::getPid(AsyncTriggerPayload* p) {
    if (p == nullptr)
        return 0;
    int pid = -1;
    for (int attempt = 0; attempt < kPidAttempts; ++attempt) {
        seams::sleepUs(kPidRetryUs);
        pid = getPidExpensive(p->appName);
        if (pid > 0)
            return pid;
    }
    return pid;
}

int VmRssMeter::getPidExpensive(std::string& appName) {
    try {
        std::ifstream tasks;
        meters::openNode(tasks, kTasksPath);
        // All ids are read before any is looked at, then visited in file order: the first
        // thread whose command line matches wins. (Appending and walking forward keeps the
        // hunt linear on a cpuset with many threads.)
        std::vector<int> ids;
        int id;
        while (tasks >> id)
            ids.push_back(id);
        for (int task : ids) {
            std::ifstream cmdline;
            meters::openNode(cmdline, "/proc/" + std::to_string(task) + "/cmdline");
            std::string name;
            std::getline(cmdline, name, '\0');
            if (name.empty())
                continue;
            if (name.length() == appName.length() &&
                strncmp(name.c_str(), appName.c_str(), name.length()) == 0) {
                return task;
            }
        }
    }
    METER_CATCH_CAUGHT_IN(kComponent, "getPidExpensive", 285, 287)
    return -1;
}

int VmRssMeter::getProcessVmRss(FILE* status) {
    return meters::statusAnonPlusSwapKb(status);
}

int VmRssMeter::getFieldValue(char* line, const char* key) {
    return meters::statusFieldValue(line, key);
}

int VmRssMeter::detectLaunchEndpoint(int value) {
    // Periods are counted, not measured: each call stands for one 300 ms cycle.
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
        int32_t range = coarsePercentage(mMax, mMin, mMin);
        int32_t drift = 0;
        int32_t baseline = mBaseline;
        if (baseline != 0)
            drift = coarsePercentage(value, baseline, baseline);
        if (drift > kDriftThreshold || range >= kRangeThreshold) {
            mBaseline = value;
            mMin = value;
            mMax = value;
            mEndpointMs = wrappingAdd(mEndpointMs, mElapsedMs);
            mElapsedMs = 0;
        }
    }
    if (mElapsedMs > mMaxDurationMs)
        return mEndpointMs;
    {
        std::lock_guard<std::mutex> lock(mTriggerMutex);
        if (mTriggerCount < 1)
            return 0;
    }
    mBaseline = value;
    return mEndpointMs;
}
