// The stand-alone host: records, the Meter base, and the host services the meters call.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "AsyncEvent.h"
#include "Meter.h"
#include "StatsProvider.h"
#include "TestSupport.h"
#include "VendorIPerfDataStore.h"

namespace {

// The base as it is; measures nothing.
struct ProbeMeter : Meter {
    using Meter::Meter;
    void start() override {}
};

// Every field seed-dependent; intArgs distinct, of both signs and near both limits.
AsyncTriggerPayload makePayload(uint32_t hintId, int32_t hintType, int seed = 0) {
    AsyncTriggerPayload p{hintId, hintType, "app" + std::to_string(seed),
                          {},     {seed},   INT64_MIN + seed};
    for (int i = 0; i < AsyncTriggerPayload::kNumIntArgs; ++i)
        p.intArgs[i] = (i - 5) * 400000000 + seed;
    return p;
}

auto fields(const AsyncTriggerPayload& p) {
    return std::make_tuple(p.hintId, p.hintType, p.appName, p.values, p.longArg,
                           std::vector<int32_t>(std::begin(p.intArgs), std::end(p.intArgs)));
}

int pidOf(std::string name) {
    return AsyncEvent::getPid(name);
}

}  // namespace

TEST(HostRecords, CopiesKeepEveryFieldAndAreIndependent) {
    const AsyncTriggerPayload original = makePayload(4225, 3, 7);
    EXPECT_EQ(fields(AsyncTriggerPayload(original)), fields(original));

    MeterInfo info{"Memory", {{4097, 1, 0}, {4098, -1, 2}, {4097, 0, 0}}, {"rss", "ion"}, {}, 20};
    info.configs.max_load_factor(0.25f);
    info.configs = {{"TotalSamplesToRun", "40"}, {"FPS_NODE", "/sys/x"}};
    MeterInfo c = info;
    EXPECT_TRUE(
        std::tie(c.name, c.asyncInfos, c.fieldNames, c.configs, c.numSamples) ==
        std::tie(info.name, info.asyncInfos, info.fieldNames, info.configs, info.numSamples));
    EXPECT_FLOAT_EQ(c.configs.max_load_factor(), 0.25f);
    c.asyncInfos.clear(), c.fieldNames.clear(), c.configs.clear();
    EXPECT_EQ(info.asyncInfos.size() + info.fieldNames.size() + info.configs.size(), 7u);
}

TEST(HostMeter, GetAsyncUpdatesReplacesTheCallersVectorAndEndOfActivityRaisesStop) {
    ProbeMeter meter{MeterInfo{}};
    std::vector<AsyncTriggerPayload> out = {makePayload(1, 1), makePayload(2, 2)};
    meter.getAsyncUpdates(out);
    EXPECT_TRUE(out.empty()) << "an empty pending list leaves the caller's vector empty";
    const std::pair<uint32_t, int32_t> events[] = {{0, -1}, {4225, 0}, {0, 0}, {4098, -1}, {0, -1}};
    for (int i = 0; i < 5; ++i) {
        meter.asyncTriggerUpdate(makePayload(events[i].first, events[i].second, i));
        EXPECT_EQ(meter.hasStopNotification(), events[i].first == 0 && events[i].second == -1);
    }
    out = {makePayload(1, 1)};
    meter.getAsyncUpdates(out);
    ASSERT_EQ(out.size(), 5u);
    EXPECT_EQ(fields(out[1]), fields(makePayload(4225, 0, 1)));
    meter.getAsyncUpdates(*meter.getAsyncUpdates());
    EXPECT_EQ(meter.getAsyncUpdates()->size(), 5u) << "copying into its own vector is a no-op";
}

TEST(HostMeter, EventsFromOneThreadWhileAnotherCopiesThePendingList) {
    ProbeMeter meter{MeterInfo{}};
    std::thread producer([&meter] {
        for (int i = 0; i <= 2000; ++i)
            meter.asyncTriggerUpdate(makePayload(i < 2000 ? 4097 : 0, i < 2000 ? 0 : -1, i));
    });
    std::vector<AsyncTriggerPayload> seen;
    bool inOrder = true;
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
         !meter.hasStopNotification() && std::chrono::steady_clock::now() < end;) {
        meter.getAsyncUpdates(seen);
        for (size_t i = 0; i < seen.size(); ++i)
            inOrder = inOrder && seen[i].values[0] == static_cast<int>(i);
    }
    producer.join();
    meter.getAsyncUpdates(seen);
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(seen.size(), 2001u);
}

TEST(HostProc, StatusAndCommandLinesFromAFixtureAndThisProcessFromTheRealProc) {
    EXPECT_GT(StatsProvider().getPIDStats(getpid()).vm_rss_kb, 0);
    testsupport::FixtureRoot root;
    root.addFile("/proc/321/status",
                 "Name:\tapp\nVmPeak:\t 999 kB\nVmRSS:\t 51200 kB\nVmSwap:\t 128 kB\n");
    sysstats_task s = StatsProvider().getPIDStats(321), zero{};
    EXPECT_EQ(std::tie(s.vm_rss_kb, s.vm_swap_kb, s.gpu_mem_kb), std::make_tuple(51200, 128, 0));
    s = StatsProvider().getPIDStats(999);
    EXPECT_EQ(std::memcmp(&s, &zero, sizeof(s)), 0) << "an unreadable process is all zero";

    root.addFile("/proc/1234/cmdline", std::string("com.example.app\0--flag\0", 23));
    root.addFile("/proc/self/cmdline", std::string("com.example.self\0", 17));
    root.addFile("/proc/2/cmdline", "");
    EXPECT_EQ(pidOf("com.example.app"), 1234);
    EXPECT_EQ(pidOf("com.example.self"), -1) << "only numeric entries are processes";
    EXPECT_EQ(pidOf(""), -1) << "kernel threads have no command line";
    EXPECT_EQ(pidOf("com.example.kept"), -1);
    root.addFile("/proc/4321/cmdline", "com.example.kept");
    EXPECT_EQ(pidOf("com.example.kept"), 4321) << "a miss is not remembered";
    root.remove("/proc/4321");
    EXPECT_EQ(pidOf("com.example.kept"), 4321) << "found pids are kept";
    AsyncEvent::clearPidMap();
    EXPECT_EQ(pidOf("com.example.kept"), -1);
}

TEST(HostAsyncEvent, FindsAForkedChildInTheRealProc) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        execl("/bin/sleep", "com.example.forked.child", "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    int found = -1;
    // The child shows its own command line once exec has happened.
    for (int i = 0; i < 1000 && found != child; ++i, usleep(10000))
        found = pidOf("com.example.forked.child");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(found, child);
    AsyncEvent::clearPidMap();
}

TEST(HostServices, DataStoreCopiesTruncatedTextAndLeavesTheBufferAloneForUnknownKeys) {
    VendorIPerfDataStore* store = VendorIPerfDataStore::getVendorIPerfDataStore();
    char buf[VendorIPerfDataStore::kValueSize] = "untouched";
    store->Retrieve(5, buf);
    EXPECT_STREQ(buf, "untouched");
    store->Store(5, std::string(400, 'p'));
    store->Retrieve(5, buf);
    EXPECT_EQ(std::string(buf), std::string(VendorIPerfDataStore::kValueSize - 1, 'p'));
    store->Erase(5);
}
