// VmRssMeter: the end-point detector as a state machine, the status-file reader, and whole runs
// of start() against fixture trees and real processes.
#include "VmRssMeter.h"

#include "DumpData.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

constexpr char kCsvPath[] = "/data/vendor/zq/com.example.app_vmrss.csv";
constexpr char kTasksPath[] = "/dev/cpuset/top-app/tasks";
constexpr char kAppStatus[] = "/proc/1210/status";

}  // namespace

TEST(VmRssDetector, ScriptedSampleSequences) {
    struct Case {
        const char* what;
        std::vector<std::array<int, 4>> steps;  // sample; then returned, mEndpointMs, mBaseline
        int budget = 8100;
        bool launchComplete = false;  // the event arrived before the first sample
        int presetBaseline = 0;
    };
    // clang-format off
    const Case cases[] = {
        {"growth counts only once it doubles the minimum",
         {{100000, 0, 0, 100000}, {150000, 0, 0, 100000}, {210000, 0, 900, 210000}}},
        {"15 percent divides to nothing", {{100, 0, 0, 100}, {115, 0, 0, 100}, {115, 0, 0, 100}}},
        {"shrinking below half counts through the range",
         {{100, 0, 0, 100}, {60, 0, 0, 100}, {40, 0, 900, 40}}},
        {"stable for longer than the budget: the last change",
         {{100, 0, 0, 100}, {300, 0, 600, 300}, {300, 0, 600, 300}, {300, 600, 600, 300}}, 300},
        {"the launch-complete event rebases and returns the last change", {{100000, 0, 0, 100000},
         {105000, 0, 0, 105000}, {300000, 900, 900, 300000}, {0, 900, 900, 0}}, 8100, true},
        {"quotients from 21474837 on are 1 %, not wrapped (42949674 would give 104)",
         {{1, 0, 0, 1}, {21474838, 0, 0, 1}, {42949675, 0, 0, 1}}},
        {"an overflowing difference is no change",
         {{-1000, 0, 0, -1000}, {INT_MAX - 100, 0, 0, -1000}}},
        {"a zero minimum gives a zero range", {{1000, 0, 0, 1000}}, 8100, false, 1000},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VmRssMeter m("VmRss", 1, {});
        m.mMaxDurationMs = c.budget;
        m.mBaseline = c.presetBaseline;
        if (c.launchComplete)
            m.asyncTriggerUpdate(makePayload(hint::kLaunchComplete, -1));
        for (const auto& s : c.steps)  // braced lists evaluate left to right
            EXPECT_EQ((std::array<int, 4>{s[0], m.detectLaunchEndpoint(s[0]), m.mEndpointMs,
                                          m.mBaseline}),
                      s);
    }
}

TEST(VmRssReaders, StatusSampleIsRssAnonPlusVmSwapReadIn150BytePieces) {
    const std::pair<std::string, int> cases[] = {
        {statusText(51200, 128), 51328},
        {"RssAnon: 10\nRssAnon: 20\nVmSwap: 5\n", 19},        // stops at the second counted key
        {"RssAnon: 5 VmSwap: 7\nVmSwap: 1\n", 6},             // one key a piece, RssAnon first
        {"xxRssAnon: 2147483647\nfoo VmSwap: 1\n", INT_MIN},  // keys anywhere; the sum wraps
        {"RssAnon: -5 kB\nVmSwap: 3 kB\n", -1},  // negatives are neither kept nor counted
        {"RssAnon: 7 kB\nVmSwap: -3 kB\n", 7},
        {"RssAnon: 7 kB\nVmSwap: -3 kB\nVmSwap: 4 kB\n", 11},
        {std::string(145, 'x') + "RssAnon: 77 kB\nVmSwap: 3 kB\n", -1},  // key split by a piece
        {std::string(149, 'x') + "RssAnon: 77 kB\nVmSwap: 3 kB\n", 80},  // key starts a piece
    };
    VmRssMeter m("VmRss", 1, {});
    EXPECT_EQ(m.getProcessVmRss(nullptr), -1);
    for (const auto& [text, expected] : cases) {
        FILE* f = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
        EXPECT_EQ(m.getProcessVmRss(f), expected) << text;
        fclose(f);
    }
}

