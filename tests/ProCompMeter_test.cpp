#include "ProCompMeter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "RegistryBase.h"
#include "StatsProvider.h"
#include "TestSupport.h"

using testsupport::LogCapture;
using testsupport::ScriptedSleep;

// The thread sanitizer's runtime brings its own allocation operators, which cannot be replaced
// at link time; the allocation-failure test is skipped there.
#if defined(__SANITIZE_THREAD__)
#define PROCOMP_TEST_CAN_FAIL_NEW 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PROCOMP_TEST_CAN_FAIL_NEW 0
#endif
#endif
#ifndef PROCOMP_TEST_CAN_FAIL_NEW
#define PROCOMP_TEST_CAN_FAIL_NEW 1
#endif

namespace {

// Makes the next throwing allocation fail, so the copy of a payload can be made to throw.
std::atomic<bool> gThrowNextNew{false};

}  // namespace

#if PROCOMP_TEST_CAN_FAIL_NEW

void* operator new(std::size_t size) {
    if (gThrowNextNew.exchange(false))
        throw std::bad_alloc();
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return ::operator new(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
#endif

namespace {

AsyncTriggerPayload payload(uint32_t hintId, int32_t hintType, int32_t pid = 0) {
    AsyncTriggerPayload p;
    p.hintId = hintId;
    p.hintType = hintType;
    p.intArgs[0] = pid;
    return p;
}

AsyncTriggerPayload richPayload() {
    AsyncTriggerPayload p;
    p.hintId = 0x1081;
    p.hintType = 3;
    p.appName = "com.example.a.rather.long.application.name.beyond.small.strings";
    for (int i = 0; i < AsyncTriggerPayload::kNumIntArgs; ++i)
        p.intArgs[i] = 1000 * i - 7;
    p.values = {1, -2, 2147483647, -2147483647 - 1};
    p.longArg = -1234567890123LL;
    return p;
}

void expectSamePayload(const AsyncTriggerPayload& a, const AsyncTriggerPayload& b) {
    EXPECT_EQ(a.hintId, b.hintId);
    EXPECT_EQ(a.hintType, b.hintType);
    EXPECT_EQ(a.appName, b.appName);
    for (int i = 0; i < AsyncTriggerPayload::kNumIntArgs; ++i)
        EXPECT_EQ(a.intArgs[i], b.intArgs[i]) << "intArgs[" << i << "]";
    EXPECT_EQ(a.values, b.values);
    EXPECT_EQ(a.longArg, b.longArg);
}

// Answers getPIDStats with a scripted word-4 series (the last value repeats) and records the
// pids asked for. Restores the default source when it goes away.
class StatsScript {
  public:
    explicit StatsScript(std::vector<int64_t> gpuMem) : mGpuMem(std::move(gpuMem)) {
        StatsProvider::setStatsSource([this](int pid) {
            std::lock_guard<std::mutex> lock(mMutex);
            sysstats_task t{};
            t.vm_rss_kb = 111;
            t.vm_swap_kb = 222;
            size_t i = mPids.size() < mGpuMem.size() ? mPids.size() : mGpuMem.size() - 1;
            t.gpu_mem_kb = mGpuMem.empty() ? 0 : mGpuMem[i];
            mPids.push_back(pid);
            mCalls.store(static_cast<int>(mPids.size()));
            return t;
        });
    }
    ~StatsScript() { StatsProvider::setStatsSource(nullptr); }
    std::vector<int> pids() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mPids;
    }
    int calls() const { return mCalls.load(); }

  private:
    mutable std::mutex mMutex;
    std::vector<int64_t> mGpuMem;
    std::vector<int> mPids;
    std::atomic<int> mCalls{0};
};

// Ends a run that missed its end event, so such a fault fails the test instead of hanging it.
void stopRunaway(ProCompMeter& meter, int sleepIndex) {
    if (sleepIndex >= 10000)
        meter.mStop.store(true);
}

// Runs start() with word 4 following gpuMem and an end event delivered during sleep endAt, so
// the run takes endAt + 1 samples.
uint32_t peakOver(std::vector<int64_t> gpuMem, int endAt) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));
    StatsScript stats(std::move(gpuMem));
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == endAt)
            meter.asyncTriggerUpdate(payload(0x1002, -1));
    });
    meter.start();
    EXPECT_EQ(stats.calls(), endAt + 1);
    return meter.mPeak;
}

