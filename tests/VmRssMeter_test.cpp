// VmRssMeter: the end-point detector as a state machine, the status-file and pid-hunt readers,
// and whole runs of start() against fixture trees (and once against a real process).
#include "VmRssMeter.h"

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <climits>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include "DumpData.h"
#include "RegistryBase.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

constexpr char kCsvPath[] = "/data/vendor/zq/com.example.app_vmrss.csv";
constexpr char kStatusPath[] = "/proc/200/status";
constexpr uint32_t kHunt = 0x1043;
constexpr uint32_t kStop = 0x1002;

// The launch event: the application to follow and the time budget in intArgs[0].
AsyncTriggerPayload launch(const char* app, int32_t budgetMs) {
    AsyncTriggerPayload p = makePayload(0x1081, 0, budgetMs);
    p.appName = app;
    return p;
}

}  // namespace

TEST(VmRssDetector, ScriptedSampleSequences) {
    struct Case {
        const char* what;
        std::vector<std::array<int, 4>> steps;  // sample; then returned, mEndpointMs, mBaseline
        int budget = 8100;
        bool hunt = false;  // a 0x1043 event (of any type) arrived before the first sample
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
        {"a hunt event rebases and returns the last change", {{100000, 0, 0, 100000},
         {105000, 0, 0, 105000}, {300000, 900, 900, 300000}, {0, 900, 900, 0}}, 8100, true},
        {"quotient 21474836 multiplies", {{1, 0, 0, 1}, {21474837, 0, 600, 21474837}}},
        {"quotients from 21474837 on are 1 %, not wrapped (42949674 would give 104)",
         {{1, 0, 0, 1}, {21474838, 0, 0, 1}, {42949675, 0, 0, 1}}},
        {"quotient -21474836 multiplies", {{-1, 0, 0, -1}, {21474835, 0, 600, 21474835}}},
        {"quotient -21474837 would overflow: 1 %", {{-1, 0, 0, -1}, {21474836, 0, 0, -1}}},
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
        if (c.hunt)
            m.asyncTriggerUpdate(makePayload(kHunt, -1));
        for (const auto& s : c.steps)  // braced lists evaluate left to right
            EXPECT_EQ((std::array<int, 4>{s[0], m.detectLaunchEndpoint(s[0]), m.mEndpointMs,
                                          m.mBaseline}),
                      s);
    }
}

TEST(VmRssReaders, StatusSampleIsRssAnonPlusVmSwapReadIn150BytePieces) {
    const std::pair<std::string, int> cases[] = {
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
        m.mSampleCount = 3;
        m.mLaunchEndpoint = 600;
        m.mAborted = true;
        m.mMaxDurationMs = 1200;
        m.asyncTriggerUpdate(makePayload(kHunt, 0));
        m.asyncTriggerUpdate(makePayload(kStop, 0));
        init ? m.Init() : m.Reset();
        EXPECT_EQ(m.mSampleCount + m.mElapsedMs + m.mEndpointMs + m.mBaseline, 0);
        EXPECT_EQ(m.mMin + m.mMax + m.mLaunchEndpoint + m.mTriggerCount, 0);
        EXPECT_FALSE(m.mAborted || m.mStopRequested);
        EXPECT_EQ(m.mMaxDurationMs, init ? 8100 : 1200);
        EXPECT_EQ(m.mVmRssValues == array, !init);
    }
    array[0] = 1;  // Init leaves the old array to its holder: still writable
    delete[] array;
}

TEST(VmRssState, RegisteredUnderVmRss) {
    auto* list = RegistryBase<Meter, MeterInfo>::classList;
    ASSERT_TRUE(list != nullptr && list->count("VmRss") == 1);
    std::unique_ptr<Meter> meter(list->at("VmRss")(MeterInfo{"VmRss", {}, {}, {}, 6}));
    auto* vmrss = dynamic_cast<VmRssMeter*>(meter.get());
    EXPECT_EQ(vmrss ? vmrss->mNumSamples : -1, 6);
}

// Task 200 is the app, with the decoys the pid hunt must pass over before and after it.
class VmRssRun : public ::testing::Test {
  protected:
    void SetUp() override {
        property_set("debug.vendor.tarn.enable.zq_csv_dump", "1");
        root.addDir("/data/vendor/zq");
        root.addFile("/proc/300/cmdline", std::string("com.example.app.extra\0", 22));
        root.addFile("/proc/500/cmdline", "com.example.ap");
        root.addFile("/proc/200/cmdline", std::string("com.example.app\0--flag\0", 23));
        root.addFile("/proc/600/cmdline", std::string("com.example.app\0", 16));  // no status
    }
    void TearDown() override {
        clearProperty("debug.vendor.tarn.enable.zq_csv_dump");
        DumpData::mEnableCSV = -1;
    }

    FixtureRoot root;
    LogCapture log;
};

