#include "MemoryMeter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "RegistryBase.h"
#include "StatsProvider.h"
#include "TestSupport.h"

using testsupport::FailNothrowNew;
using testsupport::LogCapture;
using testsupport::ScriptedSleep;

namespace {

MeterInfo makeInfo(std::vector<std::string> fields, const char* totalSamples) {
    MeterInfo info;
    info.name = "Memory";
    info.fieldNames = std::move(fields);
    if (totalSamples != nullptr)
        info.configs["TotalSamplesToRun"] = totalSamples;
    return info;
}

AsyncTriggerPayload payload(uint32_t hintId, int32_t hintType, int32_t arg0 = 0) {
    AsyncTriggerPayload p;
    p.hintId = hintId;
    p.hintType = hintType;
    p.appName = "com.example.app";
    p.intArgs[0] = arg0;
    return p;
}

sysstats_task stats(int64_t rss, int64_t swap, int64_t gpu) {
    sysstats_task s{};
    s.vm_rss_kb = rss;
    s.vm_swap_kb = swap;
    s.gpu_mem_kb = gpu;
    return s;
}

// Answers getPIDStats with script(call index) while alive.
class ScriptedStats {
  public:
    explicit ScriptedStats(std::function<sysstats_task(int call)> script) {
        StatsProvider::setStatsSource([this, script](int pid) {
            lastPid.store(pid);
            return script(calls.fetch_add(1));
        });
    }
    ~ScriptedStats() { StatsProvider::setStatsSource(nullptr); }
    std::atomic<int> calls{0};
    std::atomic<int> lastPid{0};
};

// The host's event thread: payloads handed to it are delivered to the meter on that thread.
class EventThread {
  public:
    explicit EventThread(Meter& meter) : mThread([this, &meter] { run(meter); }) {}
    ~EventThread() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mQuit = true;
        }
        mCv.notify_all();
        mThread.join();
    }
    // Returns once the meter has taken the payload.
    void deliver(const AsyncTriggerPayload& p) {
        std::unique_lock<std::mutex> lock(mMutex);
        uint64_t ticket = ++mPosted;
        mQueue.push_back(p);
        mCv.notify_all();
        mCv.wait(lock, [&] { return mDone >= ticket; });
    }
    // Returns at once; the payload reaches the meter whenever the event thread gets to it.
    void post(const AsyncTriggerPayload& p) {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mPosted;
        mQueue.push_back(p);
        mCv.notify_all();
    }

  private:
    void run(Meter& meter) {
        std::unique_lock<std::mutex> lock(mMutex);
        while (true) {
            mCv.wait(lock, [&] { return mQuit || !mQueue.empty(); });
            if (mQueue.empty())
                return;
            AsyncTriggerPayload p = mQueue.front();
            mQueue.pop_front();
            lock.unlock();
            meter.asyncTriggerUpdate(p);
            lock.lock();
            ++mDone;
            mCv.notify_all();
        }
    }

    std::mutex mMutex;
    std::condition_variable mCv;
    std::deque<AsyncTriggerPayload> mQueue;
    uint64_t mPosted = 0;
    uint64_t mDone = 0;
    bool mQuit = false;
    std::thread mThread;
};

// Under TSan the runtime's own non-throwing new takes precedence over the tests' switch.
bool nothrowNewCanFail() {
    static char* volatile probe;  // escapes, so the allocation is not folded away
    FailNothrowNew fail;
    probe = new (std::nothrow) char;
    bool failed = probe == nullptr;
    delete probe;
    return failed;
}

MemoryField* fieldAt(MemoryMeter& m, size_t i) {
    return dynamic_cast<MemoryField*>(m.mFields.at(i));
}

}  // namespace