TEST(VmRssState, ResetClearsTheRunAndInitAlsoTheBudgetAndArray) {
    VmRssMeter m("VmRss", 4, {"ignored"});
    int32_t* array = m.mVmRssValues;
    for (bool init : {false, true}) {
        for (int v : {100, 300, 300})
            m.detectLaunchEndpoint(v);
        m.mSampleCount = 3, m.mLaunchEndpoint = 600, m.mAborted = true, m.mMaxDurationMs = 1200;
        m.asyncTriggerUpdate(makePayload(hint::kLaunchComplete, 0));
        m.asyncTriggerUpdate(makePayload(hint::kActivityStop, 0));
        init ? m.Init() : m.Reset();
        EXPECT_EQ(std::vector<int>({m.mSampleCount, m.mElapsedMs, m.mEndpointMs, m.mBaseline,
                                    m.mMin, m.mMax, m.mLaunchEndpoint, m.mTriggerCount, m.mAborted,
                                    m.mStopRequested, m.mMaxDurationMs, m.mVmRssValues == array}),
                  std::vector<int>({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, init ? 8100 : 1200, !init}));
    }
    delete[] array;  // Init leaves the old array to its holder
}

// Task 1210 is the app, with decoys the pid hunt must pass over before and after it.
class VmRssRun : public ::testing::Test {
  protected:
    void SetUp() override {
        property_set("debug.vendor.tarn.enable.zq_csv_dump", "1");
        root.addDir("/data/vendor/zq");
        root.addFile("/proc/412/cmdline", std::string("com.example.app.extra\0", 22));
        root.addFile("/proc/1203/cmdline", "com.example.ap");
        root.addFile("/proc/1210/cmdline", testData("cmdline"));
        root.addFile("/proc/2260/cmdline", std::string("com.example.app\0", 16));  // no status
    }
    void TearDown() override {
        clearProperty("debug.vendor.tarn.enable.zq_csv_dump");
        DumpData::mEnableCSV = -1;
    }

    FixtureRoot root;
    LogCapture log;
};

TEST_F(VmRssRun, RunsEndAsScriptedAndDumpTheirSeries) {
    // What happens just before sample actAt is read: an event (its code; Notice is the host's
    // end-of-activity notice) or a change to the tree.
    enum Then : uint32_t { Notice, None, Zombie, NoPid, NoStatus, NoEvent, NoArray };
    constexpr Then Stop = Then(hint::kActivityStop), Complete = Then(hint::kLaunchComplete);
    const struct {
        const char* what;
        int numSamples, budget;
        std::vector<int> totals;  // sample k reads totals[k], or the last one
        int actAt;
        Then then;
        int pidSleeps, cycleSleeps, samples, endpoint;
        const char* csv;  // the line after "com.example.app,duration=", or nothing dumped
        std::vector<std::string> log = {};
    } cases[] = {
        // clang-format off
        {"endpoint found", 20, 900, {1000, 1500, 2100}, 0, None, 1, 6, 7, 900,
         "900,1000,1500,2100,2100,2100,2100,2100,"},
        {"steady memory", 20, 600, {5000}, 0, None, 1, 2, 3, 0, "0,5000,5000,5000,"},
        {"budget 0", 20, 0, {5000}, 0, None, 1, 0, 1, 0, "0,5000,"},
        {"sample quota", 3, 8100, {1000, 1001, 1002}, 0, None, 1, 3, 3, 0, "0,1000,1001,1002,"},
        {"launch complete ends the hunt", 20, 8100, {1000, 1500, 2100, 2110}, 4, Complete, 1, 4,
         5, 900, "900,1000,1500,2100,2110,2110,"},
        {"activity stop aborts", 20, 8100, {1000}, 2, Stop, 1, 2, 2, 0, nullptr},
        {"stop notice aborts", 20, 8100, {1000}, 2, Notice, 1, 2, 2, 0, nullptr},
        {"a zombie's status has no memory", 20, 8100, {1000}, 2, Zombie, 1, 2, 2, 0, nullptr},
        {"a stale stop is reset", 20, 600, {5000}, 0, Stop, 1, 2, 3, 0, "0,5000,5000,5000,"},
        {"no samples wanted", 0, 8100, {1000}, 0, None, 1, 0, 0, 0, nullptr},
        {"no status file", 20, 8100, {1000}, 0, NoStatus, 1, 0, 0, 0, nullptr},
        {"no pid", 20, 8100, {1000}, 0, NoPid, 5, 0, 0, 0, nullptr,
         {"VmRssMeter:: start() 359: Could not find pid, can not collect vmrss data"}},
        {"no event", 20, 8100, {1000}, 0, NoEvent, 0, 0, 0, 0, nullptr,
         {"VmRssMeter:: start() 348: Async Data NULL"}},
        {"no sample array", 20, 900, {1000, 1500, 2100}, 0, NoArray, 1, 6, 0, 900, nullptr,
         {"VmRssMeter:: Init() 95: Failed mVmRssValues "}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.then == NoArray && !nothrowNewCanFail())
            continue;
        log.clear();
        std::unique_ptr<FailNothrowNew> fail(c.then == NoArray ? new FailNothrowNew : nullptr);
        VmRssMeter m("VmRss", c.numSamples, {});
        fail.reset();
        // Events come from the host's thread. The flag is relaxed on purpose: only the meter's
        // own locks may order the event against the run.
        std::thread host;
        std::atomic<bool> delivered{false};
        auto act = [&] {
            if (c.then == Zombie) {
                root.addFile(kAppStatus, "Name:\tcom.example.app\nState:\tZ (zombie)\n");
            } else if (c.then == NoPid) {  // reading the ids stops at the garbage
                root.addFile(kTasksPath, "412\nabc\n1210\n");
            } else if (c.then == NoStatus) {
                root.remove(kAppStatus);
            } else if (c.then != None && c.then != NoEvent && c.then != NoArray) {
                host = std::thread([&] {
                    m.asyncTriggerUpdate(makePayload(c.then, c.then == Notice ? -1 : 0));
                    delivered.store(true, std::memory_order_relaxed);
                });
                while (!delivered.load(std::memory_order_relaxed))
                    std::this_thread::yield();
            }
        };
        auto setSample = [&](int k) {
            root.addFile(kAppStatus,
                         statusText(c.totals[std::min<size_t>(k, c.totals.size() - 1)] - 8, 8));
            if (k == c.actAt)
                act();
        };
        root.addFile(kTasksPath, "1 412 1203\n1210\n2260\n");
        root.remove(kCsvPath);
        if (c.then != NoEvent) {
            m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, c.budget, "com.example.app"));
            m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 5, "com.later"));  // ignored
        }
        setSample(0);
        ScriptedSleep sleep([&, cycle = 0](int, uint32_t us) mutable {
            if (us == 300000)
                setSample(++cycle);
        });
        m.start();
        if (host.joinable())
            host.join();
        std::vector<uint32_t> sleeps(c.pidSleeps, 200000);
        sleeps.insert(sleeps.end(), c.cycleSleeps, 300000);
        EXPECT_EQ(sleep.sleeps(), sleeps);
        EXPECT_EQ(m.mSampleCount, c.samples);
        EXPECT_EQ(m.mLaunchEndpoint.load(), c.endpoint);
        EXPECT_EQ(root.read(kCsvPath),
                  c.csv ? std::string("com.example.app,duration=") + c.csv + "\n" : "(none)");
        EXPECT_EQ(log.lines(), c.log);
    }
}

