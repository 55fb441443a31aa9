// LaunchMeter: the end-point analysis on worked examples and a launch-shaped series, the feature
// CSV against a golden file, the event dispatch, and whole launches of start() against fixture
// trees with a scripted hunt, clock and sleep.
#include "LaunchMeter.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "AsyncEvent.h"
#include "TestSupport.h"
#include "seams.h"

using namespace testsupport;

namespace {

constexpr char kCsvProperty[] = "debug.vendor.tarn.enable.zq_csv_dump";
constexpr char kCsv[] = "/data/vendor/zq/com.example.app.csv";
constexpr char kHeader[] = "\n\n FD, OOM, VMRSS,";
const std::string kPrefix = "LaunchMeter:: ";

// A cold launch sampled every 30 ms: memory climbs in steps and holds from sample 10, the OOM
// score drops from its foreground value and holds from 14, descriptor counts rise until 8. A
// person reading the plot says it settled at 14.
// clang-format off
int vmRssAt(int k) { return k < 4 ? 60000 : k < 8 ? 120000 : k < 10 ? 175000 : 180000; }
int oomAt(int k) { return k < 10 ? 900 : k < 14 ? 400 : 200; }
int fdAt(int k) { return k < 8 ? 40 + 10 * k : 120; }
// clang-format on

AsyncTriggerPayload fdCounts(std::vector<int> counts, int announced) {
    AsyncTriggerPayload p = makePayload(hint::kFdCounts, 0);
    p.intArgs[9] = announced;
    p.values = std::move(counts);
    return p;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

}  // namespace

TEST(LaunchAnalysis, PercentagesAreFloatWithOneForEqualValuesAndForWhatIsNotPositiveNormal) {
    // {a, b, pd}: an exact 1 % step is 1.0 too; b counts as 1 unless |b| > 1, and a b below -1
    // makes the quotient negative.
    const std::array<float, 3> cases[] = {{5, 5, 1},      {101, 100, 1},      {102, 100, 2},
                                          {0, 0, 1},      {5, 0.5F, 450},     {-3, 1, 400},
                                          {-150, -2, 1},  {-150, 2, 7600},    {3e38F, 0, 1},
                                          {1e-41F, 0, 1}, {1e-39F, 0, 1e-37F}};
    for (auto [a, b, expected] : cases)
        EXPECT_FLOAT_EQ(LaunchMeter::calcDiffPercentage(a, b), expected) << a << " vs " << b;
    EXPECT_EQ(LaunchMeter::Multiply(46341, 46341), 1);
    EXPECT_EQ(LaunchMeter::Subtract(INT_MIN, 1), 0);
}

TEST(LaunchAnalysis, AgesWeighTwelfthsWithTheTablesExactBits) {
    LLFeaturesList f;
    uint32_t bits[2];
    memcpy(bits, f.mAgeTable.data(), sizeof(bits));
    EXPECT_EQ(std::make_pair(bits[0], bits[1]), std::make_pair(0x39FFFFF7u, 0x3A800004u));
    std::vector<int> series(25, 1);
    std::vector<float> ages;
    f.accessDataPtAge(series, ages);  // twelfths of 2: the last three samples weigh 1.0
    EXPECT_EQ(std::vector<float>(ages.begin() + 20, ages.end()),
              (std::vector<float>{0.5F, 0.5F, 1, 1, 1}));
    series.resize(5);
    f.accessDataPtAge(series, ages);  // appended; under 12 samples all weigh the oldest weight
    EXPECT_EQ(std::vector<float>(ages.begin() + 25, ages.end()),
              std::vector<float>(5, f.mAgeTable[0]));
}

// A count shared by values stands once per value and brings them all each time.
TEST(LaunchAnalysis, TopValuesRepeatPerSharedCountAndStopBelowThreeQuartersUnlessAGame) {
    LLFeaturesList f;
    std::unordered_map<int, int> freq = {{5, 4}, {6, 4}, {7, 3}, {8, 2}};
    std::vector<int> tied, top;
    for (auto [value, count] : freq) {  // the map's own order decides among equal counts
        if (count == 4)
            tied.push_back(value);
    }
    std::vector<int> expected = tied;
    expected.insert(expected.end(), tied.begin(), tied.end());
    expected.push_back(7);
    for (int game : {0, 1}) {
        f.mIsGame = game;
        f.topFrequentElem(freq, top);
        EXPECT_EQ(top, expected);
        expected.push_back(8);
    }
    std::unordered_map<int, int> ones;
    for (int v = 0; v < 20; ++v)
        ones[v] = 1;
    f.topFrequentElem(ones, top);
    EXPECT_EQ(top.size(), 12u);
}

TEST(LaunchAnalysis, YoungestIsTheMiddleOfACloseClusterElseTheValueOfTheNewestSamples) {
    using Row = std::tuple<std::vector<int>, std::vector<float>, std::vector<int>, int>;
    for (auto [top, ages, series, youngest] : std::vector<Row>{
             {{100, 104, 108}, {}, {}, 104},
             {{100, 105, 120}, {.5, .5, .5, 1, 1}, {100, 100, 100, 120, 105}, 105},  // tie: first
             {{10, 20}, {.5, .5, .5, 1}, {10, 10, 10, 20}, 20},  // truncated at every addition
             {{0, 300}, {}, {}, 150},                            // a 0 starts the steps afresh
             {{100, 200}, {1}, {100, 200}, 0},                   // ages and series differ
             {{}, {}, {}, 0}}) {
        LLFeaturesList f;
        EXPECT_EQ(f.getYoungest(top, ages, series), youngest) << ::testing::PrintToString(top);
    }
}

TEST(LaunchAnalysis, EndPointIsTheFirstRunOfCloseSamplesAfterAnEarlierPeak) {
    std::vector<int> beforePeak(12, 99);
    beforePeak[5] = 200;  // the binary search over the unsorted series puts 100 past the peak
    using Row = std::tuple<int, std::vector<int>, int, int>;  // value, series, threshold, end
    for (auto [value, series, threshold, endPoint] : std::vector<Row>{
             {7, {}, 5, 0},
             {7, std::vector<int>(10, 7), 5, 0},
             {180000, {50, 180000, 180000, 180000, 180000, 180000}, 1, 0},  // 1.0 is not below 1
             {180000, {50, 180000, 180000, 180000, 180000, 180000}, 5, 1},
             {100, beforePeak, 5, 6},
             {100, {10, 100, 100, 10, 100, 100, 100}, 5, 4}}) {  // the last run, however short
        LLFeaturesList f;
        EXPECT_EQ(f.calculateEndp(value, series, threshold, 5), endPoint)
            << ::testing::PrintToString(series);
    }
}

TEST(LaunchAnalysis, PassesAreReconciledByRequiredRunsWithTheDataUnavailableFallback) {
    const Resolution same = {10, 20, 30};
    const Resolution a = {10, 0, 5}, b = {10, 40, 50};  // only VmRSS agrees between a and b
    using Row = std::tuple<const char*, int, int, std::vector<Resolution>, int, bool>;
    // clang-format off
    for (auto [what, game, appClass, passes, ep, logged] : std::vector<Row>{
             {"one pass of a non-game", 0, 0, {{30, 0, 12}}, 30, false},
             {"one empty pass", 0, 0, {{0, 0, 0}}, 0, false},
             {"a game needs three agreeing pairs", 1, 0, {same, same, same}, 0, false},
             {"and has them", 1, 0, {same, same, same, same}, 30, false},
             {"four for a weighted game", 1, 1, {same, same, same, same}, 0, false},
             {"and has them", 1, 1, {same, same, same, same, same}, 30, false},
             {"zero end points agreeing", 0, 0, {{10, 0, 0}, {50, 0, 0}}, 0, false},
             {"one series agreeing", 0, 2, {a, b}, 10, true},
             {"five agreeing pairs end it", 0, 2, {a, b, a, b, a, b}, 10, false}}) {
        // clang-format on
        SCOPED_TRACE(what);
        LogCapture log;
        LLFeaturesList f;
        f.mIsGame = game, f.mAppClass = appClass, f.mResolutions = passes;
        f.concludeEp(0);
        EXPECT_EQ(std::make_pair(f.mEp, f.mEpDone.load()), std::make_pair(ep, ep > 0));
        const std::vector<std::string> lines =
            logged ? std::vector<std::string>{kPrefix +
                                              "concludeEp() N: Final Ep by "
                                              "dataUnavailable 10\n"}
                   : std::vector<std::string>{};
        EXPECT_EQ(maskedLike(log.lines(), lines), lines);
    }
}

TEST(LaunchAnalysis, ALaunchShapedSeriesSettlesWhereItsOomScoreDoes) {
    LLFeaturesList f;
    for (int k = 0; k < 34; ++k) {
        f.insertVmRss(vmRssAt(k)), f.insertOMMScroe(oomAt(k)), f.insertFDCount(fdAt(k));
    }
    f.churnForStablizingPoints(0, 5);
    EXPECT_EQ((std::vector<int>{f.mVmRssYoungest, f.mOOMScroeYoungest, f.mFDCountYoungest,
                                f.mVmRssEp, f.mOOMScroeEp, f.mFDCountEp, f.mEp, f.mEpDone}),
              (std::vector<int>{180000, 200, 120, 0, 14, 8, 14, 1}));
    f.clearIntermediates();  // the pass's workings go, its results stay
    EXPECT_EQ(f.mVmRssFreq.size() + f.mOOMScroeFreq.size() + f.mFDCountFreq.size() +
                  f.mVmRssAge.size() + f.mOOMScroeTop12.size() + f.mFDCountAge.size(),
              0u);
    f.churnForStablizingPoints(0, 5);  // concluded: later passes do nothing
    EXPECT_EQ(std::make_pair(f.mResolutions.size(), f.mEp), std::make_pair(size_t(1), 14));
}

// The export writes relative to the working directory, which is the fixture root here.
class LaunchFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        root.addDir("/data/vendor/zq");
        ASSERT_EQ(chdir(root.real("/").c_str()), 0);
        property_set(kCsvProperty, "1");
    }
    void TearDown() override {
        EXPECT_EQ(chdir(cwd.c_str()), 0);
        clearProperty(kCsvProperty);
        LLFeaturesList::mEnableCSV = false;
        seams::setClockHook(nullptr);
        AsyncEvent::setPidResolver(nullptr);
        FeatureLocator::mInstance->clearData();
    }

    FixtureRoot root;
    LogCapture log;
    const std::string cwd = std::filesystem::current_path();
};

