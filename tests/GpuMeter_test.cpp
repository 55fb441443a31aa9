// GpuMeter: usage levels from two clock-statistics snapshots through the float guards, the
// readers on kept-open nodes rewritten between readings, the open/close cycle with its log lines
// and the 60-entry histories, and the host's getters on two threads at once.
#include "GpuMeter.h"

#include <map>

#include "TestSupport.h"

using namespace testsupport;
using Usage = std::vector<std::vector<float>>;

constexpr char kFreqs[] = "/sys/class/tesk/tesk-3d0/gpu_available_frequencies";
constexpr char kStats[] = "/sys/class/tesk/tesk-3d0/gpu_clock_stats";
constexpr char kBusy[] = "/sys/class/tesk/tesk-3d0/gpu_busy_percentage";
constexpr char kMaxClk[] = "/sys/class/tesk/tesk-3d0/max_gpuclk";

// Writes the frequencies, the maximum clock, the clock statistics and the busy percentage.
void addNodes(const FixtureRoot& root, const char* f, const char* m, const char* c, const char* b) {
    for (const auto& [path, text] : {std::pair{kFreqs, f}, {kMaxClk, m}, {kStats, c}, {kBusy, b}})
        root.addFile(path, text);
}

// What a list reader gives. The vector passed in is not empty: each reader replaces its content.
template <class T>
std::vector<T> listOf(GpuMeter& meter, void (GpuMeter::*reader)(std::vector<T>&)) {
    std::vector<T> values(1);
    (meter.*reader)(values);
    return values;
}

// Each row: the first getGpuUsage after start() has one snapshot and gives nothing, the second
// one value per level that the frequencies and both snapshots all have. A maximum clock of -1
// lets the largest frequency stand in. Each row's arithmetic rounds to exactly the float shown.
TEST(GpuUsage, LevelsWeighDeltasByTheFrequencyRatioThroughTheFloatGuards) {
    FixtureRoot root;
    // frequencies, maximum clock, statistics before and after, then the usage vector
    using Row = std::tuple<const char*, const char*, const char*, const char*, std::vector<float>>;
    // clang-format off
    const Row cases[] = {
        {"100 200 300", "-1", "0 0 0", "30000 30000 30000", {1, 2, 3}},  // ratios 1/3, 2/3, 1
        {"100 200 300", "0", "0 0 0", "10000 20000 30000", {1, 2, 3}},
        {"100 200 300", "250", "0 0 0", "25000 25000 25000", {1, 2, 2.5F}},
        {"100 100", "100", "5 9", "5 3", {0.0001F, 0.0001F}},  // unchanged, then falling
        // ratio 0: 0.0001 while SMALL / delta is above 0, 1 once it underflows to 0 (or delta is 0)
        {"0 0 0 0", "300", "0 0 0 0", "1 0 8388608 16777216", {0.0001F, 1, 0.0001F, 1}},
        // only the levels the frequencies and both snapshots have
        {"100 200 300", "300", "0 0 0", "300 600", {0.01F, 0.04F}},
        {"300", "300", "0 0 0", "100 100 100", {0.01F}},
        {"300", "300", "-9223372036854775808", "9223372036854775807", {0.0001F}}};  // wraps to -1
    // clang-format on
    for (const auto& [freqs, maxClk, before, after, expected] : cases) {
        addNodes(root, freqs, maxClk, before, "0");
        GpuMeter meter{MeterInfo{}};
        meter.start();
        ASSERT_EQ(listOf(meter, &GpuMeter::getGpuUsage), Usage{}) << after;
        root.addFile(kStats, after);
        EXPECT_EQ(listOf(meter, &GpuMeter::getGpuUsage), Usage{expected}) << after;
    }
}

