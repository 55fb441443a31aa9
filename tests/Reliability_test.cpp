// All nine meters as a host drives them: thousands of create/start/stop/destroy cycles through
// the registry that must leave the process's descriptors as they were, the second close of the
// counters meter against a descriptor that took its number, and an event thread delivering
// thousands of events while another thread runs start() and the getters.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "DumpData.h"
#include "FpsMeter.h"
#include "GpuMeter.h"
#include "LLFeaturesList.h"
#include "LaunchMeter.h"
#include "MemoryMeter.h"
#include "MinDDRMeter.h"
#include "PerfCountersMeter.h"
#include "ProCompMeter.h"
#include "SchedParamsMeter.h"
#include "TestSupport.h"
#include "VendorIPerfDataStore.h"
#include "VmRssMeter.h"

using namespace testsupport;

namespace {

constexpr int kCycles = METERS_SCALED(2000, 300, 100);
constexpr int kEvents = METERS_SCALED(3000, 1000, 300);
constexpr int kPid = 4321;
constexpr char kApp[] = "com.example.app";
constexpr char kCsvProperty[] = "debug.vendor.tarn.enable.zq_csv_dump";
constexpr char kCounterNode[] = "/sys/devices/system/cpu/cpu_instructions";

AsyncTriggerPayload event(uint32_t code, int32_t type) {
    AsyncTriggerPayload p = makePayload(code, type, kPid, kApp);
    if (code == hint::kFdCounts) {
        p.intArgs[9] = 1;
        p.values = {30};
    }
    return p;
}

// Every code the library acts on, as a start and as an end where the type makes a difference.
const std::vector<AsyncTriggerPayload> kStarts = {event(hint::kLaunchStart, 0),
                                                  event(hint::kActivityStart, 0),
                                                  event(hint::kActivityResume, hint::kTypeEnd)};
const std::vector<AsyncTriggerPayload> kStops = {event(hint::kActivityStop, hint::kTypeEnd),
                                                 event(hint::kActivityPause, hint::kTypeEnd),
                                                 event(hint::kNone, hint::kTypeEnd)};
const std::vector<AsyncTriggerPayload> kMix = {
    event(hint::kLaunchStart, 0),      event(hint::kActivityStart, 0),
    event(hint::kFdCounts, 0),         event(hint::kActivityResume, hint::kTypeEnd),
    event(hint::kLaunchComplete, 0),   event(hint::kActivityPause, hint::kTypeEnd),
    event(hint::kActivityResume, 0),   event(hint::kActivityStop, hint::kTypeEnd),
    event(hint::kActivityPause, 0),    event(hint::kActivityStop, 0),
    event(hint::kNone, hint::kTypeEnd)};

// A device whose every node holds a valid value, and process kPid, kApp, with steady memory.
void addDevice(const FixtureRoot& root) {
    // clang-format off
    const std::pair<const char*, std::string> nodes[] = {
        {"/sys/class/drm/rvo-crtc-0/measured_fps", "fps: 90 frames: 12\n"},
        {"/sys/class/tesk/tesk-3d0/gpu_available_frequencies", "100 200 300\n"},
        {"/sys/class/tesk/tesk-3d0/gpu_clock_stats", "10 20 30\n"},
        {"/sys/class/tesk/tesk-3d0/gpu_busy_percentage", "42\n"},
        {"/sys/class/tesk/tesk-3d0/max_gpuclk", "300\n"},
        {"/sys/module/oxa_performance/notify/aggr_top_load", "5\n"},
        {"/sys/module/oxa_performance/notify/aggr_big_nr", "3\n"},
        {"/sys/module/oxa_performance/notify/top_load_cluster", "1 2 3\n"},
        {"/sys/module/oxa_performance/notify/curr_cap_cluster", "4 5 6\n"},
        {kCounterNode, "10:2:30:4\n"},
        {"/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies", "100 200 300 400\n"},
        {"/sys/class/devfreq/soc:vedra,memlat-cpu6/cur_freq", "300\n"},
        {"/sys/class/devfreq/soc:vedra,memlat-cpu0/cur_freq", "100\n"},
        {"/dev/cpuset/top-app/tasks", "4321\n"},
        {"/proc/4321/cmdline", std::string(kApp) + '\0'},
        {"/proc/4321/status", statusText(5000, 0)},
        {"/proc/4321/oom_score", "200\n"}};
    // clang-format on
    for (const auto& [path, text] : nodes)
        root.addFile(path, text);
    // The nodes written: a file truncated thousands of times is slow, and what lands there is
    // the meters' own tests' business.
    root.addSymlink("/sys/class/drm/rvo-crtc-0/fps_periodicity_ms", "/dev/null");
    root.addSymlink("/sys/module/oxa_performance/parameters/core_ctl_register", "/dev/null");
    root.addDir("/data/vendor/zq");
    VendorIPerfDataStore::getVendorIPerfDataStore()->Store(5, kCounterNode);
}

// One meter as the host sees it.
struct Row {
    const char* name;
    MeterInfo info;
    // The host's readings after a start(): true when each is what the device holds, or what a
    // stopped meter answers.
    std::function<bool(Meter&)> readingsHold;
    // start() runs until the end of the activity.
    bool blocks = false;
    // The meter appends events to its own list without a lock, and start() takes that list
    // first: the host delivers nothing until it has (until the first statistics call).
    bool keepsOwnList = false;
    // Real time a scripted sleep takes, for a meter whose thread would spin without it.
    uint32_t sleepUs = 0;
};

template <class M>
M& as(Meter& m) {
    return static_cast<M&>(m);
}

bool oneOf(std::initializer_list<double> allowed, double value) {
    return std::find(allowed.begin(), allowed.end(), value) != allowed.end();
}

const std::vector<Row>& rows() {
    static const std::vector<Row> table = {
        {"VmRss", MeterInfo{"", {}, {}, {}, 2},
         [](Meter& m) { return as<VmRssMeter>(m).mLaunchEndpoint == 0; }},  // memory is steady
        {"Memory", MeterInfo{"", {}, {"rss_swap", "ion_tesk"}, {{"TotalSamplesToRun", "3"}}},
         [](Meter& m) {
             for (Field* field : as<MemoryMeter>(m).mFields)
                 if (field->mResults.at(0) != 0)
                     return false;
             return true;
         },
         false, true},
        {"ProComp", MeterInfo{}, [](Meter& m) { return as<ProCompMeter>(m).mPeak == 64; }, true,
         true},
        {"Launch", MeterInfo{}, [](Meter& m) { return as<LaunchMeter>(m).mLaunchDuration >= 0; }},
        {"Fps", MeterInfo{},
         [](Meter& m) {
             return oneOf({0, 90}, as<FpsMeter>(m).getFps()) &&
                    oneOf({0, 12}, as<FpsMeter>(m).getFrames());
         }},
        {"Gpu", MeterInfo{},
         [](Meter& m) {
             auto& gpu = as<GpuMeter>(m);
             std::vector<int> freqs;
             std::vector<long> stats;
             std::vector<std::vector<float>> usage;
             gpu.getAvlGpuFreqs(freqs);
             gpu.getClockStats(stats);
             gpu.getGpuUsage(usage);
             bool held = usage.size() <= 60;
             for (const auto& levels : usage)  // steady counters: 0.0001 per level
                 held = held && levels == std::vector<float>(3, 0.0001F);
             return held && oneOf({0, 42}, gpu.getBusyPercentage()) &&
                    oneOf({-1, 300}, gpu.getGpuMaxFreq()) &&
                    (freqs.empty() || freqs == std::vector<int>{100, 200, 300}) &&
                    (stats.empty() || stats == std::vector<long>{10, 20, 30});
         }},
        {"SchedParams", MeterInfo{},
         [](Meter& m) {
             auto& s = as<SchedParamsMeter>(m);
             std::atomic<int> load[3], cap[3];
             return s.getTopAppLoad() == 5 && s.getBigNrRun() == 3 &&
                    s.getClusterTopAppLoad(load) && s.getClusterCurrCap(cap) &&
                    load[0] + load[2] == 4 && cap[0] + cap[2] == 10;
         }},
        {"PerfCounters", MeterInfo{},
         [](Meter& m) {
             auto& p = as<PerfCountersMeter>(m);
             return p.getIPC() == 2 && p.getInstructions() == std::vector<int64_t>{40, 25};
         }},
        {"MinDDR", MeterInfo{},
         [](Meter& m) {
             return oneOf({-1, 200, 400}, as<MinDDRMeter>(m).getOpp());
         },
         false, false, 50}};
    return table;
}

Meter* create(const Row& row) {
    std::lock_guard<std::mutex> lock(RegistryBase<Meter, MeterInfo>::mMutex);
    return RegistryBase<Meter, MeterInfo>::classList->at(row.name)(row.info);
}

int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr)
        count += entry->d_name[0] != '.';
    if (dir != nullptr)
        closedir(dir);
    return count;  // the listing's own descriptor included, each time
}

