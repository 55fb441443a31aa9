#include "MinDDRMeter.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "Diagnostics.h"
#include "HintCodes.h"
#include "MeterConfig.h"
#include "MeterMath.h"
#include "MeterRegistry.h"
#include "NodeStream.h"
#include "seams.h"

bool MinDDRMeter::mRegisterMeter = MeterRegistry::Register<MinDDRMeter>("MinDDR");

AuxMinDDRMeter* AuxMinDDRMeter::mInstance = nullptr;
std::mutex AuxMinDDRMeter::mInstanceMutex;

namespace {

constexpr char kComponent[] = "MinDDRMeter";
// Configuration: each key replaces its node's default path as given.
constexpr char kBigVoteKey[] = "MEMLAT_FREQ_VOTE_BIG_PATH";
constexpr char kBigVoteDefault[] = "/sys/class/devfreq/soc:vedra,memlat-cpu6/cur_freq";
constexpr char kLittleVoteKey[] = "MEMLAT_FREQ_VOTE_LITTLE_PATH";
constexpr char kLittleVoteDefault[] = "/sys/class/devfreq/soc:vedra,memlat-cpu0/cur_freq";
constexpr char kAvailFreqLittleKey[] = "MEMLAT_AVAIL_FREQ_LITTLE_PATH";
constexpr char kAvailFreqLittleDefault[] =
    "/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies";

// mRunState
constexpr int32_t kSampling = 0;
constexpr int32_t kPaused = 1;
constexpr int32_t kStopped = 2;
constexpr int32_t kResetRequested = 3;
constexpr int32_t kExitRequested = 4;  // set only by the destructor

// Events: each moves mRunState to `to` unless it is `unless`.
struct Command {
    uint32_t hintId;
    int32_t unless;
    int32_t to;
};
constexpr Command kCommands[] = {
    {hint::kActivityStart, kSampling, kResetRequested},  // clear the counts, then sample
    {hint::kActivityStop, kStopped, kStopped},           // close the nodes and wait
    {hint::kActivityResume, kSampling, kSampling},       // sample on, keeping the counts
    {hint::kActivityPause, kPaused, kPaused},            // close the nodes and wait
};

// Samples that must lie below a frequency for it to be the operating point: 6 s at 300 ms.
constexpr int64_t kOppSamples = 20;

void searchOpp(const std::map<int32_t, int32_t>& residency, int& opp) {
    int64_t below = 0;
    for (const auto& [frequency, count] : residency) {
        if (below >= kOppSamples) {
            opp = frequency;
            return;
        }
        below += count;
    }
}

void closeIfOpen(std::ifstream& stream) {
    if (stream.is_open())
        stream.close();
}

}  // namespace

AuxMinDDRMeter* AuxMinDDRMeter::getInstance(MeterInfo& info) {
    std::lock_guard<std::mutex> lock(mInstanceMutex);
    if (mInstance == nullptr)
        mInstance = new (std::nothrow) AuxMinDDRMeter(info);
    return mInstance;
}

AuxMinDDRMeter::AuxMinDDRMeter(MeterInfo& info)
    : mBigVotePath(meters::configValue(info, kBigVoteKey, kBigVoteDefault)),
      mLittleVotePath(meters::configValue(info, kLittleVoteKey, kLittleVoteDefault)),
      mAvailFreqLittlePath(
          meters::configValue(info, kAvailFreqLittleKey, kAvailFreqLittleDefault)) {
    mRunState.store(kStopped);
    mThreadStarted.store(false);
    initResidencyMap(mAvailFreqLittlePath);
}

AuxMinDDRMeter::~AuxMinDDRMeter() {
    mRunState.store(kExitRequested);
    notifyStateChanged();
    // A failing join throws out of this destructor, which ends the process.
    if (mSamplerThread.joinable())
        mSamplerThread.join();
    mInstance = nullptr;
    mThreadStarted.store(false);
}

void AuxMinDDRMeter::start() {
    if (mThreadStarted.load())
        return;
    try {
        mSamplerThread = std::thread(&AuxMinDDRMeter::Run, this);
        mThreadStarted.store(true);
    } catch (...) {
        mThreadStarted.store(false);
        METER_LOGE(kComponent, "start", __LINE__, "Thread Creation Failed");
    }
}

int AuxMinDDRMeter::AsyncUpdate(int hintId) {
    const auto command = std::find_if(
        std::begin(kCommands), std::end(kCommands),
        [hintId](const Command& c) { return c.hintId == static_cast<uint32_t>(hintId); });
    if (command == std::end(kCommands))
        return mRunState.load();
    const int32_t unless = command->unless;
    const int32_t to = command->to;
    // Judged and stored in one step, so that a state the sampling thread has just settled is
    // never overwritten by a command judged on the one before.
    int32_t current = mRunState.load();
    while (current != unless && !mRunState.compare_exchange_weak(current, to)) {
    }
    if (current == unless)
        return current;
    if (current != to)
        notifyStateChanged();
    return to;
}

