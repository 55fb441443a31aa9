#include "Demo.h"

#include <android/log.h>
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "AsyncEvent.h"
#include "Commands.h"
#include "HintCodes.h"
#include "HostSetup.h"
#include "LaunchMeter.h"
#include "MeterCatalog.h"
#include "MeterMath.h"
#include "SimDevice.h"
#include "SimTime.h"
#include "StatsProvider.h"
#include "Svg.h"
#include "SyntheticApp.h"
#include "seams.h"

namespace meterctl {

namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

constexpr char kCsvProperty[] = "debug.vendor.tarn.enable.zq_csv_dump";
// Not a game (selector 0), of a class that the launch meter samples for 100 rounds (selector 1).
constexpr int kAppClass = 2;
constexpr int kLaunchBudgetMs = 5000;
// VmRss ends its run once the memory has kept still this long.
constexpr int kVmRssBudgetMs = 2400;
constexpr int kInterrupted = 130;
constexpr auto kAppStartTimeout = std::chrono::seconds(10);

const char* const kSamplingMeters[] = {"Launch", "VmRss", "Memory", "ProComp"};
const char* const kReaderMeters[] = {"Fps", "Gpu", "SchedParams", "PerfCounters", "MinDDR"};

// ---- The meters' log lines, into the output folder ------------------------------------------

std::mutex gLogMutex;
FILE* gLogFile = nullptr;

void logToFile(const __android_log_message* msg) {
    std::string line = seams::logcatLine(*msg);
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLogFile != nullptr)
        fprintf(gLogFile, "%s\n", line.c_str());
}

// The descriptor-count events alone come every 30 ms: on a terminal they would bury the
// progress line, so the log goes to a file while the demo runs.
class ScopedLogFile {
  public:
    explicit ScopedLogFile(const std::string& path) {
        std::lock_guard<std::mutex> lock(gLogMutex);
        gLogFile = fopen(path.c_str(), "we");
        if (gLogFile != nullptr)
            __android_log_set_logger(logToFile);
    }
    ~ScopedLogFile() {
        __android_log_set_logger(nullptr);
        std::lock_guard<std::mutex> lock(gLogMutex);
        if (gLogFile != nullptr)
            fclose(gLogFile);
        gLogFile = nullptr;
    }
};

// ---- What the host sets up for the meters, restored afterwards ------------------------------

// The demo's additions to the host set-up: the working directory (the launch meter writes its
// export relative to it) and the GPU memory that the statistics service reports for the app.
class ScopedHost {
  public:
    ScopedHost(const std::string& root, const std::string& package, const SimTime& time,
               pid_t appPid)
        : mOldCwd(fs::current_path()),
          mRoot(root),
          mCsv({std::string(kCsvProperty) + "=1"}),
          mNode(sim::kCpuInstructionsNode),
          mClassifier({package}, false, kAppClass) {
        std::error_code error;
        fs::current_path(root, error);
        if (error)
            throw std::runtime_error("cannot change into " + root + ": " + error.message());
        StatsProvider::setGpuMemorySource([&time, appPid](int pid) -> int64_t {
            return pid == appPid ? sim::deviceStateAt(time.ms()).gpuMemoryKb : 0;
        });
        AsyncEvent::clearPidMap();
    }
    ~ScopedHost() {
        AsyncEvent::clearPidMap();
        StatsProvider::setGpuMemorySource(nullptr);
        std::error_code error;
        fs::current_path(mOldCwd, error);
    }
    ScopedHost(const ScopedHost&) = delete;
    ScopedHost& operator=(const ScopedHost&) = delete;

  private:
    fs::path mOldCwd;
    ScopedRoot mRoot;
    ScopedProperties mCsv;
    ScopedPerfCountersNode mNode;
    ScopedClassifier mClassifier;
};

// ---- The host's event thread ----------------------------------------------------------------

class EventThread {
  public:
    EventThread() : mThread([this] { run(); }) {}
    ~EventThread() { stop(); }

