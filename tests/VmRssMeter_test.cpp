// VmRssMeter: the end-point detector as a state machine, the status-file and pid-hunt readers,
// and whole runs of start() against fixture trees (and once against a real process).
#include "VmRssMeter.h"

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DumpData.h"
#include "RegistryBase.h"
#include "TestSupport.h"

extern char** environ;

using testsupport::clearProperty;
using testsupport::FailNothrowNew;
using testsupport::FixtureRoot;
using testsupport::LogCapture;
using testsupport::ScriptedSleep;

namespace {

constexpr char kApp[] = "com.example.app";
constexpr char kCsvProperty[] = "debug.vendor.tarn.enable.zq_csv_dump";
constexpr char kCsvPath[] = "/data/vendor/zq/com.example.app_vmrss.csv";
constexpr uint32_t kHunt = 0x1043;
constexpr uint32_t kStop = 0x1002;

MeterInfo infoWith(int numSamples) {
    MeterInfo info;
    info.name = "VmRss";
    info.numSamples = numSamples;
    return info;
}

AsyncTriggerPayload event(uint32_t hintId, int32_t hintType = 0) {
    AsyncTriggerPayload p;
    p.hintId = hintId;
    p.hintType = hintType;
    return p;
}

AsyncTriggerPayload launchEvent(const std::string& app, int32_t budgetMs) {
    AsyncTriggerPayload p = event(0x1081);
    p.appName = app;
    p.intArgs[0] = budgetMs;
    return p;
}

// A status file shaped like the kernel's, with the two fields the meter adds up.
std::string statusText(int rssAnon, int vmSwap) {
    std::ostringstream s;
    s << "Name:\tcom.example.app\nUmask:\t0077\nState:\tS (sleeping)\nTgid:\t200\nPid:\t200\n"
      << "VmPeak:\t 9000000 kB\nVmSize:\t 8800000 kB\nVmRSS:\t  " << rssAnon + 40000 << " kB\n"
      << "RssAnon:\t  " << rssAnon << " kB\nRssFile:\t   40000 kB\nRssShmem:\t     512 kB\n"
      << "VmData:\t 1200000 kB\nVmSwap:\t    " << vmSwap << " kB\nThreads:\t42\n";
    return s.str();
}

int vmRssOf(VmRssMeter& meter, const std::string& text) {
    FILE* f = tmpfile();
    fwrite(text.data(), 1, text.size(), f);
    rewind(f);
    int v = meter.getProcessVmRss(f);
    fclose(f);
    return v;
}

// Whether FailNothrowNew takes effect in this build (the thread sanitizer's runtime owns the
// allocation operators). Called through a pointer so the allocation is not optimised out.
bool nothrowArrayNewCanFail() {
    void* (*volatile allocate)(std::size_t, const std::nothrow_t&) noexcept = &::operator new[];
    void* p;
    {
        FailNothrowNew fail;
        p = allocate(sizeof(int32_t), std::nothrow);
    }
    ::operator delete[](p);
    return p == nullptr;
}

// Hands events to a second thread, the host's event thread, and waits until each is delivered,
// so the run sees it at a known cycle.
class EventThread {
  public:
    explicit EventThread(VmRssMeter& meter)
        : mThread([this, &meter] {
              std::unique_lock<std::mutex> lock(mMutex);
              for (;;) {
                  mCv.wait(lock, [this] { return mQuit || mPending != nullptr; });
                  if (mPending == nullptr)
                      return;
                  AsyncTriggerPayload p = *mPending;
                  lock.unlock();
                  meter.asyncTriggerUpdate(p);
                  lock.lock();
                  mPending = nullptr;
                  mCv.notify_all();
              }
          }) {}
    ~EventThread() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mQuit = true;
        }
        mCv.notify_all();
        mThread.join();
    }
    void deliver(const AsyncTriggerPayload& p) {
        std::unique_lock<std::mutex> lock(mMutex);
        mPending = &p;
        mCv.notify_all();
        mCv.wait(lock, [this] { return mPending == nullptr; });
    }

  private:
    std::mutex mMutex;
    std::condition_variable mCv;
    const AsyncTriggerPayload* mPending = nullptr;
    bool mQuit = false;
    std::thread mThread;
};

}  // namespace

// --- end-point detector ------------------------------------------------------------------------