// Nothing while the switch is off; once seen on, it stays on for the process.
TEST_F(LaunchFiles, BlocksAndNotesAreAppendedByteForByteOnceTheSwitchIsSeenOn) {
    LLFeaturesList f;
    f.mPkgName = "com.example.app";
    for (int k = 0; k < 40; ++k) {
        f.insertOMMScroe(oomAt(k));
        if (k < 35)
            f.insertVmRss(vmRssAt(k));
    }
    f.churnForStablizingPoints(0, 5);
    clearProperty(kCsvProperty);
    f.exportToFile();
    f.exportToFile("note", 1, "com.example.app");
    EXPECT_EQ(root.read(kCsv), "(none)");
    property_set(kCsvProperty, "1");
    f.exportToFile();
    f.exportToFile("Aborted Before analysis", 0, "com.example.app");
    EXPECT_EQ(root.read(kCsv), testData("launch_export.csv"));
    clearProperty(kCsvProperty);
    f.exportToFile("note", 3, "com.example.app");
    EXPECT_EQ(root.read(kCsv), testData("launch_export.csv") + "\nnote 3\n");
}

TEST(LaunchEvents, StopsStartsAndDescriptorCountsAreDispatchedAsTheyArrive) {
    LogCapture log;
    LaunchMeter m("Launch");
    m.asyncTriggerUpdate(fdCounts({31, 32, 33}, 5));  // announces five, sends three
    m.asyncTriggerUpdate(fdCounts({34}, 1));
    m.asyncTriggerUpdate(makePayload(hint::kActivityStop, 0));
    EXPECT_TRUE(m.mStopActive && m.hasStopNotification());
    m.asyncTriggerUpdate(fdCounts({35}, 1));  // while the stop holds: queued, and lowers it
    EXPECT_FALSE(m.hasStopNotification());
    m.mFeatures.mEpDone = true;
    m.asyncTriggerUpdate(fdCounts({36}, 1));
    m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 8100, "com.example.app"));
    m.asyncTriggerUpdate(makePayload(hint::kNone, hint::kTypeEnd));
    EXPECT_TRUE(m.mStartPending && m.hasStopNotification());
    EXPECT_EQ(m.mFeatures.mFDCount, (std::vector<int>{31, 32, 33, 34}));
    for (int i = 0; i < 2001; ++i)  // every series keeps its first 2000 values
        m.mFeatures.insertVmRss(i), m.mFeatures.insertOMMScroe(i), m.mFeatures.insertFDCount(i);
    EXPECT_EQ(m.mFeatures.mVmRss.size() + m.mFeatures.mOOMScroe.size(), 4000u);
    EXPECT_EQ(m.mFeatures.mFDCount.back(), 1995);
    std::vector<uint32_t> queued;
    for (const AsyncTriggerPayload& p : *m.getAsyncUpdates())
        queued.push_back(p.hintId);
    EXPECT_EQ(queued, (std::vector<uint32_t>{hint::kFdCounts, hint::kLaunchStart}));
    const std::string fd = kPrefix + "updatesFDCount() N: ";
    const std::vector<std::string> lines = {
        fd + "updatesFDCount arg list Sz 5\n", fd + "updatesFDCount arg list Sz 1\n",
        fd + "updatesFDCount arg list Sz 1\n", fd + "EP Done Ignoring FD update 1\n"};
    EXPECT_EQ(maskedLike(log.lines(), lines), lines);
}