    void post(Meter& meter, const AsyncTriggerPayload& payload) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mQueue.push_back({&meter, payload});
            ++mPosted;
        }
        mCv.notify_all();
    }
    // Returns once the meter has taken the event.
    void deliver(Meter& meter, const AsyncTriggerPayload& payload) {
        post(meter, payload);
        std::unique_lock<std::mutex> lock(mMutex);
        const uint64_t mine = mPosted;
        mCv.wait(lock, [&] { return mDelivered >= mine || mStopped; });
    }
    void stop() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStop = true;
        }
        mCv.notify_all();
        if (mThread.joinable())
            mThread.join();
    }

  private:
    void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            mCv.wait(lock, [this] { return mStop || !mQueue.empty(); });
            if (mQueue.empty())
                break;  // stopped, and everything posted was delivered
            std::pair<Meter*, AsyncTriggerPayload> item = std::move(mQueue.front());
            mQueue.pop_front();
            lock.unlock();
            item.first->asyncTriggerUpdate(item.second);
            lock.lock();
            ++mDelivered;
            mCv.notify_all();
        }
        mStopped = true;
        mCv.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mCv;
    std::deque<std::pair<Meter*, AsyncTriggerPayload>> mQueue;
    uint64_t mPosted = 0;
    uint64_t mDelivered = 0;
    bool mStop = false;
    bool mStopped = false;
    std::thread mThread;
};

AsyncTriggerPayload payload(uint32_t hintId, int32_t hintType, int32_t arg0 = 0,
                            const std::string& appName = "") {
    AsyncTriggerPayload p;
    p.hintId = hintId;
    p.hintType = hintType;
    p.appName = appName;
    p.intArgs[0] = arg0;
    return p;
}

// The open descriptors of a process, or -1 once it is gone.
int countDescriptors(pid_t pid) {
    DIR* dir = opendir(seams::resolvePath("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr)
        return -1;
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            ++count;
    }
    closedir(dir);
    return count;
}

std::string seconds(double ms) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.1f s", ms / 1000);
    return buf;
}

std::string megabytes(int64_t kb) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.0f MB", static_cast<double>(kb) / 1024);
    return buf;
}

json readingsJson(const std::vector<Reading>& readings) {
    json out = json::array();
    for (const Reading& r : readings)
        out.push_back({{"label", r.label}, {"value", r.value}, {"unit", r.unit}});
    return out;
}

// ---- One run ---------------------------------------------------------------------------------

struct ReaderRow {
    double ms;
    std::string meter;
    Reading reading;
};

struct SamplingRun {
    std::thread thread;
    std::atomic<std::thread::id> id{};  // the thread's, once it runs
    // Its first sleep came: start() has taken its pending list and samples.
    std::atomic<bool> sampling{false};
    double startedMs = 0;  // when start() was called; read after the thread is joined
    std::atomic<bool> done{false};
    bool announced = false;
};

class DemoRun {
  public:
    DemoRun(const DemoOptions& options, std::string exe, fs::path outDir, std::ostream& out,
            std::ostream& err, bool terminal)
        : mOptions(options),
          mExe(std::move(exe)),
          mOutDir(std::move(outDir)),
          mOut(out),
          mErr(err),
          mProgress(out, terminal, kDemoActivityMs) {}
    ~DemoRun() { stopEverything(); }

    int execute();

  private:
    void startLaunch();
    void mainLoop();
    void pollReaders(double ms, bool final);
    void handleAppReports();
    void announceFinishedMeters();
    std::string statusLine() const;
    void onMeterSleep(uint32_t us);
    void stopEverything();
    void collectSamplingReadings();
    json writeOutputs(double elapsedMs);
    void printSummary(const json& summary);
    const AppReport* lastStep() const;

    Meter& meter(const std::string& name) { return *mMeters.at(name); }

    const DemoOptions& mOptions;
    const std::string mExe;
    const fs::path mOutDir;
    std::ostream& mOut;
    std::ostream& mErr;
    Progress mProgress;

    std::unique_ptr<sim::Device> mDevice;
    std::unique_ptr<AppProcess> mApp;
    pid_t mPid = -1;
    AppReport mReady;
    std::vector<AppReport> mSteps;
    std::unique_ptr<SimTime> mTime;

    std::map<std::string, std::unique_ptr<Meter>> mMeters;
    std::unique_ptr<EventThread> mEvents;
    std::map<std::string, SamplingRun> mRuns;
    std::thread mFdWatcher;
    std::mutex mLaunchMutex;
    std::condition_variable mLaunchCv;
    std::atomic<int> mLaunchRounds{0};
    bool mStopped = false;
    bool mInterrupted = false;

    std::vector<ReaderRow> mReaderRows;
    double mFinalReadMs = -1;
    std::map<std::string, std::vector<Reading>> mFinal;
    LaunchChart mChart;
    std::string mLaunchCsv, mVmRssCsv;
};

