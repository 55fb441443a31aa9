#include "LaunchMeter.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "AsyncEvent.h"
#include "Diagnostics.h"
#include "HintCodes.h"
#include "MeterMath.h"
#include "MeterRegistry.h"
#include "NodeStream.h"
#include "ProcStatus.h"
#include "seams.h"

bool LaunchMeter::registerMeter = MeterRegistry::Register<LaunchMeter>("Launch");

namespace {

constexpr char kComponent[] = "LaunchMeter:";
// Configuration: none of its own; the time budget is intArgs[0] of the first pending event.
// Events: hint::kActivityStop and the end of activity ({hint::kNone, hint::kTypeEnd}) stop the
// run; hint::kLaunchStart arms the next start() and is queued; hint::kFdCounts brings the
// descriptor counts (intArgs[9] entries of values) and is never queued.

constexpr int32_t kDefaultTimeBudgetMs = 8100;
constexpr int32_t kTotalSamples = 2000;  // rounds of a game, and the raw array's size
constexpr int kFdCountArg = 9;
constexpr char kClassifierKey[] = "AppClassifier";
constexpr int kGameAnswer = 2;
constexpr int kGameWindow = 10;
constexpr int kAppWindow = 5;
constexpr int kGameRoundsPerPass = 167;  // about 5 s of samples between a game's passes
constexpr int kWeightedAppRounds = 100;  // non-games of classes 1 to 3
constexpr int kAppRounds = 34;
constexpr double kHuntLimitMs = 60000.0;
constexpr int kPathSize = 128;
constexpr int kOomBufferSize = 150;

double msSince(std::chrono::steady_clock::time_point t0) {
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::nanoseconds>(seams::steadyNow() - t0);
    return static_cast<double>(elapsed.count()) / 1e6;
}

}  // namespace

LaunchMeter::LaunchMeter(MeterInfo info) : Meter(std::move(info)) {
    mFeatureLocator = FeatureLocator::mInstance;
    mTotalSamples = kTotalSamples;
    Init();
}

LaunchMeter::LaunchMeter(std::string name) : Meter(name) {
    mFeatureLocator = FeatureLocator::mInstance;
    mTotalSamples = kTotalSamples;
    Init();
}

LaunchMeter::~LaunchMeter() {
    delete[] mVmRssValues;
}

void LaunchMeter::Init() {
    mLaunchDuration = 0;
    mTimeBudgetMs = kDefaultTimeBudgetMs;
    delete[] mVmRssValues;
    mVmRssValues = nullptr;
    if (mTotalSamples >= 1) {
        mVmRssValues = new (std::nothrow) int32_t[mTotalSamples];
        if (mVmRssValues == nullptr)
            METER_LOGE(kComponent, "Init", __LINE__, "Failed mVmRssValues ");
    }
    mSampleCount = 0;
    mAborted = false;
    std::lock_guard<std::mutex> lock(mMutex);
    mStopActive = false;
}

void LaunchMeter::Reset() {
    mSampleCount = 0;
    mLaunchDuration = 0;
    mAborted = false;
    std::lock_guard<std::mutex> lock(mMutex);
    mStopActive = false;
    mFeatures.clearAll();
}

void LaunchMeter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    if (payload.hintId == hint::kActivityStop || hint::isEndOfActivity(payload)) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopActive = true;
            stopRequested = true;
        }
        AsyncEvent::clearPidMap();
        return;
    }
    if (payload.hintId == hint::kLaunchStart) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStartPending = true;
        }
        AsyncEvent::clearPidMap();
    }
    if (!hasStopNotification() && payload.hintId == hint::kFdCounts) {
        updatesFDCount(payload);
        return;
    }
    Meter::asyncTriggerUpdate(payload);  // lowers the stop flag and queues the payload
}

void LaunchMeter::updatesFDCount(const AsyncTriggerPayload& payload) {
    const int count = payload.intArgs[kFdCountArg];
    METER_LOGE(kComponent, "updatesFDCount", __LINE__, "updatesFDCount arg list Sz %d\n", count);
    if (mFeatures.mEpDone) {
        METER_LOGE(kComponent, "updatesFDCount", __LINE__, "EP Done Ignoring FD update %d\n",
                   count);
        return;
    }
    // A count beyond the values sent would read past them: only the values there are taken.
    for (int i = 0; i < count && i < static_cast<int>(payload.values.size()); ++i)
        mFeatures.insertFDCount(payload.values[i]);
}

bool LaunchMeter::isGame(std::string& pkg) {
    const int answer =
        mFeatureLocator != nullptr ? mFeatureLocator->getData(kClassifierKey, pkg, 0) : 0;
    mFeatures.mIsGame = answer == kGameAnswer;
    return mFeatures.mIsGame != 0;
}

void LaunchMeter::getPkgWeight(int& weight, std::string& pkg) {
    weight = mFeatureLocator != nullptr ? mFeatureLocator->getData(kClassifierKey, pkg, 1) : 0;
}