TEST(VmRssDetector, GrowthBeyondDoubleIsTheOnlySignificantChange) {
    VmRssMeter m(infoWith(8));
    EXPECT_EQ(m.detectLaunchEndpoint(100000), 0);
    EXPECT_EQ(m.detectLaunchEndpoint(150000), 0);  // 50000/100000 divides to 0
    EXPECT_EQ(m.mEndpointMs, 0);
    EXPECT_EQ(m.mMax, 150000);
    EXPECT_EQ(m.detectLaunchEndpoint(210000), 0);  // 100 percent: a change
    EXPECT_EQ(m.mEndpointMs, 900);
    EXPECT_EQ(m.mElapsedMs, 0);
    EXPECT_EQ(m.mBaseline.load(), 210000);
    EXPECT_EQ(m.mMin, 210000);
    EXPECT_EQ(m.mMax, 210000);

    VmRssMeter coarse(infoWith(8));
    for (int v : {100, 115, 115})
        EXPECT_EQ(coarse.detectLaunchEndpoint(v), 0);
    EXPECT_EQ(coarse.mEndpointMs, 0);
    EXPECT_EQ(coarse.mElapsedMs, 900);
    EXPECT_EQ(coarse.mBaseline.load(), 100);
    EXPECT_EQ(coarse.mMax, 115);
}

TEST(VmRssDetector, ShrinkToUnderHalfCountsThroughTheRange) {
    VmRssMeter m(infoWith(8));
    m.detectLaunchEndpoint(100);
    m.detectLaunchEndpoint(60);  // range 40/60 and drift -40/100 both divide to 0
    EXPECT_EQ(m.mEndpointMs, 0);
    EXPECT_EQ(m.mMin, 60);
    m.detectLaunchEndpoint(40);  // range 60/40 = 1 -> 100 percent; drift still 0
    EXPECT_EQ(m.mEndpointMs, 900);
    EXPECT_EQ(m.mBaseline.load(), 40);
}

TEST(VmRssDetector, BudgetReturnsLastChangeOnceStableLongerThanIt) {
    VmRssMeter m(infoWith(8));
    for (int v : {100000, 150000, 210000})
        m.detectLaunchEndpoint(v);
    for (int i = 1; i <= 27; ++i)  // 27 x 300 = 8100 is not yet longer than the budget
        ASSERT_EQ(m.detectLaunchEndpoint(210000), 0) << i;
    EXPECT_EQ(m.detectLaunchEndpoint(210000), 900);

    VmRssMeter steady(infoWith(8));
    steady.mMaxDurationMs = 0;
    EXPECT_EQ(steady.detectLaunchEndpoint(5000), 0);  // over budget, but no change yet
    EXPECT_EQ(steady.mElapsedMs, 300);
}

TEST(VmRssDetector, HuntEventRebasesAndReturnsLastChange) {
    VmRssMeter m(infoWith(8));
    m.detectLaunchEndpoint(100000);
    m.asyncTriggerUpdate(event(kHunt));
    EXPECT_EQ(m.detectLaunchEndpoint(105000), 0);  // no change yet: the run goes on
    EXPECT_EQ(m.mBaseline.load(), 105000);
    EXPECT_EQ(m.mMin, 100000);
    EXPECT_EQ(m.detectLaunchEndpoint(300000), 900);
    EXPECT_EQ(m.mBaseline.load(), 300000);
    EXPECT_EQ(m.detectLaunchEndpoint(0), 900);  // a zero sample only counts time
    EXPECT_EQ(m.mBaseline.load(), 0);
    EXPECT_EQ(m.mElapsedMs, 300);
}

TEST(VmRssDetector, ProductGuardMakesHugeJumpsInsignificant) {
    VmRssMeter fits(infoWith(8));
    fits.detectLaunchEndpoint(1);
    fits.detectLaunchEndpoint(21474837);  // quotient 21474836: 2147483600 percent
    EXPECT_EQ(fits.mEndpointMs, 600);

    VmRssMeter over(infoWith(8));
    over.detectLaunchEndpoint(1);
    over.detectLaunchEndpoint(21474838);  // quotient 21474837 overflows: 1 percent
    EXPECT_EQ(over.mEndpointMs, 0);
    EXPECT_EQ(over.mBaseline.load(), 1);
    EXPECT_EQ(over.mMax, 21474838);

    VmRssMeter negFits(infoWith(8));
    negFits.detectLaunchEndpoint(-1);
    negFits.detectLaunchEndpoint(21474835);  // quotient -21474836
    EXPECT_EQ(negFits.mEndpointMs, 600);

    VmRssMeter negOver(infoWith(8));
    negOver.detectLaunchEndpoint(-1);
    negOver.detectLaunchEndpoint(21474836);  // quotient -21474837
    EXPECT_EQ(negOver.mEndpointMs, 0);
}