void DemoRun::onMeterSleep(uint32_t us) {
    for (auto& [name, run] : mRuns) {
        if (run.id.load() == std::this_thread::get_id())
            run.sampling = true;
    }
    // Only the launch meter sleeps its 30 ms period: each sleep follows one of its samples.
    if (us == meters::kLaunchSamplePeriodUs && mLaunchRounds++ == 0) {
        std::lock_guard<std::mutex> lock(mLaunchMutex);
        mLaunchCv.notify_all();
    }
}

void DemoRun::startLaunch() {
    const std::string& pkg = mOptions.package;
    // All there before any meter sleeps (MinDDR's worker does from the readers' start on):
    // onMeterSleep looks them up.
    for (const char* name : kSamplingMeters)
        mRuns[name];
    MeterInfo info;
    for (const char* name : kReaderMeters) {
        info.name = name;
        mMeters[name] = createMeter(name, info);
    }
    info.name = "VmRss";
    info.numSamples = static_cast<int32_t>(kDemoActivityMs / 300) + 1;
    mMeters["VmRss"] = createMeter("VmRss", info);
    info = MeterInfo{};
    info.name = "Memory";
    info.fieldNames = {"rss_swap", "ion_tesk"};
    info.configs["TotalSamplesToRun"] = std::to_string(static_cast<int>(kDemoActivityMs / 300) + 1);
    mMeters["Memory"] = createMeter("Memory", info);
    for (const char* name : {"Launch", "ProComp"}) {
        info = MeterInfo{};
        info.name = name;
        mMeters[name] = createMeter(name, info);
    }
    for (const auto& [name, m] : mMeters) {
        if (m == nullptr)
            throw std::runtime_error("the meter " + name + " is not registered");
    }
    mEvents = std::make_unique<EventThread>();

    // The readers: triggers first, then start() as the host does when an activity begins.
    mEvents->deliver(meter("MinDDR"), payload(hint::kActivityStart, 0));
    mEvents->deliver(meter("SchedParams"), payload(hint::kActivityStart, 0));
    for (const char* name : kReaderMeters)
        meter(name).start();

    // The launch: the app comes to the foreground and starts its work.
    mDevice->writeFile(sim::kTopAppTasks, std::to_string(mPid) + "\n");
    mApp->go();
    mEvents->deliver(meter("Launch"), payload(hint::kLaunchStart, 0, kLaunchBudgetMs, pkg));
    mEvents->deliver(meter("VmRss"), payload(hint::kLaunchStart, 0, kVmRssBudgetMs, pkg));
    mEvents->deliver(meter("Memory"), payload(hint::kLaunchStart, 0, mPid, pkg));
    mEvents->deliver(meter("ProComp"), payload(hint::kLaunchStart, 0, mPid, pkg));
    for (const char* name : kSamplingMeters) {
        SamplingRun& run = mRuns.at(name);
        Meter& m = meter(name);
        run.thread = std::thread([&m, &run, this] {
            run.id = std::this_thread::get_id();
            run.startedMs = mTime->ms();
            m.start();
            run.done = true;
            std::lock_guard<std::mutex> lock(mLaunchMutex);
            mLaunchCv.notify_all();
        });
    }
    mProgress.event(mTime->ms(), "launch start: " + pkg + " (pid " + std::to_string(mPid) + ")");

    // The host's count of the app's descriptors, from the launch meter's first sample on (its
    // start() clears the series it had before) until the launch meter is done.
    mFdWatcher = std::thread([this] {
        SamplingRun& launch = mRuns.at("Launch");
        {
            std::unique_lock<std::mutex> lock(mLaunchMutex);
            mLaunchCv.wait(lock, [&] { return mLaunchRounds > 0 || launch.done || mStopped; });
        }
        for (double next = mTime->ms(); !launch.done && !mTime->interrupted();) {
            const int count = countDescriptors(mPid);
            if (count >= 0) {
                AsyncTriggerPayload p = payload(hint::kFdCounts, 0);
                p.intArgs[9] = 1;
                p.values = {count};
                mEvents->post(meter("Launch"), p);
            }
            next += kFdPeriodMs;
            if (!mTime->sleepUntil(next))
                break;
        }
    });
}

