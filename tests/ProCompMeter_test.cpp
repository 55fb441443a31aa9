// ProCompMeter: whole runs of start() against scripted statistics, and the events that end an
// activity or are kept, from the host's event thread.
#include "ProCompMeter.h"

#include <chrono>

#include "TestSupport.h"

using namespace testsupport;

// Word 4 of sample i answers gpu[i] (cycling); the activity stops in sleep endAt and later ones.
// Before the run, a pause that ends the activity is not kept and is forgotten, and mPeak holds an
// earlier run's value.
TEST(ProCompMeterRun, PeakOfWordFourComparedUnsignedUntilTheActivityStops) {
    using Row = std::tuple<const char*, std::vector<int>, std::vector<int64_t>, int, int, uint32_t>;
    // clang-format off
    for (auto [what, pids, gpu, endAt, samples, peak] : std::vector<Row>{
             {"the largest; the first pid", {42, 99}, {5, 300, 120, 0, 299, 301, 7}, 6, 7, 301},
             {"no end of its own, no GPU memory", {42}, {0}, 500, 501, 0},
             {"-1 is the largest", {42}, {-1}, 0, 1, 0xFFFFFFFF},
             {"-2 stays above 9", {42}, {7, -2, 9}, 2, 3, 0xFFFFFFFE},
             {"above 32 bits every sample exceeds the peak", {42}, {0x100000005, 6}, 1, 2, 6},
             {"INT64_MIN too", {42}, {INT64_MIN, 3}, 1, 2, 3},
             {"no event of its own", {}, {64}, 1, 0, 0},
             {"a negative pid", {-1}, {64}, 1, 0, 0},
             {"pid 0 is watched", {0}, {64}, 1, 2, 64}}) {
        // clang-format on
        SCOPED_TRACE(what);
        ProCompMeter meter{MeterInfo{}};
        meter.mPeak = 77;
        for (int pid : pids)
            meter.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, pid));
        meter.asyncTriggerUpdate(makePayload(hint::kActivityPause, hint::kTypeEnd));
        EXPECT_TRUE(meter.mStop);
        ScopedStats stats([&g = gpu](int i) { return makeStats(1, 2, g[i % g.size()]); });
        ScriptedSleep sleep([&, end = endAt](int i, uint32_t) {
            if (i >= end)
                meter.asyncTriggerUpdate(makePayload(hint::kActivityStop, hint::kTypeEnd));
        });
        meter.start();
        EXPECT_EQ(std::make_tuple(stats.calls(), meter.mPeak), std::make_tuple(samples, peak));
        EXPECT_EQ(sleep.sleeps(), std::vector<uint32_t>(samples, 300000u));
        EXPECT_TRUE(samples == 0 || stats.lastPid() == pids[0]);
        EXPECT_EQ(meter.mAsyncUpdates.size(), pids.size());
    }
}

// The host thread sends each event once it has seen that many samples taken, that is after
// start() has read the list: the atomic call count orders the two. Its waits are bounded, so a
// run that ends too early fails instead of hanging. Only the last event ends the activity.
TEST(ProCompMeterThreads, EventsOfOtherCodesOrTypesFromTheHostThreadAreKept) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(makePayload(hint::kLaunchStart, 0, 42));
    ScopedStats stats([](int i) { return makeStats(0, 0, i < 5 ? 10 * i : 5); });
    ScriptedSleep sleep(
        [](int, uint32_t) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
    std::thread host([&] {
        for (auto [calls, event] : {std::pair(2, makePayload(hint::kActivityPause, 5)),
                                    {2, makePayload(hint::kNone, 1)},
                                    {3, makePayload(hint::kLaunchComplete, hint::kTypeEnd)},
                                    {5, makePayload(hint::kNone, hint::kTypeEnd)}}) {
            for (int spins = 0; stats.calls() < calls && spins < 5000; ++spins)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            meter.asyncTriggerUpdate(event);
        }
    });
    meter.start();
    host.join();
    EXPECT_EQ(std::make_tuple(stats.calls() >= 5, meter.mPeak, meter.mAsyncUpdates.size()),
              std::make_tuple(true, 40u, size_t{4}));
}
