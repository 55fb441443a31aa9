#include "PerfCountersMeter.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Diagnostics.h"
#include "MeterRegistry.h"
#include "NodeStream.h"
#include "VendorIPerfDataStore.h"

bool PerfCountersMeter::registerMeter = MeterRegistry::Register<PerfCountersMeter>("PerfCounters");

namespace {

constexpr char kComponent[] = "PerfCountersMeter";
// Configuration: nothing from MeterInfo. The node path is the data store's text under key 5;
// "vendor.debug.trace.perf", read at construction, switches a trace marker per IPC reading.
// Events: none of its own (the base keeps them); a stop notification makes start() close.
constexpr int kNodePathKey = 5;
constexpr size_t kBufferSize = 250;  // the store's values and the node's text, with the NUL
constexpr char kTraceLabel[] = "PerfCounters IPC :: ";

// Truncates toward zero as the device converts: NaN gives 0 and values out of range saturate.
// A plain cast is undefined there, and gives INT64_MIN for all of them on x86.
int64_t truncateToInt64(double value) {
    constexpr double kTwoTo63 = 9223372036854775808.0;
    if (std::isnan(value))
        return 0;
    if (value >= kTwoTo63)
        return INT64_MAX;
    if (value <= -kTwoTo63)
        return INT64_MIN;
    return static_cast<int64_t>(value);
}

void initialise(PerfCountersMeter& meter) {
    meter.mTraceEnabled = diag::traceEnabledByProperty();
    meter.setCpuInstSysNode();
}

}  // namespace

PerfCountersMeter::PerfCountersMeter(MeterInfo info) : Meter(std::move(info)) {
    initialise(*this);
}

PerfCountersMeter::PerfCountersMeter() : Meter() {
    initialise(*this);
}

PerfCountersMeter::PerfCountersMeter(std::string& name) : Meter(name) {
    initialise(*this);
}

PerfCountersMeter::~PerfCountersMeter() = default;

void PerfCountersMeter::start() {
    if (hasStopNotification() && mNodeFd >= 0) {
        close(mNodeFd);
        mNodeFd = -1;
    }
}

void PerfCountersMeter::setCpuInstSysNode() {
    VendorIPerfDataStore* store = VendorIPerfDataStore::getVendorIPerfDataStore();
    if (store == nullptr)
        return;
    char path[kBufferSize] = {};
    store->Retrieve(kNodePathKey, path);
    mCpuInstNodePath = path;
}

int PerfCountersMeter::getNodeData() {
    char text[kBufferSize] = {};
    ssize_t bytes = -1;
    mNodeFd = meters::openNodeFd(mCpuInstNodePath);
    if (mNodeFd < 0) {
        // The store may name another node by now; the next reading tries that one.
        setCpuInstSysNode();
    } else {
        bytes = read(mNodeFd, text, sizeof(text));
        text[sizeof(text) - 1] = '\0';
        close(mNodeFd);
    }
    if (bytes < 0) {
        METER_LOGE(kComponent, "getNodeData", __LINE__,
                   "Error reading cpu_instruction node in IPC");
        return -1;
    }
    // Fields after the last one present keep their values.
    char* rest = nullptr;
    char* token = strtok_r(text, ":", &rest);
    for (int64_t* field : {&mCounterField1, &mCounterField2, &mCounterField3, &mCounterField4}) {
        if (token == nullptr)
            break;
        *field = atol(token);  // NOLINT(cert-err34-c): a field that is no number reads 0
        token = strtok_r(nullptr, ":", &rest);
    }
    return static_cast<int>(bytes);
}

int64_t PerfCountersMeter::getIPC() {
    try {
        std::lock_guard<std::mutex> lock(mNodeMutex);
        int bytes = getNodeData();
        // Also after a failed reading, with the value of the last good one.
        if (mTraceEnabled)
            diag::traceMarker((kTraceLabel + std::to_string(mCounterField2)).c_str());
        return bytes < 0 ? 0 : mCounterField2;
    }
    METER_CATCH_PLAIN(kComponent, "getIPC", __LINE__, __LINE__)
    return 0;
}

std::vector<int64_t> PerfCountersMeter::getInstructions() {
    try {
        std::lock_guard<std::mutex> lock(mNodeMutex);
        std::vector<int64_t> result{-1, -1};
        if (getNodeData() >= 0) {
            // Wraps as the device's 64-bit addition does.
            const auto total = static_cast<int64_t>(static_cast<uint64_t>(mCounterField1) +
                                                    static_cast<uint64_t>(mCounterField3));
            // Divided before it is multiplied, so 29 of 100 gives 28; 0 of 0 gives 0.
            const double share = static_cast<double>(static_cast<uint64_t>(mCounterField1)) /
                                 static_cast<double>(total);
            result = {total, truncateToInt64(share * 100.0)};
        }
        return result;
    }
    METER_CATCH_PLAIN(kComponent, "getInstructions", __LINE__, __LINE__)
    return {};
}