void DemoRun::pollReaders(double ms, bool final) {
    for (const char* name : kReaderMeters) {
        std::vector<Reading> readings = readMeter(name, meter(name), true);
        for (const Reading& r : readings)
            mReaderRows.push_back({ms, name, r});
        if (final)
            mFinal[name] = std::move(readings);
    }
    if (final)
        mFinalReadMs = ms;
}

const AppReport* DemoRun::lastStep() const {
    return mSteps.size() == static_cast<size_t>(kAppStepCount) ? &mSteps.back() : nullptr;
}

void DemoRun::handleAppReports() {
    for (const AppReport& r : mApp->poll()) {
        if (r.ready)
            continue;
        mSteps.push_back(r);
        const std::string what = r.step == kAppStepCount ? "app settled: " : "app step: ";
        mProgress.event(mTime->msAt(SimTime::Clock::time_point(std::chrono::nanoseconds(r.doneNs))),
                        what + megabytes(r.anonSwapKb) + " anonymous, " +
                            std::to_string(r.descriptors) + " descriptors, OOM adj " +
                            std::to_string(r.oomScoreAdj));
    }
}

void DemoRun::announceFinishedMeters() {
    for (const char* name : kSamplingMeters) {
        SamplingRun& run = mRuns.at(name);
        if (run.announced || !run.done)
            continue;
        run.announced = true;
        // The thread is done with the meter: everything it measured can be read now.
        run.thread.join();
        std::string what = std::string(name) + " done";
        const std::vector<Reading> readings = readMeter(name, meter(name), false);
        if (!readings.empty()) {
            what += ": " + readings[0].label + " " + formatValue(readings[0].value) + " " +
                    readings[0].unit;
        }
        mProgress.event(mTime->ms(), what);
    }
}

std::string DemoRun::statusLine() const {
    std::string s;
    for (const char* name : kSamplingMeters)
        s += std::string(s.empty() ? "" : ", ") + name +
             (mRuns.at(name).done ? " done" : " running");
    s += "; launch sample " + std::to_string(mLaunchRounds.load());
    s += lastStep() != nullptr
             ? "; app settled"
             : "; app step " + std::to_string(mSteps.size()) + "/" + std::to_string(kAppStepCount);
    return s;
}