// Under a root whose /proc is the kernel's: a live process is sampled from its real status file;
// one that exits between two samples, whether a zombie (its status has no memory lines) or reaped,
// ends the run without a dump instead of repeating its last reading. Once it is gone, a new
// process of the same name listed after it in the cpuset is found past the old task id (a
// zombie's command line reads empty, a reaped one's not at all) and sampled afresh.
TEST_F(VmRssRun, ARealProcessIsSampledUntilItIsGoneAndItsSuccessorAfresh) {
    root.remove("/proc");
    root.addSymlink("/proc", "/proc");
    const std::string csv = "/data/vendor/zq/vmrss-probe_vmrss.csv";
    enum Then { Lives, Zombie, Reaped, Replaced };
    for (int round = 0; round < kLifecycleRounds; ++round) {
        for (Then then : {Lives, Zombie, Reaped, Replaced}) {
            SCOPED_TRACE(testing::Message() << "round " << round << ", case " << then);
            root.remove(csv);
            auto child = std::make_unique<ChildProcess>("vmrss-probe");
            std::string tasks = "1\n" + std::to_string(child->pid()) + "\n";
            if (then == Replaced) {  // the old one alternately a zombie and reaped
                round % 2 == 0 ? child->killUnreaped() : child->kill();
                auto successor = std::make_unique<ChildProcess>("vmrss-probe");
                tasks += std::to_string(successor->pid()) + "\n";
                child = std::move(successor);
            }
            root.addFile(kTasksPath, tasks);
            const std::string text = root.read("/proc/" + std::to_string(child->pid()) + "/status");
            const std::string kb =
                std::to_string(std::stoi(text.substr(text.find("RssAnon:") + 8)) +
                               std::stoi(text.substr(text.find("VmSwap:") + 7)));
            VmRssMeter m("VmRss", 20, {});
            m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 600, "vmrss-probe"));  // 3
            ScriptedSleep sleep([&](int i, uint32_t) {
                if (i == 2 && then == Zombie)  // after the second sample
                    child->killUnreaped();
                if (i == 2 && then == Reaped)
                    child->kill();
            });
            m.start();
            const bool gone = then == Zombie || then == Reaped;
            EXPECT_EQ(std::make_pair(m.mSampleCount, m.mAborted),
                      std::make_pair(gone ? 2 : 3, gone));
            EXPECT_EQ(
                root.read(csv),
                gone ? "(none)" : "vmrss-probe,duration=0," + kb + "," + kb + "," + kb + ",\n");
        }
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{});
}
