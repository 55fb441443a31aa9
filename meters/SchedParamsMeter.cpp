#include "SchedParamsMeter.h"

#include <cstdlib>
#include <cstring>

#include "Diagnostics.h"
#include "HintCodes.h"
#include "MeterConfig.h"
#include "MeterRegistry.h"
#include "NodeStream.h"

bool SchedParamsMeter::registerMeter = MeterRegistry::Register<SchedParamsMeter>("SchedParams");

namespace {

constexpr char kComponent[] = "SchedParamsMeter";
// Configuration: each key replaces its node's default path as given.
constexpr char kAggrTopLoadKey[] = "SCHEDPARAMS_AGGR_TOP_LOAD_PATH";
constexpr char kAggrTopLoadDefault[] = "/sys/module/oxa_performance/notify/aggr_top_load";
constexpr char kBigNrRunKey[] = "SCHEDPARAMS_BIG_NR_RUN_PATH";
constexpr char kBigNrRunDefault[] = "/sys/module/oxa_performance/notify/aggr_big_nr";
constexpr char kRegisterTriggersKey[] = "SCHEDPARAMS_REGISTER_SCHED_TRIGGERS";
constexpr char kRegisterTriggersDefault[] =
    "/sys/module/oxa_performance/parameters/core_ctl_register";
constexpr char kClusterTopLoadKey[] = "SCHEDPARAMS_CLUSTER_TOP_LOAD_PATH";
constexpr char kClusterTopLoadDefault[] = "/sys/module/oxa_performance/notify/top_load_cluster";
constexpr char kClusterCurrCapKey[] = "SCHEDPARAMS_CLUSTER_CURR_CAP_PATH";
constexpr char kClusterCurrCapDefault[] = "/sys/module/oxa_performance/notify/curr_cap_cluster";
// Events: hint::kActivityStart and hint::kActivityResume request registration,
// hint::kActivityStop and hint::kActivityPause deregistration; start() carries them out.

// mTriggerState
constexpr int kDeregisterRequested = 0;
constexpr int kUnregistered = 1;
constexpr int kRegisterRequested = 2;
constexpr int kRegistered = 3;

constexpr int kClusters = 3;

// Moves state to `to` unless it is `unless`. Judged and stored in one step, so that a state
// start() has just settled is never overwritten by a request judged on the one before.
void request(std::atomic<int>& state, int unless, int to) {
    int current = state.load();
    while (current != unless && !state.compare_exchange_weak(current, to)) {
    }
}

void closeIfOpen(std::ifstream& stream) {
    if (stream.is_open())
        stream.close();
}

}  // namespace

SchedParamsMeter::SchedParamsMeter(MeterInfo info)
    : Meter(info),
      mAggrTopLoadPath(meters::configValue(info, kAggrTopLoadKey, kAggrTopLoadDefault)),
      mBigNrRunPath(meters::configValue(info, kBigNrRunKey, kBigNrRunDefault)),
      mRegisterTriggersPath(
          meters::configValue(info, kRegisterTriggersKey, kRegisterTriggersDefault)),
      mClusterTopLoadPath(meters::configValue(info, kClusterTopLoadKey, kClusterTopLoadDefault)),
      mClusterCurrCapPath(meters::configValue(info, kClusterCurrCapKey, kClusterCurrCapDefault)) {
    mTriggerState.store(kUnregistered);
}

// The registration is left as it is: a meter destroyed while registered stays registered.
SchedParamsMeter::~SchedParamsMeter() {
    closeIfOpen(mBigNrRunStream);
    closeIfOpen(mTopLoadStream);
    closeIfOpen(mClusterTopLoadStream);
    closeIfOpen(mClusterCurrCapStream);
}

void SchedParamsMeter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    Meter::asyncTriggerUpdate(payload);
    if (payload.hintId == hint::kActivityStart || payload.hintId == hint::kActivityResume) {
        request(mTriggerState, kRegistered, kRegisterRequested);
    } else if (payload.hintId == hint::kActivityStop || payload.hintId == hint::kActivityPause) {
        request(mTriggerState, kUnregistered, kDeregisterRequested);
    }
}

