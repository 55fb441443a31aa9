#include "LLFeaturesList.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fstream>

#include "Diagnostics.h"
#include "DumpData.h"
#include "LaunchMeter.h"
#include "MeterMath.h"

namespace {

constexpr char kComponent[] = "LaunchMeter:";
constexpr char kCsvDir[] = "data/vendor/zq/";  // relative on purpose: the host's working directory
constexpr size_t kSeriesCap = 2000;
constexpr size_t kTopCount = 12;
constexpr float kTopShare = 0.75F;     // a non-game's top counts reach 3/4 of the largest
constexpr float kClusterStepPct = 10;  // top values closer than this are one cluster
constexpr float kStablePairPct = 10;   // successive passes closer than this agree
constexpr int kStableRunsToEnd = 4;    // more agreeing passes than this end it regardless
// Close enough to the representative value, in percent: VmRSS, OOM score, FD count.
constexpr int kVmRssThresholdPct = 1;
constexpr int kOomThresholdPct = 5;
constexpr int kFdThresholdPct = 5;

float fromBits(uint32_t bits) {
    float f;
    memcpy(&f, &bits, sizeof(f));
    return f;
}

// The launch meter's percentage difference of two samples, which it takes as floats.
float diffPercentage(int a, int b) {
    return LaunchMeter::calcDiffPercentage(static_cast<float>(a), static_cast<float>(b));
}

void append(std::vector<int32_t>& series, int v) {
    if (series.size() < kSeriesCap)
        series.push_back(v);
}

// Successive passes' end points of one series: a run of agreeing pairs and its largest value.
void followPair(int cur, int next, int& run, int& candidate) {
    if (diffPercentage(cur, next) < kStablePairPct) {
        ++run;
        candidate = std::max(candidate, next);
    } else {
        run = 0;
    }
}

}  // namespace

std::atomic<bool> LLFeaturesList::mEnableCSV{false};

// The first two weights are deliberately not exact powers of two.
LLFeaturesList::LLFeaturesList()
    : mAgeTable{fromBits(0x39FFFFF7),
                fromBits(0x3A800004),
                0.001953125F,
                0.00390625F,
                0.0078125F,
                0.015625F,
                0.03125F,
                0.0625F,
                0.125F,
                0.25F,
                0.5F,
                1.0F} {}

void LLFeaturesList::insertVmRss(int v) {
    append(mVmRss, v);
}

void LLFeaturesList::insertOMMScroe(int v) {
    append(mOOMScroe, v);
}

void LLFeaturesList::insertFDCount(int v) {
    std::lock_guard<std::mutex> lock(mListMutex);
    append(mFDCount, v);
}

void LLFeaturesList::clearIntermediates() {
    for (auto* ages : {&mVmRssAge, &mOOMScroeAge, &mFDCountAge})
        ages->clear();
    for (auto* top : {&mVmRssTop12, &mOOMScroeTop12, &mFDCountTop12})
        top->clear();
    for (auto* freq : {&mVmRssFreq, &mOOMScroeFreq, &mFDCountFreq})
        freq->clear();
}

void LLFeaturesList::clearAll() {
    mVmRss.clear();
    mOOMScroe.clear();
    {
        std::lock_guard<std::mutex> lock(mListMutex);
        mFDCount.clear();
    }
    mResolutions.clear();
    clearIntermediates();
    mEpDone = false;
    mIsGame = 0;
    mAppClass = 0;
    mEp = 0;
}

void LLFeaturesList::churnForStablizingPoints(int, int window) {
    if (mEpDone)
        return;
    accessDataPtAge(mVmRss, mVmRssAge);
    accessDataPtAge(mOOMScroe, mOOMScroeAge);
    accessDataPtAge(mFDCount, mFDCountAge);
    countFrequentElem(mVmRss, mVmRssFreq);
    countFrequentElem(mOOMScroe, mOOMScroeFreq);
    countFrequentElem(mFDCount, mFDCountFreq);
    topFrequentElem(mVmRssFreq, mVmRssTop12);
    topFrequentElem(mOOMScroeFreq, mOOMScroeTop12);
    topFrequentElem(mFDCountFreq, mFDCountTop12);
    mVmRssYoungest = getYoungest(mVmRssTop12, mVmRssAge, mVmRss);
    mOOMScroeYoungest = getYoungest(mOOMScroeTop12, mOOMScroeAge, mOOMScroe);
    mFDCountYoungest = getYoungest(mFDCountTop12, mFDCountAge, mFDCount);
    mVmRssEp = calculateEndp(mVmRssYoungest, mVmRss, kVmRssThresholdPct, window);
    mOOMScroeEp = calculateEndp(mOOMScroeYoungest, mOOMScroe, kOomThresholdPct, window);
    mFDCountEp = calculateEndp(mFDCountYoungest, mFDCount, kFdThresholdPct, window);
    mResolutions.push_back(Resolution{mVmRssEp, mOOMScroeEp, mFDCountEp});
    concludeEp(0);
}

