// Broken nodes under every meter that reads one: one table of fault kinds, each applied to all the
// nodes a meter reads, and the neutral values and log lines that the meter gives for it. Each
// meter takes two readings (a sampling meter one run); a node that vanishes is missing at the
// first reading and back, with its good text, before the second (for a run, a few sleeps in).
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>
#include <sstream>

#include "AsyncEvent.h"
#include "DumpData.h"
#include "FpsMeter.h"
#include "GpuMeter.h"
#include "LaunchMeter.h"
#include "MemoryMeter.h"
#include "MinDDRMeter.h"
#include "PerfCountersMeter.h"
#include "SchedParamsMeter.h"
#include "TestSupport.h"
#include "VendorIPerfDataStore.h"
#include "VmRssMeter.h"

using namespace testsupport;

namespace {

enum Fault {
    Missing,
    Vanishes,
    Empty,
    NoNewline,  // a command line without its NUL
    Crlf,
    Beyond64,  // every number 10^20 - 1
    Garbage,
    OneByte,
    Directory,
    Unreadable,
};

const char* const kFaultNames[] = {"Missing",  "Vanishes", "Empty",   "NoNewline", "Crlf",
                                   "Beyond64", "Garbage",  "OneByte", "Directory", "Unreadable"};

// Puts the fault in place of good, the node's text as the kernel writes it.
void plant(const FixtureRoot& root, const std::string& path, Fault fault, std::string good) {
    root.remove(path);
    switch (fault) {
        case Missing:
        case Vanishes:
            return;
        case Directory:
            root.addDir(path);
            return;
        case Empty:
            good.clear();
            break;
        case NoNewline:
            good.pop_back();
            break;
        case Crlf:
            for (size_t at = good.find('\n'); at != std::string::npos; at = good.find('\n', at + 2))
                good.insert(at, "\r");
            break;
        case Beyond64:
            for (size_t at = good.find_first_of("0123456789"); at != std::string::npos;
                 at = good.find_first_of("0123456789", at + 20)) {
                good.replace(at, good.find_first_not_of("0123456789", at) - at,
                             "99999999999999999999");
            }
            break;
        case Garbage:
            good = "?x\n";
            break;
        case OneByte:
            good.resize(1);
            break;
        case Unreadable:
            break;
    }
    root.addFile(path, good);
    if (fault == Unreadable)
        chmod(root.real(path).c_str(), 0);
}

struct Node {
    std::string path, good;
};

// Plants the fault in every node; brings back a vanished node's good text on restore().
struct Planted {
    Planted(const FixtureRoot& root, std::vector<Node> nodes, Fault fault)
        : root(root), nodes(std::move(nodes)), fault(fault) {
        for (const Node& node : this->nodes)
            plant(root, node.path, fault, node.good);
    }
    void restore() const {
        if (fault == Vanishes) {
            for (const Node& node : nodes)
                root.addFile(node.path, node.good);
        }
    }
    // Two readings, the nodes restored before the second; what each wrote, a space after each.
    std::string readTwice(const std::function<void(std::ostream&)>& read) const {
        std::ostringstream out;
        for (int reading = 0; reading < 2; ++reading) {
            if (reading == 1)
                restore();
            read(out);
            out << " ";
        }
        return out.str();
    }
    const FixtureRoot& root;
    std::vector<Node> nodes;
    Fault fault;
};

// The nodes whose path holds which get the fault, the others their good text.
Planted plantWhere(const FixtureRoot& root, const std::vector<Node>& all, const std::string& which,
                   Fault fault) {
    std::vector<Node> faulty;
    for (const Node& node : all) {
        if (node.path.find(which) == std::string::npos)
            root.addFile(node.path, node.good);
        else
            faulty.push_back(node);
    }
    return Planted(root, faulty, fault);
}

template <class T>
std::string list(const T& values) {
    std::ostringstream out;
    out << "[";
    for (const auto& v : values)
        out << (&v == &*std::begin(values) ? "" : " ") << v;
    return out.str() + "]";
}

// What a meter gives for one fault: its readings and its log lines.
using Outcome = std::pair<std::string, std::vector<std::string>>;

// clang-format off
Outcome fps(Fault fault) {
    FixtureRoot root;
    root.addFile("/sys/class/drm/rvo-crtc-0/fps_periodicity_ms", "");
    Planted nodes(root, {{"/sys/class/drm/rvo-crtc-0/measured_fps", "fps: 59.94 frames: 30\n"}},
                  fault);
    LogCapture log;
    FpsMeter meter{MeterInfo{}};
    const std::string readings = nodes.readTwice([&](std::ostream& out) {
        meter.start();
        const float rate = meter.getFps();
        out << rate << "/" << meter.getFrames();
    });
    return {readings, log.lines()};
}

Outcome gpu_(Fault fault) {
    FixtureRoot root;
    const std::string dir = "/sys/class/tesk/tesk-3d0/";
    Planted nodes(root, {{dir + "gpu_available_frequencies", "180000000 267000000\n"},
                         {dir + "gpu_clock_stats", "1200 4500\n"},
                         {dir + "gpu_busy_percentage", "37 %\n"},
                         {dir + "max_gpuclk", "267000000\n"}}, fault);
    LogCapture log;
    GpuMeter meter{MeterInfo{}};
    const std::string readings = nodes.readTwice([&](std::ostream& out) {
        meter.start();
        std::vector<int> freqs{-7};
        std::vector<long> stats{-7};
        meter.getAvlGpuFreqs(freqs);
        meter.getClockStats(stats);
        const int maxFreq = meter.getGpuMaxFreq();
        out << list(freqs) << list(stats) << maxFreq << "/" << meter.getBusyPercentage();
    });
    return {readings, log.lines()};
}

Outcome schedParams(Fault fault) {
    FixtureRoot root;
    const std::string dir = "/sys/module/oxa_performance/notify/";
    Planted nodes(root, {{dir + "aggr_top_load", "56\n"}, {dir + "aggr_big_nr", "3\n"},
                         {dir + "top_load_cluster", "45 12 7\n"},
                         {dir + "curr_cap_cluster", "410 1024 1024\n"}}, fault);
    LogCapture log;
    SchedParamsMeter meter{MeterInfo{}};
    const std::string readings = nodes.readTwice([&](std::ostream& out) {
        std::atomic<int> load[3] = {-7, -7, -7}, cap[3] = {-7, -7, -7};
        const int top = meter.getTopAppLoad();
        const int bigNr = meter.getBigNrRun();
        const bool loadOk = meter.getClusterTopAppLoad(load);
        const bool capOk = meter.getClusterCurrCap(cap);
        out << top << "/" << bigNr << "/" << loadOk << list(load) << capOk << list(cap);
    });
    return {readings, log.lines()};
}

Outcome perfCounters(Fault fault) {
    FixtureRoot root;
    const char kNode[] = "/sys/devices/system/cpu/cpu_instructions";
    VendorIPerfDataStore::getVendorIPerfDataStore()->Store(5, kNode);
    Planted nodes(root, {{kNode, "10:2:30:4\n"}}, fault);
    LogCapture log;
    PerfCountersMeter meter{MeterInfo{}};
    const std::string readings = nodes.readTwice([&](std::ostream& out) {
        const int64_t ipc = meter.getIPC();
        out << ipc << list(meter.getInstructions());
    });
    return {readings, log.lines()};
}

// The worker alone, without its thread: the frequencies it keys, and (built on a good list) two
// readings of each vote. Text that is not a number throws out of either, as nothing catches it.
Outcome minDdr(Fault fault) {
    FixtureRoot root;
    const std::string dir = "/sys/class/devfreq/soc:vedra,memlat-cpu";
    const Node list = {dir + "0/available_frequencies", "100 200\n"};
    Planted nodes(root, {list, {dir + "6/cur_freq", "200\n"}, {dir + "0/cur_freq", "100\n"}},
                  fault);
    LogCapture log;
    std::ostringstream out;
    const auto attempt = [&](auto step) {
        try {
            step();
        } catch (const std::exception& e) {
            out << "throws " << e.what();
        }
        out << " ";
    };
    MeterInfo info;
    attempt([&] {
        AuxMinDDRMeter worker(info);
        for (const auto& entry : worker.mLittleResidency)
            out << entry.first << (worker.mBigResidency.count(entry.first) == 1 ? "," : "?");
    });
    root.remove(list.path);
    root.addFile(list.path, list.good);
    AuxMinDDRMeter worker(info);
    for (int reading = 0; reading < 2; ++reading) {
        if (reading == 1)
            nodes.restore();
        attempt([&] { out << worker.readValue(worker.mBigFreqStream, worker.mBigVotePath); });
        attempt([&] { out << worker.readValue(worker.mLittleFreqStream, worker.mLittleVotePath); });
    }
    return {out.str(), log.lines()};
}
// clang-format on

// Task 1210 is com.example.app, sampled three times at a steady 1000 kB (8 of it swap). A
// vanished node is back for the hunt's second look; the status is opened once, after it.
Outcome vmRss(Fault fault, const std::string& which) {
    FixtureRoot root;
    std::vector<Node> all = {{"/dev/cpuset/top-app/tasks", "1 1210\n"},
                             {"/proc/1210/cmdline", std::string("com.example.app\0", 16)},
                             {"/proc/1210/status", statusText(992, 8)}};
    const Planted nodes = plantWhere(root, all, which, fault);
    root.remove("/data/vendor/zq");
    root.addDir("/data/vendor/zq");
    LogCapture log;
    VmRssMeter meter("VmRss", 3, {});
    meter.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 8100, "com.example.app"));
    ScriptedSleep sleep([&](int i, uint32_t) {
        if (i == 1)
            nodes.restore();
    });
    meter.start();
    std::ostringstream out;
    out << list(sleep.sleeps()) << " samples " << meter.mSampleCount << " aborted "
        << meter.mAborted << " " << root.read("/data/vendor/zq/com.example.app_vmrss.csv");
    return {out.str(), log.lines()};
}