// The device with its CSV switch on and the working directory at its root, where the launch
// export's relative path lands.
class Reliability : public ::testing::Test {
  protected:
    void SetUp() override {
        addDevice(root);
        ASSERT_EQ(chdir(root.real("/").c_str()), 0);
        property_set(kCsvProperty, "1");
    }
    void TearDown() override {
        EXPECT_EQ(chdir(cwd.c_str()), 0);
        clearProperty(kCsvProperty);
        DumpData::mEnableCSV = -1;
        LLFeaturesList::mEnableCSV = false;
    }

    FixtureRoot root;
    LogCapture log;
    const std::string cwd = std::filesystem::current_path();
};

}  // namespace

// Each meter through kCycles of: created by name, start events, start() and its readings, stop
// events, start() (which closes what a stop closes) and its readings, deleted. Files the runs
// write are opened and closed on the way. A meter that blocks in start() is stopped from its
// sleep.
TEST_F(Reliability, CyclesOfEveryMeterLeaveTheDescriptorsAsTheyWere) {
    ScopedStats stats([](int) { return makeStats(5000, 0, 64); });
    for (const Row& row : rows()) {
        Meter* meter = nullptr;
        ScriptedSleep sleep([&](int, uint32_t) {
            if (row.blocks)
                meter->asyncTriggerUpdate(event(hint::kNone, hint::kTypeEnd));
            if (row.sleepUs != 0)
                usleep(row.sleepUs);
        });
        const int before = openDescriptors();
        int bad = 0;
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            meter = create(row);
            for (const auto& e : kStarts)
                meter->asyncTriggerUpdate(e);
            meter->start();
            bad += !row.readingsHold(*meter);
            for (const auto& e : kStops)
                meter->asyncTriggerUpdate(e);
            meter->start();
            bad += !row.readingsHold(*meter);
            delete meter;
        }
        EXPECT_EQ(openDescriptors(), before) << row.name;
        EXPECT_EQ(bad, 0) << row.name;
    }
    // The runs wrote what they measured.
    EXPECT_NE(root.read(std::string("/data/vendor/zq/") + kApp + "_vmrss.csv"), "(none)");
    EXPECT_NE(root.read(std::string("/data/vendor/zq/") + kApp + ".csv"), "(none)");
}

