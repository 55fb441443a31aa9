// The display driver's fps node, read by FpsMeter through its kept-open node: getFps(),
// getFrames(), getFps(). A reading takes a line; it fails on an empty line or one with nothing
// after its first colon (0.0 or 0), else gives the rate after the first colon truncated and
// scaled by 100 under the product's guard (1 when it overflows), or the count after the last
// colon. A good reading rewinds the node, so the next one starts again at its first line; a
// failed one does not, so the next one takes the line after it.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "FpsMeter.h"
#include "FuzzSupport.h"

namespace {

constexpr char kNode[] = "/fps/measured_fps";

bool parses(const std::string& line) {
    const size_t first = line.find(':');
    return first != std::string::npos && line.size() - first > 1;
}

// The rate a good reading of line gives, or NaN when it is not a number (left open).
float rate(const std::string& line) {
    const float fps = std::trunc(strtof(line.c_str() + line.find(':') + 1, nullptr));
    if (std::isnan(fps))
        return fps;
    return std::fabs(fps) > 21474836.0F ? 0.01F
                                        : static_cast<float>(static_cast<int32_t>(fps) * 100) / 100;
}

uint32_t frames(const std::string& line) {
    return static_cast<uint32_t>(strtoul(line.c_str() + line.rfind(':') + 1, nullptr, 10));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    fuzzing::root().addFile(kNode, text);
    FpsMeter meter{
        MeterInfo{"", {}, {}, {{"FPS_NODE", kNode}, {"FPS_PERIODICITY_NODE", "/fps/period"}}}};
    meter.start();
    std::vector<std::string> lines;
    for (size_t from = 0; from <= text.size();) {
        const size_t end = std::min(text.find('\n', from), text.size());
        lines.push_back(text.substr(from, end - from));
        from = end + 1;
    }
    size_t next = 0;
    for (int reading = 0; reading < 3; ++reading) {
        const std::string line = next < lines.size() ? lines[next] : "";
        const bool good = parses(line);
        if (reading == 1) {
            FUZZ_CHECK(meter.getFrames() == (good ? frames(line) : 0));
        } else {
            const float fps = meter.getFps();
            FUZZ_CHECK(good ? std::isnan(rate(line)) || fps == rate(line) : fps == 0.0F);
        }
        next = good ? 0 : next + 1;
    }
    return 0;
}