// Process 4321 is sampled for 34 rounds: its status and OOM score, each opened once.
Outcome launch(Fault fault, const std::string& which) {
    FixtureRoot root;
    std::vector<Node> all = {{"/proc/4321/status", statusText(992, 8)},
                             {"/proc/4321/oom_score", "200\n"}};
    const Planted nodes = plantWhere(root, all, which, fault);
    AsyncEvent::setPidResolver([](const std::string&) { return 4321; });
    LogCapture log;
    LaunchMeter meter("Launch");
    meter.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 8100, "com.example.app"));
    ScriptedSleep sleep([&](int i, uint32_t) {
        if (i == 1)
            nodes.restore();
    });
    meter.start();
    AsyncEvent::setPidResolver(nullptr);
    std::set<int> raw(meter.mVmRssValues, meter.mVmRssValues + meter.mSampleCount);
    std::ostringstream out;
    out << "rounds " << meter.mSampleCount << " raw " << list(raw) << " vmrss "
        << meter.mFeatures.mVmRss.size()
        << list(std::set<int>(meter.mFeatures.mVmRss.begin(), meter.mFeatures.mVmRss.end()))
        << " oom " << meter.mFeatures.mOOMScroe.size()
        << list(std::set<int>(meter.mFeatures.mOOMScroe.begin(), meter.mFeatures.mOOMScroe.end()));
    return {out.str(), log.lines()};
}