TEST(MemoryField, TakesRssPlusSwapAndRecordsIonWithoutAddingIt) {
    MemoryField rss("rss_swap", 3);
    MemoryField ion("ion_tesk", 3);
    EXPECT_EQ(rss.mNameLength, 8u);
    EXPECT_EQ(rss.collectStats(1, stats(1000, 24, 77)), 1024);
    EXPECT_EQ(rss.mMemoryValues[1], 1024);
    EXPECT_EQ(ion.collectStats(1, stats(1000, 24, 77)), 0);
    EXPECT_EQ(ion.mMemoryValues[1], 77);
    // 64-bit addition that wraps rather than overflowing.
    EXPECT_EQ(rss.collectStats(2, stats(INT64_MAX, 1, 0)), INT64_MIN);
}

TEST(MemoryField, UnrecognisedNameRecordsZero) {
    for (const char* name : {"rss_swaP", "ion_tes", "rss_swap_"}) {
        MemoryField f(name, 2);
        f.mMemoryValues[1] = 55;
        EXPECT_EQ(f.collectStats(1, stats(1000, 24, 77)), 0) << name;
        EXPECT_EQ(f.mMemoryValues[1], 0) << name;
    }
}

TEST(MemoryField, ResultsHoldOneZeroPerSampleAndSampleZeroClearsEndpointValue) {
    MemoryField f("rss_swap", 4);
    EXPECT_EQ(f.mResults, std::vector<int64_t>(4, 0));
    f.mResults[0] = 9;
    f.collectStats(1, stats(5, 5, 0));
    EXPECT_EQ(f.mResults[0], 9);
    f.collectStats(0, stats(5, 5, 0));
    EXPECT_EQ(f.mResults[0], 0);
    f.collectStats(3, stats(40, 2, 0));
    f.updateStats(3);
    EXPECT_EQ(f.mResults[0], 42);
    EXPECT_TRUE(MemoryField("rss_swap", 0).mResults.empty());
}

TEST(MemoryField, OutOfRangeSampleLogsAndReturnsZero) {
    LogCapture log;
    MemoryField f("rss_swap", 2);
    MemoryField empty("rss_swap", 0);
    EXPECT_EQ(f.collectStats(2, stats(10, 10, 0)), 0);
    EXPECT_EQ(f.collectStats(-1, stats(10, 10, 0)), 0);
    EXPECT_EQ(empty.collectStats(0, stats(10, 10, 0)), 0);
    std::string line = "Meter: collectStats() 53: The sample number given is out of range\n";
    EXPECT_EQ(log.records(), std::vector<std::string>(3, "6|ANDR-PERF-ZQ|" + line));
}

TEST(MemoryField, FailedArrayIsLoggedAndTheFieldStillSums) {
    if (!nothrowNewCanFail())
        GTEST_SKIP() << "allocation failure cannot be simulated in this build";
    LogCapture log;
    std::unique_ptr<MemoryField> f;
    {
        FailNothrowNew fail;
        f = std::make_unique<MemoryField>("rss_swap", 4);
    }
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"Meter: MemoryField() 27: Failed mMemoryValues"});
    EXPECT_EQ(f->mMemoryValues, nullptr);
    EXPECT_EQ(f->mResults.size(), 4u);
    EXPECT_EQ(f->collectStats(1, stats(10, 5, 0)), 15);
    f->updateStats(1);
    EXPECT_EQ(f->mResults[0], 0);
}

TEST(MemoryMeterSetup, CreatesFieldsOnlyForTheExactNamesInOrder) {
    LogCapture log;
    MemoryMeter m(makeInfo({"ion_tesk", "rss_swap2", "rss_swa", "RSS_SWAP", "", "rss_swap"}, "12"));
    EXPECT_EQ(m.mTotalSamples, 12);
    ASSERT_EQ(m.mFields.size(), 2u);
    EXPECT_EQ(m.mFields[0]->mName, "ion_tesk");
    EXPECT_EQ(m.mFields[1]->mName, "rss_swap");
    EXPECT_EQ(fieldAt(m, 1)->mNumSamples, 12);
    EXPECT_TRUE(log.lines().empty());
}

