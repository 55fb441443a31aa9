#include "FpsMeter.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Diagnostics.h"
#include "HintCodes.h"
#include "MeterConfig.h"
#include "MeterMath.h"
#include "MeterRegistry.h"
#include "NodeStream.h"

bool FpsMeter::registerMeter = MeterRegistry::Register<FpsMeter>("Fps");

std::atomic<int32_t> fpsTraceLevel{0};

namespace {

constexpr char kComponent[] = "FpsMeter";
// Configuration: the two node paths, used as given; the property below, read by the constructor,
// switches the trace marker on.
constexpr char kTraceProperty[] = "vendor.debug.trace.perf";
constexpr char kFpsNodeKey[] = "FPS_NODE";
constexpr char kFpsNodeDefault[] = "/sys/class/drm/rvo-crtc-0/measured_fps";
constexpr char kPeriodicityNodeKey[] = "FPS_PERIODICITY_NODE";
constexpr char kPeriodicityNodeDefault[] = "/sys/class/drm/rvo-crtc-0/fps_periodicity_ms";
// Events: hint::kActivityStop or hint::kActivityPause with hint::kTypeEnd stop the readings,
// hint::kActivityResume with hint::kTypeEnd resumes them; neither is kept. Any other event
// resumes them and is kept.

constexpr int kMeasuringPeriodMs = 500;
constexpr int kTraceTextSize = 256;

// The integer frame rate, truncated toward zero. A float outside the int range would make the
// conversion undefined, so it saturates there (NaN gives 0) as the device's conversion does;
// the product's guard then turns either end into its sentinel.
int32_t truncateToInt(float value) {
    if (std::isnan(value))
        return 0;
    if (value >= 2147483648.0F)
        return INT32_MAX;
    if (value < -2147483648.0F)
        return INT32_MIN;
    return static_cast<int32_t>(value);
}

}  // namespace

FpsMeter::FpsMeter(MeterInfo info)
    : Meter(info),
      mFpsNodePath(meters::configValue(info, kFpsNodeKey, kFpsNodeDefault)),
      mFpsPeriodicityNodePath(
          meters::configValue(info, kPeriodicityNodeKey, kPeriodicityNodeDefault)) {
    char value[PROPERTY_VALUE_MAX];
    property_get(kTraceProperty, value, nullptr);
    if (value[0] == '1')  // the level is the property's atoi value, whatever follows the '1'
        fpsTraceLevel.store(atoi(value), std::memory_order_relaxed);  // NOLINT(cert-err34-c)
}

FpsMeter::FpsMeter(std::string& name)
    : Meter(name),
      mFpsNodePath(kFpsNodeDefault),
      mFpsPeriodicityNodePath(kPeriodicityNodeDefault) {}

// The stream closes itself; the period stays as written.
FpsMeter::~FpsMeter() = default;

void FpsMeter::start() {
    if (hasStopNotification()) {
        if (mFpsStream.is_open())
            mFpsStream.close();
        return;
    }
    if (mFpsStream.is_open())
        return;
    // The driver measures over the period it holds when the node is opened.
    setFpsPeriodicity(kMeasuringPeriodMs);
    if (!meters::openNode(mFpsStream, mFpsNodePath)) {
        const int error = errno;
        // strerror keeps its text per thread in bionic and in glibc (since 2.32).
        METER_LOGE(kComponent, "start", 82, "Failed to open fps file %s State %s",
                   mFpsNodePath.c_str(), strerror(error));  // NOLINT(concurrency-mt-unsafe)
    }
}

void FpsMeter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    hint::applyReaderEvent(payload, stopRequested, asyncUpdates);
}

void FpsMeter::setFpsPeriodicity(int periodMs) {
    if (!meters::writeNode(mFpsPeriodicityNodePath, periodMs))
        METER_LOGE(kComponent, "setFpsPeriodicity", 193, "Unable to open %s file",
                   mFpsPeriodicityNodePath.c_str());
}

bool FpsMeter::getNodeData() {
    if (hasStopNotification())
        return false;
    if (!mFpsStream.is_open()) {
        METER_LOGE(kComponent, "getNodeData", 151, "File Handle is closed(not available) %s",
                   mFpsNodePath.c_str());
        return false;
    }
    // A reading that fails is not rewound: the next one goes on after it, and one that found the
    // end of the node fails until the node is reopened.
    std::string line;
    if (!meters::readNodeLine(mFpsStream, line))
        return false;
    // "<label>:<frame rate>...:<frame count>"; the labels are not checked.
    const size_t first = line.find(':');
    if (first == std::string::npos || line.size() - first <= 1)
        return false;
    // The fraction goes before scaling: 59.94 is stored as 5900.
    const float rate = strtof(line.c_str() + first + 1, nullptr);
    mScaledFps.store(Multiply(truncateToInt(rate), 100));
    const size_t last = line.rfind(':');
    mFrameCount.store(static_cast<uint32_t>(strtoul(line.c_str() + last + 1, nullptr, 10)));
    meters::rewindNode(mFpsStream);
    return true;
}

float FpsMeter::getFps() {
    const bool ok = getNodeData();
    if (fpsTraceLevel.load(std::memory_order_relaxed) != 0) {
        char text[kTraceTextSize];
        (void)snprintf(text, sizeof(text), "measured fps scaled %f",
                       static_cast<double>(static_cast<float>(mScaledFps.load()) / 100.0F));
        diag::traceMarker(text);
    }
    return ok ? static_cast<float>(mScaledFps.load()) / 100.0F : 0.0F;
}

uint32_t FpsMeter::getFrames() {
    return getNodeData() ? mFrameCount.load() : 0;
}

int FpsMeter::Multiply(int a, int b) {
    return meters::guardedMultiply(a, b);
}