TEST_F(VmRssRun, RunsEndAsScriptedAndDumpTheirSeries) {
    // An event's Then is its code; Notice is the host's end-of-activity notification.
    enum Then { Notice, None, Gone, NoPid, NoStatus, NoEvent, NoArray, Stop = kStop, Hunt = kHunt };
    const struct {
        const char* what;
        int numSamples, budget;
        std::vector<int> totals;  // sample k reads totals[k], or the last one
        int actAt;                // then happens just before sample actAt is read
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
        {"0x1043 ends the hunt", 20, 8100, {1000, 1500, 2100, 2110}, 4, Hunt, 1, 4, 5, 900,
         "900,1000,1500,2100,2110,2110,"},
        {"0x1002 aborts", 20, 8100, {1000}, 2, Stop, 1, 2, 2, 0, nullptr},
        {"stop notice aborts", 20, 8100, {1000}, 2, Notice, 1, 2, 2, 0, nullptr},
        {"process gone", 20, 8100, {1000}, 2, Gone, 1, 2, 2, 0, nullptr},
        {"stale 0x1002 is reset", 20, 600, {5000}, 0, Stop, 1, 2, 3, 0, "0,5000,5000,5000,"},
        {"no samples wanted", 0, 8100, {1000}, 0, None, 1, 0, 0, 0, nullptr},
        {"no status file", 20, 8100, {1000}, 0, NoStatus, 1, 0, 0, 0, nullptr},
        {"no pid", 20, 8100, {1000}, 0, NoPid, 5, 0, 0, 0, nullptr,
         {"6|ANDR-PERF-ZQ|VmRssMeter:: start() 359: Could not find pid, "
          "can not collect vmrss data"}},
        {"no event", 20, 8100, {1000}, 0, NoEvent, 0, 0, 0, 0, nullptr,
         {"6|ANDR-PERF-ZQ|VmRssMeter:: start() 348: Async Data NULL"}},
        {"no sample array", 20, 900, {1000, 1500, 2100}, 0, NoArray, 1, 6, 0, 900, nullptr,
         {"6|ANDR-PERF-ZQ|VmRssMeter:: Init() 95: Failed mVmRssValues "}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        log.clear();
        std::unique_ptr<FailNothrowNew> fail(c.then == NoArray ? new FailNothrowNew : nullptr);
        VmRssMeter m("VmRss", c.numSamples, {});
        fail.reset();
        if (c.then == NoArray && m.mVmRssValues != nullptr)
            continue;  // the allocation switch has no effect under the thread sanitizer
        // Events come from the host's thread. The flag is relaxed on purpose: only the meter's
        // own locks may order the event against the run.
        std::thread host;
        std::atomic<bool> delivered{false};
        auto act = [&] {
            if (c.then == Hunt || c.then == Stop || c.then == Notice) {
                host = std::thread([&] {
                    m.asyncTriggerUpdate(makePayload(c.then, c.then == Notice ? -1 : 0));
                    delivered.store(true, std::memory_order_relaxed);
                });
                while (!delivered.load(std::memory_order_relaxed))
                    std::this_thread::yield();
            }
            if (c.then == Gone)
                root.addFile(kStatusPath, "Name:\tapp\nState:\tZ (zombie)\n");
            if (c.then == NoPid)  // reading the ids stops at the garbage
                root.addFile("/dev/cpuset/top-app/tasks", "300\nabc\n200\n");
            if (c.then == NoStatus)
                root.remove(kStatusPath);
        };
        auto setSample = [&](int k) {
            int total = k < int(c.totals.size()) ? c.totals[k] : c.totals.back();
            root.addFile(kStatusPath, "RssAnon: " + std::to_string(total - 8) + "\nVmSwap: 8\n");
            if (k == c.actAt)
                act();
        };
        root.addFile("/dev/cpuset/top-app/tasks", "300 500\n200\n600\n");
        root.remove(kCsvPath);
        if (c.then != NoEvent) {
            m.asyncTriggerUpdate(launch("com.example.app", c.budget));
            m.asyncTriggerUpdate(launch("com.later", 5));  // only the first one counts
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
        EXPECT_EQ(root.exists(kCsvPath) ? root.read(kCsvPath) : "none",
                  c.csv ? std::string("com.example.app,duration=") + c.csv + "\n" : "none");
        EXPECT_EQ(log.records(), c.log);
    }
}

// A child process under a root whose /proc is the kernel's: the parsing meets real status files.
TEST_F(VmRssRun, RealProcessStatusIsParsed) {
    root.remove("/proc");
    root.addSymlink("/proc", "/proc");
    pid_t pid = 0;
    const char* argv[] = {"vmrss-probe", "30", nullptr};
    ASSERT_EQ(posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, const_cast<char**>(argv), environ),
              0);
    std::shared_ptr<void> reap(nullptr,
                               [pid](void*) { kill(pid, SIGKILL), waitpid(pid, nullptr, 0); });
    auto status = [path = "/proc/" + std::to_string(pid) + "/status"] {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    for (int i = 0; i < 2000 && status().find("State:\tS") == std::string::npos; ++i)
        usleep(1000);  // until it waits in its sleep, its memory is still settling
    root.addFile("/dev/cpuset/top-app/tasks", "1\n" + std::to_string(pid) + "\n");
    VmRssMeter m("VmRss", 4, {});
    m.asyncTriggerUpdate(launch("vmrss-probe", 600));
    ScriptedSleep noSleep;
    m.start();  // three samples: the rewound stream must keep reading the live file
    std::string text = status();
    std::string kb = std::to_string(std::stoi(text.substr(text.find("RssAnon:") + 8)) +
                                    std::stoi(text.substr(text.find("VmSwap:") + 7))) +
                     ",";
    EXPECT_EQ(root.read("/data/vendor/zq/vmrss-probe_vmrss.csv"),
              "vmrss-probe,duration=0," + kb + kb + kb + "\n");
}
