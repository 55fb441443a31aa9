// The stand-alone host: records, the Meter base, and the host services the meters call.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "AsyncEvent.h"
#include "FeatureLocator.h"
#include "Meter.h"
#include "StatsProvider.h"
#include "TestSupport.h"
#include "VendorIPerfDataStore.h"

using testsupport::FixtureRoot;

namespace {

// Exposes the base's protected state; measures nothing.
class ProbeMeter : public Meter {
  public:
    using Meter::Meter;
    void start() override {}
    std::vector<AsyncTriggerPayload>& pending() { return asyncUpdates; }
    void setStop(bool stop) { stopRequested = stop; }
};

AsyncTriggerPayload makePayload(uint32_t hintId, int32_t hintType, int seed) {
    AsyncTriggerPayload p;
    p.hintId = hintId;
    p.hintType = hintType;
    p.appName = "com.example.app" + std::to_string(seed);
    for (int i = 0; i < AsyncTriggerPayload::kNumIntArgs; ++i)
        p.intArgs[i] = seed * 100 + i;
    p.intArgs[1] = INT_MIN;
    p.intArgs[10] = INT_MAX;
    p.values = {seed, -seed, INT_MAX, INT_MIN};
    p.longArg = INT64_MIN + seed;
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

MeterInfo makeInfo() {
    MeterInfo info;
    info.name = "Memory";
    info.asyncInfos = {{4097, 1, 0}, {4098, -1, 2}, {4097, 0, 0}};
    info.fieldNames = {"rss_swap", "ion_tesk"};
    info.configs.max_load_factor(0.25f);
    info.configs = {{"TotalSamplesToRun", "40"}, {"FPS_NODE", "/sys/x"}};
    info.numSamples = 2000;
    return info;
}

}  // namespace

// --- records -----------------------------------------------------------------------------------

TEST(HostRecords, PayloadCopyKeepsEveryFieldAndIsIndependent) {
    const AsyncTriggerPayload original = makePayload(4225, 3, 7);
    AsyncTriggerPayload copy = original;
    expectSamePayload(copy, original);

    copy.appName += "x";
    copy.intArgs[10] = 0;
    copy.values.push_back(1);
    EXPECT_EQ(original.appName, "com.example.app7");
    EXPECT_EQ(original.intArgs[10], INT_MAX);
    EXPECT_EQ(original.values.size(), 4u);

    std::vector<AsyncTriggerPayload> stored;
    stored.push_back(original);
    expectSamePayload(stored[0], original);
}

TEST(HostRecords, MeterInfoCopyKeepsEveryMemberAndLoadFactor) {
    const MeterInfo original = makeInfo();
    MeterInfo copy = original;
    EXPECT_EQ(copy.name, original.name);
    EXPECT_EQ(copy.asyncInfos, original.asyncInfos);
    EXPECT_EQ(copy.asyncInfos.size(), 3u);
    EXPECT_EQ(copy.fieldNames, original.fieldNames);
    EXPECT_EQ(copy.configs, original.configs);
    EXPECT_FLOAT_EQ(copy.configs.max_load_factor(), 0.25f);
    EXPECT_EQ(copy.numSamples, 2000);

    copy.asyncInfos.insert({1, 1, 1});
    copy.fieldNames.push_back("more");
    copy.configs["TotalSamplesToRun"] = "1";
    EXPECT_EQ(original.asyncInfos.size(), 3u);
    EXPECT_EQ(original.fieldNames.size(), 2u);
    EXPECT_EQ(original.configs.at("TotalSamplesToRun"), "40");

    MeterInfo assigned;
    assigned = original;
    EXPECT_FLOAT_EQ(assigned.configs.max_load_factor(), 0.25f);
    EXPECT_EQ(assigned.configs, original.configs);

    const MeterInfo empty;
    const MeterInfo emptyCopy = empty;
    EXPECT_TRUE(emptyCopy.configs.empty());
    EXPECT_TRUE(emptyCopy.fieldNames.empty());
    EXPECT_EQ(emptyCopy.configs.max_load_factor(), empty.configs.max_load_factor());
}

// --- Meter base --------------------------------------------------------------------------------

TEST(HostMeter, GetAsyncUpdatesReplacesTheCallersVector) {
    ProbeMeter meter{makeInfo()};
    std::vector<AsyncTriggerPayload> out = {makePayload(1, 1, 1), makePayload(2, 2, 2)};
    meter.getAsyncUpdates(out);
    EXPECT_TRUE(out.empty()) << "empty pending list must leave the caller's vector empty";

    const AsyncTriggerPayload a = makePayload(4097, 0, 3);
    meter.asyncTriggerUpdate(a);
    out = {makePayload(1, 1, 1), makePayload(2, 2, 2)};
    meter.getAsyncUpdates(out);
    ASSERT_EQ(out.size(), 1u);
    expectSamePayload(out[0], a);

    // The pending list stays with the base and is handed out again.
    std::vector<AsyncTriggerPayload> again;
    meter.getAsyncUpdates(again);
    EXPECT_EQ(again.size(), 1u);
    EXPECT_EQ(meter.getAsyncUpdates(), &meter.pending());
}

TEST(HostMeter, GetAsyncUpdatesIntoItsOwnVectorIsANoOp) {
    ProbeMeter meter{makeInfo()};
    meter.asyncTriggerUpdate(makePayload(4097, 0, 1));
    meter.asyncTriggerUpdate(makePayload(4099, 0, 2));
    meter.getAsyncUpdates(meter.pending());
    ASSERT_EQ(meter.pending().size(), 2u);
    expectSamePayload(meter.pending()[1], makePayload(4099, 0, 2));
}

TEST(HostMeter, StopFlagFollowsEndOfActivityEvents) {
    std::string name = "VmRss";
    ProbeMeter meter(name);
    EXPECT_FALSE(meter.hasStopNotification());
    meter.asyncTriggerUpdate(makePayload(0, -1, 1));
    EXPECT_TRUE(meter.hasStopNotification());
    meter.asyncTriggerUpdate(makePayload(4225, 0, 2));
    EXPECT_FALSE(meter.hasStopNotification());
    meter.asyncTriggerUpdate(makePayload(0, 0, 3));
    EXPECT_FALSE(meter.hasStopNotification());
    meter.asyncTriggerUpdate(makePayload(4098, -1, 4));
    EXPECT_FALSE(meter.hasStopNotification()) << "only {0, -1} is the base's end of activity";

    // Derived meters write the flag themselves.
    meter.setStop(true);
    EXPECT_TRUE(meter.hasStopNotification());
    meter.setStop(false);
    EXPECT_FALSE(meter.hasStopNotification());
    EXPECT_EQ(meter.pending().size(), 4u);
}

TEST(HostMeter, EventsWhileAnotherThreadCopiesThePendingList) {
    ProbeMeter meter{makeInfo()};
    constexpr int kEvents = 2000;
    std::atomic<bool> done{false};
    std::thread producer([&] {
        for (int i = 0; i < kEvents; ++i) {
            AsyncTriggerPayload p;
            p.hintId = 4097;
            p.intArgs[0] = i;
            meter.asyncTriggerUpdate(p);
        }
        meter.asyncTriggerUpdate(makePayload(0, -1, 0));
        done = true;
    });

    std::vector<AsyncTriggerPayload> seen;
    size_t lastSize = 0;
    bool ordered = true;
    while (!done.load()) {
        meter.getAsyncUpdates(seen);
        (void)meter.hasStopNotification();
        if (seen.size() < lastSize)
            ordered = false;
        lastSize = seen.size();
        for (size_t i = 0; i < seen.size() && i < kEvents; ++i) {
            if (seen[i].intArgs[0] != static_cast<int>(i))
                ordered = false;
        }
    }
    producer.join();
    meter.getAsyncUpdates(seen);
    EXPECT_TRUE(ordered);
    ASSERT_EQ(seen.size(), static_cast<size_t>(kEvents + 1));
    EXPECT_EQ(seen[kEvents - 1].intArgs[0], kEvents - 1);
    EXPECT_TRUE(meter.hasStopNotification());
}

// --- StatsProvider -----------------------------------------------------------------------------

TEST(HostStatsProvider, ReadsVmRssAndVmSwapFromStatus) {
    FixtureRoot root;
    root.addFile("/proc/321/status",
                 "Name:\tapp\nVmPeak:\t  99999 kB\nVmRSS:\t   51200 kB\nVmSwap:\t     128 kB\n");
    root.addFile("/proc/322/status", "Name:\tkthread\nState:\tS\n");
    StatsProvider provider;
    const sysstats_task s = provider.getPIDStats(321);
    EXPECT_EQ(s.vm_rss_kb, 51200);
    EXPECT_EQ(s.vm_swap_kb, 128);
    EXPECT_EQ(s.gpu_mem_kb, 0);
    EXPECT_EQ(s.reserved1, 0);

    const sysstats_task none = provider.getPIDStats(322);
    EXPECT_EQ(none.vm_rss_kb, 0);
    EXPECT_EQ(none.vm_swap_kb, 0);
    const sysstats_task missing = provider.getPIDStats(999);
    EXPECT_EQ(std::memcmp(&missing, &none, sizeof(none)), 0);
    for (int64_t w : missing.reserved)
        EXPECT_EQ(w, 0);
}

TEST(HostStatsProvider, SourcesReplaceTheAnswerOrSupplyGpuMemory) {
    FixtureRoot root;
    root.addFile("/proc/5/status", "VmRSS:\t 10 kB\nVmSwap:\t 2 kB\n");
    StatsProvider::setGpuMemorySource([](int pid) { return int64_t{pid} * 1000; });
    EXPECT_EQ(StatsProvider().getPIDStats(5).gpu_mem_kb, 5000);
    EXPECT_EQ(StatsProvider().getPIDStats(5).vm_rss_kb, 10);

    StatsProvider::setStatsSource([](int pid) {
        sysstats_task t{};
        t.vm_rss_kb = pid + 1;
        t.reserved[12] = -1;
        return t;
    });
    const sysstats_task s = StatsProvider().getPIDStats(5);
    EXPECT_EQ(s.vm_rss_kb, 6);
    EXPECT_EQ(s.vm_swap_kb, 0);
    EXPECT_EQ(s.gpu_mem_kb, 0);
    EXPECT_EQ(s.reserved[12], -1);

    StatsProvider::setStatsSource(nullptr);
    StatsProvider::setGpuMemorySource(nullptr);
    EXPECT_EQ(StatsProvider().getPIDStats(5).vm_swap_kb, 2);
    EXPECT_EQ(StatsProvider().getPIDStats(5).gpu_mem_kb, 0);
}

TEST(HostStatsProvider, ReadsThisProcessFromTheRealProc) {
    {
        FixtureRoot root;
        root.addSymlink("/proc", "/proc");
        EXPECT_GT(StatsProvider().getPIDStats(getpid()).vm_rss_kb, 0);
    }
    const char* outer = getenv("METERS_ROOT");
    const std::string saved = outer != nullptr ? outer : "";
    unsetenv("METERS_ROOT");
    EXPECT_GT(StatsProvider().getPIDStats(getpid()).vm_rss_kb, 0);
    if (outer != nullptr)
        setenv("METERS_ROOT", saved.c_str(), 1);
}

// --- AsyncEvent --------------------------------------------------------------------------------

TEST(HostAsyncEvent, FindsThePidByTheFirstCommandLineArgument) {
    AsyncEvent::clearPidMap();
    FixtureRoot root;
    root.addFile("/proc/1234/cmdline", std::string("com.example.app\0--flag\0", 23));
    root.addFile("/proc/99/cmdline", "com.example.app.extra");
    root.addFile("/proc/self/cmdline", std::string("com.example.self\0", 17));
    root.addFile("/proc/2/cmdline", "");
    root.addDir("/proc/77");

    std::string app = "com.example.app";
    std::string extra = "com.example.app.extra";
    std::string self = "com.example.self";
    std::string flag = "--flag";
    std::string empty;
    EXPECT_EQ(AsyncEvent::getPid(app), 1234);
    EXPECT_EQ(AsyncEvent::getPid(extra), 99);
    EXPECT_EQ(AsyncEvent::getPid(self), -1) << "only numeric entries are processes";
    EXPECT_EQ(AsyncEvent::getPid(flag), -1);
    EXPECT_EQ(AsyncEvent::getPid(empty), -1) << "kernel threads have no command line";
    AsyncEvent::clearPidMap();
}

TEST(HostAsyncEvent, FoundPidsAreKeptUntilClearPidMap) {
    AsyncEvent::clearPidMap();
    FixtureRoot root;
    std::string app = "com.example.kept";
    EXPECT_EQ(AsyncEvent::getPid(app), -1);
    root.addFile("/proc/4321/cmdline", app);
    EXPECT_EQ(AsyncEvent::getPid(app), 4321) << "a miss is not remembered";

    root.remove("/proc/4321");
    root.addFile("/proc/4400/cmdline", app);
    EXPECT_EQ(AsyncEvent::getPid(app), 4321);
    AsyncEvent::clearPidMap();
    EXPECT_EQ(AsyncEvent::getPid(app), 4400);

    root.remove("/proc");
    AsyncEvent::clearPidMap();
    EXPECT_EQ(AsyncEvent::getPid(app), -1);
}

TEST(HostAsyncEvent, ResolverHookAnswersInsteadOfProc) {
    AsyncEvent::clearPidMap();
    std::string app = "com.example.resolved";
    AsyncEvent::setPidResolver(
        [](const std::string& name) { return name == "com.example.resolved" ? 555 : -1; });
    EXPECT_EQ(AsyncEvent::getPid(app), 555);
    AsyncEvent::setPidResolver(nullptr);
    FixtureRoot root;
    root.addDir("/proc");
    EXPECT_EQ(AsyncEvent::getPid(app), -1) << "replacing the resolver forgets its answers";
}

TEST(HostAsyncEvent, FindsAForkedChildInTheRealProc) {
    AsyncEvent::clearPidMap();
    std::string name = "com.example.forked.child";
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        execl("/bin/sleep", name.c_str(), "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    FixtureRoot root;
    root.addSymlink("/proc", "/proc");
    int found = -1;
    // The child shows its own command line once exec has happened.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (found != child && std::chrono::steady_clock::now() < deadline) {
        found = AsyncEvent::getPid(name);
        if (found != child)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(found, child);
    AsyncEvent::clearPidMap();
}

// --- FeatureLocator and VendorIPerfDataStore ---------------------------------------------------

TEST(HostFeatureLocator, AnswersAreKeyedOnKeyNameAndSelector) {
    FeatureLocator* fl = FeatureLocator::mInstance;
    ASSERT_NE(fl, nullptr);
    EXPECT_EQ(fl->getData("AppClassifier", "com.example.game", 0), 0);
    fl->setData("AppClassifier", "com.example.game", 0, 2);
    fl->setData("AppClassifier", "com.example.game", 1, 40);
    EXPECT_EQ(fl->getData("AppClassifier", "com.example.game", 0), 2);
    EXPECT_EQ(fl->getData("AppClassifier", "com.example.game", 1), 40);
    EXPECT_EQ(fl->getData("AppClassifier", "com.example.other", 0), 0);
    EXPECT_EQ(fl->getData("Other", "com.example.game", 0), 0);
    fl->clearData();
    EXPECT_EQ(fl->getData("AppClassifier", "com.example.game", 0), 0);
}

TEST(HostDataStore, RetrieveCopiesTruncatedTextOrLeavesBufferAlone) {
    VendorIPerfDataStore* store = VendorIPerfDataStore::getVendorIPerfDataStore();
    ASSERT_NE(store, nullptr);
    char buf[VendorIPerfDataStore::kValueSize];
    std::memset(buf, '#', sizeof(buf));
    store->Retrieve(5, buf);
    EXPECT_EQ(buf[0], '#');

    store->Store(5, "/sys/devices/cpu_inst");
    store->Retrieve(5, buf);
    EXPECT_STREQ(buf, "/sys/devices/cpu_inst");

    store->Store(5, std::string(400, 'p'));
    store->Retrieve(5, buf);
    EXPECT_EQ(std::string(buf), std::string(VendorIPerfDataStore::kValueSize - 1, 'p'));

    store->Erase(5);
    std::memset(buf, '#', sizeof(buf));
    store->Retrieve(5, buf);
    EXPECT_EQ(buf[0], '#');
    store->Retrieve(5, nullptr);

    VendorIPerfDataStore::setAvailable(false);
    EXPECT_EQ(VendorIPerfDataStore::getVendorIPerfDataStore(), nullptr);
    VendorIPerfDataStore::setAvailable(true);
    EXPECT_EQ(VendorIPerfDataStore::getVendorIPerfDataStore(), store);
}