void DemoRun::mainLoop() {
    double nextRead = 0;
    auto lastStatus = SimTime::Clock::now() - std::chrono::seconds(1);
    for (;;) {
        if (interrupted()) {
            mInterrupted = true;
            mTime->interrupt();
            return;
        }
        const double now = mTime->ms();
        handleAppReports();
        announceFinishedMeters();
        if (now >= kDemoActivityMs)
            return;
        if (now >= nextRead) {
            pollReaders(now, false);
            nextRead += kReaderPeriodMs;
        }
        if (SimTime::Clock::now() - lastStatus >= std::chrono::milliseconds(100)) {
            mProgress.status(now, statusLine());
            lastStatus = SimTime::Clock::now();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// The end of the activity: every meter is told, the readers close their nodes, the sampling
// meters return, the app ends and the meters are deleted (MinDDR's worker is joined then).
// Safe to call more than once.
void DemoRun::stopEverything() {
    if (mStopped)
        return;
    {
        std::lock_guard<std::mutex> lock(mLaunchMutex);
        mStopped = true;
    }
    mLaunchCv.notify_all();
    if (mEvents != nullptr &&
        mMeters.size() == std::size(kSamplingMeters) + std::size(kReaderMeters)) {
        const AsyncTriggerPayload end = payload(hint::kNone, hint::kTypeEnd);
        const AsyncTriggerPayload stop = payload(hint::kActivityStop, hint::kTypeEnd);
        for (const char* name : {"Launch", "Memory", "ProComp"})
            mEvents->deliver(meter(name), end);
        // Not PerfCounters: after a stop its start() closes the number of its last descriptor
        // again, which by now belongs to another file of this process (MinDDR's, say).
        for (const char* name : {"VmRss", "Fps", "Gpu", "SchedParams", "MinDDR"})
            mEvents->deliver(meter(name), stop);
        for (const char* name : {"Fps", "Gpu", "SchedParams", "MinDDR"})
            meter(name).start();
        // A sampling meter forgets an end that came before its start() began (Ctrl-C right
        // after the launch start), so it gets the end again until its run returns. A meter that
        // takes its pending list without a lock gets it only once it samples.
        for (auto& [name, run] : mRuns) {
            const bool lockedList = !findEntry(name)->listWithoutLock;
            while (run.thread.joinable() && !run.done) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                if (!run.done && (lockedList || run.sampling))
                    mEvents->deliver(meter(name), name == "VmRss" ? stop : end);
            }
        }
    }
    for (auto& [name, run] : mRuns) {
        if (run.thread.joinable())
            run.thread.join();
    }
    if (mFdWatcher.joinable())
        mFdWatcher.join();
    if (mEvents != nullptr)
        mEvents->stop();
    if (mApp != nullptr)
        mApp->stop();
}

void DemoRun::collectSamplingReadings() {
    for (const char* name : kSamplingMeters)
        mFinal[name] = readMeter(name, meter(name), false);
    auto& launch = dynamic_cast<LaunchMeter&>(meter("Launch"));
    LLFeaturesList& f = launch.mFeatures;
    mChart.title = mOptions.package + ": the launch as the Launch meter sampled it";
    mChart.sampleMs = meters::kLaunchSamplePeriodMs;
    mChart.vmRssKb = f.mVmRss;
    mChart.oomScore = f.mOOMScroe;
    mChart.fdCount = f.mFDCount;
    if (f.mEpDone) {
        // The duration counts from the meter's start(), which came a little after the launch
        // start: the end point's sample time plus the time the pid hunt took.
        const double startedMs = mRuns.at("Launch").startedMs;
        mChart.endPointMs = startedMs + launch.mLaunchDuration;
        mChart.offsetMs = mChart.endPointMs - f.mEp * meters::kLaunchSamplePeriodMs;
    }
    if (const AppReport* last = lastStep()) {
        const auto at = [this](int64_t ns) {
            return mTime->msAt(SimTime::Clock::time_point(std::chrono::nanoseconds(ns)));
        };
        mChart.settledFromMs = at(last->beganNs);
        mChart.settledToMs = at(last->doneNs) + kSettleSlackMs;
    }
}

json DemoRun::writeOutputs(double elapsedMs) {
    json files = json::object();
    auto write = [&](const std::string& name, const std::string& text, const std::string& what) {
        std::ofstream out(mOutDir / name);
        out << text;
        if (!out.flush())
            throw std::runtime_error("cannot write " + (mOutDir / name).string());
        files[name] = what;
    };
    write("launch.svg", launchSvg(mChart), "the launch's three series and its end point");
    std::ostringstream rows;
    rows << "ms,meter,reading,value,unit\n";
    for (const ReaderRow& row : mReaderRows) {
        rows << std::lround(row.ms) << "," << row.meter << "," << row.reading.label << ","
             << formatValue(row.reading.value) << "," << row.reading.unit << "\n";
    }
    write("readings.csv", rows.str(), "every reading of the five reader meters");
    if (!mLaunchCsv.empty())
        files[mLaunchCsv] = "the Launch meter's feature export";
    if (!mVmRssCsv.empty())
        files[mVmRssCsv] = "the VmRss meter's sample series";
    files["meters.log"] = "the meters' log lines";

    json meters = json::object();
    for (const auto& [name, readings] : mFinal)
        meters[name] = readingsJson(readings);
    json steps = json::array();
    for (const AppReport& r : mSteps) {
        const auto at = [this](int64_t ns) {
            return mTime->msAt(SimTime::Clock::time_point(std::chrono::nanoseconds(ns)));
        };
        steps.push_back({{"began_ms", at(r.beganNs)},
                         {"done_ms", at(r.doneNs)},
                         {"anon_swap_kb", r.anonSwapKb},
                         {"rss_swap_kb", r.rssSwapKb},
                         {"descriptors", r.descriptors},
                         {"oom_score_adj", r.oomScoreAdj}});
    }
    json launch = {{"end_point_ms", mChart.endPointMs >= 0 ? json(mChart.endPointMs) : json()},
                   {"settled_from_ms", mChart.settledFromMs},
                   {"settled_to_ms", mChart.settledToMs},
                   {"sample_offset_ms", mChart.offsetMs},
                   {"vmrss_kb", mChart.vmRssKb},
                   {"oom_score", mChart.oomScore},
                   {"fd_count", mChart.fdCount}};
    std::string verdict = "no end point";
    if (mChart.endPointMs >= 0 && mChart.settledFromMs >= 0) {
        verdict = mChart.endPointMs < mChart.settledFromMs ? "before"
                  : mChart.endPointMs > mChart.settledToMs ? "after"
                                                           : "inside";
    }
    launch["verdict"] = verdict;
    json summary = {{"package", mOptions.package},
                    {"pid", mPid},
                    {"speed", mOptions.speed},
                    {"activity_ms", kDemoActivityMs},
                    {"elapsed_ms", elapsedMs},
                    {"device_root", mDevice != nullptr ? mDevice->root() : ""},
                    {"app",
                     {{"ready",
                       {{"anon_swap_kb", mReady.anonSwapKb},
                        {"rss_swap_kb", mReady.rssSwapKb},
                        {"descriptors", mReady.descriptors},
                        {"oom_score_adj", mReady.oomScoreAdj}}},
                      {"steps", steps}}},
                    {"launch", launch},
                    {"readers_final_ms", mFinalReadMs},
                    {"meters", meters},
                    {"files", files}};
    files["summary.json"] = "this summary";
    summary["files"] = files;
    write("summary.json", summary.dump(2) + "\n", "this summary");
    return summary;
}

void DemoRun::printSummary(const json& s) {
    const json& launch = s["launch"];
    mOut << "\n";
    if (const AppReport* last = lastStep()) {
        mOut << "The app grew its anonymous memory in " << kAppStepCount << " steps to "
             << megabytes(last->anonSwapKb) << ", opened " << last->descriptors - mReady.descriptors
             << " descriptors and settled " << std::lround(mChart.settledFromMs) << "-"
             << std::lround(mChart.settledToMs - kSettleSlackMs)
             << " ms after the launch start (its last step).\n";
    } else {
        mOut << "The app did not settle: " << mSteps.size() << " of " << kAppStepCount
             << " steps done.\n";
    }
    const std::string verdict = launch["verdict"];
    if (mChart.endPointMs < 0) {
        mOut << "The Launch meter found no end point.\n";
    } else {
        mOut << "The Launch meter's end point: " << std::lround(mChart.endPointMs)
             << " ms after the launch start";
        if (verdict == "inside") {
            mOut << ", inside the window in which the app settled ("
                 << std::lround(mChart.settledFromMs) << "-" << std::lround(mChart.settledToMs)
                 << " ms, its last step and two of the meter's samples).\n";
        } else if (verdict == "before") {
            mOut << ", " << std::lround(mChart.settledFromMs - mChart.endPointMs)
                 << " ms before the app's last step began.\n";
        } else if (verdict == "after") {
            mOut << ", " << std::lround(mChart.endPointMs - mChart.settledToMs + kSettleSlackMs)
                 << " ms after the app had settled.\n";
        } else {
            mOut << ".\n";
        }
    }
    mOut << "\n"
         << std::left << std::setw(14) << "Meter" << std::setw(30) << "Reading" << std::right
         << std::setw(14) << "Value"
         << "  Unit\n";
    for (const char* name : {"Launch", "VmRss", "Memory", "ProComp", "Fps", "Gpu", "SchedParams",
                             "PerfCounters", "MinDDR"}) {
        bool first = true;
        for (const Reading& r : mFinal[name]) {
            mOut << std::left << std::setw(14) << (first ? name : "") << std::setw(30) << r.label
                 << std::right << std::setw(14) << formatValue(r.value)
                 << (r.unit.empty() ? "" : "  " + r.unit) << "\n";
            first = false;
        }
        if (first)
            mOut << std::left << std::setw(14) << name << "(no reading)\n";
    }
    mOut << "\nWritten to " << mOutDir.string() << ":\n";
    for (const auto& [file, what] : s["files"].items())
        mOut << "  " << std::left << std::setw(34) << file << what.get<std::string>() << "\n";
    mOut << std::right;
}

int DemoRun::execute() {
    const auto started = SimTime::Clock::now();
    ScopedInterrupt interrupt;
    try {
        mDevice = std::make_unique<sim::Device>();
    } catch (const std::exception& e) {
        mErr << "meterctl demo: " << e.what() << "\n";
        return 1;
    }
    ScopedLogFile log((mOutDir / "meters.log").string());
    try {
        mApp = std::make_unique<AppProcess>(mExe, mOptions.package, mOptions.speed);
    } catch (const std::exception& e) {
        mErr << "meterctl demo: " << e.what() << "\n";
        return 1;
    }
    mPid = mApp->pid();
    std::optional<AppReport> ready = mApp->waitReady(kAppStartTimeout);
    if (!ready) {
        mApp->stop();
        mErr << "meterctl demo: the synthetic app (" << mExe
             << ") did not start: " << mApp->howItEnded() << "\n";
        return 1;
    }
    mReady = *ready;
    mOut << "meterctl demo: launching " << mOptions.package << " on a simulated device";
    if (mOptions.speed > 1)
        mOut << ", " << mOptions.speed << " times faster than real time";
    mOut << "\n  device   " << mDevice->root() << " (removed at the end)\n"
         << "  output   " << mOutDir.string() << "\n"
         << "  schedule " << seconds(kDemoActivityMs) << " of activity; press Ctrl-C to stop\n";

    std::string failure;
    mTime = std::make_unique<SimTime>(mOptions.speed);  // the launch starts now
    try {
        ScopedHost host(mDevice->root(), mOptions.package, *mTime, mPid);
        ScopedMeterTime meterTime(*mTime, [this](uint32_t us) { onMeterSleep(us); });
        mDevice->start(*mTime);
        try {
            startLaunch();
            mainLoop();
            if (!mInterrupted)
                pollReaders(mTime->ms(), true);
        } catch (const std::exception& e) {
            failure = e.what();
        }
        mProgress.finish();
        if (!mInterrupted && failure.empty())
            mOut << seconds(mTime->ms()) << ": the activity ends; stopping the meters\n";
        stopEverything();
        if (!mInterrupted && failure.empty()) {
            handleAppReports();
            collectSamplingReadings();
        }
        mMeters.clear();  // MinDDR's worker is joined here
        mDevice->stop();
    } catch (const std::exception& e) {
        failure = e.what();
    }
    if (!mInterrupted && failure.empty()) {
        // The meters' own CSV files, from the device's /data/vendor/zq/.
        const std::pair<std::string, std::string*> csvs[] = {
            {mOptions.package + ".csv", &mLaunchCsv},
            {mOptions.package + "_vmrss.csv", &mVmRssCsv}};
        for (const auto& [name, kept] : csvs) {
            std::error_code error;
            if (fs::copy_file(mDevice->real(std::string(sim::kCsvDir) + "/" + name), mOutDir / name,
                              error))
                *kept = name;
        }
    }
    mDevice->remove();
    if (mInterrupted) {
        mErr << "meterctl demo: interrupted: the meters were stopped, the app ended and the "
                "simulated device removed; nothing was written\n";
        return kInterrupted;
    }
    if (!failure.empty()) {
        mErr << "meterctl demo: " << failure << " (the meters' log is in "
             << (mOutDir / "meters.log").string() << ")\n";
        return 1;
    }
    try {
        const double elapsedMs =
            std::chrono::duration<double, std::milli>(SimTime::Clock::now() - started).count();
        printSummary(writeOutputs(elapsedMs));
        mOut << "Done in " << seconds(elapsedMs) << ".\n";
    } catch (const std::exception& e) {
        mErr << "meterctl demo: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

fs::path defaultOutDir() {
    const std::time_t now = std::time(nullptr);
    std::tm tm;
    localtime_r(&now, &tm);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &tm);
    fs::path dir = fs::current_path() / (std::string("meterctl-demo-") + stamp);
    for (int n = 2; fs::exists(dir); ++n)
        dir =
            fs::current_path() / (std::string("meterctl-demo-") + stamp + "-" + std::to_string(n));
    return dir;
}

// The output folder, absolute (the demo changes its working directory while it runs), made
// and empty; throws with the reason when it cannot be. made: whether the demo made it.
fs::path prepareOutDir(const std::string& out, bool& made) {
    const fs::path dir = out.empty() ? defaultOutDir() : fs::absolute(out);
    std::error_code error;
    made = !fs::exists(dir, error);
    if (!made) {
        if (!fs::is_directory(dir, error))
            throw std::runtime_error("--out " + out + ": exists and is not a directory");
        if (!fs::is_empty(dir, error))
            throw std::runtime_error("--out " + out + ": the folder is not empty");
    }
    fs::create_directories(dir, error);
    if (error)
        throw std::runtime_error("cannot create the output folder " + dir.string() + ": " +
                                 error.message());
    if (access(dir.c_str(), W_OK) != 0)
        throw std::runtime_error("cannot write into " + dir.string() + ": " + strerror(errno));
    return dir;
}

}  // namespace

std::string packageProblem(const std::string& name) {
    if (name.empty())
        return "is empty";
    if (name.size() > 100)
        return "is longer than 100 characters";
    for (char c : name) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-')
            return "may hold only letters, digits, '.', '_' and '-'";
    }
    if (name[0] == '.' || name[0] == '-')
        return "must not begin with '.' or '-'";
    return "";
}

Progress::Progress(std::ostream& out, bool terminal, double totalMs)
    : mOut(out), mTerminal(terminal), mTotalMs(totalMs) {}

void Progress::event(double ms, const std::string& what) {
    char stamp[32];
    snprintf(stamp, sizeof(stamp), "%7.2f s  ", ms / 1000);
    if (mTerminal && mDrawn)
        mOut << "\r\x1b[K";
    mOut << stamp << what << "\n";
    mDrawn = false;
    if (mTerminal && !mState.empty())
        draw();
    mOut.flush();
}

void Progress::status(double ms, const std::string& state) {
    mMs = ms;
    mState = state;
    if (mTerminal) {
        draw();
        mOut.flush();
    }
}

void Progress::draw() {
    char stamp[48];
    snprintf(stamp, sizeof(stamp), "[%5.1f/%.1f s] ", mMs / 1000, mTotalMs / 1000);
    mOut << "\r\x1b[K" << stamp << mState;
    mDrawn = true;
}

void Progress::finish() {
    if (mTerminal && mDrawn)
        mOut << "\r\x1b[K";
    mDrawn = false;
    mState.clear();
    mOut.flush();
}

int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err, bool terminal) {
    if (const std::string problem = packageProblem(options.package); !problem.empty()) {
        err << "meterctl demo: --package " << options.package << ": " << problem << "\n";
        return 1;
    }
    std::string exe = options.appExe;
    if (exe.empty()) {
        std::error_code error;
        exe = fs::read_symlink("/proc/self/exe", error).string();
    }
    if (access(exe.c_str(), X_OK) != 0) {
        err << "meterctl demo: cannot run the synthetic app " << exe << ": " << strerror(errno)
            << "\n";
        return 1;
    }
    if (!processesNamed(options.package).empty()) {
        err << "meterctl demo: a process named " << options.package
            << " is running already: the meters would not know which is the app; choose "
               "another --package\n";
        return 1;
    }
    fs::path outDir;
    bool made = false;
    try {
        outDir = prepareOutDir(options.out, made);
    } catch (const std::exception& e) {
        err << "meterctl demo: " << e.what() << "\n";
        return 1;
    }
    int code;
    {
        DemoRun run(options, exe, outDir, out, err, terminal);
        code = run.execute();
    }
    if (code == kInterrupted) {  // nothing half-written stays behind
        std::error_code error;
        if (made)
            fs::remove_all(outDir, error);
        else
            fs::remove(outDir / "meters.log", error);
    }
    return code;
}

