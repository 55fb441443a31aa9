// The memory-latency governor's nodes, read by MinDDR's worker, from the first byte:
//  0  cur_freq texts, one reading each (a big and a little vote in turn), then the operating
//     point over the counts they make. A reading gives the integer at the start of the line, or
//     -1 for an empty line; text that is not a number, or is out of range, throws, and on the
//     sampling thread that ends the process: the meter's design wants it so, and a test covers
//     it, so here the reading is called directly and the throw is checked instead;
//  1  available_frequencies: the worker's maps, keyed by the non-negative values of the
//     blank-separated tokens, all counts 0; a token that is not a number throws out of the
//     constructor, also by design.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>
#include <optional>
#include <stdexcept>

#include "FuzzSupport.h"
#include "MinDDRMeter.h"

namespace {

constexpr char kAvail[] = "/ddr/available_frequencies";

// The value of a base-10 conversion that throws, or nothing when it would throw.
std::optional<int> converted(const std::string& text) {
    errno = 0;
    char* end = nullptr;
    const long value = strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return std::nullopt;
    return static_cast<int>(value);
}

MeterInfo info() {
    return MeterInfo{"", {}, {}, {{"MEMLAT_AVAIL_FREQ_LITTLE_PATH", kAvail}}};
}

void curFreq(const std::vector<std::string>& texts) {
    const auto& root = fuzzing::root();
    root.addFile(kAvail, "200000 451000 1017000 1555000\n");
    MeterInfo meterInfo = info();
    AuxMinDDRMeter worker(meterInfo);
    std::string path = "/ddr/cur_freq";
    int votes[2] = {-1, -1};
    for (size_t i = 0; i < texts.size(); ++i) {
        root.addFile(path, texts[i]);
        const std::string line = fuzzing::firstLine(texts[i]);
        const std::optional<int> expected = line.empty() ? -1 : converted(line);
        std::ifstream node;
        try {
            votes[i % 2] = worker.readValue(node, path);
        } catch (const std::invalid_argument&) {
            FUZZ_CHECK(!expected);
            continue;
        } catch (const std::out_of_range&) {
            FUZZ_CHECK(!expected);
            continue;
        }
        FUZZ_CHECK(expected && votes[i % 2] == *expected);
        if (!line.empty())  // rewound: the same node reads the same again
            FUZZ_CHECK(worker.readValue(node, path) == *expected);
        if (i % 2 == 1)
            worker.buildResidencyMap(votes[0], votes[1]);
    }
    // The lowest frequency with at least 20 samples below it, else -1.
    int little = -1, big = -1;
    worker.getOpp(little, big);
    for (auto [opp, residency] :
         {std::pair(little, &worker.mLittleResidency), std::pair(big, &worker.mBigResidency)}) {
        int expected = -1;
        int64_t below = 0;
        for (auto [frequency, count] : *residency) {
            if (below >= 20) {
                expected = frequency;
                break;
            }
            below += count;
        }
        FUZZ_CHECK(opp == expected);
    }
}

void availableFrequencies(const std::string& text) {
    fuzzing::root().addFile(kAvail, text);
    std::map<int32_t, int32_t> expected;
    bool throws = false;
    for (size_t from = 0; from < text.size() && !throws;) {
        const size_t blank = text.find(' ', from);
        const std::optional<int> value = converted(text.substr(from, blank - from));
        throws = !value;
        if (value && *value >= 0)
            expected[*value] = 0;
        from = blank == std::string::npos ? text.size() : blank + 1;
    }
    MeterInfo meterInfo = info();
    try {
        AuxMinDDRMeter worker(meterInfo);
        FUZZ_CHECK(!throws && worker.mLittleResidency == expected &&
                   worker.mBigResidency == expected);
    } catch (const std::invalid_argument&) {
        FUZZ_CHECK(throws);
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(throws);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzzing::Input input = fuzzing::split(data, size, 2);
    if (input.parser == 0)
        curFreq(input.texts);
    else
        availableFrequencies(input.texts[0]);
    return 0;
}
