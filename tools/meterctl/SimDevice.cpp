#include "SimDevice.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "SimTime.h"

namespace meterctl {
namespace sim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kTickMs = 100;

constexpr char kFpsNode[] = "/sys/class/drm/rvo-crtc-0/measured_fps";
constexpr char kFpsPeriodNode[] = "/sys/class/drm/rvo-crtc-0/fps_periodicity_ms";
constexpr char kGpuDir[] = "/sys/class/tesk/tesk-3d0/";
constexpr char kSchedDir[] = "/sys/module/oxa_performance/notify/";
constexpr char kBigVoteNode[] = "/sys/class/devfreq/soc:vedra,memlat-cpu6/cur_freq";
constexpr char kLittleVoteNode[] = "/sys/class/devfreq/soc:vedra,memlat-cpu0/cur_freq";
constexpr char kMemlatFrequenciesNode[] =
    "/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies";

// The GPU's busy time per level since boot when the demo begins, us.
constexpr std::array<int64_t, kGpuLevels> kBootGpuBusyUs = {312000000,  845000000,  1460000000,
                                                            2210000000, 3930000000, 9120000000};

// A slow swing between -1 and 1: the small movements of a real device's values.
double swing(double ms, double periodMs) {
    return std::sin(2 * kPi * ms / periodMs);
}

int swingInt(double ms, double periodMs, double amplitude) {
    return static_cast<int>(std::lround(amplitude * swing(ms, periodMs)));
}

// Textures go up while the first frames are drawn, then the app lets part of them go.
int64_t gpuMemoryKbAt(double ms) {
    constexpr double kRiseFromMs = 100, kPeakFromMs = 600, kPeakToMs = 1200, kSteadyFromMs = 1400;
    constexpr double kPeakKb = 98304, kSteadyKb = 65536;
    double kb;
    if (ms < kRiseFromMs) {
        kb = 0;
    } else if (ms < kPeakFromMs) {
        kb = kPeakKb * (ms - kRiseFromMs) / (kPeakFromMs - kRiseFromMs);
    } else if (ms < kPeakToMs) {
        kb = kPeakKb;
    } else if (ms < kSteadyFromMs) {
        kb = kPeakKb - (kPeakKb - kSteadyKb) * (ms - kPeakToMs) / (kSteadyFromMs - kPeakToMs);
    } else {
        kb = kSteadyKb;
    }
    return static_cast<int64_t>(kb);
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

// Texts written once: what the drivers list, and what the meters write themselves.
std::map<std::string, std::string> staticTexts() {
    std::string gpuFrequencies, memlat;
    for (int hz : kGpuFrequenciesHz)
        gpuFrequencies += (gpuFrequencies.empty() ? "" : " ") + std::to_string(hz);
    // One blank between the entries and none after: the governor's reader splits on each blank.
    for (int khz : memlatFrequencies())
        memlat += (memlat.empty() ? "" : " ") + std::to_string(khz);
    return {{std::string(kGpuDir) + "gpu_available_frequencies", gpuFrequencies + "\n"},
            {std::string(kGpuDir) + "max_gpuclk", std::to_string(kGpuMaxClockHz) + "\n"},
            {kMemlatFrequenciesNode, memlat + "\n"},
            {kFpsPeriodNode, "1000"},
            {kSchedRegisterNode, "0"},
            {kTopAppTasks, ""}};
}

std::runtime_error failure(const std::string& what, const std::string& path) {
    return std::runtime_error(what + " " + path + ": " + strerror(errno));
}

}  // namespace

const std::vector<int>& memlatFrequencies() {
    static const std::vector<int> frequencies = {200000,  451000,  547000,  681000,  768000,
                                                 1017000, 1353000, 1555000, 1708000, 2092000};
    return frequencies;
}

DeviceState deviceStateAt(double ms) {
    DeviceState s{};
    if (ms < kBurstEndMs) {  // the app starts: frames are late, every cluster works
        s.fps = 41.0 + 6.0 * swing(ms, 700);
        s.gpuBusyPercent = 88 + swingInt(ms, 500, 5);
        s.gpuLevelShare = {0.55, 0.30, 0.15, 0, 0, 0};
        s.topAppLoad = 86 + swingInt(ms, 400, 6);
        s.bigRunQueue = 4;
        s.clusterLoad = {72, 91, 95};
        s.clusterCapacity = {1024, 1024, 1024};
        s.bigInstructions = 5400000000;
        s.littleInstructions = 2100000000;
        s.ipc = 2;
        s.bigVote = 1555000;
        s.littleVote = 1017000;
    } else if (ms < kSettledMs) {  // the first screen is up; work tails off
        s.fps = 55.0 + 3.0 * swing(ms, 900);
        s.gpuBusyPercent = 34 + swingInt(ms, 800, 4);
        s.gpuLevelShare = {0, 0.20, 0.40, 0.40, 0, 0};
        s.topAppLoad = 38 + swingInt(ms, 700, 5);
        s.bigRunQueue = 1;
        s.clusterLoad = {30, 44, 18};
        s.clusterCapacity = {820, 700, 610};
        s.bigInstructions = 1800000000;
        s.littleInstructions = 1100000000;
        s.ipc = 1;
        s.bigVote = 1017000;
        s.littleVote = 547000;
    } else {  // idle on the app's first screen
        s.fps = 59.94;
        s.gpuBusyPercent = 9 + swingInt(ms, 2300, 3);
        s.gpuLevelShare = {0, 0, 0, 0, 0.25, 0.75};
        s.topAppLoad = 12 + swingInt(ms, 1900, 4);
        s.bigRunQueue = 0;
        s.clusterLoad = {11, 7, 2};
        s.clusterCapacity = {410, 300, 205};
        s.bigInstructions = 600000000;
        s.littleInstructions = 900000000;
        s.ipc = 1;
        s.bigVote = 768000;
        s.littleVote = 451000;
    }
    s.frames = static_cast<int>(std::lround(s.fps * 0.5));
    s.gpuMemoryKb = gpuMemoryKbAt(ms);
    return s;
}

std::map<std::string, std::string> nodeTexts(const DeviceState& s,
                                             const std::array<int64_t, kGpuLevels>& gpuBusyUs) {
    std::string clockStats;
    for (int64_t us : gpuBusyUs)
        clockStats += format("%s%12lld", clockStats.empty() ? "" : " ", static_cast<long long>(us));
    const std::string gpu = kGpuDir, sched = kSchedDir;
    const int64_t cycles = (s.bigInstructions + s.littleInstructions) / (s.ipc > 0 ? s.ipc : 1);
    return {
        {kFpsNode, format("fps: %6.2f duration: 500 frame_count: %4d\n", s.fps, s.frames)},
        {gpu + "gpu_busy_percentage", format("%3d %%\n", s.gpuBusyPercent)},
        {gpu + "gpu_clock_stats", clockStats + "\n"},
        {sched + "aggr_top_load", format("%4d\n", s.topAppLoad)},
        {sched + "aggr_big_nr", format("%3d\n", s.bigRunQueue)},
        {sched + "top_load_cluster",
         format("%3d %3d %3d\n", s.clusterLoad[0], s.clusterLoad[1], s.clusterLoad[2])},
        {sched + "curr_cap_cluster",
         format("%4d %4d %4d\n", s.clusterCapacity[0], s.clusterCapacity[1], s.clusterCapacity[2])},
        {kCpuInstructionsNode,
         format("%11lld:%3d:%11lld:%12lld\n", static_cast<long long>(s.bigInstructions), s.ipc,
                static_cast<long long>(s.littleInstructions), static_cast<long long>(cycles))},
        {kBigVoteNode, format("%7d\n", s.bigVote)},
        {kLittleVoteNode, format("%7d\n", s.littleVote)},
    };
}

Device::Device() : mGpuBusyUs(kBootGpuBusyUs) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                          "/meterctl-demo-device-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw failure("cannot create the simulated device in", pattern);
    mRoot = pattern;
    try {
        std::error_code error;
        std::filesystem::create_directories(real(kCsvDir), error);
        // The launching app's /proc entries are the kernel's own.
        std::filesystem::create_directory_symlink("/proc", real("/proc"), error);
        if (error)
            throw std::runtime_error("cannot link " + real("/proc") + ": " + error.message());
        for (const auto& [path, text] : staticTexts())
            writeFile(path, text);
        mTexts = nodeTexts(deviceStateAt(0), mGpuBusyUs);
        for (const auto& [path, text] : mTexts) {
            writeFile(path, text);
            const int fd = open(real(path).c_str(), O_WRONLY | O_CLOEXEC);
            if (fd < 0)
                throw failure("cannot open", real(path));
            mFds[path] = fd;
        }
    } catch (...) {
        remove();
        throw;
    }
}