// The host's getters on two threads at once: the usage (three readers and the histories) and the
// busy percentage on one, the busy percentage and the clock statistics on the other. Then, on the
// same nodes, each step rewrites one node and reads it twice: only a reading that used its line
// rewinds (the maximum clock's also after an empty line), so the reading after an empty line goes
// on from there.
TEST(GpuReaders, TwoThreadsThenEachReaderParsesItsLineAndRewindsOnlyWhenItUsedIt) {
    FixtureRoot root;
    addNodes(root, "100 200\n", "200\n", "10 20\n", "37\n");
    GpuMeter meter{MeterInfo{}};
    meter.start();
    std::thread usageThread([&] {
        Usage usage;
        for (int i = 0; i < 100; ++i, meter.getGpuUsage(usage))
            EXPECT_EQ(meter.getBusyPercentage(), 37.0F);
    });
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(
            std::make_pair(meter.getBusyPercentage(), listOf(meter, &GpuMeter::getClockStats)),
            std::make_pair(37.0F, std::vector<long>{10, 20}));
    usageThread.join();
    EXPECT_EQ(listOf(meter, &GpuMeter::getGpuUsage), Usage(60, {0.0001F, 0.0001F}));
    const std::map<std::string, std::function<std::string()>> read = {
        {kFreqs, [&] { return testing::PrintToString(listOf(meter, &GpuMeter::getAvlGpuFreqs)); }},
        {kStats, [&] { return testing::PrintToString(listOf(meter, &GpuMeter::getClockStats)); }},
        {kBusy, [&] { return std::to_string(meter.getBusyPercentage()); }},
        {kMaxClk, [&] { return std::to_string(meter.getGpuMaxFreq()); }}};
    // clang-format off
    // node, text, reading, then the reading once the node reads "5\n"
    const std::array<const char*, 4> steps[] = {
        {kFreqs, "  99999999999  -7 x \t 8\n", "{ 1215752191, -7, 0, 0, 8 }", "{ 5 }"},  // cut
        {kStats, "12 99999999999999999999 -3\n", "{ 12, 9223372036854775807, -3 }", "{ 5 }"},
        {kFreqs, "\n", "{}", "{}"}, {kStats, "\n", "{}", "{}"}, {kMaxClk, "\n", "0", "5"},
        {kBusy, "42.5 %\n", "42.500000", "5.000000"}, {kBusy, "\n", "0.000000", "0.000000"}};
    // clang-format on
    for (const auto& [path, text, first, second] : steps) {
        root.addFile(path, text);
        const std::string got = read.at(path)();
        root.addFile(path, "5\n");
        EXPECT_EQ(got + " " + read.at(path)(), std::string(first) + " " + second) << path << text;
    }
}

// A start logs each node it cannot open; a later start opens those that have come back and leaves
// open ones as they are (an emptied stream stays empty). The histories keep the last 60 entries;
// a stop and a start close every node and empty them, and while the stop holds the readers fail
// silently.
TEST(GpuLifecycle, StartOpensWhatIsClosedAndAStopClosesEverything) {
    FixtureRoot root;
    LogCapture log;
    // clang-format off
    GpuMeter meter{MeterInfo{"", {}, {}, {{"GPU_MAX_CLK", "/m"}, {"GPU_CLOCK_STATS", "/c"},
        {"GPU_BUSY_PERCENTAGE", "/b"}, {"GPU_AVAILABLE_FREQUENCIES", "/f"}}}};
    const std::vector<std::string> logged = {  // by a start finding no node, then by the readers
        "GpuMeter: start() 78: Failed to open gpu file /f Error No such file or directory",
        "GpuMeter: start() 86: Failed to open gpu file /c Error No such file or directory",
        "GpuMeter: start() 94: Failed to open gpu file /b Error No such file or directory",
        "GpuMeter: start() 102: Failed to open gpu file /m Error No such file or directory",
        "GpuMeter: getAvlGpuFreqs() 141: File Handle is closed(not available) /f",
        "GpuMeter: getGpuMaxFreq() 206: File Handle is closed(not available) /m",
        "GpuMeter: getClockStats() 176: File Handle is closed(not available) /c",
        "GpuMeter: getBusyPercentage() 285: File Handle is closed(not available) /b"};
    // clang-format on
    using State = std::tuple<Usage, float, std::vector<std::string>>;
    // After each step: the usage, the busy percentage, and the log lines since the last step.
    const auto step = [&](const char* what, const State& expected) {
        EXPECT_EQ((State{listOf(meter, &GpuMeter::getGpuUsage), meter.getBusyPercentage(),
                         log.lines()}),  // braced, so evaluated in order
                  expected)
            << what;
        log.clear();
    };
    meter.start();
    step("nothing there", {{}, 0, logged});
    for (auto [path, text] : {std::pair{"/f", "100\n"}, {"/m", "100\n"}, {"/c", "0\n"}, {"/b", ""}})
        root.addFile(path, text);
    meter.start();
    step("all there; the busy node reads empty", {Usage{}, 0, {}});
    root.addFile("/b", "42\n");
    meter.start();  // leaves the open nodes as they are
    Usage usage, kept;
    // Call k's counter grows by 10000 k, so its usage reads {k}.
    for (long k = 1; k <= 70; ++k, meter.getGpuUsage(usage))
        root.addFile("/c", std::to_string(10000 * k * (k + 1) / 2) + "\n");
    for (float k = 11; k <= 70; ++k)
        kept.push_back({k});
    root.addFile("/c", "");  // a failed reading adds an empty snapshot, but no usage
    step("the last 60 kept; the busy stream stays empty", {kept, 0, {}});
    EXPECT_EQ(meter.mClockStatsHistory.back(), std::vector<int64_t>{});
    deliverFromThread(meter, makePayload(hint::kActivityStop, hint::kTypeEnd));
    meter.start();
    EXPECT_TRUE(meter.mClockStatsHistory.empty());
    step("stopped", {Usage{}, 0, {}});
    deliverFromThread(meter, makePayload(hint::kActivityResume, hint::kTypeEnd));
    step("resumed but closed", {{}, 0, {logged.begin() + 4, logged.end()}});
    meter.start();
    step("reopened", {Usage{}, 42, {}});
}
