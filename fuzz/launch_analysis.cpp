// The launch end-point analysis (LaunchMeter's LLFeaturesList) over arbitrary series. The input
// is a script, one command a line:
//   g N      the launch is a game (N != 0): window 10, intermediates cleared after each pass
//   a N      the classifier's answer for a non-game (mAppClass)
//   v N [K]  K (default 1) VmRSS samples N; o and f the same for OOM scores and FD counts
//   c        one analysis pass, as LaunchMeter runs one every 167 samples of a game
// and a last pass at the end unless the end point is known, as after the sampling loop. After
// each pass: every end point is a sample index; the end point is known exactly when it is
// positive; ages match their series; the top values come from their series; a representative
// value is 0 or lies within its series.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "FuzzSupport.h"
#include "LLFeaturesList.h"

namespace {

constexpr int kMaxPasses = 64;  // more only repeat what these find, slowly
constexpr long kMaxRepeat = 2001;

bool isIndex(int32_t value, size_t size) {
    return value == 0 || (value > 0 && static_cast<size_t>(value) < size);
}

struct Series {
    std::vector<int32_t>& values;
    std::vector<float>& ages;
    std::vector<int32_t>& top;
    int32_t youngest;
    int32_t ep;
};

void checkPass(LLFeaturesList& f, size_t passesBefore) {
    FUZZ_CHECK(f.mResolutions.size() == passesBefore + 1);
    const Resolution& last = f.mResolutions.back();
    FUZZ_CHECK(last.vmRssEp == f.mVmRssEp && last.oomScoreEp == f.mOOMScroeEp &&
               last.fdCountEp == f.mFDCountEp);
    const Series all[] = {
        {f.mVmRss, f.mVmRssAge, f.mVmRssTop12, f.mVmRssYoungest, f.mVmRssEp},
        {f.mOOMScroe, f.mOOMScroeAge, f.mOOMScroeTop12, f.mOOMScroeYoungest, f.mOOMScroeEp},
        {f.mFDCount, f.mFDCountAge, f.mFDCountTop12, f.mFDCountYoungest, f.mFDCountEp}};
    for (const Series& s : all) {
        FUZZ_CHECK(s.values.size() <= 2000 && isIndex(s.ep, s.values.size()));
        FUZZ_CHECK(s.ages.size() == s.values.size());
        for (float age : s.ages)
            FUZZ_CHECK(std::find(f.mAgeTable.begin(), f.mAgeTable.end(), age) != f.mAgeTable.end());
        FUZZ_CHECK(s.top.size() <= 12);
        for (int32_t value : s.top)
            FUZZ_CHECK(std::find(s.values.begin(), s.values.end(), value) != s.values.end());
        if (s.youngest == 0 || s.values.empty())
            continue;
        const auto [low, high] = std::minmax_element(s.values.begin(), s.values.end());
        // The middle of two values is taken in 32 bits, wrapping as on the device, so only
        // values that cannot wrap must keep it inside the series.
        if (*low > -(1 << 29) && *high < (1 << 29))
            FUZZ_CHECK(*low <= s.youngest && s.youngest <= *high);
    }
    FUZZ_CHECK(f.mEpDone == (f.mEp > 0));
    FUZZ_CHECK(isIndex(f.mEp, 2000));
}

void pass(LLFeaturesList& f, int& passes) {
    if (passes++ >= kMaxPasses)
        return;
    std::lock_guard<std::mutex> lock(f.mListMutex);
    const bool done = f.mEpDone;
    const size_t before = f.mResolutions.size();
    f.churnForStablizingPoints(0, f.mIsGame != 0 ? 10 : 5);
    if (done) {
        FUZZ_CHECK(f.mResolutions.size() == before);
        return;
    }
    checkPass(f, before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::root();  // the log lines dropped
    const std::string script(reinterpret_cast<const char*>(data), size);
    LLFeaturesList f;
    int passes = 0;
    for (size_t from = 0; from < script.size();) {
        const size_t end = std::min(script.find('\n', from), script.size());
        const std::string line = script.substr(from, end - from);
        from = end + 1;
        if (line.empty())
            continue;
        char* rest = nullptr;
        const long n = strtol(line.c_str() + 1, &rest, 10);
        const long repeat =
            std::clamp(*rest != '\0' ? strtol(rest, nullptr, 10) : 1L, 0L, kMaxRepeat);
        const auto value = static_cast<int32_t>(n);
        switch (line[0]) {
            case 'g':
                f.mIsGame = n != 0;
                break;
            case 'a':
                f.mAppClass = value;
                break;
            case 'v':
            case 'o':
            case 'f':
                for (long k = 0; k < repeat; ++k) {
                    if (line[0] == 'v')
                        f.insertVmRss(value);
                    else if (line[0] == 'o')
                        f.insertOMMScroe(value);
                    else
                        f.insertFDCount(value);
                }
                break;
            case 'c':
                pass(f, passes);
                f.clearIntermediates();
                break;
            default:
                break;
        }
    }
    if (!f.mEpDone)
        pass(f, passes);
    return 0;
}