// Each sample weighs as much as the twelfth of the series it falls in; with fewer than twelve
// samples all weigh the oldest weight, and the remainder past 11 twelfths weighs the newest.
void LLFeaturesList::accessDataPtAge(std::vector<int>& series, std::vector<float>& ages) {
    try {
        const size_t twelfth = series.size() / kTopCount;
        for (size_t i = 0; i < series.size(); ++i) {
            const size_t k = twelfth != 0 ? i / twelfth : 0;
            ages.push_back(mAgeTable.at(k < mAgeTable.size() ? k : mAgeTable.size() - 1));
        }
    }
    METER_CATCH_PLAIN(kComponent, "accessDataPtAge", __LINE__, __LINE__)
}

void LLFeaturesList::countFrequentElem(std::vector<int>& series,
                                       std::unordered_map<int, int>& freq) {
    try {
        for (int v : series)
            freq[v] += 1;
    }
    METER_CATCH_PLAIN(kComponent, "countFrequentElem", __LINE__, __LINE__)
}

// Up to twelve values by falling count. A count shared by several values stands in the list once
// per value, and each time brings all of them again, in the map's order: such values repeat in
// top, on purpose.
void LLFeaturesList::topFrequentElem(std::unordered_map<int, int>& freq, std::vector<int>& top) {
    try {
        top.clear();
        std::vector<int> counts;
        counts.reserve(freq.size());
        for (const auto& entry : freq)
            counts.push_back(entry.second);
        const size_t kept = std::min(counts.size(), kTopCount);
        const auto keptEnd = counts.begin() + static_cast<std::ptrdiff_t>(kept);  // kept <= 12
        std::partial_sort(counts.begin(), keptEnd, counts.end(), std::greater<int>());
        for (size_t c = 0; c < kept && top.size() < kTopCount; ++c) {
            if (static_cast<float>(counts[c]) / static_cast<float>(counts[0]) < kTopShare &&
                mIsGame == 0) {
                break;
            }
            for (auto it = freq.begin(); it != freq.end() && top.size() < kTopCount; ++it) {
                if (it->second == counts[c])
                    top.push_back(it->first);
            }
        }
    }
    METER_CATCH_PLAIN(kComponent, "topFrequentElem", __LINE__, __LINE__)
}

// Close top values stand for their middle; spread ones are scored by the ages of their samples,
// truncated after every addition, so that only the newest twelfth (weight 1.0) counts.
int LLFeaturesList::getYoungest(std::vector<int> top, std::vector<float>& ages,
                                std::vector<int>& series) {
    int best = 0;
    try {
        if (series.size() != ages.size())
            return 0;
        bool clustered = true;
        int prev = 0;
        for (int v : top) {
            // A 0 starts the chain afresh.
            const float step = prev == 0 ? 0.0F : diffPercentage(v, prev);
            clustered = clustered && !(step > kClusterStepPct);
            prev = v;
        }
        if (clustered && !top.empty()) {
            auto [lowest, highest] = std::minmax_element(top.begin(), top.end());
            return meters::wrappingAdd(*highest, *lowest) / 2;
        }
        int bestScore = 0;
        for (int v : top) {
            int score = 0;
            for (size_t i = 0; i < series.size(); ++i) {
                if (series[i] == v)
                    score = static_cast<int>(static_cast<float>(score) + ages[i]);
            }
            if (score > bestScore) {  // a tie keeps the earlier value
                best = v;
                bestScore = score;
            }
        }
    }
    METER_CATCH_PLAIN(kComponent, "getYoungest", __LINE__, __LINE__)
    return best;
}

// The first index of the first run of window samples close to value, after the series' peak
// when the peak comes before value's place; else where the last close run began (0 if none).
int LLFeaturesList::calculateEndp(int value, std::vector<int>& series, int thresholdPct,
                                  int window) {
    if (series.empty())
        return 0;
    const auto begin = series.begin();
    const int peak = static_cast<int>(std::max_element(begin, series.end()) - begin);
    auto found = std::find(begin, series.end(), value);
    // The series is not sorted: the binary search is kept as the figures were made with it.
    const int at = static_cast<int>(
        (found != series.end() ? found : std::lower_bound(begin, series.end(), value)) - begin);
    const int start = peak < at && series[peak] != value ? peak : -1;
    int run = 0;
    int candidate = 0;
    for (int i = 0; i < static_cast<int>(series.size()); ++i) {
        if (diffPercentage(series[i], value) < static_cast<float>(thresholdPct) && i > start) {
            if (run == 0)
                candidate = i;
            if (++run >= window)
                return candidate;
        } else {
            run = 0;
        }
    }
    return candidate;
}

