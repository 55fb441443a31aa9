// The three series of one launch (VmRSS, OOM score, open-descriptor counts), the analysis that
// concludes the sample at which the launch settled, and the CSV export of both. Part of the
// launch meter: LaunchMeter owns one and feeds it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

// The end points one analysis pass found, one per series.
struct Resolution {
    int32_t vmRssEp;
    int32_t oomScoreEp;
    int32_t fdCountEp;
};

class LLFeaturesList {
  public:
    LLFeaturesList();

    // Each series keeps its first 2000 values. FD counts come from the host's event thread and
    // are appended under mListMutex; the other two come from the sampling thread only.
    void insertVmRss(int v);
    void insertOMMScroe(int v);
    void insertFDCount(int v);
    // Empties the ages, top values and frequencies of the last pass.
    void clearIntermediates();
    // Empties everything for the next launch.
    void clearAll();

    // One analysis pass; the caller holds mListMutex. The first argument is not used.
    void churnForStablizingPoints(int, int window);
    void accessDataPtAge(std::vector<int>& series, std::vector<float>& ages);
    void countFrequentElem(std::vector<int>& series, std::unordered_map<int, int>& freq);
    void topFrequentElem(std::unordered_map<int, int>& freq, std::vector<int>& top);
    int getYoungest(std::vector<int> top, std::vector<float>& ages, std::vector<int>& series);
    int calculateEndp(int value, std::vector<int>& series, int thresholdPct, int window);
    void concludeEp(int);

    // Appends this pass's block to "data/vendor/zq/<mPkgName>.csv" (a path relative to the
    // working directory), and a note to a package's file; both only while the switch is on.
    void exportToFile();
    void exportToFile(const char* msg, int value, const char* pkg);
    // Appends cell i of a column ("0" past its end) and ", ".
    template <class T>
    static void vecToStr(std::string& out, std::vector<T>& v, int i);

    std::vector<int32_t> mVmRss;
    std::vector<int32_t> mOOMScroe;
    std::vector<int32_t> mFDCount;
    std::mutex mListMutex;
    std::string mPkgName;
    // Weight of each twelfth of a series, oldest first; the newest weighs 1.0.
    std::vector<float> mAgeTable;
    std::vector<float> mVmRssAge;
    std::vector<float> mOOMScroeAge;
    std::vector<float> mFDCountAge;
    std::vector<int32_t> mVmRssTop12;
    std::vector<int32_t> mOOMScroeTop12;
    std::vector<int32_t> mFDCountTop12;
    std::vector<Resolution> mResolutions;
    std::atomic<bool> mEpDone{false};  // read by the event thread
    int32_t mEp = 0;                   // a sample index
    int32_t mIsGame = 0;
    int32_t mAppClass = 0;
    int32_t mVmRssYoungest = 0;
    int32_t mOOMScroeYoungest = 0;
    int32_t mFDCountYoungest = 0;
    int32_t mVmRssEp = 0;
    int32_t mOOMScroeEp = 0;
    int32_t mFDCountEp = 0;
    // Emptied with clear() between passes and never made anew: the order in which values of
    // equal count come out follows the map's bucket history, and game results depend on it.
    std::unordered_map<int, int> mVmRssFreq;
    std::unordered_map<int, int> mOOMScroeFreq;
    std::unordered_map<int, int> mFDCountFreq;

    // Whether the export switch was ever seen on in this process (only that is remembered).
    static std::atomic<bool> mEnableCSV;

  private:
    bool csvEnabled();
};