// A reading leaves its closed descriptor's number in the meter, and the host's next open takes
// that lowest free number; a stop then makes start() close the host's descriptor. Kept on
// purpose: the README names the hazard.
TEST_F(Reliability, TheCountersSecondCloseHitsTheDescriptorThatTookTheNumber) {
    PerfCountersMeter meter{MeterInfo{}};
    ASSERT_EQ(meter.getIPC(), 2);
    const int host = open(root.real(kCounterNode).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(host, meter.mNodeFd);
    meter.start();  // no stop: nothing closed
    EXPECT_NE(fcntl(host, F_GETFD), -1);
    meter.asyncTriggerUpdate(event(hint::kNone, hint::kTypeEnd));
    meter.start();
    EXPECT_EQ(fcntl(host, F_GETFD), -1);
    EXPECT_EQ(meter.mNodeFd, -1);
}

// Per meter: the host's event thread delivers kEvents of every code while another host thread
// runs start() and the readings, both as the host's rules allow; then the event thread goes on
// ending the activity until the last start() has returned. Every reading must be one the device
// or a stop allows, and nothing may throw.
TEST_F(Reliability, EveryMeterMeetsAnEventThreadWhileStartAndTheGettersRun) {
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.name);
        log.clear();
        std::mutex hostLock;  // the event thread delivers under it
        std::unique_lock<std::mutex> copying(hostLock, std::defer_lock);
        ScopedStats taken([&](int) {
            if (copying.owns_lock())  // start() has taken its list
                copying.unlock();
            return makeStats(5000, 0, 64);
        });
        ScriptedSleep sleep([&](int, uint32_t) {
            if (row.sleepUs != 0)
                usleep(row.sleepUs);
        });
        std::unique_ptr<Meter> meter(create(row));
        meter->asyncTriggerUpdate(event(hint::kLaunchStart, 0));  // the first event each run reads
        std::atomic<bool> delivered{false}, started{false};
        std::thread events([&] {
            auto deliver = [&](const AsyncTriggerPayload& e) {
                std::lock_guard<std::mutex> lock(hostLock);
                meter->asyncTriggerUpdate(e);
            };
            for (int i = 0; i < kEvents; ++i)
                deliver(kMix[i % kMix.size()]);
            delivered = true;
            while (!started) {
                deliver(event(hint::kNone, hint::kTypeEnd));
                std::this_thread::yield();
            }
        });
        int rounds = 0, bad = 0;
        for (; !delivered || rounds < 20; ++rounds) {
            if (row.keepsOwnList)
                copying.lock();
            meter->start();
            if (copying.owns_lock())
                copying.unlock();
            bad += !row.readingsHold(*meter);
        }
        started = true;
        events.join();
        EXPECT_EQ(bad, 0) << rounds << " rounds";
        for (const std::string& line : log.lines())
            EXPECT_EQ(line.find("xception"), std::string::npos) << line;
    }
}
