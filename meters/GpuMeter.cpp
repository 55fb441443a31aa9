#include "GpuMeter.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Diagnostics.h"
#include "HintCodes.h"
#include "MeterConfig.h"
#include "MeterMath.h"
#include "MeterRegistry.h"
#include "NodeStream.h"

bool GpuMeter::registerMeter = MeterRegistry::Register<GpuMeter>("Gpu");

namespace {

constexpr char kComponent[] = "GpuMeter";
// Configuration: the four node paths, used as given.
constexpr char kAvailFreqsKey[] = "GPU_AVAILABLE_FREQUENCIES";
constexpr char kAvailFreqsDefault[] = "/sys/class/tesk/tesk-3d0/gpu_available_frequencies";
constexpr char kClockStatsKey[] = "GPU_CLOCK_STATS";
constexpr char kClockStatsDefault[] = "/sys/class/tesk/tesk-3d0/gpu_clock_stats";
constexpr char kBusyPercentageKey[] = "GPU_BUSY_PERCENTAGE";
constexpr char kBusyPercentageDefault[] = "/sys/class/tesk/tesk-3d0/gpu_busy_percentage";
constexpr char kMaxClkKey[] = "GPU_MAX_CLK";
constexpr char kMaxClkDefault[] = "/sys/class/tesk/tesk-3d0/max_gpuclk";
// Events: hint::kActivityStop or hint::kActivityPause with hint::kTypeEnd stop the readings,
// hint::kActivityResume with hint::kTypeEnd resumes them; neither is kept. Any other event
// resumes them and is kept.

// Snapshots and usage vectors kept.
constexpr size_t kHistoryLength = 60;
// Clock-statistics units to usage: the float nearest 0.0001.
constexpr float kUsageScale = 0.0001F;

// Appends parse(token) for each token of line separated by spaces, in order; runs of spaces
// make no empty tokens. Each token is cut in place, so that a parse that skips leading blanks
// cannot run on into the next token.
template <class T, class Parse>
void appendTokens(std::string& line, std::vector<T>& out, Parse parse) {
    size_t pos = 0;
    while (pos < line.size()) {
        if (line[pos] == ' ') {
            ++pos;
            continue;
        }
        size_t end = line.find(' ', pos);
        if (end == std::string::npos)
            end = line.size();
        else
            line[end] = '\0';
        out.push_back(parse(line.c_str() + pos));
        pos = end + 1;
    }
}

// latest - previous as the device's 64-bit arithmetic gives it, wrapping instead of undefined.
int64_t wrappingDelta(int64_t latest, int64_t previous) {
    return static_cast<int64_t>(static_cast<uint64_t>(latest) - static_cast<uint64_t>(previous));
}

}  // namespace

GpuMeter::GpuMeter(MeterInfo info)
    : Meter(info),
      mAvailFreqsPath(meters::configValue(info, kAvailFreqsKey, kAvailFreqsDefault)),
      mClockStatsPath(meters::configValue(info, kClockStatsKey, kClockStatsDefault)),
      mBusyPercentagePath(meters::configValue(info, kBusyPercentageKey, kBusyPercentageDefault)),
      mMaxClkPath(meters::configValue(info, kMaxClkKey, kMaxClkDefault)) {}

GpuMeter::GpuMeter(std::string& name)
    : Meter(name),
      mAvailFreqsPath(kAvailFreqsDefault),
      mClockStatsPath(kClockStatsDefault),
      mBusyPercentagePath(kBusyPercentageDefault),
      mMaxClkPath(kMaxClkDefault) {}

// The streams close themselves.
GpuMeter::~GpuMeter() = default;

void GpuMeter::start() {
    std::lock_guard<std::mutex> ioLock(mIoMutex);
    const struct {
        std::ifstream& stream;
        const std::string& path;
        int line;
    } nodes[] = {{mAvailFreqsStream, mAvailFreqsPath, 78},
                 {mClockStatsStream, mClockStatsPath, 86},
                 {mBusyPercentageStream, mBusyPercentagePath, 94},
                 {mMaxClkStream, mMaxClkPath, 102}};
    if (!hasStopNotification()) {
        for (const auto& node : nodes) {
            if (node.stream.is_open() || meters::openNode(node.stream, node.path))
                continue;
            const int error = errno;
            // strerror keeps its text per thread in bionic and in glibc (since 2.32).
            METER_LOGE(kComponent, "start", node.line, "Failed to open gpu file %s Error %s",
                       node.path.c_str(), strerror(error));  // NOLINT(concurrency-mt-unsafe)
        }
        return;
    }
    for (const auto& node : nodes) {
        if (node.stream.is_open())
            node.stream.close();
    }
    std::lock_guard<std::mutex> historyLock(mHistoryMutex);
    mClockStatsHistory.clear();
    mUsageHistory.clear();
}

void GpuMeter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    hint::applyReaderEvent(payload, stopRequested, asyncUpdates);
}

