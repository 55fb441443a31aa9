// The scheduler module's nodes, read by SchedParamsMeter, from the first byte:
//  0  a scalar node (aggregated top-app load, big-cluster run queue): the integer at the start
//     of the line, or -1 for an empty line, text that is not a number or one out of range;
//  1  a cluster node (per-cluster top-app load, current capacity): atoi of up to three
//     blank-separated tokens into entries 0..2, the entries after the last token unchanged.
// Each reading is taken twice; a good one rewinds the node, so the second gives the same.
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "FuzzSupport.h"
#include "SchedParamsMeter.h"

namespace {

constexpr char kTopLoad[] = "/sched/aggr_top_load";
constexpr char kBigNr[] = "/sched/aggr_big_nr";
constexpr char kClusterLoad[] = "/sched/top_load_cluster";
constexpr char kClusterCap[] = "/sched/curr_cap_cluster";

// What the scalar reading must give for line, and whether it rewinds (a number was found).
std::pair<int, bool> scalar(const std::string& line) {
    if (line.empty())
        return {-1, false};
    errno = 0;
    char* end = nullptr;
    const long value = strtol(line.c_str(), &end, 10);
    if (end == line.c_str() || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return {-1, false};
    return {static_cast<int>(value), true};
}

std::array<int, 3> cluster(std::string line) {
    std::array<int, 3> values{};
    size_t stored = 0;
    char* rest = nullptr;
    for (char* token = strtok_r(line.data(), " ", &rest);
         token != nullptr && stored < values.size(); token = strtok_r(nullptr, " ", &rest))
        values[stored++] = atoi(token);
    return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzzing::Input input = fuzzing::split(data, size, 2);
    const std::string& text = input.texts[0];
    const std::string line = fuzzing::firstLine(text);
    const auto& root = fuzzing::root();
    for (const char* node : {kTopLoad, kBigNr, kClusterLoad, kClusterCap})
        root.addFile(node, text);
    SchedParamsMeter meter{MeterInfo{"",
                                     {},
                                     {},
                                     {{"SCHEDPARAMS_AGGR_TOP_LOAD_PATH", kTopLoad},
                                      {"SCHEDPARAMS_BIG_NR_RUN_PATH", kBigNr},
                                      {"SCHEDPARAMS_REGISTER_SCHED_TRIGGERS", "/sched/register"},
                                      {"SCHEDPARAMS_CLUSTER_TOP_LOAD_PATH", kClusterLoad},
                                      {"SCHEDPARAMS_CLUSTER_CURR_CAP_PATH", kClusterCap}}}};
    if (input.parser == 0) {
        const auto [expected, rewinds] = scalar(line);
        for (int reading = 0; reading < (rewinds ? 2 : 1); ++reading) {
            FUZZ_CHECK(meter.getTopAppLoad() == expected);
            FUZZ_CHECK(meter.getBigNrRun() == expected);
        }
        return 0;
    }
    const std::array<int, 3> expected = cluster(line);
    for (int reading = 0; reading < (line.empty() ? 1 : 2); ++reading) {
        std::atomic<int> load[3], cap[3];
        FUZZ_CHECK(meter.getClusterTopAppLoad(load) && meter.getClusterCurrCap(cap));
        for (int i = 0; i < 3; ++i)
            FUZZ_CHECK(load[i] == expected[i] && cap[i] == expected[i]);
    }
    return 0;
}
