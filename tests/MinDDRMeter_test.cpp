// MinDDRMeter and its worker: the OPP search and the state table over scripted inputs; the
// sampling thread stepped through its states against fixture nodes with the sleep seam; a vote
// that is not a number ending the process; its destruction from each state; triggers racing the
// thread on its way into its wait.
#include "MinDDRMeter.h"

#include <chrono>

#include "TestSupport.h"

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

constexpr char kBig[] = "/sys/class/devfreq/soc:vedra,memlat-cpu6/cur_freq";
constexpr char kLittle[] = "/sys/class/devfreq/soc:vedra,memlat-cpu0/cur_freq";
constexpr char kAvail[] = "/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies";
constexpr auto kPrompt = 2s;  // longer than any round, step or destruction may take
// Rounds of the race below, scaled so that the file stays within seconds.
constexpr int kRaceRounds = METERS_SCALED(3000, 1000, 300);

using Residency = std::map<int32_t, int32_t>;
const Residency kZero{{100, 0}, {200, 0}, {300, 0}, {400, 0}};

// {little, big}, read under the worker's lock.
std::pair<Residency, Residency> residency(AuxMinDDRMeter& worker) {
    std::lock_guard<std::mutex> lock(worker.mResidencyMutex);
    return {worker.mLittleResidency, worker.mBigResidency};
}

// Polls until done() holds; false once kPrompt has passed.
bool eventually(const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + kPrompt;
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(20us);
    return done();
}

// Starts round(0), round(1), ... on a thread of its own; the call it returns waits for them and
// fails the test when one takes longer than kPrompt. That thread is then left behind with the
// worker forgotten, so that the test reports instead of hanging its process.
std::function<bool()> watch(int rounds, std::function<void(int)> round) {
    auto done = std::make_shared<std::atomic<int>>(0);  // negative: stop
    std::thread([=] {
        for (int r = 0; r < rounds && *done >= 0; ++r, ++*done)
            round(r);
    }).detach();
    return [=] {
        for (int seen = *done; seen < rounds; seen = *done) {
            if (!eventually([&] { return *done > seen; })) {
                ADD_FAILURE() << "round " << seen << " took more than 2 s";
                *done = INT_MIN / 2;
                AuxMinDDRMeter::mInstance = nullptr;
                return false;
            }
        }
        return true;
    };
}

// Available frequencies 100 to 400; the big cluster votes 300, the little one 100.
class MinDDR : public ::testing::Test {
  protected:
    void SetUp() override {
        root.addFile(kAvail, "100 200 300 400\n");
        root.addFile(kBig, "300\n");
        root.addFile(kLittle, "100\n");
    }
    // Every test destroys what it built: the next meter must build a worker of its own.
    void TearDown() override { EXPECT_EQ(AuxMinDDRMeter::mInstance, nullptr); }

    FixtureRoot root;
    LogCapture log;
};
using MinDDRDeathTest = MinDDR;

}  // namespace

// The OPP over set counts, then the new state for each state 0 to 3 a trigger meets; the thread
// never runs.
TEST_F(MinDDR, TheOppSearchAndTheStateTable) {
    // {little counts, big counts, getOpp()}
    // clang-format off
    const std::tuple<Residency, Residency, int> opps[] = {
        {{{100, 5}, {200, 15}, {300, 3}}, {}, 300}, {{{100, 5}, {200, 14}, {300, 3}}, {}, -1},
        {{{100, 5}}, {{100, 20}, {400, 1}}, 400}, {{}, {}, -1}};
    const std::pair<uint32_t, std::array<int, 4>> table[] = {
        {hint::kActivityStart, {0, 3, 3, 3}}, {hint::kActivityStop, {2, 2, 2, 2}},
        {hint::kActivityResume, {0, 0, 0, 0}}, {hint::kActivityPause, {1, 1, 1, 1}},
        {hint::kFdCounts, {0, 1, 2, 3}}};
    // clang-format on
    MinDDRMeter meter{MeterInfo{}};
    for (const auto& [little, big, opp] : opps) {
        meter.mWorker->mLittleResidency = little;
        meter.mWorker->mBigResidency = big;
        EXPECT_EQ(meter.getOpp(), opp);
    }
    for (const auto& [code, to] : table)
        for (int from = 0; from < 4; ++from) {
            meter.mWorker->mRunState = from;
            meter.asyncTriggerUpdate(makePayload(code, 0));
            EXPECT_EQ(meter.mWorker->mRunState, to[from]) << code << " from " << from;
        }
}