Device::~Device() {
    stop();
    remove();
}

void Device::writeFile(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(real(path)).parent_path());
    std::ofstream out(real(path), std::ios::trunc);
    out << text;
    if (!out.flush())
        throw failure("cannot write", real(path));
}

std::string Device::readFile(const std::string& path) const {
    std::ifstream in(real(path));
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void Device::update(double ms, double stepMs) {
    const DeviceState state = deviceStateAt(ms);
    for (int level = 0; level < kGpuLevels; ++level) {
        mGpuBusyUs[level] += static_cast<int64_t>(stepMs * 1000 * state.gpuBusyPercent / 100.0 *
                                                  state.gpuLevelShare[level]);
    }
    for (auto& [path, text] : nodeTexts(state, mGpuBusyUs)) {
        std::string& old = mTexts[path];
        if (text == old)
            continue;
        // In place and at one length, as a driver's node changes: a reader that keeps the node
        // open and rewinds it sees the new text, never an empty or a shorter one.
        auto fd = mFds.find(path);
        if (fd != mFds.end() && pwrite(fd->second, text.data(), text.size(), 0) >= 0)
            old = text;
    }
}

void Device::start(const SimTime& time) {
    mThread = std::thread([this, &time] {
        double last = time.ms();
        for (double next = last + kTickMs;; next += kTickMs) {
            {
                std::unique_lock<std::mutex> lock(mStopMutex);
                if (mStopCv.wait_until(lock, time.realAt(next), [this] { return mStop; }))
                    return;
            }
            const double now = time.ms();
            update(now, now - last);
            last = now;
        }
    });
}

void Device::stop() {
    {
        std::lock_guard<std::mutex> lock(mStopMutex);
        mStop = true;
    }
    mStopCv.notify_all();
    if (mThread.joinable())
        mThread.join();
}

void Device::remove() {
    for (auto& [path, fd] : mFds)
        close(fd);
    mFds.clear();
    if (!mRoot.empty()) {
        std::error_code error;
        std::filesystem::remove_all(mRoot, error);  // does not follow the /proc link
        mRoot.clear();
    }
}

}  // namespace sim
}  // namespace meterctl