TEST(VmRssDetector, ZeroMinimumAndOverflowingDifferenceCountAsNoChange) {
    VmRssMeter zeroMin(infoWith(8));
    zeroMin.mBaseline = 1000;
    zeroMin.detectLaunchEndpoint(1000);  // mMin 0: the range quotient is 0
    EXPECT_EQ(zeroMin.mEndpointMs, 0);
    EXPECT_EQ(zeroMin.mMin, 0);
    EXPECT_EQ(zeroMin.mMax, 1000);

    // Wrapped, these differences would divide to 2147482: a change.
    VmRssMeter wide(infoWith(8));
    wide.mBaseline = -1000;
    wide.mMin = -1000;
    wide.mMax = -1000;
    wide.detectLaunchEndpoint(INT_MAX - 100);
    EXPECT_EQ(wide.mEndpointMs, 0);
    EXPECT_EQ(wide.mBaseline.load(), -1000);
    EXPECT_EQ(wide.mMax, INT_MAX - 100);
}

// --- readers -----------------------------------------------------------------------------------

TEST(VmRssReaders, FieldValueIsAtoiAfterTheFirstKey) {
    VmRssMeter m(infoWith(1));
    char line[] = "xRssAnon:\t 1234 kB RssAnon: 9";
    EXPECT_EQ(m.getFieldValue(line, "RssAnon:"), 1234);
    EXPECT_EQ(m.getFieldValue(line, "VmSwap:"), -1);
    EXPECT_EQ(m.getFieldValue(nullptr, "RssAnon:"), -1);
    EXPECT_EQ(m.getFieldValue(line, nullptr), -1);
    char bare[] = "VmSwap:";
    EXPECT_EQ(m.getFieldValue(bare, "VmSwap:"), 0);
}

TEST(VmRssReaders, SampleIsRssAnonPlusVmSwap) {
    VmRssMeter m(infoWith(1));
    EXPECT_EQ(m.getProcessVmRss(nullptr), -1);
    EXPECT_EQ(vmRssOf(m, statusText(51200, 800)), 52000);
    EXPECT_EQ(vmRssOf(m, "RssAnon: 10 kB\nVmSwap: 2 kB\nRssAnon: 99 kB\n"), 12);
    // Reading stops at the second counted key, whichever it is.
    EXPECT_EQ(vmRssOf(m, "RssAnon: 10\nRssAnon: 20\nVmSwap: 5\n"), 19);
    // One key per piece, RssAnon first: a piece holding both counts only its RssAnon.
    EXPECT_EQ(vmRssOf(m, "RssAnon: 5 VmSwap: 7\nVmSwap: 1\n"), 6);
    // Keys anywhere in the piece; the sum wraps instead of overflowing.
    EXPECT_EQ(vmRssOf(m, "xxRssAnon: 2147483647\nfoo VmSwap: 1\n"), INT_MIN);
}

TEST(VmRssReaders, MissingOrNegativeFieldsFallBackToRssAnon) {
    VmRssMeter m(infoWith(1));
    EXPECT_EQ(vmRssOf(m, "RssAnon: 700 kB\n"), 700);
    EXPECT_EQ(vmRssOf(m, "VmSwap: 5 kB\n"), -1);
    EXPECT_EQ(vmRssOf(m, ""), -1);
    EXPECT_EQ(vmRssOf(m, "RssAnon: -5 kB\nVmSwap: 3 kB\n"), -1);
    EXPECT_EQ(vmRssOf(m, "RssAnon: 7 kB\nVmSwap: -3 kB\n"), 7);
    EXPECT_EQ(vmRssOf(m, "RssAnon: 7 kB\nVmSwap: -3 kB\nVmSwap: 4 kB\n"), 11);
}