// One sleep at a time. The big node is missing at first: nothing counted, a line per sample,
// tried again on the next. Each sample is read after its sleep; 4097 while sampling resets
// nothing; a pause or stop closes the nodes, then 4099 goes on with the counts and 4097 clears
// them. A second start() keeps the thread.
TEST_F(MinDDR, TheThreadSamplesPausesResumesAndStopsAsTriggered) {
    std::atomic<int> entered{0}, released{0};
    ScriptedSleep gate([&](int index, uint32_t) {
        entered = index + 1;
        eventually([&] { return released > index; });
    });
    // Lets n more sleeps end and, unless told not to, waits until the thread is in the next.
    auto step = [&](int n, bool next = true) {
        released += n;
        return !next || eventually([&] { return entered > released; });
    };
    root.remove(kBig);
    MinDDRMeter meter{MeterInfo{}};
    AuxMinDDRMeter& worker = *meter.mWorker;
    auto send = [&](uint32_t code) { deliverFromThread(meter, makePayload(code, 0)); };
    auto at200 = [&] { return residency(worker).first.at(200); };
    auto nodesOpen = [&] {
        std::lock_guard<std::mutex> lock(worker.mResidencyMutex);
        return worker.mBigFreqStream.is_open() || worker.mLittleFreqStream.is_open();
    };
    meter.start();
    send(hint::kActivityResume);
    ASSERT_TRUE(step(0));
    EXPECT_EQ(residency(worker), std::make_pair(kZero, kZero));
    const std::thread::id sampler = worker.mSamplerThread.get_id();
    meter.start();  // a thread that replaced a running one would end the process
    EXPECT_EQ(worker.mSamplerThread.get_id(), sampler);
    root.addFile(kLittle, "200\n");
    ASSERT_TRUE(step(2));
    EXPECT_EQ(std::make_pair(at200(), residency(worker).second), std::make_pair(2, kZero));
    const std::vector<std::string> missing(2, "MinDDRMeter: readValue() N: Failed to open file");
    EXPECT_EQ(maskedLike(log.lines(), missing), missing);
    root.addFile(kBig, "300\n");
    send(hint::kActivityStart);
    ASSERT_TRUE(step(1));
    EXPECT_EQ(std::make_pair(at200(), residency(worker).second.at(300)), std::make_pair(3, 1));
    for (uint32_t halt : {hint::kActivityPause, hint::kActivityStop})
        for (uint32_t go : {hint::kActivityResume, hint::kActivityStart}) {
            send(halt);
            ASSERT_TRUE(step(1, false));  // the sample after the sleep it was in
            ASSERT_TRUE(eventually([&] { return !nodesOpen(); }));
            const int kept = at200();
            send(go);
            ASSERT_TRUE(step(1));
            EXPECT_EQ(at200(), go == hint::kActivityStart ? 1 : kept + 1);
        }
    EXPECT_EQ(gate.sleeps(), std::vector<uint32_t>(gate.sleeps().size(), 300000));
    step(1 << 20, false);
}

// Nothing catches the conversion of a vote that is not a number: the sampling thread ends the
// process with the exception.
TEST_F(MinDDRDeathTest, AVoteThatIsNotANumberEndsTheProcess) {
    root.addFile(kLittle, "unknown\n");
    EXPECT_DEATH(
        {
            ScriptedSleep noSleep;
            MinDDRMeter meter{MeterInfo{}};
            meter.start();
            meter.asyncTriggerUpdate(makePayload(hint::kActivityResume, 0));
            std::this_thread::sleep_for(kPrompt);
        },
        "invalid_argument");
}

// The thread caught on the residency lock, where a lost state change would strand it: woken by
// the trigger, it has read the new state and waits for the lock, which the test holds until the
// destructor has stored the exit request. Once free, the thread must obey that request, whether
// it was about to count a sample (0), to wait (1, 2) or to reset (3; the reset must not
// overwrite the request), or was waiting (2) when the request came.
TEST_F(MinDDR, DestroyingTheMeterInEachStateReturnsPromptly) {
    ScriptedSleep noSleep;
    // {trigger while the thread waits, trigger that wakes it under the lock}
    // clang-format off
    const std::pair<uint32_t, uint32_t> cases[] = {
        {hint::kNone, hint::kActivityResume}, {hint::kNone, hint::kActivityPause},
        {hint::kActivityPause, hint::kActivityStop}, {hint::kActivityPause, hint::kActivityStart},
        {hint::kNone, hint::kNone}};
    // clang-format on
    for (const auto& [before, under] : cases) {
        SCOPED_TRACE(std::to_string(before) + " " + std::to_string(under));
        auto meter = std::make_unique<MinDDRMeter>(MeterInfo{});
        AuxMinDDRMeter& worker = *meter->mWorker;
        meter->start();
        meter->asyncTriggerUpdate(makePayload(before, 0));
        std::this_thread::sleep_for(2ms);  // the thread waits by now
        std::unique_lock<std::mutex> held(worker.mResidencyMutex);
        meter->asyncTriggerUpdate(makePayload(under, 0));
        // Time for the woken thread to reach the lock. Were it slower, the case would still
        // pass, only proving less.
        std::this_thread::sleep_for(2ms);
        auto destroyed = watch(1, [&meter](int) { meter.reset(); });
        ASSERT_TRUE(eventually([&] { return worker.mRunState == 4; }));
        held.unlock();
        ASSERT_TRUE(destroyed());
    }
}

// Each round races the host's triggers against the thread on its way into its wait: pauses and
// stops from the event thread while start() runs, then a resume that must lead to a sample;
// then pauses and stops again and the destruction, whose exit request must end the thread.
TEST_F(MinDDR, NoTriggerIsLostOnTheThreadsWayIntoItsWait) {
    ScriptedSleep noSleep;
    EXPECT_TRUE(watch(kRaceRounds, [](int r) {
        MinDDRMeter meter{MeterInfo{}};
        auto halts = [&meter, r] {
            for (int i = 0; i < 1 + r % 24; ++i)
                meter.asyncTriggerUpdate(
                    makePayload(i % 2 ? hint::kActivityStop : hint::kActivityPause, 0));
        };
        std::thread events(halts);
        meter.start();
        events.join();
        meter.asyncTriggerUpdate(makePayload(hint::kActivityResume, 0));
        const int before = residency(*meter.mWorker).first.at(100);
        while (residency(*meter.mWorker).first.at(100) == before)
            std::this_thread::sleep_for(10us);  // a yield can starve the thread
        halts();
    })());
}