// Each reader rewinds its node once it has used a line, so that the next reading sees the
// node's current content. A reading that comes back empty is not rewound (but for the maximum
// clock's): the next one goes on after it, and one that found the end of the node fails until a
// stop and a start reopen the node.

void GpuMeter::getAvlGpuFreqs(std::vector<int>& freqs) {
    std::lock_guard<std::mutex> lock(mIoMutex);
    freqs.clear();
    if (hasStopNotification())
        return;
    if (!mAvailFreqsStream.is_open()) {
        METER_LOGE(kComponent, "getAvlGpuFreqs", 141, "File Handle is closed(not available) %s",
                   mAvailFreqsPath.c_str());
        return;
    }
    std::string line;
    if (!meters::readNodeLine(mAvailFreqsStream, line))
        return;
    appendTokens(line, freqs, atoi);
    meters::rewindNode(mAvailFreqsStream);
}

void GpuMeter::getClockStats(std::vector<long>& stats) {
    std::lock_guard<std::mutex> lock(mIoMutex);
    stats.clear();
    if (hasStopNotification())
        return;
    if (!mClockStatsStream.is_open()) {
        METER_LOGE(kComponent, "getClockStats", 176, "File Handle is closed(not available) %s",
                   mClockStatsPath.c_str());
        return;
    }
    std::string line;
    if (!meters::readNodeLine(mClockStatsStream, line))
        return;
    appendTokens(line, stats, atol);
    meters::rewindNode(mClockStatsStream);
}

int GpuMeter::getGpuMaxFreq() {
    if (hasStopNotification())
        return -1;
    if (!mMaxClkStream.is_open()) {
        METER_LOGE(kComponent, "getGpuMaxFreq", 206, "File Handle is closed(not available) %s",
                   mMaxClkPath.c_str());
        return -1;
    }
    std::string line;
    meters::readNodeLine(mMaxClkStream, line);
    // NOLINTNEXTLINE(cert-err34-c): an empty or garbled reading is a maximum of 0, not an error.
    const int maxFreq = atoi(line.c_str());
    meters::rewindNode(mMaxClkStream);
    return maxFreq;
}

float GpuMeter::getBusyPercentage() {
    std::lock_guard<std::mutex> lock(mIoMutex);
    if (hasStopNotification())
        return 0.0F;
    if (!mBusyPercentageStream.is_open()) {
        METER_LOGE(kComponent, "getBusyPercentage", 285, "File Handle is closed(not available) %s",
                   mBusyPercentagePath.c_str());
        return 0.0F;
    }
    std::string line;
    if (!meters::readNodeLine(mBusyPercentageStream, line))
        return 0.0F;
    const float busy = strtof(line.c_str(), nullptr);
    meters::rewindNode(mBusyPercentageStream);
    return busy;
}

void GpuMeter::getGpuUsage(std::vector<std::vector<float>>& usage) {
    std::vector<int> freqs;
    getAvlGpuFreqs(freqs);
    int maxFreq = getGpuMaxFreq();
    if (maxFreq == -1) {
        for (int freq : freqs)
            maxFreq = std::max(maxFreq, freq);
    }
    std::vector<long> stats;
    getClockStats(stats);

    std::lock_guard<std::mutex> lock(mHistoryMutex);
    // A failed reading adds an empty snapshot: the next comparison with it yields nothing.
    mClockStatsHistory.emplace_back(stats.begin(), stats.end());
    if (mClockStatsHistory.size() > kHistoryLength)
        mClockStatsHistory.erase(mClockStatsHistory.begin());
    if (mClockStatsHistory.size() >= 2) {
        const std::vector<int64_t>& latest = mClockStatsHistory.back();
        const std::vector<int64_t>& previous = mClockStatsHistory[mClockStatsHistory.size() - 2];
        // Levels the frequencies and both snapshots all have; the others are skipped.
        const size_t count = std::min({freqs.size(), latest.size(), previous.size()});
        std::vector<float> levels;
        levels.reserve(count);
        const float max = static_cast<float>(maxFreq);
        for (size_t i = 0; i < count; ++i) {
            const float freq = static_cast<float>(freqs[i]);
            const float ratio = freq < max && maxFreq != 0 ? freq / max : 1.0F;
            // A delta's float has the delta's sign, so the guard's sign tests are the delta's.
            // Zero and negative deltas count as overflows: an idle level reads 0.0001.
            const float product = meters::guardedMultiply(
                static_cast<float>(wrappingDelta(latest[i], previous[i])), ratio);
            levels.push_back(meters::guardedMultiply(product, kUsageScale));
        }
        if (!levels.empty()) {
            mUsageHistory.push_back(std::move(levels));
            if (mUsageHistory.size() > kHistoryLength)
                mUsageHistory.erase(mUsageHistory.begin());
        }
    }
    // Replaces the caller's content; assigning reuses its vectors, so a caller that passes the
    // same one each time copies the history without allocating.
    usage.assign(mUsageHistory.begin(), mUsageHistory.end());
}