TEST(ProCompMeterRegistry, RegisteredAsProCompAndFactoryBuildsTheMeter) {
    using Reg = RegistryBase<Meter, MeterInfo>;
    Reg::Factory factory = nullptr;
    {
        std::lock_guard<std::mutex> lock(Reg::mMutex);
        ASSERT_NE(Reg::classList, nullptr);
        auto it = Reg::classList->find("ProComp");
        ASSERT_NE(it, Reg::classList->end());
        factory = it->second;
    }
    EXPECT_TRUE(ProCompMeter::registerMeter);
    MeterInfo info;
    info.name = "ProComp";
    Meter* meter = factory(info);
    ASSERT_NE(meter, nullptr);
    auto* proComp = dynamic_cast<ProCompMeter*>(meter);
    ASSERT_NE(proComp, nullptr);
    EXPECT_FALSE(proComp->mStop.load());
    EXPECT_EQ(proComp->mPeak, 0u);
    EXPECT_TRUE(proComp->mAsyncUpdates.empty());
    delete meter;
}

TEST(ProCompMeterEvents, EndOfActivityEventsSetStopAndAreNotKept) {
    for (auto p : {payload(0x1002, -1), payload(0x1004, -1), payload(0, -1)}) {
        ProCompMeter meter{MeterInfo{}};
        meter.asyncTriggerUpdate(p);
        EXPECT_TRUE(meter.mStop.load()) << "hintId " << p.hintId;
        EXPECT_TRUE(meter.mAsyncUpdates.empty()) << "hintId " << p.hintId;
        // The base's flag is not this meter's stop signal.
        EXPECT_FALSE(meter.hasStopNotification()) << "hintId " << p.hintId;
    }
}

TEST(ProCompMeterEvents, OtherEventsAreKeptInOrderAndDoNotStop) {
    ProCompMeter meter{MeterInfo{}};
    const std::vector<AsyncTriggerPayload> kept = {
        payload(0x1004, 5),  payload(0x1002, 0), payload(0, 0),        payload(0x1001, -1),
        payload(0x1003, -1), payload(0, 1),      payload(0x1043, -1),  payload(0x1004, -2),
        payload(0x1081, 0),  richPayload(),      payload(0x1002, 1, 9)};
    for (const auto& p : kept)
        meter.asyncTriggerUpdate(p);
    EXPECT_FALSE(meter.mStop.load());
    ASSERT_EQ(meter.mAsyncUpdates.size(), kept.size());
    for (size_t i = 0; i < kept.size(); ++i)
        expectSamePayload(meter.mAsyncUpdates[i], kept[i]);
}

TEST(ProCompMeterEvents, KeptEventClearsBaseStopFlagButLeavesStopSet) {
    ProCompMeter meter{MeterInfo{}};
    meter.Meter::asyncTriggerUpdate(payload(0, -1));
    ASSERT_TRUE(meter.hasStopNotification());
    meter.asyncTriggerUpdate(payload(0x1004, -1));
    EXPECT_TRUE(meter.hasStopNotification()) << "an end event leaves the base flag alone";
    ASSERT_TRUE(meter.mStop.load());
    meter.asyncTriggerUpdate(payload(0x1081, 0, 7));
    EXPECT_FALSE(meter.hasStopNotification());
    EXPECT_TRUE(meter.mStop.load()) << "only start() clears mStop";
}

