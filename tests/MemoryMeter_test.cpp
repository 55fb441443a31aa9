// MemoryMeter: the fields, the end-point detector as a state machine, and whole runs of start()
// against scripted statistics.
#include "MemoryMeter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <tuple>

#include "RegistryBase.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

MeterInfo makeInfo(std::vector<std::string> fields, const char* totalSamples) {
    return MeterInfo{"", {}, std::move(fields), {{"TotalSamplesToRun", totalSamples}}};
}

MemoryField& field(MemoryMeter& m, size_t i) {
    return *static_cast<MemoryField*>(m.mFields.at(i));
}

// Runs start() with sample i answering sums[i] kB per rss_swap field (the last value repeating;
// 300 kB of it as swap) and 10 * i kB of GPU memory. The event, if any, comes from the event
// thread before start() (at < 0) or during the at-th sleep. Returns the number of samples taken.
int run(MemoryMeter& m, std::vector<int64_t> sums, const AsyncTriggerPayload* event = nullptr,
        int at = -1) {
    ScopedStats stats([&sums](int i) {
        return makeStats(sums[std::min<size_t>(i, sums.size() - 1)] - 300, 300, 10 * i);
    });
    if (event != nullptr && at < 0)
        deliverFromThread(m, *event);
    ScriptedSleep sleep([&](int i, uint32_t) {
        if (event != nullptr && i == at)
            deliverFromThread(m, *event);
    });
    m.start();
    EXPECT_EQ(sleep.sleeps(), std::vector<uint32_t>(sleep.sleeps().size(), 300000u));
    EXPECT_TRUE(stats.calls() == 0 || stats.lastPid() == m.mAsyncUpdates.front().intArgs[0]);
    return stats.calls();
}

}  // namespace

TEST(MemoryField, RssSwapSumsWordsZeroAndTwoIonKeepsWordFourOtherNamesRecordZero) {
    for (auto [name, returned, stored] :
         std::vector<std::tuple<const char*, int, int>>{{"rss_swap", 1024, 1024},
                                                        {"ion_tesk", 0, 77},
                                                        {"rss_swaP", 0, 0},
                                                        {"ion_tes", 0, 0},
                                                        {"rss_swap_", 0, 0}}) {
        SCOPED_TRACE(name);
        MemoryField f(name, 3);
        f.mMemoryValues[2] = -5;
        EXPECT_EQ(f.collectStats(2, makeStats(1000, 24, 77)), returned);
        EXPECT_EQ(f.mMemoryValues[2], stored);
    }
}

TEST(MemoryField, ResultsStartAsZerosSampleZeroClearsTheEndValueAndOutOfRangeIsLogged) {
    LogCapture log;
    MemoryField f("rss_swap", 4);
    EXPECT_EQ(f.mResults, std::vector<int64_t>(4, 0));
    f.mResults[0] = 9;
    f.collectStats(0, makeStats(5, 5, 0));
    EXPECT_EQ(f.mResults[0], 0);
    EXPECT_EQ(f.collectStats(4, makeStats(10, 10, 0)), 0);
    EXPECT_EQ(MemoryField("rss_swap", 0).collectStats(0, makeStats(10, 10, 0)), 0);
    EXPECT_EQ(log.records(), std::vector<std::string>(2,
                                                      "6|ANDR-PERF-ZQ|Meter: collectStats() 53: "
                                                      "The sample number given is out of range\n"));
}

TEST(MemoryField, FailedAllocationsAreLoggedOrLeaveTheFieldOut) {
    LogCapture log;
    std::unique_ptr<MemoryField> f;
    {
        FailNothrowNew fail;
        f = std::make_unique<MemoryField>("rss_swap", 4);
        EXPECT_EQ(MemoryMeter(makeInfo({"rss_swap"}, "5")).mFields.empty(), !f->mMemoryValues);
    }
    if (f->mMemoryValues != nullptr)
        GTEST_SKIP() << "the allocation switch has no effect in this build";
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"Meter: MemoryField() 27: Failed mMemoryValues"});
    EXPECT_EQ(f->collectStats(1, makeStats(10, 5, 0)), 15);
    f->updateStats(1);  // without the array there is nothing to pick
}

TEST(MemoryMeter, RegisteredAndCreatesFieldsForTheExactNamesInOrder) {
    auto* list = RegistryBase<Meter, MeterInfo>::classList;
    ASSERT_TRUE(list != nullptr && list->count("Memory") == 1);
    std::unique_ptr<Meter> meter(list->at("Memory")(
        makeInfo({"ion_tesk", "rss_swap2", "rss_swa", "RSS_SWAP", "", "rss_swap"}, " 12x")));
    auto& m = dynamic_cast<MemoryMeter&>(*meter);
    EXPECT_EQ(m.mTotalSamples, 12);
    ASSERT_EQ(m.mFields.size(), 2u);
    EXPECT_EQ(m.mFields[0]->mName + m.mFields[1]->mName, "ion_teskrss_swap");
}

TEST(MemoryMeter, EndOfActivityStopsOtherEventsAreKeptClearTheStopAndCountTriggers) {
    MemoryMeter m(makeInfo({}, "1"));
    m.asyncTriggerUpdate(makePayload(0, -1));
    EXPECT_TRUE(m.hasStopNotification() && m.mAsyncUpdates.empty());
    m.asyncTriggerUpdate(makePayload(0x1043, -1, 1234));
    EXPECT_FALSE(m.hasStopNotification());
    m.asyncTriggerUpdate(makePayload(0, 3));
    m.asyncTriggerUpdate(makePayload(0x1043, 2));
    EXPECT_EQ(m.mTriggerCount.load(), 2);
    EXPECT_EQ(m.mAsyncUpdates.size(), 3u);
}