// Process 4321 is com.example.app, found on the hunt's fourth look; every look takes 100 ms of
// the scripted clock, so the hunt adds 300 ms. In the sleep after round k's sample the test
// writes round k + 1's nodes and delivers round k's descriptor count from the event thread.
class LaunchRun : public LaunchFiles {
  protected:
    void SetUp() override {
        LaunchFiles::SetUp();
        seams::setClockHook([this] {
            return std::chrono::steady_clock::time_point(std::chrono::milliseconds(clockMs));
        });
        AsyncEvent::setPidResolver([this](const std::string&) {
            clockMs += 100;
            if (onLook)
                onLook(looks + 1);
            return ++looks >= findAt ? 4321 : -1;
        });
    }
    void writeRound(int k) {
        root.addFile("/proc/4321/status", statusText(vmRssAt(k), 0));
        root.addFile("/proc/4321/oom_score", std::to_string(oomAt(k)) + "\n");
    }
    std::vector<uint32_t> run(LaunchMeter& m, std::function<void(int round)> onSleep = nullptr) {
        writeRound(0);
        ScriptedSleep sleep([&](int k, uint32_t) {
            writeRound(k + 1);
            deliverFromThread(m, fdCounts({fdAt(k)}, 1));
            if (onSleep)
                onSleep(k);
        });
        m.start();
        return sleep.sleeps();
    }

