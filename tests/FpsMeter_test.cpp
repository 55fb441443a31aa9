// FpsMeter: the colon rules and the rate guard on a kept-open node rewritten between readings,
// the open/close cycle with its period and log lines, events, the trace marker, and the host's
// threads.
#include "FpsMeter.h"

#include <unistd.h>

#include "TestSupport.h"

using namespace testsupport;

constexpr char kNode[] = "/sys/class/drm/rvo-crtc-0/measured_fps";
constexpr char kPeriod[] = "/sys/class/drm/rvo-crtc-0/fps_periodicity_ms";
constexpr char kTraceMarker[] = "/sys/kernel/tracing/trace_marker";

// Each text is read by getFps, then by getFrames from the same kept-open stream: the second
// reading sees the text again only if the first rewound. A failed line is not rewound (getFrames
// takes the line after it) and leaves the stored rate as it was.
TEST(FpsMeterReadings, RateAfterTheFirstColonTruncatedAndGuardedCountAfterTheLast) {
    FixtureRoot root;
    root.addFile(kNode, "");
    LogCapture log;
    FpsMeter meter{MeterInfo{"", {}, {}, {{"FPS_PERIODICITY_NODE", "/none/p"}}}};
    meter.start();
    using Reading = std::tuple<float, int32_t, uint32_t>;  // getFps, mScaledFps, getFrames
    // The frame count keeps its low 32 bits; 21474837 reads as the nearest float, 21474836, which
    // fits when scaled; 1e30 and -inf are guarded before they become an int.
    // clang-format off
    const std::pair<const char*, Reading> cases[] = {
        {"fps: 59.94 frames: 30\n", {59, 5900, 30}}, {"fps:nan frames:5\n", {0, 0, 5}},
        {"measured:  120.5 : 7 :   4294967327", {120, 12000, 31}},
        {":21474837 frames:1\n", {21474836, 2147483600, 1}},
        {"fps:21474838 frames:2\n", {0.01F, 1, 2}}, {"fps:1e30 frames:3\n", {0.01F, 1, 3}},
        {"fps:-inf frames:4\n", {0.01F, 1, 4}}, {"fps:\nfps:50 frames:6\n", {0, 1, 6}},
        {"fps 59.94\nfps:40 frames:7\n", {0, 5000, 7}}, {"\nfps:50 frames:8\n", {0, 4000, 8}}};
    // clang-format on
    for (const auto& [text, expected] : cases) {
        root.addFile(kNode, text);
        // Braced, so evaluated in order.
        EXPECT_EQ((Reading{meter.getFps(), meter.mScaledFps.load(), meter.getFrames()}), expected)
            << text;
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "FpsMeter: setFpsPeriodicity() 193: Unable to open /none/p file"});
}

// The period goes to its node before each attempt to open the node, even one that fails, and not
// while the node is open. A reading that found the end of the node fails until a stop and a start
// close the node and a later start reopens it. While a stop holds, start closes the node and
// readings fail silently. Stops and resumes of type -1 are not kept; any other event lifts a
// stop and is kept.
TEST(FpsMeterLifecycle, OpensAfterWritingThePeriodAndFollowsTheEvents) {
    FixtureRoot root;
    LogCapture log;
    FpsMeter meter{MeterInfo{"", {}, {}, {{"FPS_NODE", "/other/fps"}}}};
    const std::string closed =
        "FpsMeter: getNodeData() 151: File Handle is closed(not available) /other/fps";
    const std::string missing =
        "FpsMeter: start() 82: Failed to open fps file /other/fps State No such file or directory";
    // After the step's events and a start: getFps, the period node ("x" before), the log, the
    // events kept.
    using Outcome = std::tuple<float, std::string, std::vector<std::string>, size_t>;
    // clang-format off
    // The node's new text (if any), the events (code, type) delivered, what follows.
    const std::tuple<const char*, std::vector<std::pair<uint32_t, int32_t>>, Outcome> steps[] = {
        {nullptr, {}, {0, "500", {missing, closed}, 0}},  // the period goes first all the same
        {"fps:", {}, {0, "500", {}, 0}},  // the reading ends at the colon and at the node's end
        {"fps: 59.94 frames: 30\n", {}, {0, "x", {}, 0}},  // open already, and still failed
        {nullptr, {{hint::kActivityStop, -1}}, {0, "x", {}, 0}},  // closed
        {nullptr, {{hint::kActivityResume, -1}}, {59, "500", {}, 0}},  // reopened
        {nullptr, {{hint::kActivityPause, -1}}, {0, "x", {}, 0}},  // closed, read silently
        {nullptr, {{hint::kLaunchStart, 0}}, {59, "500", {}, 1}},  // another event lifts the stop
        // a stop or resume of another type is another event
        {nullptr, {{hint::kActivityPause, -1}, {hint::kActivityStop, 0}}, {59, "x", {}, 2}},
        {nullptr, {{hint::kActivityPause, -1}, {hint::kActivityResume, 0}}, {59, "x", {}, 3}}};
    // clang-format on
    for (const auto& step : steps) {
        const auto& [node, events, outcome] = step;
        log.clear();
        root.addFile(kPeriod, "x");
        if (node != nullptr)
            root.addFile("/other/fps", node);
        for (const auto& [id, type] : events)
            deliverFromThread(meter, makePayload(id, type));
        meter.start();
        const float fps = meter.getFps();
        EXPECT_EQ(Outcome(fps, root.read(kPeriod), log.lines(), meter.getAsyncUpdates()->size()),
                  outcome)
            << "step " << &step - steps;
    }
}

