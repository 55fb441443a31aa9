// MemoryMeter: the fields, the end-point detector as a state machine, whole runs of start()
// against scripted statistics, and fields too large for the address space.
#include "MemoryMeter.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>

#include "TestSupport.h"

using namespace testsupport;

static MeterInfo makeInfo(std::vector<std::string> fields, const char* totalSamples) {
    return MeterInfo{"", {}, std::move(fields), {{"TotalSamplesToRun", totalSamples}}};
}

// The word each name picks shows in whole runs below; the meter gives a field no other name.
TEST(MemoryField, SampleZeroClearsTheEndValueAndOutOfRangeSamplesAreLogged) {
    LogCapture log;
    MemoryField f("rss_swap", 3);
    f.mResults[0] = 9;
    EXPECT_EQ(f.collectStats(0, makeStats(1000, 24, 77)), 1024);
    EXPECT_EQ(f.mResults[0], 0);
    EXPECT_EQ(MemoryField("rss_swap", 0).collectStats(0, makeStats(10, 10, 0)), 0);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Meter: collectStats() 53: The sample number "
                                                    "given is out of range\n"});
}

// Each call is one 300 ms sample of the fields' sum; the state after the last is checked.
TEST(MemoryMeter, DetectorFollowsTheWorkedExamplesAndOverflowGuards) {
    // what, sums, then the expected mEndpointMs, mElapsedMs and mBaseline
    using Row = std::tuple<const char*, std::vector<int>, std::vector<int>>;
    // clang-format off
    for (auto [what, sums, expected] : std::vector<Row>{
             {"a drift of 15 % is a change", {100, 115, 115}, {600, 300, 115}},
             {"a drift of 14 % is not", {100, 114}, {0, 600, 100}},
             {"a range of 18 % is, 17 % not", {100, 90, 106, 107}, {1200, 0, 107}},
             {"multiplies before dividing", {100000, 150000, 210000}, {900, 0, 210000}},
             {"the largest scalable jump", {1000000, 22474836}, {600, 0, 22474836}},
             {"one more overflows the product", {1000000, 22474837}, {0, 600, 1000000}},
             {"the same limit downwards", {30000000, 8525163, 8525164}, {900, 0, 8525164}},
             {"an overflowing difference", {INT_MAX, INT_MIN}, {0, 600, INT_MAX}}}) {
        // clang-format on
        SCOPED_TRACE(what);
        MemoryMeter m(makeInfo({}, "0"));
        for (int sum : sums)
            EXPECT_EQ(m.detectLaunchEndPoint(sum), 0);
        EXPECT_EQ((std::vector<int>{m.mEndpointMs, m.mElapsedMs, m.mBaseline}), expected);
    }
    // A counted launch-complete makes the baseline follow every sample and withholds the end.
    MemoryMeter m(makeInfo({}, "0"));
    m.mTriggerCount = 1;
    for (int sum : {100, 108, 116})
        EXPECT_EQ(m.detectLaunchEndPoint(sum), 0);
    EXPECT_EQ(m.mEndpointMs, 0) << "116 is 7 % above 108, not 16 % above 100";
    for (int i = 0; i < 29; ++i)
        EXPECT_EQ(m.detectLaunchEndPoint(232), 0) << "not even past 8100 ms";
    EXPECT_EQ((std::vector<int>{m.mEndpointMs, m.mElapsedMs, m.mBaseline}),
              (std::vector<int>{1200, 8400, 232}));
}