TEST(VmRssReaders, StatusIsReadIn150BytePieces) {
    VmRssMeter m(infoWith(1));
    // 145 + "RssA" fills the first piece: the key is split and never seen.
    EXPECT_EQ(vmRssOf(m, std::string(145, 'x') + "RssAnon: 77 kB\nVmSwap: 3 kB\n"), -1);
    // 149 bytes exactly: the key starts the next piece and is found.
    EXPECT_EQ(vmRssOf(m, std::string(149, 'x') + "RssAnon: 77 kB\nVmSwap: 3 kB\n"), 80);
}

TEST(VmRssReaders, PidHuntTakesFirstTaskInFileOrderWithExactName) {
    FixtureRoot root;
    VmRssMeter m(infoWith(1));
    std::string app = kApp;
    root.addFile("/dev/cpuset/top-app/tasks", "300 200\n100\n");
    root.addFile("/proc/300/cmdline", std::string("com.example.app.extra\0", 22));
    root.addFile("/proc/200/cmdline", std::string("com.example.app\0--flag\0", 23));
    root.addFile("/proc/100/cmdline", std::string("com.example.app\0", 16));
    EXPECT_EQ(m.getPidExpensive(app), 200);

    root.addFile("/dev/cpuset/top-app/tasks", "300\n400\n500\n100\n");
    root.addFile("/proc/400/cmdline", "");                  // empty: skipped
    root.addFile("/proc/500/cmdline", "com.example.ap\0");  // shorter: no match
    EXPECT_EQ(m.getPidExpensive(app), 100);

    root.addFile("/dev/cpuset/top-app/tasks", "300\nabc\n100\n");  // reading stops at garbage
    EXPECT_EQ(m.getPidExpensive(app), -1);
    root.remove("/dev/cpuset/top-app/tasks");
    EXPECT_EQ(m.getPidExpensive(app), -1);
}

TEST(VmRssReaders, GetPidRetriesFiveTimes200MsApart) {
    FixtureRoot root;
    VmRssMeter m(infoWith(1));
    AsyncTriggerPayload p = launchEvent(kApp, 0);
    {
        ScriptedSleep sleep;
        EXPECT_EQ(m.getPid(nullptr), 0);
        EXPECT_EQ(m.getPid(&p), -1);
        EXPECT_EQ(sleep.sleeps(), std::vector<uint32_t>(5, 200000));
    }
    root.addFile("/proc/42/cmdline", std::string("com.example.app\0", 16));
    ScriptedSleep sleep([&](int index, uint32_t) {
        if (index == 2)
            root.addFile("/dev/cpuset/top-app/tasks", "42\n");
    });
    EXPECT_EQ(m.getPid(&p), 42);
    EXPECT_EQ(sleep.sleeps().size(), 3u);
}

// --- object state ------------------------------------------------------------------------------

TEST(VmRssState, ConstructorsInitAndAllocationFailure) {
    VmRssMeter m(infoWith(4));
    EXPECT_EQ(m.mNumSamples, 4);
    EXPECT_EQ(m.mMaxDurationMs, 8100);
    EXPECT_NE(m.mVmRssValues, nullptr);

    VmRssMeter byName("VmRss", 3, {"ignored"});
    EXPECT_EQ(byName.mNumSamples, 3);
    EXPECT_NE(byName.mVmRssValues, nullptr);
    VmRssMeter empty("VmRss", 0, {});
    EXPECT_EQ(empty.mVmRssValues, nullptr);

    // Init leaves the old array to its holder; writing it proves it was not freed.
    int32_t* old = m.mVmRssValues;
    m.mLaunchEndpoint = 5;
    m.mMaxDurationMs = 1;
    m.mSampleCount = 2;
    m.mAborted = true;
    m.asyncTriggerUpdate(event(kHunt));
    m.Init();
    EXPECT_NE(m.mVmRssValues, old);
    old[0] = 1;
    delete[] old;
    EXPECT_EQ(m.mLaunchEndpoint.load(), 0);
    EXPECT_EQ(m.mMaxDurationMs, 8100);
    EXPECT_EQ(m.mSampleCount, 0);
    EXPECT_FALSE(m.mAborted);
    EXPECT_EQ(m.mTriggerCount, 0);
}