void addDemoCommand(CLI::App& app, Output& io) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* demo = app.add_subcommand(
        "demo",
        "Launches a synthetic app on a simulated device and measures it with all nine "
        "meters; writes a picture of the launch, the meters' CSV files and a JSON summary.");
    demo->add_option("--out", options->out,
                     "Output folder (default: meterctl-demo-<date>-<time> here); must be new or "
                     "empty");
    demo->add_option("--speed", options->speed,
                     "Run the schedule this many times faster than real time")
        ->check(CLI::Range(1, 20));
    demo->add_option("--package", options->package, "The app's package name, its command line")
        ->check([](const std::string& name) { return packageProblem(name); });
    demo->add_option("--app-exe", options->appExe, "The program started as the app")->group("");
    demo->callback([options, &io] {
        const bool terminal = &io.out == &std::cout && isatty(STDOUT_FILENO) != 0;
        const int code = runDemo(*options, io.out, io.err, terminal);
        if (code != 0)
            throw CLI::RuntimeError(code);
    });

    // The synthetic app itself, started by the demo with the package name as argv[0].
    auto speed = std::make_shared<int>(1);
    CLI::App* appCommand = app.add_subcommand("app", "");
    appCommand->group("");
    appCommand->add_option("--speed", *speed);
    appCommand->callback([speed] {
        const int code = runSyntheticApp(*speed, STDIN_FILENO, STDOUT_FILENO);
        if (code != 0)
            throw CLI::RuntimeError(code);
    });
}

}  // namespace meterctl