// Three samples of process 4321 through the host's statistics, which read its status file (VmRSS
// 2264 kB, no swap); a vanished file is back for the second sample.
Outcome memory(Fault fault) {
    FixtureRoot root;
    Planted nodes(root, {{"/proc/4321/status", testData("status")}}, fault);
    LogCapture log;
    MemoryMeter meter(MeterInfo{"", {}, {"rss_swap"}, {{"TotalSamplesToRun", "3"}}});
    meter.asyncTriggerUpdate(makePayload(hint::kActivityStart, 0, 4321));
    ScriptedSleep sleep([&](int i, uint32_t) {
        if (i == 0)
            nodes.restore();
    });
    meter.start();
    auto* field = static_cast<MemoryField*>(meter.mFields.at(0));
    std::ostringstream out;
    out << list(std::vector<int64_t>(field->mMemoryValues.get(), field->mMemoryValues.get() + 3))
        << " baseline " << meter.mBaseline;
    return {out.str(), log.lines()};
}

}  // namespace

class Faults : public ::testing::TestWithParam<Fault> {
  protected:
    void SetUp() override {
        property_set("debug.vendor.tarn.enable.zq_csv_dump", "1");
        if (GetParam() == Unreadable && geteuid() == 0)
            GTEST_SKIP() << "running as root, where a mode of 000 does not deny reads";
    }
    void TearDown() override {
        clearProperty("debug.vendor.tarn.enable.zq_csv_dump");
        DumpData::mEnableCSV = -1;
    }
};