// Of the names given, only the exact ones make fields, in order: rss_swap, ion_tesk, rss_swap.
// Sample i answers sums[i] kB per rss_swap field (the last value repeating; 300 kB of it swap)
// and 10 * i kB of GPU memory. The default sums double at sample 7 (2400 ms), then creep within
// bounds until the 28th sample after, when the end point is known.
TEST(MemoryMeterRun, RunsOfFortySamples) {
    struct Case {
        const char* what;
        std::vector<AsyncTriggerPayload> before;  // delivered in order before the run
        // Samples taken, mElapsedMs, mBaseline and each field's results[0]; by default those of
        // the end point at 2400 ms.
        std::vector<int64_t> expected = {36, 8400, 4000, 2001, 80, 2001};
        const AsyncTriggerPayload* during = nullptr;  // delivered while sample 4 is read
        std::vector<int64_t> sums = {1000, 1000, 1000, 1000, 1000, 1000, 1000, 2000, 2001, 2003};
    };
    const auto start = [](int pid) { return makePayload(hint::kActivityStart, 0, pid); };
    const AsyncTriggerPayload end = makePayload(hint::kNone, hint::kTypeEnd);
    const AsyncTriggerPayload complete = makePayload(hint::kLaunchComplete, 0);
    // clang-format off
    const Case cases[] = {
        {"an end point of 2400 ms picks sample 8", {start(9), start(0)}},
        {"no event: nothing to watch", {}, {0, 0, 0, 0, 0, 0}},
        {"the first pid counts, and 0 is none", {start(0), start(9)}, {0, 0, 0, 0, 0, 0}},
        {"an end is not kept and the next event clears it", {end, start(9)}},
        {"an end before the run", {start(9), end}, {0, 0, 0, 0, 0, 0}},
        {"launch complete before the run is forgotten", {start(9), complete}},
        {"an end stops the run at the next poll", {start(9)}, {5, 1500, 2000, 0, 0, 0}, &end},
        {"so does launch complete", {start(9)}, {5, 1500, 2000, 0, 0, 0}, &complete},
        // Per field 2^32 + 1000 sums to 2000 in 32 bits; 2 x 2^30 reads negative: skipped.
        {"a 32-bit sum", {start(9)}, {40, 300, 2000, 0, 0, 0}, nullptr, {4294968296, 1073741824}},
    };
    // clang-format on
    LogCapture log;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MemoryMeter m(makeInfo({"rss_swap", "rss_swaP", "ion_tesk", "", "rss_swap"}, " 40x"));
        for (const AsyncTriggerPayload& p : c.before)
            deliverFromThread(m, p);
        ScopedStats stats([&](int i) {
            if (i == 4 && c.during != nullptr)
                deliverFromThread(m, *c.during);
            return makeStats(c.sums[std::min<size_t>(i, c.sums.size() - 1)] - 300, 300, 10 * i);
        });
        ScriptedSleep sleep;
        m.start();
        std::vector<int64_t> got = {stats.calls(), m.mElapsedMs, m.mBaseline};
        for (Field* f : m.mFields)
            got.push_back(f->mResults[0]);
        EXPECT_EQ(got, c.expected);
        EXPECT_EQ(sleep.sleeps(), std::vector<uint32_t>(sleep.sleeps().size(), 300000u));
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{"MemoryMeter: start() 144: Async Data NULL"});
}