    std::atomic<int64_t> clockMs{0};
    std::atomic<int> looks{0};
    int findAt = 4;
    std::function<void(int look)> onLook;
};

TEST_F(LaunchRun, LaunchesRunAsTheirClassSaysAndSettleWhereTheSeriesDo) {
    const struct {
        const char* what;
        int selector0, selector1, rounds, blocks;
    } cases[] = {{"a non-game: one pass after 34 rounds", 0, 0, 34, 1},
                 {"classes 1 to 3: 100 rounds", 0, 3, 100, 1},
                 {"class 4 as class 0", 0, 4, 34, 1},
                 {"a game: a pass every 167 rounds until four agree", 2, 3, 668, 4}};
    LaunchMeter m("Launch");  // one meter for every launch, as a host keeps it
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        root.remove(kCsv);
        looks = 0;
        FeatureLocator::mInstance->setData("AppClassifier", "com.example.app", 0, c.selector0);
        FeatureLocator::mInstance->setData("AppClassifier", "com.example.app", 1, c.selector1);
        m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 8100, "com.example.app"));
        EXPECT_EQ(run(m), std::vector<uint32_t>(c.rounds, 30000));
        EXPECT_EQ(m.mLaunchDuration, 14 * 30 + 300);
        EXPECT_EQ(m.mSampleCount, c.rounds);
        EXPECT_EQ(m.mVmRssValues[c.rounds - 1], 180000);
        const std::string csv = root.read(kCsv);
        EXPECT_EQ(std::make_pair(count(csv, kHeader), count(csv, "\nFinal : 14\n")),
                  std::make_pair(size_t(c.blocks), size_t(1)));
    }
}

