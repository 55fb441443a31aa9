// SchedParamsMeter: the registration requests that start() carries out, the kept-open readers
// against fixture nodes with their log lines, and the event thread meeting start() and the
// getters.
#include "SchedParamsMeter.h"

#include "TestSupport.h"

using namespace testsupport;

namespace {

constexpr char kTopLoad[] = "/sys/module/oxa_performance/notify/aggr_top_load";
constexpr char kBigNr[] = "/sys/module/oxa_performance/notify/aggr_big_nr";
constexpr char kRegister[] = "/sys/module/oxa_performance/parameters/core_ctl_register";
constexpr char kClusterLoad[] = "/sys/module/oxa_performance/notify/top_load_cluster";
constexpr char kClusterCap[] = "/sys/module/oxa_performance/notify/curr_cap_cluster";
const std::string kPrefix = "SchedParamsMeter: ";

// The register, big-nr and capacity nodes at their default paths, the last two holding values;
// the top-load and cluster-load nodes missing. One meter on them.
class SchedParams : public ::testing::Test {
  protected:
    void SetUp() override {
        for (auto [node, text] :
             {std::pair(kRegister, ""), {kBigNr, "3\n"}, {kClusterCap, "4 5 6\n"}})
            root.addFile(node, text);
    }
    void send(uint32_t code) { m.asyncTriggerUpdate(makePayload(code, 0)); }
    void expectLog(const std::vector<std::string>& lines) {
        EXPECT_EQ(maskedLike(log.lines(), lines), lines);
    }

    FixtureRoot root;
    LogCapture log;
    SchedParamsMeter m{MeterInfo{}};
};

}  // namespace

// The register node is removed before each start(), so "(none)" means that it wrote nothing.
// A configured path replaces its default as given, even empty; a failed write settles too.
TEST_F(SchedParams, StartWritesWhatTheTriggersLeftPending) {
    constexpr uint32_t S = UINT32_MAX, Reg = hint::kActivityStart, Res = hint::kActivityResume;
    constexpr uint32_t Stop = hint::kActivityStop, Pause = hint::kActivityPause;
    std::vector<std::string> written;
    for (uint32_t step : {Stop, S, Reg, Res, S, S, Stop, S, Reg, Pause, S}) {
        root.remove(kRegister);
        step == S ? m.start(), written.push_back(root.read(kRegister)) : send(step);
    }
    EXPECT_EQ(written, (std::vector<std::string>{"(none)", "1", "(none)", "0", "0"}));
    // clang-format off
    SchedParamsMeter c(MeterInfo{"", {}, {}, {
        {"SCHEDPARAMS_BIG_NR_RUN_PATH", "/b"}, {"SCHEDPARAMS_AGGR_TOP_LOAD_PATH", "a"},
        {"SCHEDPARAMS_REGISTER_SCHED_TRIGGERS", ""}, {"SCHEDPARAMS_CLUSTER_TOP_LOAD_PATH", " c"},
        {"SCHEDPARAMS_CLUSTER_CURR_CAP_PATH", "/d/"}}});
    // clang-format on
    EXPECT_EQ(std::tie(c.mAggrTopLoadPath, c.mBigNrRunPath, c.mRegisterTriggersPath,
                       c.mClusterTopLoadPath, c.mClusterCurrCapPath),
              std::make_tuple("a", "/b", "", " c", "/d/"));
    c.asyncTriggerUpdate(makePayload(Reg, 0));
    c.start();
    EXPECT_EQ(std::make_pair(m.mTriggerState.load(), c.mTriggerState.load()), std::make_pair(1, 3));
    expectLog({kPrefix + "writeValue() N: Unable to open  file"});
}

// Scalar: a missing node is tried again on the next reading; a reading after a good one sees the
// node afresh; an empty reading or a conversion error leaves the node at -1, even once it holds
// a number, until a deregistration in start() closes it. Cluster: a line refreshes the entries
// it holds (from 0) and keeps the others, and the getter still succeeds; a null output is
// refused without a reading, which would log again. A line is logged for each failure.
TEST_F(SchedParams, KeptOpenNodesAreReadAfresh) {
    // {node text (null: missing), deregister first, reading}
    // clang-format off
    const std::tuple<const char*, bool, int> steps[] = {
        {nullptr, false, -1}, {"  17abc", false, 17}, {"6\n", false, 6}, {"", false, -1},
        {"7\n", false, -1}, {"7\n", true, 7}, {"abc\n", false, -1}, {"8\n", true, 8}};
    const std::pair<const char*, std::vector<int>> cluster[] = {
        {nullptr, {0, 0, 0}}, {"1  2 3 4", {1, 2, 3}}, {"45 12\n", {45, 12, 3}}, {"", {45, 12, 3}}};
    // clang-format on
    for (const auto& [text, deregister, value] : steps) {
        if (text != nullptr)
            root.addFile(kTopLoad, text);
        if (deregister)
            send(hint::kActivityStart), send(hint::kActivityStop), m.start();
        EXPECT_EQ(m.getTopAppLoad(), value) << (text ? text : "(missing)");
    }
    for (const auto& [text, entries] : cluster) {
        if (text != nullptr)
            root.addFile(kClusterLoad, text);
        std::atomic<int> out[3] = {-7, -7, -7};
        EXPECT_FALSE(m.getClusterTopAppLoad(nullptr));
        EXPECT_TRUE(m.getClusterTopAppLoad(out));
        EXPECT_EQ((std::vector<int>{out[0], out[1], out[2]}), entries) << (text ? text : "");
    }
    expectLog({kPrefix + "readValue() N: Failed to open file",
               kPrefix + "readValue() N: exception stoi\n",
               kPrefix + "readCluster() N: readCluster Failed to open file " + kClusterLoad,
               kPrefix + "readCluster() N: Value from field is null"});
}

// The event thread's triggers, which start() here carries out (its withdrawals close the nodes),
// meet a host thread reading the nodes: every reading still finds its node's value.
TEST_F(SchedParams, StartMeetsTheEventThreadAndTheGetters) {
    int bad = 0;
    std::atomic<bool> done{false};
    std::thread other([&] {
        std::atomic<int> cap[3];
        for (int i = 0; i < 1000; ++i) {
            send(i % 2 ? hint::kActivityPause : hint::kActivityResume);
            bad += m.getBigNrRun() != 3 || !m.getClusterCurrCap(cap) || cap[0] + cap[2] != 10;
        }
        done = true;
    });
    while (!done)
        m.start();
    other.join();
    EXPECT_EQ(bad, 0);
}