TEST(VmRssState, FailedArrayAllocationIsLoggedAndTolerated) {
    if (!nothrowArrayNewCanFail())
        GTEST_SKIP() << "the allocation switch has no effect in this build";
    LogCapture log;
    {
        FailNothrowNew fail;
        VmRssMeter noArray(infoWith(4));
        EXPECT_EQ(noArray.mVmRssValues, nullptr);
        noArray.mNumSamples = 2;
        noArray.Init();
        EXPECT_EQ(noArray.mVmRssValues, nullptr);
    }
    EXPECT_EQ(log.records(), std::vector<std::string>(
                                 2, "6|ANDR-PERF-ZQ|VmRssMeter:: Init() 95: Failed mVmRssValues "));
}

TEST(VmRssState, EventsAreQueuedAndCountedAndResetClearsTheRun) {
    VmRssMeter m(infoWith(4));
    AsyncTriggerPayload launch = launchEvent(kApp, 1200);
    launch.values = {1, 2};
    launch.longArg = 77;
    m.asyncTriggerUpdate(launch);
    m.asyncTriggerUpdate(event(kHunt));
    m.asyncTriggerUpdate(event(kHunt, -1));  // hintType is not looked at
    m.asyncTriggerUpdate(event(0x1001));
    m.asyncTriggerUpdate(event(0x1004));
    EXPECT_EQ(m.mTriggerCount, 2);
    EXPECT_FALSE(m.mStopRequested);
    m.asyncTriggerUpdate(event(kStop));
    EXPECT_TRUE(m.mStopRequested);
    EXPECT_FALSE(m.hasStopNotification());
    m.asyncTriggerUpdate(event(0, -1));
    EXPECT_TRUE(m.hasStopNotification());

    std::vector<AsyncTriggerPayload> queued;
    m.getAsyncUpdates(queued);
    ASSERT_EQ(queued.size(), 7u);
    EXPECT_EQ(queued[0].appName, kApp);
    EXPECT_EQ(queued[0].intArgs[0], 1200);
    EXPECT_EQ(queued[0].values, (std::vector<int32_t>{1, 2}));
    EXPECT_EQ(queued[0].longArg, 77);

    for (int v : {100, 300, 300})
        m.detectLaunchEndpoint(v);
    m.mSampleCount = 3;
    m.mLaunchEndpoint = 600;
    m.mAborted = true;
    m.mMaxDurationMs = 1200;
    int32_t* array = m.mVmRssValues;
    m.Reset();
    EXPECT_EQ(m.mSampleCount, 0);
    EXPECT_EQ(m.mElapsedMs, 0);
    EXPECT_EQ(m.mEndpointMs, 0);
    EXPECT_EQ(m.mBaseline.load(), 0);
    EXPECT_EQ(m.mLaunchEndpoint.load(), 0);
    EXPECT_EQ(m.mMin, 0);
    EXPECT_EQ(m.mMax, 0);
    EXPECT_FALSE(m.mAborted);
    EXPECT_EQ(m.mTriggerCount, 0);
    EXPECT_FALSE(m.mStopRequested);
    EXPECT_EQ(m.mMaxDurationMs, 1200);
    EXPECT_EQ(m.mVmRssValues, array);
}

TEST(VmRssState, RegisteredUnderVmRss) {
    using Reg = RegistryBase<Meter, MeterInfo>;
    Reg::Factory factory = nullptr;
    {
        std::lock_guard<std::mutex> lock(Reg::mMutex);
        ASSERT_NE(Reg::classList, nullptr);
        auto it = Reg::classList->find("VmRss");
        ASSERT_NE(it, Reg::classList->end());
        factory = it->second;
    }
    EXPECT_TRUE(VmRssMeter::registerMeter);
    std::unique_ptr<Meter> meter(factory(infoWith(6)));
    auto* vmrss = dynamic_cast<VmRssMeter*>(meter.get());
    ASSERT_NE(vmrss, nullptr);
    EXPECT_EQ(vmrss->mNumSamples, 6);
}

// --- runs of start() ---------------------------------------------------------------------------