TEST_F(LaunchRun, StopsAndFailedHuntsEndTheLaunchWithTheirLinesAndNotes) {
    enum Then { StopInHunt, HuntTimesOut, StopAt5, EndAt5, NoStart, QueueEmptied };
    const std::string gaveUp =
        "LaunchMeter:: start() N: Could not find pid, stopActive - Giving up "
        "on hunt";
    const std::string noPid =
        "LaunchMeter:: start() N: Could not find pid, can not collect "
        "vmrss data";
    const struct {
        Then then;
        size_t rounds;
        std::vector<std::string> log;
        std::string csv;
    } cases[] = {{StopInHunt, 0, {gaveUp, noPid}, "(none)"},
                 {HuntTimesOut, 0, {gaveUp, noPid}, "(none)"},
                 {StopAt5, 5, {}, "\nAborted Before analysis 0\n"},
                 {EndAt5, 5, {}, "\nAborted Before analysis 0\n"},
                 {NoStart, 0, {}, "(none)"},
                 {QueueEmptied, 0, {kPrefix + "start() N: Async Data NULL"}, "(none)"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.then);
        root.remove(kCsv);
        log.clear();
        looks = 0;
        findAt = c.then == StopInHunt || c.then == HuntTimesOut ? INT_MAX : 4;
        LaunchMeter m("Launch");
        m.mLaunchDuration = 77;  // stands unless a launch starts
        onLook = [&](int look) {
            if (c.then == StopInHunt && look == 3)
                deliverFromThread(m, makePayload(hint::kActivityStop, 0));
        };
        if (c.then != NoStart)
            m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 8100, "com.example.app"));
        if (c.then == QueueEmptied)
            m.getAsyncUpdates()->clear();
        std::vector<uint32_t> sleeps = run(m, [&](int k) {
            if (k == 4 && (c.then == StopAt5 || c.then == EndAt5)) {
                if (c.then == StopAt5)
                    deliverFromThread(m, makePayload(hint::kActivityStop, 0));
                else  // the notice as the base takes it: only hasStopNotification() tells
                    std::thread([&] { m.Meter::asyncTriggerUpdate(makePayload(0, -1)); }).join();
            }
        });
        EXPECT_EQ(sleeps.size(), c.rounds);
        EXPECT_EQ(m.mLaunchDuration, c.then == NoStart ? 77 : 0);
        std::vector<std::string> lines;
        for (const std::string& line : log.lines()) {
            if (line.find("updatesFDCount") == std::string::npos)
                lines.push_back(line);
        }
        EXPECT_EQ(maskedLike(lines, c.log), c.log);
        EXPECT_EQ(root.read(kCsv), c.csv);
    }
    EXPECT_GT(clockMs, 60000) << "the hunt gave up only after 60 s";
}