void LaunchMeter::start() {
    try {
        mReservedRun = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mStartPending)
                return;
        }
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStartPending = false;
        }
        Reset();
        std::vector<AsyncTriggerPayload> updates;
        getAsyncUpdates(updates);
        if (updates.empty()) {
            METER_LOGE(kComponent, "start", __LINE__, "Async Data NULL");
            return;
        }
        std::string appName = updates[0].appName;
        mFeatures.mPkgName = appName;
        mTimeBudgetMs = updates[0].intArgs[0];

        // The hunt: the process may not exist yet. It polls without a pause, as the host wants
        // the launch's start as close as it can get.
        int pid = AsyncEvent::getPid(appName);
        const auto t0 = seams::steadyNow();
        while (pid <= 0) {
            bool stopActive;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                stopActive = mStopActive;
            }
            if (stopActive || msSince(t0) > kHuntLimitMs) {
                METER_LOGE(kComponent, "start", __LINE__,
                           "Could not find pid, stopActive - Giving up on hunt");
                METER_LOGE(kComponent, "start", __LINE__,
                           "Could not find pid, can not collect vmrss data");
                return;
            }
            pid = AsyncEvent::getPid(appName);
        }
        const double huntMs = msSince(t0);

        char path[kPathSize];
        (void)snprintf(path, sizeof(path), "/proc/%d/status", pid);  // both fit any int
        meters::NodeFile status(path);
        (void)snprintf(path, sizeof(path), "/proc/%d/oom_score", pid);
        meters::NodeFile oomScore(path);

        int rounds;
        int window;
        if (isGame(appName)) {
            rounds = mTotalSamples;
            window = kGameWindow;
        } else {
            getPkgWeight(mFeatures.mAppClass, appName);
            const bool weighted = mFeatures.mAppClass >= 1 && mFeatures.mAppClass <= 3;
            rounds = weighted ? kWeightedAppRounds : kAppRounds;
            window = kAppWindow;
        }

        for (int r = 1; rounds >= 1;) {
            bool stopActive;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                stopActive = mStopActive;
            }
            if (stopActive || hasStopNotification()) {
                mAborted = true;
                break;
            }
            int vmRss = 0;
            if (status.isOpen()) {
                vmRss = getProcessVmRss(status.get());
                status.rewind();
                if (vmRss >= 1)
                    mFeatures.insertVmRss(vmRss);
            }
            if (oomScore.isOpen()) {
                oomScore.rewind();
                const int score = getProcessOMMScore(oomScore.get());
                if (score >= 1)
                    mFeatures.insertOMMScroe(score);
            }
            if (mVmRssValues != nullptr)  // rounds never exceed mTotalSamples
                mVmRssValues[mSampleCount++] = vmRss;
            seams::sleepUs(meters::kLaunchSamplePeriodUs);
            if (mFeatures.mIsGame != 0 && r >= kGameRoundsPerPass) {
                std::lock_guard<std::mutex> lock(mFeatures.mListMutex);
                mFeatures.churnForStablizingPoints(0, window);
                mFeatures.exportToFile();
                mFeatures.clearIntermediates();
                r = 0;
            }
            if (mFeatures.mEpDone)
                break;
            ++r;
            if (--rounds == 0)
                break;
        }
        status.close();
        oomScore.close();

        if (!mFeatures.mEpDone && !mAborted) {
            std::lock_guard<std::mutex> lock(mFeatures.mListMutex);
            mFeatures.churnForStablizingPoints(0, window);
            mFeatures.exportToFile();
        }
        if (mFeatures.mEpDone) {
            mLaunchDuration = Multiply(mFeatures.mEp, meters::kLaunchSamplePeriodMs);
            mLaunchDuration += static_cast<int32_t>(huntMs);
        }
        if (mAborted && mSampleCount >= 1)
            mFeatures.exportToFile("Aborted Before analysis", 0, updates[0].appName.c_str());
    }
    METER_CATCH_PLAIN(kComponent, "start", __LINE__, __LINE__)
}

int LaunchMeter::getProcessVmRss(FILE* status) {
    return meters::statusAnonPlusSwapKb(status);
}

int LaunchMeter::getFieldValue(char* line, const char* key) {
    return meters::statusFieldValue(line, key);
}

int LaunchMeter::getProcessOMMScore(FILE* oomScore) {
    if (oomScore == nullptr)
        return -1;
    char text[kOomBufferSize] = {};
    if (fread(text, 1, sizeof(text) - 1, oomScore) == 0)
        text[0] = '\0';  // nothing read: strtol makes 0 of it
    return static_cast<int>(strtol(text, nullptr, 10));
}

float LaunchMeter::calcDiffPercentage(float a, float b) {
    const float quotient = std::fabs(a - b) / (std::fabs(b) > 1 ? b : 1.0F);
    return meters::guardedMultiply(quotient, 100.0F);
}

int LaunchMeter::Multiply(int a, int b) {
    return meters::guardedMultiply(a, b);
}

int LaunchMeter::Subtract(int a, int b) {
    return meters::guardedSubtract(a, b);
}
