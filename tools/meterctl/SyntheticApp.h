// The synthetic application of `meterctl demo`: a real process whose command line is a package
// name and which launches as an application does. It grows its anonymous memory, opens
// descriptors and has its OOM score lowered in steps on a fixed schedule, then settles and
// idles. It is meterctl itself, started again as `<package> app --speed N`: posix_spawn is safe
// while the demo's threads run, the kernel sets /proc/<pid>/cmdline to the package name at exec,
// and the new image starts with a small anonymous memory of its own (a forked copy of the demo
// would share, and be charged with, the demo's pages). It reports every step, with the time on
// the monotonic clock, on its standard output, and ends when its standard input closes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace meterctl {

struct AppStep {
    double atMs;      // simulated ms after the launch start
    int floorMb;      // anonymous memory grows to at least this...
    int descriptors;  // opened in the step
    int oomScoreAdj;  // in effect at the end of the step
};
// ... and to at least this many times what it held before the step: each step then at least
// doubles the memory that a change detector compares with, whatever the app started with.
constexpr double kGrowthFactor = 2.25;
constexpr AppStep kAppSteps[] = {{100, 12, 6, 600}, {450, 28, 12, 400}, {1000, 64, 18, 200}};
constexpr int kAppStepCount = sizeof(kAppSteps) / sizeof(kAppSteps[0]);
// A process waiting in the background before its launch.
constexpr int kCachedOomScoreAdj = 900;

// One line the app reports: that it is ready (step 0, began = done = the time), or a step.
struct AppReport {
    bool ready = false;
    int step = 0;         // 1-based
    int64_t beganNs = 0;  // steady clock
    int64_t doneNs = 0;
    int64_t anonSwapKb = 0;  // RssAnon + VmSwap: what the launch meters sample
    int64_t rssSwapKb = 0;   // VmRSS + VmSwap: what the statistics service gives
    int descriptors = 0;
    int oomScoreAdj = 0;
};
// Formats into buf without allocating (the app reports after it has settled); the length.
size_t formatAppReport(const AppReport& report, char* buf, size_t size);
std::optional<AppReport> parseAppReport(const std::string& line);

// The processes (under the real /proc) whose command line's first argument is name.
std::vector<pid_t> processesNamed(const std::string& name);

// The app's body: waits for a byte on inFd to begin its launch, reports on outFd, and returns
// once inFd reaches its end.
int runSyntheticApp(int speed, int inFd, int outFd);

// The demo's side of the app.
class AppProcess {
  public:
    // Starts exe as `<package> app --speed <speed>`; throws std::runtime_error with the reason.
    AppProcess(const std::string& exe, const std::string& package, int speed);
    ~AppProcess();
    AppProcess(const AppProcess&) = delete;
    AppProcess& operator=(const AppProcess&) = delete;

    pid_t pid() const { return mPid; }
    // Waits up to timeout for the ready report.
    std::optional<AppReport> waitReady(std::chrono::milliseconds timeout);
    // Lets the app begin its launch.
    void go();
    // The reports that have arrived since the last call, without waiting.
    std::vector<AppReport> poll();
    // Whether the process has ended (it is reaped then), and how.
    bool ended();
    std::string howItEnded() const;
    // Closes its input, waits for it to end, kills it if it lingers, and reaps it.
    void stop();

  private:
    void readAvailable(std::vector<AppReport>& reports);

    pid_t mPid = -1;
    int mToApp = -1;
    int mFromApp = -1;
    std::string mPending;  // an unfinished line
    int mStatus = 0;
    bool mReaped = false;
};

}  // namespace meterctl
