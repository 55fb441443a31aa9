// The GPU driver's nodes, read by GpuMeter, from the first byte:
//  0  available frequencies: getAvlGpuFreqs, atoi of each blank-separated token;
//  1  clock statistics: getClockStats, atol of each token;
//  2  busy percentage: getBusyPercentage, strtof of the line (0.0 for an empty one);
//  3  maximum clock: getGpuMaxFreq, atoi of the line;
//  4  frequencies, maximum clock, then clock statistics snapshots: getGpuUsage after each
//     snapshot. At most 60 vectors come back; a call adds one as long as the shortest of the
//     frequencies and the two snapshots compared, or none when that is 0; every value is
//     positive and finite (an idle level reads 0.0001, never 0).
// Each reading is taken twice: the node is rewound after a reading that found a line.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "FuzzSupport.h"
#include "GpuMeter.h"

namespace {

constexpr char kFreqs[] = "/gpu/gpu_available_frequencies";
constexpr char kStats[] = "/gpu/gpu_clock_stats";
constexpr char kBusy[] = "/gpu/gpu_busy_percentage";
constexpr char kMaxClk[] = "/gpu/max_gpuclk";

// The line's blank-separated tokens through parse.
template <class T, class Parse>
std::vector<T> tokens(const std::string& line, Parse parse) {
    std::vector<T> values;
    size_t from = line.find_first_not_of(' ');
    while (from != std::string::npos) {
        const size_t end = line.find(' ', from);
        values.push_back(parse(line.substr(from, end - from).c_str()));
        from = line.find_first_not_of(' ', end);
    }
    return values;
}

bool sameFloat(float a, float b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

void usage(GpuMeter& meter, const std::vector<std::string>& texts) {
    const auto& root = fuzzing::root();
    root.addFile(kFreqs, texts[0]);
    root.addFile(kMaxClk, texts.size() > 1 ? texts[1] : "");
    meter.start();
    const std::vector<int> freqs = tokens<int>(fuzzing::firstLine(texts[0]), atoi);
    // A node that once read an empty line is not rewound: what it gives after that is not the
    // first line any more, so the lengths are checked only while every line read was a line.
    bool linesOnly = !fuzzing::firstLine(texts[0]).empty();
    std::vector<long> previous;
    std::vector<std::vector<float>> history;
    for (size_t i = 2; i < texts.size(); ++i) {
        root.addFile(kStats, texts[i]);
        const std::string line = fuzzing::firstLine(texts[i]);
        const std::vector<long> stats = tokens<long>(line, atol);
        const std::vector<std::vector<float>> before = history;
        meter.getGpuUsage(history);
        FUZZ_CHECK(history.size() <= 60);
        for (const auto& levels : history)
            for (float value : levels)
                FUZZ_CHECK(value > 0 && std::isfinite(value));
        linesOnly = linesOnly && !line.empty();
        const size_t levels = std::min({freqs.size(), stats.size(), previous.size()});
        if (linesOnly && i > 2 && levels > 0) {
            FUZZ_CHECK(history.size() == std::min<size_t>(before.size() + 1, 60));
            FUZZ_CHECK(history.back().size() == levels);
        } else if (linesOnly) {
            FUZZ_CHECK(history == before);
        }
        previous = stats;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzzing::Input input = fuzzing::split(data, size, 5);
    const std::string& text = input.texts[0];
    const std::string line = fuzzing::firstLine(text);
    const auto& root = fuzzing::root();
    for (const char* node : {kFreqs, kStats, kBusy, kMaxClk})
        root.addFile(node, "");
    GpuMeter meter{MeterInfo{"",
                             {},
                             {},
                             {{"GPU_AVAILABLE_FREQUENCIES", kFreqs},
                              {"GPU_CLOCK_STATS", kStats},
                              {"GPU_BUSY_PERCENTAGE", kBusy},
                              {"GPU_MAX_CLK", kMaxClk}}}};
    if (input.parser == 4) {
        usage(meter, input.texts);
        return 0;
    }
    const char* nodes[] = {kFreqs, kStats, kBusy, kMaxClk};
    root.addFile(nodes[input.parser], text);
    meter.start();
    for (int reading = 0; reading < 2; ++reading) {
        switch (input.parser) {
            case 0: {
                std::vector<int> freqs;
                meter.getAvlGpuFreqs(freqs);
                FUZZ_CHECK(freqs == tokens<int>(line, atoi));
                break;
            }
            case 1: {
                std::vector<long> stats;
                meter.getClockStats(stats);
                FUZZ_CHECK(stats == tokens<long>(line, atol));
                break;
            }
            case 2:
                FUZZ_CHECK(sameFloat(meter.getBusyPercentage(),
                                     line.empty() ? 0.0F : strtof(line.c_str(), nullptr)));
                break;
            default:
                FUZZ_CHECK(meter.getGpuMaxFreq() == atoi(line.c_str()));
                break;
        }
        if (line.empty())
            break;  // not rewound: the second reading would take what follows
    }
    return 0;
}