TEST(ProCompMeterEvents, GetAsyncUpdatesReturnsOwnListAndReplacesCallersVector) {
    ProCompMeter meter{MeterInfo{}};
    EXPECT_EQ(meter.getAsyncUpdates(), &meter.mAsyncUpdates);

    std::vector<AsyncTriggerPayload> out = {payload(1, 1), payload(2, 2)};
    meter.getAsyncUpdates(out);
    EXPECT_TRUE(out.empty()) << "an empty list replaces the caller's content";

    meter.asyncTriggerUpdate(richPayload());
    out = {payload(1, 1), payload(2, 2), payload(3, 3)};
    meter.getAsyncUpdates(out);
    ASSERT_EQ(out.size(), 1u);
    expectSamePayload(out[0], richPayload());

    meter.getAsyncUpdates(*meter.getAsyncUpdates());
    ASSERT_EQ(meter.mAsyncUpdates.size(), 1u);
    expectSamePayload(meter.mAsyncUpdates[0], richPayload());
}

TEST(ProCompMeterEvents, FailedCopiesAreLoggedAndLeaveTheListAsItWas) {
    if (!PROCOMP_TEST_CAN_FAIL_NEW)
        GTEST_SKIP() << "allocation operators cannot be replaced in this build";
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 5));
    LogCapture log;

    const AsyncTriggerPayload rich = richPayload();
    gThrowNextNew.store(true);
    meter.asyncTriggerUpdate(rich);
    gThrowNextNew.store(false);
    ASSERT_EQ(meter.mAsyncUpdates.size(), 1u);
    EXPECT_EQ(meter.mAsyncUpdates[0].intArgs[0], 5);

    std::vector<AsyncTriggerPayload> out;
    gThrowNextNew.store(true);
    meter.getAsyncUpdates(out);
    gThrowNextNew.store(false);
    EXPECT_TRUE(out.empty());

    EXPECT_EQ(log.records(),
              (std::vector<std::string>{
                  "6|ANDR-PERF-ZQ|ProCompMeter: asyncTriggerUpdate() 74: Exception caught: "
                  "std::bad_alloc in asyncTriggerUpdate",
                  "6|ANDR-PERF-ZQ|ProCompMeter: getAsyncUpdates() 87: Exception caught: "
                  "std::bad_alloc in getAsyncUpdates"}));

    // The meter still works after the failures.
    meter.asyncTriggerUpdate(payload(0x1004, 5));
    EXPECT_EQ(meter.mAsyncUpdates.size(), 2u);
}

TEST(ProCompMeterRun, NoPendingEventReturnsAtOnceWithPeakCleared) {
    ProCompMeter meter{MeterInfo{}};
    meter.mPeak = 77;
    // Kept by the base only: the run looks at this meter's own list, and replaces the base's.
    meter.Meter::asyncTriggerUpdate(payload(0x1081, 0, 42));
    StatsScript stats({10});
    ScriptedSleep sleep([&](int i, uint32_t) { stopRunaway(meter, i); });
    LogCapture log;
    meter.start();
    EXPECT_EQ(meter.mPeak, 0u);
    EXPECT_EQ(stats.calls(), 0);
    EXPECT_TRUE(sleep.sleeps().empty());
    EXPECT_TRUE(meter.Meter::getAsyncUpdates()->empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST(ProCompMeterRun, NegativePidReturnsWithoutSampling) {
    ProCompMeter meter{MeterInfo{}};
    meter.mPeak = 77;
    meter.asyncTriggerUpdate(payload(0x1081, 0, -1));
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));  // only the first payload counts
    meter.asyncTriggerUpdate(payload(0x1002, -1));
    StatsScript stats({10});
    ScriptedSleep sleep([&](int i, uint32_t) { stopRunaway(meter, i); });
    LogCapture log;
    meter.start();
    EXPECT_EQ(meter.mPeak, 0u);
    EXPECT_EQ(stats.calls(), 0);
    EXPECT_TRUE(sleep.sleeps().empty());
    EXPECT_TRUE(meter.mStop.load()) << "a run that never starts does not clear the stop";
    EXPECT_TRUE(log.lines().empty());
}

