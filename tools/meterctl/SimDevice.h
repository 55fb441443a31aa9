// The simulated device of `meterctl demo`: a tree of the nodes the reader meters read (display,
// GPU, scheduler, instruction counters, memory-latency votes), a top-app cpuset, and the kernel's
// own /proc, under a temporary root that METERS_ROOT points at. The node values follow one
// application launch: a burst while the app starts, a settling phase, then a steady idle.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace meterctl {

class SimTime;

namespace sim {

// The phases of the launch as the device lives it, in ms after the launch start.
constexpr double kBurstEndMs = 1200;
constexpr double kSettledMs = 3000;

constexpr int kGpuLevels = 6;
// The GPU's frequency levels in the driver's order, Hz, and its maximum clock.
constexpr std::array<int, kGpuLevels> kGpuFrequenciesHz = {840000000, 745000000, 650000000,
                                                           545000000, 441600000, 305000000};
constexpr int kGpuMaxClockHz = 840000000;
// The memory-latency governors' frequencies.
const std::vector<int>& memlatFrequencies();

// What the device's nodes say at one moment.
struct DeviceState {
    double fps;  // measured over the driver's 500 ms period
    int frames;
    int gpuBusyPercent;
    std::array<double, kGpuLevels> gpuLevelShare;  // of the busy time, per level
    int64_t gpuMemoryKb;                           // what the app holds through the GPU driver
    int topAppLoad;                                // percent
    int bigRunQueue;
    std::array<int, 3> clusterLoad;      // percent, per cluster
    std::array<int, 3> clusterCapacity;  // of 1024, per cluster
    int64_t bigInstructions;             // per second, big and little clusters
    int64_t littleInstructions;
    int ipc;
    int bigVote;  // memory-latency votes, kHz
    int littleVote;
};

// The state at ms after the launch start. Pure: the same ms gives the same state.
DeviceState deviceStateAt(double ms);

// Node paths (as the meters name them) and their texts for a state. Each text keeps one length
// over the whole run, so that a reader never sees a node shrink or grow while it is rewritten.
// gpuBusyUs is the GPU's cumulative busy time per level.
std::map<std::string, std::string> nodeTexts(const DeviceState& state,
                                             const std::array<int64_t, kGpuLevels>& gpuBusyUs);

constexpr char kTopAppTasks[] = "/dev/cpuset/top-app/tasks";
constexpr char kCsvDir[] = "/data/vendor/zq";
constexpr char kCpuInstructionsNode[] = "/sys/kernel/oxa_perf/cpu_instructions";
constexpr char kSchedRegisterNode[] = "/sys/module/oxa_performance/parameters/core_ctl_register";

// The device under a fresh temporary directory; removed with it.
class Device {
  public:
    // Builds the tree in a new directory under $TMPDIR (or /tmp), with the state at 0 ms.
    // Throws std::runtime_error with the reason when it cannot.
    Device();
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    const std::string& root() const { return mRoot; }
    // The real path of a device path.
    std::string real(const std::string& path) const { return mRoot + path; }
    void writeFile(const std::string& path, const std::string& text) const;
    std::string readFile(const std::string& path) const;

    // Moves the nodes along with time, every 100 ms of it, until stop().
    void start(const SimTime& time);
    void stop();
    // Removes the tree (the /proc link, not what it points at).
    void remove();

  private:
    void update(double ms, double stepMs);

    std::string mRoot;
    std::map<std::string, int> mFds;  // the moving nodes, kept open and written in place
    std::map<std::string, std::string> mTexts;
    std::array<int64_t, kGpuLevels> mGpuBusyUs;
    std::mutex mStopMutex;
    std::condition_variable mStopCv;
    bool mStop = false;  // guarded by mStopMutex
    std::thread mThread;
};

}  // namespace sim
}  // namespace meterctl