class VmRssRun : public ::testing::Test {
  protected:
    void SetUp() override {
        DumpData::mEnableCSV = -1;
        root.addFile("/dev/cpuset/top-app/tasks", "100\n200\n");
        root.addFile("/proc/100/cmdline", std::string("com.other\0", 10));
        root.addFile("/proc/200/cmdline", std::string("com.example.app\0", 16));
    }
    void TearDown() override {
        clearProperty(kCsvProperty);
        DumpData::mEnableCSV = -1;
    }
    void enableCsv() {
        property_set(kCsvProperty, "1");
        root.addDir("/data/vendor/zq");
    }
    void setSample(int total) { root.addFile("/proc/200/status", statusText(total - 800, 800)); }
    // Sample k (totals in kB) is what the status file says at the k-th cycle; atCycle(k) runs in
    // the sleep after sample k.
    void script(std::vector<int> totals, std::function<void(int)> atCycle = nullptr) {
        setSample(totals[0]);
        sleep.reset();  // its destructor clears the hook: drop it before installing the next
        sleep = std::make_unique<ScriptedSleep>([this, totals, atCycle](int, uint32_t us) {
            if (us != 300000)
                return;
            int k = cycles++;
            setSample(totals[std::min<size_t>(k + 1, totals.size() - 1)]);
            if (atCycle)
                atCycle(k);
        });
    }
    std::vector<uint32_t> expectedSleeps(int cycleSleeps, int huntSleeps = 1) {
        std::vector<uint32_t> s(huntSleeps, 200000);
        s.insert(s.end(), cycleSleeps, 300000);
        return s;
    }

    FixtureRoot root;
    LogCapture log;
    std::unique_ptr<ScriptedSleep> sleep;
    int cycles = 0;
};

TEST_F(VmRssRun, EndpointFoundAfterGrowthSettlesAndSeriesIsDumped) {
    enableCsv();
    VmRssMeter m(infoWith(20));
    m.asyncTriggerUpdate(launchEvent(kApp, 900));
    m.asyncTriggerUpdate(launchEvent("com.later", 5));  // only the first payload counts
    script({100000, 150000, 210000, 210000});
    m.start();
    EXPECT_EQ(m.mLaunchEndpoint.load(), 900);
    EXPECT_FALSE(m.mAborted);
    EXPECT_EQ(m.mSampleCount, 7);
    EXPECT_EQ(sleep->sleeps(), expectedSleeps(6));
    EXPECT_EQ(root.read(kCsvPath),
              "com.example.app,duration=900,100000,150000,210000,210000,210000,210000,210000,\n");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VmRssRun, SteadyMemoryAndZeroBudgetEndWithEndpointZeroAndAreDumped) {
    enableCsv();
    VmRssMeter m(infoWith(20));
    m.asyncTriggerUpdate(launchEvent(kApp, 600));
    script({50000});
    m.start();
    EXPECT_EQ(m.mLaunchEndpoint.load(), 0);
    EXPECT_EQ(sleep->sleeps(), expectedSleeps(2));
    EXPECT_EQ(root.read(kCsvPath), "com.example.app,duration=0,50000,50000,50000,\n");

    VmRssMeter zero(infoWith(20));
    zero.asyncTriggerUpdate(launchEvent(kApp, 0));
    zero.start();
    EXPECT_EQ(zero.mSampleCount, 1);
    EXPECT_EQ(root.read(kCsvPath),
              "com.example.app,duration=0,50000,50000,50000,\ncom.example.app,duration=0,50000,\n");
}

TEST_F(VmRssRun, SampleBoundEndsTheRun) {
    enableCsv();
    VmRssMeter m(infoWith(3));
    m.asyncTriggerUpdate(launchEvent(kApp, 8100));
    script({1000, 1001, 1002});
    m.start();
    EXPECT_EQ(m.mSampleCount, 3);
    EXPECT_EQ(sleep->sleeps(), expectedSleeps(3));
    EXPECT_EQ(root.read(kCsvPath), "com.example.app,duration=0,1000,1001,1002,\n");
}

TEST_F(VmRssRun, HuntEventEndsTheRunAtTheLastChange) {
    enableCsv();
    VmRssMeter m(infoWith(20));
    m.asyncTriggerUpdate(launchEvent(kApp, 8100));
    script({100000, 150000, 210000, 211000}, [&](int k) {
        if (k == 3)
            m.asyncTriggerUpdate(event(kHunt));
    });
    m.start();
    EXPECT_EQ(m.mLaunchEndpoint.load(), 900);
    EXPECT_EQ(m.mSampleCount, 5);
    EXPECT_EQ(m.mBaseline.load(), 211000);
    EXPECT_EQ(root.read(kCsvPath),
              "com.example.app,duration=900,100000,150000,210000,211000,211000,\n");
}