// Each probe's outcome with its nodes good, and the faults that change it. An unreadable node
// fails to open as a missing one does, with its own error text.
struct Expected {
    const char* probe;
    std::function<Outcome(Fault)> run;
    Outcome good;
    std::map<Fault, Outcome> faulty;
};

TEST_P(Faults, EachMeterGivesItsNeutralValuesAndLines) {
    const std::string fpsNode = "/sys/class/drm/rvo-crtc-0/measured_fps";
    const std::string fpsOpen = "FpsMeter: start() 82: Failed to open fps file " + fpsNode +
                                " State No such file or directory";
    const std::string fpsClosed =
        "FpsMeter: getNodeData() 151: File Handle is closed(not available) " + fpsNode;
    const std::string gpu = "/sys/class/tesk/tesk-3d0/";
    const auto gpuOpen = [&](int line, const char* node) {
        return "GpuMeter: start() " + std::to_string(line) + ": Failed to open gpu file " + gpu +
               node + " Error No such file or directory";
    };
    const auto gpuClosed = [&](const char* function, int line, const char* node) {
        return "GpuMeter: " + std::string(function) + "() " + std::to_string(line) +
               ": File Handle is closed(not available) " + gpu + node;
    };
    const std::vector<std::string> gpuMissing = {
        gpuOpen(78, "gpu_available_frequencies"),
        gpuOpen(86, "gpu_clock_stats"),
        gpuOpen(94, "gpu_busy_percentage"),
        gpuOpen(102, "max_gpuclk"),
        gpuClosed("getAvlGpuFreqs", 141, "gpu_available_frequencies"),
        gpuClosed("getClockStats", 176, "gpu_clock_stats"),
        gpuClosed("getGpuMaxFreq", 206, "max_gpuclk"),
        gpuClosed("getBusyPercentage", 285, "gpu_busy_percentage")};
    const std::string sched = "SchedParamsMeter: ";
    const std::string notify = "/sys/module/oxa_performance/notify/";
    const std::vector<std::string> schedMissing = {
        sched + "readValue() N: Failed to open file", sched + "readValue() N: Failed to open file",
        sched + "readCluster() N: readCluster Failed to open file " + notify + "top_load_cluster",
        sched + "readCluster() N: readCluster Failed to open file " + notify + "curr_cap_cluster"};
    const std::string schedNull = sched + "readCluster() N: Value from field is null";
    const std::string schedStoi = sched + "readValue() N: exception stoi\n";
    const std::string perf =
        "PerfCountersMeter: getNodeData() N: Error reading cpu_instruction node in IPC";
    const std::string ddrOpen = "MinDDRMeter: readValue() N: Failed to open file";
    const std::string ddrList =
        "MinDDRMeter: initResidencyMap() N: Unable to open file "
        "/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies";
    const std::string noPid =
        "VmRssMeter:: start() 359: Could not find pid, can not collect vmrss data";
    const auto twice = [](const std::vector<std::string>& lines) {
        std::vector<std::string> both = lines;
        both.insert(both.end(), lines.begin(), lines.end());
        return both;
    };
    // clang-format off
    const std::string fpsGood = "59/30 ", gpuGood = "[180000000 267000000][1200 4500]267000000/37 ",
                      schedGood = "56/3/1[45 12 7]1[410 1024 1024] ", schedFail = "-1/-1/1[0 0 0]1[0 0 0] ",
                      perfGood = "2[40 25] ";
    const std::string csv = "com.example.app,duration=0,1000,1000,1000,\n";
    const std::string vmRssGood = "[200000 300000 300000 300000] samples 3 aborted 0 " + csv;
    const std::string vmRssLate = "[200000 200000 300000 300000 300000] samples 3 aborted 0 " + csv;
    const Outcome noTask = {"[200000 200000 200000 200000 200000] samples 0 aborted 0 (none)", {noPid}};
    const Outcome noStatus = {"[200000] samples 0 aborted 0 (none)", {}};
    const Outcome noSample = {"[200000] samples 0 aborted 1 (none)", {}};
    const std::string launchGood = "rounds 34 raw [1000] vmrss 34[1000] oom 34[200]";
    const Outcome launchUnopened = {"rounds 34 raw [0] vmrss 0[] oom 34[200]", {}};
    const Outcome launchUnread = {"rounds 34 raw [-1] vmrss 0[] oom 34[200]", {}};
    const Outcome launchNoScore = {"rounds 34 raw [1000] vmrss 34[1000] oom 0[]", {}};
    const Outcome memoryNone = {"[0 0 0] baseline 0", {}};
    const std::vector<Expected> expectations = {
        {"Fps", fps, {fpsGood + fpsGood, {}}, {
            {Missing, {"0/0 0/0 ", twice({fpsOpen, fpsClosed, fpsClosed})}},
            {Vanishes, {"0/0 " + fpsGood, {fpsOpen, fpsClosed, fpsClosed}}},
            {Empty, {"0/0 0/0 ", {}}}, {Garbage, {"0/0 0/0 ", {}}}, {OneByte, {"0/0 0/0 ", {}}},
            {Directory, {"0/0 0/0 ", {}}},
            {Beyond64, {"0.01/4294967295 0.01/4294967295 ", {}}}}},
        {"Gpu", gpu_, {gpuGood + gpuGood, {}}, {
            {Missing, {"[][]-1/0 [][]-1/0 ", twice(gpuMissing)}},
            {Vanishes, {"[][]-1/0 " + gpuGood, gpuMissing}},
            {Empty, {"[][]0/0 [][]0/0 ", {}}}, {Directory, {"[][]0/0 [][]0/0 ", {}}},
            {Beyond64, {"[-1 -1][9223372036854775807 9223372036854775807]-1/1e+20 "
                        "[-1 -1][9223372036854775807 9223372036854775807]-1/1e+20 ", {}}},
            {Garbage, {"[0][0]0/0 [0][0]0/0 ", {}}}, {OneByte, {"[1][1]2/3 [1][1]2/3 ", {}}}}},
        {"SchedParams", schedParams, {schedGood + schedGood, {}}, {
            {Missing, {schedFail + schedFail, twice(schedMissing)}},
            {Vanishes, {schedFail + schedGood, schedMissing}},
            {Empty, {schedFail + schedFail, {schedNull, schedNull, schedNull, schedNull}}},
            {Directory, {schedFail + schedFail, {schedNull, schedNull, schedNull, schedNull}}},
            {Beyond64, {"-1/-1/1[-1 -1 -1]1[-1 -1 -1] -1/-1/1[-1 -1 -1]1[-1 -1 -1] ", {schedStoi, schedStoi}}},
            {Garbage, {schedFail + schedFail, {schedStoi, schedStoi}}},
            {OneByte, {"5/3/1[4 0 0]1[4 0 0] 5/3/1[4 0 0]1[4 0 0] ", {}}}}},
        {"PerfCounters", perfCounters, {perfGood + perfGood, {}}, {
            {Missing, {"0[-1 -1] 0[-1 -1] ", {perf, perf, perf, perf}}},
            {Vanishes, {"0[-1 -1] " + perfGood, {perf, perf}}},
            {Directory, {"0[-1 -1] 0[-1 -1] ", {perf, perf, perf, perf}}},
            // Fields a text does not reach keep -1; the share's quotient converts as on the target.
            {Empty, {"-1[-2 -9223372036854775808] -1[-2 -9223372036854775808] ", {}}},
            {Beyond64, {"9223372036854775807[-2 -9223372036854775808] "
                        "9223372036854775807[-2 -9223372036854775808] ", {}}},
            {Garbage, {"-1[-1 0] -1[-1 0] ", {}}},
            {OneByte, {"-1[0 9223372036854775807] -1[0 9223372036854775807] ", {}}}}},
        {"MinDDR", minDdr, {"100,200, 200 100 200 100 ", {}}, {
            {Missing, {" -1 -1 -1 -1 ", {ddrList, ddrOpen, ddrOpen, ddrOpen, ddrOpen}}},
            {Vanishes, {" -1 -1 200 100 ", {ddrList, ddrOpen, ddrOpen}}},
            {Empty, {" -1 -1 -1 -1 ", {}}}, {Directory, {" -1 -1 -1 -1 ", {}}},
            {Beyond64, {"throws stoi throws stoi throws stoi -1 -1 ", {}}},
            {Garbage, {"throws stoi throws stoi throws stoi -1 -1 ", {}}},
            {OneByte, {"1, 2 1 2 1 ", {}}}}},
        {"VmRss tasks", [](Fault f) { return vmRss(f, "tasks"); }, {vmRssGood, {}}, {
            {Missing, noTask}, {Vanishes, {vmRssLate, {}}}, {Empty, noTask}, {Beyond64, noTask},
            {Garbage, noTask}, {OneByte, noTask}, {Directory, noTask}}},
        {"VmRss cmdline", [](Fault f) { return vmRss(f, "cmdline"); }, {vmRssGood, {}}, {
            {Missing, noTask}, {Vanishes, {vmRssLate, {}}}, {Empty, noTask}, {Garbage, noTask},
            {OneByte, noTask}, {Directory, noTask}}},
        {"VmRss status", [](Fault f) { return vmRss(f, "status"); }, {vmRssGood, {}}, {
            {Missing, noStatus}, {Vanishes, noStatus}, {Empty, noSample}, {Beyond64, noSample},
            {Garbage, noSample}, {OneByte, noSample}, {Directory, noSample}}},
        {"Launch status", [](Fault f) { return launch(f, "status"); }, {launchGood, {}}, {
            {Missing, launchUnopened}, {Vanishes, launchUnopened}, {Empty, launchUnread},
            {Beyond64, launchUnread}, {Garbage, launchUnread}, {OneByte, launchUnread},
            {Directory, launchUnread}}},
        {"Launch oom_score", [](Fault f) { return launch(f, "oom_score"); }, {launchGood, {}}, {
            {Missing, launchNoScore}, {Vanishes, launchNoScore}, {Empty, launchNoScore},
            {Beyond64, launchNoScore}, {Garbage, launchNoScore}, {Directory, launchNoScore},
            {OneByte, {"rounds 34 raw [1000] vmrss 34[1000] oom 34[2]", {}}}}},
        {"Memory", memory, {"[2264 2264 2264] baseline 2264", {}}, {
            {Missing, memoryNone}, {Vanishes, {"[0 2264 2264] baseline 2264", {}}},
            {Empty, memoryNone}, {Garbage, memoryNone}, {OneByte, memoryNone},
            {Directory, memoryNone}, {Beyond64, {"[-2 -2 -2] baseline 0", {}}}}},
    };
    // clang-format on
    const Fault fault = GetParam();
    for (const Expected& e : expectations) {
        SCOPED_TRACE(e.probe);
        Outcome expected = e.good;
        const auto it = e.faulty.find(fault == Unreadable ? Missing : fault);
        if (it != e.faulty.end())
            expected = it->second;
        if (fault == Unreadable) {
            for (std::string& line : expected.second) {
                const size_t at = line.find("No such file or directory");
                if (at != std::string::npos)
                    line.replace(at, 25, "Permission denied");
            }
        }
        Outcome got = e.run(fault);
        got.second = maskedLike(got.second, expected.second);
        EXPECT_EQ(got, expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Faults,
                         ::testing::Values(Missing, Vanishes, Empty, NoNewline, Crlf, Beyond64,
                                           Garbage, OneByte, Directory, Unreadable),
                         [](const auto& info) { return kFaultNames[info.param]; });