void AuxMinDDRMeter::notifyStateChanged() {
    // Through the waiter's lock before waking it: see Run().
    { std::lock_guard<std::mutex> lock(mWaitMutex); }
    mStateCv.notify_all();
}

void AuxMinDDRMeter::Run() {
    for (;;) {
        int32_t state = mRunState.load();
        if (state == kResetRequested) {
            resetMeter();
            // A command that came during the reset is obeyed instead of sampling.
            if (!mRunState.compare_exchange_strong(state, kSampling))
                continue;
            state = kSampling;
        }
        if (state == kSampling) {
            // Sleep first: a sampling period's first sample is taken 300 ms after it began.
            seams::sleepUs(meters::kSamplePeriodUs);
            const int big = readValue(mBigFreqStream, mBigVotePath);
            const int little = readValue(mLittleFreqStream, mLittleVotePath);
            buildResidencyMap(big, little);
        } else if (state == kPaused || state == kStopped) {
            cleanupMeter();
            std::unique_lock<std::mutex> lock(mWaitMutex);
            // The state is read again under the lock every change passes through before its
            // notification: a change made since the read above is seen here, or its
            // notification finds this thread waiting. Reading it only before the lock would
            // lose that wake-up for ever, an exit request included.
            while (mRunState.load() == state)
                mStateCv.wait(lock);
        } else if (state == kExitRequested) {
            cleanupMeter();
            return;
        }
    }
}

int AuxMinDDRMeter::readValue(std::ifstream& stream, std::string& path) {
    if (!stream.is_open() && !meters::openNode(stream, path)) {
        METER_LOGE(kComponent, "readValue", __LINE__, "Failed to open file");
        return -1;
    }
    std::string line;
    // An empty reading is not rewound: the node stays at -1 until a pause or stop closes it.
    if (!meters::readNodeLine(stream, line))
        return -1;
    // Not caught here nor in Run(): text that is not a number ends the process.
    const int value = std::stoi(line);
    meters::rewindNode(stream);
    return value;
}

void AuxMinDDRMeter::buildResidencyMap(int bigFreq, int littleFreq) {
    std::lock_guard<std::mutex> lock(mResidencyMutex);
    // Only a failed reading (-1) is skipped; frequencies outside the list are counted too.
    if (bigFreq != -1) {
        int32_t& count = mBigResidency[bigFreq];
        count = meters::wrappingAdd(count, 1);
    }
    if (littleFreq != -1) {
        int32_t& count = mLittleResidency[littleFreq];
        count = meters::wrappingAdd(count, 1);
    }
}

void AuxMinDDRMeter::getOpp(int& littleOpp, int& bigOpp) {
    std::lock_guard<std::mutex> lock(mResidencyMutex);
    searchOpp(mLittleResidency, littleOpp);
    searchOpp(mBigResidency, bigOpp);
}

void AuxMinDDRMeter::initResidencyMap(std::string& path) {
    std::ifstream list;
    if (!meters::openNode(list, path)) {
        METER_LOGE(kComponent, "initResidencyMap", __LINE__, "Unable to open file %s",
                   path.c_str());
        return;
    }
    // Both maps take the little cluster's frequencies. The last token keeps the line's '\n',
    // which the conversion stops at; a token that is not a number throws to the constructor.
    std::string token;
    while (std::getline(list, token, ' ')) {
        const int frequency = std::stoi(token);
        if (frequency < 0)
            continue;
        std::lock_guard<std::mutex> lock(mResidencyMutex);
        mBigResidency[frequency] = 0;
        mLittleResidency[frequency] = 0;
    }
    list.close();
}

void AuxMinDDRMeter::resetMeter() {
    std::lock_guard<std::mutex> lock(mResidencyMutex);
    for (auto& entry : mLittleResidency)
        entry.second = 0;
    for (auto& entry : mBigResidency)
        entry.second = 0;
}

void AuxMinDDRMeter::cleanupMeter() {
    std::lock_guard<std::mutex> lock(mResidencyMutex);
    closeIfOpen(mBigFreqStream);
    closeIfOpen(mLittleFreqStream);
}

MinDDRMeter::MinDDRMeter(MeterInfo info) : Meter(info) {
    mWorker = AuxMinDDRMeter::getInstance(info);
}

MinDDRMeter::MinDDRMeter(std::string& name) : Meter(name) {}

MinDDRMeter::~MinDDRMeter() {
    delete mWorker;
}

void MinDDRMeter::start() {
    if (mWorker != nullptr)
        mWorker->start();
}

void MinDDRMeter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    Meter::asyncTriggerUpdate(payload);
    if (mWorker != nullptr)
        mWorker->AsyncUpdate(static_cast<int>(payload.hintId));
}

int MinDDRMeter::getOpp() {
    if (mWorker == nullptr)
        return -1;
    int littleOpp = -1;
    int bigOpp = -1;
    mWorker->getOpp(littleOpp, bigOpp);
    return std::max(littleOpp, bigOpp);
}