TEST_F(VmRssRun, StopEventsAbortWithoutDump) {
    enableCsv();
    for (AsyncTriggerPayload stop : {event(0, -1), event(kStop)}) {
        VmRssMeter m(infoWith(20));
        m.asyncTriggerUpdate(launchEvent(kApp, 8100));
        cycles = 0;
        script({100000}, [&](int k) {
            if (k == 1)
                m.asyncTriggerUpdate(stop);
        });
        m.start();
        EXPECT_TRUE(m.mAborted);
        EXPECT_EQ(m.mSampleCount, 2);
        EXPECT_FALSE(root.exists(kCsvPath));

        // The next run starts afresh: a 0x1002 of the last run no longer stops it.
        if (stop.hintId == kStop) {
            cycles = 0;
            script({100000});
            m.start();
            EXPECT_FALSE(m.mAborted);
            EXPECT_EQ(m.mSampleCount, 20);
        }
    }
}

TEST_F(VmRssRun, ProcessGoneAbortsWithoutDump) {
    enableCsv();
    VmRssMeter m(infoWith(20));
    m.asyncTriggerUpdate(launchEvent(kApp, 8100));
    script({100000}, [&](int k) {
        if (k == 1)
            root.addFile("/proc/200/status", "Name:\tcom.example.app\nState:\tZ (zombie)\n");
    });
    m.start();
    EXPECT_TRUE(m.mAborted);
    EXPECT_EQ(m.mSampleCount, 2);
    EXPECT_FALSE(root.exists(kCsvPath));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VmRssRun, EarlyExitsLogOnceAndDumpNothing) {
    enableCsv();
    {
        ScriptedSleep s;
        VmRssMeter none(infoWith(20));
        none.start();
        EXPECT_TRUE(s.sleeps().empty());
    }
    root.addFile("/proc/200/cmdline", "");
    {
        ScriptedSleep s;
        VmRssMeter noPid(infoWith(20));
        noPid.asyncTriggerUpdate(launchEvent(kApp, 8100));
        noPid.start();
        EXPECT_EQ(s.sleeps(), expectedSleeps(0, 5));
    }
    EXPECT_EQ(log.records(),
              (std::vector<std::string>{
                  "6|ANDR-PERF-ZQ|VmRssMeter:: start() 348: Async Data NULL",
                  "6|ANDR-PERF-ZQ|VmRssMeter:: start() 359: Could not find pid, can not collect "
                  "vmrss data"}));
    EXPECT_FALSE(root.exists(kCsvPath));
}

TEST_F(VmRssRun, NoSamplesTakenWithZeroQuotaOrNoStatusFile) {
    enableCsv();
    script({100000});
    VmRssMeter zero(infoWith(0));
    zero.asyncTriggerUpdate(launchEvent(kApp, 8100));
    zero.start();
    EXPECT_EQ(zero.mSampleCount, 0);
    EXPECT_EQ(sleep->sleeps(), expectedSleeps(0));

    root.remove("/proc/200/status");
    VmRssMeter noStatus(infoWith(20));
    noStatus.asyncTriggerUpdate(launchEvent(kApp, 8100));
    noStatus.start();
    EXPECT_EQ(noStatus.mSampleCount, 0);
    EXPECT_FALSE(noStatus.mAborted);
    EXPECT_FALSE(root.exists(kCsvPath));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VmRssRun, WithoutSampleArrayTheEndpointIsStillFound) {
    if (!nothrowArrayNewCanFail())
        GTEST_SKIP() << "the allocation switch has no effect in this build";
    enableCsv();
    std::unique_ptr<VmRssMeter> m;
    {
        FailNothrowNew fail;
        m.reset(new VmRssMeter(infoWith(20)));
    }
    m->asyncTriggerUpdate(launchEvent(kApp, 900));
    script({100000, 150000, 210000, 210000});
    m->start();
    EXPECT_EQ(m->mLaunchEndpoint.load(), 900);
    EXPECT_EQ(m->mSampleCount, 0);
    EXPECT_FALSE(root.exists(kCsvPath));
}

