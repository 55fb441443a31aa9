#include "ProcStatus.h"

#include <cstdlib>
#include <cstring>

#include "MeterMath.h"

namespace meters {

namespace {

constexpr char kRssAnonKey[] = "RssAnon:";
constexpr char kVmSwapKey[] = "VmSwap:";
constexpr int kLineSize = 150;

}  // namespace

int statusFieldValue(const char* line, const char* key) {
    if (line == nullptr || key == nullptr)
        return -1;
    const char* at = strstr(line, key);
    // NOLINTNEXTLINE(cert-err34-c): atoi's reading is the figure: text that is no number gives 0.
    return at != nullptr ? atoi(at + strlen(key)) : -1;
}

int statusAnonPlusSwapKb(FILE* status) {
    if (status == nullptr)
        return -1;
    int rssAnon = -1;
    int vmSwap = -1;
    int found = 0;
    char line[kLineSize];
    while (found < 2 && fgets(line, sizeof(line), status) != nullptr) {
        // A line with both keys counts as RssAnon's.
        const bool isRssAnon = strstr(line, kRssAnonKey) != nullptr;
        if (!isRssAnon && strstr(line, kVmSwapKey) == nullptr)
            continue;
        int value = statusFieldValue(line, isRssAnon ? kRssAnonKey : kVmSwapKey);
        if (value >= 0) {
            (isRssAnon ? rssAnon : vmSwap) = value;
            ++found;
        }
    }
    return found < 2 ? rssAnon : wrappingAdd(rssAnon, vmSwap);
}

}  // namespace meters