// Counts arrive from a free-running thread while the launch samples and is analysed: each one
// is appended under the list lock or, once the end is known, ignored with a line.
TEST_F(LaunchRun, DescriptorCountsFromAFreeRunningThreadAreEachTakenOrIgnored) {
    LaunchMeter m("Launch");
    m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 8100, "com.example.app"));
    std::thread host;
    std::atomic<bool> done{false};
    run(m, [&](int k) {
        if (k == 0) {
            host = std::thread([&] {
                for (int i = 0; i < 1000 && !done.load(std::memory_order_relaxed); ++i)
                    m.asyncTriggerUpdate(fdCounts({120}, 1));
            });
        }
    });
    done = true;
    host.join();
    size_t sent = 0, ignored = 0;
    for (const std::string& line : log.lines()) {
        sent += count(line, "arg list Sz 1");
        ignored += count(line, "EP Done Ignoring");
    }
    EXPECT_GT(sent, 34u);
    EXPECT_EQ(m.mFeatures.mFDCount.size() + ignored, sent);
}

// Launches of a real process, found by the host in the kernel's /proc, on one meter as a host
// keeps it: while it lives every round samples its memory and OOM score; once it has exited after
// the fifth round, whether a zombie (no memory lines, score 0) or reaped (nothing to read), the
// rounds add nothing to the series and their raw values are not its last figure. A new process
// of the same name is found afresh by the next launch, not through the pid the last one found.
TEST(LaunchLifecycle, ARealProcessIsSampledUntilItIsGoneAndASuccessorFoundAfresh) {
    enum Then { Lives, Zombie, Reaped, Replaced };
    LogCapture log;
    const std::string name = "launch-probe-" + std::to_string(getpid());  // unique in /proc
    LaunchMeter m("Launch");
    auto child = std::make_unique<ChildProcess>(name);
    for (int round = 0; round < kLifecycleRounds; ++round) {
        for (Then then : {Lives, Zombie, Reaped, Replaced}) {
            SCOPED_TRACE(testing::Message() << "round " << round << ", case " << then);
            if (child == nullptr || then == Replaced)
                child = std::make_unique<ChildProcess>(name);
            const std::string proc = "/proc/" + std::to_string(child->pid());
            std::ifstream status(proc + "/status"), oomScore(proc + "/oom_score");
            const std::string text{std::istreambuf_iterator<char>(status), {}};
            const int kb = std::stoi(text.substr(text.find("RssAnon:") + 8)) +
                           std::stoi(text.substr(text.find("VmSwap:") + 7));
            int score = 0;
            oomScore >> score;
            m.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 8100, name));
            ScriptedSleep sleep([&](int i, uint32_t) {
                if (i == 4 && then == Zombie)
                    child->killUnreaped();
                if (i == 4 && then == Reaped)
                    child->kill();
            });
            m.start();
            const size_t sampled = then == Zombie || then == Reaped ? 5 : 34;
            EXPECT_EQ(m.mSampleCount, 34);
            EXPECT_EQ(m.mFeatures.mVmRss, std::vector<int>(sampled, kb));
            EXPECT_EQ(m.mFeatures.mOOMScroe, std::vector<int>(score >= 1 ? sampled : 0, score));
            EXPECT_EQ(std::vector<int>(m.mVmRssValues, m.mVmRssValues + 5),
                      std::vector<int>(5, kb));
            for (int k = 5; k < 34; ++k)
                EXPECT_TRUE(sampled == 34 ? m.mVmRssValues[k] == kb : m.mVmRssValues[k] < 1) << k;
            if (sampled == 5)
                child.reset();
        }
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{});
}