// Each call is one 300 ms sample of the fields' sum (the last one repeated `more` times); the
// state after the last sample is checked.
TEST(MemoryMeter, DetectorFollowsTheWorkedExamplesAndOverflowGuards) {
    using Row = std::tuple<const char*, int, std::vector<int>, int, std::vector<int>>;
    for (auto [what, triggers, sums, more, returnEndpointElapsedBaseline] : std::vector<Row>{
             {"a drift of 15 % is a change", 0, {100, 115, 115}, 0, {0, 600, 300, 115}},
             {"a drift of 14 % is not", 0, {100, 114}, 0, {0, 0, 600, 100}},
             {"a range of 18 % is, 17 % not", 0, {100, 90, 106, 107}, 0, {0, 1200, 0, 107}},
             {"multiplies before dividing", 0, {100000, 150000, 210000}, 0, {0, 900, 0, 210000}},
             {"steady memory never ends", 0, {500}, 39, {0, 0, 12000, 500}},
             {"stable 8100 ms is not the end", 0, {100, 200}, 27, {0, 600, 8100, 200}},
             {"stable for longer is", 0, {100, 200}, 28, {600, 600, 8400, 200}},
             {"the largest scalable jump", 0, {1000000, 22474836}, 0, {0, 600, 0, 22474836}},
             {"one more overflows the product", 0, {1000000, 22474837}, 0, {0, 0, 600, 1000000}},
             {"the same limit downwards", 0, {30000000, 8525163, 8525164}, 0, {0, 900, 0, 8525164}},
             {"an overflowing difference", 0, {INT_MAX, INT_MIN}, 0, {0, 0, 600, INT_MAX}},
             {"a trigger makes the baseline follow", 1, {100, 108, 116}, 0, {0, 0, 900, 116}},
             {"a trigger withholds the end", 1, {100, 200}, 30, {0, 600, 9000, 200}},
         }) {
        SCOPED_TRACE(what);
        MemoryMeter m(makeInfo({}, "0"));
        m.mTriggerCount = triggers;
        sums.insert(sums.end(), more, sums.back());
        int last = -1;
        for (int sum : sums)
            last = m.detectLaunchEndPoint(sum);
        EXPECT_EQ((std::vector<int>{last, m.mEndpointMs, m.mElapsedMs, m.mBaseline}),
                  returnEndpointElapsedBaseline);
    }
}

TEST(MemoryMeterRun, NoPayloadLogsAndAFirstPidBelowOneIsSilentlyIgnored) {
    LogCapture log;
    MemoryMeter m(makeInfo({"rss_swap"}, "5"));
    EXPECT_EQ(run(m, {1000}), 0);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"MemoryMeter: start() 144: Async Data NULL"});
    m.asyncTriggerUpdate(makePayload(0x1001, 0, 0));
    m.asyncTriggerUpdate(makePayload(0x1001, 0, 42));
    EXPECT_EQ(run(m, {1000}), 0);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(MemoryMeterRun, EndpointOf2400MsPicksEachFieldsValueOfSample8) {
    MemoryMeter m(makeInfo({"rss_swap", "ion_tesk"}, "40"));
    m.asyncTriggerUpdate(makePayload(0x1001, 0, 4321));
    // Doubled at sample 7 (2400 ms), then a creep within bounds until the 28th sample after.
    EXPECT_EQ(run(m, {1000, 1000, 1000, 1000, 1000, 1000, 1000, 2000, 2001, 2002, 2003}), 36);
    EXPECT_EQ(field(m, 0).mResults[0], 2001);
    EXPECT_EQ(field(m, 1).mResults[0], 80);
}

TEST(MemoryMeterRun, WithoutAnEndpointEverySampleIsTakenAndTheSumIs32Bit) {
    using Row =
        std::tuple<std::vector<std::string>, const char*, std::vector<int64_t>, std::vector<int>>;
    for (auto [fields, total, sums, samplesBaselineElapsed] : std::vector<Row>{
             {{"ion_tesk"}, "5", {1000, 5000}, {5, 0, 0}},
             {{"rss_swap"}, "30", {1000}, {30, 1000, 9000}},
             {{"rss_swap"}, "0", {1000}, {0, 0, 0}},
             // Per field 2^32 + 1000 sums to 2000 in 32 bits; 2 × 2^30 reads negative: skipped.
             {{"rss_swap", "rss_swap"}, "2", {4294968296, 1073741824}, {2, 2000, 300}}}) {
        SCOPED_TRACE(total);
        MemoryMeter m(makeInfo(fields, total));
        m.asyncTriggerUpdate(makePayload(0x1001, 0, 9));
        EXPECT_EQ((std::vector<int>{run(m, sums), m.mBaseline, m.mElapsedMs}),
                  samplesBaselineElapsed);
    }
}

TEST(MemoryMeterRun, StopAnd0x1043EndTheRunAtThePollAfterThemButStartForgets0x1043) {
    using Row = std::tuple<AsyncTriggerPayload, int, int, int>;
    for (auto [event, at, samples, result] :
         std::vector<Row>{{makePayload(0, -1), -1, 0, 0},
                          {makePayload(0, -1), 4, 5, 0},
                          {makePayload(0x1043, 0), 4, 5, 0},
                          {makePayload(0x1043, 0), -1, 32, 2000}}) {
        SCOPED_TRACE(::testing::Message() << event.hintId << " at " << at);
        MemoryMeter m(makeInfo({"rss_swap"}, "60"));
        m.asyncTriggerUpdate(makePayload(0x1001, 0, 9));
        EXPECT_EQ(run(m, {1000, 1000, 1000, 2000}, &event, at), samples);
        EXPECT_EQ(field(m, 0).mResults[0], result);
    }
}