void SchedParamsMeter::start() {
    try {
        std::lock_guard<std::mutex> lock(mIoMutex);
        int state = mTriggerState.load();
        // The state settles only if no trigger changed it meanwhile; a newer request stays
        // pending for the next start(). A failed write still settles it.
        if (state == kRegisterRequested) {
            writeValue(mRegisterTriggersPath, 1);
            mTriggerState.compare_exchange_strong(state, kRegistered);
        } else if (state == kDeregisterRequested) {
            writeValue(mRegisterTriggersPath, 0);
            // The next getter reopens its node.
            closeIfOpen(mBigNrRunStream);
            closeIfOpen(mTopLoadStream);
            closeIfOpen(mClusterTopLoadStream);
            closeIfOpen(mClusterCurrCapStream);
            mTriggerState.compare_exchange_strong(state, kUnregistered);
        }
    }
    METER_CATCH_PLAIN(kComponent, "start", __LINE__, __LINE__)
}

int SchedParamsMeter::getTopAppLoad() {
    try {
        std::lock_guard<std::mutex> lock(mIoMutex);
        return readValue(mTopLoadStream, mAggrTopLoadPath);
    }
    METER_CATCH_PLAIN(kComponent, "getTopAppLoad", __LINE__, __LINE__)
    return 0;
}

int SchedParamsMeter::getBigNrRun() {
    try {
        std::lock_guard<std::mutex> lock(mIoMutex);
        return readValue(mBigNrRunStream, mBigNrRunPath);
    }
    METER_CATCH_PLAIN(kComponent, "getBigNrRun", __LINE__, __LINE__)
    return 0;
}

bool SchedParamsMeter::getClusterTopAppLoad(std::atomic<int>* out) {
    if (out == nullptr)
        return false;
    try {
        std::lock_guard<std::mutex> lock(mIoMutex);
        readCluster(mClusterTopLoadStream, mClusterTopLoadPath, mClusterTopLoad);
        for (int i = 0; i < kClusters; ++i)
            out[i].store(mClusterTopLoad[i]);
        return true;
    }
    METER_CATCH_PLAIN(kComponent, "getClusterTopAppLoad", __LINE__, __LINE__)
    return false;
}

bool SchedParamsMeter::getClusterCurrCap(std::atomic<int>* out) {
    if (out == nullptr)
        return false;
    try {
        std::lock_guard<std::mutex> lock(mIoMutex);
        readCluster(mClusterCurrCapStream, mClusterCurrCapPath, mClusterCurrCap);
        for (int i = 0; i < kClusters; ++i)
            out[i].store(mClusterCurrCap[i]);
        return true;
    }
    METER_CATCH_PLAIN(kComponent, "getClusterCurrCap", __LINE__, __LINE__)
    return false;
}

int SchedParamsMeter::readValue(std::ifstream& stream, std::string& path) {
    try {
        if (!stream.is_open() && !meters::openNode(stream, path)) {
            METER_LOGE(kComponent, "readValue", __LINE__, "Failed to open file");
            return -1;
        }
        std::string line;
        // An empty reading is not rewound: the node stays at -1 until start() closes it.
        if (!meters::readNodeLine(stream, line))
            return -1;
        int value = std::stoi(line);
        meters::rewindNode(stream);
        return value;
    }
    METER_CATCH_PLAIN(kComponent, "readValue", __LINE__, __LINE__)
    return -1;
}

int SchedParamsMeter::readCluster(std::ifstream& stream, std::string& path, int* values) {
    if (values == nullptr)
        return -1;
    try {
        if (!stream.is_open() && !meters::openNode(stream, path)) {
            METER_LOGE(kComponent, "readCluster", __LINE__, "%s Failed to open file %s",
                       "readCluster", path.c_str());
            return -1;
        }
        std::string line;
        if (!meters::readNodeLine(stream, line)) {
            METER_LOGE(kComponent, "readCluster", __LINE__, "Value from field is null");
            return -1;
        }
        int stored = 0;
        char* rest = nullptr;
        for (char* token = strtok_r(line.data(), " ", &rest);
             token != nullptr && stored < kClusters; token = strtok_r(nullptr, " ", &rest)) {
            values[stored++] = atoi(token);  // NOLINT(cert-err34-c): garbage reads 0
        }
        meters::rewindNode(stream);
        return stored;
    }
    METER_CATCH_PLAIN(kComponent, "readCluster", __LINE__, __LINE__)
    return -1;
}

int SchedParamsMeter::writeValue(std::string& path, int value) {
    try {
        if (!meters::writeNode(path, value)) {
            METER_LOGE(kComponent, "writeValue", __LINE__, "Unable to open %s file", path.c_str());
            return -1;
        }
        return 0;
    }
    METER_CATCH_PLAIN(kComponent, "writeValue", __LINE__, __LINE__)
    return -1;
}