TEST(ProCompMeterRun, SamplesFirstPayloadsPidEvery300msAndKeepsThePeak) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 4321));
    meter.asyncTriggerUpdate(payload(0x1081, 0, 99));
    StatsScript stats({5, 300, 120, 0, 299, 301, 7});
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == 6)
            meter.asyncTriggerUpdate(payload(0x1004, -1));
    });
    meter.start();
    EXPECT_EQ(meter.mPeak, 301u);
    EXPECT_EQ(stats.pids(), std::vector<int>(7, 4321));
    EXPECT_EQ(sleep.sleeps(), std::vector<uint32_t>(7, 300000u));
    // The base's pending list now mirrors the meter's own.
    const auto* base = meter.Meter::getAsyncUpdates();
    ASSERT_EQ(base->size(), 2u);
    EXPECT_EQ((*base)[0].intArgs[0], 4321);
    EXPECT_EQ((*base)[1].intArgs[0], 99);
}

TEST(ProCompMeterRun, PidZeroIsWatched) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 0));
    StatsScript stats({64});
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == 1)
            meter.asyncTriggerUpdate(payload(0, -1));
    });
    meter.start();
    EXPECT_EQ(stats.pids(), (std::vector<int>{0, 0}));
    EXPECT_EQ(meter.mPeak, 64u);
}

TEST(ProCompMeterRun, EndEventBeforeStartIsForgotten) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));
    meter.asyncTriggerUpdate(payload(0x1002, -1));
    ASSERT_TRUE(meter.mStop.load());
    StatsScript stats({1, 2, 3});
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == 2)
            meter.asyncTriggerUpdate(payload(0x1002, -1));
    });
    meter.start();
    EXPECT_EQ(stats.calls(), 3);
    EXPECT_EQ(meter.mPeak, 3u);
}

TEST(ProCompMeterRun, BaseStopFlagDoesNotEndTheRun) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));
    meter.Meter::asyncTriggerUpdate(payload(0, -1));
    ASSERT_TRUE(meter.hasStopNotification());
    StatsScript stats({8});
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == 4)
            meter.asyncTriggerUpdate(payload(0x1004, -1));
    });
    meter.start();
    EXPECT_EQ(stats.calls(), 5);
    EXPECT_EQ(meter.mPeak, 8u);
}

TEST(ProCompMeterRun, RunOnlyEndsOnAnEndEvent) {
    // Events that look like ends but are not, and a long quiet stretch.
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));
    StatsScript stats({0});
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == 10)
            meter.asyncTriggerUpdate(payload(0x1004, 5));
        if (i == 20)
            meter.asyncTriggerUpdate(payload(0x1002, 0));
        if (i == 500)
            meter.asyncTriggerUpdate(payload(0, -1));
    });
    meter.start();
    EXPECT_EQ(stats.calls(), 501);
    EXPECT_EQ(meter.mPeak, 0u) << "word 4 stayed 0";
    ASSERT_EQ(meter.mAsyncUpdates.size(), 3u);
    EXPECT_EQ(meter.mAsyncUpdates[1].hintId, 0x1004u);
    EXPECT_EQ(meter.mAsyncUpdates[1].hintType, 5);
    EXPECT_EQ(meter.mAsyncUpdates[2].hintId, 0x1002u);
}