// Six samples of a real process through the host's statistics: while it lives, each is its VmRSS
// plus VmSwap; once it has exited, whether a zombie (its status has no memory lines) or reaped,
// each is 0 and not detected on, never its last figure. A status replaced under the same path (a
// new process behind the pid, in a fixture tree) is read afresh from the next sample on.
TEST(MemoryMeterRun, ARealProcessIsSampledUntilItIsGoneAndASuccessorAfresh) {
    enum Then { Lives, Zombie, Reaped, Replaced };
    const auto kbOf = [](const std::string& text) {
        return std::stoll(text.substr(text.find("VmRSS:") + 6)) +
               std::stoll(text.substr(text.find("VmSwap:") + 7));
    };
    std::string successor = testData("status");
    successor.replace(successor.find("2264", successor.find("VmRSS:")), 4, "5000");
    LogCapture log;
    for (int round = 0; round < kLifecycleRounds; ++round) {
        for (Then then : {Lives, Zombie, Reaped, Replaced}) {
            SCOPED_TRACE(testing::Message() << "round " << round << ", case " << then);
            ChildProcess child("memory-probe");
            std::optional<FixtureRoot> root;
            int pid = child.pid();
            if (then == Replaced) {
                root.emplace();
                pid = 4321;
                root->addFile("/proc/4321/status", testData("status"));
            }
            std::ifstream in("/proc/" + std::to_string(child.pid()) + "/status");
            const int64_t kb =
                then == Replaced ? 2264 : kbOf({std::istreambuf_iterator<char>(in), {}});
            MemoryMeter m(makeInfo({"rss_swap"}, "6"));
            m.asyncTriggerUpdate(makePayload(hint::kActivityStart, 0, pid));
            ScriptedSleep sleep([&](int i, uint32_t) {
                if (i != 1)  // after the second sample
                    return;
                if (then == Zombie)
                    child.killUnreaped();
                if (then == Reaped)
                    child.kill();
                if (then == Replaced) {
                    root->remove("/proc/4321/status");
                    root->addFile("/proc/4321/status", successor);
                }
            });
            m.start();
            const int64_t after = then == Lives ? kb : then == Replaced ? 5000 : 0;
            const int64_t* values = static_cast<MemoryField*>(m.mFields.at(0))->mMemoryValues.get();
            EXPECT_EQ(std::vector<int64_t>(values, values + 6),
                      (std::vector<int64_t>{kb, kb, after, after, after, after}));
            EXPECT_EQ(sleep.sleeps().size(), 6u);
            EXPECT_EQ(
                std::make_pair(m.mEndpointMs, m.mBaseline),
                std::make_pair(then == Replaced ? 900 : 0, static_cast<int>(after ? after : kb)));
        }
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

// Built through the factory under a 4 GiB address-space limit, the child reports its log lines
// and exits with the number of fields kept: the results of 300000000 samples do not fit, nor the
// array of INT_MAX.
TEST(MemoryMeterDeathTest, FieldsWhoseResultsCannotBeAllocatedAreLeftOutWithALine) {
#ifdef METERS_UNDER_EMULATOR
    GTEST_SKIP() << "an address-space limit binds the emulator's own mappings, not the meter's";
#endif
    long pages = 0;  // all the process maps: under a sanitizer, terabytes of shadow memory
    std::ifstream("/proc/self/statm") >> pages;
    if (pages * sysconf(_SC_PAGESIZE) > (1l << 30))
        GTEST_SKIP() << "the process already maps more than the limit leaves room for";
    const std::string caught =
        "MemoryMeter: MemoryMeter() N: Caught Exception: std::bad_alloc in MemoryMeter";
    const std::string failed = "Meter: MemoryField() 27: Failed mMemoryValues";
    const auto build = [](const char* total, const std::vector<std::string>& lines) {
        const rlimit limit = {4ul << 30, 4ul << 30};
        setrlimit(RLIMIT_AS, &limit);
        LogCapture log;
        // Freed by the child's exit.
        auto* m = static_cast<MemoryMeter*>(RegistryBase<Meter, MeterInfo>::classList->at("Memory")(
            makeInfo({"rss_swap", "ion_tesk"}, total)));
        for (const std::string& line : maskedLike(log.lines(), lines))
            fprintf(stderr, "%s\n", line.c_str());
        _exit(static_cast<int>(m->mFields.size()));
    };
    using Stderr = ::testing::Matcher<const std::string&>;
    EXPECT_EXIT(build("300000000", {caught, caught}), ::testing::ExitedWithCode(0),
                Stderr(caught + "\n" + caught + "\n"));
    const std::string both = failed + "\n" + caught + "\n";
    EXPECT_EXIT(build("2147483647", {failed, caught, failed, caught}), ::testing::ExitedWithCode(0),
                Stderr(both + both));
    // Zero pages: results of 100000000 samples cost nothing until written.
    EXPECT_EQ(MemoryField("rss_swap", 100000000).mResults.size(), 100000000u);
}
