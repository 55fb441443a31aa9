// The CPU instruction-counter node, read by PerfCountersMeter's getIPC() and then
// getInstructions(): the first 249 bytes, numbers separated by colons into the four fields
// (atol each), a field the text does not reach keeping its value (-1 on a fresh meter). The
// IPC is the second field; the instructions are the first plus the third and the first's share
// of that in percent, divided before it is multiplied.
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "FuzzSupport.h"
#include "PerfCountersMeter.h"
#include "VendorIPerfDataStore.h"

namespace {

constexpr char kNode[] = "/perf/cpu_instructions";

std::array<int64_t, 4> fields(const std::string& text) {
    std::array<int64_t, 4> values = {-1, -1, -1, -1};
    std::string head = text.substr(0, 249);
    size_t stored = 0;
    char* rest = nullptr;
    for (char* token = strtok_r(head.data(), ":", &rest);
         token != nullptr && stored < values.size(); token = strtok_r(nullptr, ":", &rest))
        values[stored++] = atol(token);
    return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool stored = [] {
        VendorIPerfDataStore::getVendorIPerfDataStore()->Store(5, kNode);
        return true;
    }();
    (void)stored;
    const std::string text(reinterpret_cast<const char*>(data), size);
    fuzzing::root().addFile(kNode, text);
    PerfCountersMeter meter{MeterInfo{}};
    const std::array<int64_t, 4> expected = fields(text);
    FUZZ_CHECK(meter.getIPC() == expected[1]);
    const std::vector<int64_t> instructions = meter.getInstructions();
    const auto total = static_cast<int64_t>(static_cast<uint64_t>(expected[0]) +
                                            static_cast<uint64_t>(expected[2]));
    FUZZ_CHECK(instructions.size() == 2 && instructions[0] == total);
    // A share that is not a number or out of range converts as the device does; the text names
    // only 0 for 0 of 0.
    const double share = static_cast<double>(static_cast<uint64_t>(expected[0])) /
                         static_cast<double>(total) * 100.0;
    if (expected[0] == 0 && total == 0)
        FUZZ_CHECK(instructions[1] == 0);
    else if (std::isfinite(share) && std::fabs(share) < 9.2e18)
        FUZZ_CHECK(instructions[1] == static_cast<int64_t>(share));
    return 0;
}