// Only the constructor from MeterInfo reads the property, which must start with '1'; once set,
// the setting holds for every meter of the process. Each getFps then marks the stored rate, also
// when the reading fails.
TEST(FpsMeterTrace, MarkerOfTheScaledRateOnceThePropertyStartsWithOne) {
    fpsTraceLevel = 0;  // as a process starts
    FixtureRoot root;
    root.addFile(kTraceMarker, "");
    property_set("debug.atrace.tags.enableflags", "1");
    property_set("vendor.debug.trace.perf", "01");
    FpsMeter{MeterInfo{}};  // not '1'-prefixed
    property_set("vendor.debug.trace.perf", "1");
    std::string name = "Fps";
    FpsMeter named(name);  // default paths; the configuration is not read
    named.getFps();        // not marked: nothing has set the trace yet
    FpsMeter meter{MeterInfo{}};
    property_set("vendor.debug.trace.perf", "0");
    FpsMeter{MeterInfo{}};  // does not clear the setting
    root.addFile(kNode, "fps: 59.94 frames: 30\n");
    named.getFps();  // not open: fails, marked with the initial 0
    meter.start();
    meter.getFps();
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(root.read(kTraceMarker), "B|" + pid + "|measured fps scaled 0.000000E|" + pid + "B|" +
                                           pid + "|measured fps scaled 59.000000E|" + pid);
    EXPECT_EQ(named.mFpsNodePath + named.mFpsPeriodicityNodePath, std::string(kNode) + kPeriod);
    clearProperty("vendor.debug.trace.perf");
    clearProperty("debug.atrace.tags.enableflags");
}

// The host reads on a thread of its own while another watches the stored values, until its event
// thread stops the meter: the values are shared, and the stop ends the readings silently (long
// before the bound that keeps a meter ignoring it from reading forever).
TEST(FpsMeterThreads, ReadingsMeetAWatcherAndAStop) {
    FixtureRoot root;
    root.addFile(kNode, "fps: 90 frames: 12\n");
    LogCapture log;
    FpsMeter meter{MeterInfo{}};
    meter.start();
    ASSERT_EQ(meter.getFps(), 90.0F);
    std::atomic<int> readings{0};
    std::atomic<bool> done{false};
    std::thread host([&] {
        while (readings < 1000000 && meter.getFps() == 90.0F && meter.getFrames() == 12)
            ++readings;
        done = true;
    });
    while (readings < 100 && !done)
        EXPECT_TRUE(meter.mScaledFps == 9000 && meter.mFrameCount == 12);
    deliverFromThread(meter, makePayload(hint::kActivityStop, hint::kTypeEnd));
    host.join();
    EXPECT_TRUE(readings >= 100 && readings < 1000000 && log.lines().empty()) << readings;
}