TEST(MemoryMeterSetup, SampleCountIsParsedWithAtoiAndAMissingKeyMeansZero) {
    LogCapture log;
    EXPECT_EQ(MemoryMeter(makeInfo({"rss_swap"}, " 7abc")).mTotalSamples, 7);
    EXPECT_EQ(MemoryMeter(makeInfo({"rss_swap"}, "junk")).mTotalSamples, 0);
    EXPECT_EQ(MemoryMeter(makeInfo({"rss_swap"}, nullptr)).mTotalSamples, 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST(MemoryMeterSetup, FailedFieldAllocationLeavesTheFieldOut) {
    if (!nothrowNewCanFail())
        GTEST_SKIP() << "allocation failure cannot be simulated in this build";
    LogCapture log;
    FailNothrowNew fail;
    MemoryMeter m(makeInfo({"rss_swap", "ion_tesk"}, "5"));
    EXPECT_TRUE(m.mFields.empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST(MemoryMeterSetup, RegisteredAsMemoryAndTheFactoryBuildsIt) {
    auto* list = RegistryBase<Meter, MeterInfo>::classList;
    ASSERT_NE(list, nullptr);
    auto it = list->find("Memory");
    ASSERT_NE(it, list->end());
    std::unique_ptr<Meter> meter(it->second(makeInfo({"rss_swap"}, "3")));
    auto* memory = dynamic_cast<MemoryMeter*>(meter.get());
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(memory->mTotalSamples, 3);
    EXPECT_EQ(memory->mFields.size(), 1u);
}

TEST(MemoryMeterEvents, EndOfActivitySetsStopWithoutKeepingThePayload) {
    MemoryMeter m(makeInfo({}, "1"));
    m.asyncTriggerUpdate(payload(0, -1));
    EXPECT_TRUE(m.hasStopNotification());
    EXPECT_TRUE(m.mAsyncUpdates.empty());
    // {0, other type} is an ordinary event: kept, and it clears the stop.
    m.asyncTriggerUpdate(payload(0, 3));
    EXPECT_FALSE(m.hasStopNotification());
    EXPECT_EQ(m.mAsyncUpdates.size(), 1u);
}

TEST(MemoryMeterEvents, PayloadsAreKeptWholeAndTriggersCounted) {
    MemoryMeter m(makeInfo({}, "1"));
    AsyncTriggerPayload p = payload(0x1043, 2, 1234);
    p.intArgs[10] = -9;
    p.values = {1, 2, 3};
    p.longArg = INT64_MIN;
    m.asyncTriggerUpdate(p);
    m.asyncTriggerUpdate(payload(0x1043, -1));
    m.asyncTriggerUpdate(payload(0x1002, -1));
    EXPECT_EQ(m.mTriggerCount.load(), 2);
    ASSERT_EQ(m.getAsyncUpdates()->size(), 3u);
    EXPECT_EQ(m.getAsyncUpdates(), &m.mAsyncUpdates);

    std::vector<AsyncTriggerPayload> out(5);
    m.getAsyncUpdates(out);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].appName, "com.example.app");
    EXPECT_EQ(out[0].intArgs[0], 1234);
    EXPECT_EQ(out[0].intArgs[10], -9);
    EXPECT_EQ(out[0].values, (std::vector<int32_t>{1, 2, 3}));
    EXPECT_EQ(out[0].longArg, INT64_MIN);
    m.getAsyncUpdates(m.mAsyncUpdates);
    EXPECT_EQ(m.mAsyncUpdates.size(), 3u);

    MemoryMeter none(makeInfo({}, "1"));
    none.getAsyncUpdates(out);
    EXPECT_TRUE(out.empty());
}

// The detector on its own: each call is one 300 ms sample of the fields' sum.
class MemoryDetector : public ::testing::Test {
  protected:
    std::vector<int> feed(std::initializer_list<int> values) {
        std::vector<int> out;
        for (int v : values)
            out.push_back(m.detectLaunchEndPoint(v));
        return out;
    }
    MemoryMeter m{makeInfo({}, "0")};
};

TEST_F(MemoryDetector, DriftAboveFourteenPercentIsASignificantChange) {
    feed({100, 115, 115});
    EXPECT_EQ(m.mEndpointMs, 600);
    EXPECT_EQ(m.mElapsedMs, 300);
    EXPECT_EQ(m.mBaseline, 115);

    MemoryMeter fourteen(makeInfo({}, "0"));
    fourteen.detectLaunchEndPoint(100);
    fourteen.detectLaunchEndPoint(114);
    EXPECT_EQ(fourteen.mEndpointMs, 0);
    EXPECT_EQ(fourteen.mMax, 114);
}

TEST_F(MemoryDetector, RangeAboveSeventeenPercentIsASignificantChange) {
    // Against minimum 90: 106 spans 17 %, 107 spans 18 %; drift from 100 stays below 15 %.
    feed({100, 90, 106});
    EXPECT_EQ(m.mEndpointMs, 0);
    EXPECT_EQ(m.mMin, 90);
    feed({107});
    EXPECT_EQ(m.mEndpointMs, 1200);
    EXPECT_EQ(m.mMin, 107);
}

TEST_F(MemoryDetector, MultipliesBeforeDividing) {
    // 50000 / 100000 would be 0 if divided first; scaled first it is 50 %.
    feed({100000, 150000});
    EXPECT_EQ(m.mEndpointMs, 600);
    feed({210000});
    EXPECT_EQ(m.mEndpointMs, 900);
}

TEST_F(MemoryDetector, ReturnsTheEndpointOnceStableForLongerThan8100Ms) {
    feed({100, 200});
    for (int i = 0; i < 26; ++i)
        ASSERT_EQ(m.detectLaunchEndPoint(200), 0) << i;
    EXPECT_EQ(m.detectLaunchEndPoint(200), 0);  // exactly 8100 ms
    EXPECT_EQ(m.detectLaunchEndPoint(200), 600);

    MemoryMeter steady(makeInfo({}, "0"));
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(steady.detectLaunchEndPoint(500), 0);
    EXPECT_EQ(steady.mElapsedMs, 12000);
}

TEST_F(MemoryDetector, TriggerFollowsTheValueAndWithholdsTheEndpoint) {
    m.mTriggerCount = 1;
    feed({100, 108});
    EXPECT_EQ(m.mBaseline, 108);
    feed({116});  // 7 % from 108: without the trigger it would be 16 % from 100
    EXPECT_EQ(m.mEndpointMs, 0);
    EXPECT_EQ(m.mBaseline, 116);
    m.mEndpointMs = 300;
    m.mElapsedMs = 9000;
    EXPECT_EQ(m.detectLaunchEndPoint(116), 0);
    EXPECT_EQ(m.detectLaunchEndPoint(0), 0);
    EXPECT_EQ(m.mBaseline, 0);
}

TEST_F(MemoryDetector, ProductOverflowCountsAsNoChange) {
    feed({1000000, 1000000 + 21474836});
    EXPECT_EQ(m.mEndpointMs, 600);

    MemoryMeter up(makeInfo({}, "0"));
    up.detectLaunchEndPoint(1000000);
    up.detectLaunchEndPoint(1000000 + 21474837);
    EXPECT_EQ(up.mEndpointMs, 0);
    EXPECT_EQ(up.mBaseline, 1000000);

    MemoryMeter down(makeInfo({}, "0"));
    down.detectLaunchEndPoint(30000000);
    down.detectLaunchEndPoint(30000000 - 21474837);
    EXPECT_EQ(down.mEndpointMs, 0);
    down.detectLaunchEndPoint(30000000 - 21474836);
    EXPECT_EQ(down.mEndpointMs, 900);
}

TEST_F(MemoryDetector, OverflowingDifferenceAndZeroMinimumCountAsNoChange) {
    feed({INT_MAX, INT_MIN});
    EXPECT_EQ(m.mEndpointMs, 0);
    EXPECT_EQ(m.mMin, INT_MIN);

    MemoryMeter zeroMin(makeInfo({}, "0"));
    zeroMin.mBaseline = 100;
    zeroMin.detectLaunchEndPoint(110);
    EXPECT_EQ(zeroMin.mMin, 0);
    EXPECT_EQ(zeroMin.mEndpointMs, 0);

    MemoryMeter wrap(makeInfo({}, "0"));
    wrap.mElapsedMs = INT_MAX - 100;
    EXPECT_EQ(wrap.detectLaunchEndPoint(0), 0);
    EXPECT_EQ(wrap.mElapsedMs, INT_MIN + 199);
}

class MemoryRun : public ::testing::Test {
  protected:
    ~MemoryRun() override { StatsProvider::setStatsSource(nullptr); }
    LogCapture log;
};

TEST_F(MemoryRun, NoPayloadLogsAndDoesNotSample) {
    ScriptedStats source([](int) { return stats(1, 1, 1); });
    MemoryMeter m(makeInfo({"rss_swap"}, "5"));
    m.start();
    EXPECT_EQ(log.lines(), std::vector<std::string>{"MemoryMeter: start() 144: Async Data NULL"});
    EXPECT_EQ(source.calls.load(), 0);
}

TEST_F(MemoryRun, PidBelowOneReturnsSilently) {
    ScriptedStats source([](int) { return stats(1, 1, 1); });
    ScriptedSleep sleep;
    MemoryMeter m(makeInfo({"rss_swap"}, "5"));
    m.asyncTriggerUpdate(payload(0x1001, 0, 0));
    m.asyncTriggerUpdate(payload(0x1001, 0, 42));
    m.start();
    EXPECT_EQ(source.calls.load(), 0);
    EXPECT_TRUE(sleep.sleeps().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MemoryRun, EndpointOf2400MsPicksEachFieldsValueOfSample8) {
    // 1000 kB until sample 7 doubles it (change at 2400 ms), then a slow creep within bounds.
    ScriptedStats source([](int i) {
        int64_t total = i < 7 ? 1000 : 2000 + (i - 7);
        return stats(total - 300, 300, 10 * i);
    });
    ScriptedSleep sleep;
    MemoryMeter m(makeInfo({"rss_swap", "ion_tesk"}, "40"));
    m.asyncTriggerUpdate(payload(0x1001, 0, 4321));
    m.start();
    EXPECT_EQ(source.lastPid.load(), 4321);
    EXPECT_EQ(source.calls.load(), 36);  // the 28th sample after the change ends it
    EXPECT_EQ(sleep.sleeps(), std::vector<uint32_t>(35, 300000));
    EXPECT_EQ(fieldAt(m, 0)->mResults[0], 2001);
    EXPECT_EQ(fieldAt(m, 1)->mResults[0], 80);
    EXPECT_EQ(fieldAt(m, 1)->mMemoryValues[35], 350);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MemoryRun, IonOnlyNeverFindsAnEndpointAndTakesEverySample) {
    ScriptedStats source([](int i) { return stats(5000 * i, 0, 7 + i); });
    ScriptedSleep sleep;
    MemoryMeter m(makeInfo({"ion_tesk"}, "5"));
    m.asyncTriggerUpdate(payload(0x1001, 0, 9));
    m.start();
    EXPECT_EQ(source.calls.load(), 5);
    EXPECT_EQ(sleep.sleeps().size(), 5u);
    EXPECT_EQ(m.mElapsedMs, 0);
    EXPECT_EQ(fieldAt(m, 0)->mResults[0], 0);
    EXPECT_EQ(fieldAt(m, 0)->mMemoryValues[4], 11);
}

TEST_F(MemoryRun, SumIsTakenIn32Bits) {
    ScriptedStats source([](int i) {
        return i == 0 ? stats(INT64_C(1) << 32, 1000, 0) : stats(INT64_C(1) << 30, 0, 0);
    });
    ScriptedSleep sleep;
    // Sample 0: 2^32 + 1000 per field sums to 2000; sample 1: 2 × 2^30 reads negative, skipped.
    MemoryMeter m(makeInfo({"rss_swap", "rss_swap"}, "2"));
    m.asyncTriggerUpdate(payload(0x1001, 0, 9));
    m.start();
    EXPECT_EQ(source.calls.load(), 2);
    EXPECT_EQ(m.mBaseline, 2000);
    EXPECT_EQ(m.mElapsedMs, 300);
}

TEST_F(MemoryRun, ZeroSamplesTakesNothing) {
    ScriptedStats source([](int) { return stats(1, 1, 1); });
    ScriptedSleep sleep;
    MemoryMeter m(makeInfo({"rss_swap"}, nullptr));
    m.asyncTriggerUpdate(payload(0x1001, 0, 9));
    m.start();
    EXPECT_EQ(source.calls.load(), 0);
    EXPECT_TRUE(sleep.sleeps().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MemoryRun, EventsBeforeStart) {
    ScriptedStats source([](int) { return stats(1000, 0, 0); });
    ScriptedSleep sleep;
    MemoryMeter m(makeInfo({"rss_swap"}, "4"));
    m.asyncTriggerUpdate(payload(0x1001, 0, 9));
    m.asyncTriggerUpdate(payload(0, -1));
    m.start();
    EXPECT_EQ(source.calls.load(), 0) << "a pending stop ends the run at the first poll";

    m.asyncTriggerUpdate(payload(0x1043, 0));
    EXPECT_FALSE(m.hasStopNotification());
    m.start();
    EXPECT_EQ(source.calls.load(), 4) << "start() forgets earlier 0x1043 events";
    EXPECT_EQ(m.mTriggerCount.load(), 0);
}

TEST_F(MemoryRun, EventsFromTheHostThreadEndTheRunAtTheNextPoll) {
    struct Case {
        AsyncTriggerPayload event;
        bool stopped;
    };
    for (const Case& c : {Case{payload(0, -1), true}, Case{payload(0x1043, 0), false}}) {
        ScriptedStats source([](int i) { return stats(i < 3 ? 1000 : 2000, 0, 0); });
        MemoryMeter m(makeInfo({"rss_swap"}, "60"));
        m.asyncTriggerUpdate(payload(0x1001, 0, 9));
        EventThread host(m);
        ScriptedSleep sleep([&](int index, uint32_t) {
            if (index == 4)
                host.deliver(c.event);
        });
        m.start();
        EXPECT_EQ(source.calls.load(), 5);
        EXPECT_EQ(m.hasStopNotification(), c.stopped);
        EXPECT_EQ(fieldAt(m, 0)->mResults[0], 0) << "no endpoint, no result";
    }
}

TEST_F(MemoryRun, StopPostedAsynchronouslyIsSeenWhileSampling) {
    ScriptedStats source([](int) { return stats(1000, 0, 0); });
    MemoryMeter m(makeInfo({"rss_swap"}, "100000"));
    m.asyncTriggerUpdate(payload(0x1001, 0, 9));
    EventThread host(m);
    ScriptedSleep sleep([&](int index, uint32_t) {
        if (index == 2)
            host.post(payload(0, -1));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    m.start();
    EXPECT_GE(source.calls.load(), 3);
    EXPECT_LT(source.calls.load(), 100000);
    EXPECT_TRUE(m.hasStopNotification());
}

TEST_F(MemoryRun, SamplesARealProcessThroughTheHostsOwnStatistics) {
    ScriptedSleep sleep;
    MemoryMeter m(makeInfo({"rss_swap"}, "3"));
    m.asyncTriggerUpdate(payload(0x1001, 0, static_cast<int32_t>(getpid())));
    m.start();
    for (int i = 0; i < 3; ++i)
        EXPECT_GT(fieldAt(m, 0)->mMemoryValues[i], 0) << i;
    EXPECT_EQ(m.mElapsedMs, 900);
}
