#include "MeterCatalog.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "FpsMeter.h"
#include "GpuMeter.h"
#include "LaunchMeter.h"
#include "MemoryMeter.h"
#include "MinDDRMeter.h"
#include "PerfCountersMeter.h"
#include "ProCompMeter.h"
#include "RegistryBase.h"
#include "SchedParamsMeter.h"
#include "VmRssMeter.h"

namespace meterctl {

namespace {

using Reg = RegistryBase<Meter, MeterInfo>;

const char* const kStopEvents =
    "4098 or 4100 with type -1 (stop, pause): readings stop; 4099 "
    "with type -1 (resume): they go on; others are queued";

// The host's end-of-activity notice, and the stop that readers act on.
constexpr MeterEntry::Event kEndOfActivity{0, -1};
constexpr MeterEntry::Event kActivityStop{0x1002, -1};

template <class T>
T& as(Meter& meter) {
    return dynamic_cast<T&>(meter);
}

}  // namespace

const std::vector<MeterEntry>& meterEntries() {
    static const std::vector<MeterEntry> entries = {
        {"VmRss",
         true,
         {"first queued event: appName is the application, intArgs[0] the time budget in ms",
          "4163 (launch complete): ends the hunt at the last significant change",
          "4098 (activity stop): abandons the run, no dump"},
         {"numSamples (MeterInfo): the sample bound"},
         kEndOfActivity},
        {"Memory",
         true,
         {"first queued event: intArgs[0] is the pid to watch",
          "0 with type -1 (end of activity): stops the run",
          "4163 (launch complete): ends the run at the next poll"},
         {"TotalSamplesToRun (default 0)", "fieldNames (MeterInfo): rss_swap, ion_tesk"},
         kEndOfActivity,
         true},
        {"ProComp",
         true,
         {"first queued event: intArgs[0] is the pid to watch",
          "4098, 4100 or 0 with type -1 (end of activity): ends the run"},
         {},
         kEndOfActivity,
         true},
        {"Launch",
         true,
         {"4225 (launch start): arms the next start(); appName and intArgs[0] (budget, ms)",
          "4103 (descriptor counts): intArgs[9] entries of values",
          "4098 or 0 with type -1 (stop): aborts the launch"},
         {},
         kEndOfActivity},
        {"Fps",
         false,
         {kStopEvents},
         {"FPS_NODE (default /sys/class/drm/rvo-crtc-0/measured_fps)",
          "FPS_PERIODICITY_NODE (default /sys/class/drm/rvo-crtc-0/fps_periodicity_ms)"},
         kActivityStop},
        {"Gpu",
         false,
         {kStopEvents},
         {"GPU_AVAILABLE_FREQUENCIES (default /sys/class/tesk/tesk-3d0/gpu_available_frequencies)",
          "GPU_CLOCK_STATS (default /sys/class/tesk/tesk-3d0/gpu_clock_stats)",
          "GPU_BUSY_PERCENTAGE (default /sys/class/tesk/tesk-3d0/gpu_busy_percentage)",
          "GPU_MAX_CLK (default /sys/class/tesk/tesk-3d0/max_gpuclk)"},
         kActivityStop},
        {"SchedParams",
         false,
         {"4097 or 4099: register for scheduler notifications at the next start()",
          "4098 or 4100: withdraw at the next start()"},
         {"SCHEDPARAMS_AGGR_TOP_LOAD_PATH (default /sys/module/oxa_performance/notify/"
          "aggr_top_load)",
          "SCHEDPARAMS_BIG_NR_RUN_PATH (default /sys/module/oxa_performance/notify/aggr_big_nr)",
          "SCHEDPARAMS_REGISTER_SCHED_TRIGGERS (default /sys/module/oxa_performance/parameters/"
          "core_ctl_register)",
          "SCHEDPARAMS_CLUSTER_TOP_LOAD_PATH (default /sys/module/oxa_performance/notify/"
          "top_load_cluster)",
          "SCHEDPARAMS_CLUSTER_CURR_CAP_PATH (default /sys/module/oxa_performance/notify/"
          "curr_cap_cluster)"},
         kActivityStop},
        {"PerfCounters",
         false,
         {"a stop notification (0 with type -1): start() closes the last descriptor again"},
         {"the node path is the host data store's value under key 5"},
         // Its stop makes start() close a descriptor number the meter closed already, which
         // in this process may by then belong to another file.
         std::nullopt},
        {"MinDDR",
         false,
         {"4097: clear the counts and sample", "4098: stop sampling",
          "4099: sample, keeping the counts", "4100: pause"},
         {"MEMLAT_FREQ_VOTE_BIG_PATH (default /sys/class/devfreq/soc:vedra,memlat-cpu6/cur_freq)",
          "MEMLAT_FREQ_VOTE_LITTLE_PATH (default /sys/class/devfreq/soc:vedra,memlat-cpu0/"
          "cur_freq)",
          "MEMLAT_AVAIL_FREQ_LITTLE_PATH (default /sys/class/devfreq/soc:vedra,memlat-cpu0/"
          "available_frequencies)"},
         kActivityStop},
    };
    return entries;
}

const MeterEntry* findEntry(const std::string& name) {
    for (const MeterEntry& entry : meterEntries()) {
        if (entry.name == name)
            return &entry;
    }
    return nullptr;
}

std::vector<std::string> registeredNames() {
    std::vector<std::string> names;
    std::lock_guard<std::mutex> lock(Reg::mMutex);
    if (Reg::classList != nullptr) {
        for (const auto& entry : *Reg::classList)
            names.push_back(entry.first);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::unique_ptr<Meter> createMeter(const std::string& name, const MeterInfo& info) {
    Reg::Factory factory = nullptr;
    {
        std::lock_guard<std::mutex> lock(Reg::mMutex);
        if (Reg::classList != nullptr && Reg::classList->count(name) != 0)
            factory = Reg::classList->at(name);
    }
    return std::unique_ptr<Meter>(factory != nullptr ? factory(info) : nullptr);
}

std::vector<Reading> readMeter(const std::string& name, Meter& meter, bool running) {
    if (name == "VmRss") {
        auto& m = as<VmRssMeter>(meter);
        std::vector<Reading> r = {{"launch end point", double(m.mLaunchEndpoint), "ms"}};
        if (!running)
            r.push_back({"samples", double(m.mSampleCount), ""});
        return r;
    }
    if (name == "Memory") {
        auto& m = as<MemoryMeter>(meter);
        std::vector<Reading> r;
        for (Field* field : running ? std::vector<Field*>{} : m.mFields)
            r.push_back({field->mName + " at the end point", double(field->mResults[0]), "kB"});
        return r;
    }
    if (name == "ProComp")
        return running
                   ? std::vector<Reading>{}
                   : std::vector<Reading>{{"peak", double(as<ProCompMeter>(meter).mPeak), "kB"}};
    if (name == "Launch") {
        auto& m = as<LaunchMeter>(meter);
        std::vector<Reading> r = {{"launch duration", double(m.mLaunchDuration), "ms"}};
        if (!running) {
            r.push_back({"end point", double(m.mFeatures.mEp), "samples"});
            r.push_back({"samples", double(m.mSampleCount), ""});
        }
        return r;
    }
    if (name == "Fps") {
        auto& m = as<FpsMeter>(meter);
        return {{"frame rate", m.getFps(), "fps"}, {"frames", double(m.getFrames()), ""}};
    }
    if (name == "Gpu") {
        auto& m = as<GpuMeter>(meter);
        std::vector<std::vector<float>> usage;
        m.getGpuUsage(usage);
        const std::vector<float> newest = usage.empty() ? std::vector<float>{} : usage.back();
        return {{"busy", m.getBusyPercentage(), "%"},
                {"max clock", double(m.getGpuMaxFreq()), "Hz"},
                {"usage", std::accumulate(newest.begin(), newest.end(), 0.0), ""}};
    }
    if (name == "SchedParams") {
        auto& m = as<SchedParamsMeter>(meter);
        std::atomic<int> load[3], capacity[3];
        m.getClusterTopAppLoad(load);
        m.getClusterCurrCap(capacity);
        std::vector<Reading> r = {{"top-app load", double(m.getTopAppLoad()), ""},
                                  {"big run queue", double(m.getBigNrRun()), ""}};
        for (int c = 0; c < 3; ++c) {
            r.push_back({"cluster " + std::to_string(c) + " load", double(load[c]), ""});
            r.push_back({"cluster " + std::to_string(c) + " capacity", double(capacity[c]), ""});
        }
        return r;
    }
    if (name == "PerfCounters") {
        auto& m = as<PerfCountersMeter>(meter);
        const std::vector<int64_t> instructions = m.getInstructions();
        return {{"IPC", double(m.getIPC()), ""},
                {"instructions", double(instructions.at(0)), ""},
                {"first counter's share", double(instructions.at(1)), "%"}};
    }
    if (name == "MinDDR")
        return {{"operating point", double(as<MinDDRMeter>(meter).getOpp()), "kHz"}};
    return {};
}

std::string formatValue(double value) {
    char text[48];
    if (std::nearbyint(value) == value && std::fabs(value) < 1e15)
        snprintf(text, sizeof(text), "%lld", static_cast<long long>(value));
    else
        snprintf(text, sizeof(text), "%.2f", value);
    return text;
}

}  // namespace meterctl
