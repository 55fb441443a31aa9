// ProCompMeter: which events end an activity, and whole runs of start() against scripted
// statistics, with events from the host's event thread.
#include "ProCompMeter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <memory>
#include <thread>
#include <tuple>

#include "RegistryBase.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

// Runs start() with word 4 of sample i answering gpu[i] (the last value repeating) and an end
// event in sleep endAt and every later one. Returns the number of samples taken.
int run(ProCompMeter& meter, std::vector<int64_t> gpu, int endAt) {
    ScopedStats stats(
        [&gpu](int i) { return makeStats(1, 2, gpu[std::min<size_t>(i, gpu.size() - 1)]); });
    ScriptedSleep sleep([&](int i, uint32_t) {
        if (i >= endAt)
            meter.asyncTriggerUpdate(makePayload(0x1002, -1));
    });
    meter.start();
    EXPECT_EQ(sleep.sleeps(), std::vector<uint32_t>(stats.calls(), 300000u));
    EXPECT_TRUE(stats.calls() == 0 || stats.lastPid() == meter.mAsyncUpdates[0].intArgs[0]);
    return stats.calls();
}

}  // namespace

TEST(ProCompMeter, RegisteredAsProCompAndTheFactoryBuildsIt) {
    auto* list = RegistryBase<Meter, MeterInfo>::classList;
    ASSERT_TRUE(list != nullptr && list->count("ProComp") == 1);
    std::unique_ptr<Meter> meter(list->at("ProComp")(MeterInfo{}));
    EXPECT_NE(dynamic_cast<ProCompMeter*>(meter.get()), nullptr);
}

// An end event sets mStop only; any other is kept and clears the base's flag.
TEST(ProCompMeter, Only0x1002Or0x1004Or0WithTypeMinusOneEndTheActivity) {
    for (auto [hintId, hintType, ends] :
         std::vector<std::tuple<uint32_t, int, bool>>{{0x1002, -1, true},
                                                      {0x1004, -1, true},
                                                      {0, -1, true},
                                                      {0x1004, 5, false},
                                                      {0x1002, 0, false},
                                                      {0, 1, false},
                                                      {0x1001, -1, false},
                                                      {0x1043, -1, false}}) {
        SCOPED_TRACE(::testing::Message() << hintId << "/" << hintType);
        ProCompMeter meter{MeterInfo{}};
        meter.Meter::asyncTriggerUpdate(makePayload(0, -1));
        meter.asyncTriggerUpdate(makePayload(hintId, hintType, 7));
        EXPECT_EQ(std::make_tuple(meter.mStop.load(), meter.hasStopNotification(),
                                  meter.mAsyncUpdates.empty()),
                  std::make_tuple(ends, ends, ends));
    }
}

TEST(ProCompMeterRun, PeakIsTheLargestWordFourComparedUnsignedAndKeptAsLow32Bits) {
    for (auto [gpu, endAt, peak] : std::vector<std::tuple<std::vector<int64_t>, int, uint32_t>>{
             {{5, 300, 120, 0, 299, 301, 7}, 6, 301},
             {{0}, 500, 0},  // no end of its own, and a process with no GPU memory
             {{-1}, 0, 0xFFFFFFFF},
             {{7, -2, 9}, 2, 0xFFFFFFFE},
             {{0x100000005, 6}, 1, 6},  // above 32 bits every sample exceeds the peak
             {{INT64_MIN, 3}, 1, 3}}) {
        SCOPED_TRACE(endAt);
        ProCompMeter meter{MeterInfo{}};
        meter.asyncTriggerUpdate(makePayload(0x1081, 0, 4321));
        meter.asyncTriggerUpdate(makePayload(0x1081, 0, 99));
        EXPECT_EQ(run(meter, gpu, endAt), endAt + 1);
        EXPECT_EQ(meter.mPeak, peak);
    }
}

TEST(ProCompMeterRun, NoPayloadOrANegativePidReturnsAtOnceButPidZeroIsWatched) {
    // INT_MIN stands for no payload of the meter's own.
    for (auto [pid, samples] : std::vector<std::pair<int, int>>{{INT_MIN, 0}, {-1, 0}, {0, 2}}) {
        SCOPED_TRACE(pid);
        ProCompMeter meter{MeterInfo{}};
        meter.mPeak = 77;
        meter.Meter::asyncTriggerUpdate(makePayload(0x1081, 0, 42));  // the base's list only
        if (pid != INT_MIN)
            meter.asyncTriggerUpdate(makePayload(0x1081, 0, pid));
        EXPECT_EQ(run(meter, {64}, 1), samples);
        EXPECT_EQ(meter.mPeak, samples > 0 ? 64u : 0u);
        EXPECT_EQ(meter.Meter::getAsyncUpdates()->size(), meter.mAsyncUpdates.size());
    }
}

TEST(ProCompMeterRun, EachRunForgetsEarlierEndEventsAndStartsItsPeakAfresh) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(makePayload(0x1081, 0, 42));
    meter.asyncTriggerUpdate(makePayload(0x1002, -1));
    meter.Meter::asyncTriggerUpdate(makePayload(0, -1));  // not this meter's stop signal
    EXPECT_EQ(run(meter, {900, 50}, 1), 2);
    EXPECT_EQ(meter.mPeak, 900u);
    EXPECT_EQ(run(meter, {30, 40, 10}, 2), 3);
    EXPECT_EQ(meter.mPeak, 40u);
}

// The host thread appends only after it has seen a sample taken, that is after start() has
// read the list: the atomic call count orders the two. Its waits are bounded, so a run that
// ends too early fails instead of hanging.
TEST(ProCompMeterThreads, EventsFromAFreeRunningHostThreadAreKeptOrEndTheRun) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(makePayload(0x1081, 0, 42));
    ScopedStats stats([](int i) { return makeStats(0, 0, i < 5 ? 10 * i : 5); });
    ScriptedSleep sleep(
        [](int, uint32_t) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
    std::thread host([&] {
        for (auto [calls, event] :
             {std::pair(2, makePayload(0x1004, 5)), std::pair(5, makePayload(0, -1))}) {
            for (int spins = 0; stats.calls() < calls && spins < 5000; ++spins)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            meter.asyncTriggerUpdate(event);
        }
    });
    meter.start();
    host.join();
    EXPECT_GE(stats.calls(), 5);
    EXPECT_EQ(meter.mPeak, 40u);
    EXPECT_EQ(meter.mAsyncUpdates.size(), 2u);
}
