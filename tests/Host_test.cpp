// The stand-alone host: the Meter base and the host services the meters call.

#include "AsyncEvent.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

// The base as it is; measures nothing.
struct ProbeMeter : Meter {
    using Meter::Meter;
    void start() override {}
};

int pidOf(std::string name) {
    return AsyncEvent::getPid(name);
}

}  // namespace

// Only {kNone, kTypeEnd} raises the stop flag and any other event lowers it; the pending list is
// copied whole into the caller's vector, replacing what it held, also while another thread
// appends (the thread sanitizer watches the base's lock).
TEST(HostMeter, StopFlagAndPendingListFollowTheEvents) {
    ProbeMeter meter{MeterInfo{}};
    std::vector<AsyncTriggerPayload> seen = {makePayload(1, 1)};
    meter.getAsyncUpdates(seen);
    EXPECT_TRUE(seen.empty());
    std::thread producer([&meter] {
        for (int i = 0; i < 1000; ++i)
            meter.asyncTriggerUpdate(makePayload(hint::kActivityStart, 0, i));
        meter.asyncTriggerUpdate(makePayload(hint::kNone, -1, 1000));
    });
    bool inOrder = true;
    for (size_t copied = 0; copied < 1001; copied = seen.size()) {
        meter.getAsyncUpdates(seen);
        for (size_t i = 0; i < seen.size(); ++i)
            inOrder = inOrder && seen[i].intArgs[0] == static_cast<int>(i);
    }
    producer.join();
    EXPECT_TRUE(inOrder && meter.hasStopNotification());
    meter.asyncTriggerUpdate(makePayload(hint::kActivityStop, -1));
    EXPECT_FALSE(meter.hasStopNotification());
    meter.getAsyncUpdates(*meter.getAsyncUpdates());
    EXPECT_EQ(meter.getAsyncUpdates()->size(), 1002u) << "copying into its own vector is a no-op";
}

// One provider keeps its pid's status file open: it must still follow a file replaced by rename
// and a change of root, find keys beyond its buffer, and give zeros for a process it cannot read.
TEST(HostProc, StatusFilesAreFollowedThroughReplacementsAndRoots) {
    EXPECT_GT(StatsProvider().getPIDStats(getpid()).vm_rss_kb, 0);
    StatsProvider provider;
    auto read = [&provider](int pid) {
        sysstats_task s = provider.getPIDStats(pid);
        return std::make_tuple(s.vm_rss_kb, s.vm_swap_kb, s.gpu_mem_kb);
    };
    // Both keys beyond 4 KB, after a line longer than that; VmSwap straddles 8 KB.
    auto status = [](int rss) {
        return "Groups:\t" + std::string(5000, '1') + "\nVmRSS:\t" + std::to_string(rss) + " kB\n" +
               std::string(3165, '#') + "\nVmSwap:\t 7 kB\n";
    };
    FixtureRoot a;
    a.addFile("/proc/321/status", status(100));
    EXPECT_EQ(read(321), std::make_tuple(100, 7, 0));
    a.addFile("/proc/321/next", status(200));
    std::rename(a.real("/proc/321/next").c_str(), a.real("/proc/321/status").c_str());
    EXPECT_EQ(std::get<0>(read(321)), 200) << "a file replaced by rename is read afresh";
    FixtureRoot b;
    b.addFile("/proc/321/status", status(300));
    EXPECT_EQ(std::get<0>(read(321)), 300) << "the file is the one under the current root";
    EXPECT_EQ(read(999), std::make_tuple(0, 0, 0)) << "an unreadable process is all zero";
}

TEST(HostProc, ProcessesAreFoundByCommandLineAndRemembered) {
    FixtureRoot root;
    root.addFile("/proc/1234/cmdline", testData("cmdline"));
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