TEST_F(VmRssRun, EventsFromTheHostThreadDuringTheRun) {
    enableCsv();
    VmRssMeter m(infoWith(20));
    m.asyncTriggerUpdate(launchEvent(kApp, 8100));
    std::atomic<bool> done{false};
    std::atomic<int> lastSeen{0};
    std::thread reader([&] {  // the host may read the result at any time
        while (!done.load()) {
            lastSeen.store(m.mLaunchEndpoint.load());
            (void)m.mBaseline.load();
        }
    });
    {
        EventThread host(m);
        script({100000, 150000, 210000, 210000}, [&](int k) {
            if (k == 4)
                host.deliver(event(kHunt));
        });
        m.start();
    }
    done.store(true);
    reader.join();
    EXPECT_TRUE(lastSeen.load() == 0 || lastSeen.load() == 900);
    EXPECT_EQ(m.mLaunchEndpoint.load(), 900);
    EXPECT_EQ(m.mSampleCount, 6);
    EXPECT_EQ(root.read(kCsvPath),
              "com.example.app,duration=900,100000,150000,210000,210000,210000,210000,\n");

    VmRssMeter stopped(infoWith(20));
    stopped.asyncTriggerUpdate(launchEvent(kApp, 8100));
    {
        EventThread host(stopped);
        cycles = 0;
        script({100000}, [&](int k) {
            if (k == 2)
                host.deliver(event(kStop));
        });
        stopped.start();
    }
    EXPECT_TRUE(stopped.mAborted);
    EXPECT_EQ(stopped.mSampleCount, 3);
}

// A real process under a root whose /proc is the kernel's.
TEST_F(VmRssRun, RealProcessStatusIsParsedAndItsExitAbortsTheRun) {
    enableCsv();
    root.remove("/proc");
    root.addSymlink("/proc", "/proc");
    struct Probe {
        pid_t pid = 0;
        Probe() {
            const char* argv[] = {"vmrss-probe", "30", nullptr};
            if (posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, const_cast<char**>(argv),
                            environ) != 0) {
                pid = 0;
                return;
            }
            for (int i = 0; i < 500 && cmdline() != "vmrss-probe"; ++i)  // wait for the exec
                usleep(2000);
        }
        ~Probe() { end(); }
        void end() {
            if (pid > 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
                pid = 0;
            }
        }
        std::string cmdline() const {
            std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
            std::string name;
            std::getline(in, name, '\0');
            return name;
        }
        int rssAnonPlusSwap() const {
            std::ifstream in("/proc/" + std::to_string(pid) + "/status");
            std::string line;
            long sum = 0;
            while (std::getline(in, line)) {
                if (line.rfind("RssAnon:", 0) == 0 || line.rfind("VmSwap:", 0) == 0)
                    sum += std::stol(line.substr(line.find(':') + 1));
            }
            return static_cast<int>(sum);
        }
    } probe;
    ASSERT_GT(probe.pid, 0);
    ASSERT_EQ(probe.cmdline(), "vmrss-probe");
    root.addFile("/dev/cpuset/top-app/tasks", "1\n" + std::to_string(probe.pid) + "\n");

    // Three cycles: the rewound stream must keep reading the live file.
    VmRssMeter m(infoWith(4));
    m.asyncTriggerUpdate(launchEvent("vmrss-probe", 600));
    {
        ScriptedSleep s;
        m.start();
    }
    ASSERT_EQ(m.mSampleCount, 3);
    const int expected = probe.rssAnonPlusSwap();
    EXPECT_GT(expected, 0);
    std::string line = "vmrss-probe,duration=0,";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(m.mVmRssValues[i], expected) << i;
        line += std::to_string(m.mVmRssValues[i]) + ",";
    }
    line += "\n";
    EXPECT_EQ(root.read("/data/vendor/zq/vmrss-probe_vmrss.csv"), line);

    VmRssMeter gone(infoWith(20));
    gone.asyncTriggerUpdate(launchEvent("vmrss-probe", 8100));
    {
        ScriptedSleep s([&](int, uint32_t us) {
            if (us == 300000)
                probe.end();
        });
        gone.start();
    }
    EXPECT_TRUE(gone.mAborted);
    EXPECT_EQ(gone.mSampleCount, 1);
    EXPECT_EQ(root.read("/data/vendor/zq/vmrss-probe_vmrss.csv"), line);
}