void LLFeaturesList::concludeEp(int) {
    try {
        const int required = mIsGame == 0 ? 1 : mAppClass == 0 ? 3 : mAppClass >= 1 ? 4 : 1;
        int rVm = 0, rOom = 0, rFd = 0;
        int cVm = 0, cOom = 0, cFd = 0;
        if (mResolutions.size() == 1 && mIsGame == 0) {
            const Resolution& only = mResolutions[0];
            mEp = std::max({only.vmRssEp, only.oomScoreEp, only.fdCountEp});
            if (mEp > 0)
                mEpDone = true;
        } else if (mResolutions.size() >= 2) {
            for (size_t k = 0; k + 1 < mResolutions.size(); ++k) {
                const Resolution& cur = mResolutions[k];
                const Resolution& next = mResolutions[k + 1];
                followPair(cur.vmRssEp, next.vmRssEp, rVm, cVm);
                followPair(cur.oomScoreEp, next.oomScoreEp, rOom, cOom);
                followPair(cur.fdCountEp, next.fdCountEp, rFd, cFd);
            }
            const int r = required;
            const bool agreed = (rOom >= r && rVm >= r) || (rFd >= r && rVm >= r) ||
                                (rFd >= r && rOom >= r) ||
                                (mAppClass == 0 && (rVm >= r || rOom >= r || rFd >= r));
            if (agreed) {
                mEp = std::max({cVm, cOom, cFd});
                if (mEp > 0)
                    mEpDone = true;
            }
            if (!mEpDone && std::max({rVm, rOom, rFd}) > kStableRunsToEnd) {
                mEp = std::max({cVm, cOom, cFd});
                if (mEp > 0)
                    mEpDone = true;
            }
        }
        // Whatever happened above: a non-game whose series did not agree in pairs takes what
        // the agreeing ones found.
        const bool mixed =
            !((rFd < 1 && rOom < 1) || (rOom < 1 && rVm < 1)) && (rFd > 0 || rVm > 0);
        if (mEp < 1 && !mixed && mIsGame == 0 && std::max({rVm, rOom, rFd}) > 0) {
            mEp = std::max({cVm, cOom, cFd});
            METER_LOGE(kComponent, "concludeEp", __LINE__, "Final Ep by dataUnavailable %d\n", mEp);
            if (mEp > 0)
                mEpDone = true;
        }
    }
    METER_CATCH_PLAIN(kComponent, "concludeEp", __LINE__, __LINE__)
}

bool LLFeaturesList::csvEnabled() {
    if (!mEnableCSV)
        mEnableCSV = DumpData::csvSwitchOn();
    return mEnableCSV;
}

template <class T>
void LLFeaturesList::vecToStr(std::string& out, std::vector<T>& v, int i) {
    out += i >= 0 && static_cast<size_t>(i) < v.size() ? std::to_string(v[i]) : "0";
    out += ", ";
}

template void LLFeaturesList::vecToStr<int>(std::string&, std::vector<int>&, int);
template void LLFeaturesList::vecToStr<float>(std::string&, std::vector<float>&, int);

void LLFeaturesList::exportToFile() {
    try {
        if (!csvEnabled())
            return;
        const size_t rows =
            std::max({mOOMScroe.size(), mFDCount.size(), mVmRss.size(), mVmRssAge.size(),
                      mOOMScroeAge.size(), mFDCountAge.size(), mAgeTable.size()});
        std::ofstream out;
        if (!DumpData::openForAppend(out, kCsvDir + mPkgName + ".csv"))
            return;
        out << "\n\n FD, OOM, VMRSS,VmRssAge,OOMScroeAge,FDCountAge,mAgeTable,mVmRssTop12,"
               "mOOMScroeTop12,mFDCountTop12";
        std::string row;
        for (int i = 0; i < static_cast<int>(rows); ++i) {
            row = "\n";
            for (auto* column : {&mFDCount, &mOOMScroe, &mVmRss})
                vecToStr(row, *column, i);
            for (auto* column : {&mVmRssAge, &mOOMScroeAge, &mFDCountAge, &mAgeTable})
                vecToStr(row, *column, i);
            for (auto* column : {&mVmRssTop12, &mOOMScroeTop12, &mFDCountTop12})
                vecToStr(row, *column, i);
            out << row;
        }
        out << "\nmVmRssEp, mOOMScroeEp, mFDCountEp\n"
            << mVmRssEp << ", " << mOOMScroeEp << ", " << mFDCountEp << "\n";
        out << "\nmVmRssYoungest, mOOMScroeYoungest, mFDCountYoungest\n"
            << mVmRssYoungest << ", " << mOOMScroeYoungest << ", " << mFDCountYoungest << "\n";
        if (mEpDone)
            out << "\nFinal : " << mEp << "\n";
    }
    METER_CATCH_PLAIN(kComponent, "exportToFile", __LINE__, __LINE__)
}

void LLFeaturesList::exportToFile(const char* msg, int value, const char* pkg) {
    try {
        if (msg == nullptr || pkg == nullptr || !csvEnabled())
            return;
        std::ofstream out;
        if (!DumpData::openForAppend(out, kCsvDir + std::string(pkg) + ".csv"))
            return;
        out << "\n";
        out << msg << " " << value << "\n";
    }
    METER_CATCH_PLAIN(kComponent, "exportToFile", __LINE__, __LINE__)
}