TEST(ProCompMeterRun, WordFourIsComparedUnsignedAndStoredAsLow32Bits) {
    EXPECT_EQ(peakOver({-1}, 0), 0xFFFFFFFFu);
    EXPECT_EQ(peakOver({7, -2, 9}, 2), 0xFFFFFFFEu);
    EXPECT_EQ(peakOver({0xFFFFFFFFLL, 5}, 1), 0xFFFFFFFFu);
    // Above 32 bits every sample exceeds the stored peak, so the low bits may go down.
    EXPECT_EQ(peakOver({0x100000005LL}, 0), 5u);
    EXPECT_EQ(peakOver({0x100000005LL, 6}, 1), 6u);
    EXPECT_EQ(peakOver({0x100000005LL, 6, 0x100000000LL}, 2), 0u);
    EXPECT_EQ(peakOver({INT64_MIN, 3}, 1), 3u);
    EXPECT_EQ(peakOver({INT64_MAX}, 0), 0xFFFFFFFFu);
}

TEST(ProCompMeterRun, EachRunStartsItsPeakAfresh) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));
    {
        StatsScript stats({900, 50});
        ScriptedSleep sleep([&](int i, uint32_t) {
            stopRunaway(meter, i);
            if (i == 1)
                meter.asyncTriggerUpdate(payload(0x1002, -1));
        });
        meter.start();
        EXPECT_EQ(meter.mPeak, 900u);
    }
    StatsScript stats({30, 40, 10});
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == 2)
            meter.asyncTriggerUpdate(payload(0x1004, -1));
    });
    meter.start();  // the earlier end event is forgotten
    EXPECT_EQ(stats.calls(), 3);
    EXPECT_EQ(meter.mPeak, 40u);
}

TEST(ProCompMeterThreads, EventsFromAnotherThreadDuringTheRunInLockstep) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));
    StatsScript stats({10, 20, 30, 25, 15});

    // The event thread acts only when a sleep asks it to and the sleep waits for it, which
    // orders its appends after start() has read the list. The waits are bounded, so a run that
    // ends too early fails instead of hanging.
    constexpr auto kHandshakeTimeout = std::chrono::seconds(5);
    std::mutex m;
    std::condition_variable cv;
    int stage = 0;
    auto advance = [&](int to, int until) {
        std::unique_lock<std::mutex> lock(m);
        stage = to;
        cv.notify_all();
        cv.wait_for(lock, kHandshakeTimeout, [&] { return stage == until; });
    };
    std::thread events([&] {
        std::unique_lock<std::mutex> lock(m);
        cv.wait_for(lock, kHandshakeTimeout, [&] { return stage == 1; });
        meter.asyncTriggerUpdate(payload(0x1004, 5));
        stage = 2;
        cv.notify_all();
        cv.wait_for(lock, kHandshakeTimeout, [&] { return stage == 3; });
        meter.asyncTriggerUpdate(payload(0x1002, -1));
        stage = 4;
        cv.notify_all();
    });
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        if (i == 1)
            advance(1, 2);
        if (i == 3)
            advance(3, 4);
    });
    meter.start();
    events.join();
    EXPECT_EQ(stats.calls(), 4);
    EXPECT_EQ(meter.mPeak, 30u);
    ASSERT_EQ(meter.mAsyncUpdates.size(), 2u);
    EXPECT_EQ(meter.mAsyncUpdates[1].hintId, 0x1004u);
    EXPECT_TRUE(meter.mStop.load());
}

TEST(ProCompMeterThreads, EndEventFromAnotherThreadStopsAFreeRunningRun) {
    ProCompMeter meter{MeterInfo{}};
    meter.asyncTriggerUpdate(payload(0x1081, 0, 42));
    StatsScript stats({1, 2, 3, 4, 5, 6, 7, 8});
    ScriptedSleep sleep([&](int i, uint32_t) {
        stopRunaway(meter, i);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    std::thread events([&] {
        while (stats.calls() < 5)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        meter.asyncTriggerUpdate(payload(0, -1));
    });
    meter.start();
    events.join();
    EXPECT_GE(stats.calls(), 5);
    EXPECT_EQ(meter.mPeak, static_cast<uint32_t>(stats.calls() < 8 ? stats.calls() : 8));
}

}  // namespace
